// The inactivity timer: a request without progress ends in two completions, a
// request that keeps making progress never times out.
#include "Calls.h"
#include "Golden.h"
#include "InactivityInterval.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "NBReplyTimeout.h"
#include "TestLog.h"
#include "TestMain.h"
#include "TestServer.h"
#include "Wait.h"

#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>

class TestNBReplyTimeout : public QObject
{
    Q_OBJECT
private slots:
    void libraryIntervalIsTwoMinutes()
    {
        QCOMPARE(RequestDispatcher::InactivityInterval, 120000);
        QCOMPARE(NBReplyTimeout::testInterval(), 0);
    }

    void silentServerGivesTimeOutThenCancelled()
    {
        ScopedInactivityInterval interval(300);
        TestServer server([](const RecordedRequest&) { return ServerReply::never(); });
        TestLog log;
        NBHttpClient client(server.url("/silent"));
        Calls calls;
        client.request(calls.completion(), true);
        QVERIFY(calls.waitForCompletions(2));
        QCOMPARE(calls.completions[0].errorString, QString("TimeOut"));
        QCOMPARE(calls.completions[0].networkError, 4);
        QCOMPARE(calls.completions[0].statusCode, 0);
        QVERIFY(calls.completions[0].headers.isEmpty());
        QCOMPARE(calls.completions[1].networkError, 5);
        QCOMPARE(calls.completions[1].errorString, QString("Operation canceled"));
        QVERIFY(log.has("FATAL", "operator()", QString::fromUtf8("触发超时")));
        QTest::qWait(400);
        QCOMPARE(calls.completions.size(), 2);
    }

    // Every line a timed-out request leaves, in order: the build, the time-out record
    // (read while the reply still runs, so with no error of its own), then the abort's
    // error and finish with the cancelled record.
    void traceOfATimeOutInOrder()
    {
        ScopedInactivityInterval interval(300);
        TestServer server([](const RecordedRequest&) { return ServerReply::never(); });
        NBHttpClientManager::manager(); // its first use writes a line of its own
        TestLog log;
        NBHttpClient client(server.url("/silent"));
        client.param("a", "1");
        Calls calls;
        client.request(calls.completion(), true);
        QVERIFY(calls.waitForCompletions(2));
        QTest::qWait(50);
        QStringList seen;
        for (const LogEntry& e : log.entries()) {
            QCOMPARE(e.file, QString("NBHttpClient.cpp"));
            seen << e.level + ' ' + e.function + ' ' + e.message;
        }
        const QString address = server.url("/silent?a=1");
        const QString cancelled = calls.completions[1].errorString;
        QCOMPARE(cancelled, QString("Operation canceled"));
        const QStringList expected {
            QString::fromUtf8("INFO createRequest 请求地址：%1").arg(address),
            QString::fromUtf8("INFO createRequest 参数:\na=1\n"),
            QString::fromUtf8("INFO createRequest Request Header:\nAccept : */* \n"),
            QString::fromUtf8("FATAL operator() 触发超时"),
            QString::fromUtf8("INFO LogFinished 处理响应数据"),
            QString::fromUtf8("ERROR LogFinished request error. [status]0, [reason], [msg]Unknown error, "
                              "[url]%1[network code] 0")
                .arg(address),
            QString::fromUtf8("INFO LogFinished Cookie:\n"),
            QString::fromUtf8("INFO LogFinished Header:\n"),
            QString::fromUtf8("FATAL operator() QNetworkReply错误码: 5 原因:%1").arg(cancelled),
            QString::fromUtf8("FATAL operator() 请求结束"),
            QString::fromUtf8("INFO LogFinished 处理响应数据"),
            QString::fromUtf8("ERROR LogFinished request error. [status]0, [reason], [msg]%1, "
                              "[url]%2[network code] 5")
                .arg(cancelled, address),
            QString::fromUtf8("INFO LogFinished Cookie:\n"),
            QString::fromUtf8("INFO LogFinished Header:\n"),
            QString::fromUtf8("ERROR LogFinished [失败] 请求结束: %1").arg(cancelled),
        };
        if (seen != expected)
            QFAIL(qPrintable(Golden::lineDiff(expected.join("\n|").toUtf8(), seen.join("\n|").toUtf8())));
    }

    void timeOutOfAHandleReleasedByItsFirstCompletionIsSafe()
    {
        ScopedInactivityInterval interval(200);
        TestServer server([](const RecordedRequest&) { return ServerReply::never(); });
        auto* client = new NBHttpClient(server.url("/silent"));
        QPointer<RequestDispatcher> dispatcher = client->dispatcher();
        Calls calls;
        client->request(calls.completion([&](const ResponseData&) {
            delete client;
            client = nullptr;
        }),
            true);
        QVERIFY(calls.waitForCompletions(1));
        QVERIFY(waitUntil([&] { return dispatcher.isNull(); }, 5000));
        QCOMPARE(calls.completions.size(), 2);
        QCOMPARE(calls.completions[1].networkError, 5);
    }

    void slowDripIsNeverTimedOut()
    {
        ScopedInactivityInterval interval(600);
        TestServer server([](const RecordedRequest&) { return ServerReply::drip("0123456789", 250); });
        NBHttpClient client(server.url("/drip"));
        Calls calls;
        client.download(calls.data(), calls.downloadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(1, 15000));
        QCOMPARE(calls.last().networkError, 0);
        QCOMPARE(calls.last().body, QString("0123456789"));
        QCOMPARE(calls.completions.size(), 1);
    }

    void zeroByteProgressDoesNotRestartTheTimer()
    {
        ScopedInactivityInterval interval(400);
        // The head arrives at once, the first byte too late.
        TestServer server([](const RecordedRequest&) { return ServerReply::drip("0123456789", 5000); });
        NBHttpClient client(server.url("/stall"));
        Calls calls;
        client.download(calls.data(), calls.downloadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(2));
        QCOMPARE(calls.completions[0].errorString, QString("TimeOut"));
        QCOMPARE(calls.completions[0].statusCode, 200);
        for (const auto& p : calls.downloads)
            QCOMPARE(p.bytesReceived, 0);
    }

    // A host may free its job at the first completion: nothing but the second
    // completion follows it, although aborting the reply makes the network layer report
    // progress once more.
    void noProgressOrDataAfterTheFirstCompletion_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("download with data") << "data";
        QTest::newRow("download to a file") << "file";
        QTest::newRow("upload") << "upload";
    }

    void noProgressOrDataAfterTheFirstCompletion()
    {
        QFETCH(QString, kind);
        ScopedInactivityInterval interval(400);
        // The head and two bytes at once, then nothing.
        ServerReply reply = ServerReply::cut(ServerReply::Mode::StallMidBody, "0123456789", 2);
        TestServer server(
            [&](const RecordedRequest&) { return kind == "upload" ? ServerReply::never() : reply; });
        QTemporaryDir dir;
        NBHttpClient client(server.url("/stall"));
        Calls calls;
        if (kind == "data")
            client.download(calls.data(), calls.downloadProgress(), calls.completion());
        else if (kind == "file")
            client.download(dir.filePath("f"), calls.downloadProgress(), calls.completion());
        else
            client.upload(QByteArray(64 << 10, 'u'), calls.uploadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(2));
        QTest::qWait(100);
        QCOMPARE(calls.completions.size(), 2);
        QCOMPARE(calls.completions[0].networkError, 4);
        QCOMPARE(calls.completions[1].networkError, 5);
        QCOMPARE(calls.afterFirstCompletion(), QStringList());
    }

    // Reports every 50 ms against a 300 ms interval: zero-byte reports leave the
    // timer running down, any non-zero report winds it up again.
    void onlyNonZeroReportsRestartTheTimer_data()
    {
        QTest::addColumn<qint64>("bytes");
        QTest::addColumn<bool>("timesOut");
        QTest::newRow("0 bytes") << qint64(0) << true;
        QTest::newRow("1 byte, never more") << qint64(1) << false;
    }

    void onlyNonZeroReportsRestartTheTimer()
    {
        QFETCH(qint64, bytes);
        QFETCH(bool, timesOut);
        TestServer server([](const RecordedRequest&) { return ServerReply::never(); });
        QNetworkAccessManager manager;
        // A timed-out reply is deleted later by the timer itself.
        QPointer<QNetworkReply> reply = manager.get(QNetworkRequest(QUrl(server.url("/silent"))));
        QPointer<NBReplyTimeout> timer = new NBReplyTimeout(reply, 300);
        QSignalSpy spy(timer, &NBReplyTimeout::timeout);
        int reports = 0;
        int reportsBeforeTimeOut = -1;
        connect(timer, &NBReplyTimeout::timeout, this, [&] { reportsBeforeTimeOut = reports; });
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, this, [&] {
            ++reports;
            if (timer)
                timer->onReceive(bytes, 100);
        });
        ticker.start(50);
        QVERIFY(waitUntil([&] { return spy.count() > 0 || reports >= 24; }, 10000));
        ticker.stop();
        if (timesOut) {
            QCOMPARE(spy.count(), 1);
            QVERIFY2(reportsBeforeTimeOut >= 2 && reportsBeforeTimeOut < 24,
                qPrintable(QString::number(reportsBeforeTimeOut)));
            QVERIFY(!reply || reply->isFinished());
        } else {
            QCOMPARE(spy.count(), 0);
            QVERIFY(reply->isRunning());
            reply->abort();
        }
        delete reply.data();
    }

    void uploadWithOnlyZeroProgressTimesOutAfterTheInterval()
    {
        ScopedInactivityInterval interval(500);
        TestServer server([](const RecordedRequest&) { return ServerReply::never(); });
        NBHttpClient client(server.url("/upload"));
        Calls calls;
        QElapsedTimer clock;
        clock.start();
        client.upload(QByteArray(), calls.uploadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(2));
        QVERIFY(clock.elapsed() >= 450);
        QCOMPARE(calls.completions[0].networkError, 4);
        QCOMPARE(calls.completions[1].networkError, 5);
        for (const auto& p : calls.uploads)
            QCOMPARE(p.bytesSent, 0);
        QCOMPARE(server.lastRequest().header("Content-Length"), QByteArray("0"));
    }

    void timerOfAFinishedReplyDoesNothing()
    {
        TestServer server;
        QNetworkAccessManager manager;
        QNetworkReply* reply = manager.get(QNetworkRequest(QUrl(server.url("/done"))));
        QVERIFY(waitUntil([&] { return reply->isFinished(); }, 5000));
        auto* timer = new NBReplyTimeout(reply, 50);
        QCOMPARE(timer->parent(), reply);
        QSignalSpy spy(timer, &NBReplyTimeout::timeout);
        QTest::qWait(200);
        QCOMPARE(spy.count(), 0);
        delete reply;
    }

    void plainTimerWatchesNothing()
    {
        QObject parent;
        auto* timer = new NBReplyTimeout(&parent);
        QSignalSpy spy(timer, &NBReplyTimeout::timeout);
        timer->onReceive(10, 10);
        QTest::qWait(100);
        timer->onTimeout();
        QCOMPARE(spy.count(), 0);
    }

    void testIntervalReplacesTheGivenOne()
    {
        {
            ScopedInactivityInterval interval(1234);
            NBReplyTimeout timer(nullptr, 120000);
            QCOMPARE(timer.interval(), 1234);
        }
        NBReplyTimeout timer(nullptr, 120000);
        QCOMPARE(timer.interval(), 120000);
    }
};

NB_TEST_MAIN(TestNBReplyTimeout)
#include "tst_nbreplytimeout.moc"
