// nbemu: a local drive that serves what libNBServerApi sends, with real state.
//
//     nbemu --data DIR --listen 127.0.0.1:PORT --type 1 --user alice:secret
//     nbemu --ephemeral --port-file /tmp/port --user alice:secret --control
//     nbemu --check DIR
#include "Emulator.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <csignal>
#include <limits>
#include <malloc.h>
#include <optional>
#include <thread>

namespace {

int usage(QTextStream& err, const QString& message)
{
    err << "nbemu: " << message << Qt::endl << "Run nbemu --help for the options." << Qt::endl;
    return 1;
}

// A whole decimal number from `least` to `most`, or none.
std::optional<qint64> number(const QString& text, qint64 least, qint64 most)
{
    bool ok = false;
    const qint64 value = text.trimmed().toLongLong(&ok);
    if (!ok || text.trimmed() != text || value < least || value > most)
        return std::nullopt;
    return value;
}

} // namespace

int main(int argc, char** argv)
{
    // The server's pool has many threads, and glibc gives each its own arena by default,
    // which keeps what a thread once held (a chunk, a listing): a few arenas serve them all.
    // Bodies of a chunk's size are mapped and unmapped whole; left to itself, glibc raises
    // that threshold after the first one and keeps every later one in an arena.
    ::mallopt(M_ARENA_MAX, 2);
    ::mallopt(M_MMAP_THRESHOLD, 1 << 20);
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("nbemu"));
    QCoreApplication::setApplicationVersion(QStringLiteral("1.0"));
    QTextStream out(stdout);
    QTextStream err(stderr);

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "A local drive emulator: serves every request libNBServerApi sends, for one deployment type, with\n"
        "real state (SQLite metadata and a content-addressed chunk store) kept in a data folder.\n"
        "Routes and replies: emulator/README.md. Exit status: 0 stopped, 1 usage or start-up error (a port\n"
        "or data folder in use included); --check: 0 consistent, 1 inconsistent, 2 no usable data,\n"
        "3 the folder is being served."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption data({ "d", "data" }, "Keep the data in DIR (created when missing).", "DIR");
    const QCommandLineOption ephemeral("ephemeral", "Keep the data in a temporary folder, removed at exit.");
    const QCommandLineOption listen({ "l", "listen" },
        "Listen on HOST:PORT (default 127.0.0.1:0, a free port).", "HOST:PORT", "127.0.0.1:0");
    const QCommandLineOption portFile("port-file", "Write the port to FILE once ready to serve.", "FILE");
    const QCommandLineOption type(
        { "t", "type" }, "Deployment type: 0 private, 1 public cloud (default), 2 private 6.0.", "TYPE", "1");
    const QCommandLineOption user({ "u", "user" },
        "Add the user NAME with PASSWORD (which may hold \":\"); a trailing \":tfa\" asks for a second "
        "factor at "
        "sign-in (repeatable).",
        "NAME:PASSWORD[:tfa]");
    const QCommandLineOption link("link",
        "A shared link CODE with PASSWORD (may be empty, no \":\") to the FOLDER of "
        "USER's \"ent\" space (repeatable).",
        "CODE:PASSWORD:USER:FOLDER");
    const QCommandLineOption seed(
        "seed", "Import the tree DIR for the first user into a new data folder.", "DIR");
    const QCommandLineOption verifyCode(
        "verify-code", "Private deployments: require the verification code S.", "CODE");
    const QCommandLineOption control("control", "Serve the control interface under /__emu/.");
    const QCommandLineOption fault("fault",
        "Inject a fault: PATTERN:KIND[=VALUE][@PROBABILITY], KIND latency, status, retry-after, reset, "
        "truncate "
        "or stall (repeatable; emulator/README.md).",
        "RULE");
    const QCommandLineOption faultSeed("fault-seed", "Seed of the fault draws (default 0).", "N", "0");
    const QCommandLineOption log(
        "log", "Write the request log (one JSON line per request) to FILE instead of stderr.", "FILE");
    const QCommandLineOption tlsCert("tls-cert", "Serve HTTPS with the certificate FILE (PEM).", "FILE");
    const QCommandLineOption tlsKey("tls-key", "The private key of --tls-cert (PEM).", "FILE");
    const QCommandLineOption tlsSelfSigned("tls-self-signed",
        "Serve HTTPS with a certificate made at the first start, kept in DATA/tls/cert.pem.");
    const QCommandLineOption sessionSeconds(
        "session-seconds", "Sessions expire after N seconds (default 86400).", "N", "86400");
    const QCommandLineOption check("check", "Check the store of DIR against its database, and exit.", "DIR");
    parser.addOptions({ data, ephemeral, listen, portFile, type, user, link, seed, verifyCode, control, fault,
        faultSeed, log, tlsCert, tlsKey, tlsSelfSigned, sessionSeconds, check });
    parser.process(app);
    if (!parser.positionalArguments().isEmpty())
        return usage(err, QStringLiteral("unexpected argument %1").arg(parser.positionalArguments().first()));
    if (parser.isSet(check))
        return DataFolder::check(parser.value(check), out);

    EmuOptions options;
    options.dataDir = parser.value(data);
    options.ephemeral = parser.isSet(ephemeral);
    if (options.dataDir.isEmpty() == !options.ephemeral)
        return usage(err, QStringLiteral("give --data DIR or --ephemeral (one of them)"));
    const QString address = parser.value(listen);
    const int colon = address.lastIndexOf(QLatin1Char(':'));
    options.host = address.left(colon);
    const std::optional<qint64> port = number(address.mid(colon + 1), 0, 65535);
    if (colon <= 0 || !port)
        return usage(
            err, QStringLiteral("--listen takes HOST:PORT (a port from 0 to 65535), not %1").arg(address));
    options.port = int(*port);
    options.portFile = parser.value(portFile);
    const std::optional<qint64> typeNumber = number(parser.value(type), 0, 2);
    if (!typeNumber)
        return usage(err, QStringLiteral("--type is 0, 1 or 2, not %1").arg(parser.value(type)));
    options.type = Deployment(*typeNumber);
    options.users = parser.values(user);
    options.links = parser.values(link);
    options.seedDir = parser.value(seed);
    options.verifyCode = parser.value(verifyCode);
    options.control = parser.isSet(control);
    options.faults = parser.values(fault);
    const std::optional<qint64> seedNumber
        = number(parser.value(faultSeed), 0, std::numeric_limits<qint64>::max());
    if (!seedNumber)
        return usage(
            err, QStringLiteral("--fault-seed is a number from 0, not %1").arg(parser.value(faultSeed)));
    options.faultSeed = quint64(*seedNumber);
    options.logFile = parser.value(log);
    options.tlsCert = parser.value(tlsCert);
    options.tlsKey = parser.value(tlsKey);
    options.tlsSelfSigned = parser.isSet(tlsSelfSigned);
    if (options.tlsCert.isEmpty() != options.tlsKey.isEmpty())
        return usage(err, QStringLiteral("--tls-cert and --tls-key go together"));
    const std::optional<qint64> seconds
        = number(parser.value(sessionSeconds), 1, std::numeric_limits<int>::max());
    if (!seconds)
        return usage(err,
            QStringLiteral("--session-seconds is a number from 1, not %1").arg(parser.value(sessionSeconds)));
    options.sessionSeconds = int(*seconds);

    // A client that goes away mid-reply is the connection's error, not the process's end.
    std::signal(SIGPIPE, SIG_IGN);
    // Signals end the server from a thread of their own, where stopping is safe.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    QString error;
    if (!Emulator::checkOptions(options, &error))
        return usage(err, error);
    Emulator emulator(options);
    if (!emulator.start(out, &error)) {
        err << "nbemu: " << error << Qt::endl;
        return 1;
    }
    std::thread watcher([&] {
        int received = 0;
        sigwait(&stopSignals, &received);
        emulator.stop();
    });
    emulator.run();
    // A stop that did not come from a signal: wake the watcher.
    pthread_kill(watcher.native_handle(), SIGTERM);
    watcher.join();
    return 0;
}
