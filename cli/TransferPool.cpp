#include "TransferPool.h"

#include "RemoteTree.h"

#include <QCoreApplication>
#include <QMutex>
#include <QThread>
#include <QTimer>
#include <QWaitCondition>
#include <atomic>
#include <memory>
#include <optional>
#include <vector>

TransferPool::TransferPool(RequestRunner& runner, RemoteTree& tree, int threads)
    : m_runner(runner)
    , m_tree(tree)
    , m_threads(qMax(1, threads))
{
}

void TransferPool::runHere(
    int count, const Work& work, const std::function<void(int, const Failure&)>& failed)
{
    for (int index = 0; index < count; ++index) {
        try {
            work(index, m_tree)();
        } catch (const Failure& failure) {
            if (failure.exit == Exit::Interrupted)
                throw;
            failed(index, failure);
        }
    }
}

void TransferPool::run(int count, const std::function<bool(int)>& heavy, const Work& work,
    const std::function<void(int, const Failure&)>& failed, const std::function<void()>& tick)
{
    const int threads = qMin(m_threads, count);
    if (threads <= 1)
        return runHere(count, work, failed);

    struct Shared
    {
        QMutex mutex;
        QWaitCondition freed; // a heavy transfer ended, or the run stops
        std::vector<bool> taken;
        int heavyRunning = 0;
        bool stop = false;
        QList<RequestRunner*> runners;
    };
    Shared shared;
    shared.taken.assign(size_t(count), false);
    int ended = 0;
    // Reports still queued for this thread when the run has ended are dropped.
    const auto alive = std::make_shared<bool>(true);

    const auto next = [&]() -> int {
        QMutexLocker lock(&shared.mutex);
        for (;;) {
            bool left = false;
            for (int index = 0; index < count && !shared.stop; ++index) {
                if (shared.taken[size_t(index)])
                    continue;
                left = true;
                if (heavy(index) && shared.heavyRunning > 0)
                    continue;
                shared.taken[size_t(index)] = true;
                shared.heavyRunning += heavy(index) ? 1 : 0;
                return index;
            }
            if (!left || shared.stop)
                return -1;
            shared.freed.wait(&shared.mutex);
        }
    };
    const auto worker = [&] {
        RequestRunner runner;
        runner.copySettings(m_runner);
        runner.setNotifier([&main = m_runner, alive](const QString& line) {
            QMetaObject::invokeMethod(
                &main, [&main, alive, line] { *alive ? main.notify(line) : void(); }, Qt::QueuedConnection);
        });
        const std::unique_ptr<RemoteTree> tree = m_tree.on(runner);
        {
            QMutexLocker lock(&shared.mutex);
            if (shared.stop)
                return;
            shared.runners << &runner;
        }
        for (int index = next(); index >= 0; index = next()) {
            Publish publish;
            std::optional<Failure> failure;
            try {
                publish = work(index, *tree);
            } catch (const Failure& problem) {
                failure = problem;
            }
            if (heavy(index)) {
                QMutexLocker lock(&shared.mutex);
                --shared.heavyRunning;
                shared.freed.wakeAll();
            }
            QMetaObject::invokeMethod(
                &m_runner,
                [&, alive, index, publish, failure] {
                    if (!*alive)
                        return;
                    if (failure)
                        failed(index, *failure);
                    else
                        publish();
                    ++ended;
                    m_runner.wake();
                },
                Qt::QueuedConnection);
            if (failure && failure->exit == Exit::Interrupted)
                break;
        }
        {
            QMutexLocker lock(&shared.mutex);
            shared.runners.removeOne(&runner);
        }
        // The library's last replies are cleaned up through this thread's events: run them
        // before the thread ends, which would leave them undone.
        for (int round = 0; round < 3; ++round) {
            QCoreApplication::sendPostedEvents();
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        }
    };

    std::vector<std::unique_ptr<QThread>> started;
    for (int i = 0; i < threads; ++i) {
        started.emplace_back(QThread::create(worker));
        started.back()->start();
    }
    const auto stopAll = [&] {
        {
            QMutexLocker lock(&shared.mutex);
            shared.stop = true;
            for (RequestRunner* runner : qAsConst(shared.runners))
                QMetaObject::invokeMethod(
                    runner, [runner] { runner->interrupt(); }, Qt::QueuedConnection);
            shared.freed.wakeAll();
        }
        for (const auto& thread : started)
            thread->wait();
        *alive = false;
    };
    QTimer ticks;
    QObject::connect(&ticks, &QTimer::timeout, tick);
    ticks.start(100);
    try {
        m_runner.waitFor([&] { return ended == count; });
    } catch (...) {
        stopAll();
        throw;
    }
    stopAll();
}
