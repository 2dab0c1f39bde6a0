// A cookie jar whose whole content can be read and replaced.
#pragma once

#include <QNetworkCookie>
#include <QNetworkCookieJar>

class NBNetworkCookieJar : public QNetworkCookieJar
{
    Q_OBJECT
public:
    explicit NBNetworkCookieJar(QObject* parent = nullptr);

    QList<QNetworkCookie> getCookies() const;
    void setCookies(const QList<QNetworkCookie>& cookies);
};
