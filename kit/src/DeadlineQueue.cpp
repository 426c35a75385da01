// Deadlines in the order of time, in one thread that sleeps until the next.

#include "DeadlineQueue.h"

#include "Exchange.h"
#include "StreamQueue.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace qv::kit
{
namespace
{

// Requests that end within this time are deleted together.
constexpr std::chrono::milliseconds kDeletionIntervalMs(20);

// Between two looks at the memory budget, while a stream waits for it.
constexpr std::chrono::milliseconds kMemoryIntervalMs(64);

timespec toTimespec(DeadlineQueue::Clock::time_point when)
{
    const auto sinceEpoch = when.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch);
    timespec result{};
    result.tv_sec = static_cast<time_t>(seconds.count());
    result.tv_nsec = static_cast<long>(std::chrono::nanoseconds(sinceEpoch - seconds).count());
    return result;
}

}  // namespace

DeadlineQueue::DeadlineQueue(std::function<void()> deleteRequests)
    : mDeleteRequests(std::move(deleteRequests))
{
    sem_init(&mWake, 0, 0);
}

DeadlineQueue::~DeadlineQueue()
{
    stop();
    sem_destroy(&mWake);
}

void DeadlineQueue::start()
{
    mIsStopping = false;
    mThread = std::thread(&DeadlineQueue::run, this);
}

void DeadlineQueue::stop()
{
    if (!mThread.joinable())
        return;
    mIsStopping = true;
    wake();
    mThread.join();
    Entries left;
    {
        const qvMutexLocker locker(&mMutex);
        for (const auto& [when, entry] : mEntries)
            entry.exchange->mHasDeadline = false;
        left.swap(mEntries);
        mWaiting.clear();
    }
    for (const auto& [when, entry] : left)
        entry.exchange->release();
}

void DeadlineQueue::set(Exchange& exchange, Clock::time_point when, int status, By by)
{
    bool isFirst = false;
    {
        const qvMutexLocker locker(&mMutex);
        if (by == By::Route && exchange.mHasOwnDeadline)
            return;
        const auto made = mEntries.emplace(when, Entry{&exchange, status});
        if (exchange.mHasDeadline)
            mEntries.erase(exchange.mDeadline);
        else
            exchange.retain();
        exchange.mDeadline = made;
        exchange.mHasDeadline = true;
        exchange.mHasOwnDeadline = by == By::Application;
        isFirst = exchange.mDeadline == mEntries.begin();
    }
    if (isFirst)
        wake();
}

void DeadlineQueue::setNone(Exchange& exchange)
{
    {
        const qvMutexLocker locker(&mMutex);
        exchange.mHasOwnDeadline = true;
    }
    remove(exchange);
}

void DeadlineQueue::remove(Exchange& exchange)
{
    // Looked at again under the lock: most requests have none, and take no lock for it.
    if (!exchange.mHasDeadline)
        return;
    {
        const qvMutexLocker locker(&mMutex);
        if (!exchange.mHasDeadline)
            return;
        mEntries.erase(exchange.mDeadline);
        exchange.mHasDeadline = false;
    }
    exchange.release();
}

void DeadlineQueue::requestDeletion()
{
    if (!mIsDeletionRequested && !mIsDeletionRequested.exchange(true))
        wake();
}

void DeadlineQueue::wake()
{
    sem_post(&mWake);
}

DeadlineQueue::Clock::time_point DeadlineQueue::nextWakeUp()
{
    const qvMutexLocker locker(&mMutex);
    const auto deadline = mEntries.empty() ? Clock::time_point::max() : mEntries.begin()->first;
    return mWaiting.empty() ? deadline : std::min(deadline, mNextOffer);
}

void DeadlineQueue::awaitMemory(const std::shared_ptr<StreamQueue>& queue)
{
    bool isFirst = false;
    {
        const qvMutexLocker locker(&mMutex);
        isFirst = mWaiting.empty();
        mWaiting.emplace_back(queue);
        if (isFirst)
            mNextOffer = Clock::now() + kMemoryIntervalMs;
    }
    if (isFirst)
        wake();
}

// In turn: those that still wait come before those that begin to.
void DeadlineQueue::offerMemory(Clock::time_point now)
{
    Queues waiting;
    {
        const qvMutexLocker locker(&mMutex);
        if (mWaiting.empty() || now < mNextOffer)
            return;
        waiting.swap(mWaiting);
    }
    waiting.remove_if([](const std::weak_ptr<StreamQueue>& entry) {
        const std::shared_ptr<StreamQueue> queue = entry.lock();
        return !queue || queue->offerMemory();
    });
    const qvMutexLocker locker(&mMutex);
    mWaiting.splice(mWaiting.begin(), waiting);
    mNextOffer = now + kMemoryIntervalMs;
}

void DeadlineQueue::run()
{
    auto deletion = Clock::time_point::max();
    while (!mIsStopping) {
        const Clock::time_point next = std::min(nextWakeUp(), deletion);
        if (next == Clock::time_point::max()) {
            sem_wait(&mWake);
        } else {
            const timespec until = toTimespec(next);
            sem_clockwait(&mWake, CLOCK_MONOTONIC, &until);
        }
        const Clock::time_point now = Clock::now();
        expire(now);
        offerMemory(now);
        if (deletion <= now) {
            deletion = Clock::time_point::max();
            mIsDeletionRequested = false;
            mDeleteRequests();
        } else if (mIsDeletionRequested && deletion == Clock::time_point::max()) {
            deletion = now + kDeletionIntervalMs;
        }
    }
}

void DeadlineQueue::expire(Clock::time_point now)
{
    while (!mIsStopping) {
        Entry entry{};
        {
            const qvMutexLocker locker(&mMutex);
            if (mEntries.empty() || mEntries.begin()->first > now)
                return;
            entry = mEntries.begin()->second;
            mEntries.erase(mEntries.begin());
            entry.exchange->mHasDeadline = false;
        }
        entry.exchange->expire(entry.status);
        entry.exchange->release();
    }
}

}  // namespace qv::kit
