// One remote file to one local path. The content goes to a temporary file beside the
// target (".NAME.nbcli-REV.part") and is renamed over the target once whole and checked
// (size, and the file's hash where the server gives one); the target name never holds a
// partial file. A file of up to one range comes in one request; a larger one in ranges,
// `jobs` of them in flight, each held until it is whole and appended in order, so that
// the part file is always the file's beginning: a part left by an interrupted run (even
// one killed) is continued from its end. Parts of other revisions of the same target
// are removed. A symlink is followed to its file. What is not a regular file (a device,
// a FIFO, "-" for standard output) is written in place, range after range, with the
// hash checked as the bytes pass.
#pragma once

#include "ChunkHasher.h"
#include "RemoteTree.h"

#include <QJsonObject>
#include <functional>

class Progress;
class RateLimit;

class Downloader
{
public:
    struct Result
    {
        QString remote;
        QString local;
        qint64 bytes = 0;
        qint64 resumedFrom = 0;
        QString hash;
        qint64 ms = 0;
        QJsonObject json() const;
    };

    Downloader(RemoteTree& endpoint, Progress& progress, int jobs, RateLimit& limit);

    // Throws the Failure that stopped it.
    Result get(const QString& remotePath, const RemoteEntry& entry, const QString& localPath);

    static QString partPath(const QString& localPath, const QString& rev);

private:
    // Where the ranges go, in order; throws the Failure of a write that failed.
    using Sink = std::function<void(const QByteArray&)>;

    // Into a device, a FIFO or standard output (`fd`), without a temporary file.
    void stream(
        const QString& remotePath, const RemoteEntry& entry, int fd, const QString& shown, Result& result);
    void fetchWhole(const QString& remotePath, const RemoteEntry& entry, const QString& part);
    // Bytes `from` to the end, in ranges, `m_jobs` in flight, to `sink` in order.
    void fetchRanges(const QString& remotePath, const RemoteEntry& entry, qint64 from, const Sink& sink);
    QString hashOf(const QString& path);
    // Progress shown, and the runner told the transfer is alive.
    void advance(qint64 bytes);

    // A file's hash computed on a worker, waited for on the remote's loop.
    struct Hashing
    {
        Hashing(RequestRunner& runner, const QString& path);
        QString result();

        RequestRunner& runner;
        QString path;
        QStringList hashes;
        QString error;
        bool finished = false;
        ChunkHasher hasher;
    };

    RemoteTree& m_tree;
    Progress& m_progress;
    int m_jobs;
    RateLimit& m_limit;
};
