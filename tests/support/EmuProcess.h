// nbemu as a test starts it: its own data folder, a free port read from the port file,
// the control interface on and the request log in a file. Stopped (SIGTERM) when the
// object goes; kill() ends it like a crash, restart() brings it back on the same data.
#pragma once

#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

class EmuProcess
{
public:
    // `arguments` come after the data, port, log and control options.
    explicit EmuProcess(const QStringList& arguments = { "--user", "alice:secret" }, int type = 1);
    ~EmuProcess();

    bool isRunning() const { return m_port != 0; }
    quint16 port() const { return m_port; }
    QString url(const QString& path = QString()) const;
    QString dataDir() const { return m_dir.filePath("data"); }

    // A request to the control interface (or any route), answered as JSON; bounded wait.
    QJsonObject control(
        const QString& method, const QString& path, const QList<QPair<QString, QString>>& form = {});
    // The request log: one JSON object per request.
    QList<QJsonObject> requests() const;
    int requestCount(const QString& pathPart) const;
    // Whether the program printed the text on standard output, waiting for it (bounded):
    // the port file is written before the banner.
    bool printed(const QString& text);

    void kill();
    // Stops the process where it is (SIGSTOP) or lets it go on (SIGCONT).
    void pause(bool paused);
    bool restart();
    bool start();

private:
    QTemporaryDir m_dir;
    QStringList m_arguments;
    int m_type;
    QProcess m_process;
    quint16 m_port = 0;
    QString m_output;
};
