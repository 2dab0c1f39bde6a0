#include "Downloader.h"

#include "ChunkHasher.h"
#include "Progress.h"
#include "RateLimit.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>
#include <QTimer>
#include <cstdio>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// A range request asks for at most this much, and each range in flight is held until
// whole: memory stays within `jobs` ranges however large the file.
constexpr qint64 RangeSpan = 4 << 20;
// A range goes to the file in pieces: one write(2) of megabytes took the kernel four to
// five times the system time of the same bytes in 256 KiB writes (1 GiB: 4 s against 1 s).
constexpr qint64 WritePiece = 256 << 10;

} // namespace

QJsonObject Downloader::Result::json() const
{
    return QJsonObject { { "path", remote }, { "local", local }, { "bytes", bytes },
        { "resumed_from", resumedFrom }, { "hash", hash }, { "ms", ms } };
}

Downloader::Downloader(RemoteTree& endpoint, Progress& progress, int jobs, RateLimit& limit)
    : m_tree(endpoint)
    , m_progress(progress)
    , m_jobs(qMax(1, jobs))
    , m_limit(limit)
{
}

void Downloader::advance(qint64 bytes)
{
    m_progress.setDone(bytes);
    m_tree.runner().touch();
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
    // The part is hashed as it grows, on a worker.
    QFile file(part);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append))
        throw Failure { Exit::Local, QStringLiteral("cannot write %1: %2").arg(part, file.errorString()) };
    Hashing hashing(m_tree.runner(), part);
    hashing.hasher.follow(entry.bytes);
    hashing.hasher.start();
    if (result.resumedFrom == 0 && entry.bytes > 0 && entry.bytes <= RangeSpan && !m_limit.limited()) {
        file.close();
        fetchWhole(remotePath, entry, part);
        file.open(QIODevice::WriteOnly | QIODevice::Append);
    }
    // What is missing, from the end of what is there: a body cut short, or an earlier run's part.
    if (file.size() < entry.bytes)
        fetchRanges(remotePath, entry, file.size(), [&](const QByteArray& range) {
            bool written = true;
            for (qint64 at = 0; written && at < range.size(); at += WritePiece)
                written = file.write(range.constData() + at, qMin(WritePiece, range.size() - at))
                    == qMin(WritePiece, range.size() - at);
            if (!written || !file.flush())
                throw Failure { Exit::Local,
                    QStringLiteral("cannot write %1: %2").arg(part, file.errorString()) };
        });
    file.close();

    const qint64 size = QFileInfo(part).size();
    if (size != entry.bytes)
        throw Failure(Exit::Network,
            QStringLiteral("%1 arrived with %2 of its %3 bytes: run get again to continue")
                .arg(m_tree.describe(remotePath), QString::number(size), QString::number(entry.bytes)),
            QStringLiteral("damaged"));
    result.hash = hashing.result();
    if (!entry.hash.isEmpty() && entry.hash != result.hash)
        result.hash = hashOf(part); // read whole once more before calling it damaged
    if (!entry.hash.isEmpty() && entry.hash != result.hash) {
        QFile::remove(part);
        throw Failure(Exit::Network,
            QStringLiteral("%1 arrived damaged (hash %2, the server's %3): run get again")
                .arg(m_tree.describe(remotePath), result.hash, entry.hash),
            QStringLiteral("damaged"));
    }
    // The server's modification time, as copies that keep times have it.
    if (entry.modified > 0) {
        const timespec times[2] = { { 0, UTIME_OMIT }, { time_t(entry.modified), 0 } };
        ::utimensat(AT_FDCWD, QFile::encodeName(part).constData(), times, 0);
    }
    // rename(2) replaces the target in one step: it is the old file or the whole new one.
    if (std::rename(QFile::encodeName(part).constData(), QFile::encodeName(localPath).constData()) != 0)
        throw Failure(
            Exit::Local, QStringLiteral("cannot write %1: %2").arg(givenPath, qt_error_string(errno)));
    result.ms = clock.elapsed();
    m_progress.endFile();
    return result;
}

void Downloader::fetchWhole(const QString& remotePath, const RemoteEntry& entry, const QString& part)
{
    const QString what = QStringLiteral("download %1").arg(m_tree.describe(remotePath));
    RequestRunner& remote = m_tree.runner();
    Reply reply;
    bool finished = false;
    // Not retried: a new attempt would start from the first byte again, while ranges
    // continue from the last one that arrived.
    remote.start(
        what,
        m_tree.downloadWhole(remotePath, entry.rev, part,
            [this](const DownloadProgressData& progress) { advance(progress.bytesReceived); }),
        [&](const Reply& last) {
            reply = last;
            finished = true;
        },
        false);
    remote.waitFor([&] { return finished; });
    if (reply.data.statusCode >= 300 || !reply.served) // the part holds the error body, not content
        QFile::resize(part, 0);
    if (!reply.served || reply.data.statusCode >= 300 || RequestRunner::isLocalFileError(reply.data))
        throw RequestRunner::failureOf(what, reply);
}

void Downloader::fetchRanges(
    const QString& remotePath, const RemoteEntry& entry, qint64 from, const Sink& sink)
{
    struct Range
    {
        qint64 begin = 0;
        qint64 length = 0;
        QByteArray data;
        bool whole = false;
    };
    RequestRunner& remote = m_tree.runner();
    const QString what = QStringLiteral("download %1").arg(m_tree.describe(remotePath));
    const qint64 total = entry.bytes;
    const qint64 span = m_limit.span(RangeSpan);
    std::deque<std::shared_ptr<Range>> window; // from the first range not yet given to the sink
    // The buffers of ranges given to the sink, for the next ones: a few megabytes allocated
    // once, where new ones for every range would leave each thread's heap at its peak.
    std::vector<QByteArray> spare;
    qint64 next = from; // the first byte no range asks for yet
    qint64 written = from;
    int inFlight = 0;
    std::optional<Failure> failure;
    // A range waiting for the rate limit starts later, unless the wait has ended by then.
    const auto alive = std::make_shared<bool>(true);
    const auto ending = qScopeGuard([alive] { *alive = false; });

    const auto shown = [&] {
        qint64 bytes = written;
        for (const auto& range : window)
            bytes += range->data.size();
        advance(bytes);
    };
    const auto flush = [&] {
        while (!failure && !window.empty() && window.front()->whole) {
            try {
                sink(window.front()->data);
            } catch (const Failure& problem) {
                failure = problem;
                return;
            }
            written += window.front()->length;
            spare.push_back(std::move(window.front()->data));
            window.pop_front();
        }
    };
    std::function<void()> launch;
    const auto request = [&](const std::shared_ptr<Range>& range) {
        const QString bytes
            = QStringLiteral("bytes=%1-%2")
                  .arg(QString::number(range->begin), QString::number(range->begin + range->length - 1));
        remote.start(
            what,
            [&, range, bytes](NBCompletionCallback done) {
                // Room for the whole range at once, kept when emptied: no copies as it grows.
                range->data.resize(0);
                range->data.reserve(int(range->length + 1));
                return m_tree.downloadRange(remotePath, entry.rev, bytes,
                    [&, range](const QByteArray& piece) {
                        // A server that ignores the range sends more: kept only to tell.
                        if (range->data.size() <= range->length)
                            range->data += piece.left(int(range->length + 1 - range->data.size()));
                        shown();
                    },
                    {})(std::move(done));
            },
            [&, range](const Reply& reply) {
                --inFlight;
                if (!reply.ok()) {
                    if (!failure)
                        failure = RequestRunner::failureOf(what, reply);
                } else if (reply.data.statusCode != 206) {
                    if (!failure)
                        failure = Failure(Exit::Refused,
                            QStringLiteral("%1: the server ignored the range request").arg(what));
                } else if (range->data.size() != range->length) {
                    if (!failure)
                        failure = Failure(Exit::Network,
                            QStringLiteral("%1: the server did not send the range asked for").arg(what),
                            QStringLiteral("damaged"));
                } else {
                    range->whole = true;
                    flush();
                }
                launch();
            });
    };
    launch = [&] {
        while (!failure && next < total && int(window.size()) < m_jobs) {
            auto range = std::make_shared<Range>();
            if (!spare.empty()) {
                range->data = std::move(spare.back());
                spare.pop_back();
            }
            range->begin = next;
            range->length = qMin(span, total - next);
            next += range->length;
            window.push_back(range);
            ++inFlight;
            const int wait = m_limit.reserve(range->length);
            if (wait <= 0) {
                request(range);
                continue;
            }
            QTimer::singleShot(wait, &remote, [&, alive, range] {
                if (!*alive)
                    return;
                if (!failure)
                    return request(range);
                --inFlight;
                remote.wake();
            });
        }
    };
    launch();
    remote.waitFor([&] { return inFlight == 0 && (failure || written >= total); });
    if (failure)
        throw *failure;
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
    m_progress.beginFile(shown, entry.bytes);
    StreamHash hash;
    // What reaches the target cannot be taken back: only whole ranges, in order.
    fetchRanges(remotePath, entry, 0, [&](const QByteArray& range) {
        for (qint64 at = 0; at < range.size();) {
            const ssize_t n
                = ::write(fd, range.constData() + at, size_t(qMin(WritePiece, range.size() - at)));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                throw Failure(
                    Exit::Local, QStringLiteral("cannot write %1: %2").arg(shown, qt_error_string(errno)));
            at += n;
        }
        hash.add(range.constData(), range.size());
    });
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
