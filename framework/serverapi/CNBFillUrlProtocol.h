// Completes a server address typed without a scheme by probing "https://" and
// "http://" in front of it. Both ways block the calling thread in a nested event loop
// until they have an answer (at most one inactivity interval per probe); the thread
// must have an event dispatcher, and must not be inside a callback of the library.
#pragma once

#include <QEventLoop>
#include <QObject>
#include <QString>

class CNBFillUrlProtocol : public QObject
{
    Q_OBJECT
public:
    explicit CNBFillUrlProtocol(QObject* parent = nullptr);

    // Both schemes at once; the first to answer 200 wins. An address that already has
    // "http://" or "https://" (in any case) is copied as it is. On failure `out` is
    // left as it was.
    bool fillUrlProtocol(const QString& in, QString& out);
    // "https://" first, "http://" only if that failed; redirects are followed.
    bool fillUrlProtocolByStep(const QString& in, QString& out);

public slots:
    void handleOnCheckFinished(bool ok, const QString& url);
    void handleOnCheckFinishedByStep(bool ok, const QString& url);

private:
    static bool refused();
    // The common start: an address with a scheme is copied (true); otherwise the
    // counters are reset for the probes (false).
    bool start(const QString& in, QString& out);
    // Starts the probe and waits for its answer, unless it came within the call.
    void runLoop();

    QEventLoop m_loop;
    int m_failures = 0;
    bool m_found = false;
    QString m_result;
    bool m_answered = false;
};
