/// The application interface of the library, with everything in it that is always the same.
#ifndef WENDREL_KIT_APPLICATION_H
#define WENDREL_KIT_APPLICATION_H

#include <Wendrel/HttpServer.h>
#include <Wendrel/kit/Request.h>
#include <Wendrel/kit/RequestReaper.h>
#include <Wendrel/kit/Router.h>
#include <Wendrel/kit/WorkerPool.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>

namespace qv::kit
{

/// Serves each request on a worker thread by its router, refuses with 503 requests that
/// the workers cannot take, and has requests deleted. Use it as it is or derive from it; a derived
/// class's own members must outlive the workers: call `stopWorkers` in its destructor if handlers
/// use them.
class Application : public http::HttpServerImpl
{
public:
    /// How much is served at once; a plain value.
    struct Options
    {
        /// Threads that serve requests. A request occupies one from its first byte to the
        /// moment its handler returns, also while its client is slow.
        unsigned int workers = 16;
        /// Requests that may wait for a worker; further ones get a 503 response.
        size_t queueLimit = 1024;
    };

    /// With the default options.
    Application();

    /// Starts the workers; throws std::system_error when there are not so many threads to be had.
    explicit Application(const Options& options);

    /// Joins the workers. The server does it, which owns the application.
    ~Application() override;

    /// Add routes before the server is started.
    Router& getRouter() { return mRouter; }

    /// From now on new requests get a 503 response; waits at most `limit` until every request
    /// has its response and is completed. Returns whether that was so. Any thread but a worker.
    bool drain(std::chrono::milliseconds limit);

    /// Serves the queued requests, then ends the workers. Later requests get a 503 response. Stop
    /// the server first: a worker that waits for a body waits until its request has ended.
    void stopWorkers();

    /// Requests so far. Any thread.
    uint64_t getRequestCount() const { return mRequests; }

    /// Requests that are not yet deleted. Any thread.
    size_t getOpenCount() const { return mReaper.getOpenCount(); }

protected:
    /// A new object of the application's request class; the kit's unless overridden.
    /// Thread: the daemon's.
    virtual Request* newRequest();

    /// Responds to the request; by the router unless overridden. Thread: a worker.
    virtual void serve(Request& request);

    /// A handler has thrown. Logs the text and responds with 500, or abandons a response that
    /// has begun, unless overridden. An exception that leaves an override is logged, and the
    /// request gets the same response. Thread: a worker.
    virtual void onHandlerFailed(Request& request, const std::exception& error);

    /// Does nothing. An override closes objects that must end before the daemon: a WebSocketHub.
    /// Thread: the server's, with the server's lock held.
    void onServerStopped() override;

    /// Never called unless connections can be upgraded (`Parameters::allowWebSocket`), and to
    /// be overridden then: the socket belongs to the application. Give it to a WebSocketHub, and
    /// close the hub in `onServerStopped`. This one closes the connection.
    void onNewWebSocket(http::WebSocket* socket) override;

private:
    HttpBaseRequest* createRequest() final;
    void handleRequest(HttpBaseRequest* request) final;
    void onRequestCompleted() final {}
    void serveOnWorker(Request* request);
    void serveOrReport(Request& request);
    static void failUnreported(Request& request, const char* reason);
    void refuse(Request* request);
    void release(Request* request);

    Router mRouter;
    RequestReaper mReaper;
    std::atomic<uint64_t> mRequests{0};
    std::atomic<bool> mDraining{false};
    WorkerPool mPool;  // last: its threads use all above
};

}  // namespace qv::kit

#endif
