// The log channel: where the files go and how a line reads.
#include "CNBLoggerWrapper.h"
#include "TestLog.h"
#include "TestMain.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QtNBLogger.h>

class TestCNBLoggerWrapper : public QObject
{
    Q_OBJECT
private slots:
    void existingDataFolderIsReused()
    {
        // Runs first: nothing has logged yet in this process.
        const QString logRoot = qEnvironmentVariable("XDG_DATA_HOME") + "/NimbraData";
        QVERIFY(QDir().mkpath(logRoot));
        QFile marker(logRoot + "/marker");
        QVERIFY(marker.open(QIODevice::WriteOnly));
        marker.close();
        const QDateTime created = QFileInfo(logRoot).birthTime();
        QCOMPARE(CNBLoggerWrapper::getLogPathName(CNBLoggerWrapper::Transfer), logRoot + "/Log/Transfer.log");
        QVERIFY(QFile::exists(logRoot + "/marker"));
        QCOMPARE(QFileInfo(logRoot).birthTime(), created);
        QVERIFY(QFileInfo(logRoot + "/Log").isDir());
    }

    void freshHomeGetsItsFolders()
    {
        const QString home = qEnvironmentVariable("XDG_DATA_HOME");
        QVERIFY(QDir(home + "/NimbraData").removeRecursively());
        QVERIFY(QDir(home).removeRecursively());
        QCOMPARE(CNBLoggerWrapper::getLogPathName(CNBLoggerWrapper::Sync), home + "/NimbraData/Log/Sync.log");
        QVERIFY(QFileInfo(home + "/NimbraData/Log").isDir());
    }

    void everyModuleHasItsFile_data()
    {
        QTest::addColumn<int>("module");
        QTest::addColumn<QString>("file");
        const char* files[] = { "Login.log", "Main.log", "Monitor.log", "LocalEdit.log", "Cef.log",
            "Sync.log", "TransMgr.log", "Transfer.log", "DB.log", "Upgrade.log" };
        for (int m = 0; m < 10; ++m)
            QTest::newRow(files[m]) << m << QString(files[m]);
        QTest::newRow("10 is the folder") << 10 << QString();
        QTest::newRow("99 is the folder") << 99 << QString();
    }

    void everyModuleHasItsFile()
    {
        QFETCH(int, module);
        QFETCH(QString, file);
        const QString folder = qEnvironmentVariable("XDG_DATA_HOME") + "/NimbraData/Log";
        const QString path = CNBLoggerWrapper::getLogPathName(CNBLoggerWrapper::ModuleName(module));
        QCOMPARE(path, file.isEmpty() ? folder : folder + '/' + file);
    }

    void formatMessage()
    {
        QCOMPARE(CNBLoggerWrapper::formatMessage("m", "Engine", "f", 12), QString("[Engine][f][12]: m"));
        // The message is substituted last, so placeholders inside it are left alone.
        QCOMPARE(CNBLoggerWrapper::formatMessage("100% %1 done", "Engine", "f", 3),
            QString("[Engine][f][3]: 100% %1 done"));
    }

    void linesCarryTheShortFileNameFunctionAndLine()
    {
        TestLog log;
        CNBLoggerWrapper& channel = CNBLoggerWrapper::instTransfer();
        channel.information("m", "a/b/c/Engine", "f", 12);
        channel.error(QString::fromUtf8("错误"), "/x/y/Other.cpp", "g", 7);
        channel.fatal("z", "Plain", "h", 1);
        QFile file(TestLog::path());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QList<QByteArray> lines = file.readAll().split('\n');
        QVERIFY(lines.size() >= 4);
        QVERIFY(lines.at(lines.size() - 4).endsWith(" INFO  [Engine][f][12]: m"));
        QVERIFY(lines.at(lines.size() - 3)
                    .endsWith(QString::fromUtf8(" ERROR [Other.cpp][g][7]: 错误").toUtf8()));
        QVERIFY(lines.at(lines.size() - 2).endsWith(" FATAL [Plain][h][1]: z"));
        QVERIFY(QRegularExpression(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} INFO  )")
                    .match(QString::fromUtf8(lines.at(lines.size() - 4)))
                    .hasMatch());
        QCOMPARE(log.entries().size(), 3);
    }

    void transferChannelIsOneInstance()
    {
        CNBLoggerWrapper& a = CNBLoggerWrapper::instTransfer();
        CNBLoggerWrapper& b = CNBLoggerWrapper::instTransfer();
        QCOMPARE(&a, &b);
        QVERIFY(a.handle() > 0);
        CNBLoggerWrapper sameFile(CNBLoggerWrapper::Transfer);
        QCOMPARE(sameFile.handle(), a.handle());
    }

    void levelTwoKeepsOnlyFatalAndError()
    {
        CNBLoggerWrapper& channel = CNBLoggerWrapper::instTransfer();
        QtNBLogger::setLevel(channel.handle(), 2);
        TestLog log;
        channel.information("hidden", "F", "f", 1);
        channel.error("shown error", "F", "f", 2);
        channel.fatal("shown fatal", "F", "f", 3);
        QtNBLogger::setLevel(channel.handle(), 16);
        channel.information("shown info", "F", "f", 4);
        QCOMPARE(log.messages(), (QStringList { "shown error", "shown fatal", "shown info" }));
    }
};

NB_TEST_MAIN(TestCNBLoggerWrapper)
#include "tst_cnbloggerwrapper.moc"
