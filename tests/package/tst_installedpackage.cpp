// A host outside this tree: the installed library is found with find_package and
// with pkg-config, the example host builds against it and talks to a local server.
#include "TestMain.h"
#include "TestServer.h"

#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

class TestInstalledPackage : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_prefix;

    // Runs a command to its end (bounded); returns its exit code, with its output in `output`.
    static int run(const QString& program, const QStringList& arguments, QString* output = nullptr,
        const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment())
    {
        QProcess process;
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(program, arguments);
        if (!process.waitForFinished(300000)) {
            process.kill();
            process.waitForFinished();
        }
        const QString text = QString::fromUtf8(process.readAll());
        if (output)
            *output = text;
        if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
            qWarning().noquote() << program << arguments.join(' ') << "\n" << text;
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    void checkHostTalksToTheServer(const QString& program)
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::ok("{\"user\":\"nb\"}"); });
        QString output;
        QCOMPARE(run(program, { server.url("/v2/user/info/get?x=1") }, &output), 0);
        QCOMPARE(output,
            QString("status: 200\nnetworkError: 0\nerrorString: Unknown error\nbody: {\"user\":\"nb\"}\n"));
        QCOMPARE(server.lastRequest().target, QByteArray("/v2/user/info/get?x=1"));
    }

private slots:
    void initTestCase()
    {
        m_prefix = m_dir.filePath("prefix");
        QCOMPARE(run("cmake", { "--install", NB_BUILD_DIR, "--prefix", m_prefix }), 0);
    }

    void onlyTheFacadeAndTheParserAreExported()
    {
#ifdef NB_COVERAGE
        QSKIP("A coverage build emits Qt's inline functions as weak symbols of its own");
#endif
        QString symbols;
        QCOMPARE(run("nm", { "-DC", "--defined-only", m_prefix + "/lib/libNBServerApi.so" }, &symbols), 0);
        // Functions, data, weak template instances alike: nothing but the facade and the
        // reply parser (its classes, their virtual tables and type information).
        const QStringList exported { "ServerApi::", "CNBParseProcessor::", "NBBaseParse::",
            "vtable for CNBParseProcessor", "vtable for NBBaseParse", "typeinfo for CNBParseProcessor",
            "typeinfo for NBBaseParse", "typeinfo name for CNBParseProcessor",
            "typeinfo name for NBBaseParse" };
        int facade = 0;
        int parser = 0;
        for (const QString& line : symbols.split('\n', Qt::SkipEmptyParts)) {
            const QString name = line.section(' ', 2);
            bool known = false;
            for (const QString& prefix : exported)
                known |= name.startsWith(prefix);
            QVERIFY2(known, qPrintable(line));
            if (line.section(' ', 1, 1) == "T")
                ++(name.startsWith("ServerApi::") ? facade : parser);
        }
        QVERIFY(facade > 80);
        QVERIFY(parser > 10);
    }

    void hostBuildsWithFindPackage()
    {
        const QString build = m_dir.filePath("cmake-host");
        QCOMPARE(run("cmake",
                     { "-S", QStringLiteral(NB_SOURCE_DIR) + "/examples", "-B", build,
                         "-DCMAKE_PREFIX_PATH=" + m_prefix, "-DCMAKE_BUILD_TYPE=Release" }),
            0);
        QCOMPARE(run("cmake", { "--build", build }), 0);
        checkHostTalksToTheServer(build + "/nbhello");
    }

    void hostBuildsWithPkgConfig()
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("PKG_CONFIG_PATH", m_prefix + "/lib/pkgconfig");
        QString flags;
        QCOMPARE(run("pkg-config", { "--cflags", "--libs", "NBServerApi" }, &flags, environment), 0);
        const QString includeDir = flags.section(' ', 0, 0).mid(2);
        QCOMPARE(QFileInfo(includeDir).canonicalFilePath(),
            QFileInfo(m_prefix + "/include/NBServerApi").canonicalFilePath());
        const QString program = m_dir.filePath("pkgconfig-host");
        QStringList arguments { "-std=c++17", "-fPIC",
            QStringLiteral(NB_SOURCE_DIR) + "/examples/hello/main.cpp", "-o", program,
            "-Wl,-rpath," + m_prefix + "/lib" };
        arguments += flags.simplified().split(' ');
        QCOMPARE(run("g++", arguments), 0);
        checkHostTalksToTheServer(program);
    }
};

NB_TEST_MAIN(TestInstalledPackage)
#include "tst_installedpackage.moc"
