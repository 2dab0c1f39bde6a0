// Bounded waits that keep the caller's event loop running without pauses (unlike
// QTest::qWaitFor, which sleeps between passes and starves streaming transfers).
#pragma once

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

template<typename Predicate> bool waitUntil(Predicate predicate, int timeoutMs)
{
    if (predicate())
        return true;
    QEventLoop loop;
    QTimer poll;
    QElapsedTimer clock;
    clock.start();
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (predicate() || clock.elapsed() >= timeoutMs)
            loop.quit();
    });
    poll.start(1);
    loop.exec();
    return predicate();
}
