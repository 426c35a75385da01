// Who deletes a request, and when.

#include <Wendrel/kit/RequestKeeper.h>

#include "Support.h"

#include <gmock/gmock.h>

#include <atomic>
#include <deque>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace qv::kit::tests
{
namespace
{

using impl::DispatchAccess;

std::atomic<int> sLive{0};

// Counts itself and says on which thread it dies.
class CountedRequest : public Request
{
public:
    CountedRequest() { ++sLive; }
    ~CountedRequest() override
    {
        --sLive;
        if (onDeleted)
            onDeleted();
    }

    std::function<void()> onDeleted;
};

// As the daemon does it: the keeper is told with the request's lock held.
void complete(HttpBaseRequest& request, RequestKeeper& keeper)
{
    qvMutexLocker lock(&DispatchAccess::mutex(request.getResponseDevice()));
    DispatchAccess::completed(request) = true;
    keeper.completed();
}

class RequestKeeperTest : public ::testing::Test
{
protected:
    RequestKeeperTest() { sLive = 0; }
    ~RequestKeeperTest() override { EXPECT_EQ(sLive, 0); }

    static std::unique_ptr<CountedRequest> open(RequestKeeper& keeper)
    {
        keeper.opened();
        return std::make_unique<CountedRequest>();
    }
};

TEST_F(RequestKeeperTest, IsEmptyAtFirst)
{
    RequestKeeper keeper;
    EXPECT_EQ(keeper.getOpenCount(), 0u);
    EXPECT_TRUE(keeper.waitUntilEmpty(std::chrono::milliseconds(0)));
}

TEST_F(RequestKeeperTest, CountsFromTheOpeningToTheDeletion)
{
    RequestKeeper keeper;
    auto request = open(keeper);
    EXPECT_EQ(keeper.getOpenCount(), 1u);
    EXPECT_FALSE(keeper.waitUntilEmpty(std::chrono::milliseconds(0)));
    complete(*request, keeper);
    EXPECT_EQ(keeper.getOpenCount(), 1u);
    keeper.finished(std::move(request));
    EXPECT_TRUE(keeper.waitUntilEmpty(kLimit));
    EXPECT_EQ(keeper.getOpenCount(), 0u);
    EXPECT_EQ(sLive, 0);
}

TEST_F(RequestKeeperTest, DeletesOnlyAfterBothEndsInEitherOrder)
{
    for (const bool completedFirst : {false, true}) {
        SCOPED_TRACE(completedFirst);
        RequestKeeper keeper;
        auto request = open(keeper);
        CountedRequest& same = *request;
        if (completedFirst)
            complete(same, keeper);
        else
            keeper.finished(std::move(request));
        EXPECT_FALSE(keeper.waitUntilEmpty(kWhile));
        EXPECT_EQ(sLive, 1);
        if (completedFirst)
            keeper.finished(std::move(request));
        else
            complete(same, keeper);
        EXPECT_TRUE(keeper.waitUntilEmpty(kLimit));
        EXPECT_EQ(sLive, 0);
    }
}

TEST_F(RequestKeeperTest, DeletesTheCompletedOneOfSeveral)
{
    std::vector<CountedRequest*> requests;
    std::vector<std::promise<void>> deleted(5);
    RequestKeeper keeper;
    for (size_t i = 0; i < deleted.size(); ++i) {
        auto request = open(keeper);
        requests.push_back(request.get());
        request->onDeleted = [&deleted, i] { deleted[i].set_value(); };
        keeper.finished(std::move(request));
    }
    int left = 5;
    for (const size_t i : {2u, 4u, 0u, 3u, 1u}) {
        complete(*requests[i], keeper);
        ASSERT_EQ(deleted[i].get_future().wait_for(kLimit), std::future_status::ready);
        EXPECT_EQ(sLive, --left);
    }
    EXPECT_TRUE(keeper.waitUntilEmpty(kLimit));
}

// The callers hold locks, and one of them is the request's own.
TEST_F(RequestKeeperTest, DeletesOnNeitherOfItsCallersThreads)
{
    for (const bool completedFirst : {false, true}) {
        std::promise<std::thread::id> where;
        RequestKeeper keeper;
        auto request = open(keeper);
        request->onDeleted = [&where] { where.set_value(std::this_thread::get_id()); };
        CountedRequest& same = *request;
        if (completedFirst)
            complete(same, keeper);
        keeper.finished(std::move(request));
        if (!completedFirst)
            complete(same, keeper);
        auto thread = where.get_future();
        ASSERT_EQ(thread.wait_for(kLimit), std::future_status::ready);
        EXPECT_NE(thread.get(), std::this_thread::get_id());
    }
}

// Keeps the keeper's own thread from its work, as long as it lives.
class BusyKeeper
{
public:
    BusyKeeper(std::unique_ptr<CountedRequest> request, RequestKeeper& keeper)
    {
        auto end = std::make_shared<std::future<void>>(mEnd.get_future());
        auto begun = std::make_shared<std::promise<void>>();
        request->onDeleted = [begun, end] {
            begun->set_value();
            end->wait_for(kLimit);
        };
        CountedRequest& same = *request;
        keeper.finished(std::move(request));
        complete(same, keeper);
        EXPECT_EQ(begun->get_future().wait_for(kLimit), std::future_status::ready);
    }
    ~BusyKeeper() { mEnd.set_value(); }
    BusyKeeper(const BusyKeeper&) = delete;
    BusyKeeper& operator=(const BusyKeeper&) = delete;

private:
    std::promise<void> mEnd;
};

TEST_F(RequestKeeperTest, ReapsOnTheThreadThatAsksForIt)
{
    std::thread::id where;
    RequestKeeper keeper;
    keeper.reap();
    {
        const BusyKeeper busy(open(keeper), keeper);
        auto request = open(keeper);
        request->onDeleted = [&where] { where = std::this_thread::get_id(); };
        CountedRequest& same = *request;
        keeper.finished(std::move(request));
        keeper.reap();
        ASSERT_EQ(keeper.getOpenCount(), 2u);
        complete(same, keeper);
        keeper.reap();
        EXPECT_EQ(keeper.getOpenCount(), 1u);
        EXPECT_EQ(where, std::this_thread::get_id());
    }
    EXPECT_TRUE(keeper.waitUntilEmpty(kLimit));
}

TEST_F(RequestKeeperTest, ReapsTwoAtATimeAndGetsPastThoseThatStay)
{
    constexpr size_t kStaying = 3;
    constexpr size_t kOver = 4;
    std::vector<CountedRequest*> staying;
    std::vector<CountedRequest*> over;
    RequestKeeper keeper;
    {
        const BusyKeeper busy(open(keeper), keeper);
        for (size_t i = 0; i < kStaying + kOver; ++i) {
            auto request = open(keeper);
            (i < kStaying ? staying : over).push_back(request.get());
            keeper.finished(std::move(request));
        }
        for (CountedRequest* request : over)
            complete(*request, keeper);
        // Two that stay; one of each; two; the last, with one that was looked at before.
        for (const size_t left : {7u, 6u, 4u, 3u}) {
            keeper.reap();
            EXPECT_EQ(keeper.getOpenCount(), 1 + left);
        }
    }
    for (CountedRequest* request : staying)
        complete(*request, keeper);
    EXPECT_TRUE(keeper.waitUntilEmpty(kLimit));
}

// It is in nobody's list at that moment, and nothing happens afterwards.
TEST_F(RequestKeeperTest, FindsWhatIsCompletedWhileItIsReaped)
{
    RequestKeeper keeper;
    auto first = open(keeper);
    auto second = open(keeper);
    auto third = open(keeper);
    CountedRequest& looked = *first;
    CountedRequest& held = *second;
    keeper.finished(std::move(first));
    keeper.finished(std::move(second));
    complete(*third, keeper);             // so that there is something to be reaped
    std::this_thread::sleep_for(kWhile);  // the keeper's own thread has looked at both
    std::thread worker;
    {
        qvMutexLocker lock(&DispatchAccess::mutex(held.getResponseDevice()));
        worker = std::thread([&keeper] { keeper.reap(); });
        std::this_thread::sleep_for(kWhile);  // it has looked at the first, and waits for this one
        complete(looked, keeper);
    }
    worker.join();
    const auto end = std::chrono::steady_clock::now() + kLimit;
    while (keeper.getOpenCount() == 3 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(keeper.getOpenCount(), 2u);
    complete(held, keeper);
    keeper.finished(std::move(third));
    EXPECT_TRUE(keeper.waitUntilEmpty(kLimit));
}

TEST_F(RequestKeeperTest, ReapsOnSeveralThreads)
{
    constexpr int kRequests = 2000;
    RequestKeeper keeper;
    std::vector<std::thread> workers;
    for (int i = 0; i < 4; ++i) {
        workers.emplace_back([&keeper] {
            for (int n = 0; n < kRequests; ++n) {
                auto request = open(keeper);
                CountedRequest& same = *request;
                keeper.finished(std::move(request));
                complete(same, keeper);
                keeper.reap();
            }
        });
    }
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_TRUE(keeper.waitUntilEmpty(kLimit));
}

TEST_F(RequestKeeperTest, DeletesNothingWhileItsCompletionGoesOn)
{
    RequestKeeper keeper;
    auto request = open(keeper);
    CountedRequest& same = *request;
    keeper.finished(std::move(request));
    {
        qvMutexLocker lock(&DispatchAccess::mutex(same.getResponseDevice()));
        DispatchAccess::completed(same) = true;
        keeper.completed();
        EXPECT_FALSE(keeper.waitUntilEmpty(kWhile));
        EXPECT_EQ(sLive, 1);
    }
    EXPECT_TRUE(keeper.waitUntilEmpty(kLimit));
}

// A request may be held up for as long as its device's lock is; the keeper's callers are not.
TEST_F(RequestKeeperTest, ServesItsCallersWhileARequestHoldsItUp)
{
    RequestKeeper keeper;
    auto first = open(keeper);
    CountedRequest& held = *first;
    keeper.finished(std::move(first));
    qvMutexLocker lock(&DispatchAccess::mutex(held.getResponseDevice()));
    DispatchAccess::completed(held) = true;
    keeper.completed();
    EXPECT_FALSE(keeper.waitUntilEmpty(kWhile));  // the keeper stands at the lock
    for (int i = 0; i < 100; ++i) {
        auto request = open(keeper);
        CountedRequest& same = *request;
        keeper.finished(std::move(request));
        complete(same, keeper);
    }
    EXPECT_EQ(keeper.getOpenCount(), 101u);
}

// The destructor of a request may ask the keeper: it is deleted without the keeper's lock.
TEST_F(RequestKeeperTest, DeletesWithoutItsLock)
{
    for (const bool inDestructor : {false, true}) {
        SCOPED_TRACE(inDestructor);
        std::promise<size_t> seen;
        {
            RequestKeeper keeper;
            auto request = open(keeper);
            request->onDeleted = [&] { seen.set_value(keeper.getOpenCount()); };
            CountedRequest& same = *request;
            keeper.finished(std::move(request));
            if (!inDestructor) {
                complete(same, keeper);
                EXPECT_TRUE(keeper.waitUntilEmpty(kLimit));
            }
        }
        EXPECT_EQ(seen.get_future().wait_for(kLimit), std::future_status::ready);
    }
}

TEST_F(RequestKeeperTest, LeavesNothingWhenItIsDestroyed)
{
    {
        RequestKeeper keeper;
        for (int i = 0; i < 1000; ++i) {
            auto request = open(keeper);
            CountedRequest& same = *request;
            keeper.finished(std::move(request));
            if (i % 3 == 0)
                complete(same, keeper);
        }
    }
    EXPECT_EQ(sLive, 0);
}

TEST_F(RequestKeeperTest, TellsEveryoneWhoWaitsForTheLast)
{
    RequestKeeper keeper;
    auto first = open(keeper);
    auto second = open(keeper);
    std::vector<std::thread> waiters;
    std::atomic<int> told{0};
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { told += keeper.waitUntilEmpty(kLimit); });
    complete(*first, keeper);
    keeper.finished(std::move(first));
    complete(*second, keeper);
    keeper.finished(std::move(second));
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(told, 4);
}

// Workers and daemon threads at once, the two ends of a request in any order.
TEST_F(RequestKeeperTest, DeletesEachOfThousandsFromManyThreads)
{
    constexpr int kThreads = 4;
    constexpr int kRequests = 2500;
    std::atomic<int> deleted{0};
    RequestKeeper keeper;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::deque<CountedRequest*> finishedFirst;
            std::deque<std::unique_ptr<CountedRequest>> completedFirst;
            const auto endOne = [&] {
                if (!finishedFirst.empty()) {
                    complete(*finishedFirst.front(), keeper);
                    finishedFirst.pop_front();
                }
                if (!completedFirst.empty()) {
                    keeper.finished(std::move(completedFirst.front()));
                    completedFirst.pop_front();
                }
            };
            for (int i = 0; i < kRequests; ++i) {
                auto request = open(keeper);
                request->onDeleted = [&deleted] { ++deleted; };
                if ((i + t) % 3 == 0) {
                    complete(*request, keeper);
                    completedFirst.push_back(std::move(request));
                } else {
                    finishedFirst.push_back(request.get());
                    keeper.finished(std::move(request));
                }
                if (i % 50 >= t)
                    endOne();
            }
            while (!finishedFirst.empty() || !completedFirst.empty())
                endOne();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(keeper.waitUntilEmpty(kLimit));
    EXPECT_EQ(deleted, kThreads * kRequests);
}

}  // namespace
}  // namespace qv::kit::tests
