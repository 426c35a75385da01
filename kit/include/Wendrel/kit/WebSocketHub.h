/// Upgraded connections from their first message to a clean stop.
#ifndef WENDREL_KIT_WEBSOCKETHUB_H
#define WENDREL_KIT_WEBSOCKETHUB_H

#include <Wendrel/WebSocket.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace qv::kit
{

class WebSocketHub;

/// A connection in a hub. Derive from it and override `onMessageReceived` and `onClosed`; made
/// by WebSocketHub::adopt, owned by the library, which may destroy it any time after `onClosed`.
class HubConnection : public http::WebSocket
{
public:
    /// Thread: one of the library, with locks of the library held.
    ~HubConnection() override;

    /// Queues one message of text, which must be UTF-8. Any thread, until `onClosed` has returned.
    void sendText(std::string_view text);

    /// The same of bytes.
    void sendBinary(std::string_view bytes);

    /// Ends the connection at once with a reset; what is queued is lost. `onClosed` follows.
    /// Any thread, until `onClosed` has returned.
    void abort();

protected:
    /// Takes the connection over, and a second descriptor of its socket.
    explicit HubConnection(http::WebSocket&& upgraded);

    /// The connection has ended: forget it. Called once, after the last `onMessageReceived` has
    /// returned, on a thread of the library or of the hub; locks of the library may be held:
    /// add no connection to a hub here.
    virtual void onClosed();

private:
    friend class WebSocketHub;
    using Clock = std::chrono::steady_clock;

    using WebSocket::markForDeletion;  // closing is left to the library and the hub

    WebSocketHub* mHub = nullptr;  // null if the hub did not take it
    enum class Stay { Here, Leaving, Left } mStay = Stay::Here;
    int mWatch;  // a descriptor of our own: stays valid when the daemon closes its
    Clock::time_point mEndedSince = Clock::time_point::max();
    Clock::time_point mUnsentSince = Clock::time_point::max();
};

/// Drives connections: owns the poll thread and its workers, and sees to what the library leaves
/// to the application.
///
/// - A client that ends its side without a close frame would occupy a worker for ever; it is
///   aborted half a second after its last bytes have been received.
/// - Messages that arrive together are handled one after the other, all of them; by itself the
///   library handles two and keeps the others until the client sends more. (It still does so with
///   a message in many small fragments.)
/// - A client that takes nothing of what is queued for it is aborted after a time.
/// - A client whose machine has vanished is noticed by the system within about two minutes.
/// - The threads are not interrupted by signals. Should poll() fail all the same, the connections
///   that were in it are closed, a line is logged, and the others go on.
/// - `close` ends all connections and threads before the daemon goes, without waiting for ever.
class WebSocketHub
{
public:
    /// How much is handled at once, and how patiently; a plain value.
    struct Options
    {
        /// Threads that receive, call `onMessageReceived` and send. Started with the first
        /// connection.
        unsigned workers = 4;
        /// How long bytes may stay queued for a client, without the queue ever being found
        /// empty, before it is aborted.
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
    /// descriptor. Closes it at once when there is none or the hub has been closed. Any thread
    /// that holds no lock which `onClosed` takes.
    template <typename Connection, typename... Arguments>
    void adopt(http::WebSocket* upgraded, Arguments&&... arguments)
    {
        // Closes what could not be moved into a Connection.
        const std::unique_ptr<http::WebSocket, Closing> taken(upgraded);
        add(std::make_unique<Held<Connection>>(std::move(*taken),
                                               std::forward<Arguments>(arguments)...));
    }

    /// Calls `action` for each open connection, with the hub's lock held: `action` must not call
    /// the hub. Any thread.
    void forEach(const std::function<void(HubConnection&)>& action);

    /// Open connections. Any thread.
    size_t getCount() const;

    /// Takes no more connections, gives each `limit` to take what is queued for it, closes all
    /// and ends the threads; waits for handlers that are running. Call it before the daemon
    /// stops, at the latest in `onServerStopped`; there the server's lock is held, and handlers
    /// that called `stopServer` would be waited for in vain. Any thread, but not from a handler or
    /// `onClosed`; further calls do nothing but wait for the first. Returns false, with a line in
    /// the log, when there were not two descriptors left, which it takes to end the threads:
    /// these are then left behind, without a connection.
    bool close(std::chrono::milliseconds limit);

private:
    friend class HubConnection;
    using Clock = HubConnection::Clock;

    // The most derived class leaves the hub while all of the object is still there.
    template <typename Connection> class Held final : public Connection
    {
    public:
        template <typename... Arguments>
        explicit Held(http::WebSocket&& upgraded, Arguments&&... arguments)
            : Connection(std::move(upgraded), std::forward<Arguments>(arguments)...)
        {}
        ~Held() override { WebSocketHub::Leave(*this); }

        // Frames that came together with this one must not wait until the client sends more.
        void onMessageReceived(std::vector<uint8_t>& received, bool isBinary) override
        {
            this->setReadEnabled(true);
            Connection::onMessageReceived(received, isBinary);
        }
    };

    struct Closing
    {
        void operator()(http::WebSocket* socket) const
        {
            socket->markForDeletion();
            delete socket;
        }
    };

    static void Leave(HubConnection& connection);

    void add(std::unique_ptr<HubConnection> connection);
    void start();
    void watch();
    void waitForNextLook() QV_REQUIRES(mMutex);
    HubConnection* findClosed() const QV_REQUIRES(mMutex);
    void lookForLost() QV_REQUIRES(mMutex);
    void revivePollThread();
    void leave(HubConnection& connection) QV_REQUIRES(mMutex);
    bool endThreads(std::chrono::milliseconds limit);
    void endConnections(std::chrono::milliseconds limit);
    bool isAnyUnsent() const QV_REQUIRES(mMutex);
    void endWatcher();
    bool freeWorkers();

    const Options mOptions;
    mutable qvMutex mMutex;  // guards the private fields of connections, too
    qvWaitCondition mChanged;
    std::list<HubConnection*> mConnections QV_GUARDED_BY(mMutex);
    // Connections whose onClosed is being called.
    size_t mLeaving QV_GUARDED_BY(mMutex) = 0;
    bool mClosed QV_GUARDED_BY(mMutex) = false;
    bool mWatchEnds QV_GUARDED_BY(mMutex) = false;

    qvMutex mCloseMutex;  // held while closing
    bool mThreadsEnded QV_GUARDED_BY(mCloseMutex) = true;

    std::once_flag mStart;  // decides whether there are threads
    std::unique_ptr<http::WebSocketThread> mThreads;
    std::thread mWatcher;
};

}  // namespace qv::kit

#endif
