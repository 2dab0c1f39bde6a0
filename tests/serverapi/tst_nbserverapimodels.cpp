// The shared request models and the path types.
#include "NBServerApi.h"
#include "NBServerApiModels.h"
#include "TestMain.h"

class TestNBServerApiModels : public QObject
{
    Q_OBJECT

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
    // A default entry and an unknown path type on the wire: tst_nbserverapi_namespace
    // ("unlockFile, default model", "unlockFile, unknown path type sent as it is").
};

NB_TEST_MAIN(TestNBServerApiModels)
#include "tst_nbserverapimodels.moc"
