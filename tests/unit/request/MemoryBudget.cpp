// The memory shared by the uploads of a server: the counter, and the receive devices that it
// counts.

#include "request/MemoryBudget.h"

#include <Wendrel/MemoryAccount.h>

#include "support/TestRequest.h"

#include "request/ConnectionRecord.h"
#include "request/DispatchAccess.h"

#include <qvSystem/qvMutex.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace qv::tests
{
namespace
{

using impl::DispatchAccess;
using impl::MemoryBudget;

TEST(MemoryBudget, IsExceededBeyondItsLimit)
{
    MemoryBudget budget(10);
    budget.charge(9);
    EXPECT_EQ(budget.getFreeBytes(), 1u);
    budget.charge(1);
    EXPECT_FALSE(budget.isExceeded());
    EXPECT_EQ(budget.getFreeBytes(), 0u);
    budget.charge(1);
    EXPECT_TRUE(budget.isExceeded());
    EXPECT_EQ(budget.getFreeBytes(), 0u);
    budget.credit(1);
    EXPECT_FALSE(budget.isExceeded());
    budget.credit(10);
    EXPECT_EQ(budget.getUsedBytes(), 0u);
}

TEST(MemoryBudget, TakesChargesThatFit)
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
        {"one byte of none", 10, 1, false},
        {"nothing of none", 10, 0, true},
        {"nothing beyond the limit", 20, 0, true},
        {"one byte beyond the limit", 20, 1, false},
        {"so much that the sum overflows", 7, UINT64_MAX, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        MemoryBudget budget(10);
        budget.charge(row.used);
        EXPECT_EQ(budget.chargeIfFree(row.bytes), row.isTaken);
        EXPECT_EQ(budget.getUsedBytes(), row.used + (row.isTaken ? row.bytes : 0));
    }
}

TEST(MemoryBudget, IsNotExceededByChargesOfSeveralThreads)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    MemoryBudget budget(kThreads - 1);
    std::atomic<bool> wasExceeded{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                if (!budget.chargeIfFree(1))
                    continue;
                if (budget.isExceeded())
                    wasExceeded = true;
                budget.credit(1);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(wasExceeded);
    EXPECT_EQ(budget.getUsedBytes(), 0u);
}

class Connected : public impl::ConnectionRecord
{
public:
    void resume() override {}
    void continueUpload() override { ++continued; }
    void discardUpload() override {}
    std::shared_ptr<MemoryBudget> getMemoryBudget() const override { return budget; }

    std::shared_ptr<MemoryBudget> budget;

    int continued = 0;
};

// An upload as the dispatch feeds it.
class BudgetedUpload : public ::testing::Test
{
protected:
    BudgetedUpload() : request(std::make_unique<WorkerRequest>())
    {
        DispatchAccess::record(*request) = &connection;
        DispatchAccess::budget(device()) = budget;
        DispatchAccess::queueLimitBytes(device()) = 1000;
    }

    HttpReceiveDevice& device() { return request->getReceiveDevice(); }

    void feed(size_t bytes)
    {
        const std::string data(bytes, 'b');
        const qvMutexLocker locker(&DispatchAccess::mutex(device()));
        device().writeBytes(data.data(), data.size());
        DispatchAccess::chargeBudget(device(), data.size());
    }

    void pause()
    {
        const qvMutexLocker locker(&DispatchAccess::mutex(device()));
        ASSERT_TRUE(DispatchAccess::isBudgetExceeded(device()));
        DispatchAccess::pauseFeed(device());
        DispatchAccess::awaitMemory(device());
    }

    size_t read(size_t bytes)
    {
        std::string data(bytes, '\0');
        return device().readBytes(data.data(), data.size());
    }

    Connected connection;
    std::shared_ptr<MemoryBudget> budget = std::make_shared<MemoryBudget>(100);
    std::unique_ptr<WorkerRequest> request;
};

TEST_F(BudgetedUpload, CreditsReadBytes)
{
    feed(100);
    EXPECT_EQ(budget->getUsedBytes(), 100u);
    feed(60);
    pause();
    EXPECT_EQ(read(40), 40u);
    EXPECT_EQ(budget->getUsedBytes(), 120u);
    EXPECT_EQ(connection.continued, 0);
    EXPECT_TRUE(budget->hasWaiting());
    EXPECT_EQ(read(20), 20u);
    EXPECT_EQ(budget->getUsedBytes(), 100u);
    EXPECT_EQ(connection.continued, 1);
    EXPECT_FALSE(budget->hasWaiting());
}

TEST_F(BudgetedUpload, CreditsUnreadBytesAtItsEnd)
{
    feed(150);
    request.reset();
    EXPECT_EQ(budget->getUsedBytes(), 0u);
}

TEST_F(BudgetedUpload, GoesOnWhenAllIsReadAlsoWithoutFreeMemory)
{
    budget->charge(500);
    feed(50);
    pause();
    EXPECT_EQ(read(49), 49u);
    EXPECT_EQ(connection.continued, 0);
    EXPECT_EQ(read(1), 1u);
    EXPECT_EQ(connection.continued, 1);
    EXPECT_FALSE(budget->hasWaiting());
    EXPECT_EQ(budget->getUsedBytes(), 500u);
}

TEST_F(BudgetedUpload, WaitsForMemoryAfterItsOwnLimit)
{
    DispatchAccess::queueLimitBytes(device()) = 40;
    feed(200);
    {
        const qvMutexLocker locker(&DispatchAccess::mutex(device()));
        DispatchAccess::pauseFeed(device());
    }
    EXPECT_FALSE(DispatchAccess::continueWaiting(device()));
    budget->charge(500);
    // Half of the own limit is left.
    EXPECT_EQ(read(185), 185u);
    EXPECT_TRUE(budget->hasWaiting());
    EXPECT_EQ(connection.continued, 0);
    EXPECT_TRUE(DispatchAccess::continueWaiting(device()));
    EXPECT_EQ(connection.continued, 1);
    EXPECT_FALSE(budget->hasWaiting());
    EXPECT_FALSE(DispatchAccess::continueWaiting(device()));
}

TEST_F(BudgetedUpload, WaitsNoMoreWhenItIsAbortedOrItsLimitLifted)
{
    budget->charge(500);
    feed(50);
    pause();
    DispatchAccess::abort(device(), "ClientAbort");
    EXPECT_EQ(connection.continued, 1);
    EXPECT_FALSE(budget->hasWaiting());
    device().reset();
    pause();
    DispatchAccess::liftQueueLimit(device());
    EXPECT_EQ(connection.continued, 2);
    EXPECT_FALSE(budget->hasWaiting());
    EXPECT_TRUE(DispatchAccess::mustNotPause(device()));
}

// `reset` goes back to the beginning of the first chunk: bytes are read twice and credited once.
TEST_F(BudgetedUpload, CreditsEachByteOnce)
{
    budget->charge(7);
    feed(50);
    {
        const qvMutexLocker locker(&DispatchAccess::mutex(device()));
        device().endFeed();
    }
    EXPECT_EQ(read(30), 30u);
    device().reset();
    {
        const qvMutexLocker locker(&DispatchAccess::mutex(device()));
        device().endFeed();
    }
    EXPECT_EQ(read(50), 50u);
    EXPECT_EQ(budget->getUsedBytes(), 7u);
    request.reset();
    EXPECT_EQ(budget->getUsedBytes(), 7u);
}

TEST(MemoryAccount, OfARequestIsTheBudgetOfItsServer)
{
    Connected connection;
    connection.budget = std::make_shared<MemoryBudget>(10);
    WorkerRequest request;
    DispatchAccess::record(request) = &connection;
    const MemoryAccount account = MemoryAccount::of(request);
    EXPECT_TRUE(account.hasSpace(10));
    EXPECT_FALSE(account.hasSpace(11));
    EXPECT_TRUE(account.charge(6));
    EXPECT_FALSE(account.charge(5));
    EXPECT_EQ(connection.budget->getUsedBytes(), 6u);
    account.credit(2);
    EXPECT_EQ(connection.budget->getUsedBytes(), 4u);
    // A handle keeps the budget: it may outlive the server.
    connection.budget.reset();
    EXPECT_TRUE(account.charge(6));
    EXPECT_FALSE(account.hasSpace(1));
}

TEST(MemoryAccount, OfALimitIsShared)
{
    const MemoryAccount account(10);
    const MemoryAccount copy = account;
    EXPECT_EQ(copy.getLimitBytes(), 10u);
    EXPECT_TRUE(account.charge(7));
    EXPECT_FALSE(copy.charge(4));
    copy.chargeAlways(4);
    EXPECT_EQ(account.getUsedBytes(), 11u);
    EXPECT_FALSE(account.hasSpace(1));
    copy.credit(11);
    EXPECT_TRUE(account.hasSpace(10));
    EXPECT_FALSE(MemoryAccount(0).charge(1));
}

TEST(MemoryAccount, TakesEverythingWithoutABudget)
{
    Connected connection;
    WorkerRequest request;
    const auto takesAll = [](const MemoryAccount& account) {
        const bool takes = account.hasSpace(UINT64_MAX) && account.charge(UINT64_MAX);
        account.chargeAlways(1);
        account.credit(UINT64_MAX);
        return takes && account.getUsedBytes() == 0 && account.getLimitBytes() == UINT64_MAX;
    };
    EXPECT_TRUE(takesAll(MemoryAccount()));
    EXPECT_TRUE(takesAll(MemoryAccount::of(request)));  // polling mode
    DispatchAccess::record(request) = &connection;
    EXPECT_TRUE(takesAll(MemoryAccount::of(request)));  // no limit
    connection.budget = std::make_shared<MemoryBudget>(10);
    EXPECT_FALSE(takesAll(MemoryAccount::of(request)));
    DispatchAccess::completed(request) = true;
    EXPECT_TRUE(takesAll(MemoryAccount::of(request)));
    DispatchAccess::completed(request) = false;
}

}  // namespace
}  // namespace qv::tests
