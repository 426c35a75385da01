// Counters of the requests of a server.
#ifndef WENDREL_KIT_SRC_METRICS_H
#define WENDREL_KIT_SRC_METRICS_H

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qv::kit
{

// Each thread adds to one of several shards, without a lock and without an allocation; a reader
// adds them up. The number of values is fixed when the server is started.
class Metrics
{
public:
    // Upper ends of the buckets of durations, in microseconds.
    static constexpr std::array<int64_t, 14> kBuckets{500,     1000,    2500,    5000,    10000,
                                                      25000,   50000,   100000,  250000,  500000,
                                                      1000000, 2500000, 5000000, 10000000};

    struct Ended
    {
        size_t route = 0;  // its number; 0: none
        uint32_t status = 0;
        std::chrono::microseconds duration{0};
        uint64_t sentBytes = 0;
        uint64_t receivedBytes = 0;
        std::string_view abortReason;
    };

    // `routes`: their names, in order of their numbers. While nothing is counted.
    void start(size_t shards, const std::vector<std::string>& routes);

    // Any thread.
    void count(const Ended& request) noexcept;
    void countRefused(uint32_t status, std::string_view abortReason) noexcept;

    // In the text format of Prometheus.
    std::string text() const;

    // Appends the lines that describe a metric.
    static void describe(std::string& text, std::string_view name, std::string_view type,
                         std::string_view help);
    static void append(std::string& text, std::string_view name, std::string_view labels,
                       uint64_t value);

private:
    static constexpr size_t kMaxStatuses = 64;
    static constexpr size_t kMaxReasons = 16;
    using Counter = std::atomic<uint64_t>;

    struct Series
    {
        std::array<Counter, kMaxStatuses> statuses{};
        std::array<Counter, kBuckets.size() + 1> buckets{};
        Counter microseconds{0};
    };

    struct Shard
    {
        explicit Shard(size_t routes) : series(routes) {}

        std::vector<Series> series;  // by route
        std::array<Counter, kMaxReasons> aborted{};
        std::array<Counter, kMaxReasons> refused{};
        Counter sentBytes{0};
        Counter receivedBytes{0};
    };

    Shard& ofThread() noexcept;
    template <typename Get> uint64_t sum(const Get& get) const;
    void appendRequests(std::string& text) const;
    void appendDurations(std::string& text) const;

    std::vector<std::string> mRoutes;  // labels
    std::vector<std::unique_ptr<Shard>> mShards;
};

}  // namespace qv::kit

#endif
