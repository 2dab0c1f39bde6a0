// A real HTTP proxy for tests: Debian's tinyproxy on a free loopback port, with its
// own configuration and log, stopped when the object goes.
#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

class TinyProxy
{
public:
    TinyProxy();
    ~TinyProxy();

    bool isRunning() const { return m_port != 0; }
    quint16 port() const { return m_port; }
    QString url() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_port); }
    // What the proxy wrote to its log so far.
    QString log() const;

private:
    QTemporaryDir m_dir;
    QProcess m_process;
    quint16 m_port = 0;
};
