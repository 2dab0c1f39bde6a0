// The request builder: an operation's steps land on the wire in the order written.
#include "Calls.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "NBRequestParams.h"
#include "ProbeApi.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

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
        NBHttpClientManager::manager()->setVerifyCode(QString());
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

    void vocabularyOfTheTables()
    {
        NBServerApiEntryModel entry;
        entry.path = "/a b";
        entry.pathType = "ent";
        entry.neid = "7";
        NBRequestBuilder builder = m_api.request("/op");
        builder.with(entryParams, entry)
            .paramOrZero("syncCid", "")
            .paramOrZero("pullJid", "12")
            .paramsIfSet({ { "x", "" }, { "y", "2" }, { "z", "3" } })
            .rangeIfSet("")
            .rangeIfSet("bytes=1-2");
        Calls calls;
        const RecordedRequest r = sent(builder, calls);
        QCOMPARE(
            r.target, QByteArray("/v2/op?path=%2Fa%20b&path_type=ent&neid=7&syncCid=0&pullJid=12&y=2&z=3"));
        QCOMPARE(r.header("Range"), QByteArray("bytes=1-2"));
        QCOMPARE(r.header("x-nimbraws-range"), QByteArray("bytes=1-2"));
    }

    void jsonDocumentIsOneIndentedParameter()
    {
        const QJsonDocument document(QJsonArray { QJsonObject { { "neid", "é1" } } });
        NBRequestBuilder utf8 = m_api.request("/op");
        utf8.method(POST).json(document);
        Calls first;
        QCOMPARE(
            sent(utf8, first).body, "json=" + QUrl::toPercentEncoding(QString::fromUtf8(document.toJson())));
        QVERIFY(document.toJson().contains("\n    {\n        \"neid\""));
        NBRequestBuilder latin1 = m_api.request("/op");
        latin1.method(POST).json(document, NBRequestBuilder::Latin1);
        Calls second;
        // Each byte read as one character: "é" (two bytes) becomes two characters.
        QCOMPARE(sent(latin1, second).body,
            "json=" + QUrl::toPercentEncoding(QString::fromLatin1(document.toJson())));
    }

    void parametersInTheQueryOfTheAddress()
    {
        NBRequestBuilder builder = m_api.request("/up");
        builder.inQuery()
            .param("path", "/a b/é&c=d+e")
            .paramIfSet("neid", "")
            .flag("overwrite", false)
            .param("name", "100%41 #x")
            .param("&", "v")
            .param("empty", QString());
        QCOMPARE(builder.client()->url(),
            m_server.url(
                "/v2/up?path=/a%20b/%C3%A9%26c%3Dd%2Be&overwrite=false&name=100%2541%20%23x&%26=v&empty="));
        Calls calls;
        builder.upload(QByteArray("body"), {}, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        const RecordedRequest r = m_server.lastRequest();
        QCOMPARE(r.target,
            QByteArray(
                "/v2/up?path=/a%20b/%C3%A9%26c%3Dd%2Be&overwrite=false&name=100%2541%20%23x&%26=v&empty="));
        QCOMPARE(r.body, QByteArray("body"));
    }

    void extraQueryIsAppendedAsItIs()
    {
        NBRequestBuilder builder = m_api.request("/op");
        builder.extraQuery("").extraQuery("k=v w&x");
        QCOMPARE(builder.client()->url(), m_server.url("/v2/op&k=v w&x"));
        builder.param("a", "1");
        Calls calls;
        QCOMPARE(sent(builder, calls).target, QByteArray("/v2/op&k=v%20w&x?a=1"));
    }

    void releasedAfterTheEndpointIsGone()
    {
        TestServer slow([](const RecordedRequest&) { return ServerReply::drip("late", 30); });
        auto* api = new ProbeApi;
        api->setBaseUrlString(slow.url());
        Calls calls;
        long long id;
        {
            NBRequestBuilder builder = api->request("/op");
            id = builder.send(calls.completion());
        }
        delete api;
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) != nullptr);
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().body, QString("late"));
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
    }

    void transferSendsReturnTheIdentifierAndRelease()
    {
        TestServer files([](const RecordedRequest&) { return ServerReply::ok("content", "text/plain"); });
        m_api.setBaseUrlString(files.url());
        QTemporaryDir dir;
        const QString target = dir.filePath("t.txt");
        const QString source = dir.filePath("s.txt");
        QFile(source).open(QIODevice::WriteOnly);
        Calls calls;
        QList<long long> ids;
        ids << m_api.request("/d").download(calls.data(), {}, calls.completion())
            << m_api.request("/f").downloadTo(target, {}, calls.completion())
            << m_api.request("/p").downloadUsePost(calls.data(), {}, calls.completion())
            << m_api.request("/u").upload(source, {}, calls.completion())
            << m_api.request("/b").upload(QByteArray("b"), {}, calls.completion());
        QVERIFY(calls.waitForCompletions(5));
        for (long long id : ids) {
            QVERIFY(id >= 0);
            QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
        }
        QCOMPARE(files.requestCount(), 5);
        QFile file(target);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("content"));
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
        builder.send(calls.completion(), NBRequestBuilder::NoRedirects);
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().statusCode, 301);
        QCOMPARE(redirecting.requestCount(), 1);
    }
};

NB_TEST_MAIN(TestNBRequestBuilder)
#include "tst_nbrequestbuilder.moc"
