// What nbemu keeps and answers, checked against its README: names stored as written,
// revisions, batch requests checked whole, forms, the change feed's entries and
// cursors, ranges as HTTP has them, and the statuses of the sign-in flows.
#include "EmuHost.h"
#include "EmuProcess.h"
#include "RawHttp.h"
#include "TestData.h"
#include "TestMain.h"

#include <QJsonArray>
#include <QJsonDocument>

using namespace EmuHost;

namespace {

ResponseData meta(const QString& path, bool list = false)
{
    NBServerApiMetaEntryModel model = at<NBServerApiMetaEntryModel>(path);
    model.list = list;
    return sync([&](auto d) { return ServerApi::MetaData(model, std::move(d)); });
}

QJsonObject delta(const QString& folder, const QString& cursor = QString())
{
    NBServerApiDeltaModel model = at<NBServerApiDeltaModel>(folder);
    model.cursor = cursor;
    return object(sync([&](auto d) { return ServerApi::Delta(model, std::move(d)); }));
}

} // namespace

class TestNBEmuState : public QObject
{
    Q_OBJECT

    void startHost(const EmuProcess& emu, int type = 1) { QVERIFY(EmuHost::startHost(emu.url(), type)); }

private slots:
    void cleanup() { ServerApi::uninit(); }

    // The address's path is decoded once: what looks like an escape in a name stays in it.
    void namesAreStoredAsWritten_data()
    {
        QTest::addColumn<QString>("name");
        QTest::newRow("escape") << "pct%41.txt";
        QTest::newRow("escaped space") << "d%20ir";
        QTest::newRow("double escape") << "a%2541";
        QTest::newRow("plus") << "a+b.txt";
        QTest::newRow("space") << "sp ace.txt";
        QTest::newRow("question mark") << "why?.txt";
        QTest::newRow("hash") << "#1.txt";
        QTest::newRow("ampersand") << "a&b=c.txt";
        QTest::newRow("non-ASCII") << QString::fromUtf8("Überblick ß.txt");
        QTest::newRow("outside the BMP") << QString::fromUtf8("\xF0\x9F\x98\x80 smile.txt");
        QTest::newRow("a line break") << QStringLiteral("line\nbreak.txt");
    }

    void namesAreStoredAsWritten()
    {
        QFETCH(QString, name);
        EmuProcess emu;
        startHost(emu);
        const QString folder = "/" + name + "-dir";
        QCOMPARE(sync([&](auto d) {
            return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>(folder), std::move(d));
        }).statusCode,
            200);
        QCOMPARE(object(upload(emu.url(), folder + "/" + name, "content")).value("name").toString(), name);
        const QJsonObject listed = object(meta(folder, true));
        QCOMPARE(listed.value("content").toArray().size(), 1);
        QCOMPARE(listed.value("content").toArray()[0].toObject().value("name").toString(), name);
        QCOMPARE(object(meta(folder + "/" + name)).value("path").toString(), folder + "/" + name);
        NBServerApiMoveModel move { entry(folder), entry("/moved " + name), false };
        QCOMPARE(object(sync([&](auto d) { return ServerApi::Move(move, std::move(d)); }))
                     .value("path")
                     .toString(),
            "/moved " + name);
        QCOMPARE(meta("/moved " + name + "/" + name).statusCode, 200);
        NBServerApiBatchDeleteModel remove;
        remove.pathes << entry("/moved " + name);
        const QString task
            = object(sync([&](auto d) { return ServerApi::BatchDelete(remove, std::move(d)); }))
                  .value("task_id")
                  .toString();
        for (int i = 0; i < 3; ++i)
            sync([&](auto d) { return ServerApi::BatchTaskAsyncQuery(task, std::move(d)); });
        QCOMPARE(meta("/moved " + name).statusCode, 404);
    }

    void aRevisionThatNeverWasIsNotFound()
    {
        EmuProcess emu;
        startHost(emu);
        QCOMPARE(upload(emu.url(), "/r.txt", "one").statusCode, 200);
        QCOMPARE(upload(emu.url(), "/r.txt", "two").statusCode, 200);
        const auto revision = [&](const QString& rev) {
            NBSeverApiDLRouterModel model = at<NBSeverApiDLRouterModel>("/r.txt");
            model.rev = rev;
            QByteArray content;
            const ResponseData r = sync([&](auto d) {
                return ServerApi::DownloadRouter(
                    model, [&](const QByteArray& piece) { content += piece; }, std::move(d));
            });
            return qMakePair(r.statusCode, content);
        };
        QCOMPARE(revision("1"), qMakePair(200, QByteArray("one")));
        QCOMPARE(revision("2"), qMakePair(200, QByteArray("two")));
        QCOMPARE(revision("3").first, 404);
        QCOMPARE(revision("99").first, 404);
    }

    // Anything but the documented shape is refused whole: nothing is copied, moved or deleted.
    void batchJsonIsCheckedWholeFirst_data()
    {
        QTest::addColumn<QString>("route");
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("code");
        QTest::newRow("not JSON") << "batch_delete" << QByteArray("{pathes:") << "invalid json";
        QTest::newRow("a list") << "batch_delete" << QByteArray("[]") << "invalid json";
        QTest::newRow("pathes not a list")
            << "batch_delete" << QByteArray(R"({"pathes":"/a"})") << "invalid json";
        QTest::newRow("an item not an object")
            << "batch_delete" << QByteArray(R"({"pathes":[{"path":"/a"},"/b"]})") << "invalid json";
        QTest::newRow("a path not text")
            << "batch_delete" << QByteArray(R"({"pathes":[{"path":"/a"},{"path":7}]})") << "invalid json";
        QTest::newRow("a bad path after a good one")
            << "batch_delete" << QByteArray(R"({"pathes":[{"path":"/a"},{"path":"/a/../b"}]})")
            << "invalid path";
        QTest::newRow("an unknown path type")
            << "batch_delete"
            << QByteArray(R"({"pathes":[{"path":"/a"},{"path":"/b","path_type":"self:1"}]})")
            << "invalid path";
        QTest::newRow("no target") << "batch_move" << QByteArray(R"({"from":[{"path":"/a"}]})")
                                   << "invalid json";
        QTest::newRow("target not an object")
            << "batch_copy" << QByteArray(R"({"from":[{"path":"/a"}],"to":"/c"})") << "invalid json";
        QTest::newRow("target without path")
            << "batch_move" << QByteArray(R"({"from":[{"path":"/a"}],"to":{"path_type":"ent"}})")
            << "invalid json";
        QTest::newRow("from not a list")
            << "batch_copy" << QByteArray(R"({"from":{"path":"/a"},"to":{"path":"/c"}})") << "invalid json";
    }

    void batchJsonIsCheckedWholeFirst()
    {
        QFETCH(QString, route);
        QFETCH(QByteArray, json);
        QFETCH(QString, code);
        EmuProcess emu;
        startHost(emu);
        for (const char* path : { "/a/f.txt", "/b/g.txt" })
            QCOMPARE(upload(emu.url(), path, path).statusCode, 200);
        const ResponseData r = sync([&](auto d) {
            return ServerApi::POST(emu.url("/v2/fileops/" + route),
                { { "json", QString::fromUtf8(json) }, { "X-NIMBRA-SESS-ID", ServerApi::sessionID() } },
                std::move(d));
        });
        QCOMPARE(r.statusCode, 400);
        QCOMPARE(object(r).value("code").toString(), code);
        QCOMPARE(object(meta("/", true)).value("total").toInt(), 2);
        QCOMPARE(meta("/a/f.txt").statusCode, 200);
        QCOMPARE(meta("/b/g.txt").statusCode, 200);
        QCOMPARE(meta("/c").statusCode, 404);
    }

    // A form reads "+" as a space; a query keeps it.
    void formsReadPlusAsASpace()
    {
        EmuProcess emu;
        startHost(emu);
        QCOMPARE(sync([&](auto d) {
            return ServerApi::CreateFolder(at<NBServerApiCreateFolderModel>("/a b"), std::move(d));
        }).statusCode,
            200);
        const quint16 port = emu.port();
        const QByteArray cookie = "Cookie: X-NIMBRA-SESS-ID=" + ServerApi::sessionID().toLatin1();
        const RawExchange moved = rawExchange(port,
            rawForm("/v2/fileops/move", port,
                "from_path=%2Fa+b&from_path_type=ent&to_path=%2Fc+d&to_path_type=ent",
                { cookie, "Connection: close" }));
        QCOMPARE(moved.replies.value(0).json().value("path").toString(), QString("/c d"));
        const RawExchange echoed = rawExchange(port,
            rawRequest(
                "GET", "/v2/config/get?name=a+b&config_id=%2B", port, { cookie, "Connection: close" }));
        QCOMPARE(echoed.replies.value(0).json().value("name").toString(), QString("a+b"));
        QCOMPARE(echoed.replies.value(0).json().value("config_id").toString(), QString("+"));
    }

    // Created and changed entries read the same from a cursor's replay as from the whole
    // state, the content hash included.
    void feedEntriesHaveTheSameFieldsEitherWay()
    {
        EmuProcess emu;
        startHost(emu);
        const QString cursor = delta("/").value("cursor").toString();
        QCOMPARE(upload(emu.url(), "/f/one.txt", "one").statusCode, 200);
        QCOMPARE(upload(emu.url(), "/f/one.txt", "one, changed").statusCode, 200);
        const QJsonObject file = object(meta("/f/one.txt"));
        const QJsonArray replay = delta("/", cursor).value("entries").toArray();
        const QJsonArray whole = delta("/").value("entries").toArray();
        QCOMPARE(replay.size(), 3); // the folder made for it, the file, its change
        QCOMPARE(replay[2].toObject().value("op").toString(), QString("modify"));
        const QJsonObject changed = replay[2].toObject();
        const QJsonObject created = whole[1].toObject();
        QCOMPARE(created.value("path").toString(), QString("/f/one.txt"));
        QCOMPARE(changed.keys(), created.keys());
        for (const char* key :
            { "hash", "bytes", "rev", "neid", "modified", "name", "nsid", "path_type", "is_dir" })
            QCOMPARE(changed.value(key), file.value(key));
        // A deletion names at least what went.
        const QString beforeDeletion = delta("/", cursor).value("cursor").toString();
        NBServerApiBatchDeleteModel remove;
        remove.pathes << entry("/f/one.txt");
        sync([&](auto d) { return ServerApi::BatchDelete(remove, std::move(d)); });
        const QJsonObject gone = delta("/", beforeDeletion).value("entries").toArray()[0].toObject();
        QCOMPARE(gone.value("op").toString(), QString("delete"));
        QCOMPARE(gone.value("path").toString(), QString("/f/one.txt"));
        QCOMPARE(gone.value("neid"), file.value("neid"));
    }

    // A cursor names its journal: another data folder's, this one's before a reset, or
    // one past the end is unknown, and gives the whole state with reset true.
    void cursorsThisJournalNeverGaveMeanReset()
    {
        EmuProcess other;
        startHost(other);
        QCOMPARE(upload(other.url(), "/x.txt", "x").statusCode, 200);
        const QString foreign = delta("/").value("cursor").toString();
        ServerApi::uninit();

        EmuProcess emu;
        startHost(emu);
        QCOMPARE(upload(emu.url(), "/a.txt", "a").statusCode, 200);
        const QString own = delta("/").value("cursor").toString();
        QCOMPARE(delta("/", own).value("reset").toBool(true), false);
        QCOMPARE(delta("/", own).value("entries").toArray().size(), 0);
        const QJsonObject fromElsewhere = delta("/", foreign);
        QCOMPARE(fromElsewhere.value("reset").toBool(), true);
        QCOMPARE(fromElsewhere.value("entries").toArray().size(), 1);
        // The same journal, a position it never reached.
        QList<QByteArray> parts
            = QByteArray::fromBase64(own.toLatin1(), QByteArray::Base64UrlEncoding).split(':');
        parts[2] = QByteArray::number(parts[2].toLongLong() + 1000);
        const QString ahead = QString::fromLatin1(parts.join(':').toBase64(QByteArray::Base64UrlEncoding));
        QCOMPARE(delta("/", ahead).value("reset").toBool(), true);
        QCOMPARE(delta("/", "garbage").value("reset").toBool(), true);
        // After a reset the old cursors are another journal's.
        emu.control("POST", "/__emu/reset", { { "to", "empty" } });
        QVERIFY(signIn("alice", "secret"));
        QCOMPARE(delta("/", own).value("reset").toBool(), true);
    }

    void rangesFollowHttp_data()
    {
        QTest::addColumn<QString>("range");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QByteArray>("contentRange");
        QTest::newRow("a range") << "bytes=2-4" << 206 << QByteArray("234") << QByteArray("bytes 2-4/10");
        QTest::newRow("past the end, clamped")
            << "bytes=8-20" << 206 << QByteArray("89") << QByteArray("bytes 8-9/10");
        QTest::newRow("unknown unit: ignored")
            << "items=2-4" << 200 << QByteArray("0123456789") << QByteArray();
        QTest::newRow("last before first: ignored")
            << "bytes=5-2" << 200 << QByteArray("0123456789") << QByteArray();
        QTest::newRow("not numbers: ignored")
            << "bytes=a-b" << 200 << QByteArray("0123456789") << QByteArray();
        QTest::newRow("several ranges: ignored")
            << "bytes=0-1,4-5" << 200 << QByteArray("0123456789") << QByteArray();
        QTest::newRow("empty: ignored") << "bytes=-" << 200 << QByteArray("0123456789") << QByteArray();
        QTest::newRow("starts at the end") << "bytes=10-" << 416 << QByteArray() << QByteArray("bytes */10");
        QTest::newRow("empty suffix") << "bytes=-0" << 416 << QByteArray() << QByteArray("bytes */10");
        // Numbers past 64 bits: as good as infinite.
        QTest::newRow("a start past 64 bits")
            << "bytes=18446744073709551616-" << 416 << QByteArray() << QByteArray("bytes */10");
        QTest::newRow("an end past 64 bits")
            << "bytes=1-18446744073709551616" << 206 << QByteArray("123456789") << QByteArray("bytes 1-9/10");
        QTest::newRow("a suffix past 64 bits")
            << "bytes=-99999999999999999999" << 206 << QByteArray("0123456789") << QByteArray("bytes 0-9/10");
    }

    void rangesFollowHttp()
    {
        QFETCH(QString, range);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QByteArray, contentRange);
        EmuProcess emu;
        startHost(emu);
        QCOMPARE(upload(emu.url(), "/digits.txt", "0123456789").statusCode, 200);
        NBSeverApiDLRouterModel model = at<NBSeverApiDLRouterModel>("/digits.txt");
        model.range = range;
        QByteArray content;
        const ResponseData r = sync([&](auto d) {
            return ServerApi::DownloadRouter(
                model, [&](const QByteArray& piece) { content += piece; }, std::move(d));
        });
        QCOMPARE(r.statusCode, status);
        QCOMPARE(r.headers.value("Content-Range"), contentRange);
        if (status == 416)
            QCOMPARE(object(r).value("code").toString(), QString("invalid range"));
        else
            QCOMPARE(content, body);
    }

    // Every error body has the documented shape; wrong codes are 401 as the table says.
    void secondFactorRepliesAreAsDocumented()
    {
        EmuProcess emu({ "--user", "bob:pw:tfa" });
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(emu.url());
        NBServerApiLoginModel login;
        login.kind = 2;
        login.userName = "bob";
        login.password = "pw";
        const ResponseData required = sync([&](auto d) { return ServerApi::Login(login, std::move(d)); });
        QCOMPARE(required.statusCode, 401);
        const QJsonObject body = object(required);
        QCOMPARE(body.value("code").toString(), QString("tfa required"));
        QCOMPARE(body.value("msgcode").toString(), QString("E401"));
        QCOMPARE(body.value("state").toInt(), 401);
        QCOMPARE(body.value("type").toString(), QString("error"));
        const QString tfa = body.value("tfa_id").toString();
        QVERIFY(!tfa.isEmpty());
        const ResponseData otp
            = sync([&](auto d) { return ServerApi::DyncCodeLogin(tfa, "000000", std::move(d)); });
        QCOMPARE(otp.statusCode, 401);
        QCOMPARE(object(otp).value("code").toString(), QString("invalid otp"));
        const ResponseData sms
            = sync([&](auto d) { return ServerApi::SmsCodeLogin(tfa, "000000", std::move(d)); });
        QCOMPARE(sms.statusCode, 401);
        QCOMPARE(object(sms).value("code").toString(), QString("invalid verification code"));
    }
};

NB_TEST_MAIN(TestNBEmuState)
#include "tst_nbemustate.moc"
