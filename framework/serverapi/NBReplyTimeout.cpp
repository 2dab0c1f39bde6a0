#include "NBReplyTimeout.h"

#include <QAtomicInt>
#include <QNetworkReply>
#include <QTimer>
#include <QtDebug>

namespace {
QAtomicInt testIntervalOverride;
}

NBReplyTimeout::NBReplyTimeout(QObject* parent)
    : QObject(parent)
    , m_timer(new QTimer(this))
{
    m_timer->setSingleShot(true);
}

NBReplyTimeout::NBReplyTimeout(QNetworkReply* reply, int milliseconds)
    : QObject(reply)
    , m_reply(reply)
    , m_timer(new QTimer(this))
{
    m_interval = intervalFor(milliseconds);
    m_timer->setSingleShot(true);
    if (!reply || !reply->isRunning())
        return;
    connect(m_timer, &QTimer::timeout, this, &NBReplyTimeout::onTimeout);
    connect(reply, &QNetworkReply::uploadProgress, this, &NBReplyTimeout::onReceive);
    connect(reply, &QNetworkReply::downloadProgress, this, &NBReplyTimeout::onReceive);
    m_timer->start(m_interval);
}

void NBReplyTimeout::setTestInterval(int milliseconds)
{
    testIntervalOverride.storeRelaxed(milliseconds);
}

int NBReplyTimeout::testInterval()
{
    return testIntervalOverride.loadRelaxed();
}

int NBReplyTimeout::intervalFor(int milliseconds)
{
    const int override = testIntervalOverride.loadRelaxed();
    return override > 0 ? override : milliseconds;
}

void NBReplyTimeout::onReceive(qint64 bytes, qint64 total)
{
    Q_UNUSED(total)
    if (bytes != m_lastBytes)
        m_timer->start(m_interval);
}

void NBReplyTimeout::onTimeout()
{
    qDebug("network timeout");
    if (!m_reply || !m_reply->isRunning())
        return;
    // Handlers of timeout() may release the request; keep the reply in reach.
    QPointer<QNetworkReply> reply = m_reply;
    emit timeout();
    if (reply) {
        reply->abort();
        reply->deleteLater();
    }
}
