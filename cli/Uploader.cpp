#include "Uploader.h"

#include "ChunkHasher.h"
#include "Progress.h"
#include "RateLimit.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QScopeGuard>
#include <QSet>
#include <QSocketNotifier>
#include <QTimer>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <unistd.h>

QJsonObject Uploader::Result::json() const
{
    return QJsonObject { { "local", local }, { "path", remote }, { "bytes", bytes }, { "chunks", chunks },
        { "chunks_sent", chunksSent }, { "bytes_sent", bytesSent }, { "hash", hash }, { "ms", ms } };
}

QString Uploader::Result::how() const
{
    if (chunks == 0)
        return QStringLiteral("sent whole");
    if (chunksSent == 0)
        return QStringLiteral("0 B sent: all %1 chunks already on the server").arg(QString::number(chunks));
    return QStringLiteral("%1 of %2 chunks sent").arg(QString::number(chunksSent), QString::number(chunks));
}

Uploader::Uploader(RemoteTree& tree, Progress& progress, int jobs, const QString& server, RateLimit& limit)
    : m_tree(tree)
    , m_progress(progress)
    , m_jobs(qMax(1, jobs))
    , m_server(server)
    , m_limit(limit)
{
}

void Uploader::advance(qint64 bytes, qint64 moved)
{
    m_progress.setDone(bytes, moved);
    m_tree.runner().touch();
}

Uploader::Result Uploader::put(const QString& localPath, const QString& remotePath)
{
    Result result;
    result.local = localPath;
    result.remote = remotePath;
    const QFileInfo info(localPath);
    if (!info.isFile() || !info.isReadable())
        throw Failure(Exit::Local, QStringLiteral("cannot read %1").arg(localPath));
    result.bytes = info.size();
    QElapsedTimer clock;
    clock.start();
    m_progress.beginFile(info.fileName(), result.bytes);
    const RemoteTree::Upload upload = m_tree.authorised(remotePath, result.bytes, m_server);
    const qint64 chunkSize = ChunkHasher::chunkSizeOf(upload.chunkSize);
    if (result.bytes <= chunkSize) {
        putWhole(result, upload, chunkSize);
    } else {
        QFile file(localPath);
        if (!file.open(QIODevice::ReadOnly))
            throw Failure(
                Exit::Local, QStringLiteral("cannot read %1: %2").arg(localPath, file.errorString()));
        // The file is hashed on worker threads; its chunks are read again when sent.
        auto hasher = std::make_shared<std::unique_ptr<ChunkHasher>>();
        const Producer producer {
            [&, hasher](const auto& add, const auto& end) {
                *hasher = std::make_unique<ChunkHasher>(
                    localPath,
                    [add](const ChunkHasher::Chunk& chunk) {
                        add(Piece { chunk.index, chunk.offset, chunk.length, chunk.hash, {} });
                    },
                    end);
                (*hasher)->setChunkSize(chunkSize);
                (*hasher)->start();
            },
            {}
        };
        putChunks(result, upload, &file, producer);
    }
    result.ms = clock.elapsed();
    m_progress.endFile();
    return result;
}

Uploader::Result Uploader::putStream(const QString& localPath, const QString& remotePath)
{
    Result result;
    result.local = localPath;
    result.remote = remotePath;
    const bool standardInput = localPath == QLatin1String("-");
    // A FIFO opens once a writer comes; then it is read without blocking, as standard input is.
    const int fd = standardInput ? STDIN_FILENO
                                 : ::open(QFile::encodeName(localPath).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throw Failure(
            Exit::Local, QStringLiteral("cannot read %1: %2").arg(localPath, qt_error_string(errno)));
    const auto closing = qScopeGuard([fd, standardInput] {
        if (!standardInput)
            ::close(fd);
    });
    QElapsedTimer clock;
    clock.start();
    m_progress.beginFile(
        standardInput ? QStringLiteral("standard input") : QFileInfo(localPath).fileName(), 0);
    const RemoteTree::Upload upload = m_tree.authorised(remotePath, 0, m_server);
    const qint64 chunkSize = ChunkHasher::chunkSizeOf(upload.chunkSize);
    // Read as it arrives, without blocking the requests in flight: a chunk is cut each
    // time one is full, and at the end.
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    QSocketNotifier notifier(fd, QSocketNotifier::Read);
    notifier.setEnabled(false);
    QByteArray current;
    int index = 0;
    qint64 offset = 0;
    const Producer producer {
        [&](const auto& add, const auto& end) {
            QObject::connect(&notifier, &QSocketNotifier::activated, [&, add, end] {
                const auto cut = [&] {
                    add(Piece { index++, offset, current.size(), ChunkHasher::chunkHash(current), current });
                    offset += current.size();
                    current.clear();
                };
                for (;;) {
                    const qint64 room = chunkSize - current.size();
                    const int at = current.size();
                    current.resize(int(chunkSize));
                    const ssize_t got = ::read(fd, current.data() + at, size_t(room));
                    current.resize(at + int(qMax<ssize_t>(got, 0)));
                    if (got > 0) {
                        if (current.size() == chunkSize)
                            cut();
                        if (!notifier.isEnabled())
                            return; // held back: too many chunks wait
                        continue;
                    }
                    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
                        return;
                    notifier.setEnabled(false);
                    if (got < 0)
                        return end(qt_error_string(errno));
                    if (!current.isEmpty())
                        cut();
                    return end(QString());
                }
            });
            notifier.setEnabled(true);
        },
        [&](bool paused) {
            notifier.setEnabled(!paused);
        }
    };
    putChunks(result, upload, nullptr, producer);
    result.bytes = offset;
    result.ms = clock.elapsed();
    m_progress.endFile();
    return result;
}

void Uploader::putWhole(Result& result, const RemoteTree::Upload& upload, qint64 chunkSize)
{
    QFile file(result.local);
    if (!file.open(QIODevice::ReadOnly))
        throw Failure(
            Exit::Local, QStringLiteral("cannot read %1: %2").arg(result.local, file.errorString()));
    const QByteArray content = file.read(chunkSize + 1);
    result.hash = ChunkHasher::fileHash(
        content.isEmpty() ? QStringList() : QStringList { ChunkHasher::chunkHash(content) });
    m_tree.runner().sleep(m_limit.reserve(result.bytes));
    const Reply reply = m_tree.runner().call(QStringLiteral("upload %1").arg(m_tree.describe(result.remote)),
        m_tree.uploadWhole(upload, result.remote, result.local, [this](const UploadProgressData& progress) {
            if (progress.bytesTotal > 0)
                advance(progress.bytesSent);
        }));
    result.bytesSent = result.bytes;
    checkHash(result, reply.json);
}

void Uploader::putChunks(
    Result& result, const RemoteTree::Upload& upload, QFile* file, const Producer& producer)
{
    RequestRunner& runner = m_tree.runner();
    const QString target = m_tree.describe(result.remote);

    QList<Piece> pieces; // in file order, as produced; bytes dropped once sent or not needed
    bool produced = false;
    std::deque<int> toQuery;
    std::deque<int> toSend;
    QSet<QString> claimed; // a chunk that repeats within the file is sent once
    int queries = 0;
    int sends = 0;
    int held = 0; // pieces whose bytes are kept
    std::optional<Failure> failure;
    qint64 done = 0;
    QHash<int, qint64> sending;

    const auto report = [&] {
        qint64 partial = 0;
        for (qint64 bytes : qAsConst(sending))
            partial += bytes;
        advance(done + partial, result.bytesSent + partial);
    };
    const auto fail = [&](const Failure& reason) {
        if (!failure)
            failure = reason;
    };
    const auto release = [&](int index) {
        if (!pieces[index].data.isNull()) {
            pieces[index].data = QByteArray();
            if (--held < 2 * m_jobs && producer.hold)
                producer.hold(false);
        }
    };
    std::function<void()> pump;
    // A chunk waiting for the rate limit is sent later, unless the upload has ended by then.
    const auto alive = std::make_shared<bool>(true);
    const auto ending = qScopeGuard([alive] { *alive = false; });
    const auto send = [&](int index, const QByteArray& data) {
        sending.insert(index, 0);
        const QString what = QStringLiteral("upload chunk %1 of %2").arg(QString::number(index + 1), target);
        runner.start(what,
            m_tree.uploadChunk(upload, pieces.at(index).hash, data,
                // Qt ends an upload with a report of 0 of 0; a retry starts again from 0.
                [&, index](const UploadProgressData& progress) {
                    if (progress.bytesTotal > 0 && sending.contains(index)) {
                        sending.insert(index, progress.bytesSent);
                        report();
                    }
                }),
            [&, what, index](const Reply& reply) {
                --sends;
                sending.remove(index);
                if (!reply.ok())
                    return fail(RequestRunner::failureOf(what, reply));
                const qint64 length = pieces.at(index).length;
                done += length;
                result.bytesSent += length;
                ++result.chunksSent;
                release(index);
                pump();
                report();
            });
    };
    pump = [&] {
        while (!failure && queries < m_jobs && !toQuery.empty()) {
            const int index = toQuery.front();
            toQuery.pop_front();
            const Piece piece = pieces.at(index);
            ++queries;
            const QString what = QStringLiteral("ask which chunks of %1 the server lacks").arg(target);
            runner.start(what, m_tree.queryChunk(upload, result.remote, result.bytes, piece.hash),
                [&, what, index, piece](const Reply& reply) {
                    --queries;
                    if (!reply.ok())
                        return fail(RequestRunner::failureOf(what, reply));
                    if (reply.json.value("needed").toArray().contains(piece.hash)
                        && !claimed.contains(piece.hash)) {
                        claimed.insert(piece.hash);
                        toSend.push_back(index);
                    } else {
                        done += piece.length;
                        release(index);
                    }
                    pump();
                    report();
                });
        }
        while (!failure && sends < m_jobs && !toSend.empty()) {
            const int index = toSend.front();
            toSend.pop_front();
            const Piece& piece = pieces.at(index);
            QByteArray data = piece.data;
            if (file && file->seek(piece.offset))
                data = file->read(piece.length);
            if (data.size() != piece.length)
                return fail(Failure(Exit::Local,
                    QStringLiteral("cannot read %1: %2")
                        .arg(result.local, file ? file->errorString() : QStringLiteral("short read"))));
            ++sends;
            const int wait = m_limit.reserve(piece.length);
            if (wait <= 0) {
                send(index, data);
                continue;
            }
            QTimer::singleShot(wait, &runner, [&, alive, index, data] {
                if (!*alive)
                    return;
                if (!failure)
                    return send(index, data);
                --sends;
                runner.wake();
            });
        }
    };
    producer.start(
        [&](Piece piece) {
            if (!piece.data.isNull() && ++held >= 2 * m_jobs && producer.hold)
                producer.hold(true);
            pieces.append(std::move(piece));
            toQuery.push_back(pieces.size() - 1);
            pump();
        },
        [&](const QString& error) {
            produced = true;
            if (!error.isEmpty())
                fail(Failure(Exit::Local, QStringLiteral("cannot read %1: %2").arg(result.local, error)));
            runner.wake();
        });
    runner.waitFor([&] {
        const bool settled = failure || (produced && toQuery.empty() && toSend.empty());
        return settled && queries == 0 && sends == 0;
    });
    if (failure)
        throw *failure;

    QStringList hashes;
    qint64 bytes = 0;
    for (const Piece& piece : qAsConst(pieces)) {
        hashes << piece.hash;
        bytes += piece.length;
    }
    result.chunks = hashes.size();
    result.bytes = bytes;
    result.hash = ChunkHasher::fileHash(hashes);
    const Reply reply = runner.call(
        QStringLiteral("commit %1").arg(target), m_tree.commit(upload, result.remote, bytes, hashes));
    checkHash(result, reply.json);
}

void Uploader::checkHash(const Result& result, const QJsonObject& entry)
{
    const QString stored = entry.value("hash").toString();
    if (!stored.isEmpty() && stored != result.hash)
        throw Failure(Exit::Network,
            QStringLiteral("%1 arrived damaged (the server's hash %2 is not the local %3): run put again")
                .arg(m_tree.describe(result.remote), stored, result.hash),
            QStringLiteral("damaged"));
}
