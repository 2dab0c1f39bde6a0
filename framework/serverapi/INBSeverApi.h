// The library's interface for hosts: ServerApi and the records and models it uses.
//
// Every operation is asynchronous: it returns the request's identifier at once (the
// value Cancel accepts) and answers later through its callbacks, on the calling
// thread's event loop, which must be running. A completion runs once per request;
// after an inactivity time-out it runs twice ("TimeOut" with error 4, then error 5).
//
// After a request's first completion none of its progress or data callbacks runs again.
//
// Threads:
// - operations may start on any thread that runs a Qt event loop; all of a request's
//   callbacks run on that thread, which must outlive the request;
// - settings (setters and getters) may be called from any thread at any time;
// - Cancel may be called from any thread: on the request's own thread it completes the
//   request inside the call, from another it is carried out on the request's thread;
// - FillUrlProtocol and FillUrlProtocolByStep block their thread, never from a callback;
// - init and uninit replace the endpoint without a lock: call them only while no other
//   thread calls the library (requests in flight may go on).
#pragma once

#include "NBServerApiConstants.h"
#include "NBServerApiGlobal.h"
#include "NBServerApiModels.h"
#include "ResponseData.h"

#include <QList>
#include <QMap>
#include <QSslCertificate>
#include <QString>

class NBServerApi;

class NBSERVERAPI_EXPORT ServerApi
{
public:
    enum NBServerApiType : qint32 {
        Private = 0,
        PublicCloud = 1,
        PrivateSix = 2,
    };

    // Creates the endpoint of the deployment type, replacing one of another type (whose
    // settings are lost; requests in flight go on). An unknown type leaves none.
    static void init(NBServerApiType type);
    static void uninit();
    static NBServerApiType type();
    static NBServerApi* serverApi();

    // Without an endpoint (before init, after uninit or an unknown type) the endpoint
    // settings below are ignored and read as empty, operations send nothing, never call
    // back and return -1, and Cancel still reaches requests in flight.
    static void setSessionID(const QString& session);
    static QString sessionID();
    static void setLanguage(const QString& language);
    static QString language();
    static void setUserAgent(const QString& userAgent);
    static QString userAgent();
    static void setBaseUrlString(const QString& url);
    static QString baseUrlString();
    static void setPriServerVerifyCode(QString code);
    static QString priServerVerifyCode();

    // true: debug detail in the log (level 16); false: less (level 2).
    static void setLogLevel(bool debug);

    // Proxy settings outlive init and uninit. Null C strings give null strings.
    static void proxy(bool autoDetect, int scheme, const char* host, int port, const char* user,
        const char* password, bool open);
    static void setProxyScheme(int scheme);
    static void setProxyHostname(const char* host);
    static void setProxyPort(int port);
    static void setProxyUser(const char* user);
    static void setProxyPassword(const char* password);
    static void setProxyAutoDetect(bool autoDetect);
    static void setProxySwitch(bool open);
    static QString proxyHostname();
    static int proxyPort();
    static QString proxyUser();
    static QString proxyPassword();
    static bool proxySwitch();

    // TLS, like the proxy, outlives init and uninit. By default server certificates are not
    // verified. With verification on, a certificate must chain to the system's CAs or to
    // one added here and name the host; otherwise the request completes with the
    // transport's SSL error (6) and the log names Qt's reason. A pinned key (the SHA-256
    // of the server certificate's public key, SubjectPublicKeyInfo in DER: 64 hex digits,
    // or base64 with or without "sha256//") is checked on every connection, verified or
    // not: a server with another key fails with error 6, and one with this key is trusted
    // even when its chain is unknown (a private CA).
    static void setTlsVerifyPeer(bool verify);
    static bool tlsVerifyPeer();
    // Adds the PEM certificates of a file; false, and nothing added, when it holds none.
    static bool addTlsCaCertificates(const QString& pemFile);
    static void addTlsCaCertificates(const QList<QSslCertificate>& certificates);
    static void clearTlsCaCertificates();
    // false, and the pin unchanged, when the digest is not one; an empty text clears it.
    static bool setTlsPinnedPublicKey(const QString& digest);
    static QString tlsPinnedPublicKey(); // hex, empty when none

    // Off by default: the trace writes every parameter and header as it goes out. On:
    // passwords, one-time passwords, verification codes, tokens, "S", the session and
    // two-factor cookies, "Authorization" and the proxy password are written as "***(N)"
    // in every line of the library's log.
    static void setLogRedaction(bool redact);
    static bool logRedaction();
    // `text` with every secret hidden as the log hides them, whether the log's redaction
    // is on or not: for a host that shows server replies or addresses to people.
    static QString RedactSecrets(const QString& text);

    // Completes an address typed without a scheme ("host:port" or "/host") with the one of
    // "http://" and "https://" that answers a plain GET with 200. Prefer
    // FillUrlProtocolByStep, which tries https first (following redirects) and plain http
    // only when https fails; FillUrlProtocol probes both at once, so whichever answers
    // first, plain http included, picks the scheme. An address that has a scheme is
    // copied as it is. Both block the calling thread, which needs an event dispatcher, in
    // a nested event loop: a probe reads no body and lasts at most one inactivity interval
    // (120 s) however slowly a server answers, so FillUrlProtocol returns within one
    // interval and FillUrlProtocolByStep within two. On failure `out` is left as it was.
    // They need no endpoint. Called from inside a callback of the library (completion,
    // progress or data) they refuse at once: false, `out` unchanged, no probe sent, and
    // a line in the log saying why.
    static bool FillUrlProtocol(const QString& in, QString& out);
    static bool FillUrlProtocolByStep(const QString& in, QString& out);

    // Closes a running request; its completion (error 5) runs inside this call when called
    // on the request's thread, and soon after on that thread when called from another.
    static void Cancel(long long id);

    // Sign-in: the public cloud takes kind 2 (account) or 3 (enterprise); the reply's
    // session is the host's to keep (setSessionID).
    static long long Login(const NBServerApiLoginModel& model, NBCompletionCallback done);

    // Account, metadata, folders, locks.
    static long long UserInfo(const NBServerApiUserInfoModel& model, NBCompletionCallback done);
    static long long MetaData(const NBServerApiMetaEntryModel& model, NBCompletionCallback done);
    static long long ServerJump(const NBServerApiServerJumpModel& model, NBCompletionCallback done);
    static long long ConfigGet(const NBServerApiConfigGetModel& model, NBCompletionCallback done);
    static long long CreateFolder(const NBServerApiCreateFolderModel& model, NBCompletionCallback done);
    // Public cloud only (private deployments return -1 and never call back).
    static long long CreateFile(const NBServerApiCreateFileModel& model, NBCompletionCallback done);
    static long long RegionGet(NBCompletionCallback done);
    static long long Revisions(const NBServerApiRevisionsModel& model, NBCompletionCallback done);
    static long long GetUpdataSourcePath(const QString& acctId, NBCompletionCallback done);
    static long long Extra(QList<QString> neids, NBCompletionCallback done);
    static long long LockFile(const NBServerApiLockFileModel& model, NBCompletionCallback done);
    static long long UnlockFile(const NBServerApiUnlockFileModel& model, NBCompletionCallback done);

    // Transfers. The extra query of AuthUpload, QueryHash, ChunkedUpload and CommitHash,
    // when set, is appended to the address after "&" as it is. Uploads stream files
    // from disk and downloads write them as they arrive; DownloadRouter and DownloadData
    // hand the body to onData piece by piece (and keep it for the record's body).
    static long long AuthUpload(const NBServerApiEntryModel& model, long long bytes,
        NBCompletionCallback done, QString extraQuery = QString());
    static long long DownloadRouter(const NBSeverApiDLRouterModel& model, NBDataCallback onData,
        NBCompletionCallback done, NBDownloadProgressCallback onProgress = {});
    static long long UploadFile(const NBServerApiUploadFileModel& model, NBCompletionCallback done,
        NBUploadProgressCallback onProgress = {});
    static long long UploadData(const NBServerApiUploadDataModel& model, NBCompletionCallback done,
        NBUploadProgressCallback onProgress = {});
    static long long DownloadFile(const NBServerApiDownloadFileModel& model, NBCompletionCallback done,
        NBDownloadProgressCallback onProgress = {});
    static long long DownloadData(const NBServerApiDownloadDataModel& model, NBDataCallback onData,
        NBCompletionCallback done, NBDownloadProgressCallback onProgress = {});
    static long long QueryHash(
        const NBServerApiQueryHashModel& model, NBCompletionCallback done, QString extraQuery = QString());
    static long long ChunkedUpload(const NBServerApiChunkedUploadModel& model, NBCompletionCallback done,
        NBUploadProgressCallback onProgress = {}, QString extraQuery = QString());
    static long long CommitHash(
        const NBServerApiCommitHashModel& model, NBCompletionCallback done, QString extraQuery = QString());
    // A whole address: Download with the default headers, Upload with nothing of the endpoint.
    static long long Download(const QString& url, NBDataCallback onData, NBCompletionCallback done,
        NBDownloadProgressCallback onProgress = {});
    static long long Upload(const QString& url, const QString& localPath, NBCompletionCallback done,
        NBUploadProgressCallback onProgress = {});

    // Deliveries (shared links), as an outside user drives them: authorise with the link
    // code and password, then list, create folders, upload (whole or in chunks) and
    // download with the token of that reply. All but the authorisation and the chunk
    // upload carry the delivery's session.
    static long long DeliveryAuth(const NBServerApiDeliveryAuthModel& model, NBCompletionCallback done);
    static long long DeliveryAuthUpload(
        const NBServerApiDeliveryAuthUploadModel& model, NBCompletionCallback done);
    static long long DeliveryUploadFile(const NBServerApiDeliveryUploadFileModel& model,
        NBCompletionCallback done, NBUploadProgressCallback onProgress = {});
    static long long DeliveryUploadData(const NBServerApiDeliveryUploadDataModel& model,
        NBCompletionCallback done, NBUploadProgressCallback onProgress = {});
    static long long DeliveryDownloadFile(const NBServerApiDeliveryDownloadFileModel& model,
        NBCompletionCallback done, NBDownloadProgressCallback onProgress = {});
    static long long DeliveryDownloadData(const NBServerApiDeliveryDownloadDataModel& model,
        NBDataCallback onData, NBCompletionCallback done, NBDownloadProgressCallback onProgress = {});
    static long long DeliveryMetadata(
        const NBServerApiDeliveryMetadataModel& model, NBCompletionCallback done);
    static long long DeliveryCreateFolder(NBServerApiDeliveryCreateFolder model, NBCompletionCallback done);
    static long long DeliveryQueryHash(
        const NBServerApiDeliveryQueryHashModel& model, NBCompletionCallback done);
    static long long DeliveryChunkedUpload(const NBServerApiDeliveryChunkedUploadModel& model,
        NBCompletionCallback done, NBUploadProgressCallback onProgress = {});
    static long long DeliveryCommitHash(
        const NBServerApiDeliveryCommitHashModel& model, NBCompletionCallback done);
    static long long DeliveryDownloadRouter(const NBSeverApiDeliveryDLRouterModel& model,
        NBDataCallback onData, NBCompletionCallback done, NBDownloadProgressCallback onProgress = {});

    // Change feed and sync data: pass the previous reply's cursor to read on. Empty
    // identifiers of GetSyncData go out as "0" (syncUid is left out).
    static long long Delta(const NBServerApiDeltaModel& model, NBCompletionCallback done);
    static long long GetSyncData(const NBServerApiDeltaModel& model, const QString& syncCid,
        const QString& syncUid, const QString& pullJid, const QString& deltaDataId, int syncType,
        NBCompletionCallback done);
    // Public cloud: the virtual-box feed and the first read of a folder's feed.
    static long long VBoxDelta(const NBServerApiDeltaModel& model, NBCompletionCallback done);
    static long long InitDelta(const NBServerApiEntryModel& model, NBCompletionCallback done);
    // Private 6.0 deployments: sync data of virtual boxes and assigned jobs (every reply is
    // also written to the log).
    static long long GetSyncDataForDisk(const NBServerApiGetSyncDataModel& model, NBCompletionCallback done);
    static long long GetAssignJid(const NBServerApiEntryModel& model, NBCompletionCallback done);
    static long long GetAssignSyncData(const NBServerApiGetSyncDataModel& model, NBCompletionCallback done);

    // Approval policy and the server's operation log (pathType by name: "ent", "self", ...).
    static long long CheckApproveIsOne(const QString& neids, int actionType, NBCompletionCallback done);
    static long long CheckApproveFloder(const QString& nsid, const QString& path, NBCompletionCallback done);
    static long long IsCreateSyndisc(
        const QString& nsid, const QString& path, const QString& type, NBCompletionCallback done);
    static long long RPCServerLogging(const QString& action, const QString& entityStr2,
        const QString& entityStr1, const QString& pathType, const QString& neid, const QString& nsid,
        const QString& opType, NBCompletionCallback done);

    // Private deployments: whether an entry exists (all five parameters always sent).
    static long long FileExist(const QString& neid, const QString& path, const QString& nsid,
        const QString& from, const QString& prefixNeid, NBCompletionCallback done);

    // The public cloud's account functions, encryption rule, enterprise address, zip
    // access and sign-in screens. Elsewhere they send nothing, never call back and return 0.
    static long long GetFuns(NBCompletionCallback done);
    static long long GetEstEncryptRule(NBCompletionCallback done);
    static long long GetEnterpriseAddressByCode(const QString& code, NBCompletionCallback done);
    static long long GetZipDownloadUrl(const QString& url, const QString& unused, NBCompletionCallback done);
    static long long GetZipFolderMetadata(const QString& url, const QString& password, long long limit,
        long long offset, NBCompletionCallback done);
    // Quick login: each picture starts a new quick-login session, which the SMS request
    // then carries; the picture's bytes reach onData and nothing reports the end.
    static long long GetQuickLoginVerifyPic(NBDataCallback onData);
    static long long GetQuickLoginSmsCode(const NBServerApiSmsCodeModel& model, NBCompletionCallback done);
    // Two-factor login with the id of the login reply: a QR code whose state is polled,
    // a one-time password, or an SMS code (`flag` set sends "timestamp" and "sig").
    static long long GetQRCode(int dimension, NBCompletionCallback done);
    static long long GetLoginState(NBServerApiLoginStateModel model, NBCompletionCallback done);
    static long long DyncCodeLogin(const QString& tfaId, const QString& otp, NBCompletionCallback done);
    static long long SendSmsCode(const QString& mobile, const QString& tfaId, const QString& opType,
        const QString& type, const QString& flag, const QString& timestamp, const QString& sig,
        NBCompletionCallback done);
    static long long SmsCodeLogin(const QString& tfaId, const QString& verifyCode, NBCompletionCallback done);
    // E-mail verification: send a code, then check it with the key of the first reply.
    static long long GetLoginEmailVerify(
        const QString& email, const QString& opType, const QString& captcha, NBCompletionCallback done);
    static long long LoginCheckEmailVerify(const QString& checkKey, const QString& verifyCode,
        const QString& opType, const QString& captcha, NBCompletionCallback done);
    static long long ResetPassword(
        const QString& token, const QString& oldPassword, const QString& password, NBCompletionCallback done);

    // Move one entry; copy, move or delete many in a server task, polled with
    // BatchTaskAsyncQuery and the task id of the reply.
    static long long Move(const NBServerApiMoveModel& model, NBCompletionCallback done);
    static long long BatchCopy(const NBServerApiBatchMoveModel& model, NBCompletionCallback done);
    static long long BatchMove(const NBServerApiBatchMoveModel& model, NBCompletionCallback done);
    static long long BatchDelete(const NBServerApiBatchDeleteModel& model, NBCompletionCallback done);
    static long long BatchTaskAsyncQuery(const QString& taskId, NBCompletionCallback done);

    // The address as given, no default header, cookie or "S"; POST sends the map in key order.
    static long long GET(const QString& url, NBCompletionCallback done);
    static long long POST(const QString& url, QMap<QString, QString> params, NBCompletionCallback done);

    ServerApi() = delete;
};
