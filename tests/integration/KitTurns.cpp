// The turns of a server's threads, which a watchdog counts.

#include "support/KitTestServer.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace integration
{
namespace
{

using qv::kit::Request;

class KitTurns : public ::testing::Test
{
protected:
    ~KitTurns() override { mLatch.open(); }

    uint64_t turns() { return mServer.server().countTurns(); }

    bool passes(uint64_t count)
    {
        return waitUntil([&] { return turns() >= count; });
    }

    // A handler keeps its thread until the latch is open: no round is complete meanwhile, but one
    // that was nearly so.
    void expectNoTurnsWhileHandling(const char* target)
    {
        RawClient client(mServer.port());
        client.send(getRequest(target));
        ASSERT_TRUE(mLatch.waitForArrivals(1));
        const uint64_t before = turns();
        EXPECT_FALSE(waitUntil([&] { return turns() > before + 1; }, kWatched));
        mLatch.open();
        EXPECT_TRUE(passes(before + 3));
        EXPECT_EQ(client.receive().value_or(RawResponse()).status, 200);
    }

    static constexpr std::chrono::milliseconds kWatched{300};
    Latch mLatch;
    KitTestServer mServer{[this](qv::kit::Router& router) {
                              const auto wait = [this](Request& request) {
                                  EXPECT_TRUE(mLatch.wait());
                                  request.reply("done");
                              };
                              router.get("/daemon", wait).nonBlocking();
                              router.get("/worker", wait);
                          },
                          kitOptions(1)};
};

TEST_F(KitTurns, GrowWithEachCallOfAnIdleServer)
{
    EXPECT_TRUE(passes(5));
    EXPECT_EQ(mServer.get("/nowhere").status, 404);
}

TEST_F(KitTurns, StandStillWhileADaemonThreadHangs)
{
    expectNoTurnsWhileHandling("/daemon");
}

TEST_F(KitTurns, StandStillWhileEachWorkerIsOccupied)
{
    expectNoTurnsWhileHandling("/worker");
}

TEST_F(KitTurns, GoOnAfterAnotherStart)
{
    EXPECT_TRUE(passes(2));
    EXPECT_TRUE(mServer.stop());
    const uint64_t before = turns();
    EXPECT_FALSE(waitUntil([&] { return turns() > before + 1; }, kWatched));
    ASSERT_TRUE(mServer.server().start());
    EXPECT_TRUE(passes(before + 3));
}

}  // namespace
}  // namespace integration
