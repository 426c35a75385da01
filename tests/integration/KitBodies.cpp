// Bodies of requests: received before the handler runs, or read by it while they come.

#include "support/KitTestServer.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace integration
{
namespace
{

using qv::kit::HttpError;
using qv::kit::Request;
using qv::kit::Router;

constexpr size_t kLimitBytes = 100000;

void sendBody(RawClient& client, const std::string& body, bool isChunked)
{
    for (size_t at = 0; at < body.size(); at += 1000) {
        const std::string piece = body.substr(at, 1000);
        // The server may have responded and closed the connection.
        if (!client.send(isChunked ? chunk(piece) : piece))
            return;
    }
    if (isChunked)
        client.send("0\r\n\r\n");
}

TEST(KitBodies, AreReceivedUpToALimit)
{
    auto options = kitOptions(1);
    options.maxBodyBytes = kLimitBytes;
    KitTestServer server(
        [](Router& router) {
            router.put("/buffered", [](Request& request) { request.reply(request.body()); });
            router.put("/inline", [](Request& request) { request.reply(request.body()); })
                .nonBlocking();
            router
                .put("/route",
                     [](Request& request) {
                         const std::string& body = request.body();
                         EXPECT_EQ(&body, &request.body());
                         request.reply(body);
                     })
                .maxBodyBytes(kLimitBytes);
            router.put("/streaming", [](Request& request) { request.reply(request.body()); })
                .streaming();
            router
                .put("/read",
                     [](Request& request) { request.reply(request.readAll(10 * kLimitBytes)); })
                .streaming()
                .maxBodyBytes(kLimitBytes);
            router.put("/all", [](Request& r) { r.reply(r.readAll(kLimitBytes)); }).streaming();
        },
        options);
    const struct
    {
        size_t bytes;
        int status;
    } rows[] = {{0, 200},
                {1, 200},
                {65536, 200},
                {kLimitBytes - 1, 200},
                {kLimitBytes, 200},
                {kLimitBytes + 1, 413},
                {kLimitBytes + 2000, 413},
                {600000, 413}};
    for (const char* path : {"/buffered", "/inline", "/route", "/streaming", "/read", "/all"}) {
        for (const bool isChunked : {false, true}) {
            for (const auto& row : rows) {
                SCOPED_TRACE(std::string(path) + " " + std::to_string(row.bytes) +
                             (isChunked ? " chunked" : " declared"));
                const std::string body(row.bytes, 'b');
                RawClient client(server.port());
                ASSERT_TRUE(client.send(isChunked ? chunkedHead("PUT", path)
                                                  : headOf("PUT", path, row.bytes)));
                sendBody(client, body, isChunked);
                const auto response = client.receive();
                ASSERT_TRUE(response);
                EXPECT_EQ(response->status, row.status);
                if (row.status == 200) {
                    EXPECT_TRUE(response->body == body);
                } else {
                    EXPECT_EQ(response->body, R"({"title":"Content Too Large","status":413})");
                }
            }
        }
    }
    EXPECT_TRUE(server.stop());
    EXPECT_EQ(server.server().openRequests(), 0u);
}

TEST(KitBodies, ThatAreDeclaredTooLargeAreRefusedBeforeTheyAreSent)
{
    KitTestServer server([](Router& router) {
        router.put("/", [](Request& request) { request.reply(request.body()); }).maxBodyBytes(0);
        router.put("/stream", [](Request& request) { request.reply(request.body()); })
            .streaming()
            .maxBodyBytes(10);
    });
    for (const char* path : {"/", "/stream"}) {
        RawClient client(server.port());
        ASSERT_TRUE(client.send("PUT " + std::string(path) +
                                " HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\n"
                                "Content-Length: 11\r\n\r\n"));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 413);
    }
    EXPECT_EQ(server.ask(withBody("PUT", "/", "")).status, 200);
    EXPECT_EQ(server.ask(withBody("PUT", "/stream", "1234567890")).body, "1234567890");
}

TEST(KitBodies, OfSlowClientsHoldNoWorker)
{
    constexpr size_t kClients = 20;
    KitTestServer server(
        [](Router& router) {
            router.put("/", [](Request& request) { request.reply(request.body()); });
            router.get("/ping", [](Request& request) { request.reply("pong"); });
        },
        kitOptions(1));
    std::vector<std::unique_ptr<RawClient>> clients;
    for (size_t i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.port()));
        ASSERT_TRUE(clients.back()->send(i % 2 ? headOf("PUT", "/", 5) + "12"
                                               : chunkedHead("PUT", "/") + chunk("12")));
    }
    ASSERT_TRUE(waitUntil([&] { return server.server().openRequests() == kClients; }));
    EXPECT_EQ(server.get("/ping").body, "pong");
    for (size_t i = 0; i < kClients; ++i) {
        ASSERT_TRUE(clients[i]->send(i % 2 ? "345" : chunk("345") + "0\r\n\r\n"));
        const auto response = clients[i]->receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->body, "12345");
    }
}

// A handler of a buffered route is not called, one of a streaming route is woken.
TEST(KitBodies, OfClientsThatLeave)
{
    Channel<int> reading;
    Channel<int> results;
    std::atomic<int> calls{0};
    KitTestServer server(
        [&](Router& router) {
            router
                .put("/streaming",
                     [&](Request& request) {
                         reading.push(1);
                         try {
                             static_cast<void>(request.body());
                             results.push(0);
                         } catch (const HttpError& error) {
                             results.push(error.status());
                             throw;
                         }
                     })
                .streaming();
            router.put("/buffered", [&](Request& request) {
                ++calls;
                request.reply("");
            });
        },
        kitOptions(1));
    for (const bool resets : {true, false}) {
        for (const char* path : {"/streaming", "/buffered"}) {
            SCOPED_TRACE(path);
            RawClient client(server.port());
            ASSERT_TRUE(client.send(headOf("PUT", path, 100000) + std::string(5000, 'b')));
            if (path == std::string("/streaming")) {
                ASSERT_TRUE(reading.pop());
            } else {
                ASSERT_TRUE(waitUntil([&] { return server.server().openRequests() == 1; }));
            }
            if (resets)
                client.reset();
            else
                client.close();
            if (path == std::string("/streaming")) {
                EXPECT_EQ(results.pop(), 400);
            }
            ASSERT_TRUE(waitUntil([&] { return server.server().openRequests() == 0; }));
        }
    }
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(server.stop());
    EXPECT_TRUE(
        processLog->lines("PUT /streaming: the handler failed: the body has not been received")
            .empty());
}

TEST(KitBodies, BeyondTheMemoryBudgetAreRefused)
{
    auto options = kitOptions(1);
    options.memoryBudgetBytes = 400000;
    options.maxBodyBytes = 10000000;
    options.threads = 1;
    KitTestServer server(
        [](Router& router) {
            router.put("/", [](Request& r) { r.reply(std::to_string(r.body().size())); });
        },
        options);
    RawClient first(server.port());
    ASSERT_TRUE(first.send(headOf("PUT", "/", 350000) + std::string(300000, 'a')));
    ASSERT_TRUE(first.waitUntilTaken());
    RawClient second(server.port());
    ASSERT_TRUE(second.send(headOf("PUT", "/", 300000)));
    sendBody(second, std::string(300000, 'b'), false);
    const auto refused = second.receive();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 503);
    EXPECT_EQ(refused->value("Retry-After"), "1");
    ASSERT_TRUE(first.send(std::string(50000, 'a')));
    const auto response = first.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, "350000");
    // The memory of the refused one is free again, and that of the first when its handler has
    // returned.
    const std::string third = withBody("PUT", "/", std::string(300000, 'c'));
    EXPECT_TRUE(waitUntil([&] { return server.ask(third).body == "300000"; }));
}

TEST(KitBodies, OfRefusedRequestsDoNotCloseTheConnectionWhenTheyAreShort)
{
    KitTestServer server(
        [](Router& router) { router.get("/", [](Request& request) { request.reply("text"); }); });
    RawClient client(server.port());
    for (const size_t bytes : {size_t(1), size_t(65536)}) {
        ASSERT_TRUE(client.send(withBody("POST", "/", std::string(bytes, 'b'))));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 405);
        EXPECT_EQ(response->value("Connection"), "");
    }
    ASSERT_TRUE(client.send(getRequest("/")));
    EXPECT_EQ(client.receive().value_or(RawResponse()).body, "text");
    ASSERT_TRUE(client.send(headOf("POST", "/nowhere", 65537)));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 404);
}

TEST(KitBodies, OfAStreamingRouteAreReadInConstantMemory)
{
    constexpr size_t kBytes = 30000000;
    Latch latch;
    std::atomic<size_t> got{0};
    auto options = kitOptions(2);
    KitTestServer server(
        [&](Router& router) {
            router
                .put("/",
                     [&](Request& request) {
                         EXPECT_EQ(request.contentLength(), static_cast<int64_t>(kBytes));
                         std::vector<char> piece(70001);
                         latch.wait();
                         while (const size_t part = request.readBody(piece.data(), piece.size()))
                             got += part;
                         request.reply(std::to_string(got));
                     })
                .streaming();
        },
        options);
    RawClient client(server.port());
    ASSERT_TRUE(client.send(headOf("PUT", "/", kBytes)));
    // The upload stops until the handler reads: the queue takes 256 KiB, the sockets a few MiB.
    std::thread sender([&] { EXPECT_TRUE(client.send(std::string(kBytes, 'b'))); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    latch.open();
    sender.join();
    EXPECT_EQ(client.receive().value_or(RawResponse()).body, std::to_string(kBytes));
}

}  // namespace
}  // namespace integration
