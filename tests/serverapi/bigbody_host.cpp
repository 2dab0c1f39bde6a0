// A host process for tst_bigbody: signs nothing in, downloads one address through the
// library as a host would and prints one JSON object with what it saw and its peak
// memory. Usage: bigbody_host data|whole SERVER_URL
#include <INBSeverApi.h>
#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdio>
#include <sys/resource.h>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() != 3)
        return 2;
    const bool toCallback = arguments.at(1) == QLatin1String("data");

    ServerApi::init(ServerApi::Private);
    NBServerApiDownloadDataModel model;
    model.serverUrl = arguments.at(2);
    model.path = QStringLiteral("/big");
    model.pathType = QStringLiteral("ent");
    qint64 bytes = 0;
    qint64 pieces = 0;
    bool zeroByte = false;
    NBDataCallback onData;
    if (toCallback) {
        onData = [&](const QByteArray& piece) {
            bytes += piece.size();
            ++pieces;
            zeroByte = zeroByte || piece.contains('\0');
        };
    }
    ServerApi::DownloadData(model, onData, [&](const ResponseData& response) {
        rusage usage {};
        getrusage(RUSAGE_SELF, &usage);
        const QJsonObject report { { "bytes", double(bytes) }, { "pieces", double(pieces) },
            { "zeroByte", zeroByte }, { "status", response.statusCode },
            { "networkError", response.networkError }, { "errorString", response.errorString },
            { "bodySize", response.body.size() }, { "peakRssKiB", double(usage.ru_maxrss) } };
        std::fputs(QJsonDocument(report).toJson(QJsonDocument::Compact).constData(), stdout);
        std::fflush(stdout);
        app.quit();
    });
    const int status = app.exec();
    ServerApi::uninit();
    return status;
}
