// Sleeping until woken, with a timeout on the monotonic clock.

#include <qvSystem/qvWaitCondition.h>

#include <qvSystem/qvMutex.h>

#include <algorithm>
#include <chrono>

namespace qv
{
namespace
{

// Limit of waits, so that their end can be computed.
constexpr unsigned long kMaxTimeoutMs = 1000UL * 3600 * 24 * 365;

}  // namespace

qvWaitCondition::qvWaitCondition() = default;

qvWaitCondition::~qvWaitCondition() = default;

bool qvWaitCondition::wait(qvMutex* mutex, unsigned long timeoutMs)
{
    std::unique_lock<std::mutex> lock(mutex->mMutex, std::adopt_lock);
    bool woken = true;
    if (timeoutMs == kNoTimeout) {
        mCondition.wait(lock);
    } else {
        const auto end = std::chrono::steady_clock::now() +
                         std::chrono::milliseconds(std::min(timeoutMs, kMaxTimeoutMs));
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
