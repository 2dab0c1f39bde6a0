// put and get of files and folders through one endpoint (the account's drive or a shared
// link): the plan of which local file goes to which remote path and back, then the
// transfers one file after another, each file's chunks in parallel. A file that fails is
// named and the others go on; the exit status says whether all, some or none arrived.
#pragma once

#include "TransferEndpoint.h"

#include <QJsonArray>
#include <QStringList>

#include <functional>

class Progress;
class Cli;

class Transfers
{
public:
    Transfers(Cli& cli, TransferEndpoint& endpoint, int jobs);

    // LOCAL... to REMOTE: REMOTE is a folder when it ends in "/", when there are several
    // sources, or for a local folder; otherwise it is the file's remote path.
    int put(const QStringList& locals, const QString& remote, bool dryRun);
    // REMOTE... to LOCAL: LOCAL is a folder when it ends in "/", exists as one, or there are
    // several sources; a remote folder comes down whole.
    int get(const QStringList& remotes, const QString& local);

private:
    struct Item
    {
        QString local;
        QString remote;
        bool folder = false;
        qint64 bytes = 0;
        RemoteEntry entry;
    };
    struct Outcome
    {
        QJsonArray results; // one per file or source, whether it arrived or failed
        QStringList failures;
        Exit firstExit = Exit::Ok;
    };

    // What a file's transfer gives: its result for --json, its line otherwise.
    struct Step
    {
        QJsonObject result;
        QString line;
    };

    void planLocal(const QString& local, const QString& remote, QList<Item>* items, Outcome* outcome);
    void planRemote(const QString& remote, const RemoteEntry& entry, const QString& local, QList<Item>* items);
    // Folders through `folder`, files through `file`, one after another with one progress.
    int run(const QList<Item>& items, Outcome& outcome, const std::function<void(const Item&)>& folder,
        const std::function<Step(Progress&, const Item&)>& file);
    // Runs `step`; a failure (but an interrupt) is named in the outcome and the run goes on.
    void attempt(Outcome& outcome, const Item& item, const std::function<void()>& step);
    void failed(Outcome* outcome, const Item& item, const Failure& failure);
    int finish(const Outcome& outcome);

    Cli& m_cli;
    TransferEndpoint& m_endpoint;
    int m_jobs;
};
