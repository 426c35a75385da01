// Finished requests, looked through in batches for those that are completed as well.

#include <Wendrel/kit/RequestKeeper.h>

#include <Wendrel/HttpRequest.h>

#include "Deadline.h"

#include <algorithm>
#include <iterator>

namespace qv::kit
{
namespace
{

constexpr std::chrono::milliseconds kGatherTime(20);
constexpr uint64_t kLeastBatch = 64;

// More than one, so that what is left behind is caught up with.
constexpr int kReapedAtOnce = 2;

}  // namespace

RequestKeeper::RequestKeeper() : mThread(&RequestKeeper::keep, this) {}

RequestKeeper::~RequestKeeper()
{
    {
        const qvMutexLocker locker(&mMutex);
        mStopping = true;
    }
    mChanged.wakeAll();
    mThread.join();
}

void RequestKeeper::opened()
{
    List room(1);
    const qvMutexLocker locker(&mMutex);
    mRoom.splice(mRoom.end(), room);
    ++mOpen;
}

void RequestKeeper::finished(std::unique_ptr<HttpBaseRequest> request)
{
    bool wake = false;
    {
        const qvMutexLocker locker(&mMutex);
        // Without memory for an entry the request would be deleted while the daemon uses it.
        mRoom.front() = std::move(request);
        mFinished.splice(mFinished.end(), mRoom, mRoom.begin());
        ++mNews;
        wake = mustWakeKeeper();
    }
    if (wake)
        mChanged.wakeOne();
}

void RequestKeeper::completed()
{
    bool wake = false;
    {
        const qvMutexLocker locker(&mMutex);
        ++mCompletions;
        ++mNews;
        wake = mustWakeKeeper();
    }
    if (wake)
        mChanged.wakeOne();
}

// Whether a sweep could find something: a completed request is waiting to be found, and one
// has been completed or finished since the last sweep.
bool RequestKeeper::isSweepDue() const
{
    return mNews != 0 && !mFinished.empty() && mCompletions != mReaped;
}

// While it gathers, only for enough.
bool RequestKeeper::mustWakeKeeper() const
{
    return isSweepDue() && (mIdle || doesSweepPay());
}

bool RequestKeeper::doesSweepPay() const
{
    return mNews >= std::max<uint64_t>(kLeastBatch, mFinished.size() / 4);
}

void RequestKeeper::keep()
{
    bool stopping = false;
    while (!stopping) {
        {
            const qvMutexLocker locker(&mMutex);
            waitForNews();
            stopping = mStopping;
        }
        sweep();
    }
    // The daemon has stopped: nobody uses what is left.
    List left;
    const qvMutexLocker locker(&mMutex);
    left.swap(mFinished);
    mOpen -= left.size();
    mDeleted.wakeAll();
}

// Until a sweep could find something, and a little longer for more to come together.
void RequestKeeper::waitForNews()
{
    mIdle = true;
    while (!mStopping && !isSweepDue())
        mChanged.wait(&mMutex, qvWaitCondition::kNoTimeOut);
    mIdle = false;
    const Deadline gathered(kGatherTime);
    while (!mStopping && !doesSweepPay() && gathered.leftMs() != 0)
        mChanged.wait(&mMutex, gathered.leftMs());
}

void RequestKeeper::sweep()
{
    List looked;
    {
        const qvMutexLocker locker(&mMutex);
        looked.swap(mFinished);
        mNews = 0;
    }
    deleteCompleted(looked);
}

// The oldest first: they are the most likely to be over. Those that are not go to the end.
void RequestKeeper::reap()
{
    List looked;
    {
        const qvMutexLocker locker(&mMutex);
        if (mCompletions == mReaped)
            return;
        for (int i = 0; i < kReapedAtOnce && !mFinished.empty(); ++i)
            looked.splice(looked.end(), mFinished, mFinished.begin());
    }
    if (!looked.empty())
        deleteCompleted(looked);
}

// Looks at the requests without the lock: each is asked under the lock of its response device.
void RequestKeeper::deleteCompleted(List& looked)
{
    List done;
    for (auto it = looked.begin(); it != looked.end();) {
        const auto next = std::next(it);
        if ((*it)->isCompleted())
            done.splice(done.end(), looked, it);
        it = next;
    }
    const size_t count = done.size();
    done.clear();

    bool wake = false;
    {
        const qvMutexLocker locker(&mMutex);
        mFinished.splice(mFinished.end(), looked);
        mReaped += count;
        mOpen -= count;
        if (mOpen == 0)
            mDeleted.wakeAll();
        if (mCompletions == mReaped)
            mNews = 0;
        // One may have been completed while it was not in the list.
        wake = mustWakeKeeper();
    }
    if (wake)
        mChanged.wakeOne();
}

size_t RequestKeeper::getOpenCount() const
{
    const qvMutexLocker locker(&mMutex);
    return mOpen;
}

bool RequestKeeper::waitUntilEmpty(std::chrono::milliseconds limit)
{
    const Deadline deadline(limit);
    const qvMutexLocker locker(&mMutex);
    while (mOpen != 0 && deadline.leftMs() != 0)
        mDeleted.wait(&mMutex, deadline.leftMs());
    return mOpen == 0;
}

}  // namespace qv::kit
