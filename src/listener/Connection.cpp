// The phases of a connection, and the operations of the listener on it.

#include "listener/Connection.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>

#include "listener/ConnectionTable.h"
#include "listener/TlsHop.h"
#include "request/DispatchAccess.h"

#include <qvSystem/qvSystemUtils.h>

#include <microhttpd.h>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr uint64_t kMsPerSecond = 1000;

// Of a response with the three digits behind "HTTP/1.1 ".
uint32_t statusOf(const std::string& response)
{
    constexpr size_t kStatusAt = 9;
    uint32_t status = 0;
    if (response.size() > kStatusAt)
        std::from_chars(response.data() + kStatusAt, response.data() + response.size(), status);
    return status;
}

int64_t afterMs(int64_t nowMs, int64_t limitMs)
{
    return limitMs == 0 ? kNoDeadline : nowMs + limitMs;
}

}  // namespace

Connection::Connection(ConnectionTable& table, int descriptor, const Peer& peer)
    : mTable(table), mPeer(peer), mDescriptor(descriptor)
{}

std::shared_ptr<MemoryBudget> Connection::getMemoryBudget() const
{
    return mTable.getLimits().memoryBudget;
}

void Connection::suspend()
{
    mTable.countSuspended();
    MHD_suspend_connection(mHandle);
}

void Connection::resume()
{
    mTable.countResumed();
    MHD_resume_connection(mHandle);
}

void Connection::continueUpload()
{
    const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
    mBodyStartMs += nowMs - mPausedAtMs;
    armUnlessDiscarding(bodyDeadlineMs(nowMs));
    resume();
}

void Connection::discardUpload()
{
    if (phase != Phase::Body)
        return;
    const int64_t untilMs = qvSystemUtils::GetTimeBaseMs() + kMaxDiscardMs;
    mDiscardUntilMs = untilMs;
    mTable.arm(*this, untilMs);
}

// Each thread writes its deadline and then the daemon thread looks for that of discarding, which is
// set before it is armed: whichever is armed last, it holds.
void Connection::armUnlessDiscarding(int64_t deadline)
{
    mTable.arm(*this, deadline);
    if (const int64_t untilMs = mDiscardUntilMs; untilMs != kNoDeadline)
        mTable.arm(*this, untilMs);
}

bool Connection::countDiscarded(uint64_t bytes, int64_t nowMs)
{
    const int64_t untilMs = mDiscardUntilMs;
    if (untilMs == kNoDeadline)
        return true;
    if (nowMs < untilMs && bytes <= kMaxDiscardedBytes - progress.discardedBytes) {
        progress.discardedBytes += bytes;
        return true;
    }
    mDiscardUntilMs = 0;
    mTable.arm(*this, 0);
    return false;
}

// The application's result does not change any more; the request cannot be completed meanwhile.
uint32_t Connection::getEarlyStatus(int64_t nowMs)
{
    constexpr uint32_t kFirstFinal = 200;
    constexpr uint32_t kLastFinal = 999;
    constexpr uint32_t kServerError = 500;
    const qvMutexLocker locker(&mMutex);
    if (!mRequest || mDiscardUntilMs > nowMs)
        return 0;
    const uint32_t status = mRequest->getResponse().getStatusCode();
    const bool isFinal = status >= kFirstFinal && status <= kLastFinal;
    return isFinal && !mRequest->getResponseDevice().hasDeviceError() ? status : kServerError;
}

// Moves from any phase but Ended. The deadline comes first: who sees the phase sees its deadline.
void Connection::setPhase(Phase next, int64_t deadline)
{
    mTable.arm(*this, deadline);
    Phase before = phase;
    while (before != Phase::Ended && !phase.compare_exchange_weak(before, next)) {
    }
    // The listener goes on to visit a connection that it has claimed.
    if (before == Phase::Ended)
        mTable.arm(*this, 0);
}

bool Connection::beginHead(int64_t nowMs)
{
    if (phase != Phase::Head)
        setPhase(Phase::NextHead, afterMs(nowMs, mTable.getLimits().headMs));
    return phase != Phase::Ended;
}

bool Connection::beginRequest(HttpBaseRequest& request, MHD_Connection* handle, Phase next)
{
    mTable.countRequest();
    setPhase(next, kNoDeadline);
    mHandle = handle;
    const qvMutexLocker locker(&mMutex);
    isAborted = false;
    isResponseLate = false;
    mDiscardUntilMs = kNoDeadline;
    mRequest = &request;
    return phase != Phase::Ended;
}

void Connection::endRequest(int64_t nowMs)
{
    {
        const qvMutexLocker locker(&mMutex);
        if (std::exchange(mRequest, nullptr))
            mTable.countEnd();
        mAbortReason.clear();
    }
    progress = Progress();
    setPhase(Phase::Idle, afterMs(nowMs, mTable.getLimits().idleMs));
}

// The sooner of silence and of falling below the least rate.
int64_t Connection::bodyDeadlineMs(int64_t nowMs) const
{
    const ConnectionLimits& limits = mTable.getLimits();
    int64_t deadline = afterMs(nowMs, limits.bodyMs);
    if (limits.minBodyBytesPerSecond != 0) {
        const uint64_t earnedMs = mBodyBytes * kMsPerSecond / limits.minBodyBytesPerSecond;
        const int64_t startMs = mBodyStartMs + static_cast<int64_t>(earnedMs);
        deadline = std::min(deadline, afterMs(startMs, limits.bodyMs));
    }
    return deadline;
}

void Connection::beginBody(int64_t nowMs)
{
    mBodyBytes = 0;
    mBodyStartMs = nowMs;
    armUnlessDiscarding(bodyDeadlineMs(nowMs));
}

void Connection::countBody(uint64_t bytes)
{
    mBodyBytes += bytes;
}

void Connection::armBody(int64_t nowMs)
{
    armUnlessDiscarding(bodyDeadlineMs(nowMs));
}

void Connection::pauseBody(int64_t nowMs)
{
    mPausedAtMs = nowMs;
    armUnlessDiscarding(kNoDeadline);
}

bool Connection::claim(Phase expected)
{
    return phase.compare_exchange_strong(expected, Phase::Ended);
}

void Connection::abortRequest(const std::string& reason, bool unlessReady)
{
    const qvMutexLocker locker(&mMutex);
    if (!mRequest || isAborted)
        return;
    mAbortReason = reason;
    if (!DispatchAccess::abort(mRequest->getResponseDevice(), reason, unlessReady, isAborted))
        return;
    DispatchAccess::abort(mRequest->getReceiveDevice(), reason);
}

bool Connection::isUploadPaused()
{
    const qvMutexLocker locker(&mMutex);
    if (!mRequest)
        return false;
    HttpReceiveDevice& device = mRequest->getReceiveDevice();
    const qvMutexLocker deviceLocker(&DispatchAccess::mutex(device));
    return DispatchAccess::isFeedPaused(device);
}

std::string Connection::getAbortReason()
{
    const qvMutexLocker locker(&mMutex);
    return mAbortReason;
}

void Connection::expireResponse(int64_t nowMs)
{
    const qvMutexLocker locker(&mMutex);
    // Another request may have begun.
    if (!mRequest || deadlineMs > nowMs)
        return;
    isResponseLate = true;
    DispatchAccess::resume(mRequest->getResponseDevice());
}

bool Connection::continueWaitingUpload()
{
    const qvMutexLocker locker(&mMutex);
    return mRequest && DispatchAccess::continueWaiting(mRequest->getReceiveDevice());
}

void Connection::shutDown(int how)
{
    const qvMutexLocker locker(&mMutex);
    if (!isOurs())
        return;
    (how == SHUT_RDWR ? isShutDown : isReadingShutDown) = true;
    // Bytes of the client that have arrived come first.
    if (hop && how == SHUT_RD && !hop->endReading())
        return;
    shutdown(mDescriptor, how);
}

// The hop learns it before the end of the daemon's side.
void Connection::cut()
{
    if (hop)
        hop->cutDown();
    shutDown(SHUT_RDWR);
}

void Connection::watch(int epoll, uint64_t key, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = key;
    const qvMutexLocker locker(&mMutex);
    if (isOurs())
        epoll_ctl(epoll, EPOLL_CTL_MOD, mDescriptor, &event);
}

void Connection::refuse(const std::string& response)
{
    const qvMutexLocker locker(&mMutex);
    if (!isOurs())
        return;
    writtenStatus = statusOf(response);
    send(mDescriptor, response.data(), response.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    isShutDown = true;
    shutdown(mDescriptor, SHUT_RDWR);
}

int Connection::endWith(const std::string& response)
{
    const qvMutexLocker locker(&mMutex);
    if (!isOurs())
        return -1;
    writtenStatus = statusOf(response);
    send(mDescriptor, response.data(), response.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    isShutDown = true;
    shutdown(mDescriptor, SHUT_WR);
    return fcntl(mDescriptor, F_DUPFD_CLOEXEC, 0);
}

int Connection::keepUntilSeen()
{
    const qvMutexLocker locker(&mMutex);
    int unreadBytes = 0;
    if (!isOurs() || isShutDown || isAborted ||
        (!isBodyUnread && (ioctl(mDescriptor, FIONREAD, &unreadBytes) != 0 || unreadBytes == 0)))
        return -1;
    shutdown(mDescriptor, SHUT_WR);
    return fcntl(mDescriptor, F_DUPFD_CLOEXEC, 0);
}

// The descriptor is not closed meanwhile: its daemon's thread would.
TlsDelivered Connection::deliver(TlsDelivery&& delivery)
{
    int descriptor = -1;
    {
        const qvMutexLocker locker(&mMutex);
        descriptor = mDescriptor;
    }
    return hop->deliver(std::move(delivery), descriptor);
}

bool Connection::isClosed()
{
    const qvMutexLocker locker(&mMutex);
    return !isOurs();
}

int Connection::detach(int replacement)
{
    const qvMutexLocker locker(&mMutex);
    if (isAborted || isShutDown)
        return -ECANCELED;
    const int descriptor = fcntl(mDescriptor, F_DUPFD_CLOEXEC, 0);
    if (descriptor < 0)
        return -errno;
    // Two descriptors of one connection: it would stay open until both are closed, and in an epoll
    // set of the application under a number that the system has given to another one by then.
    if (dup3(replacement, mDescriptor, O_CLOEXEC) < 0) {
        const int error = errno;
        ::close(descriptor);
        return -error;
    }
    mIsDetached = true;
    mRequest = nullptr;
    mTable.countEnd();
    if (hop)
        hop->release();
    return descriptor;
}

int Connection::close()
{
    const qvMutexLocker locker(&mMutex);
    return std::exchange(mDescriptor, -1);
}

}  // namespace qv::impl
