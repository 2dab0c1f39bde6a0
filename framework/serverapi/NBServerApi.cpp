#include "NBServerApi.h"

#include "CNBLoggerWrapper.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "NBRequestParams.h"
#include "NBUnserved.h"

#include <NBConfigure.h>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSharedPointer>
#include <QUrl>
#include <QUrlQuery>

namespace {

// The body of a batch copy or move; "ignore_share" is a JSON string, not a boolean.
QJsonDocument batchMoveDocument(const NBServerApiBatchMoveModel& model, const QString& ignoreShare)
{
    return QJsonDocument(QJsonObject { { "from", entriesJson(model.from) }, { "to", entryJson(model.to) },
        { "ignore_share", ignoreShare } });
}

// The query of a whole upload, whose body is the content; a data upload passes no revision.
auto uploadQuery(const QString& rev)
{
    return [rev](NBRequestBuilder& request, const auto& model) {
        request.inQuery()
            .with(entryParams, model)
            .paramsIfSet({ { NBKey::Rev, rev }, { NBKey::ParentRev, model.parentRev } })
            .flag(NBKey::Overwrite, model.overwrite)
            .paramIfSet(NBKey::OpType, model.opType)
            .verifyCodeParam()
            .languageParam();
    };
}

// The query of a delivery's whole upload or download: the model's path as it is.
constexpr auto deliveryQuery = [](NBRequestBuilder& request, const auto& model) {
    request.inQuery()
        .param(NBKey::Path, model.path)
        .param(NBKey::Token, model.token)
        .param("NBC", model.nbc)
        .param(NBKey::Overwrite, model.overwrite)
        .verifyCodeParam()
        .languageParam();
};

// The parameters of a whole download.
constexpr auto downloadParams = [](NBRequestBuilder& request, const auto& model) {
    request.param(NBKey::Path, model.path)
        .param(NBKey::PathType, model.pathType)
        .paramsIfSet({ { NBKey::From, model.from }, { NBKey::Neid, model.neid }, { NBKey::Rev, model.rev },
            { NBKey::PrefixNeid, model.prefixNeid }, { NBKey::OpType, model.opType } })
        .languageParam();
};

} // namespace

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
    const QString candidate = url.host().isEmpty() ? url.path(QUrl::FullyDecoded) : QString();
    if (!candidate.isEmpty()) {
        // "http:host": the host was read as the path. Qt 5 mishandles a host it refuses
        // (it keeps freed text and writes "[vE." back), so only a whole, valid one is set.
        const QUrl probe(QStringLiteral("http://") + candidate, QUrl::StrictMode);
        if (!probe.isValid() || probe.host().compare(candidate, Qt::CaseInsensitive) != 0)
            return QString();
        url.setHost(probe.host());
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
    // An address that does not read back as one is none.
    const QString composed = url.toString(QUrl::FullyEncoded);
    return QUrl(composed, QUrl::StrictMode).isValid() ? composed : QString();
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

// --- Account, metadata, folders, locks: parameters first, then the defaults. ---------

long long NBServerApi::userInfo(const NBServerApiUserInfoModel& model, NBCompletionCallback done)
{
    return request(combinPath(m_getUserInfoUrl, model.suffix)).withDefaults().send(std::move(done));
}

long long NBServerApi::configGet(const NBServerApiConfigGetModel& model, NBCompletionCallback done)
{
    return request(m_configGetUrl)
        .param("config_id", model.configId)
        .param("config_type", model.configType)
        .param("name", model.name)
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::serverJump(const NBServerApiServerJumpModel& model, NBCompletionCallback done)
{
    return request(m_serverJumpUrl)
        .param("url", model.url)
        .param(COOKIE_SESSION, model.session)
        .param("type", model.type)
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::metaData(const NBServerApiMetaEntryModel& model, NBCompletionCallback done)
{
    // An entry named by its identifier is asked for under "//root", doubled slash and all.
    const QString path = model.neid.isEmpty() ? model.path : QStringLiteral("//root");
    return request(combinPath(m_metaDataUrl, path))
        .with(entryParams, model)
        .flag("include_deleted", model.includeDeleted)
        .flag("with_seed", model.withSeed)
        .flag("list", model.list)
        .paramIfSet("content_type", model.contentType)
        .with(pageParams, model)
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::createFolder(const NBServerApiCreateFolderModel& model, NBCompletionCallback done)
{
    return request(combinPath(m_fileopsCreateFolderUrl, model.path))
        .method(POST)
        .with(folderParams, model)
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::regionGet(NBCompletionCallback done)
{
    return request(m_regionGetUrl).withDefaults().send(std::move(done));
}

long long NBServerApi::revisions(const NBServerApiRevisionsModel& model, NBCompletionCallback done)
{
    return request(combinPath(m_revisionsUrl, model.path))
        .with(entryParams, model)
        .number("rev_limit", model.revLimit)
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::GetUpdateSourcePath(const QString& acctId, NBCompletionCallback done)
{
    return request(m_strAddOfUpdateResource).param("acct_id", acctId).withDefaults().send(std::move(done));
}

long long NBServerApi::lockFile(const NBServerApiLockFileModel& model, NBCompletionCallback done)
{
    return request(combinPath(m_lockUrl, model.path))
        .with(entryParams, model)
        .number("time", model.time)
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::unlockFile(const NBServerApiUnlockFileModel& model, NBCompletionCallback done)
{
    return request(combinPath(m_unlockUrl, model.path))
        .with(entryParams, model)
        .withDefaults()
        .send(std::move(done));
}

// --- Transfers: authorisation, routing, whole files, chunks. ------------------------

long long NBServerApi::authUpload(
    const NBServerApiEntryModel& model, long long bytes, NBCompletionCallback done, QString extraQuery)
{
    return request(combinPath(m_fileopsAuthUploadUrl, model.path))
        .param(NBKey::Path, model.path)
        .param(NBKey::PathType, model.pathType)
        .param("full_path", model.path)
        .with(authUploadParams, model)
        .number(NBKey::Bytes, bytes)
        .withDefaults()
        .extraQuery(extraQuery)
        .send(std::move(done));
}

long long NBServerApi::downloadRouter(const NBSeverApiDLRouterModel& model, NBDataCallback onData,
    NBCompletionCallback done, NBDownloadProgressCallback onProgress)
{
    return request(combinPath(m_dlRouterUrl, model.path))
        .with(routeParams(NBKey::Path), model)
        .withDefaults()
        .download(std::move(onData), std::move(onProgress), std::move(done));
}

long long NBServerApi::uploadFile(
    const NBServerApiUploadFileModel& model, NBCompletionCallback done, NBUploadProgressCallback onProgress)
{
    return requestOn(model.serverUrl, combinPath(m_filesDataboxUrl, model.path))
        .with(uploadQuery(model.rev), model)
        .defaultHeaders()
        .upload(model.localPath, std::move(onProgress), std::move(done));
}

long long NBServerApi::uploadData(
    const NBServerApiUploadDataModel& model, NBCompletionCallback done, NBUploadProgressCallback onProgress)
{
    return requestOn(model.serverUrl, combinPath(m_filesDataboxUrl, model.path))
        .with(uploadQuery(QString()), model)
        .defaultHeaders()
        .upload(model.data, std::move(onProgress), std::move(done));
}

long long NBServerApi::downloadFile(const NBServerApiDownloadFileModel& model, NBCompletionCallback done,
    NBDownloadProgressCallback onProgress)
{
    return requestOn(model.serverUrl, combinPath(m_filesDataboxUrl, model.path))
        .with(downloadParams, model)
        .withDefaults()
        .downloadTo(model.localPath, std::move(onProgress), std::move(done));
}

long long NBServerApi::downloadData(const NBServerApiDownloadDataModel& model, NBDataCallback onData,
    NBCompletionCallback done, NBDownloadProgressCallback onProgress)
{
    return requestOn(model.serverUrl, combinPath(m_filesDataboxUrl, model.path))
        .with(downloadParams, model)
        .withDefaults()
        .download(std::move(onData), std::move(onProgress), std::move(done));
}

long long NBServerApi::queryHash(
    const NBServerApiQueryHashModel& model, NBCompletionCallback done, QString extraQuery)
{
    return queryHash(model.serverUrl, { model.hash }, std::move(done), extraQuery);
}

long long NBServerApi::queryHash(
    const QString& serverUrl, const QList<QString>& hashes, NBCompletionCallback done, QString extraQuery)
{
    return requestOn(serverUrl, m_commitChunkedUploadUrl)
        .method(POST)
        .each(NBKey::Hashes, hashes)
        .withDefaults()
        .extraQuery(extraQuery)
        .send(std::move(done));
}

long long NBServerApi::queryHashSix(
    const QString& serverUrl, const QList<QString>& hashes, const QString& extra, NBCompletionCallback done)
{
    return requestOn(serverUrl, m_commitChunkedUploadUrl)
        .method(POST)
        .each(NBKey::Hashes, hashes)
        .param("&", extra)
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::chunkedUpload(const NBServerApiChunkedUploadModel& model, NBCompletionCallback done,
    NBUploadProgressCallback onProgress, QString extraQuery)
{
    return requestOn(model.serverUrl, m_chunkedUploadUrl)
        .with(chunkQuery, model)
        .defaultHeaders()
        .extraQuery(extraQuery)
        .upload(model.data, std::move(onProgress), std::move(done));
}

long long NBServerApi::commitHash(
    const NBServerApiCommitHashModel& model, NBCompletionCallback done, QString extraQuery)
{
    return requestOn(model.serverUrl, combinPath(m_commitChunkedUploadUrl, model.path))
        .method(POST)
        .param(NBKey::Path, model.path)
        .param(NBKey::PathType, model.pathType)
        .paramsIfSet({ { NBKey::From, model.from }, { NBKey::Rev, model.rev },
            { NBKey::ParentRev, model.parentRev }, { NBKey::PrefixNeid, model.prefixNeid } })
        .number(NBKey::Bytes, model.bytes)
        .flag("is_file_commit", model.isFileCommit)
        .flag(NBKey::Overwrite, model.overwrite)
        .paramIfSet(NBKey::OpType, model.opType)
        .each(NBKey::Hashes, model.hashes)
        .withDefaults()
        .extraQuery(extraQuery)
        .send(std::move(done));
}

// --- Deliveries: addressed by link code, each with its own session but the first. ----

QString NBServerApi::deliveryRootPathHandle(const QString& path)
{
    QStringList pieces = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (!pieces.isEmpty())
        pieces.removeFirst();
    const QString rest = pieces.join(QLatin1Char('/'));
    return rest.startsWith(QLatin1Char('/')) ? rest : QLatin1Char('/') + rest;
}

long long NBServerApi::deliveryAuth(const NBServerApiDeliveryAuthModel& model, NBCompletionCallback done)
{
    return requestOn(model.serverUrl, combinPath(m_deliveryAuth, model.code))
        .method(POST)
        .param("password", model.password)
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::deliveryAuthUpload(
    const NBServerApiDeliveryAuthUploadModel& model, NBCompletionCallback done)
{
    return requestOn(model.serverUrl, combinPath(m_deliveryAuthUpload, model.code))
        .paramsIfSet({ { NBKey::Bytes, model.bytes }, { NBKey::Language, model.language },
            { NBKey::Token, model.token }, { NBKey::Path, model.path } })
        .withDefaults()
        .session(model.session)
        .send(std::move(done));
}

long long NBServerApi::deliveryUploadFile(const NBServerApiDeliveryUploadFileModel& model,
    NBCompletionCallback done, NBUploadProgressCallback onProgress)
{
    return requestOn(model.serverUrl, combinPath(m_deliveryData, model.code))
        .with(deliveryQuery, model)
        .defaultHeaders()
        .session(model.session)
        .upload(model.localPath, std::move(onProgress), std::move(done));
}

long long NBServerApi::deliveryUploadData(const NBServerApiDeliveryUploadDataModel& model,
    NBCompletionCallback done, NBUploadProgressCallback onProgress)
{
    return requestOn(model.serverUrl, combinPath(m_deliveryData, model.code))
        .with(deliveryQuery, model)
        .defaultHeaders()
        .session(model.session)
        .upload(model.data, std::move(onProgress), std::move(done));
}

// The one download of a delivery that takes both default steps: a verification code
// goes in its query and once more after it.
long long NBServerApi::deliveryDownloadFile(const NBServerApiDeliveryDownloadFileModel& model,
    NBCompletionCallback done, NBDownloadProgressCallback onProgress)
{
    return linkRequest(model, m_deliveryDlRouter, deliveryRootPathHandle(model.path))
        .with(deliveryQuery, model)
        .withDefaults()
        .session(model.session)
        .downloadTo(model.localPath, std::move(onProgress), std::move(done));
}

long long NBServerApi::deliveryDownloadData(const NBServerApiDeliveryDownloadDataModel& model,
    NBDataCallback onData, NBCompletionCallback done, NBDownloadProgressCallback onProgress)
{
    return linkRequest(model, m_deliveryDlRouter, deliveryRootPathHandle(model.path))
        .with(deliveryQuery, model)
        .defaultHeaders()
        .session(model.session)
        .download(std::move(onData), std::move(onProgress), std::move(done));
}

long long NBServerApi::deliveryDownloadRouter(const NBSeverApiDeliveryDLRouterModel& model,
    NBDataCallback onData, NBCompletionCallback done, NBDownloadProgressCallback onProgress)
{
    return linkRequest(model, m_deliveryDlRouter, deliveryRootPathHandle(model.path))
        .inQuery()
        .param(NBKey::Path, model.path)
        .param(NBKey::Token, model.token)
        .param("NBC", model.nbc)
        .verifyCodeParam()
        .languageParam()
        .rangeIfSet(model.range)
        .defaultHeaders()
        .session(model.session)
        .download(std::move(onData), std::move(onProgress), std::move(done));
}

long long NBServerApi::deliveryMetadata(
    const NBServerApiDeliveryMetadataModel& model, NBCompletionCallback done)
{
    return linkRequest(model, m_deliveryMetadata, deliveryRootPathHandle(model.path))
        .param(NBKey::Token, model.token)
        .param("delivery_token", model.deliveryToken)
        .param("code", model.code)
        .param("password", model.password)
        .flag("with_seed", model.withSeed)
        .flag("walk_folder_content", model.walkFolderContent)
        .with(pageParams, model)
        .withDefaults()
        .session(model.session)
        .send(std::move(done));
}

long long NBServerApi::deliveryCreateFolder(NBServerApiDeliveryCreateFolder model, NBCompletionCallback done)
{
    return linkRequest(model, m_deliveryCreateFolder, model.relativePath)
        .method(POST)
        .param(NBKey::Token, model.token)
        .param("code", model.code)
        .param("relativePath", model.relativePath)
        .param(NBKey::Neid, model.neid)
        .withDefaults()
        .session(model.session)
        .send(std::move(done));
}

long long NBServerApi::deliveryQueryHash(
    const NBServerApiDeliveryQueryHashModel& model, NBCompletionCallback done)
{
    return linkRequest(model, m_deliveryQueryHash, model.relativePath)
        .method(POST)
        .param("code", model.code)
        .param("relative_path", model.relativePath)
        .number(NBKey::Bytes, model.bytes)
        .param(NBKey::Token, model.token)
        .param("NBC", model.nbc)
        .param(NBKey::Hashes, model.hash)
        .withDefaults()
        .session(model.session)
        .send(std::move(done));
}

long long NBServerApi::deliveryChunkedUpload(const NBServerApiDeliveryChunkedUploadModel& model,
    NBCompletionCallback done, NBUploadProgressCallback onProgress)
{
    return requestOn(model.serverUrl, m_deliveryChunkedUpload)
        .with(chunkQuery, model)
        .defaultHeaders()
        .upload(model.data, std::move(onProgress), std::move(done));
}

long long NBServerApi::deliveryCommitHash(
    const NBServerApiDeliveryCommitHashModel& model, NBCompletionCallback done)
{
    return linkRequest(model, m_deliveryCommitHash, model.relativePath)
        .method(POST)
        .param("code", model.code)
        .param("relative_path", model.relativePath)
        .number(NBKey::Bytes, model.totalBytes)
        .param(NBKey::Token, model.token)
        .param("NBC", model.nbc)
        .paramIfSet(NBKey::ParentRev, model.parentRev)
        .number(NBKey::Bytes, model.bytes)
        .flag("is_file_commit", model.isFileCommit)
        .flag(NBKey::Overwrite, model.overwrite)
        .each(NBKey::Hashes, model.hashes)
        .withDefaults()
        .session(model.session)
        .send(std::move(done));
}

long long NBServerApi::Upload(const QString& url, const QString& localPath, NBCompletionCallback done,
    NBUploadProgressCallback onProgress)
{
    return requestTo(url).upload(localPath, std::move(onProgress), std::move(done));
}

long long NBServerApi::download(const QString& url, NBDataCallback onData, NBCompletionCallback done,
    NBDownloadProgressCallback onProgress)
{
    return requestTo(url).defaultHeaders().download(
        std::move(onData), std::move(onProgress), std::move(done));
}

// --- Change feed, sync data, approval queries, the operation log. --------------------

long long NBServerApi::delta(const NBServerApiDeltaModel& model, NBCompletionCallback done)
{
    return request(combinPath(m_deltaUrl, model.path))
        .method(POST)
        .withDefaults()
        .with(feedParams, model)
        .send(std::move(done));
}

long long NBServerApi::GetSyncData(const NBServerApiDeltaModel& model, const QString& syncCid,
    const QString& syncUid, const QString& pullJid, const QString& deltaDataId, int syncType,
    NBCompletionCallback done)
{
    return request(m_getSyncDataUrl)
        .method(POST)
        .withDefaults()
        .param(NBKey::Path, model.path)
        .with(feedParams, model)
        .paramOrZero("syncCid", syncCid)
        .paramIfSet("syncUid", syncUid)
        .paramOrZero("pullJid", pullJid)
        .paramOrZero("deltaDataId", deltaDataId)
        .number("syncType", syncType)
        .send(std::move(done));
}

long long NBServerApi::checkApproveIsOne(const QString& neids, int actionType, NBCompletionCallback done)
{
    return request(m_approveIsApprovalUrl)
        .withDefaults()
        .param("neids", neids)
        .number("action_type", actionType)
        .send(std::move(done));
}

long long NBServerApi::checkApproveFloder(const QString& nsid, const QString& path, NBCompletionCallback done)
{
    return request(m_approveIsExistPolicyUrl)
        .withDefaults()
        .param(NBKey::Nsid, nsid)
        .param(NBKey::Path, path)
        .send(std::move(done));
}

long long NBServerApi::isCreateSyndisc(
    const QString& nsid, const QString& path, const QString& type, NBCompletionCallback done)
{
    return request(m_approveIsCreateSyndiscUrl)
        .withDefaults()
        .param(NBKey::Nsid, nsid)
        .param(NBKey::Path, path)
        .param("type", type)
        .send(std::move(done));
}

long long NBServerApi::RPCServerLogging(const QString& action, const QString& entityStr2,
    const QString& entityStr1, const QString& pathType, const QString& neid, const QString& nsid,
    const QString& opType, NBCompletionCallback done)
{
    return request(m_RPCLogging)
        .method(POST)
        .withDefaults()
        .param("category", "0")
        .param("action", action)
        .param("entityStr1", entityStr1)
        .param("entityStr2", entityStr2)
        .number("pathType", pathTypeNumber(pathType))
        .param(NBKey::OpType, opType)
        .param(NBKey::Neid, neid)
        .param(NBKey::Nsid, nsid)
        .send(std::move(done));
}

// --- Move, copy, delete: the parameters, then the defaults. --------------------------

long long NBServerApi::move(const NBServerApiMoveModel& model, NBCompletionCallback done)
{
    return request(m_fileopsMoveUrl)
        .method(POST)
        .param(NBKey::Root, "databox")
        .with(prefixedEntryParams("from_"), model.from)
        .with(prefixedEntryParams("to_"), model.to)
        .flag("ignore_share", model.ignoreShare)
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::BatchCopy(const NBServerApiBatchMoveModel& model, NBCompletionCallback done)
{
    return request(m_fileopsBatchCopyUrl)
        .method(POST)
        .json(batchMoveDocument(model, boolToString(model.ignoreShare)))
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::batchMove(const NBServerApiBatchMoveModel& model, NBCompletionCallback done)
{
    return request(m_fileopsBatchMoveUrl)
        .method(POST)
        .json(batchMoveDocument(model, boolToString(model.ignoreShare)))
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::batchDelete(const NBServerApiBatchDeleteModel& model, NBCompletionCallback done)
{
    const QJsonObject document { { "pathes", entriesJson(model.pathes) },
        { "ignore_share", boolToString(model.ignoreShare) } };
    return request(m_fileopsBatchDeleteUrl)
        .method(POST)
        .json(QJsonDocument(document))
        .withDefaults()
        .send(std::move(done));
}

long long NBServerApi::batchAsyncQuery(const QString& taskId, NBCompletionCallback done)
{
    return request(m_batchAsyncQueryUrl).withDefaults().param("task_id", taskId).send(std::move(done));
}

// --- Served by the variants, or by none: here nothing is sent and nothing calls back. -
// clang-format off
NB_UNSERVED(NBServerApi, login,                      -1, const NBServerApiLoginModel&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, getFuns,                     0, NBCompletionCallback)
NB_UNSERVED(NBServerApi, getEstEncryptRule,           0, NBCompletionCallback)
NB_UNSERVED(NBServerApi, vboxDelta,                  -1, const NBServerApiDeltaModel&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, initDelta,                  -1, const NBServerApiEntryModel&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, getSyncData,                -1, const NBServerApiGetSyncDataModel&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, getSyncDataForDisk,         -1, const NBServerApiGetSyncDataModel&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, getAssingJid,               -1, const NBServerApiEntryModel&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, getAssignSyncData,          -1, const NBServerApiGetSyncDataModel&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, fileExist,                  -1, const QString&, const QString&, const QString&, const QString&, const QString&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, GetEnterpriseAddressByCode,  0, const QString&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, GetZipDownloadUrl,           0, const QString&, const QString&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, GetZipFolderMetadata,        0, const QString&, const QString&, qint64, qint64, NBCompletionCallback)
NB_UNSERVED(NBServerApi, GetQuickLoginVerifyPic,      0, NBDataCallback)
NB_UNSERVED(NBServerApi, GetQuickLoginSmsCode,        0, const NBServerApiSmsCodeModel&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, GetQRCode,                   0, int, NBCompletionCallback)
NB_UNSERVED(NBServerApi, GetLoginState,               0, NBServerApiLoginStateModel, NBCompletionCallback)
NB_UNSERVED(NBServerApi, GetLoginEmailVerify,         0, const QString&, const QString&, const QString&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, LoginCheckEmailVerify,       0, const QString&, const QString&, const QString&, const QString&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, DyncCodeLogin,               0, const QString&, const QString&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, SendSmsCode,                 0, const QString&, const QString&, const QString&, const QString&, const QString&, const QString&, const QString&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, SmsCodeLogin,                0, const QString&, const QString&, NBCompletionCallback)
NB_UNSERVED(NBServerApi, ResetPassword,               0, const QString&, const QString&, const QString&, NBCompletionCallback)
// clang-format on

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

long long NBServerApi::probe(
    const QString& url, NBRequestBuilder::Redirects redirects, NBCompletionCallback done)
{
    return requestTo(url).bodyDropped().send(std::move(done), redirects);
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

QString NBServerApi::read(const QString& setting) const
{
    NBMutexLocker lock(&m_settingsMutex);
    return setting;
}

void NBServerApi::write(QString& setting, const QString& value)
{
    NBMutexLocker lock(&m_settingsMutex);
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

NBCompletionCallback NBServerApi::replyHandler(NBCompletionCallback done, long long id)
{
    // The copies of the handler share whether the identifier is already released: after a
    // time-out the number may meanwhile belong to another request.
    const auto released = QSharedPointer<bool>::create(false);
    return [done = std::move(done), id, released](const ResponseData& response) {
        if (done)
            done(response);
        if (!std::exchange(*released, true))
            deleteHttpClient(id);
    };
}

NBRequestBuilder NBServerApi::request(const QString& path)
{
    return NBRequestBuilder(*this, combineReqUrl(baseUrlString(), versionString(), path));
}

NBRequestBuilder NBServerApi::requestOn(const QString& serverUrl, const QString& path)
{
    return NBRequestBuilder(*this, combineReqUrl(serverUrl, versionString(), path));
}

NBRequestBuilder NBServerApi::requestTo(const QString& url)
{
    return NBRequestBuilder(*this, url);
}
