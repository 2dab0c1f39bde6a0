// The request builder: an operation's steps land on the wire in the order written.
#include "Calls.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "ProbeApi.h"
#include "TestMain.h"
#include "TestServer.h"

class TestNBRequestBuilder : public QObject
{
    Q_OBJECT

    TestServer m_server;
    ProbeApi m_api;

    RecordedRequest sent(NBRequestBuilder& builder, Calls& calls)
    {
        const int before = m_server.requestCount();
        builder.send(calls.completion());
        calls.waitForCompletions(1);
        return m_server.requestCount() > before ? m_server.lastRequest() : RecordedRequest();
    }

private slots:
    void init()
    {
        m_api.setBaseUrlString(m_server.url("/"));
        m_api.setSessionID(QString());
        m_api.setLanguage(QString());
        m_api.setPriServerVerifyCode(QString());
        NBHttpClientManager::manager()->setVerifyCodeSource({});
    }

    void addressIsComposedFromTheSettings()
    {
        NBRequestBuilder builder = m_api.request("/user/info/get");
        QCOMPARE(builder.client()->url(), m_server.url("/v2/user/info/get"));
        QCOMPARE(NBHttpClientManager::manager()->getHttpClient(builder.id()), builder.client());
        Calls calls;
        QCOMPARE(sent(builder, calls).target, QByteArray("/v2/user/info/get"));
    }

    void parametersGoInTheOrderWritten()
    {
        NBRequestBuilder builder = m_api.request("/op");
        builder.param("path", "/a b")
            .paramIfSet("from", "")
            .paramIfSet("neid", "7")
            .flag("list", true)
            .number("size", -12345678901LL);
        Calls calls;
        QCOMPARE(sent(builder, calls).target,
            QByteArray("/v2/op?path=%2Fa%20b&neid=7&list=true&size=-12345678901"));
    }

    void defaultsLandWhereTheOperationPutsThem()
    {
        m_api.setPriServerVerifyCode("vc");
        Calls first;
        NBRequestBuilder before = m_api.request("/op");
        before.withDefaults().param("a", "1");
        QCOMPARE(sent(before, first).target, QByteArray("/v2/op?S=vc&a=1"));
        Calls second;
        NBRequestBuilder after = m_api.request("/op");
        after.param("a", "1").withDefaults();
        QCOMPARE(sent(after, second).target, QByteArray("/v2/op?a=1&S=vc"));
    }

    void postWithDefaultsKeepsTheCodeInTheAddress()
    {
        m_api.setPriServerVerifyCode("vc");
        m_api.setLanguage("en");
        NBRequestBuilder builder = m_api.request("/op");
        builder.method(POST).withDefaults().param("a", "1").header("X-Extra", "e");
        Calls calls;
        const RecordedRequest r = sent(builder, calls);
        QCOMPARE(r.method, QByteArray("POST"));
        QCOMPARE(r.target, QByteArray("/v2/op?S=vc"));
        QCOMPARE(r.body, QByteArray("a=1"));
        QCOMPARE(r.header("X-Extra"), QByteArray("e"));
        QCOMPARE(r.header("Cookie"), QByteArray("language=en"));
    }

    void sessionOfTheOperation()
    {
        m_api.setSessionID("stored");
        NBRequestBuilder builder = m_api.request("/op");
        builder.defaultHeaders().session("own");
        Calls calls;
        // The jar keeps one cookie per name: the later value wins on the wire.
        QCOMPARE(sent(builder, calls).header("Cookie"), QByteArray("X-NIMBRA-SESS-ID=own"));
        QCOMPARE(builder.client() != nullptr, true);
    }

    void paramsOfAMapGoInKeyOrder()
    {
        NBRequestBuilder builder = m_api.requestTo(m_server.url("/raw"));
        builder.params({ { "z", "1" }, { "a", "2" } });
        Calls calls;
        QCOMPARE(sent(builder, calls).target, QByteArray("/raw?a=2&z=1"));
    }

    void unsentBuilderReleasesItsHandle()
    {
        long long id;
        {
            NBRequestBuilder builder = m_api.request("/never");
            id = builder.id();
            QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) != nullptr);
        }
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
    }

    void sendReturnsTheIdentifierAndReleasesAfterTheCallback()
    {
        NBRequestBuilder builder = m_api.request("/op");
        const long long expected = builder.id();
        Calls calls;
        const long long id = builder.send(calls.completion());
        QCOMPARE(id, expected);
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) != nullptr);
        QVERIFY(calls.waitForCompletions(1));
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
    }

    void sendWithoutRedirectsDeliversTheRedirect()
    {
        TestServer redirecting(
            [](const RecordedRequest&) { return ServerReply::redirect("/elsewhere", 301); });
        m_api.setBaseUrlString(redirecting.url());
        NBRequestBuilder builder = m_api.request("/op");
        Calls calls;
        builder.sendWithoutRedirects(calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().statusCode, 301);
        QCOMPARE(redirecting.requestCount(), 1);
    }
};

NB_TEST_MAIN(TestNBRequestBuilder)
#include "tst_nbrequestbuilder.moc"
