// The registry of handles: identifiers, destruction, cancellation, and the proxy
// and TLS settings every request reads.
#include "Calls.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "TestLog.h"
#include "TestMain.h"
#include "TestServer.h"
#include "TinyProxy.h"

#include <QNetworkProxy>
#include <QSet>
#include <cstdlib>

namespace {

ServerReply dripping(const RecordedRequest&)
{
    return ServerReply::drip(QByteArray(64, 'd'), 20, 4);
}

// Sends a GET through a registered client, waits for its completion and releases it.
ResponseData getThroughRegistry(const QString& url)
{
    NBHttpClientManager* registry = NBHttpClientManager::manager();
    Calls calls;
    const long long id = registry->createHttpClientHandle(new NBHttpClient(url));
    registry->getHttpClient(id)->request(
        calls.completion([&](const ResponseData&) { registry->destroy(id); }), true);
    if (!calls.waitForCompletions(1))
        qWarning("no completion");
    return calls.completions.value(0);
}

} // namespace

class TestNBHttpClientManager : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        TestLog log;
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        QCOMPARE(NBHttpClientManager::manager(), registry);
        QVERIFY(registry->networkMgr() != nullptr);
        QVERIFY2(log.has("FATAL", "NBHttpClientManager", QString::fromUtf8("设置QNetworkAccessManager")),
            qPrintable(log.dump()));
    }

    void cleanup()
    {
        NBHttpClientManager::manager()->proxy(true, 3, QString(), 0, QString(), QString(), false);
    }

    void defaults()
    {
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        QCOMPARE(registry->proxyScheme(), 3);
        QCOMPARE(registry->proxyHostname(), QString());
        QCOMPARE(registry->proxyPort(), 0);
        QCOMPARE(registry->proxyUser(), QString());
        QCOMPARE(registry->proxyPassword(), QString());
        QCOMPARE(registry->proxyAutoDetect(), true);
        QCOMPARE(registry->proxyIsOpen(), false);
        QCOMPARE(registry->sslConfig().peerVerifyMode(), QSslSocket::VerifyNone);
    }

    void proxySettersAndGetters()
    {
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        registry->proxy(false, 1, "socks.local", 1080, "u", "p", true);
        QCOMPARE(registry->proxyAutoDetect(), false);
        QCOMPARE(registry->proxyScheme(), 1);
        QCOMPARE(registry->proxyHostname(), QString("socks.local"));
        QCOMPARE(registry->proxyPort(), 1080);
        QCOMPARE(registry->proxyUser(), QString("u"));
        QCOMPARE(registry->proxyPassword(), QString("p"));
        QCOMPARE(registry->proxyIsOpen(), true);
        registry->setProxyScheme(3);
        registry->setProxyHostname("h");
        registry->setProxyPort(8080);
        registry->setProxyUser("user");
        registry->setProxyPassword("pw");
        registry->setProxyAutoDetect(true);
        registry->proxySwitch(false);
        QCOMPARE(registry->proxyScheme(), 3);
        QCOMPARE(registry->proxyHostname(), QString("h"));
        QCOMPARE(registry->proxyPort(), 8080);
        QCOMPARE(registry->proxyUser(), QString("user"));
        QCOMPARE(registry->proxyPassword(), QString("pw"));
        QCOMPARE(registry->proxyAutoDetect(), true);
        QCOMPARE(registry->proxyIsOpen(), false);
    }

    void thousandHandlesGetDistinctIdentifiers()
    {
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        QSet<long long> ids;
        for (int i = 0; i < 1000; ++i) {
            const long long id
                = registry->createHttpClientHandle(new NBHttpClient(QStringLiteral("http://h/")));
            QVERIFY(id >= 0 && id <= RAND_MAX);
            ids.insert(id);
        }
        QCOMPARE(ids.size(), 1000);
        for (long long id : ids)
            registry->destroy(id);
        for (long long id : ids)
            QVERIFY(registry->getHttpClient(id) == nullptr);
    }

    void destroyForgetsTheHandle()
    {
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        TestLog log;
        auto* client = new NBHttpClient(QStringLiteral("http://h/"));
        const long long id = registry->createHttpClientHandle(client);
        QCOMPARE(registry->getHttpClient(id), client);
        registry->destroy(id);
        QVERIFY(registry->getHttpClient(id) == nullptr);
        QVERIFY(log.has("INFO", "~NBHttpClient", "~NBHttpClient()"));
        registry->destroy(id);
        registry->destroy(-42);
    }

    void cancelOfARunningGetDeliversOneCancelledCompletion()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::never(); });
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        const QString url = server.url("/hang");
        const long long id = registry->createHttpClientHandle(new NBHttpClient(url));
        Calls calls;
        registry->getHttpClient(id)->request(
            calls.completion([&](const ResponseData&) { registry->destroy(id); }), true);
        QVERIFY(server.waitForRequests(1));
        TestLog log;
        registry->cancelHttpClient(id);
        QCOMPARE(calls.completions.size(), 1); // inside the call
        QCOMPARE(calls.last().networkError, 5);
        QCOMPARE(calls.last().errorString, QString("Operation canceled"));
        QCOMPARE(calls.last().statusCode, 0);
        const LogEntry* cancelId = log.find(QString::fromUtf8("取消请求ID %1").arg(id));
        QVERIFY2(cancelId, qPrintable(log.dump()));
        QCOMPARE(cancelId->file, QString("NBHttpClientManager.cpp"));
        QCOMPARE(cancelId->function, QString("cancelHttpClient"));
        QCOMPARE(cancelId->level, QString("FATAL"));
        QVERIFY(log.has("FATAL", "cancel", QString::fromUtf8("请求取消 %1").arg(url)));
        QVERIFY(registry->getHttpClient(id) == nullptr);
        QTest::qWait(100);
        QCOMPARE(calls.completions.size(), 1);
    }

    void cancelOfADestroyedUnknownOrFinishedRequestDoesNothing()
    {
        TestServer server;
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        auto* client = new NBHttpClient(server.url("/p"));
        const long long id = registry->createHttpClientHandle(client);
        Calls calls;
        client->request(calls.completion(), true);
        QVERIFY(calls.waitForCompletions(1));
        TestLog log;
        // Finished but still registered: the registry notes the identifier, the handle does nothing.
        registry->cancelHttpClient(id);
        QCOMPARE(log.messages(), QStringList { QString::fromUtf8("取消请求ID %1").arg(id) });
        log.mark();
        registry->destroy(id);
        registry->cancelHttpClient(id);
        registry->cancelHttpClient(987654321);
        QTest::qWait(50);
        QCOMPARE(calls.completions.size(), 1);
        QCOMPARE(log.messages(), (QStringList { "~NBHttpClient()", "~RequestDispatcher()" }));
    }

    void cancelOfANeverSentRequestDoesNothing()
    {
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        const long long id = registry->createHttpClientHandle(new NBHttpClient(QStringLiteral("http://h/")));
        TestLog log;
        registry->cancelHttpClient(id);
        QCOMPARE(log.count("FATAL", "cancel", QString::fromUtf8("请求取消 http://h/")), 0);
        registry->destroy(id);
    }

    void cancelFromInsideAProgressCallback()
    {
        TestServer server(dripping);
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        const long long id = registry->createHttpClientHandle(new NBHttpClient(server.url("/drip")));
        Calls calls;
        registry->getHttpClient(id)->download(calls.data(),
            calls.downloadProgress([&](const DownloadProgressData& p) {
                if (p.bytesReceived > 0)
                    registry->cancelHttpClient(id);
            }),
            calls.completion([&](const ResponseData&) { registry->destroy(id); }));
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().networkError, 5);
        QTest::qWait(200);
        QCOMPARE(calls.completions.size(), 1);
        QVERIFY(calls.joinedPieces().size() < 64);
    }

    void cancelFromInsideADataCallback()
    {
        TestServer server(dripping);
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        const long long id = registry->createHttpClientHandle(new NBHttpClient(server.url("/drip")));
        Calls calls;
        registry->getHttpClient(id)->download([&](const QByteArray&) { registry->cancelHttpClient(id); }, {},
            calls.completion([&](const ResponseData&) { registry->destroy(id); }));
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().networkError, 5);
        QCOMPARE(calls.last().statusCode, 200);
        QTest::qWait(200);
        QCOMPARE(calls.completions.size(), 1);
    }

    void switchedOffProxyGoesDirectEvenWithASystemProxy()
    {
        TinyProxy proxy;
        QVERIFY(proxy.isRunning());
        TestServer server;
        qputenv("http_proxy", proxy.url().toUtf8());
        NBHttpClientManager::manager()->proxy(
            true, 3, QStringLiteral("127.0.0.1"), proxy.port(), QString(), QString(), false);
        const ResponseData r = getThroughRegistry(server.url("/direct"));
        qunsetenv("http_proxy");
        QCOMPARE(r.statusCode, 200);
        QVERIFY(!server.lastRequest().hasHeader("Via"));
        QVERIFY2(!proxy.log().contains("/direct"), qPrintable(proxy.log()));
    }

    void manualProxyCarriesTheRequest()
    {
        TinyProxy proxy;
        QVERIFY(proxy.isRunning());
        TestServer server;
        NBHttpClientManager::manager()->proxy(false, QNetworkProxy::HttpProxy, QStringLiteral("127.0.0.1"),
            proxy.port(), QString(), QString(), true);
        const ResponseData r = getThroughRegistry(server.url("/proxied"));
        QCOMPARE(r.statusCode, 200);
        QCOMPARE(server.lastRequest().target, QByteArray("/proxied"));
        QVERIFY2(server.lastRequest().header("Via").contains("tinyproxy"),
            qPrintable(server.lastRequest().header("Via")));
        QVERIFY2(proxy.log().contains("/proxied"), qPrintable(proxy.log()));
    }

    void manualProxyCarriesAMultipartUpload()
    {
        TinyProxy proxy;
        QVERIFY(proxy.isRunning());
        TestServer server(
            [](const RecordedRequest& r) { return ServerReply::ok(QByteArray::number(r.body.size())); });
        NBHttpClientManager::manager()->proxy(false, QNetworkProxy::HttpProxy, QStringLiteral("127.0.0.1"),
            proxy.port(), QString(), QString(), true);
        NBHttpClient client(server.url("/form"));
        client.param("a", "1");
        const QByteArray payload(300000, 'm');
        Calls calls;
        client.mulitUpload(QString(), payload, calls.uploadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(1, 20000));
        QCOMPARE(calls.last().statusCode, 200);
        const RecordedRequest r = server.lastRequest();
        QCOMPARE(r.target, QByteArray("/form"));
        QVERIFY2(r.header("Via").contains("tinyproxy"), qPrintable(r.header("Via")));
        QVERIFY2(proxy.log().contains("/form"), qPrintable(proxy.log()));
        // The whole multipart body passed the proxy: its parts, the file part last.
        QCOMPARE(r.header("Content-Length"), QByteArray::number(r.body.size()));
        QVERIFY(r.body.contains("Content-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n"));
        QVERIFY(r.body.contains("filename=\"no-name\""));
        QVERIFY(r.body.contains(payload));
        QCOMPARE(calls.last().body, QString::number(r.body.size()));
        QVERIFY(!calls.uploads.isEmpty());
    }

    void autoDetectedProxyFollowsTheEnvironment()
    {
        TinyProxy proxy;
        QVERIFY(proxy.isRunning());
        TestServer server;
        qputenv("http_proxy", proxy.url().toUtf8());
        NBHttpClientManager::manager()->proxy(true, 3, QString(), 0, QString(), QString(), true);
        const ResponseData viaProxy = getThroughRegistry(server.url("/auto"));
        QCOMPARE(viaProxy.statusCode, 200);
        QVERIFY(server.lastRequest().header("Via").contains("tinyproxy"));

        qputenv("no_proxy", "127.0.0.1");
        const ResponseData bypassed = getThroughRegistry(server.url("/bypassed"));
        qunsetenv("no_proxy");
        qunsetenv("http_proxy");
        QCOMPARE(bypassed.statusCode, 200);
        QVERIFY(!server.lastRequest().hasHeader("Via"));
        QVERIFY(!proxy.log().contains("/bypassed"));
    }

    void unreachableProxyIsARecord()
    {
        TestServer server;
        NBHttpClientManager::manager()->proxy(
            false, QNetworkProxy::HttpProxy, QStringLiteral("127.0.0.1"), 1, QString(), QString(), true);
        const ResponseData r = getThroughRegistry(server.url("/never"));
        QCOMPARE(r.statusCode, 0);
        QCOMPARE(r.networkError, 1);
        QCOMPARE(r.errorString, QString("Connection refused"));
        QCOMPARE(server.requestCount(), 0);
    }
};

NB_TEST_MAIN(TestNBHttpClientManager)
#include "tst_nbhttpclientmanager.moc"
