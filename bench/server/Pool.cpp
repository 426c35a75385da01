// A pool of threads with one queue.

#include "server/Pool.h"

#include <utility>

namespace bench
{

Pool::Pool(unsigned threads, size_t queueLimit) : mQueueLimit(queueLimit)
{
    for (unsigned i = 0; i < threads; ++i)
        mThreads.emplace_back(&Pool::work, this);
}

Pool::~Pool()
{
    {
        const std::lock_guard locker(mMutex);
        mIsStopping = true;
    }
    mQueued.notify_all();
    for (std::thread& thread : mThreads)
        thread.join();
}

bool Pool::submit(std::function<void()> task)
{
    bool wakes = false;
    {
        const std::lock_guard locker(mMutex);
        if (mQueue.size() >= mQueueLimit)
            return false;
        mQueue.push_back(std::move(task));
        wakes = mWaiting != 0;
    }
    if (wakes)
        mQueued.notify_one();
    return true;
}

void Pool::work()
{
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock locker(mMutex);
            ++mWaiting;
            mQueued.wait(locker, [this] { return mIsStopping || !mQueue.empty(); });
            --mWaiting;
            if (mQueue.empty())
                return;
            task = std::move(mQueue.front());
            mQueue.pop_front();
        }
        task();
    }
}

}  // namespace bench
