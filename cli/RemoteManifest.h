// What sync last knew of a remote folder: every entry below it, as of a position in the
// change feed, kept per pair of remote and local folder in $XDG_CACHE_HOME/nbcli/sync/
// (mode 0600). The next sync of the pair reads only what changed since.
#pragma once

#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QStringList>

class RemoteManifest
{
public:
    // `pair` names the server, account, space and both folders; `root` is the remote folder.
    RemoteManifest(const QString& pair, const QString& root);

    // False when nothing is kept for the pair (or what is kept cannot be read).
    bool load();
    bool save(QString* error) const;
    void clear();

    // Applies one change of the feed. A folder moved in from outside comes without its
    // content: its path (relative) is added to `unlisted`.
    void apply(const QJsonObject& change, QStringList* unlisted);
    // Puts an entry listed otherwise, by its path relative to the root.
    void put(const QString& relative, const QJsonObject& entry) { entries.insert(relative, entry); }

    QString cursor;
    QMap<QString, QJsonObject> entries; // by path relative to the root, as the server gave them

private:
    // The path below the root, or none for the root itself and what lies outside.
    bool relative(const QString& path, QString* below) const;
    void removeBelow(const QString& below);

    QString m_file;
    QString m_pair;
    QString m_root;
};
