#include "Calls.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "TestLog.h"
#include "TestMain.h"
#include "TestServer.h"

class TestRequestDispatcher : public QObject
{
    Q_OBJECT
private slots:
    void probe()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::ok("{\n\"a\": 1\n}\n").header("Set-Cookie", "x=1").header("Set-Cookie", "y=2"); });
        NBHttpClientManager::manager()->setVerifyCodeSource([] { return QStringLiteral("code"); });
        TestLog log;
        Calls calls;
        auto* client = new NBHttpClient(server.url("/p"));
        client->param("a", "1");
        client->param("b", "x y");
        client->header("Cookie", "a=1; b=2");
        client->header("X-Ü", "wért");
        client->request(calls.completion(), true);
        QVERIFY(calls.waitForCompletions(1));
        const auto r = server.lastRequest();
        qDebug() << r.method << r.target << r.version;
        for (auto& h : r.headers) qDebug() << h.first << h.second;
        qDebug() << calls.last().body << calls.last().statusCode << calls.last().networkError << calls.last().errorString << calls.last().headers;
        delete client;
        QTest::qWait(50);
        qDebug().noquote() << log.dump();
    }
};

NB_TEST_MAIN(TestRequestDispatcher)
#include "tst_requestdispatcher.moc"
