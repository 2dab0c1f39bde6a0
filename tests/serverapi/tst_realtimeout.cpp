// The real two-minute inactivity interval against a server that never answers.
#include "Calls.h"
#include "NBHttpClient.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QElapsedTimer>

class TestRealTimeout : public QObject
{
    Q_OBJECT
private slots:
    void silentServerTimesOutAfterTwoMinutes()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::never(); });
        NBHttpClient client(server.url("/silent"));
        Calls calls;
        QElapsedTimer clock;
        clock.start();
        client.request(calls.completion(), true);
        QVERIFY(calls.waitForCompletions(1, 150000));
        const qint64 elapsed = clock.elapsed();
        QVERIFY2(elapsed >= 119000 && elapsed < 140000, qPrintable(QString::number(elapsed)));
        QVERIFY(calls.waitForCompletions(2, 5000));
        QCOMPARE(calls.completions[0].errorString, QString("TimeOut"));
        QCOMPARE(calls.completions[0].networkError, 4);
        QCOMPARE(calls.completions[1].networkError, 5);
    }
};

NB_TEST_MAIN(TestRealTimeout)
#include "tst_realtimeout.moc"
