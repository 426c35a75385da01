// An event loop and its thread.
#ifndef WENDREL_KIT_WEBSOCKET_LOOP_H
#define WENDREL_KIT_WEBSOCKET_LOOP_H

#include "websocket/Buffer.h"
#include "websocket/Deflate.h"
#include "websocket/TimerWheel.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

namespace qv::kit::websocket
{

class Connection;

// Closes its descriptor.
class Descriptor
{
public:
    explicit Descriptor(int descriptor) : mDescriptor(descriptor) {}
    ~Descriptor();
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    operator int() const { return mDescriptor; }

private:
    const int mDescriptor;
};

// Shared by the sessions of an engine. Any thread.
class Membership
{
public:
    explicit Membership(uint64_t budgetBytes) : budget(budgetBytes) {}

    // Counts a session and begins it; false once `close` has been called.
    template <typename Begin> bool join(Begin begin)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mIsClosed)
            return false;
        ++mCount;
        begin();
        return true;
    }
    // The first call counts: the budget is part of that of `memory`.
    void share(const MemoryAccount& memory);
    void leave();
    void close();
    // An earlier limit of a wait, also of one that goes on.
    void limitWait(std::chrono::steady_clock::time_point limit);
    // False at the time limit.
    bool waitUntilEmpty();
    size_t count() const;

    Budget budget;
    std::atomic<size_t> forced{0};  // ended by the deadline of a shutdown

private:
    mutable std::mutex mMutex;
    std::condition_variable mEmpty;
    // These under mMutex.
    std::chrono::steady_clock::time_point mWaitLimit = std::chrono::steady_clock::time_point::max();
    size_t mCount = 0;
    bool mIsClosed = false;
    bool mIsShared = false;
};

// Waits for descriptors, deadlines and wake-ups of its connections. Its own work needs no memory,
// so that it goes on when there is none.
//
// A connection with work from another thread is pushed to a list without a lock; the first of a
// round also writes to the eventfd. Everything without a comment is used by the loop's thread.
class Loop
{
public:
    explicit Loop(std::shared_ptr<Membership> membership);
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    // Any thread.
    size_t load() const { return mLoad.load(std::memory_order_relaxed); }
    void adopt(const std::shared_ptr<Connection>& connection);
    // Closes all connections; ends those that are left at `deadlineMs` of nowMs(). A further call
    // can only make it earlier.
    void beginShutDown(int64_t deadlineMs);
    // Ends the thread. The loop stays valid for its connections.
    void stop();
    // Whether the caller is the thread of a loop.
    static bool isLoopThread();
    // The connection has work. True: call `wake`, after its lock has been released.
    bool push(Connection& connection);
    void wake();

    static int64_t nowMs();

private:
    friend class Connection;

    static constexpr size_t kScratchBytes = 65536;

    void run();
    void handleReady();
    void beginDraining();
    void endAll();
    void destroyEnded();
    int timeoutMs() const;
    void add(std::shared_ptr<Connection> connection) noexcept;
    void remove(Connection& connection) noexcept;

    const std::shared_ptr<Membership> mMembership;
    const Descriptor mEpoll;
    const Descriptor mWakeUp;
    std::atomic<Connection*> mReady{nullptr};  // any thread pushes, the loop takes all
    std::atomic<size_t> mLoad{0};
    std::atomic<int64_t> mDrainDeadlineMs{0};  // 0: not shutting down
    std::atomic<bool> mStops{false};

    int64_t mNowMs;
    bool mIsDraining = false;
    Connection* mFirst = nullptr;       // a list, which owns its elements
    Connection* mFirstEnded = nullptr;  // likewise: destroyed after the events of a round
    TimerWheel mTimers;
    // Shared by the connections, one of which is handled at a time.
    std::unique_ptr<uint8_t[]> mScratch;
    Buffer mOut;
    Buffer mReusable;  // for a message in several pieces, or decompressed
    InflaterPool mInflaters;
    std::thread mThread;
};

}  // namespace qv::kit::websocket

#endif
