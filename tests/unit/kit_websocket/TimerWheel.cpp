// Deadlines of connections.

#include "websocket/TimerWheel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

namespace
{

using qv::kit::websocket::TimerNode;
using qv::kit::websocket::TimerWheel;

std::vector<TimerNode*> expired(TimerWheel& wheel, int64_t nowMs)
{
    std::vector<TimerNode*> nodes;
    wheel.expire(nowMs, [&](TimerNode& node) { nodes.push_back(&node); });
    return nodes;
}

TEST(TimerWheel, ExpiresAnElementAtItsDeadlineAndAtMost64MsLater)
{
    for (const int64_t start : {int64_t{0}, int64_t{1000}, int64_t{123456789}}) {
        for (const int64_t after : {1, 63, 64, 65, 5000, 30000, 60000}) {
            SCOPED_TRACE(after);
            TimerWheel wheel(start);
            TimerNode node;
            wheel.set(node, start + after);
            const int64_t timeout = wheel.timeoutMs(start);
            EXPECT_GE(timeout, after);
            EXPECT_LE(timeout, after + 64);
            EXPECT_TRUE(expired(wheel, start + timeout - 1).empty());
            EXPECT_EQ(expired(wheel, start + timeout).size(), 1u);
            EXPECT_EQ(wheel.timeoutMs(start + timeout), -1);
        }
    }
}

TEST(TimerWheel, ExpiresADeadlineBeyondItsReachEarly)
{
    TimerWheel wheel(0);
    TimerNode node;
    wheel.set(node, 1000000);
    EXPECT_LT(wheel.timeoutMs(0), 66000);
    EXPECT_EQ(expired(wheel, 66000).size(), 1u);
}

TEST(TimerWheel, KeepsTheEarlierDeadline)
{
    TimerWheel wheel(0);
    TimerNode node;
    wheel.set(node, 1000);
    wheel.set(node, 5000);
    EXPECT_LE(wheel.timeoutMs(0), 1064);
    wheel.set(node, 100);
    EXPECT_LE(wheel.timeoutMs(0), 164);
    EXPECT_EQ(expired(wheel, 200).size(), 1u);
    EXPECT_TRUE(expired(wheel, 60000).empty());
}

TEST(TimerWheel, ForgetsARemovedElement)
{
    TimerWheel wheel(0);
    TimerNode first;
    TimerNode second;
    wheel.set(first, 1000);
    wheel.set(second, 1000);
    wheel.remove(first);
    wheel.remove(first);
    EXPECT_EQ(expired(wheel, 2000), std::vector<TimerNode*>{&second});
    wheel.set(first, 3000);
    wheel.remove(first);
    EXPECT_EQ(wheel.timeoutMs(2000), -1);
}

TEST(TimerWheel, ExpiresEverythingAfterALongPause)
{
    TimerWheel wheel(0);
    std::vector<TimerNode> nodes(100);
    for (size_t i = 0; i < nodes.size(); ++i)
        wheel.set(nodes[i], static_cast<int64_t>(i * 600));
    EXPECT_EQ(expired(wheel, 100000000).size(), nodes.size());
    wheel.set(nodes[0], 100000500);
    EXPECT_EQ(expired(wheel, 100000600).size(), 1u);
}

TEST(TimerWheel, LetsTheCallbackSetAndRemoveElements)
{
    TimerWheel wheel(0);
    TimerNode first;
    TimerNode second;
    TimerNode third;
    wheel.set(first, 100);
    wheel.set(second, 100);
    int calls = 0;
    wheel.expire(1000, [&](TimerNode& node) {
        ++calls;
        wheel.remove(&node == &first ? second : first);
        wheel.set(third, 1100);
    });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(expired(wheel, 1200), std::vector<TimerNode*>{&third});
}

TEST(TimerWheel, AgreesWithASortedListAtRandom)
{
    std::mt19937 dice(42);
    TimerWheel wheel(0);
    std::vector<TimerNode> nodes(50);
    std::map<TimerNode*, int64_t> deadlines;
    int64_t now = 0;
    for (int step = 0; step < 20000; ++step) {
        TimerNode& node = nodes[dice() % nodes.size()];
        const int64_t deadline = now + dice() % 60000;
        if (dice() % 3 == 0) {
            wheel.remove(node);
            deadlines.erase(&node);
        } else {
            wheel.set(node, deadline);
            const auto [at, isNew] = deadlines.emplace(&node, deadline);
            at->second = std::min(at->second, deadline);
        }
        now += dice() % 500;
        for (TimerNode* const each : expired(wheel, now)) {
            ASSERT_TRUE(deadlines.count(each));
            ASSERT_LE(deadlines[each], now);
            deadlines.erase(each);
        }
        for (const auto& [each, at] : deadlines)
            ASSERT_GT(at + 64 + 500, now) << "expired late";
    }
}

}  // namespace
