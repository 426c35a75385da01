// The stop of a server of the kit, asked for more than once.

#include "support/KitTestServer.h"

#include <Wendrel/kit/DeferredResponse.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace integration
{
namespace
{

using qv::kit::DeferredResponse;
using qv::kit::Request;
using std::chrono::milliseconds;

// Longer than the test may take.
constexpr milliseconds kFarDeadline = std::chrono::hours(1);

class KitStops : public ::testing::Test
{
protected:
    // Keeps a request waiting for a response.
    void ask()
    {
        mClient = std::make_unique<RawClient>(mServer.port());
        mClient->send(getRequest("/later"));
        ASSERT_TRUE(waitUntil([this] { return mIsWaiting.load(); }));
    }

    // Returns when the stop has begun.
    std::future<bool> beginStop(milliseconds limit)
    {
        auto stop = std::async(std::launch::async, [this, limit] { return mServer.stop(limit); });
        EXPECT_TRUE(waitUntil([this] { return !RawClient::accepts("127.0.0.1", mServer.port()); }));
        return stop;
    }

    std::atomic<bool> mIsWaiting{false};
    DeferredResponse mLater;
    KitTestServer mServer{[this](qv::kit::Router& router) {
        router.get("/later", [this](Request& request) {
            mLater = request.defer();
            mIsWaiting = true;
        });
    }};
    std::unique_ptr<RawClient> mClient;
};

TEST_F(KitStops, ASecondCallShortensTheFirst)
{
    ask();
    std::future<bool> first = beginStop(kFarDeadline);
    EXPECT_EQ(first.wait_for(milliseconds(0)), std::future_status::timeout);
    EXPECT_FALSE(mServer.stop(milliseconds(0)));
    ASSERT_EQ(first.wait_for(kLimit), std::future_status::ready);
    EXPECT_FALSE(first.get());
    EXPECT_EQ(mClient->receiveToEnd(), "");
    EXPECT_FALSE(mLater.reply("too late"));
}

TEST_F(KitStops, ASecondCallWithALaterDeadlineWaitsForTheFirst)
{
    ask();
    std::future<bool> first = beginStop(kFarDeadline);
    std::future<bool> second = beginStop(2 * kFarDeadline);
    EXPECT_EQ(second.wait_for(milliseconds(100)), std::future_status::timeout);
    EXPECT_TRUE(mLater.reply("in time"));
    for (std::future<bool>* stop : {&first, &second}) {
        ASSERT_EQ(stop->wait_for(kLimit), std::future_status::ready);
        EXPECT_TRUE(stop->get());
    }
    EXPECT_NE(mClient->receiveToEnd().find("in time"), std::string::npos);
    // Nothing is left to stop.
    EXPECT_TRUE(mServer.stop(milliseconds(0)));
}

TEST_F(KitStops, AServerThatWasShortenedStartsAgain)
{
    ask();
    std::future<bool> first = beginStop(kFarDeadline);
    mServer.stop(milliseconds(0));
    first.get();
    ASSERT_TRUE(mServer.server().start()) << mServer.server().failureReason();
    EXPECT_TRUE(mServer.stop());
}

// `Server::run` on a thread of its own; ended by SIGTERM.
class KitRun : public ::testing::Test
{
protected:
    void start(milliseconds stopTimeout = kLimit)
    {
        mServer.options().stopTimeout = stopTimeout;
        mServer.router().get("/", [](Request& request) { request.reply("served"); });
        mServer.router().get("/later",
                             [this](Request& request) { mLater.push_back(request.defer()); });
        mEnd = std::async(std::launch::async, [this] { return mServer.run(); });
        ASSERT_TRUE(waitUntil([this] { return mServer.isRunning(); }));
        const std::string endpoint = mServer.endpoints().front();
        mPort = static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
    }

    // What `run` has returned; -1 after the limit.
    int end()
    {
        ::kill(::getpid(), SIGTERM);
        return mEnd.wait_for(kLimit) == std::future_status::ready ? mEnd.get() : -1;
    }

    bool isServing() const
    {
        RawClient client(mPort);
        client.send(getRequest("/"));
        const auto response = client.receive();
        return response && response->body == "served";
    }

    std::vector<DeferredResponse> mLater;
    qv::kit::Server mServer{kitOptions(1)};
    uint16_t mPort = 0;
    std::future<int> mEnd;
};

TEST_F(KitRun, IsNotEndedByASignalToAChild)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer delays the signal of the child";
#endif
    start();
    for (const int number : {SIGTERM, SIGINT}) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(60);
            ::raise(number);
            ::_exit(1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(WTERMSIG(status), number);
    }
    EXPECT_EQ(mEnd.wait_for(milliseconds(100)), std::future_status::timeout);
    EXPECT_TRUE(isServing());
    EXPECT_EQ(end(), 0);
}

TEST_F(KitRun, OfAChildIsEndedByItsOwnSignal)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "a child of several threads neither starts threads nor allocates under it";
#endif
    start();
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(60);
        qv::kit::Server server(kitOptions(1));
        std::thread stopper([&] {
            if (waitUntil([&] { return server.isRunning(); }))
                ::kill(::getpid(), SIGTERM);
        });
        const int code = server.run();
        stopper.join();
        ::_exit(code);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(mEnd.wait_for(milliseconds(100)), std::future_status::timeout);
    EXPECT_TRUE(isServing());
    EXPECT_EQ(end(), 0);
}

TEST_F(KitRun, LogsHowManyRequestsItsStopHasAborted)
{
    start(milliseconds(50));
    RawClient first(mPort);
    RawClient second(mPort);
    for (RawClient* const client : {&first, &second})
        ASSERT_TRUE(client->send(getRequest("/later")));
    ASSERT_TRUE(waitUntil([this] { return mServer.openRequests() == 2; }));
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(processLog->lines("server: requests aborted by the stop: 2").size(), 1u);
}

TEST_F(KitRun, LogsNothingWhenItsStopHasAbortedNothing)
{
    start();
    EXPECT_TRUE(isServing());
    EXPECT_EQ(end(), 0);
    for (const auto& line : processLog->lines())
        EXPECT_EQ(line.message.find("aborted by the stop"), std::string::npos) << line.message;
}

// A late call belongs to the stop before, or stops the server as any call does.
TEST(KitStopsAndStarts, LeaveAServerThatRunsOrCanBeStarted)
{
    constexpr int kRounds = 100;
    qv::kit::Server server(kitOptions(1));
    server.router().get("/", [](Request& request) { request.reply("served"); });
    ASSERT_TRUE(server.start()) << server.failureReason();
    for (int round = 0; round < kRounds; ++round) {
        std::vector<std::thread> others;
        for (int i = 0; i < 3; ++i)
            others.emplace_back([&] { server.stop(milliseconds(0)); });
        server.stop(milliseconds(0));
        server.start();
        for (std::thread& other : others)
            other.join();
        if (!server.isRunning()) {
            ASSERT_TRUE(server.start()) << server.failureReason() << ", round " << round;
        }
    }
    EXPECT_TRUE(server.stop(kLimit));
}

}  // namespace
}  // namespace integration
