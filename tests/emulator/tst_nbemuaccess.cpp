// Who may see and change what in nbemu, tried by two users through the library as
// hosts would: a user's own space stays theirs whatever identifier the other sends,
// the routes by identifier and the open ones show no one's own entries, a lock holds
// through its parents, wrong link passwords are slowed per link, the pages that link
// an address link only web addresses, and the files holding secrets are the owner's.
#include "EmuHost.h"
#include "EmuProcess.h"
#include "TestMain.h"
#include "Wait.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <memory>

using namespace EmuHost;

namespace {

QByteArray download(const QString& server, const QString& path, const QString& pathType = NBPathType::Ent)
{
    NBServerApiDownloadDataModel model = at<NBServerApiDownloadDataModel>(path, pathType);
    model.serverUrl = server;
    QByteArray content;
    const ResponseData r = sync([&](auto d) {
        return ServerApi::DownloadData(
            model, [&](const QByteArray& piece) { content += piece; }, std::move(d));
    });
    return r.statusCode == 200 ? content : QByteArray();
}

QStringList names(const ResponseData& listing)
{
    QStringList found;
    for (const QJsonValue& v : object(listing).value("content").toArray())
        found << v.toObject().value("name").toString();
    return found;
}

ResponseData list(const QString& path)
{
    NBServerApiMetaEntryModel model = at<NBServerApiMetaEntryModel>(path);
    model.list = true;
    return sync([&](auto d) { return ServerApi::MetaData(model, std::move(d)); });
}

} // namespace

class TestNBEmuAccess : public QObject
{
    Q_OBJECT

    void startHost(const EmuProcess& emu, int type, const QString& user, const QString& password)
    {
        QVERIFY(EmuHost::startHost(emu.url(), type, user, password));
    }

private slots:
    void cleanup() { ServerApi::uninit(); }

    // Another user's space identifier, any other text, a near miss: refused everywhere,
    // and no space comes of it.
    void onlyTheLibrarysPathTypesNameSpaces_data()
    {
        QTest::addColumn<QString>("pathType");
        QTest::newRow("another user's nsid") << "self:1";
        QTest::newRow("any text") << "nonsense";
        QTest::newRow("another case") << "SELF";
        QTest::newRow("a space's name and more") << "ent/";
    }

    void onlyTheLibrarysPathTypesNameSpaces()
    {
        QFETCH(QString, pathType);
        EmuProcess emu({ "--user", "alice:secret", "--user", "bob:pw" });
        startHost(emu, 1, "alice", "secret");
        const QString server = emu.url();
        QCOMPARE(upload(server, "/private.txt", "mine", NBPathType::Self).statusCode, 200);
        QVERIFY(signIn("bob", "pw"));

        const auto refused = [](const ResponseData& r) {
            return r.statusCode == 400 && object(r).value("code").toString() == QLatin1String("invalid path");
        };
        QVERIFY(refused(sync([&](auto d) {
            return ServerApi::MetaData(at<NBServerApiMetaEntryModel>("/private.txt", pathType), std::move(d));
        })));
        QVERIFY(refused(upload(server, "/private.txt", "overwritten", pathType)));
        QVERIFY(refused(sync([&](auto d) {
            return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>("/new", pathType), std::move(d));
        })));
        QVERIFY(refused(sync([&](auto d) {
            return ServerApi::Delta(at<NBServerApiDeltaModel>("/", pathType), std::move(d));
        })));
        QVERIFY(refused(sync([&](auto d) {
            return ServerApi::Revisions(
                at<NBServerApiRevisionsModel>("/private.txt", pathType), std::move(d));
        })));
        NBServerApiLockFileModel lock = at<NBServerApiLockFileModel>("/private.txt", pathType);
        lock.time = 60;
        QVERIFY(refused(sync([&](auto d) { return ServerApi::LockFile(lock, std::move(d)); })));
        NBServerApiMoveModel move { entry("/private.txt", pathType), entry("/stolen.txt"), false };
        QVERIFY(refused(sync([&](auto d) { return ServerApi::Move(move, std::move(d)); })));
        NBServerApiBatchDeleteModel remove;
        remove.pathes << entry("/private.txt", pathType);
        QVERIFY(refused(sync([&](auto d) { return ServerApi::BatchDelete(remove, std::move(d)); })));
        NBServerApiBatchMoveModel copy;
        copy.from << entry("/private.txt");
        copy.to = entry("/", pathType);
        QVERIFY(refused(sync([&](auto d) { return ServerApi::BatchCopy(copy, std::move(d)); })));
        NBSeverApiDLRouterModel routed = at<NBSeverApiDLRouterModel>("/private.txt", pathType);
        QVERIFY(refused(sync([&](auto d) { return ServerApi::DownloadRouter(routed, {}, std::move(d)); })));
        QVERIFY(refused(sync([&](auto d) {
            return ServerApi::AuthUpload(entry("/private.txt", pathType), 4, std::move(d));
        })));
        NBServerApiCommitHashModel commit = at<NBServerApiCommitHashModel>("/private.txt", pathType);
        commit.serverUrl = server;
        commit.hashes = { hashOf("x") };
        commit.bytes = 1;
        commit.isFileCommit = true;
        QVERIFY(refused(sync([&](auto d) { return ServerApi::CommitHash(commit, std::move(d)); })));

        QVERIFY(signIn("alice", "secret"));
        QCOMPARE(download(server, "/private.txt", NBPathType::Self), QByteArray("mine"));
    }

    void aUsersOwnSpaceIsTheirsAlone_data()
    {
        QTest::addColumn<int>("type");
        QTest::newRow("private") << 0;
        QTest::newRow("public") << 1;
        QTest::newRow("private 6.0") << 2;
    }

    void aUsersOwnSpaceIsTheirsAlone()
    {
        QFETCH(int, type);
        EmuProcess emu({ "--user", "alice:secret", "--user", "bob:pw" }, type);
        startHost(emu, type, "alice", "secret");
        const QString server = emu.url();
        const QJsonObject mine = object(upload(server, "/private.txt", "mine", NBPathType::Self));
        const QString neid = mine.value("neid").toString();
        const QString nsid = mine.value("nsid").toString();
        QVERIFY(nsid.startsWith("self:"));
        QCOMPARE(upload(server, "/shared.txt", "ours").statusCode, 200);
        const QString sharedNeid = object(sync([&](auto d) {
            return ServerApi::MetaData(at<NBServerApiMetaEntryModel>("/shared.txt"), std::move(d));
        }))
                                       .value("neid")
                                       .toString();

        QVERIFY(signIn("bob", "pw"));
        QCOMPARE(sync([&](auto d) {
            return ServerApi::MetaData(
                at<NBServerApiMetaEntryModel>("/private.txt", NBPathType::Self), std::move(d));
        }).statusCode,
            404);
        NBServerApiMetaEntryModel byNeid;
        byNeid.neid = neid;
        QCOMPARE(sync([&](auto d) { return ServerApi::MetaData(byNeid, std::move(d)); }).statusCode, 404);
        QCOMPARE(object(sync([&](auto d) {
            return ServerApi::Delta(at<NBServerApiDeltaModel>("/", NBPathType::Self), std::move(d));
        }))
                     .value("entries")
                     .toArray()
                     .size(),
            0);
        const QJsonArray extra = object(sync([&](auto d) {
            return ServerApi::Extra({ neid, sharedNeid }, std::move(d));
        }))
                                     .value("extra")
                                     .toArray();
        QCOMPARE(extra.size(), 2);
        QCOMPARE(extra[0].toObject().value("exist").toBool(true), false);
        QVERIFY(!extra[0].toObject().contains("path"));
        QCOMPARE(extra[1].toObject().value("path").toString(), QString("/shared.txt"));
        if (type != 1) {
            const auto exists = [](const ResponseData& r) {
                return object(r).value("exist").toBool();
            };
            QVERIFY(!exists(
                sync([&](auto d) { return ServerApi::FileExist(neid, "", "", "", "", std::move(d)); })));
            QVERIFY(!exists(sync([&](auto d) {
                return ServerApi::FileExist("", "/private.txt", nsid, "", "", std::move(d));
            })));
            QVERIFY(exists(sync([&](auto d) {
                return ServerApi::FileExist("", "/shared.txt", "ent", "", "", std::move(d));
            })));
            QCOMPARE(sync([&](auto d) {
                return ServerApi::FileExist("", "/x", "made-up", "", "", std::move(d));
            }).statusCode,
                400);
        }
        // Bob's own space is another one: his file there leaves alice's alone.
        QCOMPARE(upload(server, "/private.txt", "his", NBPathType::Self).statusCode, 200);
        QVERIFY(signIn("alice", "secret"));
        QCOMPARE(download(server, "/private.txt", NBPathType::Self), QByteArray("mine"));
        if (type != 1)
            QVERIFY(object(sync([&](auto d) {
                return ServerApi::FileExist("", "/private.txt", nsid, "", "", std::move(d));
            }))
                        .value("exist")
                        .toBool());
        // The public cloud's extra metadata comes without a session: nobody's own entries,
        // not even to their owner.
        if (type == 1)
            QCOMPARE(object(sync([&](auto d) { return ServerApi::Extra({ neid }, std::move(d)); }))
                         .value("extra")
                         .toArray()[0]
                         .toObject()
                         .value("exist")
                         .toBool(true),
                false);
    }

    void aLockHoldsThroughItsParents_data()
    {
        QTest::addColumn<QString>("change");
        QTest::newRow("delete the parent") << "batch delete /team/sub";
        QTest::newRow("delete the parent's parent") << "batch delete /team";
        QTest::newRow("move the folder") << "batch move /team";
        QTest::newRow("rename the folder") << "move /team";
        QTest::newRow("rename the file") << "move /team/sub/locked.txt";
    }

    void aLockHoldsThroughItsParents()
    {
        QFETCH(QString, change);
        EmuProcess emu({ "--user", "alice:secret", "--user", "bob:pw" });
        startHost(emu, 1, "alice", "secret");
        const QString server = emu.url();
        for (const char* path : { "/team/sub/locked.txt", "/team/sub/free.txt", "/team/other.txt" })
            QCOMPARE(upload(server, path, path).statusCode, 200);
        NBServerApiLockFileModel lock = at<NBServerApiLockFileModel>("/team/sub/locked.txt");
        lock.time = 600;
        QCOMPARE(sync([&](auto d) { return ServerApi::LockFile(lock, std::move(d)); }).statusCode, 200);

        QVERIFY(signIn("bob", "pw"));
        const QString kind = change.section(' ', 0, -2);
        const QString path = change.section(' ', -1);
        if (kind == QLatin1String("move")) {
            NBServerApiMoveModel move { entry(path), entry(path + "-renamed"), false };
            const ResponseData refused = sync([&](auto d) { return ServerApi::Move(move, std::move(d)); });
            QCOMPARE(refused.statusCode, 423);
            QCOMPARE(errorCode(refused), 20010);
            QCOMPARE(object(refused).value("lock_owner").toString(), QString("alice"));
            QVERIFY(
                object(refused).value("lock_expires").toDouble() > QDateTime::currentSecsSinceEpoch() + 500);
            QVERIFY(object(refused).value("message").toString().contains("alice"));
        } else {
            ResponseData started;
            if (kind == QLatin1String("batch delete")) {
                NBServerApiBatchDeleteModel remove;
                remove.pathes << entry(path);
                started = sync([&](auto d) { return ServerApi::BatchDelete(remove, std::move(d)); });
            } else {
                NBServerApiBatchMoveModel move;
                move.from << entry(path);
                move.to = entry("/elsewhere");
                started = sync([&](auto d) { return ServerApi::BatchMove(move, std::move(d)); });
            }
            const QJsonObject state = pollTask(object(started).value("task_id").toString());
            QCOMPARE(state.value("state").toString(), QString("failed"));
            QCOMPARE(state.value("results").toArray()[0].toObject().value("code").toString(),
                QString("file is locked"));
        }
        // Nothing changed, the unlocked entries beside the locked one included.
        QCOMPARE(names(list("/team")), (QStringList { "sub", "other.txt" }));
        QCOMPARE(names(list("/team/sub")), (QStringList { "free.txt", "locked.txt" }));
        // The lock's holder may.
        QVERIFY(signIn("alice", "secret"));
        NBServerApiMoveModel own { entry("/team"), entry("/team2"), false };
        QCOMPARE(sync([&](auto d) { return ServerApi::Move(own, std::move(d)); }).statusCode, 200);
    }

    void aLockIsVisibleAndNamesItsHolder()
    {
        EmuProcess emu({ "--user", "alice:secret", "--user", "bob:pw" });
        startHost(emu, 1, "alice", "secret");
        const QString server = emu.url();
        QCOMPARE(upload(server, "/doc.txt", "v1").statusCode, 200);
        NBServerApiLockFileModel lock = at<NBServerApiLockFileModel>("/doc.txt");
        lock.time = 300;
        const QJsonObject locked
            = object(sync([&](auto d) { return ServerApi::LockFile(lock, std::move(d)); }));
        QCOMPARE(locked.value("locked").toBool(), true);
        QCOMPARE(locked.value("lock_owner").toString(), QString("alice"));

        QVERIFY(signIn("bob", "pw"));
        const QJsonObject seen = object(sync([&](auto d) {
            return ServerApi::MetaData(at<NBServerApiMetaEntryModel>("/doc.txt"), std::move(d));
        }));
        QCOMPARE(seen.value("locked").toBool(), true);
        QCOMPARE(seen.value("lock_owner").toString(), QString("alice"));
        const qint64 expires = qint64(seen.value("lock_expires").toDouble());
        QVERIFY(qAbs(expires - (QDateTime::currentSecsSinceEpoch() + 300)) < 30);
        QCOMPARE(object(list("/")).value("content").toArray()[0].toObject().value("lock_owner").toString(),
            QString("alice"));
        for (const ResponseData& refused : { upload(server, "/doc.txt", "v2"),
                 sync([&](auto d) { return ServerApi::AuthUpload(entry("/doc.txt"), 2, std::move(d)); }) }) {
            QCOMPARE(refused.statusCode, 423);
            QCOMPARE(object(refused).value("lock_owner").toString(), QString("alice"));
            QCOMPARE(qint64(object(refused).value("lock_expires").toDouble()), expires);
        }
        QVERIFY(signIn("alice", "secret"));
        QCOMPARE(sync([&](auto d) {
            return ServerApi::UnlockFile(at<NBServerApiUnlockFileModel>("/doc.txt"), std::move(d));
        }).statusCode,
            200);
        const QJsonObject free = object(sync([&](auto d) {
            return ServerApi::MetaData(at<NBServerApiMetaEntryModel>("/doc.txt"), std::move(d));
        }));
        QCOMPARE(free.value("locked").toBool(true), false);
        QVERIFY(!free.contains("lock_owner"));
    }

    // Every local client is 127.0.0.1: guesses are slowed per link, and only for a moment.
    void wrongLinkPasswordsAreSlowedPerLink()
    {
        EmuProcess emu(
            { "--user", "alice:secret", "--link", "L1:right:alice:/One", "--link", "L2:right:alice:/Two" });
        ServerApi::init(ServerApi::PublicCloud);
        const QString server = emu.url();
        const auto auth = [&](const QString& code, const QString& password) {
            return sync([&](auto d) {
                return ServerApi::DeliveryAuth({ code, password, server }, std::move(d));
            });
        };
        QList<qint64> wrongAnswers;
        QElapsedTimer clock;
        clock.start();
        int guesses = 0;
        while (clock.elapsed() < 3000 && guesses < 500) {
            QTest::qWait(10);
            const ResponseData r = auth("L1", QStringLiteral("guess%1").arg(guesses++));
            if (r.statusCode == 403) {
                wrongAnswers << clock.elapsed();
            } else {
                QCOMPARE(r.statusCode, 429);
                QVERIFY(r.headers.value("Retry-After").toInt() >= 1);
                QCOMPARE(object(r).value("state").toInt(), 429);
            }
        }
        QVERIFY2(wrongAnswers.size() >= 2 && wrongAnswers.size() <= 4,
            qPrintable(QString::number(wrongAnswers.size())));
        for (int i = 1; i < wrongAnswers.size(); ++i)
            QVERIFY(wrongAnswers[i] - wrongAnswers[i - 1] >= 500);
        // No password at all is no guess: refused, and nothing paused.
        QTest::qWait(1100);
        QCOMPARE(auth("L2", "").statusCode, 403);
        QCOMPARE(auth("L2", "right").statusCode, 200);
        // Another link is not slowed; this one takes the right password once the pause is over.
        QCOMPARE(auth("L2", "right").statusCode, 200);
        QTest::qWait(1100);
        QCOMPARE(auth("L1", "right").statusCode, 200);

        // Guesses at the same moment: one is answered, the others wait.
        QList<int> statuses;
        QString seen;
        for (int i = 0; i < 10; ++i)
            ServerApi::DeliveryAuth({ "L1", QStringLiteral("burst%1").arg(i), server },
                [&statuses, &seen](const ResponseData& r) {
                    statuses << r.statusCode;
                    seen += QStringLiteral("%1/%2 %3; ")
                                .arg(r.statusCode)
                                .arg(r.networkError)
                                .arg(r.errorString);
                });
        QVERIFY(waitUntil([&] { return statuses.size() == 10; }, 30000));
        QVERIFY2(statuses.count(403) == 1 && statuses.count(429) == 9, qPrintable(seen));
    }

    void pagesLinkOnlyWebAddresses_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("url");
        QTest::addColumn<int>("status");
        for (int type : { 0, 1 }) {
            const QByteArray t = type == 0 ? "jump: " : "preview: ";
            QTest::newRow(t + "script") << type << "javascript:alert(1)" << 400;
            QTest::newRow(t + "script, upper case") << type << "JavaScript:alert(1)" << 400;
            QTest::newRow(t + "data") << type << "data:text/html,<script>alert(1)</script>" << 400;
            QTest::newRow(t + "local file") << type << "file:///etc/passwd" << 400;
            QTest::newRow(t + "web address") << type << "https://drive.example/a?b=1" << 200;
            QTest::newRow(t + "this server's path") << type << "/v2/region/get" << 200;
        }
    }

    void pagesLinkOnlyWebAddresses()
    {
        QFETCH(int, type);
        QFETCH(QString, url);
        QFETCH(int, status);
        EmuProcess emu({ "--user", "alice:secret" }, type);
        startHost(emu, type, "alice", "secret");
        const ResponseData page = sync([&](auto d) {
            return ServerApi::ServerJump({ url, ServerApi::sessionID(), "1" }, std::move(d));
        });
        QCOMPARE(page.statusCode, status);
        if (status == 200) {
            const int href = page.body.indexOf("href=\"");
            QVERIFY(page.body.mid(href + 6).startsWith("http://")
                || page.body.mid(href + 6).startsWith("https://"));
        } else {
            QCOMPARE(object(page).value("code").toString(), QString("invalid url"));
        }
    }

    void secretsAreTheOwnersOnly()
    {
        EmuProcess emu({ "--user", "alice:secret", "--tls-self-signed" });
        QVERIFY(emu.isRunning());
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(QStringLiteral("https://127.0.0.1:%1").arg(emu.port()));
        QVERIFY(signIn("alice", "secret"));
        const QFileDevice::Permissions others = QFileDevice::ReadGroup | QFileDevice::WriteGroup
            | QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::WriteOther
            | QFileDevice::ExeOther;
        for (const char* name : { "/tls/key.pem", "/nbemu.db", "/nbemu.db-wal", "/nbemu.db-shm" }) {
            const QFileInfo file(emu.dataDir() + name);
            QVERIFY2(file.exists(), name);
            QVERIFY2((file.permissions() & others) == 0, name);
        }
    }
};

NB_TEST_MAIN(TestNBEmuAccess)
#include "tst_nbemuaccess.moc"
