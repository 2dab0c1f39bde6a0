// Scheme probing: an address typed without a scheme completed by what answers 200,
// against local servers in the clear, over TLS, and both on one port.
#include "CNBFillUrlProtocol.h"
#include "INBSeverApi.h"
#include "InactivityInterval.h"
#include "TestData.h"
#include "TestLog.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QThread>

namespace {

QString hostPart(const TestServer& server)
{
    return QStringLiteral("127.0.0.1:%1").arg(server.port());
}

QString closedHostPart()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return QStringLiteral("127.0.0.1:%1").arg(probe.serverPort());
}

TestServerOptions tls(bool plainToo = false)
{
    TestServerOptions options;
    options.tls = true;
    options.plainToo = plainToo;
    return options;
}

using Fill = bool (*)(const QString&, QString&);

} // namespace

class TestCNBFillUrlProtocol : public QObject
{
    Q_OBJECT
    QTemporaryDir m_dir;

private slots:
    void modes_data()
    {
        QTest::addColumn<bool>("byStep");
        QTest::newRow("parallel") << false;
        QTest::newRow("by step") << true;
    }

    void addressWithASchemeIsCopiedWithoutARequest_data() { modes_data(); }

    void addressWithASchemeIsCopiedWithoutARequest()
    {
        QFETCH(bool, byStep);
        TestServer server;
        const Fill fill = byStep ? &ServerApi::FillUrlProtocolByStep : &ServerApi::FillUrlProtocol;
        for (const QString& in :
            { QStringLiteral("HTTPS://%1/x"), QStringLiteral("http://%1"), QStringLiteral("hTtP://%1") }) {
            QString out = "unchanged";
            QVERIFY(fill(in.arg(hostPart(server)), out));
            QCOMPARE(out, in.arg(hostPart(server)));
        }
        QTest::qWait(100);
        QCOMPARE(server.connectionCount(), 0);
    }

    void plainServerGivesHttp_data() { modes_data(); }

    void plainServerGivesHttp()
    {
        QFETCH(bool, byStep);
        TestServer server;
        QString out;
        QVERIFY(
            (byStep ? ServerApi::FillUrlProtocolByStep : ServerApi::FillUrlProtocol)(hostPart(server), out));
        QCOMPARE(out, "http://" + hostPart(server));
        QVERIFY(server.requestCount() >= 1);
        QCOMPARE(server.lastRequest().method, QByteArray("GET"));
    }

    void tlsServerGivesHttps_data() { modes_data(); }

    void tlsServerGivesHttps()
    {
        QFETCH(bool, byStep);
        TestServer server({}, tls());
        QString out;
        QVERIFY(
            (byStep ? ServerApi::FillUrlProtocolByStep : ServerApi::FillUrlProtocol)(hostPart(server), out));
        QCOMPARE(out, "https://" + hostPart(server));
        QVERIFY(server.lastRequest().encrypted);
    }

    void leadingSlashIsDropped_data()
    {
        QTest::addColumn<bool>("byStep");
        QTest::addColumn<bool>("overTls");
        QTest::newRow("parallel, plain") << false << false;
        QTest::newRow("parallel, TLS") << false << true;
        QTest::newRow("by step, plain") << true << false;
        QTest::newRow("by step, TLS") << true << true;
    }

    void leadingSlashIsDropped()
    {
        QFETCH(bool, byStep);
        QFETCH(bool, overTls);
        TestServer server({}, overTls ? tls() : TestServerOptions());
        QString out;
        QVERIFY((byStep ? ServerApi::FillUrlProtocolByStep : ServerApi::FillUrlProtocol)(
            "/" + hostPart(server), out));
        QCOMPARE(out, (overTls ? "https://" : "http://") + hostPart(server));
        QCOMPARE(server.lastRequest().target, QByteArray("/"));
    }

    void addressWithAPathKeepsIt()
    {
        TestServer server([](const RecordedRequest& r) {
            return r.path() == "/drive" ? ServerReply::ok("{}") : ServerReply::withStatus(404);
        });
        QString out;
        QVERIFY(ServerApi::FillUrlProtocolByStep(hostPart(server) + "/drive", out));
        QCOMPARE(out, "http://" + hostPart(server) + "/drive");
    }

    // Both schemes answer on one port; the TLS answer comes slowly, so http wins.
    void parallelModeTakesTheFirstTo200()
    {
        TestServer server(
            [](const RecordedRequest& r) {
                return r.encrypted ? ServerReply::drip("{\"slow\":true}", 100) : ServerReply::ok("{}");
            },
            tls(true));
        QString out;
        QVERIFY(ServerApi::FillUrlProtocol(hostPart(server), out));
        QCOMPARE(out, "http://" + hostPart(server));
        // By step, https is asked first and answers, however slowly.
        QVERIFY(ServerApi::FillUrlProtocolByStep(hostPart(server), out));
        QCOMPARE(out, "https://" + hostPart(server));
    }

    void byStepFollowsARedirectButReturnsTheProbedAddress()
    {
        TestServer server(
            [](const RecordedRequest& r) {
                return r.path() == "/" ? ServerReply::redirect("/landing", 301) : ServerReply::ok("{}");
            },
            tls());
        QString out;
        QVERIFY(ServerApi::FillUrlProtocolByStep(hostPart(server), out));
        QCOMPARE(out, "https://" + hostPart(server));
        QCOMPARE(server.lastRequest().target, QByteArray("/landing"));
        // Without following, the 301 is no success.
        out = "unchanged";
        QVERIFY(!ServerApi::FillUrlProtocol(hostPart(server), out));
        QCOMPARE(out, QString("unchanged"));
    }

    void statusOtherThan200IsAFailure_data() { modes_data(); }

    void statusOtherThan200IsAFailure()
    {
        QFETCH(bool, byStep);
        TestServer server([](const RecordedRequest&) { return ServerReply::withStatus(204); }, tls(true));
        QString out = "unchanged";
        QVERIFY(
            !(byStep ? ServerApi::FillUrlProtocolByStep : ServerApi::FillUrlProtocol)(hostPart(server), out));
        QCOMPARE(out, QString("unchanged"));
    }

    void bothRefused_data() { modes_data(); }

    void bothRefused()
    {
        QFETCH(bool, byStep);
        QString out = "unchanged";
        QElapsedTimer clock;
        clock.start();
        QVERIFY(
            !(byStep ? ServerApi::FillUrlProtocolByStep : ServerApi::FillUrlProtocol)(closedHostPart(), out));
        QCOMPARE(out, QString("unchanged"));
        QVERIFY(clock.elapsed() < 60000);
    }

    // A port that accepts and never answers holds each probe until the inactivity
    // time-out, shortened here.
    void silentServerWaitsForTheTimeOut_data() { modes_data(); }

    void silentServerWaitsForTheTimeOut()
    {
        QFETCH(bool, byStep);
        ScopedInactivityInterval interval(300);
        TestServer server([](const RecordedRequest&) { return ServerReply::never(); });
        QString out = "unchanged";
        QVERIFY(
            !(byStep ? ServerApi::FillUrlProtocolByStep : ServerApi::FillUrlProtocol)(hostPart(server), out));
        QCOMPARE(out, QString("unchanged"));
    }

    // Its nested loop could delete the reply whose signal is on the stack: inside any
    // callback of the library the call is refused before anything happens.
    void refusedInsideALibraryCallback_data()
    {
        QTest::addColumn<QString>("callback");
        QTest::newRow("completion") << "completion";
        QTest::newRow("download progress") << "download";
        QTest::newRow("data") << "data";
        QTest::newRow("upload progress") << "upload";
    }

    void refusedInsideALibraryCallback()
    {
        QFETCH(QString, callback);
        TestServer target;
        TestServer server([](const RecordedRequest&) { return ServerReply::ok(QByteArray(4096, 'b')); });
        TestLog log;
        ServerApi::init(ServerApi::Private);
        QList<bool> results;
        QString out = "unchanged";
        const auto tryBoth = [&] {
            results << ServerApi::FillUrlProtocol(hostPart(target), out)
                    << ServerApi::FillUrlProtocolByStep(hostPart(target), out)
                    << ServerApi::FillUrlProtocol("http://" + hostPart(target), out);
        };
        bool done = false;
        const NBCompletionCallback completion = [&](const ResponseData&) {
            if (callback == "completion")
                tryBoth();
            done = true;
        };
        const auto whenFirst = [&](const char* kind) {
            if (callback == kind && results.isEmpty())
                tryBoth();
        };
        if (callback == "upload") {
            ServerApi::Upload(server.url("/up"), writeFile(m_dir.filePath("up"), QByteArray(1 << 20, 'u')),
                completion, [&](const UploadProgressData&) { whenFirst("upload"); });
        } else {
            ServerApi::Download(
                server.url("/down"), [&](const QByteArray&) { whenFirst("data"); }, completion,
                [&](const DownloadProgressData&) { whenFirst("download"); });
        }
        QVERIFY(QTest::qWaitFor([&] { return done; }, 10000));
        ServerApi::uninit();
        QCOMPARE(results, QList<bool>({ false, false, false }));
        QCOMPARE(out, QString("unchanged"));
        QTest::qWait(100);
        QCOMPARE(target.connectionCount(), 0);
        QCOMPARE(log.count("ERROR", "refused",
                     "FillUrlProtocol refused: called from inside a callback of the library, where its "
                     "nested event loop could delete the reply whose signal is running"),
            3);
        // Outside callbacks the same calls work.
        QVERIFY(ServerApi::FillUrlProtocol(hostPart(target), out));
    }

    // A server that drips its reply keeps the inactivity timer from firing; the probe's
    // own bound ends it as a failure however far it got, one interval per probe.
    void drippingServerHoldsAProbeOneIntervalAtMost_data() { modes_data(); }

    void drippingServerHoldsAProbeOneIntervalAtMost()
    {
        QFETCH(bool, byStep);
        const int intervalMs = 1500;
        ScopedInactivityInterval interval(intervalMs);
        TestServer server(
            [](const RecordedRequest&) { return ServerReply::drip(QByteArray(100000, 'd'), 50); }, tls(true));
        QString out = "unchanged";
        QElapsedTimer clock;
        clock.start();
        QVERIFY(
            !(byStep ? ServerApi::FillUrlProtocolByStep : ServerApi::FillUrlProtocol)(hostPart(server), out));
        const qint64 elapsed = clock.elapsed();
        QCOMPARE(out, QString("unchanged"));
        // Both probes reached the server: at once in parallel, one after the other by step.
        QVERIFY(server.requestCount() == 2);
        QVERIFY2(elapsed < (byStep ? 3 : 2) * intervalMs, qPrintable(QString::number(elapsed)));
        QVERIFY2(elapsed >= intervalMs - 100, qPrintable(QString::number(elapsed)));
    }

    void fromAWorkerThreadWithItsOwnLoop()
    {
        TestServer server;
        QString out;
        bool found = false;
        QThread* worker = QThread::create([&] { found = ServerApi::FillUrlProtocol(hostPart(server), out); });
        worker->start();
        QVERIFY(worker->wait(30000));
        delete worker;
        QVERIFY(found);
        QCOMPARE(out, "http://" + hostPart(server));
    }

    void objectsUsedDirectly()
    {
        TestServer server({}, tls());
        CNBFillUrlProtocol fill;
        QString out;
        QVERIFY(fill.fillUrlProtocolByStep(hostPart(server), out));
        QCOMPARE(out, "https://" + hostPart(server));
        QVERIFY(fill.fillUrlProtocol(hostPart(server), out));
        QCOMPARE(out, "https://" + hostPart(server));
    }
};

NB_TEST_MAIN(TestCNBFillUrlProtocol)
#include "tst_cnbfillurlprotocol.moc"
