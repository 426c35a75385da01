// Clocks and facts of the machine.

#include <qvSystem/qvSystemUtils.h>

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>

namespace qv::tests
{
namespace
{

int64_t ReadClockMs(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

TEST(qvSystemUtils, TimeBaseIsTheMonotonicClockInMilliseconds)
{
    for (int i = 0; i < 100; ++i) {
        const int64_t before = ReadClockMs(CLOCK_MONOTONIC);
        const int64_t now = qvSystemUtils::GetTimeBaseMs();
        const int64_t after = ReadClockMs(CLOCK_MONOTONIC);
        ASSERT_LE(before, now);
        ASSERT_LE(now, after);
    }
}

TEST(qvSystemUtils, ElapsedSinceEpochIsTheWallClockInMilliseconds)
{
    // A hundred tries: the wall clock may be set while one of them runs.
    bool between = false;
    for (int i = 0; i < 100 && !between; ++i) {
        const int64_t before = ReadClockMs(CLOCK_REALTIME);
        const int64_t now = qvSystemUtils::GetMSecElapsedSinceEpoch();
        const int64_t after = ReadClockMs(CLOCK_REALTIME);
        between = before <= now && now <= after;
    }
    EXPECT_TRUE(between);
}

TEST(qvSystemUtils, IdealThreadCountIsAtLeastOne)
{
    const uint32_t count = qvSystemUtils::GetIdealThreadCount();
    EXPECT_GE(count, 1u);
    EXPECT_LT(count, 100000u);
}

}  // namespace
}  // namespace qv::tests
