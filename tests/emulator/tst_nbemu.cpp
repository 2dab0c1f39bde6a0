// nbemu driven through the library as a host drives a server: every exported
// operation with valid and invalid input, transfers, tasks, feeds, locks, the sign-in
// flows, shared links, crashes, load and faults. Each case starts its own emulator.
#include "EmuHost.h"
#include "EmuProcess.h"
#include "InactivityInterval.h"
#include "NBHttpClientManager.h"
#include "TestData.h"
#include "TestMain.h"
#include "Wait.h"

#include <QDirIterator>
#include <QFileInfo>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRandomGenerator>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <memory>
#include <vector>

using namespace EmuHost;

namespace {

// The request of `expression` is sent once; its record must be a success.
#define CHECK_OK(expression)                                                                                 \
    do {                                                                                                     \
        const ResponseData checked = (expression);                                                           \
        QVERIFY2(checked.statusCode >= 200 && checked.statusCode < 300 && checked.networkError == 0,         \
            qPrintable(QStringLiteral("status %1, error %2: %3")                                             \
                           .arg(checked.statusCode)                                                          \
                           .arg(checked.networkError)                                                        \
                           .arg(checked.body)));                                                             \
    } while (false)

int storedChunks(const EmuProcess& emu)
{
    int stored = 0;
    QDirIterator it(emu.dataDir() + "/chunks", QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        ++stored;
    }
    return stored;
}

QString taskOf(const ResponseData& r)
{
    return object(r).value("task_id").toString();
}

} // namespace

class TestNBEmu : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    void startHost(
        const EmuProcess& emu, int type, const QString& user = "alice", const QString& password = "secret")
    {
        QVERIFY(EmuHost::startHost(emu.url(), type, user, password));
    }

private slots:
    void cleanup() { ServerApi::uninit(); }

    void helpAnswersAndBadUsageFails()
    {
        QProcess help;
        help.start(NBEMU_PATH, { "--help" });
        QVERIFY(help.waitForFinished(10000));
        QCOMPARE(help.exitCode(), 0);
        const QString text = QString::fromUtf8(help.readAllStandardOutput());
        for (const char* option : { "--data", "--ephemeral", "--listen", "--port-file", "--type", "--user",
                 "--link", "--seed", "--verify-code", "--control", "--fault", "--fault-seed", "--log",
                 "--tls-self-signed", "--check" })
            QVERIFY2(text.contains(option), option);
        QProcess bad;
        bad.start(NBEMU_PATH, { "--type", "7", "--ephemeral" });
        QVERIFY(bad.waitForFinished(10000));
        QCOMPARE(bad.exitCode(), 1);
        QVERIFY(bad.readAllStandardError().contains("--type"));
    }

    void types_data()
    {
        QTest::addColumn<int>("type");
        QTest::newRow("private") << 0;
        QTest::newRow("public") << 1;
        QTest::newRow("private 6.0") << 2;
    }

    void everyOperationWithValidInput_data() { types_data(); }

    void everyOperationWithValidInput()
    {
        QFETCH(int, type);
        EmuProcess emu({ "--user", "alice:secret", "--link", "LINK:pw:alice:/shared" }, type);
        QVERIFY(emu.isRunning());
        startHost(emu, type);
        const QString server = emu.url();
        const QString session = ServerApi::sessionID();
        const QByteArray content = randomBytes(300000, 1);
        const QString local = writeFile(m_dir.filePath("local.bin"), content);

        CHECK_OK(sync([&](auto d) { return ServerApi::UserInfo({}, std::move(d)); }));
        QCOMPARE(object(sync([&](auto d) { return ServerApi::UserInfo({}, std::move(d)); }))
                     .value("user")
                     .toString(),
            QString("alice"));
        CHECK_OK(sync([&](auto d) { return ServerApi::ConfigGet({ "t", "1", "n" }, std::move(d)); }));
        CHECK_OK(sync([&](auto d) { return ServerApi::RegionGet(std::move(d)); }));
        CHECK_OK(sync([&](auto d) { return ServerApi::GetUpdataSourcePath("acct", std::move(d)); }));
        CHECK_OK(sync([&](auto d) { return ServerApi::ServerJump({ "/x", session, "1" }, std::move(d)); }));
        CHECK_OK(sync([&](auto d) {
            return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>("/docs"), std::move(d));
        }));

        NBServerApiUploadDataModel data = at<NBServerApiUploadDataModel>("/docs/a.txt");
        data.serverUrl = server;
        data.data = "hello";
        CHECK_OK(sync([&](auto d) { return ServerApi::UploadData(data, std::move(d)); }));
        NBServerApiUploadFileModel file = at<NBServerApiUploadFileModel>("/docs/b.bin");
        file.serverUrl = server;
        file.localPath = local;
        CHECK_OK(sync([&](auto d) { return ServerApi::UploadFile(file, std::move(d)); }));

        NBServerApiMetaEntryModel listing = at<NBServerApiMetaEntryModel>("/docs");
        listing.list = true;
        const QJsonObject listed
            = object(sync([&](auto d) { return ServerApi::MetaData(listing, std::move(d)); }));
        QCOMPARE(listed.value("total").toInt(), 2);

        NBServerApiDownloadFileModel down = at<NBServerApiDownloadFileModel>("/docs/b.bin");
        down.serverUrl = server;
        down.localPath = m_dir.filePath("back.bin");
        CHECK_OK(sync([&](auto d) { return ServerApi::DownloadFile(down, std::move(d)); }));
        QVERIFY(readFile(down.localPath) == content);
        NBServerApiDownloadDataModel downData = at<NBServerApiDownloadDataModel>("/docs/a.txt");
        downData.serverUrl = server;
        const ResponseData small
            = sync([&](auto d) { return ServerApi::DownloadData(downData, {}, std::move(d)); });
        CHECK_OK(small);
        QCOMPARE(small.body, QString("hello"));
        NBSeverApiDLRouterModel routed = at<NBSeverApiDLRouterModel>("/docs/b.bin");
        routed.range = "bytes=10-19";
        QByteArray piece;
        const ResponseData range = sync([&](auto d) {
            return ServerApi::DownloadRouter(
                routed, [&](const QByteArray& p) { piece += p; }, std::move(d));
        });
        QCOMPARE(range.statusCode, 206);
        QCOMPARE(piece, content.mid(10, 10));

        const QJsonObject revisions = object(sync([&](auto d) {
            return ServerApi::Revisions(at<NBServerApiRevisionsModel>("/docs/a.txt"), std::move(d));
        }));
        QCOMPARE(revisions.value("revisions").toArray().size(), 1);
        const QJsonObject authorised = object(
            sync([&](auto d) { return ServerApi::AuthUpload(entry("/docs/c.bin"), 8, std::move(d)); }));
        QCOMPARE(authorised.value("upload_server").toString(), server);
        const ChunkedResult chunked = chunkedUpload(server, local, "/docs/c.bin", 2, 100000);
        CHECK_OK(chunked.commit);
        QCOMPARE(chunked.chunksSent, 3);

        NBServerApiLockFileModel lock = at<NBServerApiLockFileModel>("/docs/a.txt");
        lock.time = 60;
        QVERIFY(object(sync([&](auto d) { return ServerApi::LockFile(lock, std::move(d)); }))
                    .value("locked")
                    .toBool());
        CHECK_OK(sync([&](auto d) {
            return ServerApi::UnlockFile(at<NBServerApiUnlockFileModel>("/docs/a.txt"), std::move(d));
        }));

        NBServerApiMoveModel move { entry("/docs/a.txt"), entry("/docs/a2.txt"), false };
        CHECK_OK(sync([&](auto d) { return ServerApi::Move(move, std::move(d)); }));
        NBServerApiBatchMoveModel batch;
        batch.from << entry("/docs/a2.txt");
        batch.to = entry("/copies");
        QCOMPARE(pollTask(taskOf(sync([&](auto d) { return ServerApi::BatchCopy(batch, std::move(d)); })))
                     .value("state")
                     .toString(),
            QString("done"));
        batch.from = { entry("/copies/a2.txt") };
        batch.to = entry("/moved");
        QCOMPARE(pollTask(taskOf(sync([&](auto d) { return ServerApi::BatchMove(batch, std::move(d)); })))
                     .value("state")
                     .toString(),
            QString("done"));
        NBServerApiBatchDeleteModel remove;
        remove.pathes << entry("/moved/a2.txt");
        QCOMPARE(pollTask(taskOf(sync([&](auto d) { return ServerApi::BatchDelete(remove, std::move(d)); })))
                     .value("state")
                     .toString(),
            QString("done"));

        NBServerApiDeltaModel feed = at<NBServerApiDeltaModel>("/docs");
        const QJsonObject delta = object(sync([&](auto d) { return ServerApi::Delta(feed, std::move(d)); }));
        QVERIFY(!delta.value("cursor").toString().isEmpty());
        QCOMPARE(delta.value("entries").toArray().size(), 3);
        CHECK_OK(sync([&](auto d) {
            return ServerApi::GetSyncData(
                at<NBServerApiDeltaModel>("/docs"), "", "", "", "", 1, std::move(d));
        }));
        CHECK_OK(sync([&](auto d) { return ServerApi::CheckApproveIsOne("1", 3, std::move(d)); }));
        CHECK_OK(sync([&](auto d) { return ServerApi::CheckApproveFloder("ent", "/docs", std::move(d)); }));
        CHECK_OK(sync([&](auto d) { return ServerApi::IsCreateSyndisc("ent", "/docs", "1", std::move(d)); }));
        CHECK_OK(sync([&](auto d) {
            return ServerApi::RPCServerLogging("upload", "b", "a", "ent", "1", "ent", "o", std::move(d));
        }));
        QCOMPARE(emu.control("GET", "/__emu/oplog").value("records").toArray().size(), 1);

        const QString withSession = "X-NIMBRA-SESS-ID=" + session;
        QByteArray downloaded;
        CHECK_OK(sync([&](auto d) {
            return ServerApi::Download(
                server + "/v2/files/databox/docs/b.bin?path_type=ent",
                [&](const QByteArray& p) { downloaded += p; }, std::move(d));
        }));
        QVERIFY(downloaded == content);
        CHECK_OK(sync([&](auto d) {
            return ServerApi::Upload(
                server + "/v2/files/databox/docs/u.bin?path_type=ent&" + withSession, local, std::move(d));
        }));
        CHECK_OK(sync(
            [&](auto d) { return ServerApi::GET(server + "/v2/region/get?" + withSession, std::move(d)); }));
        CHECK_OK(sync([&](auto d) {
            return ServerApi::POST(server + "/v2/fileops/create_folder/databox/posted",
                { { "path_type", "ent" }, { "X-NIMBRA-SESS-ID", session } }, std::move(d));
        }));

        const QJsonObject link = object(sync([&](auto d) {
            return ServerApi::DeliveryAuth({ "LINK", "pw", server }, std::move(d));
        }));
        QVERIFY(!link.value("token").toString().isEmpty());

        if (type == 1) {
            CHECK_OK(sync([&](auto d) { return ServerApi::GetFuns(std::move(d)); }));
            CHECK_OK(sync([&](auto d) { return ServerApi::GetEstEncryptRule(std::move(d)); }));
            CHECK_OK(sync([&](auto d) {
                return ServerApi::CreateFile(at<NBServerApiCreateFileModel>("/docs/new.docx"), std::move(d));
            }));
            const QString neid = object(sync([&](auto d) {
                return ServerApi::MetaData(at<NBServerApiMetaEntryModel>("/docs/b.bin"), std::move(d));
            }))
                                     .value("neid")
                                     .toString();
            const QJsonArray extra
                = object(sync([&](auto d) { return ServerApi::Extra({ neid }, std::move(d)); }))
                      .value("extra")
                      .toArray();
            QCOMPARE(extra.first().toObject().value("path").toString(), QString("/docs/b.bin"));
            CHECK_OK(sync([&](auto d) {
                return ServerApi::VBoxDelta(at<NBServerApiDeltaModel>("/docs"), std::move(d));
            }));
            CHECK_OK(sync([&](auto d) { return ServerApi::InitDelta(entry("/docs"), std::move(d)); }));
            QCOMPARE(object(sync([&](auto d) {
                return ServerApi::GetEnterpriseAddressByCode("ENT", std::move(d));
            }))
                         .value("ent_login_addr")
                         .toString(),
                server);
            CHECK_OK(sync(
                [&](auto d) { return ServerApi::GetZipDownloadUrl(server + "/zip/a", "", std::move(d)); }));
            CHECK_OK(sync([&](auto d) {
                return ServerApi::GetZipFolderMetadata(server + "/zip/b", "p", 10, 0, std::move(d));
            }));
        } else {
            const QString neid = object(sync([&](auto d) {
                return ServerApi::MetaData(at<NBServerApiMetaEntryModel>("/docs/b.bin"), std::move(d));
            }))
                                     .value("neid")
                                     .toString();
            QCOMPARE(object(sync([&](auto d) { return ServerApi::Extra({ neid }, std::move(d)); }))
                         .value("extra")
                         .toArray()
                         .size(),
                1);
            QVERIFY(object(sync([&](auto d) {
                return ServerApi::FileExist("", "/docs/b.bin", "ent", "", "", std::move(d));
            }))
                        .value("exist")
                        .toBool());
        }
        if (type == 2) {
            NBServerApiGetSyncDataModel sync6;
            sync6.path = "/docs";
            sync6.pathType = NBPathType::Ent;
            CHECK_OK(sync([&](auto d) { return ServerApi::GetSyncDataForDisk(sync6, std::move(d)); }));
            CHECK_OK(sync([&](auto d) { return ServerApi::GetAssignSyncData(sync6, std::move(d)); }));
            CHECK_OK(sync([&](auto d) { return ServerApi::GetAssignJid(entry("/docs"), std::move(d)); }));
        }
    }

    void everyErrorAsTheParserReadsIt_data() { types_data(); }

    void everyErrorAsTheParserReadsIt()
    {
        QFETCH(int, type);
        EmuProcess emu({ "--user", "alice:secret" }, type);
        startHost(emu, type);
        const QString server = emu.url();
        CHECK_OK(sync([&](auto d) {
            return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>("/d"), std::move(d));
        }));

        const auto code = [](const ResponseData& r) {
            return errorCode(r);
        };
        QCOMPARE(code(sync([&](auto d) {
            return ServerApi::MetaData(at<NBServerApiMetaEntryModel>("/none"), std::move(d));
        })),
            20005);
        QCOMPARE(code(sync([&](auto d) {
            return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>("/d"), std::move(d));
        })),
            20004);
        NBServerApiMoveModel move { entry("/none"), entry("/x"), false };
        QCOMPARE(code(sync([&](auto d) { return ServerApi::Move(move, std::move(d)); })), 20005);
        NBServerApiCommitHashModel commit = at<NBServerApiCommitHashModel>("/d/f");
        commit.serverUrl = server;
        commit.hashes = { hashOf("never sent") };
        commit.bytes = 10;
        commit.isFileCommit = true;
        QCOMPARE(code(sync([&](auto d) { return ServerApi::CommitHash(commit, std::move(d)); })), 20013);
        NBServerApiChunkedUploadModel chunk { server, "u", hashOf("other"), "chunk" };
        QCOMPARE(code(sync([&](auto d) { return ServerApi::ChunkedUpload(chunk, std::move(d)); })), 20013);
        NBServerApiLockFileModel lock = at<NBServerApiLockFileModel>("/none");
        QCOMPARE(code(sync([&](auto d) { return ServerApi::LockFile(lock, std::move(d)); })), 20005);
        NBServerApiUploadDataModel data = at<NBServerApiUploadDataModel>("/d/once");
        data.serverUrl = server;
        data.data = "1";
        CHECK_OK(sync([&](auto d) { return ServerApi::UploadData(data, std::move(d)); }));
        QCOMPARE(code(sync([&](auto d) { return ServerApi::UploadData(data, std::move(d)); })), 20004);
        // ".." never reaches an address (the network layer resolves it); in a parameter it is refused.
        NBServerApiMoveModel climb { entry("/d"), entry("/a/../b"), false };
        const ResponseData dots = sync([&](auto d) { return ServerApi::Move(climb, std::move(d)); });
        QCOMPARE(dots.statusCode, 400);
        QCOMPARE(object(dots).value("code").toString(), QString("invalid path"));
        QCOMPARE(
            code(sync([&](auto d) { return ServerApi::BatchTaskAsyncQuery("nope", std::move(d)); })), 20005);
        const ResponseData unserved
            = sync([&](auto d) { return ServerApi::GET(server + "/v2/no/such/route", std::move(d)); });
        QCOMPARE(unserved.statusCode, 501);
        QVERIFY(object(unserved).value("message").toString().contains("/v2/no/such/route"));

        ServerApi::setSessionID("expired-or-forged");
        QCOMPARE(code(sync([&](auto d) { return ServerApi::UserInfo({}, std::move(d)); })), 20003);
        NBServerApiLoginModel wrong;
        wrong.kind = 2;
        wrong.userName = "alice";
        wrong.password = "wrong";
        QCOMPARE(sync([&](auto d) { return ServerApi::Login(wrong, std::move(d)); }).statusCode, 401);
    }

    void verificationCodeOfPrivateDeployments()
    {
        EmuProcess emu({ "--user", "alice:secret", "--verify-code", "v c" }, 0);
        ServerApi::init(ServerApi::Private);
        ServerApi::setBaseUrlString(emu.url());
        NBServerApiLoginModel login;
        login.userName = "alice";
        login.password = "secret";
        QCOMPARE(errorCode(sync([&](auto d) { return ServerApi::Login(login, std::move(d)); })), 20007);
        // The sign-in takes no "S" parameter; the code rides as cookie "S" beside the language.
        ServerApi::setPriServerVerifyCode("v c");
        ServerApi::setLanguage("en");
        QVERIFY(signIn("alice", "secret"));
        CHECK_OK(sync([&](auto d) { return ServerApi::RegionGet(std::move(d)); }));
        CHECK_OK(sync([&](auto d) {
            return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>("/v"), std::move(d));
        }));
        ServerApi::setPriServerVerifyCode("wrong");
        QCOMPARE(errorCode(sync([&](auto d) { return ServerApi::RegionGet(std::move(d)); })), 20007);
    }

    // Above the limit of a body read whole: a whole-file upload streams, whatever its size.
    void sixtyFourMebibytesWholeAndChunkedAndStoredOnce()
    {
        EmuProcess emu;
        startHost(emu, 1);
        const QByteArray content = randomBytes((64 << 20) + 4097, 2);
        const QString local = writeFile(m_dir.filePath("big.bin"), content);
        NBServerApiUploadFileModel whole = at<NBServerApiUploadFileModel>("/big-whole.bin");
        whole.serverUrl = emu.url();
        whole.localPath = local;
        CHECK_OK(sync([&](auto d) { return ServerApi::UploadFile(whole, std::move(d)); }, 120000));
        // The whole upload was cut into the same chunks: the chunked one sends none.
        const ChunkedResult chunked = chunkedUpload(emu.url(), local, "/big-chunked.bin", 8);
        CHECK_OK(chunked.commit);
        QCOMPARE(chunked.chunksSent, 0);
        QCOMPARE(emu.requestCount("/v2/chunked_upload"), 0);
        for (const char* path : { "/big-whole.bin", "/big-chunked.bin" }) {
            NBServerApiDownloadFileModel down = at<NBServerApiDownloadFileModel>(path);
            down.serverUrl = emu.url();
            down.localPath = m_dir.filePath("big-back.bin");
            CHECK_OK(sync([&](auto d) { return ServerApi::DownloadFile(down, std::move(d)); }, 120000));
            QVERIFY(readFile(down.localPath) == content);
        }
        QCOMPARE(storedChunks(emu), 17);
    }

    void requestLogHidesCredentialsAndGetBringsNoBody()
    {
        EmuProcess emu;
        startHost(emu, 1);
        sync([&](auto d) {
            return ServerApi::GET(
                emu.url("/v2/delivery/metadata/C1/a?token=t0ken&password=pa55&S=vc&x=1"), std::move(d));
        });
        const QString target = emu.requests().last().value("target").toString();
        QCOMPARE(target, QString("/v2/delivery/metadata/C1/a?token=***&password=***&S=***&x=1"));

        QNetworkAccessManager manager;
        QNetworkRequest request(QUrl(emu.url("/v2/account/info")));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "text/plain");
        std::unique_ptr<QNetworkReply> reply(
            manager.sendCustomRequest(request, "GET", QByteArray(1000, 'x')));
        QVERIFY(waitUntil([&] { return reply->isFinished(); }, 10000));
        QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 413);
        QCOMPARE(emu.requests().last().value("status").toInt(), 413);
    }

    void rangesAsTheServerHonoursThem_data()
    {
        QTest::addColumn<QString>("range");
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("first");
        QTest::addColumn<int>("length");
        QTest::newRow("middle") << "bytes=100-199" << 206 << 100 << 100;
        QTest::newRow("across chunks") << "bytes=4194300-4194310" << 206 << 4194300 << 11;
        QTest::newRow("open end") << "bytes=5000000-" << 206 << 5000000 << 242880;
        QTest::newRow("suffix") << "bytes=-10" << 206 << 5242870 << 10;
        QTest::newRow("beyond the end") << "bytes=6000000-6000001" << 416 << 0 << 0;
        QTest::newRow("none") << "" << 200 << 0 << 5242880;
    }

    void rangesAsTheServerHonoursThem()
    {
        QFETCH(QString, range);
        QFETCH(int, status);
        QFETCH(int, first);
        QFETCH(int, length);
        EmuProcess emu;
        startHost(emu, 1);
        const QByteArray content = randomBytes(5 << 20, 3);
        NBServerApiUploadDataModel data = at<NBServerApiUploadDataModel>("/r.bin");
        data.serverUrl = emu.url();
        data.data = content;
        CHECK_OK(sync([&](auto d) { return ServerApi::UploadData(data, std::move(d)); }));
        NBSeverApiDLRouterModel routed = at<NBSeverApiDLRouterModel>("/r.bin");
        routed.range = range;
        QByteArray received;
        const ResponseData r = sync([&](auto d) {
            return ServerApi::DownloadRouter(
                routed, [&](const QByteArray& p) { received += p; }, std::move(d));
        });
        QCOMPARE(r.statusCode, status);
        if (status == 416) {
            QCOMPARE(object(r).value("code").toString(), QString("invalid range"));
            return;
        }
        QVERIFY(received == content.mid(first, length));
    }

    void batchTaskPolledUntilDone()
    {
        EmuProcess emu;
        startHost(emu, 1);
        emu.control("POST", "/__emu/tasks", { { "polls", "2" }, { "fail", "keep" } });
        NBServerApiBatchDeleteModel remove;
        for (const char* name : { "/a", "/b", "/keep" }) {
            CHECK_OK(sync([&](auto d) {
                return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>(name), std::move(d));
            }));
            remove.pathes << entry(name);
        }
        remove.pathes << entry("/missing");
        int polls = 0;
        const QJsonObject state = pollTask(
            taskOf(sync([&](auto d) { return ServerApi::BatchDelete(remove, std::move(d)); })), &polls);
        QCOMPARE(polls, 3);
        QCOMPARE(state.value("state").toString(), QString("failed"));
        const QJsonArray results = state.value("results").toArray();
        QCOMPARE(results.size(), 4);
        QVERIFY(results[0].toObject().value("ok").toBool());
        QVERIFY(results[1].toObject().value("ok").toBool());
        QCOMPARE(results[2].toObject().value("code").toString(), QString("forbidden"));
        QCOMPARE(results[3].toObject().value("code").toString(), QString("file/folder not found"));
    }

    // One session reads the feed; another changes the folder; the first reads on from its cursor.
    void feedCursorsAcrossSessions()
    {
        EmuProcess emu({ "--user", "alice:secret", "--user", "bob:pw" });
        startHost(emu, 1);
        const QString alice = ServerApi::sessionID();
        CHECK_OK(sync([&](auto d) {
            return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>("/team/a"), std::move(d));
        }));
        NBServerApiDeltaModel feed = at<NBServerApiDeltaModel>("/team");
        const QJsonObject first = object(sync([&](auto d) { return ServerApi::Delta(feed, std::move(d)); }));
        QCOMPARE(first.value("entries").toArray().size(), 1);
        feed.cursor = first.value("cursor").toString();

        QVERIFY(signIn("bob", "pw"));
        CHECK_OK(sync([&](auto d) {
            return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>("/team/b"), std::move(d));
        }));
        NBServerApiMoveModel move { entry("/team/a"), entry("/team/c"), false };
        CHECK_OK(sync([&](auto d) { return ServerApi::Move(move, std::move(d)); }));
        NBServerApiBatchDeleteModel remove;
        remove.pathes << entry("/team/b");
        pollTask(taskOf(sync([&](auto d) { return ServerApi::BatchDelete(remove, std::move(d)); })));

        ServerApi::setSessionID(alice);
        const QJsonObject next = object(sync([&](auto d) { return ServerApi::Delta(feed, std::move(d)); }));
        QStringList seen;
        for (const QJsonValue& v : next.value("entries").toArray())
            seen << v.toObject().value("op").toString() + ' ' + v.toObject().value("path").toString();
        QCOMPARE(seen, (QStringList { "create /team/b", "move /team/c", "delete /team/b" }));
        feed.cursor = next.value("cursor").toString();
        QCOMPARE(object(sync([&](auto d) { return ServerApi::Delta(feed, std::move(d)); }))
                     .value("entries")
                     .toArray()
                     .size(),
            0);
    }

    void lockOfOneSessionRefusesAnothersWrites()
    {
        EmuProcess emu({ "--user", "alice:secret", "--user", "bob:pw" });
        startHost(emu, 1);
        NBServerApiUploadDataModel data = at<NBServerApiUploadDataModel>("/shared.txt");
        data.serverUrl = emu.url();
        data.data = "v1";
        data.overwrite = true;
        CHECK_OK(sync([&](auto d) { return ServerApi::UploadData(data, std::move(d)); }));
        NBServerApiLockFileModel lock = at<NBServerApiLockFileModel>("/shared.txt");
        lock.time = 600;
        CHECK_OK(sync([&](auto d) { return ServerApi::LockFile(lock, std::move(d)); }));
        QVERIFY(signIn("bob", "pw"));
        data.data = "v2";
        const ResponseData refused = sync([&](auto d) { return ServerApi::UploadData(data, std::move(d)); });
        QCOMPARE(refused.statusCode, 423);
        QCOMPARE(errorCode(refused), 20010);
        NBServerApiBatchDeleteModel remove;
        remove.pathes << entry("/shared.txt");
        const QJsonObject state
            = pollTask(taskOf(sync([&](auto d) { return ServerApi::BatchDelete(remove, std::move(d)); })));
        QCOMPARE(state.value("results").toArray().first().toObject().value("code").toString(),
            QString("file is locked"));
        QVERIFY(signIn("alice", "secret"));
        data.data = "v3";
        CHECK_OK(sync([&](auto d) { return ServerApi::UploadData(data, std::move(d)); }));
    }

    void twoFactorFlows()
    {
        EmuProcess emu({ "--user", "alice:secret", "--user", "bob:pw:tfa" });
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(emu.url());
        const auto passwordLogin = [&]() {
            NBServerApiLoginModel login;
            login.kind = 2;
            login.userName = "bob";
            login.password = "pw";
            const ResponseData r = sync([&](auto d) { return ServerApi::Login(login, std::move(d)); });
            return object(r).value("tfa_id").toString();
        };
        const auto sessionOf = [](const ResponseData& r) {
            NBBaseParse reading;
            reading.ParseResp(r);
            return reading.sessiondId();
        };

        // One-time password from the user's secret.
        QString tfa = passwordLogin();
        QVERIFY(!tfa.isEmpty());
        QCOMPARE(
            errorCode(sync([&](auto d) { return ServerApi::DyncCodeLogin(tfa, "000000x", std::move(d)); })),
            20001);
        const QString otp = emu.control("GET", "/__emu/totp", { { "user", "bob" } }).value("otp").toString();
        QVERIFY(!sessionOf(sync([&](auto d) {
            return ServerApi::DyncCodeLogin(tfa, otp, std::move(d));
        })).isEmpty());

        // SMS: sent to the outbox, then signed in with it.
        tfa = passwordLogin();
        CHECK_OK(sync([&](auto d) {
            return ServerApi::SendSmsCode("13800000000", tfa, "tfa", "", "", "", "", std::move(d));
        }));
        const QJsonArray outbox = emu.control("GET", "/__emu/outbox").value("messages").toArray();
        const QString code = outbox.last().toObject().value("text").toString();
        QCOMPARE(outbox.last().toObject().value("to").toString(), QString("13800000000"));
        QVERIFY(!sessionOf(sync([&](auto d) {
            return ServerApi::SmsCodeLogin(tfa, code, std::move(d));
        })).isEmpty());

        // QR code: waiting until the control interface approves.
        tfa = passwordLogin();
        QVERIFY(object(sync([&](auto d) { return ServerApi::GetQRCode(200, std::move(d)); }))
                    .value("qrcode")
                    .toString()
                    .startsWith("data:image/png;base64,"));
        QCOMPARE(object(sync([&](auto d) {
            return ServerApi::GetLoginState({ tfa, "dev", "u" }, std::move(d));
        }))
                     .value("state")
                     .toString(),
            QString("waiting"));
        emu.control("POST", "/__emu/approve", { { "tfa_id", tfa } });
        const QJsonObject done = object(sync([&](auto d) {
            return ServerApi::GetLoginState({ tfa, "dev", "u" }, std::move(d));
        }));
        QCOMPARE(done.value("state").toString(), QString("done"));
        ServerApi::setSessionID(done.value("X-NIMBRA-SESS-ID").toString());
        QCOMPARE(object(sync([&](auto d) { return ServerApi::UserInfo({}, std::move(d)); }))
                     .value("user")
                     .toString(),
            QString("bob"));

        // Quick login: the picture's text, the SMS under its session, the sign-in with the code.
        QByteArray picture;
        ServerApi::setSessionID(QString());
        const long long pictureId
            = ServerApi::GetQuickLoginVerifyPic([&](const QByteArray& p) { picture += p; });
        // No completion: the handle going says the whole picture has arrived.
        QVERIFY(waitUntil(
            [&] { return NBHttpClientManager::manager()->getHttpClient(pictureId) == nullptr; }, 10000));
        QVERIFY(emu.control("GET", "/__emu/outbox").value("messages").toArray().size() > 1);
        QVERIFY(picture.startsWith("\x89PNG"));
        const QString captcha = emu.control("GET", "/__emu/outbox")
                                    .value("messages")
                                    .toArray()
                                    .last()
                                    .toObject()
                                    .value("text")
                                    .toString();
        CHECK_OK(sync([&](auto d) {
            return ServerApi::GetQuickLoginSmsCode({ "alice", "login", "quick", captcha }, std::move(d));
        }));
        const QString smsCode = emu.control("GET", "/__emu/outbox")
                                    .value("messages")
                                    .toArray()
                                    .last()
                                    .toObject()
                                    .value("text")
                                    .toString();
        NBServerApiLoginModel quick;
        quick.kind = 2;
        quick.loginType = "quick";
        quick.userName = "alice";
        quick.password = smsCode;
        QVERIFY(!sessionOf(sync([&](auto d) { return ServerApi::Login(quick, std::move(d)); })).isEmpty());

        // E-mail: a code and a key, checked together.
        const QString key = object(sync([&](auto d) {
            return ServerApi::GetLoginEmailVerify("a@x.com", "login", "", std::move(d));
        }))
                                .value("check_key")
                                .toString();
        const QString mailed = emu.control("GET", "/__emu/outbox")
                                   .value("messages")
                                   .toArray()
                                   .last()
                                   .toObject()
                                   .value("text")
                                   .toString();
        QCOMPARE(sync([&](auto d) {
            return ServerApi::LoginCheckEmailVerify(key, "wrong", "login", "", std::move(d));
        }).statusCode,
            401);
        CHECK_OK(sync([&](auto d) {
            return ServerApi::LoginCheckEmailVerify(key, mailed, "login", "", std::move(d));
        }));

        // Password change, then the new password signs in.
        QVERIFY(signIn("alice", "secret"));
        CHECK_OK(sync([&](auto d) {
            return ServerApi::ResetPassword(ServerApi::sessionID(), "secret", "n3w", std::move(d));
        }));
        QVERIFY(!signIn("alice", "secret"));
        QVERIFY(signIn("alice", "n3w"));
    }

    void sharedLinkSession()
    {
        EmuProcess emu({ "--user", "alice:secret", "--link", "LINK9:open:alice:/Shared" });
        ServerApi::init(ServerApi::PublicCloud);
        const QString server = emu.url();
        QCOMPARE(sync([&](auto d) {
            return ServerApi::DeliveryAuth({ "LINK9", "wrong", server }, std::move(d));
        }).statusCode,
            403);
        // A wrong password pauses the link for a second, right passwords included.
        const ResponseData paused = sync([&](auto d) {
            return ServerApi::DeliveryAuth({ "LINK9", "open", server }, std::move(d));
        });
        QCOMPARE(paused.statusCode, 429);
        QCOMPARE(paused.headers.value("Retry-After"), QByteArray("1"));
        QTest::qWait(1100);
        const QJsonObject auth = object(sync([&](auto d) {
            return ServerApi::DeliveryAuth({ "LINK9", "open", server }, std::move(d));
        }));
        const QString token = auth.value("token").toString();
        const QString session = auth.value("session").toString();
        QCOMPARE(auth.value("root").toString(), QString("Shared"));

        NBServerApiDeliveryCreateFolder folder { server, "LINK9", "/in", "", token, session };
        CHECK_OK(sync([&](auto d) { return ServerApi::DeliveryCreateFolder(folder, std::move(d)); }));
        NBServerApiDeliveryUploadDataModel small;
        small.serverUrl = server;
        small.code = "LINK9";
        small.path = "/Shared/in/small.txt";
        small.token = token;
        small.session = session;
        small.data = "small";
        CHECK_OK(sync([&](auto d) { return ServerApi::DeliveryUploadData(small, std::move(d)); }));

        const QByteArray big = randomBytes(9 << 20, 4);
        QList<QString> hashes;
        for (int at = 0; at < big.size(); at += 4 << 20)
            hashes << hashOf(big.mid(at, 4 << 20));
        for (const QString& hash : hashes) {
            const QJsonObject needed = object(sync([&](auto d) {
                return ServerApi::DeliveryQueryHash(
                    { server, hash, "/in/big.bin", "LINK9", token, big.size(), "", session }, std::move(d));
            }));
            QCOMPARE(needed.value("needed").toArray().size(), 1);
            CHECK_OK(sync([&](auto d) {
                return ServerApi::DeliveryChunkedUpload(
                    { server, "up", hash, big.mid(hashes.indexOf(hash) * (4 << 20), 4 << 20) }, std::move(d));
            }));
        }
        NBServerApiDeliveryCommitHashModel commit;
        commit.serverUrl = server;
        commit.code = "LINK9";
        commit.relativePath = "/in/big.bin";
        commit.token = token;
        commit.session = session;
        commit.hashes = hashes;
        commit.totalBytes = commit.bytes = big.size();
        commit.isFileCommit = true;
        CHECK_OK(sync([&](auto d) { return ServerApi::DeliveryCommitHash(commit, std::move(d)); }));

        NBServerApiDeliveryMetadataModel listing;
        listing.serverUrl = server;
        listing.code = "LINK9";
        listing.path = "/Shared/in";
        listing.password = "open";
        listing.token = token;
        listing.session = session;
        QCOMPARE(object(sync([&](auto d) { return ServerApi::DeliveryMetadata(listing, std::move(d)); }))
                     .value("total")
                     .toInt(),
            2);

        NBServerApiDeliveryDownloadFileModel down;
        down.serverUrl = server;
        down.code = "LINK9";
        down.path = "/Shared/in/big.bin";
        down.token = token;
        down.session = session;
        down.localPath = m_dir.filePath("link-big.bin");
        CHECK_OK(sync([&](auto d) { return ServerApi::DeliveryDownloadFile(down, std::move(d)); }));
        QVERIFY(readFile(down.localPath) == big);
        NBSeverApiDeliveryDLRouterModel range;
        range.serverUrl = server;
        range.code = "LINK9";
        range.path = "/Shared/in/big.bin";
        range.token = token;
        range.session = session;
        range.range = "bytes=4194000-4195000";
        QByteArray piece;
        QCOMPARE(sync([&](auto d) {
            return ServerApi::DeliveryDownloadRouter(
                range, [&](const QByteArray& p) { piece += p; }, std::move(d));
        }).statusCode,
            206);
        QVERIFY(piece == big.mid(4194000, 1001));

        // Without the link's session the routes refuse.
        listing.session.clear();
        QCOMPARE(errorCode(sync([&](auto d) { return ServerApi::DeliveryMetadata(listing, std::move(d)); })),
            20003);
    }

    // The server killed at random moments of uploads and commits: committed files read
    // back whole, interrupted ones are not there, and the store checks out.
    void survivesKillsDuringUploads()
    {
        const int rounds = qEnvironmentVariableIntValue("NBEMU_KILL_ROUNDS") > 0
            ? qEnvironmentVariableIntValue("NBEMU_KILL_ROUNDS")
            : 4;
        EmuProcess emu;
        QMap<QString, QByteArray> committed;
        QRandomGenerator random(99);
        for (int round = 0; round < rounds; ++round) {
            QVERIFY(emu.isRunning());
            startHost(emu, 1);
            const QByteArray content = randomBytes(12 << 20, quint32(100 + round));
            const QString path = QStringLiteral("/kill-%1.bin").arg(round);
            NBServerApiUploadDataModel data = at<NBServerApiUploadDataModel>(path);
            data.serverUrl = emu.url();
            data.data = content;
            bool finished = false;
            ResponseData result;
            ServerApi::UploadData(data, [&](const ResponseData& r) {
                if (!finished)
                    result = r;
                finished = true;
            });
            QTest::qWait(int(random.bounded(5, 120)));
            emu.kill();
            waitUntil([&] { return finished; }, 10000);
            if (result.statusCode == 200)
                committed.insert(path, content);
            // Right after the crash: chunks stored but never listed are no inconsistency.
            QProcess check;
            check.start(NBEMU_PATH, { "--check", emu.dataDir() });
            QVERIFY(check.waitForFinished(30000));
            QVERIFY2(check.exitCode() == 0, check.readAllStandardOutput().constData());
            QVERIFY(emu.restart());
            ServerApi::uninit();
            startHost(emu, 1);
            for (auto it = committed.cbegin(); it != committed.cend(); ++it) {
                NBServerApiDownloadDataModel down = at<NBServerApiDownloadDataModel>(it.key());
                down.serverUrl = emu.url();
                QByteArray back;
                CHECK_OK(sync([&](auto d) {
                    return ServerApi::DownloadData(
                        down, [&](const QByteArray& p) { back += p; }, std::move(d));
                }));
                QVERIFY(back == it.value());
            }
            if (!committed.contains(path)) {
                const ResponseData meta = sync([&](auto d) {
                    return ServerApi::MetaData(at<NBServerApiMetaEntryModel>(path), std::move(d));
                });
                QVERIFY2(meta.statusCode == 404 || meta.statusCode == 200, qPrintable(meta.body));
                if (meta.statusCode == 200)
                    committed.insert(path, content); // the commit landed, its answer did not
            }
            ServerApi::uninit();
        }
    }

    void fiveHundredRequestsInFlight()
    {
        EmuProcess emu;
        startHost(emu, 1);
        NBServerApiUploadDataModel data = at<NBServerApiUploadDataModel>("/load/seed.bin");
        data.serverUrl = emu.url();
        data.data = randomBytes(1 << 20, 5);
        CHECK_OK(sync([&](auto d) { return ServerApi::UploadData(data, std::move(d)); }));
        QHash<long long, int> completions;
        int finished = 0;
        QStringList failures;
        for (int i = 0; i < 500; ++i) {
            const auto done = [&, i](const ResponseData& r) {
                ++finished;
                completions[i] += 1;
                if (r.statusCode >= 500 || r.networkError != 0)
                    failures << QStringLiteral("#%1 (kind %2): status %3, error %4 %5 %6")
                                    .arg(i)
                                    .arg(i % 3)
                                    .arg(r.statusCode)
                                    .arg(r.networkError)
                                    .arg(r.errorString, r.body.left(200));
            };
            if (i % 3 == 0) {
                NBServerApiMetaEntryModel listing = at<NBServerApiMetaEntryModel>("/load");
                listing.list = true;
                ServerApi::MetaData(listing, done);
            } else if (i % 3 == 1) {
                NBServerApiUploadDataModel up
                    = at<NBServerApiUploadDataModel>(QStringLiteral("/load/%1.txt").arg(i));
                up.serverUrl = emu.url();
                up.data = QByteArray::number(i);
                ServerApi::UploadData(up, done);
            } else {
                NBSeverApiDLRouterModel routed = at<NBSeverApiDLRouterModel>("/load/seed.bin");
                routed.range = QStringLiteral("bytes=%1-%2").arg(i).arg(i + 999);
                ServerApi::DownloadRouter(routed, {}, done);
            }
        }
        QVERIFY(waitUntil([&] { return finished >= 500; }, 120000));
        QTest::qWait(200);
        QCOMPARE(finished, 500);
        for (int count : qAsConst(completions))
            QCOMPARE(count, 1);
        if (!failures.isEmpty()) {
            // What the emulator saw of them: its replies other than 200 and 206.
            for (const QJsonObject& line : emu.requests()) {
                const int status = line.value("status").toInt();
                if (status != 200 && status != 206)
                    failures << QString::fromUtf8(QJsonDocument(line).toJson(QJsonDocument::Compact));
            }
        }
        QVERIFY2(failures.isEmpty(), qPrintable(failures.join('\n')));
    }

    // Hosts open a connection per request. While the server is busy (here: stopped), the
    // kernel must keep every handshake for it: a dropped one waits for SYN retransmissions,
    // seconds each, and under load a request met the client's two-minute timeout that way.
    void connectionsWaitInTheQueueWhileTheServerIsBusy()
    {
        EmuProcess emu;
        QVERIFY(emu.isRunning());
        emu.pause(true);
        std::vector<std::unique_ptr<QTcpSocket>> sockets;
        int connected = 0;
        for (int i = 0; i < 200; ++i) {
            sockets.push_back(std::make_unique<QTcpSocket>());
            connect(sockets.back().get(), &QTcpSocket::connected, [&connected] { ++connected; });
            sockets.back()->connectToHost(QHostAddress::LocalHost, emu.port());
        }
        const bool all = waitUntil([&] { return connected == 200; }, 5000);
        emu.pause(false);
        QVERIFY2(all, qPrintable(QStringLiteral("%1 of 200 connected").arg(connected)));
        sockets.clear();
        const QJsonObject health = emu.control("GET", "/__emu/health");
        QVERIFY2(!health.isEmpty(), "the server answers after the burst");
    }

    void eightHostsUploadingOneFileStoreItOnce()
    {
        EmuProcess emu;
        const QString local = writeFile(m_dir.filePath("same.bin"), randomBytes(64 << 20, 6));
        std::vector<std::unique_ptr<QProcess>> hosts;
        for (int i = 0; i < 8; ++i) {
            hosts.push_back(std::make_unique<QProcess>());
            hosts.back()->start(NBEMU_UPLOADER,
                { emu.url(), "alice", "secret", local, QStringLiteral("/same-%1.bin").arg(i) });
        }
        for (const auto& host : hosts) {
            QVERIFY(host->waitForFinished(180000));
            QCOMPARE(host->exitCode(), 0);
        }
        QCOMPARE(storedChunks(emu), 16);
    }

    void faultsShowInTheRecord()
    {
        ScopedInactivityInterval interval(800);
        EmuProcess emu({ "--user", "alice:secret", "--fault", "/v2/region/get:status=503", "--fault",
            "/v2/config/get:retry-after=7", "--fault", "/v2/files/databox/reset:reset=1000", "--fault",
            "/v2/files/databox/short:truncate=1000", "--fault", "/v2/files/databox/stall:stall=30", "--fault",
            "/v2/app/info/get:latency=300" });
        startHost(emu, 1);
        for (const char* name : { "/reset", "/short", "/stall" }) {
            NBServerApiUploadDataModel data = at<NBServerApiUploadDataModel>(name);
            data.serverUrl = emu.url();
            data.data = randomBytes(100000, 7);
            // Uploads go to the same address with POST; the faults above break its GETs' replies too.
            sync([&](auto d) { return ServerApi::UploadData(data, std::move(d)); });
        }
        const ResponseData status = sync([&](auto d) { return ServerApi::RegionGet(std::move(d)); });
        QCOMPARE(status.statusCode, 503);
        QCOMPARE(object(status).value("code").toString(), QString("injected fault"));
        const ResponseData retry = sync([&](auto d) { return ServerApi::ConfigGet({}, std::move(d)); });
        QCOMPARE(retry.statusCode, 429);
        QCOMPARE(retry.headers.value("Retry-After"), QByteArray("7"));
        CHECK_OK(sync([&](auto d) { return ServerApi::GetUpdataSourcePath("a", std::move(d)); }));

        QByteArray received;
        const auto download = [&](const char* name) {
            received.clear();
            NBServerApiDownloadDataModel down = at<NBServerApiDownloadDataModel>(name);
            down.serverUrl = emu.url();
            return sync([&](auto d) {
                return ServerApi::DownloadData(
                    down, [&](const QByteArray& p) { received += p; }, std::move(d));
            });
        };
        QCOMPARE(download("/reset").networkError, 2);
        // A body cut without a length passes for whole: only a checksum can tell.
        const ResponseData truncated = download("/short");
        QCOMPARE(truncated.networkError, 0);
        QCOMPARE(truncated.statusCode, 200);
        QCOMPARE(received.size(), 1000);
        QCOMPARE(download("/stall").errorString, QString("TimeOut"));
        QVERIFY(emu.requestCount("/v2/region/get") >= 1);
        bool logged = false;
        for (const QJsonObject& line : emu.requests())
            logged |= line.value("fault").toString() == QLatin1String("/v2/region/get:status=503");
        QVERIFY(logged);
    }

    void seedEphemeralAndReset()
    {
        QTemporaryDir seed;
        QDir(seed.path()).mkpath("docs/deep");
        writeFile(seed.filePath("docs/deep/a.txt"), "seeded");
        const QByteArray big = randomBytes(5 << 20, 8);
        writeFile(seed.filePath("big.bin"), big);
        QProcess emu;
        QTemporaryDir dir;
        emu.start(NBEMU_PATH,
            { "--ephemeral", "--seed", seed.path(), "--user", "alice:secret", "--control", "--port-file",
                dir.filePath("port") });
        QVERIFY(waitUntil([&] { return QFile::exists(dir.filePath("port")); }, 10000));
        const QString url = QStringLiteral("http://127.0.0.1:%1")
                                .arg(QString::fromLatin1(readFile(dir.filePath("port")).trimmed()));
        QByteArray banner = emu.readAllStandardOutput();
        for (int i = 0; i < 50 && !banner.contains('\n'); ++i) {
            emu.waitForReadyRead(200);
            banner += emu.readAllStandardOutput();
        }
        const QString data
            = QString::fromUtf8(banner.left(banner.indexOf('\n'))).section("data in ", 1).trimmed();
        QVERIFY(QFileInfo(data).isDir());
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(url);
        QVERIFY(signIn("alice", "secret"));
        NBServerApiDownloadDataModel down = at<NBServerApiDownloadDataModel>("/docs/deep/a.txt");
        down.serverUrl = url;
        QCOMPARE(sync([&](auto d) { return ServerApi::DownloadData(down, {}, std::move(d)); }).body,
            QString("seeded"));
        down.path = "/big.bin";
        QByteArray back;
        CHECK_OK(sync([&](auto d) {
            return ServerApi::DownloadData(
                down, [&](const QByteArray& p) { back += p; }, std::move(d));
        }));
        QVERIFY(back == big);
        CHECK_OK(sync([&](auto d) {
            return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>("/extra"), std::move(d));
        }));
        // Reset to the seed: the new folder goes, the seed comes back.
        CHECK_OK(sync([&](auto d) {
            return ServerApi::POST(url + "/__emu/reset", { { "to", "seed" } }, std::move(d));
        }));
        QVERIFY(signIn("alice", "secret"));
        QCOMPARE(sync([&](auto d) {
            return ServerApi::MetaData(at<NBServerApiMetaEntryModel>("/extra"), std::move(d));
        }).statusCode,
            404);
        CHECK_OK(sync([&](auto d) {
            return ServerApi::MetaData(at<NBServerApiMetaEntryModel>("/docs/deep/a.txt"), std::move(d));
        }));
        emu.terminate();
        QVERIFY(emu.waitForFinished(10000));
        QCOMPARE(emu.exitCode(), 0);
        QVERIFY(!QFileInfo::exists(data));
    }

    void checkFindsADamagedStore()
    {
        EmuProcess emu;
        startHost(emu, 1);
        NBServerApiUploadDataModel data = at<NBServerApiUploadDataModel>("/c.bin");
        data.serverUrl = emu.url();
        data.data = randomBytes(100000, 9);
        CHECK_OK(sync([&](auto d) { return ServerApi::UploadData(data, std::move(d)); }));
        emu.kill();
        QProcess check;
        check.start(NBEMU_PATH, { "--check", emu.dataDir() });
        QVERIFY(check.waitForFinished(10000));
        QCOMPARE(check.exitCode(), 0);
        QVERIFY(check.readAllStandardOutput().contains("1 chunks, 1 revisions, consistent"));
        QDirIterator it(emu.dataDir() + "/chunks", QDir::Files, QDirIterator::Subdirectories);
        QVERIFY(it.hasNext());
        QFile chunk(it.next());
        QVERIFY(chunk.open(QIODevice::ReadWrite));
        chunk.seek(10);
        chunk.write("x");
        chunk.close();
        check.start(NBEMU_PATH, { "--check", emu.dataDir() });
        QVERIFY(check.waitForFinished(10000));
        QCOMPARE(check.exitCode(), 1);
        QVERIFY(check.readAllStandardOutput().contains("damaged chunk"));
    }

    void httpsWithASelfSignedCertificate()
    {
        EmuProcess emu({ "--user", "alice:secret", "--tls-self-signed" });
        QVERIFY(emu.printed("https://127.0.0.1:"));
        QVERIFY(QFile::exists(emu.dataDir() + "/tls/cert.pem"));
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(QStringLiteral("https://127.0.0.1:%1").arg(emu.port()));
        QVERIFY(signIn("alice", "secret"));
        CHECK_OK(sync([&](auto d) { return ServerApi::RegionGet(std::move(d)); }));
    }

    // The same seed and the same requests give the same faults.
    void faultsAreDeterministicForASeed()
    {
        QList<QList<int>> runs;
        for (int run = 0; run < 2; ++run) {
            EmuProcess emu({ "--user", "alice:secret", "--fault", "/v2/region/get:status=503@0.5",
                "--fault-seed", "7" });
            startHost(emu, 1);
            QList<int> statuses;
            for (int i = 0; i < 30; ++i)
                statuses << sync([&](auto d) { return ServerApi::RegionGet(std::move(d)); }).statusCode;
            QVERIFY(statuses.contains(503) && statuses.contains(200));
            runs << statuses;
            ServerApi::uninit();
        }
        QCOMPARE(runs[0], runs[1]);
    }

    void restartKeepsEverythingSessionsIncluded()
    {
        EmuProcess emu;
        startHost(emu, 1);
        CHECK_OK(sync([&](auto d) {
            return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>("/kept"), std::move(d));
        }));
        QVERIFY(emu.restart());
        ServerApi::setBaseUrlString(emu.url());
        CHECK_OK(sync([&](auto d) {
            return ServerApi::MetaData(at<NBServerApiMetaEntryModel>("/kept"), std::move(d));
        }));
    }
};

NB_TEST_MAIN(TestNBEmu)
#include "tst_nbemu.moc"
