/// A server from start to clean stop.
#ifndef WENDREL_KIT_SERVER_H
#define WENDREL_KIT_SERVER_H

#include <Wendrel/ServerOptions.h>
#include <Wendrel/kit/AccessLog.h>
#include <Wendrel/kit/CompletedRequest.h>
#include <Wendrel/kit/Compression.h>
#include <Wendrel/kit/Request.h>
#include <Wendrel/kit/Router.h>
#include <Wendrel/kit/websocket/Engine.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qv::kit
{

class ServerCore;

/// Options of a server: those of the library, and these. A plain value.
struct ServerOptions : http::ServerOptions
{
    /// Threads that run handlers, 1 to 1024. A handler occupies one until it returns.
    unsigned workers = 16;
    /// Requests that may wait for a worker; further ones get 503 with `Retry-After`.
    size_t workerQueueLimit = 1024;
    /// Bytes of a body that is received before its handler runs; 413 beyond it. See
    /// `Route::maxBodyBytes`.
    uint64_t maxBodyBytes = 1048576;
    /// Threads and memory of all sessions of `Router::webSocket`; as many loops as `threads` unless
    /// told otherwise.
    websocket::EngineOptions webSockets;
    /// How long `run` gives running requests when it has been told to stop.
    std::chrono::milliseconds stopTimeout{5000};
    /// How long `run` goes on serving when it has been told to stop, with 503 at the path for
    /// readiness of `Server::health`.
    std::chrono::milliseconds stopDelay{0};
    /// Called once for each request whose request line has been received, also for those that the
    /// server refused, that were aborted and that became WebSockets; at most 20 ms after the end of
    /// the response, or as soon as a thread is free, and before `stop` returns. Thread: a worker,
    /// or one of the server, whose deadlines wait for it; several at once, without a lock. It must
    /// not take a lock that a handler holds while it waits for a client. Requests that end faster
    /// than it returns are held back. An exception that leaves it is logged. Empty: none.
    std::function<void(const CompletedRequest&)> onCompleted;
    /// Compression of responses; off by default.
    CompressionOptions compression;
};

/// Owns routes, threads and connections: the one object that an application makes.
///
/// Any number of servers may exist in a process. A server is used by one thread, except where an
/// operation says otherwise. The destructor stops it without waiting for running requests; objects
/// that handlers use must outlive the server, or a `stop` before they are destroyed.
class Server
{
public:
    /// With the default options. Initialises the library.
    Server();
    /// With `options`. Nothing is opened before `start` or `run`.
    explicit Server(ServerOptions options);
    /// As `stop` with a limit of 0.
    ~Server();

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Add routes before the server is started.
    Router& router();

    /// The options; change them before the server is started.
    ServerOptions& options();

    /// Serves `endpoint` ("127.0.0.1:8181"; see `ServerOptions::listen`) until SIGINT or
    /// SIGTERM, then stops within `ServerOptions::stopTimeout`. Prints the URLs to standard output,
    /// or to standard error why it could not start. Returns the exit status of the program: 0, or 1
    /// when it could not start. The signals are handled by this call alone while it runs; a second
    /// signal ends the process.
    ///
    /// With secure endpoints the certificates are reloaded after SIGHUP, and within about 4 s after
    /// one of their files has changed; see `reloadCertificates`. A file of `logAccess` is opened
    /// again after SIGHUP. A service manager that has started the process is told when the server
    /// serves, reloads and stops: see ServiceManager. SIGHUP is ignored then without secure
    /// endpoints and access log.
    int run(const std::string& endpoint);

    /// The same with the endpoints of the options.
    int run();

    /// Starts, and returns when the server accepts connections: for a program with a main loop and
    /// signals of its own. False when it could not: `failureReason` tells why, and it can be tried
    /// again. Routes whose settings exclude each other are a reason, too. Throws
    /// std::system_error when the system has no threads to give.
    bool start(const std::string& endpoint);

    /// The same with the endpoints of the options.
    bool start();

    /// Why the last `start` returned false: "cannot listen on 127.0.0.1:80: permission denied".
    std::string failureReason() const;

    /// Stops. WebSocket sessions are closed with 1001, and ended at `deadline`. No connection is
    /// accepted any more; running requests, deferred ones included, have until `deadline` to get
    /// their responses. Those left are aborted then, and their `onGone` called. Returns when all
    /// handlers have returned: true when no request was aborted and no session had to be ended. It
    /// can be started again. A call while another one waits can shorten the time of that one, and
    /// returns with it. Any thread but those of handlers and callbacks.
    bool stop(std::chrono::milliseconds deadline);

    /// `callback` is called once at the beginning of each stop, that of `run` and of the destructor
    /// included, when no connection is accepted any more: end deferred responses and streams that
    /// would wait for the deadline otherwise. Set it before the server is started. Thread: one of
    /// the server; it must not wait. An exception that leaves it is logged.
    void onStopping(std::function<void()> callback);

    /// Whether it accepts connections. Any thread.
    bool isRunning() const;

    /// The endpoints as they are bound: "127.0.0.1:8181". Any thread.
    std::vector<std::string> endpoints() const;

    /// The same as URLs: "http://127.0.0.1:8181/", "https://[::1]:8443/"; a Unix socket as its
    /// endpoint. Any thread.
    std::vector<std::string> urls() const;

    /// Requests so far. Any thread.
    uint64_t requestCount() const;

    /// Requests that are being received or served, those that wait for a deferred response
    /// included. Any thread.
    size_t openRequests() const;

    /// As `HttpServer::reloadCertificates`. Any thread but those of handlers and callbacks.
    bool reloadCertificates(std::string* reason = nullptr);

    /// For a watchdog: as `HttpServer::countTurns`, and a worker has taken a task in each round.
    /// While all workers are occupied by handlers that wait, no round is completed: the limit of
    /// the watchdog must be above the time of the slowest handler. Any thread.
    uint64_t countTurns();

    /// Appends a line for each request that has ended, those of `ServerOptions::onCompleted`, to
    /// the file `path`, which is made with the mode 640. Every field is escaped. A thread of its
    /// own writes; of lines beyond 4 MiB that wait for it each is lost, counted and told in the
    /// log. Set it before the server is started, which fails when the file cannot be opened.
    void logAccess(const std::string& path, AccessLog format = AccessLog::Combined);

    /// The same with a function that gets each line, without its end. Thread: that of the log, one
    /// call at a time. A line during which it throws counts as lost.
    void logAccess(std::function<void(std::string_view line)> sink,
                   AccessLog format = AccessLog::Combined);

    /// Opens the file of the access log again, which has been renamed. `run` does it after SIGHUP.
    /// Any thread.
    void reopenAccessLog();

    /// Lines of the access log that were lost so far. Any thread.
    uint64_t lostAccessLines() const;

    /// Counts requests, and adds a `nonBlocking` route for GET with the counters in the text format
    /// of Prometheus: it responds while all workers are busy. Call it before the server is started;
    /// otherwise nothing is counted.
    Route& metrics(const std::string& pattern = "/metrics");

    /// Adds routes for GET: `alive` responds with 200, `ready` with 200, or with 503 after
    /// `setReady(false)` and from the beginning of a stop on.
    void health(const std::string& alive = "/healthz", const std::string& ready = "/readyz");

    /// Whether the server wants requests, for `health`; at first it does. Any thread.
    void setReady(bool isReady);

private:
    ServerOptions mOptions;
    ServerCore* mCore;  // counted
};

}  // namespace qv::kit

#endif
