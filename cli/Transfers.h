// put and get of files and folders through one remote tree (the account's drive or a
// shared link's folder): the plan of which local file goes to which remote path and
// back (the rules of Placement), then the transfers one file after another, each
// file's chunks in parallel. A file that fails is named and the others go on; the
// output's exit status says whether all, some or none arrived.
#pragma once

#include "RemoteTree.h"

#include <QStringList>
#include <functional>

class Cli;
class Progress;

class Transfers
{
public:
    Transfers(Cli& cli, RemoteTree& tree, int jobs);

    // LOCAL... (or "-", standard input) to REMOTE.
    void put(const QStringList& locals, const QString& remote, bool dryRun);
    // REMOTE... to LOCAL (or "-", standard output, for one file).
    void get(const QStringList& remotes, const QString& local, bool dryRun);

private:
    struct Item
    {
        QString local;
        QString remote;
        bool folder = false;
        qint64 bytes = 0;
        RemoteEntry entry;
        bool stream = false; // read as it comes: a FIFO or a device
    };

    void planLocal(const QString& local, const QString& remote, QList<Item>* items);
    void planRemote(
        const QString& remote, const RemoteEntry& entry, const QString& local, QList<Item>* items);
    void putStandardInput(const QString& remote, bool dryRun);
    // Folders through `folder`, files through `file`, one after another with one progress.
    void run(const QList<Item>& items, const std::function<void(const Item&)>& folder,
        const std::function<void(Progress&, const Item&)>& file);
    // Runs `step`; a failure (but an interrupt) is reported for the item and the run goes on.
    void attempt(const Item& item, const std::function<void()>& step);
    QJsonObject itemJson(const Item& item) const;
    // What a dry run reports of an item: the action it would take.
    void wouldDo(const Item& item, const QString& action, const QString& line);

    Cli& m_cli;
    RemoteTree& m_tree;
    int m_jobs;
};
