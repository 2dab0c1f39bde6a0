#include "NBServerApi.h"

#include "CNBLoggerWrapper.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"

#include <NBConfigure.h>
#include <QUrl>
#include <QUrlQuery>

NBServerApi::NBServerApi()
    : m_version(QStringLiteral("v2"))
{
}

NBServerApi::~NBServerApi() = default;

QString NBServerApi::combineReqUrl(const QString& base, const QString& version, const QString& path)
{
    QString address = base;
    if (address.endsWith(QLatin1Char('/')))
        address.chop(1);
    QUrl url(address, QUrl::TolerantMode);
    if (!url.scheme().startsWith(QLatin1String("http"))) {
        // Typed without a scheme, "host:8080" would parse with "host" as its scheme.
        if (address.startsWith(url.scheme() + QLatin1String("://"), Qt::CaseInsensitive))
            url.setScheme(QStringLiteral("http"));
        else
            url = QUrl(QStringLiteral("http://") + address, QUrl::TolerantMode);
    }
    if (url.host().isEmpty()) {
        url.setHost(url.path(QUrl::FullyDecoded));
        url.setPath(QString());
    }

    // The base address's own path is not kept.
    QString fullPath;
    if (!version.isEmpty())
        fullPath += QLatin1Char('/') + version;
    if (!path.isEmpty()) {
        if (!path.startsWith(QLatin1Char('/')))
            fullPath += QLatin1Char('/');
        fullPath += path;
    }
    url.setPath(fullPath, QUrl::DecodedMode);
    return url.toString(QUrl::FullyEncoded);
}

QString NBServerApi::combinPath(const QString& a, const QString& b)
{
    if (b.isEmpty())
        return a;
    if (a.endsWith(QLatin1Char('/')) || b.startsWith(QLatin1Char('/')))
        return a + b;
    return a + QLatin1Char('/') + b;
}

QString NBServerApi::cookie()
{
    QString text;
    const QString lang = language();
    if (!lang.isEmpty())
        text += QStringLiteral("language=") + lang + QLatin1Char(';');
    const QString session = sessionID();
    if (!session.isEmpty())
        text += COOKIE_SESSION + QLatin1Char('=') + session + QLatin1Char(';');
    return text;
}

void NBServerApi::httpClientDefaultHeader(NBHttpClient* client)
{
    const QString agent = userAgent();
    if (!agent.isEmpty())
        client->header(QStringLiteral("User-Agent"), agent);
    const QString text = cookie();
    if (!text.isEmpty())
        client->header(QStringLiteral("Cookie"), text);
}

// A stored session makes the cookie name the session twice, the stored one first;
// servers take the operation's own, which comes last.
void NBServerApi::setHttpHeaderSession(NBHttpClient* client, const QString& session)
{
    if (session.isEmpty())
        return;
    client->header(
        QStringLiteral("Cookie"), cookie() + COOKIE_SESSION + QLatin1Char('=') + session + QLatin1Char(';'));
}

// A POST carries the code in its address, never in its form body.
void NBServerApi::privateCloudDefaultParams(NBHttpClient* client)
{
    const QString code = priServerVerifyCode();
    if (code.isEmpty())
        return;
    if (client->method() == POST) {
        QUrl url(client->url(), QUrl::TolerantMode);
        QUrlQuery query(url);
        query.removeAllQueryItems(QStringLiteral("S"));
        query.addQueryItem(QStringLiteral("S"), QString::fromLatin1(QUrl::toPercentEncoding(code)));
        url.setQuery(query);
        client->setUrl(url.toString(QUrl::FullyEncoded));
    } else {
        client->param(QStringLiteral("S"), code);
    }
}

QString NBServerApi::boolToString(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

void NBServerApi::cancel(long long id)
{
    NBHttpClientManager::manager()->cancelHttpClient(id);
}

long long NBServerApi::getNoRedirect(const QString& url, NBCompletionCallback done)
{
    return requestTo(url).send(std::move(done), NBRequestBuilder::NoRedirects);
}

long long NBServerApi::get(const QString& url, NBCompletionCallback done)
{
    return requestTo(url).send(std::move(done));
}

long long NBServerApi::post(const QString& url, QMap<QString, QString> params, NBCompletionCallback done)
{
    return requestTo(url).method(POST).params(params).send(std::move(done));
}

void NBServerApi::setBaseUrlString(const QString& url)
{
    NB_LOG_FATAL(QStringLiteral("设置base url %1").arg(url));
    write(m_baseUrl, url);
}

QString NBServerApi::baseUrlString()
{
    const QString url = read(m_baseUrl);
    NB_LOG_FATAL(QStringLiteral("获取base url %1").arg(url));
    return url;
}

void NBServerApi::setVersionString(const QString& version)
{
    write(m_version, version);
}

QString NBServerApi::versionString()
{
    return read(m_version);
}

void NBServerApi::setSessionID(const QString& session)
{
    write(m_sessionId, session);
}

QString NBServerApi::sessionID()
{
    return read(m_sessionId);
}

void NBServerApi::setLanguage(const QString& language)
{
    write(m_language, language);
}

QString NBServerApi::language()
{
    return read(m_language);
}

void NBServerApi::setUserAgent(const QString& userAgent)
{
    write(m_userAgent, userAgent);
}

QString NBServerApi::userAgent()
{
    return read(m_userAgent);
}

void NBServerApi::setPriServerVerifyCode(const QString& code)
{
    write(m_priServerVerifyCode, code);
}

QString NBServerApi::priServerVerifyCode()
{
    return read(m_priServerVerifyCode);
}

QString NBServerApi::read(const QString& setting)
{
    QMutexLocker lock(&m_settingsMutex);
    return setting;
}

void NBServerApi::write(QString& setting, const QString& value)
{
    QMutexLocker lock(&m_settingsMutex);
    setting = value;
}

long long NBServerApi::createHandle(NBHttpClient* client)
{
    return NBHttpClientManager::manager()->createHttpClientHandle(client);
}

void NBServerApi::deleteHttpClient(long long id)
{
    NBHttpClientManager::manager()->destroy(id);
}

int NBServerApi::pathTypeNumber(const QString& pathType)
{
    static const QList<QPair<QString, int>> numbers { { PATHTYPE_ENT, 1 }, { PATHTYPE_SELF, 2 },
        { PATHTYPE_SHARE_IN, 3 }, { PATHTYPE_SHARE_OUT, 4 } };
    for (const auto& entry : numbers) {
        if (pathType.compare(entry.first, Qt::CaseInsensitive) == 0)
            return entry.second;
    }
    return 0;
}

QString NBServerApi::hostLanguage()
{
    return NBConfigure::getQStringAttribute(NBConfigure::Language);
}

NBCompletionCallback NBServerApi::replyHandler(
    NBCompletionCallback done, long long id, void (*release)(long long id))
{
    return [done = std::move(done), id, release](const ResponseData& response) {
        if (done)
            done(response);
        release(id);
    };
}

NBRequestBuilder NBServerApi::request(const QString& path)
{
    return NBRequestBuilder(*this, combineReqUrl(baseUrlString(), versionString(), path));
}

NBRequestBuilder NBServerApi::requestTo(const QString& url)
{
    return NBRequestBuilder(*this, url);
}
