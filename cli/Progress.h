// Transfer progress on standard error: the files in flight and the whole run (bytes, the
// rate of what actually went over the network, time left). On a terminal it is redrawn
// in place at most ten times a second; in a pipe a plain line every five seconds once a
// transfer has run that long (with --progress every second); with -q nothing.
//
// Files may be transferred on several threads at once: each thread reports its own
// file, and only the thread that made the Progress draws (the others' reports are drawn
// at its next report or tick()).
#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QMutex>
#include <QString>

class Console;

class Progress
{
public:
    Progress(Console& console, qint64 totalBytes, int totalFiles);

    // The file of the calling thread.
    void beginFile(const QString& name, qint64 bytes);
    // Bytes of the current file done so far (sent, received or found on the server), and
    // of those the ones that went over the network (-1: all of them).
    void setDone(qint64 bytes, qint64 moved = -1);
    void endFile();
    // Draws what the other threads reported, when due (the drawing thread only).
    void tick();
    void finish();

    static QString bytes(qint64 count);
    static QString rate(qint64 count, qint64 ms);

private:
    struct File
    {
        QString name;
        qint64 bytes = 0;
        qint64 done = 0;
        qint64 moved = 0;
    };
    void show(bool force);

    Console& m_console;
    qint64 m_totalBytes;
    int m_totalFiles;
    Qt::HANDLE m_owner;
    QMutex m_mutex;
    QHash<Qt::HANDLE, File> m_current; // by thread
    int m_begun = 0;
    qint64 m_earlierDone = 0;
    qint64 m_earlierMoved = 0;
    QElapsedTimer m_clock;
    qint64 m_lastShown = -1;
};
