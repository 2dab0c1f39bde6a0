// nbcli as a test runs it: a process with a clean environment (no NB_* variable unless
// given), its standard input written and closed, its output and exit status kept. A
// run whose output to a pipe holds a carriage return or an escape byte is noted.
#pragma once

#include "Wait.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QStandardPaths>
#include <QStringList>
#include <memory>

struct CliRun
{
    int exit = -1;
    QString out;
    QString err;

    // The one JSON document of a --json run.
    QJsonObject document() const { return QJsonDocument::fromJson(out.toUtf8()).object(); }
    QJsonArray results() const { return document().value("results").toArray(); }
};

// The sign-in nbcli keeps in the configuration folder of the test's home.
inline QJsonObject storedSignIn()
{
    QFile file(
        QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/nbcli/session.json");
    file.open(QIODevice::ReadOnly);
    return QJsonDocument::fromJson(file.readAll()).object();
}

class CliProcess
{
public:
    explicit CliProcess(const QString& program)
        : m_program(program)
    {
    }

    QProcessEnvironment environment(const QMap<QString, QString>& extra) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const QString& name : env.keys()) {
            if (name.startsWith(QLatin1String("NB_")))
                env.remove(name);
        }
        for (auto it = extra.cbegin(); it != extra.cend(); ++it)
            env.insert(it.key(), it.value());
        return env;
    }

    CliRun run(const QStringList& args, const QMap<QString, QString>& env = {}, const QByteArray& input = {},
        int timeoutMs = 180000, const QString& workingDirectory = QString())
    {
        QProcess process;
        process.setProcessEnvironment(environment(env));
        if (!workingDirectory.isEmpty())
            process.setWorkingDirectory(workingDirectory);
        process.start(m_program, args);
        process.waitForStarted(10000);
        process.write(input);
        process.closeWriteChannel();
        CliRun result;
        if (!process.waitForFinished(timeoutMs)) {
            process.kill();
            process.waitForFinished(5000);
            result.err = QStringLiteral("(killed after %1 ms) ").arg(timeoutMs);
        }
        result.exit = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        result.out = QString::fromUtf8(process.readAllStandardOutput());
        result.err += QString::fromUtf8(process.readAllStandardError());
        if (result.out.contains(QLatin1Char('\r')) || result.err.contains(QLatin1Char('\r'))
            || result.out.contains(QChar(0x1b)) || result.err.contains(QChar(0x1b)))
            dirty << args.join(QLatin1Char(' '));
        return result;
    }

    std::unique_ptr<QProcess> start(const QStringList& args, const QMap<QString, QString>& env = {})
    {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(environment(env));
        process->start(m_program, args);
        process->waitForStarted(10000);
        return process;
    }

    // Runs whose output to a pipe held a carriage return or an escape byte.
    QStringList dirty;

private:
    QString m_program;
};

#define CLI_OK(run)                                                                                          \
    do {                                                                                                     \
        const CliRun& r_ = (run);                                                                            \
        QVERIFY2(r_.exit == 0,                                                                               \
            qPrintable(QStringLiteral("exit %1\n%2\n%3").arg(QString::number(r_.exit), r_.out, r_.err)));    \
    } while (false)
