// sync: makes a folder on one side match a folder on the other. Both trees are walked
// (what the filter leaves out is neither looked into nor touched), compared entry by
// entry and turned into a plan: folders to make, files to send (new, or changed in
// size or content hash), renames (with --delete, a file that is gone here and new there
// with the same content is moved, not sent again), and with --delete what the source
// lacks, deleted only once every transfer succeeded. Local hashes come from the hash
// cache, so a tree that did not change is not read again and a second sync sends
// nothing. --dry-run asks the server the same questions and reports the plan.
#pragma once

#include "DriveTree.h"
#include "HashCache.h"
#include "PathFilter.h"
#include "Transfers.h"

#include <QMap>

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

    Tree walkLocal(const QString& root);
    void walkLocal(const QString& root, const QString& below, Tree* tree);
    Tree walkRemote(const QString& root);
    // What makes `target` match `source`; `sameContent` compares two files of the same size.
    Plan plan(const Tree& source, const Tree& target,
        const std::function<bool(const Entry& source, const Entry& target)>& sameContent);
    QString localHash(const Entry& entry);
    void report(const Plan& plan, const QString& from, const QString& to);
    void saveCache(const QString& localRoot);

    Cli& m_cli;
    DriveTree& m_drive;
    Options m_options;
    HashCache m_hashes;
};
