#include "Transfers.h"

#include "Cli.h"
#include "Downloader.h"
#include "Progress.h"
#include "RemotePath.h"
#include "Uploader.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

namespace {

// The rate of a transfer worth one: ", 212.3 MiB/s" from a mebibyte on.
QString rate(qint64 bytes, qint64 ms)
{
    return bytes >= (1 << 20) ? QStringLiteral(", ") + Progress::rate(bytes, ms) : QString();
}

} // namespace

Transfers::Transfers(Cli& cli, TransferEndpoint& endpoint, int jobs)
    : m_cli(cli)
    , m_endpoint(endpoint)
    , m_jobs(jobs)
{
}

void Transfers::planLocal(const QString& local, const QString& remote, QList<Item>* items, Outcome* outcome)
{
    const QFileInfo info(local);
    if (!info.exists()) {
        failed(outcome, Item { local, remote, false, 0, {} },
            Failure { Exit::Local, QStringLiteral("no such file %1").arg(local) });
        return;
    }
    if (!info.isDir()) {
        items->append(Item { local, remote, false, info.size(), {} });
        return;
    }
    items->append(Item { local, remote, true, 0, {} });
    QStringList below;
    QDirIterator walk(
        local, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDirIterator::Subdirectories);
    while (walk.hasNext())
        below << walk.next();
    below.sort();
    const QDir base(local);
    for (const QString& path : qAsConst(below)) {
        const QFileInfo entry(path);
        items->append(Item { path, RemotePath::join(remote, base.relativeFilePath(path)), entry.isDir(),
            entry.isDir() ? 0 : entry.size(), {} });
    }
}

int Transfers::put(const QStringList& locals, const QString& remote, bool dryRun)
{
    const bool intoFolder
        = locals.size() > 1 || RemotePath::spelledAsFolder(remote) || QFileInfo(locals.first()).isDir();
    const bool folderAsTarget
        = locals.size() == 1 && QFileInfo(locals.first()).isDir() && !RemotePath::spelledAsFolder(remote);
    QList<Item> items;
    Outcome outcome;
    for (const QString& local : locals) {
        const QString name = QFileInfo(QDir::cleanPath(local)).fileName();
        const QString target = folderAsTarget ? RemotePath::normalise(remote)
            : intoFolder                      ? RemotePath::join(remote, name)
                                              : RemotePath::normalise(remote);
        planLocal(local, target, &items, &outcome);
    }
    if (dryRun) {
        for (const Item& item : qAsConst(items)) {
            if (item.folder)
                m_cli.console.out(
                    QStringLiteral("would create folder %1").arg(m_endpoint.describe(item.remote)));
            else
                m_cli.console.out(
                    QStringLiteral("would put %1 -> %2 (%3, %4)")
                        .arg(item.local, m_endpoint.describe(item.remote), Progress::bytes(item.bytes),
                            item.bytes > 4 << 20 ? QStringLiteral("in chunks") : QStringLiteral("whole")));
        }
        return finish(outcome);
    }
    if (intoFolder && !folderAsTarget && RemotePath::normalise(remote) != QLatin1String("/"))
        m_endpoint.ensureFolder(RemotePath::normalise(remote));
    return run(
        items, outcome, [this](const Item& item) { m_endpoint.ensureFolder(item.remote); },
        [this](Progress& progress, const Item& item) {
            const Uploader::Result result
                = Uploader(m_endpoint, progress, m_jobs, m_cli.settings.server).put(item.local, item.remote);
            const QString how = result.chunks == 0
                ? QStringLiteral("sent whole")
                : QStringLiteral("%1 chunks, %2 sent").arg(result.chunks).arg(result.chunksSent);
            return Step { result.json(),
                QStringLiteral("put %1 -> %2: %3, %4%5, hash ok")
                    .arg(item.local, m_endpoint.describe(item.remote), Progress::bytes(result.bytes), how,
                        rate(result.bytes, result.ms)) };
        });
}

void Transfers::planRemote(
    const QString& remote, const RemoteEntry& entry, const QString& local, QList<Item>* items)
{
    items->append(Item { local, remote, entry.dir, entry.dir ? 0 : entry.bytes, entry });
    if (!entry.dir)
        return;
    for (const RemoteEntry& child : m_endpoint.list(remote))
        planRemote(RemotePath::join(remote, child.name), child, QDir(local).filePath(child.name), items);
}

int Transfers::get(const QStringList& remotes, const QString& local)
{
    const bool intoFolder
        = remotes.size() > 1 || local.endsWith(QLatin1Char('/')) || QFileInfo(local).isDir();
    QList<Item> items;
    Outcome outcome;
    for (const QString& remote : remotes) {
        const QString path = RemotePath::normalise(remote);
        attempt(outcome, Item { local, path, false, 0, {} }, [&] {
            const RemoteEntry entry = m_endpoint.entry(path);
            // A root has no name of its own but may have one to show (a link's folder).
            const QString name = entry.name.isEmpty() ? RemotePath::name(path) : entry.name;
            planRemote(path, entry, intoFolder ? QDir(local).filePath(name) : local, &items);
        });
    }
    return run(
        items, outcome,
        [](const Item& item) {
            if (!QDir().mkpath(item.local))
                throw Failure { Exit::Local, QStringLiteral("cannot create the folder %1").arg(item.local) };
        },
        [this](Progress& progress, const Item& item) {
            const Downloader::Result result
                = Downloader(m_endpoint, progress).get(item.remote, item.entry, item.local);
            const QString resumed = result.resumedFrom > 0
                ? QStringLiteral(", resumed after %1").arg(Progress::bytes(result.resumedFrom))
                : QString();
            return Step { result.json(),
                QStringLiteral("got %1 -> %2: %3%4%5, hash ok")
                    .arg(m_endpoint.describe(item.remote), item.local, Progress::bytes(result.bytes),
                        rate(result.bytes - result.resumedFrom, result.ms), resumed) };
        });
}

int Transfers::run(const QList<Item>& items, Outcome& outcome, const std::function<void(const Item&)>& folder,
    const std::function<Step(Progress&, const Item&)>& file)
{
    qint64 total = 0;
    int files = 0;
    for (const Item& item : items) {
        total += item.bytes;
        files += item.folder ? 0 : 1;
    }
    Progress progress(m_cli.console, total, files);
    for (const Item& item : items) {
        if (item.folder) {
            attempt(outcome, item, [&] { folder(item); });
            continue;
        }
        attempt(outcome, item, [&] {
            const Step step = file(progress, item);
            outcome.results.append(step.result);
            if (!m_cli.console.json)
                m_cli.console.out(step.line);
        });
    }
    progress.finish();
    return finish(outcome);
}

void Transfers::attempt(Outcome& outcome, const Item& item, const std::function<void()>& step)
{
    try {
        step();
    } catch (const Failure& failure) {
        if (failure.exit == Exit::Interrupted)
            throw;
        failed(&outcome, item, failure);
    }
}

void Transfers::failed(Outcome* outcome, const Item& item, const Failure& failure)
{
    if (outcome->firstExit == Exit::Ok)
        outcome->firstExit = failure.exit;
    outcome->failures << failure.message;
    outcome->results.append(QJsonObject { { "local", item.local }, { "remote", item.remote },
        { "error", failure.message }, { "exit", int(failure.exit) } });
}

int Transfers::finish(const Outcome& outcome)
{
    if (m_cli.console.json)
        m_cli.console.outJson(outcome.results);
    if (outcome.failures.isEmpty())
        return 0;
    for (const QString& failure : outcome.failures)
        m_cli.console.error(failure);
    // One file that failed keeps its own status; some of several is a partial failure.
    return int(outcome.results.size() == 1 ? outcome.firstExit : Exit::Partial);
}
