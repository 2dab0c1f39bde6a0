// nbemu's HTTP from raw sockets, as a hostile or merely unusual client speaks it: every
// request on a connection gets exactly its own reply, in order; a body is never read
// as a request; malformed framing is refused with the documented error object and the
// connection closed; the control interface answers only its own address.
#include "EmuProcess.h"
#include "RawHttp.h"
#include "TestMain.h"

#include <QElapsedTimer>
#include <QJsonArray>

namespace {

// Whether the reply's body is the documented error object with this status.
bool isErrorObject(const RawReply& reply)
{
    const QJsonObject body = reply.json();
    return body.value("state").toInt() == reply.status
        && body.value("type").toString() == QLatin1String("error")
        && body.value("msgcode").toString() == QStringLiteral("E%1").arg(reply.status)
        && body.contains("code") && body.contains("message");
}

QStringList targetsLogged(const EmuProcess& emu)
{
    QStringList targets;
    for (const QJsonObject& line : emu.requests())
        targets << line.value("target").toString();
    return targets;
}

} // namespace

class TestNBEmuHttp : public QObject
{
    Q_OBJECT

private slots:
    void pipelinedRequestsAreEachAnsweredInOrder()
    {
        EmuProcess emu;
        const quint16 port = emu.port();
        const QByteArray pipeline = rawRequest("GET", "/__emu/health", port)
            + rawForm("/__emu/tasks", port, "polls=3") + rawRequest("GET", "/", port)
            + rawForm("/__emu/tasks", port, "polls=1")
            + rawRequest("GET", "/v2/no/such", port, { "Connection: close" });
        const RawExchange exchange = rawExchange(port, pipeline);
        QCOMPARE(exchange.replies.size(), 5);
        QCOMPARE(exchange.replies[0].json().value("ok").toBool(), true);
        QCOMPARE(exchange.replies[1].json().value("polls").toInt(), 3);
        QCOMPARE(exchange.replies[2].json().value("server").toString(), QString("nbemu"));
        QCOMPARE(exchange.replies[3].json().value("polls").toInt(), 1);
        QCOMPARE(exchange.replies[4].status, 501);
        QVERIFY(exchange.closed);
    }

    // Requests refused before their body was read: the body is read and thrown away (or
    // the connection closes), never parsed as the next request.
    void aRefusedBodyIsNeverReadAsARequest_data()
    {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<bool>("signedIn");
        QTest::addColumn<int>("status");
        QTest::newRow("upload without a session")
            << QByteArray("POST") << QByteArray("/v2/files/databox/a.txt") << false << 401;
        QTest::newRow("chunk without a session")
            << QByteArray("POST") << QByteArray("/v2/chunked_upload?hash=00") << false << 401;
        QTest::newRow("upload, unknown path type")
            << QByteArray("POST") << QByteArray("/v2/files/databox/a.txt?path_type=x") << true << 400;
        QTest::newRow("upload, bad path")
            << QByteArray("POST") << QByteArray("/v2/files/databox/a/%2E%2E/b") << true << 400;
        QTest::newRow("route not emulated")
            << QByteArray("POST") << QByteArray("/v2/no/such/route") << true << 501;
        QTest::newRow("a body on GET") << QByteArray("GET") << QByteArray("/v2/region/get") << true << 413;
        QTest::newRow("injected status")
            << QByteArray("POST") << QByteArray("/v2/files/databox/faulty.txt") << true << 503;
    }

    void aRefusedBodyIsNeverReadAsARequest()
    {
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, target);
        QFETCH(bool, signedIn);
        QFETCH(int, status);
        EmuProcess emu({ "--user", "alice:secret", "--fault", "/v2/files/databox/faulty.txt:status=503" });
        const quint16 port = emu.port();
        const QByteArray session = signedIn ? rawSession(port, "alice", "secret") : QByteArray();
        QList<QByteArray> headers;
        if (!session.isEmpty())
            headers << session;
        // The body is itself a request: were it read as one, the log would show it.
        const QByteArray smuggled = rawRequest("POST", "/__emu/reset?smuggled", port, {}, "to=empty");
        const QByteArray request = rawRequest(method, target, port, headers, smuggled)
            + rawRequest("GET", "/__emu/health", port, { "Connection: close" });
        const RawExchange exchange = rawExchange(port, request);
        QCOMPARE(exchange.replies.size(), 2);
        QCOMPARE(exchange.replies[0].status, status);
        QVERIFY(isErrorObject(exchange.replies[0]));
        QCOMPARE(exchange.replies[1].json().value("ok").toBool(), true);
        QVERIFY(!targetsLogged(emu).join(' ').contains("smuggled"));
    }

    // Too large to read and throw away: the reply closes the connection.
    void aLargeRefusedBodyClosesTheConnection()
    {
        EmuProcess emu;
        const quint16 port = emu.port();
        const QByteArray head = "POST /v2/files/databox/big.bin HTTP/1.1\r\nHost: 127.0.0.1:"
            + QByteArray::number(port) + "\r\nContent-Length: 1000000000\r\n\r\n";
        const RawExchange exchange = rawExchange(port, head + QByteArray(100000, 'x'));
        QCOMPARE(exchange.replies.size(), 1);
        QCOMPARE(exchange.replies[0].status, 401);
        QCOMPARE(exchange.replies[0].header("Connection").toLower(), QByteArray("close"));
        QVERIFY(exchange.closed);
    }

    void aPostWithoutLengthHasNoBody()
    {
        EmuProcess emu;
        const quint16 port = emu.port();
        QElapsedTimer clock;
        clock.start();
        const RawExchange exchange = rawExchange(port,
            "POST /__emu/reset HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port)
                + "\r\nConnection: close\r\n\r\n");
        QCOMPARE(exchange.replies.size(), 1);
        QCOMPARE(exchange.replies[0].status, 200);
        QVERIFY2(clock.elapsed() < 5000, "answered at once, not after a read time-out");
    }

    void malformedFramingIsRefusedAndCloses_data()
    {
        QTest::addColumn<QByteArray>("framing");
        QTest::addColumn<int>("status");
        QTest::newRow("length not a number") << QByteArray("Content-Length: abc") << 400;
        QTest::newRow("negative length") << QByteArray("Content-Length: -5") << 400;
        QTest::newRow("two lengths") << QByteArray("Content-Length: 2\r\nContent-Length: 3") << 400;
        QTest::newRow("length and chunked")
            << QByteArray("Content-Length: 2\r\nTransfer-Encoding: chunked") << 400;
        QTest::newRow("gzip coding") << QByteArray("Transfer-Encoding: gzip") << 501;
        QTest::newRow("gzip, then chunked") << QByteArray("Transfer-Encoding: gzip, chunked") << 501;
        QTest::newRow("garbage request line") << QByteArray("X") << 400;
    }

    void malformedFramingIsRefusedAndCloses()
    {
        QFETCH(QByteArray, framing);
        QFETCH(int, status);
        EmuProcess emu;
        const quint16 port = emu.port();
        QByteArray request = "POST /__emu/reset HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port)
            + "\r\n" + framing + "\r\n\r\nto=seed";
        if (framing == "X")
            request = "GARBAGE\x01 / HTTP/9\r\n\r\n";
        const RawExchange exchange = rawExchange(port, request, 3000);
        QCOMPARE(exchange.replies.size(), 1);
        QCOMPARE(exchange.replies[0].status, status);
        QVERIFY(isErrorObject(exchange.replies[0]));
        QVERIFY(exchange.closed);
        QVERIFY(!targetsLogged(emu).contains("/__emu/reset"));
    }

    void theHttpLayersOwnRefusalsHaveTheErrorShape_data()
    {
        QTest::addColumn<QByteArray>("request");
        QTest::addColumn<int>("status");
        QTest::newRow("address too long")
            << QByteArray("GET /" + QByteArray(40000, 'a') + " HTTP/1.1\r\nHost: x\r\n\r\n") << 414;
        QByteArray many = "GET / HTTP/1.1\r\nHost: x\r\n";
        for (int i = 0; i < 800; ++i)
            many += "X-Filler-" + QByteArray::number(i) + ": " + QByteArray(80, 'f') + "\r\n";
        QTest::newRow("head too large") << many + "\r\n" << 431;
        QTest::newRow("one header too large")
            << QByteArray("GET / HTTP/1.1\r\nHost: x\r\nX-Big: " + QByteArray(66000, 'b') + "\r\n\r\n")
            << 431;
        QTest::newRow("unknown expectation") << QByteArray(
            "POST /__emu/reset HTTP/1.1\r\nHost: x\r\nExpect: magic\r\nContent-Length: 0\r\n\r\n")
                                             << 417;
    }

    void theHttpLayersOwnRefusalsHaveTheErrorShape()
    {
        QFETCH(QByteArray, request);
        QFETCH(int, status);
        EmuProcess emu;
        const RawExchange exchange = rawExchange(emu.port(), request, 3000);
        QCOMPARE(exchange.replies.size(), 1);
        QCOMPARE(exchange.replies[0].status, status);
        QVERIFY(isErrorObject(exchange.replies[0]));
        QVERIFY(exchange.closed);
    }

    // A name is text: an escape that is none, or bytes that are no UTF-8, are refused.
    void pathsAreDecodedStrictly_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<int>("status");
        QTest::newRow("not hex") << QByteArray("bad%ZZ.txt") << 400;
        QTest::newRow("cut short") << QByteArray("bad%4") << 400;
        QTest::newRow("no UTF-8") << QByteArray("bad%FF%FE.txt") << 400;
        QTest::newRow("a line break") << QByteArray("line%0Abreak.txt") << 200;
        QTest::newRow("UTF-8") << QByteArray("%C3%BC.txt") << 200;
    }

    void pathsAreDecodedStrictly()
    {
        QFETCH(QByteArray, name);
        QFETCH(int, status);
        EmuProcess emu;
        const quint16 port = emu.port();
        const QByteArray session = rawSession(port, "alice", "secret");
        const RawExchange exchange = rawExchange(port,
            rawRequest("POST", "/v2/files/databox/" + name, port, { session, "Connection: close" }, "x"));
        QCOMPARE(exchange.replies.value(0).status, status);
        if (status == 400)
            QCOMPARE(exchange.replies.value(0).json().value("code").toString(), QString("invalid path"));
    }

    // "S" from the form wins over the query's, as every parameter does.
    void theFormsVerificationCodeWins()
    {
        EmuProcess emu({ "--user", "alice:secret", "--verify-code", "VC1" }, 0);
        const quint16 port = emu.port();
        const auto status = [&](const QByteArray& query, const QByteArray& form) {
            return rawExchange(port,
                rawForm("/v2/user/login" + query, port, "user_slug=alice&password=secret&" + form,
                    { "Connection: close" }))
                .replies.value(0)
                .status;
        };
        QCOMPARE(status("?S=bad", "S=VC1"), 200);
        QCOMPARE(status("?S=VC1", "S=bad"), 403);
        QCOMPARE(status("?S=VC1", ""), 200);
    }

    void aChunkedBodyIsReadWhole()
    {
        EmuProcess emu;
        const quint16 port = emu.port();
        const QByteArray session = rawSession(port, "alice", "secret");
        const QByteArray request = "POST /v2/files/databox/chunked.txt HTTP/1.1\r\nHost: 127.0.0.1:"
            + QByteArray::number(port) + "\r\n" + session
            + "\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n"
            + rawRequest("GET", "/v2/files/databox/chunked.txt", port, { session, "Connection: close" });
        const RawExchange exchange = rawExchange(port, request);
        QCOMPARE(exchange.replies.size(), 2);
        QCOMPARE(exchange.replies[0].json().value("bytes").toInt(), 11);
        QCOMPARE(exchange.replies[1].body, QByteArray("hello world"));
    }

    void expectContinueIsAnsweredOrRefused()
    {
        EmuProcess emu;
        const quint16 port = emu.port();
        const QByteArray session = rawSession(port, "alice", "secret");
        // Signed in: "100 Continue", then the body, then the reply.
        const RawExchange accepted = rawExchange(port,
            rawRequest("POST", "/v2/files/databox/expect.txt", port,
                { session, "Expect: 100-continue", "Content-Length: 4", "Connection: close" }, QByteArray(),
                false),
            800, 15000, "data");
        QCOMPARE(accepted.replies.size(), 2);
        QCOMPARE(accepted.replies[0].status, 100);
        QCOMPARE(accepted.replies[1].json().value("bytes").toInt(), 4);
        // Refused before the body: no go-ahead, and the connection closes (the client
        // sends no body that could be read as a request).
        const RawExchange refused = rawExchange(port,
            rawRequest("POST", "/v2/files/databox/expect.txt", port,
                { "Expect: 100-continue", "Content-Length: 4" }, QByteArray(), false));
        QCOMPARE(refused.replies.size(), 1);
        QCOMPARE(refused.replies[0].status, 401);
        QVERIFY(refused.closed);
    }

    void headIsAnsweredWithoutBody()
    {
        EmuProcess emu;
        const quint16 port = emu.port();
        const RawExchange exchange = rawExchange(
            port, rawRequest("HEAD", "/", port) + rawRequest("GET", "/", port, { "Connection: close" }));
        // The HEAD reply's announced length belongs to no body: the next reply follows its head.
        const int second = exchange.bytes.indexOf("HTTP/1.1 200", 10);
        QVERIFY(second > 0);
        const QByteArray head = exchange.bytes.left(second);
        QVERIFY(head.endsWith("\r\n\r\n"));
        QVERIFY(splitReplies(head + "\r\n").value(0).header("Content-Length").toInt() > 0);
        const QList<RawReply> rest = splitReplies(exchange.bytes.mid(second));
        QCOMPARE(rest.size(), 1);
        QCOMPARE(rest[0].json().value("server").toString(), QString("nbemu"));
    }

    void theControlInterfaceAnswersOnlyItsOwnAddress_data()
    {
        QTest::addColumn<QByteArray>("headers");
        QTest::addColumn<int>("status");
        QTest::newRow("own address") << QByteArray("Host: 127.0.0.1:PORT") << 200;
        QTest::newRow("localhost") << QByteArray("Host: localhost:PORT") << 200;
        QTest::newRow("own origin") << QByteArray("Host: 127.0.0.1:PORT\r\nOrigin: http://127.0.0.1:PORT")
                                    << 200;
        QTest::newRow("another host") << QByteArray("Host: evil.example:PORT") << 403;
        QTest::newRow("another port") << QByteArray("Host: 127.0.0.1:1") << 403;
        QTest::newRow("no host") << QByteArray("X-None: 1") << 403;
        QTest::newRow("another origin")
            << QByteArray("Host: 127.0.0.1:PORT\r\nOrigin: http://evil.example") << 403;
        QTest::newRow("null origin") << QByteArray("Host: 127.0.0.1:PORT\r\nOrigin: null") << 403;
        QTest::newRow("an empty origin") << QByteArray("Host: 127.0.0.1:PORT\r\nOrigin: ") << 403;
        QTest::newRow("two hosts") << QByteArray("Host: 127.0.0.1:PORT\r\nHost: evil.example") << 403;
        QTest::newRow("two origins") << QByteArray(
            "Host: 127.0.0.1:PORT\r\nOrigin: http://127.0.0.1:PORT\r\nOrigin: http://evil.example")
                                     << 403;
    }

    void theControlInterfaceAnswersOnlyItsOwnAddress()
    {
        QFETCH(QByteArray, headers);
        QFETCH(int, status);
        EmuProcess emu;
        const quint16 port = emu.port();
        headers.replace("PORT", QByteArray::number(port));
        const RawExchange exchange = rawExchange(port,
            "POST /__emu/tasks HTTP/1.1\r\n" + headers
                + "\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                  "Content-Length: 7\r\nConnection: close\r\n\r\npolls=4");
        QCOMPARE(exchange.replies.size(), 1);
        QCOMPARE(exchange.replies[0].status, status);
        // A refused request changed nothing.
        QCOMPARE(emu.control("POST", "/__emu/tasks").value("polls").toInt(), status == 200 ? 4 : 1);
    }
};

NB_TEST_MAIN(TestNBEmuHttp)
#include "tst_nbemuhttp.moc"
