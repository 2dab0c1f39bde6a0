// The bare Qt references: the same transfers as nbbench with a plain
// QNetworkAccessManager and nothing around it, and the file side of a download alone,
// printing the same result line.
//
//   nbbare upload URL PATH          POST the QFile as the body
//   nbbare gets URL COUNT           COUNT sequential GETs, each on a fresh QNetworkAccessManager
//   nbbare write-file SOURCE PATH   copy SOURCE (in the page cache) to a new file PATH in 1 MiB pieces
#include "BenchCommon.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <functional>

namespace {

QString problem(QNetworkReply* reply)
{
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->error() == QNetworkReply::NoError && status == 200)
        return QString();
    return QStringLiteral("status %1, error %2: %3")
        .arg(status)
        .arg(reply->error())
        .arg(reply->errorString());
}

int upload(const QString& url, const QString& path)
{
    Measurement measurement;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fail(file.errorString());
    QNetworkAccessManager manager;
    QNetworkRequest request { QUrl(url) };
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/octet-stream"));
    request.setHeader(QNetworkRequest::ContentLengthHeader, file.size());
    QNetworkReply* reply = manager.post(request, &file);
    QObject::connect(reply, &QNetworkReply::finished, [&] { measurement.stop(problem(reply)); });
    measurement.wait();
    return measurement.report(file.pos());
}

int smallGets(const QString& url, int count)
{
    int finished = 0;
    Measurement measurement;
    std::function<void()> next = [&] {
        auto* manager = new QNetworkAccessManager;
        QNetworkReply* reply = manager->get(QNetworkRequest(QUrl(url)));
        QObject::connect(reply, &QNetworkReply::finished, [&, manager, reply] {
            QString error = problem(reply);
            if (error.isEmpty() && reply->readAll().isEmpty())
                error = QStringLiteral("empty body");
            manager->deleteLater();
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

// No network: what writing the downloaded bytes to a new file costs by itself.
int writeFile(const QString& sourcePath, const QString& path)
{
    Measurement measurement;
    QFile source(sourcePath);
    QFile target(path);
    if (!source.open(QIODevice::ReadOnly) || !target.open(QIODevice::WriteOnly))
        return fail(source.errorString() + QLatin1Char(' ') + target.errorString());
    QByteArray piece(1 << 20, Qt::Uninitialized);
    qint64 written = 0;
    for (qint64 n; (n = source.read(piece.data(), piece.size())) > 0; written += n) {
        if (target.write(piece.constData(), n) != n)
            return fail(target.errorString());
    }
    target.close();
    measurement.stop(QString());
    return measurement.report(written);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = commandLine();
    const QString name = args.value(0);
    if (name == QLatin1String("upload") && args.size() == 3)
        return upload(args[1], args[2]);
    if (name == QLatin1String("gets") && args.size() == 3 && args[2].toInt() > 0)
        return smallGets(args[1], args[2].toInt());
    if (name == QLatin1String("write-file") && args.size() == 3)
        return writeFile(args[1], args[2]);
    return fail(QStringLiteral("usage: nbbare upload URL PATH | gets URL COUNT | write-file SOURCE PATH"));
}
