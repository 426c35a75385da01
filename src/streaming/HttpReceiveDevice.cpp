// The received body: fed by the daemon in pieces of any size, read by the worker in blocks of any
// size.

#include <Wendrel/HttpDevices.h>

#include <Wendrel/HttpRequest.h>

#include "request/ConnectionContext.h"
#include "request/ConnectionRecord.h"
#include "request/DispatchAccess.h"
#include "request/MemoryBudget.h"
#include "streaming/ChunkQueue.h"
#include "streaming/DaemonThread.h"

#include <qvSystem/qvSystemUtils.h>
#include <qvSystem/qvThread.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace qv
{
namespace
{

constexpr unsigned long kWaitIntervalMs = 1000;
constexpr int64_t kIdleLimitMs = 360000;

bool isIdleTooLong(int64_t sinceMs)
{
    return sinceMs == impl::kTimeNotSet || qvSystemUtils::GetTimeBaseMs() - sinceMs > kIdleLimitMs;
}

}  // namespace

HttpReceiveDevice::HttpReceiveDevice(HttpBaseRequest& request)
    : qvIoDevice(BothWays), mAtEnd(false), mRequest(&request), mQueuedBytes(0), mWantedBytes(0),
      mReadOffset(0), mReceivedBytes(0), mFeedEnded(false), mFeedPaused(false), mQueueLimitBytes(0),
      mAwaitsMemory(false), mMustNotPause(false), mChargedBytes(0)
{
    reset();
}

HttpReceiveDevice::~HttpReceiveDevice() QV_NO_THREAD_SAFETY_ANALYSIS
{
    impl::FreeChunks(mQueue);
    creditBudget(mChargedBytes);
}

// The caller holds the mutex.
uint64_t HttpReceiveDevice::writeBytes(const char* data, size_t len) QV_NO_THREAD_SAFETY_ANALYSIS
{
    if (mFeedEnded) {
        setDeviceError("no more feed");
        return 0;
    }
    impl::AppendToChunks(mQueue, data, len);
    mQueuedBytes += len;
    if (mWantedBytes != 0 && mQueuedBytes >= mWantedBytes)
        mDataArrived.wakeAll();
    return len;
}

// The caller holds the mutex.
void HttpReceiveDevice::endFeed() QV_NO_THREAD_SAFETY_ANALYSIS
{
    mDataArrived.wakeAll();
    mFeedEnded = true;
}

// Required: the queue and its byte count stay as they are, although the read offset does not. The
// caller sees to it that nobody else uses the device.
void HttpReceiveDevice::reset() QV_NO_THREAD_SAFETY_ANALYSIS
{
    clearDeviceError();
    mAtEnd = false;
    mReadOffset = 0;
    mReceivedBytes = 0;
    mFeedEnded = false;
}

void HttpReceiveDevice::setQueueLimit(uint64_t bytes)
{
    const qvMutexLocker locker(&mMutex);
    mQueueLimitBytes = bytes;
}

void HttpReceiveDevice::discardReceived()
{
    const qvMutexLocker locker(&mMutex);
    impl::FreeChunks(mQueue);
    creditBudget(mQueuedBytes);
    mQueuedBytes = 0;
    mReadOffset = 0;
    if (mFeedPaused)
        continueFeedIfFree();
}

bool HttpReceiveDevice::atEnd() const
{
    return mAtEnd || hasDeviceError();
}

uint64_t HttpReceiveDevice::getReceivedBytes() const
{
    return mReceivedBytes;
}

// Calls the application: without any lock before a read's first pass, with the mutex held in
// the later ones.
void HttpReceiveDevice::keepAliveStep()
{
    using Access = impl::DispatchAccess;
    if (mRequest->getCurrentWorkerThreadId() != qvThread::CurrentThreadId())
        return;
    auto& callback = Access::keepAliveCallback(*mRequest);
    if (callback) {
        const int64_t last = Access::lastKeepAliveMs(*mRequest);
        const int64_t interval = Access::keepAliveIntervalMs(*mRequest);
        if (last == impl::kTimeNotSet || qvSystemUtils::GetTimeBaseMs() - last > interval) {
            callback();
            Access::lastKeepAliveMs(*mRequest) = qvSystemUtils::GetTimeBaseMs();
        }
    }
    mRequest->getWaitListener().onWaitingForData();
}

uint64_t HttpReceiveDevice::readBytes(char* buf, size_t len)
{
    if (len == 0)
        return 0;
    keepAliveStep();
    const int64_t idleSinceMs = qvSystemUtils::GetTimeBaseMs();
    qvMutexLocker locker(&mMutex);
    const uint64_t copied = readLocked(buf, len, idleSinceMs);
    mWantedBytes = 0;
    return copied;
}

uint64_t HttpReceiveDevice::readLocked(char* buf, uint64_t len, int64_t idleSinceMs)
{
    uint64_t copied = 0;
    for (bool firstPass = true; !mAtEnd && !hasDeviceError(); firstPass = false) {
        if (!firstPass) {
            if (mayNotWait())
                break;
            keepAliveStep();
            mWantedBytes = len - copied;
            mDataArrived.wait(&mMutex, kWaitIntervalMs);
            mWantedBytes = 0;
        }
        const uint64_t taken = take(buf + copied, len - copied, true);
        copied += taken;
        if (taken == 0 && isIdleTooLong(idleSinceMs)) {
            setDeviceError("Wait too long without incoming data");
            break;
        }
        if (taken != 0)
            idleSinceMs = qvSystemUtils::GetTimeBaseMs();
        if (mFeedEnded && mQueue.empty())
            mAtEnd = true;
        if (copied == len)
            break;
    }
    return copied;
}

// The thread that waits would be the one that feeds. With the error the device is at its end: a
// reader does not repeat the read for ever.
bool HttpReceiveDevice::mayNotWait()
{
    if (!impl::DaemonThread::isCurrent() || !impl::DispatchAccess::record(*mRequest))
        return false;
    impl::DaemonThread::logRefusal("HttpReceiveDevice::readBytes");
    setDeviceError("read on a daemon thread");
    return true;
}

uint64_t HttpReceiveDevice::readReceived(char* buf, size_t len)
{
    const qvMutexLocker locker(&mMutex);
    if (mAtEnd || hasDeviceError())
        return 0;
    const uint64_t taken = take(buf, len, false);
    if (mFeedEnded && mQueue.empty())
        mAtEnd = true;
    return taken;
}

uint64_t HttpReceiveDevice::take(char* buf, uint64_t wanted, bool leavesNewest)
{
    const uint64_t taken = takeFromQueue(buf, wanted, leavesNewest);
    mReceivedBytes += taken;
    mQueuedBytes -= taken;
    creditBudget(taken);
    if (mFeedPaused)
        continueFeedIfFree();
    return taken;
}

// A reader that waits leaves the newest chunk of the feed alone while data comes: it may still be
// growing.
uint64_t HttpReceiveDevice::takeFromQueue(char* buf, uint64_t wanted, bool leavesNewest)
{
    uint64_t taken = 0;
    while (taken < wanted && !mQueue.empty()) {
        if (leavesNewest && !mFeedEnded && !mFeedPaused &&
            std::next(mQueue.begin()) == mQueue.end())
            break;
        const Chunk& front = mQueue.front();
        const uint64_t part = std::min<uint64_t>(front.size() - mReadOffset, wanted - taken);
        std::memcpy(buf + taken, front.data() + mReadOffset, part);
        taken += part;
        mReadOffset += part;
        if (mReadOffset == front.size()) {
            impl::FreeFirstChunk(mQueue);
            mReadOffset = 0;
        }
    }
    return taken;
}

// The connection is read again.
void HttpReceiveDevice::continueFeed()
{
    if (!mFeedPaused)
        return;
    mFeedPaused = false;
    if (std::exchange(mAwaitsMemory, false))
        mBudget->removeWaiting();
    impl::DispatchAccess::record(*mRequest)->continueUpload();
}

// A reader that has read everything gets more also without free memory: otherwise uploads could
// wait for each other.
void HttpReceiveDevice::continueFeedIfFree()
{
    if (mQueueLimitBytes != 0 && mQueuedBytes > mQueueLimitBytes / 2)
        return;
    if (mQueue.empty() || !mBudget || !mBudget->isExceeded())
        continueFeed();
    else if (!std::exchange(mAwaitsMemory, true))
        mBudget->addWaiting();
}

// Exact also after `reset`, which keeps the queue and not the place in it.
void HttpReceiveDevice::creditBudget(uint64_t bytes)
{
    if (!mBudget)
        return;
    bytes = std::min(bytes, mChargedBytes);
    mChargedBytes -= bytes;
    mBudget->credit(bytes);
}

void impl::DispatchAccess::chargeBudget(HttpReceiveDevice& device,
                                        uint64_t bytes) QV_NO_THREAD_SAFETY_ANALYSIS
{
    if (!device.mBudget)
        return;
    device.mChargedBytes += bytes;
    device.mBudget->charge(bytes);
}

bool impl::DispatchAccess::isBudgetExceeded(const HttpReceiveDevice& device)
    QV_NO_THREAD_SAFETY_ANALYSIS
{
    return device.mBudget && device.mBudget->isExceeded();
}

void impl::DispatchAccess::awaitMemory(HttpReceiveDevice& device) QV_NO_THREAD_SAFETY_ANALYSIS
{
    device.mAwaitsMemory = true;
    device.mBudget->addWaiting();
}

bool impl::DispatchAccess::continueWaiting(HttpReceiveDevice& device)
{
    const qvMutexLocker locker(&device.mMutex);
    if (!device.mAwaitsMemory)
        return false;
    device.continueFeed();
    return true;
}

void impl::DispatchAccess::liftQueueLimit(HttpReceiveDevice& device)
{
    const qvMutexLocker locker(&device.mMutex);
    device.mQueueLimitBytes = 0;
    device.mMustNotPause = true;
    device.continueFeed();
}

void impl::DispatchAccess::abort(HttpReceiveDevice& device, const std::string& reason)
{
    const qvMutexLocker locker(&device.mMutex);
    device.mDataArrived.wakeAll();
    device.continueFeed();
    // Last: it may find no memory. Nobody looks at the device before the mutex is released.
    device.setDeviceError(reason);
}

}  // namespace qv
