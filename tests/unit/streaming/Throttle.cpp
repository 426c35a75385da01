// The pace of a daemon thread that waits for an application.

#include "streaming/Throttle.h"

#include "support/FakeTime.h"
#include "support/TestAccess.h"

#include <qvSystem/qvSystemUtils.h>

#include <gmock/gmock.h>

#include <cstdint>
#include <limits>
#include <thread>
#include <vector>

namespace qv::tests
{
namespace
{

using impl::kTimeNotSet;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int64_t kStartMs = 5000;

// Waiting requests. The throttle compares addresses only.
const char kWaiting[3] = {};
const void* const kOne = &kWaiting[0];

void pause(impl::Throttle& throttle, const void* waiting = kOne)
{
    throttle.pause(waiting, qvSystemUtils::GetTimeBaseMs());
}

TEST(Throttle, SleepIs45MinusTheTimeSinceTheLastSleepAndAtLeast10)
{
    constexpr int64_t now = 1000000;
    const struct
    {
        const char* name;
        int64_t lastSleepMs;
        int32_t sleepMs;
    } rows[] = {
        {"last sleep not set", kTimeNotSet, 46},
        {"last sleep just now", now, 45},
        {"1 ms ago", now - 1, 44},
        {"10 ms ago", now - 10, 35},
        {"34 ms ago", now - 34, 11},
        {"35 ms ago", now - 35, 10},
        {"36 ms ago", now - 36, 10},
        {"45 ms ago", now - 45, 10},
        {"46 ms ago", now - 46, 10},
        {"an hour ago", now - 3600000, 10},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(impl::Throttle::SleepMs(now, row.lastSleepMs), row.sleepMs);
    }
}

TEST(Throttle, RequiredSleepIsComputedIn32Bits)
{
    constexpr int64_t turn = int64_t{1} << 32;  // the difference of times starts again here
    EXPECT_EQ(impl::Throttle::SleepMs(turn + 5, 0), 40);
    EXPECT_EQ(impl::Throttle::SleepMs(2 * turn + 40, 0), 10);
}

TEST(Throttle, StartsUnset)
{
    const impl::Throttle throttle;
    EXPECT_EQ(impl::TestAccess::waitSinceMs(throttle), kTimeNotSet);
    EXPECT_EQ(impl::TestAccess::lastSleepMs(throttle), kTimeNotSet);
}

TEST(Throttle, FirstPauseOnlyNotesTheTime)
{
    FakeTime time(kStartMs);
    impl::Throttle throttle;
    pause(throttle);
    EXPECT_THAT(time.sleeps(), IsEmpty());
    EXPECT_EQ(impl::TestAccess::waitSinceMs(throttle), kStartMs);
    EXPECT_EQ(impl::TestAccess::lastSleepMs(throttle), kStartMs);
}

TEST(Throttle, GraceLasts100Ms)
{
    const struct
    {
        const char* name;
        int64_t afterMs;
        size_t sleeps;
    } rows[] = {{"at once", 0, 0}, {"99 ms", 99, 0}, {"100 ms", 100, 0}, {"101 ms", 101, 1}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FakeTime time(kStartMs);
        impl::Throttle throttle;
        pause(throttle);
        time.advanceMs(row.afterMs);
        pause(throttle);
        EXPECT_EQ(time.sleeps().size(), row.sleeps);
        EXPECT_EQ(impl::TestAccess::waitSinceMs(throttle), kStartMs);
        EXPECT_EQ(impl::TestAccess::lastSleepMs(throttle),
                  kStartMs + (row.sleeps != 0 ? row.afterMs : 0));
    }
}

TEST(Throttle, SleepsTenAndThirtyFiveInTurnWhenCalledWithoutDelay)
{
    FakeTime time(kStartMs);
    impl::Throttle throttle;
    pause(throttle);
    time.advanceMs(101);
    for (int i = 0; i < 6; ++i)
        pause(throttle);
    EXPECT_THAT(time.sleeps(), ElementsAre(10, 35, 10, 35, 10, 35));
    EXPECT_EQ(time.nowMs(), kStartMs + 101 + 3 * 45);
}

TEST(Throttle, CountsTheSpacingFromTheBeginningOfTheLastSleep)
{
    FakeTime time(kStartMs);
    impl::Throttle throttle;
    pause(throttle);
    time.advanceMs(500);
    pause(throttle);  // sleeps 10
    EXPECT_EQ(impl::TestAccess::lastSleepMs(throttle), kStartMs + 500);
    time.advanceMs(20);
    pause(throttle);  // 30 ms after the beginning of the last
    time.advanceMs(100);
    pause(throttle);
    EXPECT_THAT(time.sleeps(), ElementsAre(10, 15, 10));
}

TEST(Throttle, ResetStartsANewGrace)
{
    FakeTime time(kStartMs);
    impl::Throttle throttle;
    pause(throttle);
    time.advanceMs(101);
    pause(throttle);
    throttle.reset();
    EXPECT_EQ(impl::TestAccess::waitSinceMs(throttle), kTimeNotSet);
    EXPECT_EQ(impl::TestAccess::lastSleepMs(throttle), kTimeNotSet);
    time.clearRecords();

    pause(throttle);
    time.advanceMs(100);
    pause(throttle);
    EXPECT_THAT(time.sleeps(), IsEmpty());
    time.advanceMs(1);
    pause(throttle);
    EXPECT_THAT(time.sleeps(), ElementsAre(10));
}

// At that point every request of the thread has been polled without success.
TEST(Throttle, GivesUpTheTimeSliceWhenTheFirstOneIsAskedAgain)
{
    FakeTime time(kStartMs);
    const void* const two = &kWaiting[1];
    const void* const three = &kWaiting[2];
    const struct
    {
        const char* name;
        std::vector<const void*> asked;
        size_t yields;
    } rows[] = {
        {"once", {kOne}, 0},
        {"the same again", {kOne, kOne}, 1},
        {"and again", {kOne, kOne, kOne}, 2},
        {"each once", {kOne, two, three}, 0},
        {"a whole round", {kOne, two, three, kOne}, 1},
        {"two rounds", {kOne, two, kOne, two, kOne}, 2},
        {"others only", {kOne, two, two, three, two, three}, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        impl::Throttle throttle;
        const size_t before = FakeTime::YieldsOfThisThread();
        for (const void* waiting : row.asked)
            pause(throttle, waiting);
        EXPECT_EQ(FakeTime::YieldsOfThisThread() - before, row.yields);
        EXPECT_THAT(time.sleeps(), IsEmpty());
    }
}

TEST(Throttle, BeginsANewRoundAfterProgress)
{
    FakeTime time(kStartMs);
    impl::Throttle throttle;
    const size_t before = FakeTime::YieldsOfThisThread();
    pause(throttle);
    throttle.reset();
    pause(throttle, &kWaiting[1]);
    pause(throttle);
    EXPECT_EQ(FakeTime::YieldsOfThisThread() - before, 0u);
    pause(throttle, &kWaiting[1]);
    EXPECT_EQ(FakeTime::YieldsOfThisThread() - before, 1u);
}

TEST(Throttle, SleepsInsteadAfterTheGrace)
{
    FakeTime time(kStartMs);
    impl::Throttle throttle;
    pause(throttle);
    time.advanceMs(101);
    const size_t before = FakeTime::YieldsOfThisThread();
    pause(throttle);
    EXPECT_EQ(FakeTime::YieldsOfThisThread() - before, 0u);
    EXPECT_THAT(time.sleeps(), ElementsAre(10));
}

TEST(Throttle, IsOneRecordPerThread)
{
    impl::Throttle* const mine = &impl::Throttle::OfThisThread();
    EXPECT_EQ(&impl::Throttle::OfThisThread(), mine);
    pause(*mine);
    int64_t ofTheOther = 0;
    std::thread other([&] {
        EXPECT_NE(&impl::Throttle::OfThisThread(), mine);
        ofTheOther = impl::TestAccess::waitSinceMs(impl::Throttle::OfThisThread());
    });
    other.join();
    EXPECT_EQ(ofTheOther, kTimeNotSet);
    EXPECT_NE(impl::TestAccess::waitSinceMs(*mine), kTimeNotSet);
    mine->reset();
}

}  // namespace
}  // namespace qv::tests
