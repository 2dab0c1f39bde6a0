#include "Progress.h"

#include "Console.h"
#include "RequestRunner.h"

Progress::Progress(Console& console, RequestRunner& runner, qint64 totalBytes, int totalFiles)
    : m_console(console)
    , m_runner(runner)
    , m_totalBytes(totalBytes)
    , m_totalFiles(totalFiles)
{
    m_clock.start();
}

void Progress::beginFile(const QString& name, qint64 bytes)
{
    ++m_file;
    m_name = name;
    m_fileBytes = bytes;
    m_fileDone = 0;
    m_fileMoved = 0;
    show(false);
}

void Progress::setDone(qint64 bytes, qint64 moved)
{
    m_fileDone = qBound<qint64>(0, bytes, m_fileBytes);
    m_fileMoved = moved < 0 ? m_fileDone : qBound<qint64>(0, moved, m_fileBytes);
    m_runner.touch();
    show(false);
}

void Progress::endFile()
{
    m_fileDone = m_fileBytes;
    show(true);
    m_earlierDone += m_fileBytes;
    m_earlierMoved += m_fileMoved;
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
    const qint64 done = m_earlierDone + m_fileDone;
    const qint64 moved = m_earlierMoved + m_fileMoved;
    QString left = QStringLiteral("--:--");
    if (done > 0 && now > 0) {
        const qint64 seconds = (m_totalBytes - done) * now / done / 1000;
        left = QString::number(seconds / 60) + QLatin1Char(':')
            + QStringLiteral("%1").arg(seconds % 60, 2, 10, QLatin1Char('0'));
    }
    const int percent = m_fileBytes > 0 ? int(m_fileDone * 100 / m_fileBytes) : 100;
    // The name is joined, not substituted: no text in it is read as a placeholder.
    QString text = m_name + QLatin1Char(' ') + bytes(m_fileDone) + QLatin1Char('/') + bytes(m_fileBytes)
        + QLatin1Char(' ') + QString::number(percent) + QStringLiteral("% | ");
    if (m_totalFiles > 1)
        text += QStringLiteral("file %1 of %2, %3/%4 | ")
                    .arg(QString::number(m_file), QString::number(m_totalFiles), bytes(done),
                        bytes(m_totalBytes));
    text += QStringLiteral("%1 sent, %2, %3 left").arg(bytes(moved), rate(moved, now), left);
    m_console.progress(text);
}
