#include "TransferRoutes.h"

#include "Routes.h"
#include "Sha256.h"

#include <QRegularExpression>
#include <algorithm>
#include <limits>
#include <memory>

TransferRoutes::TransferRoutes(EmuContext& context)
    : m_context(context)
{
}

void TransferRoutes::authorise(HttpCall& call, const QString& space, const QString& path)
{
    if (const std::optional<LockHolder> lock = m_context.drive.lockAgainst(space, path, call.userId))
        return Routes::failure(call, Outcome::locked(*lock));
    call.json(QJsonObject { { "upload_server", m_context.selfUrl }, { "upload_id", Accounts::randomHex(12) },
        { "path", path }, { "chunk_size", ChunkStore::ChunkSize }, { "hash", "sha256" } });
}

void TransferRoutes::upload(HttpCall& call, const QString& space, const QString& path, bool overwrite)
{
    QList<ChunkRef> chunks;
    if (receive(call, &chunks))
        Routes::reply(call, m_context.drive.commit(space, path, chunks, call.userId, overwrite));
}

bool TransferRoutes::receive(HttpCall& call, QList<ChunkRef>* chunks)
{
    std::unique_ptr<ChunkStore::Incoming> chunk;
    QString error;
    const auto keep = [&] {
        const QByteArray hash = chunk->hash();
        if (!chunk->keep(hash, &error))
            return false;
        m_context.drive.registerChunk(hash, chunk->size());
        chunks->append(ChunkRef { hash, chunk->size() });
        chunk.reset();
        return true;
    };
    const bool read = call.readBody([&](const char* data, size_t length) {
        while (length > 0) {
            if (!chunk)
                chunk = std::make_unique<ChunkStore::Incoming>(m_context.store);
            const size_t part = size_t(qMin(qint64(length), ChunkStore::ChunkSize - chunk->size()));
            if (!chunk->add(data, part)) {
                error = QStringLiteral("cannot write a chunk: %1").arg(chunk->errorString());
                return false;
            }
            data += part;
            length -= part;
            if (chunk->size() == ChunkStore::ChunkSize && !keep())
                return false;
        }
        return true;
    });
    if (read && chunk)
        keep();
    if (!error.isEmpty()) {
        call.error(507, QStringLiteral("space limit"), error);
        return false;
    }
    if (!read) {
        call.error(400, QStringLiteral("incomplete body"));
        return false;
    }
    return true;
}

void TransferRoutes::serve(HttpCall& call, const Entry& entry, qint64 rev)
{
    if (entry.dir)
        return call.error(
            409, QStringLiteral("conflict with folder"), QStringLiteral("a folder has no content"));
    const std::optional<QList<ChunkRef>> found = m_context.drive.chunksOf(entry.neid, rev);
    if (!found)
        return Routes::notFound(call, QStringLiteral("%1 has no revision %2").arg(entry.path).arg(rev));
    const QList<ChunkRef> chunks = *found;
    qint64 size = 0;
    for (const ChunkRef& chunk : chunks)
        size += chunk.bytes;
    qint64 first = 0;
    qint64 last = size - 1;
    int status = 200;
    QString range = call.header(Wire::Range);
    if (range.isEmpty())
        range = call.header(Wire::RangeAlias);
    static const QRegularExpression bytesRange(QStringLiteral("^bytes=(\\d*)-(\\d*)$"));
    const QRegularExpressionMatch match = bytesRange.match(range.trimmed());
    // A number too large for 64 bits is as good as infinite: beyond any file.
    const auto number = [&match](int group) {
        bool ok = false;
        const qint64 value = match.captured(group).toLongLong(&ok);
        return ok ? value : std::numeric_limits<qint64>::max();
    };
    const bool suffix = match.hasMatch() && match.captured(1).isEmpty();
    const bool valid = match.hasMatch() && !(suffix && match.captured(2).isEmpty())
        && (suffix || match.captured(2).isEmpty() || number(2) >= number(1));
    if (valid) {
        if (suffix) {
            first = number(2) == 0 ? size : qMax<qint64>(0, size - qMin(number(2), size));
        } else {
            first = number(1);
            if (!match.captured(2).isEmpty())
                last = qMin(last, number(2));
        }
        if (first >= size) {
            call.setHeader("Content-Range", QStringLiteral("bytes */%1").arg(size));
            return call.error(416, QStringLiteral("invalid range"),
                QStringLiteral("%1 of %2 bytes").arg(range, QString::number(size)));
        }
        status = 206;
        call.setHeader("Content-Range", QStringLiteral("bytes %1-%2/%3").arg(first).arg(last).arg(size));
    }
    call.setHeader("X-Content-Hash", entry.hash);
    const qint64 length = size == 0 ? 0 : last - first + 1;
    if (length == 0)
        return call.bytes(QByteArray(), QStringLiteral("application/octet-stream"), status);
    // Chunk offsets, so that a position of the body finds its chunk.
    auto offsets = std::make_shared<QList<qint64>>();
    qint64 at = 0;
    for (const ChunkRef& chunk : chunks) {
        offsets->append(at);
        at += chunk.bytes;
    }
    ChunkStore* store = &m_context.store;
    call.stream(status, length, QStringLiteral("application/octet-stream"),
        [store, chunks, offsets, first](qint64 offset, qint64 wanted, HttpSink& sink) {
            const qint64 position = first + offset;
            int index
                = int(std::upper_bound(offsets->begin(), offsets->end(), position) - offsets->begin()) - 1;
            const ChunkRef& chunk = chunks.at(index);
            const qint64 within = position - offsets->at(index);
            const qint64 take = std::min<qint64>({ wanted, chunk.bytes - within, qint64(1) << 20 });
            const QByteArray piece = store->read(chunk.hash, within, take);
            if (piece.isEmpty())
                return false;
            return sink.write(piece.constData(), size_t(piece.size()));
        });
}

void TransferRoutes::storeChunk(HttpCall& call)
{
    // The body is the chunk, whatever its declared type: the parameters are in the query.
    ChunkStore::Incoming chunk(m_context.store);
    const qint64 limit = m_context.options.maxBody;
    QString error;
    bool tooLarge = false;
    const bool read = call.readBody([&](const char* data, size_t length) {
        if (chunk.size() + qint64(length) > limit) {
            tooLarge = true;
            return false;
        }
        if (!chunk.add(data, length)) {
            error = QStringLiteral("cannot write a chunk: %1").arg(chunk.errorString());
            return false;
        }
        return true;
    });
    if (tooLarge)
        return call.error(
            413, QStringLiteral("space limit"), QStringLiteral("a chunk is at most %1 bytes").arg(limit));
    if (!error.isEmpty())
        return call.error(507, QStringLiteral("space limit"), error);
    if (!read)
        return call.error(400, QStringLiteral("incomplete body"));
    const QByteArray hash = call.query(Wire::Hash).toLatin1();
    const QByteArray actual = chunk.hash();
    if (!hash.isEmpty() && hash != actual)
        return call.error(400, QStringLiteral("content_hash_error"),
            QStringLiteral("the chunk hashes to %1").arg(QString::fromLatin1(actual)));
    if (!chunk.keep(actual, &error))
        return call.error(507, QStringLiteral("space limit"), error);
    m_context.drive.registerChunk(actual, chunk.size());
    call.json(QJsonObject { { "hash", QString::fromLatin1(actual) }, { "bytes", chunk.size() },
        { Wire::UploadId, call.query(Wire::UploadId) } });
}

void TransferRoutes::queryHashes(HttpCall& call)
{
    call.json(QJsonObject {
        { "needed", QJsonArray::fromStringList(m_context.drive.missingChunks(call.values(Wire::Hashes))) } });
}

void TransferRoutes::commit(HttpCall& call, const QString& space, const QString& path,
    const QStringList& hashes, qint64 bytes, bool overwrite)
{
    QList<ChunkRef> chunks;
    qint64 total = 0;
    for (const QString& hash : hashes) {
        const std::optional<qint64> size = m_context.drive.chunkBytes(hash.toLatin1());
        if (!size)
            return call.error(
                400, QStringLiteral("invalid.hash"), QStringLiteral("unknown chunk %1").arg(hash));
        chunks.append(ChunkRef { hash.toLatin1(), *size });
        total += *size;
    }
    if (total != bytes)
        return call.error(400, QStringLiteral("content_hash_error"),
            QStringLiteral("the chunks hold %1 bytes, the commit names %2").arg(total).arg(bytes));
    Routes::reply(call, m_context.drive.commit(space, path, chunks, call.userId, overwrite));
}

void TransferRoutes::install(Router& router)
{
    // --- Upload authorisation: the address of the transfer server (this one). -----------------
    router.add("GET", "/v2/fileops/auth_upload/databox(/.*)?", PublicCloudOnly, Access::Session,
        [this](HttpCall& call) {
            QString space;
            QString path;
            if (Routes::place(call, call.captures.value(0), &space, &path))
                authorise(call, space, path);
        });
    router.add(
        "POST", "/v2/fileops/auth_upload/databox", PrivateTypes, Access::Session, [this](HttpCall& call) {
            QString space;
            QString path;
            if (Routes::place(call, call.value(Wire::TargetPath), &space, &path))
                authorise(call, space, path);
        });

    // --- Whole files. ---------------------------------------------------------------------------
    router.addStream("POST", "/v2/files/databox(/.*)?", EveryType, Access::Session, [this](HttpCall& call) {
        QString space;
        QString path;
        if (Routes::place(call, call.captures.value(0), &space, &path))
            upload(call, space, path, call.value(Wire::Overwrite) == QLatin1String("true"));
    });
    const auto download = [this](HttpCall& call, const QString& text) {
        QString space;
        QString path;
        if (!Routes::place(call, text, &space, &path))
            return;
        const std::optional<Entry> entry = m_context.drive.find(space, path);
        if (!entry)
            return Routes::notFound(call);
        serve(call, *entry, call.value(Wire::Rev).toLongLong());
    };
    router.add("GET", "/v2/files/databox(/.*)?", EveryType, Access::Session,
        [download](HttpCall& call) { download(call, call.captures.value(0)); });
    router.add("GET", "/v2/dl_router/databox(/.*)?", EveryType, Access::Session,
        [download](HttpCall& call) { download(call, call.captures.value(0)); });
    router.add("POST", "/v2/dl_router/databox", PrivateTypes, Access::Session,
        [download](HttpCall& call) { download(call, call.value(Wire::TargetPath)); });

    // --- Chunks: the hash query, chunk uploads and the commit share one address. ----------------
    router.addStream("POST", "/v2/chunked_upload", EveryType, Access::Session,
        [this](HttpCall& call) { storeChunk(call); });
    router.add("POST", "/v2/commit_chunked_upload/commit/databox(/.*)?", EveryType, Access::Session,
        [this](HttpCall& call) {
            if (!call.has(Wire::IsFileCommit))
                return queryHashes(call);
            QString space;
            QString path;
            const QString text
                = call.value(Wire::Path).isEmpty() ? call.captures.value(0) : call.value(Wire::Path);
            if (Routes::place(call, text, &space, &path))
                commit(call, space, path, call.values(Wire::Hashes), call.value(Wire::Bytes).toLongLong(),
                    call.value(Wire::Overwrite) == QLatin1String("true"));
        });
}
