// A host outside this tree: the installed library is found with find_package and
// with pkg-config, the example host builds against it and talks to a local server. With
// a build of the other Qt major beside it, both install into one prefix without either
// replacing a file of the other (the programs aside), and a host builds against each.
#include "TestMain.h"
#include "TestServer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

class TestInstalledPackage : public QObject
{
    Q_OBJECT

    struct Package
    {
        QString name; // NBServerApi, or NBServerApiQt6
        int qtMajor = 5;
        QStringList files; // installed, relative to the prefix
    };

    QTemporaryDir m_dir;
    QString m_prefix;
    QList<Package> m_packages; // this build's first

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

    // Installs a build folder into the prefix; false when the install fails.
    bool install(const QString& buildDir, int qtMajor, QList<Package>& packages)
    {
        QString output;
        if (run("cmake", { "--install", buildDir, "--prefix", m_prefix }, &output) != 0)
            return false;
        Package package;
        package.qtMajor = qtMajor;
        package.name = qtMajor == 6 ? QStringLiteral("NBServerApiQt6") : QStringLiteral("NBServerApi");
        static const QRegularExpression installed(
            QStringLiteral("^-- (?:Installing|Up-to-date): (.*)$"), QRegularExpression::MultilineOption);
        auto it = installed.globalMatch(output);
        while (it.hasNext())
            package.files << QDir(m_prefix).relativeFilePath(it.next().captured(1));
        packages << package;
        return !package.files.isEmpty();
    }

    // The Qt major a build folder was configured for, from its cache.
    static int qtMajorOf(const QString& buildDir)
    {
        QFile cache(buildDir + "/CMakeCache.txt");
        if (!cache.open(QIODevice::ReadOnly))
            return 0;
        static const QRegularExpression entry(
            QStringLiteral("^NB_QT_MAJOR:STRING=(\\d)$"), QRegularExpression::MultilineOption);
        return entry.match(QString::fromUtf8(cache.readAll())).captured(1).toInt();
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

    void packageRows()
    {
        QTest::addColumn<int>("index");
        for (int i = 0; i < m_packages.size(); ++i)
            QTest::newRow(qPrintable(m_packages.at(i).name)) << i;
    }

private slots:
    void initTestCase()
    {
        m_prefix = m_dir.filePath("prefix");
        QList<Package> other;
        const QString otherBuild = QStringLiteral(NB_SIDE_BY_SIDE_BUILD);
        if (!otherBuild.isEmpty()) {
            const int major = qtMajorOf(otherBuild);
            QVERIFY2(major == 5 || major == 6, qPrintable("not a configured build folder: " + otherBuild));
            QVERIFY(major != NB_QT_MAJOR);
            QVERIFY(install(otherBuild, major, other));
        }
        QVERIFY(install(QStringLiteral(NB_BUILD_DIR), NB_QT_MAJOR, m_packages));
        QCOMPARE(m_packages.first().name, QStringLiteral(NB_PACKAGE));
        m_packages += other;
    }

    // Library files, headers, CMake and pkg-config packages are each major's own; only the
    // programs and nbcli's manual and completions, the same on either, are replaced by the
    // last one installed.
    void bothMajorsInstallSideBySide()
    {
        if (m_packages.size() < 2)
            QSKIP("No build of the other Qt major given (NB_SIDE_BY_SIDE_BUILD)");
        QStringList shared;
        for (const QString& file : m_packages.at(0).files) {
            if (m_packages.at(1).files.contains(file))
                shared << file;
        }
        shared.sort();
        QCOMPARE(shared,
            (QStringList { "bin/nbcli", "bin/nbemu", "share/bash-completion/completions/nbcli",
                "share/man/man1/nbcli.1", "share/zsh/site-functions/_nbcli" }));
        for (const Package& package : m_packages) {
            for (const QString& file : package.files)
                QVERIFY2(QFileInfo::exists(m_prefix + "/" + file), qPrintable(file));
            QVERIFY(package.files.contains("lib/lib" + package.name + ".so"));
            QVERIFY(package.files.contains("include/" + package.name + "/INBSeverApi.h"));
            QVERIFY(
                package.files.contains("lib/cmake/" + package.name + "/" + package.name + "Config.cmake"));
            QVERIFY(package.files.contains("lib/pkgconfig/" + package.name + ".pc"));
        }
    }

    void onlyTheFacadeAndTheParserAreExported_data() { packageRows(); }
    void onlyTheFacadeAndTheParserAreExported()
    {
#ifdef NB_COVERAGE
        QSKIP("A coverage build emits Qt's inline functions as weak symbols of its own");
#endif
        QFETCH(int, index);
        const Package& package = m_packages.at(index);
        QString symbols;
        QCOMPARE(
            run("nm", { "-DC", "--defined-only", m_prefix + "/lib/lib" + package.name + ".so" }, &symbols),
            0);
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

    void hostBuildsWithFindPackage_data()
    {
        packageRows();
    }
    void hostBuildsWithFindPackage()
    {
        QFETCH(int, index);
        const Package& package = m_packages.at(index);
        const QString build = m_dir.filePath("cmake-host-" + package.name);
        QCOMPARE(run("cmake",
                     { "-S", QStringLiteral(NB_SOURCE_DIR) + "/examples", "-B", build,
                         "-DCMAKE_PREFIX_PATH=" + m_prefix, "-DCMAKE_BUILD_TYPE=Release",
                         "-DNB_QT_MAJOR=" + QString::number(package.qtMajor) }),
            0);
        QCOMPARE(run("cmake", { "--build", build }), 0);
        // The host links the package of its major, and that package's Qt.
        QString libraries;
        QCOMPARE(run("ldd", { build + "/nbhello" }, &libraries), 0);
        QVERIFY2(libraries.contains("lib" + package.name + ".so.1 => " + m_prefix), qPrintable(libraries));
        QVERIFY2(
            libraries.contains(QStringLiteral("libQt%1Core.so").arg(package.qtMajor)), qPrintable(libraries));
        checkHostTalksToTheServer(build + "/nbhello");
    }

    void hostBuildsWithPkgConfig_data()
    {
        packageRows();
    }
    void hostBuildsWithPkgConfig()
    {
        QFETCH(int, index);
        const Package& package = m_packages.at(index);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("PKG_CONFIG_PATH", m_prefix + "/lib/pkgconfig");
        QString flags;
        QCOMPARE(run("pkg-config", { "--cflags", "--libs", package.name }, &flags, environment), 0);
        const QString includeDir = flags.section(' ', 0, 0).mid(2);
        QCOMPARE(QFileInfo(includeDir).canonicalFilePath(),
            QFileInfo(m_prefix + "/include/" + package.name).canonicalFilePath());
        const QString program = m_dir.filePath("pkgconfig-host-" + package.name);
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
