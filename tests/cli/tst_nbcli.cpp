// nbcli as a person or a script runs it: a process against a fresh nbemu per case, its
// output, its exit status, and what reached the emulator (its request log).
#include "CliProcess.h"
#include "EmuProcess.h"
#include "TestMain.h"
#include "Wait.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStandardPaths>
#include <csignal>
#include <memory>

namespace {

QByteArray randomBytes(qint64 size, quint32 seed)
{
    QByteArray bytes(int(size), Qt::Uninitialized);
    QRandomGenerator generator(seed);
    generator.fillRange(reinterpret_cast<quint32*>(bytes.data()), int(size / 4));
    return bytes;
}

void writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64(content.size()));
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QJsonValue json(const QString& text)
{
    const QJsonDocument document = QJsonDocument::fromJson(text.toUtf8());
    return document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
}

// The results of a --json run, and the first of them.
QJsonArray results(const QString& text)
{
    return QJsonDocument::fromJson(text.toUtf8()).object().value("results").toArray();
}

QJsonObject first(const QString& text)
{
    return results(text).at(0).toObject();
}

int countTargets(const EmuProcess& emu, const QString& method, const QString& pathPart, int status = 0)
{
    int count = 0;
    for (const QJsonObject& line : emu.requests())
        count += line.value("method").toString() == method
                && line.value("target").toString().contains(pathPart)
                && (status == 0 || line.value("status").toInt() == status)
            ? 1
            : 0;
    return count;
}

} // namespace

class TestNbcli : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    CliProcess m_cli { QStringLiteral(NBCLI_PATH) };

    CliRun nbcli(const QStringList& args, const QMap<QString, QString>& env = {},
        const QByteArray& input = {}, int timeoutMs = 180000)
    {
        return m_cli.run(args, env, input, timeoutMs);
    }

    std::unique_ptr<QProcess> startCli(const QStringList& args, const QMap<QString, QString>& env = {})
    {
        return m_cli.start(args, env);
    }

    bool signIn(EmuProcess& emu, const QString& user = "alice", const QString& password = "secret")
    {
        const CliRun run
            = nbcli({ "login", "--server", emu.url(), "--user", user }, { { "NB_PASSWORD", password } });
        if (run.exit != 0)
            qWarning("login: %s %s", qPrintable(run.out), qPrintable(run.err));
        return run.exit == 0;
    }

    QString local(const QString& name) const { return m_dir.filePath(name); }

private slots:
    void init() { m_cli.dirty.clear(); }

    void cleanup()
    {
        QVERIFY2(m_cli.dirty.isEmpty(),
            qPrintable("carriage return or escape in a pipe: " + m_cli.dirty.join(", ")));
    }

    void helpAndUsage()
    {
        CliRun run = nbcli({ "--help" });
        QCOMPARE(run.exit, 0);
        for (const char* command : { "login", "logout", "whoami", "ls", "stat", "mkdir", "mv", "cp", "rm",
                 "revisions", "lock", "unlock", "put", "get", "watch", "share", "raw" })
            QVERIFY2(run.out.contains(QRegularExpression(QStringLiteral("\n  %1 ").arg(command))), command);
        QVERIFY(run.out.contains("130 interrupted"));
        run = nbcli({ "ls", "--help" });
        QCOMPARE(run.exit, 0);
        QVERIFY2(run.out.startsWith("Usage: nbcli ls [options] [-l] [-h] [PATH...]\n"), qPrintable(run.out));
        QVERIFY(run.out.contains("--long"));
        QCOMPARE(nbcli({ "help", "put" }).exit, 0);
        QVERIFY(nbcli({ "put", "--help" }).out.contains("(SHA-256) while earlier chunks are sent"));
        QCOMPARE(nbcli({ "--version" }).out.trimmed(), QString("nbcli 1.1.0"));

        run = nbcli({ "frobnicate" });
        QCOMPARE(run.exit, 1);
        QVERIFY(run.err.contains("unknown command \"frobnicate\""));
        QCOMPARE(nbcli({ "ls", "--frobnicate" }).exit, 1);
        run = nbcli({ "mv", "/a" });
        QCOMPARE(run.exit, 1);
        QVERIFY(run.err.contains("usage: nbcli mv SRC... DEST"));
        QCOMPARE(nbcli({}).exit, 1);
        QCOMPARE(nbcli({ "put", "-j", "0", "a", "/b" }).exit, 1);
        QCOMPARE(nbcli({ "ls", "--type", "seven", "--server", "http://127.0.0.1:1" }).exit, 1);
    }

    void loginKeepsTheSessionPrivate()
    {
        EmuProcess emu;
        CliRun run
            = nbcli({ "login", "--server", emu.url(), "--user", "alice" }, { { "NB_PASSWORD", "wrong" } });
        QCOMPARE(run.exit, 2);
        QVERIFY2(run.err.contains("invalid username or password"), qPrintable(run.err));
        QVERIFY(!run.err.contains("wrong"));

        // The password from standard input; the scheme of a bare host found by probing; the
        // library's detailed trace on, so that it writes the sign-in's parameters.
        const QString bare = emu.url().mid(QStringLiteral("http://").size());
        run = nbcli({ "login", "--verbose", "--server", bare, "--user", "alice", "--password-stdin" }, {},
            "secret\n");
        CLI_OK(run);
        QCOMPARE(run.out.trimmed(), QStringLiteral("signed in to %1 as alice (public cloud)").arg(emu.url()));

        const QString config
            = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/nbcli";
        const QFileDevice::Permissions others = QFileDevice::ReadGroup | QFileDevice::WriteGroup
            | QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::WriteOther
            | QFileDevice::ExeOther;
        const QFileDevice::Permissions file = QFileInfo(config + "/session.json").permissions();
        QCOMPARE(file & others, QFileDevice::Permissions());
        QCOMPARE(file & (QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner),
            QFileDevice::ReadOwner | QFileDevice::WriteOwner);
        QCOMPARE(QFileInfo(config).permissions() & others, QFileDevice::Permissions());
        const QJsonObject stored = json(QString::fromUtf8(readFile(config + "/session.json"))).toObject();
        QCOMPARE(stored.value("server").toString(), emu.url());
        QVERIFY(!stored.value("session").toString().isEmpty());
        QVERIFY(!readFile(config + "/session.json").contains("secret"));

        run = nbcli({ "whoami" });
        CLI_OK(run);
        QCOMPARE(run.out.trimmed(), QStringLiteral("alice on %1 (public cloud)").arg(emu.url()));
        run = nbcli({ "whoami", "--json" });
        QCOMPARE(first(run.out).value("user").toString(), QString("alice"));

        // Another server or type: the stored session is not sent there.
        run = nbcli({ "whoami", "--type", "0" });
        QCOMPARE(run.exit, 1); // no session for that server: run login first
        QVERIFY(run.err.contains("run nbcli login"));

        // The library's log holds neither the password nor the session.
        QFile log(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
            + "/NimbraData/Log/Transfer.log");
        QVERIFY(log.open(QIODevice::ReadOnly));
        const QByteArray logged = log.readAll();
        QVERIFY(logged.contains("password=***(6)"));
        QVERIFY(!logged.contains("secret"));
        QVERIFY(!logged.contains(stored.value("session").toString().toLatin1()));

        CLI_OK(nbcli({ "logout" }));
        run = nbcli({ "whoami" });
        QCOMPARE(run.exit, 1);
        QCOMPARE(
            run.err.trimmed(), QStringLiteral("nbcli: not signed in to %1: run nbcli login").arg(emu.url()));
    }

    // Two servers and users side by side: each command reaches the profile it names, and
    // the profiles' files stay as private as the default one.
    void profilesKeepSeveralSignIns()
    {
        EmuProcess home;
        EmuProcess work({ "--user", "bob:hunter2" }, 0);
        CLI_OK(
            nbcli({ "login", "--server", home.url(), "--user", "alice" }, { { "NB_PASSWORD", "secret" } }));
        CLI_OK(nbcli(
            { "--profile", "work", "login", "--server", work.url(), "--type", "private", "--user", "bob" },
            { { "NB_PASSWORD", "hunter2" } }));

        CliRun run = nbcli({ "whoami" });
        QCOMPARE(run.out.trimmed(), QStringLiteral("alice on %1 (public cloud)").arg(home.url()));
        run = nbcli({ "whoami" }, { { "NB_PROFILE", "work" } });
        QCOMPARE(run.out.trimmed(), QStringLiteral("bob on %1 (private)").arg(work.url()));
        // The option wins over the environment.
        run = nbcli({ "whoami", "--profile", "default" }, { { "NB_PROFILE", "work" } });
        QCOMPARE(run.out.trimmed(), QStringLiteral("alice on %1 (public cloud)").arg(home.url()));
        CLI_OK(nbcli({ "--profile", "work", "mkdir", "/bobs" }));
        QCOMPARE(nbcli({ "stat", "/bobs" }).exit, 2);

        const QString config
            = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/nbcli";
        const QString workFile = config + "/profiles/work.json";
        const QFileDevice::Permissions others = QFileDevice::ReadGroup | QFileDevice::WriteGroup
            | QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::WriteOther
            | QFileDevice::ExeOther;
        QCOMPARE(QFileInfo(workFile).permissions() & others, QFileDevice::Permissions());
        QCOMPARE(QFileInfo(config + "/profiles").permissions() & others, QFileDevice::Permissions());
        const QString session
            = json(QString::fromUtf8(readFile(workFile))).toObject().value("session").toString();
        QVERIFY(!session.isEmpty());

        run = nbcli({ "profile", "list", "--json" }, { { "NB_PROFILE", "work" } });
        CLI_OK(run);
        QJsonArray listed = results(run.out);
        QCOMPARE(listed.size(), 2);
        QCOMPARE(listed.at(0).toObject().value("profile").toString(), QString("default"));
        QCOMPARE(listed.at(0).toObject().value("current").toBool(), false);
        QCOMPARE(listed.at(1).toObject().value("profile").toString(), QString("work"));
        QCOMPARE(listed.at(1).toObject().value("current").toBool(), true);
        QCOMPARE(listed.at(1).toObject().value("user").toString(), QString("bob"));
        QCOMPARE(listed.at(1).toObject().value("type").toInt(), 0);
        QCOMPARE(listed.at(1).toObject().value("signed_in").toBool(), true);
        run = nbcli({ "profile", "list" });
        QVERIFY2(run.out.contains(QRegularExpression("^\\* default +alice on ")), qPrintable(run.out));
        QVERIFY(run.out.contains(QRegularExpression("\n  work +bob on ")));
        run = nbcli({ "profile", "show", "work" });
        CLI_OK(run);
        QVERIFY(run.out.contains("signed in  yes"));
        QVERIFY(run.out.contains(workFile));
        QVERIFY(!run.out.contains(session));
        QVERIFY(!nbcli({ "profile", "show", "work", "--json" }).out.contains(session));

        // A damaged profile is listed as such.
        const QString brokenFile = config + "/profiles/broken.json";
        writeFile(brokenFile, "{ not json");
        run = nbcli({ "profile", "list" });
        CLI_OK(run);
        QVERIFY2(run.out.contains(QRegularExpression("\\n  broken +damaged: ")), qPrintable(run.out));
        QVERIFY(QFile::remove(brokenFile));

        // Names that are not file names, or could be read as options, are refused.
        for (const char* name : { "../x", ".hidden", "-x", "a/b", "" }) {
            run = nbcli({ "whoami", "--profile", name });
            QCOMPARE(run.exit, 1);
        }
        QCOMPARE(nbcli({ "profile", "show", "nope" }).exit, 1);
        QCOMPARE(nbcli({ "profile", "frob" }).exit, 1);
        QCOMPARE(nbcli({ "profile", "remove" }).exit, 1);

        // logout forgets one profile's session; remove forgets the profile.
        CLI_OK(nbcli({ "logout", "--profile", "work" }));
        CLI_OK(nbcli({ "whoami" }));
        run = nbcli({ "profile", "remove", "work" });
        CLI_OK(run);
        QVERIFY(!QFile::exists(workFile));
        run = nbcli({ "whoami", "--profile", "work" });
        QCOMPARE(run.exit, 1);
        QCOMPARE(run.err.trimmed(),
            QString("nbcli: no server: run nbcli --profile work login --server URL, or give --server"));
        CLI_OK(nbcli({ "whoami" }));
    }

    void tlsVerifiedUnlessAskedNotTo()
    {
        EmuProcess emu({ "--user", "alice:secret", "--tls-self-signed" });
        const QString url = emu.url().replace("http://", "https://");
        const QMap<QString, QString> password { { "NB_PASSWORD", "secret" } };
        CliRun run = nbcli({ "login", "--server", url, "--user", "alice" }, password);
        QCOMPARE(run.exit, 1);
        QVERIFY(run.err.contains("the server's TLS certificate is not trusted"));
        QVERIFY(run.err.contains("give --cacert FILE with its CA, or --insecure"));

        // The certificate nbemu made at its first start, where it says it is.
        const QString certificate = emu.dataDir() + "/tls/cert.pem";
        QVERIFY(emu.printed("nbemu: certificate " + certificate));
        run = nbcli({ "login", "--server", url, "--user", "alice", "--cacert", certificate }, password);
        CLI_OK(run);
        QVERIFY(run.err.contains("TLS: verifying the server against the system's CAs and " + certificate));
        CLI_OK(nbcli({ "whoami", "--cacert", certificate }));
        // The CA given at login stays with the session.
        CLI_OK(nbcli({ "whoami" }));
        // Another folder, another run: the CA file was kept by its absolute path.
        QVERIFY(QFileInfo(storedSignIn().value("cacert").toString()).isAbsolute());
        run = nbcli({ "whoami", "--insecure" });
        CLI_OK(run);
        QVERIFY(run.err.contains("TLS: the server's certificate is not verified (--insecure)"));
        QCOMPARE(nbcli({ "whoami", "-q", "--insecure" }).err, QString());
        QCOMPARE(nbcli({ "whoami", "--cacert", local("none.pem") }).exit, 4);
        QCOMPARE(nbcli({ "whoami", "--cacert", certificate, "--insecure" }).exit, 1);
    }

    void expiredSessionSaysWhatToDo()
    {
        EmuProcess emu({ "--user", "alice:secret", "--session-seconds", "1" });
        QVERIFY(signIn(emu));
        QTest::qWait(2100);
        const CliRun run = nbcli({ "ls", "/" });
        QCOMPARE(run.exit, 2);
        QVERIFY2(run.err.contains("Invalid session")
                && run.err.contains("session expired or missing: run nbcli login"),
            qPrintable(run.err));
    }

    void twoFactorSignIns()
    {
        EmuProcess emu({ "--user", "bob:pw:tfa" });
        const QString otp = emu.control("GET", "/__emu/totp", { { "user", "bob" } }).value("otp").toString();
        CliRun run = nbcli({ "login", "--server", emu.url(), "--user", "bob", "--tfa", "otp" },
            { { "NB_PASSWORD", "pw" }, { "NB_OTP", otp } });
        CLI_OK(run);
        CLI_OK(nbcli({ "whoami" }));
        run = nbcli({ "login", "--server", emu.url(), "--user", "bob", "--tfa", "otp" },
            { { "NB_PASSWORD", "pw" }, { "NB_OTP", "000000" } });
        QCOMPARE(run.exit, 2);
        QVERIFY(run.err.contains("invalid otp"));

        // SMS: the code reaches the outbox; nbcli reads it from standard input.
        auto sms = startCli(
            { "login", "--server", emu.url(), "--user", "bob", "--tfa", "sms", "--mobile", "13800000000" },
            { { "NB_PASSWORD", "pw" } });
        QString code;
        QVERIFY(waitUntil(
            [&] {
                const QJsonArray outbox = emu.control("GET", "/__emu/outbox").value("messages").toArray();
                code = outbox.isEmpty() ? QString() : outbox.last().toObject().value("text").toString();
                return !code.isEmpty();
            },
            20000));
        sms->write(code.toUtf8() + '\n');
        QVERIFY(sms->waitForFinished(30000));
        QCOMPARE(sms->exitCode(), 0);

        // QR: polled until the control interface approves the user's sign-in.
        auto qr = startCli(
            { "login", "--server", emu.url(), "--user", "bob", "--tfa", "qr" }, { { "NB_PASSWORD", "pw" } });
        QVERIFY(waitUntil([&] { return countTargets(emu, "GET", "/v2/tfa/stat/get") >= 2; }, 30000));
        QVERIFY(qr->state() == QProcess::Running);
        QVERIFY(!emu.control("POST", "/__emu/approve", { { "user", "bob" } })
                     .value("approved")
                     .toString()
                     .isEmpty());
        QVERIFY(qr->waitForFinished(30000));
        const QString said = QString::fromUtf8(qr->readAllStandardError());
        QVERIFY2(qr->exitCode() == 0, qPrintable(said));
        QVERIFY(said.contains("Scan the QR code in"));
        CLI_OK(nbcli({ "whoami" }));
    }

    void namespaceCommands()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        CliRun run = nbcli({ "mkdir", "/a/b" });
        QCOMPARE(run.exit, 2);
        QCOMPARE(run.err.trimmed(), QString("nbcli: cannot create /a/b: no folder /a (-p creates it)"));
        run = nbcli({ "mkdir", "-p", "/a/b", "/docs" });
        CLI_OK(run);
        QCOMPARE(run.out, QString("created /a/b\ncreated /docs\n"));
        CLI_OK(nbcli({ "mkdir", "-p", "/a/b" }));
        QCOMPARE(nbcli({ "mkdir", "/docs" }).exit, 2);

        writeFile(local("one.txt"), "one\n");
        writeFile(local("two.txt"), "second\n");
        CLI_OK(nbcli({ "put", local("one.txt"), local("two.txt"), "/docs/" }));
        run = nbcli({ "ls", "/" });
        CLI_OK(run);
        QCOMPARE(run.out, QString("a/\ndocs/\n"));
        run = nbcli({ "ls", "-l", "/docs" });
        CLI_OK(run);
        const QStringList lines = run.out.split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 2);
        QVERIFY2(
            lines[0].contains(QRegularExpression("^- +4  \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d +1  one.txt$")),
            qPrintable(lines[0]));
        run = nbcli({ "ls", "--json", "/docs" });
        QCOMPARE(results(run.out).size(), 2);
        QCOMPARE(results(run.out).at(1).toObject().value("bytes").toInt(), 7);
        run = nbcli({ "stat", "/docs/two.txt" });
        CLI_OK(run);
        QVERIFY(run.out.startsWith("/docs/two.txt\n  type: file\n  bytes: 7\n  rev: 1\n"));
        QCOMPARE(first(nbcli({ "stat", "--json", "/docs" }).out).value("type").toString(), QString("folder"));
        run = nbcli({ "stat", "/nope" });
        QCOMPARE(run.exit, 2);
        QCOMPARE(
            run.err.trimmed(), QString("nbcli: stat /nope: file/folder not found (HTTP 404, error 20005)"));

        // A rename, a move into a folder, a copy, deletions: batch tasks polled to their end.
        run = nbcli({ "mv", "/docs/one.txt", "/docs/first.txt" });
        CLI_OK(run);
        QCOMPARE(run.out, QString("moved /docs/one.txt -> /docs/first.txt\n"));
        run = nbcli({ "mv", "/docs/first.txt", "/a/" });
        CLI_OK(run);
        QCOMPARE(run.out, QString("moved /docs/first.txt -> /a/first.txt\n"));
        QVERIFY(countTargets(emu, "GET", "/v2/async/query") >= 2); // running once, then done
        run = nbcli({ "cp", "/docs/two.txt", "/a/first.txt", "/backup", "--json" });
        CLI_OK(run);
        QCOMPARE(results(run.out).size(), 2);
        QCOMPARE(results(run.out).at(0).toObject().value("to").toString(), QString("/backup/two.txt"));
        run = nbcli({ "rm", "/backup" });
        QCOMPARE(run.exit, 1);
        QVERIFY(run.err.contains("/backup is a folder: rm -r"));
        run = nbcli({ "rm", "-r", "/backup", "/docs/two.txt" });
        CLI_OK(run);
        QCOMPARE(run.out, QString("deleted /backup\ndeleted /docs/two.txt\n"));
        QCOMPARE(nbcli({ "ls", "/" }).out, QString("a/\ndocs/\n"));

        // Revisions and locks.
        writeFile(local("one.txt"), "one, again\n");
        CLI_OK(nbcli({ "put", local("one.txt"), "/a/first.txt" }));
        run = nbcli({ "revisions", "/a/first.txt" });
        CLI_OK(run);
        QCOMPARE(run.out.split('\n', Qt::SkipEmptyParts).size(), 2);
        QVERIFY(run.out.startsWith("   2            11  "));
        QCOMPARE(results(nbcli({ "revisions", "--json", "--limit", "1", "/a/first.txt" }).out).size(), 1);
        run = nbcli({ "lock", "--time", "60", "/a/first.txt" });
        CLI_OK(run);
        QCOMPARE(run.out, QString("locked /a/first.txt for 60 s\n"));
        CLI_OK(nbcli({ "unlock", "/a/first.txt" }));
    }

    void batchWithFailedEntriesIsPartial()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        CLI_OK(nbcli({ "mkdir", "/keep", "/go" }));
        emu.control("POST", "/__emu/tasks", { { "polls", "2" }, { "fail", "^/keep$" } });
        CliRun run = nbcli({ "rm", "-r", "/keep", "/go" });
        QCOMPARE(run.exit, 5);
        QCOMPARE(run.out, QString("deleted /go\n"));
        QVERIFY2(run.err.contains("failed for /keep: forbidden"), qPrintable(run.err));
        QCOMPARE(countTargets(emu, "GET", "/v2/async/query"), 3);
        run = nbcli({ "rm", "-r", "/keep" });
        QCOMPARE(run.exit, 2);
    }

    // A dry run asks the server what it needs for its verdict, and changes nothing.
    void dryRunsChangeNothing()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        CLI_OK(nbcli({ "mkdir", "/a", "/b" }));
        writeFile(local("dry.bin"), randomBytes(5 << 20, 3));
        const auto changes = [&] {
            int count = 0;
            for (const QJsonObject& line : emu.requests())
                count += line.value("method").toString() == QLatin1String("POST") ? 1 : 0;
            return count;
        };
        const int before = changes();
        CliRun run = nbcli({ "put", "--dry-run", local("dry.bin"), "/x/" });
        CLI_OK(run);
        QCOMPARE(run.out,
            QStringLiteral("would create folder /x\nwould put %1 -> /x/dry.bin (5.0 MiB, in chunks)\n")
                .arg(local("dry.bin")));
        run = nbcli({ "mv", "--dry-run", "/a", "/b", "/c/" });
        QCOMPARE(run.out, QString("would move /a -> /c/a\nwould move /b -> /c/b\n"));
        QCOMPARE(nbcli({ "cp", "--dry-run", "/a", "/c" }).out, QString("would copy /a -> /c\n"));
        QCOMPARE(nbcli({ "cp", "--dry-run", "/a", "/b" }).out, QString("would copy /a -> /b/a\n"));
        QCOMPARE(nbcli({ "rm", "--dry-run", "-r", "/a" }).out, QString("would delete /a\n"));
        // The verdict of the real command.
        QCOMPARE(nbcli({ "rm", "--dry-run", "/a" }).exit, 1);
        QCOMPARE(nbcli({ "rm", "--dry-run", "/missing" }).exit, 2);
        QCOMPARE(nbcli({ "mv", "--dry-run", "/missing", "/x" }).exit, 2);
        QCOMPARE(nbcli({ "put", "--dry-run", local("missing.bin"), "/x" }).exit, 4);
        QCOMPARE(changes(), before);
    }

    void putAndGetLargeFilesByteExact()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        const QByteArray content = randomBytes(64 << 20, 11);
        writeFile(local("big.bin"), content);
        CliRun run = nbcli({ "put", local("big.bin"), "/big.bin" });
        CLI_OK(run);
        QVERIFY2(
            run.out.contains(
                QStringLiteral("put %1 -> /big.bin: 64.0 MiB, 16 of 16 chunks sent,").arg(local("big.bin"))),
            qPrintable(run.out));
        QVERIFY(run.out.trimmed().endsWith("hash ok"));
        QCOMPARE(countTargets(emu, "POST", "/v2/chunked_upload", 200), 16);

        // Again: every chunk is there already; only the hash queries and the commit go out.
        run = nbcli({ "put", "--json", local("big.bin"), "/copy.bin" });
        CLI_OK(run);
        const QJsonObject again = results(run.out).at(0).toObject();
        QCOMPARE(again.value("chunks").toInt(), 16);
        QCOMPARE(again.value("chunks_sent").toInt(), 0);
        QCOMPARE(countTargets(emu, "POST", "/v2/chunked_upload"), 16);

        run = nbcli({ "get", "/big.bin", local("back.bin") });
        CLI_OK(run);
        QVERIFY(run.out.startsWith(QStringLiteral("got /big.bin -> %1: 64.0 MiB,").arg(local("back.bin"))));
        QVERIFY(readFile(local("back.bin")) == content);
        QCOMPARE(QDir(m_dir.path()).entryList(QStringList { ".*.part" }, QDir::Hidden | QDir::Files),
            QStringList());

        // Folders both ways, recursively.
        QDir(m_dir.path()).mkpath("tree/sub");
        writeFile(local("tree/sub/leaf.txt"), "leaf");
        writeFile(local("tree/top.txt"), "top");
        CLI_OK(nbcli({ "put", local("tree"), "/trees/" }));
        QCOMPARE(nbcli({ "ls", "/trees/tree/sub" }).out, QString("leaf.txt\n"));
        run = nbcli({ "get", "--json", "/trees/tree", local("restored/") });
        CLI_OK(run);
        QCOMPARE(results(run.out).size(), 2);
        QCOMPARE(readFile(local("restored/tree/sub/leaf.txt")), QByteArray("leaf"));
        QCOMPARE(readFile(local("restored/tree/top.txt")), QByteArray("top"));
    }

    void errorClassesAndTheirStatus()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        // Local file errors.
        CliRun run = nbcli({ "put", local("missing.bin"), "/m.bin" });
        QCOMPARE(run.exit, 4);
        QCOMPARE(run.err.trimmed(), QStringLiteral("nbcli: no such file %1").arg(local("missing.bin")));
        writeFile(local("small.txt"), "small");
        CLI_OK(nbcli({ "put", local("small.txt"), "/small.txt" }));
        run = nbcli({ "get", "/small.txt", "/proc/nbcli-cannot-write-here/x" });
        QCOMPARE(run.exit, 4);
        QVERIFY(run.err.contains("cannot write"));
        // Some of several files: a partial failure, each named.
        run = nbcli({ "put", local("small.txt"), local("missing.bin"), "/two/" });
        QCOMPARE(run.exit, 5);
        QVERIFY(run.err.contains(local("missing.bin")));
        QVERIFY(run.out.contains("put " + local("small.txt") + " -> /two/small.txt"));
        // Another server: the session is not sent there.
        run = nbcli({ "ls", "/", "--server", "http://127.0.0.1:1" });
        QCOMPARE(run.exit, 1);
        QVERIFY(run.err.contains("not signed in to http://127.0.0.1:1"));
        // The server gone: a network error after the retries.
        emu.kill();
        run = nbcli({ "ls", "/", "--retries", "2" });
        QCOMPARE(run.exit, 3);
        QVERIFY2(run.err.contains("cannot reach the server") && run.err.contains("3 attempts"),
            qPrintable(run.err));
    }

    void lockOfAnotherUserRefusesPutAndNamesItsHolder()
    {
        EmuProcess emu({ "--user", "alice:secret", "--user", "bob:pw" });
        // bob keeps his session in a folder of his own.
        QTemporaryDir bobConfig;
        const QMap<QString, QString> bob { { "XDG_CONFIG_HOME", bobConfig.path() } };
        QVERIFY(signIn(emu));
        writeFile(local("shared.txt"), "v1");
        CLI_OK(nbcli({ "put", local("shared.txt"), "/shared.txt" }));
        CLI_OK(nbcli({ "lock", "/shared.txt" }));
        QMap<QString, QString> bobLogin = bob;
        bobLogin.insert("NB_PASSWORD", "pw");
        CLI_OK(nbcli({ "login", "--server", emu.url(), "--user", "bob" }, bobLogin));
        writeFile(local("shared.txt"), "v2");
        const CliRun run = nbcli({ "put", local("shared.txt"), "/shared.txt" }, bob);
        QCOMPARE(run.exit, 2);
        QVERIFY2(run.err.contains("file is locked") && run.err.contains("ask alice to unlock it"),
            qPrintable(run.err));
        const CliRun stat = nbcli({ "stat", "/shared.txt" }, bob);
        QVERIFY2(stat.out.contains("locked: by alice until "), qPrintable(stat.out));
        CLI_OK(nbcli({ "unlock", "/shared.txt" }));
        CLI_OK(nbcli({ "put", local("shared.txt"), "/shared.txt" }, bob));
    }

    void interruptedPutSendsOnlyWhatIsMissing()
    {
        // Slow chunk uploads, one at a time, so that the process dies between chunks.
        EmuProcess emu({ "--user", "alice:secret", "--fault", "^/v2/chunked_upload:latency=300" });
        QVERIFY(signIn(emu));
        const QByteArray content = randomBytes(64 << 20, 21);
        writeFile(local("resume.bin"), content);
        auto first = startCli({ "put", "-j", "1", local("resume.bin"), "/resume.bin" });
        QVERIFY(waitUntil([&] { return countTargets(emu, "POST", "/v2/chunked_upload", 200) >= 4; }, 60000));
        first->kill();
        first->waitForFinished(5000);
        QTest::qWait(500); // a chunk in flight may still land
        const int stored = countTargets(emu, "POST", "/v2/chunked_upload", 200);
        QVERIFY(stored >= 4 && stored < 16);
        QCOMPARE(nbcli({ "stat", "/resume.bin" }).exit, 2); // nothing committed

        emu.control("POST", "/__emu/faults", { { "clear", "true" } });
        const CliRun run = nbcli({ "put", "--json", local("resume.bin"), "/resume.bin" });
        CLI_OK(run);
        const QJsonObject result = results(run.out).at(0).toObject();
        QCOMPARE(result.value("chunks_sent").toInt(), 16 - stored);
        QCOMPARE(countTargets(emu, "POST", "/v2/chunked_upload", 200), 16);
        CLI_OK(nbcli({ "get", "/resume.bin", local("resumed-back.bin") }));
        QVERIFY(readFile(local("resumed-back.bin")) == content);
    }

    // Ranges arrive several at once but reach the part file in order: whatever stops a
    // get (here a kill), the part is the file's beginning and the next get goes on from it.
    void interruptedGetContinuesFromItsPart()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        const qint64 span = 4 << 20;
        const QByteArray content = randomBytes(40 << 20, 31);
        writeFile(local("range.bin"), content);
        CLI_OK(nbcli({ "put", local("range.bin"), "/range.bin" }));
        emu.control("POST", "/__emu/faults", { { "rule", "^/v2/dl_router/:latency=400" } });
        const QString target = local("range-back.bin");
        const QString part = QFileInfo(target).absolutePath() + "/.range-back.bin.nbcli-1.part";
        auto first = startCli({ "get", "-j", "2", "/range.bin", target });
        QVERIFY(waitUntil([&] { return QFileInfo(part).size() >= 2 * span; }, 60000));
        first->kill();
        first->waitForFinished(5000);
        QVERIFY(!QFileInfo::exists(target));
        const qint64 kept = QFileInfo(part).size();
        QVERIFY2(kept % span == 0 && kept < content.size(), qPrintable(QString::number(kept)));
        QVERIFY(readFile(part) == content.left(int(kept)));
        // The killed run's last requests are answered (and logged) after their latency.
        QTest::qWait(1000);

        emu.control("POST", "/__emu/faults", { { "clear", "true" } });
        int ranged = countTargets(emu, "GET", "/v2/dl_router/");
        CliRun run = nbcli({ "get", "--json", "/range.bin", target });
        CLI_OK(run);
        QCOMPARE(qint64(results(run.out).at(0).toObject().value("resumed_from").toDouble()), kept);
        QCOMPARE(qint64(countTargets(emu, "GET", "/v2/dl_router/") - ranged - run.err.count("retrying in")),
            (content.size() - kept) / span);
        QVERIFY(readFile(target) == content);
        QFile::remove(target);
        writeFile(part, content.left(1000));
        ranged = countTargets(emu, "GET", "/v2/dl_router/");
        run = nbcli({ "get", "/range.bin", target });
        CLI_OK(run);
        QVERIFY2(run.out.contains(", resumed after 1000 B, hash ok"), qPrintable(run.out));
        QCOMPARE(countTargets(emu, "GET", "/v2/files/databox/range.bin"), 0); // large files come in ranges
        // One request a range, but for those the run said it tried again.
        QCOMPARE(countTargets(emu, "GET", "/v2/dl_router/") - ranged - run.err.count("retrying in"), 10);
        QVERIFY(readFile(target) == content);
        QVERIFY(!QFileInfo::exists(part));
    }

    // Failed range requests are tried again, and their error bodies never reach the file.
    void failedRangesAreTakenBack()
    {
        EmuProcess emu({ "--user", "alice:secret", "--fault-seed", "3" });
        QVERIFY(signIn(emu));
        const QByteArray content = randomBytes(24 << 20, 37);
        writeFile(local("taken-back.bin"), content);
        CLI_OK(nbcli({ "put", local("taken-back.bin"), "/taken-back.bin" }));
        emu.control("POST", "/__emu/faults", { { "rule", "^/v2/dl_router/:status=503@0.5" } });
        const CliRun run = nbcli({ "get", "--json", "/taken-back.bin", local("taken-back-out.bin") });
        CLI_OK(run);
        QVERIFY(countTargets(emu, "GET", "/v2/dl_router/", 503) > 0);
        QVERIFY(readFile(local("taken-back-out.bin")) == content);
        QCOMPARE(results(run.out).at(0).toObject().value("hash").toString(),
            first(nbcli({ "stat", "--json", "/taken-back.bin" }).out).value("hash").toString());
    }

    void ctrlCCancelsAndLeavesNothingHalfDone()
    {
        EmuProcess emu({ "--user", "alice:secret", "--fault", "^/v2/chunked_upload:latency=400" });
        QVERIFY(signIn(emu));
        writeFile(local("ctrlc.bin"), randomBytes(32 << 20, 41));
        auto put = startCli({ "put", local("ctrlc.bin"), "/ctrlc.bin" });
        QVERIFY(waitUntil([&] { return countTargets(emu, "POST", "/v2/chunked_upload") >= 1; }, 60000));
        ::kill(pid_t(put->processId()), SIGINT);
        QVERIFY(put->waitForFinished(20000));
        QCOMPARE(put->exitCode(), 130);
        QVERIFY(QString::fromUtf8(put->readAllStandardError()).contains("nbcli: interrupted"));
        QCOMPARE(countTargets(emu, "POST", "/v2/commit_chunked_upload/commit/databox/ctrlc.bin"), 0);
        QCOMPARE(nbcli({ "stat", "/ctrlc.bin" }).exit, 2);

        emu.control("POST", "/__emu/faults", { { "clear", "true" } });
        CLI_OK(nbcli({ "put", local("ctrlc.bin"), "/ctrlc.bin" }));
        emu.control("POST", "/__emu/faults", { { "rule", "^/v2/dl_router/:stall=600" } });
        const QString target = local("ctrlc-back.bin");
        auto get = startCli({ "get", "/ctrlc.bin", target });
        QVERIFY(waitUntil([&] { return countTargets(emu, "GET", "/v2/dl_router/") >= 1; }, 60000));
        QTest::qWait(200);
        ::kill(pid_t(get->processId()), SIGINT);
        QVERIFY(get->waitForFinished(20000));
        QCOMPARE(get->exitCode(), 130);
        QVERIFY(!QFileInfo::exists(target));
    }

    void flakyChunkUploadsStillGiveTheFile()
    {
        EmuProcess emu({ "--user", "alice:secret", "--fault", "^/v2/chunked_upload:status=503@0.2",
            "--fault-seed", "7" });
        QVERIFY(signIn(emu));
        const QByteArray content = randomBytes(64 << 20, 51);
        writeFile(local("flaky.bin"), content);
        CliRun run = nbcli({ "put", "-v", local("flaky.bin"), "/flaky.bin" });
        CLI_OK(run);
        const int failed = countTargets(emu, "POST", "/v2/chunked_upload", 503);
        QVERIFY2(failed > 0, "the fault rule failed no chunk upload");
        QCOMPARE(countTargets(emu, "POST", "/v2/chunked_upload", 200), 16);
        QCOMPARE(run.err.count("(upload chunk"), failed);
        CLI_OK(nbcli({ "get", "/flaky.bin", local("flaky-back.bin") }));
        QVERIFY(readFile(local("flaky-back.bin")) == content);
    }

    void retryAfterIsHonoured()
    {
        EmuProcess emu({ "--user", "alice:secret", "--fault", "^/v2/region/get:retry-after=1@1.0" });
        QVERIFY(signIn(emu));
        QElapsedTimer clock;
        clock.start();
        const CliRun run = nbcli({ "raw", "GET", "/v2/region/get", "--retries", "2" });
        QCOMPARE(run.exit, 3); // still asked to wait after the retries: try again later
        QVERIFY(run.out.startsWith("status: 429\n"));
        QCOMPARE(countTargets(emu, "GET", "/v2/region/get"), 3);
        QVERIFY(clock.elapsed() >= 2000); // two waits of the announced second
    }

    void sharedLinks()
    {
        EmuProcess emu({ "--user", "alice:secret", "--link", "LINK9:open:alice:/Shared" });
        QVERIFY(signIn(emu));
        const QByteArray big = randomBytes(9 << 20, 61);
        writeFile(local("link-big.bin"), big);
        writeFile(local("link-small.txt"), "small");
        CliRun run = nbcli(
            { "share", "put", local("link-big.bin"), "LINK9:/in/" }, { { "NB_SHARE_PASSWORD", "open" } });
        CLI_OK(run);
        QVERIFY2(
            run.out.contains("-> LINK9:/in/link-big.bin: 9.0 MiB, 3 of 3 chunks sent"), qPrintable(run.out));
        CLI_OK(nbcli({ "share", "put", "--password-stdin", local("link-small.txt"), "LINK9" }, {}, "open\n"));
        // The owner sees both in the shared folder.
        QCOMPARE(nbcli({ "ls", "/Shared" }).out, QString("in/\nlink-small.txt\n"));
        run = nbcli({ "share", "get", "LINK9:/in/link-big.bin", local("link-back.bin") },
            { { "NB_SHARE_PASSWORD", "open" } });
        CLI_OK(run);
        QVERIFY(readFile(local("link-back.bin")) == big);
        run = nbcli({ "share", "get", "LINK9", local("whole/") }, { { "NB_SHARE_PASSWORD", "open" } });
        CLI_OK(run);
        QCOMPARE(readFile(local("whole/Shared/link-small.txt")), QByteArray("small"));
        run = nbcli({ "share", "get", "LINK9:/link-small.txt", local("x.txt") },
            { { "NB_SHARE_PASSWORD", "wrong" } });
        QCOMPARE(run.exit, 2);
        QVERIFY(run.err.contains("open shared link LINK9: forbidden"));
    }

    void watchFollowsTheFeed()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        CLI_OK(nbcli({ "mkdir", "-p", "/w/sub" }));
        // The first watch of a folder: everything below it, as creations.
        CliRun run = nbcli({ "watch", "--once", "/w" });
        CLI_OK(run);
        QCOMPARE(run.out, QString("create /w/sub/\n"));
        QCOMPARE(nbcli({ "watch", "--once", "/w" }).out, QString());
        writeFile(local("w.txt"), "w");
        CLI_OK(nbcli({ "put", local("w.txt"), "/w/w.txt" }));
        CLI_OK(nbcli({ "mv", "/w/w.txt", "/w/v.txt" }));
        CLI_OK(nbcli({ "rm", "/w/v.txt" }));
        run = nbcli({ "watch", "--once", "/w" });
        CLI_OK(run);
        QCOMPARE(run.out, QString("create /w/w.txt\nmove /w/w.txt -> /w/v.txt\ndelete /w/v.txt\n"));
        run = nbcli({ "watch", "--once", "--reset", "--json", "/w" });
        const QJsonObject line = json(run.out.split('\n').first()).toObject();
        QCOMPARE(line.value("op").toString(), QString("create"));

        // Without --once it follows until Ctrl-C.
        auto follow = startCli({ "watch", "--interval", "1", "/w" });
        QTest::qWait(1500);
        CLI_OK(nbcli({ "mkdir", "/w/later" }));
        QVERIFY(
            waitUntil([&] { return follow->bytesAvailable() > 0 || follow->waitForReadyRead(100); }, 10000));
        QTest::qWait(300);
        QVERIFY(QString::fromUtf8(follow->readAllStandardOutput()).contains("create /w/later/"));
        ::kill(pid_t(follow->processId()), SIGINT);
        QVERIFY(follow->waitForFinished(10000));
        QCOMPARE(follow->exitCode(), 130);
    }

    void rawPrintsTheWholeRecord()
    {
        EmuProcess emu;
        QVERIFY(signIn(emu));
        CliRun run = nbcli({ "raw", "GET", "/v2/user/info/get" });
        CLI_OK(run);
        QVERIFY(run.out.startsWith("status: 200\nnetwork error: 0\n"));
        QVERIFY(run.out.contains("\"user\":\"alice\""));
        run = nbcli({ "raw", "POST", "/v2/log/logging", "action=open", "--json" });
        CLI_OK(run);
        QCOMPARE(first(run.out).value("status").toInt(), 200);
        QCOMPARE(emu.control("GET", "/__emu/oplog").value("records").toArray().size(), 1);
        run = nbcli({ "raw", "GET", "/v2/user/info/get", "--no-session" });
        QCOMPARE(run.exit, 2);
        QVERIFY(run.out.startsWith("status: 401\n"));
        QCOMPARE(nbcli({ "raw", "PUT", "/x" }).exit, 1);
    }
};

NB_TEST_MAIN(TestNbcli)
#include "tst_nbcli.moc"
