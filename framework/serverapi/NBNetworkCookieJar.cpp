#include "NBNetworkCookieJar.h"

NBNetworkCookieJar::NBNetworkCookieJar(QObject* parent)
    : QNetworkCookieJar(parent)
{
}

QList<QNetworkCookie> NBNetworkCookieJar::getCookies() const
{
    return allCookies();
}

void NBNetworkCookieJar::setCookies(const QList<QNetworkCookie>& cookies)
{
    setAllCookies(cookies);
}
