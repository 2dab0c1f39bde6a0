// The inactivity timer of a reply: fires when the reply has made no progress for
// the interval, then aborts it. Child of the reply it watches, so it dies with it.
#pragma once

#include <QNetworkReply>
#include <QObject>
#include <QPointer>

class QTimer;

class NBReplyTimeout : public QObject
{
    Q_OBJECT
public:
    explicit NBReplyTimeout(QObject* parent = nullptr);
    NBReplyTimeout(QNetworkReply* reply, int milliseconds);

    int interval() const { return m_interval; }

    // Test-only: when positive, replaces every interval given to the constructor.
    // The library never calls it.
    static void setTestInterval(int milliseconds);
    static int testInterval();
    // The interval that applies: the test interval when one is set, else the one given.
    static int intervalFor(int milliseconds);

signals:
    void timeout();

public slots:
    void onTimeout();
    void onReceive(qint64 bytes, qint64 total);

private:
    QPointer<QNetworkReply> m_reply;
    // Stays 0 on purpose: every progress report with a non-zero count restarts the timer.
    qint64 m_lastBytes = 0;
    QTimer* m_timer = nullptr;
    int m_interval = 0;
};
