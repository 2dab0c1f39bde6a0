#include "ChunkServer.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QUrl>

namespace {

QByteArray json(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QString value(const QList<QPair<QString, QString>>& items, const QString& key)
{
    for (const auto& item : items) {
        if (item.first == key)
            return item.second;
    }
    return QString();
}

QStringList values(const QList<QPair<QString, QString>>& items, const QString& key)
{
    QStringList result;
    for (const auto& item : items) {
        if (item.first == key)
            result << item.second;
    }
    return result;
}

// The part of the decoded address path after `marker`, e.g. the file's path.
QString after(const QString& path, const QString& marker)
{
    const int at = path.indexOf(marker);
    return at < 0 ? QString() : path.mid(at + marker.size());
}

} // namespace

ChunkServer::ChunkServer()
    : m_server([this](const RecordedRequest& request) { return answer(request); })
{
}

void ChunkServer::putFile(const QString& path, const QByteArray& content)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_files.insert(path, content);
}

QByteArray ChunkServer::file(const QString& path) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_files.value(path);
}

int ChunkServer::chunkUploads() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_chunkUploads;
}

int ChunkServer::storedChunks() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_chunks.size();
}

QByteArray ChunkServer::hashOf(const QByteArray& chunk)
{
    return QCryptographicHash::hash(chunk, QCryptographicHash::Sha256).toHex();
}

QList<QPair<QString, QString>> ChunkServer::items(const QByteArray& encoded)
{
    QList<QPair<QString, QString>> result;
    for (const QByteArray& pair : encoded.split('&')) {
        if (pair.isEmpty())
            continue;
        const int eq = pair.indexOf('=');
        const QByteArray key = eq < 0 ? pair : pair.left(eq);
        const QByteArray val = eq < 0 ? QByteArray() : pair.mid(eq + 1);
        result.append({ QUrl::fromPercentEncoding(key), QUrl::fromPercentEncoding(val) });
    }
    return result;
}

ServerReply ChunkServer::answer(const RecordedRequest& request)
{
    const QString path = QUrl::fromPercentEncoding(request.path());
    const auto query = items(request.query());
    const auto form = items(request.body);

    if (request.method == "GET") {
        // A delivery names the file in its query, the path as the outside user sees it.
        if (path.contains("/delivery/dl_router/"))
            return serve(value(query, "path"), request.header("Range"));
        for (const char* marker : { "/files/databox", "/dl_router/databox" }) {
            if (path.contains(marker))
                return serve(after(path, marker), request.header("Range"));
        }
    }

    if (path.endsWith("/chunked_upload") || path.endsWith("/delivery/chunked_upload/")) {
        const QString hash = value(query, "hash");
        if (hashOf(request.body) != hash.toLatin1())
            return ServerReply::withStatus(400, "{\"code\":\"content_hash_error\"}");
        std::lock_guard<std::mutex> lock(m_mutex);
        m_chunks.insert(hash, request.body);
        ++m_chunkUploads;
        return ServerReply::ok(json({ { "hash", hash } }));
    }

    const bool commitRoute
        = path.contains("/commit_chunked_upload/commit/databox") || path.contains("/delivery/commit_chunked");
    if (commitRoute) {
        if (value(form, "is_file_commit").isEmpty()) {
            QJsonArray needed;
            std::lock_guard<std::mutex> lock(m_mutex);
            for (const QString& hash : values(form, "hashes[]")) {
                if (!m_chunks.contains(hash))
                    needed.append(hash);
            }
            return ServerReply::ok(json({ { "needed", needed } }));
        }
        const QString filePath = path.contains("/delivery/")
            ? value(form, "relative_path")
            : after(path, "/commit_chunked_upload/commit/databox");
        return commit(filePath, form);
    }

    for (const char* marker : { "/files/databox", "/delivery/data/" }) {
        if (path.contains(marker)) {
            const QString filePath
                = qstrcmp(marker, "/files/databox") == 0 ? after(path, marker) : value(query, "path");
            putFile(filePath, request.body);
            return ServerReply::ok(json({ { "path", filePath }, { "bytes", request.body.size() } }));
        }
    }
    TestServer::Handler fallback;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        fallback = m_fallback;
    }
    if (fallback)
        return fallback(request);
    return ServerReply::withStatus(404, "{\"code\":\"no such route\"}");
}

void ChunkServer::setFallback(TestServer::Handler handler)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_fallback = std::move(handler);
}

ServerReply ChunkServer::commit(const QString& path, const QList<QPair<QString, QString>>& form)
{
    QByteArray content;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const QString& hash : values(form, "hashes[]")) {
            if (!m_chunks.contains(hash))
                return ServerReply::withStatus(
                    400, json({ { "code", "invalid.hash" }, { "message", "unknown chunk " + hash } }));
            content += m_chunks.value(hash);
        }
    }
    // A delivery commit names the file's size under its last "bytes".
    const QStringList sizes = values(form, "bytes");
    if (sizes.last().toLongLong() != content.size())
        return ServerReply::withStatus(400, json({ { "code", "content_hash_error" } }));
    putFile(path, content);
    return ServerReply::ok(json({ { "path", path }, { "bytes", content.size() },
        { "sha256",
            QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex()) } }));
}

ServerReply ChunkServer::serve(const QString& path, const QByteArray& range) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_files.contains(path))
        return ServerReply::withStatus(404, "{\"code\":\"file/folder not found\"}");
    const QByteArray content = m_files.value(path);
    static const QRegularExpression bytes(QStringLiteral("^bytes=(\\d+)-(\\d*)$"));
    const auto match = bytes.match(QString::fromLatin1(range));
    if (!match.hasMatch())
        return ServerReply::ok(content, "application/octet-stream");
    const qint64 first = match.captured(1).toLongLong();
    const qint64 last = match.captured(2).isEmpty()
        ? content.size() - 1
        : qMin<qint64>(match.captured(2).toLongLong(), content.size() - 1);
    if (first > last)
        return ServerReply::withStatus(416);
    ServerReply reply = ServerReply::withStatus(206, content.mid(first, last - first + 1));
    return reply.header("Content-Range",
        QStringLiteral("bytes %1-%2/%3").arg(first).arg(last).arg(content.size()).toLatin1());
}
