// The threads that run handlers.
#ifndef WENDREL_KIT_SRC_WORKERPOOL_H
#define WENDREL_KIT_SRC_WORKERPOOL_H

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

namespace qv::kit
{

class Exchange;

// A fixed number of threads with one bounded queue of requests, and one of tasks. They take turns.
class WorkerPool
{
public:
    // `serve` runs on a worker for each request; it must not throw.
    using Serve = std::function<void(Exchange&)>;
    explicit WorkerPool(Serve serve);
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // Throws std::system_error when there are not so many threads to be had; none is left then.
    void start(unsigned threads, size_t queueLimit);

    // False when the queue is full or the pool does not run. Any thread.
    bool submit(Exchange& exchange);

    // Runs `task`, which must not throw, on a worker. Without a limit: whoever submits tasks keeps
    // their number limited. False when the pool does not run. Any thread.
    bool run(std::function<void()> task);

    // Requests, and tasks, that wait.
    std::pair<size_t, size_t> queueLengths();

    // Serves all that is queued, then joins the threads. Not from a worker.
    void stop();

private:
    // One of them, or neither when the pool stops.
    struct Job
    {
        Exchange* exchange = nullptr;
        std::function<void()> task;
    };

    bool noteWaking() QV_REQUIRES(mMutex);
    void work();
    Job take();

    const Serve mServe;
    qvMutex mMutex;
    qvWaitCondition mQueued;
    std::deque<Exchange*> mQueue QV_GUARDED_BY(mMutex);
    std::deque<std::function<void()>> mTasks QV_GUARDED_BY(mMutex);
    bool mIsTaskNext QV_GUARDED_BY(mMutex) = false;  // when there is a request, too
    size_t mQueueLimit QV_GUARDED_BY(mMutex) = 0;
    size_t mWaiting QV_GUARDED_BY(mMutex) = 0;  // threads
    size_t mWoken QV_GUARDED_BY(mMutex) = 0;    // of those that wait
    bool mIsRunning QV_GUARDED_BY(mMutex) = false;
    std::vector<std::thread> mThreads;
};

}  // namespace qv::kit

#endif
