// Responses that come after their handler has returned, or before.

#include "support/KitTestServer.h"

#include <atomic>
#include <chrono>
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

using qv::kit::ContentType;
using qv::kit::DeferredResponse;
using qv::kit::DeferredStream;
using qv::kit::Request;
using qv::kit::Router;
using qv::kit::StreamWrite;
using std::chrono::milliseconds;

constexpr const char* kUnavailable = R"({"title":"Service Unavailable","status":503})";

// Gives each deferred response to the test.
class Deferring
{
public:
    void addTo(Router& router)
    {
        router.get("/wait", [this](Request& request) {
            request.setHeader("X-Set", "before");
            responses.push(std::make_shared<DeferredResponse>(request.defer()));
        });
        router.get("/ping", [](Request& request) { request.reply("pong"); });
    }

    std::shared_ptr<DeferredResponse> next() { return responses.pop().value_or(nullptr); }

    Channel<std::shared_ptr<DeferredResponse>> responses;
};

// A server, and a client whose requests wait for the test.
struct Waiting
{
    std::shared_ptr<DeferredResponse> request()
    {
        EXPECT_TRUE(client.send(getRequest("/wait")));
        return deferring.next();
    }

    Deferring deferring;
    KitTestServer server{[this](Router& router) { deferring.addTo(router); }};
    RawClient client{server.port()};
};

TEST(KitDeferred, ResponsesAreGivenByAnyThread)
{
    Deferring deferring;
    KitTestServer server([&](Router& router) { deferring.addTo(router); }, kitOptions(1));
    RawClient client(server.port());
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(client.send(getRequest("/wait")));
        auto later = deferring.next();
        ASSERT_TRUE(later);
        EXPECT_TRUE(later->isOpen());
        EXPECT_EQ(later->route(), "GET /wait");
        // The one worker is free.
        EXPECT_EQ(server.get("/ping").body, "pong");
        std::thread other([&] {
            DeferredResponse moved = std::move(*later);
            moved.setHeader("X-Later", "yes");
            EXPECT_TRUE(moved.reply(201, "later", ContentType::html()));
            EXPECT_FALSE(moved.isOpen());
        });
        other.join();
        EXPECT_FALSE(later->reply("moved"));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 201);
        EXPECT_EQ(response->value("X-Set"), "before");
        EXPECT_EQ(response->value("X-Later"), "yes");
        EXPECT_EQ(response->value("Content-Type"), "text/html; charset=utf-8");
        EXPECT_EQ(response->body, "later");
    }
}

TEST(KitDeferred, ResponsesMayPrecedeTheEndOfTheHandler)
{
    Latch latch;
    KitTestServer server([&](Router& router) {
        router.get("/", [&](Request& request) {
            std::thread([later = request.defer()]() mutable { later.reply("early"); }).join();
            latch.wait();
        });
        router.get("/inline", [](Request& request) { request.defer().reply("inline"); })
            .nonBlocking();
    });
    EXPECT_EQ(server.get("/").body, "early");
    EXPECT_EQ(server.get("/inline").body, "inline");
    latch.open();
}

TEST(KitDeferred, OneThatIsDestroyedRespondsWith500)
{
    Waiting waiting;
    waiting.request().reset();
    EXPECT_EQ(waiting.client.receive().value_or(RawResponse()).status, 500);
    EXPECT_TRUE(logged("GET /wait: the deferred response was destroyed without a response"));
    *waiting.request() = DeferredResponse();
    EXPECT_EQ(waiting.client.receive().value_or(RawResponse()).status, 500);
}

TEST(KitDeferred, OnesWithoutARequestDoNothing)
{
    DeferredResponse none;
    int calls = 0;
    none.onGone([&] { ++calls; });
    none.setDeadline(milliseconds(1));
    EXPECT_FALSE(none.isOpen());
    EXPECT_FALSE(none.reply("x"));
    EXPECT_FALSE(none.replyError(500));
    DeferredStream stream = none.startStream(ContentType::text());
    EXPECT_EQ(stream.write("x"), StreamWrite::Gone);
    EXPECT_TRUE(stream.isGone());
    stream.finish();
    EXPECT_EQ(calls, 0);
}

TEST(KitDeferred, OnGoneIsCalledOnceBeforeAndAfter)
{
    Deferring deferring;
    KitTestServer server([&](Router& router) { deferring.addTo(router); });
    for (const bool resets : {true, false}) {
        SCOPED_TRACE(resets);
        RawClient client(server.port());
        ASSERT_TRUE(client.send(getRequest("/wait")));
        auto later = deferring.next();
        ASSERT_TRUE(later);
        std::atomic<int> replaced{0};
        std::atomic<int> calls{0};
        later->onGone([&] { ++replaced; });
        later->onGone([&] {
            ++calls;
            throw std::runtime_error("on purpose");
        });
        if (resets)
            client.reset();
        else
            client.close();
        ASSERT_TRUE(waitUntil([&] { return calls == 1; }));
        EXPECT_TRUE(logged("GET /wait: the callback onGone failed: on purpose"));
        EXPECT_FALSE(later->isOpen());
        EXPECT_FALSE(later->reply("too late"));
        int callsAfter = 0;
        later->onGone([&] { ++callsAfter; });
        EXPECT_EQ(callsAfter, 1);
        later.reset();
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(replaced, 0);
        processLog->clear();
    }
    EXPECT_TRUE(server.stop());
    EXPECT_EQ(processLog->lines("GET /wait: the deferred response was destroyed without a response")
                  .size(),
              0u);
}

TEST(KitDeferred, OnGoneIsNotCalledAfterAWholeResponse)
{
    Waiting waiting;
    auto later = waiting.request();
    auto token = std::make_shared<int>(0);
    const std::weak_ptr<int> held = token;
    later->onGone([token] { ++*token; });
    token.reset();
    EXPECT_TRUE(later->reply("whole"));
    EXPECT_TRUE(held.expired());
    // It would be kept as long as the response that it may hold.
    token = std::make_shared<int>(0);
    later->onGone([token] { ++*token; });
    EXPECT_EQ(token.use_count(), 1);
    EXPECT_EQ(waiting.client.receive().value_or(RawResponse()).body, "whole");
}

TEST(KitDeferred, ADeadlineRespondsAndTellsTheApplication)
{
    Waiting waiting;
    auto later = waiting.request();
    std::atomic<int> calls{0};
    later->onGone([&] { ++calls; });
    later->setDeadline(std::chrono::minutes(10));
    later->setDeadline(milliseconds(20), 504);
    const auto response = waiting.client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 504);
    EXPECT_EQ(response->body, R"({"title":"Gateway Timeout","status":504})");
    EXPECT_EQ(response->value("X-Set"), "");
    EXPECT_TRUE(waitUntil([&] { return calls == 1; }));
    EXPECT_FALSE(later->reply("too late"));
    // Removed, and in time.
    for (const bool isRemoved : {true, false}) {
        later = waiting.request();
        later->setDeadline(isRemoved ? milliseconds(50) : std::chrono::minutes(10));
        if (isRemoved) {
            later->setDeadline(milliseconds(0));
            std::this_thread::sleep_for(milliseconds(100));
        }
        EXPECT_TRUE(later->reply("in time"));
        EXPECT_EQ(waiting.client.receive().value_or(RawResponse()).body, "in time");
    }
    EXPECT_EQ(calls, 1);
}

TEST(KitDeferred, ADeadlineMayRespondWithoutABody)
{
    Waiting waiting;
    const struct
    {
        int given;
        int sent;
    } rows[] = {{204, 204}, {304, 304}, {404, 404}, {200, 500}, {101, 500}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.given);
        auto later = waiting.request();
        later->setDeadline(milliseconds(1), row.given);
        const auto response = waiting.client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, row.sent);
        EXPECT_EQ(response->body.empty(), row.sent < 400);
    }
}

TEST(KitDeferred, OneMayBeDestroyedByItsOwnCallback)
{
    Deferring deferring;
    KitTestServer server([&](Router& router) { deferring.addTo(router); });
    for (const bool expires : {true, false}) {
        SCOPED_TRACE(expires);
        RawClient client(server.port());
        ASSERT_TRUE(client.send(getRequest("/wait")));
        std::mutex mutex;
        auto later = deferring.next();
        std::atomic<int> open{-1};
        {
            const std::lock_guard locker(mutex);
            later->onGone([&] {
                const std::lock_guard callbackLocker(mutex);
                const bool isOpen = later->isOpen();
                std::atomic<int>& result = open;
                later.reset();
                result = isOpen;
            });
            if (expires)
                later->setDeadline(milliseconds(1));
            else
                client.reset();
        }
        EXPECT_TRUE(waitUntil([&] { return open != -1; }));
        EXPECT_EQ(open, 0);
        const std::lock_guard locker(mutex);
    }
}

TEST(KitDeferred, AStopMayEndThoseThatWait)
{
    std::mutex mutex;
    std::vector<DeferredResponse> waiting;
    std::atomic<int> calls{0};
    qv::kit::Server server(kitOptions(1));
    server.router().get("/wait", [&](Request& request) {
        const std::lock_guard locker(mutex);
        waiting.push_back(request.defer());
    });
    server.onStopping([&] {
        ++calls;
        const std::lock_guard locker(mutex);
        for (DeferredResponse& later : waiting)
            later.reply("stopping");
        waiting.clear();
        throw std::runtime_error("on purpose");
    });
    for (int round = 1; round <= 2; ++round) {
        ASSERT_TRUE(server.start());
        const std::string endpoint = server.endpoints().front();
        RawClient client(
            static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1))));
        ASSERT_TRUE(client.send(getRequest("/wait")));
        ASSERT_TRUE(waitUntil([&] {
            const std::lock_guard locker(mutex);
            return waiting.size() == 1;
        }));
        EXPECT_TRUE(server.stop(kLimit));
        EXPECT_EQ(calls, round);
        EXPECT_EQ(client.receive().value_or(RawResponse()).body, "stopping");
    }
    EXPECT_TRUE(logged("server: the callback onStopping failed: on purpose"));
}

TEST(KitDeferred, DeadlinesExpireInTheirOrder)
{
    Deferring deferring;
    KitTestServer server([&](Router& router) { deferring.addTo(router); });
    Channel<int> expired;
    std::vector<std::unique_ptr<RawClient>> clients;
    std::vector<std::shared_ptr<DeferredResponse>> waiting;
    for (const int number : {3, 1, 2}) {
        clients.push_back(std::make_unique<RawClient>(server.port()));
        ASSERT_TRUE(clients.back()->send(getRequest("/wait")));
        waiting.push_back(deferring.next());
        waiting.back()->onGone([&expired, number] { expired.push(number); });
    }
    waiting[0]->setDeadline(milliseconds(900));
    waiting[1]->setDeadline(milliseconds(300));
    waiting[2]->setDeadline(milliseconds(600));
    for (const int number : {1, 2, 3})
        EXPECT_EQ(expired.pop(), number);
    for (auto& client : clients)
        EXPECT_EQ(client->receive().value_or(RawResponse()).body, kUnavailable);
}

TEST(KitDeferred, StreamsAreWrittenWithoutWaiting)
{
    Waiting waiting;
    for (int round = 0; round < 2; ++round) {
        auto later = waiting.request();
        DeferredStream stream = later->startStream(ContentType("text/event-stream"));
        later.reset();
        const auto head = waiting.client.receiveHead();
        ASSERT_TRUE(head);
        EXPECT_EQ(head->value("Content-Type"), "text/event-stream");
        EXPECT_EQ(head->value("Transfer-Encoding"), "chunked");
        EXPECT_EQ(stream.write("one"), StreamWrite::Taken);
        EXPECT_EQ(waiting.client.receiveExactly(8), "3\r\none\r\n");
        EXPECT_EQ(stream.queuedBytes(), 0u);
        EXPECT_EQ(stream.write("two"), StreamWrite::Taken);
        EXPECT_EQ(waiting.client.receiveExactly(8), "3\r\ntwo\r\n");
        EXPECT_EQ(stream.write("three"), StreamWrite::Taken);
        stream.finish();
        EXPECT_EQ(stream.write("four"), StreamWrite::Gone);
        stream.finish();
        EXPECT_EQ(waiting.client.receiveExactly(15), "5\r\nthree\r\n0\r\n\r\n");
    }
    EXPECT_TRUE(waiting.server.stop());
    EXPECT_TRUE(processLog->lines("GET /wait: the stream was destroyed before finish").empty());
}

TEST(KitDeferred, AStreamTellsWhenItsQueueIsFullAndWhenItHasSpace)
{
    constexpr size_t kQueueBytes = 100000;
    constexpr size_t kTotal = 30000000;  // more than the sockets take
    Waiting waiting;
    auto later = waiting.request();
    DeferredStream stream = later->startStream(ContentType::bytes(), 200, kQueueBytes);
    const std::string block(10000, 's');
    size_t written = 0;
    ASSERT_TRUE(waitUntil([&] {
        while (stream.write(block) == StreamWrite::Taken)
            written += block.size();
        // The daemon thread does not empty the queue any more.
        return stream.queuedBytes() > kQueueBytes - block.size();
    }));
    EXPECT_LE(stream.queuedBytes(), kQueueBytes);
    EXPECT_LT(written, kTotal);
    Channel<int> writable;
    stream.onWritable([&] { writable.push(1); });
    std::thread reader([&] {
        const auto head = waiting.client.receiveHead();
        EXPECT_TRUE(head);
        while (!waiting.client.receiveSome(1000000).empty()) {
        }
    });
    while (written < kTotal) {
        if (stream.write(block) == StreamWrite::Taken) {
            written += block.size();
            continue;
        }
        ASSERT_TRUE(writable.pop());
    }
    stream.finish();
    waiting.client.finishSending();
    EXPECT_TRUE(waitUntil([&] { return waiting.server.server().openRequests() == 0; }));
    waiting.server.stop();
    reader.join();
}

TEST(KitDeferred, AnEmptyQueueTakesDataOfAnySize)
{
    constexpr size_t kBytes = 200000;
    Waiting waiting;
    auto later = waiting.request();
    later->setContentLength(kBytes);
    DeferredStream stream = later->startStream(ContentType::bytes(), 200, 10);
    EXPECT_EQ(stream.write(std::string(kBytes, 'b')), StreamWrite::Taken);
    stream.finish();
    const auto response = waiting.client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->value("Content-Length"), std::to_string(kBytes));
    EXPECT_EQ(response->body, std::string(kBytes, 'b'));
}

TEST(KitDeferred, AStreamIsCutOffWhenItIsDestroyed)
{
    Waiting waiting;
    {
        auto later = waiting.request();
        DeferredStream stream = later->startStream(ContentType::text());
        EXPECT_EQ(stream.write("begun"), StreamWrite::Taken);
        ASSERT_TRUE(waiting.client.receiveHead());
        EXPECT_EQ(waiting.client.receiveExactly(10), "5\r\nbegun\r\n");
    }
    EXPECT_EQ(waiting.client.receiveToEnd(), "");
    EXPECT_TRUE(logged("GET /wait: the stream was destroyed before finish"));
}

TEST(KitDeferred, AStreamKeepsItsCallbackWhenAnotherOneIsRefused)
{
    Waiting waiting;
    auto later = waiting.request();
    std::atomic<int> calls{0};
    later->onGone([&] { ++calls; });
    DeferredStream stream = later->startStream(ContentType::text());
    EXPECT_EQ(stream.write("begun"), StreamWrite::Taken);
    ASSERT_TRUE(waiting.client.receiveHead());
    EXPECT_EQ(later->startStream(ContentType::text()).write("more"), StreamWrite::Gone);
    waiting.client.reset();
    ASSERT_TRUE(waitUntil([&] { return stream.write("more") == StreamWrite::Gone; }));
    EXPECT_TRUE(waitUntil([&] { return calls == 1; }));
}

TEST(KitDeferred, AStreamLearnsThatItsClientHasLeft)
{
    Waiting waiting;
    auto later = waiting.request();
    std::atomic<int> calls{0};
    later->onGone([&] { ++calls; });
    DeferredStream stream = later->startStream(ContentType::text());
    later.reset();
    EXPECT_EQ(stream.write("begun"), StreamWrite::Taken);
    ASSERT_TRUE(waiting.client.receiveHead());
    waiting.client.reset();
    // The sends decide.
    ASSERT_TRUE(waitUntil([&] { return stream.write("more") == StreamWrite::Gone; }));
    EXPECT_TRUE(waitUntil([&] { return calls == 1; }));
    EXPECT_TRUE(stream.isGone());
    int callsAfter = 0;
    stream.onGone([&] { ++callsAfter; });
    EXPECT_EQ(callsAfter, 1);
    stream = DeferredStream();
    waiting.server.stop();
    EXPECT_TRUE(processLog->lines("GET /wait: the stream was destroyed before finish").empty());
}

TEST(KitDeferred, AStreamOfHeadDiscardsItsData)
{
    KitTestServer server([](Router& router) {
        router.get("/", [](Request& request) {
            auto later = request.defer();
            later.setContentLength(7);
            DeferredStream stream = later.startStream(ContentType::text());
            EXPECT_EQ(stream.write("content"), request.method() == qv::kit::Method::Head
                                                   ? StreamWrite::Taken
                                                   : StreamWrite::Taken);
            stream.finish();
        });
    });
    RawClient client(server.port());
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(client.send("HEAD / HTTP/1.1\r\nHost: x\r\n\r\n"));
        EXPECT_EQ(client.receive(true).value_or(RawResponse()).value("Content-Length"), "7");
    }
    EXPECT_EQ(server.get("/").body, "content");
}

TEST(KitDeferred, AStopWaitsForResponses)
{
    Waiting waiting;
    auto later = waiting.request();
    bool drained = false;
    std::thread stopper([&] { drained = waiting.server.stop(); });
    ASSERT_TRUE(waitUntil([&] { return !RawClient::accepts("127.0.0.1", waiting.server.port()); }));
    EXPECT_TRUE(later->reply("in time"));
    stopper.join();
    EXPECT_TRUE(drained);
    EXPECT_EQ(waiting.client.receive().value_or(RawResponse()).body, "in time");
}

TEST(KitDeferred, AStopTellsThoseThatAreLeft)
{
    Deferring deferring;
    std::shared_ptr<DeferredResponse> later;
    std::atomic<int> calls{0};
    DeferredStream stream;
    {
        KitTestServer server([&](Router& router) { deferring.addTo(router); });
        RawClient client(server.port());
        RawClient streaming(server.port());
        ASSERT_TRUE(client.send(getRequest("/wait")));
        later = deferring.next();
        later->onGone([&] { ++calls; });
        later->setDeadline(std::chrono::minutes(10));
        ASSERT_TRUE(streaming.send(getRequest("/wait")));
        auto second = deferring.next();
        second->onGone([&] { ++calls; });
        stream = second->startStream(ContentType::text());
        ASSERT_TRUE(streaming.receiveHead());
        EXPECT_FALSE(server.stop(milliseconds(10)));
        EXPECT_EQ(calls, 2);
        EXPECT_EQ(server.server().openRequests(), 0u);
        EXPECT_FALSE(later->reply("too late"));
    }
    // They outlive their server.
    EXPECT_FALSE(later->reply("too late"));
    later->setDeadline(milliseconds(1));
    EXPECT_EQ(later->route(), "GET /wait");
    EXPECT_EQ(stream.write("x"), StreamWrite::Gone);
    later.reset();
    stream = DeferredStream();
    EXPECT_EQ(calls, 2);
}

}  // namespace
}  // namespace integration
