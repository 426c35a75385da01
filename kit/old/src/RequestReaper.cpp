// Requests wait in one list until both sides are done with them, and in another to be deleted.

#include <Wendrel/kit/RequestReaper.h>

#include <Wendrel/kit/Request.h>

#include "Deadline.h"

namespace qv::kit
{
namespace
{

// The thread deletes requests together that are over within this time.
constexpr std::chrono::milliseconds kGatherTime(20);

// More than one, so that workers catch up with requests that were left behind.
constexpr int kReapBatchSize = 2;

}  // namespace

RequestReaper::RequestReaper() : mThread(&RequestReaper::run, this) {}

RequestReaper::~RequestReaper()
{
    {
        const qvMutexLocker locker(&mMutex);
        mStopping = true;
    }
    mChanged.wakeAll();
    mThread.join();
    // The daemon has stopped: nobody uses the others.
    List left;
    {
        const qvMutexLocker locker(&mMutex);
        left.swap(mOpen);
    }
    deleteAll(left);
}

Request& RequestReaper::add(std::unique_ptr<Request> request)
{
    Request* const added = request.get();
    List entry;
    entry.push_back(std::move(request));
    added->mReaper = this;
    added->mPlace = entry.begin();
    const qvMutexLocker locker(&mMutex);
    mOpen.splice(mOpen.end(), entry);
    ++mCount;
    // cppcheck-suppress returnReference ; the list owns the request
    return *added;
}

void RequestReaper::finished(Request& request)
{
    release(request);
}

void RequestReaper::completed(Request& request)
{
    release(request);
}

// The worker and the daemon each release a request once; the second of them finds it over.
void RequestReaper::release(Request& request)
{
    if (--request.mUsers != 0)
        return;
    bool wake = false;
    {
        const qvMutexLocker locker(&mMutex);
        mOver.splice(mOver.end(), mOpen, request.mPlace);
        wake = mIdle;
        mIdle = false;
    }
    if (wake)
        mChanged.wakeOne();
}

void RequestReaper::run()
{
    bool stopping = false;
    while (!stopping) {
        List over;
        {
            const qvMutexLocker locker(&mMutex);
            while (mOver.empty() && !mStopping) {
                mIdle = true;
                mChanged.wait(&mMutex, qvWaitCondition::kNoTimeout);
            }
            mIdle = false;
            const Deadline gathered(kGatherTime);
            while (!mStopping && gathered.leftMs() != 0)
                mChanged.wait(&mMutex, gathered.leftMs());
            over.swap(mOver);
            stopping = mStopping;
        }
        deleteAll(over);
    }
}

void RequestReaper::reap()
{
    List over;
    {
        const qvMutexLocker locker(&mMutex);
        for (int i = 0; i < kReapBatchSize && !mOver.empty(); ++i)
            over.splice(over.end(), mOver, mOver.begin());
    }
    deleteAll(over);
}

// Without the lock: destructors may use the reaper.
void RequestReaper::deleteAll(List& over)
{
    if (over.empty())
        return;
    const size_t count = over.size();
    // Takes the lock that the daemon holds while it completes a request.
    for (const auto& request : over)
        static_cast<void>(request->isCompleted());
    over.clear();
    const qvMutexLocker locker(&mMutex);
    mCount -= count;
    if (mCount == 0)
        mDeleted.wakeAll();
}

size_t RequestReaper::getOpenCount() const
{
    const qvMutexLocker locker(&mMutex);
    return mCount;
}

bool RequestReaper::waitUntilEmpty(std::chrono::milliseconds limit)
{
    const Deadline deadline(limit);
    const qvMutexLocker locker(&mMutex);
    while (mCount != 0 && deadline.leftMs() != 0)
        mDeleted.wait(&mMutex, deadline.leftMs());
    return mCount == 0;
}

}  // namespace qv::kit
