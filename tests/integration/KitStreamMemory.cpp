// The memory that clients make the kit hold, within the memory budget of the server: queues of
// streams and sessions, bodies that are read whole, and large responses.

#include "support/KitTestServer.h"
#include "support/SessionFrames.h"

#include <Wendrel/kit/EventStream.h>

#include <support/TemporaryDirectory.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>

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
using qv::kit::websocket::SendResult;
using qv::kit::websocket::Session;

constexpr size_t kBudgetBytes = 400000;
constexpr size_t kBlockBytes = 10000;
constexpr size_t kQueueBytes = 100000000;  // never reached
constexpr const char* kSocketName = "app.sock";

class Opening : public qv::kit::websocket::SessionHandler
{
public:
    explicit Opening(Channel<std::shared_ptr<Session>>& opened) : mOpened(opened) {}
    void onOpen(const std::shared_ptr<Session>& session) override { mOpened.push(session); }

private:
    Channel<std::shared_ptr<Session>>& mOpened;
};

// Streams of clients that read when the test reads.
struct Streaming
{
    explicit Streaming(const EventStreamOptions& events = {}) : topic(events) {}

    // On one thread for all connections.
    qv::kit::ServerOptions options() const
    {
        auto options = kitOptions(2);
        options.threads = 1;
        options.listen.push_back("unix:" + (directory / kSocketName));
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

    // A client over a Unix socket, whose space changes only when one of the two ends uses it.
    RawClient::Connected connectUnix() const
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = directory / kSocketName;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return {descriptor};
    }

    // Writes to a client that does not read until the budget is used up but for a block, and the
    // socket is full: the thread of the connections takes no byte in two turns that it has made.
    size_t useUp(DeferredStream& stream)
    {
        const std::string block(kBlockBytes, 'b');
        size_t written = 0;
        EXPECT_TRUE(waitUntil([&] {
            while (stream.write(block) == StreamWrite::Taken)
                written += block.size();
            const size_t queued = stream.queuedBytes();
            EXPECT_EQ(server.get("/turn").status, 404);
            EXPECT_EQ(server.get("/turn").status, 404);
            return queued > kBudgetBytes - kBlockBytes && stream.queuedBytes() == queued;
        }));
        EXPECT_LE(stream.queuedBytes(), kBudgetBytes);
        return written;
    }

    bool hasNoRequests()
    {
        return waitUntil([&] { return server.server().openRequests() == 0; });
    }

    const qv::tests::TemporaryDirectory directory;
    EventStream topic;
    Channel<std::shared_ptr<DeferredResponse>> responses;
    Channel<std::shared_ptr<Session>> sessions;
    Latch reading;  // of the handlers of bodies
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
            const auto hold = [this](Request& request) {
                const size_t size = request.body().size();
                reading.wait();
                request.reply(std::to_string(size));
            };
            router.put("/held", hold);
            router.put("/held/streaming", hold).streaming();
            router.put("/held/form", [this](Request& request) {
                const size_t size = request.form().field("a").asText().size();
                reading.wait();
                request.reply(std::to_string(size));
            });
            router.get("/text/{bytes}", [](Request& request) {
                request.reply(
                    std::string(static_cast<size_t>(request.pathParameter("bytes").asInt()), 't'));
            });
            qv::kit::websocket::WebSocketOptions dropping;
            dropping.queuePolicy = qv::kit::websocket::QueuePolicy::DropNewest;
            dropping.sendQueueBytes = kQueueBytes;
            router.webSocket("/session", dropping,
                             [this](Request&) { return std::make_shared<Opening>(sessions); });
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
        RawClient client(run.connectUnix());
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
    RawClient slow(run.connectUnix());
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
    RawClient slow(run.connectUnix());
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
    RawClient slow(run.connectUnix());
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
    RawClient hog(run.connectUnix());
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
        RawClient hog(run.connectUnix());
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

// Up to the last byte.
void useUpAll(DeferredStream& stream, Streaming& run)
{
    run.useUp(stream);
    const size_t queued = stream.queuedBytes();
    EXPECT_EQ(stream.write(std::string(kBudgetBytes - queued, 'b')), StreamWrite::Taken);
}

// Bytes of the budget that are free: a stream takes no more.
bool isFree(DeferredStream& stream, size_t bytes)
{
    return stream.write(std::string(bytes, 'f')) == StreamWrite::Taken;
}

// The body itself, and once more for its fields.
TEST(KitMemory, HoldsABodyUntilItsHandlerReturns)
{
    constexpr size_t kBodyBytes = kBudgetBytes / 2 - 20000;
    const struct
    {
        const char* name;
        std::string target;
        size_t heldBytes;
    } rows[] = {{"body", "/held", kBodyBytes},
                {"streamed body", "/held/streaming", kBodyBytes},
                {"form", "/held/form", 2 * kBodyBytes}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Streaming run;
        RawClient client(run.server.port());
        ASSERT_TRUE(client.send("PUT " + row.target +
                                " HTTP/1.1\r\nHost: x\r\n"
                                "Content-Type: application/x-www-form-urlencoded\r\n"
                                "Content-Length: " +
                                std::to_string(kBodyBytes) +
                                "\r\n\r\na=" + std::string(kBodyBytes - 2, 'x')));
        ASSERT_TRUE(run.reading.waitForArrivals(1));
        {
            RawClient slow(run.server.port());
            DeferredStream stream = run.start(slow);
            EXPECT_FALSE(isFree(stream, kBudgetBytes - row.heldBytes + 1));
            EXPECT_TRUE(isFree(stream, kBudgetBytes - row.heldBytes));
            stream.finish();
            EXPECT_TRUE(slow.receive());
        }
        run.reading.open();
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 200);
        RawClient after(run.server.port());
        DeferredStream stream = run.start(after);
        EXPECT_TRUE(waitUntil([&] { return isFree(stream, kBudgetBytes); }));
    }
}

TEST(KitMemory, RefusesWhatASlowClientWouldMakeItHold)
{
    Streaming run;
    RawClient hog(run.connectUnix());
    DeferredStream stream = run.start(hog);
    useUpAll(stream, run);
    run.reading.open();
    const std::string requests[] = {getRequest("/text/16384"),
                                    withBody("PUT", "/held/streaming", "x")};
    for (const std::string& request : requests) {
        const RawResponse response = run.server.ask(request);
        EXPECT_EQ(response.status, 503);
        EXPECT_EQ(response.value("Retry-After"), "1");
    }
    EXPECT_EQ(run.server.get("/text/16383").body.size(), 16383u);
    EXPECT_EQ(run.server.ask(withBody("PUT", "/held/streaming", "")).status, 200);
    hog.close();
    ASSERT_TRUE(waitUntil([&] { return stream.isGone() && stream.queuedBytes() == 0; }));
    EXPECT_EQ(run.server.get("/text/16384").body.size(), 16384u);
    // One that begins within the free memory is sent.
    EXPECT_EQ(run.server.get("/text/1000000").body.size(), 1000000u);
}

// The callbacks, too, are destroyed with a refusal: they may hold the deferred response.
TEST(KitMemory, EndsADeferredResponseThatItRefuses)
{
    Streaming run;
    RawClient hog(run.connectUnix());
    DeferredStream stream = run.start(hog);
    useUpAll(stream, run);
    RawClient client(run.server.port());
    ASSERT_TRUE(client.send(getRequest("/wait")));
    auto later = run.responses.pop().value_or(nullptr);
    ASSERT_TRUE(later);
    const std::weak_ptr<DeferredResponse> alive = later;
    later->onGone([later] {});
    EXPECT_FALSE(later->reply(std::string(16384, 't')));
    later.reset();
    EXPECT_TRUE(alive.expired());
    EXPECT_EQ(client.receive().value_or(RawResponse()).status, 503);
}

TEST(KitMemory, HoldsATextUntilItHasBeenSent)
{
    constexpr size_t kTextBytes = 3000000;  // more than the buffers of a Unix socket
    Streaming run;
    RawClient slow(run.connectUnix());
    ASSERT_TRUE(slow.send(getRequest("/text/" + std::to_string(kTextBytes))));
    ASSERT_TRUE(slow.receiveHead());
    RawClient client(run.server.port());
    DeferredStream stream = run.start(client);
    EXPECT_FALSE(isFree(stream, 1));
    EXPECT_EQ(slow.receiveExactly(kTextBytes).size(), kTextBytes);
    EXPECT_TRUE(waitUntil([&] { return isFree(stream, kBudgetBytes); }));
}

TEST(KitMemory, HoldsTheQueuesOfSessions)
{
    constexpr size_t kMessageBytes = 50000;
    Streaming run;
    RawClient slow(run.connectUnix());
    ASSERT_TRUE(slow.send(sessionHandshake("/session")));
    ASSERT_TRUE(slow.receiveHead());
    const std::shared_ptr<Session> session = run.sessions.pop().value_or(nullptr);
    ASSERT_TRUE(session);
    // Policy DropNewest: more than the socket takes.
    const std::string message(kMessageBytes, 'm');
    SendResult result = SendResult::Queued;
    ASSERT_TRUE(waitUntil([&] {
        result = session->sendText(message);
        return result != SendResult::Queued && session->bufferedBytes() > kMessageBytes;
    }));
    EXPECT_EQ(result, SendResult::Dropped);
    EXPECT_LE(session->bufferedBytes(), kBudgetBytes);
    RawClient client(run.server.port());
    DeferredStream stream = run.start(client);
    EXPECT_FALSE(isFree(stream, kBudgetBytes - kMessageBytes));
    slow.reset();
    EXPECT_TRUE(waitUntil([&] { return isFree(stream, kBudgetBytes); }));
}

// A whole message with a length of 8 bytes; the mask is 0.
std::string longMessage(size_t size)
{
    std::string frame = "\x81\xff";
    for (int shift = 56; shift >= 0; shift -= 8)
        frame += static_cast<char>(size >> shift);
    return frame + std::string(4, '\0') + std::string(size, 'm');
}

// A loop that kept its buffer would take the memory from all others.
TEST(KitMemory, IsFreeAgainAfterALargeMessage)
{
    Streaming run;
    RawClient sender(run.server.port());
    ASSERT_TRUE(isUpgraded(sender, "/session"));
    ASSERT_TRUE(sender.send(longMessage(kBudgetBytes * 3 / 4) + clientFrame(9, "p")));
    EXPECT_EQ(receiveFrame(sender), serverFrame(10, "p"));
    RawClient client(run.server.port());
    DeferredStream stream = run.start(client);
    EXPECT_TRUE(waitUntil([&] { return isFree(stream, kBudgetBytes); }));
}

}  // namespace
}  // namespace integration
