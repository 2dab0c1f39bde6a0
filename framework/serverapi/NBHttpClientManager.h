// The process-wide registry of live client handles, keyed by the identifiers
// that operations return, and the network settings every request reads.
#pragma once

#include "NBMutexLocker.h"

#include <QList>
#include <QMap>
#include <QMutex>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QString>

class NBHttpClient;
class QNetworkAccessManager;

class NBHttpClientManager
{
public:
    // Created on first call, never destroyed. The first call must happen before
    // requests run on several threads.
    static NBHttpClientManager* manager();

    // Registers the handle (the registry owns it from now on) under a fresh identifier.
    long long createHttpClientHandle(NBHttpClient* client);
    NBHttpClient* getHttpClient(long long id);
    // Destroys the handle and forgets the identifier; unknown identifiers are ignored.
    void destroy(long long id);
    // Closes the request's reply if it is running: on the request's thread its completion
    // follows inside this call with network error 5; from another thread the closing is
    // posted to the request's thread, whose event loop runs it and the completion.
    void cancelHttpClient(long long id);

    // The TLS configuration of every request, from the settings below.
    QSslConfiguration sslConfig() const;
    // TLS settings, outside any endpoint like the proxy's. Off by default: peers are not
    // verified. On: the system's CAs and the added ones. A pinned key is the SHA-256 of a
    // server certificate's public key (SubjectPublicKeyInfo, DER), checked on every
    // connection; empty when none.
    void setTlsVerifyPeer(bool verify) { write(m_tlsVerifyPeer, verify); }
    bool tlsVerifyPeer() const { return read(m_tlsVerifyPeer); }
    void addTlsCaCertificates(const QList<QSslCertificate>& certificates);
    void clearTlsCaCertificates() { write(m_tlsCaCertificates, {}); }
    QList<QSslCertificate> tlsCaCertificates() const { return read(m_tlsCaCertificates); }
    void setTlsPinnedKey(const QByteArray& digest) { write(m_tlsPinnedKey, digest); }
    QByteArray tlsPinnedKey() const { return read(m_tlsPinnedKey); }
    static QByteArray publicKeyDigest(const QSslCertificate& certificate);
    QNetworkAccessManager* networkMgr() const { return m_networkMgr; }

    void proxy(bool autoDetect, int scheme, const QString& host, unsigned short port, const QString& user,
        const QString& password, bool open);
    void setProxyScheme(int scheme) { write(m_proxyScheme, scheme); }
    void setProxyHostname(const QString& host) { write(m_proxyHostname, host); }
    void setProxyPort(unsigned short port) { write(m_proxyPort, port); }
    void setProxyUser(const QString& user) { write(m_proxyUser, user); }
    void setProxyPassword(const QString& password);
    void setProxyAutoDetect(bool autoDetect) { write(m_proxyAutoDetect, autoDetect); }
    void proxySwitch(bool open) { write(m_proxyIsOpen, open); }
    int proxyScheme() const { return read(m_proxyScheme); }
    QString proxyHostname() const { return read(m_proxyHostname); }
    unsigned short proxyPort() const { return read(m_proxyPort); }
    QString proxyUser() const { return read(m_proxyUser); }
    QString proxyPassword() const { return read(m_proxyPassword); }
    bool proxyAutoDetect() const { return read(m_proxyAutoDetect); }
    bool proxyIsOpen() const { return read(m_proxyIsOpen); }

    // The private-server verification code that rides as cookie "S": a copy of the
    // facade's, which keeps it equal to its endpoint's (empty without an endpoint).
    void setVerifyCode(const QString& code);
    QString verifyCode() const { return read(m_verifyCode); }

private:
    template<typename T> T read(const T& setting) const
    {
        NBMutexLocker lock(&m_settingsMutex);
        return setting;
    }
    template<typename T> void write(T& setting, const T& value)
    {
        NBMutexLocker lock(&m_settingsMutex);
        setting = value;
    }

    NBHttpClientManager();
    ~NBHttpClientManager();
    Q_DISABLE_COPY(NBHttpClientManager)

    QNetworkAccessManager* m_networkMgr;

    // Proxy and TLS settings and the verification code, under their own lock.
    mutable QMutex m_settingsMutex;
    int m_proxyScheme = 3;
    QString m_proxyHostname;
    QString m_proxyUser;
    QString m_proxyPassword;
    unsigned short m_proxyPort = 0;
    bool m_proxyAutoDetect = true;
    bool m_proxyIsOpen = false;
    QString m_verifyCode;
    bool m_tlsVerifyPeer = false;
    QList<QSslCertificate> m_tlsCaCertificates;
    QByteArray m_tlsPinnedKey;

    QMutex m_mutex;
    QMap<long long, NBHttpClient*> m_clients;
};
