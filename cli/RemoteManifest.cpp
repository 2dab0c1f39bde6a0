#include "RemoteManifest.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSaveFile>
#include <QStandardPaths>

RemoteManifest::RemoteManifest(const QString& pair, const QString& root)
    : m_pair(pair)
    , m_root(root)
{
    m_file = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation)
        + QStringLiteral("/nbcli/sync/")
        + QString::fromLatin1(
            QCryptographicHash::hash(pair.toUtf8(), QCryptographicHash::Sha256).toHex().left(32))
        + QStringLiteral(".json");
}

bool RemoteManifest::load()
{
    clear();
    QFile stored(m_file);
    if (!stored.open(QIODevice::ReadOnly))
        return false;
    const QJsonObject kept = QJsonDocument::fromJson(stored.readAll()).object();
    // A file of another pair (a hash collision) or of another version is not this one's.
    if (kept.value("version").toInt() != 1 || kept.value("pair").toString() != m_pair
        || kept.value("cursor").toString().isEmpty())
        return false;
    cursor = kept.value("cursor").toString();
    const QJsonObject listed = kept.value("entries").toObject();
    for (auto it = listed.begin(); it != listed.end(); ++it)
        entries.insert(it.key(), it.value().toObject());
    return true;
}

bool RemoteManifest::save(QString* error) const
{
    QJsonObject listed;
    for (auto it = entries.cbegin(); it != entries.cend(); ++it)
        listed.insert(it.key(), it.value());
    const QString folder = QFileInfo(m_file).absolutePath();
    QSaveFile saved(m_file);
    if (!QDir().mkpath(folder) || !saved.open(QIODevice::WriteOnly)
        || !saved.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)
        || saved.write(QJsonDocument(QJsonObject { { "version", 1 }, { "pair", m_pair }, { "cursor", cursor },
                                         { "entries", listed } })
                           .toJson(QJsonDocument::Compact))
            < 0
        || !saved.commit()) {
        *error = QStringLiteral("cannot write %1: %2").arg(m_file, saved.errorString());
        return false;
    }
    return true;
}

void RemoteManifest::clear()
{
    cursor.clear();
    entries.clear();
}

bool RemoteManifest::relative(const QString& path, QString* below) const
{
    const QString prefix = m_root.endsWith(QLatin1Char('/')) ? m_root : m_root + QLatin1Char('/');
    if (!path.startsWith(prefix) || path.size() == prefix.size())
        return false;
    *below = path.mid(prefix.size());
    return true;
}

void RemoteManifest::removeBelow(const QString& below)
{
    entries.remove(below);
    const QString prefix = below + QLatin1Char('/');
    for (auto it = entries.lowerBound(prefix); it != entries.end() && it.key().startsWith(prefix);)
        it = entries.erase(it);
}

void RemoteManifest::apply(const QJsonObject& change, QStringList* unlisted)
{
    const QString op = change.value("op").toString();
    QString path;
    const bool inside = relative(change.value("path").toString(), &path);
    QString from;
    const bool fromInside = relative(change.value("from_path").toString(), &from);
    QJsonObject entry = change;
    entry.remove("op");
    entry.remove("from_path");
    if (op == QLatin1String("delete")) {
        if (inside)
            removeBelow(path);
        return;
    }
    if (op == QLatin1String("move") && fromInside) {
        // What the moved folder held moves with it.
        QMap<QString, QJsonObject> moved;
        const QString prefix = from + QLatin1Char('/');
        for (auto it = entries.lowerBound(prefix); it != entries.end() && it.key().startsWith(prefix); ++it)
            moved.insert(it.key().mid(prefix.size()), it.value());
        removeBelow(from);
        if (!inside)
            return;
        for (auto it = moved.cbegin(); it != moved.cend(); ++it) {
            QJsonObject child = it.value();
            child.insert("path", change.value("path").toString() + QLatin1Char('/') + it.key());
            entries.insert(path + QLatin1Char('/') + it.key(), child);
        }
        entries.insert(path, entry);
        return;
    }
    if (!inside)
        return;
    entries.insert(path, entry);
    if (op == QLatin1String("move") && entry.value("is_dir").toBool())
        *unlisted << path;
}
