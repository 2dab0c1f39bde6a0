#include "INBSeverApi.h"

#include "CNBFillUrlProtocol.h"
#include "CNBLoggerWrapper.h"
#include "INBSeverApiForward.h"
#include "NBHttpClientManager.h"
#include "NBLogRedactor.h"
#include "NBPriServerApi.h"
#include "NBPriSixServerApi.h"
#include "NBPubServerApi.h"

#include <QRegularExpression>
#include <QtNBLogger.h>
#include <cstring>
#include <utility>

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

// Calls the endpoint's setting; without an endpoint a getter reads an empty value.
template<typename R, typename... Params, typename... Args>
R forward(const char* function, R (NBServerApi::*setting)(Params...), Args&&... args)
{
    NBServerApi* api = endpoint(function);
    return api ? (api->*setting)(std::forward<Args>(args)...) : R();
}

} // namespace

void ServerApi::init(NBServerApiType type)
{
    if (currentApi && currentType == type)
        return;
    delete currentApi;
    currentApi = nullptr;

    NBHttpClientManager* registry = NBHttpClientManager::manager();
    // A new endpoint starts without a verification code.
    registry->setVerifyCode(QString());
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
    NBHttpClientManager::manager()->setVerifyCode(QString());
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
    NBLogRedactor::remember(NBLogRedactor::Session, session);
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

// Requests read the code that rides as cookie "S" from the registry's copy, so that
// no request ever reads an endpoint that init or uninit is replacing.
void ServerApi::setPriServerVerifyCode(QString code)
{
    if (!endpoint(__FUNCTION__))
        return;
    currentApi->setPriServerVerifyCode(code);
    NBHttpClientManager::manager()->setVerifyCode(code);
}

QString ServerApi::priServerVerifyCode()
{
    return forward(__FUNCTION__, &NBServerApi::priServerVerifyCode);
}

void ServerApi::setLogLevel(bool debug)
{
    QtNBLogger::setLevel(CNBLoggerWrapper::instTransfer().handle(), debug ? 16 : 2);
}

void ServerApi::setTlsVerifyPeer(bool verify)
{
    NBHttpClientManager::manager()->setTlsVerifyPeer(verify);
}

bool ServerApi::tlsVerifyPeer()
{
    return NBHttpClientManager::manager()->tlsVerifyPeer();
}

bool ServerApi::addTlsCaCertificates(const QString& pemFile)
{
    const QList<QSslCertificate> certificates = QSslCertificate::fromPath(pemFile, QSsl::Pem);
    if (certificates.isEmpty()) {
        NB_LOG_ERROR(QStringLiteral("TLS: %1 holds no PEM certificate").arg(pemFile));
        return false;
    }
    addTlsCaCertificates(certificates);
    return true;
}

void ServerApi::addTlsCaCertificates(const QList<QSslCertificate>& certificates)
{
    NBHttpClientManager::manager()->addTlsCaCertificates(certificates);
}

void ServerApi::clearTlsCaCertificates()
{
    NBHttpClientManager::manager()->clearTlsCaCertificates();
}

bool ServerApi::setTlsPinnedPublicKey(const QString& digest)
{
    QString text = digest.trimmed();
    if (text.startsWith(QLatin1String("sha256//")))
        text = text.mid(8);
    QByteArray raw;
    static const QRegularExpression hex(QStringLiteral("^[0-9A-Fa-f]{64}$"));
    if (hex.match(text).hasMatch())
        raw = QByteArray::fromHex(text.toLatin1());
    else if (!text.isEmpty())
        raw = QByteArray::fromBase64(text.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (!text.isEmpty() && raw.size() != 32)
        return false;
    NBHttpClientManager::manager()->setTlsPinnedKey(raw);
    return true;
}

QString ServerApi::tlsPinnedPublicKey()
{
    return QString::fromLatin1(NBHttpClientManager::manager()->tlsPinnedKey().toHex());
}

void ServerApi::setLogRedaction(bool redact)
{
    NBLogRedactor::setEnabled(redact);
}

bool ServerApi::logRedaction()
{
    return NBLogRedactor::enabled();
}

QString ServerApi::RedactSecrets(const QString& text)
{
    return NBLogRedactor::hide(text);
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

bool ServerApi::FillUrlProtocol(const QString& in, QString& out)
{
    CNBFillUrlProtocol fill;
    return fill.fillUrlProtocol(in, out);
}

bool ServerApi::FillUrlProtocolByStep(const QString& in, QString& out)
{
    CNBFillUrlProtocol fill;
    return fill.fillUrlProtocolByStep(in, out);
}

void ServerApi::Cancel(long long id)
{
    // Requests outlive the endpoint; without one they are still reached through the registry.
    if (currentApi)
        currentApi->cancel(id);
    else
        NBHttpClientManager::manager()->cancelHttpClient(id);
}

// The server operations: each row pairs an exported name with the endpoint's slot it
// reaches, then the argument types of both, callbacks last. Without an endpoint an
// operation sends nothing and returns -1.
using StringMap = QMap<QString, QString>;
using StringList = QList<QString>;

// clang-format off
NB_FORWARD(Login,               login,               const NBServerApiLoginModel&, NBCompletionCallback)
NB_FORWARD(UserInfo,            userInfo,            const NBServerApiUserInfoModel&, NBCompletionCallback)
NB_FORWARD(GetFuns,             getFuns,             NBCompletionCallback)
NB_FORWARD(MetaData,            metaData,            const NBServerApiMetaEntryModel&, NBCompletionCallback)
NB_FORWARD(ServerJump,          serverJump,          const NBServerApiServerJumpModel&, NBCompletionCallback)
NB_FORWARD(ConfigGet,           configGet,           const NBServerApiConfigGetModel&, NBCompletionCallback)
NB_FORWARD(AuthUpload,          authUpload,          const NBServerApiEntryModel&, long long, NBCompletionCallback, QString)
NB_FORWARD(CreateFolder,        createFolder,        const NBServerApiCreateFolderModel&, NBCompletionCallback)
NB_FORWARD(CreateFile,          createFile,          const NBServerApiCreateFileModel&, NBCompletionCallback)
NB_FORWARD(RegionGet,           regionGet,           NBCompletionCallback)
NB_FORWARD(GetEstEncryptRule,   getEstEncryptRule,   NBCompletionCallback)
NB_FORWARD(Revisions,           revisions,           const NBServerApiRevisionsModel&, NBCompletionCallback)
NB_FORWARD(GetUpdataSourcePath, GetUpdateSourcePath, const QString&, NBCompletionCallback)
NB_FORWARD(Extra,               extra,               StringList, NBCompletionCallback)
NB_FORWARD(LockFile,            lockFile,            const NBServerApiLockFileModel&, NBCompletionCallback)
NB_FORWARD(UnlockFile,          unlockFile,          const NBServerApiUnlockFileModel&, NBCompletionCallback)
NB_FORWARD(DownloadRouter,      downloadRouter,      const NBSeverApiDLRouterModel&, NBDataCallback, NBCompletionCallback, NBDownloadProgressCallback)
NB_FORWARD(UploadFile,          uploadFile,          const NBServerApiUploadFileModel&, NBCompletionCallback, NBUploadProgressCallback)
NB_FORWARD(UploadData,          uploadData,          const NBServerApiUploadDataModel&, NBCompletionCallback, NBUploadProgressCallback)
NB_FORWARD(DownloadFile,        downloadFile,        const NBServerApiDownloadFileModel&, NBCompletionCallback, NBDownloadProgressCallback)
NB_FORWARD(DownloadData,        downloadData,        const NBServerApiDownloadDataModel&, NBDataCallback, NBCompletionCallback, NBDownloadProgressCallback)
NB_FORWARD(QueryHash,           queryHash,           const NBServerApiQueryHashModel&, NBCompletionCallback, QString)
NB_FORWARD(ChunkedUpload,       chunkedUpload,       const NBServerApiChunkedUploadModel&, NBCompletionCallback, NBUploadProgressCallback, QString)
NB_FORWARD(CommitHash,          commitHash,          const NBServerApiCommitHashModel&, NBCompletionCallback, QString)
NB_FORWARD(DeliveryAuth,        deliveryAuth,        const NBServerApiDeliveryAuthModel&, NBCompletionCallback)
NB_FORWARD(DeliveryAuthUpload,  deliveryAuthUpload,  const NBServerApiDeliveryAuthUploadModel&, NBCompletionCallback)
NB_FORWARD(DeliveryUploadFile,  deliveryUploadFile,  const NBServerApiDeliveryUploadFileModel&, NBCompletionCallback, NBUploadProgressCallback)
NB_FORWARD(DeliveryUploadData,  deliveryUploadData,  const NBServerApiDeliveryUploadDataModel&, NBCompletionCallback, NBUploadProgressCallback)
NB_FORWARD(DeliveryDownloadFile, deliveryDownloadFile, const NBServerApiDeliveryDownloadFileModel&, NBCompletionCallback, NBDownloadProgressCallback)
NB_FORWARD(DeliveryDownloadData, deliveryDownloadData, const NBServerApiDeliveryDownloadDataModel&, NBDataCallback, NBCompletionCallback, NBDownloadProgressCallback)
NB_FORWARD(DeliveryMetadata,    deliveryMetadata,    const NBServerApiDeliveryMetadataModel&, NBCompletionCallback)
NB_FORWARD(DeliveryCreateFolder, deliveryCreateFolder, NBServerApiDeliveryCreateFolder, NBCompletionCallback)
NB_FORWARD(DeliveryQueryHash,   deliveryQueryHash,   const NBServerApiDeliveryQueryHashModel&, NBCompletionCallback)
NB_FORWARD(DeliveryChunkedUpload, deliveryChunkedUpload, const NBServerApiDeliveryChunkedUploadModel&, NBCompletionCallback, NBUploadProgressCallback)
NB_FORWARD(DeliveryCommitHash,  deliveryCommitHash,  const NBServerApiDeliveryCommitHashModel&, NBCompletionCallback)
NB_FORWARD(DeliveryDownloadRouter, deliveryDownloadRouter, const NBSeverApiDeliveryDLRouterModel&, NBDataCallback, NBCompletionCallback, NBDownloadProgressCallback)
NB_FORWARD(Delta,               delta,               const NBServerApiDeltaModel&, NBCompletionCallback)
NB_FORWARD(VBoxDelta,           vboxDelta,           const NBServerApiDeltaModel&, NBCompletionCallback)
NB_FORWARD(InitDelta,           initDelta,           const NBServerApiEntryModel&, NBCompletionCallback)
NB_FORWARD(GetSyncData,         GetSyncData,         const NBServerApiDeltaModel&, const QString&, const QString&, const QString&, const QString&, int, NBCompletionCallback)
NB_FORWARD(GetSyncDataForDisk,  getSyncDataForDisk,  const NBServerApiGetSyncDataModel&, NBCompletionCallback)
NB_FORWARD(GetAssignJid,        getAssingJid,        const NBServerApiEntryModel&, NBCompletionCallback)
NB_FORWARD(GetAssignSyncData,   getAssignSyncData,   const NBServerApiGetSyncDataModel&, NBCompletionCallback)
NB_FORWARD(CheckApproveIsOne,   checkApproveIsOne,   const QString&, int, NBCompletionCallback)
NB_FORWARD(CheckApproveFloder,  checkApproveFloder,  const QString&, const QString&, NBCompletionCallback)
NB_FORWARD(IsCreateSyndisc,     isCreateSyndisc,     const QString&, const QString&, const QString&, NBCompletionCallback)
NB_FORWARD(Move,                move,                const NBServerApiMoveModel&, NBCompletionCallback)
NB_FORWARD(BatchCopy,           BatchCopy,           const NBServerApiBatchMoveModel&, NBCompletionCallback)
NB_FORWARD(BatchMove,           batchMove,           const NBServerApiBatchMoveModel&, NBCompletionCallback)
NB_FORWARD(BatchDelete,         batchDelete,         const NBServerApiBatchDeleteModel&, NBCompletionCallback)
NB_FORWARD(BatchTaskAsyncQuery, batchAsyncQuery,     const QString&, NBCompletionCallback)
NB_FORWARD(GetEnterpriseAddressByCode, GetEnterpriseAddressByCode, const QString&, NBCompletionCallback)
NB_FORWARD(GetZipDownloadUrl,   GetZipDownloadUrl,   const QString&, const QString&, NBCompletionCallback)
NB_FORWARD(GetZipFolderMetadata, GetZipFolderMetadata, const QString&, const QString&, long long, long long, NBCompletionCallback)
NB_FORWARD(GetQuickLoginVerifyPic, GetQuickLoginVerifyPic, NBDataCallback)
NB_FORWARD(GetQuickLoginSmsCode, GetQuickLoginSmsCode, const NBServerApiSmsCodeModel&, NBCompletionCallback)
NB_FORWARD(GetQRCode,           GetQRCode,           int, NBCompletionCallback)
NB_FORWARD(GetLoginState,       GetLoginState,       NBServerApiLoginStateModel, NBCompletionCallback)
NB_FORWARD(GetLoginEmailVerify, GetLoginEmailVerify, const QString&, const QString&, const QString&, NBCompletionCallback)
NB_FORWARD(LoginCheckEmailVerify, LoginCheckEmailVerify, const QString&, const QString&, const QString&, const QString&, NBCompletionCallback)
NB_FORWARD(DyncCodeLogin,       DyncCodeLogin,       const QString&, const QString&, NBCompletionCallback)
NB_FORWARD(SendSmsCode,         SendSmsCode,         const QString&, const QString&, const QString&, const QString&, const QString&, const QString&, const QString&, NBCompletionCallback)
NB_FORWARD(SmsCodeLogin,        SmsCodeLogin,        const QString&, const QString&, NBCompletionCallback)
NB_FORWARD(ResetPassword,       ResetPassword,       const QString&, const QString&, const QString&, NBCompletionCallback)
NB_FORWARD(RPCServerLogging,    RPCServerLogging,    const QString&, const QString&, const QString&, const QString&, const QString&, const QString&, const QString&, NBCompletionCallback)
NB_FORWARD(Download,            download,            const QString&, NBDataCallback, NBCompletionCallback, NBDownloadProgressCallback)
NB_FORWARD(Upload,              Upload,              const QString&, const QString&, NBCompletionCallback, NBUploadProgressCallback)
NB_FORWARD(FileExist,           fileExist,           const QString&, const QString&, const QString&, const QString&, const QString&, NBCompletionCallback)
NB_FORWARD(GET,                 get,                 const QString&, NBCompletionCallback)
NB_FORWARD(POST,                post,                const QString&, StringMap, NBCompletionCallback)
// clang-format on
