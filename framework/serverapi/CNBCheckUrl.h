// One probe of a server address: a plain GET, reported as whether it answered 200.
#pragma once

#include "NBPubServerApi.h"

#include <QObject>

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
    // Once per completion of the probe's request (twice after an inactivity time-out).
    void onCheckFinished(bool ok, const QString& url);

private:
    NBCompletionCallback reporter();

    QString m_url;
    NBPubServerApi m_api;
    long long m_pending = -1;
};
