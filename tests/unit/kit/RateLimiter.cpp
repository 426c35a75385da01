#include "RateLimiter.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <chrono>
#include <string>

namespace qv::kit
{
namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;

const RateLimiter::Clock::time_point kNow{seconds(1000)};

TEST(RateLimiter, AllowsABurstAndThenTheRate)
{
    RateLimiter limiter(2, 3, 100);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(limiter.take("a", kNow), seconds(0));
    EXPECT_EQ(limiter.take("a", kNow), seconds(1));
    EXPECT_EQ(limiter.take("b", kNow), seconds(0));
    EXPECT_EQ(limiter.take("a", kNow + milliseconds(499)), seconds(1));
    EXPECT_EQ(limiter.take("a", kNow + milliseconds(500)), seconds(0));
    EXPECT_EQ(limiter.take("a", kNow + milliseconds(501)), seconds(1));
    // Not more than a burst comes together.
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(limiter.take("a", kNow + seconds(60)), seconds(0));
    EXPECT_EQ(limiter.take("a", kNow + seconds(60)), seconds(1));
}

TEST(RateLimiter, TellsWhenTheNextRequestIsAllowed)
{
    RateLimiter limiter(0.1, 1, 100);
    EXPECT_EQ(limiter.take("a", kNow), seconds(0));
    EXPECT_EQ(limiter.take("a", kNow), seconds(10));
    EXPECT_EQ(limiter.take("a", kNow + milliseconds(3500)), seconds(7));
    EXPECT_EQ(limiter.take("a", kNow + seconds(10)), seconds(0));
    RateLimiter never(1e-300, 1, 100);
    EXPECT_EQ(never.take("a", kNow), seconds(0));
    EXPECT_EQ(never.take("a", kNow), seconds(86400));
}

// A clock that another thread has looked at earlier gives nothing and takes nothing.
TEST(RateLimiter, IgnoresAnEarlierTime)
{
    RateLimiter limiter(1, 1, 100);
    EXPECT_EQ(limiter.take("a", kNow), seconds(0));
    EXPECT_EQ(limiter.take("a", kNow - seconds(5)), seconds(1));
    EXPECT_EQ(limiter.take("a", kNow + milliseconds(999)), seconds(1));
    EXPECT_EQ(limiter.take("a", kNow + seconds(1)), seconds(0));
}

TEST(RateLimiter, ForgetsTheClientThatHasAskedLeastRecently)
{
    RateLimiter limiter(0.001, 1, 16);
    for (int i = 0; i < 10000; ++i) {
        limiter.take(std::to_string(i), kNow);
        ASSERT_LE(limiter.size(), 16u);
    }
    EXPECT_EQ(limiter.size(), 16u);
    EXPECT_GT(limiter.take("9999", kNow), seconds(0));
    EXPECT_EQ(limiter.take("0", kNow), seconds(0));
    RateLimiter boundless(1, 1, SIZE_MAX);
    EXPECT_EQ(boundless.take("a", kNow), seconds(0));
    EXPECT_EQ(boundless.take("a", kNow), seconds(1));
}

TEST(RateLimiter, TellsLongKeysApart)
{
    RateLimiter limiter(1, 1, 1000);
    for (const size_t size : {63U, 64U, 65U, 66U, 1048576U}) {
        SCOPED_TRACE(size);
        const std::string key(size, 'k');
        std::string other = key;
        other.back() = 'o';
        EXPECT_EQ(limiter.take(key, kNow), seconds(0));
        EXPECT_EQ(limiter.take(other, kNow), seconds(0));
        EXPECT_EQ(limiter.take(key, kNow), seconds(1));
        EXPECT_EQ(limiter.take(other, kNow), seconds(1));
    }
}

TEST(RateLimiter, KeepsNoLongKey)
{
    constexpr size_t kClients = 64;
    constexpr size_t kKeyBytes = 1048576;
    const auto before = mallinfo2();
    RateLimiter limiter(1, 1, 1000);
    for (size_t i = 0; i < kClients; ++i)
        limiter.take(std::string(kKeyBytes, 'k') + std::to_string(i), kNow);
    EXPECT_EQ(limiter.size(), kClients);
    const auto after = mallinfo2();
    EXPECT_LT(after.uordblks + after.hblkhd, before.uordblks + before.hblkhd + kKeyBytes);
}

TEST(RateLimiter, CountsTheNetworkOfAnIpv6Address)
{
    const auto key = [](const char* text) {
        return RateLimiter::keyOf(IpAddress::fromText(text, 80));
    };
    EXPECT_EQ(key("192.0.2.1"), "192.0.2.1");
    EXPECT_NE(key("192.0.2.1"), key("192.0.2.2"));
    EXPECT_EQ(key("2001:db8:1:2::1"), key("2001:db8:1:2:ffff:ffff:ffff:ffff"));
    EXPECT_NE(key("2001:db8:1:2::1"), key("2001:db8:1:3::1"));
    EXPECT_EQ(key("::ffff:192.0.2.1"), "192.0.2.1");
    EXPECT_EQ(RateLimiter::keyOf(IpAddress()), "unix");
}

}  // namespace
}  // namespace qv::kit
