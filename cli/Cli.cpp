#include "Cli.h"

#include "Completion.h"
#include "HashCache.h"
#include "ManPage.h"

#include <INBSeverApi.h>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QTcpSocket>
#include <QUrl>
#include <algorithm>

namespace {

const QStringList Types { "0", "1", "2", "private", "cloud", "public", "six", "private6" };
const QStringList Spaces { "ent", "self", "share_in", "share_out", "book_mark", "trans", "recycle" };

QString environment(const char* name)
{
    return QProcessEnvironment::systemEnvironment().value(QLatin1String(name));
}

// Edits that turn one word into the other (insertions, deletions, substitutions).
int distance(const QString& a, const QString& b)
{
    QVector<int> row(b.size() + 1);
    for (int j = 0; j <= b.size(); ++j)
        row[j] = j;
    for (int i = 1; i <= a.size(); ++i) {
        int diagonal = row[0];
        row[0] = i;
        for (int j = 1; j <= b.size(); ++j) {
            const int above = row[j];
            row[j] = std::min({ row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1) });
            diagonal = above;
        }
    }
    return row[b.size()];
}

// "  -j, --jobs N            text", the text aligned.
QString optionLine(const OptionSpec& option)
{
    return QStringLiteral("  %1 %2").arg(option.synopsis().leftJustified(24), option.description);
}

} // namespace

Cli::Cli(Console& console, RequestRunner& runner)
    : console(console)
    , runner(runner)
    , output(console)
{
}

const char* Cli::exitTable()
{
    return "Exit status: 0 success; 1 usage (bad arguments, an operation this deployment type does not "
           "offer, a server "
           "that cannot be used as given); 2 the server refused (a wrong password, a lock, not found); 3 try "
           "again "
           "later (no answer, a lost connection, a time-out, a damaged transfer, a server error or 429 after "
           "the "
           "retries); 4 a local file could not be read or written; 5 some entries or files failed, others "
           "did not; "
           "130 interrupted.";
}

QList<OptionSpec> Cli::globalOptions()
{
    return {
        OptionSpec::value({ "server" },
            "The server's address (default: the one of the last login, or NB_SERVER).", "URL",
            OptionSpec::Text),
        OptionSpec::choice({ "type" },
            "Deployment type: 0 or private, 1 or cloud, 2 or six (default: the last login's, or NB_TYPE).",
            "TYPE", Types),
        OptionSpec::value({ "profile" },
            "The stored sign-in to use and keep (default: NB_PROFILE, else \"default\"); nbcli profile "
            "list shows them.",
            "NAME", OptionSpec::Text),
        OptionSpec::choice({ "space" },
            "The path type of remote paths: ent (default), self, share_in, share_out, book_mark, trans, "
            "recycle.",
            "PATH_TYPE", Spaces, "ent"),
        OptionSpec::flag(
            { "json" }, "Results as one JSON document on standard output (watch: one object per line)."),
        OptionSpec::flag({ "q", "quiet" }, "No progress, notes or confirmations; results and errors only."),
        OptionSpec::flag({ "v", "verbose" }, "Let the library log in detail."),
        OptionSpec::value({ "retries" },
            "Retry a request that may succeed later up to N times (default 5; 0: never).", "N",
            OptionSpec::CountFromZero, "5"),
        OptionSpec::value({ "timeout" },
            "Give up a request that receives nothing for S seconds (default 120, or NB_TIMEOUT).", "S",
            OptionSpec::Duration),
        OptionSpec::value({ "cacert" },
            "Trust the CA certificates of FILE (PEM) besides the system's (or NB_CACERT); kept by login.",
            "FILE", OptionSpec::File),
        OptionSpec::flag({ "insecure" }, "Do not verify the server's TLS certificate; kept by login."),
        OptionSpec::flag({ "progress" }, "Show progress in a pipe too, a line a second."),
    };
}

QList<Command> Cli::commands()
{
    return accountCommands() + namespaceCommands() + transferCommands() + otherCommands();
}

QString Cli::description()
{
    return QStringLiteral(
        "A command-line client of the cloud drive. nbcli COMMAND --help explains each command.");
}

QString Cli::environmentText()
{
    return QStringLiteral(
        "Environment: NB_PROFILE, NB_SERVER, NB_TYPE, NB_USER, NB_PASSWORD, NB_OTP, NB_MOBILE, NB_SMS_CODE, "
        "NB_SHARE_PASSWORD, NB_TIMEOUT, NB_CACERT; an option given wins over its variable.");
}

QString Cli::filesText(bool generic)
{
    const QString config = generic ? QStringLiteral("$XDG_CONFIG_HOME/nbcli (~/.config/nbcli without it)")
                                   : Config::directory();
    const QString cache = generic ? QStringLiteral("$XDG_CACHE_HOME/nbcli/hashes.json") : HashCache::file();
    return QStringLiteral("Each profile's session is kept in %1 (session.json for \"default\", "
                          "profiles/NAME.json for the others; mode 0600), the hashes of local files in "
                          "%2. Server certificates are verified (the system's CAs, and --cacert). The "
                          "library's log (Transfer.log) hides passwords, codes, tokens and sessions, and so "
                          "does everything nbcli prints.")
        .arg(config, cache);
}

QString Cli::overview()
{
    QString text = QStringLiteral("Usage: nbcli [global options] COMMAND [options] [arguments]\n")
        + description() + QStringLiteral("\n\nCommands:\n");
    for (const Command& command : commands())
        text += QStringLiteral("  %1 %2\n").arg(command.name.leftJustified(10), command.summary);
    text += QStringLiteral("\nGlobal options (before or after the command):\n");
    for (const OptionSpec& option : globalOptions())
        text += optionLine(option) + QLatin1Char('\n');
    text += QStringLiteral("  --help                   This help; nbcli COMMAND --help, a command's.\n"
                           "  --version                The version.\n\n")
        + environmentText() + QLatin1Char('\n') + filesText() + QLatin1Char('\n')
        + QLatin1String(exitTable());
    return text;
}

QString Cli::help(const Command& command)
{
    QString text = QStringLiteral("Usage: nbcli %1 [options] %2\n%3\n")
                       .arg(command.name, command.syntax, command.summary);
    if (!command.details.isEmpty())
        text += QLatin1Char('\n') + command.details + QLatin1Char('\n');
    if (!command.options.isEmpty()) {
        text += QStringLiteral("\nOptions:\n");
        for (const OptionSpec& option : command.options)
            text += optionLine(option) + QLatin1Char('\n');
    }
    QStringList global;
    for (const OptionSpec& option : globalOptions())
        global << option.synopsis();
    text += QStringLiteral("\nGlobal options (nbcli --help explains them): ")
        + global.join(QStringLiteral("; ")) + QLatin1String(".\n\n") + QLatin1String(exitTable());
    return text;
}

QStringList Cli::nearest(const QString& verb)
{
    QStringList found;
    for (const Command& command : commands()) {
        if (distance(verb.toLower(), command.name) <= (verb.size() > 3 ? 2 : 1)
            || (verb.size() >= 2 && command.name.startsWith(verb.toLower())))
            found << command.name;
    }
    return found;
}

int Cli::run(const QStringList& arguments)
{
    try {
        return runCommand(arguments);
    } catch (const Failure& failure) {
        // A TLS handshake that failed on a port that answers in plain HTTP: say that.
        if (failure.code == QLatin1String("tls") && speaksPlainHttp(QUrl(settings.server)))
            return output.fail(Failure(Exit::Usage,
                QStringLiteral("%1 answers plain HTTP, not TLS: give the address with http://")
                    .arg(settings.server),
                QStringLiteral("tls")));
        return output.fail(failure);
    }
}

bool Cli::speaksPlainHttp(const QUrl& server)
{
    if (server.scheme() != QLatin1String("https") || server.host().isEmpty())
        return false;
    QTcpSocket socket;
    socket.connectToHost(server.host(), quint16(server.port(443)));
    if (!socket.waitForConnected(2000))
        return false;
    socket.write("HEAD / HTTP/1.0\r\n\r\n");
    QByteArray answer;
    while (answer.size() < 5 && socket.waitForReadyRead(2000))
        answer += socket.readAll();
    return answer.startsWith("HTTP/");
}

int Cli::runCommand(const QStringList& arguments)
{
    const QList<Command> all = commands();
    this->arguments = arguments;
    // What the shell scripts and the build ask; not commands a person types.
    if (arguments.value(1) == QLatin1String("__complete")
        || arguments.value(1) == QLatin1String("__complete-quoted")) {
        QStringList words = arguments.mid(2);
        // bash passes the words as typed, zsh without their quotes.
        if (arguments.value(1) == QLatin1String("__complete-quoted"))
            std::transform(words.begin(), words.end(), words.begin(), &Completion::unquoted);
        const QStringList found
            = Completion::candidates(words, [this](const QStringList& globals, const QString& folder) {
                  return remoteNames(globals, folder);
              });
        for (const QString& word : found)
            console.out(word);
        return 0;
    }
    if (arguments.value(1) == QLatin1String("__man")) {
        console.out(ManPage::roff(QCoreApplication::applicationVersion()));
        return 0;
    }
    // QCommandLineParser has no subcommands: find the verb first, then parse again with its options.
    QCommandLineParser first;
    first.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    for (const OptionSpec& option : globalOptions())
        first.addOption(option.option());
    first.addOption({ { "h", "help" }, "help" });
    first.addOption({ "version", "version" });
    console.json = arguments.contains(QStringLiteral("--json"));
    if (!first.parse(arguments))
        throw Failure(Exit::Usage, first.errorText() + QStringLiteral(" (nbcli --help lists the options)"));
    if (first.isSet("version")) {
        console.out(QStringLiteral("nbcli %1").arg(QCoreApplication::applicationVersion()));
        return 0;
    }
    const QString verb = first.positionalArguments().value(0);
    if (verb.isEmpty() || verb == QLatin1String("help")) {
        const QString about = first.positionalArguments().value(1);
        if (!about.isEmpty())
            return runCommand({ arguments.first(), about, QStringLiteral("--help") });
        if (first.isSet("help") || verb == QLatin1String("help")) {
            if (console.json)
                output.result(QJsonObject { { "help", overview() } }, QString());
            else
                console.out(overview());
            return output.finish();
        }
        throw Failure(Exit::Usage, QStringLiteral("no command given (nbcli --help lists them)"));
    }
    const auto found
        = std::find_if(all.cbegin(), all.cend(), [&](const Command& c) { return c.name == verb; });
    output.setCommand(verb);
    if (found == all.cend()) {
        const QStringList near = nearest(verb);
        throw Failure(Exit::Usage,
            QStringLiteral("unknown command \"%1\"%2 (nbcli --help lists them)")
                .arg(verb,
                    near.isEmpty()
                        ? QString()
                        : QStringLiteral("; did you mean %1?").arg(near.join(QStringLiteral(" or ")))));
    }
    const Command& command = *found;

    QCommandLineParser parser;
    const bool ownH = std::any_of(command.options.cbegin(), command.options.cend(),
        [](const OptionSpec& option) { return option.names.contains(QStringLiteral("h")); });
    parser.addOption(ownH ? QCommandLineOption("help", "help") : QCommandLineOption({ "h", "help" }, "help"));
    for (const OptionSpec& option : globalOptions() + command.options)
        parser.addOption(option.option());
    if (!parser.parse(arguments))
        throw Failure(Exit::Usage,
            QStringLiteral("%1 (nbcli %2 --help explains)").arg(parser.errorText(), command.name));
    if (parser.isSet("help")) {
        if (console.json)
            output.result(QJsonObject { { "help", help(command) } }, QString());
        else
            console.out(help(command));
        return output.finish();
    }
    Options::validate(parser, globalOptions() + command.options);
    const QStringList args = parser.positionalArguments().mid(1);
    if (args.size() < command.minArgs || (command.maxArgs >= 0 && args.size() > command.maxArgs))
        throw Failure(Exit::Usage,
            QStringLiteral("usage: nbcli %1 %2 (nbcli %1 --help explains)")
                .arg(command.name, command.syntax));
    configure(parser);
    if (command.needs != Needs::Nothing)
        connect(command.needs == Needs::Session);
    command.run(*this, parser, args);
    return output.finish();
}

void Cli::configure(const QCommandLineParser& parser)
{
    console.quiet = parser.isSet("quiet");
    console.verbose = parser.isSet("verbose");
    console.json = parser.isSet("json");
    console.progressInPipes = parser.isSet("progress");
    runner.setRetries(parser.value("retries").toInt());
    QString timeout = parser.value("timeout");
    if (timeout.isEmpty() && !environment("NB_TIMEOUT").isEmpty()) {
        timeout = environment("NB_TIMEOUT");
        if (!Options::durationMs(timeout))
            throw Failure(Exit::Usage,
                QStringLiteral("NB_TIMEOUT takes a number of seconds above 0 (decimals allowed), not \"%1\"")
                    .arg(timeout));
    }
    runner.setTimeout(timeout.isEmpty() ? 0 : *Options::durationMs(timeout));
    space = parser.value("space").toLower();

    profile = parser.isSet("profile") ? parser.value("profile") : environment("NB_PROFILE");
    if (profile.isEmpty() && !parser.isSet("profile"))
        profile = QStringLiteral("default");
    if (!Config::isProfileName(profile))
        throw Failure(Exit::Usage,
            QStringLiteral("a profile is named with up to 64 letters, digits, \".\", \"_\" and \"-\", not "
                           "starting with \".\" or \"-\"; not \"%1\"")
                .arg(profile));
    QString error;
    settings = Config::load(profile, &error);
    if (!error.isEmpty())
        console.note(QStringLiteral("nbcli: %1").arg(error));
    const Settings stored = settings;
    const QString server = parser.isSet("server") ? parser.value("server") : environment("NB_SERVER");
    const QString type = parser.isSet("type") ? parser.value("type") : environment("NB_TYPE");
    if (!server.isEmpty())
        settings.server = server;
    if (!type.isEmpty()) {
        settings.type = Config::parseType(type);
        if (settings.type < 0)
            throw Failure(Exit::Usage,
                QStringLiteral("NB_TYPE is 0, 1 or 2 (or private, cloud, six), not \"%1\"").arg(type));
    }
    // "host:port", "http://host:port/" and "https://host:port" name one server here.
    const auto bare = [](QString address) {
        if (address.contains(QLatin1String("://")))
            address = address.section(QLatin1String("://"), 1);
        while (address.endsWith(QLatin1Char('/')))
            address.chop(1);
        return address;
    };
    const bool sameServer = settings.type == stored.type && bare(settings.server) == bare(stored.server);
    if (!sameServer) {
        settings.session.clear();
        settings.caFile.clear();
        settings.insecure = false;
    }

    // TLS: this run's options, else NB_CACERT, else what the login kept for this server.
    const QString caOption = parser.isSet("cacert") ? parser.value("cacert") : environment("NB_CACERT");
    if (parser.isSet("insecure") && !caOption.isEmpty())
        throw Failure(Exit::Usage, QStringLiteral("--cacert and --insecure exclude each other"));
    caFile = settings.caFile;
    insecure = settings.insecure;
    if (!caOption.isEmpty()) {
        caFile = QFileInfo(caOption).absoluteFilePath();
        insecure = false;
    } else if (parser.isSet("insecure")) {
        insecure = true;
        caFile.clear();
    }
    // Verified unless asked not to; the library's own default is not to verify.
    ServerApi::setTlsVerifyPeer(!insecure);
    if (!caFile.isEmpty() && !ServerApi::addTlsCaCertificates(caFile))
        throw Failure(Exit::Local, QStringLiteral("%1 holds no PEM certificate").arg(caFile));
}

QString Cli::withScheme(const QString& address)
{
    if (address.contains(QLatin1String("://")))
        return address;
    QString filled;
    if (ServerApi::FillUrlProtocolByStep(address, filled))
        return filled;
    // The probes say only that neither answered 200: an https that fails on its
    // certificate is worth naming.
    RequestRunner once;
    once.setRetries(0);
    const QString https = QStringLiteral("https://") + address;
    const Reply reply = once.fetch(QStringLiteral("reach %1").arg(https),
        [https](NBCompletionCallback done) { return ServerApi::GET(https, std::move(done)); });
    if (reply.data.networkError == 6)
        throw RequestRunner::failureOf(QStringLiteral("reach %1").arg(https), reply);
    throw Failure(
        Exit::Network, QStringLiteral("%1 answers neither https nor http; check the address").arg(address));
}

void Cli::connect(bool signedIn)
{
    // Commands to copy name the profile they were run with.
    const QString nbcli = profile == QLatin1String("default")
        ? QStringLiteral("nbcli")
        : QStringLiteral("nbcli --profile %1").arg(profile);
    if (settings.server.isEmpty())
        throw Failure(
            Exit::Usage, QStringLiteral("no server: run %1 login --server URL, or give --server").arg(nbcli));
    if (signedIn && settings.session.isEmpty())
        throw Failure(Exit::Usage,
            QStringLiteral("not signed in to %1: run %2 login").arg(settings.server, nbcli),
            QStringLiteral("not signed in"));
    settings.server = withScheme(settings.server);
    ServerApi::setLogLevel(console.verbose);
    ServerApi::setLogRedaction(true);
    if (settings.server.startsWith(QLatin1String("https:"), Qt::CaseInsensitive)) {
        if (insecure)
            console.note(QStringLiteral("TLS: the server's certificate is not verified (--insecure)"));
        else if (!caFile.isEmpty())
            console.note(
                QStringLiteral("TLS: verifying the server against the system's CAs and %1").arg(caFile));
    }
    ServerApi::init(ServerApi::NBServerApiType(settings.type));
    ServerApi::setBaseUrlString(settings.server);
    ServerApi::setSessionID(settings.session);
}

void Cli::save()
{
    QString error;
    if (!Config::save(profile, settings, &error))
        throw Failure(Exit::Local, error);
}

QStringList Cli::remoteNames(const QStringList& globals, const QString& folder)
{
    QCommandLineParser parser;
    for (const OptionSpec& option : globalOptions())
        parser.addOption(option.option());
    if (!parser.parse(QStringList { QStringLiteral("nbcli") } + globals))
        return {};
    QStringList names;
    try {
        configure(parser);
        console.quiet = true;
        // A shell waits for the answer: one try, and not long.
        runner.setRetries(0);
        runner.setTimeout(3000);
        if (settings.session.isEmpty())
            return {};
        connect(true);
        for (const RemoteEntry& entry : drive().list(folder))
            names << entry.name + (entry.dir ? QStringLiteral("/") : QString());
    } catch (const Failure&) {
        return {};
    }
    return names;
}
