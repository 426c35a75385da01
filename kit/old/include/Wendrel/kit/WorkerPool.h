/// Threads that run tasks.
#ifndef WENDREL_KIT_WORKERPOOL_H
#define WENDREL_KIT_WORKERPOOL_H

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

namespace qv::kit
{

/// A fixed number of threads with one bounded queue. Any thread may submit.
class WorkerPool
{
public:
    /// Work for a thread.
    using Task = std::function<void()>;

    /// Starts `threads` threads (at least 1); throws std::system_error when there are not so
    /// many to be had. Up to `queueLimit` tasks wait beside those that
    /// run.
    WorkerPool(unsigned int threads, size_t queueLimit);

    /// Stops.
    ~WorkerPool();

    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Queues a task. False, with the task not taken, when the queue is full or the pool is
    /// stopping. A task must not throw: an exception that leaves it ends the process.
    bool submit(Task task);

    /// Takes no more tasks, runs all that are queued, and joins the threads. Not from a task.
    void stop();

    /// Tasks that wait.
    size_t getQueuedCount() const;

private:
    void work();
    std::optional<Task> takeTask();

    mutable qvMutex mMutex;
    qvWaitCondition mTaskQueued;
    std::deque<Task> mQueue QV_GUARDED_BY(mMutex);
    const size_t mQueueLimit;
    bool mStopping QV_GUARDED_BY(mMutex) = false;
    std::vector<std::thread> mThreads;
};

}  // namespace qv::kit

#endif
