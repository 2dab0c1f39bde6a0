// QMutexLocker, told to ThreadSanitizer. Qt's own library is not instrumented, so
// when a locked QMutex is handed to a waiting thread the sanitizer sees no ordering
// between the two and would report every guarded access; the annotations state it.
// In other builds it is a plain scoped lock, as QMutexLocker is.
#pragma once

#include <QMutex>

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
    {
        m_mutex->lock();
        NB_TSAN_ACQUIRE(m_mutex);
    }
    ~NBMutexLocker()
    {
        if (m_locked)
            unlock();
    }
    NBMutexLocker(const NBMutexLocker&) = delete;
    NBMutexLocker& operator=(const NBMutexLocker&) = delete;

    void unlock()
    {
        NB_TSAN_RELEASE(m_mutex);
        m_locked = false;
        m_mutex->unlock();
    }

private:
    QMutex* m_mutex;
    bool m_locked = true;
};
