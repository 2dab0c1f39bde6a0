#include "HashCache.h"

#include "ChunkHasher.h"
#include "Failure.h"
#include "RequestRunner.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QStandardPaths>
#include <sys/stat.h>

LocalFile LocalFile::of(const QString& path)
{
    struct stat info
    {
    };
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return LocalFile { path, -1, 0 };
    return LocalFile { path, qint64(info.st_size),
        qint64(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec };
}

HashCache::HashCache()
{
    QFile stored(file());
    if (!stored.open(QIODevice::ReadOnly))
        return;
    const QJsonObject files = QJsonDocument::fromJson(stored.readAll()).object().value("files").toObject();
    for (auto it = files.begin(); it != files.end(); ++it) {
        const QJsonObject entry = it.value().toObject();
        m_known.insert(it.key(),
            Known { qint64(entry.value("bytes").toDouble()), entry.value("mtime_ns").toString().toLongLong(),
                entry.value("hash").toString() });
    }
}

QString HashCache::file()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation)
        + QStringLiteral("/nbcli/hashes.json");
}

QString HashCache::hashOf(RequestRunner& runner, const LocalFile& local)
{
    m_seen.insert(local.path);
    const auto known = m_known.constFind(local.path);
    if (known != m_known.cend() && known->bytes == local.bytes && known->modifiedNs == local.modifiedNs
        && !known->hash.isEmpty())
        return known->hash;
    QStringList hashes;
    QString error;
    bool finished = false;
    ChunkHasher hasher(
        local.path, [&](const ChunkHasher::Chunk& chunk) { hashes << chunk.hash; },
        [&](const QString& problem) {
            error = problem;
            finished = true;
            runner.wake();
        });
    hasher.start();
    runner.waitFor([&] { return finished; });
    if (!error.isEmpty())
        throw Failure(Exit::Local, QStringLiteral("cannot read %1: %2").arg(local.path, error));
    const QString hash = ChunkHasher::fileHash(hashes);
    store(local, hash);
    return hash;
}

void HashCache::store(const LocalFile& local, const QString& hash)
{
    m_seen.insert(local.path);
    m_known.insert(local.path, Known { local.bytes, local.modifiedNs, hash });
    m_changed = true;
}

void HashCache::forgetUnseenBelow(const QString& folder)
{
    const QString prefix = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
    for (auto it = m_known.begin(); it != m_known.end();) {
        if (it.key().startsWith(prefix) && !m_seen.contains(it.key())) {
            it = m_known.erase(it);
            m_changed = true;
        } else {
            ++it;
        }
    }
}

bool HashCache::save(QString* error)
{
    if (!m_changed)
        return true;
    QJsonObject files;
    for (auto it = m_known.cbegin(); it != m_known.cend(); ++it)
        files.insert(it.key(),
            QJsonObject { { "bytes", it->bytes }, { "mtime_ns", QString::number(it->modifiedNs) },
                { "hash", it->hash } });
    QDir().mkpath(QFileInfo(file()).absolutePath());
    QSaveFile saved(file());
    if (!saved.open(QIODevice::WriteOnly)
        || saved.write(QJsonDocument(QJsonObject { { "version", 1 }, { "files", files } })
                           .toJson(QJsonDocument::Compact))
            < 0
        || !saved.commit()) {
        *error = QStringLiteral("cannot write %1: %2").arg(file(), saved.errorString());
        return false;
    }
    m_changed = false;
    return true;
}
