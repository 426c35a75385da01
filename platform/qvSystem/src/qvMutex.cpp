// The lock and its holder.

#include <qvSystem/qvMutex.h>

namespace qv
{

qvMutex::qvMutex() = default;

qvMutex::~qvMutex() = default;

void qvMutex::lock()
{
    mMutex.lock();
}

void qvMutex::unlock()
{
    mMutex.unlock();
}

qvMutexLocker::qvMutexLocker(qvMutex* mutex) : mMutex(mutex), mHeld(true)
{
    mMutex->lock();
}

qvMutexLocker::~qvMutexLocker()
{
    unlock();
}

void qvMutexLocker::unlock()
{
    if (!mHeld)
        return;
    mHeld = false;
    mMutex->unlock();
}

void qvMutexLocker::relock()
{
    if (mHeld)
        return;
    mMutex->lock();
    mHeld = true;
}

}  // namespace qv
