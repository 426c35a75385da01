// Workers share the queues; a thread is woken only when one waits that nobody has woken yet.

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
        wakes = noteWaking();
    }
    if (wakes)
        mQueued.wakeOne();
    return true;
}

bool WorkerPool::run(std::function<void()> task)
{
    bool wakes = false;
    {
        const qvMutexLocker locker(&mMutex);
        if (!mIsRunning)
            return false;
        mTasks.push_back(std::move(task));
        wakes = noteWaking();
    }
    if (wakes)
        mQueued.wakeOne();
    return true;
}

std::pair<size_t, size_t> WorkerPool::queueLengths()
{
    const qvMutexLocker locker(&mMutex);
    return {mQueue.size(), mTasks.size()};
}

// Whether a thread is to be woken.
bool WorkerPool::noteWaking()
{
    const bool wakes = mWaiting > mWoken;
    if (wakes)
        ++mWoken;
    return wakes;
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
    for (;;) {
        const Job job = take();
        if (job.exchange)
            mServe(*job.exchange);
        else if (job.task)
            job.task();
        else
            return;
    }
}

WorkerPool::Job WorkerPool::take()
{
    const qvMutexLocker locker(&mMutex);
    while (mQueue.empty() && mTasks.empty()) {
        if (!mIsRunning)
            return {};
        ++mWaiting;
        mQueued.wait(&mMutex, qvWaitCondition::kNoTimeout);
        --mWaiting;
        if (mWoken != 0)
            --mWoken;
    }
    Job job;
    if (mQueue.empty() || (mIsTaskNext && !mTasks.empty())) {
        job.task = std::move(mTasks.front());
        mTasks.pop_front();
        mIsTaskNext = false;
    } else {
        job.exchange = mQueue.front();
        mQueue.pop_front();
        mIsTaskNext = true;
    }
    return job;
}

}  // namespace qv::kit
