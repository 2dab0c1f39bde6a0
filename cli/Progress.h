// Transfer progress on standard error: the current file and the whole run (bytes, the
// rate of what actually went over the network, time left). On a terminal it is redrawn
// in place at most ten times a second; in a pipe a plain line every five seconds once a
// transfer has run that long (with --progress every second); with -q nothing. Every
// report also tells the request runner that the transfer is alive.
#pragma once

#include <QElapsedTimer>
#include <QString>

class Console;
class RequestRunner;

class Progress
{
public:
    Progress(Console& console, RequestRunner& runner, qint64 totalBytes, int totalFiles);

    void beginFile(const QString& name, qint64 bytes);
    // Bytes of the current file done so far (sent, received or found on the server), and
    // of those the ones that went over the network (-1: all of them).
    void setDone(qint64 bytes, qint64 moved = -1);
    void endFile();
    void finish();

    static QString bytes(qint64 count);
    static QString rate(qint64 count, qint64 ms);

private:
    void show(bool force);

    Console& m_console;
    RequestRunner& m_runner;
    qint64 m_totalBytes;
    int m_totalFiles;
    int m_file = 0;
    QString m_name;
    qint64 m_fileBytes = 0;
    qint64 m_fileDone = 0;
    qint64 m_earlierDone = 0;
    qint64 m_fileMoved = 0;
    qint64 m_earlierMoved = 0;
    QElapsedTimer m_clock;
    qint64 m_lastShown = -1;
};
