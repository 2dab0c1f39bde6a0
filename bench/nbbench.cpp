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
#include "BenchCommon.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"

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

// Both uploads report the bytes sent once the progress reached its total. Qt ends an
// upload's progress with a (0, 0) report, so the largest figures are kept.
int upload(const QString& url, const QString& path, bool multipart)
{
    UploadProgressData sent;
    Measurement measurement;
    runRequest(
        url,
        [&](NBHttpClient* client, NBCompletionCallback completion) {
            auto progress = [&](const UploadProgressData& data) {
                sent.bytesSent = qMax(sent.bytesSent, data.bytesSent);
                sent.bytesTotal = qMax(sent.bytesTotal, data.bytesTotal);
            };
            if (multipart) {
                client->param(QStringLiteral("name"), QFileInfo(path).fileName());
                client->mulitUpload(path, QByteArray(), progress, completion);
            } else {
                client->upload(path, progress, completion);
            }
        },
        [&](const ResponseData& response) {
            QString error = problem(response);
            if (error.isEmpty() && sent.bytesSent != sent.bytesTotal)
                error = QStringLiteral("upload stopped at %1 of %2 bytes")
                            .arg(sent.bytesSent)
                            .arg(sent.bytesTotal);
            measurement.stop(error);
        });
    measurement.wait();
    return measurement.report(sent.bytesSent);
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
    return fail(QStringLiteral("usage: nbbench download-file URL PATH | download-data URL | upload URL PATH"
                               " | multipart URL PATH | gets URL COUNT"));
}
