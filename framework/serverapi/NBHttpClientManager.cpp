#include "NBHttpClientManager.h"

#include "CNBLoggerWrapper.h"
#include "NBHttpClient.h"
#include "NBLogRedactor.h"
#include "NBQtCompat.h"

#include <QCryptographicHash>
#include <QNetworkAccessManager>
#include <QSslKey>
#include <QThread>
#include <QTime>
#include <cstdlib>

NBHttpClientManager* NBHttpClientManager::manager()
{
    static NBHttpClientManager* instance = new NBHttpClientManager;
    return instance;
}

NBHttpClientManager::NBHttpClientManager()
    : m_networkMgr(new QNetworkAccessManager)
{
    NB_LOG_FATAL(QStringLiteral("设置QNetworkAccessManager"));
}

NBHttpClientManager::~NBHttpClientManager()
{
    // Handles still registered belong to requests in flight; they are not destroyed here.
    m_clients.clear();
    delete m_networkMgr;
}

long long NBHttpClientManager::createHttpClientHandle(NBHttpClient* client)
{
    // Identifiers are small random numbers, reseeded from the clock on every call; two
    // handles of the same millisecond draw the same first value, and the loop below
    // is what keeps identifiers distinct.
    const QTime now = QTime::currentTime();
    NBQtCompat::seedRandom(uint(now.second() * 1000 + now.msec()));
    NBMutexLocker lock(&m_mutex);
    long long id;
    do {
        id = NBQtCompat::random();
    } while (m_clients.contains(id));
    m_clients.insert(id, client);
    return id;
}

NBHttpClient* NBHttpClientManager::getHttpClient(long long id)
{
    NBMutexLocker lock(&m_mutex);
    return m_clients.value(id, nullptr);
}

void NBHttpClientManager::destroy(long long id)
{
    NBMutexLocker lock(&m_mutex);
    auto it = m_clients.find(id);
    if (it == m_clients.end())
        return;
    delete it.value();
    m_clients.erase(it);
}

void NBHttpClientManager::cancelHttpClient(long long id)
{
    NBMutexLocker lock(&m_mutex);
    NBHttpClient* client = m_clients.value(id, nullptr);
    if (!client)
        return;
    NB_LOG_FATAL(QStringLiteral("取消请求ID %1").arg(id));
    RequestDispatcher* dispatcher = client->dispatcher();
    if (dispatcher->thread() != QThread::currentThread()) {
        // Posted under the lock: the dispatcher outlives the post, since only destroy,
        // which waits for the lock, schedules its deletion, and a deletion that comes
        // first drops the posted call with it.
        QMetaObject::invokeMethod(dispatcher, &RequestDispatcher::cancel, Qt::QueuedConnection);
        return;
    }
    lock.unlock();
    client->cancel();
}

QSslConfiguration NBHttpClientManager::sslConfig() const
{
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    NBMutexLocker lock(&m_settingsMutex);
    // Unless the host asks for verification, no server certificate is verified.
    config.setPeerVerifyMode(m_tlsVerifyPeer ? QSslSocket::VerifyPeer : QSslSocket::VerifyNone);
    if (m_tlsVerifyPeer && !m_tlsCaCertificates.isEmpty()) {
        // Setting any CA list stops the on-demand loading of the system's: they are read once.
        static const QList<QSslCertificate> system = QSslConfiguration::systemCaCertificates();
        config.setCaCertificates(system + m_tlsCaCertificates);
    }
    return config;
}

void NBHttpClientManager::addTlsCaCertificates(const QList<QSslCertificate>& certificates)
{
    NBMutexLocker lock(&m_settingsMutex);
    m_tlsCaCertificates += certificates;
}

QByteArray NBHttpClientManager::publicKeyDigest(const QSslCertificate& certificate)
{
    return QCryptographicHash::hash(certificate.publicKey().toDer(), QCryptographicHash::Sha256);
}

void NBHttpClientManager::proxy(bool autoDetect, int scheme, const QString& host, unsigned short port,
    const QString& user, const QString& password, bool open)
{
    NBMutexLocker lock(&m_settingsMutex);
    m_proxyAutoDetect = autoDetect;
    m_proxyScheme = scheme;
    m_proxyHostname = host;
    m_proxyPort = port;
    m_proxyUser = user;
    m_proxyPassword = password;
    m_proxyIsOpen = open;
    NBLogRedactor::remember(NBLogRedactor::ProxyPassword, password);
}

void NBHttpClientManager::setProxyPassword(const QString& password)
{
    write(m_proxyPassword, password);
    NBLogRedactor::remember(NBLogRedactor::ProxyPassword, password);
}

void NBHttpClientManager::setVerifyCode(const QString& code)
{
    write(m_verifyCode, code);
    NBLogRedactor::remember(NBLogRedactor::VerifyCode, code);
}
