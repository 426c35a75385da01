// The memory that all sessions share.

#include "websocket/Buffer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>

namespace qv::kit::websocket
{
namespace
{

TEST(Budget, TakesChargesThatFit)
{
    const struct
    {
        const char* name;
        uint64_t used;
        uint64_t bytes;
        bool isTaken;
    } rows[] = {
        {"all of it", 0, 10, true},
        {"one byte more", 0, 11, false},
        {"the rest", 7, 3, true},
        {"more than the rest", 7, 4, false},
        {"nothing beyond the limit", 20, 0, true},
        {"one byte beyond the limit", 20, 1, false},
        {"so much that the sum overflows", 7, UINT64_MAX, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Budget budget(10);
        budget.chargeAlways(row.used);
        EXPECT_EQ(budget.hasSpace(row.bytes), row.isTaken);
        EXPECT_EQ(budget.charge(row.bytes), row.isTaken);
        EXPECT_EQ(budget.usedBytes(), row.used + (row.isTaken ? row.bytes : 0));
    }
}

TEST(Budget, RefusesNothingThatFitsWhileAnotherThreadIsRefused)
{
    constexpr int kRounds = 300000;
    Budget budget(100);
    std::atomic<bool> ends{false};
    std::thread refused([&] {
        while (!ends)
            EXPECT_FALSE(budget.charge(101));
    });
    int failures = 0;
    for (int i = 0; i < kRounds; ++i) {
        if (budget.charge(100))
            budget.credit(100);
        else
            ++failures;
    }
    ends = true;
    refused.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(budget.usedBytes(), 0u);
}

TEST(Budget, CountsInASharedBudgetToo)
{
    const struct
    {
        const char* name;
        uint64_t own;
        uint64_t shared;
        uint64_t usedByOthers;
        bool isTaken;
        bool isEverTaken;
    } rows[] = {
        {"all of both", 10, 10, 0, true, true},
        {"more than the own one", 9, 20, 0, false, false},
        {"more than the shared one", 20, 9, 0, false, false},
        {"used up by others", 20, 20, 11, false, true},
        {"the rest of others", 20, 20, 10, true, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const MemoryAccount shared(row.shared);
        shared.chargeAlways(row.usedByOthers);
        Budget budget(row.own);
        budget.share(shared);
        EXPECT_EQ(budget.canEverTake(10), row.isEverTaken);
        EXPECT_EQ(budget.hasSpace(10), row.isTaken);
        EXPECT_EQ(budget.charge(10), row.isTaken);
        const uint64_t taken = row.isTaken ? 10 : 0;
        EXPECT_EQ(budget.usedBytes(), taken);
        EXPECT_EQ(shared.getUsedBytes(), row.usedByOthers + taken);
        budget.credit(taken);
        budget.chargeAlways(30);
        EXPECT_EQ(budget.usedBytes(), 30u);
        EXPECT_EQ(shared.getUsedBytes(), row.usedByOthers + 30);
        budget.credit(30);
        EXPECT_EQ(shared.getUsedBytes(), row.usedByOthers);
    }
}

}  // namespace
}  // namespace qv::kit::websocket
