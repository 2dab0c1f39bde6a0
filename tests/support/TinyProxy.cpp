#include "TinyProxy.h"

#include <QFile>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

TinyProxy::TinyProxy()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    const quint16 port = probe.serverPort();
    probe.close();

    const QString config = m_dir.filePath(QStringLiteral("tinyproxy.conf"));
    QFile file(config);
    file.open(QIODevice::WriteOnly);
    file.write(QStringLiteral("Port %1\nListen 127.0.0.1\nTimeout 30\nLogFile \"%2\"\nLogLevel Info\n"
                              "MaxClients 20\nAllow 127.0.0.1\n")
                   .arg(port)
                   .arg(m_dir.filePath(QStringLiteral("tinyproxy.log")))
                   .toUtf8());
    file.close();

    m_process.setProcessChannelMode(QProcess::ForwardedChannels);
    m_process.start(QStringLiteral("tinyproxy"), { QStringLiteral("-d"), QStringLiteral("-c"), config });
    if (!m_process.waitForStarted(5000)) {
        qWarning("tinyproxy did not start");
        return;
    }
    const bool listening = QTest::qWaitFor(
        [port] {
            QTcpSocket socket;
            socket.connectToHost(QHostAddress::LocalHost, port);
            return socket.waitForConnected(200);
        },
        10000);
    if (listening)
        m_port = port;
}

TinyProxy::~TinyProxy()
{
    m_process.terminate();
    if (!m_process.waitForFinished(5000)) {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
}

QString TinyProxy::log() const
{
    QFile file(m_dir.filePath(QStringLiteral("tinyproxy.log")));
    file.open(QIODevice::ReadOnly);
    return QString::fromUtf8(file.readAll());
}
