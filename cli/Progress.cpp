#include "Progress.h"

#include "Console.h"

#include <QThread>

Progress::Progress(Console& console, qint64 totalBytes, int totalFiles)
    : m_console(console)
    , m_totalBytes(totalBytes)
    , m_totalFiles(totalFiles)
    , m_owner(QThread::currentThreadId())
{
    m_clock.start();
}

void Progress::beginFile(const QString& name, qint64 bytes)
{
    {
        QMutexLocker lock(&m_mutex);
        ++m_begun;
        m_current.insert(QThread::currentThreadId(), File { name, bytes, 0, 0 });
    }
    show(false);
}

void Progress::setDone(qint64 bytes, qint64 moved)
{
    {
        QMutexLocker lock(&m_mutex);
        File& file = m_current[QThread::currentThreadId()];
        file.done = qBound<qint64>(0, bytes, file.bytes);
        file.moved = moved < 0 ? file.done : qBound<qint64>(0, moved, file.bytes);
    }
    show(false);
}

void Progress::endFile()
{
    {
        QMutexLocker lock(&m_mutex);
        File& file = m_current[QThread::currentThreadId()];
        file.done = file.bytes;
    }
    show(true);
    QMutexLocker lock(&m_mutex);
    const File file = m_current.take(QThread::currentThreadId());
    m_earlierDone += file.bytes;
    m_earlierMoved += file.moved;
}

void Progress::tick()
{
    show(false);
}

void Progress::finish()
{
    m_console.endProgress();
}

QString Progress::bytes(qint64 count)
{
    static const char* const units[] = { "B", "KiB", "MiB", "GiB", "TiB" };
    double value = double(count);
    int unit = 0;
    while (value >= 1024 && unit < 4) {
        value /= 1024;
        ++unit;
    }
    return unit == 0 ? QStringLiteral("%1 B").arg(count)
                     : QStringLiteral("%1 %2").arg(value, 0, 'f', 1).arg(units[unit]);
}

QString Progress::rate(qint64 count, qint64 ms)
{
    return bytes(ms > 0 ? count * 1000 / ms : count) + QStringLiteral("/s");
}

void Progress::show(bool force)
{
    if (QThread::currentThreadId() != m_owner)
        return;
    const qint64 now = m_clock.elapsed();
    // A terminal gets ten redraws a second; a pipe a line every five seconds, and none
    // for transfers shorter than that (with --progress a line a second from the start).
    const bool terminal = m_console.errIsTerminal();
    const qint64 interval = terminal ? 100 : m_console.progressInPipes ? 1000 : 5000;
    const bool due = m_lastShown < 0 ? (terminal || m_console.progressInPipes || now >= interval)
                                     : now - m_lastShown >= interval;
    if (!(due || (force && terminal)))
        return;
    m_lastShown = now;
    QMutexLocker lock(&m_mutex);
    qint64 done = m_earlierDone;
    qint64 moved = m_earlierMoved;
    for (const File& file : qAsConst(m_current)) {
        done += file.done;
        moved += file.moved;
    }
    QString left = QStringLiteral("--:--");
    if (done > 0 && now > 0) {
        const qint64 seconds = qMax<qint64>(0, m_totalBytes - done) * now / done / 1000;
        left = QString::number(seconds / 60) + QLatin1Char(':')
            + QStringLiteral("%1").arg(seconds % 60, 2, 10, QLatin1Char('0'));
    }
    QString text;
    if (m_current.size() == 1) {
        const File& file = *m_current.cbegin();
        const int percent = file.bytes > 0 ? int(file.done * 100 / file.bytes) : 100;
        // The name is joined, not substituted: no text in it is read as a placeholder.
        text = file.name + QLatin1Char(' ') + bytes(file.done) + QLatin1Char('/') + bytes(file.bytes)
            + QLatin1Char(' ') + QString::number(percent) + QStringLiteral("% | ");
    } else if (m_current.size() > 1) {
        text = QStringLiteral("%1 files in flight | ").arg(QString::number(m_current.size()));
    }
    if (m_totalFiles > 1)
        text += QStringLiteral("file %1 of %2, %3/%4 | ")
                    .arg(QString::number(m_begun), QString::number(m_totalFiles), bytes(done),
                        bytes(m_totalBytes));
    text += QStringLiteral("%1 sent, %2, %3 left").arg(bytes(moved), rate(moved, now), left);
    lock.unlock();
    m_console.progress(text);
}
