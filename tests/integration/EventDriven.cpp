// Event-driven mode: waiting requests, back-pressure, peers that leave, deadlines and limits.

#include "support/EventRun.h"
#include "support/Pattern.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <support/BackgroundCall.h>

#include <qvSystem/qvSystemUtils.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::kLimit;
using integration::Latch;
using integration::onOneThread;
using integration::pattern;
using integration::PatternChecker;
using integration::RawClient;
using integration::RawResponse;
using integration::waitUntil;
using qv::http::ServerOptions;
using qv::tests::BackgroundCall;
using std::chrono::milliseconds;
using ::testing::AnyOf;
using ::testing::Field;
using ::testing::Optional;

// A deadline of the server in a test, short against the limits of the test itself.
constexpr milliseconds kShort{300};

constexpr const char* kReasonOfResponseDevice = "Http response device : ";

std::string targetOf(const EventRequest& request)
{
    return request.getOriginalFullUrl();
}

bool isPing(const EventRequest& request)
{
    return targetOf(request) == "/ping";
}

// Responds to "/ping" at once, and leaves other requests to the test.
void parkAllButPings(EventRequest& request)
{
    if (isPing(request))
        request.respondHere(200, "pong");
}

std::string postHead(uint64_t bytes)
{
    return "POST /upload HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(bytes) +
           "\r\n\r\n";
}

const std::string kChunkedHead =
    "POST /upload HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n";

int64_t nowMs()
{
    return qv::qvSystemUtils::GetTimeBaseMs();
}

testing::AssertionResult respondsToPing(RawClient& client)
{
    if (!client.send(getRequest("/ping")))
        return testing::AssertionFailure() << "not sent";
    const auto response = client.receive();
    if (!response)
        return testing::AssertionFailure() << "no response";
    if (response->status != 200 || response->body != "pong")
        return testing::AssertionFailure() << response->statusLine << response->body;
    return testing::AssertionSuccess();
}

testing::AssertionResult isServing(EventRun& run)
{
    RawClient client(run.port());
    return respondsToPing(client);
}

// Each connection that ends frees its place: with a limit of `places` so many new clients are
// served at a time.
testing::AssertionResult hasAllPlaces(EventRun& run, size_t places)
{
    std::string last;
    const bool free = waitUntil([&] {
        std::vector<std::unique_ptr<RawClient>> clients;
        for (size_t i = 0; i < places; ++i) {
            clients.push_back(std::make_unique<RawClient>(run.port()));
            clients.back()->send(getRequest("/ping"));
            const auto response = clients.back()->receive();
            if (!response || response->status != 200) {
                last = std::to_string(i) + " served";
                return false;
            }
        }
        return true;
    });
    return free ? testing::AssertionSuccess() : testing::AssertionFailure() << last;
}

// Waiting.

TEST(EventDriven, TwoHundredWaitingRequestsDelayNobodyAndEndWithOneEvent)
{
    constexpr size_t kWaiting = 200;
    EventRun run(&parkAllButPings, onOneThread());
    std::vector<std::unique_ptr<RawClient>> clients;
    for (size_t i = 0; i < kWaiting; ++i) {
        clients.push_back(std::make_unique<RawClient>(run.port()));
        ASSERT_TRUE(clients.back()->send(getRequest("/wait/" + std::to_string(i))));
    }
    ASSERT_TRUE(run.request(kWaiting - 1));

    RawClient pinger(run.port());
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(respondsToPing(pinger)) << i;

    for (size_t i = 0; i < kWaiting; ++i)
        run.request(i)->respondHere(200, targetOf(*run.request(i)));
    for (size_t i = 0; i < kWaiting; ++i) {
        const auto response = clients[i]->receive();
        ASSERT_TRUE(response) << i;
        EXPECT_EQ(response->body, "/wait/" + std::to_string(i));
    }
}

// 128 ready events at a time are a number at which the daemon waits for one more.
TEST(EventDriven, RespondsToAnyNumberOfConnectionsThatSendAtOnce)
{
    for (const size_t count : {127, 128, 129, 256}) {
        SCOPED_TRACE(count);
        Latch busy;
        EventRun run(
            [&](EventRequest& request) {
                if (targetOf(request) == "/busy")
                    busy.wait();
                request.respondHere(200, "pong");
            },
            onOneThread());
        std::vector<std::unique_ptr<RawClient>> clients;
        for (size_t i = 0; i < count; ++i) {
            clients.push_back(std::make_unique<RawClient>(run.port()));
            ASSERT_TRUE(respondsToPing(*clients.back()));
        }
        RawClient blocker(run.port());
        ASSERT_TRUE(blocker.send(getRequest("/busy")));
        ASSERT_TRUE(busy.waitForArrivals(1));
        for (const auto& client : clients)
            ASSERT_TRUE(client->send(getRequest("/ping")));
        busy.open();
        for (const auto& client : clients)
            EXPECT_TRUE(client->receive());
    }
}

// With 128 each, clients that all send at once would wait for the next event of their daemon.
TEST(EventDriven, PlacesNoFullBatchOfConnectionsOnADaemon)
{
    std::mutex mutex;
    std::map<std::thread::id, int> connections;
    ServerOptions options = onOneThread();
    options.threads = 2;
    EventRun run(
        [&](EventRequest& request) {
            {
                const std::lock_guard<std::mutex> lock(mutex);
                ++connections[std::this_thread::get_id()];
            }
            request.respondHere(200, "pong");
        },
        options);
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 256; ++i) {
        clients.push_back(std::make_unique<RawClient>(run.port()));
        ASSERT_TRUE(respondsToPing(*clients.back()));
    }
    std::vector<int> counts;
    for (const auto& [thread, count] : connections)
        counts.push_back(count);
    EXPECT_THAT(counts, testing::UnorderedElementsAre(127, 129));
}

// Uploads.

class Upload : public testing::Test
{
protected:
    static ServerOptions withQueue(uint64_t bytes)
    {
        ServerOptions options = onOneThread();
        options.uploadQueueBytes = bytes;
        return options;
    }

    // Reads the whole body in pieces, compares it, and responds with its size.
    static void readAll(EventRequest& request, size_t pieceBytes)
    {
        PatternChecker checker;
        std::vector<char> piece(pieceBytes);
        while (!request.getReceiveDevice().atEnd()) {
            const uint64_t got = request.getReceiveDevice().readBytes(piece.data(), piece.size());
            checker.take(piece.data(), got);
        }
        EXPECT_TRUE(checker.matches());
        EXPECT_FALSE(request.getReceiveDevice().hasDeviceError())
            << request.getReceiveDevice().getDeviceErrorMsg();
        request.respond(200, std::to_string(checker.bytes()));
    }
};

TEST_F(Upload, ThatNobodyReadsBlocksItsSenderAndIsReadWholeLater)
{
    constexpr uint64_t kBytes = 64 * 1024 * 1024;  // more than the kernel's buffers hold
    EventRun run(&parkAllButPings, withQueue(262144));
    RawClient client(run.port());
    std::atomic<uint64_t> sent{0};
    BackgroundCall sender([&] {
        client.send(postHead(kBytes));
        const std::string body = pattern(kBytes);
        constexpr size_t kPieceBytes = 65536;
        while (sent < kBytes && client.send(std::string_view(body).substr(sent, kPieceBytes)))
            sent += kPieceBytes;
    });
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    // A server that reads on takes the next piece meanwhile.
    constexpr milliseconds kSilence{500};
    uint64_t before = 0;
    int64_t sinceMs = nowMs();
    ASSERT_TRUE(waitUntil([&] {
        if (sent != before) {
            before = sent;
            sinceMs = nowMs();
        }
        return nowMs() - sinceMs >= kSilence.count();
    }));
    EXPECT_FALSE(sender.hasEnded());
    EXPECT_LT(sent, kBytes);
    EXPECT_TRUE(isServing(run));
    EXPECT_EQ(request->getReceiveDevice().getReceivedBytes(), 0u);
    EXPECT_EQ(request->bodyCompletions, 0);

    run.work(*request, [](EventRequest& r) { readAll(r, 100000); });
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, std::to_string(kBytes))));
    EXPECT_EQ(sent, kBytes);
    EXPECT_EQ(request->bodyCompletions, 1);
}

TEST_F(Upload, ReachesAReaderThatWantsMoreThanTheQueueHolds)
{
    constexpr uint64_t kBytes = 3 * 1024 * 1024 + 17;
    const std::string body = pattern(kBytes);
    for (const uint64_t limit : {262144, 65536, 4096, 1, 0}) {
        for (const size_t pieceBytes : {size_t{1048576}, size_t{65536}, size_t{1000}}) {
            for (const bool isChunked : {false, true}) {
                SCOPED_TRACE(testing::Message() << "limit " << limit << ", pieces of " << pieceBytes
                                                << (isChunked ? ", chunked" : ", declared"));
                EventRun run(
                    [&](EventRequest& request) {
                        run.work(request,
                                 [pieceBytes](EventRequest& r) { readAll(r, pieceBytes); });
                    },
                    withQueue(limit));
                RawClient client(run.port());
                if (isChunked) {
                    ASSERT_TRUE(client.send(kChunkedHead));
                    constexpr size_t kChunkBytes = 30000;
                    for (size_t at = 0; at < body.size(); at += kChunkBytes) {
                        const std::string part = body.substr(at, kChunkBytes);
                        char size[16];
                        std::snprintf(size, sizeof size, "%zx\r\n", part.size());
                        ASSERT_TRUE(client.send(size + part + "\r\n"));
                    }
                    ASSERT_TRUE(client.send("0\r\n\r\n"));
                } else {
                    ASSERT_TRUE(client.send(postHead(kBytes)));
                    ASSERT_TRUE(client.send(body));
                }
                EXPECT_THAT(client.receive(),
                            Optional(Field(&RawResponse::body, std::to_string(kBytes))));
            }
        }
    }
}

// The reader waits for each piece, and the client sends the next one only when it has been read.
// An application that starts its workers in `onBodyComplete` has none waiting for a client.
TEST_F(Upload, OfManySlowClientsDelaysNobody)
{
    constexpr size_t kClients = 100;
    constexpr size_t kBytes = 100000;
    EventRun run(&parkAllButPings, onOneThread());
    const std::string body = pattern(kBytes);
    std::vector<std::unique_ptr<RawClient>> clients;
    for (size_t i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<RawClient>(run.port()));
        ASSERT_TRUE(clients.back()->send(postHead(kBytes) + body.substr(0, 10)));
    }
    ASSERT_TRUE(run.request(kClients - 1));
    RawClient pinger(run.port());
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(respondsToPing(pinger)) << i;
    for (size_t i = 0; i < kClients; ++i)
        EXPECT_EQ(run.request(i)->bodyCompletions, 0) << i;

    for (const auto& client : clients)
        ASSERT_TRUE(client->send(body.substr(10)));
    for (size_t i = 0; i < kClients; ++i) {
        EventRequest& request = *run.request(i);
        ASSERT_TRUE(waitUntil([&] { return request.bodyCompletions == 1; })) << i;
        run.work(request, [](EventRequest& r) { readAll(r, 65536); });
    }
    for (const auto& client : clients)
        EXPECT_THAT(client->receive(), Optional(Field(&RawResponse::body, std::to_string(kBytes))));
}

TEST_F(Upload, OfASlowClientIsReadPieceByPiece)
{
    constexpr size_t kPieces = 40;
    constexpr size_t kPieceBytes = 20000;
    EventRun run(
        [&](EventRequest& request) {
            run.work(request, [](EventRequest& r) { readAll(r, kPieceBytes * 3); });
        },
        withQueue(65536));
    RawClient client(run.port());
    const std::string body = pattern(kPieces * kPieceBytes);
    ASSERT_TRUE(client.send(postHead(body.size())));
    for (size_t i = 0; i < kPieces; ++i) {
        ASSERT_TRUE(client.send(body.substr(i * kPieceBytes, kPieceBytes)));
        ASSERT_TRUE(client.waitUntilTaken());
    }
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, std::to_string(body.size()))));
}

TEST_F(Upload, IsEchoedWhileItIsRead)
{
    constexpr uint64_t kBytes = 8 * 1024 * 1024;
    const std::string body = pattern(kBytes);
    for (const uint64_t limit : {262144, 65536, 0}) {
        SCOPED_TRACE(limit);
        EventRun run(
            [&](EventRequest& request) {
                run.work(request, [](EventRequest& r) {
                    r.getResponseDevice().setResponseReady();
                    std::vector<char> piece(50000);
                    while (!r.getReceiveDevice().atEnd()) {
                        const uint64_t got =
                            r.getReceiveDevice().readBytes(piece.data(), piece.size());
                        EXPECT_EQ(r.getResponseDevice().writeBytes(piece.data(), got), got);
                    }
                    r.getResponseDevice().endSending();
                });
            },
            withQueue(limit));
        RawClient client(run.port());
        ASSERT_TRUE(client.send(postHead(kBytes)));
        ASSERT_TRUE(client.send(body));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_TRUE(response->body == body) << response->body.size();
    }
}

TEST_F(Upload, ThatIsNotWantedIsDiscardedWhenTheResponseIsComplete)
{
    constexpr uint64_t kBytes = 1024 * 1024;
    EventRun run(&parkAllButPings, withQueue(65536));
    RawClient client(run.port());
    ASSERT_TRUE(client.send(postHead(kBytes) + pattern(100000)));
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    // A response that is complete sooner, while the head is handled, closes the connection.
    ASSERT_TRUE(waitUntil([&] { return request->pauses == 1; }));
    BackgroundCall sender([&] { client.send(pattern(kBytes).substr(100000)); });
    request->respondHere(403, "no");
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::status, 403)));
    EXPECT_TRUE(sender.waitForEnd());
    EXPECT_TRUE(respondsToPing(client));
}

// Peers that leave.

class Peer : public testing::Test
{
protected:
    static ServerOptions withPlaces(uint32_t places)
    {
        ServerOptions options = onOneThread();
        options.maxConnections = places;
        return options;
    }

    static void expectAborted(EventRequest& request, const std::string& reason)
    {
        EXPECT_TRUE(waitUntil([&] { return request.completions == 1; }));
        EXPECT_EQ(request.aborts, 1);
        EXPECT_EQ(request.abortReason(), reason);
        EXPECT_EQ(request.connectionError(), kReasonOfResponseDevice + reason);
        EXPECT_EQ(request.getReceiveDevice().getDeviceErrorMsg(), reason);
    }
};

TEST_F(Peer, ThatShutsDownItsSendingSideDuringTheWorkAbortsTheRequest)
{
    EventRun run(&parkAllButPings, withPlaces(4));
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    client.finishSending();
    expectAborted(*request, "ClientAbort");
    EXPECT_TRUE(client.isClosedByServer());
    EXPECT_TRUE(hasAllPlaces(run, 4));
}

TEST_F(Peer, ThatShutsDownItsSendingSideIsServedWhenItMay)
{
    constexpr uint32_t kPlaces = 64;
    ServerOptions options = withPlaces(kPlaces);
    options.halfClosedClients = true;
    EventRun run(&parkAllButPings, options);
    for (int i = 0; i < 20; ++i) {
        RawClient client(run.port());
        const auto before = run.requestCount();
        ASSERT_TRUE(client.send(getRequest("/")));
        EventRequest* const request = run.request(before);
        ASSERT_TRUE(request);
        client.finishSending();
        // The listener has seen the end when it serves a connection that comes after it.
        ASSERT_TRUE(isServing(run));
        request->respondHere(200, "whole");
        EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "whole")));
        EXPECT_TRUE(client.isClosedByServer());
    }
    EXPECT_TRUE(hasAllPlaces(run, kPlaces));
}

TEST_F(Peer, ThatLeavesWakesTheReaderAndTheWriter)
{
    std::atomic<size_t> ended{0};
    EventRun run([&](EventRequest& request) {
        if (isPing(request))
            return request.respondHere(200, "pong");
        run.work(request, [&](EventRequest& r) {
            r.readBody();
            // Until the device refuses.
            const std::string piece(65536, 'x');
            while (r.getResponseDevice().writeBytes(piece.data(), piece.size()) != 0) {
            }
            ++ended;
        });
    });
    const struct
    {
        const char* name;
        std::string bytes;
        bool isReset;
    } rows[] = {
        {"FIN in a declared body", postHead(1000) + "begun", false},
        {"FIN in a chunked body", kChunkedHead + "5\r\nbegun\r\n", false},
        {"RST in a declared body", postHead(1000) + "begun", true},
        {"RST in a chunked body", kChunkedHead + "5\r\nbegun\r\n", true},
        {"FIN while the writer waits", getRequest("/"), false},
        {"RST while the writer waits", getRequest("/"), true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const size_t known = run.requestCount();
        RawClient client(run.port());
        ASSERT_TRUE(client.send(row.bytes));
        EventRequest* const request = run.request(known);
        ASSERT_TRUE(request);
        if (row.isReset)
            client.reset();
        else
            client.finishSending();
        EXPECT_TRUE(waitUntil([&] { return request->completions == 1; }));
        EXPECT_EQ(request->aborts, 1);
        EXPECT_TRUE(waitUntil([&] { return ended == run.requestCount(); }));
    }
    EXPECT_TRUE(isServing(run));
}

// The daemon does not read a connection while its upload is paused.
TEST_F(Peer, ThatLeavesDuringAPausedUploadAbortsTheRequest)
{
    // The end is behind the sent bytes, the rest of which fits into the buffer of the socket.
    constexpr size_t kSent = 100000;
    for (const size_t declared : {2 * kSent, kSent}) {
        SCOPED_TRACE(declared);
        ServerOptions options = withPlaces(2);
        options.uploadQueueBytes = 65536;
        EventRun run(&parkAllButPings, options);
        for (int i = 0; i < 4; ++i) {
            RawClient client(run.port());
            ASSERT_TRUE(client.send(postHead(declared) + pattern(kSent)));
            ASSERT_TRUE(run.request(static_cast<size_t>(i)));
            client.close();
            expectAborted(*run.request(static_cast<size_t>(i)), "ClientAbort");
        }
    }
}

TEST_F(Peer, ThatResetsInAnyPhaseFreesItsPlace)
{
    const struct
    {
        const char* name;
        std::string bytes;
        const char* reason;  // null: no request of the application
    } rows[] = {
        {"without a byte", "", nullptr},
        {"half a request line", "GET /ha", nullptr},
        {"half a head", "GET / HTTP/1.1\r\nHost: ", nullptr},
        {"half a body", postHead(1000) + "begun", "WriteError"},
        {"while the application works", getRequest("/"), "WriteError"},
        {"in a stream", getRequest("/stream"), "WriteError"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EventRun run(
            [&](EventRequest& request) {
                if (targetOf(request) == "/stream")
                    run.work(request,
                             [&](EventRequest& r) { r.streamPattern(64 * 1024 * 1024, 65536); });
                else
                    parkAllButPings(request);
            },
            withPlaces(4));
        RawClient client(run.port());
        ASSERT_TRUE(client.send(row.bytes));
        if (row.reason) {
            EventRequest* const request = run.request(0);
            ASSERT_TRUE(request);
            if (row.bytes == getRequest("/stream")) {
                ASSERT_TRUE(client.receiveHead());
            }
            client.reset();
            EXPECT_TRUE(waitUntil([&] { return request->completions == 1; }));
            EXPECT_EQ(request->aborts, 1);
            EXPECT_THAT(request->abortReason(), AnyOf("WriteError", "ReadError", "ClientAbort"));
        } else {
            ASSERT_TRUE(client.waitUntilTaken());
            client.reset();
        }
        EXPECT_TRUE(hasAllPlaces(run, 4));
    }
}

TEST_F(Peer, ThatEndsItsSideInAHeadIsClosed)
{
    EventRun run(&parkAllButPings, withPlaces(4));
    for (const char* begun : {"", "GET", "GET / HTTP/1.1\r\n", "GET / HTTP/1.1\r\nHost: x\r\n"}) {
        SCOPED_TRACE(begun);
        RawClient client(run.port());
        ASSERT_TRUE(client.send(begun));
        client.finishSending();
        EXPECT_TRUE(client.isClosedByServer());
    }
    EXPECT_TRUE(hasAllPlaces(run, 4));
    for (size_t i = 0; i < run.requestCount(); ++i)
        EXPECT_TRUE(isPing(*run.request(i)));
}

TEST_F(Peer, ThatEndsItsSideInABodyAbortsTheRequest)
{
    for (const bool halfClosedClients : {false, true}) {
        SCOPED_TRACE(halfClosedClients);
        ServerOptions options = withPlaces(4);
        options.halfClosedClients = halfClosedClients;
        EventRun run(&parkAllButPings, options);
        for (const std::string& begun :
             {postHead(1000), postHead(1000) + "begun", kChunkedHead + "5\r\nbegun\r\n"}) {
            SCOPED_TRACE(begun);
            const size_t known = run.requestCount();
            RawClient client(run.port());
            ASSERT_TRUE(client.send(begun));
            EventRequest* const request = run.request(known);
            ASSERT_TRUE(request);
            client.finishSending();
            expectAborted(*request, "ClientAbort");
            EXPECT_EQ(request->bodyCompletions, 0);
        }
        EXPECT_TRUE(hasAllPlaces(run, 4));
    }
}

// As a client does that sends its request and its end in one packet.
TEST_F(Peer, ThatEndsItsSideWithItsRequestKeepsNoPlace)
{
    constexpr uint32_t kPlaces = 32;
    const struct
    {
        const char* name;
        bool mayHalfClose;
        bool isWorker;
    } rows[] = {
        {"half-closing clients, response at once", true, false},
        {"half-closing clients, response of a worker", true, true},
        {"other clients, response at once", false, false},
        {"other clients, response of a worker", false, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ServerOptions options = withPlaces(kPlaces);
        options.halfClosedClients = row.mayHalfClose;
        EventRun run(
            [&](EventRequest& request) {
                if (row.isWorker)
                    run.work(request, [](EventRequest& r) { r.respond(200, "pong"); });
                else
                    request.respondHere(200, "pong");
            },
            options);
        for (int i = 0; i < 300; ++i) {
            RawClient client(run.port());
            ASSERT_TRUE(client.send(getRequest("/ping")));
            client.finishSending();
            const auto response = client.receive();
            // A client that may not do this is served or closed.
            if (row.mayHalfClose) {
                ASSERT_TRUE(response) << i;
            }
            if (response) {
                ASSERT_EQ(response->status, 200) << i;
            }
            EXPECT_TRUE(client.isClosedByServer());
        }
        EXPECT_TRUE(hasAllPlaces(run, kPlaces));
    }
}

// Deadlines. Each is tested from both sides: it does come, and not before its time.

class Deadline : public testing::Test
{
protected:
    static ServerOptions with(milliseconds ServerOptions::*field, milliseconds value)
    {
        ServerOptions options = onOneThread();
        options.*field = value;
        return options;
    }

    // The response that the server writes when a client is too slow.
    static void expectTimeoutResponse(RawClient& client, int64_t startMs, milliseconds limit)
    {
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_GE(nowMs() - startMs, limit.count());
        EXPECT_EQ(response->statusLine, "HTTP/1.1 408 Request Timeout");
        EXPECT_EQ(response->value("Connection"), "close");
        EXPECT_TRUE(client.isClosedByServer());
    }
};

TEST_F(Deadline, OfAHeadIs408)
{
    EventRun run(&parkAllButPings, with(&ServerOptions::headTimeout, kShort));
    for (const char* begun : {"", "GET / HTTP/1.1\r\n", "GET / HTTP/1.1\r\nHost: x\r\n"}) {
        SCOPED_TRACE(begun);
        const int64_t startMs = nowMs();
        RawClient client(run.port());
        ASSERT_TRUE(client.send(begun));
        expectTimeoutResponse(client, startMs, kShort);
    }
    EXPECT_TRUE(isServing(run));
}

TEST_F(Deadline, OfALaterHeadIs408)
{
    EventRun run(&parkAllButPings, with(&ServerOptions::headTimeout, kShort));
    RawClient client(run.port());
    ASSERT_TRUE(respondsToPing(client));
    const int64_t startMs = nowMs();
    ASSERT_TRUE(client.send("GET / HTTP/1.1\r\n"));
    expectTimeoutResponse(client, startMs, kShort);
}

TEST_F(Deadline, OfAHeadIsNotThatOfTheResponse)
{
    EventRun run(&parkAllButPings, with(&ServerOptions::headTimeout, milliseconds(1000)));
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    const int64_t startMs = nowMs();
    ASSERT_TRUE(waitUntil([&] { return nowMs() - startMs > 1500; }));
    request->respondHere(200, "late");
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "late")));
}

TEST_F(Deadline, OfAHeadIsNotReachedByASlowClientInTime)
{
    EventRun run(&parkAllButPings, onOneThread());
    RawClient client(run.port());
    for (const char byte : getRequest("/ping")) {
        ASSERT_TRUE(client.send(std::string(1, byte)));
        ASSERT_TRUE(client.waitUntilTaken());
    }
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::status, 200)));
}

TEST_F(Deadline, OfAnIdleConnectionClosesIt)
{
    EventRun run(&parkAllButPings, with(&ServerOptions::idleTimeout, kShort));
    RawClient client(run.port());
    const int64_t startMs = nowMs();
    ASSERT_TRUE(respondsToPing(client));
    EXPECT_TRUE(client.isClosedByServer());
    EXPECT_GE(nowMs() - startMs, kShort.count());
}

TEST_F(Deadline, OfASilentBodyIs408)
{
    EventRun run(&parkAllButPings, with(&ServerOptions::bodyTimeout, kShort));
    size_t index = 0;
    for (const std::string& begun :
         {postHead(100), postHead(100) + "begun", kChunkedHead + "5\r\nbegun\r\n"}) {
        SCOPED_TRACE(begun);
        const int64_t startMs = nowMs();
        RawClient client(run.port());
        ASSERT_TRUE(client.send(begun));
        expectTimeoutResponse(client, startMs, kShort);
        EventRequest* const request = run.request(index++);
        ASSERT_TRUE(request);
        ASSERT_TRUE(waitUntil([&] { return request->completions == 1; }));
        EXPECT_EQ(request->abortReason(), "TimeoutReached");
        EXPECT_EQ(request->getReceiveDevice().getDeviceErrorMsg(), "TimeoutReached");
        EXPECT_EQ(request->bodyCompletions, 0);
    }
}

TEST_F(Deadline, OfABodyBelowItsRateIs408)
{
    constexpr milliseconds kFree{1000};
    ServerOptions options = with(&ServerOptions::bodyTimeout, kFree);
    options.minBodyBytesPerSecond = 100000;
    EventRun run(&parkAllButPings, options);
    const int64_t startMs = nowMs();
    RawClient client(run.port());
    ASSERT_TRUE(client.send(postHead(1000000)));
    std::atomic<bool> ended{false};
    BackgroundCall trickle([&] {
        while (!ended && client.send("x"))
            waitUntil([&] { return ended.load(); }, milliseconds(20));
    });
    const auto response = client.receive();
    ended = true;
    EXPECT_GE(nowMs() - startMs, kFree.count());
    // The client sends on: the response may be lost to a reset, as with any server.
    if (response) {
        EXPECT_EQ(response->status, 408);
    }
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    ASSERT_TRUE(waitUntil([&] { return request->completions == 1; }));
    EXPECT_EQ(request->abortReason(), "TimeoutReached");
}

TEST_F(Deadline, OfABodyStandsStillWhileItIsNotRead)
{
    constexpr milliseconds kSilence{2000};
    constexpr uint64_t kBytes = 32 * 1024 * 1024;
    ServerOptions options = with(&ServerOptions::bodyTimeout, kSilence);
    options.minBodyBytesPerSecond = 1000000;
    options.uploadQueueBytes = 65536;
    EventRun run(&parkAllButPings, options);
    RawClient client(run.port());
    BackgroundCall sender([&] {
        client.send(postHead(kBytes));
        client.send(pattern(kBytes));
    });
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    const int64_t startMs = nowMs();
    ASSERT_TRUE(waitUntil([&] { return nowMs() - startMs > 3 * kSilence.count(); }));
    EXPECT_EQ(request->aborts, 0);
    run.work(*request, [](EventRequest& r) {
        const std::string body = r.readBody();
        r.respond(200, body == pattern(kBytes) ? "whole" : std::to_string(body.size()));
    });
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "whole")));
}

TEST_F(Deadline, OfAResponseIs503AndPutsBothDevicesInError)
{
    EventRun run(&parkAllButPings, with(&ServerOptions::responseTimeout, kShort));
    RawClient client(run.port());
    const int64_t startMs = nowMs();
    ASSERT_TRUE(client.send(getRequest("/")));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_GE(nowMs() - startMs, kShort.count());
    EXPECT_EQ(response->status, 503);
    EXPECT_EQ(response->value("Retry-After"), "1");
    EventRequest& request = *run.request(0);
    ASSERT_TRUE(waitUntil([&] { return request.completions == 1; }));
    EXPECT_EQ(request.aborts, 1);
    EXPECT_EQ(request.abortReason(), "TimeoutReached");
    EXPECT_EQ(request.connectionError(), "Http response device : TimeoutReached");
    EXPECT_EQ(request.getReceiveDevice().getDeviceErrorMsg(), "TimeoutReached");
    EXPECT_FALSE(request.getResponseDevice().setResponseReady());
    EXPECT_TRUE(respondsToPing(client));
}

TEST_F(Deadline, OfAResponseWakesItsWorker)
{
    EventRun run(
        [&](EventRequest& request) {
            run.work(request, [](EventRequest& r) {
                const std::string piece(65536, 'x');
                while (r.getResponseDevice().writeBytes(piece.data(), piece.size()) != 0) {
                }
            });
        },
        with(&ServerOptions::responseTimeout, kShort));
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::status, 503)));
}

TEST_F(Deadline, OfAResponseDoesNotTouchOneInTime)
{
    ServerOptions options = with(&ServerOptions::responseTimeout, kLimit);
    EventRun run(&parkAllButPings, options);
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    request->respondHere(200, "in time");
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "in time")));
}

// The deadline of an idle connection passes at the moment when the next request comes: it is not
// taken for one of that request. Without a limit for responses no response is 503.
TEST_F(Deadline, ThatPassesWhenARequestComesIsNotThatOfTheRequest)
{
    constexpr milliseconds kIdle{60};
    ServerOptions options = with(&ServerOptions::idleTimeout, kIdle);
    EventRun run(
        [&](EventRequest& request) {
            run.work(request, [](EventRequest& r) { r.respond(200, "pong"); });
        },
        options);
    constexpr int kClients = 16;
    std::vector<std::thread> threads;
    std::atomic<int> served{0};
    std::atomic<int> refused{0};
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&, i] {
            for (int round = 0; round < 15; ++round) {
                RawClient client(run.port());
                const int64_t startMs = nowMs();
                client.send(getRequest("/ping"));
                client.receive();
                // Visits are at multiples of 64 ms.
                const int64_t visitMs = ((startMs + kIdle.count()) / 64 + 1) * 64 - (i % 3);
                waitUntil([&] { return nowMs() >= visitMs; });
                if (!client.send(getRequest("/ping")))
                    continue;
                const auto response = client.receive();
                if (!response)
                    continue;  // closed in time
                (response->status == 200 ? served : refused)++;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(refused, 0);
}

// Limits.

TEST(ConnectionLimit, RefusesTheSurplusUntilOneLeaves)
{
    ServerOptions options = onOneThread();
    options.maxConnections = 2;
    EventRun run(&parkAllButPings, options);
    RawClient first(run.port());
    ASSERT_TRUE(respondsToPing(first));
    auto second = std::make_unique<RawClient>(run.port());
    ASSERT_TRUE(respondsToPing(*second));
    for (const char* bytes : {"", "GET /ping HTTP/1.1\r\nHost: x\r\n\r\n"}) {
        RawClient third(run.port());
        third.send(bytes);
        const auto response = third.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->statusLine, "HTTP/1.1 503 Service Unavailable");
        EXPECT_EQ(response->value("Retry-After"), "1");
        EXPECT_EQ(response->value("Connection"), "close");
        EXPECT_TRUE(third.isClosedByServer());
    }
    EXPECT_TRUE(respondsToPing(first));
    second.reset();
    EXPECT_TRUE(waitUntil([&] {
        RawClient next(run.port());
        next.send(getRequest("/ping"));
        const auto response = next.receive();
        return response && response->status == 200;
    }));
    EXPECT_TRUE(respondsToPing(first));
}

RawClient::Connected connectFrom(const char* own, uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, own, &address.sin_addr);
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return {descriptor};
}

TEST(ConnectionLimit, OfAnAddressLeavesOthersAlone)
{
    ServerOptions options = onOneThread();
    options.maxConnectionsPerAddress = 2;
    EventRun run(&parkAllButPings, options);
    auto first = std::make_unique<RawClient>(connectFrom("127.0.0.2", run.port()));
    RawClient second(connectFrom("127.0.0.2", run.port()));
    ASSERT_TRUE(respondsToPing(*first));
    ASSERT_TRUE(respondsToPing(second));
    {
        RawClient surplus(connectFrom("127.0.0.2", run.port()));
        surplus.send(getRequest("/ping"));
        const auto response = surplus.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 503);
        EXPECT_EQ(response->value("Retry-After"), "1");
    }
    RawClient other(connectFrom("127.0.0.3", run.port()));
    EXPECT_TRUE(respondsToPing(other));
    first.reset();
    EXPECT_TRUE(waitUntil([&] {
        RawClient next(connectFrom("127.0.0.2", run.port()));
        next.send(getRequest("/ping"));
        const auto response = next.receive();
        return response && response->status == 200;
    }));
}

// Streams and hooks.

TEST(EventStream, OfUnknownLengthToHttp10EndsByClosing)
{
    EventRun run(
        [&](EventRequest& request) {
            run.work(request, [](EventRequest& r) { r.streamPattern(300000, 10000); });
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send("GET / HTTP/1.0\r\n\r\n"));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_TRUE(response->body == pattern(300000)) << response->body.size();
    EXPECT_TRUE(response->values("Transfer-Encoding").empty());
    EXPECT_TRUE(client.isClosedByServer());
    EXPECT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
    EXPECT_EQ(run.request(0)->code, 0);
    EXPECT_EQ(run.request(0)->aborts, 0);
    EXPECT_EQ(run.request(0)->connectionError(), "");
}

TEST(EventStream, WithAnErrorOfItsWriterIsClosed)
{
    for (const char* version : {"HTTP/1.0", "HTTP/1.1"}) {
        SCOPED_TRACE(version);
        EventRun run(
            [&](EventRequest& request) {
                run.work(request, [](EventRequest& r) {
                    r.beginStream();
                    r.getResponseDevice().writeBytes("begun", 5);
                    r.getResponseDevice().flush();
                    r.getResponseDevice().setDeviceError("the source has failed");
                });
            },
            onOneThread());
        RawClient client(run.port());
        ASSERT_TRUE(client.send(std::string("GET / ") + version + "\r\nHost: x\r\n\r\n"));
        ASSERT_TRUE(client.receiveHead());
        const std::string rest = client.receiveToEnd();
        EXPECT_EQ(rest.find("0\r\n\r\n"), std::string::npos) << rest;
        ASSERT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
        EXPECT_NE(run.request(0)->code, 0);
        EXPECT_EQ(run.request(0)->aborts, 1);
    }
}

TEST(EventStream, OfADeclaredLengthThatEndsEarlyIsClosed)
{
    EventRun run(
        [&](EventRequest& request) {
            run.work(request, [](EventRequest& r) {
                r.response.contentLength = 1000;
                r.beginStream();
                r.getResponseDevice().writeBytes("begun", 5);
                r.getResponseDevice().endSending();
            });
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(client.receiveHead());
    EXPECT_EQ(client.receiveToEnd(), "begun");
    ASSERT_TRUE(waitUntil([&] { return run.request(0)->completions == 1; }));
    EXPECT_EQ(run.request(0)->aborts, 1);

    // The end of the connection is the end of a body for HTTP/1.0, but not of this one.
    RawClient old(run.port());
    ASSERT_TRUE(old.send("GET / HTTP/1.0\r\n\r\n"));
    ASSERT_TRUE(old.receiveHead());
    EXPECT_EQ(old.receiveToEnd(), "begun");
    ASSERT_TRUE(waitUntil([&] { return run.request(1)->completions == 1; }));
    EXPECT_EQ(run.request(1)->aborts, 1);
}

// The daemon would send the last chunk of a body that there is not.
TEST(EventStream, ForHeadIsNothingButTheHead)
{
    for (const int64_t length : {-1, 1000}) {
        SCOPED_TRACE(length);
        EventRun run(
            [&](EventRequest& request) {
                if (isPing(request))
                    return request.respondHere(200, "pong");
                run.work(request, [&](EventRequest& r) {
                    r.response.contentLength = length;
                    r.beginStream();
                    r.getResponseDevice().endSending();
                });
            },
            onOneThread());
        RawClient client(run.port());
        ASSERT_TRUE(client.send("HEAD / HTTP/1.1\r\nHost: x\r\n\r\n"));
        const auto head = client.receiveHead();
        ASSERT_TRUE(head);
        EXPECT_EQ(head->status, 200);
        if (length < 0) {
            EXPECT_EQ(client.receiveToEnd(), "");
        } else {
            EXPECT_TRUE(respondsToPing(client));
        }
    }
}

// The writer has nothing to send for a while: the connection costs no thread and no time.
TEST(EventStream, GoesOnWhenItsWriterHasMore)
{
    Latch more;
    EventRun run(
        [&](EventRequest& request) {
            if (isPing(request))
                return request.respondHere(200, "pong");
            run.work(request, [&](EventRequest& r) {
                r.beginStream();
                for (int i = 0; i < 3; ++i) {
                    r.getResponseDevice().writeBytes("tick", 4);
                    r.getResponseDevice().flush();
                    more.wait();
                }
                r.getResponseDevice().endSending();
            });
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/stream")));
    ASSERT_TRUE(client.receiveHead());
    EXPECT_EQ(client.receiveExactly(9), "4\r\ntick\r\n");
    EXPECT_TRUE(isServing(run));
    more.open();
    const std::string rest = client.receiveExactly(5);
    std::string all = rest;
    while (all.find("0\r\n\r\n") == std::string::npos) {
        const std::string some = client.receiveSome(100);
        ASSERT_FALSE(some.empty()) << all;
        all += some;
    }
    EXPECT_TRUE(respondsToPing(client));
}

TEST(EventHook, OfTheCompleteBodyIsCalledOnceAfterHandleRequest)
{
    EventRun run(&parkAllButPings, onOneThread());
    const struct
    {
        const char* name;
        std::string bytes;
    } rows[] = {
        {"no body", getRequest("/")},
        {"empty body", postHead(0)},
        {"declared body", postHead(5) + "whole"},
        {"chunked body", kChunkedHead + "5\r\nwhole\r\n0\r\n\r\n"},
    };
    size_t index = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RawClient client(run.port());
        ASSERT_TRUE(client.send(row.bytes));
        EventRequest* const request = run.request(index++);
        ASSERT_TRUE(request);
        EXPECT_TRUE(waitUntil([&] { return request->bodyCompletions == 1; }));
        request->respondHere(200, "done");
        EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "done")));
        ASSERT_TRUE(waitUntil([&] { return request->completions == 1; }));
        EXPECT_EQ(request->bodyCompletions, 1);
        EXPECT_EQ(request->aborts, 0);
    }
}

}  // namespace
