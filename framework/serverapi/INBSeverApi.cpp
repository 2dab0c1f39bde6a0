#include "INBSeverApi.h"

#include "CNBLoggerWrapper.h"
#include "NBHttpClientManager.h"
#include "NBPriServerApi.h"
#include "NBPriSixServerApi.h"
#include "NBPubServerApi.h"

#include <QtNBLogger.h>
#include <cstring>
#include <type_traits>

namespace {

NBServerApi* currentApi = nullptr;
ServerApi::NBServerApiType currentType = ServerApi::Private;

QString fromCString(const char* text)
{
    return text ? QString::fromUtf8(text, int(std::strlen(text))) : QString();
}

// The endpoint, or null with a log line naming the call that found none.
NBServerApi* endpoint(const char* function)
{
    if (!currentApi)
        CNBLoggerWrapper::instTransfer().error(QStringLiteral("未初始化api，调用被忽略"),
            QStringLiteral(__FILE__), QString::fromUtf8(function), __LINE__);
    return currentApi;
}

// Calls the endpoint's operation; without an endpoint gives -1 (an operation's
// identifier) or an empty value, and sends nothing.
template<typename R, typename... Params, typename... Args>
R forward(const char* function, R (NBServerApi::*operation)(Params...), Args&&... args)
{
    NBServerApi* api = endpoint(function);
    if (!api) {
        if constexpr (std::is_same_v<R, long long>)
            return -1;
        else
            return R();
    }
    return (api->*operation)(std::forward<Args>(args)...);
}

} // namespace

void ServerApi::init(NBServerApiType type)
{
    if (currentApi && currentType == type)
        return;
    delete currentApi;
    currentApi = nullptr;

    NBHttpClientManager* registry = NBHttpClientManager::manager();
    registry->setVerifyCodeSource([] { return currentApi ? currentApi->priServerVerifyCode() : QString(); });
    currentType = type;
    QString text;
    switch (type) {
    case PrivateSix:
        currentApi = new NBPriSixServerApi;
        text = QStringLiteral("初始私有6.0api");
        break;
    case PublicCloud:
        currentApi = new NBPubServerApi;
        text = QStringLiteral("初始化公有api");
        break;
    case Private:
        currentApi = new NBPriServerApi;
        text = QStringLiteral("初始化私有api");
        break;
    default:
        text = QStringLiteral("初始化api失败");
        break;
    }
    NB_LOG_INFO(text);
}

void ServerApi::uninit()
{
    delete currentApi;
    currentApi = nullptr;
}

ServerApi::NBServerApiType ServerApi::type()
{
    return currentType;
}

NBServerApi* ServerApi::serverApi()
{
    return currentApi;
}

void ServerApi::setSessionID(const QString& session)
{
    forward(__FUNCTION__, &NBServerApi::setSessionID, session);
}

QString ServerApi::sessionID()
{
    return forward(__FUNCTION__, &NBServerApi::sessionID);
}

void ServerApi::setLanguage(const QString& language)
{
    forward(__FUNCTION__, &NBServerApi::setLanguage, language);
}

QString ServerApi::language()
{
    return forward(__FUNCTION__, &NBServerApi::language);
}

void ServerApi::setUserAgent(const QString& userAgent)
{
    forward(__FUNCTION__, &NBServerApi::setUserAgent, userAgent);
}

QString ServerApi::userAgent()
{
    return forward(__FUNCTION__, &NBServerApi::userAgent);
}

void ServerApi::setBaseUrlString(const QString& url)
{
    forward(__FUNCTION__, &NBServerApi::setBaseUrlString, url);
}

QString ServerApi::baseUrlString()
{
    return forward(__FUNCTION__, &NBServerApi::baseUrlString);
}

void ServerApi::setPriServerVerifyCode(QString code)
{
    forward(__FUNCTION__, &NBServerApi::setPriServerVerifyCode, code);
}

QString ServerApi::priServerVerifyCode()
{
    return forward(__FUNCTION__, &NBServerApi::priServerVerifyCode);
}

void ServerApi::setLogLevel(bool debug)
{
    QtNBLogger::setLevel(CNBLoggerWrapper::instTransfer().handle(), debug ? 16 : 2);
}

void ServerApi::proxy(bool autoDetect, int scheme, const char* host, int port, const char* user,
    const char* password, bool open)
{
    NBHttpClientManager::manager()->proxy(autoDetect, scheme, fromCString(host),
        static_cast<unsigned short>(port), fromCString(user), fromCString(password), open);
}

void ServerApi::setProxyScheme(int scheme)
{
    NBHttpClientManager::manager()->setProxyScheme(scheme);
}

void ServerApi::setProxyHostname(const char* host)
{
    NBHttpClientManager::manager()->setProxyHostname(fromCString(host));
}

void ServerApi::setProxyPort(int port)
{
    NBHttpClientManager::manager()->setProxyPort(static_cast<unsigned short>(port));
}

void ServerApi::setProxyUser(const char* user)
{
    NBHttpClientManager::manager()->setProxyUser(fromCString(user));
}

void ServerApi::setProxyPassword(const char* password)
{
    NBHttpClientManager::manager()->setProxyPassword(fromCString(password));
}

void ServerApi::setProxyAutoDetect(bool autoDetect)
{
    NBHttpClientManager::manager()->setProxyAutoDetect(autoDetect);
}

void ServerApi::setProxySwitch(bool open)
{
    NBHttpClientManager::manager()->proxySwitch(open);
}

QString ServerApi::proxyHostname()
{
    return NBHttpClientManager::manager()->proxyHostname();
}

int ServerApi::proxyPort()
{
    return NBHttpClientManager::manager()->proxyPort();
}

QString ServerApi::proxyUser()
{
    return NBHttpClientManager::manager()->proxyUser();
}

QString ServerApi::proxyPassword()
{
    return NBHttpClientManager::manager()->proxyPassword();
}

bool ServerApi::proxySwitch()
{
    return NBHttpClientManager::manager()->proxyIsOpen();
}

void ServerApi::Cancel(long long id)
{
    // Requests outlive the endpoint; without one they are still reached through the registry.
    if (currentApi)
        currentApi->cancel(id);
    else
        NBHttpClientManager::manager()->cancelHttpClient(id);
}

long long ServerApi::GET(const QString& url, std::function<void(const ResponseData&)> done)
{
    return forward(__FUNCTION__, &NBServerApi::get, url, std::move(done));
}

long long ServerApi::POST(
    const QString& url, QMap<QString, QString> params, std::function<void(const ResponseData&)> done)
{
    return forward(__FUNCTION__, &NBServerApi::post, url, std::move(params), std::move(done));
}
