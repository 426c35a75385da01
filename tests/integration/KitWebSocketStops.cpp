// The hub of the kit leaves nothing behind: after failures, and after many stops in every state.

#include "support/HubRun.h"
#include "support/ProcessCounts.h"

#include <gmock/gmock.h>

#include <dirent.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <barrier>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>

namespace integration
{
namespace
{

TEST(WebSocketHub, NeedsNoConnectionToBeClosedOrDestroyed)
{
    const size_t threads = countThreads();
    WebSocketHub never;
    WebSocketHub closed;
    EXPECT_EQ(countThreads(), threads);
    EXPECT_TRUE(closed.close(kLimit));
    EXPECT_TRUE(closed.close(kLimit));
}

// Clients in every state at once when the server stops.
void openAndStop()
{
    constexpr size_t kClients = 20;
    HubRun run;
    std::vector<std::unique_ptr<WebSocketClient>> clients;
    for (size_t i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<WebSocketClient>(run.port()));
        WebSocketClient& client = *clients.back();
        switch (i % 7) {
        case 0:
            break;
        case 1:
            client.sendClose();
            break;
        case 2:
            client.raw().reset();
            break;
        case 3:
            client.raw().finishSending();
            break;
        case 4:
            client.sendText("echoed, and not received");
            break;
        case 5:
            client.sendText("abort");
            break;
        case 6:
            client.raw().send(maskedFrame(kLastText, "text").substr(0, 8));
            break;
        }
    }
    // Not before the last one is in the hub, or it would be refused.
    EXPECT_TRUE(waitUntil([&] {
        return run.hub().getCount() + static_cast<size_t>(run.record().closed) == kClients;
    }));
    run.stopAndExpectNothingIsLeft();
    EXPECT_EQ(run.record().made, static_cast<int>(kClients));
}

// While it lives, poll() refuses more than a few connections, and there are no new descriptors.
class FewDescriptors
{
public:
    explicit FewDescriptors(rlim_t limit)
    {
        ::getrlimit(RLIMIT_NOFILE, &mBefore);
        rlimit few = mBefore;
        few.rlim_cur = limit;
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    // Some sanitizers need two when they meet a type for the first time: let them meet all.
    static void prepare() { openAndStop(); }

    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &mBefore); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    rlimit mBefore;
};

constexpr const char* kRevived =
    "The poll thread of the WebSockets had ended and was started again";

TEST(WebSocketHub, GoesOnAfterAPollThatFailed)
{
    FewDescriptors::prepare();
    HubRun run;
    WebSocketClient handling(run.port());
    std::vector<std::unique_ptr<WebSocketClient>> polled;
    for (int i = 0; i < 3; ++i)
        polled.push_back(std::make_unique<WebSocketClient>(run.port()));
    ASSERT_TRUE(waitUntil([&] { return run.hub().getCount() == 4; }));
    ASSERT_TRUE(handling.sendText("wait"));
    ASSERT_EQ(run.record().messages.pop(), "wait");
    {
        const FewDescriptors few(2);
        for (size_t i = 0; i < polled.size(); ++i)
            EXPECT_TRUE(run.record().closings.pop(kPrompt));
    }
    EXPECT_EQ(run.hub().getCount(), 1u);
    for (auto& client : polled)
        EXPECT_TRUE(client->waitForEnd());
    EXPECT_TRUE(processLog->waitForLine("Got an error during call to poll Invalid argument"));
    EXPECT_TRUE(processLog->waitForLine(kRevived));

    run.record().latch.open();
    const auto message = handling.receive();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->bytes, "wait");
    expectEcho(handling, "again", false);
    WebSocketClient fresh(run.port());
    expectEcho(fresh, "fresh", true);
    EXPECT_EQ(run.record().closed, 3);
    EXPECT_TRUE(run.hub().close(milliseconds(0)));
    run.stopAndExpectNothingIsLeft();
}

TEST(WebSocketHub, ClosesAfterAPollThatFailedWithEveryConnection)
{
    FewDescriptors::prepare();
    HubRun run;
    std::vector<std::unique_ptr<WebSocketClient>> clients;
    for (int i = 0; i < 3; ++i)
        clients.push_back(std::make_unique<WebSocketClient>(run.port()));
    ASSERT_TRUE(waitUntil([&] { return run.hub().getCount() == 3; }));
    {
        const FewDescriptors few(2);
        for (size_t i = 0; i < clients.size(); ++i)
            EXPECT_TRUE(run.record().closings.pop(kPrompt));
    }
    const auto start = Clock::now();
    EXPECT_TRUE(run.hub().close(milliseconds(0)));
    EXPECT_LT(Clock::now() - start, kPrompt);
    run.stopAndExpectNothingIsLeft();
}

// The sockets that end the workers are polled, too: here more than poll() accepts.
TEST(WebSocketHub, ClosesThoughItsLastPollsFail)
{
    constexpr unsigned kWorkers = 64;
    constexpr size_t kUnusedDescriptors = 10;
    FewDescriptors::prepare();
    HubSetup setup;
    setup.options.workers = kWorkers;
    HubRun run(setup);
    WebSocketClient client(run.port());
    expectEcho(client, "text", false);
    const size_t threads = countThreads();
    {
        const FewDescriptors few(countDescriptors() + kUnusedDescriptors);
        EXPECT_TRUE(run.hub().close(milliseconds(0)));
    }
    EXPECT_TRUE(waitUntil([&] { return countThreads() < threads - kWorkers; }));
    EXPECT_TRUE(processLog->waitForLine("Got an error during call to poll Invalid argument"));
    run.stopAndExpectNothingIsLeft();
}

void signalEveryThread(int signal)
{
    DIR* opened = ::opendir("/proc/self/task");
    while (const dirent* entry = ::readdir(opened)) {
        if (const int thread = std::atoi(entry->d_name))
            ::tgkill(::getpid(), thread, signal);
    }
    ::closedir(opened);
}

// Every thread is interrupted by signals whose handlers interrupt system calls.
TEST(WebSocketHub, IsNotInterruptedBySignals)
{
    struct sigaction before
    {};
    struct sigaction counting
    {};
    static std::atomic<int> sHandled;
    sHandled = 0;
    counting.sa_handler = [](int) { ++sHandled; };
    ::sigaction(SIGUSR1, &counting, &before);
    {
        HubRun run;
        WebSocketClient client(run.port());
        expectEcho(client, "before", false);
        for (int round = 0; round < 3; ++round) {
            signalEveryThread(SIGUSR1);
            expectEcho(client, "after", false);
        }
        run.stopAndExpectNothingIsLeft();
    }
    ::sigaction(SIGUSR1, &before, nullptr);
    EXPECT_GT(sHandled, 0);
    EXPECT_THAT(processLog->lines(kRevived), ::testing::IsEmpty());
}

// 0 when all was as it should be.
int closeWithoutDescriptors()
{
    ::alarm(2 * kLimit.count());  // nobody else would end this process
    FewDescriptors::prepare();
    HubRun run;
    run.record().endLimit = milliseconds(300);
    WebSocketClient client(run.port());
    expectEcho(client, "end slowly", false);
    // This one stays with its worker, which would not end if it were stopped.
    WebSocketClient held(run.port());
    held.sendClose();
    run.record().closings.pop();
    client.raw().reset();
    run.record().closings.pop();
    bool ended = true;
    {
        const FewDescriptors few(3);
        ended = run.hub().close(milliseconds(0)) || run.hub().close(milliseconds(0));
    }
    const bool closed = run.record().toldEnds == 2;
    constexpr const char* kLine = "The WebSocket threads could not be ended and are left behind";
    const bool logged = processLog->lines(kLine).size() == 1;
    WebSocketClient late(run.port());
    const bool refused = late.waitForEnd();
    run.stop();
    return ended + 2 * !closed + 4 * !logged + 8 * !refused;
}

TEST(WebSocketHubDeathTest, LeavesItsThreadsBehindWhenItCannotEndThem)
{
    // In a process of its own, for the threads that are left.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::_Exit(closeWithoutDescriptors()), ::testing::ExitedWithCode(0), "");
}

TEST(WebSocketHub, TakesConnectionsWhileItIsClosed)
{
    constexpr int kRounds = 300;
    constexpr int kAdopters = 3;
    constexpr int kEach = 4;
    for (int round = 0; round < kRounds; ++round) {
        HubRecord record;
        std::vector<int> sockets;
        {
            WebSocketHub hub;
            std::barrier start(kAdopters + 1);
            std::mutex mutex;
            std::vector<std::thread> adopters;
            for (int i = 0; i < kAdopters; ++i) {
                adopters.emplace_back([&] {
                    start.arrive_and_wait();
                    for (int k = 0; k < kEach; ++k) {
                        const int socket =
                            ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
                        {
                            const std::lock_guard<std::mutex> locked(mutex);
                            sockets.push_back(socket);
                        }
                        hub.adopt<Echo>(new qv::http::WebSocket(socket, nullptr), record);
                    }
                });
            }
            start.arrive_and_wait();
            EXPECT_TRUE(hub.close(milliseconds(0)));
            EXPECT_EQ(hub.getCount(), 0u);
            for (std::thread& adopter : adopters)
                adopter.join();
        }
        EXPECT_EQ(record.made, kAdopters * kEach);
        EXPECT_EQ(record.destroyed, kAdopters * kEach);
        EXPECT_EQ(record.closed, kAdopters * kEach);
        EXPECT_EQ(record.closedAgain, 0);
        for (const int socket : sockets)
            ::close(socket);
    }
}

TEST(WebSocketHub, LeavesNothingBehindAfterManyStops)
{
    constexpr int kRounds = 100;
    openAndStop();  // objects that the process makes once are made here
    const size_t descriptors = countDescriptors();
    const size_t threads = countThreads();
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        openAndStop();
        ASSERT_TRUE(waitUntil(
            [&] { return countDescriptors() == descriptors && countThreads() == threads; }));
    }
}

// One client that connects, speaks and leaves as it likes, until it is told to stop.
void behaveAtRandom(uint16_t port, unsigned seed, const std::atomic<bool>& ended)
{
    std::mt19937 random(seed);
    while (!ended) {
        try {
            WebSocketClient client(port);
            for (unsigned i = random() % 8; i > 0; --i) {
                client.sendBinary(std::string(random() % 40000, 'r'));
                if (random() % 2 == 0)
                    client.raw().receiveSome(10000);
            }
            switch (random() % 6) {
            case 0:
                client.sendClose();
                break;
            case 1:
                client.raw().reset();
                break;
            case 2:
                client.raw().finishSending();
                break;
            case 3:
                client.sendText("abort");
                break;
            case 4:
                client.raw().send(maskedFrame(kLastText, "text").substr(0, 8));
                break;
            case 5:
                break;
            }
            if (random() % 4 == 0)
                client.raw().receiveSome(10000);
        } catch (const std::runtime_error&) {
            // The server had no place for it.
        }
    }
}

TEST(WebSocketHub, OutlivesAStormOfClients)
{
    constexpr unsigned kClients = 30;
    constexpr milliseconds kTime(3000);
    const size_t threads = countThreads();
    HubRun run;
    std::atomic<bool> ended{false};
    std::vector<std::thread> storm;
    for (unsigned i = 0; i < kClients; ++i)
        storm.emplace_back([&, i] { behaveAtRandom(run.port(), i, ended); });
    storm.emplace_back([&] {
        std::mt19937 random(kClients);
        while (!ended) {
            run.hub().forEach([&](HubConnection& each) {
                if (random() % 50 == 0)
                    each.abort();
                else
                    each.sendText("to everyone");
            });
            std::this_thread::yield();
        }
    });
    waitUntil([&] { return run.record().made > 2000; }, kTime);
    EXPECT_GT(run.record().made, 50);
    const auto start = Clock::now();
    EXPECT_TRUE(run.hub().close(milliseconds(50)));
    EXPECT_LT(Clock::now() - start, kPrompt);
    EXPECT_EQ(run.hub().getCount(), 0u);
    ended = true;
    for (std::thread& client : storm)
        client.join();
    run.stop();
    run.expectNothingIsLeft();
    EXPECT_TRUE(waitUntil([&] { return countThreads() <= threads + 1; }));
}

}  // namespace
}  // namespace integration
