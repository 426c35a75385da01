#include "Metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace qv::kit
{
namespace
{

using std::chrono::microseconds;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(Metrics, AddsUpTheCountersOfAllThreads)
{
    constexpr int kThreads = 8;
    constexpr int kRequests = 10000;
    Metrics metrics;
    metrics.start(3, {"GET /"});
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < kRequests; ++n)
                metrics.count({1, 200, microseconds(700), 3, 2, {}});
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const std::string text = metrics.text();
    EXPECT_THAT(text, HasSubstr("wendrel_requests_total{route=\"GET /\",status=\"200\"} 80000\n"));
    EXPECT_THAT(text, HasSubstr("wendrel_response_body_bytes_total 240000\n"));
    EXPECT_THAT(text, HasSubstr("wendrel_request_body_bytes_total 160000\n"));
    EXPECT_THAT(text, HasSubstr("_sum{route=\"GET /\"} 56\n"));
    EXPECT_THAT(text, Not(HasSubstr("route=\"\"")));
}

// The upper end belongs to the bucket.
TEST(Metrics, CountsDurationsInBuckets)
{
    const struct
    {
        int64_t microseconds;
        const char* last;   // bucket without it
        const char* first;  // bucket with it
    } rows[] = {
        {500, nullptr, "0.0005"},        {501, "0.0005", "0.0010"},     {1000, "0.0005", "0.0010"},
        {10000000, "5.0000", "10.0000"}, {10000001, "10.0000", "+Inf"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.microseconds);
        Metrics metrics;
        metrics.start(1, {});
        metrics.count({0, 200, microseconds(row.microseconds), 0, 0, {}});
        const std::string text = metrics.text();
        const auto bucket = [](const char* end, int value) {
            return std::string("_bucket{route=\"\",le=\"") + end + "\"} " + std::to_string(value) +
                   "\n";
        };
        if (row.last) {
            EXPECT_THAT(text, HasSubstr(bucket(row.last, 0)));
        }
        EXPECT_THAT(text, HasSubstr(bucket(row.first, 1)));
        EXPECT_THAT(text, HasSubstr(bucket("+Inf", 1)));
    }
}

TEST(Metrics, BoundsTheValuesOfLabels)
{
    Metrics metrics;
    metrics.start(2, {"GET /\"a\\b\n"});
    for (uint32_t status = 0; status < 1000; ++status) {
        metrics.count({1, status, microseconds(0), 0, 0, "made up"});
        metrics.countRefused(status, "made up");
    }
    metrics.countRefused(0, "ClientAbort");
    const std::string text = metrics.text();
    EXPECT_THAT(text, HasSubstr(R"({route="GET /\"a\\b\n",status="other"} 945)"));
    EXPECT_THAT(text, HasSubstr(R"(status="none"} 1)"));
    EXPECT_THAT(text, HasSubstr("wendrel_requests_aborted_total{reason=\"other\"} 1000\n"));
    EXPECT_THAT(text, HasSubstr("wendrel_requests_aborted_total{reason=\"ClientAbort\"} 0\n"));
    for (const char* line : {"malformed\"} 1", "encoding\"} 1", "host\"} 1", "timeout\"} 1",
                             "redirect\"} 1", "daemon\"} 1", "client\"} 1", "other\"} 994"})
        EXPECT_THAT(text, HasSubstr(std::string("refused_total{reason=\"") + line + "\n"));
}

// A restart keeps the counters.
TEST(Metrics, GoOnAfterAnotherStart)
{
    Metrics metrics;
    metrics.start(1, {"GET /"});
    metrics.count({1, 200, microseconds(1), 0, 0, {}});
    metrics.start(4, {"GET /"});
    metrics.count({1, 200, microseconds(1), 0, 0, {}});
    EXPECT_THAT(metrics.text(), HasSubstr("status=\"200\"} 2\n"));
}

}  // namespace
}  // namespace qv::kit
