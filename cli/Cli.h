// What every command runs with (the console, the output, the request runner, the stored
// sign-in with the overrides of this run), the table of commands, and the run of one
// command line: the verb found, every option checked, the server reached as the
// command's row says, the command run and its outcome reported.
#pragma once

#include "Config.h"
#include "Console.h"
#include "DriveTree.h"
#include "Options.h"
#include "Output.h"
#include "RequestRunner.h"

#include <QCommandLineParser>
#include <QList>
#include <QUrl>
#include <functional>

class Cli;

// What a command needs before it runs.
enum class Needs {
    Nothing, // runs on its own (logout)
    Server, // a server address (login, share, raw)
    Session, // a signed-in session
};

// What a command's arguments name, for completion: remote paths, local ones, both told
// apart by their form (put's target, get's sources, a "/" in front; sync's remote side, a
// ":"), or stored profiles.
enum class Operands { None, Remote, Local, Put, Get, Sides, Profiles };

// One verb of nbcli: its help and options, its arguments, what it needs, and what it
// runs. `run` reports through cli.output and throws the Failure that stops it.
struct Command
{
    QString name;
    QString syntax;
    QString summary;
    QString details; // more help text and examples, shown by --help
    QList<OptionSpec> options;
    int minArgs = 0;
    int maxArgs = -1;
    Needs needs = Needs::Session;
    std::function<void(Cli&, const QCommandLineParser&, const QStringList&)> run;
    Operands operands = Operands::None;
    QStringList words {}; // what the first argument may be, when it is a word of its own
};

class Cli
{
public:
    Cli(Console& console, RequestRunner& runner);

    Console& console;
    RequestRunner& runner;
    Output output;
    // The profile of this run (--profile, else NB_PROFILE, else "default") and its settings.
    QString profile = QStringLiteral("default");
    Settings settings;
    QString space = QStringLiteral("ent");
    // This run's TLS choices: its options, else NB_CACERT, else what the login kept.
    QString caFile;
    bool insecure = false;
    // The command line as given: where the order of different options matters.
    QStringList arguments;

    static QList<OptionSpec> globalOptions();
    static QList<Command> commands();
    static const char* exitTable();

    // Runs one command line (the program's name first): the exit status.
    int run(const QStringList& arguments);

    // Starts the library for the server and type, with the session; `signedIn` asks for one.
    void connect(bool signedIn);
    void save();

    DriveTree drive() { return DriveTree(runner, settings.server, space); }
    // The server address with a scheme: a bare host is completed by probing https, then http.
    static QString withScheme(const QString& address);

    // The help of the whole program, and of one command; the parts a manual shares with it.
    static QString overview();
    static QString description();
    static QString environmentText();
    // Where the files are: here, or as a manual names them for everyone (`generic`).
    static QString filesText(bool generic = false);
    static QString help(const Command& command);
    // The commands a mistyped verb may have meant.
    static QStringList nearest(const QString& verb);

    // Whether an https:// server's port answers in plain HTTP.
    static bool speaksPlainHttp(const QUrl& server);

private:
    int runCommand(const QStringList& arguments);
    // The names in a remote folder, for completion, signed in as `globals` say; none when
    // that fails or takes long.
    QStringList remoteNames(const QStringList& globals, const QString& folder);
    // The stored sign-in, then NB_SERVER and NB_TYPE, then --server and --type; the stored
    // session only for the server and type it was made for. Applies the global options.
    void configure(const QCommandLineParser& parser);
};

// How files are transferred: the options of put, get, share and sync, and their values.
QList<OptionSpec> transferOptions();
struct TransferSettings transferSettings(const QCommandLineParser& parser);

QList<Command> accountCommands();
QList<Command> namespaceCommands();
QList<Command> transferCommands();
QList<Command> otherCommands();
