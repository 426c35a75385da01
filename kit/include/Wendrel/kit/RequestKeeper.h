/// Who deletes a request, and when.
#ifndef WENDREL_KIT_REQUESTKEEPER_H
#define WENDREL_KIT_REQUESTKEEPER_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

namespace qv
{
class HttpBaseRequest;
}

namespace qv::kit
{

/// Deletes each request after its worker has finished with it and the daemon has completed it,
/// whichever comes last.
///
/// The daemon does not say which request it has completed. The keeper therefore looks through
/// the finished ones, but only when enough has happened to pay for the look (a
/// quarter of the list, at least 64 events) or 20 ms have gone by, so that a completion costs a
/// constant time on average, however many requests are open. It looks and deletes on a thread
/// of its own that sleeps while nothing is due.
///
/// Destroy it when the daemon has stopped: what is left is deleted then.
class RequestKeeper
{
public:
    RequestKeeper();
    ~RequestKeeper();
    RequestKeeper(const RequestKeeper&) = delete;
    RequestKeeper& operator=(const RequestKeeper&) = delete;

    /// A request has been made; makes room for it, so that `finished` cannot fail. Any thread.
    void opened();

    /// The worker has finished with the request and will not touch it again; the keeper owns
    /// it from here. Any thread.
    void finished(std::unique_ptr<HttpBaseRequest> request);

    /// Call from `onRequestCompleted`, and only there.
    void completed();

    /// Requests that have been opened and not yet deleted. Any thread.
    size_t getOpenCount() const;

    /// Waits at most `limit` until there are none; returns whether there are none.
    bool waitUntilEmpty(std::chrono::milliseconds limit);

private:
    using List = std::list<std::unique_ptr<HttpBaseRequest>>;

    bool isSweepDue() const;
    bool doesSweepPay() const;
    void keep();
    void sweep(std::unique_lock<std::mutex>& lock);

    // The response device of a completing request is locked when `completed` takes this lock:
    // no request is asked anything under it.
    mutable std::mutex mMutex;
    std::condition_variable mChanged;
    std::condition_variable mDeleted;
    List mFinished;
    List mRoom;  // an entry for each request that is not finished yet
    size_t mOpen = 0;
    uint64_t mCompletions = 0;
    uint64_t mReaped = 0;
    uint64_t mNews = 0;  // requests finished or completed since the last sweep began
    bool mStopping = false;
    std::thread mThread;
};

}  // namespace qv::kit

#endif
