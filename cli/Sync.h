// sync: makes a folder on one side match a folder on the other. Both trees are walked
// (what the filter leaves out is neither looked into nor touched), compared entry by
// entry and turned into a plan: folders to make, files to send (new, or changed in
// size or content hash), renames (with --delete, a file that is gone here and new there
// with the same content is moved, not sent again), and with --delete what the source
// lacks, deleted only once every transfer succeeded. Local hashes come from the hash
// cache, so a tree that did not change is not read again and a second sync sends
// nothing. --dry-run asks the server the same questions and reports the plan. A sync
// from the server reads the remote tree from the change feed: the whole state the first
// time, then only what changed since the last sync of the same pair of folders.
#pragma once

#include "DriveTree.h"
#include "HashCache.h"
#include "PathFilter.h"
#include "RemoteManifest.h"
#include "Transfers.h"

#include <QMap>
#include <QSet>
#include <functional>
#include <optional>

class Cli;

class Sync
{
public:
    struct Options
    {
        bool deleteExtra = false;
        bool dryRun = false;
        PathFilter filter;
        TransferSettings transfers;
    };

    Sync(Cli& cli, DriveTree& drive, const Options& options);

    // The local folder to the remote one, and back.
    void up(const QString& local, const QString& remote);
    void down(const QString& remote, const QString& local);

private:
    // One side's entry, by its path relative to the synced folder.
    struct Entry
    {
        bool folder = false;
        qint64 bytes = 0;
        LocalFile file; // local entries
        RemoteEntry remote; // remote entries
    };
    using Tree = QMap<QString, Entry>; // sorted: a folder before what it holds

    struct Plan
    {
        QStringList folders; // to make, relative
        QStringList sends; // files to send, relative
        QMap<QString, QString> moves; // to <- from, relative
        QStringList deletes; // relative, the topmost of each deleted subtree
        QMap<QString, QString> reasons; // of sends: "new" or "changed"
        int unchanged = 0;
    };

    // What a direction does to its target side, by paths relative to the synced folders.
    struct Target
    {
        QString name; // "put" or "get"
        std::function<void(const QString& path)> makeFolder;
        std::function<void(const QString& from, const QString& to)> move;
        // Each path's failure, or none.
        std::function<QList<std::optional<Failure>>(const QStringList& paths)> remove;
    };

    // Whether the filter takes a path into its side's tree; what it leaves out is noted,
    // with the folders that hold it, which --delete then never deletes whole.
    bool takes(const QString& path, bool folder);
    // Drops the folders taken only to look into that hold nothing taken.
    void prune(Tree* tree) const;
    Tree walkLocal(const QString& root);
    void walkLocal(const QString& root, const QString& below, Tree* tree);
    Tree walkRemote(const QString& root);
    // The remote tree as the change feed gives it, kept up to date in the pair's manifest;
    // a listing when the server offers no feed.
    Tree readRemote(const QString& root);
    // What makes `target` match `source`; `sameContent` compares two files of the same size.
    Plan plan(const Tree& source, const Tree& target,
        const std::function<bool(const Entry& source, const Entry& target)>& sameContent);
    bool sameContent(const Entry& local, const RemoteEntry& remote);
    // Carries the plan out (or, in a dry run, reports it): replaced entries deleted, folders
    // made, moves, transfers, then what the source lacks once every transfer succeeded.
    void carry(const Plan& plan, const Tree& source, bool rootMissing, const Target& target);
    QString remoteAt(const QString& path) const;
    QString localAt(const QString& path) const;
    // An action's report: {"action","path","local"[,"dry_run"],...}.
    void did(const QString& action, const QString& path, const QString& line, QJsonObject item = {});
    void failed(const QString& path, const Failure& failure);
    void report(const Plan& plan, bool rootMissing, const QString& from, const QString& to);
    void saveCache();

    Cli& m_cli;
    DriveTree& m_drive;
    Options m_options;
    HashCache m_hashes;
    QSet<QString> m_leftOut; // on either side, relative
    QSet<QString> m_holdingLeftOut;
    QSet<QString> m_lookedInto;
    QString m_local; // absolute
    QString m_remote;
};
