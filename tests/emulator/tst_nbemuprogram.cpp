// nbemu as a program a user starts: its options are checked, two emulators never
// share a port or a data folder, and --check never touches a folder being served.
#include "EmuHost.h"
#include "EmuProcess.h"
#include "TestMain.h"

#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>

using namespace EmuHost;

namespace {

struct Run
{
    int exitCode = -1;
    QString output; // both channels
};

Run runNbemu(const QStringList& arguments, int timeoutMs = 15000)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(NBEMU_PATH, arguments);
    Run run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(5000);
        run.output = QStringLiteral("(still running after %1 ms)").arg(timeoutMs);
        return run;
    }
    run.exitCode = process.exitCode();
    run.output = QString::fromUtf8(process.readAll());
    return run;
}

} // namespace

class TestNBEmuProgram : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void cleanup() { ServerApi::uninit(); }

    void badOptionsAreUsageErrors_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("named");
        QTest::newRow("seed not a number") << QStringList { "--fault-seed", "x7" } << "--fault-seed";
        QTest::newRow("negative seed") << QStringList { "--fault-seed", "-1" } << "--fault-seed";
        QTest::newRow("seconds not a number")
            << QStringList { "--session-seconds", "10s" } << "--session-seconds";
        QTest::newRow("zero seconds") << QStringList { "--session-seconds", "0" } << "--session-seconds";
        QTest::newRow("port not a number") << QStringList { "--listen", "127.0.0.1:http" } << "--listen";
        QTest::newRow("port too large") << QStringList { "--listen", "127.0.0.1:70000" } << "--listen";
        QTest::newRow("type not a number") << QStringList { "--type", "1.5" } << "--type";
        QTest::newRow("type out of range") << QStringList { "--type", "3" } << "--type";
        QTest::newRow("fault status too small") << QStringList { "--fault", "/:status=199" } << "status";
        QTest::newRow("fault status too large") << QStringList { "--fault", "/:status=600" } << "status";
        QTest::newRow("fault value not a number")
            << QStringList { "--fault", "/:latency=soon" } << "bad value";
        QTest::newRow("user without password") << QStringList { "--user", "alice" } << "--user";
        QTest::newRow("an empty password") << QStringList { "--user", "bob:" } << "--user";
        QTest::newRow("a user twice") << QStringList { "--user", "alice:other" } << "given twice";
        QTest::newRow("a seed that is not there")
            << QStringList { "--seed", "/nonexistent/seed" } << "--seed";
        QTest::newRow("a port file that cannot be written")
            << QStringList { "--port-file", "/nonexistent/dir/port" } << "port file";
    }

    void badOptionsAreUsageErrors()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, named);
        const Run run = runNbemu(QStringList { "--ephemeral", "--user", "alice:secret" } + arguments);
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.output.contains(named), qPrintable(run.output));
        // A usage error says nothing of serving.
        QVERIFY2(!run.output.contains("serving"), qPrintable(run.output));
    }

    // The name ends at the first ":", and only a trailing ":tfa" is the flag.
    void passwordsMayHoldColons()
    {
        EmuProcess emu({ "--user", "alice:pa:ss", "--user", "bob:b:c:tfa", "--user", "carol:tfa" });
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(emu.url());
        QVERIFY(signIn("alice", "pa:ss"));
        NBServerApiLoginModel bob;
        bob.kind = 2;
        bob.userName = "bob";
        bob.password = "b:c";
        const ResponseData second = sync([&](auto d) { return ServerApi::Login(bob, std::move(d)); });
        QCOMPARE(object(second).value("code").toString(), QString("tfa required"));
        QVERIFY(signIn("carol", "tfa"));
    }

    void aPortInUseIsRefused()
    {
        EmuProcess first;
        QVERIFY(first.isRunning());
        const Run second
            = runNbemu({ "--ephemeral", "--listen", QStringLiteral("127.0.0.1:%1").arg(first.port()) });
        QCOMPARE(second.exitCode, 1);
        QVERIFY2(second.output.contains("in use"), qPrintable(second.output));
        // Another program's port too.
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::LocalHost));
        const Run third
            = runNbemu({ "--ephemeral", "--listen", QStringLiteral("127.0.0.1:%1").arg(other.serverPort()) });
        QCOMPARE(third.exitCode, 1);
        QVERIFY2(third.output.contains("in use"), qPrintable(third.output));
        // The first one still serves.
        QCOMPARE(first.control("GET", "/__emu/health").value("ok").toBool(), true);
    }

    void aDataFolderInUseIsRefused()
    {
        EmuProcess first;
        QVERIFY(first.isRunning());
        const Run second = runNbemu({ "--data", first.dataDir() });
        QCOMPARE(second.exitCode, 1);
        QVERIFY2(second.output.contains("in use"), qPrintable(second.output));
        // A crash leaves nothing that keeps the folder from the next start.
        first.kill();
        QVERIFY(first.start());
        QCOMPARE(first.control("GET", "/__emu/health").value("ok").toBool(), true);
    }

    void checkRefusesAFolderBeingServed()
    {
        EmuProcess emu;
        QVERIFY(emu.isRunning());
        // A chunk being written looks like this while its upload runs.
        const QString temporary = emu.dataDir() + "/chunks/.tmp-being-written";
        QFile file(temporary);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("part of a chunk");
        file.close();
        const Run check = runNbemu({ "--check", emu.dataDir() });
        QCOMPARE(check.exitCode, 3);
        QVERIFY2(check.output.contains("in use"), qPrintable(check.output));
        QVERIFY(QFile::exists(temporary));
    }

    // Chunks stored but never listed (a crash between the two) are the next start's to
    // remove, not an inconsistency.
    void checkCountsUnlistedChunksApart()
    {
        EmuProcess emu;
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(emu.url());
        QVERIFY(signIn("alice", "secret"));
        NBServerApiUploadDataModel data;
        data.path = "/kept.txt";
        data.pathType = NBPathType::Ent;
        data.serverUrl = emu.url();
        data.data = "kept";
        QCOMPARE(sync([&](auto d) { return ServerApi::UploadData(data, std::move(d)); }).statusCode, 200);
        emu.kill();
        const QByteArray unlisted = "never listed";
        const QString hash = hashOf(unlisted);
        const QString path = emu.dataDir() + "/chunks/" + hash.left(2) + '/' + hash.mid(2, 2) + '/' + hash;
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile chunk(path);
        QVERIFY(chunk.open(QIODevice::WriteOnly));
        chunk.write(unlisted);
        chunk.close();
        const Run check = runNbemu({ "--check", emu.dataDir() });
        QCOMPARE(check.exitCode, 0);
        QVERIFY2(check.output.contains("1 unlisted chunk(s), removed at the next start"),
            qPrintable(check.output));
        QVERIFY(emu.start());
        QVERIFY(!QFile::exists(path));
    }

    void resetRefusesAnUnknownTarget()
    {
        EmuProcess emu;
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(emu.url());
        QVERIFY(signIn("alice", "secret"));
        NBServerApiCreateFolderModel folder;
        folder.path = "/kept";
        folder.pathType = NBPathType::Ent;
        QCOMPARE(sync([&](auto d) { return ServerApi::CreateFolder(folder, std::move(d)); }).statusCode, 200);
        const QJsonObject refused = emu.control("POST", "/__emu/reset", { { "to", "everything" } });
        QCOMPARE(refused.value("state").toInt(), 400);
        NBServerApiMetaEntryModel kept;
        kept.path = "/kept";
        kept.pathType = NBPathType::Ent;
        QCOMPARE(sync([&](auto d) { return ServerApi::MetaData(kept, std::move(d)); }).statusCode, 200);
    }
};

NB_TEST_MAIN(TestNBEmuProgram)
#include "tst_nbemuprogram.moc"
