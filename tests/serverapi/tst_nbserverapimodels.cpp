// The shared request models and the path types.
#include "Calls.h"
#include "NBHttpClientManager.h"
#include "NBServerApiModels.h"
#include "ProbeApi.h"
#include "TestMain.h"
#include "TestServer.h"

class TestNBServerApiModels : public QObject
{
    Q_OBJECT

    // An entry sent the way the operations with optional keys send it.
    RecordedRequest sendEntry(const NBServerApiEntryModel& entry)
    {
        TestServer server;
        ProbeApi api;
        api.setBaseUrlString(server.url());
        NBRequestBuilder builder = api.request("/entry");
        builder.param("path", entry.path)
            .param("path_type", entry.pathType)
            .paramIfSet("from", entry.from)
            .paramIfSet("neid", entry.neid)
            .paramIfSet("prefix_neid", entry.prefixNeid);
        Calls calls;
        builder.send(calls.completion());
        calls.waitForCompletions(1);
        return server.lastRequest();
    }

private slots:
    void pathTypes()
    {
        QCOMPARE(NBServerApi::PATHTYPE_ENT, QString("ent"));
        QCOMPARE(NBServerApi::PATHTYPE_SELF, QString("self"));
        QCOMPARE(NBServerApi::PATHTYPE_SHARE_IN, QString("share_in"));
        QCOMPARE(NBServerApi::PATHTYPE_SHARE_OUT, QString("share_out"));
        QCOMPARE(NBServerApi::PATHTYPE_BOOK_MARK, QString("book_mark"));
        QCOMPARE(NBServerApi::PATHTYPE_TRANS, QString("trans"));
        QCOMPARE(NBServerApi::PATHTYPE_RECYCLE, QString("recycle"));
        QCOMPARE(NBPathType::ShareOut, NBServerApi::PATHTYPE_SHARE_OUT);
    }

    void pathTypeNumbers_data()
    {
        QTest::addColumn<QString>("pathType");
        QTest::addColumn<int>("number");
        QTest::newRow("ent") << "ent" << 1;
        QTest::newRow("self") << "self" << 2;
        QTest::newRow("share_in") << "share_in" << 3;
        QTest::newRow("share_out") << "share_out" << 4;
        QTest::newRow("book_mark") << "book_mark" << 0;
        QTest::newRow("trans") << "trans" << 0;
        QTest::newRow("recycle") << "recycle" << 0;
        QTest::newRow("upper case") << "SHARE_IN" << 3;
        QTest::newRow("mixed case") << "Self" << 2;
        QTest::newRow("unknown") << "elsewhere" << 0;
        QTest::newRow("empty") << "" << 0;
    }

    void pathTypeNumbers()
    {
        QFETCH(QString, pathType);
        QFETCH(int, number);
        QCOMPARE(NBServerApi::pathTypeNumber(pathType), number);
    }

    void defaultsAreEmpty()
    {
        const NBServerApiEntryModel entry;
        QVERIFY(entry.path.isEmpty() && entry.pathType.isEmpty() && entry.from.isEmpty()
            && entry.neid.isEmpty() && entry.nsid.isEmpty() && entry.prefixNeid.isEmpty()
            && entry.ignorePrefixPath.isEmpty() && entry.root.isEmpty());
        const NBServerApiBatchMoveModel batch;
        QVERIFY(batch.from.isEmpty());
        QCOMPARE(batch.ignoreShare, false);
        const NBServerApiGetSyncDataModel sync;
        QCOMPARE(sync.syncUid + sync.syncCid + sync.pullJid + sync.deltaDataId + sync.assignJid, 0);
        const NBServerApiDeltaModel delta;
        QVERIFY(delta.cursor.isEmpty());
    }

    void modelsAreCopiedDeep()
    {
        NBServerApiBatchMoveModel batch;
        NBServerApiEntryModel source;
        source.path = "/a";
        batch.from << source;
        batch.to.path = "/dest";
        batch.ignoreShare = true;
        NBServerApiBatchMoveModel copy = batch;
        batch.from[0].path = "/changed";
        QCOMPARE(copy.from.first().path, QString("/a"));
        QCOMPARE(copy.to.path, QString("/dest"));
        QVERIFY(copy.ignoreShare);
    }

    void defaultEntryLeavesOptionalKeysOut()
    {
        QCOMPARE(sendEntry(NBServerApiEntryModel()).target, QByteArray("/v2/entry?path=&path_type="));
    }

    void unknownPathTypeIsSentUnchanged()
    {
        NBServerApiEntryModel entry;
        entry.path = "/docs/a.txt";
        entry.pathType = "recycle";
        entry.neid = "42";
        QCOMPARE(
            sendEntry(entry).target, QByteArray("/v2/entry?path=%2Fdocs%2Fa.txt&path_type=recycle&neid=42"));
        entry.pathType = "Something Else";
        QCOMPARE(
            sendEntry(entry).query(), QByteArray("path=%2Fdocs%2Fa.txt&path_type=Something%20Else&neid=42"));
    }
};

NB_TEST_MAIN(TestNBServerApiModels)
#include "tst_nbserverapimodels.moc"
