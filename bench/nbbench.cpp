// The library side of the benchmark: runs one case through NBHttpClient the way the
// endpoint layer does (a registered handle per request, destroyed from its completion)
// and prints the result line of BenchCommon.h. run.sh starts one process per case, so
// that each peak resident size is the case's own.
//
//   nbbench download-file URL PATH   GET into a file
//   nbbench download-data URL        GET into a data callback that counts the bytes
//   nbbench upload URL PATH          POST the file as the body
//   nbbench multipart URL PATH       POST the file in a multipart form with one text field
//   nbbench gets URL COUNT           COUNT sequential GETs of a small document
//
// The same transfers through the facade, as a host calls them (SERVER is the transfer
// server's or the base address; the operations compose the paths under /v2):
//   nbbench facade-download-file SERVER PATH   DownloadFile of "/big.bin" into PATH
//   nbbench facade-router SERVER               DownloadRouter of "/big.bin", counting the bytes
//   nbbench facade-upload SERVER PATH          UploadFile of PATH to "/upload"
//   nbbench chunked SERVER PATH INFLIGHT       ChunkedUpload of PATH in 4 MiB chunks, INFLIGHT
//                                              requests at a time, each chunk read from the
//                                              file when its request starts (sent without a
//                                              hash: the transfer is measured, not hashing)
//   nbbench listings SERVER COUNT              COUNT sequential MetaData listings of "/many"
//   nbbench concurrent SERVER CLIENTS COUNT    COUNT listings of "/many", CLIENTS in flight
// With NB_BENCH_USER and NB_BENCH_PASSWORD set, the facade cases sign in first (nbemu).
#include "BenchCommon.h"
#include "INBSeverApi.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"

#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QFileInfo>
#include <functional>

namespace {

NBHttpClientManager* registry()
{
    return NBHttpClientManager::manager();
}

// Sends one request on a fresh registered handle: `send` issues it with the completion
// it is given, which hands the response to `done` and then destroys the handle.
void runRequest(const QString& url, const std::function<void(NBHttpClient*, NBCompletionCallback)>& send,
    const std::function<void(const ResponseData&)>& done)
{
    auto* client = new NBHttpClient(url);
    const long long id = registry()->createHttpClientHandle(client);
    send(client, [id, done](const ResponseData& response) {
        done(response);
        registry()->destroy(id);
    });
}

QString problem(const ResponseData& response)
{
    if (response.networkError == 0 && response.statusCode == 200)
        return QString();
    return QStringLiteral("status %1, error %2: %3")
        .arg(response.statusCode)
        .arg(response.networkError)
        .arg(response.errorString);
}

int downloadFile(const QString& url, const QString& path)
{
    Measurement measurement;
    runRequest(
        url,
        [&](NBHttpClient* client, NBCompletionCallback completion) {
            client->download(
                path, [](const DownloadProgressData&) {}, completion);
        },
        [&](const ResponseData& response) { measurement.stop(problem(response)); });
    measurement.wait();
    return measurement.report(QFileInfo(path).size());
}

int downloadData(const QString& url)
{
    qint64 received = 0;
    Measurement measurement;
    runRequest(
        url,
        [&](NBHttpClient* client, NBCompletionCallback completion) {
            client->download([&](const QByteArray& piece) { received += piece.size(); },
                [](const DownloadProgressData&) {}, completion);
        },
        [&](const ResponseData& response) { measurement.stop(problem(response)); });
    measurement.wait();
    return measurement.report(received);
}

// Upload progress kept as its largest figures: Qt ends an upload with a (0, 0) report.
struct SentBytes
{
    UploadProgressData most;
    NBUploadProgressCallback callback()
    {
        return [this](const UploadProgressData& data) {
            most.bytesSent = qMax(most.bytesSent, data.bytesSent);
            most.bytesTotal = qMax(most.bytesTotal, data.bytesTotal);
        };
    }
    QString check(const QString& error) const
    {
        if (error.isEmpty() && most.bytesSent != most.bytesTotal)
            return QStringLiteral("upload stopped at %1 of %2 bytes")
                .arg(most.bytesSent)
                .arg(most.bytesTotal);
        return error;
    }
};

// Both uploads report the bytes sent once the progress reached its total.
int upload(const QString& url, const QString& path, bool multipart)
{
    SentBytes sent;
    Measurement measurement;
    runRequest(
        url,
        [&](NBHttpClient* client, NBCompletionCallback completion) {
            if (multipart) {
                client->param(QStringLiteral("name"), QFileInfo(path).fileName());
                client->mulitUpload(path, QByteArray(), sent.callback(), completion);
            } else {
                client->upload(path, sent.callback(), completion);
            }
        },
        [&](const ResponseData& response) { measurement.stop(sent.check(problem(response))); });
    measurement.wait();
    return measurement.report(sent.most.bytesSent);
}

int smallGets(const QString& url, int count)
{
    int finished = 0;
    Measurement measurement;
    std::function<void()> next = [&] {
        runRequest(
            url,
            [](NBHttpClient* client, NBCompletionCallback completion) {
                client->httpMethod(GET);
                client->request(completion, true);
            },
            [&](const ResponseData& response) {
                QString error = problem(response);
                if (error.isEmpty() && response.body.isEmpty())
                    error = QStringLiteral("empty body");
                if (!error.isEmpty() || ++finished == count)
                    measurement.stop(error);
                else
                    QMetaObject::invokeMethod(qApp, next, Qt::QueuedConnection);
            });
    };
    next();
    measurement.wait();
    return measurement.report(finished);
}

int facadeDownloadFile(const QString& server, const QString& path)
{
    NBServerApiDownloadFileModel model;
    model.serverUrl = server;
    model.path = QStringLiteral("/big.bin");
    model.pathType = NBPathType::Ent;
    model.localPath = path;
    Measurement measurement;
    ServerApi::DownloadFile(
        model, [&](const ResponseData& response) { measurement.stop(problem(response)); });
    measurement.wait();
    return measurement.report(QFileInfo(path).size());
}

int facadeRouter(const QString& server)
{
    ServerApi::setBaseUrlString(server);
    NBSeverApiDLRouterModel model;
    model.path = QStringLiteral("/big.bin");
    model.pathType = NBPathType::Ent;
    qint64 received = 0;
    Measurement measurement;
    ServerApi::DownloadRouter(
        model, [&](const QByteArray& piece) { received += piece.size(); },
        [&](const ResponseData& response) { measurement.stop(problem(response)); });
    measurement.wait();
    return measurement.report(received);
}

int facadeUpload(const QString& server, const QString& path)
{
    NBServerApiUploadFileModel model;
    model.serverUrl = server;
    model.path = QStringLiteral("/upload");
    model.pathType = NBPathType::Ent;
    model.localPath = path;
    SentBytes sent;
    Measurement measurement;
    ServerApi::UploadFile(
        model, [&](const ResponseData& response) { measurement.stop(sent.check(problem(response))); },
        sent.callback());
    measurement.wait();
    return measurement.report(sent.most.bytesSent);
}

int chunked(const QString& server, const QString& path, int inFlight)
{
    const qint64 chunkSize = 4 << 20;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fail(file.errorString());
    const int chunks = int((file.size() + chunkSize - 1) / chunkSize);
    int started = 0;
    int finished = 0;
    qint64 sent = 0;
    Measurement measurement;
    std::function<void()> startNext = [&] {
        // Two completions may each queue a start for the last chunk: the second has none.
        if (started >= chunks)
            return;
        NBServerApiChunkedUploadModel model;
        model.serverUrl = server;
        model.uploadId = QStringLiteral("bench");
        file.seek(started * chunkSize);
        model.data = file.read(chunkSize);
        ++started;
        ServerApi::ChunkedUpload(model, [&, length = model.data.size()](const ResponseData& response) {
            const QString error = problem(response);
            if (!error.isEmpty())
                return measurement.stop(error);
            sent += length;
            if (++finished == chunks)
                measurement.stop(QString());
            else if (started < chunks)
                QMetaObject::invokeMethod(qApp, startNext, Qt::QueuedConnection);
        });
    };
    for (int i = 0; i < inFlight && started < chunks; ++i)
        startNext();
    measurement.wait();
    return measurement.report(sent);
}

// COUNT listings of "/many", `inFlight` at a time.
int listings(const QString& server, int count, int inFlight)
{
    ServerApi::setBaseUrlString(server);
    NBServerApiMetaEntryModel folder;
    folder.path = QStringLiteral("/many");
    folder.pathType = NBPathType::Ent;
    folder.list = true;
    int started = 0;
    int finished = 0;
    Measurement measurement;
    std::function<void()> startNext = [&] {
        ++started;
        ServerApi::MetaData(folder, [&](const ResponseData& response) {
            QString error = problem(response);
            if (error.isEmpty() && !response.body.contains(QLatin1String("\"total\":1000")))
                error = QStringLiteral("a listing without its 1000 entries");
            if (!error.isEmpty())
                return measurement.stop(error);
            if (++finished == count)
                measurement.stop(QString());
            else if (started < count)
                QMetaObject::invokeMethod(qApp, startNext, Qt::QueuedConnection);
        });
    };
    for (int i = 0; i < inFlight && started < count; ++i)
        startNext();
    measurement.wait();
    return measurement.report(finished);
}

// Signs in when the environment names a user, and keeps the session.
bool signIn(const QString& server)
{
    const QString user = qEnvironmentVariable("NB_BENCH_USER");
    if (user.isEmpty())
        return true;
    ServerApi::setBaseUrlString(server);
    NBServerApiLoginModel login;
    login.kind = 2;
    login.userName = user;
    login.password = qEnvironmentVariable("NB_BENCH_PASSWORD");
    QEventLoop loop;
    QString session;
    ServerApi::Login(login, [&](const ResponseData& response) {
        session = QJsonDocument::fromJson(response.body.toUtf8()).object().value("X-NIMBRA-SESS-ID").toString();
        loop.quit();
    });
    loop.exec();
    ServerApi::setSessionID(session);
    return !session.isEmpty();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = commandLine();
    const QString name = args.value(0);
    if (name == QLatin1String("download-file") && args.size() == 3)
        return downloadFile(args[1], args[2]);
    if (name == QLatin1String("download-data") && args.size() == 2)
        return downloadData(args[1]);
    if (name == QLatin1String("upload") && args.size() == 3)
        return upload(args[1], args[2], false);
    if (name == QLatin1String("multipart") && args.size() == 3)
        return upload(args[1], args[2], true);
    if (name == QLatin1String("gets") && args.size() == 3 && args[2].toInt() > 0)
        return smallGets(args[1], args[2].toInt());
    ServerApi::init(ServerApi::PublicCloud);
    if (args.size() > 1 && !signIn(args[1]))
        return fail(QStringLiteral("cannot sign in as %1").arg(qEnvironmentVariable("NB_BENCH_USER")));
    if (name == QLatin1String("listings") && args.size() == 3 && args[2].toInt() > 0)
        return listings(args[1], args[2].toInt(), 1);
    if (name == QLatin1String("concurrent") && args.size() == 4 && args[2].toInt() > 0 && args[3].toInt() > 0)
        return listings(args[1], args[3].toInt(), args[2].toInt());
    if (name == QLatin1String("facade-download-file") && args.size() == 3)
        return facadeDownloadFile(args[1], args[2]);
    if (name == QLatin1String("facade-router") && args.size() == 2)
        return facadeRouter(args[1]);
    if (name == QLatin1String("facade-upload") && args.size() == 3)
        return facadeUpload(args[1], args[2]);
    if (name == QLatin1String("chunked") && args.size() == 4 && args[3].toInt() > 0)
        return chunked(args[1], args[2], args[3].toInt());
    return fail(
        QStringLiteral("usage: nbbench download-file URL PATH | download-data URL | upload URL PATH"
                       " | multipart URL PATH | gets URL COUNT | facade-download-file SERVER PATH"
                       " | facade-router SERVER | facade-upload SERVER PATH | chunked SERVER PATH INFLIGHT"
                               " | listings SERVER COUNT | concurrent SERVER CLIENTS COUNT"));
}
