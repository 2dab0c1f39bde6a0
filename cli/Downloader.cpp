#include "Downloader.h"

#include "ChunkHasher.h"
#include "Progress.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <cstdio>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

namespace {

// A range request asks for at most this much: a data download keeps its body for the
// record, so memory stays bounded however large the file.
constexpr qint64 RangeSpan = 64 << 20;

} // namespace

QJsonObject Downloader::Result::json() const
{
    return QJsonObject { { "path", remote }, { "local", local }, { "bytes", bytes },
        { "resumed_from", resumedFrom }, { "hash", hash }, { "ms", ms } };
}

Downloader::Downloader(RemoteTree& endpoint, Progress& progress)
    : m_tree(endpoint)
    , m_progress(progress)
{
}

QString Downloader::partPath(const QString& localPath, const QString& rev)
{
    const QFileInfo target(localPath);
    return target.absoluteDir().filePath(QStringLiteral(".%1.nbcli-%2.part").arg(target.fileName(), rev));
}

Downloader::Result Downloader::get(
    const QString& remotePath, const RemoteEntry& entry, const QString& givenPath)
{
    Result result;
    result.remote = remotePath;
    result.local = givenPath;
    result.bytes = entry.bytes;
    QElapsedTimer clock;
    clock.start();
    if (givenPath == QLatin1String("-")) {
        stream(remotePath, entry, STDOUT_FILENO, QStringLiteral("standard output"), result);
        result.ms = clock.elapsed();
        return result;
    }
    // A symlink is followed: its file is replaced, the link stays.
    QString localPath = givenPath;
    const QFileInfo given(givenPath);
    if (given.isSymLink())
        localPath = given.exists() ? given.canonicalFilePath() : given.symLinkTarget();
    const QFileInfo target(localPath);
    if (target.exists() && !target.isFile() && !target.isDir()) {
        const int fd = ::open(QFile::encodeName(localPath).constData(), O_WRONLY | O_CLOEXEC);
        if (fd < 0)
            throw Failure(
                Exit::Local, QStringLiteral("cannot write %1: %2").arg(givenPath, qt_error_string(errno)));
        try {
            stream(remotePath, entry, fd, givenPath, result);
        } catch (...) {
            ::close(fd);
            throw;
        }
        ::close(fd);
        result.ms = clock.elapsed();
        return result;
    }
    const QString part = partPath(localPath, entry.rev);
    // Parts of other revisions of this target can never be continued.
    const QDir folder = target.absoluteDir();
    const QString prefix = QLatin1Char('.') + target.fileName() + QStringLiteral(".nbcli-");
    for (const QString& old : folder.entryList({ QStringLiteral("*.part") }, QDir::Files | QDir::Hidden)) {
        // The name compared as text: a name may hold "*" or "?".
        if (!old.startsWith(prefix) || old.size() <= prefix.size() + 5)
            continue;
        const QString rev = old.mid(prefix.size(), old.size() - prefix.size() - 5);
        if (!rev.contains(QLatin1Char('.')) && folder.filePath(old) != part)
            QFile::remove(folder.filePath(old));
    }
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
    Hashing hashing(m_tree.runner(), part);
    hashing.hasher.follow(entry.bytes);
    hashing.hasher.start();
    m_rewound = false;
    if (result.resumedFrom == 0 && entry.bytes > 0)
        fetchWhole(remotePath, part);
    fetchRest(remotePath, part, entry.bytes);

    const qint64 size = QFileInfo(part).size();
    if (size != entry.bytes)
        throw Failure(Exit::Network,
            QStringLiteral("%1 arrived with %2 of its %3 bytes: run get again to continue")
                .arg(m_tree.describe(remotePath), QString::number(size), QString::number(entry.bytes)),
            QStringLiteral("damaged"));
    result.hash = m_rewound ? hashOf(part) : hashing.result();
    if (!entry.hash.isEmpty() && entry.hash != result.hash && !m_rewound)
        result.hash = hashOf(part); // read whole once more before calling it damaged
    if (!entry.hash.isEmpty() && entry.hash != result.hash) {
        QFile::remove(part);
        throw Failure(Exit::Network,
            QStringLiteral("%1 arrived damaged (hash %2, the server's %3): run get again")
                .arg(m_tree.describe(remotePath), result.hash, entry.hash),
            QStringLiteral("damaged"));
    }
    // rename(2) replaces the target in one step: it is the old file or the whole new one.
    if (std::rename(QFile::encodeName(part).constData(), QFile::encodeName(localPath).constData()) != 0)
        throw Failure(
            Exit::Local, QStringLiteral("cannot write %1: %2").arg(givenPath, qt_error_string(errno)));
    result.ms = clock.elapsed();
    m_progress.endFile();
    return result;
}

void Downloader::fetchWhole(const QString& remotePath, const QString& part)
{
    const QString what = QStringLiteral("download %1").arg(m_tree.describe(remotePath));
    RequestRunner& remote = m_tree.runner();
    Reply reply;
    bool finished = false;
    // Not retried: a new attempt would start from the first byte again, while the range
    // requests of fetchRest continue from the last one that arrived.
    remote.start(
        what,
        m_tree.downloadWhole(remotePath, part,
            [this](const DownloadProgressData& progress) { m_progress.setDone(progress.bytesReceived); }),
        [&](const Reply& last) {
            reply = last;
            finished = true;
        },
        false);
    remote.waitFor([&] { return finished; });
    if (reply.data.statusCode >= 300) // the part holds the error body, not content
        QFile::remove(part);
    if (!reply.served || reply.data.statusCode >= 300 || RequestRunner::isLocalFileError(reply.data))
        throw RequestRunner::failureOf(what, reply);
}

void Downloader::fetchRest(const QString& remotePath, const QString& part, qint64 total)
{
    QFile file(part);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append))
        throw Failure { Exit::Local, QStringLiteral("cannot write %1: %2").arg(part, file.errorString()) };
    RequestRunner& remote = m_tree.runner();
    const QString what = QStringLiteral("download %1").arg(m_tree.describe(remotePath));
    // Each attempt asks for what the part lacks at that moment, so a retry after a
    // broken connection continues where the bytes stopped; what an attempt wrote is
    // taken back when it was not the range (an error body, or the whole file).
    while (file.size() < total) {
        std::optional<Failure> writeError;
        qint64 begin = 0;
        const RequestRunner::Start ranged = [&](NBCompletionCallback done) {
            begin = file.size();
            const qint64 end = qMin(begin + RangeSpan, total) - 1;
            const RequestRunner::Start request
                = m_tree.downloadRange(remotePath, QStringLiteral("bytes=%1-%2").arg(begin).arg(end),
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
            throw RequestRunner::failureOf(what, reply);
    }
}

Downloader::Hashing::Hashing(RequestRunner& runner, const QString& path)
    : runner(runner)
    , path(path)
    , hasher(
          path, [this](const ChunkHasher::Chunk& chunk) { hashes << chunk.hash; },
          [this](const QString& problem) {
              error = problem;
              finished = true;
              this->runner.wake();
          })
{
}

QString Downloader::Hashing::result()
{
    runner.waitFor([this] { return finished; });
    if (!error.isEmpty())
        throw Failure { Exit::Local, QStringLiteral("cannot read %1: %2").arg(path, error) };
    return ChunkHasher::fileHash(hashes);
}

void Downloader::stream(
    const QString& remotePath, const RemoteEntry& entry, int fd, const QString& shown, Result& result)
{
    const QString what = QStringLiteral("download %1").arg(m_tree.describe(remotePath));
    m_progress.beginFile(shown, entry.bytes);
    StreamHash hash;
    qint64 written = 0;
    // Range after range, each held until it has come whole: what reaches the target
    // cannot be taken back.
    while (written < entry.bytes) {
        const qint64 end = qMin(written + ChunkHasher::DefaultChunkSize, entry.bytes) - 1;
        QByteArray piece;
        const RequestRunner::Start ranged = [&](NBCompletionCallback done) {
            piece.clear();
            return m_tree.downloadRange(remotePath,
                QStringLiteral("bytes=%1-%2").arg(QString::number(written), QString::number(end)),
                [&](const QByteArray& data) {
                    piece += data;
                    m_progress.setDone(written + piece.size());
                },
                {})(std::move(done));
        };
        const Reply reply = m_tree.runner().fetch(what, ranged);
        if (!reply.ok())
            throw RequestRunner::failureOf(what, reply);
        if (reply.data.statusCode != 206 || piece.size() != end - written + 1)
            throw Failure(Exit::Network,
                QStringLiteral("%1: the server did not send the range asked for").arg(what),
                QStringLiteral("damaged"));
        for (qint64 at = 0; at < piece.size();) {
            const ssize_t n = ::write(fd, piece.constData() + at, size_t(piece.size() - at));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                throw Failure(
                    Exit::Local, QStringLiteral("cannot write %1: %2").arg(shown, qt_error_string(errno)));
            at += n;
        }
        hash.add(piece.constData(), piece.size());
        written += piece.size();
    }
    result.hash = hash.result();
    if (!entry.hash.isEmpty() && entry.hash != result.hash)
        throw Failure(Exit::Network,
            QStringLiteral(
                "%1 arrived damaged (hash %2, the server's %3): what was written to %4 is not the file")
                .arg(m_tree.describe(remotePath), result.hash, entry.hash, shown),
            QStringLiteral("damaged"));
    m_progress.endFile();
}

QString Downloader::hashOf(const QString& path)
{
    Hashing hashing(m_tree.runner(), path);
    hashing.hasher.start();
    return hashing.result();
}
