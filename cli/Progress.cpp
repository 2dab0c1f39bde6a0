#include "Progress.h"

#include "Console.h"

Progress::Progress(Console& console, qint64 totalBytes, int totalFiles)
    : m_console(console)
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
    show(false);
}

void Progress::setDone(qint64 bytes)
{
    m_fileDone = qBound<qint64>(0, bytes, m_fileBytes);
    show(false);
}

void Progress::endFile()
{
    m_fileDone = m_fileBytes;
    show(true);
    m_earlierDone += m_fileBytes;
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
    // for transfers shorter than that.
    const qint64 interval = m_console.errIsTerminal() ? 100 : 5000;
    if (m_console.errIsTerminal() ? (!force && m_lastShown >= 0 && now - m_lastShown < interval)
                                  : (now < interval || (m_lastShown >= 0 && now - m_lastShown < interval)))
        return;
    m_lastShown = now;
    const qint64 done = m_earlierDone + m_fileDone;
    QString left = QStringLiteral("--:--");
    if (done > 0 && now > 0) {
        const qint64 seconds = (m_totalBytes - done) * now / done / 1000;
        left = QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0'));
    }
    const int percent = m_fileBytes > 0 ? int(m_fileDone * 100 / m_fileBytes) : 100;
    QString text
        = QStringLiteral("%1 %2/%3 %4% | ").arg(m_name, bytes(m_fileDone), bytes(m_fileBytes)).arg(percent);
    if (m_totalFiles > 1)
        text += QStringLiteral("file %1 of %2, %3/%4 | ")
                    .arg(m_file)
                    .arg(m_totalFiles)
                    .arg(bytes(done), bytes(m_totalBytes));
    text += QStringLiteral("%1, %2 left").arg(rate(done, now), left);
    m_console.progress(text);
}
