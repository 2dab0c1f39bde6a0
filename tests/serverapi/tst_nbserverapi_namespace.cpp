// The namespace, batch and change-feed operations of the endpoint base on the wire,
// through the facade, for every deployment that inherits them.
#include "Golden.h"
#include "NBServerApi.h"
#include "TestMain.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

namespace {

// A form body holding one "json" parameter with this text.
QByteArray jsonForm(const QByteArray& text)
{
    return "json=" + QUrl::toPercentEncoding(QString::fromUtf8(text));
}

NBServerApiEntryModel entry(const QString& path, const QString& root = QString())
{
    NBServerApiEntryModel e;
    e.root = root;
    e.path = path;
    e.pathType = NBPathType::Ent;
    return e;
}

} // namespace

class TestNBServerApiNamespace : public QObject
{
    Q_OBJECT
private slots:
    void accountMetadataFoldersLocks_data()
    {
        Golden::addRows({
            golden("userInfo, no suffix",
                [](GoldenContext& c) { return ServerApi::UserInfo({}, c.calls.completion()); })
                .sends(AllDeployments, "GET /v2/user/info/get\n{get}\n"),
            golden("userInfo, suffix",
                [](GoldenContext& c) {
                    NBServerApiUserInfoModel m;
                    m.suffix = "ext ra";
                    return ServerApi::UserInfo(m, c.calls.completion());
                })
                .sends(AllDeployments, "GET /v2/user/info/get/ext%20ra\n{get}\n"),
            golden("configGet",
                [](GoldenContext& c) {
                    NBServerApiConfigGetModel m;
                    m.configType = "client";
                    m.configId = "a b&c=d+e/f";
                    m.name = "名字";
                    return ServerApi::ConfigGet(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "GET "
                    "/v2/config/"
                    "get?config_id=a%20b%26c%3Dd%2Be%2Ff&config_type=client&name=%E5%90%8D%E5%AD%97\n"
                    "{get}\n"),
            golden("configGet, verification code after the parameters",
                [](GoldenContext& c) {
                    NBServerApiConfigGetModel m;
                    m.configId = "1";
                    return ServerApi::ConfigGet(m, c.calls.completion());
                })
                .verifyCode("v c")
                .sends(AllDeployments, "GET /v2/config/get?config_id=1&config_type=&name=&S=v%20c\n{get}\n"),
            golden("serverJump",
                [](GoldenContext& c) {
                    NBServerApiServerJumpModel m;
                    m.url = "https://web/x?y=1&z=é";
                    m.session = "s=+/";
                    m.type = "2";
                    return ServerApi::ServerJump(m, c.calls.completion());
                })
                .sends(Pri | PriSix,
                    "GET /v2/api/server/jump?url=https%3A%2F%2Fweb%2Fx%3Fy%3D1%26z%3D%C3%A9"
                    "&X-NIMBRA-SESS-ID=s%3D%2B%2F&type=2\n{get}\n")
                .sends(Pub,
                    "GET "
                    "/js/module/preview/previewVideo_audio_forPC_MAC.html?url=https%3A%2F%2Fweb%2Fx%3Fy%3D1"
                    "%26z%3D%C3%A9&X-NIMBRA-SESS-ID=s%3D%2B%2F&type=2\n{get}\n"),
            golden("metaData by identifier",
                [](GoldenContext& c) {
                    NBServerApiMetaEntryModel m;
                    m.path = "/docs/a b";
                    m.pathType = NBPathType::Ent;
                    m.neid = "42";
                    m.withSeed = true;
                    m.list = true;
                    return ServerApi::MetaData(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "GET /v2/metadata/databox//root?path=%2Fdocs%2Fa%20b&path_type=ent&neid=42"
                    "&include_deleted=false&with_seed=true&list=true&orderby=&sort=&limit=0&offset=0\n{get}"
                    "\n"),
            golden("metaData by path",
                [](GoldenContext& c) {
                    NBServerApiMetaEntryModel m;
                    m.path = "/文档/a+b=c&d";
                    m.pathType = NBPathType::ShareIn;
                    m.from = "f 1";
                    m.prefixNeid = "7";
                    m.includeDeleted = true;
                    m.contentType = "dir";
                    m.orderby = "name";
                    m.sort = "asc";
                    m.limit = 100;
                    m.offset = 20;
                    return ServerApi::MetaData(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "GET "
                    "/v2/metadata/databox/%E6%96%87%E6%A1%A3/"
                    "a+b=c&d?path=%2F%E6%96%87%E6%A1%A3%2Fa%2Bb%3Dc%26d"
                    "&path_type=share_in&from=f%201&prefix_neid=7&include_deleted=true&with_seed=false&list="
                    "false"
                    "&content_type=dir&orderby=name&sort=asc&limit=100&offset=20\n{get}\n"),
            golden("createFolder",
                [](GoldenContext& c) {
                    NBServerApiCreateFolderModel m;
                    m.path = "/new folder/子";
                    m.pathType = NBPathType::Self;
                    m.from = "f";
                    m.neid = "ignored";
                    m.prefixNeid = "p&1";
                    m.dcId = "dc 1";
                    return ServerApi::CreateFolder(m, c.calls.completion());
                })
                .sends(Pub,
                    "POST /v2/fileops/create_folder/databox/new%20folder/%E5%AD%90\n{post}\n"
                    "path_type=self&from=f&prefix_neid=p%261&dc_id=dc%201")
                .sends(Pri | PriSix,
                    "POST /v2/fileops/create_folder/databox/new%20folder/%E5%AD%90\n{post}\n"
                    "path_type=self&from=f&prefix_neid=p%261&dc_id=dc%201&full_path=%2Fnew%20folder%2F%E5%AD%"
                    "90"
                    "&disable_rename=false&is_update=false"),
            golden("createFolder, verification code in the address",
                [](GoldenContext& c) {
                    NBServerApiCreateFolderModel m;
                    m.path = "/n";
                    m.pathType = NBPathType::Ent;
                    return ServerApi::CreateFolder(m, c.calls.completion());
                })
                .verifyCode("vc/1")
                .sends(Pub, "POST /v2/fileops/create_folder/databox/n?S=vc%2F1\n{post}\npath_type=ent")
                .sends(Pri | PriSix,
                    "POST /v2/fileops/create_folder/databox/n?S=vc%2F1\n{post}\n"
                    "path_type=ent&full_path=%2Fn&disable_rename=false&is_update=false"),
            golden("createFolder, every field of the private form",
                [](GoldenContext& c) {
                    NBServerApiCreateFolderModel m;
                    m.path = "/n";
                    m.pathType = NBPathType::Ent;
                    m.nsid = "ns";
                    m.ignorePrefixPath = "true";
                    m.disableRename = true;
                    m.isUpdate = true;
                    return ServerApi::CreateFolder(m, c.calls.completion());
                })
                .sends(Pub, "POST /v2/fileops/create_folder/databox/n\n{post}\npath_type=ent")
                .sends(Pri | PriSix,
                    "POST /v2/fileops/create_folder/databox/n\n{post}\n"
                    "nsid=ns&path_type=ent&full_path=%2Fn&ignore_prefix_path=true&disable_rename=true&is_"
                    "update=true"),
            golden("regionGet", [](GoldenContext& c) { return ServerApi::RegionGet(c.calls.completion()); })
                .sends(AllDeployments, "GET /v2/region/get\n{get}\n"),
            golden("revisions",
                [](GoldenContext& c) {
                    NBServerApiRevisionsModel m;
                    m.path = "/a.txt";
                    m.pathType = NBPathType::Self;
                    m.neid = "9";
                    m.revLimit = 5;
                    return ServerApi::Revisions(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "GET "
                    "/v2/revisions/databox/a.txt?path=%2Fa.txt&path_type=self&neid=9&rev_limit=5\n{get}\n"),
            golden("GetUpdataSourcePath",
                [](GoldenContext& c) {
                    return ServerApi::GetUpdataSourcePath("acct 1", c.calls.completion());
                })
                .sends(AllDeployments, "GET /v2/app/info/get?acct_id=acct%201\n{get}\n"),
            golden("lockFile",
                [](GoldenContext& c) {
                    NBServerApiLockFileModel m;
                    m.path = "/a";
                    m.pathType = NBPathType::Ent;
                    m.from = "x";
                    m.neid = "n";
                    m.prefixNeid = "p";
                    m.time = 3600;
                    return ServerApi::LockFile(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "GET "
                    "/v2/lock/databox/"
                    "a?path=%2Fa&path_type=ent&from=x&neid=n&prefix_neid=p&time=3600\n{get}\n"),
            golden("unlockFile, default model",
                [](GoldenContext& c) { return ServerApi::UnlockFile({}, c.calls.completion()); })
                .sends(AllDeployments, "GET /v2/unlock/databox?path=&path_type=\n{get}\n"),
            golden("unlockFile, unknown path type sent as it is",
                [](GoldenContext& c) {
                    NBServerApiUnlockFileModel m;
                    m.path = "/a";
                    m.pathType = "Something Else";
                    return ServerApi::UnlockFile(m, c.calls.completion());
                })
                .sends(
                    AllDeployments, "GET /v2/unlock/databox/a?path=%2Fa&path_type=Something%20Else\n{get}\n"),
            golden("without language or session: no cookie, the network layer's agent",
                [](GoldenContext& c) { return ServerApi::RegionGet(c.calls.completion()); })
                .withSettings({ QString(), QString(), QString(), "vc" })
                .sends(AllDeployments,
                    "GET /v2/region/get?S=vc\nHost: {host}\nAccept: */*\n{qt}User-Agent: Mozilla/5.0\n\n"),
            golden(
                "language only", [](GoldenContext& c) { return ServerApi::RegionGet(c.calls.completion()); })
                .withSettings({ "agent 1", "en", QString(), QString() })
                .sends(AllDeployments,
                    "GET /v2/region/get\nHost: {host}\nUser-Agent: agent 1\nAccept: */*\nCookie: "
                    "language=en\n{qt}\n"),
        });
    }

    void accountMetadataFoldersLocks() { Golden::run(); }

    void feedSyncApprovalLog_data()
    {
        Golden::addRows({
            golden("delta, first read",
                [](GoldenContext& c) {
                    NBServerApiDeltaModel m;
                    m.pathType = NBPathType::Ent;
                    return ServerApi::Delta(m, c.calls.completion());
                })
                .sends(AllDeployments, "POST /v2/delta/databox\n{post}\npath_type=ent"),
            golden("delta, with cursor",
                [](GoldenContext& c) {
                    NBServerApiDeltaModel m;
                    m.path = "/team docs";
                    m.pathType = NBPathType::ShareOut;
                    m.from = "f";
                    m.neid = "n";
                    m.prefixNeid = "p";
                    m.cursor = "c+1/2=";
                    return ServerApi::Delta(m, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "POST /v2/delta/databox/team%20docs?S=vc\n{post}\n"
                    "path_type=share_out&from=f&neid=n&cursor=c%2B1%2F2%3D&prefix_neid=p"),
            golden("GetSyncData, identifiers empty",
                [](GoldenContext& c) {
                    return ServerApi::GetSyncData({}, "", "", "", "", 0, c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST "
                    "/v2/syncdata/"
                    "syncDisc\n{post}\npath=&path_type=&syncCid=0&pullJid=0&deltaDataId=0&syncType=0"),
            golden("GetSyncData, everything set",
                [](GoldenContext& c) {
                    NBServerApiDeltaModel m;
                    m.path = "/s";
                    m.pathType = NBPathType::Self;
                    m.from = "f";
                    m.neid = "n";
                    m.prefixNeid = "p";
                    m.cursor = "cur";
                    return ServerApi::GetSyncData(m, "11", "u 2", "33", "44", -5, c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/syncdata/syncDisc\n{post}\npath=%2Fs&path_type=self&from=f&neid=n&cursor=cur"
                    "&prefix_neid=p&syncCid=11&syncUid=u%202&pullJid=33&deltaDataId=44&syncType=-5"),
            golden("checkApproveIsOne",
                [](GoldenContext& c) { return ServerApi::CheckApproveIsOne("1,2", 3, c.calls.completion()); })
                .verifyCode("vc")
                .sends(AllDeployments, "GET /v2/approve/is_approval?S=vc&neids=1%2C2&action_type=3\n{get}\n"),
            golden("checkApproveFloder",
                [](GoldenContext& c) {
                    return ServerApi::CheckApproveFloder("ns 1", "/a/b", c.calls.completion());
                })
                .sends(AllDeployments, "GET /v2/approve/is_exist_policy?nsid=ns%201&path=%2Fa%2Fb\n{get}\n"),
            golden("isCreateSyndisc",
                [](GoldenContext& c) {
                    return ServerApi::IsCreateSyndisc("ns", "/同步", "1", c.calls.completion());
                })
                .sends(AllDeployments,
                    "GET /v2/approve/is_create_syndisc?nsid=ns&path=%2F%E5%90%8C%E6%AD%A5&type=1\n{get}\n"),
            golden("RPCServerLogging, recycle",
                [](GoldenContext& c) {
                    return ServerApi::RPCServerLogging(
                        "upload", "second", "first", "recycle", "n", "s", "op 1", c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "POST /v2/log/logging?S=vc\n{post}\n"
                    "category=0&action=upload&entityStr1=first&entityStr2=second&pathType=0&op_type=op%201"
                    "&neid=n&nsid=s"),
            golden("RPCServerLogging, share_out",
                [](GoldenContext& c) {
                    return ServerApi::RPCServerLogging(
                        "a", "", "", "share_out", "", "", "", c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/log/logging\n{post}\n"
                    "category=0&action=a&entityStr1=&entityStr2=&pathType=4&op_type=&neid=&nsid="),
            golden("RPCServerLogging, Self",
                [](GoldenContext& c) {
                    return ServerApi::RPCServerLogging("a", "", "", "Self", "", "", "", c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/log/logging\n{post}\n"
                    "category=0&action=a&entityStr1=&entityStr2=&pathType=2&op_type=&neid=&nsid="),
        });
    }

    void feedSyncApprovalLog() { Golden::run(); }

    void moveCopyDelete_data()
    {
        Golden::addRows({
            golden("move",
                [](GoldenContext& c) {
                    NBServerApiMoveModel m;
                    m.from = entry("/a b", "ignored root");
                    m.from.from = "f1";
                    m.from.neid = "1";
                    m.to = entry("/目标");
                    m.to.pathType = NBPathType::Self;
                    m.to.prefixNeid = "p2";
                    m.ignoreShare = true;
                    return ServerApi::Move(m, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "POST /v2/fileops/move?S=vc\n{post}\n"
                    "root=databox&from_path=%2Fa%20b&from_path_type=ent&from_from=f1&from_neid=1&from_prefix_"
                    "neid="
                    "&to_path=%2F%E7%9B%AE%E6%A0%87&to_path_type=self&to_from=&to_neid=&to_prefix_neid=p2"
                    "&ignore_share=true"),
            golden("BatchCopy, no sources",
                [](GoldenContext& c) {
                    NBServerApiBatchMoveModel m;
                    m.to = entry("/dest");
                    return ServerApi::BatchCopy(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/fileops/batch_copy\n{post}\n"
                        + jsonForm("{\n"
                                   "    \"from\": [\n"
                                   "    ],\n"
                                   "    \"ignore_share\": \"false\",\n"
                                   "    \"to\": {\n"
                                   "        \"from\": \"\",\n"
                                   "        \"neid\": \"\",\n"
                                   "        \"path\": \"/dest\",\n"
                                   "        \"path_type\": \"ent\",\n"
                                   "        \"prefix_neid\": \"\",\n"
                                   "        \"root\": \"\"\n"
                                   "    }\n"
                                   "}\n")),
            golden("batchMove",
                [](GoldenContext& c) {
                    NBServerApiBatchMoveModel m;
                    m.from << entry("/a&b", "databox") << entry("/é");
                    m.to = entry("/d");
                    m.ignoreShare = true;
                    return ServerApi::BatchMove(m, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "POST /v2/fileops/batch_move?S=vc\n{post}\n"
                        + jsonForm("{\n"
                                   "    \"from\": [\n"
                                   "        {\n"
                                   "            \"from\": \"\",\n"
                                   "            \"neid\": \"\",\n"
                                   "            \"path\": \"/a&b\",\n"
                                   "            \"path_type\": \"ent\",\n"
                                   "            \"prefix_neid\": \"\",\n"
                                   "            \"root\": \"databox\"\n"
                                   "        },\n"
                                   "        {\n"
                                   "            \"from\": \"\",\n"
                                   "            \"neid\": \"\",\n"
                                   "            \"path\": \"/é\",\n"
                                   "            \"path_type\": \"ent\",\n"
                                   "            \"prefix_neid\": \"\",\n"
                                   "            \"root\": \"\"\n"
                                   "        }\n"
                                   "    ],\n"
                                   "    \"ignore_share\": \"true\",\n"
                                   "    \"to\": {\n"
                                   "        \"from\": \"\",\n"
                                   "        \"neid\": \"\",\n"
                                   "        \"path\": \"/d\",\n"
                                   "        \"path_type\": \"ent\",\n"
                                   "        \"prefix_neid\": \"\",\n"
                                   "        \"root\": \"\"\n"
                                   "    }\n"
                                   "}\n")),
            golden("batchDelete",
                [](GoldenContext& c) {
                    NBServerApiBatchDeleteModel m;
                    m.pathes << entry("/x", "databox") << entry("/y");
                    m.pathes[1].neid = "9";
                    return ServerApi::BatchDelete(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/fileops/batch_delete\n{post}\n"
                        + jsonForm("{\n"
                                   "    \"ignore_share\": \"false\",\n"
                                   "    \"pathes\": [\n"
                                   "        {\n"
                                   "            \"from\": \"\",\n"
                                   "            \"neid\": \"\",\n"
                                   "            \"path\": \"/x\",\n"
                                   "            \"path_type\": \"ent\",\n"
                                   "            \"prefix_neid\": \"\",\n"
                                   "            \"root\": \"databox\"\n"
                                   "        },\n"
                                   "        {\n"
                                   "            \"from\": \"\",\n"
                                   "            \"neid\": \"9\",\n"
                                   "            \"path\": \"/y\",\n"
                                   "            \"path_type\": \"ent\",\n"
                                   "            \"prefix_neid\": \"\",\n"
                                   "            \"root\": \"\"\n"
                                   "        }\n"
                                   "    ]\n"
                                   "}\n")),
            golden("batchAsyncQuery, empty task id",
                [](GoldenContext& c) { return ServerApi::BatchTaskAsyncQuery("", c.calls.completion()); })
                .sends(AllDeployments, "GET /v2/async/query?task_id=\n{get}\n"),
            golden("batchAsyncQuery, verification code first",
                [](GoldenContext& c) { return ServerApi::BatchTaskAsyncQuery("t/1", c.calls.completion()); })
                .verifyCode("vc")
                .sends(AllDeployments, "GET /v2/async/query?S=vc&task_id=t%2F1\n{get}\n"),
        });
    }

    void moveCopyDelete() { Golden::run(); }

    // The batch bodies read back as JSON: members, their types and the order of arrays.
    void batchBodiesParseAsTheServerReadsThem()
    {
        TestServer server;
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(server.url());
        NBServerApiBatchDeleteModel m;
        for (int i = 0; i < 3; ++i) {
            NBServerApiEntryModel e = entry(QStringLiteral("/f%1").arg(i));
            e.neid = QString::number(i);
            m.pathes << e;
        }
        Calls calls;
        ServerApi::BatchDelete(m, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        ServerApi::uninit();
        const QByteArray body = server.lastRequest().body;
        QVERIFY(body.startsWith("json="));
        const QByteArray text = QUrl::fromPercentEncoding(body.mid(5)).toUtf8();
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(text, &error);
        QCOMPARE(error.error, QJsonParseError::NoError);
        const QJsonObject object = document.object();
        QCOMPARE(object.keys(), (QStringList { "ignore_share", "pathes" }));
        QVERIFY(object.value("ignore_share").isString());
        QCOMPARE(object.value("ignore_share").toString(), QString("false"));
        const QJsonArray pathes = object.value("pathes").toArray();
        QCOMPARE(pathes.size(), 3);
        for (int i = 0; i < 3; ++i) {
            const QJsonObject e = pathes.at(i).toObject();
            QCOMPARE(e.keys(), (QStringList { "from", "neid", "path", "path_type", "prefix_neid", "root" }));
            for (const QString& key : e.keys())
                QVERIFY(e.value(key).isString());
            QCOMPARE(e.value("path").toString(), QStringLiteral("/f%1").arg(i));
            QCOMPARE(e.value("neid").toString(), QString::number(i));
        }
    }

    void getSyncDataIsServedByNoDeployment_data()
    {
        QTest::addColumn<int>("type");
        QTest::newRow("private") << int(ServerApi::Private);
        QTest::newRow("public") << int(ServerApi::PublicCloud);
        QTest::newRow("private6") << int(ServerApi::PrivateSix);
    }

    void getSyncDataIsServedByNoDeployment()
    {
        QFETCH(int, type);
        TestServer server;
        ServerApi::init(ServerApi::NBServerApiType(type));
        ServerApi::setBaseUrlString(server.url());
        Calls calls;
        QCOMPARE(ServerApi::serverApi()->getSyncData({}, calls.completion()), -1LL);
        QTest::qWait(200);
        ServerApi::uninit();
        QCOMPARE(server.requestCount(), 0);
        QVERIFY(calls.completions.isEmpty());
    }
};

NB_TEST_MAIN(TestNBServerApiNamespace)
#include "tst_nbserverapi_namespace.moc"
