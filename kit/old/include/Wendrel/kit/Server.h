/// A server from start to clean stop.
#ifndef WENDREL_KIT_SERVER_H
#define WENDREL_KIT_SERVER_H

#include <Wendrel/kit/Application.h>

#include <Wendrel/HttpServer.h>

#include <chrono>
#include <memory>

namespace qv::kit
{

/// Initialises the library, owns the server and its application, and stops both in the order
/// that loses nothing. Used by one thread.
class Server
{
public:
    /// Initialises the library and takes the application over.
    explicit Server(std::unique_ptr<Application> application);

    /// Stops without waiting for running requests, unless stopped before.
    ~Server();

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Starts and waits until the server listens. False when it could not (the log says why;
    /// usually the port is in use) or did not within `limit`. A server can be started once.
    bool start(const http::HttpServer::Parameters& parameters,
               std::chrono::milliseconds limit = std::chrono::seconds(10));

    /// Starts in event-driven mode: slow clients and uploads cost no more memory than the options
    /// allow, and clients that leave are noticed at once. WebSockets need the other mode. False
    /// when the server could not start: `getHttpServer().getFailureReason()` says why. It can be
    /// tried again.
    bool start(const http::ServerOptions& options);

    /// Stops. Running requests have `limit` to get their responses; then the daemon is stopped,
    /// which ends all others, and the workers are joined. During the limit new requests get 503, or
    /// in event-driven mode their connections are closed. Returns whether every request got its
    /// response. Workers that wait for a body notice the stop within two seconds; one that does
    /// something else is waited for.
    bool stop(std::chrono::milliseconds limit);

    /// The application, which is the server's.
    Application& getApplication() { return *mApplication; }

    /// The library's server, for its state.
    http::HttpServer& getHttpServer() { return *mServer; }

private:
    Application* mApplication;  // owned by the server
    std::unique_ptr<http::HttpServer> mServer;
    bool mIsEventDriven = false;
};

/// Lets a program wait for the order to stop.
///
/// Make one at the start of main: it blocks SIGINT and SIGTERM in this thread and in all that
/// are started after it, and ignores SIGPIPE.
class StopSignal
{
public:
    /// In main, before any thread is started.
    StopSignal();

    /// Waits for SIGINT or SIGTERM and returns its number.
    int wait();
};

}  // namespace qv::kit

#endif
