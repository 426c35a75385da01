// The event loop of the secure connections of one daemon.
#ifndef WENDREL_LISTENER_TLSRELAY_H
#define WENDREL_LISTENER_TLSRELAY_H

#include "listener/TlsHop.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvThread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <unordered_map>
#include <vector>

struct epoll_event;

namespace qv::impl
{

// Its thread alone uses the sockets and sessions of its hops.
class TlsRelay : private qvThread
{
public:
    // Connections whose last record has been sent, open until the client has seen it. Beyond: the
    // oldest is closed.
    static constexpr size_t kMaxDiscarding = 256;

    // Throws std::system_error without descriptors or threads.
    explicit TlsRelay(bool halfClosedClients);

    // Closes all connections.
    ~TlsRelay() override;

    // Takes over a new connection. Any thread.
    void add(const std::shared_ptr<TlsHop>& hop);

    // `proceed` is called soon. False without memory. Any thread.
    bool proceedLater(std::shared_ptr<TlsHop> hop) noexcept;

    // Closes all connections that are not released. Any thread.
    void closeAll();

    // Connections that are not released and not sent to their end, or whose requests are not
    // completed. Any thread, no lock, as below.
    size_t getUnfinished() const { return mUnfinished; }

    // Of these, those whose daemon has closed them.
    size_t getFlushing() const { return mFlushing; }

    // Connections that are sent to their end, which their clients have not seen.
    size_t getUnseen() const { return mUnseen; }

private:
    friend class TlsHop;

    void run() override;
    void takeRequests();
    bool isOver();
    void noteEvents(const epoll_event* events, int count);
    void queue(const std::shared_ptr<TlsHop>& hop);
    void proceedQueued();
    void proceed(const std::shared_ptr<TlsHop>& hop);
    bool watch(TlsHop& hop);
    bool watchPair(TlsHop& hop);
    void unwatch(int descriptor);
    bool change(int operation, int descriptor, uint32_t events, uint64_t key);
    void count(TlsHop& hop);
    void startDiscarding(const std::shared_ptr<TlsHop>& hop);
    void closeExpired(int64_t nowMs);
    void remove(std::shared_ptr<TlsHop> hop);
    void wake();

    const bool mHalfClosedClients;
    int mEpoll = -1;
    int mWake = -1;
    std::atomic<size_t> mUnfinished{0};
    std::atomic<size_t> mFlushing{0};
    std::atomic<size_t> mUnseen{0};
    std::atomic<bool> mIsStopping{false};

    qvMutex mMutex;
    std::vector<std::shared_ptr<TlsHop>> mRequests QV_GUARDED_BY(mMutex);
    bool mMustCloseAll QV_GUARDED_BY(mMutex) = false;

    // The thread of the relay.
    std::unordered_map<TlsHop*, std::shared_ptr<TlsHop>> mHops;
    std::vector<std::shared_ptr<TlsHop>> mTaken;  // of `mRequests`
    std::vector<std::shared_ptr<TlsHop>> mQueued;
    std::vector<std::shared_ptr<TlsHop>> mProceeding;  // of `mQueued`
    size_t mDiscardingCount = 0;
    std::shared_ptr<TlsHop> mRemoved;  // with those behind it; until their events have been handled
    std::deque<std::weak_ptr<TlsHop>> mDiscarding;  // the oldest first
    std::vector<char> mBuffer;
    int64_t mStopMs = std::numeric_limits<int64_t>::max();
};

}  // namespace qv::impl

#endif
