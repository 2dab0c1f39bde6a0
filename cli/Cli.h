// What every command runs with: the console, the request runner, the stored sign-in with
// the overrides of this run, and the options all commands share.
#pragma once

#include "Config.h"
#include "Console.h"
#include "DriveEndpoint.h"
#include "Remote.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QList>

#include <functional>

class Cli
{
public:
    Cli(Console& console, Remote& remote);

    Console& console;
    Remote& remote;
    Settings settings;
    QString space = QStringLiteral("ent");

    static QList<QCommandLineOption> globalOptions();
    // The stored sign-in, then NB_SERVER and NB_TYPE, then --server and --type; the stored
    // session only for the server and type it was made for. Applies -q, -v, --json, --retries.
    void configure(const QCommandLineParser& parser);
    // Starts the library for the server and type, with the session; `signedIn` asks for one.
    void connect(bool signedIn);
    void save();

    DriveEndpoint drive() { return DriveEndpoint(remote, settings.server, space); }
    // The server address with a scheme: a bare host is completed by probing https, then http.
    static QString withScheme(const QString& address);

private:
    bool m_insecure = false;
    QString m_caFile;
};

// One verb of nbcli: its help and its options, and what it runs. `run` returns the exit
// status, or throws a Failure.
struct Command
{
    QString name;
    QString syntax;
    QString summary;
    QString details; // more help text and examples, shown by --help
    QList<QCommandLineOption> options;
    int minArgs = 0;
    int maxArgs = -1;
    std::function<int(Cli&, const QCommandLineParser&, const QStringList&)> run;
};

QList<Command> accountCommands();
QList<Command> namespaceCommands();
QList<Command> transferCommands();
QList<Command> otherCommands();
