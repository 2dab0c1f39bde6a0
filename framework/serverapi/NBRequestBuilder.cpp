#include "NBRequestBuilder.h"

#include "NBHttpClient.h"
#include "NBServerApi.h"

NBRequestBuilder::NBRequestBuilder(NBServerApi& api, const QString& address)
    : m_api(&api)
    , m_client(new NBHttpClient(address))
    , m_id(api.createHandle(m_client))
{
}

NBRequestBuilder::NBRequestBuilder(NBRequestBuilder&& other) noexcept
    : m_api(other.m_api)
    , m_client(other.m_client)
    , m_id(other.m_id)
    , m_sent(other.m_sent)
{
    other.m_sent = true;
}

NBRequestBuilder::~NBRequestBuilder()
{
    if (!m_sent)
        m_api->deleteHttpClient(m_id);
}

NBRequestBuilder& NBRequestBuilder::method(NBHttpMethod method)
{
    m_client->httpMethod(method);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::withDefaults()
{
    return defaultHeaders().verifyCode();
}

NBRequestBuilder& NBRequestBuilder::defaultHeaders()
{
    m_api->httpClientDefaultHeader(m_client);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::verifyCode()
{
    m_api->privateCloudDefaultParams(m_client);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::session(const QString& session)
{
    m_api->setHttpHeaderSession(m_client, session);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::param(const QString& key, const QString& value)
{
    m_client->param(key, value);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::paramIfSet(const QString& key, const QString& value)
{
    if (!value.isEmpty())
        m_client->param(key, value);
    return *this;
}

NBRequestBuilder& NBRequestBuilder::flag(const QString& key, bool value)
{
    m_client->param(key, m_api->boolToString(value));
    return *this;
}

NBRequestBuilder& NBRequestBuilder::number(const QString& key, qint64 value)
{
    m_client->param(key, QString::number(value));
    return *this;
}

NBRequestBuilder& NBRequestBuilder::params(const QMap<QString, QString>& params)
{
    for (auto it = params.cbegin(); it != params.cend(); ++it)
        m_client->param(it.key(), it.value());
    return *this;
}

NBRequestBuilder& NBRequestBuilder::header(const QString& key, const QString& value)
{
    m_client->header(key, value);
    return *this;
}

long long NBRequestBuilder::sent()
{
    m_sent = true;
    return m_id;
}

// The request may complete inside the call and release the handle: the identifier is
// taken before and nothing of the client is touched after.
long long NBRequestBuilder::send(NBCompletionCallback done)
{
    const long long id = sent();
    m_client->request(NBServerApi::replyHandler(std::move(done), id), true);
    return id;
}

long long NBRequestBuilder::sendWithoutRedirects(NBCompletionCallback done)
{
    const long long id = sent();
    m_client->request(NBServerApi::replyHandler(std::move(done), id), false);
    return id;
}
