// Accepts connections and watches them: limits, deadlines, closed peers, the drain of a shutdown.
#ifndef WENDREL_LISTENER_LISTENER_H
#define WENDREL_LISTENER_LISTENER_H

#include "listener/ConnectionPlaces.h"
#include "listener/ConnectionTable.h"
#include "listener/Endpoint.h"
#include "listener/TlsEngine.h"
#include "listener/TlsHandshakes.h"
#include "request/AddressSet.h"
#include "request/MemoryBudget.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <sys/socket.h>

namespace qv::impl
{

struct ProxyHeader;

// Where the listener puts a connection. Called on the listener thread.
class ConnectionSink
{
public:
    virtual ~ConnectionSink() = default;
    virtual ConnectionTable& getTable() = 0;

    // Takes the ownership of the descriptor, also when it fails.
    virtual bool serve(int descriptor, const sockaddr* address, size_t bytes) = 0;

    // Ends a wait of the daemon for one more event; called every kNudgeMs, or kIdleNudgeMs, while
    // it has at least kNudgeConnections.
    virtual void nudge() = 0;

    // It has fewer: frees what `nudge` uses.
    virtual void stopNudging() = 0;

    // Has the daemon's thread repeat `turn`, and returns the last number that it has repeated.
    virtual void askForTurn(uint64_t turn) = 0;
    virtual uint64_t getTurn() const = 0;
};

class Listener : private TlsHandshakeSink
{
public:
    struct Limits
    {
        size_t maxConnections = 0;
        size_t maxConnectionsPerAddress = 0;  // 0: none
        int64_t sendMs = 0;                   // 0: none
        bool halfClosedClients = false;
        int64_t headMs = 0;  // 0: none
        AddressSet trustedProxies;
        std::shared_ptr<MemoryBudget> memoryBudget;  // null: none
        uint64_t uploadPieceBytes = 0;               // a resumed upload takes about so many
        std::shared_ptr<TlsEngine> tls;              // null: no secure endpoint
        size_t handshakeThreads = 1;
    };

    // The daemon waits for one more event when exactly so many are ready, or a multiple.
    static constexpr size_t kFullBatch = 128;

    // From so many connections on its wait is ended every kNudgeMs: it has events of its own, too.
    static constexpr size_t kNudgeConnections = 126;
    static constexpr int64_t kNudgeMs = 10;

    // The same for a daemon that works for no request and has not since the last time.
    static constexpr int64_t kIdleNudgeMs = DeadlineWheel::kSlotMs;

    // The same for a daemon with a multiple of kFullBatch that has requests.
    static constexpr int64_t kFullBatchNudgeMs = 1;

    // Connections that are over and open for a moment, so that the client receives the response.
    static constexpr size_t kMaxRefused = 256;

    // Opens its epoll set and takes the sockets over; throws std::system_error without descriptors
    // or threads.
    Listener(const Limits& limits, std::vector<ListeningSocket> sockets,
             std::vector<ConnectionSink*> sinks);
    ~Listener() override;
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Serves until `stop`. The thread that calls this and `drain` is the listener thread.
    void run();

    // After `run`: closes the listening sockets, ends connections without a request, and returns
    // when all connections are closed. Requests that are not finished by the deadline are aborted.
    void drain();

    // Ends `run`, and sets the deadline of `drain`. A later call can only shorten it. Any thread.
    void stop(int64_t limitMs);

    // From `stop` on: every response closes its connection. Any thread, no lock.
    bool isDraining() const { return mDrainDeadlineMs != kNoDeadline; }

    // The time of the drain is over: requests are refused. Any thread, no lock.
    bool isStopping() const { return mIsStopping; }

    // Rounds in which the listener thread and the thread of each sink have done something. A call
    // that finds the last round complete begins the next one. Any thread.
    uint64_t countTurns();

    // Whether every request had its response when `drain` returned.
    bool hasDrained() const { return !mHasAborted; }

    // A connection has been closed. Called by daemon threads.
    void connectionClosed(Connection& connection);

    // Takes over a descriptor of a connection that the daemon closes before it has read all that
    // its client sends: a reset would destroy the response. Called by daemon threads.
    void keepUntilSeen(int descriptor) override;

    // Watches for the peer's end of a connection, and stops to. Called by the daemon thread.
    void unwatch(int descriptor);

    // The TLS of the secure endpoints; null without one. Any thread.
    const std::shared_ptr<TlsEngine>& getTls() const { return mLimits.tls; }

private:
    struct Refused
    {
        int descriptor;
        int64_t untilMs;
        uint64_t bytesLeft;
    };

    struct Accepted
    {
        int descriptor;
        int64_t acceptedMs;
        sockaddr_storage address;
        socklen_t bytes;  // of the address
        ListeningSocket::Role role;
    };

    // Where a connection counts, and its hop: of a secure connection it is shared with that.
    struct Place
    {
        ConnectionPlace own;
        std::shared_ptr<ConnectionPlace> shared;
        std::shared_ptr<TlsHop> hop;
    };

    // Connections of trusted proxies whose first bytes do not tell yet whether a PROXY header
    // comes, in order of acceptance.
    using Undecided = std::list<Accepted>;

    bool watch(int descriptor, uint64_t key, uint32_t events);
    void wake();
    int waitMs(int64_t nowMs) const;
    void handleEvents(int timeoutMs);
    void handlePeer(uint64_t key, uint32_t events);
    void acceptFrom(size_t index, int64_t nowMs);
    bool acceptOne(const ListeningSocket& socket, int64_t nowMs);
    bool isTrustedProxy(const Accepted& accepted) const;
    void admitFromProxy(const Accepted& accepted, const ProxyHeader& header, int64_t nowMs);
    void admit(const Accepted& accepted, const Peer& peer, int64_t nowMs);
    size_t chooseSink() const;
    void place(const Accepted& accepted, const Peer& peer, ConnectionPlace counted, int64_t nowMs);
    void placeAt(size_t index, const Accepted& accepted, const Peer& peer, Place place,
                 int64_t nowMs);
    void startHandshake(const Accepted& accepted, const Peer& peer, ConnectionPlace counted);
    void secured(TlsArrived&& arrived) override;
    void takeSecured(int64_t nowMs);
    void placeSecured(TlsArrived& arrived, int64_t nowMs);
    void awaitHeader(const Accepted& accepted);
    void continueUndecided(int descriptor, bool hasEnded, int64_t nowMs);
    void closeUndecided(int descriptor);
    void closeExpiredUndecided(int64_t nowMs);
    void closeAllUndecided();
    void reportMalformed(const Accepted& accepted);
    void refuse(const Accepted& accepted, const Peer& peer, int64_t nowMs);
    void refuse(int descriptor, int64_t nowMs);
    void linger(int descriptor, int64_t untilMs);
    void takeUnseen(int64_t nowMs);
    void endBody(Connection& connection, int64_t nowMs);
    void closeRefused(int64_t nowMs);
    static void reportExhausted(const char* what, bool& hasReported);
    void pauseAccepting(int64_t nowMs);
    void continueAccepting(int64_t nowMs);
    void endReading(Connection& connection);
    void remindOfPeers(int64_t nowMs);
    void handleDeadlines(int64_t nowMs);
    void handleDeadline(Connection& connection, int64_t nowMs);
    void nudgeSinks(int64_t nowMs);
    bool haveSinksTurned(uint64_t turn) const;
    void takeTurn();
    void continueUploads(int64_t nowMs);
    void acceptQueued();
    void endIdleConnections();
    void abortAll();
    size_t getCount() const;

    const Limits mLimits;
    std::vector<ListeningSocket> mSockets;
    const std::vector<ConnectionSink*> mSinks;
    int mEpoll = -1;
    int mWake = -1;
    std::atomic<int64_t> mDrainDeadlineMs{kNoDeadline};
    std::atomic<bool> mIsStopping{false};
    std::atomic<uint64_t> mAskedTurn{0};
    std::atomic<uint64_t> mTurn{0};  // written by the listener thread

    const std::shared_ptr<ConnectionPlaces> mPlaces;

    qvMutex mMutex;
    std::vector<int> mUnseen QV_GUARDED_BY(mMutex);          // from `keepUntilSeen`
    std::vector<TlsArrived> mSecured QV_GUARDED_BY(mMutex);  // from `secured`
    std::atomic<size_t> mSecuredCount{0};                    // of them, and those being placed

    // Listener thread.
    std::deque<Refused> mRefused;
    Undecided mUndecided;
    std::unordered_map<int, Undecided::iterator> mUndecidedOf;  // by descriptor
    std::vector<ConnectionTable::Pointer> mClosedByPeer;        // and not yet by the daemon
    int64_t mNextReminderMs = 0;
    int64_t mContinueAcceptingMs = kNoDeadline;
    struct Nudged
    {
        int64_t nextMs = 0;
        uint64_t requests = 0;  // at the last time
        bool isResting = false;
    };
    std::vector<Nudged> mNudged;  // of each sink
    int64_t mNextUploadsMs = 0;
    size_t mUploadTurn = 0;
    bool mReportedLimit = false;
    bool mReportedPair = false;
    bool mReportedMalformed = false;
    bool mHasAborted = false;

    std::unique_ptr<TlsHandshakes> mHandshakes;  // its threads use the others: ends first
};

}  // namespace qv::impl

#endif
