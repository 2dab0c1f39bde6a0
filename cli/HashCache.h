// The content hashes of local files, kept between runs in
// $XDG_CACHE_HOME/nbcli/hashes.json: a file whose size and modification time (to the
// nanosecond) are those it had when it was hashed is not read again. A file written
// since has another time and is read again; the worst a stale or damaged cache can do
// is cost a read. Hashes are the drive's (SHA-256 over 4 MiB chunks).
#pragma once

#include <QHash>
#include <QSet>
#include <QString>

class RequestRunner;

struct LocalFile
{
    QString path; // absolute
    qint64 bytes = 0;
    qint64 modifiedNs = 0;

    // The file as it is now; bytes -1 when it cannot be read.
    static LocalFile of(const QString& path);
};

class HashCache
{
public:
    HashCache();

    static QString file();

    // The file's hash, from the cache or read (on worker threads) and then kept.
    QString hashOf(RequestRunner& runner, const LocalFile& file);
    // Keeps a hash known otherwise (computed by an upload or a download).
    void store(const LocalFile& file, const QString& hash);
    // Forgets the files below `folder` that were not seen in this run.
    void forgetUnseenBelow(const QString& folder);
    // Written whole or not at all; a cache that cannot be written only costs reads.
    bool save(QString* error);

private:
    struct Known
    {
        qint64 bytes = 0;
        qint64 modifiedNs = 0;
        QString hash;
    };
    QHash<QString, Known> m_known;
    QSet<QString> m_seen;
    bool m_changed = false;
};
