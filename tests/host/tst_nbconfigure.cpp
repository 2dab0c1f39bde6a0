// The host's attribute store.
#include "TestMain.h"

#include <NBConfigure.h>
#include <QThread>

class TestNBConfigure : public QObject
{
    Q_OBJECT
private slots:
    void unsetAttributeIsEmpty() { QCOMPARE(NBConfigure::getQStringAttribute(12345), QString()); }

    void languageIsAttribute59()
    {
        QCOMPARE(int(NBConfigure::Language), 59);
        NBConfigure::setQStringAttribute(NBConfigure::Language, "zh-CN");
        QCOMPARE(NBConfigure::getQStringAttribute(59), QString("zh-CN"));
        NBConfigure::setQStringAttribute(59, "en");
        QCOMPARE(NBConfigure::getQStringAttribute(59), QString("en"));
    }

    void readsAndWritesFromThreads()
    {
        QThread* writer = QThread::create([] {
            for (int i = 0; i < 10000; ++i)
                NBConfigure::setQStringAttribute(1, QString::number(i));
        });
        writer->start();
        for (int i = 0; i < 10000; ++i)
            NBConfigure::getQStringAttribute(1);
        QVERIFY(writer->wait(30000));
        delete writer;
        QCOMPARE(NBConfigure::getQStringAttribute(1), QString("9999"));
    }
};

NB_TEST_MAIN(TestNBConfigure)
#include "tst_nbconfigure.moc"
