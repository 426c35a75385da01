// How much the keeper works. It is compiled once more here, over a request class that counts how
// often it is asked whether it is completed: that look is all that a sweep does for a request
// that stays, so that the looks are the cost.

#include <Wendrel/HttpRequest.h>

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace qv
{

class CountingRequest
{
public:
    bool isCompleted() const
    {
        ++sLooks;
        return completed;
    }

    std::atomic<bool> completed{false};
    static std::atomic<uint64_t> sLooks;
};

std::atomic<uint64_t> CountingRequest::sLooks{0};

}  // namespace qv

#ifdef WENDREL_KIT_REQUESTKEEPER_H
#error "The keeper of the kit must not be known here."
#endif
#define HttpBaseRequest CountingRequest
#define RequestKeeper CountingKeeper
#include "../../../kit/src/RequestKeeper.cpp"
#undef HttpBaseRequest
#undef RequestKeeper

namespace qv::kit::tests
{
namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kGatherMs(20);
constexpr std::chrono::milliseconds kWhile(200);
constexpr std::chrono::seconds kLimit(60);

// Of requests that stay open, finished by their worker, while `shortOnes` come and go.
struct Work
{
    uint64_t looks;
    uint64_t periods;  // of gathering that went by
};

Work keepBusy(size_t staying, size_t shortOnes)
{
    CountingKeeper keeper;
    const auto open = [&keeper] {
        keeper.opened();
        return std::make_unique<CountingRequest>();
    };
    for (size_t i = 0; i < staying; ++i)
        keeper.finished(open());
    CountingRequest::sLooks = 0;
    const Clock::time_point begin = Clock::now();
    for (size_t i = 0; i < shortOnes; ++i) {
        auto request = open();
        request->completed = true;
        keeper.completed();
        keeper.finished(std::move(request));
        if (i % 16 == 0)
            std::this_thread::yield();
    }
    const Clock::time_point end = begin + kLimit;
    while (keeper.getOpenCount() > staying && Clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(keeper.getOpenCount(), staying);
    return {CountingRequest::sLooks, static_cast<uint64_t>((Clock::now() - begin) / kGatherMs)};
}

// Each sweep has either waited its 20 ms or been paid for by a quarter as many events as it
// looks at requests. Two events belong to each short request, and it is looked at itself.
TEST(RequestKeeperWork, GrowsWithTheEventsAndNotWithTheOpenRequests)
{
    for (const size_t staying : {0u, 1000u, 4000u, 16000u}) {
        for (const size_t shortOnes : {1000u, 8000u}) {
            SCOPED_TRACE(std::to_string(staying) + " open, " + std::to_string(shortOnes));
            const Work work = keepBusy(staying, shortOnes);
            const uint64_t paid = 4 * 2 * shortOnes + shortOnes;
            const uint64_t waited = (work.periods + 2) * (staying + shortOnes);
            EXPECT_LE(work.looks, paid + waited);
            EXPECT_GE(work.looks, shortOnes);
        }
    }
}

TEST(RequestKeeperWork, IsNoneWhileNothingIsCompleted)
{
    CountingKeeper keeper;
    CountingRequest::sLooks = 0;
    for (int i = 0; i < 1000; ++i) {
        keeper.opened();
        keeper.finished(std::make_unique<CountingRequest>());
    }
    EXPECT_FALSE(keeper.waitUntilEmpty(kWhile));
    EXPECT_EQ(CountingRequest::sLooks, 0u);
}

// Completions of requests whose workers are still busy give nothing to look for over and over.
TEST(RequestKeeperWork, IsOneLookWhenOnlyOtherRequestsAreCompleted)
{
    constexpr uint64_t kStaying = 1000;
    CountingKeeper keeper;
    for (uint64_t i = 0; i < kStaying; ++i) {
        keeper.opened();
        keeper.finished(std::make_unique<CountingRequest>());
    }
    CountingRequest::sLooks = 0;
    keeper.opened();
    auto busy = std::make_unique<CountingRequest>();
    busy->completed = true;
    keeper.completed();
    EXPECT_FALSE(keeper.waitUntilEmpty(kWhile));
    EXPECT_LE(CountingRequest::sLooks, kStaying);
    keeper.finished(std::move(busy));
    const Clock::time_point end = Clock::now() + kLimit;
    while (keeper.getOpenCount() > kStaying && Clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(keeper.getOpenCount(), kStaying);
}

}  // namespace
}  // namespace qv::kit::tests
