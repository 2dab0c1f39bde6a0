// QMutexLocker, told to ThreadSanitizer. Qt's own library is not instrumented, so
// when a locked QMutex is handed to a waiting thread the sanitizer sees no ordering
// between the two and would report every guarded access; the annotations state it.
// In other builds this is QMutexLocker.
#pragma once

#include <QMutexLocker>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#define NB_TSAN_ACQUIRE(address) __tsan_acquire(address)
#define NB_TSAN_RELEASE(address) __tsan_release(address)
#else
#define NB_TSAN_ACQUIRE(address) ((void)0)
#define NB_TSAN_RELEASE(address) ((void)0)
#endif

class NBMutexLocker
{
public:
    explicit NBMutexLocker(QMutex* mutex)
        : m_mutex(mutex)
        , m_locker(mutex)
    {
        NB_TSAN_ACQUIRE(m_mutex);
    }
    ~NBMutexLocker()
    {
        if (m_locked)
            NB_TSAN_RELEASE(m_mutex);
    }
    NBMutexLocker(const NBMutexLocker&) = delete;
    NBMutexLocker& operator=(const NBMutexLocker&) = delete;

    void unlock()
    {
        NB_TSAN_RELEASE(m_mutex);
        m_locked = false;
        m_locker.unlock();
    }

private:
    QMutex* m_mutex;
    QMutexLocker m_locker;
    bool m_locked = true;
};
