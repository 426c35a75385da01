// Both directions of a secure connection. A direction that is blocked keeps its bytes and waits for
// its socket, and nothing is read from the other side meanwhile: back-pressure passes through.

#include "listener/TlsHop.h"

#include "listener/Connection.h"
#include "listener/TlsRelay.h"

#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>
#include <utility>

namespace qv::impl
{
namespace
{

using Result = TlsSession::Result;

constexpr int kMaxReadsAtOnce = 16;

bool mustWait(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

TlsHop::TlsHop(TlsRelay& relay, std::unique_ptr<TlsSession> session, int pair,
               std::shared_ptr<ConnectionPlace> place)
    : mRelay(relay), mSession(std::move(session)), mInfo(mSession->describe()),
      mPlace(std::move(place)), mPair(pair)
{
    ++mRelay.mUnfinished;
}

TlsHop::~TlsHop()
{
    closePair();
    if (mIsCounted.exchange(false))
        --mRelay.mUnfinished;
}

// Although another thread may hold the hop.
void TlsHop::end()
{
    mState = State::Over;
    // Before the end of the pair, which the application sees.
    mIsCutOff = mIsCutOff || !mIsUpOver;
    mIsUpOver = true;
    // Before the end of the pair, at which the listener looks at it.
    if (!mIsPairEnded)
        mHasLostClient = true;
    const bool hasLost = closePair() || mHandedBytes < mTakenBytes;
    if (mSession)
        mRelay.unwatch(mSession->getDescriptor());
    mSession.reset();
    mPlace.reset();
    endDeliveries(hasLost);
}

// A pair that is closed with unread bytes is reported to the daemon as an error. True when there
// were some.
bool TlsHop::closePair()
{
    if (mPair < 0)
        return false;
    mRelay.unwatch(mPair);
    shutdown(mPair, SHUT_RDWR);
    bool hasLost = false;
    char bytes[4096];
    while (recv(mPair, bytes, sizeof bytes, MSG_DONTWAIT) > 0)
        hasLost = true;
    close(std::exchange(mPair, -1));
    return hasLost;
}

// The daemon's bytes are in the pair before the delivery is queued. Those that the relay has not
// read then make it proceed; without any it may have proceeded before.
TlsDelivered TlsHop::deliver(TlsDelivery&& delivery, int descriptor)
{
    {
        const qvMutexLocker locker(&mMutex);
        if (mIsClosed)
            return mHasLost ? TlsDelivered::Lost : TlsDelivered::Sent;
        if (mDeliveryCount >= kMaxDeliveries)
            return TlsDelivered::Sent;
        try {
            mNewDeliveries.push_back(std::move(delivery));
        } catch (const std::bad_alloc&) {
            return TlsDelivered::Sent;
        }
        ++mDeliveryCount;
        mHasNewDeliveries = true;
    }
    int unreadBytes = 0;
    if (ioctl(descriptor, SIOCOUTQ, &unreadBytes) != 0 || unreadBytes == 0)
        mRelay.proceedLater(shared_from_this());
    return TlsDelivered::Later;
}

// Marked with the bytes that the pair holds now: later ones belong to the next response.
void TlsHop::takeDeliveries()
{
    if (!mHasNewDeliveries)
        return;
    const size_t known = mDeliveries.size();
    {
        const qvMutexLocker locker(&mMutex);
        mDeliveries.reserve(known + mNewDeliveries.size());
        std::move(mNewDeliveries.begin(), mNewDeliveries.end(), std::back_inserter(mDeliveries));
        mNewDeliveries.clear();
        mHasNewDeliveries = false;
    }
    int unreadBytes = 0;
    ioctl(mPair, FIONREAD, &unreadBytes);
    for (size_t i = known; i < mDeliveries.size(); ++i)
        mDeliveries[i].endBytes = mTakenBytes + static_cast<uint64_t>(unreadBytes);
}

void TlsHop::completeDeliveries()
{
    if (mIsDownOver) {
        endDeliveries(false);
        return;
    }
    takeDeliveries();
    const auto isUnsent = [this](const TlsDelivery& delivery) {
        return delivery.endBytes > mHandedBytes;
    };
    const auto end = std::find_if(mDeliveries.begin(), mDeliveries.end(), isUnsent);
    for (auto next = mDeliveries.begin(); next != end; ++next)
        next->complete(*next, true);
    mDeliveryCount -= static_cast<size_t>(end - mDeliveries.begin());
    mDeliveries.erase(mDeliveries.begin(), end);
}

// Completes all, and takes no more. Without memory, too.
void TlsHop::endDeliveries(bool hasLost)
{
    std::vector<TlsDelivery> over;
    {
        const qvMutexLocker locker(&mMutex);
        over.swap(mNewDeliveries);
        mHasNewDeliveries = false;
        if (!std::exchange(mIsClosed, true))
            mHasLost = hasLost;
    }
    for (const TlsDelivery& delivery : mDeliveries)
        delivery.complete(delivery, !hasLost || delivery.endBytes <= mHandedBytes);
    for (const TlsDelivery& delivery : over)
        delivery.complete(delivery, !hasLost);
    mDeliveryCount -= mDeliveries.size() + over.size();
    mDeliveries.clear();
}

bool TlsHop::endReading() noexcept
{
    if (mIsUpOver)
        return true;
    if (!mIsEndWanted.exchange(true) && !mRelay.proceedLater(shared_from_this()))
        mIsEndWanted = false;
    return false;
}

void TlsHop::release()
{
    mIsReleased = true;
    // The relay completes those of earlier requests, and counts then.
    if (mDeliveryCount == 0 && mIsCounted.exchange(false))
        --mRelay.mUnfinished;
}

bool TlsHop::isUnfinished() const
{
    return (mState == State::Forwarding && !mIsDownOver && !mIsReleased) || mDeliveryCount != 0;
}

TlsHop::State TlsHop::proceed(std::vector<char>& buffer, bool halfClosedClients)
{
    if (move(buffer, halfClosedClients) != State::Over)
        completeDeliveries();
    return mState;
}

TlsHop::State TlsHop::move(std::vector<char>& buffer, bool halfClosedClients)
{
    if (mState == State::Discarding)
        return discard(buffer);
    mHasMore = false;
    if (!noteEvents(halfClosedClients) || !pumpUp(buffer) || mHasFailed || !pumpDown(buffer))
        return mState = State::Over;
    if (mIsDownOver && (mIsUpOver || mIsPairClosed)) {
        closePair();
        mSession->endTls();
        mIsUpOver = true;
        mState = State::Discarding;
        if (mIsClientHungUp)
            return discard(buffer);
    }
    return mState;
}

// False when nothing is left to do for the client.
bool TlsHop::noteEvents(bool halfClosedClients)
{
    const uint32_t ofClient = std::exchange(mClientEvents, 0);
    const uint32_t ofPair = std::exchange(mPairEvents, 0);
    if ((ofClient & EPOLLERR) != 0 || ((ofClient & EPOLLHUP) != 0 && mIsUpOver))
        return false;
    // Both directions have ended; bytes of the client may wait. Reported without end.
    if ((ofClient & EPOLLHUP) != 0)
        mIsClientHungUp = true;
    mMayRead = mMayRead || mIsEndWanted || (ofClient & (EPOLLIN | EPOLLHUP)) != 0 ||
               ((ofClient & EPOLLOUT) != 0 && mReadWantsWrite);
    if ((ofPair & (EPOLLHUP | EPOLLERR)) != 0)
        mIsPairClosed = true;
    mIsPairReadable = mIsPairReadable || mIsPairClosed || (ofPair & EPOLLIN) != 0;
    // The bytes behind which it has ended are not read while the daemon is behind.
    if ((ofClient & EPOLLRDHUP) != 0) {
        mHasSeenEnd = true;
        if (!mUp.empty() && !halfClosedClients && !mIsReleased)
            endUp();
    }
    return true;
}

// False when the connection has failed.
bool TlsHop::pumpUp(std::vector<char>& buffer)
{
    size_t moved = 0;
    while (!mIsUpOver && flushUp()) {
        if (mIsUpClosing) {
            endUp();
        } else if (!mMayRead) {
            break;
        } else if (moved >= kTurnBytes) {
            mHasMore = true;
            break;
        } else {
            size_t filled = 0;
            const bool isOpen = decrypt(buffer, filled);
            forward(buffer.data(), filled);
            if (!isOpen)
                return false;
            moved += filled;
        }
    }
    return true;
}

// Reads the received bytes, at most a buffer. False when the connection has failed.
bool TlsHop::decrypt(std::vector<char>& buffer, size_t& filled)
{
    Result result = Result::Done;
    bool hasReceived = true;
    while (filled < buffer.size() && result == Result::Done && hasReceived) {
        size_t count = 0;
        result = mSession->read(buffer.data() + filled, buffer.size() - filled, count);
        filled += count;
        hasReceived = mSession->hasReceived();
    }
    mReadWantsWrite = result == Result::WantsWrite;
    mIsUpClosing = result == Result::Closed || (result == Result::WantsRead && mIsEndWanted);
    // Level-triggered: more bytes of the client are reported again.
    mMayRead = result == Result::Done && (hasReceived || mIsEndWanted || mIsClientHungUp);
    return result != Result::Failed;
}

// Sends to the daemon; the bytes that its socket does not take are kept. A daemon that reads no
// more ends the direction.
void TlsHop::forward(const char* bytes, size_t size)
{
    const size_t sent = sendToPair(bytes, size);
    if (sent == size || mIsUpOver)
        return;
    mUp.assign(bytes + sent, size - sent);
    mUpSent = 0;
}

size_t TlsHop::sendToPair(const char* bytes, size_t size)
{
    size_t sent = 0;
    while (sent < size) {
        const ssize_t count = send(mPair, bytes + sent, size - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) {
            sent += static_cast<size_t>(count);
        } else if (!mustWait(errno)) {
            endUp();
            break;
        } else if (errno != EINTR) {
            break;
        }
    }
    return sent;
}

// True when nothing is kept.
bool TlsHop::flushUp()
{
    if (mUp.empty())
        return true;
    mUpSent += sendToPair(mUp.data() + mUpSent, mUp.size() - mUpSent);
    if (mIsUpOver || mUpSent < mUp.size())
        return false;
    mUp = std::string();
    return true;
}

void TlsHop::endUp()
{
    mUp.clear();
    mIsUpClosing = false;
    // Before the end: a thread that sees it may shut down the daemon's side.
    mIsUpOver = true;
    mHasFailed = shutdown(mPair, SHUT_WR) != 0;
}

bool TlsHop::pumpDown(std::vector<char>& buffer)
{
    size_t moved = 0;
    mIsDownBlocked = false;
    while (!mIsDownOver) {
        if (!flushDown())
            return false;
        if (mIsDownBlocked)
            return !(mIsPairClosed && mustCut());
        if (mIsPairEnded)
            return endDown();
        if (!mIsPairReadable)
            return true;
        if (moved >= kTurnBytes) {
            mHasMore = true;
            return true;
        }
        const ssize_t count = recv(mPair, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count < 0 && mustWait(errno) && !mIsPairClosed) {
            mIsPairReadable = false;
            return true;
        }
        mIsPairEnded = count <= 0;
        if (mIsPairEnded)
            continue;
        moved += static_cast<size_t>(count);
        mTakenBytes += static_cast<uint64_t>(count);
        // Level-triggered: more bytes of the daemon are reported again, except behind its end.
        mIsPairReadable = mIsPairClosed || static_cast<size_t>(count) == buffer.size();
        if (!encrypt(buffer.data(), static_cast<size_t>(count)))
            return false;
    }
    return true;
}

// False when the connection has failed. Bytes that the client's socket does not take are kept.
bool TlsHop::encrypt(const char* bytes, size_t size)
{
    size_t sent = 0;
    while (sent < size) {
        size_t count = 0;
        const Result result = mSession->write(bytes + sent, size - sent, count);
        sent += count;
        mHandedBytes += count;
        if (result == Result::Done)
            continue;
        // Half a message of a handshake: there is no renegotiation, and no write waits for one.
        if (result != Result::WantsWrite)
            return false;
        mDown.assign(bytes + sent, size - sent);
        mDownSent = 0;
        mIsDownBlocked = true;
        return true;
    }
    return true;
}

bool TlsHop::flushDown()
{
    while (mDownSent < mDown.size()) {
        size_t count = 0;
        const Result result =
            mSession->write(mDown.data() + mDownSent, mDown.size() - mDownSent, count);
        mDownSent += count;
        mHandedBytes += count;
        if (result == Result::Done)
            continue;
        mIsDownBlocked = true;
        return result == Result::WantsWrite;
    }
    if (!mDown.empty()) {
        mDown = std::string();
        mDownSent = 0;
    }
    return true;
}

// The daemon has ended within a response: the client would take a part of a body without a length
// for all of it.
bool TlsHop::mustCut()
{
    if (!mIsCut)
        return false;
    mSession->resetAtEnd();
    return true;
}

bool TlsHop::endDown()
{
    if (mustCut())
        return false;
    const Result result = mSession->sendCloseNotify();
    mIsDownBlocked = result != Result::Done;
    if (result == Result::Done) {
        shutdown(mSession->getDescriptor(), SHUT_WR);
        mIsDownOver = true;
    }
    return result == Result::Done || result == Result::WantsWrite;
}

// A reset would destroy bytes that the client has not received yet.
TlsHop::State TlsHop::discard(std::vector<char>& buffer)
{
    mClientEvents = 0;
    for (int i = 0; i < kMaxReadsAtOnce; ++i) {
        const ssize_t count =
            recv(mSession->getDescriptor(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (count < 0 && mustWait(errno))
            return mState;
        mDiscardedBytes += count > 0 ? static_cast<uint64_t>(count) : 0;
        if (count <= 0 || mDiscardedBytes > kMaxDiscardedBytes)
            return mState = State::Over;
    }
    return mState;
}

uint32_t TlsHop::wantedOfClient() const
{
    if (mState == State::Discarding)
        return EPOLLIN;
    uint32_t wanted = 0;
    if (mIsDownBlocked || mReadWantsWrite)
        wanted |= EPOLLOUT;
    if (!mIsUpOver && mUp.empty())
        wanted |= EPOLLIN;
    if (!mIsUpOver && !mUp.empty() && !mHasSeenEnd)
        wanted |= EPOLLRDHUP;
    return wanted;
}

uint32_t TlsHop::wantedOfPair() const
{
    uint32_t wanted = 0;
    if (!mIsPairEnded && !mIsDownBlocked)
        wanted |= EPOLLIN;
    if (!mUp.empty())
        wanted |= EPOLLOUT;
    return wanted;
}

}  // namespace qv::impl
