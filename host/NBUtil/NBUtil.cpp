#include "NBUtil.h"

#include <QNetworkProxyFactory>
#include <QUrl>

QNetworkProxy NBUtil::getSystemProxy(const QString& address)
{
    const QNetworkProxyQuery query(QUrl(address, QUrl::TolerantMode));
    const QList<QNetworkProxy> proxies = QNetworkProxyFactory::systemProxyForQuery(query);
    return proxies.isEmpty() ? QNetworkProxy(QNetworkProxy::NoProxy) : proxies.first();
}
