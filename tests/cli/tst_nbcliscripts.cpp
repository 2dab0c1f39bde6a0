// What a script can rely on from nbcli: one JSON document on standard output for every
// command and every outcome, with the same keys for the same things; silence with -q;
// an exit status per class of failure; option values checked before anything is sent;
// the session only for its own server and never printed; no credential sent empty;
// help, retries and errors that say what happened.
#include "CliProcess.h"
#include "EmuProcess.h"
#include "TestData.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <sys/stat.h>

namespace {

// Every request of the emulator's log whose method is `method` (all with an empty one).
int requestsOf(const EmuProcess& emu, const QString& method = QString())
{
    int count = 0;
    for (const QJsonObject& line : emu.requests())
        count += method.isEmpty() || line.value("method").toString() == method ? 1 : 0;
    return count;
}

} // namespace

class TestNbcliScripts : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    CliProcess m_cli { QStringLiteral(NBCLI_PATH) };

    CliRun nbcli(
        const QStringList& args, const QMap<QString, QString>& env = {}, const QByteArray& input = {})
    {
        return m_cli.run(args, env, input, 180000, m_dir.path());
    }

    bool signIn(EmuProcess& emu, const QString& user = "alice", const QString& password = "secret")
    {
        return nbcli({ "login", "--server", emu.url(), "--user", user }, { { "NB_PASSWORD", password } }).exit
            == 0;
    }

    QString local(const QString& name) const { return m_dir.filePath(name); }

    // A --json run's document: the envelope every command shares, whatever the outcome.
    QJsonObject checkedDocument(const QStringList& args, const CliRun& run)
    {
        const QString label = args.join(' ');
        const QJsonDocument document = QJsonDocument::fromJson(run.out.toUtf8());
        if (!document.isObject()) {
            QTest::qFail(qPrintable("not one JSON document: " + label + "\n" + run.out), __FILE__, __LINE__);
            return {};
        }
        const QJsonObject object = document.object();
        const bool ok = run.exit == 0;
        if (object.value("ok").toBool(!ok) != ok || object.value("exit").toInt(-1) != run.exit
            || !object.value("results").isArray() || object.contains("error") == ok) {
            QTest::qFail(qPrintable("an envelope that does not fit the outcome: " + label + "\n" + run.out),
                __FILE__, __LINE__);
            return {};
        }
        if (!ok) {
            const QJsonObject error = object.value("error").toObject();
            if (error.value("exit").toInt() != run.exit || error.value("code").toString().isEmpty()
                || error.value("message").toString().isEmpty())
                QTest::qFail(qPrintable("an error without code, message or exit: " + label + "\n" + run.out),
                    __FILE__, __LINE__);
        }
        return object;
    }

private slots:
    void init() { m_cli.dirty.clear(); }
    void cleanup()
    {
        QVERIFY2(m_cli.dirty.isEmpty(),
            qPrintable("carriage return or escape in a pipe: " + m_cli.dirty.join(", ")));
    }

    // Every command, succeeding and failing, and the usage errors: one document each.
    void jsonForEveryCommandAndOutcome()
    {
        EmuProcess emu({ "--user", "alice:secret", "--link", "L1:pw:alice:/Shared" });
        writeFile(local("j.txt"), "json");
        const QMap<QString, QString> password { { "NB_PASSWORD", "secret" } };
        const QMap<QString, QString> link { { "NB_SHARE_PASSWORD", "pw" } };
        struct Case
        {
            QStringList args;
            QMap<QString, QString> env;
            int exit;
            QStringList keys; // of the first result
        };
        const QList<Case> cases {
            { { "login", "--server", emu.url(), "--user", "alice" }, { { "NB_PASSWORD", "wrong" } }, 2, {} },
            { { "login", "--server", emu.url(), "--user", "alice" }, password, 0,
                { "ok", "server", "type", "user" } },
            { { "whoami" }, {}, 0, { "user", "server", "type" } },
            { { "mkdir", "/j" }, {}, 0, { "ok", "path" } },
            { { "mkdir", "/j" }, {}, 2, { "ok", "path", "error" } },
            { { "put", local("j.txt"), "/j/" }, {}, 0, { "ok", "path", "local", "bytes", "hash" } },
            { { "put", local("none.txt"), "/j/" }, {}, 4, { "ok", "path", "local", "error" } },
            { { "put", "--dry-run", local("j.txt"), "/k" }, {}, 0,
                { "ok", "path", "local", "bytes", "dry_run" } },
            { { "ls", "/j" }, {}, 0,
                { "path", "name", "type", "bytes", "hash", "rev", "modified", "locked" } },
            { { "ls", "/none" }, {}, 2, {} },
            { { "stat", "/j/j.txt" }, {}, 0, { "path", "name", "type", "bytes", "hash" } },
            { { "get", "/j/j.txt", local("j-back.txt") }, {}, 0, { "ok", "path", "local", "bytes", "hash" } },
            { { "get", "/j/none.txt", local("x.txt") }, {}, 2, { "ok", "path", "error" } },
            { { "revisions", "/j/j.txt" }, {}, 0, { "path", "rev", "bytes", "hash", "modified" } },
            { { "revisions", "/j" }, {}, 1, {} },
            { { "lock", "/j/j.txt" }, {}, 0, { "ok", "path", "locked" } },
            { { "unlock", "/j/j.txt" }, {}, 0, { "ok", "path", "locked" } },
            { { "cp", "/j/j.txt", "/j/k.txt" }, {}, 0, { "ok", "path", "to" } },
            { { "mv", "/j/k.txt", "/j/l.txt" }, {}, 0, { "ok", "path", "to" } },
            { { "rm", "/j/l.txt" }, {}, 0, { "ok", "path" } },
            { { "rm", "/j/l.txt" }, {}, 2, { "ok", "path", "error" } },
            { { "raw", "GET", "/v2/region/get" }, {}, 0, { "status", "headers", "body" } },
            { { "raw", "GET", "/v2/no/such" }, {}, 2, { "ok", "status", "error" } },
            { { "share", "put", local("j.txt"), "L1:/" }, link, 0,
                { "ok", "path", "local", "bytes", "hash" } },
            { { "share", "get", "L1:/j.txt", local("l-back.txt") }, link, 0,
                { "ok", "path", "local", "bytes", "hash" } },
            { { "share", "get", "L1", "/", "x" }, link, 1, {} },
            { { "frobnicate" }, {}, 1, {} },
            { { "ls", "--frobnicate" }, {}, 1, {} },
            { { "put", "-j", "0", local("j.txt"), "/j/" }, {}, 1, {} },
            { { "logout" }, {}, 0, { "ok", "server" } },
            { { "whoami" }, {}, 1, {} },
        };
        for (const Case& c : cases) {
            const QStringList args = QStringList { "--json" } + c.args;
            const CliRun run = nbcli(args, c.env);
            QVERIFY2(run.exit == c.exit,
                qPrintable(QStringLiteral("%1: exit %2\n%3")
                               .arg(args.join(' '), QString::number(run.exit), run.err)));
            const QJsonObject document = checkedDocument(args, run);
            QCOMPARE(document.value("command").toString(), c.args.first());
            const QJsonObject first = document.value("results").toArray().at(0).toObject();
            for (const QString& key : c.keys)
                QVERIFY2(
                    first.contains(key), qPrintable(args.join(' ') + ": no \"" + key + "\" in " + run.out));
            // Human words stay on standard error.
            if (run.exit != 0)
                QVERIFY2(run.err.startsWith("nbcli: "), qPrintable(run.err));
        }
        // watch streams: one object per line.
        QVERIFY(signIn(emu));
        const CliRun watch = nbcli({ "watch", "--once", "--json", "/" });
        CLI_OK(watch);
        const QStringList lines = watch.out.split('\n', Qt::SkipEmptyParts);
        QVERIFY(lines.size() >= 3);
        for (const QString& line : lines) {
            const QJsonObject change = QJsonDocument::fromJson(line.toUtf8()).object();
            QVERIFY2(change.contains("op") && change.contains("path") && change.contains("type"),
                qPrintable(line));
        }
    }

    // -q: no progress, no notes, no confirmation; results still print.
    void quietMeansSilentForActions()
    {
        EmuProcess emu;
        CliRun run = nbcli(
            { "-q", "login", "--server", emu.url(), "--user", "alice" }, { { "NB_PASSWORD", "secret" } });
        CLI_OK(run);
        QCOMPARE(run.out + run.err, QString());
        writeFile(local("q.bin"), randomBytes(6 << 20, 4));
        QDir(m_dir.path()).mkpath("qtree");
        writeFile(local("qtree/a.txt"), "a");
        const QList<QStringList> actions { { "mkdir", "-p", "/q/r" }, { "put", local("q.bin"), "/q/" },
            { "put", local("qtree"), "/q/t" }, { "get", "/q/q.bin", local("q-back.bin") },
            { "get", "/q/t", local("t-back") }, { "cp", "/q/q.bin", "/q/c.bin" },
            { "mv", "/q/c.bin", "/q/d.bin" }, { "rm", "/q/d.bin" }, { "lock", "/q/q.bin" },
            { "unlock", "/q/q.bin" }, { "put", "-", "/q/stdin.txt" }, { "logout" } };
        for (const QStringList& action : actions) {
            run = nbcli(QStringList { "-q" } + action, {}, "stdin");
            CLI_OK(run);
            QVERIFY2(run.out.isEmpty() && run.err.isEmpty(),
                qPrintable(action.join(' ') + ": " + run.out + run.err));
        }
        QVERIFY(signIn(emu));
        QCOMPARE(nbcli({ "-q", "ls", "/q" }).out, QString("r/\nt/\nq.bin\nstdin.txt\n"));
        QVERIFY(nbcli({ "-q", "whoami" }).out.startsWith("alice on "));
        QVERIFY(nbcli({ "-q", "stat", "/q/q.bin" }).out.startsWith("/q/q.bin\n"));
        // Failures are still told.
        run = nbcli({ "-q", "stat", "/none" });
        QCOMPARE(run.exit, 2);
        QVERIFY(run.err.startsWith("nbcli: "));
    }

    void eachClassOfFailureHasItsStatus_data()
    {
        QTest::addColumn<QStringList>("emulator"); // more options of nbemu
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("exit");
        QTest::addColumn<QString>("says");
        QTest::newRow("refused: not found")
            << QStringList() << QStringList { "stat", "/none" } << 2 << "file/folder not found";
        QTest::newRow("a server error after the retries")
            << QStringList { "--fault", "^/v2/metadata:status=503" }
            << QStringList { "--retries", "1", "stat", "/" } << 3 << "try again later";
        QTest::newRow("asked to wait after the retries")
            << QStringList { "--fault", "^/v2/metadata:retry-after=0" }
            << QStringList { "--retries", "1", "stat", "/" } << 3 << "try again later";
        QTest::newRow("a connection cut short") << QStringList { "--fault", "^/v2/metadata:reset=0" }
                                                << QStringList { "--retries", "0", "stat", "/" } << 3 << "";
        QTest::newRow("a stalled request under --timeout")
            << QStringList { "--fault", "^/v2/metadata:stall=60" }
            << QStringList { "--retries", "0", "--timeout", "1", "stat", "/" } << 3 << "time-out";
        QTest::newRow("NB_TIMEOUT too")
            << QStringList { "--fault", "^/v2/metadata:stall=60" }
            << QStringList { "--retries", "0", "stat", "/", "ENV:NB_TIMEOUT=0.5" } << 3 << "time-out";
        QTest::newRow("every entry failed")
            << QStringList() << QStringList { "rm", "/none1", "/none2" } << 2 << "no such file";
        QTest::newRow("a local file")
            << QStringList() << QStringList { "put", "/nonexistent/x", "/x" } << 4 << "no such file";
        QTest::newRow("usage") << QStringList() << QStringList { "mv", "/a" } << 1 << "usage: nbcli mv";
    }

    void eachClassOfFailureHasItsStatus()
    {
        QFETCH(QStringList, emulator);
        QFETCH(QStringList, args);
        QFETCH(int, exit);
        QFETCH(QString, says);
        EmuProcess emu(QStringList { "--user", "alice:secret" } + emulator);
        QVERIFY(signIn(emu));
        QMap<QString, QString> env;
        for (int i = args.size() - 1; i >= 0; --i) {
            if (args[i].startsWith("ENV:")) {
                env.insert(args[i].mid(4).section('=', 0, 0), args[i].section('=', 1));
                args.removeAt(i);
            }
        }
        QElapsedTimer clock;
        clock.start();
        const CliRun run = nbcli(args, env);
        QVERIFY2(run.exit == exit,
            qPrintable(QStringLiteral("exit %1: %2").arg(QString::number(run.exit), run.err)));
        QVERIFY2(run.err.contains(says), qPrintable(run.err));
        QVERIFY(clock.elapsed() < 60000);
    }

    void partialFailureIsFive()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        writeFile(local("p.txt"), "p");
        const CliRun run = nbcli({ "put", local("p.txt"), local("missing.txt"), "/p/" });
        QCOMPARE(run.exit, 5);
        QVERIFY(run.err.contains(local("missing.txt")));
    }

    void optionValuesAreCheckedFirst_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("named");
        QTest::newRow("jobs 0") << QStringList { "put", "-j", "0", "a", "/b" } << "--jobs";
        QTest::newRow("jobs not a number") << QStringList { "get", "-j", "many", "/a", "b" } << "--jobs";
        QTest::newRow("jobs too many") << QStringList { "put", "-j", "65", "a", "/b" } << "--jobs";
        QTest::newRow("retries negative") << QStringList { "ls", "--retries", "-1" } << "--retries";
        QTest::newRow("retries not a number") << QStringList { "ls", "--retries", "x" } << "--retries";
        QTest::newRow("timeout zero") << QStringList { "ls", "--timeout", "0" } << "--timeout";
        QTest::newRow("timeout not a number") << QStringList { "ls", "--timeout", "soon" } << "--timeout";
        QTest::newRow("lock time zero") << QStringList { "lock", "--time", "0", "/a" } << "--time";
        QTest::newRow("revisions limit zero")
            << QStringList { "revisions", "--limit", "0", "/a" } << "--limit";
        QTest::newRow("watch interval negative")
            << QStringList { "watch", "--interval", "-2" } << "--interval";
        QTest::newRow("a type of no list") << QStringList { "ls", "--type", "seven" } << "--type";
        QTest::newRow("a space of no list") << QStringList { "ls", "--space", "mine" } << "--space";
        QTest::newRow("a second factor of no list") << QStringList { "login", "--tfa", "pigeon" } << "--tfa";
        QTest::newRow("an option this run does not use")
            << QStringList { "whoami", "--retries", "lots" } << "--retries";
        QTest::newRow("NB_TIMEOUT") << QStringList { "ls", "ENV:NB_TIMEOUT=fast" } << "NB_TIMEOUT";
    }

    void optionValuesAreCheckedFirst()
    {
        QFETCH(QStringList, args);
        QFETCH(QString, named);
        EmuProcess emu;
        QVERIFY(signIn(emu));
        QMap<QString, QString> env;
        if (args.last().startsWith("ENV:")) {
            const QString pair = args.takeLast().mid(4);
            env.insert(pair.section('=', 0, 0), pair.section('=', 1));
        }
        const int before = requestsOf(emu);
        const CliRun run = nbcli(args, env);
        QCOMPARE(run.exit, 1);
        QVERIFY2(run.err.contains(named), qPrintable(run.err));
        QCOMPARE(requestsOf(emu), before);
    }

    void goodOptionValuesAreTaken()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        CLI_OK(nbcli({ "ls", "--retries", "0", "--timeout", "2.5" }));
        CLI_OK(nbcli({ "ls" }, { { "NB_TIMEOUT", "30" } }));
        CLI_OK(nbcli({ "watch", "--once", "--interval", "0.5" }));
    }

    // The session goes to the server it belongs to, never to another; nothing printed shows it.
    void rawKeepsTheSessionHome()
    {
        EmuProcess emu;
        EmuProcess other;
        QVERIFY(signIn(emu));
        const QString session = storedSignIn().value("session").toString();
        QVERIFY(!session.isEmpty());
        CliRun run = nbcli({ "raw", "GET", other.url("/v2/region/get") });
        QCOMPARE(run.exit, 2); // no session there: refused
        QVERIFY(run.err.contains("not the signed-in server"));
        for (const QJsonObject& line : other.requests())
            QVERIFY2(!line.value("target").toString().contains("X-NIMBRA-SESS-ID"),
                qPrintable(line.value("target").toString()));
        CLI_OK(nbcli({ "raw", "GET", emu.url("/v2/region/get") }));
        QVERIFY(emu.requests().last().value("target").toString().contains("X-NIMBRA-SESS-ID=***"));
        // A reply that carries a session: shown hidden, in text and in JSON.
        for (const QStringList& args :
            { QStringList { "raw", "POST", "/v2/user/login_new", "loginkey=alice", "password=secret" },
                QStringList {
                    "--json", "raw", "POST", "/v2/user/login_new", "loginkey=alice", "password=secret" } }) {
            run = nbcli(args);
            CLI_OK(run);
            QVERIFY(run.out.contains("***("));
            // A session is 32 hexadecimal digits: none is shown.
            QVERIFY2(!run.out.contains(QRegularExpression("[0-9a-f]{32}")), qPrintable(run.out));
            QVERIFY(!(run.out + run.err).contains(session));
        }
    }

    // Nothing is sent without the credentials; a link that needs a password says so.
    void credentialsAreNeverSentEmpty()
    {
        EmuProcess emu({ "--user", "alice:secret", "--link", "L1:pw:alice:/Shared" });
        CliRun run = nbcli({ "login", "--server", emu.url(), "--user", "alice" });
        QCOMPARE(run.exit, 1);
        QVERIFY2(run.err.contains("NB_PASSWORD"), qPrintable(run.err));
        QCOMPARE(requestsOf(emu, "POST"), 0);
        run = nbcli({ "login", "--server", emu.url(), "--user", "alice", "--password-stdin" }, {}, "\n");
        QCOMPARE(run.exit, 1);
        run = nbcli({ "login", "--server", emu.url() }, { { "NB_PASSWORD", "secret" } });
        QCOMPARE(run.exit, 1);
        QVERIFY(run.err.contains("NB_USER"));
        QCOMPARE(requestsOf(emu, "POST"), 0);
        QVERIFY(signIn(emu));
        run = nbcli({ "share", "get", "L1", local("no-password") });
        QCOMPARE(run.exit, 1);
        QVERIFY2(
            run.err.contains("needs a password") && !run.err.contains("wrong password"), qPrintable(run.err));
        QVERIFY(!QFileInfo::exists(local("no-password")));
    }

    // A server that names entries as paths, or sends half a reply, steers nothing.
    void aHostileServerSteersNoFile()
    {
        TestServer server([](const RecordedRequest& request) {
            const QByteArray path = request.path();
            if (path.startsWith("/v2/metadata/databox/X") && request.query().contains("list=true"))
                return ServerReply::ok(
                    R"({"name":"X","path":"/X","is_dir":true,"total":3,"content":[)"
                    R"({"name":"../evil.txt","is_dir":false,"bytes":1},)"
                    R"({"name":"/abs.txt","is_dir":false,"bytes":1},{"name":"..","is_dir":true}]})");
            if (path.startsWith("/v2/metadata/databox/X"))
                return ServerReply::ok(R"({"name":"X","path":"/X","is_dir":true})");
            if (path.startsWith("/v2/metadata/databox/half"))
                return ServerReply::ok(R"({"name":"half","is_dir":false,"bytes":3)");
            return ServerReply::withStatus(404, R"({"code":"file/folder not found"})");
        });
        // A stored sign-in for that server, as login would have written it.
        const QString config = local("hostile-config");
        QDir().mkpath(config + "/nbcli");
        QSaveFile file(config + "/nbcli/session.json");
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(QJsonObject { { "server", server.url("/").chopped(1) }, { "type", 1 },
                                     { "user", "u" }, { "session", "s" } })
                       .toJson());
        QVERIFY(file.commit());
        const QMap<QString, QString> env { { "XDG_CONFIG_HOME", config } };
        QDir(m_dir.path()).mkpath("inside");
        CliRun run = m_cli.run({ "--retries", "0", "get", "/X", "dl" }, env, {}, 60000, local("inside"));
        QCOMPARE(run.exit, 3);
        QVERIFY2(run.err.contains("which is no file name"), qPrintable(run.err));
        QVERIFY(!QFileInfo::exists(local("evil.txt")) && !QFileInfo::exists(local("inside/evil.txt"))
            && !QFileInfo::exists("/abs.txt"));
        QCOMPARE(QDir(local("inside")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
            QStringList());
        run = m_cli.run({ "--retries", "0", "get", "/half", "half.bin" }, env, {}, 60000, local("inside"));
        QCOMPARE(run.exit, 3);
        QVERIFY2(run.err.contains("no whole JSON"), qPrintable(run.err));
        QVERIFY(!QFileInfo::exists(local("inside/half.bin")));
    }

    // What the real command would say, the dry run says too.
    void dryRunsGiveTheRealVerdict()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        CLI_OK(nbcli({ "mkdir", "-p", "/D1/sub" }));
        writeFile(local("one.txt"), "1");
        CLI_OK(nbcli({ "put", local("one.txt"), "/a.txt" }));
        for (const QStringList& args : { QStringList { "mv", "/D1", "/D1/sub" },
                 QStringList { "cp", "/D1", "/D1/sub/" }, QStringList { "put", local("one.txt"), "/a.txt/x" },
                 QStringList { "get", "/a.txt", local("nonexistent/x") },
                 QStringList { "mkdir", "-p", "/a.txt" } }) {
            const CliRun dry = nbcli(QStringList { args.first(), "--dry-run" } + args.mid(1));
            const CliRun real = nbcli(args);
            QVERIFY2(real.exit != 0 && (dry.exit == real.exit || args.first() == "mkdir"),
                qPrintable(QStringLiteral("%1: dry %2, real %3")
                               .arg(args.join(' '), QString::number(dry.exit), QString::number(real.exit))));
        }
    }

    void watchStreamsAndWatchesFoldersOnly()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        CLI_OK(nbcli({ "watch", "--once", "/" }));
        CliRun run = nbcli({ "watch", "--once", "--json", "/" });
        CLI_OK(run);
        QCOMPARE(run.out, QString()); // nothing changed: no line at all
        run = nbcli({ "watch", "--once", "--json", "/none" });
        QCOMPARE(run.exit, 2);
        QCOMPARE(QJsonDocument::fromJson(run.out.toUtf8()).object().value("ok").toBool(true), false);
        writeFile(local("w.txt"), "w");
        CLI_OK(nbcli({ "put", local("w.txt"), "/w.txt" }));
        QCOMPARE(nbcli({ "watch", "--once", "/w.txt" }).exit, 1);
    }

    void oddLocalSources()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        // A folder holding what cannot go: a name that is no UTF-8, a symlink to nothing, a FIFO.
        QDir(m_dir.path()).mkpath("odd");
        writeFile(local("odd/ok.txt"), "ok");
        const QByteArray bad = QFile::encodeName(local("odd")) + "/bad\xff.txt";
        FILE* raw = std::fopen(bad.constData(), "w");
        QVERIFY(raw);
        std::fclose(raw);
        QVERIFY(QFile::link(local("odd/gone"), local("odd/dangling")));
        QCOMPARE(::mkfifo(QFile::encodeName(local("odd/fifo")).constData(), 0600), 0);
        CliRun run = nbcli({ "put", local("odd"), "/odd" });
        QCOMPARE(run.exit, 5);
        QVERIFY2(run.err.contains("bad%FF.txt: the name is no UTF-8 text"), qPrintable(run.err));
        QVERIFY(run.err.contains("dangling: a symlink to nothing"));
        QVERIFY(run.err.contains("fifo: not a regular file"));
        QCOMPARE(nbcli({ "ls", "/odd" }).out, QString("ok.txt\n"));
        // A FIFO named on its own is read as a stream.
        QProcess writer;
        writer.start("sh", { "-c", "printf streamed > \"$0\"", local("odd/fifo") });
        run = nbcli({ "put", local("odd/fifo"), "/from-fifo.txt" });
        CLI_OK(run);
        QVERIFY(writer.waitForFinished(10000));
        QCOMPARE(nbcli({ "get", "/from-fifo.txt", "-" }).out, QString("streamed"));
        // A target spelled as a folder is made.
        CLI_OK(nbcli({ "get", "/odd/ok.txt", local("made/") }));
        QCOMPARE(readFile(local("made/ok.txt")), QByteArray("ok"));
    }

    void smallPromises()
    {
        EmuProcess emu({ "--user", "alice:secret", "--link", "L1:pw:alice:/Shared" });
        // Not signed in is a usage matter: no server refused anything.
        CliRun run = nbcli({ "ls", "--server", emu.url() });
        QCOMPARE(run.exit, 1);
        QVERIFY(signIn(emu));
        // A code is one piece of an address.
        const int before = requestsOf(emu);
        run = nbcli({ "share", "get", "L1/x:/a", "y" }, { { "NB_SHARE_PASSWORD", "pw" } });
        QCOMPARE(run.exit, 1);
        QCOMPARE(requestsOf(emu), before);
        // Help as JSON, under --json.
        run = nbcli({ "ls", "--help", "--json" });
        CLI_OK(run);
        QVERIFY(QJsonDocument::fromJson(run.out.toUtf8())
                    .object()
                    .value("results")
                    .toArray()
                    .at(0)
                    .toObject()
                    .value("help")
                    .toString()
                    .startsWith("Usage: nbcli ls"));
        // raw's text never shows the session, errors included.
        const QString session = storedSignIn().value("session").toString();
        run = nbcli({ "raw", "GET", "/nonexistent" });
        QVERIFY(!(run.out + run.err).contains(session));
        QVERIFY(run.out.contains("***("));
    }

    void helpReadsLikeOtherTools()
    {
        CliRun run = nbcli({ "--help" });
        CLI_OK(run);
        QVERIFY(run.out.contains("  -q, --quiet "));
        QVERIFY(run.out.contains("  -v, --verbose "));
        for (const char* internal : { "--help-all", "Arguments:", "--q,", "--v," })
            QVERIFY2(!run.out.contains(internal), internal);
        QVERIFY(!run.out.contains(QRegularExpression("[^-]-quiet")));
        run = nbcli({ "put", "--help" });
        CLI_OK(run);
        QVERIFY(run.out.indexOf("-j, --jobs N") < run.out.indexOf("Global options"));
        QVERIFY(!run.out.contains("Arguments:"));
        run = nbcli({ "lss" });
        QCOMPARE(run.exit, 1);
        QVERIFY2(run.err.contains("did you mean ls?"), qPrintable(run.err));
        QVERIFY(nbcli({ "remove" }).err.contains("unknown command \"remove\""));
        QVERIFY(nbcli({ "sahre" }).err.contains("did you mean share?"));
    }

    void humanSizesLocksAndSummaries()
    {
        EmuProcess emu({ "--user", "alice:secret", "--user", "bob:pw" });
        QVERIFY(signIn(emu));
        writeFile(local("h.bin"), randomBytes(64 << 20, 5));
        CLI_OK(nbcli({ "put", local("h.bin"), "/h.bin" }));
        // Again: nothing to send, and the summary says so.
        CliRun run = nbcli({ "put", local("h.bin"), "/h2.bin" });
        CLI_OK(run);
        QVERIFY2(run.out.contains("0 B sent: all 16 chunks already on the server"), qPrintable(run.out));
        QVERIFY(!run.out.contains("MiB/s"));
        run = nbcli({ "ls", "-lh", "/" });
        CLI_OK(run);
        QVERIFY2(run.out.contains("64.0 MiB"), qPrintable(run.out));
        CLI_OK(nbcli({ "lock", "/h.bin" }));
        QTemporaryDir bobHome;
        const QMap<QString, QString> bob { { "XDG_CONFIG_HOME", bobHome.path() } };
        CLI_OK(nbcli({ "login", "--server", emu.url(), "--user", "bob" },
            { { "XDG_CONFIG_HOME", bobHome.path() }, { "NB_PASSWORD", "pw" } }));
        run = nbcli({ "ls", "-l", "/" }, bob);
        QVERIFY2(run.out.contains(QRegularExpression(
                     "^L .*h\\.bin \\(locked by alice until ", QRegularExpression::MultilineOption)),
            qPrintable(run.out));
        QVERIFY(nbcli({ "stat", "/h.bin" }, bob).out.contains("locked: by alice until "));
    }

    void retriesAreToldAsTheyHappen()
    {
        EmuProcess emu(
            { "--user", "alice:secret", "--fault", "^/v2/metadata:status=503@0.5", "--fault-seed", "1" });
        QVERIFY(signIn(emu));
        int retried = 0;
        for (int i = 0; i < 6 && retried == 0; ++i) {
            const CliRun run = nbcli({ "ls", "/" });
            retried
                += run.err.count(QRegularExpression("^retrying in \\d+\\.\\d s: HTTP 503, attempt \\d of 6",
                    QRegularExpression::MultilineOption));
        }
        QVERIFY(retried > 0);
    }

    void errorsSayWhatHappened()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        // Plain HTTP on a port given as https://.
        CliRun run = nbcli({ "ls", "--server", QString(emu.url()).replace("http://", "https://") });
        QCOMPARE(run.exit, 1);
        QVERIFY2(run.err.contains("plain HTTP") && !run.err.contains("--insecure"), qPrintable(run.err));
        run = nbcli(
            { "login", "--server", QString(emu.url()).replace("http://", "https://"), "--user", "alice" },
            { { "NB_PASSWORD", "secret" } });
        QCOMPARE(run.exit, 1);
        QVERIFY2(run.err.contains("plain HTTP") && !run.err.contains("--insecure"), qPrintable(run.err));
        QVERIFY(signIn(emu));
        CLI_OK(nbcli({ "mkdir", "/folder" }));
        run = nbcli({ "revisions", "/folder" });
        QCOMPARE(run.exit, 1);
        QVERIFY(run.err.contains("revisions are kept for files"));
        // A server that goes away is not one that cannot be reached.
        emu.control("POST", "/__emu/faults", { { "rule", "^/v2/metadata:reset=0" } });
        run = nbcli({ "--retries", "0", "stat", "/folder" });
        QCOMPARE(run.exit, 3);
        QVERIFY2(run.err.contains("the server closed the connection") && !run.err.contains("cannot reach"),
            qPrintable(run.err));
        run = nbcli({ "logout" });
        CLI_OK(run);
        QVERIFY(run.out.contains("the server has no sign-out"));
    }

    // --cacert given at login (relative, made absolute) and NB_CACERT serve the later runs.
    // The scripts as the shells run them: bash (with bash-completion and without it, under
    // set -u) and zsh, their completion functions called on a command line of `words` as
    // typed (the last one being completed), asking this nbcli.
    QStringList completedBy(const QString& shell, const QStringList& words, bool bashCompletion = true)
    {
        const QString script = local("completion." + shell);
        QFile file(script);
        if (!file.open(QIODevice::WriteOnly) || file.write(nbcli({ "completion", shell }).out.toUtf8()) <= 0)
            return { "(no script)" };
        file.close();
        QProcess process;
        process.setProcessEnvironment(m_cli.environment({}));
        process.setWorkingDirectory(m_dir.path());
        const QStringList line = QStringList { QStringLiteral(NBCLI_PATH) } + words;
        const auto quoted = [](QString text) {
            return " '" + text.replace("'", "'\\''") + "'";
        };
        if (shell == "bash") {
            // COMP_WORDS split as bash splits them: ":" and "=" words of their own.
            QString split;
            for (const QString& word : line) {
                for (const QString& piece : word.split(QRegularExpression("(?=[:=])|(?<=[:=])")))
                    if (!piece.isEmpty() || word.isEmpty())
                        split += quoted(piece);
            }
            const QString code
                = QString(bashCompletion ? "source /usr/share/bash-completion/bash_completion\n"
                                         : "unset -f _get_comp_words_by_ref\n")
                + "set -u\nsource '" + script + "'\nCOMP_LINE=" + quoted(line.join(' ')).mid(1)
                + "; COMP_POINT=${#COMP_LINE}\nCOMP_WORDS=(" + split
                + "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_nbcli nbcli || echo '(failed)'\n"
                  "printf '%s\\n' \"${COMPREPLY[@]}\"\n";
            process.start("bash", { "-c", code });
        } else {
            QString all;
            for (const QString& word : line)
                all += quoted(word);
            const QString code = "compdef() { :; }\n_files() { print -r -- '(files)'; }\n"
                                 "compadd() { while [[ $1 == -* && $1 != -- ]]; do [[ $1 == -S ]] && shift; "
                                 "shift; done; [[ $1 == -- ]] && shift; print -rl -- \"$@\"; }\n"
                                 "source '"
                + script + "'\nwords=(" + all + "); CURRENT=${#words}\n_nbcli\n";
            process.start("zsh", { "-f", "-c", code });
        }
        if (!process.waitForFinished(30000))
            return { "(no answer)" };
        const QString errors = QString::fromUtf8(process.readAllStandardError());
        if (!errors.isEmpty())
            return { "(error) " + errors };
        QStringList found
            = QString::fromUtf8(process.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
        found.sort();
        return found;
    }

    void shellsCompleteFromTheCommandTable()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        CLI_OK(nbcli({ "mkdir", "-p", "/docs/my files", "/dots" }));
        CLI_OK(nbcli({ "put", "-", "/docs/a b.txt" }, {}, "x"));
        CLI_OK(nbcli({ "put", "-", "/docs/my files/inner.txt" }, {}, "x"));
        QVERIFY(QDir(m_dir.path()).mkpath("localdir"));
        QVERIFY(QDir(m_dir.path()).mkpath("loc dir/sub"));

        for (const bool withPackage : { true, false }) {
            const auto bash = [&](const QStringList& words) {
                return completedBy("bash", words, withPackage);
            };
            QCOMPARE(bash({ "sy" }), QStringList { "sync" });
            QCOMPARE(bash({ "ls", "--lo" }), QStringList { "--long" });
            QCOMPARE(bash({ "ls", "/do" }), (QStringList { "/docs/", "/dots/" }));
            QCOMPARE(bash({ "get", "/docs/" }), (QStringList { "/docs/a\\ b.txt", "/docs/my\\ files/" }));
            // Within a folder whose name holds a blank, written as bash users write it.
            QCOMPARE(bash({ "ls", "/docs/my\\ files/" }), QStringList { "/docs/my\\ files/inner.txt" });
            QCOMPARE(bash({ "ls", "'/docs/my files/i" }), QStringList { "/docs/my\\ files/inner.txt" });
            // bash replaces only what follows the ":" it split at.
            QCOMPARE(bash({ "sync", "localdir", ":/docs/m" }), QStringList { "/docs/my\\ files/" });
            QCOMPARE(bash({ "--type=pri" }), (QStringList { "private", "private6" }));
            QCOMPARE(bash({ "put", "local" }), QStringList { "localdir" });
            QCOMPARE(bash({ "put", "loc\\ dir/" }), QStringList { "loc dir/sub" });
            // Nothing to offer, under set -u.
            QCOMPARE(bash({ "raw", "GET", "" }), QStringList {});
        }
        QCOMPARE(completedBy("zsh", { "sy" }), QStringList { "sync" });
        QCOMPARE(completedBy("zsh", { "ls", "/do" }), (QStringList { "/docs/", "/dots/" }));
        QCOMPARE(completedBy("zsh", { "sync", "localdir", ":/docs/m" }), QStringList { ":/docs/my files/" });
        QCOMPARE(completedBy("zsh", { "get", "/docs/a" }), QStringList { "/docs/a b.txt" });
        QCOMPARE(
            completedBy("zsh", { "ls", "/docs/my\\ files/" }), QStringList { "/docs/my files/inner.txt" });
        QCOMPARE(completedBy("zsh", { "put", "local" }), QStringList { "(files)" });
        QCOMPARE(completedBy("zsh", { "--profile", "" }), QStringList { "default" });

        // Signed out, or a server that does not answer: nothing, and at once.
        CLI_OK(nbcli({ "logout" }));
        QCOMPARE(completedBy("bash", { "ls", "/do" }), QStringList {});
    }

    void tlsChoicesStayWithTheSession()
    {
        EmuProcess emu({ "--user", "alice:secret", "--tls-self-signed" });
        const QString url = emu.url().replace("http://", "https://");
        QFile::copy(emu.dataDir() + "/tls/cert.pem", local("ca.pem"));
        CLI_OK(nbcli({ "login", "--server", url, "--user", "alice", "--cacert", "ca.pem" },
            { { "NB_PASSWORD", "secret" } }));
        QProcess other;
        other.setProcessEnvironment(m_cli.environment({}));
        other.setWorkingDirectory(QDir::rootPath());
        other.start(NBCLI_PATH, { "whoami" });
        QVERIFY(other.waitForFinished(30000));
        QVERIFY2(other.exitCode() == 0, other.readAllStandardError().constData());
        CLI_OK(nbcli({ "logout" }));
        CLI_OK(nbcli({ "login", "--server", url, "--user", "alice" },
            { { "NB_PASSWORD", "secret" }, { "NB_CACERT", local("ca.pem") } }));
    }
};

NB_TEST_MAIN(TestNbcliScripts)
#include "tst_nbcliscripts.moc"
