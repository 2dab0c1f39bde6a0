// A host process for the emulator's load test: signs in and uploads one file in chunks.
//
//     nbemu_uploader URL USER PASSWORD LOCAL REMOTE
// Prints the number of chunks it sent; exits 0 when the commit succeeded.
#include "EmuHost.h"

#include <QCoreApplication>
#include <QTextStream>
#include <csignal>
#include <sys/prctl.h>

int main(int argc, char** argv)
{
    // Never outlive the test that started it.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() != 6) {
        QTextStream(stderr) << "usage: nbemu_uploader URL USER PASSWORD LOCAL REMOTE\n";
        return 1;
    }
    ServerApi::init(ServerApi::PublicCloud);
    ServerApi::setLogLevel(false);
    ServerApi::setBaseUrlString(args[1]);
    if (!EmuHost::signIn(args[2], args[3]))
        return 2;
    const EmuHost::ChunkedResult result = EmuHost::chunkedUpload(args[1], args[4], args[5], 4, 4 << 20, true);
    QTextStream(stdout) << result.chunksSent << '\n';
    return result.commit.statusCode == 200 ? 0 : 3;
}
