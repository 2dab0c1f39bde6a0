// The request engine on the wire: how a request is built and sent, and the record
// its completion receives.
#include "Calls.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "TestLog.h"
#include "TestMain.h"
#include "TestServer.h"
#include "Wait.h"

#include <QEventLoop>
#include <QTcpServer>
#include <QThread>
#include <QTimer>
#include <atomic>

namespace {

const QByteArray FormType = "application/x-www-form-urlencoded;application/json";

// Sends the client's request and waits for its first completion; the test owns the client.
ResponseData send(NBHttpClient& client, Calls& calls, bool followRedirects = true)
{
    client.request(calls.completion(), followRedirects);
    if (!calls.waitForCompletions(1))
        qWarning("no completion");
    return calls.completions.value(0);
}

// The targets requested, in the order of their first arrival: the network layer's
// redirect following now and then sends a request twice, on another connection, so
// that the copy may arrive after later hops.
QList<QByteArray> hopsRequested(const TestServer& server)
{
    QList<QByteArray> targets;
    for (const RecordedRequest& r : server.requests()) {
        if (!targets.contains(r.target))
            targets.append(r.target);
    }
    return targets;
}

quint16 closedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

} // namespace

class TestRequestDispatcher : public QObject
{
    Q_OBJECT
private slots:
    void init() { NBHttpClientManager::manager()->setVerifyCode(QString()); }

    // Each row: what the caller sets on the handle, and the request the server must
    // receive, whole ("{host}" stands for the server's address).
    void requestOnTheWire_data()
    {
        QTest::addColumn<int>("method");
        QTest::addColumn<QStringList>("params");
        QTest::addColumn<QStringList>("headers");
        QTest::addColumn<QString>("verifyCode");
        QTest::addColumn<QByteArray>("wire");
        // What the network layer adds to every request by itself.
        const QByteArray qt = "Connection: Keep-Alive\nAccept-Encoding: gzip, deflate\n"
                              "Accept-Language: en,*\nUser-Agent: Mozilla/5.0\n";
        const QByteArray form = "Content-Type: " + FormType + "\n";
        QTest::newRow("GET, parameters in the query")
            << int(GET) << QStringList { "a", "1", "b", "x y" } << QStringList() << QString()
            << "GET /p?a=1&b=x%20y\nHost: {host}\nAccept: */*\n" + qt + "\n";
        QTest::newRow("POST, parameters as the body")
            << int(POST) << QStringList { "a", "1", "b", "x y" } << QStringList() << QString()
            << "POST /p\nHost: {host}\n" + form + "Content-Length: 11\n" + qt + "\na=1&b=x%20y";
        QTest::newRow("PUT, parameters as the body")
            << int(PUT) << QStringList { "a", "1" } << QStringList() << QString()
            << "PUT /p\nHost: {host}\n" + form + "Content-Length: 3\n" + qt + "\na=1";
        QTest::newRow("DELETE, no parameters sent")
            << int(DELETE) << QStringList { "a", "1" } << QStringList() << QString()
            << "DELETE /p\nHost: {host}\n" + form + qt + "\n";
        QTest::newRow("values encoded as UTF-8, keys and repeats kept")
            << int(GET) << QStringList { "q", "a&b=c+d/é~_.-", "q", "again", "k y", "v" } << QStringList()
            << QString()
            << "GET /p?q=a%26b%3Dc%2Bd%2F%C3%A9~_.-&q=again&k%20y=v\nHost: {host}\nAccept: */*\n" + qt + "\n";
        QTest::newRow("GET, empty values keep their equals sign")
            << int(GET) << QStringList { "path", QString(), "type", "" } << QStringList() << QString()
            << "GET /p?path=&type=\nHost: {host}\nAccept: */*\n" + qt + "\n";
        QTest::newRow("POST, empty value keeps its equals sign")
            << int(POST) << QStringList { "path", QString() } << QStringList() << QString()
            << "POST /p\nHost: {host}\n" + form + "Content-Length: 5\n" + qt + "\npath=";
        QTest::newRow("fixed Content-Type replaces the caller's")
            << int(POST) << QStringList()
            << QStringList { "Content-Type", "text/plain", "Accept", "text/html" } << QString()
            << "POST /p\nHost: {host}\n" + form + "Accept: text/html\nContent-Length: 0\n" + qt + "\n";
        QTest::newRow("headers in the order first set, raw UTF-8")
            << int(GET) << QStringList()
            << QStringList { "X-First", "1", "X-Name", "wért 名字", "X-First", "replaced" } << QString()
            << "GET /p\nHost: {host}\nX-First: replaced\nX-Name: " + QString("wért 名字").toUtf8()
                + "\nAccept: */*\n" + qt + "\n";
        QTest::newRow("cookie merged with the verification code")
            << int(GET) << QStringList() << QStringList { "Cookie", "a=1; b=2" } << QString("v3rify")
            << "GET /p\nHost: {host}\nAccept: */*\nCookie: S=v3rify; a=1; b=2\n" + qt + "\n";
        QTest::newRow("no cookie, no verification cookie")
            << int(GET) << QStringList() << QStringList() << QString("v3rify")
            << "GET /p\nHost: {host}\nAccept: */*\n" + qt + "\n";
        QTest::newRow("cookie without verification code")
            << int(GET) << QStringList() << QStringList { "Cookie", "language=zh;X-NIMBRA-SESS-ID=abc;" }
            << QString()
            << "GET /p\nHost: {host}\nAccept: */*\nCookie: language=zh; X-NIMBRA-SESS-ID=abc\n" + qt + "\n";
    }

    void requestOnTheWire()
    {
        QFETCH(int, method);
        QFETCH(QStringList, params);
        QFETCH(QStringList, headers);
        QFETCH(QString, verifyCode);
        QFETCH(QByteArray, wire);
        if (!verifyCode.isEmpty())
            NBHttpClientManager::manager()->setVerifyCode(verifyCode);
        TestServer server;
        NBHttpClient client(server.url("/p"));
        client.httpMethod(NBHttpMethod(method));
        for (int i = 0; i + 1 < params.size(); i += 2)
            client.param(params[i], params[i + 1]);
        for (int i = 0; i + 1 < headers.size(); i += 2)
            client.header(headers[i], headers[i + 1]);
        Calls calls;
        send(client, calls);
        QCOMPARE(server.requestCount(), 1);
        const QByteArray host = QUrl(server.url("/")).authority().toLatin1();
        QCOMPARE(server.lastRequest().wireText(), wire.replace("{host}", host));
        // The handle keeps the address as sent, query included.
        QCOMPARE(client.url(), server.url(QString::fromLatin1(server.lastRequest().target)));
    }

    void recordOfA204HasNoBody()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::withStatus(204); });
        NBHttpClient client(server.url("/p"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.body, QString());
        QCOMPARE(r.statusCode, 204);
        QCOMPARE(r.networkError, 0);
        QCOMPARE(r.errorString, QString("Unknown error"));
        QCOMPARE(calls.completions.size(), 1);
    }

    void multiLineBodyLosesItsLineBreaks()
    {
        TestServer server(
            [](const RecordedRequest&) { return ServerReply::ok("{\n  \"a\": 1,\r\n  \"b\": \"é\"\n}\n"); });
        NBHttpClient client(server.url("/p"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.body, QString("{  \"a\": 1,  \"b\": \"é\"}"));
        QCOMPARE(r.statusCode, 200);
    }

    void recordCarriesEveryReplyHeaderWithRepeatsJoined()
    {
        TestServer server([](const RecordedRequest&) {
            return ServerReply::ok("{}")
                .header("X-Repeat", "1")
                .header("X-Repeat", "2")
                .header("x-lower", "v");
        });
        NBHttpClient client(server.url("/p"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.headers.value("X-Repeat"), QByteArray("1, 2"));
        QCOMPARE(r.headers.value("x-lower"), QByteArray("v"));
        QCOMPARE(r.headers.value("Content-Type"), QByteArray("application/json"));
        QCOMPARE(r.headers.value("Content-Length"), QByteArray("2"));
        QCOMPARE(r.headers.size(), 4);
    }

    void connectionRefusedIsARecord()
    {
        NBHttpClient client(QStringLiteral("http://127.0.0.1:%1/p").arg(closedPort()));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.statusCode, 0);
        QCOMPARE(r.networkError, 1);
        QCOMPARE(r.errorString, QString("Connection refused"));
        QVERIFY(r.headers.isEmpty());
        QCOMPARE(r.body, QString());
        QTest::qWait(50);
        QCOMPARE(calls.completions.size(), 1);
    }

    void notFoundKeepsTheServersBody()
    {
        TestServer server(
            [](const RecordedRequest&) { return ServerReply::withStatus(404, "{\"errcode\":\"nf\"}"); });
        NBHttpClient client(server.url("/missing"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.statusCode, 404);
        QCOMPARE(r.networkError, 203);
        QCOMPARE(r.body, QString("{\"errcode\":\"nf\"}"));
        QVERIFY(r.errorString.contains("Not Found"));
    }

    void dataCallbackBodyStopsAtTheFirstZeroByte()
    {
        const QByteArray payload = QByteArray("head") + '\0' + QByteArray("tail");
        TestServer server([payload](const RecordedRequest&) {
            return ServerReply::ok(payload, "application/octet-stream");
        });
        NBHttpClient client(server.url("/bin"));
        Calls calls;
        client.download(calls.data(), calls.downloadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.joinedPieces(), payload);
        QCOMPARE(calls.last().body, QString("head"));
        QCOMPARE(calls.last().statusCode, 200);
    }

    void unknownMethodSendsNothingAndCallsNothing()
    {
        TestServer server;
        TestLog log;
        NBHttpClient client(server.url("/p"));
        client.httpMethod(NBHttpMethod(7));
        Calls calls;
        client.request(calls.completion(), true);
        QTest::qWait(300);
        QCOMPARE(server.requestCount(), 0);
        QCOMPARE(server.connectionCount(), 0);
        QVERIFY(calls.completions.isEmpty());
        QVERIFY(client.dispatcher()->reply() == nullptr);
        QVERIFY2(log.has("ERROR", "start", QString::fromUtf8("不支持的请求方法: 7，请求未发送")),
            qPrintable(log.dump()));
        client.cancel();
        QVERIFY(calls.completions.isEmpty());
    }

    void addressThatIsNotAUrlIsARecord()
    {
        NBHttpClient client(QStringLiteral("not a url"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.statusCode, 0);
        QCOMPARE(r.networkError, 301);
        QCOMPARE(r.errorString, QString("Protocol \"\" is unknown"));
        QCOMPARE(calls.completions.size(), 1);
    }

    void emptyAddressIsARecord()
    {
        NBHttpClient client { QString() };
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.statusCode, 0);
        QCOMPARE(r.networkError, 301);
    }

    void closedMidBodyCarriesTheNetworkError()
    {
        TestServer server([](const RecordedRequest&) {
            return ServerReply::cut(ServerReply::Mode::CloseMidBody, QByteArray(1000, 'x'), 400);
        });
        TestLog log;
        NBHttpClient client(server.url("/p"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.statusCode, 200);
        QCOMPARE(r.networkError, 2);
        QCOMPARE(r.errorString, QString("Connection closed"));
        QVERIFY2(log.has("ERROR", "LogFinished", "status code: 2 Connection closed"), qPrintable(log.dump()));
        QVERIFY(log.has("ERROR", "LogFinished", QString::fromUtf8("[失败] 请求结束: Connection closed")));
        QTest::qWait(50);
        QCOMPARE(calls.completions.size(), 1);
    }

    void bodyCutShortIsNeverReportedWhole()
    {
        // The network layer alone lets most of these pass without error.
        TestServer server([](const RecordedRequest&) {
            return ServerReply::cut(ServerReply::Mode::CloseMidBody, QByteArray(1 << 20, 'c'), 300000);
        });
        for (int i = 0; i < 20; ++i) {
            TestLog log;
            NBHttpClient client(server.url("/cut"));
            Calls calls;
            const ResponseData r = send(client, calls);
            QCOMPARE(r.networkError, 2);
            QCOMPARE(r.errorString, QString("Connection closed"));
            QCOMPARE(r.body.size(), 300000);
            const bool flagged = log.has("ERROR", "handleFinish",
                QString::fromUtf8("响应数据不完整: 收到 300000 字节, Content-Length 1048576"));
            QVERIFY(flagged
                || log.has("FATAL", "operator()",
                    QString::fromUtf8("QNetworkReply错误码: 2 原因:Connection closed")));
        }
    }

    void bodyEndedByClosingWithoutALengthIsWhole()
    {
        TestServer server([](const RecordedRequest&) {
            ServerReply reply = ServerReply::ok(QByteArray(100000, 'w'), "text/plain");
            reply.sendContentLength = false;
            return reply;
        });
        NBHttpClient client(server.url("/close-delimited"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.networkError, 0);
        QCOMPARE(r.body.size(), 100000);
    }

    void resetMidBodyCarriesTheNetworkError()
    {
        TestServer server([](const RecordedRequest&) {
            return ServerReply::cut(ServerReply::Mode::ResetMidBody, QByteArray(100000, 'x'), 5000);
        });
        NBHttpClient client(server.url("/p"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.statusCode, 200);
        QCOMPARE(r.networkError, 2);
        QTest::qWait(50);
        QCOMPARE(calls.completions.size(), 1);
    }

    void callbacksRunOnTheThreadThatStartedTheRequest()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::ok(QByteArray(300000, 'j')); });
        // The worker starts the request and runs its own loop until the completion: thread
        // start and join are the only hand-overs, which a thread sanitizer sees.
        QThread* seen = nullptr;
        QThread* worker = nullptr;
        bool otherThread = false;
        int completions = 0;
        worker = QThread::create([&] {
            QEventLoop loop;
            NBHttpClient client(server.url("/p"));
            const auto check = [&] {
                otherThread = otherThread || QThread::currentThread() != worker;
            };
            client.download([&](const QByteArray&) { check(); },
                [&](const DownloadProgressData&) { check(); },
                [&](const ResponseData&) {
                    seen = QThread::currentThread();
                    ++completions;
                    loop.quit();
                });
            QTimer::singleShot(10000, &loop, &QEventLoop::quit);
            loop.exec();
            QTest::qWait(50);
        });
        worker->start();
        QVERIFY(worker->wait(20000));
        QCOMPARE(seen, worker);
        QVERIFY(!otherThread);
        QCOMPARE(completions, 1);
        delete worker;
    }

    void httpsToASelfSignedServerSucceeds()
    {
        TestServerOptions options;
        options.tls = true;
        TestServer server([](const RecordedRequest&) { return ServerReply::ok("{\"tls\":true}"); }, options);
        NBHttpClient client(server.url("/secure"));
        client.param("a", "1");
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.networkError, 0);
        QCOMPARE(r.statusCode, 200);
        QCOMPARE(r.body, QString("{\"tls\":true}"));
        QCOMPARE(server.lastRequest().target, QByteArray("/secure?a=1"));
    }

    void traceOfASuccessfulGet()
    {
        TestServer server(
            [](const RecordedRequest&) { return ServerReply::ok("{}").header("Set-Cookie", "sid=42"); });
        TestLog log;
        NBHttpClient client(server.url("/trace"));
        client.param("a", "x y");
        client.header("Cookie", "k=v");
        Calls calls;
        send(client, calls);
        const QList<LogEntry> entries = log.entries();
        QStringList seen;
        for (const LogEntry& e : entries) {
            QCOMPARE(e.file, QString("NBHttpClient.cpp"));
            seen << e.level + ' ' + e.function + ' ' + e.message;
        }
        const QString address = server.url("/trace?a=x%20y");
        const QStringList expected {
            QString::fromUtf8("INFO createRequest 请求地址：%1").arg(address),
            QString::fromUtf8("INFO createRequest 参数:\na=x%20y\n"),
            QString::fromUtf8("INFO createRequest Request Header:\nCookie : k=v \nAccept : */* \n"),
            QString::fromUtf8("FATAL operator() 请求结束"),
            QString::fromUtf8("INFO LogFinished 处理响应数据"),
            QString::fromUtf8("INFO LogFinished Cookie:\nk : v\nsid : 42\n"),
            QString::fromUtf8(
                "INFO LogFinished "
                "Header:\nContent-Type:application/json\nSet-Cookie:sid=42\nContent-Length:2\n"),
        };
        QCOMPARE(seen, expected);
    }

    void traceOfAServerError()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::withStatus(500, "boom"); });
        TestLog log;
        NBHttpClient client(server.url("/fail"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.statusCode, 500);
        QCOMPARE(r.networkError, 401);
        QStringList seen;
        for (const LogEntry& e : log.entries()) {
            if (e.function != "createRequest")
                seen << e.level + ' ' + e.function + ' ' + e.message;
        }
        const QString url = server.url("/fail");
        const QString errorText = r.errorString;
        const QStringList expected {
            QString::fromUtf8("FATAL operator() QNetworkReply错误码: 401 原因:%1").arg(errorText),
            QString::fromUtf8("FATAL operator() 请求结束"),
            QString::fromUtf8("INFO LogFinished 处理响应数据"),
            QString::fromUtf8(
                "ERROR LogFinished request error. [status]500, [reason]Internal Server Error, [msg]%1, "
                "[url]%2[network code] 401")
                .arg(errorText, url),
            QString::fromUtf8("INFO LogFinished Cookie:\n"),
            QString::fromUtf8("INFO LogFinished Header:\nContent-Length:4\n"),
            QString::fromUtf8("ERROR LogFinished [失败] 请求结束: %1").arg(errorText),
        };
        QCOMPARE(seen, expected);
    }

    void traceOfANotFoundReadsAsDocumented()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::withStatus(404); });
        TestLog log;
        NBHttpClient client(server.url("/nf"));
        Calls calls;
        const ResponseData r = send(client, calls);
        const QString line = QStringLiteral(
            "request error. [status]404, [reason]Not Found, [msg]%1, [url]%2[network code] 203")
                                 .arg(r.errorString, server.url("/nf"));
        QVERIFY2(log.has("ERROR", "LogFinished", line), qPrintable(log.dump()));
    }

    void statusLineNamesTheRequestedAddressAfterRedirects()
    {
        TestServer server([](const RecordedRequest& r) {
            return r.target == "/moved" ? ServerReply::redirect("/gone") : ServerReply::withStatus(404);
        });
        TestLog log;
        NBHttpClient client(server.url("/moved"));
        Calls calls;
        const ResponseData r = send(client, calls, true);
        QCOMPARE(r.statusCode, 404);
        const QString line = QStringLiteral(
            "request error. [status]404, [reason]Not Found, [msg]%1, [url]%2[network code] 203")
                                 .arg(r.errorString, server.url("/moved"));
        QVERIFY2(log.has("ERROR", "LogFinished", line), qPrintable(log.dump()));
    }

    void parameterLineShowsKeysAsGivenAndValuesEncoded()
    {
        TestServer server;
        TestLog log;
        NBHttpClient client(server.url("/p"));
        client.param("k y", "a&b");
        Calls calls;
        send(client, calls);
        QCOMPARE(server.lastRequest().target, QByteArray("/p?k%20y=a%26b"));
        QVERIFY2(log.has("INFO", "createRequest", QString::fromUtf8("参数:\nk y=a%26b\n")),
            qPrintable(log.dump()));
    }

    void redirectIsDeliveredAsItIsWhenNotFollowed()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::redirect("/elsewhere"); });
        NBHttpClient client(server.url("/start"));
        Calls calls;
        const ResponseData r = send(client, calls, false);
        QCOMPARE(r.statusCode, 302);
        QCOMPARE(r.networkError, 0);
        QCOMPARE(r.headers.value("Location"), QByteArray("/elsewhere"));
        QCOMPARE(server.requestCount(), 1);
    }

    // "/hop/N" redirects to "/hop/N-1"; "/hop/0" answers.
    static ServerReply hops(const RecordedRequest& request)
    {
        const int n = request.path().mid(5).toInt();
        if (n == 0)
            return ServerReply::ok("{\"landed\":true}");
        return ServerReply::redirect("/hop/" + QByteArray::number(n - 1));
    }

    void fiveRedirectsAreFollowedAndTraced()
    {
        TestServer server(hops);
        TestLog log;
        NBHttpClient client(server.url("/hop/5"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.statusCode, 200);
        QCOMPARE(r.body, QString("{\"landed\":true}"));
        QCOMPARE(hopsRequested(server),
            (QList<QByteArray> { "/hop/5", "/hop/4", "/hop/3", "/hop/2", "/hop/1", "/hop/0" }));
        for (int n = 4; n >= 0; --n) {
            const QString line
                = QString::fromUtf8("[重定向]请求url: %1").arg(server.url(QStringLiteral("/hop/%1").arg(n)));
            QVERIFY2(log.has("FATAL", "operator()", line), qPrintable(log.dump()));
        }
    }

    void sixRedirectsEndInTooManyRedirects()
    {
        TestServer server(hops);
        NBHttpClient client(server.url("/hop/6"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.networkError, 10);
        QCOMPARE(r.errorString, QString("Too many redirects"));
        // The network layer follows on its own thread and now and then sends the next
        // request before it notices the limit.
        QList<QByteArray> hops { "/hop/6", "/hop/5", "/hop/4", "/hop/3", "/hop/2", "/hop/1" };
        const QList<QByteArray> requested = hopsRequested(server);
        if (requested.size() == 7)
            hops.append("/hop/0");
        QCOMPARE(requested, hops);
        QTest::qWait(50);
        QCOMPARE(calls.completions.size(), 1);
    }

    void redirectLoopEndsInTooManyRedirects()
    {
        TestServer server([](const RecordedRequest& request) {
            return ServerReply::redirect(request.path() == "/a" ? "/b" : "/a", 301);
        });
        NBHttpClient client(server.url("/a"));
        Calls calls;
        const ResponseData r = send(client, calls);
        QCOMPARE(r.networkError, 10);
        QCOMPARE(calls.completions.size(), 1);
    }

    void destroyingAHandleReleasesItsDispatcherLater()
    {
        TestServer server;
        TestLog log;
        auto* client = new NBHttpClient(server.url("/p"));
        QPointer<RequestDispatcher> dispatcher = client->dispatcher();
        Calls calls;
        client->request(calls.completion([&](const ResponseData&) { delete client; }), true);
        QVERIFY(calls.waitForCompletions(1));
        QVERIFY(log.has("INFO", "~NBHttpClient", "~NBHttpClient()"));
        QVERIFY(waitUntil([&] { return dispatcher.isNull(); }, 5000));
        QVERIFY(log.has("INFO", "~RequestDispatcher", "~RequestDispatcher()"));
    }
};

NB_TEST_MAIN(TestRequestDispatcher)
#include "tst_requestdispatcher.moc"
