// The stop of a server of the kit, asked for more than once.

#include "support/KitTestServer.h"

#include <Wendrel/kit/DeferredResponse.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
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
