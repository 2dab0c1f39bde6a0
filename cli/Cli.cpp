#include "Cli.h"

#include <INBSeverApi.h>
#include <QProcessEnvironment>

Cli::Cli(Console& console, Remote& remote)
    : console(console)
    , remote(remote)
{
}

QList<QCommandLineOption> Cli::globalOptions()
{
    return {
        { "server", "The server's address (default: the one of the last login, or NB_SERVER).", "URL" },
        { "type",
            "Deployment type: 0 or private, 1 or cloud, 2 or six (default: the last login's, or NB_TYPE).",
            "TYPE" },
        { "space", "The path type of remote paths: ent (default), self, share_in, share_out, ...",
            "PATH_TYPE", "ent" },
        { "json", "Results as JSON on standard output, for scripts." },
        { { "q", "quiet" }, "No progress and no notes; errors only." },
        { { "v", "verbose" }, "Say each retry, and let the library log in detail." },
        { "retries", "Retry a failed request up to N times (default 5).", "N", "5" },
        { "cacert", "Trust the CA certificates of FILE (PEM) besides the system's.", "FILE" },
        { "insecure", "Do not verify the server's TLS certificate." },
    };
}

void Cli::configure(const QCommandLineParser& parser)
{
    console.quiet = parser.isSet("quiet");
    console.verbose = parser.isSet("verbose");
    console.json = parser.isSet("json");
    remote.setVerbose(console.verbose);
    remote.setRetries(parser.value("retries").toInt());
    space = parser.value("space");
    m_insecure = parser.isSet("insecure");
    m_caFile = parser.value("cacert");
    if (m_insecure && !m_caFile.isEmpty())
        throw Failure { Exit::Usage, QStringLiteral("--cacert and --insecure exclude each other") };
    // Verified unless asked not to; the library's own default is not to verify.
    ServerApi::setTlsVerifyPeer(!m_insecure);
    if (!m_caFile.isEmpty() && !ServerApi::addTlsCaCertificates(m_caFile))
        throw Failure { Exit::Local, QStringLiteral("%1 holds no PEM certificate").arg(m_caFile) };

    QString error;
    settings = Config::load(&error);
    if (!error.isEmpty())
        console.note(QStringLiteral("nbcli: %1").arg(error));
    const Settings stored = settings;
    const QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QString server = parser.isSet("server") ? parser.value("server") : environment.value("NB_SERVER");
    const QString type = parser.isSet("type") ? parser.value("type") : environment.value("NB_TYPE");
    if (!server.isEmpty())
        settings.server = server;
    if (!type.isEmpty()) {
        settings.type = Config::parseType(type);
        if (settings.type < 0)
            throw Failure { Exit::Usage,
                QStringLiteral("unknown deployment type \"%1\" (0, 1 or 2)").arg(type) };
    }
    // "host:port", "http://host:port/" and "https://host:port" name one server here.
    const auto bare = [](QString address) {
        if (address.contains(QLatin1String("://")))
            address = address.section(QLatin1String("://"), 1);
        while (address.endsWith(QLatin1Char('/')))
            address.chop(1);
        return address;
    };
    if (settings.type != stored.type || bare(settings.server) != bare(stored.server))
        settings.session.clear();
}

QString Cli::withScheme(const QString& address)
{
    if (address.contains(QLatin1String("://")))
        return address;
    QString filled;
    if (!ServerApi::FillUrlProtocolByStep(address, filled))
        throw Failure { Exit::Network,
            QStringLiteral("%1 answers neither https nor http; check the address").arg(address) };
    return filled;
}

void Cli::connect(bool signedIn)
{
    if (settings.server.isEmpty())
        throw Failure { Exit::Usage,
            QStringLiteral("no server: run nbcli login --server URL, or give --server") };
    if (signedIn && settings.session.isEmpty())
        throw Failure { Exit::Refused,
            QStringLiteral("not signed in to %1: run nbcli login").arg(settings.server) };
    settings.server = withScheme(settings.server);
    ServerApi::setLogLevel(console.verbose);
    ServerApi::setLogRedaction(true);
    if (settings.server.startsWith(QLatin1String("https:"), Qt::CaseInsensitive)) {
        if (m_insecure) {
            console.note(QStringLiteral("TLS: the server's certificate is not verified (--insecure)"));
        } else if (!m_caFile.isEmpty()) {
            console.note(
                QStringLiteral("TLS: verifying the server against the system's CAs and %1").arg(m_caFile));
        } else {
            console.note(QStringLiteral("TLS: verifying the server against the system's CAs"));
        }
    }
    ServerApi::init(ServerApi::NBServerApiType(settings.type));
    ServerApi::setBaseUrlString(settings.server);
    ServerApi::setSessionID(settings.session);
}

void Cli::save()
{
    QString error;
    if (!Config::save(settings, &error))
        throw Failure { Exit::Local, error };
}
