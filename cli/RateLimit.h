// A budget of bytes per second shared by every transfer of a run (--bwlimit), on any
// thread: a transfer reserves its bytes before it sends or asks for them and waits as
// long as the budget says, so that on average the run stays under the rate.
#pragma once

#include <QElapsedTimer>
#include <QMutex>
#include <QtGlobal>

class RateLimit
{
public:
    // 0: no limit.
    explicit RateLimit(qint64 bytesPerSecond = 0);

    bool limited() const { return m_rate > 0; }
    // Milliseconds to wait before `bytes` may go; they are counted as gone then.
    int reserve(qint64 bytes);
    // A request's size under the limit: about a quarter of a second's worth, from
    // 64 KiB up to `most` (`most` itself without a limit).
    qint64 span(qint64 most) const;

private:
    const qint64 m_rate;
    QMutex m_mutex;
    QElapsedTimer m_clock;
    double m_free = 0; // when the budget is free again, ms on m_clock
};
