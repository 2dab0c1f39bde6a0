#include "RateLimit.h"

RateLimit::RateLimit(qint64 bytesPerSecond)
    : m_rate(bytesPerSecond)
{
    m_clock.start();
}

int RateLimit::reserve(qint64 bytes)
{
    if (m_rate <= 0)
        return 0;
    QMutexLocker lock(&m_mutex);
    const double now = double(m_clock.elapsed());
    const double start = qMax(m_free, now);
    m_free = start + double(bytes) * 1000.0 / double(m_rate);
    return int(start - now);
}

qint64 RateLimit::span(qint64 most) const
{
    if (m_rate <= 0)
        return most;
    return qBound<qint64>(64 << 10, m_rate / 4, most);
}
