// The smallest host: initialise the library for a deployment, set it up, send one
// GET and print the record it answers with.
//
//     nbhello http://127.0.0.1:8080/v2/user/info/get
#include <INBSeverApi.h>
#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        QTextStream(stderr) << "usage: nbhello ADDRESS\n";
        return 2;
    }

    ServerApi::init(ServerApi::PublicCloud);
    ServerApi::setLogLevel(false);
    ServerApi::setLanguage(QStringLiteral("en"));
    ServerApi::setUserAgent(QStringLiteral("nbhello/1.0"));

    ServerApi::GET(QString::fromLocal8Bit(argv[1]), [](const ResponseData& response) {
        QTextStream out(stdout);
        out << "status: " << response.statusCode << '\n'
            << "networkError: " << response.networkError << '\n'
            << "errorString: " << response.errorString << '\n'
            << "body: " << response.body << '\n';
        QCoreApplication::exit(response.networkError == 0 ? 0 : 1);
    });

    const int code = app.exec();
    ServerApi::uninit();
    return code;
}
