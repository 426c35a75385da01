// Sleeping until woken, with a time-out on the monotonic clock.

#include <qvSystem/qvWaitCondition.h>

#include <qvSystem/qvMutex.h>

#include <algorithm>
#include <chrono>

namespace qv
{
namespace
{

// Longer time-outs are cut to this, so that the end of the wait can be computed.
constexpr unsigned long kLongestTimeOutMs = 1000UL * 3600 * 24 * 365;

}  // namespace

qvWaitCondition::qvWaitCondition() = default;

qvWaitCondition::~qvWaitCondition() = default;

bool qvWaitCondition::wait(qvMutex* mutex, unsigned long timeOutMs)
{
    std::unique_lock<std::mutex> lock(mutex->mMutex, std::adopt_lock);
    bool woken = true;
    if (timeOutMs == kNoTimeOut) {
        mCondition.wait(lock);
    } else {
        const auto end = std::chrono::steady_clock::now() +
                         std::chrono::milliseconds(std::min(timeOutMs, kLongestTimeOutMs));
        woken = mCondition.wait_until(lock, end) == std::cv_status::no_timeout;
    }
    lock.release();  // the caller keeps it
    return woken;
}

void qvWaitCondition::wakeAll()
{
    mCondition.notify_all();
}

void qvWaitCondition::wakeOne()
{
    mCondition.notify_one();
}

}  // namespace qv
