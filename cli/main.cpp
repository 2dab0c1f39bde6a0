// nbcli, a command-line client of the cloud drive over libNBServerApi.
//
//     nbcli [global options] COMMAND [options] [arguments]
//
// Built like any host of the library: the installed public headers and the exported
// library only.
#include "Cli.h"

#include <QCoreApplication>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("nbcli"));
    QCoreApplication::setApplicationVersion(QStringLiteral("1.1.0"));
    Console console;
    RequestRunner runner;
    runner.setNotifier([&console](const QString& line) { console.status(line); });
    runner.catchInterrupts();
    Cli cli(console, runner);
    return cli.run(app.arguments());
}
