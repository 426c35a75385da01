/// Upgraded connections from their first message to a clean stop.
#ifndef WENDREL_KIT_WEBSOCKETHUB_H
#define WENDREL_KIT_WEBSOCKETHUB_H

#include <Wendrel/WebSocket.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <shared_mutex>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace qv::kit
{

class WebSocketHub;

/// A connection in a hub. Derive from it and override `onMessageReceived` and `onClosed`. Made by
/// WebSocketHub::adopt, owned by the hub, which destroys it after `onClosed`.
class HubConnection
{
public:
    /// Thread: as `onClosed`, with no lock of the library or the hub held.
    virtual ~HubConnection();

    HubConnection(const HubConnection&) = delete;
    HubConnection& operator=(const HubConnection&) = delete;

    /// A whole message has come: see `WebSocket::onMessageReceived`. The default ignores it.
    virtual void onMessageReceived(std::vector<uint8_t>& received, bool isBinary);

    /// Queues one message, as `WebSocket::writeMessage` does; discards it when the connection
    /// has ended. Any thread, until `onClosed` has returned; likewise for all below.
    void writeMessage(const void* data, size_t size, bool isBinary);

    /// Queues one message of text, which must be UTF-8.
    void sendText(std::string_view text);

    /// The same of bytes.
    void sendBinary(std::string_view bytes);

    /// Bytes are queued for sending.
    bool hasWritePending() const;

    /// The socket may have bytes to read.
    bool hasReadPending() const;

    /// A descriptor of the socket, which stays open until `onClosed` has returned; -1 without one.
    int getSocket() const { return mWatch; }

    /// Ends the connection at once with a reset and discards its queue. `onClosed` follows.
    void abort();

protected:
    /// Takes the connection over, and a second descriptor of its socket.
    explicit HubConnection(http::WebSocket&& upgraded);

    /// The connection has ended, or the hub has refused it: forget it. Called exactly once for
    /// each connection that `adopt` has made, after the last `onMessageReceived` has returned.
    /// Thread: one of the hub, for one connection after the other; for a refused connection the
    /// caller of `adopt`. No lock of the library or the hub is held.
    virtual void onClosed();

private:
    friend class WebSocketHub;
    using Clock = std::chrono::steady_clock;

    class Driven;  // owned by the library, which may destroy it any time, with its lock held

    // Guards mDriven and the life of the object: held shared to use it, alone to destroy it. The
    // hub, which destroys it with its own lock held, too, uses it under that lock.
    mutable std::shared_mutex mDrivenMutex;
    Driven* mDriven = nullptr;                // null when it has been destroyed or has closed
    std::unique_ptr<http::WebSocket> mGiven;  // the same, until it is given to the library
    int mWatch;  // a descriptor of our own: stays valid when the daemon closes its

    // Used by the hub under its lock.
    std::list<std::unique_ptr<HubConnection>>::iterator mPlace;
    Clock::time_point mEndedSince = Clock::time_point::max();
    Clock::time_point mStalledSince = Clock::time_point::max();
    uint64_t mSentBytes = 0;  // as far as the client has acknowledged them
};

/// Drives connections: owns the poll thread and its workers, and does the work that the library
/// leaves to the application.
///
/// - A client that ends its side without a close frame would occupy a worker for ever; it is
///   aborted half a second after its last bytes have been received.
/// - Messages that arrive together are handled one after the other, all of them; by itself the
///   library handles two and keeps the others until the client sends more. (It still does so with
///   a message in many small fragments.)
/// - A client that acknowledges no byte of its queue is aborted after a time.
/// - A client whose machine has vanished is noticed by the system within about two minutes.
/// - The threads are not interrupted by signals. Should poll() fail all the same, the connections
///   that were in it are closed, a line is logged, and the others go on.
/// - `close` ends all connections and threads before the daemon goes, without waiting for ever.
class WebSocketHub
{
public:
    /// Number of threads and timeout; a plain value.
    struct Options
    {
        /// Threads that receive, call `onMessageReceived` and send. Started with the first
        /// connection.
        unsigned workers = 4;
        /// How long bytes may stay queued for a client that acknowledges none meanwhile before it
        /// is aborted. A client that reads slowly is not.
        std::chrono::milliseconds unsentLimit = std::chrono::seconds(60);
    };

    /// With the default options.
    WebSocketHub();

    /// Starts nothing yet. 0 workers are taken for 1, a negative limit for 0.
    explicit WebSocketHub(const Options& options);

    /// Closes, unless closed before; then the daemon must still be running.
    ~WebSocketHub();

    WebSocketHub(const WebSocketHub&) = delete;
    WebSocketHub& operator=(const WebSocketHub&) = delete;

    /// Takes `upgraded` from HttpServerImpl::onNewWebSocket, deletes it, and makes a Connection
    /// of it: `Connection(http::WebSocket&& upgraded, arguments...)`, which takes a second
    /// descriptor. Refuses it (closes it and calls its `onClosed`) when there is none, when the hub
    /// has been closed, or, with a line in the log, when the system has no threads to give. Any
    /// thread that holds no lock which `onClosed` takes.
    template <typename Connection, typename... Arguments>
    void adopt(http::WebSocket* upgraded, Arguments&&... arguments)
    {
        // Closes a socket that could not be moved into a Connection.
        const std::unique_ptr<http::WebSocket, Closing> taken(upgraded);
        add(std::make_unique<Connection>(std::move(*taken), std::forward<Arguments>(arguments)...));
    }

    /// Calls `action` for each open connection, with the hub's lock held: `action` must not call
    /// the hub. Any thread.
    void forEach(const std::function<void(HubConnection&)>& action);

    /// Open connections. Any thread.
    size_t getCount() const;

    /// Takes no more connections, gives each `limit` to take its queue, closes all and ends the
    /// threads; waits for handlers that are running. Call it before the daemon stops, at the latest
    /// in `onServerStopped`; there the server's lock is held, so that a handler which calls
    /// `stopServer` blocks `close` for ever. Any thread, but not from a handler or `onClosed`;
    /// further calls do nothing but wait for the first. Returns false, with a line in the log, when
    /// there were not two descriptors left, which it takes to end the threads: these are then left
    /// behind, without a connection.
    bool close(std::chrono::milliseconds limit);

private:
    friend class HubConnection;
    using Clock = HubConnection::Clock;

    struct Closing
    {
        void operator()(http::WebSocket* socket) const
        {
            socket->markForDeletion();
            delete socket;
        }
    };

    using Connections = std::list<std::unique_ptr<HubConnection>>;

    void add(std::unique_ptr<HubConnection> connection);
    bool start();
    void watch();
    void look() QV_REQUIRES(mMutex);
    HubConnection* findClosed() const QV_REQUIRES(mMutex);
    void lookForLost() QV_REQUIRES(mMutex);
    static bool isStalled(HubConnection& connection);
    void revivePollThread();
    void leave(HubConnection& connection) QV_REQUIRES(mMutex);
    void tellEnds() QV_REQUIRES(mMutex);
    bool endThreads(std::chrono::milliseconds limit);
    void endConnections(std::chrono::milliseconds limit);
    bool isAnyUnsent() const QV_REQUIRES(mMutex);
    void endWatchdog();
    bool freeWorkers();

    const Options mOptions;
    mutable qvMutex mMutex;  // guards the fields of connections that say so, too
    qvWaitCondition mChanged;
    Connections mConnections QV_GUARDED_BY(mMutex);
    Connections mEnded QV_GUARDED_BY(mMutex);  // their onClosed is still to be called
    // Connections that have ended and are not destroyed yet.
    size_t mLeaving QV_GUARDED_BY(mMutex) = 0;
    bool mClosed QV_GUARDED_BY(mMutex) = false;
    bool mWatchEnds QV_GUARDED_BY(mMutex) = false;

    qvMutex mCloseMutex;  // held while closing
    bool mThreadsEnded QV_GUARDED_BY(mCloseMutex) = true;

    qvMutex mStartMutex;  // held while starting
    bool mStarted QV_GUARDED_BY(mStartMutex) = false;
    std::unique_ptr<http::WebSocketThread> mThreads;
    std::thread mWatchdog;
    bool mLacksThread = false;  // a line says so; used by the watchdog, then by `close`
};

}  // namespace qv::kit

#endif
