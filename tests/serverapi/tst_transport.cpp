// What the network layer adds on its own, made the same whichever Qt major the library is
// built with: the codings announced and the decoding of coded replies, the connection
// headers with and without a caching proxy, HTTP/1.1 over TLS even where a server offers
// HTTP/2, and the head of a multipart form.
#include "Calls.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "NBInflater.h"
#include "TestData.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QFile>
#include <QNetworkProxy>
#include <QTemporaryDir>
#include <zlib.h>

namespace {

// `data` coded as gzip (window bits 31) or as a zlib stream (15), as servers send
// "Content-Encoding: gzip" and "deflate".
QByteArray compress(const QByteArray& data, int windowBits)
{
    z_stream z {};
    deflateInit2(&z, Z_BEST_SPEED, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY);
    QByteArray out(int(deflateBound(&z, uLong(data.size()))) + 32, Qt::Uninitialized);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.constData()));
    z.avail_in = uInt(data.size());
    z.next_out = reinterpret_cast<Bytef*>(out.data());
    z.avail_out = uInt(out.size());
    deflate(&z, Z_FINISH);
    out.resize(int(z.total_out));
    deflateEnd(&z);
    return out;
}

// A JSON-like text of about `size` bytes that compresses well, with non-ASCII in it.
QByteArray jsonText(int size)
{
    QByteArray text = "{\"entries\":[";
    for (int i = 0; text.size() < size; ++i)
        text += "{\"path\":\"/文件夹/file-" + QByteArray::number(i)
            + ".txt\",\"bytes\":" + QByteArray::number(i * 7) + "},";
    return text + "{}]}";
}

// Downloads to a data callback and waits for the completion.
bool downloadPieces(NBHttpClient& client, Calls& calls, int timeoutMs = 10000)
{
    client.download(calls.data(), calls.downloadProgress(), calls.completion());
    return calls.waitForCompletions(1, timeoutMs);
}

QByteArray joined(const QList<QByteArray>& pieces)
{
    QByteArray all;
    for (const QByteArray& piece : pieces)
        all += piece;
    return all;
}

} // namespace

class TestTransport : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void init()
    {
        NBHttpClientManager::manager()->setVerifyCode(QString());
        NBHttpClientManager::manager()->proxySwitch(false);
    }
    void cleanupTestCase() { NBHttpClientManager::manager()->proxySwitch(false); }

    void codedRepliesAreDecoded_data()
    {
        QTest::addColumn<QByteArray>("coding");
        QTest::addColumn<int>("windowBits");
        QTest::newRow("gzip") << QByteArray("gzip") << 31;
        QTest::newRow("deflate, a zlib stream") << QByteArray("deflate") << 15;
        QTest::newRow("Gzip, any case and spaces") << QByteArray(" Gzip ") << 31;
    }
    // The record, the data callback and the file get the decoded body; the record's headers
    // keep "Content-Encoding" and lose the coded length, as Qt 5's decoding leaves them.
    void codedRepliesAreDecoded()
    {
        QFETCH(QByteArray, coding);
        QFETCH(int, windowBits);
        const QByteArray text = jsonText(3 << 20);
        const QByteArray coded = compress(text, windowBits);
        QVERIFY(coded.size() < text.size() / 4);
        TestServer server([&](const RecordedRequest&) {
            return ServerReply::ok(coded).header("Content-Encoding", coding);
        });

        NBHttpClient whole(server.url("/whole"));
        Calls wholeCalls;
        whole.request(wholeCalls.completion(), true);
        QVERIFY(wholeCalls.waitForCompletions(1, 30000));
        const ResponseData& record = wholeCalls.last();
        QCOMPARE(record.networkError, 0);
        QCOMPARE(record.statusCode, 200);
        QCOMPARE(record.body.toUtf8(), text);
        QCOMPARE(record.headers.value("Content-Encoding"), coding.trimmed());
        QVERIFY(!record.headers.contains("Content-Length"));
        QCOMPARE(server.lastRequest().header("Accept-Encoding"), QByteArray("gzip, deflate"));

        NBHttpClient pieces(server.url("/pieces"));
        Calls pieceCalls;
        QVERIFY(downloadPieces(pieces, pieceCalls, 30000));
        QCOMPARE(pieceCalls.last().networkError, 0);
        QCOMPARE(joined(pieceCalls.pieces), text);

        const QString path = m_dir.filePath("decoded.json");
        NBHttpClient file(server.url("/file"));
        Calls fileCalls;
        file.download(path, fileCalls.downloadProgress(), fileCalls.completion());
        QVERIFY(fileCalls.waitForCompletions(1, 30000));
        QCOMPARE(fileCalls.last().networkError, 0);
        QCOMPARE(readFile(path), text);
    }

    void anUnannouncedCodingPassesAsItCame_data()
    {
        QTest::addColumn<QByteArray>("coding");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("br") << QByteArray("br") << QByteArray("\x0b\x02\x80hello\x03", 9);
        QTest::newRow("x-gzip") << QByteArray("x-gzip") << compress("hello", 31);
    }
    // A coding the library does not announce reaches the host as it came.
    void anUnannouncedCodingPassesAsItCame()
    {
        QFETCH(QByteArray, coding);
        QFETCH(QByteArray, body);
        TestServer server([&](const RecordedRequest&) {
            return ServerReply::ok(body, "application/octet-stream").header("Content-Encoding", coding);
        });
        NBHttpClient client(server.url("/br"));
        Calls calls;
        QVERIFY(downloadPieces(client, calls));
        QCOMPARE(calls.last().networkError, 0);
        QCOMPARE(joined(calls.pieces), body);
        QCOMPARE(calls.last().headers.value("Content-Length"), QByteArray::number(body.size()));
    }

    // A body that is not the coding it claims ends as Qt 5 ends it: a protocol failure.
    void aCorruptCodedReplyIsAProtocolFailure()
    {
        TestServer server([](const RecordedRequest&) {
            return ServerReply::ok("this is not gzip at all").header("Content-Encoding", "gzip");
        });
        NBHttpClient whole(server.url("/corrupt"));
        Calls wholeCalls;
        whole.request(wholeCalls.completion(), true);
        NBHttpClient pieces(server.url("/corrupt"));
        Calls pieceCalls;
        pieces.download(pieceCalls.data(), pieceCalls.downloadProgress(), pieceCalls.completion());
        for (Calls* calls : { &wholeCalls, &pieceCalls }) {
            QVERIFY(calls->waitForCompletions(1, 10000));
            QTest::qWait(50);
            QCOMPARE(calls->completions.size(), 1);
            QCOMPARE(calls->last().networkError, int(QNetworkReply::ProtocolFailure));
            QCOMPARE(calls->last().errorString, QString("Data corrupted"));
            QCOMPARE(calls->last().body, QString());
        }
        // Nothing of the damaged body reached the data callback, before or after the end.
        QVERIFY(pieceCalls.pieces.isEmpty());
    }

    // A host's own "Accept-Encoding" goes out in its place, and the body as it came.
    void aHostsOwnAcceptEncodingIsKept()
    {
        const QByteArray coded = compress("plain", 31);
        TestServer server([&](const RecordedRequest&) {
            return ServerReply::ok(coded, "application/octet-stream").header("Content-Encoding", "gzip");
        });
        NBHttpClient client(server.url("/own"));
        client.header("Accept-Encoding", "gzip");
        Calls calls;
        QVERIFY(downloadPieces(client, calls));
        QCOMPARE(joined(calls.pieces), coded);
        QCOMPARE(server.lastRequest().wireText().replace(QByteArray::number(server.port()), "{port}"),
            QByteArray("GET /own\nHost: 127.0.0.1:{port}\nAccept-Encoding: gzip\nAccept: */*\n"
                       "Connection: Keep-Alive\nAccept-Language: en,*\nUser-Agent: Mozilla/5.0\n\n"));
    }

    void connectionHeadersThroughEachKindOfProxy_data()
    {
        QTest::addColumn<int>("scheme");
        QTest::addColumn<QByteArray>("connection");
        QTest::newRow("http proxy") << int(QNetworkProxy::HttpProxy) << QByteArray("Connection");
        QTest::newRow("caching proxy")
            << int(QNetworkProxy::HttpCachingProxy) << QByteArray("Proxy-Connection");
    }
    // The recording server stands in for the proxy: it receives the whole request.
    void connectionHeadersThroughEachKindOfProxy()
    {
        QFETCH(int, scheme);
        QFETCH(QByteArray, connection);
        TestServer proxy;
        NBHttpClientManager::manager()->proxy(
            false, scheme, "127.0.0.1", proxy.port(), QString(), QString(), true);
        NBHttpClient client("http://drive.invalid/v2/x");
        client.param("a", "1");
        client.httpMethod(POST);
        Calls calls;
        client.request(calls.completion(), true);
        QVERIFY(calls.waitForCompletions(1, 10000));
        QCOMPARE(proxy.lastRequest().wireText(),
            "POST http://drive.invalid/v2/x\nHost: drive.invalid\n"
            "Content-Type: application/x-www-form-urlencoded;application/json\nContent-Length: 3\n"
                + connection
                + ": Keep-Alive\nAccept-Encoding: gzip, deflate\nAccept-Language: en,*\n"
                  "User-Agent: Mozilla/5.0\n\na=1");
    }

    // A followed redirect carries the request's cookies and, after them, those the
    // redirecting reply set.
    void aRedirectCarriesTheRequestsCookies()
    {
        TestServer server([](const RecordedRequest& request) {
            if (request.path() == "/from")
                return ServerReply::redirect("/to").header("Set-Cookie", "r=1; Path=/");
            return ServerReply::ok("{}");
        });
        NBHttpClientManager::manager()->setVerifyCode("vc");
        NBHttpClient client(server.url("/from"));
        client.header("Cookie", "language=zh; X-NIMBRA-SESS-ID=s");
        Calls calls;
        client.request(calls.completion(), true);
        QVERIFY(calls.waitForCompletions(1, 10000));
        QCOMPARE(calls.last().networkError, 0);
        // Under load Qt now and then sends the first GET again on a second connection before
        // following the redirect: the same bytes, so only the redirect's target is counted.
        const QList<RecordedRequest> requests = server.requests();
        QVERIFY(requests.size() >= 2);
        QCOMPARE(requests.last().path(), QByteArray("/to"));
        QCOMPARE(requests.last().header("Cookie"), QByteArray("S=vc; language=zh; X-NIMBRA-SESS-ID=s; r=1"));
        for (int i = 0; i + 1 < requests.size(); ++i) {
            QCOMPARE(requests.at(i).path(), QByteArray("/from"));
            QCOMPARE(requests.at(i).header("Cookie"), QByteArray("S=vc; language=zh; X-NIMBRA-SESS-ID=s"));
        }
    }

    // Qt 6 would take HTTP/2 where the server offers it; the library speaks HTTP/1.1.
    void tlsNeverTurnsIntoHttp2()
    {
        TestServer::Options options;
        options.tls = true;
        options.offerHttp2 = true;
        TestServer server([](const RecordedRequest&) { return ServerReply::ok("{}"); }, options);
        NBHttpClient client(server.url("/h"));
        Calls calls;
        client.request(calls.completion(), true);
        QVERIFY(calls.waitForCompletions(1, 10000));
        QCOMPARE(calls.last().networkError, 0);
        QCOMPARE(calls.last().body, QString("{}"));
        QCOMPARE(server.lastRequest().method, QByteArray("GET"));
        QCOMPARE(server.lastRequest().version, QByteArray("HTTP/1.1"));
        QVERIFY(server.lastRequest().encrypted);
    }

    // The form's head as Qt 5 writes it, its length that of the body that follows.
    void aMultipartFormsHead()
    {
        TestServer server;
        const QString path = m_dir.filePath("part.bin");
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(randomBytes(100000));
        file.close();
        for (const QString& source : { path, QString() }) {
            NBHttpClient client(server.url("/form"));
            client.param("name", QString::fromUtf8("名字 & more"));
            client.param("size", "100000");
            client.header("Cookie", "X-NIMBRA-SESS-ID=s");
            Calls calls;
            client.mulitUpload(source, QByteArray(12345, 'x'), calls.uploadProgress(), calls.completion());
            QVERIFY(calls.waitForCompletions(1, 10000));
            QCOMPARE(calls.last().networkError, 0);
            const RecordedRequest request = server.lastRequest();
            QCOMPARE(request.headerNames(),
                (QList<QByteArray> { "Host", "Cookie", "Content-Type", "MIME-Version", "Content-Length",
                    "Connection", "Accept-Encoding", "Accept-Language", "User-Agent" }));
            QCOMPARE(request.header("Content-Length"), QByteArray::number(request.body.size()));
            QCOMPARE(request.header("MIME-Version"), QByteArray("1.0"));
            QVERIFY(request.body.endsWith("--\r\n"));
        }
    }

    // The decoder on its own: pieces of any size, the end of the stream, damage.
    void theInflaterTakesPiecesOfAnySize()
    {
        QVERIFY(!NBInflater::forCoding("identity"));
        QVERIFY(!NBInflater::forCoding("br"));
        QVERIFY(!NBInflater::forCoding("x-gzip"));
        QVERIFY(NBInflater::forCoding(" GZIP"));
        QVERIFY(!NBInflater::forCoding(QByteArray()));
        const QByteArray text = jsonText(200000);
        const QByteArray coded = compress(text, 31);
        for (int step : { 1, 7, 4096, int(coded.size()) }) {
            const auto inflater = NBInflater::forCoding("gzip");
            QByteArray out;
            for (int at = 0; at < coded.size(); at += step)
                out += inflater->inflate(coded.mid(at, step));
            QVERIFY(!inflater->failed());
            QCOMPARE(out, text);
            QCOMPARE(inflater->inflate("trailing bytes"), QByteArray());
        }
        const auto damaged = NBInflater::forCoding("deflate");
        QByteArray broken = compress(text, 15);
        broken[100] = char(broken[100] ^ 0x55);
        damaged->inflate(broken);
        QVERIFY(damaged->failed());
        QCOMPARE(damaged->inflate(compress("x", 15)), QByteArray());
    }
};

NB_TEST_MAIN(TestTransport)
#include "tst_transport.moc"
