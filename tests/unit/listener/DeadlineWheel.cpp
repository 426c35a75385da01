// The timing wheel: when each entry is visited.

#include "listener/DeadlineWheel.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <vector>

namespace
{

using qv::impl::DeadlineWheel;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using Entry = DeadlineWheel::Entry;

constexpr int64_t kSlotMs = DeadlineWheel::kSlotMs;
constexpr int64_t kStartMs = 1000 * kSlotMs;
constexpr int64_t kReachSlots = 1024;  // a time is visited at most this many slots from now

std::vector<Entry*> takeAll(DeadlineWheel& wheel, int64_t nowMs)
{
    std::vector<Entry*> taken;
    while (Entry* const entry = wheel.takeDue(nowMs))
        taken.push_back(entry);
    return taken;
}

TEST(DeadlineWheel, VisitsAnEntryWhenItsSlotHasEnded)
{
    const struct
    {
        const char* name;
        int64_t deadlineMs;
        int64_t visitMs;
    } rows[] = {
        {"long ago", 0, kStartMs + kSlotMs},
        {"just before now", kStartMs - 1, kStartMs + kSlotMs},
        {"now", kStartMs, kStartMs + kSlotMs},
        {"last of this slot", kStartMs + kSlotMs - 1, kStartMs + kSlotMs},
        {"first of the next", kStartMs + kSlotMs, kStartMs + 2 * kSlotMs},
        {"first of the last slot", kStartMs + (kReachSlots - 1) * kSlotMs,
         kStartMs + kReachSlots * kSlotMs},
        {"last of the last slot", kStartMs + kReachSlots * kSlotMs - 1,
         kStartMs + kReachSlots * kSlotMs},
        {"beyond its reach", kStartMs + kReachSlots * kSlotMs, kStartMs + kReachSlots * kSlotMs},
        {"never", std::numeric_limits<int64_t>::max(), kStartMs + kReachSlots * kSlotMs},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        DeadlineWheel wheel(kStartMs);
        Entry entry;
        wheel.set(entry, row.deadlineMs);
        EXPECT_TRUE(entry.isInWheel());
        EXPECT_EQ(entry.getVisitMs(), row.visitMs);
        EXPECT_THAT(takeAll(wheel, row.visitMs - 1), IsEmpty());
        EXPECT_TRUE(entry.isInWheel());
        EXPECT_THAT(takeAll(wheel, row.visitMs), ElementsAre(&entry));
        EXPECT_FALSE(entry.isInWheel());
        EXPECT_THAT(takeAll(wheel, row.visitMs + 2 * kReachSlots * kSlotMs), IsEmpty());
    }
}

TEST(DeadlineWheel, HasNothingDueAtItsStart)
{
    DeadlineWheel wheel(kStartMs + 17);
    EXPECT_THAT(takeAll(wheel, kStartMs + 17), IsEmpty());
    EXPECT_THAT(takeAll(wheel, kStartMs + 100 * kReachSlots * kSlotMs), IsEmpty());
}

TEST(DeadlineWheel, VisitsEachEntryOnceAfterALongPause)
{
    DeadlineWheel wheel(kStartMs);
    std::array<Entry, 5> entries;
    const std::array<int64_t, 5> slots{0, 1, 500, kReachSlots - 1, kReachSlots + 7};
    for (size_t i = 0; i < entries.size(); ++i)
        wheel.set(entries[i], kStartMs + slots[i] * kSlotMs);
    const int64_t laterMs = kStartMs + 10 * kReachSlots * kSlotMs + 3;
    EXPECT_THAT(takeAll(wheel, laterMs), UnorderedElementsAre(&entries[0], &entries[1], &entries[2],
                                                              &entries[3], &entries[4]));
    // And it has caught up with the time.
    wheel.set(entries[0], laterMs);
    EXPECT_EQ(entries[0].getVisitMs(), kStartMs + (10 * kReachSlots + 1) * kSlotMs);
    EXPECT_THAT(takeAll(wheel, entries[0].getVisitMs()), ElementsAre(&entries[0]));
}

TEST(DeadlineWheel, ReachesAsFarAfterATurnAsBefore)
{
    DeadlineWheel wheel(kStartMs);
    Entry entry;
    int64_t nowMs = kStartMs;
    for (int turn = 0; turn < 3; ++turn) {
        SCOPED_TRACE(turn);
        wheel.set(entry, std::numeric_limits<int64_t>::max());
        EXPECT_EQ(entry.getVisitMs(), nowMs + kReachSlots * kSlotMs);
        EXPECT_THAT(takeAll(wheel, entry.getVisitMs() - 1), IsEmpty());
        nowMs = entry.getVisitMs();
        EXPECT_THAT(takeAll(wheel, nowMs), ElementsAre(&entry));
    }
}

TEST(DeadlineWheel, IgnoresAClockThatStepsBack)
{
    DeadlineWheel wheel(kStartMs);
    Entry entry;
    wheel.set(entry, kStartMs);
    EXPECT_THAT(takeAll(wheel, 0), IsEmpty());
    EXPECT_THAT(takeAll(wheel, kStartMs + kSlotMs), ElementsAre(&entry));
}

TEST(DeadlineWheel, MovesAnEntryThatIsSetAgain)
{
    DeadlineWheel wheel(kStartMs);
    Entry entry;
    wheel.set(entry, kStartMs);
    wheel.set(entry, kStartMs + 5 * kSlotMs);
    EXPECT_THAT(takeAll(wheel, kStartMs + 5 * kSlotMs), IsEmpty());
    wheel.set(entry, kStartMs + 5 * kSlotMs + 1);  // the same slot
    EXPECT_THAT(takeAll(wheel, kStartMs + 6 * kSlotMs), ElementsAre(&entry));
}

TEST(DeadlineWheel, RemovesAnyEntryOfASlot)
{
    for (size_t removed = 0; removed < 3; ++removed) {
        SCOPED_TRACE(removed);
        DeadlineWheel wheel(kStartMs);
        std::array<Entry, 3> entries;
        for (Entry& entry : entries)
            wheel.set(entry, kStartMs);
        wheel.remove(entries[removed]);
        EXPECT_FALSE(entries[removed].isInWheel());
        wheel.remove(entries[removed]);  // not in the wheel: nothing happens
        EXPECT_THAT(takeAll(wheel, kStartMs + kSlotMs),
                    UnorderedElementsAre(&entries[(removed + 1) % 3], &entries[(removed + 2) % 3]));
    }
}

// As the owner does for entries whose time has not come yet.
TEST(DeadlineWheel, TakesAnEntryBackWhileTheRestOfItsSlotWaits)
{
    DeadlineWheel wheel(kStartMs);
    std::array<Entry, 4> entries;
    for (Entry& entry : entries)
        wheel.set(entry, kStartMs);
    const int64_t nowMs = kStartMs + kSlotMs;
    size_t count = 0;
    while (Entry* const entry = wheel.takeDue(nowMs)) {
        wheel.set(*entry, nowMs);
        ++count;
    }
    EXPECT_EQ(count, entries.size());
    EXPECT_THAT(takeAll(wheel, nowMs), IsEmpty());
    wheel.remove(entries[1]);
    EXPECT_THAT(takeAll(wheel, nowMs + kSlotMs),
                UnorderedElementsAre(&entries[0], &entries[2], &entries[3]));
}

// A model of the wheel: entries by the time of their visit.
class Model
{
public:
    explicit Model(int64_t nowMs) : mSlot(nowMs / kSlotMs) {}

    int64_t set(Entry& entry, int64_t deadlineMs)
    {
        remove(entry);
        const int64_t slot = std::clamp(deadlineMs / kSlotMs, mSlot, mSlot + kReachSlots - 1);
        mEntries.emplace((slot + 1) * kSlotMs, &entry);
        return (slot + 1) * kSlotMs;
    }

    void remove(const Entry& entry)
    {
        for (auto it = mEntries.begin(); it != mEntries.end(); ++it) {
            if (it->second == &entry) {
                mEntries.erase(it);
                return;
            }
        }
    }

    std::vector<Entry*> takeAll(int64_t nowMs)
    {
        mSlot = std::max(mSlot, nowMs / kSlotMs);
        std::vector<Entry*> taken;
        while (!mEntries.empty() && mEntries.begin()->first <= nowMs) {
            taken.push_back(mEntries.begin()->second);
            mEntries.erase(mEntries.begin());
        }
        return taken;
    }

private:
    int64_t mSlot;
    std::multimap<int64_t, Entry*> mEntries;
};

TEST(DeadlineWheel, BehavesAsASortedListOfVisits)
{
    constexpr size_t kEntries = 40;
    constexpr int kSteps = 20000;
    for (unsigned seed = 1; seed <= 5; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto upTo = [&random](int64_t most) {
            return std::uniform_int_distribution<int64_t>(0, most)(random);
        };
        int64_t nowMs = kStartMs + upTo(kSlotMs);
        DeadlineWheel wheel(nowMs);
        Model model(nowMs);
        const auto entries = std::make_unique<std::array<Entry, kEntries>>();
        for (int step = 0; step < kSteps; ++step) {
            Entry& entry = (*entries)[static_cast<size_t>(upTo(kEntries - 1))];
            switch (upTo(3)) {
            case 0: {
                const int64_t spanMs = upTo(1) ? 5 * kSlotMs : 2 * kReachSlots * kSlotMs;
                const int64_t deadlineMs = nowMs - kSlotMs + upTo(spanMs);
                wheel.set(entry, deadlineMs);
                ASSERT_EQ(entry.getVisitMs(), model.set(entry, deadlineMs)) << step;
                break;
            }
            case 1:
                wheel.remove(entry);
                model.remove(entry);
                break;
            default: {
                nowMs += upTo(200) == 0 ? upTo(3 * kReachSlots * kSlotMs) : upTo(3 * kSlotMs);
                std::vector<Entry*> got = takeAll(wheel, nowMs);
                std::vector<Entry*> wanted = model.takeAll(nowMs);
                std::sort(got.begin(), got.end());
                std::sort(wanted.begin(), wanted.end());
                ASSERT_EQ(got, wanted) << step;
            }
            }
        }
        for (Entry& entry : *entries)
            wheel.remove(entry);
    }
}

}  // namespace
