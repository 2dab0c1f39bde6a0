#include "NBPriServerApi.h"

#include "NBRequestParams.h"
#include "NBUnserved.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

NBPriServerApi::NBPriServerApi() = default;

NBPriServerApi::~NBPriServerApi() = default;

long long NBPriServerApi::login(const NBServerApiLoginModel& model, NBCompletionCallback done)
{
    return request(m_loginUrl)
        .method(POST)
        .param("user_slug", model.userName)
        .param("password", model.password)
        .defaultHeaders()
        .send(std::move(done));
}

long long NBPriServerApi::authUpload(
    const NBServerApiEntryModel& model, long long bytes, NBCompletionCallback done, QString extraQuery)
{
    return request(m_fileopsAuthUploadUrl)
        .method(POST)
        .param("target_path", model.path)
        .param(NBKey::PathType, model.pathType)
        .with(authUploadParams, model)
        .number(NBKey::Bytes, bytes)
        .withDefaults()
        .extraQuery(extraQuery)
        .send(std::move(done));
}

long long NBPriServerApi::createFolder(const NBServerApiCreateFolderModel& model, NBCompletionCallback done)
{
    return request(combinPath(m_fileopsCreateFolderUrl, model.path))
        .method(POST)
        .paramIfSet(NBKey::Nsid, model.nsid)
        .with(folderParams, model)
        .paramsIfSet({ { "full_path", model.path }, { NBKey::IgnorePrefixPath, model.ignorePrefixPath } })
        .flag("disable_rename", model.disableRename)
        .flag("is_update", model.isUpdate)
        .withDefaults()
        .send(std::move(done));
}

NB_UNSERVED(NBPriServerApi, createFile, -1, const NBServerApiCreateFileModel&, NBCompletionCallback)

// The JSON text reaches the parameter byte by byte, each byte read as one Latin-1 character.
long long NBPriServerApi::extra(QList<QString> neids, NBCompletionCallback done)
{
    QJsonArray array;
    for (const QString& neid : neids)
        array.append(QJsonObject { { NBKey::Neid, neid } });
    return request(m_extraMetadataUrl)
        .method(POST)
        .json(QJsonDocument(array), NBRequestBuilder::Latin1)
        .withDefaults()
        .send(std::move(done));
}

long long NBPriServerApi::downloadRouter(const NBSeverApiDLRouterModel& model, NBDataCallback onData,
    NBCompletionCallback done, NBDownloadProgressCallback onProgress)
{
    return downloadRouterInternal(model, std::move(onData), std::move(done), std::move(onProgress), false);
}

long long NBPriServerApi::downloadRouterInternal(const NBSeverApiDLRouterModel& model, NBDataCallback onData,
    NBCompletionCallback done, NBDownloadProgressCallback onProgress, bool usePost)
{
    NBRequestBuilder router
        = usePost ? request(m_dlRouterUrl) : request(combinPath(m_dlRouterUrl, model.path));
    router.method(usePost ? POST : GET)
        .with(routeParams(usePost ? QStringLiteral("target_path") : NBKey::Path), model)
        .withDefaults();
    return usePost ? router.downloadUsePost(std::move(onData), std::move(onProgress), std::move(done))
                   : router.download(std::move(onData), std::move(onProgress), std::move(done));
}

long long NBPriServerApi::fileExist(const QString& neid, const QString& path, const QString& nsid,
    const QString& from, const QString& prefixNeid, NBCompletionCallback done)
{
    return request(m_fileExistUrl)
        .method(POST)
        .param(NBKey::Nsid, nsid)
        .param(NBKey::Path, path)
        .param(NBKey::Neid, neid)
        .param(NBKey::From, from)
        .param(NBKey::PrefixNeid, prefixNeid)
        .withDefaults()
        .send(std::move(done));
}
