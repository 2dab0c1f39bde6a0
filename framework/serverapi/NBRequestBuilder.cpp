#include "NBRequestBuilder.h"

#include "NBHttpClient.h"
#include "NBServerApi.h"

#include <QJsonDocument>
#include <QUrl>
#include <QUrlQuery>

NBRequestBuilder::Handle::Handle(NBServerApi& api, const QString& address)
    : m_client(new NBHttpClient(address))
    , m_id(api.createHandle(m_client))
{
}

NBRequestBuilder::Handle::Handle(Handle&& other) noexcept
    : m_client(other.m_client)
    , m_id(other.m_id)
    , m_owned(std::exchange(other.m_owned, false))
{
}

NBRequestBuilder::Handle::~Handle()
{
    if (m_owned)
        NBServerApi::deleteHttpClient(m_id);
}

NBRequestBuilder::NBRequestBuilder(NBServerApi& api, const QString& address)
    : m_api(&api)
    , m_handle(api, address)
{
}

NBRequestBuilder::NBRequestBuilder(NBRequestBuilder&& other) noexcept = default;

NBRequestBuilder::~NBRequestBuilder() = default;

NBRequestBuilder& NBRequestBuilder::method(NBHttpMethod method)
{
    client()->httpMethod(method);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::withDefaults()
{
    return defaultHeaders().verifyCode();
}

NBRequestBuilder& NBRequestBuilder::defaultHeaders()
{
    m_api->httpClientDefaultHeader(client());
    return *this;
}

NBRequestBuilder& NBRequestBuilder::verifyCode()
{
    m_api->privateCloudDefaultParams(client());
    return *this;
}

NBRequestBuilder& NBRequestBuilder::session(const QString& session)
{
    m_api->setHttpHeaderSession(client(), session);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::header(const QString& key, const QString& value)
{
    client()->header(key, value);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::cookieFollowedBy(const QString& text)
{
    return header(QStringLiteral("Cookie"), m_api->cookie() + text);
}

NBRequestBuilder& NBRequestBuilder::rangeIfSet(const QString& range)
{
    if (range.isEmpty())
        return *this;
    return header(QStringLiteral("Range"), range).header(QStringLiteral("x-nimbraws-range"), range);
}

NBRequestBuilder& NBRequestBuilder::param(const QString& key, const QString& value)
{
    if (m_inQuery)
        addQueryItem(key, value);
    else
        client()->param(key, value);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::paramIfSet(const QString& key, const QString& value)
{
    return value.isEmpty() ? *this : param(key, value);
}

NBRequestBuilder& NBRequestBuilder::paramsIfSet(std::initializer_list<QPair<QString, QString>> pairs)
{
    for (const auto& pair : pairs)
        paramIfSet(pair.first, pair.second);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::paramsWhen(
    bool condition, std::initializer_list<QPair<QString, QString>> pairs)
{
    for (const auto& pair : pairs) {
        if (condition)
            param(pair.first, pair.second);
    }
    return *this;
}

NBRequestBuilder& NBRequestBuilder::paramOrZero(const QString& key, const QString& value)
{
    return param(key, value.isEmpty() ? QStringLiteral("0") : value);
}

NBRequestBuilder& NBRequestBuilder::each(const QString& key, const QList<QString>& values)
{
    for (const QString& value : values)
        param(key, value);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::flag(const QString& key, bool value)
{
    return param(key, m_api->boolToString(value));
}

NBRequestBuilder& NBRequestBuilder::number(const QString& key, qint64 value)
{
    return param(key, QString::number(value));
}

NBRequestBuilder& NBRequestBuilder::params(const QMap<QString, QString>& params)
{
    for (auto it = params.cbegin(); it != params.cend(); ++it)
        param(it.key(), it.value());
    return *this;
}

NBRequestBuilder& NBRequestBuilder::json(const QJsonDocument& document, JsonText text)
{
    const QByteArray bytes = document.toJson();
    return param(
        QStringLiteral("json"), text == Latin1 ? QString::fromLatin1(bytes) : QString::fromUtf8(bytes));
}

NBRequestBuilder& NBRequestBuilder::inQuery()
{
    m_inQuery = true;
    return *this;
}

NBRequestBuilder& NBRequestBuilder::verifyCodeParam()
{
    return paramIfSet(QStringLiteral("S"), m_api->priServerVerifyCode());
}

NBRequestBuilder& NBRequestBuilder::languageParam()
{
    return param(QStringLiteral("language"), NBServerApi::hostLanguage());
}

// Qt's query encoding, except that a "%" of the value is always the character itself
// (the query would otherwise read "%41" in a file name as an encoded "A"), that a "+"
// goes out as "%2B" (a server reading the query as a form would take it for a space),
// and that an empty value goes out as "key=", as request parameters do, never as a
// bare "key".
void NBRequestBuilder::addQueryItem(const QString& key, const QString& value)
{
    const auto literal = [](const QString& text) {
        return text.isEmpty() ? QStringLiteral("")
                              : QString(text)
                                    .replace(QLatin1Char('%'), QLatin1String("%25"))
                                    .replace(QLatin1Char('+'), QLatin1String("%2B"));
    };
    if (!m_query)
        m_query.reset(new QUrlQuery(QUrl(client()->url(), QUrl::TolerantMode)));
    m_query->addQueryItem(literal(key), literal(value));
    QUrl url(client()->url(), QUrl::TolerantMode);
    url.setQuery(m_query->query(QUrl::FullyEncoded), QUrl::StrictMode);
    client()->setUrl(url.toString(QUrl::FullyEncoded));
}

NBRequestBuilder& NBRequestBuilder::extraQuery(const QString& extra)
{
    if (!extra.isEmpty())
        client()->setUrl(QStringLiteral("%1&%2").arg(client()->url(), extra));
    return *this;
}

NBRequestBuilder& NBRequestBuilder::bodyDropped()
{
    client()->dropBody();
    return *this;
}

NBCompletionCallback NBRequestBuilder::handler(NBCompletionCallback done)
{
    m_handle.handOver();
    return NBServerApi::replyHandler(std::move(done), id());
}

// The request may complete inside the call and release the client: nothing of the
// client is touched after, and the identifier is the builder's own.
long long NBRequestBuilder::send(NBCompletionCallback done, Redirects redirects)
{
    client()->request(handler(std::move(done)), redirects == FollowRedirects);
    return id();
}

long long NBRequestBuilder::download(
    NBDataCallback onData, NBDownloadProgressCallback onProgress, NBCompletionCallback done)
{
    client()->download(std::move(onData), std::move(onProgress), handler(std::move(done)));
    return id();
}

long long NBRequestBuilder::downloadTo(
    const QString& filePath, NBDownloadProgressCallback onProgress, NBCompletionCallback done)
{
    client()->download(filePath, std::move(onProgress), handler(std::move(done)));
    return id();
}

long long NBRequestBuilder::downloadUsePost(
    NBDataCallback onData, NBDownloadProgressCallback onProgress, NBCompletionCallback done)
{
    client()->downloadUsePost(std::move(onData), std::move(onProgress), handler(std::move(done)));
    return id();
}

long long NBRequestBuilder::upload(
    const QString& filePath, NBUploadProgressCallback onProgress, NBCompletionCallback done)
{
    client()->upload(filePath, std::move(onProgress), handler(std::move(done)));
    return id();
}

long long NBRequestBuilder::upload(
    const QByteArray& data, NBUploadProgressCallback onProgress, NBCompletionCallback done)
{
    client()->upload(data, std::move(onProgress), handler(std::move(done)));
    return id();
}
