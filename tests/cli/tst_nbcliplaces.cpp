// Where nbcli puts what it copies, and what it calls it: folders land as cp -r places
// them whatever form the local path takes, names round-trip byte for byte through every
// command, devices, FIFOs, symlinks and standard streams are treated as such, and the
// share grammar has one reading.
#include "CliProcess.h"
#include "EmuProcess.h"
#include "TestData.h"
#include "TestMain.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QThread>
#include <sys/stat.h>
#include <sys/types.h>

class TestNbcliPlaces : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    CliProcess m_cli { QStringLiteral(NBCLI_PATH) };

    CliRun nbcli(const QStringList& args, const QMap<QString, QString>& env = {},
        const QByteArray& input = {}, const QString& workingDirectory = QString())
    {
        return m_cli.run(
            args, env, input, 180000, workingDirectory.isEmpty() ? m_dir.path() : workingDirectory);
    }

    bool signIn(EmuProcess& emu)
    {
        return nbcli({ "login", "--server", emu.url(), "--user", "alice" }, { { "NB_PASSWORD", "secret" } })
                   .exit
            == 0;
    }

    QString local(const QString& name) const { return m_dir.filePath(name); }

    // Whether the remote path is there, and a file or a folder as asked.
    bool remoteIs(const QString& path, const QString& type)
    {
        const CliRun run = nbcli({ "stat", "--json", path });
        return run.exit == 0 && run.results().at(0).toObject().value("type").toString() == type;
    }

    // A small tree: tree/f1.txt, tree/sub/f2.txt.
    void makeTree(const QString& name = QStringLiteral("tree"))
    {
        QDir(m_dir.path()).mkpath(name + "/sub");
        writeFile(local(name + "/f1.txt"), "one");
        writeFile(local(name + "/sub/f2.txt"), "two");
    }

private slots:
    void init() { m_cli.dirty.clear(); }
    void cleanup()
    {
        QVERIFY2(m_cli.dirty.isEmpty(),
            qPrintable("carriage return or escape in a pipe: " + m_cli.dirty.join(", ")));
    }

    void foldersLandAsCpRPlacesThem_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("workingDirectory"); // below the test folder
        QTest::addColumn<QString>("target");
        QTest::addColumn<bool>("targetExists");
        QTest::addColumn<QString>("landsAt");
        QTest::newRow("relative, new target") << "tree"
                                              << ""
                                              << "/backup/tree" << false << "/backup/tree";
        QTest::newRow("./x") << "./tree"
                             << ""
                             << "/backup/tree" << false << "/backup/tree";
        QTest::newRow("x/") << "tree/"
                            << ""
                            << "/backup/tree" << false << "/backup/tree";
        QTest::newRow("../x") << "../tree"
                              << "elsewhere"
                              << "/backup/tree" << false << "/backup/tree";
        QTest::newRow("absolute") << "ABSOLUTE"
                                  << ""
                                  << "/backup/tree" << false << "/backup/tree";
        QTest::newRow("into a target ending in /") << "tree"
                                                   << ""
                                                   << "/backup/" << false << "/backup/tree";
        QTest::newRow("into an existing folder") << "tree"
                                                 << ""
                                                 << "/backup" << true << "/backup/tree";
        QTest::newRow("./x into an existing folder") << "./tree"
                                                     << ""
                                                     << "/backup" << true << "/backup/tree";
        QTest::newRow("the current folder") << "."
                                            << "tree"
                                            << "/backup/" << false << "/backup/tree";
        QTest::newRow("through a symlink") << "link"
                                           << ""
                                           << "/backup/" << false << "/backup/link";
    }

    void foldersLandAsCpRPlacesThem()
    {
        QFETCH(QString, source);
        QFETCH(QString, workingDirectory);
        QFETCH(QString, target);
        QFETCH(bool, targetExists);
        QFETCH(QString, landsAt);
        EmuProcess emu({ "--user", "alice:secret", "--link", "L1:pw:alice:/Shared" });
        QVERIFY(signIn(emu));
        makeTree();
        QFile::link(local("tree"), local("link"));
        QDir(m_dir.path()).mkpath("elsewhere");
        if (source == QLatin1String("ABSOLUTE"))
            source = local("tree");
        if (targetExists)
            CLI_OK(nbcli({ "mkdir", "-p", target }));
        CLI_OK(nbcli({ "put", source, target }, {}, {}, local(workingDirectory)));
        QVERIFY2(remoteIs(landsAt + "/f1.txt", "file"), qPrintable(landsAt));
        QVERIFY(remoteIs(landsAt + "/sub/f2.txt", "file"));
        // Never the source's path again under the target.
        QVERIFY(!remoteIs(landsAt + "/tree", "folder"));

        // The same way back: into an existing folder, or as a new one.
        CLI_OK(nbcli({ "get", landsAt, local("back") }));
        QCOMPARE(readFile(local("back/f1.txt")), QByteArray("one"));
        CLI_OK(nbcli({ "get", landsAt, local("back") }));
        QCOMPARE(readFile(local("back/") + QFileInfo(landsAt).fileName() + "/sub/f2.txt"), QByteArray("two"));

        // And through a shared link.
        CLI_OK(nbcli({ "share", "put", source, "L1:/in" }, { { "NB_SHARE_PASSWORD", "pw" } }, {},
            local(workingDirectory)));
        QVERIFY(remoteIs("/Shared/in/f1.txt", "file"));
        CLI_OK(nbcli({ "share", "put", source, "L1:/in/" }, { { "NB_SHARE_PASSWORD", "pw" } }, {},
            local(workingDirectory)));
        QVERIFY(remoteIs("/Shared/in/" + QFileInfo(landsAt).fileName() + "/sub/f2.txt", "file"));
        CLI_OK(nbcli({ "share", "get", "L1:/in", local("via-link") }, { { "NB_SHARE_PASSWORD", "pw" } }));
        QCOMPARE(readFile(local("via-link/f1.txt")), QByteArray("one"));
    }

    // The habits of cp and mv: a file into an existing folder, a copy under a new name.
    void filesFollowUnixHabits()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        writeFile(local("a.txt"), "a");
        CLI_OK(nbcli({ "mkdir", "/docs" }));
        CLI_OK(nbcli({ "put", local("a.txt"), "/docs" }));
        QVERIFY(remoteIs("/docs/a.txt", "file"));
        CLI_OK(nbcli({ "put", local("a.txt"), "/renamed.txt" }));
        QVERIFY(remoteIs("/renamed.txt", "file"));
        CLI_OK(nbcli({ "mv", "/renamed.txt", "/docs" }));
        QVERIFY(remoteIs("/docs/renamed.txt", "file"));
        CLI_OK(nbcli({ "cp", "/docs/a.txt", "/docs/b.txt" }));
        QVERIFY(remoteIs("/docs/b.txt", "file"));
        QCOMPARE(nbcli({ "ls", "/docs" }).out, QString("a.txt\nb.txt\nrenamed.txt\n"));
        CLI_OK(nbcli({ "cp", "-r", "/docs", "/copy" }));
        QVERIFY(remoteIs("/copy/b.txt", "file"));
        CliRun run = nbcli({ "cp", "/docs/a.txt", "/docs/b.txt" });
        QCOMPARE(run.exit, 2);
        QVERIFY(run.err.contains("/docs/b.txt exists"));
        CLI_OK(nbcli({ "rm", "-rf", "/copy", "/never-was" }));
        QVERIFY(!remoteIs("/copy", "folder"));
        QCOMPARE(nbcli({ "rm", "/never-was" }).exit, 2);
    }

    // Names with what an address or a format string reads specially, whole and in chunks.
    void namesRoundTripThroughEveryCommand_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("size");
        const QStringList names { "why?.txt", "pct%41.txt", "100%.txt", "#1.txt", "a+b.txt", "a&b=c.txt",
            "sp ace.txt", "d%20ir", "%1 %2 %3.txt", QString::fromUtf8("Überblick ß.txt"),
            QString::fromUtf8("\xF0\x9F\x98\x80.txt") };
        for (const QString& name : names)
            QTest::newRow(qPrintable(name + ", whole")) << name << 100;
        // In chunks, where the name also travels in the hash query and the commit.
        for (const char* name : { "why?.txt", "pct%41.txt", "%1 %2 %3.txt", "\xF0\x9F\x98\x80.txt" })
            QTest::newRow(qPrintable(QString::fromUtf8(name) + ", chunked"))
                << QString::fromUtf8(name) << (5 << 20);
    }

    void namesRoundTripThroughEveryCommand()
    {
        QFETCH(QString, name);
        QFETCH(int, size);
        EmuProcess emu({ "--user", "alice:secret", "--link", "L1:pw:alice:/Shared" });
        QVERIFY(signIn(emu));
        const QByteArray content = randomBytes(size, 7);
        QDir(m_dir.path()).mkpath("names");
        writeFile(local("names/" + name), content);
        CliRun run = nbcli({ "put", local("names/" + name), "/n/" });
        CLI_OK(run);
        QVERIFY2(run.out.startsWith("put " + local("names/" + name) + " -> /n/" + name + ": "),
            qPrintable(run.out));
        QCOMPARE(nbcli({ "ls", "/n" }).out, name + "\n");
        QCOMPARE(nbcli({ "ls", "--json", "/n" }).results().at(0).toObject().value("name").toString(), name);
        QVERIFY(nbcli({ "stat", "/n/" + name }).out.startsWith("/n/" + name + "\n"));
        run = nbcli({ "get", "/n/" + name, local("got-" + name) });
        CLI_OK(run);
        QVERIFY(readFile(local("got-" + name)) == content);
        CLI_OK(nbcli({ "mv", "/n/" + name, "/n/moved " + name }));
        CLI_OK(nbcli({ "cp", "/n/moved " + name, "/n/" + name }));
        QStringList listed = nbcli({ "ls", "/n" }).out.split('\n', Qt::SkipEmptyParts);
        listed.sort();
        QStringList expected { name, "moved " + name };
        expected.sort();
        QCOMPARE(listed, expected);
        run = nbcli({ "rm", "/n/moved " + name });
        CLI_OK(run);
        QCOMPARE(run.out, "deleted /n/moved " + name + "\n");
        CLI_OK(nbcli({ "share", "put", local("names/" + name), "L1:/" }, { { "NB_SHARE_PASSWORD", "pw" } }));
        CLI_OK(nbcli(
            { "share", "get", "L1:/" + name, local("link-" + name) }, { { "NB_SHARE_PASSWORD", "pw" } }));
        QVERIFY(readFile(local("link-" + name)) == content);
        QCOMPARE(nbcli({ "ls", "/Shared" }).out, name + "\n");
    }

    void standardStreamsDevicesAndLinks()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        const QByteArray content = randomBytes(9 << 20, 8);
        // Standard input, read as it comes, in chunks.
        CliRun run = nbcli({ "put", "-", "/stdin.bin" }, {}, content);
        CLI_OK(run);
        QVERIFY2(run.out.contains("put standard input -> /stdin.bin: 9.0 MiB, 3 of 3 chunks sent"),
            qPrintable(run.out));
        CLI_OK(nbcli({ "put", "-", "/empty.bin" }, {}, QByteArray()));
        QCOMPARE(
            nbcli({ "stat", "--json", "/empty.bin" }).results().at(0).toObject().value("bytes").toInt(), 0);
        QCOMPARE(nbcli({ "put", "-", "/a/" }, {}, "x").exit, 1);
        QCOMPARE(nbcli({ "put", "-", local("x"), "/b" }, {}, "x").exit, 1);

        // Standard output: the file alone, one file only.
        QProcess raw;
        raw.setProcessEnvironment(m_cli.environment({}));
        raw.start(NBCLI_PATH, { "get", "/stdin.bin", "-" });
        QVERIFY(raw.waitForFinished(60000));
        QCOMPARE(raw.exitCode(), 0);
        QVERIFY(raw.readAllStandardOutput() == content);
        QCOMPARE(nbcli({ "get", "/stdin.bin", "/empty.bin", "-" }).exit, 1);
        CLI_OK(nbcli({ "mkdir", "/folder" }));
        QCOMPARE(nbcli({ "get", "/folder", "-" }).exit, 1);

        // A device is written in place: no temporary file, no rename, still a device.
        run = nbcli({ "get", "/stdin.bin", "/dev/null" });
        CLI_OK(run);
        QVERIFY(QFileInfo("/dev/null").exists() && !QFileInfo("/dev/null").isFile());

        // A FIFO too, read by another process while it is written.
        const QString fifo = local("pipe");
        QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
        QProcess reader;
        reader.setStandardOutputFile(local("from-fifo"));
        reader.start("cat", { fifo });
        QVERIFY(reader.waitForStarted());
        CLI_OK(nbcli({ "get", "/stdin.bin", fifo }));
        QVERIFY(reader.waitForFinished(30000));
        QVERIFY(readFile(local("from-fifo")) == content);
        QVERIFY(!QFileInfo(fifo).isFile());
        QCOMPARE(QDir(m_dir.path()).entryList({ "*.part" }, QDir::Hidden | QDir::Files), QStringList());

        // A symlink is followed: its file is replaced, the link stays a link.
        writeFile(local("real.bin"), "old");
        QFile::link(local("real.bin"), local("alias.bin"));
        CLI_OK(nbcli({ "get", "/stdin.bin", local("alias.bin") }));
        QVERIFY(QFileInfo(local("alias.bin")).isSymLink());
        QVERIFY(readFile(local("real.bin")) == content);
    }

    void partsOfOlderRevisionsAreRemoved()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        writeFile(local("f.bin"), "first");
        CLI_OK(nbcli({ "put", local("f.bin"), "/f.bin" }));
        writeFile(local("f.bin"), "second");
        CLI_OK(nbcli({ "put", local("f.bin"), "/f.bin" }));
        QDir(m_dir.path()).mkpath("out");
        writeFile(local("out/.f.bin.nbcli-1.part"), "fir"); // an interrupted get of revision 1
        writeFile(local("out/.f.bin2.nbcli-1.part"), "other"); // another target's
        CLI_OK(nbcli({ "get", "/f.bin", local("out/f.bin") }));
        QCOMPARE(readFile(local("out/f.bin")), QByteArray("second"));
        QVERIFY(!QFileInfo::exists(local("out/.f.bin.nbcli-1.part")));
        QVERIFY(QFileInfo::exists(local("out/.f.bin2.nbcli-1.part")));
    }

    // CODE[:PATH]: the remote path only after the colon, the local target always given.
    void theShareGrammarHasOneReading()
    {
        EmuProcess emu({ "--user", "alice:secret", "--link", "L1:pw:alice:/Shared" });
        QVERIFY(signIn(emu));
        writeFile(local("s.txt"), "shared");
        const QMap<QString, QString> password { { "NB_SHARE_PASSWORD", "pw" } };
        CLI_OK(nbcli({ "share", "put", local("s.txt"), "L1:/in/" }, password));
        QDir(m_dir.path()).mkpath("grammar");
        // The old form of three arguments: a usage error that shows the new one, and nothing written.
        for (const QStringList& old : { QStringList { "share", "get", "L1", "/in/s.txt", "got.txt" },
                 QStringList { "share", "put", local("s.txt"), "L1", "/in/" } }) {
            const CliRun run = nbcli(old, password, {}, local("grammar"));
            QCOMPARE(run.exit, 1);
            QVERIFY2(run.err.contains("share get CODE[:PATH] LOCAL"), qPrintable(run.err));
        }
        QCOMPARE(QDir(local("grammar")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
            QStringList());
        CLI_OK(nbcli({ "share", "get", "L1:/in/s.txt", "got.txt" }, password, {}, local("grammar")));
        QCOMPARE(readFile(local("grammar/got.txt")), QByteArray("shared"));
        CLI_OK(nbcli({ "share", "get", "L1", "whole" }, password, {}, local("grammar")));
        QCOMPARE(readFile(local("grammar/whole/in/s.txt")), QByteArray("shared"));
    }
};

NB_TEST_MAIN(TestNbcliPlaces)
#include "tst_nbcliplaces.moc"
