// ls, stat, mkdir, mv, cp, rm, revisions, lock, unlock.
#include "Cli.h"
#include "Progress.h"
#include "RemotePath.h"

#include <NBBaseParse.h>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QJsonArray>
#include <QUuid>

namespace {

const OptionSpec DryRun
    = OptionSpec::flag({ "dry-run" }, "Check with the server and say what would change; change nothing.");

QString when(qint64 seconds)
{
    return seconds > 0 ? QDateTime::fromSecsSinceEpoch(seconds).toString(QStringLiteral("yyyy-MM-dd HH:mm"))
                       : QStringLiteral("-");
}

QString size(qint64 bytes, bool human)
{
    return human ? Progress::bytes(bytes) : QString::number(bytes);
}

// " (locked by NAME until TIME)", or nothing.
QString lockNote(const RemoteEntry& entry)
{
    if (!entry.locked)
        return QString();
    return entry.lockOwner.isEmpty() ? QStringLiteral(" (locked)")
                                     : QStringLiteral(" (locked by ") + entry.lockOwner
            + QStringLiteral(" until ") + when(entry.lockExpires) + QLatin1Char(')');
}

// Type, size, time, revision, name: joined, not substituted, so that a name is shown as it is.
QString longLine(const RemoteEntry& entry, bool human)
{
    return (entry.dir             ? QStringLiteral("d ")
                   : entry.locked ? QStringLiteral("L ")
                                  : QStringLiteral("- "))
        + (entry.dir ? QStringLiteral("-") : size(entry.bytes, human)).rightJustified(12)
        + QStringLiteral("  ") + when(entry.modified) + QStringLiteral("  ")
        + (entry.rev.isEmpty() ? QStringLiteral("-") : entry.rev).rightJustified(4) + QStringLiteral("  ")
        + entry.name + (entry.dir ? QStringLiteral("/") : QString()) + lockNote(entry);
}

QStringList normalised(const QStringList& paths)
{
    QStringList all;
    for (const QString& path : paths)
        all << RemotePath::normalise(path);
    return all;
}

void ls(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    DriveTree drive = cli.drive();
    const QStringList paths = normalised(args.isEmpty() ? QStringList { QStringLiteral("/") } : args);
    const bool longForm = parser.isSet("long");
    const bool human = parser.isSet("human-readable");
    for (const QString& path : paths) {
        try {
            const RemoteEntry top = drive.entry(path);
            if (paths.size() > 1 && top.dir && !cli.console.json)
                cli.console.out(path + QLatin1Char(':'));
            const QList<RemoteEntry> entries = top.dir ? drive.list(path) : QList<RemoteEntry> { top };
            for (const RemoteEntry& entry : entries) {
                const QString at = top.dir ? RemotePath::join(path, entry.name) : path;
                cli.output.result(entry.report(at),
                    longForm ? longLine(entry, human)
                             : entry.name + (entry.dir ? QStringLiteral("/") : QString()));
            }
        } catch (const Failure& failure) {
            if (failure.exit == Exit::Interrupted || paths.size() == 1)
                throw;
            cli.output.failed(QJsonObject { { "path", path } }, failure);
        }
    }
}

void stat(Cli& cli, const QCommandLineParser&, const QStringList& args)
{
    DriveTree drive = cli.drive();
    for (const QString& path : normalised(args)) {
        try {
            const RemoteEntry entry = drive.entry(path);
            QString text = path + QStringLiteral("\n  type: ")
                + (entry.dir ? QStringLiteral("folder") : QStringLiteral("file"))
                + QStringLiteral("\n  bytes: ") + QString::number(entry.bytes) + QStringLiteral("\n  rev: ")
                + entry.rev + QStringLiteral("\n  modified: ") + when(entry.modified)
                + QStringLiteral("\n  neid: ") + entry.json.value("neid").toVariant().toString();
            if (!entry.hash.isEmpty())
                text += QStringLiteral("\n  hash: ") + entry.hash;
            if (entry.locked)
                text += entry.lockOwner.isEmpty() ? QStringLiteral("\n  locked: yes")
                                                  : QStringLiteral("\n  locked: by ") + entry.lockOwner
                        + QStringLiteral(" until ") + when(entry.lockExpires);
            cli.output.result(entry.report(path), text);
        } catch (const Failure& failure) {
            if (failure.exit == Exit::Interrupted)
                throw;
            cli.output.failed(QJsonObject { { "path", path } }, failure);
        }
    }
}

void mkdir(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    DriveTree drive = cli.drive();
    const bool parents = parser.isSet("parents");
    for (const QString& path : normalised(args)) {
        const QJsonObject item { { "path", path } };
        try {
            const QString parent = RemotePath::parent(path);
            if (!parents && parent != QLatin1String("/") && !drive.find(parent))
                throw Failure(Exit::Refused,
                    QStringLiteral("cannot create %1: no folder %2 (-p creates it)").arg(path, parent),
                    QStringLiteral("file/folder not found"));
            const QString what = QStringLiteral("create folder %1").arg(path);
            const Reply reply = cli.runner.fetch(what, drive.makeFolder(path));
            if (!reply.ok()) {
                NBBaseParse reading;
                reading.ParseResp(reply.data);
                // With -p a folder that exists is fine, a file of that name is not.
                const std::optional<RemoteEntry> there
                    = reading.errorCode() == CNBParseProcessor::TargetExists ? drive.find(path)
                                                                             : std::nullopt;
                if (parents && there && there->dir) {
                    cli.output.done(QJsonObject { { "path", path }, { "created", false } },
                        QStringLiteral("exists ") + path);
                    continue;
                }
                throw RequestRunner::failureOf(what, reply);
            }
            cli.output.done(
                QJsonObject { { "path", path }, { "created", true } }, QStringLiteral("created ") + path);
        } catch (const Failure& failure) {
            if (failure.exit == Exit::Interrupted)
                throw;
            cli.output.failed(item, failure);
        }
    }
}

// Each entry's outcome of a task.
void reportTask(
    Cli& cli, const QString& verb, const QString& what, const QJsonArray& results, bool missingIsFine = false)
{
    for (const QJsonValue& value : results) {
        const QJsonObject result = value.toObject();
        const QString path = result.value("path").toString();
        QJsonObject item { { "path", path } };
        if (!result.value("ok").toBool()
            && !(
                missingIsFine && result.value("code").toString() == QLatin1String("file/folder not found"))) {
            cli.output.failed(item, DriveTree::entryFailure(what, result));
            continue;
        }
        if (result.contains("to"))
            item.insert("to", result.value("to").toString());
        cli.output.done(item,
            verb + QLatin1Char(' ') + path
                + (result.contains("to") ? QStringLiteral(" -> ") + result.value("to").toString()
                                         : QString()));
    }
}

QList<NBServerApiEntryModel> entries(Cli& cli, const QStringList& paths)
{
    QList<NBServerApiEntryModel> all;
    for (const QString& path : paths)
        all.append(cli.drive().at<NBServerApiEntryModel>(path));
    return all;
}

// The sources of mv and cp, checked on the server: those missing are reported and left out.
QStringList existingSources(Cli& cli, const QStringList& sources)
{
    DriveTree drive = cli.drive();
    QStringList found;
    for (const QString& source : sources) {
        if (drive.find(source))
            found << source;
        else
            cli.output.failed(QJsonObject { { "path", source } },
                Failure(Exit::Refused, QStringLiteral("%1: no such file or folder").arg(source),
                    QStringLiteral("file/folder not found")));
    }
    return found;
}

// A batch copy or move of the sources into the folder: the task's results.
QJsonArray batchInto(
    Cli& cli, const QStringList& sources, const QString& target, bool copy, const QString& what)
{
    NBServerApiBatchMoveModel model;
    model.from = entries(cli, sources);
    model.to = cli.drive().at<NBServerApiEntryModel>(target);
    const QJsonObject started = cli.runner
                                    .call(what,
                                        [model, copy](NBCompletionCallback done) {
                                            return copy ? ServerApi::BatchCopy(model, std::move(done))
                                                        : ServerApi::BatchMove(model, std::move(done));
                                        })
                                    .json;
    return cli.drive().taskResults(what, started);
}

// mv and cp into a folder: one server task.
void intoFolder(Cli& cli, const QStringList& sources, const QString& target, bool copy, bool dryRun)
{
    if (dryRun) {
        for (const QString& source : sources) {
            const QString to = RemotePath::join(target, RemotePath::name(source));
            cli.output.done(QJsonObject { { "dry_run", true }, { "path", source }, { "to", to } },
                QStringLiteral("would %1 %2 -> %3")
                    .arg(copy ? QStringLiteral("copy") : QStringLiteral("move"), source, to));
        }
        return;
    }
    const QString what = QStringLiteral("%1 %2 to %3")
                             .arg(copy ? QStringLiteral("copy") : QStringLiteral("move"),
                                 sources.join(QLatin1String(", ")), target);
    reportTask(cli, copy ? QStringLiteral("copied") : QStringLiteral("moved"), what,
        batchInto(cli, sources, target, copy, what));
}

QJsonObject moveEntry(Cli& cli, const QString& from, const QString& to)
{
    return cli.runner.call(QStringLiteral("move %1 to %2").arg(from, to), cli.drive().move(from, to)).json;
}

// mv and cp: into DEST when it ends in "/", is an existing folder, or there are several
// sources; otherwise one source becomes DEST (a rename, or a copy under that name).
void moveOrCopy(Cli& cli, const QCommandLineParser& parser, const QStringList& args, bool copy)
{
    const bool dryRun = parser.isSet("dry-run");
    const QString target = RemotePath::normalise(args.last());
    // What the server would refuse, said before anything is sent: a folder into itself.
    QStringList sources;
    for (const QString& source : existingSources(cli, normalised(args.mid(0, args.size() - 1)))) {
        if (target == source || target.startsWith(source + QLatin1Char('/')) || source == QLatin1String("/"))
            cli.output.failed(QJsonObject { { "path", source }, { "to", target } },
                Failure(Exit::Refused, QStringLiteral("%1 cannot go into itself (%2)").arg(source, target),
                    QStringLiteral("parent folder conflict with folder")));
        else
            sources << source;
    }
    const std::optional<RemoteEntry> existing = cli.drive().find(target);
    if (sources.isEmpty())
        return;
    if (args.size() > 2 || RemotePath::spelledAsFolder(args.last()) || (existing && existing->dir))
        return intoFolder(cli, sources, target, copy, dryRun);
    const QString source = sources.first();
    if (existing)
        throw Failure(Exit::Refused,
            QStringLiteral("%1 exists: give a new name, or a folder to put %2 into").arg(target, source),
            QStringLiteral("target name exists"));
    const QJsonObject item { { "path", source }, { "to", target } };
    if (dryRun) {
        QJsonObject json = item;
        json.insert("dry_run", true);
        cli.output.done(json,
            QStringLiteral("would %1 %2 -> %3")
                .arg(copy ? QStringLiteral("copy") : QStringLiteral("move"), source, target));
        return;
    }
    if (copy) {
        // The server copies into folders under the same name: a copy under another name
        // goes through a folder of its own beside the target, then moves.
        const QString staging = RemotePath::join(RemotePath::parent(target),
            QStringLiteral(".nbcli-copy-") + QUuid::createUuid().toString(QUuid::Id128).left(12));
        const QString what = QStringLiteral("copy %1 to %2").arg(source, target);
        const QJsonArray staged = batchInto(cli, { source }, staging, true, what);
        const auto removeStaging = [&] {
            cli.runner.fetch(QStringLiteral("remove %1").arg(staging), cli.drive().remove({ staging }));
        };
        if (!staged.first().toObject().value("ok").toBool()) {
            removeStaging();
            throw DriveTree::entryFailure(what, staged.first().toObject());
        }
        try {
            moveEntry(cli, RemotePath::join(staging, RemotePath::name(source)), target);
        } catch (const Failure&) {
            removeStaging();
            throw;
        }
        removeStaging();
        cli.output.done(item, QStringLiteral("copied %1 -> %2").arg(source, target));
        return;
    }
    moveEntry(cli, source, target);
    cli.output.done(item, QStringLiteral("moved %1 -> %2").arg(source, target));
}

void mv(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    moveOrCopy(cli, parser, args, false);
}

void cp(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    moveOrCopy(cli, parser, args, true);
}

void rm(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    const bool force = parser.isSet("force");
    const bool recursive = parser.isSet("recursive");
    DriveTree drive = cli.drive();
    QStringList paths;
    for (const QString& path : normalised(args)) {
        const std::optional<RemoteEntry> entry = drive.find(path);
        if (!entry) {
            if (!force)
                cli.output.failed(QJsonObject { { "path", path } },
                    Failure(Exit::Refused, QStringLiteral("%1: no such file or folder").arg(path),
                        QStringLiteral("file/folder not found")));
            continue;
        }
        if (entry->dir && !recursive) {
            cli.output.failed(QJsonObject { { "path", path } },
                Failure(Exit::Usage,
                    QStringLiteral("%1 is a folder: rm -r deletes it with what it holds").arg(path)));
            continue;
        }
        paths << path;
    }
    if (paths.isEmpty())
        return;
    if (parser.isSet("dry-run")) {
        for (const QString& path : qAsConst(paths))
            cli.output.done(QJsonObject { { "dry_run", true }, { "path", path } },
                QStringLiteral("would delete ") + path);
        return;
    }
    const QString what = QStringLiteral("delete %1").arg(paths.join(QLatin1String(", ")));
    const QJsonObject started = cli.runner.call(what, cli.drive().remove(paths)).json;
    reportTask(cli, QStringLiteral("deleted"), what, cli.drive().taskResults(what, started), force);
}

void revisions(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    const QString path = RemotePath::normalise(args.first());
    if (cli.drive().entry(path).dir)
        throw Failure(Exit::Usage, QStringLiteral("%1 is a folder: revisions are kept for files").arg(path));
    auto model = cli.drive().at<NBServerApiRevisionsModel>(path);
    model.revLimit = parser.isSet("limit") ? parser.value("limit").toInt() : 0;
    const QJsonObject reply
        = cli.runner
              .call(QStringLiteral("list the revisions of %1").arg(path),
                  [model](NBCompletionCallback done) { return ServerApi::Revisions(model, std::move(done)); })
              .json;
    for (const QJsonValue& value : reply.value("revisions").toArray()) {
        const QJsonObject revision = value.toObject();
        const QString rev = revision.value("rev").toVariant().toString();
        const qint64 bytes = qint64(revision.value("bytes").toDouble());
        const qint64 modified = qint64(revision.value("modified").toDouble());
        const QString hash = revision.value("hash").toString();
        cli.output.result(QJsonObject { { "path", path }, { "rev", rev }, { "bytes", bytes },
                              { "modified", modified }, { "hash", hash } },
            rev.rightJustified(4) + QStringLiteral("  ") + QString::number(bytes).rightJustified(12)
                + QStringLiteral("  ") + when(modified) + QStringLiteral("  ") + hash.left(16));
    }
}

void lock(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    const QString path = RemotePath::normalise(args.first());
    auto model = cli.drive().at<NBServerApiLockFileModel>(path);
    model.time = parser.value("time").toInt();
    const RemoteEntry entry = RemoteEntry::fromJson(
        cli.runner
            .call(QStringLiteral("lock %1").arg(path),
                [model](NBCompletionCallback done) { return ServerApi::LockFile(model, std::move(done)); })
            .json);
    QJsonObject item { { "path", path }, { "locked", true } };
    if (entry.lockExpires > 0)
        item.insert("lock_expires", entry.lockExpires);
    cli.output.done(item, QStringLiteral("locked %1 for %2 s").arg(path, QString::number(model.time)));
}

void unlock(Cli& cli, const QCommandLineParser&, const QStringList& args)
{
    const QString path = RemotePath::normalise(args.first());
    const auto model = cli.drive().at<NBServerApiUnlockFileModel>(path);
    cli.runner.call(QStringLiteral("unlock %1").arg(path),
        [model](NBCompletionCallback done) { return ServerApi::UnlockFile(model, std::move(done)); });
    cli.output.done(
        QJsonObject { { "path", path }, { "locked", false } }, QStringLiteral("unlocked ") + path);
}

} // namespace

QList<Command> namespaceCommands()
{
    return {
        { "ls", "[-l] [-h] [PATH...]", "List folders (every page of them), or show files.",
            "With several paths, each folder's listing comes under its name. -l shows type (d a folder, L a "
            "file locked by "
            "someone), size, time, revision and name, and who holds a lock until when.\n\n"
            "  nbcli ls -lh /docs\n  nbcli ls --json / | jq -r '.results[].name'",
            { OptionSpec::flag({ "l", "long" }, "Type, size, time, revision and name."),
                OptionSpec::flag({ "h", "human-readable" }, "Sizes in KiB, MiB, GiB."),
                OptionSpec::flag({ "a", "all" }, "Accepted for habit's sake: every entry is shown.") },
            0, -1, Needs::Session, ls, Operands::Remote },
        { "stat", "PATH...", "Show an entry: type, size, revision, time, identifiers, hash, lock.",
            "  nbcli stat /docs/a.txt", {}, 1, -1, Needs::Session, stat, Operands::Remote },
        { "mkdir", "[-p] PATH...", "Create folders.", "  nbcli mkdir -p /docs/2026/reports",
            { OptionSpec::flag({ "p", "parents" }, "Create missing parents; a folder that exists is fine.") },
            1, -1, Needs::Session, mkdir, Operands::Remote },
        { "mv", "SRC... DEST", "Move or rename entries.",
            "Into DEST when it ends in \"/\", is an existing folder, or several sources are given (one "
            "server task, its "
            "outcome reported per entry); otherwise the one source is renamed DEST.\n\n"
            "  nbcli mv /a.txt /b.txt\n  nbcli mv /a.txt /b.txt /archive",
            { DryRun }, 2, -1, Needs::Session, mv, Operands::Remote },
        { "cp", "SRC... DEST", "Copy entries.",
            "Into DEST when it ends in \"/\", is an existing folder, or several sources are given; otherwise "
            "the one source "
            "is copied under the name DEST (a file stays a file). Folders are copied with what they hold.\n\n"
            "  nbcli cp /docs/a.txt /docs/b.txt\n  nbcli cp -r /docs /backup/",
            { OptionSpec::flag({ "r", "recursive" }, "Accepted for habit's sake: folders always come whole."),
                DryRun },
            2, -1, Needs::Session, cp, Operands::Remote },
        { "rm", "[-r] [-f] PATH...", "Delete entries.",
            "One server task; its outcome is reported per entry.\n\n  nbcli rm -rf /old",
            { OptionSpec::flag({ "r", "recursive" }, "Delete folders too, with what they hold."),
                OptionSpec::flag({ "f", "force" }, "What does not exist is no error."), DryRun },
            1, -1, Needs::Session, rm, Operands::Remote },
        { "revisions", "PATH", "List a file's revisions, newest first.", "  nbcli revisions /docs/a.txt",
            { OptionSpec::value({ "limit" }, "At most N revisions (default: all).", "N", OptionSpec::Count) },
            1, 1, Needs::Session, revisions, Operands::Remote },
        { "lock", "[--time S] PATH", "Lock a file against other users' changes (yours go on).",
            "  nbcli lock --time 600 /docs/a.txt",
            { OptionSpec::value(
                { "time" }, "Hold the lock S seconds (default 3600).", "S", OptionSpec::Count, "3600") },
            1, 1, Needs::Session, lock, Operands::Remote },
        { "unlock", "PATH", "Release a lock.", "  nbcli unlock /docs/a.txt", {}, 1, 1, Needs::Session, unlock,
            Operands::Remote },
    };
}
