#include "LinkTree.h"

LinkTree::LinkTree(RequestRunner& runner, const QString& server, const QString& code, const QString& password)
    : RemoteTree(runner)
    , m_server(server)
    , m_code(code)
    , m_password(password)
{
}

void LinkTree::open()
{
    const NBServerApiDeliveryAuthModel model { m_code, m_password, m_server };
    const QJsonObject reply = m_runner
                                  .call(QStringLiteral("open shared link %1").arg(m_code),
                                      [model](NBCompletionCallback done) {
                                          return ServerApi::DeliveryAuth(model, std::move(done));
                                      })
                                  .json;
    m_token = reply.value("token").toString();
    m_session = reply.value("session").toString();
    m_root = reply.value("root").toString();
}

QString LinkTree::describe(const QString& path) const
{
    return QStringLiteral("%1:%2").arg(m_code, path);
}

QString LinkTree::outside(const QString& path) const
{
    return RemotePath::join(QLatin1Char('/') + m_root, path);
}

RequestRunner::Start LinkTree::stat(const QString& path)
{
    return listPage(path, 0, 1);
}

RequestRunner::Start LinkTree::listPage(const QString& folder, int offset, int limit)
{
    auto model = pageByName(linked<NBServerApiDeliveryMetadataModel>(folder), offset, limit);
    model.password = m_password;
    return [model](NBCompletionCallback done) {
        return ServerApi::DeliveryMetadata(model, std::move(done));
    };
}

RequestRunner::Start LinkTree::makeFolder(const QString& path)
{
    const NBServerApiDeliveryCreateFolder model { m_server, m_code, RemotePath::normalise(path), QString(),
        m_token, m_session };
    return [model](NBCompletionCallback done) {
        return ServerApi::DeliveryCreateFolder(model, std::move(done));
    };
}

RequestRunner::Start LinkTree::authorise(const QString& path, qint64 bytes)
{
    auto model = linked<NBServerApiDeliveryAuthUploadModel>(path);
    model.bytes = QString::number(bytes);
    return [model](NBCompletionCallback done) {
        return ServerApi::DeliveryAuthUpload(model, std::move(done));
    };
}

RequestRunner::Start LinkTree::uploadWhole(
    const Upload& upload, const QString& path, const QString& localPath, NBUploadProgressCallback onProgress)
{
    auto model = linked<NBServerApiDeliveryUploadFileModel>(path);
    model.serverUrl = upload.server;
    model.overwrite = QStringLiteral("true");
    model.localPath = localPath;
    return [model, onProgress](NBCompletionCallback done) {
        return ServerApi::DeliveryUploadFile(model, std::move(done), onProgress);
    };
}

RequestRunner::Start LinkTree::queryChunk(
    const Upload& upload, const QString& path, qint64 bytes, const QString& hash)
{
    auto model = chunked<NBServerApiDeliveryQueryHashModel>(upload, path);
    model.hash = hash;
    model.bytes = bytes;
    return [model](NBCompletionCallback done) {
        return ServerApi::DeliveryQueryHash(model, std::move(done));
    };
}

RequestRunner::Start LinkTree::uploadChunk(
    const Upload& upload, const QString& hash, const QByteArray& data, NBUploadProgressCallback onProgress)
{
    return [model = NBServerApiDeliveryChunkedUploadModel { upload.server, upload.uploadId, hash, data },
               onProgress](NBCompletionCallback done) {
        return ServerApi::DeliveryChunkedUpload(model, std::move(done), onProgress);
    };
}

RequestRunner::Start LinkTree::commit(
    const Upload& upload, const QString& path, qint64 bytes, const QStringList& hashes)
{
    auto model = chunked<NBServerApiDeliveryCommitHashModel>(upload, path);
    model.hashes = hashes;
    model.totalBytes = model.bytes = bytes;
    model.isFileCommit = true;
    model.overwrite = true;
    return [model](NBCompletionCallback done) {
        return ServerApi::DeliveryCommitHash(model, std::move(done));
    };
}

// A link serves its files' current revisions only: no request lists the others.
RequestRunner::Start LinkTree::revisions(const QString&)
{
    return [](NBCompletionCallback) {
        return 0LL;
    };
}

RequestRunner::Start LinkTree::downloadWhole(
    const QString& path, const QString&, const QString& localPath, NBDownloadProgressCallback onProgress)
{
    auto model = linked<NBServerApiDeliveryDownloadFileModel>(path);
    model.localPath = localPath;
    return [model, onProgress](NBCompletionCallback done) {
        return ServerApi::DeliveryDownloadFile(model, std::move(done), onProgress);
    };
}

RequestRunner::Start LinkTree::downloadRange(const QString& path, const QString&, const QString& range,
    NBDataCallback onData, NBDownloadProgressCallback onProgress)
{
    auto model = linked<NBSeverApiDeliveryDLRouterModel>(path);
    model.range = range;
    return [model, onData, onProgress](NBCompletionCallback done) {
        return ServerApi::DeliveryDownloadRouter(model, onData, std::move(done), onProgress);
    };
}

std::unique_ptr<RemoteTree> LinkTree::on(RequestRunner& runner) const
{
    auto tree = std::make_unique<LinkTree>(runner, m_server, m_code, m_password);
    tree->m_token = m_token;
    tree->m_session = m_session;
    tree->m_root = m_root;
    return tree;
}
