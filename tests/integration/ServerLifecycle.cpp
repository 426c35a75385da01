// Starting and stopping the server.

#include "support/CurlClient.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"
#include "support/TestServer.h"

#include <Wendrel/Wendrel.h>

#include <gmock/gmock.h>
#include <support/Ports.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace
{

using integration::Channel;
using integration::CurlClient;
using integration::CurlResult;
using integration::getRequest;
using integration::Latch;
using integration::processLog;
using integration::RawClient;
using integration::TestRequest;
using integration::TestServer;
using integration::TestServerOptions;
using qv::http::HttpServer;
using ::testing::Eq;
using ::testing::Optional;

constexpr int kInformation = 2;
constexpr int kWarning = 4;
constexpr int kError = 5;

void respondOk(TestRequest& request)
{
    request.respond(200, "ok");
}

std::string startLine(uint16_t port, const std::string& flags)
{
    return "Starting http server : listen @" + std::to_string(port) + ", with flags 0x" + flags;
}

// An application for servers that never come up.
class IdleApplication : public qv::http::HttpServerImpl
{
public:
    explicit IdleApplication(std::atomic<int>& stopped) : mStopped(stopped) {}
    qv::HttpBaseRequest* createRequest() override { return new TestRequest; }
    void handleRequest(qv::HttpBaseRequest*) override {}
    void onNewWebSocket(qv::http::WebSocket*) override {}
    void onServerStopped() override { ++mStopped; }
    void onRequestCompleted() override {}

private:
    std::atomic<int>& mStopped;
};

bool waitForFailure(const HttpServer& server)
{
    return integration::waitUntil([&server] { return server.getState() == HttpServer::Failed; });
}

TEST(ServerLifecycle, LogsPortAndFlagsOnce)
{
    for (const bool allowWebSocket : {false, true}) {
        SCOPED_TRACE(allowWebSocket);
        TestServerOptions options;
        options.allowWebSocket = allowWebSocket;
        TestServer server(respondOk, options);
        const auto lines =
            processLog->lines(startLine(server.port(), allowWebSocket ? "18009" : "10009"));
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines.front().level, kInformation);
        EXPECT_EQ(lines.front().category, "httpserver");
    }
}

TEST(ServerLifecycle, LogsNothingElseInOrdinaryOperation)
{
    {
        TestServer server(respondOk);
        CurlClient client;
        EXPECT_EQ(client.get(server.url()).body, "ok");
    }
    EXPECT_EQ(processLog->lines().size(), 1u);
}

TEST(ServerLifecycle, RunsAsManyDaemonThreadsAsAsked)
{
    constexpr uint32_t kThreads = 3;
    TestServerOptions options;
    options.threadPoolSize = kThreads;
    TestServer server(respondOk, options);
    const auto workers = [] {
        uint32_t count = 0;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::ifstream file(task.path() / "comm");
            std::string name;
            std::getline(file, name);
            count += name == "MHD-worker";
        }
        return count;
    };
    // A thread takes its name only after it has been started.
    integration::waitUntil([&] { return workers() == kThreads; }, std::chrono::seconds(5));
    EXPECT_EQ(workers(), kThreads);
}

TEST(ServerLifecycle, ListensOn127001Only)
{
    TestServer server(respondOk);
    EXPECT_TRUE(RawClient::accepts("127.0.0.1", server.port()));
    EXPECT_FALSE(RawClient::accepts("127.0.0.2", server.port()));
}

TEST(ServerLifecycle, IgnoresASecondStart)
{
    TestServer server(respondOk);
    HttpServer::Parameters other = server.parameters();
    other.port = qv::tests::findFreePort();
    server.server().startServer(other);
    EXPECT_EQ(server.server().getState(), HttpServer::Running);
    EXPECT_FALSE(RawClient::accepts("127.0.0.1", other.port));
    EXPECT_TRUE(processLog->lines(startLine(other.port, "10009")).empty());
    CurlClient client;
    EXPECT_EQ(client.get(server.url()).body, "ok");
}

TEST(ServerLifecycle, StopsAndStartsAgainOnTheSamePort)
{
    constexpr int kTimes = 3;
    TestServer server(respondOk);
    // Connections of the run before must not keep the port.
    std::vector<std::unique_ptr<RawClient>> old;
    for (int i = 0; i < kTimes; ++i) {
        SCOPED_TRACE(i);
        old.push_back(std::make_unique<RawClient>(server.port()));
        ASSERT_TRUE(old.back()->send(getRequest("/")));
        ASSERT_TRUE(old.back()->receive());

        server.server().stopServer(true);
        EXPECT_EQ(server.server().getState(), HttpServer::Stopped);
        EXPECT_TRUE(server.server().isStopRequested());
        EXPECT_EQ(server.serverStoppedCalls(), static_cast<uint64_t>(i) + 1);
        EXPECT_FALSE(RawClient::accepts("127.0.0.1", server.port()));
        EXPECT_TRUE(old.back()->isClosedByServer());

        server.server().startServer(server.parameters());
        ASSERT_TRUE(server.waitForState(HttpServer::Running));
        EXPECT_FALSE(server.server().isStopRequested());
        CurlClient client;
        EXPECT_EQ(client.get(server.url()).body, "ok");
    }
}

TEST(ServerLifecycle, StopsWithoutWaiting)
{
    Latch released;
    TestServerOptions options;
    options.onServerStopped = [&released] { EXPECT_TRUE(released.wait()); };
    TestServer server(respondOk, options);
    server.server().stopServer(false);
    // It returned although the server cannot stop yet.
    EXPECT_TRUE(server.server().isStopRequested());
    EXPECT_EQ(server.server().getState(), HttpServer::Running);
    released.open();
    EXPECT_TRUE(server.waitForState(HttpServer::Stopped));
}

TEST(ServerLifecycle, FailsWhenThePortIsInUse)
{
    TestServer first(respondOk);
    std::atomic<int> stopped{0};
    HttpServer second(new IdleApplication(stopped));
    second.startServer(first.parameters());
    ASSERT_TRUE(waitForFailure(second));
    EXPECT_EQ(stopped, 1);

    const auto failed = processLog->lines("Failed to create mhd server context");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed.front().level, kError);
    const auto reason =
        processLog->lines("libmicrohttpd: Failed to bind to port " + std::to_string(first.port()) +
                          ": Address already in use");
    ASSERT_EQ(reason.size(), 1u);
    EXPECT_EQ(reason.front().level, kWarning);

    CurlClient client;
    EXPECT_EQ(client.get(first.url()).body, "ok");
}

TEST(ServerLifecycle, CannotStartAgainAfterAFailure)
{
    std::atomic<int> stopped{0};
    HttpServer::Parameters parameters;
    HttpServer server(new IdleApplication(stopped));
    {
        TestServer first(respondOk);
        parameters = first.parameters();
        server.startServer(parameters);
        ASSERT_TRUE(waitForFailure(server));
    }
    qv::initializeWendrel();
    server.startServer(parameters);
    EXPECT_EQ(server.getState(), HttpServer::Failed);
    server.stopServer(true);
    EXPECT_EQ(server.getState(), HttpServer::Failed);
    EXPECT_EQ(stopped, 1);
    EXPECT_EQ(processLog->lines("Failed to create mhd server context").size(), 1u);
    qv::terminateWendrel();
}

TEST(ServerLifecycle, FailsWhenTheLibraryIsNotInitialized)
{
    ASSERT_FALSE(qv::IsWendrelInitialized());
    std::atomic<int> stopped{0};
    HttpServer server(new IdleApplication(stopped));
    HttpServer::Parameters parameters;
    parameters.port = qv::tests::findFreePort();
    server.startServer(parameters);
    ASSERT_TRUE(waitForFailure(server));
    EXPECT_EQ(stopped, 1);
    const auto lines = processLog->lines("Wendrel is not initialized");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines.front().level, kError);
    EXPECT_FALSE(RawClient::accepts("127.0.0.1", parameters.port));
}

TEST(ServerLifecycle, EndsRunningRequestsWhenItStops)
{
    constexpr int kRequests = 3;
    Channel<int> begun;
    Channel<std::string> errors;
    TestServer server([&](TestRequest& request) {
        begun.push(1);
        EXPECT_TRUE(request.waitForConnectionError());
        request.respond(200, "too late");
        errors.push(request.connectionError());
    });
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < kRequests; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.port()));
        ASSERT_TRUE(clients.back()->send(getRequest("/")));
        ASSERT_TRUE(begun.pop());
    }
    server.server().stopServer(true);
    EXPECT_EQ(server.server().getState(), HttpServer::Stopped);
    for (const auto& client : clients) {
        EXPECT_THAT(errors.pop(), Optional(Eq("Http response device : DaemonShutdown")));
        EXPECT_TRUE(client->isClosedByServer());
    }
    EXPECT_TRUE(server.waitUntilNoneOpen());
    EXPECT_EQ(server.requestsCompleted(), uint64_t{kRequests});
}

TEST(ServerLifecycle, RefusesNewRequestsWhileItStops)
{
    Latch stopping;
    Latch released;
    TestServerOptions options;
    options.onServerStopped = [&] {
        stopping.open();
        EXPECT_TRUE(released.wait());
    };
    TestServer server(respondOk, options);
    RawClient kept(server.port());
    ASSERT_TRUE(kept.send(getRequest("/")));
    ASSERT_TRUE(kept.receive());

    server.server().stopServer(false);
    ASSERT_TRUE(stopping.wait());
    RawClient fresh(server.port());
    for (RawClient* client : {&kept, &fresh}) {
        EXPECT_TRUE(client->send(getRequest("/")));
        EXPECT_TRUE(client->isClosedByServer());
    }
    released.open();
    EXPECT_TRUE(server.waitForState(HttpServer::Stopped));

    EXPECT_EQ(server.requestsCreated(), 1u);
    const auto refused = processLog->lines("Discarding http request, server is shutting down");
    ASSERT_EQ(refused.size(), 2u);
    EXPECT_EQ(refused.front().level, kWarning);
    EXPECT_EQ(
        processLog->lines("libmicrohttpd: Application reported internal error, closing connection.")
            .size(),
        2u);
}

TEST(ServerLifecycle, ServesRequestsAlreadyRunningWhileItStops)
{
    Latch begun;
    Latch stopping;
    Latch released;
    TestServerOptions options;
    options.onServerStopped = [&] {
        stopping.open();
        EXPECT_TRUE(released.wait());
    };
    TestServer server(
        [&](TestRequest& request) {
            begun.open();
            EXPECT_TRUE(stopping.wait());
            request.respond(200, "still served");
        },
        options);
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(begun.wait());
    server.server().stopServer(false);
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, "still served");
    released.open();
    EXPECT_TRUE(server.waitForState(HttpServer::Stopped));
}

TEST(ServerLifecycle, StopsInItsDestructor)
{
    uint16_t port = 0;
    {
        TestServer server(respondOk);
        port = server.port();
        CurlClient client;
        EXPECT_EQ(client.get(server.url()).body, "ok");
    }
    EXPECT_FALSE(RawClient::accepts("127.0.0.1", port));
    EXPECT_FALSE(qv::IsWendrelInitialized());
}

}  // namespace
