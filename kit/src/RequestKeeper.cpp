// Finished requests, looked through in batches for those that are completed as well.

#include <Wendrel/kit/RequestKeeper.h>

#include <Wendrel/HttpRequest.h>

#include <algorithm>
#include <iterator>

namespace qv::kit
{
namespace
{

constexpr std::chrono::milliseconds kGatherTime(20);
constexpr uint64_t kLeastBatch = 64;

}  // namespace

RequestKeeper::RequestKeeper() : mThread(&RequestKeeper::keep, this) {}

RequestKeeper::~RequestKeeper()
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
    }
    mChanged.notify_all();
    mThread.join();
}

void RequestKeeper::opened()
{
    List room(1);
    const std::lock_guard<std::mutex> lock(mMutex);
    mRoom.splice(mRoom.end(), room);
    ++mOpen;
}

void RequestKeeper::finished(std::unique_ptr<HttpBaseRequest> request)
{
    bool wake = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        const bool wasDue = isSweepDue();
        // Without memory for an entry the request would be deleted while the daemon uses it.
        mRoom.front() = std::move(request);
        mFinished.splice(mFinished.end(), mRoom, mRoom.begin());
        ++mNews;
        wake = isSweepDue() && (!wasDue || doesSweepPay());
    }
    if (wake)
        mChanged.notify_one();
}

void RequestKeeper::completed()
{
    bool wake = false;
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        const bool wasDue = isSweepDue();
        ++mCompletions;
        ++mNews;
        wake = isSweepDue() && (!wasDue || doesSweepPay());
    }
    if (wake)
        mChanged.notify_one();
}

// Whether a sweep could find something: a completed request is waiting to be found, and one
// has been completed or finished since the last sweep.
bool RequestKeeper::isSweepDue() const
{
    return mNews != 0 && !mFinished.empty() && mCompletions != mReaped;
}

bool RequestKeeper::doesSweepPay() const
{
    return mNews >= std::max<uint64_t>(kLeastBatch, mFinished.size() / 4);
}

void RequestKeeper::keep()
{
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mStopping) {
        mChanged.wait(lock, [this] { return mStopping || isSweepDue(); });
        mChanged.wait_for(lock, kGatherTime, [this] { return mStopping || doesSweepPay(); });
        sweep(lock);
    }
    // The daemon has stopped: nobody uses what is left.
    List left;
    left.swap(mFinished);
    mOpen -= left.size();
    mDeleted.notify_all();
    lock.unlock();
    left.clear();
}

void RequestKeeper::sweep(std::unique_lock<std::mutex>& lock)
{
    List looked;
    looked.swap(mFinished);
    mNews = 0;
    lock.unlock();

    List done;
    for (auto it = looked.begin(); it != looked.end();) {
        const auto next = std::next(it);
        if ((*it)->isCompleted())
            done.splice(done.end(), looked, it);
        it = next;
    }
    const size_t count = done.size();
    done.clear();

    lock.lock();
    mFinished.splice(mFinished.begin(), looked);
    mReaped += count;
    mOpen -= count;
    if (mOpen == 0)
        mDeleted.notify_all();
}

size_t RequestKeeper::getOpenCount() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mOpen;
}

bool RequestKeeper::waitUntilEmpty(std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(mMutex);
    return mDeleted.wait_for(lock, limit, [this] { return mOpen == 0; });
}

}  // namespace qv::kit
