// ls, stat, mkdir, mv, cp, rm, revisions, lock, unlock.
#include "Cli.h"
#include "Progress.h"
#include "RemotePath.h"

#include <NBBaseParse.h>
#include <QDateTime>
#include <QDeadlineTimer>
#include <QJsonArray>

namespace {

QString when(qint64 seconds)
{
    return seconds > 0 ? QDateTime::fromSecsSinceEpoch(seconds).toString(QStringLiteral("yyyy-MM-dd HH:mm"))
                       : QStringLiteral("-");
}

QString longLine(const RemoteEntry& entry)
{
    return QStringLiteral("%1 %2  %3  %4  %5")
        .arg(entry.dir ? QLatin1Char('d') : QLatin1Char('-'))
        .arg(entry.dir ? QStringLiteral("-") : QString::number(entry.bytes), 12)
        .arg(when(entry.modified))
        .arg(entry.rev.isEmpty() ? QStringLiteral("-") : entry.rev, 4)
        .arg(entry.dir ? entry.name + QLatin1Char('/') : entry.name);
}

QStringList normalised(const QStringList& paths)
{
    QStringList all;
    for (const QString& path : paths)
        all << RemotePath::normalise(path);
    return all;
}

int ls(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    cli.connect(true);
    DriveEndpoint drive = cli.drive();
    const QString path = RemotePath::normalise(args.value(0, QStringLiteral("/")));
    const RemoteEntry top = drive.entry(path);
    const QList<RemoteEntry> entries = top.dir ? drive.list(path) : QList<RemoteEntry> { top };
    if (cli.console.json) {
        QJsonArray all;
        for (const RemoteEntry& entry : entries)
            all.append(entry.json);
        cli.console.outJson(all);
        return 0;
    }
    for (const RemoteEntry& entry : entries)
        cli.console.out(parser.isSet("long") ? longLine(entry)
                : entry.dir                  ? entry.name + QLatin1Char('/')
                                             : entry.name);
    return 0;
}

// "locked: by NAME until TIME" where the server says who holds the lock, "locked: yes" otherwise.
QString lockLine(const QJsonObject& entry)
{
    if (!entry.value("locked").toBool())
        return QString();
    const QString holder = entry.value("lock_owner").toString();
    if (holder.isEmpty())
        return QStringLiteral("\n  locked: yes");
    return QStringLiteral("\n  locked: by ") + holder + QStringLiteral(" until ")
        + when(qint64(entry.value("lock_expires").toDouble()));
}

int stat(Cli& cli, const QCommandLineParser&, const QStringList& args)
{
    cli.connect(true);
    DriveEndpoint drive = cli.drive();
    for (const QString& path : normalised(args)) {
        const RemoteEntry entry = drive.entry(path);
        if (cli.console.json) {
            cli.console.outJson(entry.json);
            continue;
        }
        cli.console.out(
            QStringLiteral("%1\n  type: %2\n  bytes: %3\n  rev: %4\n  modified: %5\n  neid: %6%7%8")
                .arg(path, entry.dir ? QStringLiteral("folder") : QStringLiteral("file"))
                .arg(entry.bytes)
                .arg(entry.rev, when(entry.modified), entry.json.value("neid").toVariant().toString())
                .arg(entry.hash.isEmpty() ? QString() : QStringLiteral("\n  hash: %1").arg(entry.hash))
                .arg(lockLine(entry.json)));
    }
    return 0;
}

int mkdir(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    cli.connect(true);
    DriveEndpoint drive = cli.drive();
    const bool parents = parser.isSet("parents");
    QJsonArray created;
    for (const QString& path : normalised(args)) {
        if (!parents && RemotePath::parent(path) != QLatin1String("/")) {
            const QString parent = RemotePath::parent(path);
            const Reply above = cli.remote.fetch(QStringLiteral("stat %1").arg(parent), drive.stat(parent));
            if (above.data.statusCode == 404)
                throw Failure { Exit::Refused,
                    QStringLiteral("cannot create %1: no folder %2 (-p creates it)").arg(path, parent) };
        }
        const QString what = QStringLiteral("create folder %1").arg(path);
        const Reply reply = cli.remote.fetch(what, drive.makeFolder(path));
        if (!reply.ok()) {
            NBBaseParse reading;
            reading.ParseResp(reply.data);
            if (parents && reading.errorCode() == CNBParseProcessor::TargetExists)
                continue;
            throw Remote::failureOf(what, reply);
        }
        created.append(reply.json);
        if (!cli.console.json)
            cli.console.out(QStringLiteral("created %1").arg(path));
    }
    if (cli.console.json)
        cli.console.outJson(created);
    return 0;
}

// Waits for a server task of copies, moves or deletions and reports each entry's outcome.
int finishTask(Cli& cli, const QString& verb, const QString& what, const QJsonObject& started, int sources)
{
    const QString taskId = started.value("task_id").toString();
    QJsonObject state = started;
    const QDeadlineTimer deadline(10 * 60 * 1000);
    for (int poll = 0;
         state.value("state").toString() == QLatin1String("running") || !state.contains("results"); ++poll) {
        if (taskId.isEmpty() || deadline.hasExpired())
            throw Failure { Exit::Network,
                QStringLiteral("%1: the server's task did not finish; look again later").arg(what) };
        if (poll > 0)
            cli.remote.sleep(qMin(250 * poll, 2000));
        state = cli.remote
                    .call(QStringLiteral("ask about task %1").arg(taskId),
                        [taskId](NBCompletionCallback done) {
                            return ServerApi::BatchTaskAsyncQuery(taskId, std::move(done));
                        })
                    .json;
    }
    const QJsonArray results = state.value("results").toArray();
    QStringList failed;
    for (const QJsonValue& value : results) {
        const QJsonObject result = value.toObject();
        const QString path = result.value("path").toString();
        if (!result.value("ok").toBool())
            failed << QStringLiteral("%1: %2").arg(path, result.value("code").toString());
        else if (!cli.console.json)
            cli.console.out(result.contains("to")
                    ? QStringLiteral("%1 %2 -> %3").arg(verb, path, result.value("to").toString())
                    : QStringLiteral("%1 %2").arg(verb, path));
    }
    if (cli.console.json)
        cli.console.outJson(results);
    if (failed.isEmpty())
        return 0;
    for (const QString& failure : failed)
        cli.console.error(QStringLiteral("%1 failed for %2").arg(what, failure));
    return int(sources == 1 ? Exit::Refused : Exit::Partial);
}

QList<NBServerApiEntryModel> entries(Cli& cli, const QStringList& paths)
{
    QList<NBServerApiEntryModel> all;
    for (const QString& path : normalised(paths))
        all.append(cli.drive().at<NBServerApiEntryModel>(path));
    return all;
}

// mv and cp of several entries, or into a folder: one server task.
int batch(Cli& cli, const QCommandLineParser& parser, const QStringList& args, bool copy)
{
    const QStringList sources = normalised(args.mid(0, args.size() - 1));
    const QString target = RemotePath::normalise(args.last());
    const QString verb = copy ? QStringLiteral("copied") : QStringLiteral("moved");
    if (parser.isSet("dry-run")) {
        for (const QString& source : sources)
            cli.console.out(QStringLiteral("would %1 %2 -> %3")
                                .arg(copy ? QStringLiteral("copy") : QStringLiteral("move"), source,
                                    RemotePath::join(target, RemotePath::name(source))));
        return 0;
    }
    cli.connect(true);
    NBServerApiBatchMoveModel model;
    model.from = entries(cli, sources);
    model.to = cli.drive().at<NBServerApiEntryModel>(target);
    const QString what = QStringLiteral("%1 %2 to %3")
                             .arg(copy ? QStringLiteral("copy") : QStringLiteral("move"),
                                 sources.join(QLatin1String(", ")), target);
    const QJsonObject started = cli.remote
                                    .call(what,
                                        [model, copy](NBCompletionCallback done) {
                                            return copy ? ServerApi::BatchCopy(model, std::move(done))
                                                        : ServerApi::BatchMove(model, std::move(done));
                                        })
                                    .json;
    return finishTask(cli, verb, what, started, sources.size());
}

int mv(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    // One source and a target not spelled as a folder: a rename.
    if (args.size() > 2 || RemotePath::spelledAsFolder(args.last()))
        return batch(cli, parser, args, false);
    const QString from = RemotePath::normalise(args.first());
    const QString to = RemotePath::normalise(args.last());
    if (parser.isSet("dry-run")) {
        cli.console.out(QStringLiteral("would move %1 -> %2").arg(from, to));
        return 0;
    }
    cli.connect(true);
    NBServerApiMoveModel model;
    model.from = cli.drive().at<NBServerApiEntryModel>(from);
    model.to = cli.drive().at<NBServerApiEntryModel>(to);
    const QJsonObject moved
        = cli.remote
              .call(QStringLiteral("move %1 to %2").arg(from, to),
                  [model](NBCompletionCallback done) { return ServerApi::Move(model, std::move(done)); })
              .json;
    if (cli.console.json)
        cli.console.outJson(moved);
    else
        cli.console.out(QStringLiteral("moved %1 -> %2").arg(from, to));
    return 0;
}

int cp(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    return batch(cli, parser, args, true);
}

int rm(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    const QStringList paths = normalised(args);
    if (parser.isSet("dry-run")) {
        for (const QString& path : paths)
            cli.console.out(QStringLiteral("would delete %1").arg(path));
        return 0;
    }
    cli.connect(true);
    if (!parser.isSet("recursive")) {
        DriveEndpoint drive = cli.drive();
        for (const QString& path : paths) {
            if (drive.entry(path).dir)
                throw Failure { Exit::Usage,
                    QStringLiteral("%1 is a folder: rm -r deletes it with what it holds").arg(path) };
        }
    }
    NBServerApiBatchDeleteModel model;
    model.pathes = entries(cli, paths);
    const QString what = QStringLiteral("delete %1").arg(paths.join(QLatin1String(", ")));
    const QJsonObject started = cli.remote
                                    .call(what,
                                        [model](NBCompletionCallback done) {
                                            return ServerApi::BatchDelete(model, std::move(done));
                                        })
                                    .json;
    return finishTask(cli, QStringLiteral("deleted"), what, started, paths.size());
}

int revisions(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    cli.connect(true);
    const QString path = RemotePath::normalise(args.first());
    auto model = cli.drive().at<NBServerApiRevisionsModel>(path);
    model.revLimit = parser.value("limit").toInt();
    const QJsonObject reply
        = cli.remote
              .call(QStringLiteral("list the revisions of %1").arg(path),
                  [model](NBCompletionCallback done) { return ServerApi::Revisions(model, std::move(done)); })
              .json;
    const QJsonArray all = reply.value("revisions").toArray();
    if (cli.console.json) {
        cli.console.outJson(all);
        return 0;
    }
    for (const QJsonValue& value : all) {
        const QJsonObject revision = value.toObject();
        cli.console.out(QStringLiteral("%1  %2  %3  %4")
                            .arg(revision.value("rev").toVariant().toString(), 4)
                            .arg(qint64(revision.value("bytes").toDouble()), 12)
                            .arg(when(qint64(revision.value("modified").toDouble())),
                                revision.value("hash").toString().left(16)));
    }
    return 0;
}

int lock(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    cli.connect(true);
    const QString path = RemotePath::normalise(args.first());
    auto model = cli.drive().at<NBServerApiLockFileModel>(path);
    model.time = parser.value("time").toInt();
    const QJsonObject reply
        = cli.remote
              .call(QStringLiteral("lock %1").arg(path),
                  [model](NBCompletionCallback done) { return ServerApi::LockFile(model, std::move(done)); })
              .json;
    if (cli.console.json)
        cli.console.outJson(reply);
    else
        cli.console.out(QStringLiteral("locked %1 for %2 s").arg(path).arg(model.time));
    return 0;
}

int unlock(Cli& cli, const QCommandLineParser&, const QStringList& args)
{
    cli.connect(true);
    const QString path = RemotePath::normalise(args.first());
    const auto model = cli.drive().at<NBServerApiUnlockFileModel>(path);
    const QJsonObject reply = cli.remote
                                  .call(QStringLiteral("unlock %1").arg(path),
                                      [model](NBCompletionCallback done) {
                                          return ServerApi::UnlockFile(model, std::move(done));
                                      })
                                  .json;
    if (cli.console.json)
        cli.console.outJson(reply);
    else
        cli.console.out(QStringLiteral("unlocked %1").arg(path));
    return 0;
}

const QCommandLineOption DryRun("dry-run", "Say what would change; send nothing.");

} // namespace

QList<Command> namespaceCommands()
{
    return {
        { "ls", "[-l] [PATH]", "List a folder (every page of it), or show a file.",
            "  nbcli ls -l /docs\n  nbcli ls --json / | jq '.[].name'",
            { { { "l", "long" }, "Type, size, time, revision and name." } }, 0, 1, ls },
        { "stat", "PATH...", "Show an entry: type, size, revision, time, identifiers, hash.",
            "  nbcli stat /docs/a.txt", {}, 1, -1, stat },
        { "mkdir", "[-p] PATH...", "Create folders.", "  nbcli mkdir -p /docs/2026/reports",
            { { { "p", "parents" }, "Create missing parents; a folder that exists is fine." } }, 1, -1,
            mkdir },
        { "mv", "SRC... DEST", "Move or rename entries.",
            "One source and a DEST that does not end in \"/\" renames; otherwise the sources move into the "
            "folder DEST, "
            "as one server task whose outcome is reported per entry.\n\n  nbcli mv /a.txt /b.txt\n  nbcli mv "
            "/a.txt /b.txt /archive/",
            { DryRun }, 2, -1, mv },
        { "cp", "SRC... FOLDER", "Copy entries into a folder (copies keep their names).",
            "One server task; its outcome is reported per entry.\n\n  nbcli cp /docs/a.txt /docs/b.txt "
            "/backup",
            { DryRun }, 2, -1, cp },
        { "rm", "[-r] PATH...", "Delete entries.",
            "One server task; its outcome is reported per entry.\n\n  nbcli rm -r /old",
            { { { "r", "recursive" }, "Delete folders too, with what they hold." }, DryRun }, 1, -1, rm },
        { "revisions", "PATH", "List a file's revisions, newest first.", "  nbcli revisions /docs/a.txt",
            { { "limit", "At most N revisions (0: all).", "N", "0" } }, 1, 1, revisions },
        { "lock", "[--time S] PATH", "Lock a file against other users' changes (yours go on).",
            "  nbcli lock --time 600 /docs/a.txt",
            { { "time", "Hold the lock S seconds (default 3600).", "S", "3600" } }, 1, 1, lock },
        { "unlock", "PATH", "Release a lock.", "  nbcli unlock /docs/a.txt", {}, 1, 1, unlock },
    };
}
