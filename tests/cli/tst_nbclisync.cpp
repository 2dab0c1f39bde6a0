// nbcli sync and the parallel transfers, as a process against a fresh nbemu per case:
// what each run changed, and what reached the emulator (its request log).
#include "CliProcess.h"
#include "EmuProcess.h"
#include "TestMain.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <algorithm>

namespace {

QByteArray randomBytes(qint64 size, quint32 seed)
{
    QByteArray bytes(int(size), Qt::Uninitialized);
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32*>(bytes.data()), int(size / 4));
    return bytes;
}

bool writeFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Every file below `root` by its relative path, with its bytes.
QMap<QString, QByteArray> treeOf(const QString& root)
{
    QMap<QString, QByteArray> files;
    QDirIterator walk(root, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        const QString path = walk.next();
        files.insert(QDir(root).relativeFilePath(path), readFile(path));
    }
    return files;
}

// The requests of `method` whose targets start with one of `routes`.
int countRequests(const QList<QJsonObject>& requests, const QString& method, const QStringList& routes)
{
    int count = 0;
    for (const QJsonObject& line : requests) {
        const QString target = line.value("target").toString();
        count += line.value("method").toString() == method
                && std::any_of(routes.cbegin(), routes.cend(),
                    [&](const QString& route) { return target.startsWith(route); })
            ? 1
            : 0;
    }
    return count;
}

// Whole files, chunks and commits.
int uploads(const QList<QJsonObject>& requests)
{
    return countRequests(
        requests, "POST", { "/v2/files/databox", "/v2/chunked_upload", "/v2/commit_chunked_upload" });
}

int downloads(const QList<QJsonObject>& requests)
{
    return countRequests(requests, "GET", { "/v2/files/databox", "/v2/dl_router" });
}

// What a --json run did or would do: "action path [from]" of each result.
QSet<QString> actions(const CliRun& run)
{
    QSet<QString> done;
    for (const QJsonValue& value : run.results()) {
        const QJsonObject result = value.toObject();
        done << result.value("action").toString() + ' ' + result.value("path").toString() + ' '
                + result.value("from").toString();
    }
    return done;
}

} // namespace

class TestNbcliSync : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    CliProcess m_cli { QStringLiteral(NBCLI_PATH) };

    CliRun nbcli(const QStringList& args, const QByteArray& input = {}) { return m_cli.run(args, {}, input); }

    bool signIn(EmuProcess& emu)
    {
        return nbcli({ "login", "--server", emu.url(), "--user", "alice", "--password-stdin" }, "secret\n")
                   .exit
            == 0;
    }

    QString local(const QString& name) const { return m_dir.filePath(name); }

    // A tree of small files in folders, a large one and one to leave out.
    void makeTree(const QString& root)
    {
        for (int i = 0; i < 12; ++i)
            QVERIFY(writeFile(QStringLiteral("%1/docs/part%2/note %3.txt").arg(root).arg(i % 3).arg(i),
                "note " + QByteArray::number(i)));
        QVERIFY(writeFile(root + "/big.bin", randomBytes(9 << 20, 3)));
        QVERIFY(writeFile(root + "/cache/skip.o", "object"));
        QDir().mkpath(root + "/empty");
    }

private slots:
    void syncUpThenNothingTheSecondTime()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        makeTree(local("up"));
        CliRun run = nbcli({ "sync", "--json", local("up"), ":/backup" });
        CLI_OK(run);
        QCOMPARE(run.results().size(), 1 + 6 + 14); // the root, 6 folders, 14 files
        run = nbcli({ "sync", local("up"), ":/backup" });
        CLI_OK(run);
        QVERIFY2(run.err.contains("already matches") && run.out.isEmpty(), qPrintable(run.err));
        // The second run read the tree's listing and nothing else: no upload, no revision.
        const int before = emu.requests().size();
        CLI_OK(nbcli({ "sync", local("up"), ":/backup" }));
        QCOMPARE(uploads(emu.requests().mid(before)), 0);
        QCOMPARE(nbcli({ "revisions", "--json", "/backup/big.bin" }).results().size(), 1);

        CLI_OK(nbcli({ "sync", ":/backup", local("down") }));
        QCOMPARE(treeOf(local("down")), treeOf(local("up")));
        QVERIFY(QFileInfo(local("down/empty")).isDir());
        const int fetched = emu.requests().size();
        CLI_OK(nbcli({ "sync", ":/backup", local("down") }));
        QCOMPARE(downloads(emu.requests().mid(fetched)), 0);
        // Downloads keep the server's time.
        const qint64 modified = qint64(nbcli({ "stat", "--json", "/backup/big.bin" })
                                           .results()
                                           .at(0)
                                           .toObject()
                                           .value("modified")
                                           .toDouble());
        QCOMPARE(QFileInfo(local("down/big.bin")).lastModified().toSecsSinceEpoch(), modified);
    }

    // Additions, changes, deletions, a rename and excludes; the dry run's plan is what the
    // run then does.
    void changesBothWaysAndTheDryRunIsThePlan()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        const QString up = local("changes");
        makeTree(up);
        CLI_OK(nbcli({ "sync", up, ":/c" }));
        QVERIFY(writeFile(up + "/docs/part0/note 0.txt", "changed"));
        QVERIFY(QFile::rename(up + "/big.bin", up + "/docs/renamed.bin"));
        QVERIFY(QFile::remove(up + "/docs/part1/note 1.txt"));
        QVERIFY(writeFile(up + "/new/added.txt", "added"));
        QVERIFY(writeFile(up + "/cache/skip2.o", "left out"));
        QVERIFY(writeFile(up + "/drop.tmp", "left out"));
        const QStringList filters { "--exclude", "cache/", "--exclude", "*.tmp" };
        const CliRun plan = nbcli(
            QStringList { "sync", "--json", "--delete", "--dry-run" } + filters + QStringList { up, ":/c" });
        CLI_OK(plan);
        const QSet<QString> expected { "put /c/docs/part0/note 0.txt ", "move /c/docs/renamed.bin /c/big.bin",
            "delete /c/docs/part1/note 1.txt ", "mkdir /c/new ", "put /c/new/added.txt " };
        QCOMPARE(actions(plan), expected);
        QVERIFY(nbcli({ "stat", "/c/big.bin" }).exit == 0); // nothing changed yet
        const int before = emu.requests().size();
        const CliRun run
            = nbcli(QStringList { "sync", "--json", "--delete" } + filters + QStringList { up, ":/c" });
        CLI_OK(run);
        QCOMPARE(actions(run), expected);
        QCOMPARE(uploads(emu.requests().mid(before)), 2); // the changed file and the new one, whole
        // What was left out stays on the server, and is not fetched back.
        QCOMPARE(nbcli({ "stat", "/c/cache/skip.o" }).exit, 0);
        QCOMPARE(nbcli({ "stat", "/c/cache/skip2.o" }).exit, 2);

        // Back down, into a folder with changes of its own: the server's side wins.
        const QString down = local("changes-down");
        CLI_OK(nbcli({ "sync", ":/c", down }));
        QVERIFY(writeFile(down + "/docs/part0/note 0.txt", "edited here"));
        QVERIFY(writeFile(down + "/stray.txt", "only here"));
        CLI_OK(nbcli({ "put", up + "/new/added.txt", "/c/new/second.txt" }));
        const CliRun downPlan = nbcli({ "sync", "--json", "--delete", "--dry-run", ":/c", down });
        const CliRun downRun = nbcli({ "sync", "--json", "--delete", ":/c", down });
        CLI_OK(downRun);
        QCOMPARE(actions(downRun), actions(downPlan));
        QCOMPARE(actions(downRun),
            (QSet<QString> {
                "get /c/docs/part0/note 0.txt ", "delete /c/stray.txt ", "get /c/new/second.txt " }));
        QCOMPARE(readFile(down + "/docs/part0/note 0.txt"), QByteArray("changed"));
        QVERIFY(!QFileInfo::exists(down + "/stray.txt"));
    }

    // From the server, the tree comes from the change feed: the whole state the first time,
    // then only what changed (additions, a change, a folder moved within, one moved in from
    // outside with what it holds, a file moved out, a deletion); a full read again when the
    // server no longer knows the cursor, and a listing where it offers no feed.
    void syncDownReadsTheChangeFeed()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        const QString up = local("feed-up");
        makeTree(up);
        CLI_OK(nbcli({ "sync", up, ":/f" }));
        CLI_OK(nbcli({ "mkdir", "-p", "/elsewhere/inner/deeper" }));
        CLI_OK(nbcli({ "put", "-", "/elsewhere/inner/deeper/deep.txt" }, "deep"));

        const QString down = local("feed-down");
        int before = emu.requests().size();
        CliRun run = nbcli({ "sync", ":/f", down });
        CLI_OK(run);
        QVERIFY2(run.err.contains("first sync of /f into "), qPrintable(run.err));
        QCOMPARE(treeOf(down), treeOf(up));
        QCOMPARE(countRequests(emu.requests().mid(before), "POST", { "/v2/delta/databox/f" }), 1);
        QCOMPARE(countRequests(emu.requests().mid(before), "POST", { "/v2/metadata" })
                + countRequests(emu.requests().mid(before), "GET", { "/v2/metadata" }),
            1); // the folder itself, no listing

        CLI_OK(nbcli({ "put", "-", "/f/new.txt" }, "new"));
        CLI_OK(nbcli({ "put", "-", "/f/docs/part0/note 0.txt" }, "changed"));
        CLI_OK(nbcli({ "mv", "/f/docs/part1", "/f/moved1" }));
        CLI_OK(nbcli({ "rm", "/f/big.bin" }));
        CLI_OK(nbcli({ "mv", "/elsewhere/inner", "/f/inner" }));
        CLI_OK(nbcli({ "mv", "/f/docs/part2/note 2.txt", "/elsewhere/note 2.txt" }));
        before = emu.requests().size();
        run = nbcli({ "sync", "--delete", ":/f", down });
        CLI_OK(run);
        QVERIFY2(run.err.contains("changes of /f read from the change feed"), qPrintable(run.err));
        const QList<QJsonObject> second = emu.requests().mid(before);
        QCOMPARE(countRequests(second, "POST", { "/v2/delta/databox/f" }), 1);
        // The folder itself, and the two folders moved in, listed: nothing else.
        QCOMPARE(countRequests(second, "POST", { "/v2/metadata" })
                + countRequests(second, "GET", { "/v2/metadata" }),
            3);
        QCOMPARE(downloads(second), 3); // new.txt, note 0.txt, deep.txt
        // A first sync into a new folder reads the whole state: the same tree.
        CLI_OK(nbcli({ "sync", ":/f", local("feed-fresh") }));
        QMap<QString, QByteArray> expected = treeOf(local("feed-fresh"));
        QCOMPARE(treeOf(down), expected);
        QVERIFY(expected.contains("inner/deeper/deep.txt") && expected.contains("moved1/note 1.txt")
            && !expected.contains("big.bin") && !expected.contains("docs/part2/note 2.txt"));
        QCOMPARE(expected.value("docs/part0/note 0.txt"), QByteArray("changed"));

        // A cursor the server does not know: the whole state again, and still the same tree.
        const QString kept
            = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) + "/nbcli/sync";
        for (const QFileInfo& file : QDir(kept).entryInfoList({ "*.json" }, QDir::Files)) {
            QVERIFY(!(file.permissions() & (QFileDevice::ReadOther | QFileDevice::ReadGroup)));
            const QString text
                = QString::fromUtf8(readFile(file.filePath()))
                      .replace(QRegularExpression("\"cursor\":\"[^\"]*\""), "\"cursor\":\"unknown\"");
            QVERIFY(writeFile(file.filePath(), text.toUtf8()));
        }
        QVERIFY(writeFile(down + "/stray.txt", "only here"));
        run = nbcli({ "sync", "--delete", ":/f", down });
        CLI_OK(run);
        QVERIFY2(run.err.contains("no longer knows where the last sync of /f stopped"), qPrintable(run.err));
        QCOMPARE(treeOf(down), expected);

        // A server without the feed: listed, and said so.
        EmuProcess plain({ "--user", "alice:secret", "--fault", "^/v2/delta/:status=404" });
        QVERIFY(signIn(plain));
        CLI_OK(nbcli({ "sync", up, ":/f" }));
        run = nbcli({ "sync", ":/f", local("feed-plain") });
        CLI_OK(run);
        QVERIFY2(run.err.contains("offers no change feed for /f"), qPrintable(run.err));
        QCOMPARE(treeOf(local("feed-plain")), treeOf(up));
    }

    // What the patterns leave out is neither deleted with its folder nor hidden under a
    // folder made over it; an included folder takes what it holds, and no other folder is made.
    void patternsNeverDeleteWhatTheyLeaveOut()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        CLI_OK(nbcli({ "mkdir", "-p", "/pp/sub" }));
        CLI_OK(nbcli({ "put", "-", "/pp/sub/keep.txt" }, "keep"));
        CLI_OK(nbcli({ "put", "-", "/pp/sub/k.c" }, "k"));
        QVERIFY(writeFile(local("push/a.c"), "a"));
        CliRun run = nbcli({ "sync", "--json", "--delete", "--exclude", "keep.txt", local("push"), ":/pp" });
        CLI_OK(run);
        QCOMPARE(actions(run), (QSet<QString> { "put /pp/a.c ", "delete /pp/sub/k.c " }));
        QCOMPARE(nbcli({ "stat", "/pp/sub/keep.txt" }).exit, 0);
        // Down, with an --include, the same.
        QVERIFY(writeFile(local("pull/sub/keep.txt"), "keep"));
        QVERIFY(writeFile(local("pull/sub/old.c"), "old"));
        run = nbcli({ "sync", "--json", "--delete", "--include", "*.c", ":/pp", local("pull") });
        CLI_OK(run);
        QCOMPARE(actions(run), (QSet<QString> { "get /pp/a.c ", "delete /pp/sub/old.c " }));
        QCOMPARE(readFile(local("pull/sub/keep.txt")), QByteArray("keep"));

        QVERIFY(writeFile(local("inc/subX/deeper/in.txt"), "in"));
        QVERIFY(writeFile(local("inc/other/out.txt"), "out"));
        QVERIFY(QDir().mkpath(local("inc/empty")));
        run = nbcli({ "sync", "--json", "--include", "subX/", local("inc"), ":/inc" });
        CLI_OK(run);
        QCOMPARE(actions(run),
            (QSet<QString> { "mkdir /inc ", "mkdir /inc/subX ", "mkdir /inc/subX/deeper ",
                "put /inc/subX/deeper/in.txt " }));
        QVERIFY2(run.err.contains(": 1 file to send, 0 moved, 0 deleted, 3 folders made, 0 unchanged"),
            qPrintable(run.err));

        // A folder to make where the server has a file the patterns leave out: refused, not "made".
        QVERIFY(writeFile(local("r1/X/y"), "y"));
        CLI_OK(nbcli({ "mkdir", "/r1" }));
        CLI_OK(nbcli({ "put", "-", "/r1/X" }, "file"));
        run = nbcli({ "sync", "--json", "--delete", "--include", "X/", local("r1"), ":/r1" });
        QCOMPARE(run.exit, 2);
        QVERIFY2(run.err.contains("left as it is"), qPrintable(run.err));
        QCOMPARE(nbcli({ "stat", "--json", "/r1/X" }).results().at(0).toObject().value("type").toString(),
            QString("file"));
    }

    void typeConflictsNeedDelete()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        QVERIFY(writeFile(local("conflict/x/inner.txt"), "inner"));
        CLI_OK(nbcli({ "mkdir", "-p", "/k" }));
        CLI_OK(nbcli({ "put", local("conflict/x/inner.txt"), "/k/x" })); // a file where a folder goes
        // Refused, with all the folder holds: nothing is sent into it, and the dry run says the same.
        QCOMPARE(nbcli({ "sync", "--dry-run", local("conflict"), ":/k" }).exit, 2);
        const int before = emu.requests().size();
        CliRun run = nbcli({ "sync", local("conflict"), ":/k" });
        QCOMPARE(run.exit, 2);
        QVERIFY2(run.err.contains("sync --delete replaces it"), qPrintable(run.err));
        QCOMPARE(uploads(emu.requests().mid(before)), 0);
        CLI_OK(nbcli({ "sync", "--delete", local("conflict"), ":/k" }));
        QCOMPARE(nbcli({ "stat", "/k/x/inner.txt" }).exit, 0);
        // Usage: one side, and only one, is remote.
        QCOMPARE(nbcli({ "sync", local("conflict"), local("other") }).exit, 1);
        QCOMPARE(nbcli({ "sync", ":/k", ":/l" }).exit, 1);
        QCOMPARE(nbcli({ "sync", "--exclude", "/", local("conflict"), ":/k" }).exit, 1);
    }

    // Several files at once and the ranges of one in parallel, through resets and errors,
    // to a file and to standard output: every byte where it belongs.
    void parallelTransfersAreByteExactUnderFaults()
    {
        EmuProcess emu({ "--user", "alice:secret", "--fault-seed", "11" });
        QVERIFY(signIn(emu));
        const QByteArray big = randomBytes(30 << 20, 5);
        QVERIFY(writeFile(local("par/big.bin"), big));
        for (int i = 0; i < 20; ++i)
            QVERIFY(writeFile(local("par/small/%1.txt").arg(i), randomBytes(1000 + i, quint32(i))));
        emu.control("POST", "/__emu/faults", { { "rule", "^/v2/files/databox:status=503@0.2" } });
        CLI_OK(nbcli({ "put", "--transfers", "6", "--retries", "8", local("par"), "/par" }));
        emu.control("POST", "/__emu/faults", { { "clear", "true" } });
        emu.control("POST", "/__emu/faults", { { "rule", "^/v2/dl_router/:reset=100000@0.3" } });
        emu.control("POST", "/__emu/faults", { { "rule", "^/v2/dl_router/:status=500@0.1" } });
        CLI_OK(nbcli({ "get", "-j", "8", "--retries", "8", "/par", local("par-back") }));
        QCOMPARE(treeOf(local("par-back")), treeOf(local("par")));
        const CliRun streamed = nbcli({ "get", "-j", "8", "--retries", "8", "/par/big.bin", "-" });
        CLI_OK(streamed);
        QVERIFY(streamed.out.toLatin1().size() > 0);
        emu.control("POST", "/__emu/faults", { { "clear", "true" } });
        // A rate limit slows, it does not change a byte; so does one file at a time.
        CLI_OK(
            nbcli({ "get", "--bwlimit", "40M", "--transfers", "1", "/par/big.bin", local("limited.bin") }));
        QVERIFY(readFile(local("limited.bin")) == big);
        QCOMPARE(nbcli({ "get", "--bwlimit", "fast", "/par/big.bin", local("x") }).exit, 1);
    }

    void olderRevisions()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        QVERIFY(writeFile(local("rev.txt"), "first"));
        CLI_OK(nbcli({ "put", local("rev.txt"), "/rev.txt" }));
        QVERIFY(writeFile(local("rev.txt"), "second, longer"));
        CLI_OK(nbcli({ "put", local("rev.txt"), "/rev.txt" }));
        CLI_OK(nbcli({ "get", "--rev", "1", "/rev.txt", local("rev1.txt") }));
        QCOMPARE(readFile(local("rev1.txt")), QByteArray("first"));
        CLI_OK(nbcli({ "get", "/rev.txt", local("rev2.txt") }));
        QCOMPARE(readFile(local("rev2.txt")), QByteArray("second, longer"));
        const CliRun missing = nbcli({ "get", "--rev", "9", "/rev.txt", local("rev9.txt") });
        QCOMPARE(missing.exit, 2);
        QVERIFY2(missing.err.contains("has no revision 9"), qPrintable(missing.err));
    }
};

NB_TEST_MAIN(TestNbcliSync)
#include "tst_nbclisync.moc"
