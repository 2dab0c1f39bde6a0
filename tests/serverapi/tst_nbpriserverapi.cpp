// The private deployment variants: the private endpoint's own operations and the
// 6.0 endpoint's sync data, assigned jobs and model forms of the chunked upload.
#include "ChunkServer.h"
#include "Golden.h"
#include "NBHttpClientManager.h"
#include "NBPriSixServerApi.h"
#include "TestData.h"
#include "TestLog.h"
#include "TestMain.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QUrl>

namespace {

QByteArray latin1JsonForm(const QByteArray& text)
{
    return "json=" + QUrl::toPercentEncoding(QString::fromLatin1(text));
}

NBServerApiGetSyncDataModel syncModel()
{
    NBServerApiGetSyncDataModel m;
    m.path = "/vbox 1";
    m.pathType = NBPathType::Ent;
    m.from = "f";
    m.prefixNeid = "p";
    m.syncUid = 1;
    m.syncCid = 22;
    m.pullJid = 333;
    m.deltaDataId = 9000000000LL;
    m.assignJid = -5;
    return m;
}

NBPriSixServerApi* six()
{
    return dynamic_cast<NBPriSixServerApi*>(ServerApi::serverApi());
}

} // namespace

class TestNBPriServerApi : public QObject
{
    Q_OBJECT
private slots:
    void cleanup() { ServerApi::uninit(); }

    void privateOperations_data()
    {
        Golden::addRows({
            golden("login, default headers only",
                [](GoldenContext& c) {
                    NBServerApiLoginModel m;
                    m.userName = "user one";
                    m.password = "p&ss";
                    m.captcha = "not sent";
                    return ServerApi::Login(m, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(Pri | PriSix, "POST /v2/user/login\n{post}\nuser_slug=user%20one&password=p%26ss")
                .unserved(Pub, 0),
            golden("extra, the JSON read back as Latin-1",
                [](GoldenContext& c) {
                    return ServerApi::Extra({ "1", "é" }, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(Pri | PriSix,
                    "POST /v2/extra_metadata?S=vc\n{post}\n"
                        + latin1JsonForm(QString("[\n"
                                                 "    {\n"
                                                 "        \"neid\": \"1\"\n"
                                                 "    },\n"
                                                 "    {\n"
                                                 "        \"neid\": \"é\"\n"
                                                 "    }\n"
                                                 "]\n")
                                             .toUtf8())),
            golden("extra, empty list",
                [](GoldenContext& c) { return ServerApi::Extra({}, c.calls.completion()); })
                .sends(Pri | PriSix, "POST /v2/extra_metadata\n{post}\n" + latin1JsonForm("[\n]\n")),
            golden("fileExist, all five always",
                [](GoldenContext& c) {
                    return ServerApi::FileExist("", "", "", "", "", c.calls.completion());
                })
                .sends(
                    Pri | PriSix, "POST /v2/fileops/fileExists\n{post}\nnsid=&path=&neid=&from=&prefix_neid=")
                .unserved(Pub, -1),
            golden("fileExist, values",
                [](GoldenContext& c) {
                    return ServerApi::FileExist("n1", "/a b", "ns", "f", "p", c.calls.completion());
                })
                .verifyCode("vc")
                .sends(Pri | PriSix,
                    "POST "
                    "/v2/fileops/"
                    "fileExists?S=vc\n{post}\nnsid=ns&path=%2Fa%20b&neid=n1&from=f&prefix_neid=p"),
            golden("downloadRouterInternal, by POST",
                [](GoldenContext& c) {
                    NBSeverApiDLRouterModel m;
                    m.path = "/d f";
                    m.pathType = NBPathType::Ent;
                    m.neid = "n";
                    m.range = "bytes=0-9";
                    m.opType = "o";
                    return dynamic_cast<NBPriServerApi*>(ServerApi::serverApi())
                        ->downloadRouterInternal(m, c.calls.data(), c.calls.completion(), {}, true);
                })
                .throughTheEndpoint()
                .verifyCode("vc")
                .sends(Pri | PriSix,
                    "POST /v2/dl_router/databox?S=vc\nHost: {host}\nRange: bytes=0-9\nx-nimbraws-range: "
                    "bytes=0-9\n"
                    "{ua}{form}{cookie}Content-Length: {length}\n{qt}\n"
                    "target_path=%2Fd%20f&path_type=ent&neid=n&op_type=o"),
            golden("downloadRouterInternal, by GET",
                [](GoldenContext& c) {
                    NBSeverApiDLRouterModel m;
                    m.path = "/d";
                    m.pathType = NBPathType::Ent;
                    return dynamic_cast<NBPriServerApi*>(ServerApi::serverApi())
                        ->downloadRouterInternal(m, c.calls.data(), c.calls.completion(), {}, false);
                })
                .throughTheEndpoint()
                .sends(Pri | PriSix, "GET /v2/dl_router/databox/d?path=%2Fd&path_type=ent\n{get}\n"),
        });
    }

    void privateOperations() { Golden::run(); }

    void sixOperations_data()
    {
        Golden::addRows({
            golden("getSyncDataForDisk",
                [](GoldenContext& c) {
                    return ServerApi::GetSyncDataForDisk(syncModel(), c.calls.completion());
                })
                .verifyCode("vc")
                .sends(PriSix,
                    "POST /v2/syncdata/virtualBox?S=vc\n{post}\n"
                    "syncUid=1&syncCid=22&pullJid=333&deltaDataId=9000000000&assign_Jid=-5&path=%2Fvbox%201"
                    "&path_type=ent&from=f&prefix_neid=p")
                .unserved(Pri | Pub, -1),
            golden("getSyncDataForDisk, identifiers zero",
                [](GoldenContext& c) { return ServerApi::GetSyncDataForDisk({}, c.calls.completion()); })
                .sends(PriSix,
                    "POST /v2/syncdata/virtualBox\n{post}\n"
                    "syncUid=0&syncCid=0&pullJid=0&deltaDataId=0&assign_Jid=0&path="),
            golden("getAssignSyncData",
                [](GoldenContext& c) {
                    return ServerApi::GetAssignSyncData(syncModel(), c.calls.completion());
                })
                .sends(PriSix,
                    "POST /v2/syncdata/assignVirtualBox\n{post}\n"
                    "syncUid=1&syncCid=22&pullJid=333&deltaDataId=9000000000&assign_Jid=-5&path=%2Fvbox%201"
                    "&path_type=ent&from=f&prefix_neid=p")
                .unserved(Pri | Pub, -1),
            golden("getAssignSyncData, identifiers zero",
                [](GoldenContext& c) { return ServerApi::GetAssignSyncData({}, c.calls.completion()); })
                .sends(PriSix,
                    "POST /v2/syncdata/assignVirtualBox\n{post}\n"
                    "syncUid=0&syncCid=0&pullJid=0&deltaDataId=0&assign_Jid=0&path="),
            golden("getAssingJid, a GET",
                [](GoldenContext& c) {
                    NBServerApiEntryModel m;
                    m.path = "/j";
                    m.pathType = NBPathType::Ent;
                    m.neid = "not sent";
                    return ServerApi::GetAssignJid(m, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(PriSix, "GET /v2/syncdata/returnAssignJid?path=%2Fj&path_type=ent&S=vc\n{get}\n")
                .unserved(Pri | Pub, -1),
            golden("queryHash, 6.0 model form",
                [](GoldenContext& c) {
                    return six()->queryHash(
                        NBServerApiQueryHashSixModel { c.url(), "h1", "x y" }, c.calls.completion());
                })
                .throughTheEndpoint()
                .verifyCode("vc")
                .sends(PriSix,
                    "POST /v2/commit_chunked_upload/commit/databox?S=vc\n{post}\nhashes[]=h1&%26=x%20y"),
            golden("queryHashSix, hashes in order, then the \"&\" item",
                [](GoldenContext& c) {
                    return six()->queryHashSix(c.url(), { "b", "a" }, "x=1&y", c.calls.completion());
                })
                .throughTheEndpoint()
                .sends(PriSix,
                    "POST "
                    "/v2/commit_chunked_upload/commit/databox\n{post}\nhashes[]=b&hashes[]=a&%26=x%3D1%26y"),
            golden("queryHash, 6.0 model form, empty extra still sent",
                [](GoldenContext& c) {
                    return six()->queryHash(
                        NBServerApiQueryHashSixModel { c.url(), "h1", "" }, c.calls.completion());
                })
                .throughTheEndpoint()
                .sends(PriSix, "POST /v2/commit_chunked_upload/commit/databox\n{post}\nhashes[]=h1&%26="),
            golden("chunkedUpload, 6.0 model form, no extra",
                [](GoldenContext& c) {
                    return six()->chunkedUpload(
                        NBServerApiChunkedUploadSixModel { c.url(), "u", "h", "chunk", "" },
                        c.calls.completion(), {});
                })
                .throughTheEndpoint()
                .verifyCode("vc")
                .sends(PriSix, "POST /v2/chunked_upload?hash=h&upload_id=u&offset=0&S=vc\n{upload}\nchunk"),
            golden("chunkedUpload, 6.0 model form, extra after S",
                [](GoldenContext& c) {
                    return six()->chunkedUpload(
                        NBServerApiChunkedUploadSixModel { c.url(), "", "", "chunk", "e&1" },
                        c.calls.completion(), {});
                })
                .throughTheEndpoint()
                .verifyCode("vc")
                .sends(PriSix, "POST /v2/chunked_upload?offset=0&S=vc&%26=e%261\n{upload}\nchunk"),
            golden("chunkedUpload, 6.0 model form, + in the upload id, the hash, the code and the extra",
                [](GoldenContext& c) {
                    return six()->chunkedUpload(
                        NBServerApiChunkedUploadSixModel { c.url(), "u+1", "h+", "chunk", "e+1" },
                        c.calls.completion(), {});
                })
                .throughTheEndpoint()
                .verifyCode("v+c")
                .sends(PriSix,
                    "POST "
                    "/v2/"
                    "chunked_upload?hash=h%2B&upload_id=u%2B1&offset=0&S=v%2Bc&%26=e%2B1\n{upload}\nchunk"),
        });
    }

    void sixOperations() { Golden::run(); }

    void createFileSendsNothing()
    {
        TestServer server;
        ServerApi::init(ServerApi::Private);
        ServerApi::setBaseUrlString(server.url());
        Calls calls;
        NBServerApiCreateFileModel m;
        m.path = "/a.txt";
        QCOMPARE(ServerApi::CreateFile(m, calls.completion()), -1LL);
        QTest::qWait(200);
        QCOMPARE(server.requestCount(), 0);
        QVERIFY(calls.completions.isEmpty());
    }

    void downloadRouterByPostDeliversThroughTheDataCallback()
    {
        TestServer server([](const RecordedRequest& r) {
            return r.method == "POST" ? ServerReply::ok(QByteArray(300000, 'q'), "application/octet-stream")
                                      : ServerReply::withStatus(405);
        });
        ServerApi::init(ServerApi::Private);
        ServerApi::setBaseUrlString(server.url());
        NBSeverApiDLRouterModel m;
        m.path = "/big";
        m.pathType = NBPathType::Ent;
        Calls calls;
        const long long id = dynamic_cast<NBPriServerApi*>(ServerApi::serverApi())
                                 ->downloadRouterInternal(
                                     m, calls.data(), calls.completion(), calls.downloadProgress(), true);
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().statusCode, 200);
        QCOMPARE(calls.joinedPieces(), QByteArray(300000, 'q'));
        QVERIFY(!calls.downloads.isEmpty());
        QCOMPARE(server.lastRequest().body, QByteArray("target_path=%2Fbig&path_type=ent"));
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
    }

    // Every sync-data reply is logged with its address and body, whatever its outcome.
    void syncDataRepliesAreLogged_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("refused");
        QTest::addColumn<bool>("assign");
        for (bool assign : { true, false }) {
            const char* name = assign ? "assigned" : "virtual box";
            QTest::addRow("%s, success", name) << 200 << QByteArray("{\"entries\":[]}") << false << assign;
            QTest::addRow("%s, server error", name)
                << 500 << QByteArray("{\"code\":\"boom\"}") << false << assign;
            QTest::addRow("%s, refused connection", name) << 0 << QByteArray() << true << assign;
        }
    }

    void syncDataRepliesAreLogged()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(bool, refused);
        QFETCH(bool, assign);
        TestServer server(
            [status, body](const RecordedRequest&) { return ServerReply::withStatus(status, body); });
        QString base = server.url(QString());
        if (refused) {
            QTcpServer probe;
            probe.listen(QHostAddress::LocalHost, 0);
            base = QStringLiteral("http://127.0.0.1:%1").arg(probe.serverPort());
        }
        ServerApi::init(ServerApi::PrivateSix);
        ServerApi::setBaseUrlString(base);
        TestLog log;
        Calls calls;
        if (assign)
            ServerApi::GetAssignSyncData({}, calls.completion());
        else
            ServerApi::GetSyncDataForDisk({}, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().statusCode, status);
        QCOMPARE(calls.last().networkError != 0, status != 200);
        const QString line = QStringLiteral("responsedata: ") + base
            + (assign ? QStringLiteral("/v2/syncdata/assignVirtualBox")
                      : QStringLiteral("/v2/syncdata/virtualBox"))
            + QString::fromUtf8(body);
        const LogEntry* entry = log.find(line);
        QVERIFY2(entry, qPrintable(log.dump()));
        QCOMPARE(entry->level, QString("ERROR"));
        QCOMPARE(entry->file, QString("NBPriSixServerApi.cpp"));
        QCOMPARE(entry->function, QString("operator()"));
        QCOMPARE(entry->line, 129);
    }

    // The chunked protocol with the 6.0 model forms of the hash query and chunk upload.
    void sixChunkedUploadEndToEnd()
    {
        ChunkServer server;
        ServerApi::init(ServerApi::PrivateSix);
        const qint64 chunkSize = 1 << 20;
        const QByteArray content = randomBytes(5 * chunkSize + 777, 17);
        QList<QString> hashes;
        for (qint64 at = 0; at < content.size(); at += chunkSize)
            hashes << QString::fromLatin1(ChunkServer::hashOf(content.mid(at, chunkSize)));

        Calls queries;
        for (const QString& hash : hashes)
            six()->queryHash(
                NBServerApiQueryHashSixModel { server.url(), hash, "tag=6" }, queries.completion());
        QVERIFY(queries.waitForCompletions(hashes.size()));
        QSet<QString> needed;
        for (const ResponseData& r : queries.completions) {
            for (const QJsonValue& v :
                QJsonDocument::fromJson(r.body.toUtf8()).object().value("needed").toArray())
                needed.insert(v.toString());
        }
        QCOMPARE(needed.size(), hashes.size());

        Calls chunks;
        for (int i = 0; i < hashes.size(); ++i) {
            six()->chunkedUpload(NBServerApiChunkedUploadSixModel { server.url(), "six", hashes[i],
                                     content.mid(i * chunkSize, chunkSize), "tag=6" },
                chunks.completion(), {});
        }
        QVERIFY(chunks.waitForCompletions(hashes.size(), 20000));
        for (const ResponseData& r : chunks.completions)
            QCOMPARE(r.statusCode, 200);
        QCOMPARE(server.chunkUploads(), hashes.size());
        for (const RecordedRequest& r : server.server().requests()) {
            if (r.path().endsWith("/chunked_upload"))
                QVERIFY2(r.query().endsWith("&%26=tag%3D6"), r.query().constData());
        }

        NBServerApiCommitHashModel commit;
        commit.serverUrl = server.url();
        commit.path = "/six.bin";
        commit.pathType = NBPathType::Ent;
        commit.hashes = hashes;
        commit.bytes = content.size();
        commit.isFileCommit = true;
        Calls committed;
        ServerApi::CommitHash(commit, committed.completion());
        QVERIFY(committed.waitForCompletions(1));
        QCOMPARE(committed.last().statusCode, 200);
        QVERIFY(server.file("/six.bin") == content);
    }
};

NB_TEST_MAIN(TestNBPriServerApi)
#include "tst_nbpriserverapi.moc"
