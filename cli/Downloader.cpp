#include "Downloader.h"

#include "ChunkHasher.h"
#include "Progress.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <cstdio>
#include <optional>

namespace {

// A range request asks for at most this much: a data download keeps its body for the
// record, so memory stays bounded however large the file.
constexpr qint64 RangeSpan = 64 << 20;

} // namespace

QJsonObject Downloader::Result::json() const
{
    return QJsonObject { { "remote", remote }, { "local", local }, { "bytes", bytes },
        { "resumed_from", resumedFrom }, { "hash", hash }, { "ms", ms } };
}

Downloader::Downloader(TransferEndpoint& endpoint, Progress& progress)
    : m_endpoint(endpoint)
    , m_progress(progress)
{
}

QString Downloader::partPath(const QString& localPath, const QString& rev)
{
    const QFileInfo target(localPath);
    return target.absoluteDir().filePath(QStringLiteral(".%1.nbcli-%2.part").arg(target.fileName(), rev));
}

Downloader::Result Downloader::get(
    const QString& remotePath, const RemoteEntry& entry, const QString& localPath)
{
    Result result;
    result.remote = remotePath;
    result.local = localPath;
    result.bytes = entry.bytes;
    QElapsedTimer clock;
    clock.start();
    const QString part = partPath(localPath, entry.rev);
    if (!QFileInfo(part).absoluteDir().exists())
        throw Failure { Exit::Local, QStringLiteral("cannot write %1: no such folder").arg(localPath) };
    result.resumedFrom = QFileInfo(part).size();
    if (result.resumedFrom > entry.bytes) {
        QFile::remove(part);
        result.resumedFrom = 0;
    }
    m_progress.beginFile(QFileInfo(localPath).fileName(), entry.bytes);
    // The part is hashed as it grows; what a failed range took back makes it read again.
    QFile created(part);
    if (!created.exists() && !created.open(QIODevice::WriteOnly))
        throw Failure { Exit::Local, QStringLiteral("cannot write %1: %2").arg(part, created.errorString()) };
    created.close();
    Hashing hashing(m_endpoint.remote(), part);
    hashing.hasher.follow(entry.bytes);
    hashing.hasher.start();
    m_rewound = false;
    if (result.resumedFrom == 0 && entry.bytes > 0)
        fetchWhole(remotePath, part);
    fetchRest(remotePath, part, entry.bytes);

    const qint64 size = QFileInfo(part).size();
    if (size != entry.bytes)
        throw Failure { Exit::Network,
            QStringLiteral("%1 arrived with %2 of its %3 bytes: run get again to continue")
                .arg(m_endpoint.describe(remotePath))
                .arg(size)
                .arg(entry.bytes) };
    result.hash = m_rewound ? hashOf(part) : hashing.result();
    if (!entry.hash.isEmpty() && entry.hash != result.hash && !m_rewound)
        result.hash = hashOf(part); // read whole once more before calling it damaged
    if (!entry.hash.isEmpty() && entry.hash != result.hash) {
        QFile::remove(part);
        throw Failure { Exit::Network,
            QStringLiteral("%1 arrived damaged (hash %2, the server's %3): run get again")
                .arg(m_endpoint.describe(remotePath), result.hash, entry.hash) };
    }
    // rename(2) replaces the target in one step: it is the old file or the whole new one.
    if (std::rename(QFile::encodeName(part).constData(), QFile::encodeName(localPath).constData()) != 0)
        throw Failure { Exit::Local,
            QStringLiteral("cannot write %1: %2").arg(localPath, qt_error_string(errno)) };
    result.ms = clock.elapsed();
    m_progress.endFile();
    return result;
}

void Downloader::fetchWhole(const QString& remotePath, const QString& part)
{
    const QString what = QStringLiteral("download %1").arg(m_endpoint.describe(remotePath));
    Remote& remote = m_endpoint.remote();
    Reply reply;
    bool finished = false;
    // Not retried: a new attempt would start from the first byte again, while the range
    // requests of fetchRest continue from the last one that arrived.
    remote.start(
        what,
        m_endpoint.downloadWhole(remotePath, part,
            [this](const DownloadProgressData& progress) { m_progress.setDone(progress.bytesReceived); }),
        [&](const Reply& last) {
            reply = last;
            finished = true;
        },
        false);
    remote.waitFor([&] { return finished; });
    if (reply.data.statusCode >= 300) // the part holds the error body, not content
        QFile::remove(part);
    if (!reply.served || reply.data.statusCode >= 300 || Remote::isLocalFileError(reply.data))
        throw Remote::failureOf(what, reply);
}

void Downloader::fetchRest(const QString& remotePath, const QString& part, qint64 total)
{
    QFile file(part);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append))
        throw Failure { Exit::Local, QStringLiteral("cannot write %1: %2").arg(part, file.errorString()) };
    Remote& remote = m_endpoint.remote();
    const QString what = QStringLiteral("download %1").arg(m_endpoint.describe(remotePath));
    // Each attempt asks for what the part lacks at that moment, so a retry after a
    // broken connection continues where the bytes stopped; what an attempt wrote is
    // taken back when it was not the range (an error body, or the whole file).
    while (file.size() < total) {
        std::optional<Failure> writeError;
        qint64 begin = 0;
        const Remote::Start ranged = [&](NBCompletionCallback done) {
            begin = file.size();
            const qint64 end = qMin(begin + RangeSpan, total) - 1;
            const Remote::Start request
                = m_endpoint.downloadRange(remotePath, QStringLiteral("bytes=%1-%2").arg(begin).arg(end),
                    [&](const QByteArray& piece) {
                        if (!writeError && file.write(piece) != piece.size())
                            writeError = Failure { Exit::Local,
                                QStringLiteral("cannot write %1: %2").arg(part, file.errorString()) };
                        m_progress.setDone(file.size());
                    },
                    {});
            return request([this, &file, begin, done](const ResponseData& data) {
                if (data.statusCode != 206 && file.size() > begin) {
                    file.resize(begin);
                    m_rewound = true;
                }
                done(data);
            });
        };
        const Reply reply = remote.fetch(what, ranged);
        file.flush();
        if (writeError)
            throw *writeError;
        if (reply.data.statusCode == 200)
            throw Failure { Exit::Refused,
                QStringLiteral("%1: the server ignored the range request").arg(what) };
        if (!reply.ok())
            throw Remote::failureOf(what, reply);
    }
}

Downloader::Hashing::Hashing(Remote& remote, const QString& path)
    : remote(remote)
    , path(path)
    , hasher(
          path, [this](const ChunkHasher::Chunk& chunk) { hashes << chunk.hash; },
          [this](const QString& problem) {
              error = problem;
              finished = true;
              this->remote.wake();
          })
{
}

QString Downloader::Hashing::result()
{
    remote.waitFor([this] { return finished; });
    if (!error.isEmpty())
        throw Failure { Exit::Local, QStringLiteral("cannot read %1: %2").arg(path, error) };
    return ChunkHasher::fileHash(hashes);
}

QString Downloader::hashOf(const QString& path)
{
    Hashing hashing(m_endpoint.remote(), path);
    hashing.hasher.start();
    return hashing.result();
}
