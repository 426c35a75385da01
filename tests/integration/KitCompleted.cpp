// The callback onCompleted: one call for each request, whoever responds, and whether anybody does.

#include "support/KitTestServer.h"
#include "support/Pattern.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace integration
{
namespace
{

using qv::kit::CompletedRequest;
using qv::kit::ContentType;
using qv::kit::DeferredResponse;
using qv::kit::DeferredStream;
using qv::kit::HttpError;
using qv::kit::Request;
using qv::kit::Router;
using qv::kit::ServerOptions;
using qv::kit::websocket::SessionHandler;
using qv::kit::websocket::WebSocketOptions;
using std::chrono::milliseconds;

// Collects the calls of a server.
class Calls
{
public:
    void addTo(ServerOptions& options)
    {
        options.onCompleted = [this](const CompletedRequest& request) { mCalls.push(request); };
    }

    // The next call; checks that there is one.
    CompletedRequest next()
    {
        auto call = mCalls.pop();
        EXPECT_TRUE(call);
        return call.value_or(CompletedRequest());
    }

    bool isEmpty() { return !mCalls.pop(milliseconds(0)); }

private:
    Channel<CompletedRequest> mCalls;
};

class KitCompleted : public testing::Test
{
protected:
    void serve(const std::function<void(Router&)>& setup, ServerOptions options = kitOptions(2))
    {
        mCalls.addTo(options);
        mServer = std::make_unique<KitTestServer>(setup, options);
    }

    // The server stops first: a call that is one too many has come.
    void expectNoMore()
    {
        mServer->stop(milliseconds(0));
        EXPECT_TRUE(mCalls.isEmpty());
    }

    Calls mCalls;  // outlives the server
    std::unique_ptr<KitTestServer> mServer;
};

TEST_F(KitCompleted, TellsWhatWasReceivedAndSent)
{
    serve([](Router& router) {
        router.get("/text/{n}", [](Request& request) { request.reply("12345"); });
        router.get("/inline", [](Request& request) { request.reply("1"); }).nonBlocking();
        router.put("/body", [](Request& request) { request.reply(201, request.body()); });
        router.get("/stream", [](Request& request) {
            request.startStream();
            for (int i = 0; i < 10; ++i)
                request.write(std::string(1000, 's'));
        });
        router.get("/later", [](Request& request) {
            DeferredStream stream = request.defer().startStream(ContentType::text());
            stream.write("later");
            stream.finish();
        });
        router.get("/none", [](Request& request) { request.reply(204); });
        router.get("/error", [](Request&) { throw HttpError(409, "no"); });
    });
    const struct
    {
        std::string bytes;
        const char* method;
        const char* target;
        const char* route;
        uint32_t status;
        uint64_t sent;
        uint64_t received;
    } rows[] = {
        {getRequest("/text/a%20b?c=d"), "GET", "/text/a%20b?c=d", "GET /text/{n}", 200, 5, 0},
        {"HEAD /text/a HTTP/1.1\r\nHost: x\r\n\r\n", "HEAD", "/text/a", "GET /text/{n}", 200, 0, 0},
        {getRequest("/inline"), "GET", "/inline", "GET /inline", 200, 1, 0},
        {withBody("PUT", "/body", "1234567"), "PUT", "/body", "PUT /body", 201, 7, 7},
        {getRequest("/stream"), "GET", "/stream", "GET /stream", 200, 10000, 0},
        {getRequest("/later"), "GET", "/later", "GET /later", 200, 5, 0},
        {getRequest("/none"), "GET", "/none", "GET /none", 204, 0, 0},
        {"OPTIONS * HTTP/1.1\r\nHost: x\r\n\r\n", "OPTIONS", "*", "", 204, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bytes);
        EXPECT_EQ(mServer->ask(row.bytes).status, static_cast<int>(row.status));
        const CompletedRequest call = mCalls.next();
        EXPECT_EQ(call.method, row.method);
        EXPECT_EQ(call.target, row.target);
        EXPECT_EQ(call.route, row.route);
        EXPECT_EQ(call.clientAddress.toString(), "127.0.0.1");
        EXPECT_EQ(call.status, row.status);
        EXPECT_EQ(call.sentBytes, row.sent);
        EXPECT_EQ(call.receivedBytes, row.received);
        EXPECT_GT(call.duration.count(), 0);
        EXPECT_EQ(call.abortReason, "");
    }
    for (const auto& [target, status] : {std::pair("/error", 409), std::pair("/missing", 404)}) {
        const RawResponse response = mServer->get(target);
        EXPECT_EQ(response.status, status);
        const CompletedRequest call = mCalls.next();
        EXPECT_EQ(call.status, static_cast<uint32_t>(status));
        EXPECT_EQ(call.sentBytes, response.body.size());
    }
    expectNoMore();
}

// The application sees none of them.
TEST_F(KitCompleted, TellsOfRefusals)
{
    auto options = kitOptions(1);
    options.allowedHosts = {"x"};
    options.maxBodyBytes = 10;
    options.headTimeout = milliseconds(300);
    serve([](Router& router) { router.put("/", [](Request& request) { request.reply("ok"); }); },
          options);
    std::string arguments = "/?a";
    for (int i = 0; i < 1000; ++i)
        arguments += "&a";
    const struct
    {
        const char* name;
        std::string bytes;
        std::string method;
        uint32_t status;
        uint32_t seen;  // by the client
        std::string reason;
    } rows[] = {
        {"strictRequests", "GET / HTTP/1.1\r\nHost: x\r\nHost: x\r\n\r\n", "GET", 400, 400, ""},
        {"allowedHosts", "GET / HTTP/1.1\r\nHost: y\r\n\r\n", "GET", 421, 421, ""},
        {"maxBodyBytes", headOf("PUT", "/", 11), "PUT", 413, 413, ""},
        {"the daemon", "GET / HTTP/1.1\r\n\r\n", "", 0, 400, "WriteError"},
        {"headTimeout", "GET / HTTP/1.1\r\nHost: x\r\n", "", 408, 408, "TimeoutReached"},
        {"a head that the daemon forgets", getRequest(arguments), "", 431, 431, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const RawResponse response = mServer->ask(row.bytes);
        EXPECT_EQ(response.status, static_cast<int>(row.seen));
        const CompletedRequest call = mCalls.next();
        EXPECT_EQ(call.method, row.method);
        EXPECT_EQ(call.target.substr(0, 1), "/");
        EXPECT_EQ(call.status, row.status);
        EXPECT_EQ(call.abortReason, row.reason);
        EXPECT_EQ(call.sentBytes, row.status == 413 ? response.body.size() : 0u);
    }
    {
        RawClient client(mServer->port());
        ASSERT_TRUE(client.send("GET /left HTTP/1.1\r\nHost: "));
        EXPECT_TRUE(client.waitUntilTaken());
        client.close();
        const CompletedRequest call = mCalls.next();
        EXPECT_EQ(call.target, "/left");
        EXPECT_EQ(call.status, 0u);
        EXPECT_EQ(call.abortReason, "ClientAbort");
    }
    expectNoMore();
}

TEST_F(KitCompleted, TellsOfRequestsThatAreAborted)
{
    std::mutex mutex;
    std::vector<DeferredResponse> waiting;
    std::vector<DeferredStream> streams;
    auto options = kitOptions(2);
    options.responseTimeout = milliseconds(400);
    serve(
        [&](Router& router) {
            router.get("/wait", [&](Request& request) {
                const std::lock_guard locker(mutex);
                waiting.push_back(request.defer());
            });
            router
                .get("/limited",
                     [&](Request& request) {
                         const std::lock_guard locker(mutex);
                         waiting.push_back(request.defer());
                     })
                .responseTimeout(milliseconds(20));
            router.get("/stream", [&](Request& request) {
                const std::lock_guard locker(mutex);
                streams.push_back(request.defer().startStream(ContentType::text()));
                streams.back().write("begun");
            });
            router.put("/body", [](Request& request) { request.reply("ok"); });
        },
        options);
    {
        EXPECT_EQ(mServer->get("/wait").status, 503);
        const CompletedRequest call = mCalls.next();
        EXPECT_EQ(call.status, 503u);
        EXPECT_EQ(call.abortReason, "TimeoutReached");
        EXPECT_GE(call.duration, milliseconds(300));
    }
    {
        EXPECT_EQ(mServer->get("/limited").status, 503);
        const CompletedRequest call = mCalls.next();
        EXPECT_EQ(call.status, 503u);
        EXPECT_EQ(call.abortReason, "");
    }
    {
        RawClient client(mServer->port());
        ASSERT_TRUE(client.send(getRequest("/wait")));
        ASSERT_TRUE(waitUntil([&] {
            const std::lock_guard locker(mutex);
            return waiting.size() == 3;
        }));
        client.close();
        const CompletedRequest call = mCalls.next();
        EXPECT_EQ(call.status, 0u);
        EXPECT_EQ(call.abortReason, "ClientAbort");
    }
    {
        RawClient client(mServer->port());
        ASSERT_TRUE(client.send(getRequest("/stream")));
        EXPECT_TRUE(client.receiveHead());
        EXPECT_EQ(client.receiveExactly(10), "5\r\nbegun\r\n");
        client.reset();
        const CompletedRequest call = mCalls.next();
        EXPECT_EQ(call.status, 200u);
        EXPECT_EQ(call.sentBytes, 5u);
        EXPECT_EQ(call.abortReason, "WriteError");
    }
    {
        RawClient client(mServer->port());
        ASSERT_TRUE(client.send(headOf("PUT", "/body", 5) + "12"));
        ASSERT_TRUE(waitUntil([&] { return mServer->server().openRequests() == 1; }));
        EXPECT_FALSE(mServer->stop(milliseconds(0)));
        // Before the server has stopped.
        EXPECT_FALSE(mCalls.isEmpty());
    }
    expectNoMore();
}

TEST_F(KitCompleted, TellsOfWebSockets)
{
    serve([](Router& router) {
        router.webSocket("/ws", WebSocketOptions(),
                         [](Request&) { return std::make_shared<SessionHandler>(); });
    });
    RawClient client(mServer->port());
    ASSERT_TRUE(client.send(getRequest("/ws", "Connection: Upgrade\r\nUpgrade: websocket\r\n"
                                              "Sec-WebSocket-Version: 13\r\n"
                                              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n")));
    ASSERT_TRUE(client.receiveHead());
    const CompletedRequest call = mCalls.next();
    EXPECT_EQ(call.status, 101u);
    EXPECT_EQ(call.route, "GET /ws");
    EXPECT_EQ(call.abortReason, "");
    EXPECT_EQ(mServer->get("/ws").status, 426);
    EXPECT_EQ(mCalls.next().status, 426u);
    expectNoMore();
}

// More than wait for a callback, from both sides.
TEST(KitCompletedUnderLoad, TellsOfEachRequestOnce)
{
    constexpr int kClients = 4;
    constexpr int kRequests = 1500;
    std::mutex mutex;
    std::vector<std::vector<int>> seen(kClients);
    std::atomic<int> refused{0};
    auto options = kitOptions(2);
    options.onCompleted = [&](const CompletedRequest& request) {
        if (request.status == 400) {
            ++refused;
            return;
        }
        const std::lock_guard locker(mutex);
        const size_t mark = request.target.find('/', 1);
        seen[std::stoul(request.target.substr(1, mark))].push_back(
            std::stoi(request.target.substr(mark + 1)));
        if (request.target.back() == '7')
            throw std::runtime_error("on purpose");
    };
    KitTestServer server(
        [](Router& router) {
            router.get("/{client}/{n}", [](Request& request) { request.reply("1"); }).nonBlocking();
            router.put("/{client}/{n}", [](Request& request) { request.reply("1"); });
        },
        options);
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back([&, i] {
            RawClient client(server.port());
            for (int n = 0; n < kRequests; ++n) {
                const std::string target = "/" + std::to_string(i) + "/" + std::to_string(n);
                client.send(n % 2 == 0 ? getRequest(target) : withBody("PUT", target, "x"));
                EXPECT_TRUE(client.receive());
                if (n % 100 != 0)
                    continue;
                EXPECT_EQ(server.ask("GET / HTTP/1.1\r\nHost: x\r\nHost: x\r\n\r\n").status, 400);
            }
        });
    }
    for (std::thread& client : clients)
        client.join();
    EXPECT_TRUE(server.stop());
    EXPECT_EQ(refused, kClients * kRequests / 100);
    for (std::vector<int>& numbers : seen) {
        std::sort(numbers.begin(), numbers.end());
        ASSERT_EQ(numbers.size(), static_cast<size_t>(kRequests));
        for (int n = 0; n < kRequests; ++n)
            EXPECT_EQ(numbers[static_cast<size_t>(n)], n);
    }
    EXPECT_TRUE(logged("server: the callback onCompleted failed: on purpose"));
}

}  // namespace
}  // namespace integration
