#include "DriveTree.h"

DriveTree::DriveTree(RequestRunner& runner, const QString& server, const QString& pathType)
    : RemoteTree(runner)
    , m_server(server)
    , m_pathType(pathType)
{
}

QString DriveTree::describe(const QString& path) const
{
    return path;
}

RequestRunner::Start DriveTree::stat(const QString& path)
{
    return [model = at<NBServerApiMetaEntryModel>(path)](NBCompletionCallback done) {
        return ServerApi::MetaData(model, std::move(done));
    };
}

RequestRunner::Start DriveTree::listPage(const QString& folder, int offset, int limit)
{
    auto model = pageByName(at<NBServerApiMetaEntryModel>(folder), offset, limit);
    model.list = true;
    return [model](NBCompletionCallback done) {
        return ServerApi::MetaData(model, std::move(done));
    };
}

RequestRunner::Start DriveTree::makeFolder(const QString& path)
{
    return [model = at<NBServerApiCreateFolderModel>(path)](NBCompletionCallback done) {
        return ServerApi::CreateFolder(model, std::move(done));
    };
}

RequestRunner::Start DriveTree::authorise(const QString& path, qint64 bytes)
{
    return [model = at<NBServerApiEntryModel>(path), bytes](NBCompletionCallback done) {
        return ServerApi::AuthUpload(model, bytes, std::move(done));
    };
}

RequestRunner::Start DriveTree::uploadWhole(
    const Upload& upload, const QString& path, const QString& localPath, NBUploadProgressCallback onProgress)
{
    auto model = at<NBServerApiUploadFileModel>(path);
    model.serverUrl = upload.server;
    model.localPath = localPath;
    model.overwrite = true;
    return [model, onProgress](NBCompletionCallback done) {
        return ServerApi::UploadFile(model, std::move(done), onProgress);
    };
}

RequestRunner::Start DriveTree::queryChunk(const Upload& upload, const QString&, qint64, const QString& hash)
{
    return [model = NBServerApiQueryHashModel { upload.server, hash }](NBCompletionCallback done) {
        return ServerApi::QueryHash(model, std::move(done));
    };
}

RequestRunner::Start DriveTree::uploadChunk(
    const Upload& upload, const QString& hash, const QByteArray& data, NBUploadProgressCallback onProgress)
{
    return [model = NBServerApiChunkedUploadModel { upload.server, upload.uploadId, hash, data }, onProgress](
               NBCompletionCallback done) {
        return ServerApi::ChunkedUpload(model, std::move(done), onProgress);
    };
}

RequestRunner::Start DriveTree::commit(
    const Upload& upload, const QString& path, qint64 bytes, const QStringList& hashes)
{
    auto model = at<NBServerApiCommitHashModel>(path);
    model.serverUrl = upload.server;
    model.hashes = hashes;
    model.bytes = bytes;
    model.isFileCommit = true;
    model.overwrite = true;
    return [model](NBCompletionCallback done) {
        return ServerApi::CommitHash(model, std::move(done));
    };
}

RequestRunner::Start DriveTree::downloadWhole(
    const QString& path, const QString& localPath, NBDownloadProgressCallback onProgress)
{
    auto model = at<NBServerApiDownloadFileModel>(path);
    model.serverUrl = m_server;
    model.localPath = localPath;
    return [model, onProgress](NBCompletionCallback done) {
        return ServerApi::DownloadFile(model, std::move(done), onProgress);
    };
}

RequestRunner::Start DriveTree::downloadRange(
    const QString& path, const QString& range, NBDataCallback onData, NBDownloadProgressCallback onProgress)
{
    auto model = at<NBSeverApiDLRouterModel>(path);
    model.range = range;
    return [model, onData, onProgress](NBCompletionCallback done) {
        return ServerApi::DownloadRouter(model, onData, std::move(done), onProgress);
    };
}
