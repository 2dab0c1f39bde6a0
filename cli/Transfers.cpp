#include "Transfers.h"

#include "ChunkHasher.h"
#include "Cli.h"
#include "Downloader.h"
#include "Placement.h"
#include "Progress.h"
#include "RemotePath.h"
#include "Uploader.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <algorithm>
#include <dirent.h>

namespace {

// The rate of a transfer worth one: ", 212.3 MiB/s" from a mebibyte on.
QString rate(qint64 bytes, qint64 ms)
{
    return bytes >= (1 << 20) ? QStringLiteral(", ") + Progress::rate(bytes, ms) : QString();
}

} // namespace

Transfers::Transfers(Cli& cli, RemoteTree& tree, const TransferSettings& settings)
    : m_cli(cli)
    , m_tree(tree)
    , m_settings(settings)
    , m_limit(settings.bwlimit)
{
}

QJsonObject Transfers::itemJson(const Item& item) const
{
    return QJsonObject { { "path", m_tree.describe(item.remote) }, { "local", item.local } };
}

namespace {

// The entries of a folder whose names are no UTF-8 text, as their bytes escaped: the
// drive keeps names as text, so they cannot go there under their own names.
QStringList undecodableNames(const QString& folder)
{
    QStringList names;
    DIR* dir = ::opendir(QFile::encodeName(folder).constData());
    if (!dir)
        return names;
    while (const dirent* entry = ::readdir(dir)) {
        const QByteArray name(entry->d_name);
        if (QString::fromUtf8(name).toUtf8() != name)
            names << QString::fromLatin1(name.toPercentEncoding("/ "));
    }
    ::closedir(dir);
    return names;
}

} // namespace

void Transfers::planLocal(const QString& local, const QString& remote, QList<Item>* items)
{
    const QFileInfo info(local);
    if (!info.isDir()) {
        // A FIFO or a device named on its own is read as a stream, like standard input.
        items->append(Item { local, remote, false, info.isFile() ? info.size() : 0, {}, !info.isFile(), {} });
        return;
    }
    items->append(Item { local, remote, true, 0, {}, false, {} });
    // Walked by its absolute path, so that every path below is relative to the folder
    // itself, whatever form the given path takes.
    const QString base = QDir::cleanPath(QDir::current().absoluteFilePath(local));
    QStringList below;
    QDirIterator walk(base, QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot | QDir::Hidden,
        QDirIterator::Subdirectories);
    while (walk.hasNext())
        below << walk.next();
    below.sort();
    const QDir root(base);
    const auto skip = [&](const QString& path, const QString& why) {
        m_cli.output.failed(
            QJsonObject { { "local", path } }, Failure(Exit::Local, QStringLiteral("%1: %2").arg(path, why)));
    };
    for (const QString& folder : QStringList { base } + below) {
        if (QFileInfo(folder).isDir()) {
            for (const QString& name : undecodableNames(folder))
                skip(QDir(folder).filePath(name),
                    QStringLiteral("the name is no UTF-8 text, and the drive keeps names as text: skipped"));
        }
    }
    for (const QString& path : qAsConst(below)) {
        const QFileInfo entry(path);
        if (path.contains(QChar::ReplacementCharacter) && !entry.exists() && !entry.isSymLink())
            continue; // named above by its bytes
        if (entry.isSymLink() && !entry.exists()) {
            skip(path, QStringLiteral("a symlink to nothing: skipped"));
            continue;
        }
        if (!entry.isDir() && !entry.isFile()) {
            skip(path,
                QStringLiteral("not a regular file: skipped (name it on its own to read it as a stream)"));
            continue;
        }
        items->append(Item { path, RemotePath::join(remote, root.relativeFilePath(path)), entry.isDir(),
            entry.isDir() ? 0 : entry.size(), {}, false, {} });
    }
}

void Transfers::put(const QStringList& locals, const QString& remote, bool dryRun)
{
    if (locals.contains(QStringLiteral("-")))
        return locals.size() == 1
            ? putStandardInput(remote, dryRun)
            : throw Failure(Exit::Usage, QStringLiteral("put -: standard input is the only source"));
    const QString target = RemotePath::normalise(remote);
    const std::optional<RemoteEntry> existing = m_tree.find(target);
    const bool into = Placement::intoFolder(locals.size(), remote, existing && existing->dir);
    QList<Item> items;
    for (const QString& local : locals) {
        const QFileInfo info(local);
        const QString destination = Placement::remoteFor(target, local, into);
        const Item item { local, destination, info.isDir(), 0, {}, false, {} };
        if (!info.exists()) {
            const QString why = info.isSymLink() ? QStringLiteral(" (a symlink to nothing)")
                : local.contains(QChar::ReplacementCharacter)
                ? QStringLiteral(" (its name as given is no UTF-8 text, and the drive keeps names as text)")
                : QString();
            m_cli.output.failed(
                itemJson(item), Failure(Exit::Local, QStringLiteral("no such file %1%2").arg(local, why)));
            continue;
        }
        if (Placement::localName(local).isEmpty()) {
            m_cli.output.failed(itemJson(item),
                Failure(Exit::Usage, QStringLiteral("%1 has no name to put it under").arg(local)));
            continue;
        }
        if (info.isDir() && !into && existing && !existing->dir) {
            m_cli.output.failed(itemJson(item),
                Failure(Exit::Refused,
                    QStringLiteral("cannot put the folder %1 onto the file %2")
                        .arg(local, m_tree.describe(target)),
                    QStringLiteral("not a folder")));
            continue;
        }
        planLocal(local, destination, &items);
    }
    if (dryRun) {
        // The verdict of the real put: a target below a file cannot be.
        for (QString above = RemotePath::parent(target); !existing && above != QLatin1String("/");
             above = RemotePath::parent(above)) {
            if (const std::optional<RemoteEntry> ancestor = m_tree.find(above)) {
                if (!ancestor->dir)
                    throw Failure(Exit::Refused,
                        QStringLiteral("%1 is a file: nothing goes below it").arg(m_tree.describe(above)),
                        QStringLiteral("parent folder conflict with file"));
                break;
            }
        }
        if (into && !existing && target != QLatin1String("/"))
            m_cli.output.done(QJsonObject { { "dry_run", true }, { "action", "create folder" },
                                  { "path", m_tree.describe(target) } },
                QStringLiteral("would create folder ") + m_tree.describe(target));
        for (const Item& item : qAsConst(items))
            wouldDo(item, QStringLiteral("put"),
                item.folder ? QStringLiteral("would create folder ") + m_tree.describe(item.remote)
                            : QStringLiteral("would put %1 -> %2 (%3, %4)")
                                  .arg(item.local, m_tree.describe(item.remote), Progress::bytes(item.bytes),
                                      item.bytes > ChunkHasher::DefaultChunkSize ? QStringLiteral("in chunks")
                                                                                 : QStringLiteral("whole")));
        return;
    }
    if (into && !existing && target != QLatin1String("/") && !items.isEmpty())
        m_tree.ensureFolder(target);
    putItems(items);
}

void Transfers::putItems(const QList<Item>& items, const Sent& sent)
{
    run(
        items, [this](const Item& item) { m_tree.ensureFolder(item.remote); },
        [this, sent](Progress& progress, RemoteTree& tree, const Item& item) -> TransferPool::Publish {
            Uploader uploader(tree, progress, m_settings.jobs, m_cli.settings.server, m_limit);
            const Uploader::Result result = item.stream ? uploader.putStream(item.local, item.remote)
                                                        : uploader.put(item.local, item.remote);
            QJsonObject json = result.json();
            json.insert("path", tree.describe(item.remote));
            if (!item.action.isEmpty())
                json.insert("action", item.action);
            const QString line
                = QStringLiteral("put %1 -> %2: %3, %4%5, hash ok")
                      .arg(item.local, tree.describe(item.remote), Progress::bytes(result.bytes),
                          result.how(), rate(result.bytesSent, result.ms));
            return [this, sent, item, json, line, hash = result.hash] {
                m_cli.output.done(json, line);
                if (sent)
                    sent(item, hash);
            };
        });
}

void Transfers::putStandardInput(const QString& remote, bool dryRun)
{
    const QString target = RemotePath::normalise(remote);
    const std::optional<RemoteEntry> existing = m_tree.find(target);
    if (RemotePath::spelledAsFolder(remote) || (existing && existing->dir))
        throw Failure(Exit::Usage,
            QStringLiteral("put - REMOTE: REMOTE names the file standard input becomes, not a folder"));
    const Item item { QStringLiteral("-"), target, false, 0, {}, false, {} };
    if (dryRun) {
        QJsonObject json = itemJson(item);
        json.insert("dry_run", true);
        json.insert("action", "put");
        m_cli.output.done(json, QStringLiteral("would put standard input -> ") + m_tree.describe(target));
        return;
    }
    Progress progress(m_cli.console, 0, 1);
    attempt(item, [&] {
        const Uploader::Result result
            = Uploader(m_tree, progress, m_settings.jobs, m_cli.settings.server, m_limit)
                  .putStream(QStringLiteral("-"), target);
        QJsonObject json = result.json();
        json.insert("path", m_tree.describe(target));
        m_cli.output.done(json,
            QStringLiteral("put standard input -> %1: %2, %3%4, hash ok")
                .arg(m_tree.describe(target), Progress::bytes(result.bytes), result.how(),
                    rate(result.bytesSent, result.ms)));
    });
    progress.finish();
}

void Transfers::planRemote(
    const QString& remote, const RemoteEntry& entry, const QString& local, QList<Item>* items)
{
    // A folder is listed before anything of it is planned: a listing that fails leaves nothing made.
    const QList<RemoteEntry> children = entry.dir ? m_tree.list(remote) : QList<RemoteEntry>();
    items->append(Item { local, remote, entry.dir, entry.dir ? 0 : entry.bytes, entry, false, {} });
    for (const RemoteEntry& child : children)
        planRemote(RemotePath::join(remote, child.name), child, QDir(local).filePath(child.name), items);
}

void Transfers::get(const QStringList& remotes, const QString& local, bool dryRun, const QString& rev)
{
    const bool toOutput = local == QLatin1String("-");
    if (toOutput && remotes.size() != 1)
        throw Failure(Exit::Usage, QStringLiteral("get REMOTE -: one remote file to standard output"));
    if (toOutput && m_cli.console.json)
        throw Failure(Exit::Usage,
            QStringLiteral("get REMOTE - writes the file to standard output, which --json cannot share"));
    const bool into = !toOutput && Placement::intoFolder(remotes.size(), local, QFileInfo(local).isDir());
    // A target spelled as a folder is made, as put makes one on the server.
    if (into && !QFileInfo(local).exists() && !dryRun && !QDir().mkpath(local))
        throw Failure(Exit::Local, QStringLiteral("cannot create the folder %1").arg(local));
    QList<Item> items;
    for (const QString& remote : remotes) {
        const QString path = RemotePath::normalise(remote);
        attempt(Item { local, path, false, 0, {}, false, {} }, [&] {
            const RemoteEntry entry = rev.isEmpty() ? m_tree.entry(path) : m_tree.revision(path, rev);
            if (toOutput && entry.dir)
                throw Failure(Exit::Usage,
                    QStringLiteral("%1 is a folder: standard output takes one file")
                        .arg(m_tree.describe(path)));
            // A root has no name of its own but may have one to show (a link's folder).
            const QString name = entry.name.isEmpty() ? RemotePath::name(path) : entry.name;
            const QString destination = Placement::localFor(local, name, into);
            const QFileInfo there(destination);
            if (entry.dir && there.exists() && !there.isDir())
                throw Failure(Exit::Local,
                    QStringLiteral("cannot put the folder %1 onto the file %2")
                        .arg(m_tree.describe(path), destination));
            planRemote(path, entry, destination, &items);
        });
    }
    if (dryRun) {
        for (const Item& item : qAsConst(items)) {
            // The verdict of the real get: a file goes into a folder that is, or will be.
            const QString folder = QFileInfo(item.local).absolutePath();
            const bool made = into || std::any_of(items.cbegin(), items.cend(), [&](const Item& other) {
                return other.folder && QFileInfo(other.local).absoluteFilePath() == folder;
            });
            if (!made && !QFileInfo(folder).isDir()) {
                m_cli.output.failed(itemJson(item),
                    Failure(Exit::Local, QStringLiteral("cannot write %1: no such folder").arg(item.local)));
                continue;
            }
            wouldDo(item, QStringLiteral("get"),
                item.folder
                    ? QStringLiteral("would create folder ") + item.local
                    : QStringLiteral("would get %1 -> %2 (%3)")
                          .arg(m_tree.describe(item.remote), item.local, Progress::bytes(item.bytes)));
        }
        return;
    }
    getItems(items, toOutput);
}

void Transfers::getItems(const QList<Item>& items, bool toOutput, const Sent& sent)
{
    run(
        items,
        [](const Item& item) {
            if (!QDir().mkpath(item.local))
                throw Failure(Exit::Local, QStringLiteral("cannot create the folder %1").arg(item.local));
        },
        [this, toOutput, sent](
            Progress& progress, RemoteTree& tree, const Item& item) -> TransferPool::Publish {
            const Downloader::Result result = Downloader(tree, progress, m_settings.jobs, m_limit)
                                                  .get(item.remote, item.entry, item.local);
            QJsonObject json = result.json();
            json.insert("path", tree.describe(item.remote));
            if (!item.action.isEmpty())
                json.insert("action", item.action);
            const QString resumed = result.resumedFrom > 0
                ? QStringLiteral(", resumed after ") + Progress::bytes(result.resumedFrom)
                : QString();
            const QString line = QStringLiteral("got %1 -> %2: %3%4%5, hash ok")
                                     .arg(tree.describe(item.remote),
                                         toOutput ? QStringLiteral("standard output") : item.local,
                                         Progress::bytes(result.bytes),
                                         rate(result.bytes - result.resumedFrom, result.ms), resumed);
            return [this, toOutput, sent, item, json, line, hash = result.hash] {
                // Standard output holds the file itself: the confirmation is a note then.
                if (toOutput)
                    m_cli.output.note(line);
                else
                    m_cli.output.done(json, line);
                if (sent)
                    sent(item, hash);
            };
        });
}

void Transfers::wouldDo(const Item& item, const QString& action, const QString& line)
{
    QJsonObject json = itemJson(item);
    json.insert("dry_run", true);
    json.insert("action", item.folder ? QStringLiteral("create folder") : action);
    json.insert("bytes", item.bytes);
    m_cli.output.done(json, line);
}

void Transfers::run(
    const QList<Item>& items, const std::function<void(const Item&)>& folder, const File& file)
{
    qint64 total = 0;
    QList<Item> files;
    for (const Item& item : items) {
        total += item.bytes;
        if (!item.folder)
            files << item;
    }
    Progress progress(m_cli.console, total, files.size());
    for (const Item& item : items) {
        if (item.folder)
            attempt(item, [&] { folder(item); });
    }
    TransferPool(m_cli.runner, m_tree, m_settings.transfers)
        .run(
            files.size(),
            // A file of more than one chunk keeps `jobs` requests in flight by itself.
            [&files](int index) { return files.at(index).bytes > ChunkHasher::DefaultChunkSize; },
            [&](int index, RemoteTree& tree) { return file(progress, tree, files.at(index)); },
            [&](int index, const Failure& failure) {
                m_cli.output.failed(itemJson(files.at(index)), failure);
            },
            [&progress] { progress.tick(); });
    progress.finish();
}

void Transfers::attempt(const Item& item, const std::function<void()>& step)
{
    try {
        step();
    } catch (const Failure& failure) {
        if (failure.exit == Exit::Interrupted)
            throw;
        m_cli.output.failed(itemJson(item), failure);
    }
}
