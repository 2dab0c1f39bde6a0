#include "CNBCheckUrl.h"

#include <QPointer>

CNBCheckUrl::CNBCheckUrl(QObject* parent)
    : QObject(parent)
{
}

CNBCheckUrl::~CNBCheckUrl()
{
    disconnect(this, nullptr, nullptr, nullptr);
    if (m_pending >= 0)
        m_api.cancel(m_pending);
}

void CNBCheckUrl::checkUrl(const QString& url)
{
    m_url = url;
    m_pending = m_api.getNoRedirect(url, reporter());
}

void CNBCheckUrl::checkUrlByStep(const QString& url)
{
    m_url = url;
    m_pending = m_api.get(url, reporter());
}

NBCompletionCallback CNBCheckUrl::reporter()
{
    return [self = QPointer<CNBCheckUrl>(this)](const ResponseData& response) {
        if (!self)
            return;
        self->m_pending = -1;
        emit self->onCheckFinished(response.statusCode == 200, self->m_url);
    };
}
