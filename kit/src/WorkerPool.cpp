// Threads that run tasks.

#include <Wendrel/kit/WorkerPool.h>

#include <algorithm>
#include <utility>

namespace qv::kit
{

WorkerPool::WorkerPool(unsigned int threads, size_t queueLimit) : mQueueLimit(queueLimit)
{
    const unsigned int count = std::max(1u, threads);
    mThreads.reserve(count);
    try {
        for (unsigned int i = 0; i < count; ++i)
            mThreads.emplace_back(&WorkerPool::work, this);
    } catch (...) {
        stop();  // those that did start
        throw;
    }
}

WorkerPool::~WorkerPool()
{
    stop();
}

bool WorkerPool::submit(Task task)
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mStopping || mQueue.size() >= mQueueLimit)
            return false;
        mQueue.push_back(std::move(task));
    }
    mTaskQueued.notify_one();
    return true;
}

void WorkerPool::stop()
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
    }
    mTaskQueued.notify_all();
    for (std::thread& thread : mThreads) {
        if (thread.joinable())
            thread.join();
    }
}

size_t WorkerPool::getQueuedCount() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mQueue.size();
}

void WorkerPool::work()
{
    std::unique_lock<std::mutex> lock(mMutex);
    while (true) {
        mTaskQueued.wait(lock, [this] { return mStopping || !mQueue.empty(); });
        if (mQueue.empty())
            return;
        Task task = std::move(mQueue.front());
        mQueue.pop_front();
        lock.unlock();
        task();
        task = nullptr;  // what it holds is released without the lock
        lock.lock();
    }
}

}  // namespace qv::kit
