// One epoll set, level-triggered, for both sockets of each hop. Its masks change only when a
// direction is blocked or ends: a request and its response cost no call of epoll_ctl.

#include "listener/TlsRelay.h"

#include <qvSystem/Rollback.h>
#include <qvSystem/qvSystemUtils.h>

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <limits>
#include <new>
#include <system_error>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr const char* kThreadName = "TlsRelay";
constexpr int kMaxEvents = 128;
constexpr int kSweepMs = 64;
constexpr int64_t kMaxDiscardMs = 5000;
constexpr int64_t kStopMs = 1000;
constexpr unsigned long kNoTimeout = std::numeric_limits<unsigned long>::max();
constexpr uint64_t kPairBit = 1;  // of a key; hops are aligned

uint64_t keyOf(const TlsHop& hop)
{
    return reinterpret_cast<uintptr_t>(&hop);
}

}  // namespace

TlsRelay::TlsRelay(bool halfClosedClients)
    : mHalfClosedClients(halfClosedClients), mBuffer(TlsHop::kBufferBytes)
{
    Rollback opened([this] {
        if (mWake >= 0)
            close(mWake);
        if (mEpoll >= 0)
            close(mEpoll);
    });
    mEpoll = epoll_create1(EPOLL_CLOEXEC);
    mWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event event{};
    event.events = EPOLLIN;
    if (mEpoll < 0 || mWake < 0 || epoll_ctl(mEpoll, EPOLL_CTL_ADD, mWake, &event) != 0)
        throw std::system_error(errno, std::system_category(), "epoll");
    startThread(kThreadName);
    opened.commit();
}

TlsRelay::~TlsRelay()
{
    mIsStopping = true;
    wake();
    waitThread(kNoTimeout);
    close(mWake);
    close(mEpoll);
}

void TlsRelay::wake()
{
    eventfd_write(mWake, 1);
}

void TlsRelay::add(const std::shared_ptr<TlsHop>& hop)
{
    {
        const qvMutexLocker locker(&mMutex);
        mRequests.push_back(hop);
    }
    wake();
}

bool TlsRelay::proceedLater(std::shared_ptr<TlsHop> hop) noexcept
{
    try {
        const qvMutexLocker locker(&mMutex);
        mRequests.push_back(std::move(hop));
    } catch (const std::bad_alloc&) {
        return false;
    }
    wake();
    return true;
}

void TlsRelay::closeAll()
{
    {
        const qvMutexLocker locker(&mMutex);
        mMustCloseAll = true;
    }
    wake();
}

// SIGPIPE: OpenSSL writes to sockets whose peers may have closed them. The others belong to the
// application's threads.
void TlsRelay::run()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    std::array<epoll_event, kMaxEvents> events;
    while (!isOver()) {
        const bool mustLook = mIsStopping || !mDiscarding.empty();
        const int timeout = !mQueued.empty() ? 0 : mustLook ? kSweepMs : -1;
        const int count = epoll_wait(mEpoll, events.data(), kMaxEvents, timeout);
        noteEvents(events.data(), count);
        takeRequests();
        proceedQueued();
        if (!mDiscarding.empty())
            closeExpired(qvSystemUtils::GetTimeBaseMs());
        // One at a time: each holds the next.
        while (mRemoved)
            mRemoved = std::exchange(mRemoved->mNextRemoved, nullptr);
    }
    while (!mHops.empty())
        remove(mHops.begin()->second);
    while (mRemoved)
        mRemoved = std::exchange(mRemoved->mNextRemoved, nullptr);
}

// The last bytes of connections that the application has closed leave first.
bool TlsRelay::isOver()
{
    if (!mIsStopping)
        return false;
    const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
    mStopMs = std::min(mStopMs, nowMs + kStopMs);
    const auto isOpen = [](const auto& entry) {
        return entry.second->mState == TlsHop::State::Forwarding;
    };
    return nowMs >= mStopMs || std::none_of(mHops.begin(), mHops.end(), isOpen);
}

void TlsRelay::noteEvents(const epoll_event* events, int count)
{
    for (int i = 0; i < count; ++i) {
        const uint64_t key = events[i].data.u64;
        // NOLINTNEXTLINE(performance-no-int-to-ptr): the lowest bit tells the sockets apart.
        auto* const hop = reinterpret_cast<TlsHop*>(key & ~kPairBit);
        if (!hop) {
            eventfd_t wakes = 0;
            eventfd_read(mWake, &wakes);
            continue;
        }
        ((key & kPairBit) != 0 ? hop->mPairEvents : hop->mClientEvents) |= events[i].events;
        try {
            queue(hop->shared_from_this());
        } catch (const std::bad_alloc&) {
            // Level-triggered events would be reported without end.
            remove(hop->shared_from_this());
        }
    }
}

void TlsRelay::queue(const std::shared_ptr<TlsHop>& hop)
{
    if (hop->mIsQueued)
        return;
    mQueued.push_back(hop);
    hop->mIsQueued = true;
}

// New hops, and those that another thread has asked to proceed.
void TlsRelay::takeRequests()
{
    bool mustCloseAll = false;
    {
        const qvMutexLocker locker(&mMutex);
        mTaken.swap(mRequests);
        mustCloseAll = std::exchange(mMustCloseAll, false);
    }
    for (const std::shared_ptr<TlsHop>& hop : mTaken) {
        if (hop->mState == TlsHop::State::Over)
            continue;
        try {
            mHops.try_emplace(hop.get(), hop);
            queue(hop);
        } catch (const std::bad_alloc&) {
            remove(hop);
        }
    }
    mTaken.clear();
    if (!mustCloseAll)
        return;
    for (auto next = mHops.begin(); next != mHops.end();) {
        const std::shared_ptr<TlsHop> hop = (next++)->second;
        if (!hop->mIsReleased) {
            remove(hop);
        } else {
            // Those of its requests before the upgrade.
            hop->endDeliveries(true);
            count(*hop);
        }
    }
}

void TlsRelay::proceedQueued()
{
    mProceeding.swap(mQueued);
    for (const std::shared_ptr<TlsHop>& hop : mProceeding) {
        hop->mIsQueued = false;
        if (hop->mState != TlsHop::State::Over)
            proceed(hop);
    }
    mProceeding.clear();
}

// A connection for which there is no memory is closed.
void TlsRelay::proceed(const std::shared_ptr<TlsHop>& hop)
{
    TlsHop::State state = TlsHop::State::Over;
    const TlsHop::State before = hop->mState;
    try {
        state = hop->proceed(mBuffer, mHalfClosedClients);
        if (state == TlsHop::State::Discarding && before != state)
            startDiscarding(hop);
        if (state != TlsHop::State::Over && hop->mHasMore)
            queue(hop);
    } catch (const std::bad_alloc&) {
        state = TlsHop::State::Over;
    }
    if (state == TlsHop::State::Over) {
        remove(hop);
        return;
    }
    count(*hop);
    if (!watch(*hop))
        remove(hop);
}

bool TlsRelay::change(int operation, int descriptor, uint32_t events, uint64_t key)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = key;
    return epoll_ctl(mEpoll, operation, descriptor, &event) == 0;
}

// False when the system cannot watch more sockets.
bool TlsRelay::watch(TlsHop& hop)
{
    if (hop.mIsClientWatchOver)
        return watchPair(hop);
    if (hop.mIsClientHungUp) {
        hop.mIsClientWatchOver = true;
        if (hop.mIsWatchingClient)
            unwatch(hop.mSession->getDescriptor());
        return watchPair(hop);
    }
    const uint32_t ofClient = hop.wantedOfClient();
    const bool isKnown = std::exchange(hop.mIsWatchingClient, true);
    if (isKnown && hop.mClientMask == ofClient)
        return watchPair(hop);
    hop.mClientMask = ofClient;
    return change(isKnown ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, hop.mSession->getDescriptor(), ofClient,
                  keyOf(hop)) &&
           watchPair(hop);
}

// Once the daemon has closed its end nothing more is reported about it.
bool TlsRelay::watchPair(TlsHop& hop)
{
    if (hop.mPair < 0 || hop.mIsPairWatchOver)
        return true;
    if (hop.mIsPairClosed) {
        hop.mIsPairWatchOver = true;
        return !hop.mIsWatchingPair || change(EPOLL_CTL_DEL, hop.mPair, 0, 0);
    }
    const uint32_t ofPair = hop.wantedOfPair();
    const bool isKnown = std::exchange(hop.mIsWatchingPair, true);
    if (isKnown && hop.mPairMask == ofPair)
        return true;
    hop.mPairMask = ofPair;
    return change(isKnown ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, hop.mPair, ofPair,
                  keyOf(hop) | kPairBit);
}

// A child of the application may hold the descriptor: closing it would not end its events.
void TlsRelay::unwatch(int descriptor)
{
    epoll_ctl(mEpoll, EPOLL_CTL_DEL, descriptor, nullptr);
}

void TlsRelay::count(TlsHop& hop)
{
    const bool isCounted = hop.isUnfinished();
    const bool isFlushing = isCounted && hop.isFlushing();
    const bool isOpen = hop.mState != TlsHop::State::Over;
    const auto note = [](bool& noted, bool is, auto& number) {
        if (std::exchange(noted, is) != is)
            number += is ? size_t{1} : ~size_t{0};
    };
    note(hop.mIsCountedFlushing, isFlushing, mFlushing);
    note(hop.mIsCountedDiscarding, hop.mState == TlsHop::State::Discarding, mDiscardingCount);
    // Before it is not unfinished any more: a connection is always one of both.
    note(hop.mIsCountedUnseen, isOpen && hop.mIsDownOver && !hop.mIsReleased, mUnseen);
    if (!isCounted && hop.mIsCounted.exchange(false))
        --mUnfinished;
}

void TlsRelay::startDiscarding(const std::shared_ptr<TlsHop>& hop)
{
    hop->mDiscardUntilMs = qvSystemUtils::GetTimeBaseMs() + kMaxDiscardMs;
    mDiscarding.push_back(hop);
    if (mDiscardingCount < kMaxDiscarding)
        return;
    for (auto next = mDiscarding.begin(); next != mDiscarding.end(); ++next) {
        if (const std::shared_ptr<TlsHop> oldest = next->lock();
            oldest && oldest->mState == TlsHop::State::Discarding) {
            remove(oldest);
            return;
        }
    }
}

void TlsRelay::closeExpired(int64_t nowMs)
{
    while (!mDiscarding.empty()) {
        const std::shared_ptr<TlsHop> oldest = mDiscarding.front().lock();
        const bool isOver = !oldest || oldest->mState == TlsHop::State::Over;
        if (!isOver && nowMs < oldest->mDiscardUntilMs)
            return;
        mDiscarding.pop_front();
        if (!isOver)
            remove(oldest);
    }
}

// Closes both sockets now, although another thread may hold the hop. Without memory, too.
void TlsRelay::remove(std::shared_ptr<TlsHop> hop)
{
    TlsHop& removed = *hop;
    if (removed.mState == TlsHop::State::Over && !removed.mSession)
        return;
    removed.end();
    count(removed);
    mHops.erase(&removed);
    removed.mNextRemoved = std::exchange(mRemoved, std::move(hop));
}

}  // namespace qv::impl
