// Connections that end in the middle: the error that the worker gets, and that it never blocks.

#include "support/CurlClient.h"
#include "support/Pattern.h"
#include "support/RawClient.h"
#include "support/TestServer.h"

#include <gmock/gmock.h>

#include <atomic>
#include <string>
#include <vector>

namespace
{

using integration::Channel;
using integration::CurlClient;
using integration::getRequest;
using integration::Latch;
using integration::RawClient;
using integration::TestRequest;
using integration::TestServer;
using integration::TestServerOptions;
using ::testing::AnyOf;
using ::testing::Eq;
using ::testing::Optional;

std::string beginningOfUpload()
{
    return "PUT /u HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n" +
           std::string(100000, 'u');
}

class Disconnect : public ::testing::Test
{
protected:
    void expectServing(TestServer& server)
    {
        EXPECT_TRUE(server.waitUntilNoneOpen());
        EXPECT_EQ(server.requestsCompleted(), server.requestsCreated());
    }

    Latch begun;
    Channel<std::string> error;
};

// A worker that reads the body until the read ends, then waits for the end of the connection.
class DisconnectInUpload : public Disconnect
{
protected:
    TestServer server{[this](TestRequest& request) {
        begun.open();
        const std::string body = request.readBody();
        EXPECT_LT(body.size(), 1000000u);
        EXPECT_TRUE(request.waitForConnectionError());
        EXPECT_EQ(request.getResponseDevice().writeBytes("late", 4), 0u);
        EXPECT_TRUE(request.getResponseDevice().atEnd());
        error.push(request.connectionError());
    }};
};

// The daemon can miss the end of a connection that comes together with the last bytes.
TEST_F(DisconnectInUpload, ByTheClientIsClientAbort)
{
    RawClient client(server.port());
    ASSERT_TRUE(client.send(beginningOfUpload()));
    ASSERT_TRUE(begun.wait());
    ASSERT_TRUE(client.waitUntilTaken());
    client.close();
    EXPECT_THAT(error.pop(), Optional(Eq("Http response device : ClientAbort")));
    expectServing(server);
}

TEST_F(DisconnectInUpload, ByFinishingToSendIsClientAbort)
{
    RawClient client(server.port());
    ASSERT_TRUE(client.send(beginningOfUpload()));
    ASSERT_TRUE(begun.wait());
    ASSERT_TRUE(client.waitUntilTaken());
    client.finishSending();
    EXPECT_THAT(error.pop(), Optional(Eq("Http response device : ClientAbort")));
    expectServing(server);
}

// The daemon sees the reset when it reads or, rarely, as an error of the socket before that.
TEST_F(DisconnectInUpload, ByAResetIsReadError)
{
    RawClient client(server.port());
    ASSERT_TRUE(client.send(beginningOfUpload()));
    ASSERT_TRUE(begun.wait());
    client.reset();
    EXPECT_THAT(error.pop(), Optional(AnyOf(Eq("Http response device : ReadError"),
                                            Eq("Http response device : WriteError"))));
    expectServing(server);
}

TEST_F(DisconnectInUpload, ByStoppingTheServerIsDaemonShutdown)
{
    RawClient client(server.port());
    ASSERT_TRUE(client.send(beginningOfUpload()));
    ASSERT_TRUE(begun.wait());
    server.server().stopServer(true);
    EXPECT_THAT(error.pop(), Optional(Eq("Http response device : DaemonShutdown")));
    EXPECT_TRUE(client.isClosedByServer());
    expectServing(server);
}

TEST_F(Disconnect, WhileTheWorkerComputesIsWriteError)
{
    TestServer server([this](TestRequest& request) {
        begun.open();
        EXPECT_TRUE(request.waitForConnectionError());
        error.push(request.connectionError());
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(begun.wait());
    client.reset();
    EXPECT_THAT(error.pop(), Optional(Eq("Http response device : WriteError")));
    expectServing(server);
}

TEST_F(Disconnect, InTheDownloadWakesTheBlockedWriter)
{
    // Far more than the buffers of the system hold for a client that does not read.
    constexpr uint64_t kBodyBytes = uint64_t{1} << 40;
    constexpr uint64_t kBuffersBytes = uint64_t{64} * 1024 * 1024;
    std::atomic<uint64_t> written{0};
    TestServer server([&](TestRequest& request) {
        request.response.contentLength = static_cast<int64_t>(kBodyBytes);
        ASSERT_TRUE(request.beginStream());
        const std::string piece(65536, 'd');
        uint64_t taken = piece.size();
        while (taken == piece.size() && written < kBuffersBytes) {
            taken = request.getResponseDevice().writeBytes(piece.data(), piece.size());
            written += taken;
        }
        EXPECT_EQ(taken, 0u) << "the writer was never held back";
        error.push(request.connectionError());
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(client.receiveHead());

    // Held back: no further byte for half a second.
    uint64_t last = 0;
    auto lastChange = std::chrono::steady_clock::now();
    ASSERT_TRUE(integration::waitUntil([&] {
        const auto now = std::chrono::steady_clock::now();
        if (written != last || written == 0) {
            last = written;
            lastChange = now;
        }
        return now - lastChange > std::chrono::milliseconds(500);
    }));
    EXPECT_FALSE(error.pop(std::chrono::milliseconds(1))) << "the writer was not held back";

    client.reset();
    EXPECT_THAT(error.pop(), Optional(Eq("Http response device : WriteError")));
    expectServing(server);
}

TEST_F(Disconnect, InTheDownloadIsSeenByALaterWrite)
{
    Latch closed;
    TestServer server([&](TestRequest& request) {
        ASSERT_TRUE(request.beginStream());
        auto& device = request.getResponseDevice();
        EXPECT_EQ(device.writeBytes("first", 5), 5u);
        device.flush();
        EXPECT_TRUE(closed.wait());
        EXPECT_TRUE(integration::waitUntil([&device] {
            device.writeBytes("more", 4);
            device.flush();
            return device.hasDeviceError();
        }));
        EXPECT_EQ(device.writeBytes("last", 4), 0u);
        error.push(request.connectionError());
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(client.receiveHead());
    EXPECT_EQ(client.receiveExactly(10), "5\r\nfirst\r\n");
    client.close();
    closed.open();
    EXPECT_THAT(error.pop(), Optional(Eq("Http response device : WriteError")));
    expectServing(server);
}

TEST_F(Disconnect, AfterTheTimeoutIsTimeoutReached)
{
    TestServerOptions options;
    options.connectionTimeoutMs = 1000;
    TestServer server(
        [this](TestRequest& request) {
            EXPECT_TRUE(request.waitForConnectionError());
            error.push(request.connectionError());
        },
        options);
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EXPECT_THAT(error.pop(), Optional(Eq("Http response device : TimeoutReached")));
    if (integration::isEventDriven()) {
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 503);
        client.close();
    } else {
        EXPECT_TRUE(client.isClosedByServer());
    }
    expectServing(server);
}

TEST_F(Disconnect, AfterACompleteResponseIsNoError)
{
    TestServer server([this](TestRequest& request) {
        request.respond(200, "whole");
        EXPECT_TRUE(integration::waitUntil([&request] { return request.isCompleted(); }));
        error.push(request.connectionError());
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, "whole");
    EXPECT_THAT(error.pop(), Optional(Eq("")));
    client.reset();
    expectServing(server);
}

TEST_F(Disconnect, InTheHeadIsNoRequest)
{
    TestServer server([](TestRequest& request) { request.respond(200, "served"); });
    const std::string whole = getRequest("/p?q=1", "X-A: b\r\n");
    // Cut after every byte, once with an orderly end and once with a reset.
    for (size_t size = 0; size < whole.size(); ++size) {
        RawClient client(server.port());
        ASSERT_TRUE(client.send(whole.substr(0, size)));
        if (size % 2 == 0)
            client.close();
        else
            client.reset();
    }
    CurlClient client;
    EXPECT_EQ(client.get(server.url()).body, "served");
    EXPECT_EQ(server.requestsCreated(), 1u);
}

}  // namespace
