// put, get, share.
#include "Cli.h"
#include "LinkTree.h"
#include "Sync.h"
#include "Transfers.h"

#include <QProcessEnvironment>
#include <QRegularExpression>
#include <memory>

namespace {

const OptionSpec Jobs = OptionSpec::value({ "j", "jobs" },
    "Up to N requests in flight for one file: its chunks, or its ranges (default 8).", "N", OptionSpec::Count,
    "8")
                            .atMost(64);
const OptionSpec TransfersAtOnce = OptionSpec::value({ "transfers" },
    "Up to N files at once (default 16); a file of several chunks goes on its own.", "N", OptionSpec::Count,
    "16")
                                       .atMost(64);
const OptionSpec BwLimit = OptionSpec::value({ "bwlimit" },
    "At most RATE bytes a second in all, such as 500K, 2.5M or 1G (K, M, G: 1024-based; 0: no limit).",
    "RATE", OptionSpec::Rate);
const OptionSpec DryRun
    = OptionSpec::flag({ "dry-run" }, "Check with the server and say what would be done; change nothing.");
const OptionSpec Recursive
    = OptionSpec::flag({ "r", "recursive" }, "Accepted for habit's sake: folders always come whole.");

} // namespace

TransferSettings transferSettings(const QCommandLineParser& parser)
{
    TransferSettings settings;
    settings.jobs = parser.value("jobs").toInt();
    settings.transfers = parser.value("transfers").toInt();
    settings.bwlimit = parser.isSet("bwlimit") ? *Options::rate(parser.value("bwlimit")) : 0;
    return settings;
}

QList<OptionSpec> transferOptions()
{
    return { Jobs, TransfersAtOnce, BwLimit };
}

namespace {

void put(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    DriveTree drive = cli.drive();
    Transfers(cli, drive, transferSettings(parser))
        .put(args.mid(0, args.size() - 1), args.last(), parser.isSet("dry-run"));
}

void get(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    DriveTree drive = cli.drive();
    Transfers(cli, drive, transferSettings(parser))
        .get(args.mid(0, args.size() - 1), args.last(), parser.isSet("dry-run"), parser.value("rev"));
}

// "CODE" or "CODE:PATH": the link's code, and the path inside its folder ("/" without one).
std::pair<QString, QString> linkAndPath(const QString& text)
{
    const int colon = text.indexOf(QLatin1Char(':'));
    const QString code = colon < 0 ? text : text.left(colon);
    const QString path = colon < 0 ? QStringLiteral("/") : text.mid(colon + 1);
    // A code is one piece of an address: nothing that would reach another route.
    static const QRegularExpression codeLike(QStringLiteral("^[^/?#%\\\\\\s]+$"));
    if (!codeLike.match(code).hasMatch())
        throw Failure(Exit::Usage,
            QStringLiteral("\"%1\" names no link: CODE or CODE:PATH, the code without / ? # % \\ or spaces")
                .arg(text));
    return { code, path.isEmpty() ? QStringLiteral("/") : path };
}

// share get CODE[:PATH] LOCAL | share put LOCAL CODE[:PATH]
void share(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    const QString verb = args.first();
    const QString grammar
        = QStringLiteral("nbcli share get CODE[:PATH] LOCAL, or nbcli share put LOCAL CODE[:PATH]");
    if (verb != QLatin1String("get") && verb != QLatin1String("put"))
        throw Failure(Exit::Usage, QStringLiteral("usage: %1").arg(grammar));
    if (args.size() != 3)
        throw Failure(Exit::Usage,
            QStringLiteral("share %1 takes two arguments, the remote one as CODE[:PATH]: %2")
                .arg(verb, grammar));
    QString password = QProcessEnvironment::systemEnvironment().value("NB_SHARE_PASSWORD");
    if (parser.isSet("password"))
        password = parser.value("password");
    else if (parser.isSet("password-stdin"))
        password = cli.console.readLine(QString());
    const auto [code, path] = linkAndPath(verb == QLatin1String("get") ? args.at(1) : args.at(2));
    auto link = std::make_unique<LinkTree>(cli.runner, cli.settings.server, code, password);
    try {
        link->open();
    } catch (const Failure& failure) {
        if (failure.code != QLatin1String("forbidden") || !password.isEmpty())
            throw;
        // The link wants a password and none was given: asked for on a terminal, never guessed.
        if (!cli.console.stdinIsTerminal())
            throw Failure(Exit::Usage,
                QStringLiteral("the shared link %1 needs a password: give NB_SHARE_PASSWORD or "
                               "--password-stdin, or run on a terminal")
                    .arg(code),
                QStringLiteral("needs password"));
        password = cli.console.readSecret(QStringLiteral("password of the shared link %1: ").arg(code));
        link = std::make_unique<LinkTree>(cli.runner, cli.settings.server, code, password);
        link->open();
    }
    if (verb == QLatin1String("get"))
        Transfers(cli, *link, transferSettings(parser)).get({ path }, args.at(2), parser.isSet("dry-run"));
    else
        Transfers(cli, *link, transferSettings(parser)).put({ args.at(1) }, path, parser.isSet("dry-run"));
}

// The --include and --exclude patterns in the order given: the last that matches decides.
PathFilter filterOf(const QStringList& arguments)
{
    PathFilter filter;
    for (int i = 1; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        if (argument == QLatin1String("--"))
            break;
        for (const QString& name : { QStringLiteral("--include"), QStringLiteral("--exclude") }) {
            QString pattern;
            if (argument == name && i + 1 < arguments.size())
                pattern = arguments.at(++i);
            else if (argument.startsWith(name + QLatin1Char('=')))
                pattern = argument.mid(name.size() + 1);
            else
                continue;
            QString error;
            if (!filter.add(pattern, name == QLatin1String("--include"), &error))
                throw Failure(Exit::Usage, QStringLiteral("%1: %2").arg(name, error));
        }
    }
    return filter;
}

// sync LOCAL :REMOTE | sync :REMOTE LOCAL
void sync(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    const bool up = args.at(1).startsWith(QLatin1Char(':'));
    if (up == args.at(0).startsWith(QLatin1Char(':')))
        throw Failure(Exit::Usage,
            QStringLiteral("sync takes one remote folder, written with a colon in front: nbcli sync LOCAL "
                           ":REMOTE, or nbcli sync :REMOTE LOCAL"));
    Sync::Options options;
    options.deleteExtra = parser.isSet("delete");
    options.dryRun = parser.isSet("dry-run");
    options.filter = filterOf(cli.arguments);
    options.transfers = transferSettings(parser);
    DriveTree drive = cli.drive();
    Sync run(cli, drive, options);
    if (up)
        run.up(args.at(0), args.at(1).mid(1));
    else
        run.down(args.at(0).mid(1), args.at(1));
}

} // namespace

QList<Command> transferCommands()
{
    return {
        { "put", "LOCAL... REMOTE", "Upload files and folders (\"-\": standard input).",
            "Sources land as cp -r places them: into REMOTE (as REMOTE/NAME) when REMOTE ends in \"/\", is "
            "an existing "
            "folder, or several sources are given; otherwise as REMOTE itself (a file's new name, or the "
            "folder a folder "
            "becomes). A file of up to one chunk (4 MiB, or the server's size) goes whole; a larger one in "
            "chunks, hashed "
            "(SHA-256) while earlier chunks are sent, only the chunks the server lacks, -j at a time, then "
            "committed. A put "
            "that was interrupted sends only what is missing when run again. \"-\" reads standard input as "
            "it comes, in "
            "chunks, into the file REMOTE. Existing files get a new revision; the file's hash is checked "
            "with the server's "
            "at the end.\n\n"
            "  nbcli put big.iso /isos/\n  nbcli put photos /backup/photos      (the folder becomes "
            "/backup/photos)\n"
            "  tar c docs | nbcli put - /backup/docs.tar",
            { Jobs, TransfersAtOnce, BwLimit, DryRun }, 2, -1, Needs::Session, put, Operands::Put },
        { "get", "REMOTE... LOCAL", "Download files and folders (\"-\": standard output).",
            "Targets follow the same rule as put: into LOCAL when it ends in \"/\", is an existing folder, "
            "or several sources are given; otherwise LOCAL itself. Each file is written to a temporary file "
            "beside LOCAL and renamed once whole and checked (size and hash), with the server's "
            "modification time; a file larger than 4 MiB comes in ranges, -j at a time, and an interrupted "
            "get continues from the bytes already there. Several files come --transfers at a time. A "
            "symlink is followed to its file; a device or a FIFO (/dev/null) is written in place; \"-\" "
            "writes one file to standard output; the hash is checked either way. --rev fetches an older "
            "revision.\n\n"
            "  nbcli get /isos/big.iso .\n  nbcli get /backup/photos ~/restore/\n  nbcli get /notes.txt - | "
            "less\n  nbcli get --rev 2 /docs/a.txt a-before.txt",
            { Jobs, TransfersAtOnce, BwLimit,
                OptionSpec::value({ "rev" }, "Fetch revision N of the files (nbcli revisions lists them).",
                    "N", OptionSpec::Count),
                DryRun, Recursive },
            2, -1, Needs::Session, get, Operands::Get },
        { "sync", "LOCAL :REMOTE | :REMOTE LOCAL", "Make a folder match a folder on the other side.",
            "The remote folder is written with a colon in front (:/backup, as a link's CODE:PATH without a "
            "code); the other one is local. The target comes to match the source: what is new or changed "
            "(in size or content hash) is sent, and with --delete what the source lacks is deleted, once "
            "every transfer succeeded; a file renamed on the source side is moved on the other, not sent "
            "again. Local hashes are kept in a cache ($XDG_CACHE_HOME/nbcli/hashes.json) by size and "
            "modification time, so an unchanged tree is not read again and a second sync sends nothing. "
            "Downloaded files keep the server's modification time. From the server, the tree comes from "
            "the change feed: the whole of it the first time, then what changed since the last sync of "
            "the same two folders.\n\n"
            "--include and --exclude take patterns as .gitignore lines, on paths inside the synced "
            "folders: * and ? within a name, [a-z], ** across folders; a pattern with a \"/\" (but at its "
            "end) is anchored at the synced folder, one without matches a name at any depth; a trailing "
            "\"/\" matches folders only. The last pattern that matches decides; what is below an excluded "
            "or included folder goes with it; when the first pattern is an --include, only what an "
            "--include matches is taken, and a folder is made only for what it holds. What the patterns "
            "leave out is neither sent nor deleted: --delete never deletes a folder that holds it.\n\n"
            "  nbcli sync ~/photos :/backup/photos\n  nbcli sync --delete --exclude '*.tmp' --exclude "
            "build/ . :/src\n  nbcli sync --dry-run --json :/docs ~/docs",
            transferOptions()
                + QList<OptionSpec> { OptionSpec::flag({ "delete" },
                                          "Delete what the source lacks, once the transfers succeeded."),
                    OptionSpec::value({ "include" }, "Take what PATTERN matches (repeatable).", "PATTERN",
                        OptionSpec::Text),
                    OptionSpec::value({ "exclude" }, "Leave out what PATTERN matches (repeatable).",
                        "PATTERN", OptionSpec::Text),
                    DryRun },
            2, 2, Needs::Session, sync, Operands::Sides },
        { "share", "get CODE[:PATH] LOCAL | put LOCAL CODE[:PATH]",
            "Download from or upload to a shared link.",
            "PATH is inside the link's folder (without one: the folder itself); LOCAL is always given, "
            "placed as get and put "
            "place it. The link's password comes from NB_SHARE_PASSWORD, from standard input with "
            "--password-stdin, from "
            "--password (which other users of the machine can read in the process list) or, when the link "
            "asks for one and "
            "none was given, from a prompt on a terminal.\n\n"
            "  nbcli share get LINK9:/report.pdf .\n  nbcli share get LINK9 ./shared-folder\n"
            "  NB_SHARE_PASSWORD=secret nbcli share put draft.docx LINK9:/in/",
            { Jobs, TransfersAtOnce, BwLimit,
                OptionSpec::value(
                    { "password" }, "The link's password (prefer NB_SHARE_PASSWORD).", "P", OptionSpec::Text),
                OptionSpec::flag({ "password-stdin" }, "Read the link's password from standard input."),
                DryRun },
            3, -1, Needs::Server, share, Operands::Local, { "get", "put" } },
    };
}
