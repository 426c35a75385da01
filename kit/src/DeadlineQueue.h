// Deadlines of responses, and the thread that keeps them.
#ifndef WENDREL_KIT_SRC_DEADLINEQUEUE_H
#define WENDREL_KIT_SRC_DEADLINEQUEUE_H

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <thread>

namespace qv::kit
{

class Exchange;
class StreamQueue;

// One thread for all deadlines of a server; it also deletes requests that nobody else deletes, and
// offers free memory to the streams that wait for it.
class DeadlineQueue
{
public:
    using Clock = std::chrono::steady_clock;

    struct Entry
    {
        Exchange* exchange;  // counted
        int status;
    };
    using Entries = std::multimap<Clock::time_point, Entry>;

    // Who sets a deadline. That of the application replaces the one of the route, and not the other
    // way round.
    enum class By : uint8_t { Application, Route };

    // `deleteRequests` is called by the thread some time after `requestDeletion`.
    explicit DeadlineQueue(std::function<void()> deleteRequests);
    ~DeadlineQueue();
    DeadlineQueue(const DeadlineQueue&) = delete;
    DeadlineQueue& operator=(const DeadlineQueue&) = delete;

    // Throws std::system_error when the system has no thread to give.
    void start();

    // Deadlines that are left do not expire any more; their requests are released.
    void stop();

    // In place of the deadline that the request has. Any thread.
    void set(Exchange& exchange, Clock::time_point when, int status, By by);

    // By the application, for good. Any thread.
    void setNone(Exchange& exchange);

    // Any thread. Does nothing without a deadline, or when it is expiring.
    void remove(Exchange& exchange);

    // Any thread, also one that must not wait.
    void requestDeletion();

    // Offers memory to the queue until it has taken it or is deleted. Any thread.
    void awaitMemory(const std::shared_ptr<StreamQueue>& queue);

private:
    using Queues = std::list<std::weak_ptr<StreamQueue>>;

    void run();
    void offerMemory(Clock::time_point now);
    void expire(Clock::time_point now);
    Clock::time_point nextWakeUp();
    void wake();

    const std::function<void()> mDeleteRequests;
    qvMutex mMutex;
    Entries mEntries QV_GUARDED_BY(mMutex);
    Queues mWaiting QV_GUARDED_BY(mMutex);  // for memory
    Clock::time_point mNextOffer QV_GUARDED_BY(mMutex);
    sem_t mWake{};
    std::atomic<bool> mIsDeletionRequested{false};
    std::atomic<bool> mIsStopping{false};
    std::thread mThread;
};

}  // namespace qv::kit

#endif
