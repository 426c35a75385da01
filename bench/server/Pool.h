// A pool of threads with one queue: the least that an application on the library's classes writes.
#ifndef BENCH_SERVER_POOL_H
#define BENCH_SERVER_POOL_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace bench
{

class Pool
{
public:
    Pool(unsigned threads, size_t queueLimit);

    // Runs all queued tasks, then joins the threads.
    ~Pool();

    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    // False when the queue is full.
    bool submit(std::function<void()> task);

private:
    void work();

    const size_t mQueueLimit;
    std::mutex mMutex;
    std::condition_variable mQueued;
    std::deque<std::function<void()>> mQueue;  // under mMutex, here and below
    size_t mWaiting = 0;                       // threads
    bool mIsStopping = false;
    std::vector<std::thread> mThreads;
};

}  // namespace bench

#endif
