/// An application on the library whose responses are written by the tests.
#ifndef WENDREL_TESTS_INTEGRATION_TESTSERVER_H
#define WENDREL_TESTS_INTEGRATION_TESTSERVER_H

#include "TestMode.h"
#include "Waiting.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>

#include <support/MinimalRequest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace integration
{

/// A request, and the few steps that most tests serve it with. Each runs on its worker.
class TestRequest : public qv::tests::MinimalRequest
{
public:
    /// Ends the wait for a body whose connection is closed.
    void onWaitingForData() override;

    /// The whole body; the part received so far when the device is in error.
    std::string readBody();

    /// Writes a body below 256 KiB and ends it, then announces the response.
    void respond(uint32_t status, const std::string& body);

    /// Announces the response and waits until the daemon has queued it, so that later writes are
    /// streamed. False when it was not queued within the limit.
    bool beginStream();

    /// Begins the stream, writes `size` bytes of the pattern in pieces and ends the body.
    /// False as soon as a write was refused.
    bool streamPattern(uint64_t size, size_t pieceBytes);

    /// Error of the response device; empty without one.
    std::string connectionError() const { return getResponseDevice().getDeviceErrorMsg(); }

    /// Waits until the response device is in error; false after the limit.
    bool waitForConnectionError() const;
};

/// Serves one request; called on a thread of its own between the start and the end of the
/// worker's handling.
using Behaviour = std::function<void(TestRequest&)>;

/// Default options with the connection memory of polling mode, for tests of large heads.
qv::http::ServerOptions withMemoryOfPollingMode();

struct TestServerOptions
{
    std::string errorBody = "The response could not be created.";
    uint32_t threadPoolSize = 4;
    uint32_t connectionTimeoutMs = 60000;
    bool allowWebSocket = false;
    /// For event-driven mode; endpoint, threads and timeouts are those of the test server.
    qv::http::ServerOptions eventDriven = withMemoryOfPollingMode();
    std::function<void()> onServerStopped;
    /// Takes the connection over, on a daemon thread. Without it an upgrade fails the test.
    std::function<void(std::unique_ptr<qv::http::WebSocket>)> onNewWebSocket;
};

/// A running server on a free port of 127.0.0.1 with the library initialised around it.
///
/// Each request is deleted when its worker has ended and the daemon is done with it. The
/// destructor stops the server and waits for every request; one that is still open after
/// the limit ends the process with a message.
class TestServer
{
public:
    explicit TestServer(Behaviour behaviour, TestServerOptions options = {});
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    uint16_t port() const;
    std::string url(const std::string& target = "/") const;

    qv::http::HttpServer& server();
    const qv::http::HttpServer::Parameters& parameters() const;

    /// Waits for a state of the server; false after the limit.
    bool waitForState(qv::http::HttpServer::State state);

    uint64_t requestsCreated() const;
    uint64_t requestsDeleted() const;
    uint64_t requestsCompleted() const;
    uint64_t serverStoppedCalls() const;

    /// Waits until every request made so far has been deleted; false after the limit.
    bool waitUntilNoneOpen();

private:
    class Application;

    void serveEventDriven(Behaviour behaviour, const TestServerOptions& options);

    qv::http::HttpServer::Parameters mParameters;
    std::unique_ptr<qv::http::HttpServer> mServer;
    Application* mApplication = nullptr;  // owned by mServer
};

}  // namespace integration

#endif
