// Workers share one queue; a thread is woken only when one waits that nobody has woken yet.

#include "WorkerPool.h"

#include <qvSystem/Rollback.h>

#include <utility>

namespace qv::kit
{

WorkerPool::WorkerPool(Serve serve) : mServe(std::move(serve)) {}

WorkerPool::~WorkerPool()
{
    stop();
}

void WorkerPool::start(unsigned threads, size_t queueLimit)
{
    {
        const qvMutexLocker locker(&mMutex);
        mQueueLimit = queueLimit;
        mIsRunning = true;
    }
    Rollback started([this] { stop(); });
    mThreads.reserve(threads);
    for (unsigned i = 0; i < threads; ++i)
        mThreads.emplace_back(&WorkerPool::work, this);
    started.commit();
}

bool WorkerPool::submit(Exchange& exchange)
{
    bool wakes = false;
    {
        const qvMutexLocker locker(&mMutex);
        if (!mIsRunning || mQueue.size() >= mQueueLimit)
            return false;
        mQueue.push_back(&exchange);
        wakes = mWaiting > mWoken;
        if (wakes)
            ++mWoken;
    }
    if (wakes)
        mQueued.wakeOne();
    return true;
}

void WorkerPool::stop()
{
    {
        const qvMutexLocker locker(&mMutex);
        mIsRunning = false;
    }
    mQueued.wakeAll();
    for (std::thread& thread : mThreads)
        thread.join();
    mThreads.clear();
}

void WorkerPool::work()
{
    while (Exchange* const exchange = take())
        mServe(*exchange);
}

// Null when the pool stops.
Exchange* WorkerPool::take()
{
    const qvMutexLocker locker(&mMutex);
    while (mQueue.empty()) {
        if (!mIsRunning)
            return nullptr;
        ++mWaiting;
        mQueued.wait(&mMutex, qvWaitCondition::kNoTimeout);
        --mWaiting;
        if (mWoken != 0)
            --mWoken;
    }
    Exchange* const exchange = mQueue.front();
    mQueue.pop_front();
    return exchange;
}

}  // namespace qv::kit
