// put, get, share.
#include "Cli.h"
#include "LinkEndpoint.h"
#include "Transfers.h"

#include <QFileInfo>
#include <QProcessEnvironment>
#include <memory>

namespace {

const QCommandLineOption Jobs({ "j", "jobs" }, "Up to N chunk requests in flight (default 8).", "N", "8");

int jobs(const QCommandLineParser& parser)
{
    const int count = parser.value("jobs").toInt();
    if (count < 1 || count > 64)
        throw Failure { Exit::Usage, QStringLiteral("-j wants a number from 1 to 64") };
    return count;
}

int put(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    const bool dryRun = parser.isSet("dry-run");
    if (!dryRun)
        cli.connect(true);
    DriveEndpoint drive = cli.drive();
    return Transfers(cli, drive, jobs(parser)).put(args.mid(0, args.size() - 1), args.last(), dryRun);
}

int get(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    cli.connect(true);
    DriveEndpoint drive = cli.drive();
    return Transfers(cli, drive, jobs(parser)).get(args.mid(0, args.size() - 1), args.last());
}

// share get CODE [PATH] LOCAL | share put LOCAL CODE [PATH]
int share(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    const QString verb = args.first();
    if (verb != QLatin1String("get") && verb != QLatin1String("put"))
        throw Failure { Exit::Usage,
            QStringLiteral("share get CODE [PATH] LOCAL, or share put LOCAL CODE [PATH]") };
    if (args.size() < 3)
        throw Failure { Exit::Usage,
            QStringLiteral("share %1: too few arguments (see nbcli share --help)").arg(verb) };
    const bool dryRun = parser.isSet("dry-run");
    QString password = QProcessEnvironment::systemEnvironment().value("NB_SHARE_PASSWORD");
    if (parser.isSet("password"))
        password = parser.value("password");
    else if (parser.isSet("password-stdin"))
        password = cli.console.readLine(QString());
    cli.connect(false);
    const auto open = [&](const QString& code) {
        auto link = std::make_unique<LinkEndpoint>(cli.remote, cli.settings.server, code, password);
        if (!dryRun)
            link->open();
        return link;
    };
    if (verb == QLatin1String("get")) {
        if (args.size() > 4)
            throw Failure { Exit::Usage, QStringLiteral("share get CODE [PATH] LOCAL") };
        auto link = open(args.at(1));
        return Transfers(cli, *link, jobs(parser))
            .get({ args.size() == 4 ? args.at(2) : QStringLiteral("/") }, args.last());
    }
    // put LOCAL CODE [PATH]: into the link's folder unless PATH names the file.
    if (args.size() > 4)
        throw Failure { Exit::Usage,
            QStringLiteral("share put LOCAL CODE [PATH]: one LOCAL (a file or a folder)") };
    auto link = open(args.at(2));
    return Transfers(cli, *link, jobs(parser))
        .put({ args.at(1) }, args.value(3, QStringLiteral("/")), dryRun);
}

} // namespace

QList<Command> transferCommands()
{
    return {
        { "put", "LOCAL... REMOTE", "Upload files and folders.",
            "A file of up to 4 MiB goes whole; a larger one in 4 MiB chunks (SHA-256), hashed while earlier "
            "chunks are "
            "sent, only the chunks the server lacks, -j at a time, then committed. A put that was "
            "interrupted sends only "
            "what is missing when run again. REMOTE is a folder when it ends in \"/\" or when several "
            "sources or a folder "
            "are given. Existing files get a new revision. The file's hash is checked with the server's at "
            "the end.\n\n"
            "  nbcli put big.iso /isos/\n  nbcli put -j 4 photos /backup/photos",
            { Jobs, { "dry-run", "Say what would be uploaded; send nothing." } }, 2, -1, put },
        { "get", "REMOTE... LOCAL", "Download files and folders.",
            "Each file is written to a temporary file beside LOCAL and renamed once whole and checked (size "
            "and hash); an "
            "interrupted get continues from the bytes already there. LOCAL is a folder when it ends in "
            "\"/\", exists as "
            "one, or several sources are given.\n\n  nbcli get /isos/big.iso .\n  nbcli get /backup/photos "
            "~/restore/",
            { Jobs }, 2, -1, get },
        { "share", "get CODE [PATH] LOCAL | put LOCAL CODE [PATH]",
            "Download from or upload to a shared link.",
            "The link's password comes from NB_SHARE_PASSWORD, from standard input with --password-stdin, or "
            "from "
            "--password (which other users of the machine can read in the process list). PATH is inside the "
            "shared "
            "folder (default: the folder itself; put then uploads into it).\n\n"
            "  nbcli share get LINK9 /report.pdf .\n  NB_SHARE_PASSWORD=secret nbcli share put draft.docx "
            "LINK9 /in/",
            { Jobs, { "password", "The link's password (prefer NB_SHARE_PASSWORD).", "P" },
                { "password-stdin", "Read the link's password from standard input." },
                { "dry-run", "Say what share put would upload; send nothing." } },
            3, 4, share },
    };
}
