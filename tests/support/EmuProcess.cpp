#include "EmuProcess.h"

#include "Wait.h"

#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>
#include <QUrlQuery>
#include <csignal>

EmuProcess::EmuProcess(const QStringList& arguments, int type)
    : m_arguments(arguments)
    , m_type(type)
{
    start();
}

EmuProcess::~EmuProcess()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.terminate();
        if (!m_process.waitForFinished(10000))
            m_process.kill();
        m_process.waitForFinished(5000);
    } else if (m_port != 0) {
        // Gone without being told: whatever it printed last (a sanitizer's report) says why.
        qWarning("nbemu ended on its own with status %d: %s", m_process.exitCode(),
            m_process.readAllStandardError().right(4000).constData());
    }
}

bool EmuProcess::start()
{
    const QString portFile = m_dir.filePath("port");
    QFile::remove(portFile);
    m_port = 0;
    QStringList arguments { "--data", dataDir(), "--port-file", portFile, "--log",
        m_dir.filePath("requests.log"), "--type", QString::number(m_type), "--control" };
    arguments += m_arguments;
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    m_process.start(QStringLiteral(NBEMU_PATH), arguments);
    if (!m_process.waitForStarted(10000))
        return false;
    // Ready when the port file appears; bounded.
    for (int i = 0; i < 200 && m_port == 0; ++i) {
        QFile file(portFile);
        if (file.open(QIODevice::ReadOnly))
            m_port = quint16(file.readAll().trimmed().toUInt());
        if (m_port == 0) {
            if (m_process.state() == QProcess::NotRunning)
                break;
            m_process.waitForReadyRead(50);
        }
    }
    m_output += QString::fromUtf8(m_process.readAllStandardOutput());
    if (m_port == 0)
        qWarning("nbemu did not start: %s", m_process.readAllStandardError().constData());
    return m_port != 0;
}

bool EmuProcess::printed(const QString& text)
{
    for (int i = 0; i < 200 && !m_output.contains(text); ++i) {
        m_process.waitForReadyRead(50);
        m_output += QString::fromUtf8(m_process.readAllStandardOutput());
    }
    return m_output.contains(text);
}

QString EmuProcess::url(const QString& path) const
{
    return QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path);
}

QJsonObject EmuProcess::control(
    const QString& method, const QString& path, const QList<QPair<QString, QString>>& form)
{
    QNetworkAccessManager manager;
    QNetworkRequest request(QUrl(url(path)));
    QUrlQuery query;
    for (const auto& item : form)
        query.addQueryItem(item.first, QString::fromLatin1(QUrl::toPercentEncoding(item.second)));
    QNetworkReply* reply;
    if (method == QLatin1String("GET")) {
        QUrl address(url(path));
        address.setQuery(query);
        reply = manager.get(QNetworkRequest(address));
    } else {
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/x-www-form-urlencoded");
        reply = manager.post(request, query.query(QUrl::FullyEncoded).toUtf8());
    }
    waitUntil([reply] { return reply->isFinished(); }, 10000);
    const QJsonObject object = QJsonDocument::fromJson(reply->readAll()).object();
    delete reply;
    return object;
}

QList<QJsonObject> EmuProcess::requests() const
{
    QList<QJsonObject> lines;
    QFile file(m_dir.filePath("requests.log"));
    if (!file.open(QIODevice::ReadOnly))
        return lines;
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (!line.isEmpty())
            lines.append(QJsonDocument::fromJson(line).object());
    }
    return lines;
}

int EmuProcess::requestCount(const QString& pathPart) const
{
    int count = 0;
    for (const QJsonObject& line : requests())
        count += line.value("target").toString().contains(pathPart) ? 1 : 0;
    return count;
}

void EmuProcess::kill()
{
    m_process.kill();
    m_process.waitForFinished(5000);
    m_port = 0;
}

void EmuProcess::pause(bool paused)
{
    ::kill(pid_t(m_process.processId()), paused ? SIGSTOP : SIGCONT);
}

bool EmuProcess::restart()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.terminate();
        m_process.waitForFinished(10000);
    }
    return start();
}
