// An event loop and its thread.

#include "websocket/Loop.h"

#include "websocket/Connection.h"

#include <qvSystem/qvThread.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace qv::kit::websocket
{
namespace
{

constexpr int kMaxEvents = 256;
constexpr int64_t kMaxTimeoutMs = 3600000;  // fits the argument of epoll_wait

thread_local const Loop* tLoop = nullptr;  // whose thread this is

void require(bool ok, const char* what)
{
    if (!ok)
        throw std::system_error(errno, std::system_category(), what);
}

// Signals are handled by the threads of the application.
class BlockedSignals
{
public:
    BlockedSignals()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &mBefore);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t mBefore;
};

}  // namespace

// Every session that counts anything has joined after a call, under the same mutex.
void Membership::share(const MemoryAccount& memory)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    if (!std::exchange(mIsShared, true))
        budget.share(memory);
}

void Membership::leave()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    if (--mCount == 0)
        mEmpty.notify_all();
}

void Membership::close()
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mIsClosed = true;
}

void Membership::limitWait(std::chrono::steady_clock::time_point limit)
{
    const std::lock_guard<std::mutex> lock(mMutex);
    mWaitLimit = std::min(mWaitLimit, limit);
    mEmpty.notify_all();
}

bool Membership::waitUntilEmpty()
{
    std::unique_lock<std::mutex> lock(mMutex);
    while (mCount != 0 && std::chrono::steady_clock::now() < mWaitLimit) {
        const auto limit = mWaitLimit;  // changed by others meanwhile
        mEmpty.wait_until(lock, limit);
    }
    return mCount == 0;
}

size_t Membership::count() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mCount;
}

Descriptor::~Descriptor()
{
    if (mDescriptor != -1)
        ::close(mDescriptor);
}

Loop::Loop(std::shared_ptr<Membership> membership)
    : mMembership(std::move(membership)), mEpoll(epoll_create1(EPOLL_CLOEXEC)),
      mWakeUp(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), mNowMs(nowMs()), mTimers(mNowMs),
      mScratch(std::make_unique_for_overwrite<uint8_t[]>(kScratchBytes)),
      mReusable(&mMembership->budget)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = nullptr;
    require(mEpoll != -1 && mWakeUp != -1, "cannot make an event loop");
    require(epoll_ctl(mEpoll, EPOLL_CTL_ADD, mWakeUp, &event) == 0, "cannot make an event loop");
    const BlockedSignals blocked;
    mThread = std::thread([this] { run(); });
    pthread_setname_np(mThread.native_handle(), "websocket");
}

Loop::~Loop()
{
    stop();
}

int64_t Loop::nowMs()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

void Loop::adopt(const std::shared_ptr<Connection>& connection)
{
    mLoad.fetch_add(1, std::memory_order_relaxed);
    connection->begin();
}

// The eventfd is written before the list is read again, so that no wake-up is lost: only the first
// push to an empty list writes, and the loop takes the list after it has read the eventfd.
bool Loop::push(Connection& connection)
{
    Connection* head = mReady.load(std::memory_order_relaxed);
    do {
        connection.mNextReady = head;
    } while (!mReady.compare_exchange_weak(head, &connection, std::memory_order_acq_rel,
                                           std::memory_order_relaxed));
    return head == nullptr && tLoop != this;
}

void Loop::wake()
{
    const uint64_t one = 1;
    // It fails only when it counts to 2^64 - 2, and the loop is woken then anyway.
    [[maybe_unused]] const ssize_t written = ::write(mWakeUp, &one, sizeof one);
}

void Loop::beginShutDown(int64_t deadlineMs)
{
    const int64_t wanted = std::max<int64_t>(deadlineMs, 1);
    int64_t known = mDrainDeadlineMs;
    while ((known == 0 || wanted < known) &&
           !mDrainDeadlineMs.compare_exchange_weak(known, wanted)) {
    }
    wake();
}

bool Loop::isLoopThread()
{
    return tLoop != nullptr;
}

void Loop::stop()
{
    mStops = true;
    wake();
    if (mThread.joinable())
        mThread.join();
}

int Loop::timeoutMs() const
{
    // Pushed by this thread: nobody wakes it.
    if (mReady.load(std::memory_order_relaxed))
        return 0;
    const int64_t now = nowMs();
    int64_t timeout = mTimers.timeoutMs(now);
    const int64_t deadline = mDrainDeadlineMs;
    if (deadline != 0 && mFirst) {
        const int64_t left = std::max<int64_t>(0, deadline - now);
        timeout = timeout < 0 ? left : std::min(timeout, left);
    }
    return static_cast<int>(std::min(timeout, kMaxTimeoutMs));
}

void Loop::run()
{
    tLoop = this;
    prepareThread();
    qvThread::CurrentThreadId();  // for log lines; an object of the thread, too
    std::array<epoll_event, kMaxEvents> events;
    while (!mStops) {
        const int count = epoll_wait(mEpoll, events.data(), kMaxEvents, timeoutMs());
        mNowMs = nowMs();
        for (int i = 0; i < count; ++i) {
            auto* const connection =
                static_cast<Connection*>(events[static_cast<size_t>(i)].data.ptr);
            uint64_t wakeUps = 0;
            if (connection)
                connection->onEvents(events[static_cast<size_t>(i)].events);
            else if (::read(mWakeUp, &wakeUps, sizeof wakeUps) < 0)
                continue;
        }
        handleReady();
        mTimers.expire(mNowMs, [](TimerNode& node) { static_cast<Connection&>(node).onTimer(); });
        if (mDrainDeadlineMs != 0)
            beginDraining();
        destroyEnded();
    }
    endAll();
}

// In the order of the pushes.
void Loop::handleReady()
{
    Connection* taken = mReady.exchange(nullptr, std::memory_order_acq_rel);
    Connection* first = nullptr;
    while (taken) {
        Connection* const next = taken->mNextReady;
        taken->mNextReady = first;
        first = taken;
        taken = next;
    }
    while (first) {
        Connection* const connection = first;
        first = first->mNextReady;
        // From now on it may be pushed again.
        const std::shared_ptr<Connection> held = connection->takeScheduled();
        held->onReady();
    }
}

void Loop::beginDraining()
{
    if (!mIsDraining) {
        mIsDraining = true;
        for (Connection* connection = mFirst; connection;) {
            Connection* const next = connection->mNext;
            connection->closeForShutDown();
            connection = next;
        }
        handleReady();
    }
    if (!mFirst || mNowMs < mDrainDeadlineMs)
        return;
    endAll();
}

void Loop::endAll()
{
    handleReady();
    while (mFirst)
        mFirst->endByDeadline();
    handleReady();
    destroyEnded();
}

void Loop::destroyEnded()
{
    while (mFirstEnded) {
        const std::shared_ptr<Connection> ended = std::move(mFirstEnded->mHeld);
        mFirstEnded = ended->mNext;
    }
}

void Loop::add(std::shared_ptr<Connection> connection) noexcept
{
    Connection& added = *connection;
    added.mHeld = std::move(connection);
    added.mNext = mFirst;
    if (mFirst)
        mFirst->mPrevious = &added;
    mFirst = &added;
}

void Loop::remove(Connection& connection) noexcept
{
    mTimers.remove(connection);
    (connection.mPrevious ? connection.mPrevious->mNext : mFirst) = connection.mNext;
    if (connection.mNext)
        connection.mNext->mPrevious = connection.mPrevious;
    connection.mNext = mFirstEnded;
    mFirstEnded = &connection;
    mLoad.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace qv::kit::websocket
