// A hub of the kit and its clients, which end their connections in every way, as does its close.

#include "support/HubRun.h"

#include <gmock/gmock.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <thread>

namespace integration
{
namespace
{

TEST(WebSocketHub, EchoesTextAndBytes)
{
    HubRun run;
    std::vector<std::unique_ptr<WebSocketClient>> clients;
    for (int i = 0; i < 10; ++i)
        clients.push_back(std::make_unique<WebSocketClient>(run.port()));
    EXPECT_TRUE(waitUntil([&] { return run.hub().getCount() == 10; }));
    for (const size_t size : {0, 1, 125, 126, 65535, 65536, 131000, 131001, 1000000}) {
        SCOPED_TRACE(size);
        std::string bytes(size, 'x');
        for (size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<char>(i * 7 % 251);
        for (auto& client : clients) {
            for (const bool binary : {false, true})
                expectEcho(*client, bytes, binary);
        }
    }
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, HasAtLeastOneWorker)
{
    HubSetup setup;
    setup.options.workers = 0;
    HubRun run(setup);
    WebSocketClient client(run.port());
    expectEcho(client, "text", false);
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, HandlesMessagesThatArriveTogether)
{
    constexpr int kMessages = 500;
    HubRun run;
    WebSocketClient client(run.port());
    std::string together;
    for (int i = 0; i < kMessages; ++i)
        together += maskedFrame(kLastText, std::to_string(i));
    ASSERT_TRUE(client.raw().send(together));
    for (int i = 0; i < kMessages; ++i) {
        const auto message = client.receive();
        ASSERT_TRUE(message) << "after " << i;
        EXPECT_EQ(message->bytes, std::to_string(i));
    }
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, ReachesEveryConnectionFromAnyThread)
{
    constexpr int kClients = 8;
    constexpr int kThreads = 3;
    constexpr int kRounds = 50;
    HubRun run;
    std::vector<std::unique_ptr<WebSocketClient>> clients;
    for (int i = 0; i < kClients; ++i)
        clients.push_back(std::make_unique<WebSocketClient>(run.port()));
    ASSERT_TRUE(waitUntil([&] { return run.hub().getCount() == kClients; }));
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&run, thread] {
            for (int i = 0; i < kRounds; ++i) {
                const std::string text = std::to_string(thread) + ":" + std::to_string(i);
                run.hub().forEach([&](HubConnection& each) { each.sendText(text); });
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (auto& client : clients) {
        std::vector<int> next(kThreads, 0);
        for (int i = 0; i < kThreads * kRounds; ++i) {
            const auto message = client->receive();
            ASSERT_TRUE(message);
            EXPECT_FALSE(message->isBinary);
            const auto thread = static_cast<size_t>(message->bytes.at(0) - '0');
            EXPECT_EQ(message->bytes.substr(2), std::to_string(next.at(thread)++));
        }
    }
    run.stopAndExpectNothingIsLeft();
}

// With one worker: an end that occupied it would keep the other client from its echo.
TEST(WebSocketHub, NoticesEveryWayToEndAndFreesTheWorker)
{
    const struct
    {
        const char* name;
        void (*end)(HubRun&, WebSocketClient&);
        bool clientRemains;
    } rows[] = {
        {"close frame", [](HubRun&, WebSocketClient& client) { client.sendClose(); }, true},
        {"reserved opcode",
         [](HubRun&, WebSocketClient& client) { client.raw().send(maskedFrame(0x83, "")); }, true},
        {"reset", [](HubRun&, WebSocketClient& client) { client.raw().reset(); }, false},
        {"close of the socket", [](HubRun&, WebSocketClient& client) { client.raw().close(); },
         false},
        {"half-close", [](HubRun&, WebSocketClient& client) { client.raw().finishSending(); },
         true},
        {"half-close inside a frame",
         [](HubRun&, WebSocketClient& client) {
             client.raw().send(maskedFrame(kLastText, "text").substr(0, 8));
             client.raw().finishSending();
         },
         true},
        {"half-close, then a broadcast",
         [](HubRun& run, WebSocketClient& client) {
             client.raw().finishSending();
             run.hub().forEach([](HubConnection& each) { each.sendText("late"); });
         },
         true},
        {"close, then broadcasts",
         [](HubRun& run, WebSocketClient& client) {
             client.raw().close();
             waitUntil([&] {
                 run.hub().forEach([](HubConnection& each) { each.sendText("late"); });
                 return run.hub().getCount() == 1;
             });
         },
         false},
        {"abort from the handler",
         [](HubRun&, WebSocketClient& client) { client.sendText("abort"); }, true},
        {"abort from another thread",
         [](HubRun& run, WebSocketClient&) {
             bool first = true;  // the other client's connection, which is the older one
             run.hub().forEach([&](HubConnection& each) {
                 if (!first)
                     each.abort();
                 first = false;
             });
         },
         true},
    };
    HubSetup setup;
    setup.options.workers = 1;
    HubRun run(setup);
    WebSocketClient other(run.port());
    expectEcho(other, "here", false);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WebSocketClient client(run.port());
        expectEcho(client, "before", false);
        EXPECT_EQ(run.hub().getCount(), 2u);
        const auto start = Clock::now();
        row.end(run, client);
        EXPECT_TRUE(run.record().closings.pop(kPrompt));
        EXPECT_EQ(run.hub().getCount(), 1u);
        if (row.clientRemains) {
            EXPECT_TRUE(client.waitForEnd());
        }
        // Late broadcasts may come first.
        ASSERT_TRUE(other.sendText(row.name));
        for (auto message = other.receive();; message = other.receive()) {
            ASSERT_TRUE(message);
            if (message->bytes == row.name)
                break;
        }
        EXPECT_LT(Clock::now() - start, kPrompt);
    }
    run.stopAndExpectNothingIsLeft();
    EXPECT_EQ(run.record().made, static_cast<int>(std::size(rows)) + 1);
}

TEST(WebSocketHub, HandlesTheLastMessageOfAClientThatEndsItsSide)
{
    HubSetup setup;
    setup.options.workers = 1;
    HubRun run(setup);
    for (const char* last : {"first", "second", "third"}) {
        SCOPED_TRACE(last);
        WebSocketClient client(run.port());
        ASSERT_TRUE(client.sendText("early"));
        ASSERT_TRUE(client.sendText(last));
        client.raw().finishSending();
        EXPECT_EQ(run.record().messages.pop(), "early");
        EXPECT_EQ(run.record().messages.pop(), last);
        for (const char* expected : {"early", last}) {
            const auto message = client.receive();
            ASSERT_TRUE(message);
            EXPECT_EQ(message->bytes, expected);
        }
        EXPECT_TRUE(client.waitForEnd());
        EXPECT_TRUE(run.record().closings.pop(kPrompt));
    }
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, HandlesTheLastMessageThoughTheWorkerIsBusyForLong)
{
    HubSetup setup;
    setup.options.workers = 1;
    HubRun run(setup);
    WebSocketClient busy(run.port());
    ASSERT_TRUE(busy.sendText("wait"));
    ASSERT_EQ(run.record().messages.pop(), "wait");
    WebSocketClient client(run.port());
    ASSERT_TRUE(client.sendText("last"));
    client.raw().finishSending();
    // Longer than the half second that it has after its message has been received.
    EXPECT_FALSE(waitUntil([&] { return run.record().closed != 0; }, milliseconds(900)));
    run.record().latch.open();
    const auto message = client.receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->bytes, "last");
    EXPECT_TRUE(client.waitForEnd());
    run.stopAndExpectNothingIsLeft();
}

// The worker that holds the connection would destroy it for the sake of the next one.
TEST(WebSocketHub, KeepsAConnectionWhileItsEndIsTold)
{
    HubSetup setup;
    setup.options.workers = 1;
    HubRun run(setup);
    WebSocketClient other(run.port());
    WebSocketClient client(run.port());
    expectEcho(client, "end slowly", false);
    ASSERT_TRUE(client.sendClose());
    ASSERT_TRUE(run.record().closings.pop(kPrompt));
    ASSERT_TRUE(other.sendText("next"));
    EXPECT_FALSE(waitUntil([&] { return run.record().destroyed != 0; }, milliseconds(500)));
    EXPECT_EQ(run.record().closed, 1);
    run.record().endLatch.open();
    const auto message = other.receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->bytes, "next");
    EXPECT_TRUE(waitUntil([&] { return run.record().destroyed == 1; }));
    run.stopAndExpectNothingIsLeft();
}

// A reset is found by the poll thread, a close frame by a worker. Both destroy connections with
// the lock held by which new ones are added and others get a worker.
TEST(WebSocketHub, TellsAnEndWithNoLockOfTheLibraryHeld)
{
    const struct
    {
        const char* name;
        void (*end)(WebSocketClient&);
    } rows[] = {
        {"reset", [](WebSocketClient& client) { client.raw().reset(); }},
        {"close frame", [](WebSocketClient& client) { client.sendClose(); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        HubRun run;
        WebSocketClient other(run.port());
        WebSocketClient client(run.port());
        expectEcho(client, "end slowly", false);
        row.end(client);
        ASSERT_TRUE(run.record().closings.pop(kPrompt));
        EXPECT_EQ(run.hub().getCount(), 1u);
        expectEcho(other, "here", false);
        WebSocketClient fresh(run.port());
        expectEcho(fresh, "fresh", true);
        EXPECT_EQ(run.hub().getCount(), 2u);
        EXPECT_EQ(run.record().toldEnds, 0);
        run.record().endLatch.open();
        run.stopAndExpectNothingIsLeft();
    }
}

TEST(WebSocketHub, AbortsAClientThatTakesNothing)
{
    HubSetup setup;
    setup.options.unsentLimit = milliseconds(300);
    HubRun run(setup);
    WebSocketClient idle(run.port());
    WebSocketClient client(run.port());
    const auto start = Clock::now();
    ASSERT_TRUE(client.sendText("flood"));
    EXPECT_TRUE(run.record().closings.pop(kPrompt));
    EXPECT_GE(Clock::now() - start, setup.options.unsentLimit);
    EXPECT_TRUE(client.waitForEnd());
    // One that has nothing to take stays.
    EXPECT_EQ(run.hub().getCount(), 1u);
    expectEcho(idle, "here", false);
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, KeepsAClientThatIsSlowToTake)
{
    HubSetup setup;
    setup.options.unsentLimit = std::chrono::milliseconds::max();
    HubRun run(setup);
    WebSocketClient client(run.port());
    ASSERT_TRUE(client.sendText("flood"));
    ASSERT_EQ(run.record().messages.pop(), "flood");
    // The hub has looked at it many times by now.
    EXPECT_FALSE(run.record().closings.pop(milliseconds(1000)));
    const auto flood = client.receive();
    ASSERT_TRUE(flood);
    EXPECT_TRUE(flood->bytes == std::string(kFloodBytes, 'f'));
    run.stopAndExpectNothingIsLeft();
}

// Reads a part of a flood in pieces, for several times the limit of the hub. None when this thread
// itself paused for so long that the hub might have reset a client which does the same.
std::optional<std::string> readSteadily(WebSocketClient& client, milliseconds hubLimit)
{
    constexpr size_t kPieceBytes = 32768;
    constexpr milliseconds kPause(10);
    std::string read;
    const auto start = Clock::now();
    auto last = start;
    while (last - start < 3 * hubLimit) {
        std::this_thread::sleep_for(kPause);
        const std::string piece = client.raw().receiveSome(kPieceBytes);
        if (Clock::now() - last > hubLimit / 2)
            return std::nullopt;
        last = Clock::now();
        if (piece.empty())
            break;
        read += piece;
    }
    return read;
}

TEST(WebSocketHub, KeepsASteadyReaderWhoseQueueIsNeverEmpty)
{
    constexpr int kTries = 10;
    bool judged = false;
    for (int i = 0; i < kTries && !judged; ++i) {
        HubSetup setup;
        setup.options.unsentLimit = milliseconds(1000);
        HubRun run(setup);
        WebSocketClient client(run.port());
        ASSERT_TRUE(client.sendText("flood"));
        ASSERT_TRUE(waitUntilSomethingIsQueued(run));
        const auto part = readSteadily(client, setup.options.unsentLimit);
        if (part) {
            judged = true;
            EXPECT_EQ(run.record().closed, 0);
            EXPECT_TRUE(waitUntilSomethingIsQueued(run)) << "too few bytes for this test";
            const std::string rest = client.raw().receiveExactly(kFloodBytes - part->size());
            EXPECT_EQ(part->size() + rest.size(), kFloodBytes);
        }
        run.stopAndExpectNothingIsLeft();
    }
    EXPECT_TRUE(judged);
}

TEST(WebSocketHub, ItsCloseEndsWhateverIsGoingOn)
{
    HubRun run;
    WebSocketClient idle(run.port());
    WebSocketClient halfClosed(run.port());
    WebSocketClient notReading(run.port());
    WebSocketClient inAFrame(run.port());
    WebSocketClient talking(run.port());
    ASSERT_TRUE(waitUntil([&] { return run.hub().getCount() == 5; }));
    halfClosed.raw().finishSending();
    ASSERT_TRUE(notReading.sendText("flood"));
    ASSERT_TRUE(inAFrame.raw().send(maskedFrame(kLastText, "text").substr(0, 8)));
    ASSERT_TRUE(waitUntilSomethingIsQueued(run));
    // Faster than they are handled.
    std::string talk;
    for (int i = 0; i < 1000; ++i)
        talk += maskedFrame(kLastText, "quiet");
    std::thread talker([&] {
        while (talking.raw().send(talk)) {
        }
    });
    const auto start = Clock::now();
    EXPECT_TRUE(run.hub().close(milliseconds(0)));
    EXPECT_LT(Clock::now() - start, kPrompt);
    EXPECT_EQ(run.hub().getCount(), 0u);
    run.expectNothingIsLeft();
    talker.join();
    for (WebSocketClient* client : {&idle, &halfClosed, &notReading, &inAFrame})
        EXPECT_TRUE(client->waitForEnd());
    EXPECT_LT(Clock::now() - start, kPrompt);
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, ClosesWhatComesAfterItsClose)
{
    for (const bool used : {false, true}) {
        SCOPED_TRACE(used);
        HubRun run;
        if (used)
            expectEcho(*std::make_unique<WebSocketClient>(run.port()), "text", false);
        EXPECT_TRUE(run.hub().close(milliseconds(0)));
        while (run.record().closings.pop(milliseconds(0))) {
        }
        const int before = run.record().closed;
        WebSocketClient client(run.port());
        EXPECT_TRUE(client.waitForEnd());
        EXPECT_EQ(run.hub().getCount(), 0u);
        EXPECT_TRUE(run.record().closings.pop(kPrompt));
        EXPECT_EQ(run.record().closed, before + 1);
        EXPECT_TRUE(waitUntil([&] { return run.record().destroyed == run.record().made; }));
        run.stopAndExpectNothingIsLeft();
    }
}

TEST(WebSocketHub, ClosesWhatItCannotWatch)
{
    HubRecord record;
    WebSocketHub hub;
    hub.adopt<Echo>(new qv::http::WebSocket(-1, nullptr), record);
    EXPECT_EQ(hub.getCount(), 0u);
    EXPECT_EQ(record.destroyed, 1);
    EXPECT_EQ(record.closed, 1);
}

TEST(WebSocketHub, ItsCloseLetsAReadingClientTakeWhatIsQueued)
{
    HubSetup setup;
    setup.closeLimit = milliseconds::max();
    HubRun run(setup);
    WebSocketClient client(run.port());
    ASSERT_TRUE(client.sendText("flood"));
    ASSERT_TRUE(waitUntilSomethingIsQueued(run));
    std::thread stopper([&] { run.stop(); });
    const auto flood = client.receive();
    const auto echo = client.receive();
    EXPECT_TRUE(client.waitForEnd());
    stopper.join();
    ASSERT_TRUE(flood);
    EXPECT_TRUE(flood->bytes == std::string(kFloodBytes, 'f'));
    ASSERT_TRUE(echo);
    EXPECT_EQ(echo->bytes, "flood");
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, ItsCloseLetsASlowClientTakeWhatTheSystemHolds)
{
    HubRun run;
    WebSocketClient client(run.port());
    ASSERT_TRUE(client.sendText("fill"));
    ASSERT_TRUE(client.sendText("wait"));
    ASSERT_EQ(run.record().messages.pop(), "fill");
    ASSERT_EQ(run.record().messages.pop(), "wait");
    run.hub().forEach([](HubConnection& each) { ASSERT_FALSE(each.hasWritePending()); });
    std::atomic<bool> returned{false};
    std::thread closer([&] {
        run.hub().close(kLimit);
        returned = true;
    });
    // Long enough for a reset, were there one.
    EXPECT_FALSE(waitUntil([&] { return returned.load(); }, milliseconds(600)));
    const auto fill = client.receive();
    EXPECT_TRUE(client.receive());
    run.record().latch.open();
    closer.join();
    EXPECT_TRUE(client.waitForEnd());
    ASSERT_TRUE(fill);
    EXPECT_TRUE(fill->bytes == std::string(kFillBytes, 'f')) << fill->bytes.size();
    run.stopAndExpectNothingIsLeft();
}

// Not for sure: one that a worker has at this moment is reset half a second later.
TEST(WebSocketHub, ItsCloseLeavesToTheSystemWhatThatHasTaken)
{
    constexpr int kTries = 10;
    bool whole = false;
    for (int i = 0; i < kTries && !whole; ++i) {
        HubRun run;
        WebSocketClient client(run.port());
        ASSERT_TRUE(client.sendText("fill"));
        ASSERT_TRUE(client.sendText("mark"));
        ASSERT_EQ(run.record().messages.pop(), "fill");
        ASSERT_EQ(run.record().messages.pop(), "mark");
        bool busy = true;
        const auto isIdle = [&] {
            run.hub().forEach([&](HubConnection& each) {
                busy = each.hasReadPending() || each.hasWritePending();
            });
            return !busy;
        };
        ASSERT_TRUE(waitUntil(isIdle));
        EXPECT_TRUE(run.hub().close(milliseconds(0)));
        const auto fill = client.receive();
        whole = fill && fill->bytes == std::string(kFillBytes, 'f');
        run.stopAndExpectNothingIsLeft();
    }
    EXPECT_TRUE(whole);
}

TEST(WebSocketHub, ItsCloseWaitsForOneThatDoesNotReadNoLongerThanItIsTold)
{
    for (const milliseconds limit : {milliseconds(0), milliseconds(700)}) {
        SCOPED_TRACE(limit.count());
        HubRun run;
        WebSocketClient client(run.port());
        ASSERT_TRUE(client.sendText("flood"));
        ASSERT_TRUE(waitUntilSomethingIsQueued(run));
        const auto start = Clock::now();
        EXPECT_TRUE(run.hub().close(limit));
        EXPECT_GE(Clock::now() - start, limit);
        EXPECT_LT(Clock::now() - start, kPrompt);
        EXPECT_TRUE(client.waitForEnd());
        run.stopAndExpectNothingIsLeft();
    }
}

TEST(WebSocketHub, ItsCloseDoesNotWaitWhenNothingIsQueued)
{
    HubRun run;
    WebSocketClient client(run.port());
    expectEcho(client, "text", false);
    const auto start = Clock::now();
    EXPECT_TRUE(run.hub().close(milliseconds::max()));
    EXPECT_LT(Clock::now() - start, kPrompt);
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, IsClosedAsOftenAsOneLikes)
{
    HubRun run;
    WebSocketClient client(run.port());
    expectEcho(client, "text", false);
    EXPECT_TRUE(run.hub().close(milliseconds(0)));
    EXPECT_TRUE(run.hub().close(kLimit));
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, IsClosedByItsDestruction)
{
    HubRun run;
    WebSocketClient client(run.port());
    WebSocketClient halfClosed(run.port());
    expectEcho(client, "text", false);
    expectEcho(halfClosed, "text", false);
    halfClosed.raw().finishSending();
    run.destroyHub();
    run.expectNothingIsLeft();
    EXPECT_EQ(run.record().made, 2);
    EXPECT_TRUE(client.waitForEnd());
    EXPECT_TRUE(halfClosed.waitForEnd());
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, EveryCloseWaitsForRunningHandlers)
{
    HubSetup setup;
    setup.options.workers = 2;
    HubRun run(setup);
    std::vector<std::unique_ptr<WebSocketClient>> clients;
    // More than there are workers.
    for (int i = 0; i < 4; ++i) {
        clients.push_back(std::make_unique<WebSocketClient>(run.port()));
        ASSERT_TRUE(clients.back()->sendText("wait"));
    }
    ASSERT_EQ(run.record().messages.pop(), "wait");
    ASSERT_EQ(run.record().messages.pop(), "wait");
    ASSERT_TRUE(waitUntil([&] { return run.hub().getCount() == clients.size(); }));
    std::atomic<int> returned{0};
    std::vector<std::thread> closers;
    for (int i = 0; i < 2; ++i) {
        closers.emplace_back([&] {
            run.hub().close(milliseconds(0));
            ++returned;
        });
    }
    // Later than the half second after which a client that has closed is aborted.
    EXPECT_FALSE(waitUntil([&] { return returned != 0; }, milliseconds(1200)));
    EXPECT_EQ(run.record().closedWhileHandling, 0);
    run.record().latch.open();
    for (std::thread& closer : closers)
        closer.join();
    run.expectNothingIsLeft();
    for (auto& client : clients)
        EXPECT_TRUE(client->waitForEnd());
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, PreparesTheSocket)
{
    HubRecord record;
    // The options belong to the connection, whichever descriptor they are asked of.
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    {
        WebSocketHub hub;
        hub.adopt<Echo>(new qv::http::WebSocket(socket, nullptr), record);
    }
    const struct
    {
        int level;
        int option;
        int expected;
    } rows[] = {
        {SOL_SOCKET, SO_KEEPALIVE, 1},   {IPPROTO_TCP, TCP_NODELAY, 1},
        {IPPROTO_TCP, TCP_KEEPIDLE, 60}, {IPPROTO_TCP, TCP_KEEPINTVL, 15},
        {IPPROTO_TCP, TCP_KEEPCNT, 4},   {IPPROTO_TCP, TCP_USER_TIMEOUT, 120000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.option);
        int value = 0;
        socklen_t size = sizeof value;
        EXPECT_EQ(::getsockopt(socket, row.level, row.option, &value, &size), 0);
        EXPECT_EQ(value, row.expected);
    }
    ::close(socket);
}

}  // namespace
}  // namespace integration
