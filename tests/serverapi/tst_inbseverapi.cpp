// The exported facade: life cycle, settings, proxy functions, cancel and the
// generic requests, with and without an endpoint.
#include "CNBLoggerWrapper.h"
#include "Calls.h"
#include "Golden.h"
#include "INBSeverApi.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "NBPriServerApi.h"
#include "NBPriSixServerApi.h"
#include "NBPubServerApi.h"
#include "TestData.h"
#include "TestLog.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QDir>
#include <QFile>
#include <QThread>
#include <QtNBLogger.h>

class TestINBSeverApi : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        // Before anything logs: the level call creates the channel and its folders.
        QVERIFY(!QFile::exists(TestLog::path()));
        ServerApi::setLogLevel(true);
        QVERIFY(QFile::exists(TestLog::path()));
        QCOMPARE(QtNBLogger::level(CNBLoggerWrapper::instTransfer().handle()), 16);
        ServerApi::setLogLevel(false);
        QCOMPARE(QtNBLogger::level(CNBLoggerWrapper::instTransfer().handle()), 2);
        ServerApi::setLogLevel(true);
        QVERIFY(ServerApi::serverApi() == nullptr);
    }

    void cleanup()
    {
        ServerApi::uninit();
        ServerApi::proxy(true, 3, nullptr, 0, nullptr, nullptr, false);
    }

    void initCreatesTheVariantOfTheType_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("logLine");
        QTest::newRow("private") << 0 << QString::fromUtf8("初始化私有api");
        QTest::newRow("public cloud") << 1 << QString::fromUtf8("初始化公有api");
        QTest::newRow("private 6.0") << 2 << QString::fromUtf8("初始私有6.0api");
    }

    void initCreatesTheVariantOfTheType()
    {
        QFETCH(int, type);
        QFETCH(QString, logLine);
        TestLog log;
        ServerApi::init(ServerApi::NBServerApiType(type));
        NBServerApi* api = ServerApi::serverApi();
        QVERIFY(api != nullptr);
        QCOMPARE(int(ServerApi::type()), type);
        QCOMPARE(dynamic_cast<NBPubServerApi*>(api) != nullptr, type == 1);
        QCOMPARE(dynamic_cast<NBPriServerApi*>(api) != nullptr, type == 0 || type == 2);
        QCOMPARE(dynamic_cast<NBPriSixServerApi*>(api) != nullptr, type == 2);
        const LogEntry* entry = log.find(logLine);
        QVERIFY2(entry, qPrintable(log.dump()));
        QCOMPARE(entry->level, QString("INFO"));
        QCOMPARE(entry->file, QString("INBSeverApi.cpp"));
        QCOMPARE(entry->function, QString("init"));
        QCOMPARE(api->versionString(), QString("v2"));
        QCOMPARE(ServerApi::baseUrlString(), QString());
    }

    void initOfTheSameTypeChangesNothing()
    {
        ServerApi::init(ServerApi::PublicCloud);
        NBServerApi* first = ServerApi::serverApi();
        ServerApi::setSessionID("kept");
        TestLog log;
        ServerApi::init(ServerApi::PublicCloud);
        QCOMPARE(ServerApi::serverApi(), first);
        QCOMPARE(ServerApi::sessionID(), QString("kept"));
        QVERIFY2(log.entries().isEmpty(), qPrintable(log.dump()));
    }

    void initOfAnotherTypeReplacesTheVariantAndItsSettings()
    {
        ServerApi::init(ServerApi::Private);
        ServerApi::setSessionID("old");
        ServerApi::setBaseUrlString("http://old");
        ServerApi::init(ServerApi::PrivateSix);
        QVERIFY(dynamic_cast<NBPriSixServerApi*>(ServerApi::serverApi()));
        QCOMPARE(ServerApi::sessionID(), QString());
        QCOMPARE(ServerApi::baseUrlString(), QString());
    }

    void unknownTypeLeavesNoVariantAndLogsEachTime()
    {
        ServerApi::init(ServerApi::PublicCloud);
        TestLog log;
        ServerApi::init(ServerApi::NBServerApiType(5));
        QCOMPARE(int(ServerApi::type()), 5);
        QVERIFY(ServerApi::serverApi() == nullptr);
        ServerApi::init(ServerApi::NBServerApiType(5));
        QCOMPARE(log.count("INFO", "init", QString::fromUtf8("初始化api失败")), 2);
    }

    void uninitTwiceKeepsTheType()
    {
        ServerApi::init(ServerApi::PrivateSix);
        ServerApi::uninit();
        QVERIFY(ServerApi::serverApi() == nullptr);
        ServerApi::uninit();
        QCOMPARE(ServerApi::type(), ServerApi::PrivateSix);
    }

    void settingsReachTheVariant()
    {
        ServerApi::init(ServerApi::Private);
        ServerApi::setSessionID("s");
        ServerApi::setLanguage("zh");
        ServerApi::setUserAgent("agent");
        ServerApi::setBaseUrlString("https://drive.test");
        ServerApi::setPriServerVerifyCode("vc");
        NBServerApi* api = ServerApi::serverApi();
        QCOMPARE(api->sessionID(), QString("s"));
        QCOMPARE(api->language(), QString("zh"));
        QCOMPARE(api->userAgent(), QString("agent"));
        QCOMPARE(api->baseUrlString(), QString("https://drive.test"));
        QCOMPARE(api->priServerVerifyCode(), QString("vc"));
        QCOMPARE(ServerApi::sessionID(), QString("s"));
        QCOMPARE(ServerApi::language(), QString("zh"));
        QCOMPARE(ServerApi::userAgent(), QString("agent"));
        QCOMPARE(ServerApi::priServerVerifyCode(), QString("vc"));
    }

    void callsWithoutAVariantAreIgnoredAndLogged()
    {
        TestServer server;
        TestLog log;
        ServerApi::setSessionID("lost");
        QCOMPARE(ServerApi::sessionID(), QString());
        QCOMPARE(ServerApi::baseUrlString(), QString());
        Calls calls;
        QCOMPARE(ServerApi::GET(server.url("/x"), calls.completion()), -1LL);
        QCOMPARE(ServerApi::POST(server.url("/x"), {}, calls.completion()), -1LL);
        QTest::qWait(200);
        QCOMPARE(server.requestCount(), 0);
        QVERIFY(calls.completions.isEmpty());
        const QString ignored = QString::fromUtf8("未初始化api，调用被忽略");
        QVERIFY(log.has("ERROR", "setSessionID", ignored));
        QVERIFY(log.has("ERROR", "sessionID", ignored));
        QVERIFY(log.has("ERROR", "GET", ignored));
        QVERIFY(log.has("ERROR", "POST", ignored));
    }

    void proxyConvertsItsArguments()
    {
        ServerApi::proxy(false, 1, "proxy.test", 70000, "user", "pässword", true);
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        QCOMPARE(registry->proxyAutoDetect(), false);
        QCOMPARE(registry->proxyScheme(), 1);
        QCOMPARE(ServerApi::proxyHostname(), QString("proxy.test"));
        QCOMPARE(ServerApi::proxyPort(), 70000 - 65536);
        QCOMPARE(ServerApi::proxyUser(), QString("user"));
        QCOMPARE(ServerApi::proxyPassword(), QString::fromUtf8("pässword"));
        QCOMPARE(ServerApi::proxySwitch(), true);
        ServerApi::proxy(true, 3, nullptr, 8080, nullptr, nullptr, false);
        QVERIFY(ServerApi::proxyHostname().isNull());
        QVERIFY(ServerApi::proxyUser().isNull());
        QVERIFY(ServerApi::proxyPassword().isNull());
    }

    void singleProxySetters()
    {
        ServerApi::setProxyScheme(1);
        ServerApi::setProxyHostname("h");
        ServerApi::setProxyPort(65537);
        ServerApi::setProxyUser("u");
        ServerApi::setProxyPassword("p");
        ServerApi::setProxyAutoDetect(false);
        ServerApi::setProxySwitch(true);
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        QCOMPARE(registry->proxyScheme(), 1);
        QCOMPARE(ServerApi::proxyHostname(), QString("h"));
        QCOMPARE(ServerApi::proxyPort(), 1);
        QCOMPARE(ServerApi::proxyUser(), QString("u"));
        QCOMPARE(ServerApi::proxyPassword(), QString("p"));
        QCOMPARE(registry->proxyAutoDetect(), false);
        QCOMPARE(ServerApi::proxySwitch(), true);
        ServerApi::setProxyHostname(nullptr);
        QVERIFY(registry->proxyHostname().isNull());
        ServerApi::setProxyUser(nullptr);
        ServerApi::setProxyPassword(nullptr);
        QVERIFY(registry->proxyUser().isNull());
        QVERIFY(registry->proxyPassword().isNull());
    }

    void proxySettingsOutliveTheVariant()
    {
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setProxyHostname("kept.test");
        ServerApi::uninit();
        ServerApi::init(ServerApi::Private);
        QCOMPARE(ServerApi::proxyHostname(), QString("kept.test"));
    }

    // The generic requests send the address and the map as given: no default header,
    // no cookie, no "S", whatever the settings.
    void genericRequestsOnTheWire_data()
    {
        Golden::addRows({
            golden("GET",
                [](GoldenContext& c) {
                    return ServerApi::GET(c.url("/g?a=1&b=x%20y&S=mine"), c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "GET /g?a=1&b=x%20y&S=mine\nHost: {host}\nAccept: */*\n{qt}User-Agent: Mozilla/5.0\n\n"),
            golden("POST",
                [](GoldenContext& c) {
                    return ServerApi::POST(
                        c.url("/p?x=1"), { { "b", "2" }, { "a", "x y&z=é" } }, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "POST /p?x=1\nHost: {host}\n{form}Content-Length: {length}\n{qt}User-Agent: Mozilla/5.0\n"
                    "\na=x%20y%26z%3D%C3%A9&b=2"),
        });
    }

    void genericRequestsOnTheWire() { Golden::run(); }

    void cancelReachesARunningRequest()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::never(); });
        ServerApi::init(ServerApi::Private);
        Calls calls;
        const long long id = ServerApi::GET(server.url("/hang"), calls.completion());
        QVERIFY(server.waitForRequests(1));
        ServerApi::Cancel(id);
        QCOMPARE(calls.completions.size(), 1);
        QCOMPARE(calls.last().networkError, 5);
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
        ServerApi::Cancel(id);
        ServerApi::Cancel(-1);
        QCOMPARE(calls.completions.size(), 1);
    }

    void requestsOutliveUninit()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::drip("{\"late\":1}", 30); });
        ServerApi::init(ServerApi::PublicCloud);
        Calls calls;
        const long long id = ServerApi::GET(server.url("/slow"), calls.completion());
        ServerApi::uninit();
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().body, QString("{\"late\":1}"));
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
        QTest::qWait(100);
        QCOMPARE(calls.completions.size(), 1);
    }

    void requestsOutliveAnInitOfAnotherType()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::drip("{\"late\":2}", 30); });
        ServerApi::init(ServerApi::Private);
        Calls calls;
        const long long id = ServerApi::POST(server.url("/slow"), { { "a", "1" } }, calls.completion());
        ServerApi::init(ServerApi::PrivateSix);
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().body, QString("{\"late\":2}"));
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
    }

    void cancelWithoutAVariantStillReachesTheRequest()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::never(); });
        ServerApi::init(ServerApi::PublicCloud);
        Calls calls;
        const long long id = ServerApi::GET(server.url("/hang"), calls.completion());
        QVERIFY(server.waitForRequests(1));
        ServerApi::uninit();
        ServerApi::Cancel(id);
        QCOMPARE(calls.completions.size(), 1);
        QCOMPARE(calls.last().networkError, 5);
    }

    // From another thread the closing is posted to the request's thread: its
    // completion runs there, once.
    void cancelFromAnotherThreadClosesTheRequestOnItsOwn()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::never(); });
        ServerApi::init(ServerApi::Private);
        Calls calls;
        const long long id = ServerApi::GET(server.url("/hang"), calls.completion());
        QVERIFY(server.waitForRequests(1));
        QThread* other = QThread::create([id] { ServerApi::Cancel(id); });
        other->start();
        QVERIFY(other->wait(5000));
        delete other;
        QVERIFY(calls.completions.isEmpty());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().networkError, 5);
        QCOMPARE(calls.threads.last(), QThread::currentThread());
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
        QTest::qWait(50);
        QCOMPARE(calls.completions.size(), 1);
    }

    // A value from the host with a line break would end its header and start another:
    // such a request sends nothing and completes inside the call.
    void lineBreaksInHeaderValuesSendNothing()
    {
        struct Case
        {
            const char* name;
            ServerApi::NBServerApiType type;
            std::function<void()> set;
            std::function<long long(const QString& url, Calls& calls)> call;
            QString refusal;
        };
        const auto header = [](const QString& name) {
            return QString("The value of header \"%1\" holds a line break; the request was not sent")
                .arg(name);
        };
        const auto userInfo = [](const QString&, Calls& calls) {
            return ServerApi::UserInfo(NBServerApiUserInfoModel(), calls.completion());
        };
        const QList<Case> cases {
            { "user agent", ServerApi::Private, [] { ServerApi::setUserAgent("agent\r\nX-Evil: 1"); },
                userInfo, header("User-Agent") },
            { "language", ServerApi::Private, [] { ServerApi::setLanguage("zh\nX-Evil: 1"); }, userInfo,
                header("Cookie") },
            { "session from the setter", ServerApi::PublicCloud, [] { ServerApi::setSessionID("s\r"); },
                userInfo, header("Cookie") },
            { "session of a model", ServerApi::Private, [] {},
                [](const QString& url, Calls& calls) {
                    NBServerApiDeliveryAuthUploadModel m;
                    m.serverUrl = url;
                    m.session = "ds\r\nX-Evil: 1";
                    return ServerApi::DeliveryAuthUpload(m, calls.completion());
                },
                header("Cookie") },
            { "verification code, as cookie S", ServerApi::Private,
                [] {
                    ServerApi::setSessionID("s");
                    ServerApi::setPriServerVerifyCode("v\nX-Evil: 1");
                },
                userInfo,
                "The value of cookie \"S\" in header \"Cookie\" holds a line break; the request was not "
                "sent" },
            { "two-factor identifier", ServerApi::PublicCloud, [] {},
                [](const QString&, Calls& calls) {
                    return ServerApi::DyncCodeLogin("tfa\r\nX-Evil: 1", "123456", calls.completion());
                },
                header("Cookie") },
            { "two-factor identifier of a model", ServerApi::PublicCloud, [] {},
                [](const QString&, Calls& calls) {
                    NBServerApiLoginStateModel m;
                    m.tfaId = "tfa\n";
                    return ServerApi::GetLoginState(m, calls.completion());
                },
                header("Cookie") },
            { "range", ServerApi::Private, [] {},
                [](const QString&, Calls& calls) {
                    NBSeverApiDLRouterModel m;
                    m.path = "/f";
                    m.range = "bytes=0-1\r\nX-Evil: 1";
                    return ServerApi::DownloadRouter(m, calls.data(), calls.completion());
                },
                header("Range") },
            { "range of a shared link", ServerApi::Private, [] {},
                [](const QString& url, Calls& calls) {
                    NBSeverApiDeliveryDLRouterModel m;
                    m.serverUrl = url;
                    m.range = "bytes=0-1\n";
                    return ServerApi::DeliveryDownloadRouter(m, calls.data(), calls.completion());
                },
                header("Range") },
            { "a file download, whose file is left alone", ServerApi::Private,
                [] { ServerApi::setUserAgent("agent\n"); },
                [](const QString& url, Calls& calls) {
                    NBServerApiDownloadFileModel m;
                    m.serverUrl = url;
                    m.path = "/f";
                    m.localPath = QDir::home().filePath("kept.txt");
                    writeFile(m.localPath, "kept");
                    return ServerApi::DownloadFile(m, calls.completion());
                },
                header("User-Agent") },
        };
        for (const Case& c : cases) {
            TestServer server;
            ServerApi::init(c.type);
            ServerApi::setBaseUrlString(server.url());
            c.set();
            TestLog log;
            Calls calls;
            const long long id = c.call(server.url(), calls);
            QVERIFY2(calls.completions.size() == 1, c.name);
            QVERIFY2(id > 0, c.name);
            QCOMPARE(calls.last().networkError, 302);
            QCOMPARE(calls.last().statusCode, 0);
            QCOMPARE(calls.last().errorString, c.refusal);
            QVERIFY2(log.has("ERROR", "start", c.refusal), c.name);
            QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
            QTest::qWait(50);
            QVERIFY2(server.connectionCount() == 0, c.name);
            QCOMPARE(calls.completions.size(), 1);
            ServerApi::uninit();
        }
        QCOMPARE(readFile(QDir::home().filePath("kept.txt")), QByteArray("kept"));
    }

    void registryKeepsACopyOfTheEndpointsVerificationCode()
    {
        NBHttpClientManager* registry = NBHttpClientManager::manager();
        ServerApi::init(ServerApi::Private);
        ServerApi::setPriServerVerifyCode("one");
        QCOMPARE(registry->verifyCode(), QString("one"));
        ServerApi::init(ServerApi::Private);
        QCOMPARE(registry->verifyCode(), QString("one"));
        ServerApi::init(ServerApi::PrivateSix);
        QCOMPARE(ServerApi::priServerVerifyCode(), QString());
        QCOMPARE(registry->verifyCode(), QString());
        ServerApi::setPriServerVerifyCode("two");
        ServerApi::uninit();
        QCOMPARE(registry->verifyCode(), QString());
        ServerApi::setPriServerVerifyCode("ignored");
        QCOMPARE(registry->verifyCode(), QString());
        ServerApi::init(ServerApi::NBServerApiType(9));
        QCOMPARE(registry->verifyCode(), QString());
    }

    void verifyCodeOfTheFacadeRidesAsCookieS()
    {
        TestServer server;
        ServerApi::init(ServerApi::Private);
        ServerApi::setPriServerVerifyCode("facade-code");
        auto* client = new NBHttpClient(server.url("/c"));
        client->header("Cookie", "a=1; b=2");
        Calls calls;
        client->request(calls.completion(), true);
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(server.lastRequest().header("Cookie"), QByteArray("S=facade-code; a=1; b=2"));
        delete client;

        ServerApi::uninit();
        auto* orphan = new NBHttpClient(server.url("/c"));
        orphan->header("Cookie", "a=1");
        orphan->request(calls.completion(), true);
        QVERIFY(calls.waitForCompletions(2));
        QCOMPARE(server.lastRequest().header("Cookie"), QByteArray("a=1"));
        delete orphan;
    }
};

NB_TEST_MAIN(TestINBSeverApi)
#include "tst_inbseverapi.moc"
