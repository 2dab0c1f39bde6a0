// nbcli, a command-line client of the cloud drive over libNBServerApi.
//
//     nbcli [global options] COMMAND [options] [arguments]
//
// Built like any host of the library: the installed public headers and the exported
// library only.
#include "Cli.h"

#include <QCoreApplication>

namespace {

const char* const ExitTable
    = "Exit status: 0 success, 1 usage, 2 the server refused, 3 network or time-out, "
      "4 local file error, 5 partial failure (each failed entry named), 130 interrupted.";

QList<Command> allCommands()
{
    return accountCommands() + namespaceCommands() + transferCommands() + otherCommands();
}

int overview(Console& console, const QList<Command>& commands)
{
    QString text = QStringLiteral("Usage: nbcli [global options] COMMAND [options] [arguments]\n"
                                  "A command-line client of the cloud drive. nbcli COMMAND --help explains "
                                  "each command.\n\nCommands:\n");
    for (const Command& command : commands)
        text += QStringLiteral("  %1 %2\n").arg(command.name, -10).arg(command.summary);
    text += QStringLiteral("\nGlobal options:\n");
    for (const QCommandLineOption& option : Cli::globalOptions()) {
        const QString names = QStringLiteral("--") + option.names().join(QStringLiteral(", -"));
        text += QStringLiteral("  %1 %2\n")
                    .arg(names
                            + (option.valueName().isEmpty() ? QString()
                                                            : QLatin1Char(' ') + option.valueName()),
                        -24)
                    .arg(option.description());
    }
    text += QStringLiteral(
        "\nThe session is kept in %1 (mode 0600). Server certificates are verified (the system's CAs, "
        "and --cacert). The library's log (Transfer.log) is written with passwords, codes, tokens and "
        "sessions hidden; -v adds detail to it.\n%2")
                .arg(Config::file(), QLatin1String(ExitTable));
    console.out(text);
    return 0;
}

int run(Cli& cli, const QStringList& arguments)
{
    const QList<Command> commands = allCommands();
    // QCommandLineParser has no subcommands: find the verb first, then parse again with its options.
    QCommandLineParser first;
    first.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    first.addOptions(Cli::globalOptions());
    first.addOption({ { "h", "help" }, "Show this help." });
    first.addOption({ "version", "Show the version." });
    if (!first.parse(arguments))
        throw Failure { Exit::Usage,
            first.errorText() + QStringLiteral(" (nbcli --help lists the options)") };
    if (first.isSet("version")) {
        cli.console.out(QStringLiteral("nbcli %1").arg(QCoreApplication::applicationVersion()));
        return 0;
    }
    const QString verb = first.positionalArguments().value(0);
    if (verb.isEmpty() || verb == QLatin1String("help")) {
        const QString about = first.positionalArguments().value(1);
        if (about.isEmpty()) {
            overview(cli.console, commands);
            return first.isSet("help") || verb == QLatin1String("help") ? 0 : int(Exit::Usage);
        }
        return run(cli, { arguments.first(), about, QStringLiteral("--help") });
    }
    const auto found
        = std::find_if(commands.cbegin(), commands.cend(), [&](const Command& c) { return c.name == verb; });
    if (found == commands.cend())
        throw Failure { Exit::Usage,
            QStringLiteral("unknown command \"%1\" (nbcli --help lists them)").arg(verb) };
    const Command& command = *found;

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("%1\n\n%2\n\n%3").arg(command.summary, command.details, QLatin1String(ExitTable)));
    parser.addHelpOption();
    parser.addOptions(Cli::globalOptions());
    parser.addOptions(command.options);
    parser.addPositionalArgument(
        command.name, QString(), QStringLiteral("%1 %2").arg(command.name, command.syntax));
    parser.process(arguments); // --help exits 0, a bad option 1
    const QStringList args = parser.positionalArguments().mid(1);
    if (args.size() < command.minArgs || (command.maxArgs >= 0 && args.size() > command.maxArgs))
        throw Failure {
            Exit::Usage,
            QStringLiteral("usage: nbcli %1 %2 (nbcli %1 --help explains)").arg(command.name, command.syntax)
        };
    cli.configure(parser);
    return command.run(cli, parser, args);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("nbcli"));
    QCoreApplication::setApplicationVersion(QStringLiteral("1.0.0"));
    Console console;
    Remote remote;
    remote.setNotifier([&console](const QString& line) { console.note(line); });
    remote.catchInterrupts();
    Cli cli(console, remote);
    try {
        return run(cli, app.arguments());
    } catch (const Failure& failure) {
        console.error(failure.message);
        return int(failure.exit);
    }
}
