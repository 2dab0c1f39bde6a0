#include "Sync.h"

#include "Cli.h"
#include "Progress.h"
#include "RemotePath.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QRegularExpression>

namespace {

QString joined(const QString& below, const QString& name)
{
    return below.isEmpty() ? name : below + QLatin1Char('/') + name;
}

// Whether `path` is `folder` or below it, both relative.
bool within(const QString& path, const QString& folder)
{
    return path == folder || path.startsWith(folder + QLatin1Char('/'));
}

// The part files get leaves while a download is under way: nbcli's own, never synced.
bool isPartFile(const QString& name)
{
    static const QRegularExpression part(QStringLiteral("^\\..+\\.nbcli-[^./]*\\.part$"));
    return part.match(name).hasMatch();
}

} // namespace

Sync::Sync(Cli& cli, DriveTree& drive, const Options& options)
    : m_cli(cli)
    , m_drive(drive)
    , m_options(options)
{
}

Sync::Tree Sync::walkLocal(const QString& root)
{
    Tree tree;
    walkLocal(root, QString(), &tree);
    prune(&tree);
    return tree;
}

void Sync::walkLocal(const QString& root, const QString& below, Tree* tree)
{
    const QDir folder(below.isEmpty() ? root : root + QLatin1Char('/') + below);
    const auto skip = [&](const QString& path, const QString& why) {
        m_cli.output.failed(
            QJsonObject { { "local", path } }, Failure(Exit::Local, QStringLiteral("%1: %2").arg(path, why)));
    };
    const QFileInfoList entries = folder.entryInfoList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo& info : entries) {
        const QString name = info.fileName();
        const QString path = joined(below, name);
        if (isPartFile(name))
            continue;
        if (name.contains(QChar::ReplacementCharacter)) {
            skip(path,
                QStringLiteral("the name is no UTF-8 text, and the drive keeps names as text: skipped"));
            continue;
        }
        if (!takes(path, info.isDir()))
            continue;
        if (info.isSymLink() && !info.exists()) {
            skip(path, QStringLiteral("a symlink to nothing: skipped"));
        } else if (info.isDir() && info.isSymLink()) {
            skip(path, QStringLiteral("a symlink to a folder: skipped (sync it on its own)"));
        } else if (info.isDir()) {
            tree->insert(path, Entry { true, 0, LocalFile { info.absoluteFilePath(), 0, 0 }, {} });
            walkLocal(root, path, tree);
        } else if (info.isFile()) {
            const LocalFile file = LocalFile::of(info.absoluteFilePath());
            tree->insert(path, Entry { false, file.bytes, file, {} });
        } else {
            skip(path, QStringLiteral("not a regular file: skipped"));
        }
    }
}

Sync::Tree Sync::walkRemote(const QString& root)
{
    Tree tree;
    QStringList folders { QString() };
    while (!folders.isEmpty()) {
        const QString below = folders.takeFirst();
        for (const RemoteEntry& child :
            m_drive.list(below.isEmpty() ? root : RemotePath::join(root, below))) {
            const QString path = joined(below, child.name);
            if (!takes(path, child.dir))
                continue;
            tree.insert(path, Entry { child.dir, child.bytes, {}, child });
            if (child.dir)
                folders << path;
        }
    }
    prune(&tree);
    return tree;
}

bool Sync::takes(const QString& path, bool folder)
{
    switch (m_options.filter.of(path, folder)) {
    case PathFilter::Verdict::Taken:
        return true;
    case PathFilter::Verdict::LookedInto:
        m_lookedInto.insert(path);
        return true;
    case PathFilter::Verdict::Left:
        break;
    }
    m_leftOut.insert(path);
    for (int slash = path.lastIndexOf(QLatin1Char('/')); slash > 0;
         slash = path.lastIndexOf(QLatin1Char('/'), slash - 1))
        m_holdingLeftOut.insert(path.left(slash));
    return false;
}

void Sync::prune(Tree* tree) const
{
    for (const QString& folder : m_lookedInto) {
        const QString prefix = folder + QLatin1Char('/');
        bool holdsTaken = false;
        for (auto it = tree->lowerBound(prefix); it != tree->end() && it.key().startsWith(prefix); ++it)
            holdsTaken = holdsTaken || !m_lookedInto.contains(it.key());
        if (!holdsTaken)
            tree->remove(folder);
    }
}

Sync::Tree Sync::readRemote(const QString& root)
{
    const Settings& settings = m_cli.settings;
    RemoteManifest manifest(
        QStringList { settings.server, settings.user, m_cli.space, root, m_local }.join('\n'), root);
    bool whole = !manifest.load();
    if (whole)
        m_cli.output.note(
            QStringLiteral("first sync of %1 into %2: reading the whole of it").arg(root, m_local));
    int changes = 0;
    QStringList unlisted;
    auto model = m_drive.at<NBServerApiDeltaModel>(root);
    try {
        for (;;) {
            model.cursor = manifest.cursor;
            const QJsonObject page = m_cli.runner
                                         .call(QStringLiteral("read the changes of %1").arg(root),
                                             [model](NBCompletionCallback done) {
                                                 return ServerApi::Delta(model, std::move(done));
                                             })
                                         .json;
            if (page.value("reset").toBool()) {
                m_cli.output.note(QStringLiteral(
                    "the server no longer knows where the last sync of %1 stopped: reading the whole of it")
                                      .arg(root));
                manifest.clear();
                whole = true;
            }
            const QJsonArray entries = page.value("entries").toArray();
            for (const QJsonValue& change : entries)
                manifest.apply(change.toObject(), &unlisted);
            changes += entries.size();
            manifest.cursor = page.value("cursor").toString();
            if (!page.value("has_more").toBool() || manifest.cursor.isEmpty())
                break;
        }
    } catch (const Failure& failure) {
        if (failure.exit != Exit::Refused)
            throw;
        m_cli.output.note(
            QStringLiteral("the server offers no change feed for %1 (%2): listing the whole tree")
                .arg(root, failure.message));
        return walkRemote(root);
    }
    // A folder moved in from elsewhere comes without its content.
    while (!unlisted.isEmpty()) {
        const QString below = unlisted.takeFirst();
        for (const RemoteEntry& child : m_drive.list(RemotePath::join(root, below))) {
            const QString path = joined(below, child.name);
            QJsonObject entry = child.json;
            entry.insert("path", RemotePath::join(root, path));
            manifest.put(path, entry);
            if (child.dir)
                unlisted << path;
        }
    }
    QString error;
    if (!m_options.dryRun && !manifest.save(&error))
        m_cli.output.note(QStringLiteral("nbcli: %1 (the next sync reads the whole tree again)").arg(error));
    if (!whole)
        m_cli.output.note(
            QStringLiteral("%1 changes of %2 read from the change feed").arg(changes).arg(root));

    // The tree the filter leaves, as a listing would give it.
    Tree tree;
    QStringList excluded;
    for (auto it = manifest.entries.cbegin(); it != manifest.entries.cend(); ++it) {
        const QString& path = it.key();
        RemoteEntry entry = RemoteEntry::fromJson(it.value());
        entry.name = path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
        if (std::any_of(excluded.cbegin(), excluded.cend(),
                [&](const QString& folder) { return within(path, folder); }))
            continue;
        if (!RemoteTree::isName(entry.name) || !takes(path, entry.dir)) {
            if (entry.dir) // what it holds goes with it
                excluded << path;
            continue;
        }
        tree.insert(path, Entry { entry.dir, entry.bytes, {}, entry });
    }
    prune(&tree);
    return tree;
}

Sync::Plan Sync::plan(const Tree& source, const Tree& target,
    const std::function<bool(const Entry&, const Entry&)>& sameContent)
{
    Plan plan;
    QStringList replaced; // target entries of the other type, deleted before anything is made
    QStringList refused; // what a conflict left as it is, with all it holds
    const auto conflict = [&](const QString& path, bool folderHere) {
        // Never deleted whole: the target's entry holds what the patterns leave out, or is left out itself.
        const bool keeps = m_holdingLeftOut.contains(path) || m_leftOut.contains(path);
        if (m_options.deleteExtra && !keeps) {
            replaced << path;
            return true;
        }
        refused << path;
        failed(path,
            Failure(Exit::Refused,
                keeps
                    ? QStringLiteral("%1 is a %2 on one side and a %3 on the other that holds or is what the "
                                     "patterns leave out: left as it is")
                          .arg(path, folderHere ? QStringLiteral("folder") : QStringLiteral("file"),
                              folderHere ? QStringLiteral("file") : QStringLiteral("folder"))
                    : QStringLiteral(
                        "%1 is a %2 on one side and a %3 on the other: sync --delete replaces it")
                          .arg(path, folderHere ? QStringLiteral("folder") : QStringLiteral("file"),
                              folderHere ? QStringLiteral("file") : QStringLiteral("folder")),
                QStringLiteral("type conflict")));
        return false;
    };
    for (auto it = source.cbegin(); it != source.cend(); ++it) {
        const QString& path = it.key();
        const Entry& here = it.value();
        if (std::any_of(
                refused.cbegin(), refused.cend(), [&](const QString& kept) { return within(path, kept); }))
            continue;
        const auto there = target.constFind(path);
        // An entry of the other type that the patterns leave out, where the source has one.
        const bool hidden = there == target.cend() && m_leftOut.contains(path);
        if (here.folder) {
            if (hidden)
                conflict(path, true);
            else if (there == target.cend() || (!there->folder && conflict(path, true)))
                plan.folders << path;
            continue;
        }
        if (hidden) {
            conflict(path, false);
        } else if (there == target.cend() || (there->folder && conflict(path, false))) {
            plan.sends << path;
            plan.reasons.insert(path, QStringLiteral("new"));
        } else if (there->folder) {
            continue;
        } else if (there->bytes != here.bytes || !sameContent(here, *there)) {
            plan.sends << path;
            plan.reasons.insert(path, QStringLiteral("changed"));
        } else {
            ++plan.unchanged;
        }
    }
    plan.deletes = replaced;
    if (!m_options.deleteExtra)
        return plan;
    for (auto it = target.cbegin(); it != target.cend(); ++it) {
        const bool covered = std::any_of(plan.deletes.cbegin(), plan.deletes.cend(),
            [&](const QString& deleted) { return within(it.key(), deleted); });
        // A folder holding what the patterns leave out loses only what they take.
        if (!source.contains(it.key()) && !covered && !(it->folder && m_holdingLeftOut.contains(it.key())))
            plan.deletes << it.key();
    }
    // A new file with the content of one about to be deleted (on its own or with its
    // folder): a rename, done as a move before the deletions.
    QStringList leaving;
    for (auto it = target.cbegin(); it != target.cend(); ++it) {
        if (!it->folder
            && std::any_of(plan.deletes.cbegin(), plan.deletes.cend(), [&](const QString& deleted) {
                   return !replaced.contains(deleted) && within(it.key(), deleted);
               }))
            leaving << it.key();
    }
    for (const QString& path : QStringList(plan.sends)) {
        if (plan.reasons.value(path) != QLatin1String("new"))
            continue;
        const Entry& here = source.value(path);
        for (const QString& gone : qAsConst(leaving)) {
            const Entry& there = target.value(gone);
            if (there.bytes != here.bytes || !sameContent(here, there))
                continue;
            plan.moves.insert(path, gone);
            plan.sends.removeOne(path);
            plan.deletes.removeOne(gone);
            leaving.removeOne(gone);
            break;
        }
    }
    // Replaced entries go first, the others once the transfers succeeded.
    std::stable_partition(plan.deletes.begin(), plan.deletes.end(),
        [&](const QString& path) { return replaced.contains(path); });
    return plan;
}

QString Sync::remoteAt(const QString& path) const
{
    return path.isEmpty() ? m_remote : RemotePath::join(m_remote, path);
}

QString Sync::localAt(const QString& path) const
{
    return path.isEmpty() ? m_local : m_local + QLatin1Char('/') + path;
}

void Sync::did(const QString& action, const QString& path, const QString& line, QJsonObject item)
{
    item.insert("action", action);
    item.insert("path", remoteAt(path));
    item.insert("local", localAt(path));
    if (m_options.dryRun)
        item.insert("dry_run", true);
    m_cli.output.done(item, m_options.dryRun ? QStringLiteral("would ") + line : line);
}

void Sync::failed(const QString& path, const Failure& failure)
{
    m_cli.output.failed(QJsonObject { { "path", remoteAt(path) }, { "local", localAt(path) } }, failure);
}

void Sync::carry(const Plan& plan, const Tree& source, bool rootMissing, const Target& target)
{
    const bool dry = m_options.dryRun;
    const bool up = target.name == QLatin1String("put");
    const auto shown = [&](const QString& path) {
        return up ? remoteAt(path) : localAt(path);
    };
    QStringList replaced;
    QStringList extra;
    for (const QString& path : plan.deletes)
        (source.contains(path) ? replaced : extra) << path;
    const auto remove = [&](const QStringList& paths) {
        QList<std::optional<Failure>> outcomes;
        if (!dry)
            outcomes = target.remove(paths);
        while (outcomes.size() < paths.size())
            outcomes << std::nullopt;
        for (int i = 0; i < paths.size(); ++i) {
            if (outcomes.at(i))
                failed(paths.at(i), *outcomes.at(i));
            else
                did(QStringLiteral("delete"), paths.at(i), QStringLiteral("delete ") + shown(paths.at(i)));
        }
    };
    const auto attempt = [&](const QString& path, const std::function<void()>& step) {
        try {
            if (!dry)
                step();
            return true;
        } catch (const Failure& failure) {
            if (failure.exit == Exit::Interrupted)
                throw;
            failed(path, failure);
            return false;
        }
    };
    remove(replaced);
    if (rootMissing) {
        if (!dry)
            target.makeFolder(QString());
        did(QStringLiteral("mkdir"), QString(), QStringLiteral("create folder ") + shown(QString()));
    }
    for (const QString& path : plan.folders) {
        if (attempt(path, [&] { target.makeFolder(path); }))
            did(QStringLiteral("mkdir"), path, QStringLiteral("create folder ") + shown(path));
    }
    for (auto it = plan.moves.cbegin(); it != plan.moves.cend(); ++it) {
        if (attempt(it.key(), [&] { target.move(it.value(), it.key()); }))
            did(QStringLiteral("move"), it.key(),
                QStringLiteral("move %1 -> %2 (same content)").arg(shown(it.value()), shown(it.key())),
                QJsonObject { { "from", shown(it.value()) } });
    }
    QList<Transfers::Item> items;
    for (const QString& path : plan.sends) {
        const Entry& file = source.value(path);
        Transfers::Item item { localAt(path), remoteAt(path), false, file.bytes, file.remote, false, {} };
        item.action = target.name;
        items << item;
        if (dry)
            did(target.name, path,
                QStringLiteral("%1 %2 -> %3 (%4, %5)")
                    .arg(target.name, up ? item.local : item.remote, up ? item.remote : item.local,
                        plan.reasons.value(path), Progress::bytes(file.bytes)),
                QJsonObject { { "bytes", file.bytes }, { "reason", plan.reasons.value(path) } });
    }
    if (dry)
        return remove(extra);
    int sent = 0;
    const Transfers::Sent arrived = [&](const Transfers::Item& item, const QString& hash) {
        ++sent;
        // The local side's hash, known now without reading the file again.
        m_hashes.store(
            up ? source.value(item.local.mid(m_local.size() + 1)).file : LocalFile::of(item.local), hash);
    };
    Transfers transfers(m_cli, m_drive, m_options.transfers);
    up ? transfers.putItems(items, arrived) : transfers.getItems(items, false, arrived);
    if (sent == items.size())
        remove(extra);
    else if (!extra.isEmpty())
        m_cli.output.note(QStringLiteral("%1 left undeleted: %2 of %3 files did not arrive")
                              .arg(QString::number(extra.size()), QString::number(items.size() - sent),
                                  QString::number(items.size())));
}

void Sync::up(const QString& localGiven, const QString& remoteGiven)
{
    m_local = QDir::cleanPath(QDir::current().absoluteFilePath(localGiven));
    m_remote = RemotePath::normalise(remoteGiven);
    if (!QFileInfo(m_local).isDir())
        throw Failure(Exit::Usage,
            QStringLiteral("%1 is no folder: sync makes a folder match a folder (put sends a file)")
                .arg(localGiven));
    const std::optional<RemoteEntry> root = m_drive.find(m_remote);
    if (root && !root->dir)
        throw Failure(
            Exit::Usage, QStringLiteral("%1 is a file on the server: sync takes a folder").arg(m_remote));
    const Tree source = walkLocal(m_local);
    const Tree target = root ? walkRemote(m_remote) : Tree();
    const Plan plan = this->plan(source, target,
        [this](const Entry& here, const Entry& there) { return sameContent(here, there.remote); });
    Target drive;
    drive.name = QStringLiteral("put");
    drive.makeFolder = [this](const QString& path) {
        m_drive.ensureFolder(remoteAt(path));
    };
    drive.move = [this](const QString& from, const QString& to) {
        m_cli.runner.call(QStringLiteral("move %1 to %2").arg(remoteAt(from), remoteAt(to)),
            m_drive.move(remoteAt(from), remoteAt(to)));
    };
    drive.remove = [this](const QStringList& paths) {
        QList<std::optional<Failure>> outcomes;
        if (paths.isEmpty())
            return outcomes;
        QStringList full;
        for (const QString& path : paths)
            full << remoteAt(path);
        const QString what = QStringLiteral("delete %1").arg(full.join(QLatin1String(", ")));
        const QJsonArray results
            = m_drive.taskResults(what, m_cli.runner.call(what, m_drive.remove(full)).json);
        for (int i = 0; i < paths.size(); ++i) {
            const QJsonObject result = results.at(i).toObject();
            outcomes << (result.value("ok").toBool()
                    ? std::nullopt
                    : std::optional<Failure>(DriveTree::entryFailure(what, result)));
        }
        return outcomes;
    };
    carry(plan, source, !root, drive);
    saveCache();
    report(plan, !root, m_local, m_remote);
}

void Sync::down(const QString& remoteGiven, const QString& localGiven)
{
    m_remote = RemotePath::normalise(remoteGiven);
    m_local = QDir::cleanPath(QDir::current().absoluteFilePath(localGiven));
    if (!m_drive.entry(m_remote).dir)
        throw Failure(Exit::Usage,
            QStringLiteral("%1 is a file on the server: sync takes a folder (get fetches a file)")
                .arg(m_remote));
    const QFileInfo there(m_local);
    if (there.exists() && !there.isDir())
        throw Failure(Exit::Usage,
            QStringLiteral("%1 is no folder: sync makes a folder match a folder").arg(localGiven));
    const Tree source = readRemote(m_remote);
    const bool rootMissing = !there.exists();
    const Tree target = rootMissing ? Tree() : walkLocal(m_local);
    const Plan plan = this->plan(source, target,
        [this](const Entry& remote, const Entry& local) { return sameContent(local, remote.remote); });
    const auto cannot = [this](const QString& what, const QString& path) {
        return Failure(Exit::Local, QStringLiteral("cannot %1 %2").arg(what, localAt(path)));
    };
    Target folder;
    folder.name = QStringLiteral("get");
    folder.makeFolder = [&](const QString& path) {
        if (!QDir().mkpath(localAt(path)))
            throw cannot(QStringLiteral("create the folder"), path);
    };
    folder.move = [&](const QString& from, const QString& to) {
        if (!QFile::rename(localAt(from), localAt(to)))
            throw cannot(QStringLiteral("move %1 to").arg(localAt(from)), to);
        m_hashes.store(LocalFile::of(localAt(to)), source.value(to).remote.hash);
    };
    folder.remove = [&](const QStringList& paths) {
        QList<std::optional<Failure>> outcomes;
        for (const QString& path : paths) {
            const QFileInfo info(localAt(path));
            const bool removed = info.isDir() && !info.isSymLink() ? QDir(localAt(path)).removeRecursively()
                                                                   : QFile::remove(localAt(path));
            outcomes << (removed ? std::nullopt
                                 : std::optional<Failure>(cannot(QStringLiteral("delete"), path)));
        }
        return outcomes;
    };
    carry(plan, source, rootMissing, folder);
    saveCache();
    report(plan, rootMissing, m_remote, m_local);
}

bool Sync::sameContent(const Entry& local, const RemoteEntry& remote)
{
    // Without the server's hash, the time it has is all there is to compare.
    return remote.hash.isEmpty() ? local.file.modifiedNs / 1000000000 == remote.modified
                                 : m_hashes.hashOf(m_cli.runner, local.file) == remote.hash;
}

void Sync::saveCache()
{
    m_hashes.forgetUnseenBelow(m_local);
    QString error;
    if (!m_hashes.save(&error))
        m_cli.output.note(QStringLiteral("nbcli: %1 (the next sync reads the files again)").arg(error));
}

void Sync::report(const Plan& plan, bool rootMissing, const QString& from, const QString& to)
{
    const auto count = [](int n, const QString& what) {
        return QStringLiteral("%1 %2%3").arg(n).arg(what, n == 1 ? QString() : QStringLiteral("s"));
    };
    const bool dry = m_options.dryRun;
    const int folders = plan.folders.size() + (rootMissing ? 1 : 0);
    if (folders == 0 && plan.sends.isEmpty() && plan.moves.isEmpty() && plan.deletes.isEmpty()) {
        m_cli.output.note(QStringLiteral("%1 already matches %2: %3 unchanged")
                              .arg(to, from, count(plan.unchanged, QStringLiteral("file"))));
        return;
    }
    m_cli.output.note(QStringLiteral("%1%2 -> %3: %4 to send, %5 moved, %6 deleted, %7 made, %8 unchanged")
                          .arg(dry ? QStringLiteral("dry run, ") : QString(), from, to,
                              count(plan.sends.size(), QStringLiteral("file")),
                              QString::number(plan.moves.size()), QString::number(plan.deletes.size()),
                              count(folders, QStringLiteral("folder")), QString::number(plan.unchanged)));
}
