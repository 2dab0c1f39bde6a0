// One probe of a server address: a plain GET, reported as whether it answered 200.
#pragma once

#include "NBPubServerApi.h"

#include <QObject>
#include <QTimer>

class CNBCheckUrl : public QObject
{
    Q_OBJECT
public:
    explicit CNBCheckUrl(QObject* parent = nullptr);
    // A probe still running is cancelled, and reports nothing.
    ~CNBCheckUrl() override;

    // Without following redirects.
    void checkUrl(const QString& url);
    // Following redirects; the probed address is reported, not the target.
    void checkUrlByStep(const QString& url);

signals:
    // Once per probe: at the request's first completion, or as a failure when the probe
    // outlives one inactivity interval (a server that drips its reply), whatever status
    // it has seen.
    void onCheckFinished(bool ok, const QString& url);

private:
    void start(const QString& url, NBRequestBuilder::Redirects redirects);
    void expire();
    void report(bool ok);

    QString m_url;
    NBPubServerApi m_api;
    long long m_pending = -1;
    QTimer m_deadline;
    bool m_expired = false;
    bool m_reported = false;
};
