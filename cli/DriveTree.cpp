#include "DriveTree.h"

#include <QDeadlineTimer>

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

RequestRunner::Start DriveTree::revisions(const QString& path)
{
    return [model = at<NBServerApiRevisionsModel>(path)](NBCompletionCallback done) {
        return ServerApi::Revisions(model, std::move(done));
    };
}

RequestRunner::Start DriveTree::downloadWhole(
    const QString& path, const QString& rev, const QString& localPath, NBDownloadProgressCallback onProgress)
{
    auto model = at<NBServerApiDownloadFileModel>(path);
    model.rev = rev;
    model.serverUrl = m_server;
    model.localPath = localPath;
    return [model, onProgress](NBCompletionCallback done) {
        return ServerApi::DownloadFile(model, std::move(done), onProgress);
    };
}

RequestRunner::Start DriveTree::downloadRange(const QString& path, const QString& rev, const QString& range,
    NBDataCallback onData, NBDownloadProgressCallback onProgress)
{
    auto model = at<NBSeverApiDLRouterModel>(path);
    model.rev = rev;
    model.range = range;
    return [model, onData, onProgress](NBCompletionCallback done) {
        return ServerApi::DownloadRouter(model, onData, std::move(done), onProgress);
    };
}

std::unique_ptr<RemoteTree> DriveTree::on(RequestRunner& runner) const
{
    return std::make_unique<DriveTree>(runner, m_server, m_pathType);
}

RequestRunner::Start DriveTree::move(const QString& from, const QString& to)
{
    NBServerApiMoveModel model;
    model.from = at<NBServerApiEntryModel>(from);
    model.to = at<NBServerApiEntryModel>(to);
    return [model](NBCompletionCallback done) {
        return ServerApi::Move(model, std::move(done));
    };
}

RequestRunner::Start DriveTree::remove(const QStringList& paths)
{
    NBServerApiBatchDeleteModel model;
    for (const QString& path : paths)
        model.pathes.append(at<NBServerApiEntryModel>(path));
    return [model](NBCompletionCallback done) {
        return ServerApi::BatchDelete(model, std::move(done));
    };
}

QJsonArray DriveTree::taskResults(const QString& what, const QJsonObject& started)
{
    const QString taskId = started.value("task_id").toString();
    QJsonObject state = started;
    const QDeadlineTimer deadline(10 * 60 * 1000);
    for (int poll = 0;
         state.value("state").toString() == QLatin1String("running") || !state.contains("results"); ++poll) {
        if (taskId.isEmpty() || deadline.hasExpired())
            throw Failure(Exit::Network,
                QStringLiteral("%1: the server's task did not finish; look again later").arg(what),
                QStringLiteral("timeout"));
        if (poll > 0)
            m_runner.sleep(qMin(250 * poll, 2000));
        state = m_runner
                    .call(QStringLiteral("ask about task %1").arg(taskId),
                        [taskId](NBCompletionCallback done) {
                            return ServerApi::BatchTaskAsyncQuery(taskId, std::move(done));
                        })
                    .json;
    }
    return state.value("results").toArray();
}

Failure DriveTree::entryFailure(const QString& what, const QJsonObject& result)
{
    const QString code = result.value("code").toString();
    const QString message = result.value("message").toString(code);
    return Failure(Exit::Refused,
        QStringLiteral("%1 failed for %2: %3")
            .arg(what, result.value("path").toString(),
                message == code ? code : code + QStringLiteral(": ") + message),
        code);
}
