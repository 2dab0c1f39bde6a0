// The endpoint base: addresses, cookie, default headers, verification code, the
// generic requests and the reply handler.
#include "Calls.h"
#include "INBSeverApi.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "ProbeApi.h"
#include "TestLog.h"
#include "TestMain.h"
#include "TestServer.h"
#include "Wait.h"

#include <QThread>
#include <atomic>

class TestNBServerApi : public QObject
{
    Q_OBJECT

    // Sends a plain GET through a client the endpoint prepared; returns what the server saw.
    RecordedRequest sendPrepared(NBHttpClient* client, TestServer& server)
    {
        Calls calls;
        const int before = server.requestCount();
        client->request(calls.completion(), true);
        calls.waitForCompletions(1);
        return server.requestCount() > before ? server.lastRequest() : RecordedRequest();
    }

private slots:
    void init() { NBHttpClientManager::manager()->setVerifyCode(QString()); }

    void defaults()
    {
        ProbeApi api;
        QCOMPARE(api.versionString(), QString("v2"));
        QCOMPARE(api.baseUrlString(), QString());
        QCOMPARE(api.sessionID(), QString());
        QCOMPARE(api.language(), QString());
        QCOMPARE(api.userAgent(), QString());
        QCOMPARE(api.priServerVerifyCode(), QString());
        QCOMPARE(NBServerApi::COOKIE_SESSION, QString("X-NIMBRA-SESS-ID"));
        QCOMPARE(NBServerApi::SZ_USER_AGENT, QString("NBClientMac"));
        QCOMPARE(NBUtil::sBoxAppDataPath, QString("NimbraData"));
    }

    void combineReqUrl_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("version");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("address");
        QTest::newRow("https with slash") << "https://host/"
                                          << "v2"
                                          << "/user/info/get"
                                          << "https://host/v2/user/info/get";
        QTest::newRow("host and port, no scheme") << "host:8080"
                                                  << "v2"
                                                  << "/user/info/get"
                                                  << "http://host:8080/v2/user/info/get";
        QTest::newRow("host with slash, no scheme") << "host/"
                                                    << "v2"
                                                    << "/user/info/get"
                                                    << "http://host/v2/user/info/get";
        QTest::newRow("ip and port, no scheme") << "127.0.0.1:8080"
                                                << "v2"
                                                << "/a"
                                                << "http://127.0.0.1:8080/v2/a";
        QTest::newRow("ftp becomes http") << "ftp://host"
                                          << "v2"
                                          << "/a"
                                          << "http://host/v2/a";
        QTest::newRow("base path dropped") << "https://host/prefix"
                                           << "v2"
                                           << "/a"
                                           << "https://host/v2/a";
        QTest::newRow("port kept") << "https://host:8443/x/y/"
                                   << "v2"
                                   << "/a"
                                   << "https://host:8443/v2/a";
        QTest::newRow("upper-case scheme") << "HTTPS://Host"
                                           << "v2"
                                           << "/a"
                                           << "https://host/v2/a";
        QTest::newRow("path without slash") << "http://host"
                                            << "v2"
                                            << "a/b"
                                            << "http://host/v2/a/b";
        QTest::newRow("no version") << "http://host"
                                    << ""
                                    << "/a"
                                    << "http://host/a";
        QTest::newRow("no path") << "http://host"
                                 << "v2"
                                 << ""
                                 << "http://host/v2";
        QTest::newRow("space in path") << "http://host"
                                       << "v2"
                                       << "/a b/c"
                                       << "http://host/v2/a%20b/c";
        QTest::newRow("non-ASCII path") << "http://host"
                                        << "v2"
                                        << "/文件"
                                        << "http://host/v2/%E6%96%87%E4%BB%B6";
        QTest::newRow("reserved in path") << "http://host"
                                          << "v2"
                                          << "/a?b#c"
                                          << "http://host/v2/a%3Fb%23c";
        QTest::newRow("non-ASCII host") << "http://hôst.test"
                                        << "v2"
                                        << "/a"
                                        << "http://xn--hst-kna.test/v2/a";
        QTest::newRow("query kept") << "http://host/?x=1"
                                    << "v2"
                                    << "/a"
                                    << "http://host/v2/a?x=1";
        QTest::newRow("scheme that begins with http kept") << "http+x://host"
                                                           << "v2"
                                                           << "/a"
                                                           << "http+x://host/v2/a";
        QTest::newRow("no valid address: empty") << "http:"
                                                 << "//[bad:1]"
                                                 << "/a"
                                                 << "";
        QTest::newRow("a host Qt cannot write back: empty") << "https:ve.example/&v2"
                                                            << "/u"
                                                            << ""
                                                            << "";
        QTest::newRow("a control character in a host typed without slashes: empty") << QString::fromUtf8(
            "http:vE.\x13"
            "e") << "v2"
                                                                                    << "/a"
                                                                                    << "";
        QTest::newRow("a host typed without slashes") << "http:host"
                                                      << "v2"
                                                      << "/a"
                                                      << "http://host/v2/a";
        QTest::newRow("no scheme, address in the query") << "host:8080/r?u=http://x"
                                                         << "v2"
                                                         << "/a"
                                                         << "http://host:8080/v2/a?u=http://x";
    }

    void combineReqUrl()
    {
        QFETCH(QString, base);
        QFETCH(QString, version);
        QFETCH(QString, path);
        QFETCH(QString, address);
        ProbeApi api;
        QCOMPARE(api.combineReqUrl(base, version, path), address);
    }

    void badBaseAddressesStillGiveARecord_data()
    {
        QTest::addColumn<QString>("base");
        QTest::addColumn<QString>("address");
        QTest::addColumn<int>("networkError");
        // Hosts that do not parse leave the address without a host: the request fails.
        QTest::newRow("empty") << ""
                               << "http:///v2/probe/x" << 3;
        QTest::newRow("spaces") << "my host"
                                << "http:///v2/probe/x" << 3;
        QTest::newRow("spaces with scheme") << "http://my host:1/"
                                            << "http://:1/v2/probe/x" << 3;
    }

    void badBaseAddressesStillGiveARecord()
    {
        QFETCH(QString, base);
        QFETCH(QString, address);
        QFETCH(int, networkError);
        ProbeApi api;
        QCOMPARE(api.combineReqUrl(base, "v2", "/probe/x"), address);
        api.setBaseUrlString(base);
        Calls calls;
        const long long id = api.probe("x", calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().networkError, networkError);
        QCOMPARE(calls.last().statusCode, 0);
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
    }

    void combinPath_data()
    {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<QString>("joined");
        QTest::newRow("both slashes kept") << "/a/"
                                           << "/b"
                                           << "/a//b";
        QTest::newRow("slash added") << "/a"
                                     << "b"
                                     << "/a/b";
        QTest::newRow("empty b") << "/a"
                                 << ""
                                 << "/a";
        QTest::newRow("a ends with slash") << "/a/"
                                           << "b"
                                           << "/a/b";
        QTest::newRow("b begins with slash") << "/a"
                                             << "/b"
                                             << "/a/b";
        QTest::newRow("empty a") << ""
                                 << "b"
                                 << "/b";
    }

    void combinPath()
    {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(QString, joined);
        ProbeApi api;
        QCOMPARE(api.combinPath(a, b), joined);
    }

    void cookie()
    {
        ProbeApi api;
        QCOMPARE(api.cookie(), QString());
        api.setLanguage("en");
        QCOMPARE(api.cookie(), QString("language=en;"));
        api.setSessionID("abc");
        api.setLanguage("zh");
        QCOMPARE(api.cookie(), QString("language=zh;X-NIMBRA-SESS-ID=abc;"));
        api.setLanguage(QString());
        QCOMPARE(api.cookie(), QString("X-NIMBRA-SESS-ID=abc;"));
    }

    void defaultHeadersOnTheWire()
    {
        TestServer server;
        ProbeApi api;
        api.setUserAgent("NBClientMac");
        api.setLanguage("en");
        NBHttpClient* client = new NBHttpClient(server.url("/h"));
        api.httpClientDefaultHeader(client);
        const RecordedRequest r = sendPrepared(client, server);
        QCOMPARE(r.header("User-Agent"), QByteArray("NBClientMac"));
        QCOMPARE(r.header("Cookie"), QByteArray("language=en"));
        delete client;
    }

    void withNeitherLanguageNorSessionNoCookieIsSent()
    {
        TestServer server;
        ProbeApi api;
        NBHttpClient* client = new NBHttpClient(server.url("/h"));
        api.httpClientDefaultHeader(client);
        QCOMPARE(client->dispatcher()->header("Cookie"), QString());
        QCOMPARE(client->dispatcher()->header("User-Agent"), QString());
        const RecordedRequest r = sendPrepared(client, server);
        QVERIFY(!r.hasHeader("Cookie"));
        QCOMPARE(r.header("User-Agent"), QByteArray("Mozilla/5.0"));
        delete client;
    }

    void explicitSessionNamesTheSessionTwice()
    {
        ProbeApi api;
        NBHttpClient client(QStringLiteral("http://h/"));
        api.setHttpHeaderSession(&client, QString());
        QCOMPARE(client.dispatcher()->header("Cookie"), QString());
        api.setHttpHeaderSession(&client, "mine");
        QCOMPARE(client.dispatcher()->header("Cookie"), QString("X-NIMBRA-SESS-ID=mine;"));
        api.setLanguage("zh");
        api.setSessionID("stored");
        api.setHttpHeaderSession(&client, "mine");
        QCOMPARE(client.dispatcher()->header("Cookie"),
            QString("language=zh;X-NIMBRA-SESS-ID=stored;X-NIMBRA-SESS-ID=mine;"));
    }

    void verifyCodeOfAGetIsAParameter()
    {
        TestServer server;
        ProbeApi api;
        api.setPriServerVerifyCode("c0de+/");
        NBHttpClient* client = new NBHttpClient(server.url("/g"));
        client->param("a", "1");
        api.privateCloudDefaultParams(client);
        client->param("b", "2");
        const RecordedRequest r = sendPrepared(client, server);
        QCOMPARE(r.target, QByteArray("/g?a=1&S=c0de%2B%2F&b=2"));
        delete client;
    }

    void verifyCodeOfAPostReplacesTheAddressesS()
    {
        TestServer server;
        ProbeApi api;
        api.setPriServerVerifyCode("new&code");
        NBHttpClient* client = new NBHttpClient(server.url("/p?x=1&S=old&y=2&S=older"));
        client->httpMethod(POST);
        client->param("a", "1");
        api.privateCloudDefaultParams(client);
        QCOMPARE(client->url(), server.url("/p?x=1&y=2&S=new%26code"));
        const RecordedRequest r = sendPrepared(client, server);
        QCOMPARE(r.target, QByteArray("/p?x=1&y=2&S=new%26code"));
        QCOMPARE(r.body, QByteArray("a=1"));
        delete client;
    }

    void noVerifyCodeNoS()
    {
        ProbeApi api;
        NBHttpClient get(QStringLiteral("http://h/g"));
        api.privateCloudDefaultParams(&get);
        QVERIFY(get.dispatcher()->params().isEmpty());
        NBHttpClient post(QStringLiteral("http://h/p?S=keep"));
        post.httpMethod(POST);
        api.privateCloudDefaultParams(&post);
        QCOMPARE(post.url(), QString("http://h/p?S=keep"));
    }

    void verifyCodeRidesAsCookieSWhenACookieIsSent()
    {
        TestServer server;
        ProbeApi api;
        api.setBaseUrlString(server.url("/"));
        api.setSessionID("sess");
        api.setPriServerVerifyCode("vc");
        NBHttpClientManager::manager()->setVerifyCode(api.priServerVerifyCode());
        Calls calls;
        api.probe("one", calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        const RecordedRequest r = server.lastRequest();
        QCOMPARE(r.target, QByteArray("/v2/probe/one?S=vc&name=one"));
        QCOMPARE(r.header("Cookie"), QByteArray("S=vc; X-NIMBRA-SESS-ID=sess"));
    }

    void boolToString()
    {
        ProbeApi api;
        QCOMPARE(api.boolToString(false), QString("false"));
        QCOMPARE(api.boolToString(true), QString("true"));
    }

    void genericGetSendsTheAddressAsItIs()
    {
        TestServer server;
        ProbeApi api;
        api.setUserAgent("agent");
        api.setLanguage("en");
        api.setSessionID("s");
        api.setPriServerVerifyCode("vc");
        Calls calls;
        const long long id = api.get(server.url("/raw?q=a%20b&S=mine"), calls.completion());
        QVERIFY(id >= 0);
        QVERIFY(calls.waitForCompletions(1));
        const RecordedRequest r = server.lastRequest();
        QCOMPARE(r.method, QByteArray("GET"));
        QCOMPARE(r.target, QByteArray("/raw?q=a%20b&S=mine"));
        QVERIFY(!r.hasHeader("Cookie"));
        QCOMPARE(r.header("User-Agent"), QByteArray("Mozilla/5.0"));
        QCOMPARE(r.header("Accept"), QByteArray("*/*"));
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
    }

    void genericPostSendsTheMapInKeyOrder()
    {
        TestServer server;
        ProbeApi api;
        api.setPriServerVerifyCode("vc");
        Calls calls;
        api.post(server.url("/form"), { { "b", "2" }, { "a", "x y" }, { "c", "é" } }, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        const RecordedRequest r = server.lastRequest();
        QCOMPARE(r.method, QByteArray("POST"));
        QCOMPARE(r.target, QByteArray("/form"));
        QCOMPARE(r.body, QByteArray("a=x%20y&b=2&c=%C3%A9"));
        QCOMPARE(r.header("Content-Type"), QByteArray("application/x-www-form-urlencoded;application/json"));
    }

    void genericRequestsFollowOrNotAsNamed()
    {
        TestServer server([](const RecordedRequest& r) {
            return r.path() == "/from" ? ServerReply::redirect("/to") : ServerReply::ok("{\"at\":\"to\"}");
        });
        ProbeApi api;
        Calls calls;
        api.getNoRedirect(server.url("/from"), calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().statusCode, 302);
        QCOMPARE(calls.last().headers.value("Location"), QByteArray("/to"));
        api.get(server.url("/from"), calls.completion());
        QVERIFY(calls.waitForCompletions(2));
        QCOMPARE(calls.last().statusCode, 200);
        QCOMPARE(calls.last().body, QString("{\"at\":\"to\"}"));
    }

    void replyHandlerCallsBackOnceThenReleasesTheHandle()
    {
        TestServer server;
        ProbeApi api;
        long long id = -1;
        bool registeredDuringCallback = false;
        Calls calls;
        id = api.get(server.url("/x"), calls.completion([&](const ResponseData&) {
            registeredDuringCallback = NBHttpClientManager::manager()->getHttpClient(id) != nullptr;
        }));
        QVERIFY(calls.waitForCompletions(1));
        QVERIFY(registeredDuringCallback);
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
        QTest::qWait(50);
        QCOMPARE(calls.completions.size(), 1);
    }

    // After a time-out the second completion leaves the identifier alone: by then a
    // request drawn in the same millisecond may hold the same number.
    void aSecondCompletionLeavesAReusedIdentifierAlone()
    {
        NBHttpClientManager* manager = NBHttpClientManager::manager();
        for (int attempt = 0; attempt < 100; ++attempt) {
            const long long first = manager->createHttpClientHandle(new NBHttpClient("http://127.0.0.1:9/"));
            const NBCompletionCallback handler = NBServerApi::replyHandler({}, first);
            handler(ResponseData());
            QVERIFY(manager->getHttpClient(first) == nullptr);
            auto* next = new NBHttpClient("http://127.0.0.1:9/");
            const long long id = manager->createHttpClientHandle(next);
            if (id != first) {
                // Drawn in another millisecond: try again.
                manager->destroy(id);
                continue;
            }
            handler(ResponseData());
            QCOMPARE(manager->getHttpClient(id), next);
            manager->destroy(id);
            return;
        }
        QFAIL("no identifier was drawn twice within a millisecond");
    }

    void emptyCallbackStillReleasesTheHandle()
    {
        TestServer server;
        ProbeApi api;
        const long long id = api.get(server.url("/x"), {});
        QVERIFY(server.waitForRequests(1));
        QVERIFY(
            waitUntil([&] { return NBHttpClientManager::manager()->getHttpClient(id) == nullptr; }, 5000));
    }

    void repliesOutliveTheEndpoint()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::drip("late", 50); });
        auto* api = new ProbeApi;
        api->setBaseUrlString(server.url("/"));
        Calls calls;
        const long long id = api->probe("gone", calls.completion());
        delete api;
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().body, QString("late"));
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
    }

    void settingsLogTheBaseAddress()
    {
        ProbeApi api;
        TestLog log;
        api.setBaseUrlString("https://drive.test");
        QCOMPARE(api.baseUrlString(), QString("https://drive.test"));
        QVERIFY(log.has("FATAL", "setBaseUrlString", QString::fromUtf8("设置base url https://drive.test")));
        QVERIFY(log.has("FATAL", "baseUrlString", QString::fromUtf8("获取base url https://drive.test")));
        const LogEntry* entry = log.find(QString::fromUtf8("设置base url https://drive.test"));
        QCOMPARE(entry->file, QString("NBServerApi.cpp"));
    }

    void everyOperationReadsTheBaseAddressOnce()
    {
        TestServer server;
        ProbeApi api;
        api.setBaseUrlString(server.url("/"));
        TestLog log;
        Calls calls;
        api.probe("n", calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(
            log.count("FATAL", "baseUrlString", QString::fromUtf8("获取base url %1").arg(server.url("/"))),
            1);
    }

    void settingsChangeFromAnotherThreadWhileRequestsRun()
    {
        TestServer server;
        ProbeApi api;
        api.setBaseUrlString(server.url("/"));
        api.setUserAgent("agent");
        api.setSessionID("s");
        std::atomic<bool> stop { false };
        QThread* writer = QThread::create([&] {
            for (int i = 0; !stop; ++i) {
                api.setSessionID(QStringLiteral("s%1").arg(i));
                api.setLanguage(i % 2 ? QStringLiteral("zh") : QStringLiteral("en"));
                api.setUserAgent(QStringLiteral("agent%1").arg(i));
                api.setPriServerVerifyCode(i % 3 ? QString() : QStringLiteral("vc%1").arg(i));
            }
        });
        writer->start();
        Calls calls;
        for (int i = 0; i < 40; ++i)
            api.probe(QString::number(i), calls.completion());
        const bool done = calls.waitForCompletions(40, 30000);
        stop = true;
        writer->wait();
        delete writer;
        QVERIFY(done);
        for (const RecordedRequest& r : server.requests()) {
            QVERIFY(r.header("User-Agent").startsWith("agent"));
            QVERIFY(r.header("Cookie").contains("X-NIMBRA-SESS-ID=s"));
        }
    }

    void theVersionStringIsTheAddressesSecondPiece()
    {
        TestServer server;
        ServerApi::init(ServerApi::Private);
        ServerApi::setBaseUrlString(server.url());
        NBServerApi* api = ServerApi::serverApi();
        QCOMPARE(api->versionString(), QString("v2"));
        api->setVersionString("v3");
        QCOMPARE(api->versionString(), QString("v3"));
        Calls calls;
        ServerApi::RegionGet(calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(server.lastRequest().target, QByteArray("/v3/region/get"));
        ServerApi::uninit();
    }
};

NB_TEST_MAIN(TestNBServerApi)
#include "tst_nbserverapi.moc"
