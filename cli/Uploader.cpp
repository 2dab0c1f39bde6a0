#include "Uploader.h"

#include "ChunkHasher.h"
#include "Progress.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QSet>
#include <deque>
#include <optional>

QJsonObject Uploader::Result::json() const
{
    return QJsonObject { { "local", local }, { "remote", remote }, { "bytes", bytes }, { "chunks", chunks },
        { "chunks_sent", chunksSent }, { "bytes_sent", bytesSent }, { "hash", hash }, { "ms", ms } };
}

Uploader::Uploader(TransferEndpoint& endpoint, Progress& progress, int jobs, const QString& server)
    : m_endpoint(endpoint)
    , m_progress(progress)
    , m_jobs(qMax(1, jobs))
    , m_server(server)
{
}

Uploader::Result Uploader::put(const QString& localPath, const QString& remotePath)
{
    Result result;
    result.local = localPath;
    result.remote = remotePath;
    const QFileInfo info(localPath);
    if (!info.isFile() || !info.isReadable())
        throw Failure { Exit::Local, QStringLiteral("cannot read %1").arg(localPath) };
    result.bytes = info.size();
    QElapsedTimer clock;
    clock.start();
    m_progress.beginFile(info.fileName(), result.bytes);
    if (result.bytes <= ChunkHasher::ChunkSize)
        putWhole(result);
    else
        putChunked(result);
    result.ms = clock.elapsed();
    m_progress.endFile();
    return result;
}

void Uploader::putWhole(Result& result)
{
    QFile file(result.local);
    if (!file.open(QIODevice::ReadOnly))
        throw Failure { Exit::Local,
            QStringLiteral("cannot read %1: %2").arg(result.local, file.errorString()) };
    const QByteArray content = file.readAll();
    result.hash = ChunkHasher::fileHash(
        content.isEmpty() ? QStringList() : QStringList { ChunkHasher::chunkHash(content) });
    const TransferEndpoint::Upload upload = m_endpoint.authorised(result.remote, result.bytes, m_server);
    const Reply reply
        = m_endpoint.remote().call(QStringLiteral("upload %1").arg(m_endpoint.describe(result.remote)),
            m_endpoint.uploadWhole(
                upload, result.remote, result.local, [this](const UploadProgressData& progress) {
                    if (progress.bytesTotal > 0)
                        m_progress.setDone(progress.bytesSent);
                }));
    result.bytesSent = result.bytes;
    checkHash(result, reply.json);
}

void Uploader::putChunked(Result& result)
{
    const TransferEndpoint::Upload upload = m_endpoint.authorised(result.remote, result.bytes, m_server);
    QFile file(result.local);
    if (!file.open(QIODevice::ReadOnly))
        throw Failure { Exit::Local,
            QStringLiteral("cannot read %1: %2").arg(result.local, file.errorString()) };
    Remote& remote = m_endpoint.remote();
    const QString target = m_endpoint.describe(result.remote);

    QList<ChunkHasher::Chunk> chunks; // in file order, as the hasher reports them
    bool hashed = false;
    std::deque<int> toQuery;
    std::deque<int> toSend;
    QSet<QString> claimed; // a chunk that repeats within the file is sent once
    int queries = 0;
    int sends = 0;
    std::optional<Failure> failure;
    qint64 done = 0;
    QHash<int, qint64> sending;

    const auto report = [&] {
        qint64 partial = 0;
        for (qint64 bytes : qAsConst(sending))
            partial += bytes;
        m_progress.setDone(done + partial);
    };
    const auto fail = [&](const Failure& reason) {
        if (!failure)
            failure = reason;
    };
    std::function<void()> pump = [&] {
        while (!failure && queries < m_jobs && !toQuery.empty()) {
            const int index = toQuery.front();
            toQuery.pop_front();
            const ChunkHasher::Chunk chunk = chunks.at(index);
            ++queries;
            const QString what = QStringLiteral("ask which chunks of %1 the server lacks").arg(target);
            remote.start(what, m_endpoint.queryChunk(upload, result.remote, result.bytes, chunk.hash),
                [&, what, index, chunk](const Reply& reply) {
                    --queries;
                    if (!reply.ok())
                        return fail(Remote::failureOf(what, reply));
                    if (reply.json.value("needed").toArray().contains(chunk.hash)
                        && !claimed.contains(chunk.hash)) {
                        claimed.insert(chunk.hash);
                        toSend.push_back(index);
                    } else {
                        done += chunk.length;
                    }
                    pump();
                    report();
                });
        }
        while (!failure && sends < m_jobs && !toSend.empty()) {
            const int index = toSend.front();
            toSend.pop_front();
            const ChunkHasher::Chunk chunk = chunks.at(index);
            QByteArray data;
            if (file.seek(chunk.offset))
                data = file.read(chunk.length);
            if (data.size() != chunk.length)
                return fail(Failure { Exit::Local,
                    QStringLiteral("cannot read %1: %2").arg(result.local, file.errorString()) });
            ++sends;
            sending.insert(index, 0);
            const QString what = QStringLiteral("upload chunk %1 of %2").arg(index + 1).arg(target);
            remote.start(what,
                m_endpoint.uploadChunk(upload, chunk.hash, data,
                    // Qt ends an upload with a report of 0 of 0; a retry starts again from 0.
                    [&, index](const UploadProgressData& progress) {
                        if (progress.bytesTotal > 0 && sending.contains(index)) {
                            sending.insert(index, progress.bytesSent);
                            report();
                        }
                    }),
                [&, what, index, chunk](const Reply& reply) {
                    --sends;
                    sending.remove(index);
                    if (!reply.ok())
                        return fail(Remote::failureOf(what, reply));
                    done += chunk.length;
                    result.bytesSent += chunk.length;
                    ++result.chunksSent;
                    pump();
                    report();
                });
        }
    };
    ChunkHasher hasher(
        result.local,
        [&](const ChunkHasher::Chunk& chunk) {
            chunks.append(chunk);
            toQuery.push_back(chunk.index);
            pump();
        },
        [&](const QString& error) {
            hashed = true;
            if (!error.isEmpty())
                fail(Failure { Exit::Local, QStringLiteral("cannot read %1: %2").arg(result.local, error) });
            remote.wake();
        });
    hasher.start();
    remote.waitFor([&] {
        const bool settled = failure || (hashed && toQuery.empty() && toSend.empty());
        return settled && queries == 0 && sends == 0;
    });
    if (failure)
        throw *failure;

    QStringList hashes;
    for (const ChunkHasher::Chunk& chunk : qAsConst(chunks))
        hashes << chunk.hash;
    result.chunks = hashes.size();
    result.hash = ChunkHasher::fileHash(hashes);
    const Reply reply = remote.call(QStringLiteral("commit %1").arg(target),
        m_endpoint.commit(upload, result.remote, result.bytes, hashes));
    checkHash(result, reply.json);
}

void Uploader::checkHash(const Result& result, const QJsonObject& entry)
{
    const QString stored = entry.value("hash").toString();
    if (!stored.isEmpty() && stored != result.hash)
        throw Failure { Exit::Network,
            QStringLiteral("%1 arrived damaged (the server's hash %2 is not the local %3): run put again")
                .arg(m_endpoint.describe(result.remote), stored, result.hash) };
}
