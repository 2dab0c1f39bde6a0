// nbcli's pure parts in process: remote paths, where sources land, option values, how a
// reply is read into an exit status and whether it is retried, the chunk hashes against
// the emulator's own, the commands a mistyped verb may have meant, and the completions
// and manual written from the command table.
#include "ChunkHasher.h"
#include "Cli.h"
#include "Completion.h"
#include "Drive.h"
#include "ManPage.h"
#include "Options.h"
#include "PathFilter.h"
#include "Placement.h"
#include "RemotePath.h"
#include "RequestRunner.h"
#include "TestData.h"
#include "TestMain.h"

#include <QDir>
#include <QJsonDocument>
#include <QTemporaryDir>

namespace {

Reply replyOf(
    int status, int networkError, const QString& errorString = QString(), const QString& body = QString())
{
    Reply reply;
    reply.data.statusCode = status;
    reply.data.networkError = networkError;
    reply.data.errorString = errorString;
    reply.data.body = body;
    reply.json = QJsonDocument::fromJson(body.toUtf8()).object();
    return reply;
}

// A remote tree for completion: "/" holds a.txt, docs/ and dots/, "/docs/" holds "my file"
// (or, in the space "self", "mine").
QStringList listed(const QStringList& globals, const QString& folder)
{
    if (folder == "/")
        return { "a.txt", "docs/", "dots/", "line\nbreak" };
    if (folder == "/docs/")
        return { globals.contains("--space=self") ? "mine" : "my file" };
    return {};
}

} // namespace

class TestNbcliCore : public QObject
{
    Q_OBJECT

private slots:
    void remotePaths_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("normal");
        QTest::addColumn<QString>("parent");
        QTest::addColumn<QString>("name");
        QTest::newRow("root") << "/"
                              << "/"
                              << "/"
                              << "";
        QTest::newRow("empty") << ""
                               << "/"
                               << "/"
                               << "";
        QTest::newRow("relative") << "a/b"
                                  << "/a/b"
                                  << "/a"
                                  << "b";
        QTest::newRow("doubled slashes, trailing one") << "//a///b/"
                                                       << "/a/b"
                                                       << "/a"
                                                       << "b";
        QTest::newRow("special characters") << "/a?/b%41#"
                                            << "/a?/b%41#"
                                            << "/a?"
                                            << "b%41#";
    }

    void remotePaths()
    {
        QFETCH(QString, path);
        QFETCH(QString, normal);
        QFETCH(QString, parent);
        QFETCH(QString, name);
        QCOMPARE(RemotePath::normalise(path), normal);
        QCOMPARE(RemotePath::parent(path), parent);
        QCOMPARE(RemotePath::name(path), name);
    }

    void localNames_data()
    {
        QTest::addColumn<QString>("local");
        QTest::addColumn<QString>("name");
        QTest::newRow("plain") << "tree"
                               << "tree";
        QTest::newRow("./x") << "./tree"
                             << "tree";
        QTest::newRow("x/") << "tree/"
                            << "tree";
        QTest::newRow("x/.") << "tree/."
                             << "tree";
        QTest::newRow("../x") << "../tree"
                              << "tree";
        QTest::newRow("a/../x") << "a/../tree"
                                << "tree";
        QTest::newRow("absolute") << "/srv/data/tree"
                                  << "tree";
        QTest::newRow("the root") << "/"
                                  << "";
    }

    void localNames()
    {
        QFETCH(QString, local);
        QFETCH(QString, name);
        QCOMPARE(Placement::localName(local), name);
    }

    void theCurrentFolderAndSymlinksAreNamedAsGiven()
    {
        QTemporaryDir dir;
        QDir(dir.path()).mkpath("real/inner");
        QVERIFY(QFile::link(dir.filePath("real"), dir.filePath("alias")));
        const QString before = QDir::currentPath();
        QDir::setCurrent(dir.filePath("real/inner"));
        QCOMPARE(Placement::localName("."), QString("inner"));
        QCOMPARE(Placement::localName(".."), QString("real"));
        QDir::setCurrent(before);
        QCOMPARE(Placement::localName(dir.filePath("alias")), QString("alias"));
        QCOMPARE(Placement::localName(dir.filePath("alias/")), QString("alias"));
    }

    void placement_data()
    {
        QTest::addColumn<int>("sources");
        QTest::addColumn<QString>("target");
        QTest::addColumn<bool>("targetIsFolder");
        QTest::addColumn<QString>("local");
        QTest::addColumn<QString>("remote");
        QTest::newRow("a new name") << 1 << "/backup/tree" << false << "tree"
                                    << "/backup/tree";
        QTest::newRow("ends in /") << 1 << "/backup/" << false << "./tree"
                                   << "/backup/tree";
        QTest::newRow("an existing folder") << 1 << "/backup" << true << "tree/"
                                            << "/backup/tree";
        QTest::newRow("several sources") << 2 << "/backup" << false << "../x/tree"
                                         << "/backup/tree";
        QTest::newRow("a file onto a file") << 1 << "/a.txt" << false << "b.txt"
                                            << "/a.txt";
    }

    void placement()
    {
        QFETCH(int, sources);
        QFETCH(QString, target);
        QFETCH(bool, targetIsFolder);
        QFETCH(QString, local);
        QFETCH(QString, remote);
        const bool into = Placement::intoFolder(sources, target, targetIsFolder);
        QCOMPARE(Placement::remoteFor(target, local, into), remote);
        QCOMPARE(Placement::localFor(QStringLiteral("out"), QStringLiteral("tree"), into),
            into ? QString("out/tree") : QString("out"));
    }

    void optionValues_data()
    {
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("taken");
        QTest::newRow("count 1") << int(OptionSpec::Count) << "1" << true;
        QTest::newRow("count 0") << int(OptionSpec::Count) << "0" << false;
        QTest::newRow("count from zero 0") << int(OptionSpec::CountFromZero) << "0" << true;
        QTest::newRow("count negative") << int(OptionSpec::CountFromZero) << "-1" << false;
        QTest::newRow("count decimal") << int(OptionSpec::Count) << "1.5" << false;
        QTest::newRow("count with a unit") << int(OptionSpec::Count) << "10s" << false;
        QTest::newRow("count with a space") << int(OptionSpec::Count) << " 3" << false;
        QTest::newRow("duration decimal") << int(OptionSpec::Duration) << "0.25" << true;
        QTest::newRow("duration whole") << int(OptionSpec::Duration) << "120" << true;
        QTest::newRow("duration zero") << int(OptionSpec::Duration) << "0" << false;
        QTest::newRow("duration negative") << int(OptionSpec::Duration) << "-1" << false;
        QTest::newRow("duration word") << int(OptionSpec::Duration) << "soon" << false;
        QTest::newRow("duration exponent") << int(OptionSpec::Duration) << "1e3" << false;
        QTest::newRow("rate bytes") << int(OptionSpec::Rate) << "1000" << true;
        QTest::newRow("rate unit") << int(OptionSpec::Rate) << "2.5M" << true;
        QTest::newRow("rate none") << int(OptionSpec::Rate) << "0" << true;
        QTest::newRow("rate word") << int(OptionSpec::Rate) << "fast" << false;
        QTest::newRow("rate two units") << int(OptionSpec::Rate) << "1MB" << false;
    }

    void optionValues()
    {
        QFETCH(int, kind);
        QFETCH(QString, text);
        QFETCH(bool, taken);
        const OptionSpec option = OptionSpec::value({ "x" }, "x", "X", OptionSpec::Kind(kind));
        bool threw = false;
        try {
            option.check(text, QStringLiteral("--x"));
        } catch (const Failure& failure) {
            threw = true;
            QCOMPARE(failure.exit, Exit::Usage);
            QVERIFY(failure.message.startsWith("--x takes "));
        }
        QCOMPARE(!threw, taken);
        QCOMPARE(Options::durationMs("0.25").value_or(0), 250);
        QCOMPARE(Options::count("64", 1, 64).value_or(0), 64);
        QVERIFY(!Options::count("65", 1, 64));
        QCOMPARE(Options::rate("2.5M").value_or(0), qint64(2.5 * 1024 * 1024));
        QCOMPARE(Options::rate("1g").value_or(0), qint64(1) << 30);
        QCOMPARE(Options::rate("512").value_or(0), qint64(512));
    }

    // Each pattern as .gitignore reads it: paths relative to the synced folder.
    void filterPatterns_data()
    {
        QTest::addColumn<QStringList>("rules"); // "+PATTERN" includes, "-PATTERN" excludes
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("folder");
        QTest::addColumn<QString>("verdict"); // taken, looked into or left
        const auto row = [](const char* name, QStringList rules, QString path, bool folder, QString verdict) {
            QTest::newRow(name) << rules << path << folder << verdict;
        };
        row("no rule", {}, "a/b.txt", false, "taken");
        row("name at any depth", { "-*.o" }, "src/deep/x.o", false, "left");
        row("star stays in a name", { "-*.o" }, "src/x.o.txt", false, "taken");
        row("anchored", { "-/build" }, "build", true, "left");
        row("anchored, not below", { "-/build" }, "src/build", true, "taken");
        row("with a slash inside", { "-docs/*.pdf" }, "docs/a.pdf", false, "left");
        row("with a slash, not deeper", { "-docs/*.pdf" }, "docs/x/a.pdf", false, "taken");
        row("below an excluded folder", { "-cache/" }, "cache/x/y.bin", false, "left");
        row("folders only", { "-cache/" }, "cache", false, "taken");
        row("double star", { "-**/tmp/**" }, "a/b/tmp/c/d", false, "left");
        row("double star in the middle", { "-a/**/z" }, "a/z", false, "left");
        row("question mark", { "-?.txt" }, "ab.txt", false, "taken");
        row("set", { "-[ab].txt" }, "b.txt", false, "left");
        row("negated set", { "-[!ab].txt" }, "b.txt", false, "taken");
        row("last match decides", { "-*.log", "+keep.log" }, "x/keep.log", false, "taken");
        row("first include: only included files", { "+*.txt" }, "x/a.bin", false, "left");
        row("first include: folders looked into", { "+*.txt" }, "x", true, "looked into");
        row("first include: included", { "+*.txt" }, "x/a.txt", false, "taken");
        row("an included folder takes what it holds", { "+subX/" }, "subX/a/b.txt", false, "taken");
        row("an included folder", { "+subX/" }, "subX", true, "taken");
        row("an anchored included folder", { "+/subX" }, "subX/y", false, "taken");
        row("first include: another folder", { "+subX/" }, "other", true, "looked into");
        row("first include: a file in another folder", { "+subX/" }, "other/a.txt", false, "left");
        row("excluded inside an included folder", { "+docs/", "-docs/tmp/" }, "docs/tmp/x", false, "left");
        row("special characters are plain", { "-a+b (1).txt" }, "a+b (1).txt", false, "left");
    }

    void filterPatterns()
    {
        QFETCH(QStringList, rules);
        QFETCH(QString, path);
        QFETCH(bool, folder);
        QFETCH(QString, verdict);
        PathFilter filter;
        QString error;
        for (const QString& rule : rules)
            QVERIFY(filter.add(rule.mid(1), rule.startsWith('+'), &error));
        const PathFilter::Verdict found = filter.of(path, folder);
        QCOMPARE(found == PathFilter::Verdict::Taken       ? QString("taken")
                : found == PathFilter::Verdict::LookedInto ? QString("looked into")
                                                           : QString("left"),
            verdict);
        QVERIFY(!filter.add("/", false, &error));
        QVERIFY(!error.isEmpty());
    }

    void choices()
    {
        const OptionSpec option = OptionSpec::choice({ "tfa" }, "t", "M", { "otp", "sms", "qr" });
        option.check("sms", "--tfa");
        QVERIFY_EXCEPTION_THROWN(option.check("pigeon", "--tfa"), Failure);
    }

    // Whether a reply may succeed later decides both the retry and the exit status.
    void repliesAndTheirStatus_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("networkError");
        QTest::addColumn<QString>("errorString");
        QTest::addColumn<QString>("body");
        QTest::addColumn<bool>("retried");
        QTest::addColumn<int>("exit");
        QTest::addColumn<QString>("says");
        const QString locked
            = R"({"code":"file is locked","message":"/a is locked by bob until x","lock_owner":"bob","msgcode":"E423","state":423,"type":"error"})";
        QTest::newRow("refused connection") << 0 << 1 << "Connection refused"
                                            << "" << true << 3 << "cannot reach the server";
        QTest::newRow("closed connection") << 0 << 2 << "Connection closed"
                                           << "" << true << 3 << "the server closed the connection";
        QTest::newRow("host not found") << 0 << 3 << "Host x not found"
                                        << "" << false << 3 << "cannot find the server's host";
        QTest::newRow("the library's time-out") << 0 << 4 << "TimeOut"
                                                << "" << true << 3 << "time-out";
        QTest::newRow("untrusted certificate") << 0 << 6 << "The certificate is self-signed"
                                               << "" << false << 1 << "--cacert";
        QTest::newRow("plain HTTP spoken") << 0 << 6 << "error:0A00010B:SSL routines::wrong version number"
                                           << "" << false << 1 << "plain HTTP";
        QTest::newRow("cancelled") << 0 << 5 << "Operation canceled"
                                   << "" << false << 130 << "cancelled";
        QTest::newRow("503") << 503 << 201 << ""
                             << R"({"code":"busy"})" << true << 3 << "try again later";
        QTest::newRow("429") << 429 << 299 << ""
                             << "" << true << 3 << "try again later";
        QTest::newRow("501") << 501 << 299 << ""
                             << R"({"code":"not emulated"})" << false << 2 << "not emulated";
        QTest::newRow("404") << 404 << 203 << ""
                             << R"({"code":"file/folder not found"})" << false << 2
                             << "file/folder not found";
        QTest::newRow("423") << 423 << 299 << "" << locked << false << 2 << "ask bob to unlock it";
        QTest::newRow("a local file") << 11 << 11 << "cannot open"
                                      << "" << false << 4 << "cannot open";
    }

    void repliesAndTheirStatus()
    {
        QFETCH(int, status);
        QFETCH(int, networkError);
        QFETCH(QString, errorString);
        QFETCH(QString, body);
        QFETCH(bool, retried);
        QFETCH(int, exit);
        QFETCH(QString, says);
        const Reply reply = replyOf(status, networkError, errorString, body);
        QCOMPARE(RequestRunner::worthRetry(reply.data), retried);
        const Failure failure = RequestRunner::failureOf(QStringLiteral("stat /a"), reply);
        QCOMPARE(int(failure.exit), exit);
        QVERIFY2(failure.message.startsWith("stat /a: ") && failure.message.contains(says),
            qPrintable(failure.message));
        QVERIFY(!failure.code.isEmpty());
    }

    void retryDelays()
    {
        ResponseData limited;
        limited.statusCode = 429;
        limited.headers.insert("Retry-After", "3");
        QCOMPARE(RequestRunner::retryDelay(limited, 1), 3000);
        limited.headers.insert("Retry-After", "3600");
        QCOMPARE(RequestRunner::retryDelay(limited, 1), 60000);
        ResponseData refused;
        refused.networkError = 1;
        const int first = RequestRunner::retryDelay(refused, 1);
        const int later = RequestRunner::retryDelay(refused, 5);
        QVERIFY(first >= 250 && first <= 250 + 63);
        QVERIFY(later >= 4000 && later <= 8000 + 2001);
        QCOMPARE(RequestRunner::reasonOf(refused), QString("connection refused"));
    }

    // The file hash nbcli computes is the one the emulator stores, chunk by chunk and as a stream.
    void hashesMatchTheEmulators_data()
    {
        QTest::addColumn<int>("size");
        QTest::newRow("empty") << 0;
        QTest::newRow("one byte") << 1;
        QTest::newRow("one chunk exactly") << int(ChunkHasher::DefaultChunkSize);
        QTest::newRow("a chunk and a byte") << int(ChunkHasher::DefaultChunkSize) + 1;
        QTest::newRow("three chunks") << int(ChunkHasher::DefaultChunkSize) * 2 + 12345;
    }

    void hashesMatchTheEmulators()
    {
        QFETCH(int, size);
        const QByteArray content = randomBytes(size, 9);
        QStringList hashes;
        QList<ChunkRef> refs;
        for (qint64 at = 0; at < size; at += ChunkHasher::DefaultChunkSize) {
            const QByteArray chunk = content.mid(int(at), int(ChunkHasher::DefaultChunkSize));
            hashes << ChunkHasher::chunkHash(chunk);
            refs << ChunkRef { hashes.last().toLatin1(), chunk.size() };
        }
        const QString expected = Drive::contentHash(refs);
        QCOMPARE(ChunkHasher::fileHash(hashes), expected);
        // As a stream, in pieces that do not meet the chunks' edges.
        StreamHash stream;
        for (int at = 0; at < size; at += 1000003)
            stream.add(content.constData() + at, qMin(1000003, size - at));
        QCOMPARE(stream.result(), expected);
        // And through the hasher's worker threads.
        QTemporaryDir dir;
        const QString path = writeFile(dir.filePath("f.bin"), content);
        QStringList threaded;
        bool ended = false;
        ChunkHasher hasher(
            path, [&](const ChunkHasher::Chunk& chunk) { threaded << chunk.hash; },
            [&](const QString&) { ended = true; });
        hasher.start();
        QTRY_VERIFY_WITH_TIMEOUT(ended, 30000);
        QCOMPARE(ChunkHasher::fileHash(threaded), expected);
    }

    void chunkSizes()
    {
        QCOMPARE(ChunkHasher::chunkSizeOf(0), ChunkHasher::DefaultChunkSize);
        QCOMPARE(ChunkHasher::chunkSizeOf(1 << 20), qint64(1 << 20));
        QCOMPARE(ChunkHasher::chunkCount(0), 0);
        QCOMPARE(ChunkHasher::chunkCount(ChunkHasher::DefaultChunkSize + 1), 2);
    }

    void mistypedCommands_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QStringList>("meant");
        QTest::newRow("a letter more") << "lss" << QStringList { "ls" };
        QTest::newRow("letters swapped") << "sahre" << QStringList { "share" };
        QTest::newRow("a prefix") << "rev" << QStringList { "revisions" };
        QTest::newRow("nothing near") << "frobnicate" << QStringList();
    }

    void mistypedCommands()
    {
        QFETCH(QString, typed);
        QFETCH(QStringList, meant);
        QCOMPARE(Cli::nearest(typed), meant);
    }

    void completions_data()
    {
        QTest::addColumn<QStringList>("words");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("commands") << QStringList { "s" } << QStringList { "stat", "sync", "share" };
        QTest::newRow("after a global option")
            << QStringList { "--quiet", "who" } << QStringList { "whoami" };
        QTest::newRow("after a global value")
            << QStringList { "--retries", "2", "lo" } << QStringList { "login", "logout", "lock" };
        QTest::newRow("help of") << QStringList { "help", "re" } << QStringList { "revisions" };
        QTest::newRow("unknown command") << QStringList { "frob", "" } << QStringList {};
        QTest::newRow("options") << QStringList { "ls", "--lo" } << QStringList { "--long" };
        QTest::newRow("global options")
            << QStringList { "--ver" } << QStringList { "--verbose", "--version" };
        QTest::newRow("choice values")
            << QStringList { "--type", "p" } << QStringList { "private", "public", "private6" };
        QTest::newRow("choice after the command")
            << QStringList { "login", "--tfa", "" } << QStringList { "otp", "sms", "qr" };
        QTest::newRow("value with its option")
            << QStringList { "--type=pri" } << QStringList { "--type=private", "--type=private6" };
        QTest::newRow("command's value with its option")
            << QStringList { "login", "--tfa=s" } << QStringList { "--tfa=sms" };
        QTest::newRow("flag with a value") << QStringList { "--quiet=" } << QStringList {};
        QTest::newRow("file values") << QStringList { "--cacert", "ca" } << QStringList { "@files", "ca" };
        QTest::newRow("free values") << QStringList { "lock", "--time", "" } << QStringList {};
        QTest::newRow("value given with =")
            << QStringList { "--type=1", "rm", "/d" } << QStringList { "/docs/", "/dots/" };
        QTest::newRow("remote") << QStringList { "ls", "/d" } << QStringList { "/docs/", "/dots/" };
        QTest::newRow("remote, no slash") << QStringList { "stat", "a" } << QStringList { "/a.txt" };
        QTest::newRow("remote below")
            << QStringList { "rm", "-r", "/docs/m" } << QStringList { "/docs/my file" };
        QTest::newRow("remote with the run's space")
            << QStringList { "--space=self", "ls", "/docs/" } << QStringList { "/docs/mine" };
        QTest::newRow("put sources") << QStringList { "put", "/tm" } << QStringList { "@files", "/tm" };
        QTest::newRow("put target") << QStringList { "put", "x", "/d" } << QStringList { "/docs/", "/dots/" };
        QTest::newRow("put relative target")
            << QStringList { "put", "x", "y" } << QStringList { "@files", "y" };
        QTest::newRow("get sources") << QStringList { "get", "/a" } << QStringList { "/a.txt" };
        QTest::newRow("get target") << QStringList { "get", "/a.txt", "out" }
                                    << QStringList { "@files", "out" };
        QTest::newRow("get after a value")
            << QStringList { "get", "-j", "4", "/a" } << QStringList { "/a.txt" };
        QTest::newRow("sync remote side")
            << QStringList { "sync", "here", ":/do" } << QStringList { ":/docs/", ":/dots/" };
        QTest::newRow("sync local side")
            << QStringList { "sync", ":/docs", "" } << QStringList { "@files", "" };
        QTest::newRow("words") << QStringList { "share", "" } << QStringList { "get", "put" };
        QTest::newRow("after the word") << QStringList { "share", "get", "" } << QStringList { "@files", "" };
        QTest::newRow("shells") << QStringList { "completion", "" } << QStringList { "bash", "zsh" };
        QTest::newRow("nothing to complete") << QStringList { "raw", "GET", "" } << QStringList {};
        QTest::newRow("no name with a line break")
            << QStringList { "ls", "/" } << QStringList { "/a.txt", "/docs/", "/dots/" };
        QTest::newRow("profile verbs")
            << QStringList { "profile", "" } << QStringList { "list", "show", "remove" };
        QTest::newRow("nothing after list") << QStringList { "profile", "list", "" } << QStringList {};
        QTest::newRow("one name to remove") << QStringList { "profile", "remove", "x", "" } << QStringList {};
        QTest::newRow("after --") << QStringList { "ls", "--", "-" } << QStringList {};
    }

    void completions()
    {
        QFETCH(QStringList, words);
        QFETCH(QStringList, expected);
        QCOMPARE(Completion::candidates(words, &listed), expected);
    }

    void shellWords_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("word");
        QTest::newRow("plain") << "/docs/a"
                               << "/docs/a";
        QTest::newRow("escaped blank") << "/my\\ files/"
                                       << "/my files/";
        QTest::newRow("single quotes") << "'/my files/a\\b"
                                       << "/my files/a\\b";
        QTest::newRow("double quotes") << "\"/a \\\"b\\\" \\x"
                                       << "/a \"b\" \\x";
        QTest::newRow("quotes within") << "/a'b c'd"
                                       << "/ab cd";
        QTest::newRow("a lone backslash at the end") << "/a\\"
                                                     << "/a\\";
    }

    void shellWords()
    {
        QFETCH(QString, typed);
        QFETCH(QString, word);
        QCOMPARE(Completion::unquoted(typed), word);
    }

    // Every command and every option of the table: offered by completion, described by the
    // manual. A command added to the table cannot miss either.
    void completionAndManualFollowTheTable()
    {
        QStringList names;
        for (const Command& command : Cli::commands())
            names << command.name;
        QCOMPARE(Completion::candidates({ "" }, &listed), names << "help");
        const QString manual = ManPage::roff("9.9");
        QVERIFY(manual.startsWith(".TH NBCLI 1 \"\" \"nbcli 9.9\""));
        for (const Command& command : Cli::commands()) {
            const QStringList offered = Completion::candidates({ command.name, "-" }, &listed);
            QVERIFY2(
                manual.contains(QStringLiteral(".SS \"%1 ").arg(command.name)), qPrintable(command.name));
            for (const OptionSpec& option : command.options + Cli::globalOptions()) {
                const QString name = option.names.last();
                const QString written = (name.size() == 1 ? "-" : "--") + name;
                QVERIFY2(offered.contains(written), qPrintable(command.name + " " + written));
                QVERIFY2(manual.contains("\\fB" + ManPage::escaped(written) + "\\fR"), qPrintable(written));
                QVERIFY2(manual.contains(ManPage::escaped(option.description)), qPrintable(written));
            }
            if (!command.words.isEmpty())
                QCOMPARE(Completion::candidates({ command.name, "" }, &listed), command.words);
        }
        // Lines a manual would read as requests are escaped.
        QCOMPARE(ManPage::escaped(".x 'y' a-b \\n"), QString("\\&.x 'y' a\\-b \\en"));
        QCOMPARE(ManPage::escaped("'q"), QString("\\&'q"));
        QVERIFY(!manual.contains("\n.\n"));
        QVERIFY(!Completion::script("bash").isEmpty());
        QVERIFY(Completion::script("zsh").startsWith("#compdef nbcli\n"));
        QVERIFY(Completion::script("fish").isEmpty());
    }

    void everyCommandsHelpShowsItsOptionsFirst()
    {
        for (const Command& command : Cli::commands()) {
            const QString help = Cli::help(command);
            QVERIFY(help.startsWith("Usage: nbcli " + command.name + " "));
            for (const OptionSpec& option : command.options)
                QVERIFY2(help.indexOf(option.synopsis()) < help.indexOf("Global options"),
                    qPrintable(command.name));
        }
    }
};

NB_TEST_MAIN(TestNbcliCore)
#include "tst_nbclicore.moc"
