// Event-driven mode: responses that are complete while the body of their request still comes.

#include "support/EventRun.h"
#include "support/Pattern.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <support/BackgroundCall.h>

#include <qvSystem/qvSystemUtils.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::onOneThread;
using integration::pattern;
using integration::RawClient;
using integration::RawResponse;
using integration::waitUntil;
using qv::http::ServerOptions;
using qv::tests::BackgroundCall;
using std::chrono::milliseconds;

// The limits within which the rest of a body is discarded.
constexpr size_t kMaxBytes = 1048576;
constexpr int64_t kMaxMs = 5000;

const std::string kHead = "POST /upload HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\n";

enum class Framing { Declared, Chunked };

const char* nameOf(Framing framing)
{
    return framing == Framing::Declared ? "declared" : "chunked";
}

std::string headOf(Framing framing, size_t bytes)
{
    return kHead + (framing == Framing::Declared
                        ? "Content-Length: " + std::to_string(bytes) + "\r\n\r\n"
                        : "Transfer-Encoding: chunked\r\n\r\n");
}

std::string bodyOf(Framing framing, size_t bytes)
{
    if (framing == Framing::Declared)
        return pattern(bytes);
    constexpr size_t kChunkBytes = 30000;
    std::string all;
    for (size_t at = 0; at < bytes; at += kChunkBytes) {
        const std::string part = pattern(std::min(kChunkBytes, bytes - at));
        char size[16];
        std::snprintf(size, sizeof size, "%zx\r\n", part.size());
        all += size + part + "\r\n";
    }
    return all + "0\r\n\r\n";
}

// After it the server reads the body: a response that is complete earlier takes the place of the
// interim one.
testing::AssertionResult beginsUpload(RawClient& client, Framing framing, size_t bytes)
{
    constexpr int kContinue = 100;
    if (!client.send(headOf(framing, bytes)))
        return testing::AssertionFailure() << "not sent";
    const auto interim = client.receiveHead();
    if (!interim || interim->status != kContinue)
        return testing::AssertionFailure() << "no interim response";
    return testing::AssertionSuccess();
}

void parkAllButPings(EventRequest& request)
{
    if (request.getOriginalFullUrl() == "/ping")
        request.respondHere(200, "pong");
}

bool isServed(RawClient& client)
{
    client.send(getRequest("/ping"));
    const auto response = client.receive();
    return response && response->body == "pong";
}

testing::AssertionResult isMinimal(const std::optional<RawResponse>& response, int status)
{
    if (!response)
        return testing::AssertionFailure() << "no response";
    if (response->status != status || response->value("Connection") != "close" ||
        response->value("Content-Length") != "0" || !response->body.empty())
        return testing::AssertionFailure() << response->statusLine << response->body;
    return testing::AssertionSuccess();
}

testing::AssertionResult isAborted(EventRequest& request)
{
    if (!waitUntil([&] { return request.completions == 1; }))
        return testing::AssertionFailure() << "not completed";
    if (request.abortReason() != "BodyDiscarded")
        return testing::AssertionFailure() << request.abortReason();
    return testing::AssertionSuccess();
}

TEST(EarlyResponse, IsSentAfterTheRestOfTheBodyUpToTheLimit)
{
    for (const Framing framing : {Framing::Declared, Framing::Chunked}) {
        for (const size_t bytes : {size_t{1}, kMaxBytes}) {
            SCOPED_TRACE(std::string(nameOf(framing)) + ", " + std::to_string(bytes));
            EventRun run(&parkAllButPings, onOneThread());
            RawClient client(run.port());
            ASSERT_TRUE(beginsUpload(client, framing, bytes));
            EventRequest* const request = run.request(0);
            ASSERT_TRUE(request);
            request->respondHere(403, "no");
            ASSERT_TRUE(client.send(bodyOf(framing, bytes)));
            const auto response = client.receive();
            ASSERT_TRUE(response);
            EXPECT_EQ(response->status, 403);
            EXPECT_EQ(response->body, "no");
            EXPECT_TRUE(isServed(client));
            EXPECT_EQ(request->aborts, 0);
        }
    }
}

TEST(EarlyResponse, IsMinimalBeyondTheLimitOfBytes)
{
    for (const Framing framing : {Framing::Declared, Framing::Chunked}) {
        for (const size_t bytes : {kMaxBytes + 1, 20 * kMaxBytes}) {
            SCOPED_TRACE(std::string(nameOf(framing)) + ", " + std::to_string(bytes));
            ServerOptions options = onOneThread();
            options.maxConnections = 1;
            EventRun run(&parkAllButPings, options);
            RawClient client(run.port());
            ASSERT_TRUE(beginsUpload(client, framing, bytes));
            EventRequest* const request = run.request(0);
            ASSERT_TRUE(request);
            request->respondHere(403, "no");
            // It is not able to send all: the server reads on for a while and then ends it.
            BackgroundCall sender([&] { client.send(bodyOf(framing, bytes)); });
            EXPECT_TRUE(isMinimal(client.receive(), 403));
            EXPECT_TRUE(isAborted(*request));
            EXPECT_NE(request->code, 0);
            EXPECT_TRUE(sender.waitForEnd());
            EXPECT_EQ(client.receiveSome(1), "");
            EXPECT_TRUE(waitUntil([&] {
                RawClient next(run.port());
                return isServed(next);
            }));
        }
    }
}

TEST(EarlyResponse, CountsFromTheMomentThatItIsComplete)
{
    static constexpr size_t kRead = 3 * kMaxBytes;
    EventRun run(
        [&](EventRequest& request) {
            if (request.getOriginalFullUrl() == "/ping") {
                request.respondHere(200, "pong");
                return;
            }
            run.work(request, [](EventRequest& r) {
                std::vector<char> body(kRead);
                EXPECT_EQ(r.getReceiveDevice().readBytes(body.data(), kRead), kRead);
                r.respond(403, "no");
            });
        },
        onOneThread());
    RawClient client(run.port());
    const std::string body = pattern(kRead + kMaxBytes);
    ASSERT_TRUE(beginsUpload(client, Framing::Declared, body.size()));
    ASSERT_TRUE(client.send(body));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 403);
    EXPECT_EQ(response->body, "no");
    EXPECT_TRUE(isServed(client));
}

TEST(EarlyResponse, OfAWriterThatReadsIsNotLimited)
{
    constexpr size_t kBytes = 5 * kMaxBytes;
    EventRun run(
        [&](EventRequest& request) {
            run.work(request, [](EventRequest& r) {
                r.getResponseDevice().setResponseReady();
                const std::string body = r.readBody();
                r.getResponseDevice().writeBytes(body.data(), 5);
                r.getResponseDevice().endSending();
            });
        },
        onOneThread());
    RawClient client(run.port());
    const std::string body = pattern(kBytes);
    ASSERT_TRUE(beginsUpload(client, Framing::Declared, kBytes));
    ASSERT_TRUE(client.send(body));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 200);
    EXPECT_EQ(response->body, body.substr(0, 5));
}

// One client that has stopped, with each framing, and one that sends a byte now and then.
TEST(EarlyResponse, IsMinimalBeyondTheLimitOfTime)
{
    constexpr size_t kBytes = 100000;
    constexpr size_t kClients = 3;
    EventRun run(&parkAllButPings, onOneThread());
    std::vector<std::unique_ptr<RawClient>> clients;
    for (size_t i = 0; i < kClients; ++i) {
        const Framing framing = i == 1 ? Framing::Chunked : Framing::Declared;
        clients.push_back(std::make_unique<RawClient>(run.port()));
        ASSERT_TRUE(beginsUpload(*clients.back(), framing, kBytes));
        ASSERT_TRUE(clients.back()->send(bodyOf(framing, kBytes).substr(0, 500)));
        ASSERT_TRUE(run.request(i));
    }
    std::atomic<bool> stop{false};
    const int64_t beginMs = qv::qvSystemUtils::GetTimeBaseMs();
    for (size_t i = 0; i < kClients; ++i)
        run.request(i)->respondHere(403, "no");
    std::thread sender([&] {
        while (!stop && clients[2]->send("x"))
            std::this_thread::sleep_for(milliseconds(20));
    });
    for (size_t i = 0; i < kClients; ++i) {
        SCOPED_TRACE(i);
        EXPECT_TRUE(isMinimal(clients[i]->receive(), 403));
        EXPECT_GE(qv::qvSystemUtils::GetTimeBaseMs() - beginMs, kMaxMs);
        EXPECT_TRUE(isAborted(*run.request(i)));
    }
    stop = true;
    sender.join();
    for (const auto& client : clients)
        EXPECT_EQ(client->receiveSome(1), "");
    RawClient next(run.port());
    EXPECT_TRUE(isServed(next));
}

TEST(EarlyResponse, OfAnyStatusIsMinimalInItsWay)
{
    const struct
    {
        uint32_t status;
        int sent;
        bool hasLength;
    } rows[] = {{200, 200, true}, {204, 204, false}, {304, 304, false},
                {999, 999, true}, {101, 500, true},  {1000, 500, true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        EventRun run(&parkAllButPings, onOneThread());
        RawClient client(run.port());
        ASSERT_TRUE(beginsUpload(client, Framing::Declared, 2 * kMaxBytes));
        ASSERT_TRUE(run.request(0));
        run.request(0)->respondHere(row.status, "");
        BackgroundCall sender([&] { client.send(pattern(2 * kMaxBytes)); });
        const auto response = client.receiveHead();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, row.sent);
        EXPECT_EQ(response->value("Content-Length"), row.hasLength ? "0" : "");
        EXPECT_EQ(response->value("Connection"), "close");
        EXPECT_TRUE(isAborted(*run.request(0)));
        EXPECT_TRUE(sender.waitForEnd());
    }
}

// A connection that is closed with unread bytes is reset: the client may lose the response.
TEST(EarlyResponse, DoesNotResetAClientThatStillSends)
{
    constexpr size_t kBytes = 100000;
    ServerOptions options = onOneThread();
    options.allowedHosts = {"x"};
    const struct
    {
        const char* name;
        std::string head;
        int status;
    } rows[] = {
        {"of the application", "POST / HTTP/1.1\r\nHost: x\r\n", 200},
        {"to another host", "POST / HTTP/1.1\r\nHost: y\r\n", 421},
        {"to an ambiguous head", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 7\r\n", 400},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EventRun run([](EventRequest& request) { request.respondHere(200, "early"); }, options);
        RawClient client(run.port());
        ASSERT_TRUE(
            client.send(row.head + "Content-Length: " + std::to_string(kBytes) + "\r\n\r\n"));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, row.status);
        EXPECT_EQ(response->value("Connection"), "close");
        EXPECT_EQ(client.receiveToEnd(), "");
        EXPECT_TRUE(client.send(pattern(kBytes)));
        EXPECT_TRUE(client.waitUntilTaken());
    }
}

TEST(EarlyResponse, IsFollowedByAnEndWithoutAResetWhenBytesAreLeft)
{
    EventRun run([](EventRequest& request) { request.respondHere(200, "last"); }, onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/", "Connection: close\r\n") + pattern(200000)));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, "last");
    EXPECT_TRUE(client.isClosedByServer());
    EXPECT_TRUE(client.waitUntilTaken());
}

}  // namespace
