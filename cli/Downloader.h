// One remote file to one local path. The content goes to a temporary file beside the
// target (".NAME.nbcli-REV.part") and is renamed over the target once whole and checked
// (size, and the file's hash where the server gives one); the target name never holds a
// partial file. A part left by an interrupted run is continued with range requests;
// parts of other revisions of the same target are removed. A symlink is followed to its
// file. What is not a regular file (a device, a FIFO, "-" for standard output) is
// written in place, range after range, with the hash checked as the bytes pass.
#pragma once

#include "ChunkHasher.h"
#include "RemoteTree.h"

#include <QJsonObject>

class Progress;

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

    Downloader(RemoteTree& endpoint, Progress& progress);

    // Throws the Failure that stopped it.
    Result get(const QString& remotePath, const RemoteEntry& entry, const QString& localPath);

    static QString partPath(const QString& localPath, const QString& rev);

private:
    // Into a device, a FIFO or standard output (`fd`), without a temporary file.
    void stream(
        const QString& remotePath, const RemoteEntry& entry, int fd, const QString& shown, Result& result);
    void fetchWhole(const QString& remotePath, const QString& part);
    void fetchRest(const QString& remotePath, const QString& part, qint64 total);
    QString hashOf(const QString& path);

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
    bool m_rewound = false; // a range attempt took back what it had written
};
