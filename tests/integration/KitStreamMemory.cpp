// The queues of deferred streams and event streams within the memory budget of the server.

#include "support/KitTestServer.h"

#include <Wendrel/kit/EventStream.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace integration
{
namespace
{

using qv::kit::ContentType;
using qv::kit::DeferredResponse;
using qv::kit::DeferredStream;
using qv::kit::EventStream;
using qv::kit::EventStreamOptions;
using qv::kit::Request;
using qv::kit::Router;
using qv::kit::SlowClient;
using qv::kit::StreamWrite;

constexpr size_t kBudgetBytes = 400000;
constexpr size_t kBlockBytes = 10000;
constexpr size_t kQueueBytes = 100000000;  // never reached
constexpr std::chrono::milliseconds kQuiet(300);

// Streams of clients that read when the test reads.
struct Streaming
{
    explicit Streaming(const EventStreamOptions& events = {}) : topic(events) {}

    static qv::kit::ServerOptions options()
    {
        auto options = kitOptions(2);
        options.memoryBudgetBytes = kBudgetBytes;
        return options;
    }

    DeferredStream start(RawClient& client, const std::string& method = "GET")
    {
        EXPECT_TRUE(client.send(method + " /wait HTTP/1.1\r\nHost: x\r\n\r\n"));
        auto later = responses.pop().value_or(nullptr);
        EXPECT_TRUE(later);
        return later ? later->startStream(ContentType::bytes(), 200, kQueueBytes)
                     : DeferredStream();
    }

    // Writes to a client that does not read until the budget is used up but for a block.
    size_t useUp(DeferredStream& stream)
    {
        const std::string block(kBlockBytes, 'b');
        size_t written = 0;
        size_t seen = 0;
        auto since = std::chrono::steady_clock::now();
        EXPECT_TRUE(waitUntil([&] {
            while (stream.write(block) == StreamWrite::Taken)
                written += block.size();
            // The sockets are full: the daemon thread has not taken a byte for a while.
            const auto now = std::chrono::steady_clock::now();
            const bool isQuiet =
                seen == written && stream.queuedBytes() > kBudgetBytes - kBlockBytes;
            if (!isQuiet)
                since = now;
            seen = written;
            return now - since > kQuiet;
        }));
        EXPECT_LE(stream.queuedBytes(), kBudgetBytes);
        return written;
    }

    bool hasNoRequests()
    {
        return waitUntil([&] { return server.server().openRequests() == 0; });
    }

    EventStream topic;
    Channel<std::shared_ptr<DeferredResponse>> responses;
    KitTestServer server{
        [this](Router& router) {
            const auto wait = [this](Request& request) {
                responses.push(std::make_shared<DeferredResponse>(request.defer()));
            };
            router.get("/wait", wait);
            router.head("/wait", wait);
            router.put("/", [](Request& request) {
                request.reply(std::to_string(request.body().size()));
            });
            router.get("/events", [this](Request& request) { topic.subscribe(request); });
        },
        options()};
};

TEST(KitStreamMemory, TakesTheWholeBudgetAndNotAByteMore)
{
    Streaming run;
    RawClient client(run.server.port());
    DeferredStream stream = run.start(client);
    EXPECT_EQ(stream.write(std::string(kBudgetBytes + 1, 'a')), StreamWrite::Full);
    EXPECT_EQ(stream.queuedBytes(), 0u);
    EXPECT_EQ(stream.write(std::string(kBudgetBytes, 'b')), StreamWrite::Taken);
    stream.finish();
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, std::string(kBudgetBytes, 'b'));
}

TEST(KitStreamMemory, IsFreeAgainAfterEachEndOfAStream)
{
    Streaming run;
    const auto takesAll = [&] {
        RawClient client(run.server.port());
        DeferredStream stream = run.start(client);
        EXPECT_EQ(stream.write(std::string(kBudgetBytes, 'w')), StreamWrite::Taken);
        stream.finish();
        EXPECT_EQ(client.receive().value_or(RawResponse()).body.size(), kBudgetBytes);
    };
    for (const std::string end : {"read", "destroyed", "left", "head"}) {
        SCOPED_TRACE(end);
        RawClient client(run.server.port());
        DeferredStream stream = run.start(client, end == "head" ? "HEAD" : "GET");
        if (end == "head") {
            EXPECT_EQ(stream.write(std::string(2 * kBudgetBytes, 'h')), StreamWrite::Taken);
        } else {
            const size_t written = run.useUp(stream);
            if (end == "read") {
                stream.finish();
                EXPECT_EQ(client.receive().value_or(RawResponse()).body.size(), written);
            } else if (end == "destroyed") {
                stream = DeferredStream();  // its client is still connected and does not read
            } else {
                client.reset();
                EXPECT_TRUE(run.hasNoRequests());
            }
        }
        takesAll();
    }
}

TEST(KitStreamMemory, AStreamWithoutMemoryIsToldWhenThereIsSome)
{
    Streaming run;
    RawClient slow(run.server.port());
    DeferredStream first = run.start(slow);
    run.useUp(first);
    const std::string data(2 * kBlockBytes, 'd');
    // One waits with its callback set before the refused write, one after it.
    RawClient clients[] = {RawClient(run.server.port()), RawClient(run.server.port())};
    DeferredStream streams[] = {run.start(clients[0]), run.start(clients[1])};
    std::atomic<int> early{0};
    Channel<int> writable;
    const auto callback = [&](int number) {
        return [&, number] {
            if (streams[number].write(data) == StreamWrite::Taken)
                writable.push(number);
            else
                ++early;
        };
    };
    streams[0].onWritable(callback(0));
    EXPECT_EQ(streams[0].write(data), StreamWrite::Full);
    EXPECT_EQ(streams[1].write(data), StreamWrite::Full);
    streams[1].onWritable(callback(1));
    EXPECT_EQ(streams[0].queuedBytes(), 0u);
    EXPECT_EQ(early, 0);
    slow.close();
    const int told = writable.pop().value_or(-1) + writable.pop().value_or(-1);
    EXPECT_EQ(told, 1) << "both of them, once";
    for (int number : {0, 1}) {
        streams[number].finish();
        EXPECT_EQ(clients[number].receive().value_or(RawResponse()).body, data);
    }
}

// A callback of a stream that waits for memory is not called, nor kept, once the stream is over.
TEST(KitStreamMemory, AStreamMayEndWhileItWaitsForMemory)
{
    Streaming run;
    RawClient slow(run.server.port());
    DeferredStream first = run.start(slow);
    run.useUp(first);
    auto alive = std::make_shared<int>();
    for (const std::string end : {"finished", "destroyed", "left"}) {
        SCOPED_TRACE(end);
        RawClient client(run.server.port());
        DeferredStream stream = run.start(client);
        EXPECT_EQ(stream.write(std::string(2 * kBlockBytes, 'd')), StreamWrite::Full);
        stream.onWritable([alive] { ADD_FAILURE() << "called"; });
        EXPECT_EQ(alive.use_count(), 2);
        if (end == "finished")
            stream.finish();
        else if (end == "destroyed")
            stream = DeferredStream();
        else
            client.close();
        EXPECT_TRUE(waitUntil([&] { return alive.use_count() == 1; }));
    }
    // Others still wait, while the server stops.
    RawClient client(run.server.port());
    DeferredStream stream = run.start(client);
    EXPECT_EQ(stream.write(std::string(2 * kBlockBytes, 'd')), StreamWrite::Full);
    stream.onWritable([alive] {});
    run.server.stop(std::chrono::milliseconds(0));
    EXPECT_EQ(alive.use_count(), 1);
    EXPECT_EQ(stream.write("d"), StreamWrite::Gone);
}

TEST(KitStreamMemory, IsSharedWithUploads)
{
    Streaming run;
    RawClient slow(run.server.port());
    DeferredStream stream = run.start(slow);
    run.useUp(stream);
    const std::string upload = withBody("PUT", "/", std::string(3 * kBlockBytes, 'u'));
    const RawResponse refused = run.server.ask(upload);
    EXPECT_EQ(refused.status, 503);
    EXPECT_EQ(refused.value("Retry-After"), "1");
    slow.close();
    ASSERT_TRUE(waitUntil([&] { return stream.isGone() && stream.queuedBytes() == 0; }));
    EXPECT_EQ(run.server.ask(upload).body, std::to_string(3 * kBlockBytes));
}

EventStreamOptions unlimited(SlowClient policy)
{
    EventStreamOptions options;
    options.heartbeat = std::chrono::milliseconds(0);
    options.queueBytes = kQueueBytes;
    options.slowClient = policy;
    return options;
}

// The text of a chunked stream up to its end, or to `last`.
std::string receiveEvents(RawClient& client, const std::string& last)
{
    std::string received;
    while (received.find(last) == std::string::npos) {
        const std::string more = client.receiveSome(1 << 20);
        if (more.empty())
            return received + "<closed>";
        received += more;
    }
    return received;
}

TEST(KitStreamMemory, EndsTheEventStreamOfASlowClient)
{
    Streaming run(unlimited(SlowClient::Disconnect));
    RawClient slow(run.server.port());
    ASSERT_TRUE(slow.send(getRequest("/events")));
    ASSERT_TRUE(slow.receiveHead());
    ASSERT_TRUE(waitUntil([&] { return run.topic.subscribers() == 1; }));
    // More than the socket buffers of both sides hold.
    const std::string data(30000, 'x');
    int published = 0;
    while (run.topic.subscribers() == 1 && published < 2000)
        run.topic.publish("", data, "n" + std::to_string(++published));
    EXPECT_EQ(run.topic.subscribers(), 0u);
    const std::string received = receiveEvents(slow, "\r\n0\r\n\r\n");
    EXPECT_NE(received.find("id: n1\n"), std::string::npos);
    const std::string next = "id: n" + std::to_string(published) + "\n";
    EXPECT_NE(received.find("id: n" + std::to_string(published - 1) + "\n"), std::string::npos);
    EXPECT_EQ(received.find(next), std::string::npos);
    // It comes back, and has missed nothing.
    ASSERT_TRUE(slow.send(
        getRequest("/events", "Last-Event-ID: n" + std::to_string(published - 1) + "\r\n")));
    ASSERT_TRUE(slow.receiveHead());
    EXPECT_NE(receiveEvents(slow, next).find(next), std::string::npos);
}

TEST(KitStreamMemory, LeavesEventsOut)
{
    Streaming run(unlimited(SlowClient::Skip));
    RawClient hog(run.server.port());
    DeferredStream stream = run.start(hog);
    RawClient client(run.server.port());
    ASSERT_TRUE(client.send(getRequest("/events")));
    ASSERT_TRUE(client.receiveHead());
    ASSERT_NE(receiveEvents(client, ":\n\n"), "");
    run.useUp(stream);
    run.topic.publish("", std::string(3 * kBlockBytes, 'x'), "missed");
    EXPECT_EQ(run.topic.subscribers(), 1u);
    hog.close();
    ASSERT_TRUE(waitUntil([&] { return stream.isGone() && stream.queuedBytes() == 0; }));
    run.topic.publish("", "y", "next");
    const std::string received = receiveEvents(client, "id: next\n");
    EXPECT_EQ(received.find("missed"), std::string::npos);
    EXPECT_EQ(received.find("<closed>"), std::string::npos);
}

// Nothing is left out silently: without memory for the replay there is no stream.
TEST(KitStreamMemory, EndsAnEventStreamThatCannotBeReplayed)
{
    for (const SlowClient policy : {SlowClient::Disconnect, SlowClient::Skip}) {
        Streaming run(unlimited(policy));
        run.topic.publish("", "first", "n1");
        run.topic.publish("", std::string(3 * kBlockBytes, 'x'), "n2");
        RawClient hog(run.server.port());
        DeferredStream stream = run.start(hog);
        run.useUp(stream);
        const std::string again = getRequest("/events", "Last-Event-ID: n1\r\n");
        RawClient client(run.server.port());
        ASSERT_TRUE(client.send(again));
        const auto ended = client.receive();
        ASSERT_TRUE(ended);
        EXPECT_EQ(ended->status, 200);
        EXPECT_EQ(ended->body, "");
        EXPECT_EQ(run.topic.subscribers(), 0u);
        hog.close();
        ASSERT_TRUE(waitUntil([&] { return stream.isGone() && stream.queuedBytes() == 0; }));
        ASSERT_TRUE(client.send(again));
        ASSERT_TRUE(client.receiveHead());
        EXPECT_EQ(receiveEvents(client, "id: n2\n").find("<closed>"), std::string::npos);
    }
}

}  // namespace
}  // namespace integration
