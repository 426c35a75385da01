#ifndef QVSYSTEM_QVMUTEX_H
#define QVSYSTEM_QVMUTEX_H

#include <qvSystem/Export.h>
#include <qvSystem/ThreadSafety.h>

#include <mutex>

namespace qv
{

/// A plain lock: not recursive, owned by the thread that took it.
///
/// May be destroyed by a thread that has just taken and released it, also while the
/// thread before it is still returning from `unlock`.
class QV_EXPORT QV_CAPABILITY("mutex") qvMutex
{
public:
    /// Free at first.
    qvMutex();

    /// It must be free.
    ~qvMutex();
    qvMutex(const qvMutex&) = delete;
    qvMutex& operator=(const qvMutex&) = delete;

    /// Waits until the lock is free and takes it.
    void lock() QV_ACQUIRE();

    /// Releases the lock. Only the thread that holds it may call this.
    void unlock() QV_RELEASE();

private:
    friend class qvWaitCondition;
    std::mutex mMutex;
};

/// Holds a qvMutex for as long as it lives, except between `unlock` and `relock`.
class QV_EXPORT QV_SCOPED_CAPABILITY qvMutexLocker
{
public:
    /// Takes `mutex`, which must outlive the locker (unless unlocked before). Never null.
    explicit qvMutexLocker(qvMutex* mutex) QV_ACQUIRE(mutex);

    /// Releases the mutex if it is held.
    ~qvMutexLocker() QV_RELEASE();

    qvMutexLocker(const qvMutexLocker&) = delete;
    qvMutexLocker& operator=(const qvMutexLocker&) = delete;

    /// Releases the mutex early. Does nothing when it is not held.
    /// The mutex is not touched again after this returns, unless `relock` is called.
    void unlock() QV_RELEASE();

    /// Takes the mutex again after `unlock`. Does nothing when it is held.
    void relock() QV_ACQUIRE();

private:
    qvMutex* mMutex;
    bool mHeld;
};

}  // namespace qv

#endif
