#include "CNBCheckUrl.h"

#include "NBReplyTimeout.h"
#include "RequestDispatcher.h"

#include <QPointer>

CNBCheckUrl::CNBCheckUrl(QObject* parent)
    : QObject(parent)
{
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, &CNBCheckUrl::expire);
}

CNBCheckUrl::~CNBCheckUrl()
{
    disconnect(this, nullptr, nullptr, nullptr);
    m_reported = true;
    if (m_pending >= 0)
        m_api.cancel(m_pending);
}

void CNBCheckUrl::checkUrl(const QString& url)
{
    start(url, NBRequestBuilder::NoRedirects);
}

void CNBCheckUrl::checkUrlByStep(const QString& url)
{
    start(url, NBRequestBuilder::FollowRedirects);
}

// Only the status counts: the body is dropped as it arrives, and the deadline bounds a
// reply that keeps trickling in, which the inactivity timer alone would let run on.
void CNBCheckUrl::start(const QString& url, NBRequestBuilder::Redirects redirects)
{
    m_url = url;
    m_deadline.start(NBReplyTimeout::intervalFor(RequestDispatcher::InactivityInterval));
    const long long id
        = m_api.probe(url, redirects, [self = QPointer<CNBCheckUrl>(this)](const ResponseData& response) {
              if (self)
                  self->report(!self->m_expired && response.statusCode == 200);
          });
    if (!m_reported)
        m_pending = id;
}

void CNBCheckUrl::expire()
{
    m_expired = true;
    if (m_pending >= 0)
        m_api.cancel(m_pending);
    report(false);
}

void CNBCheckUrl::report(bool ok)
{
    if (m_reported)
        return;
    m_reported = true;
    m_pending = -1;
    m_deadline.stop();
    emit onCheckFinished(ok, m_url);
}
