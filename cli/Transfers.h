// put and get of files and folders through one remote tree (the account's drive or a
// shared link's folder): the plan of which local file goes to which remote path and
// back (the rules of Placement), then the folders, then the files, `transfers` of them
// at once and each one's chunks or ranges `jobs` at a time, all within one rate limit.
// A file that fails is named and the others go on; the output's exit status says
// whether all, some or none arrived.
#pragma once

#include "RateLimit.h"
#include "RemoteTree.h"
#include "TransferPool.h"

#include <QStringList>
#include <functional>

class Cli;
class Progress;

// How a run transfers: requests per file, files at once, bytes per second (0: no limit).
struct TransferSettings
{
    int jobs = 8;
    int transfers = 1;
    qint64 bwlimit = 0;
};

class Transfers
{
public:
    Transfers(Cli& cli, RemoteTree& tree, const TransferSettings& settings);

    // LOCAL... (or "-", standard input) to REMOTE.
    void put(const QStringList& locals, const QString& remote, bool dryRun);
    // REMOTE... to LOCAL (or "-", standard output, for one file). `rev`: an older revision.
    void get(const QStringList& remotes, const QString& local, bool dryRun, const QString& rev = QString());

    struct Item
    {
        QString local;
        QString remote;
        bool folder = false;
        qint64 bytes = 0;
        RemoteEntry entry;
        bool stream = false; // read as it comes: a FIFO or a device
        QString action; // named in the report when set (sync's "put" or "get")
    };
    // Makes the folders, then sends or fetches the files; each report goes out as it
    // ends, and `sent` runs (on this thread) for each file that arrived whole.
    using Sent = std::function<void(const Item&, const QString& hash)>;
    void putItems(const QList<Item>& items, const Sent& sent = {});
    void getItems(const QList<Item>& items, bool toOutput = false, const Sent& sent = {});

private:
    using File = std::function<TransferPool::Publish(Progress&, RemoteTree&, const Item&)>;

    void planLocal(const QString& local, const QString& remote, QList<Item>* items);
    void planRemote(
        const QString& remote, const RemoteEntry& entry, const QString& local, QList<Item>* items);
    void putStandardInput(const QString& remote, bool dryRun);
    // Folders through `folder` one after another, then files through `file`, several at
    // once, with one progress.
    void run(const QList<Item>& items, const std::function<void(const Item&)>& folder, const File& file);
    // Runs `step`; a failure (but an interrupt) is reported for the item and the run goes on.
    void attempt(const Item& item, const std::function<void()>& step);
    QJsonObject itemJson(const Item& item) const;
    // What a dry run reports of an item: the action it would take.
    void wouldDo(const Item& item, const QString& action, const QString& line);

    Cli& m_cli;
    RemoteTree& m_tree;
    TransferSettings m_settings;
    RateLimit m_limit;
};
