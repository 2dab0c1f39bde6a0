// Uploads of files and byte arrays as bodies and as multipart forms.
#include "Calls.h"
#include "InactivityInterval.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "TestData.h"
#include "TestLog.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QCryptographicHash>
#include <QFile>
#include <QTemporaryDir>

namespace {

const QByteArray FormType = "application/x-www-form-urlencoded;application/json";

struct Part
{
    RawHeaders headers;
    QByteArray body;
};

// Splits a multipart body at the boundary its first line announces.
QList<Part> parseMultipart(const QByteArray& body, QByteArray* boundaryOut = nullptr)
{
    QList<Part> parts;
    const int firstLineEnd = body.indexOf("\r\n");
    if (!body.startsWith("--") || firstLineEnd < 0)
        return parts;
    const QByteArray boundary = body.mid(2, firstLineEnd - 2);
    if (boundaryOut)
        *boundaryOut = boundary;
    const QByteArray delimiter = "\r\n--" + boundary;
    int pos = firstLineEnd + 2;
    for (;;) {
        const int next = body.indexOf(delimiter, pos);
        if (next < 0)
            break;
        const QByteArray chunk = body.mid(pos, next - pos);
        const int headEnd = chunk.indexOf("\r\n\r\n");
        Part part;
        for (const QByteArray& line : chunk.left(headEnd).split('\n')) {
            const QByteArray l = line.trimmed();
            const int colon = l.indexOf(':');
            if (colon > 0)
                part.headers.append({ l.left(colon), l.mid(colon + 1).trimmed() });
        }
        part.body = chunk.mid(headEnd + 4);
        parts.append(part);
        pos = next + delimiter.size();
        if (body.mid(pos, 2) == "--")
            break;
        pos += 2;
    }
    return parts;
}

QByteArray headerOf(const Part& part, const QByteArray& name)
{
    for (const auto& h : part.headers) {
        if (qstricmp(h.first.constData(), name.constData()) == 0)
            return h.second;
    }
    return QByteArray();
}

} // namespace

class TestUpload : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void init() { NBHttpClientManager::manager()->setVerifyCode(QString()); }

    void missingFileCompletesInsideTheCallAndSendsNothing_data()
    {
        QTest::addColumn<QString>("function");
        QTest::newRow("body") << QString("upload");
        QTest::newRow("multipart") << QString("mulitUpload");
    }

    void missingFileCompletesInsideTheCallAndSendsNothing()
    {
        QFETCH(QString, function);
        TestServer server;
        TestLog log;
        const QString path = m_dir.filePath("absent.bin");
        NBHttpClient client(server.url("/up"));
        Calls calls;
        if (function == "upload")
            client.upload(path, calls.uploadProgress(), calls.completion());
        else
            client.mulitUpload(path, QByteArray("ignored"), calls.uploadProgress(), calls.completion());
        QCOMPARE(calls.completions.size(), 1);
        QCOMPARE(calls.last().statusCode, int(QFileDevice::OpenError));
        QCOMPARE(calls.last().networkError, int(QFileDevice::OpenError));
        QCOMPARE(calls.last().errorString, QString("No such file or directory"));
        QCOMPARE(calls.last().body, QString());
        QVERIFY(calls.last().headers.isEmpty());
        QVERIFY2(log.has("INFO", function,
                     QString::fromUtf8("打开文件失败[%1]: No such file or directory").arg(path)),
            qPrintable(log.dump()));
        QTest::qWait(200);
        QCOMPARE(server.requestCount(), 0);
        QCOMPARE(calls.completions.size(), 1);
        QVERIFY(calls.uploads.isEmpty());
    }

    void emptyByteArrayIsAPostOfLengthZero()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::ok("{\"ok\":1}"); });
        NBHttpClient client(server.url("/up"));
        client.param("name", "a b");
        Calls calls;
        client.upload(QByteArray(), calls.uploadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        const RecordedRequest r = server.lastRequest();
        QCOMPARE(r.method, QByteArray("POST"));
        QCOMPARE(r.target, QByteArray("/up"));
        QCOMPARE(r.header("Content-Length"), QByteArray("0"));
        QCOMPARE(r.header("Content-Type"), FormType);
        QCOMPARE(r.body, QByteArray());
        QCOMPARE(calls.last().body, QString("{\"ok\":1}"));
    }

    void byteArrayIsTheBody()
    {
        TestServer server;
        NBHttpClient client(server.url("/up"));
        Calls calls;
        client.upload(QByteArray("raw\0bytes", 9), {}, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(server.lastRequest().body, QByteArray("raw\0bytes", 9));
        QCOMPARE(server.lastRequest().header("Content-Length"), QByteArray("9"));
    }

    void uploadsSendTheCookieHeaderAsItIs()
    {
        NBHttpClientManager::manager()->setVerifyCode(QStringLiteral("vc"));
        TestServer server;
        NBHttpClient client(server.url("/up"));
        client.header("Cookie", "language=zh;X-NIMBRA-SESS-ID=s;");
        Calls calls;
        client.upload(QByteArray("x"), {}, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(server.lastRequest().header("Cookie"), QByteArray("language=zh;X-NIMBRA-SESS-ID=s;"));
    }

    void sixtyFourMebibyteFileArrivesByteExactWithProgress()
    {
        const QByteArray payload = randomBytes(64 << 20);
        const QString path = writeFile(m_dir.filePath("big.bin"), payload);
        TestServer server([](const RecordedRequest& r) {
            return ServerReply::ok(
                QCryptographicHash::hash(r.body, QCryptographicHash::Sha256).toHex(), "text/plain");
        });
        NBHttpClient client(server.url("/up"));
        Calls calls;
        client.upload(path, calls.uploadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(1, 60000));
        QCOMPARE(calls.last().statusCode, 200);
        QCOMPARE(calls.last().body,
            QString::fromLatin1(QCryptographicHash::hash(payload, QCryptographicHash::Sha256).toHex()));
        QCOMPARE(server.lastRequest().header("Content-Length"), QByteArray::number(payload.size()));
        QVERIFY(!calls.uploads.isEmpty());
        // The network layer ends an upload with a report of (0, 0); it is passed on as it is.
        QCOMPARE(calls.uploads.last().bytesSent, 0);
        QCOMPARE(calls.uploads.last().bytesTotal, 0);
        calls.uploads.removeLast();
        for (int i = 1; i < calls.uploads.size(); ++i)
            QVERIFY(calls.uploads[i].bytesSent >= calls.uploads[i - 1].bytesSent);
        QCOMPARE(calls.uploads.last().bytesSent, qint64(payload.size()));
        QCOMPARE(calls.uploads.last().bytesTotal, qint64(payload.size()));
    }

    void serverThatNeverReadsTheBodyTimesOut()
    {
        ScopedInactivityInterval interval(500);
        TestServerOptions options;
        options.readBodies = false;
        TestServer server({}, options);
        const QString path = writeFile(m_dir.filePath("unread.bin"), randomBytes(32 << 20));
        NBHttpClient client(server.url("/sink"));
        Calls calls;
        client.upload(path, calls.uploadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(2, 30000));
        QCOMPARE(calls.completions[0].networkError, 4);
        QCOMPARE(calls.completions[0].errorString, QString("TimeOut"));
        QCOMPARE(calls.completions[1].networkError, 5);
        QCOMPARE(server.requestCount(), 1);
        qint64 mostSent = 0;
        for (const UploadProgressData& p : calls.uploads)
            mostSent = qMax(mostSent, p.bytesSent);
        QVERIFY(mostSent < (32 << 20));
    }

    void multipartOfParametersAndByteArray()
    {
        TestServer server;
        NBHttpClient client(server.url("/form"));
        client.param("a", "1");
        client.param("b", "2 & é");
        Calls calls;
        client.mulitUpload(QString(), QByteArray("payload"), calls.uploadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        const RecordedRequest r = server.lastRequest();
        QCOMPARE(r.method, QByteArray("POST"));
        QCOMPARE(r.target, QByteArray("/form"));
        // The fixed form type stays on the request; the boundary travels only in the body.
        QCOMPARE(r.header("Content-Type"), FormType);
        QCOMPARE(r.header("Content-Length"), QByteArray::number(r.body.size()));
        QByteArray boundary;
        const QList<Part> parts = parseMultipart(r.body, &boundary);
        QVERIFY(boundary.startsWith("boundary_.oOo._"));
        QVERIFY(r.body.endsWith("\r\n--" + boundary + "--\r\n"));
        QCOMPARE(parts.size(), 3);
        QCOMPARE(headerOf(parts[0], "Content-Disposition"), QByteArray("form-data; name=\"a\""));
        QCOMPARE(parts[0].body, QByteArray("1"));
        QCOMPARE(headerOf(parts[1], "Content-Disposition"), QByteArray("form-data; name=\"b\""));
        QCOMPARE(parts[1].body, QString("2 & é").toUtf8());
        QCOMPARE(headerOf(parts[2], "Content-Disposition"),
            QByteArray("form-data; name=\"file\"; filename=\"no-name\""));
        QCOMPARE(headerOf(parts[2], "Content-Length"), QByteArray("7"));
        QCOMPARE(parts[2].body, QByteArray("payload"));
    }

    void multipartFilePartIsNamedByThePathAsPassedAndComesLast()
    {
        const QByteArray payload = randomBytes(3 << 20);
        const QString path = writeFile(m_dir.filePath("x 文件.bin"), payload);
        TestServer server;
        NBHttpClient client(server.url("/form"));
        client.param("neid", "9");
        Calls calls;
        client.mulitUpload(path, QByteArray("ignored"), calls.uploadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(1, 30000));
        const QList<Part> parts = parseMultipart(server.lastRequest().body);
        QCOMPARE(parts.size(), 2);
        QCOMPARE(parts[0].body, QByteArray("9"));
        QCOMPARE(headerOf(parts[1], "Content-Disposition"),
            QString("form-data; name=\"file\"; filename=\"%1\"").arg(path).toUtf8());
        QCOMPARE(headerOf(parts[1], "Content-Length"), QByteArray::number(payload.size()));
        QCOMPARE(parts[1].body, payload);
        QCOMPARE(calls.uploads.at(calls.uploads.size() - 2).bytesSent,
            calls.uploads.at(calls.uploads.size() - 2).bytesTotal);
    }

    void cancelledUploadCompletesOnce()
    {
        TestServerOptions options;
        options.readBodies = false;
        TestServer server({}, options);
        const QString path = writeFile(m_dir.filePath("c.bin"), randomBytes(16 << 20));
        NBHttpClient client(server.url("/sink"));
        Calls calls;
        client.upload(path, calls.uploadProgress(), calls.completion());
        QVERIFY(server.waitForRequests(1));
        client.cancel();
        QCOMPARE(calls.completions.size(), 1);
        QCOMPARE(calls.last().networkError, 5);
        QTest::qWait(200);
        QCOMPARE(calls.completions.size(), 1);
    }
};

NB_TEST_MAIN(TestUpload)
#include "tst_upload.moc"
