/// The server, and the interface that an application implements.
#ifndef WENDREL_HTTPSERVER_H
#define WENDREL_HTTPSERVER_H

#include <Wendrel/Export.h>
#include <Wendrel/ServerOptions.h>

#include <qvSystem/IpAddress.h>
#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvSystemUtils.h>
#include <qvSystem/qvThread.h>
#include <qvSystem/qvWaitCondition.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qv
{

class HttpBaseRequest;

namespace impl
{
class EventServer;
}

namespace http
{

class WebSocket;

/// A request that the application has not seen; see `HttpServerImpl::onRequestRefused`. The values
/// are valid during the call.
struct RefusedRequest
{
    const std::string& method;       ///< as received; empty when the head was not complete
    const std::string& target;       ///< as received
    const IpAddress& clientAddress;  ///< of the peer
    uint32_t status;                 ///< that the server has sent; 0: none, or the daemon's own
    const std::string& reason;       ///< of the end, as of `onAborted`; may be empty
};

/// The application interface. Derive from it and pass a new object to HttpServer, which owns and
/// deletes it.
///
/// `createRequest`, `handleRequest`, `onNewWebSocket` and `onRequestCompleted` are called on
/// the daemon's threads, several at once, also after `onServerStopped` until the server has
/// been destroyed. None of the operations may call `startServer` or `stopServer` or destroy the
/// server: the call would wait for its own thread. An exception that leaves one of them ends the
/// process.
class WENDREL_EXPORT HttpServerImpl
{
public:
    HttpServerImpl();

    /// Called by the destructor of the server, when the daemon has stopped.
    virtual ~HttpServerImpl();
    HttpServerImpl(const HttpServerImpl&) = delete;
    HttpServerImpl& operator=(const HttpServerImpl&) = delete;

    /// A new object of the application's request class; never null. The application owns it
    /// and deletes it when its worker has finished with it and it is completed.
    virtual HttpBaseRequest* createRequest() = 0;

    /// Takes a request whose head is complete. The daemon thread and all of its connections are
    /// blocked until this returns: hand the request to a worker and return. Bad requests are passed
    /// as well: check `hasParseError()` first, and respond to them.
    virtual void handleRequest(HttpBaseRequest* request) = 0;

    /// Takes ownership of an upgraded connection, right after its 101 has been sent. Move it into
    /// an object of a derived class (see WebSocket). Also called after `onServerStopped`: then call
    /// `markForDeletion` and delete the object.
    virtual void onNewWebSocket(http::WebSocket* socket) = 0;

    /// The server is about to stop, or could not start; called once per start, on the server
    /// thread with the server's lock held. The daemon is still running: do not delete
    /// requests here.
    virtual void onServerStopped() = 0;

    /// A request has been completed: the daemon does not use it after this callback. The request
    /// itself learns it in `HttpBaseRequest::onCompleted`. Called with the mutex of its response
    /// device held: delete nothing, and take no lock that another thread holds while it calls a
    /// request or a response device.
    virtual void onRequestCompleted() = 0;

    /// A request whose request line has been received has ended without `createRequest`: it was
    /// refused by the server (`strictRequests`, `allowedHosts`, timeout of the head) or by the
    /// daemon, or its head was not received whole. Called once for each. Event-driven mode only.
    /// Does nothing unless overridden. Thread: the daemon's, without a lock: it must not wait.
    virtual void onRequestRefused(const RefusedRequest& request);

    /// The body of each status 500 that the library sends by itself.
    const std::string& getErrorBody() const { return mErrorBody; }

    /// Address of one of the library's daemon callbacks, without its type.
    using Callback = void (*)();

    /// Called by the daemon for the head, the body and the response of a request.
    static Callback GetHttpCallback();

    /// Called when the daemon has completed a request.
    static Callback GetRequestCompletedCallback();

    /// Called when the daemon has received the target of a request.
    static Callback GetUriLogCallback();

    /// Called with a log line of the daemon.
    static Callback GetLogFunction();

protected:
    /// Sets the error body (empty at first; sent without a content type). Call before the
    /// server is started: the daemon sends from this text, not from a copy.
    void setErrorBody(std::string body);

private:
    std::string mErrorBody;
};

/// An HTTP server: one thread that starts and stops one daemon.
///
/// Start and stop may be called from any thread except the daemon's own (see
/// HttpServerImpl). A server that failed to start cannot be started again: make a new one.
class WENDREL_EXPORT HttpServer : public qvThread
{
public:
    /// Parameters of `startServer`; a plain value.
    struct WENDREL_EXPORT Parameters
    {
        /// TCP port to listen on. With 0 the system chooses one, which the library does not tell.
        uint16_t port = 8181;
        /// Length of the listen queue; the kernel caps it.
        uint32_t listenBacklog = 1024;
        /// Threads that serve connections. 0 and 1 give one thread and a warning in the log.
        /// The daemon accepts 1020 connections in all, divided evenly among the threads: use at
        /// most 1020 threads.
        uint32_t threadPoolSize = qvSystemUtils::GetIdealThreadCount();
        /// Milliseconds without a byte received or sent after which a connection is closed,
        /// also while the application works; rounded up to whole seconds.
        /// 0: never. At most 4294967000.
        uint32_t connectionTimeoutMs = 360000;
        /// Whether connections can be upgraded to WebSockets.
        bool allowWebSocket = false;
        bool reserved1 = false;  ///< not used
        bool reserved2 = true;   ///< not used
        bool reserved3 = false;  ///< not used
        /// false: listen on 127.0.0.1 only; true: on every IPv4 address of the machine.
        bool listenOnAllInterfaces = false;
    };

    /// State of a server. A server cannot leave `Failed`.
    enum State : int32_t { Stopped = 0, Starting = 1, Running = 2, Failed = 3 };

    /// Takes ownership of `impl`. Starts nothing.
    explicit HttpServer(HttpServerImpl* impl);

    /// Stops the server, waits for its thread, then deletes the application's object, which must
    /// not use the server in its destructor.
    ~HttpServer() override;

    /// Starts the server with a copy of `parameters`; does nothing unless it is stopped.
    /// Returns at once: the state and the log tell whether the daemon came up. Throws
    /// std::system_error when the system has no thread to give; the server is `Stopped` then.
    void startServer(const Parameters& parameters);

    /// Asks the server to stop; new requests are refused from now on. With `wait` it returns
    /// when the daemon has stopped: at once if nothing is going on, otherwise after the
    /// callbacks in progress. Requests still open then end with "DaemonShutdown".
    void stopServer(bool wait);

    /// Whether the daemon runs. Any thread, no lock.
    State getState() const;

    /// True from `stopServer` to the next `startServer`. Any thread, no lock.
    bool isStopRequested() const;

    /// The application's object. Any thread.
    HttpServerImpl& getImpl() const { return *mImpl; }

    /// Starts the server in event-driven mode: a request that waits for its application costs no
    /// thread and delays nobody, and uploads wait for their reader. The application's classes are
    /// the same as with `startServer`; of HttpServerImpl, `onServerStopped` is called without a
    /// lock when the stop begins.
    ///
    /// Returns true when the server accepts connections on all endpoints. Otherwise nothing is
    /// open, the state is unchanged and `getFailureReason` tells why: an impossible option, an
    /// endpoint that cannot be opened, a server that is not stopped, a library that is not
    /// initialized. `recordBytes`: size of the options known to the caller.
    bool serve(const ServerOptions& options, size_t recordBytes = sizeof(ServerOptions));

    /// Why the last `serve` has returned false: "cannot listen on [::1]:443: permission denied".
    /// Empty after success. Any thread.
    std::string getFailureReason() const;

    /// The endpoints of the last successful `serve` as they are bound: "127.0.0.1:8181",
    /// "unix:/run/app.sock". Any thread.
    std::vector<std::string> getEndpoints() const;

    /// Waits at most `limit` while the server is `Starting`; true when it is `Running`. Any thread.
    bool waitUntilRunning(std::chrono::milliseconds limit) const;

    /// Stops a server of event-driven mode without losing a request: the queued connections are
    /// accepted, the endpoints closed, connections without a request closed, and running requests
    /// finished; each response closes its connection. Requests that are not finished within
    /// `deadline` are aborted. Returns when the server has stopped: true when no request was
    /// aborted. Any thread but the daemon's. In polling mode the same as `stopServer(true)`,
    /// and false.
    bool shutDown(std::chrono::milliseconds deadline);

    /// Reads the certificates, keys, OCSP responses and authorities of `ServerOptions::tls` again.
    /// True when all of them are used from now on for new connections; open ones go on. Otherwise
    /// nothing changes, the reason is in the log, and in `reason` unless that is null: a file that
    /// cannot be read or used, or a server that does not serve secure endpoints. Blocks for the
    /// time of the reading. Any thread but the daemon's.
    bool reloadCertificates(std::string* reason = nullptr);

    /// The endpoints as URLs: "http://127.0.0.1:8181/", "https://[::1]:8443/"; a Unix socket as its
    /// endpoint. In the order of `getEndpoints`. Any thread.
    std::vector<std::string> getUrls() const;

    /// Why `serve` would refuse `options` before it opens anything; empty when it would not. Files
    /// of certificates are not read. `recordBytes` as for `serve`. Any thread.
    static std::string checkOptions(const ServerOptions& options,
                                    size_t recordBytes = sizeof(ServerOptions));

    /// For a watchdog: rounds in which the listener thread and every daemon thread have done a turn
    /// of their loops. A call that finds the last round complete begins the next one: called every
    /// few seconds, the number grows with each call unless a thread hangs. 0 while it does not
    /// serve in event-driven mode. Any thread; it does not wait for those threads.
    uint64_t countTurns();

protected:
    /// The server thread.
    void run() override;

private:
    void runEventDriven();

    std::unique_ptr<HttpServerImpl> mImpl;
    mutable qvMutex mMutex;
    mutable qvWaitCondition mWake;
    Parameters mParameters QV_GUARDED_BY(mMutex);
    std::atomic<int32_t> mState;       // changed under mMutex, read by anyone
    std::atomic<bool> mStopRequested;  // changed under mMutex, read by the daemon's threads
    std::unique_ptr<impl::EventServer> mEventServer;  // changed under mMutex
    std::vector<std::string> mEndpoints QV_GUARDED_BY(mMutex);
    std::string mFailureReason QV_GUARDED_BY(mMutex);
    bool mHasDrained QV_GUARDED_BY(mMutex) = false;
    std::vector<std::string> mUrls QV_GUARDED_BY(mMutex);
};

}  // namespace http
}  // namespace qv

#endif
