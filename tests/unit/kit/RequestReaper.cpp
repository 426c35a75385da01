// Who deletes a request, and when.

#include <Wendrel/kit/RequestReaper.h>

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

class RequestReaperTest : public ::testing::Test
{
protected:
    RequestReaperTest() { CountedRequest::sAlive = 0; }
    ~RequestReaperTest() override { EXPECT_EQ(CountedRequest::sAlive, 0); }

    static CountedRequest& open(RequestReaper& reaper)
    {
        return static_cast<CountedRequest&>(reaper.add(std::make_unique<CountedRequest>()));
    }
};

TEST_F(RequestReaperTest, IsEmptyAtFirst)
{
    RequestReaper reaper;
    EXPECT_EQ(reaper.getOpenCount(), 0u);
    EXPECT_TRUE(reaper.waitUntilEmpty(std::chrono::milliseconds(0)));
}

TEST_F(RequestReaperTest, CountsFromTheOpeningToTheDeletion)
{
    RequestReaper reaper;
    CountedRequest& request = open(reaper);
    EXPECT_EQ(reaper.getOpenCount(), 1u);
    EXPECT_FALSE(reaper.waitUntilEmpty(std::chrono::milliseconds(0)));
    Complete(request);
    EXPECT_EQ(reaper.getOpenCount(), 1u);
    reaper.finished(request);
    EXPECT_TRUE(reaper.waitUntilEmpty(kLimit));
    EXPECT_EQ(reaper.getOpenCount(), 0u);
    EXPECT_EQ(CountedRequest::sAlive, 0);
}

TEST_F(RequestReaperTest, DeletesOnlyAfterBothEndsInEitherOrder)
{
    for (const bool completedFirst : {false, true}) {
        SCOPED_TRACE(completedFirst);
        RequestReaper reaper;
        CountedRequest& request = open(reaper);
        if (completedFirst)
            Complete(request);
        else
            reaper.finished(request);
        EXPECT_FALSE(reaper.waitUntilEmpty(kWhile));
        EXPECT_EQ(CountedRequest::sAlive, 1);
        if (completedFirst)
            reaper.finished(request);
        else
            Complete(request);
        EXPECT_TRUE(reaper.waitUntilEmpty(kLimit));
        EXPECT_EQ(CountedRequest::sAlive, 0);
    }
}

TEST_F(RequestReaperTest, DeletesTheCompletedOneOfSeveral)
{
    std::vector<CountedRequest*> requests;
    std::vector<std::promise<void>> deleted(5);
    RequestReaper reaper;
    for (size_t i = 0; i < deleted.size(); ++i) {
        CountedRequest& request = open(reaper);
        requests.push_back(&request);
        request.onDeleted = [&deleted, i] { deleted[i].set_value(); };
        reaper.finished(request);
    }
    int left = 5;
    for (const size_t i : {2u, 4u, 0u, 3u, 1u}) {
        Complete(*requests[i]);
        ASSERT_EQ(deleted[i].get_future().wait_for(kLimit), std::future_status::ready);
        EXPECT_EQ(CountedRequest::sAlive, --left);
    }
    EXPECT_TRUE(reaper.waitUntilEmpty(kLimit));
}

// The callers hold locks, and one of them is the request's own.
TEST_F(RequestReaperTest, DeletesOnNeitherOfItsCallersThreads)
{
    for (const bool completedFirst : {false, true}) {
        std::promise<std::thread::id> where;
        RequestReaper reaper;
        CountedRequest& request = open(reaper);
        request.onDeleted = [&where] { where.set_value(std::this_thread::get_id()); };
        if (completedFirst)
            Complete(request);
        reaper.finished(request);
        if (!completedFirst)
            Complete(request);
        auto thread = where.get_future();
        ASSERT_EQ(thread.wait_for(kLimit), std::future_status::ready);
        EXPECT_NE(thread.get(), std::this_thread::get_id());
    }
}

// Keeps the reaper's own thread from its work, as long as it lives.
class BusyReaper
{
public:
    BusyReaper(CountedRequest& request, RequestReaper& reaper)
    {
        auto end = std::make_shared<std::future<void>>(mEnd.get_future());
        auto begun = std::make_shared<std::promise<void>>();
        request.onDeleted = [begun, end] {
            begun->set_value();
            end->wait_for(kLimit);
        };
        reaper.finished(request);
        Complete(request);
        EXPECT_EQ(begun->get_future().wait_for(kLimit), std::future_status::ready);
    }
    ~BusyReaper() { mEnd.set_value(); }
    BusyReaper(const BusyReaper&) = delete;
    BusyReaper& operator=(const BusyReaper&) = delete;

private:
    std::promise<void> mEnd;
};

TEST_F(RequestReaperTest, ReapsOnTheThreadThatAsksForIt)
{
    std::thread::id where;
    RequestReaper reaper;
    reaper.reap();
    {
        const BusyReaper busy(open(reaper), reaper);
        CountedRequest& request = open(reaper);
        request.onDeleted = [&where] { where = std::this_thread::get_id(); };
        reaper.finished(request);
        reaper.reap();
        ASSERT_EQ(reaper.getOpenCount(), 2u);
        Complete(request);
        reaper.reap();
        EXPECT_EQ(reaper.getOpenCount(), 1u);
        EXPECT_EQ(where, std::this_thread::get_id());
    }
    EXPECT_TRUE(reaper.waitUntilEmpty(kLimit));
}

TEST_F(RequestReaperTest, ReapsTwoAtATime)
{
    constexpr size_t kStaying = 3;
    constexpr size_t kOver = 4;
    std::vector<CountedRequest*> staying;
    std::vector<CountedRequest*> over;
    RequestReaper reaper;
    {
        const BusyReaper busy(open(reaper), reaper);
        for (size_t i = 0; i < kStaying + kOver; ++i) {
            CountedRequest& request = open(reaper);
            (i < kStaying ? staying : over).push_back(&request);
            reaper.finished(request);
        }
        for (CountedRequest* request : over)
            Complete(*request);
        for (const size_t left : {5u, 3u, 3u}) {
            reaper.reap();
            EXPECT_EQ(reaper.getOpenCount(), 1 + left);
        }
    }
    for (CountedRequest* request : staying)
        Complete(*request);
    EXPECT_TRUE(reaper.waitUntilEmpty(kLimit));
}

TEST_F(RequestReaperTest, ReapsOnSeveralThreads)
{
    constexpr int kRequests = 2000;
    RequestReaper reaper;
    std::vector<std::thread> workers;
    for (int i = 0; i < 4; ++i) {
        workers.emplace_back([&reaper] {
            for (int n = 0; n < kRequests; ++n) {
                CountedRequest& request = open(reaper);
                reaper.finished(request);
                Complete(request);
                reaper.reap();
            }
        });
    }
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_TRUE(reaper.waitUntilEmpty(kLimit));
}

TEST_F(RequestReaperTest, DeletesNothingWhileItsCompletionGoesOn)
{
    RequestReaper reaper;
    CountedRequest& request = open(reaper);
    reaper.finished(request);
    {
        qvMutexLocker lock(&DispatchAccess::mutex(request.getResponseDevice()));
        DispatchAccess::completed(request) = true;
        static_cast<HttpBaseRequest&>(request).onCompleted(0);
        EXPECT_FALSE(reaper.waitUntilEmpty(kWhile));
        EXPECT_EQ(CountedRequest::sAlive, 1);
    }
    EXPECT_TRUE(reaper.waitUntilEmpty(kLimit));
}

// A request may be held up for as long as its device's lock is; the reaper's callers are not.
TEST_F(RequestReaperTest, ServesItsCallersWhileARequestHoldsItUp)
{
    RequestReaper reaper;
    CountedRequest& held = open(reaper);
    reaper.finished(held);
    qvMutexLocker lock(&DispatchAccess::mutex(held.getResponseDevice()));
    DispatchAccess::completed(held) = true;
    static_cast<HttpBaseRequest&>(held).onCompleted(0);
    EXPECT_FALSE(reaper.waitUntilEmpty(kWhile));  // the reaper stands at the lock
    for (int i = 0; i < 100; ++i) {
        CountedRequest& request = open(reaper);
        reaper.finished(request);
        Complete(request);
    }
    EXPECT_EQ(reaper.getOpenCount(), 101u);
}

// The destructor of a request may ask the reaper: it is deleted without the reaper's lock.
TEST_F(RequestReaperTest, DeletesWithoutItsLock)
{
    for (const bool inDestructor : {false, true}) {
        SCOPED_TRACE(inDestructor);
        std::promise<size_t> seen;
        {
            RequestReaper reaper;
            CountedRequest& request = open(reaper);
            request.onDeleted = [&] { seen.set_value(reaper.getOpenCount()); };
            reaper.finished(request);
            if (!inDestructor) {
                Complete(request);
                EXPECT_TRUE(reaper.waitUntilEmpty(kLimit));
            }
        }
        EXPECT_EQ(seen.get_future().wait_for(kLimit), std::future_status::ready);
    }
}

TEST_F(RequestReaperTest, LeavesNothingWhenItIsDestroyed)
{
    {
        RequestReaper reaper;
        for (int i = 0; i < 1000; ++i) {
            CountedRequest& request = open(reaper);
            reaper.finished(request);
            if (i % 3 == 0)
                Complete(request);
        }
    }
    EXPECT_EQ(CountedRequest::sAlive, 0);
}

TEST_F(RequestReaperTest, TellsEveryoneWhoWaitsForTheLast)
{
    RequestReaper reaper;
    CountedRequest& first = open(reaper);
    CountedRequest& second = open(reaper);
    std::vector<std::thread> waiters;
    std::atomic<int> told{0};
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] { told += reaper.waitUntilEmpty(kLimit); });
    Complete(first);
    reaper.finished(first);
    Complete(second);
    reaper.finished(second);
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(told, 4);
}

// Workers and daemon threads at once, the two ends of a request in any order.
TEST_F(RequestReaperTest, DeletesEachOfThousandsFromManyThreads)
{
    constexpr int kThreads = 4;
    constexpr int kRequests = 2500;
    std::atomic<int> deleted{0};
    RequestReaper reaper;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::deque<CountedRequest*> finishedFirst;
            std::deque<CountedRequest*> completedFirst;
            const auto endOne = [&] {
                if (!finishedFirst.empty()) {
                    Complete(*finishedFirst.front());
                    finishedFirst.pop_front();
                }
                if (!completedFirst.empty()) {
                    reaper.finished(*completedFirst.front());
                    completedFirst.pop_front();
                }
            };
            for (int i = 0; i < kRequests; ++i) {
                CountedRequest& request = open(reaper);
                request.onDeleted = [&deleted] { ++deleted; };
                if ((i + t) % 3 == 0) {
                    Complete(request);
                    completedFirst.push_back(&request);
                } else {
                    finishedFirst.push_back(&request);
                    reaper.finished(request);
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
    EXPECT_TRUE(reaper.waitUntilEmpty(kLimit));
    EXPECT_EQ(deleted, kThreads * kRequests);
}

}  // namespace
}  // namespace qv::kit::tests
