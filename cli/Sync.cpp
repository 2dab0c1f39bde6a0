#include "Sync.h"

#include "Cli.h"
#include "Progress.h"
#include "RemotePath.h"

#include <QDir>
#include <QFileInfo>
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
            skip(info.filePath(),
                QStringLiteral("the name is no UTF-8 text, and the drive keeps names as text: skipped"));
            continue;
        }
        if (m_options.filter.excluded(path, info.isDir()))
            continue;
        if (info.isSymLink() && !info.exists()) {
            skip(info.filePath(), QStringLiteral("a symlink to nothing: skipped"));
        } else if (info.isDir() && info.isSymLink()) {
            skip(info.filePath(), QStringLiteral("a symlink to a folder: skipped (sync it on its own)"));
        } else if (info.isDir()) {
            tree->insert(path, Entry { true, 0, LocalFile { info.absoluteFilePath(), 0, 0 }, {} });
            walkLocal(root, path, tree);
        } else if (info.isFile()) {
            const LocalFile file = LocalFile::of(info.absoluteFilePath());
            tree->insert(path, Entry { false, file.bytes, file, {} });
        } else {
            skip(info.filePath(), QStringLiteral("not a regular file: skipped"));
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
            if (m_options.filter.excluded(path, child.dir))
                continue;
            tree.insert(path, Entry { child.dir, child.bytes, {}, child });
            if (child.dir)
                folders << path;
        }
    }
    return tree;
}

QString Sync::localHash(const Entry& entry)
{
    return m_hashes.hashOf(m_cli.runner, entry.file);
}

Sync::Plan Sync::plan(const Tree& source, const Tree& target,
    const std::function<bool(const Entry&, const Entry&)>& sameContent)
{
    Plan plan;
    QStringList replaced; // target entries of the other type, deleted before anything is made
    const auto conflict = [&](const QString& path, bool folderHere) {
        if (m_options.deleteExtra) {
            replaced << path;
            return true;
        }
        m_cli.output.failed(QJsonObject { { "path", path } },
            Failure(Exit::Refused,
                QStringLiteral("%1 is a %2 on one side and a %3 on the other: sync --delete replaces it")
                    .arg(path, folderHere ? QStringLiteral("folder") : QStringLiteral("file"),
                        folderHere ? QStringLiteral("file") : QStringLiteral("folder")),
                QStringLiteral("type conflict")));
        return false;
    };
    for (auto it = source.cbegin(); it != source.cend(); ++it) {
        const QString& path = it.key();
        const Entry& here = it.value();
        const auto there = target.constFind(path);
        if (here.folder) {
            if (there == target.cend() || (!there->folder && conflict(path, true)))
                plan.folders << path;
            continue;
        }
        if (there == target.cend() || (there->folder && conflict(path, false))) {
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
        if (!source.contains(it.key()) && !covered)
            plan.deletes << it.key();
    }
    // A new file with the content of one about to be deleted: a rename, done as a move.
    for (const QString& path : QStringList(plan.sends)) {
        if (plan.reasons.value(path) != QLatin1String("new"))
            continue;
        const Entry& here = source.value(path);
        for (const QString& gone : qAsConst(plan.deletes)) {
            const Entry& there = target.value(gone);
            if (replaced.contains(gone) || there.folder || there.bytes != here.bytes
                || !sameContent(here, there))
                continue;
            plan.moves.insert(path, gone);
            plan.sends.removeOne(path);
            plan.deletes.removeOne(gone);
            break;
        }
    }
    // Replaced entries go first, the others once the transfers succeeded.
    std::stable_partition(plan.deletes.begin(), plan.deletes.end(),
        [&](const QString& path) { return replaced.contains(path); });
    return plan;
}

void Sync::up(const QString& localGiven, const QString& remoteGiven)
{
    const QString local = QDir::cleanPath(QDir::current().absoluteFilePath(localGiven));
    const QString remote = RemotePath::normalise(remoteGiven);
    if (!QFileInfo(local).isDir())
        throw Failure(Exit::Usage,
            QStringLiteral("%1 is no folder: sync makes a folder match a folder (put sends a file)")
                .arg(localGiven));
    const std::optional<RemoteEntry> root = m_drive.find(remote);
    if (root && !root->dir)
        throw Failure(
            Exit::Usage, QStringLiteral("%1 is a file on the server: sync takes a folder").arg(remote));
    const Tree source = walkLocal(local);
    const Tree target = root ? walkRemote(remote) : Tree();
    const Plan plan = this->plan(source, target, [this](const Entry& here, const Entry& there) {
        return there.remote.hash.isEmpty() ? here.file.modifiedNs / 1000000000 == there.remote.modified
                                           : localHash(here) == there.remote.hash;
    });
    const auto at = [&](const QString& path) {
        return path.isEmpty() ? remote : RemotePath::join(remote, path);
    };
    const auto localAt = [&](const QString& path) {
        return path.isEmpty() ? local : local + QLatin1Char('/') + path;
    };
    const bool dry = m_options.dryRun;
    const auto did
        = [&](const QString& action, const QString& path, const QString& line, QJsonObject extra = {}) {
              extra.insert("action", action);
              extra.insert("path", at(path));
              extra.insert("local", localAt(path));
              if (dry)
                  extra.insert("dry_run", true);
              m_cli.output.done(extra, dry ? QStringLiteral("would ") + line : line);
          };
    const auto attempt = [&](const QString& path, const std::function<void()>& step) {
        try {
            step();
            return true;
        } catch (const Failure& failure) {
            if (failure.exit == Exit::Interrupted)
                throw;
            m_cli.output.failed(QJsonObject { { "path", at(path) }, { "local", localAt(path) } }, failure);
            return false;
        }
    };
    const auto remove = [&](const QStringList& paths) {
        if (paths.isEmpty())
            return;
        QStringList full;
        for (const QString& path : paths)
            full << at(path);
        const QString what = QStringLiteral("delete %1").arg(full.join(QLatin1String(", ")));
        QJsonArray results;
        if (!dry)
            results = m_drive.taskResults(what, m_cli.runner.call(what, m_drive.remove(full)).json);
        for (int i = 0; i < paths.size(); ++i) {
            const QJsonObject result = results.at(i).toObject();
            if (!dry && !result.value("ok").toBool())
                m_cli.output.failed(QJsonObject { { "action", "delete" }, { "path", at(paths.at(i)) } },
                    DriveTree::entryFailure(what, result));
            else
                did(QStringLiteral("delete"), paths.at(i), QStringLiteral("delete ") + at(paths.at(i)));
        }
    };

    QStringList replaced;
    for (const QString& path : plan.deletes) {
        if (source.contains(path))
            replaced << path;
    }
    remove(replaced);
    if (!root) {
        if (!dry)
            m_drive.ensureFolder(remote);
        did(QStringLiteral("mkdir"), QString(), QStringLiteral("create folder ") + remote);
    }
    for (const QString& path : plan.folders) {
        if (dry || attempt(path, [&] { m_drive.ensureFolder(at(path)); }))
            did(QStringLiteral("mkdir"), path, QStringLiteral("create folder ") + at(path));
    }
    for (auto it = plan.moves.cbegin(); it != plan.moves.cend(); ++it) {
        const QString what = QStringLiteral("move %1 to %2").arg(at(it.value()), at(it.key()));
        if (dry || attempt(it.key(), [&] {
                m_cli.runner.call(what, m_drive.move(at(it.value()), at(it.key())));
            }))
            did(QStringLiteral("move"), it.key(),
                QStringLiteral("move %1 -> %2 (same content)").arg(at(it.value()), at(it.key())),
                QJsonObject { { "from", at(it.value()) } });
    }
    QList<Transfers::Item> items;
    for (const QString& path : plan.sends) {
        const Entry& here = source.value(path);
        Transfers::Item item { localAt(path), at(path), false, here.bytes, {} };
        item.action = QStringLiteral("put");
        if (dry)
            did(QStringLiteral("put"), path,
                QStringLiteral("put %1 -> %2 (%3, %4)")
                    .arg(localAt(path), at(path), plan.reasons.value(path), Progress::bytes(here.bytes)),
                QJsonObject { { "bytes", here.bytes }, { "reason", plan.reasons.value(path) } });
        else
            items << item;
    }
    int sent = 0;
    Transfers(m_cli, m_drive, m_options.transfers)
        .putItems(items, [&](const Transfers::Item& item, const QString& hash) {
            ++sent;
            const QString path = item.local.mid(local.size() + 1);
            m_hashes.store(source.value(path).file, hash);
        });
    QStringList extra;
    for (const QString& path : plan.deletes) {
        if (!source.contains(path))
            extra << path;
    }
    if (sent == items.size())
        remove(extra);
    else if (!extra.isEmpty())
        m_cli.output.note(QStringLiteral("%1 not deleted on the server: %2 of %3 files were not sent")
                              .arg(QString::number(extra.size()), QString::number(items.size() - sent),
                                  QString::number(items.size())));
    saveCache(local);
    report(plan, local, remote);
}

void Sync::down(const QString& remoteGiven, const QString& localGiven)
{
    const QString remote = RemotePath::normalise(remoteGiven);
    const QString local = QDir::cleanPath(QDir::current().absoluteFilePath(localGiven));
    const RemoteEntry root = m_drive.entry(remote);
    if (!root.dir)
        throw Failure(Exit::Usage,
            QStringLiteral("%1 is a file on the server: sync takes a folder (get fetches a file)")
                .arg(remote));
    const QFileInfo there(local);
    if (there.exists() && !there.isDir())
        throw Failure(Exit::Usage,
            QStringLiteral("%1 is no folder: sync makes a folder match a folder").arg(localGiven));
    const Tree source = walkRemote(remote);
    const Tree target = there.exists() ? walkLocal(local) : Tree();
    const Plan plan = this->plan(source, target, [this](const Entry& remoteEntry, const Entry& localEntry) {
        return remoteEntry.remote.hash.isEmpty()
            ? localEntry.file.modifiedNs / 1000000000 == remoteEntry.remote.modified
            : localHash(localEntry) == remoteEntry.remote.hash;
    });
    const auto at = [&](const QString& path) {
        return path.isEmpty() ? remote : RemotePath::join(remote, path);
    };
    const auto localAt = [&](const QString& path) {
        return path.isEmpty() ? local : local + QLatin1Char('/') + path;
    };
    const bool dry = m_options.dryRun;
    const auto did
        = [&](const QString& action, const QString& path, const QString& line, QJsonObject extra = {}) {
              extra.insert("action", action);
              extra.insert("path", at(path));
              extra.insert("local", localAt(path));
              if (dry)
                  extra.insert("dry_run", true);
              m_cli.output.done(extra, dry ? QStringLiteral("would ") + line : line);
          };
    const auto fail = [&](const QString& path, const QString& why) {
        m_cli.output.failed(QJsonObject { { "path", at(path) }, { "local", localAt(path) } },
            Failure(Exit::Local, QStringLiteral("cannot %1 %2").arg(why, localAt(path))));
    };
    const auto remove = [&](const QStringList& paths) {
        for (const QString& path : paths) {
            const QFileInfo info(localAt(path));
            if (dry
                || (info.isDir() && !info.isSymLink() ? QDir(localAt(path)).removeRecursively()
                                                      : QFile::remove(localAt(path))))
                did(QStringLiteral("delete"), path, QStringLiteral("delete ") + localAt(path));
            else
                fail(path, QStringLiteral("delete"));
        }
    };

    QStringList replaced;
    for (const QString& path : plan.deletes) {
        if (source.contains(path))
            replaced << path;
    }
    remove(replaced);
    if (!there.exists()) {
        if (!dry && !QDir().mkpath(local))
            throw Failure(Exit::Local, QStringLiteral("cannot create the folder %1").arg(local));
        did(QStringLiteral("mkdir"), QString(), QStringLiteral("create folder ") + local);
    }
    for (const QString& path : plan.folders) {
        if (dry || QDir().mkpath(localAt(path)))
            did(QStringLiteral("mkdir"), path, QStringLiteral("create folder ") + localAt(path));
        else
            fail(path, QStringLiteral("create the folder"));
    }
    for (auto it = plan.moves.cbegin(); it != plan.moves.cend(); ++it) {
        if (dry || QFile::rename(localAt(it.value()), localAt(it.key()))) {
            if (!dry)
                m_hashes.store(LocalFile::of(localAt(it.key())), source.value(it.key()).remote.hash);
            did(QStringLiteral("move"), it.key(),
                QStringLiteral("move %1 -> %2 (same content)").arg(localAt(it.value()), localAt(it.key())),
                QJsonObject { { "from", localAt(it.value()) } });
        } else {
            fail(it.key(), QStringLiteral("move %1 to").arg(localAt(it.value())));
        }
    }
    QList<Transfers::Item> items;
    for (const QString& path : plan.sends) {
        const Entry& file = source.value(path);
        Transfers::Item item { localAt(path), at(path), false, file.bytes, file.remote };
        item.action = QStringLiteral("get");
        if (dry)
            did(QStringLiteral("get"), path,
                QStringLiteral("get %1 -> %2 (%3, %4)")
                    .arg(at(path), localAt(path), plan.reasons.value(path), Progress::bytes(file.bytes)),
                QJsonObject { { "bytes", file.bytes }, { "reason", plan.reasons.value(path) } });
        else
            items << item;
    }
    int sent = 0;
    Transfers(m_cli, m_drive, m_options.transfers)
        .getItems(items, false, [&](const Transfers::Item& item, const QString& hash) {
            ++sent;
            m_hashes.store(LocalFile::of(item.local), hash);
        });
    QStringList extra;
    for (const QString& path : plan.deletes) {
        if (!source.contains(path))
            extra << path;
    }
    if (sent == items.size())
        remove(extra);
    else if (!extra.isEmpty())
        m_cli.output.note(QStringLiteral("%1 not deleted here: %2 of %3 files did not arrive")
                              .arg(QString::number(extra.size()), QString::number(items.size() - sent),
                                  QString::number(items.size())));
    saveCache(local);
    report(plan, remote, local);
}

void Sync::saveCache(const QString& localRoot)
{
    m_hashes.forgetUnseenBelow(localRoot);
    QString error;
    if (!m_hashes.save(&error))
        m_cli.output.note(QStringLiteral("nbcli: %1 (the next sync reads the files again)").arg(error));
}

void Sync::report(const Plan& plan, const QString& from, const QString& to)
{
    const bool dry = m_options.dryRun;
    if (plan.folders.isEmpty() && plan.sends.isEmpty() && plan.moves.isEmpty() && plan.deletes.isEmpty()) {
        m_cli.output.note(QStringLiteral("%1 already matches %2: %3 files unchanged")
                              .arg(to, from, QString::number(plan.unchanged)));
        return;
    }
    m_cli.output.note(
        QStringLiteral("%1%2 -> %3: %4 files to send, %5 moved, %6 deleted, %7 folders made, %8 unchanged")
            .arg(dry ? QStringLiteral("dry run, ") : QString(), from, to, QString::number(plan.sends.size()),
                QString::number(plan.moves.size()), QString::number(plan.deletes.size()),
                QString::number(plan.folders.size()), QString::number(plan.unchanged)));
}
