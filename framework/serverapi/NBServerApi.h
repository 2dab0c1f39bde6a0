// The endpoint base of every deployment variant: connection settings, address
// composition, default headers and parameters, and the generic requests.
#pragma once

#include "NBHttpMethod.h"
#include "NBMutexLocker.h"
#include "NBRequestBuilder.h"
#include "NBServerApiModels.h"
#include "ResponseData.h"

#include <QMap>
#include <QMutex>
#include <QString>

class NBHttpClient;

class NBServerApi
{
public:
    static inline const QString COOKIE_SESSION = NBConstants::COOKIE_SESSION;
    static inline const QString SZ_USER_AGENT = NBConstants::SZ_USER_AGENT;
    static inline const QString PATHTYPE_ENT = NBPathType::Ent;
    static inline const QString PATHTYPE_SELF = NBPathType::Self;
    static inline const QString PATHTYPE_SHARE_IN = NBPathType::ShareIn;
    static inline const QString PATHTYPE_SHARE_OUT = NBPathType::ShareOut;
    static inline const QString PATHTYPE_BOOK_MARK = NBPathType::BookMark;
    static inline const QString PATHTYPE_TRANS = NBPathType::Trans;
    static inline const QString PATHTYPE_RECYCLE = NBPathType::Recycle;

    NBServerApi();
    // Requests in flight are not cancelled: their handlers do not use this object.
    virtual ~NBServerApi();

    // "<scheme://host:port of base>/<version><path>", fully encoded; a scheme that does not
    // begin with "http" becomes "http". Texts of which no valid address can be made give
    // an empty address, whose request completes with network error 301.
    virtual QString combineReqUrl(const QString& base, const QString& version, const QString& path);
    virtual QString combinPath(const QString& a, const QString& b);
    virtual QString cookie();
    virtual void httpClientDefaultHeader(NBHttpClient* client);
    virtual void setHttpHeaderSession(NBHttpClient* client, const QString& session);
    virtual void privateCloudDefaultParams(NBHttpClient* client);
    virtual QString boolToString(bool value);
    virtual void cancel(long long id);

    // The server operations, in the order of their slots. Each returns the request's
    // identifier; one that a deployment does not serve sends nothing, never calls back
    // and returns -1 or 0.
    virtual long long login(const NBServerApiLoginModel& model, NBCompletionCallback done);
    virtual long long userInfo(const NBServerApiUserInfoModel& model, NBCompletionCallback done);
    virtual long long getFuns(NBCompletionCallback done);
    virtual long long configGet(const NBServerApiConfigGetModel& model, NBCompletionCallback done);
    virtual long long serverJump(const NBServerApiServerJumpModel& model, NBCompletionCallback done);
    virtual long long metaData(const NBServerApiMetaEntryModel& model, NBCompletionCallback done);
    // The extra query, when set, is appended to the address after "&" as it is.
    virtual long long authUpload(
        const NBServerApiEntryModel& model, long long bytes, NBCompletionCallback done, QString extraQuery);
    virtual long long createFolder(const NBServerApiCreateFolderModel& model, NBCompletionCallback done);
    virtual long long createFile(const NBServerApiCreateFileModel& model, NBCompletionCallback done) = 0;
    virtual long long regionGet(NBCompletionCallback done);
    virtual long long getEstEncryptRule(NBCompletionCallback done);
    virtual long long revisions(const NBServerApiRevisionsModel& model, NBCompletionCallback done);
    virtual long long GetUpdateSourcePath(const QString& acctId, NBCompletionCallback done);
    virtual long long extra(QList<QString> neids, NBCompletionCallback done) = 0;
    virtual long long lockFile(const NBServerApiLockFileModel& model, NBCompletionCallback done);
    virtual long long unlockFile(const NBServerApiUnlockFileModel& model, NBCompletionCallback done);
    virtual long long downloadRouter(const NBSeverApiDLRouterModel& model, NBDataCallback onData,
        NBCompletionCallback done, NBDownloadProgressCallback onProgress);
    virtual long long uploadFile(const NBServerApiUploadFileModel& model, NBCompletionCallback done,
        NBUploadProgressCallback onProgress);
    virtual long long uploadData(const NBServerApiUploadDataModel& model, NBCompletionCallback done,
        NBUploadProgressCallback onProgress);
    virtual long long downloadFile(const NBServerApiDownloadFileModel& model, NBCompletionCallback done,
        NBDownloadProgressCallback onProgress);
    virtual long long downloadData(const NBServerApiDownloadDataModel& model, NBDataCallback onData,
        NBCompletionCallback done, NBDownloadProgressCallback onProgress);
    // Calls the list form through the virtual table, with the one hash.
    virtual long long queryHash(
        const NBServerApiQueryHashModel& model, NBCompletionCallback done, QString extraQuery);
    virtual long long queryHash(const QString& serverUrl, const QList<QString>& hashes,
        NBCompletionCallback done, QString extraQuery);
    // Sends `extra` as a parameter named "&", always.
    virtual long long queryHashSix(const QString& serverUrl, const QList<QString>& hashes,
        const QString& extra, NBCompletionCallback done);
    virtual long long chunkedUpload(const NBServerApiChunkedUploadModel& model, NBCompletionCallback done,
        NBUploadProgressCallback onProgress, QString extraQuery);
    virtual long long commitHash(
        const NBServerApiCommitHashModel& model, NBCompletionCallback done, QString extraQuery);
    virtual long long delta(const NBServerApiDeltaModel& model, NBCompletionCallback done);
    virtual long long vboxDelta(const NBServerApiDeltaModel& model, NBCompletionCallback done);
    virtual long long initDelta(const NBServerApiEntryModel& model, NBCompletionCallback done);
    virtual long long GetSyncData(const NBServerApiDeltaModel& model, const QString& syncCid,
        const QString& syncUid, const QString& pullJid, const QString& deltaDataId, int syncType,
        NBCompletionCallback done);
    virtual long long getSyncDataForDisk(const NBServerApiGetSyncDataModel& model, NBCompletionCallback done);
    virtual long long getAssingJid(const NBServerApiEntryModel& model, NBCompletionCallback done);
    virtual long long getAssignSyncData(const NBServerApiGetSyncDataModel& model, NBCompletionCallback done);
    virtual long long move(const NBServerApiMoveModel& model, NBCompletionCallback done);
    virtual long long BatchCopy(const NBServerApiBatchMoveModel& model, NBCompletionCallback done);
    virtual long long batchMove(const NBServerApiBatchMoveModel& model, NBCompletionCallback done);
    virtual long long batchDelete(const NBServerApiBatchDeleteModel& model, NBCompletionCallback done);
    virtual long long batchAsyncQuery(const QString& taskId, NBCompletionCallback done);
    // The file to the address as given, without a header or parameter of the endpoint.
    virtual long long Upload(const QString& url, const QString& localPath, NBCompletionCallback done,
        NBUploadProgressCallback onProgress);
    // Deliveries (shared links).
    virtual long long deliveryAuth(const NBServerApiDeliveryAuthModel& model, NBCompletionCallback done);
    virtual long long deliveryAuthUpload(
        const NBServerApiDeliveryAuthUploadModel& model, NBCompletionCallback done);
    virtual long long deliveryUploadFile(const NBServerApiDeliveryUploadFileModel& model,
        NBCompletionCallback done, NBUploadProgressCallback onProgress);
    virtual long long deliveryUploadData(const NBServerApiDeliveryUploadDataModel& model,
        NBCompletionCallback done, NBUploadProgressCallback onProgress);
    virtual long long deliveryDownloadFile(const NBServerApiDeliveryDownloadFileModel& model,
        NBCompletionCallback done, NBDownloadProgressCallback onProgress);
    virtual long long deliveryDownloadData(const NBServerApiDeliveryDownloadDataModel& model,
        NBDataCallback onData, NBCompletionCallback done, NBDownloadProgressCallback onProgress);
    virtual long long deliveryMetadata(
        const NBServerApiDeliveryMetadataModel& model, NBCompletionCallback done);
    virtual long long deliveryCreateFolder(NBServerApiDeliveryCreateFolder model, NBCompletionCallback done);
    virtual long long deliveryQueryHash(
        const NBServerApiDeliveryQueryHashModel& model, NBCompletionCallback done);
    virtual long long deliveryChunkedUpload(const NBServerApiDeliveryChunkedUploadModel& model,
        NBCompletionCallback done, NBUploadProgressCallback onProgress);
    virtual long long deliveryCommitHash(
        const NBServerApiDeliveryCommitHashModel& model, NBCompletionCallback done);
    virtual long long deliveryDownloadRouter(const NBSeverApiDeliveryDLRouterModel& model,
        NBDataCallback onData, NBCompletionCallback done, NBDownloadProgressCallback onProgress);
    // The address as given, with the default headers.
    virtual long long download(const QString& url, NBDataCallback onData, NBCompletionCallback done,
        NBDownloadProgressCallback onProgress);
    // Sign-in screens of the public cloud.
    virtual long long GetEnterpriseAddressByCode(const QString& code, NBCompletionCallback done);
    virtual long long GetZipDownloadUrl(const QString& url, const QString& unused, NBCompletionCallback done);
    virtual long long GetZipFolderMetadata(
        const QString& url, const QString& password, qint64 limit, qint64 offset, NBCompletionCallback done);
    virtual long long GetQuickLoginVerifyPic(NBDataCallback onData);
    virtual long long GetQuickLoginSmsCode(const NBServerApiSmsCodeModel& model, NBCompletionCallback done);
    virtual long long GetQRCode(int dimension, NBCompletionCallback done);
    virtual long long GetLoginState(NBServerApiLoginStateModel model, NBCompletionCallback done);
    virtual long long GetLoginEmailVerify(
        const QString& email, const QString& opType, const QString& captcha, NBCompletionCallback done);
    virtual long long LoginCheckEmailVerify(const QString& checkKey, const QString& verifyCode,
        const QString& opType, const QString& captcha, NBCompletionCallback done);
    virtual long long DyncCodeLogin(const QString& tfaId, const QString& otp, NBCompletionCallback done);
    virtual long long SendSmsCode(const QString& mobile, const QString& tfaId, const QString& opType,
        const QString& type, const QString& flag, const QString& timestamp, const QString& sig,
        NBCompletionCallback done);
    virtual long long SmsCodeLogin(
        const QString& tfaId, const QString& verifyCode, NBCompletionCallback done);
    virtual long long ResetPassword(
        const QString& token, const QString& oldPassword, const QString& password, NBCompletionCallback done);
    virtual long long RPCServerLogging(const QString& action, const QString& entityStr2,
        const QString& entityStr1, const QString& pathType, const QString& neid, const QString& nsid,
        const QString& opType, NBCompletionCallback done);
    // The generic requests send the address as given: no default header, cookie or "S".
    virtual long long getNoRedirect(const QString& url, NBCompletionCallback done);
    virtual long long get(const QString& url, NBCompletionCallback done);
    virtual long long post(const QString& url, QMap<QString, QString> params, NBCompletionCallback done);
    // The scheme probes' GET: a generic request whose body is read and dropped.
    long long probe(const QString& url, NBRequestBuilder::Redirects redirects, NBCompletionCallback done);
    // The model form of getSyncData is served by no deployment.
    virtual long long getSyncData(const NBServerApiGetSyncDataModel& model, NBCompletionCallback done);
    // Approval policy, served by every deployment; fileExist by the private ones.
    virtual long long checkApproveIsOne(const QString& neids, int actionType, NBCompletionCallback done);
    virtual long long checkApproveFloder(const QString& nsid, const QString& path, NBCompletionCallback done);
    virtual long long isCreateSyndisc(
        const QString& nsid, const QString& path, const QString& type, NBCompletionCallback done);
    virtual long long fileExist(const QString& neid, const QString& path, const QString& nsid,
        const QString& from, const QString& prefixNeid, NBCompletionCallback done);
    // A delivery's path without its first folder, the link's own root: "/Shared/a/b"
    // gives "/a/b", and a path that names only the root gives "/".
    virtual QString deliveryRootPathHandle(const QString& path);

    // Settings; each read or write is atomic under the settings lock.
    void setBaseUrlString(const QString& url);
    QString baseUrlString();
    void setVersionString(const QString& version);
    QString versionString();
    void setSessionID(const QString& session);
    QString sessionID();
    void setLanguage(const QString& language);
    QString language();
    void setUserAgent(const QString& userAgent);
    QString userAgent();
    void setPriServerVerifyCode(const QString& code);
    QString priServerVerifyCode();

    long long createHandle(NBHttpClient* client);
    // Needs no endpoint: a completion may release its handle after the endpoint is gone.
    static void deleteHttpClient(long long id);

    // The number the operation log sends for a path type: matched without regard to
    // case, unknown names give 0.
    static int pathTypeNumber(const QString& pathType);

    // The host configuration's language (attribute 59), which transfers send as "language".
    static QString hostLanguage();

    // Wraps the caller's callback: calls it (when set) with the record unchanged, then
    // releases the handle, after the first completion only. Holds no pointer to the
    // endpoint, so it works after the endpoint is gone.
    static NBCompletionCallback replyHandler(NBCompletionCallback done, long long id);

    // Operation paths.
    static inline const QString m_getUserInfoUrl = QStringLiteral("/user/info/get");
    static inline const QString m_configGetUrl = QStringLiteral("/config/get");
    static inline const QString m_serverJumpUrl = QStringLiteral("/api/server/jump");
    static inline const QString m_metaDataUrl = QStringLiteral("/metadata/databox");
    static inline const QString m_fileopsAuthUploadUrl = QStringLiteral("/fileops/auth_upload/databox");
    static inline const QString m_fileopsCreateFolderUrl = QStringLiteral("/fileops/create_folder/databox");
    static inline const QString m_regionGetUrl = QStringLiteral("/region/get");
    static inline const QString m_revisionsUrl = QStringLiteral("/revisions/databox");
    static inline const QString m_strAddOfUpdateResource = QStringLiteral("/app/info/get");
    static inline const QString m_lockUrl = QStringLiteral("/lock/databox");
    static inline const QString m_unlockUrl = QStringLiteral("/unlock/databox");
    static inline const QString m_dlRouterUrl = QStringLiteral("/dl_router/databox");
    static inline const QString m_filesDataboxUrl = QStringLiteral("/files/databox");
    // The hash query and the commit share it; the server tells them apart by their parameters.
    static inline const QString m_commitChunkedUploadUrl
        = QStringLiteral("/commit_chunked_upload/commit/databox");
    static inline const QString m_chunkedUploadUrl = QStringLiteral("/chunked_upload");
    static inline const QString m_deliveryAuth = QStringLiteral("/delivery/auth");
    static inline const QString m_deliveryAuthUpload = QStringLiteral("/delivery/auth_upload");
    static inline const QString m_deliveryData = QStringLiteral("/delivery/data");
    static inline const QString m_deliveryDlRouter = QStringLiteral("/delivery/dl_router");
    static inline const QString m_deliveryQueryHash = QStringLiteral("/delivery/commit_chunked");
    static inline const QString m_deliveryChunkedUpload = QStringLiteral("/delivery/chunked_upload/");
    static inline const QString m_deliveryCommitHash = QStringLiteral("/delivery/commit_chunked");
    static inline const QString m_deliveryMetadata = QStringLiteral("/delivery/metadata");
    static inline const QString m_deliveryCreateFolder = QStringLiteral("/delivery/upload_folder");
    static inline const QString m_fileopsMoveUrl = QStringLiteral("/fileops/move");
    static inline const QString m_fileopsBatchCopyUrl = QStringLiteral("/fileops/batch_copy");
    static inline const QString m_fileopsBatchMoveUrl = QStringLiteral("/fileops/batch_move");
    static inline const QString m_fileopsBatchDeleteUrl = QStringLiteral("/fileops/batch_delete");
    static inline const QString m_batchAsyncQueryUrl = QStringLiteral("/async/query");
    static inline const QString m_deltaUrl = QStringLiteral("/delta/databox");
    static inline const QString m_getSyncDataUrl = QStringLiteral("/syncdata/syncDisc");
    static inline const QString m_RPCLogging = QStringLiteral("/log/logging");
    // Written without a leading "/"; the address gets one all the same.
    static inline const QString m_approveIsApprovalUrl = QStringLiteral("approve/is_approval");
    static inline const QString m_approveIsExistPolicyUrl = QStringLiteral("approve/is_exist_policy");
    static inline const QString m_approveIsCreateSyndiscUrl = QStringLiteral("approve/is_create_syndisc");

protected:
    // A request to one of this server's operations: "<scheme://host:port>/<version><path>".
    NBRequestBuilder request(const QString& path);
    // A request to an operation of a transfer server: its address instead of the base address.
    NBRequestBuilder requestOn(const QString& serverUrl, const QString& path);
    // A request to an address taken as it is.
    NBRequestBuilder requestTo(const QString& url);
    // A request to a shared link's operation on its server: "<operation>/<code><rest>".
    template<typename Link>
    NBRequestBuilder linkRequest(const Link& link, const QString& operation, const QString& rest)
    {
        return requestOn(link.serverUrl, combinPath(combinPath(operation, link.code), rest));
    }

    // A setting read or written under the settings lock.
    QString read(const QString& setting) const;
    void write(QString& setting, const QString& value);

private:
    Q_DISABLE_COPY(NBServerApi)

    QString m_baseUrl;
    QString m_version;
    QString m_sessionId;
    QString m_priServerVerifyCode;
    QString m_language;
    QString m_userAgent;
    mutable QMutex m_settingsMutex;
};
