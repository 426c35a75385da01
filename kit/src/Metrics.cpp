// Counters of requests, and their text.

#include "Metrics.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace qv::kit
{
namespace
{

// Those with a label of their own; others are counted together. Sorted.
constexpr std::array<uint32_t, 55> kStatuses{
    0,   101, 200, 201, 202, 203, 204, 205, 206, 207, 300, 301, 302, 303, 304, 307, 308, 400, 401,
    402, 403, 404, 405, 406, 407, 408, 409, 410, 411, 412, 413, 414, 415, 416, 417, 418, 421, 422,
    423, 424, 425, 426, 428, 429, 431, 451, 500, 501, 502, 503, 504, 505, 507, 508, 511};

constexpr std::array<std::string_view, 8> kAbortReasons{
    "BodyDiscarded", "ClientAbort",    "DaemonShutdown", "MemoryExhausted",
    "ReadError",     "TimeoutReached", "UpgradeRefused", "WriteError"};

enum Refusal : uint8_t { Client, Daemon, Encoding, Host, Malformed, Redirect, Timeout, Other };
constexpr std::array<std::string_view, 8> kRefusals{"client",    "daemon",   "encoding", "host",
                                                    "malformed", "redirect", "timeout",  "other"};

constexpr std::string_view kOther = "other";
constexpr double kMicrosecondsPerSecond = 1e6;

constexpr const char* kRequests = "wendrel_requests_total";
constexpr const char* kDuration = "wendrel_request_duration_seconds";
constexpr const char* kAborted = "wendrel_requests_aborted_total";
constexpr const char* kRefused = "wendrel_requests_refused_total";

size_t indexOfStatus(uint32_t status)
{
    const auto* const found = std::lower_bound(kStatuses.begin(), kStatuses.end(), status);
    const bool isKnown = found != kStatuses.end() && *found == status;
    return isKnown ? static_cast<size_t>(found - kStatuses.begin()) : kStatuses.size();
}

std::string nameOfStatus(size_t index)
{
    if (index == kStatuses.size())
        return std::string(kOther);
    return index == 0 ? "none" : std::to_string(kStatuses.at(index));
}

size_t indexOfReason(std::string_view reason)
{
    return static_cast<size_t>(std::find(kAbortReasons.begin(), kAbortReasons.end(), reason) -
                               kAbortReasons.begin());
}

Refusal refusalOf(uint32_t status, std::string_view abortReason)
{
    constexpr std::pair<uint32_t, Refusal> kKnown[] = {
        {308, Redirect}, {400, Malformed}, {408, Timeout}, {421, Host}, {501, Encoding}};
    for (const auto& [known, refusal] : kKnown) {
        if (known == status)
            return refusal;
    }
    if (status != 0)
        return Other;
    return abortReason == "ClientAbort" ? Client : Daemon;
}

std::string labelOf(const std::string& text)
{
    std::string label;
    for (const char c : text) {
        if (c == '\\' || c == '"')
            label += '\\';
        if (c == '\n')
            label += "\\n";
        else
            label += c;
    }
    return label;
}

void appendSeconds(std::string& text, double microseconds)
{
    std::array<char, 32> number{};
    std::snprintf(number.data(), number.size(), "%.17g", microseconds / kMicrosecondsPerSecond);
    // The separator of the locale is not that of the format.
    std::replace(number.begin(), number.end(), ',', '.');
    text += number.data();
}

}  // namespace

void Metrics::start(size_t shards, const std::vector<std::string>& routes)
{
    // Counters go on over a restart: routes do not change any more.
    if (!mShards.empty())
        return;
    mRoutes.emplace_back();
    for (const std::string& route : routes)
        mRoutes.push_back(labelOf(route));
    for (size_t i = 0; i < shards; ++i)
        mShards.push_back(std::make_unique<Shard>(mRoutes.size()));
}

Metrics::Shard& Metrics::ofThread() noexcept
{
    static std::atomic<size_t> threads{0};
    thread_local const size_t number = threads++;
    return *mShards[number % mShards.size()];
}

void Metrics::count(const Ended& request) noexcept
{
    constexpr auto kOrder = std::memory_order_relaxed;
    Shard& shard = ofThread();
    Series& series = shard.series[request.route];
    const int64_t microseconds = request.duration.count();
    const auto* const bucket = std::lower_bound(kBuckets.begin(), kBuckets.end(), microseconds);
    series.statuses[indexOfStatus(request.status)].fetch_add(1, kOrder);
    series.buckets[static_cast<size_t>(bucket - kBuckets.begin())].fetch_add(1, kOrder);
    series.microseconds.fetch_add(static_cast<uint64_t>(microseconds), kOrder);
    shard.sentBytes.fetch_add(request.sentBytes, kOrder);
    if (request.receivedBytes != 0)
        shard.receivedBytes.fetch_add(request.receivedBytes, kOrder);
    if (!request.abortReason.empty())
        shard.aborted[indexOfReason(request.abortReason)].fetch_add(1, kOrder);
}

void Metrics::countRefused(uint32_t status, std::string_view abortReason) noexcept
{
    ofThread().refused[refusalOf(status, abortReason)].fetch_add(1, std::memory_order_relaxed);
}

template <typename Get> uint64_t Metrics::sum(const Get& get) const
{
    uint64_t all = 0;
    for (const auto& shard : mShards)
        all += get(*shard).load(std::memory_order_relaxed);
    return all;
}

void Metrics::describe(std::string& text, std::string_view name, std::string_view type,
                       std::string_view help)
{
    text.append("# HELP ").append(name).append(" ").append(help).append("\n# TYPE ");
    text.append(name).append(" ").append(type).append("\n");
}

void Metrics::append(std::string& text, std::string_view name, std::string_view labels,
                     uint64_t value)
{
    text.append(name);
    if (!labels.empty())
        text.append("{").append(labels).append("}");
    text.append(" ").append(std::to_string(value)).append("\n");
}

void Metrics::appendRequests(std::string& text) const
{
    describe(text, kRequests, "counter",
             "Requests that have ended, by route (empty: none) and status of the response.");
    for (size_t route = 0; route < mRoutes.size(); ++route) {
        for (size_t status = 0; status <= kStatuses.size(); ++status) {
            const uint64_t value = sum([&](const Shard& shard) -> const Counter& {
                return shard.series[route].statuses[status];
            });
            if (value != 0)
                append(text, kRequests,
                       "route=\"" + mRoutes[route] + "\",status=\"" + nameOfStatus(status) + "\"",
                       value);
        }
    }
}

void Metrics::appendDurations(std::string& text) const
{
    describe(text, kDuration, "histogram", "Seconds from the head to the end of the response.");
    const std::string name = kDuration;
    const std::string bucketName = name + "_bucket";
    for (size_t route = 0; route < mRoutes.size(); ++route) {
        std::string lines;
        uint64_t total = 0;
        std::string label = "route=\"";
        label.append(mRoutes[route]).append("\"");
        for (size_t bucket = 0; bucket <= kBuckets.size(); ++bucket) {
            total += sum([&](const Shard& shard) -> const Counter& {
                return shard.series[route].buckets[bucket];
            });
            std::string end = "+Inf";
            if (bucket < kBuckets.size()) {
                std::array<char, 48> number{};
                std::snprintf(number.data(), number.size(), "%lld.%04lld",
                              static_cast<long long>(kBuckets.at(bucket) / 1000000),
                              static_cast<long long>(kBuckets.at(bucket) % 1000000 / 100));
                end = number.data();
            }
            std::string labels = label;
            labels.append(",le=\"").append(end).append("\"");
            append(lines, bucketName, labels, total);
        }
        if (total == 0)
            continue;
        text.append(lines).append(name).append("_sum{").append(label).append("} ");
        appendSeconds(text, static_cast<double>(sum([&](const Shard& shard) -> const Counter& {
                          return shard.series[route].microseconds;
                      })));
        text += '\n';
        append(text, name + "_count", label, total);
    }
}

std::string Metrics::text() const
{
    std::string text;
    appendRequests(text);
    appendDurations(text);
    describe(text, kAborted, "counter", "Requests that ended before their response was sent.");
    for (size_t i = 0; i <= kAbortReasons.size(); ++i)
        append(text, kAborted,
               "reason=\"" + std::string(i < kAbortReasons.size() ? kAbortReasons.at(i) : kOther) +
                   "\"",
               sum([&](const Shard& shard) -> const Counter& { return shard.aborted[i]; }));
    describe(text, kRefused, "counter", "Requests that no handler could see.");
    for (size_t i = 0; i < kRefusals.size(); ++i)
        append(text, kRefused, "reason=\"" + std::string(kRefusals.at(i)) + "\"",
               sum([&](const Shard& shard) -> const Counter& { return shard.refused[i]; }));
    describe(text, "wendrel_response_body_bytes_total", "counter", "Bytes of bodies sent.");
    append(text, "wendrel_response_body_bytes_total", "",
           sum([](const Shard& shard) -> const Counter& { return shard.sentBytes; }));
    describe(text, "wendrel_request_body_bytes_total", "counter", "Bytes of bodies read.");
    append(text, "wendrel_request_body_bytes_total", "",
           sum([](const Shard& shard) -> const Counter& { return shard.receivedBytes; }));
    return text;
}

}  // namespace qv::kit
