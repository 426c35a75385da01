// Threads that run tasks.

#include <Wendrel/kit/WorkerPool.h>

#include <qvSystem/Rollback.h>

#include <algorithm>
#include <utility>

namespace qv::kit
{

WorkerPool::WorkerPool(unsigned int threads, size_t queueLimit) : mQueueLimit(queueLimit)
{
    const unsigned int count = std::max(1u, threads);
    mThreads.reserve(count);
    Rollback started([this] { stop(); });
    for (unsigned int i = 0; i < count; ++i)
        mThreads.emplace_back(&WorkerPool::work, this);
    started.commit();
}

WorkerPool::~WorkerPool()
{
    stop();
}

bool WorkerPool::submit(Task task)
{
    {
        const qvMutexLocker locker(&mMutex);
        if (mStopping || mQueue.size() >= mQueueLimit)
            return false;
        mQueue.push_back(std::move(task));
    }
    mTaskQueued.wakeOne();
    return true;
}

void WorkerPool::stop()
{
    {
        const qvMutexLocker locker(&mMutex);
        mStopping = true;
    }
    mTaskQueued.wakeAll();
    for (std::thread& thread : mThreads) {
        if (thread.joinable())
            thread.join();
    }
}

size_t WorkerPool::getQueuedCount() const
{
    const qvMutexLocker locker(&mMutex);
    return mQueue.size();
}

void WorkerPool::work()
{
    // What a task holds is released without the lock.
    while (const std::optional<Task> task = takeTask())
        (*task)();
}

// Waits for the next one; none when the pool stops.
std::optional<WorkerPool::Task> WorkerPool::takeTask()
{
    const qvMutexLocker locker(&mMutex);
    while (!mStopping && mQueue.empty())
        mTaskQueued.wait(&mMutex, qvWaitCondition::kNoTimeout);
    if (mQueue.empty())
        return std::nullopt;
    std::optional<Task> task(std::move(mQueue.front()));
    mQueue.pop_front();
    return task;
}

}  // namespace qv::kit
