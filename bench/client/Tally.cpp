// Measurements of the connections.

#include "client/Tally.h"

#include <algorithm>
#include <cstdio>
#include <iostream>

namespace bench::client
{
namespace
{

constexpr uint64_t kErrorsSaid = 5;
constexpr double kMiddle = 0.5;
constexpr double kAlmostAll = 0.99;
constexpr size_t kReportBytes = 256;

}  // namespace

void Tally::add(Clock::duration took)
{
    mMicroseconds.push_back(std::chrono::duration<float, std::micro>(took).count());
}

void Tally::addError(const std::string& what)
{
    if (++mErrors <= kErrorsSaid)
        std::cerr << "wendrel-bench-websocket-client: " + what + "\n";
}

void Tally::merge(const Tally& other)
{
    mMicroseconds.insert(mMicroseconds.end(), other.mMicroseconds.begin(),
                         other.mMicroseconds.end());
    mErrors += other.mErrors;
}

float Tally::quantile(double part)
{
    if (mMicroseconds.empty())
        return 0;
    const auto last = static_cast<double>(mMicroseconds.size() - 1);
    const auto at = mMicroseconds.begin() + static_cast<std::ptrdiff_t>(part * last);
    std::nth_element(mMicroseconds.begin(), at, mMicroseconds.end());
    return *at;
}

std::string Tally::report(double seconds)
{
    const size_t messages = mMicroseconds.size();
    const double p50 = quantile(kMiddle);
    const double p99 = quantile(kAlmostAll);
    const double longest = quantile(1);
    char line[kReportBytes];
    std::snprintf(line, sizeof line,
                  "{\"messages\":%zu,\"seconds\":%.3f,\"per_second\":%.1f,\"p50_us\":%.1f,"
                  "\"p99_us\":%.1f,\"max_us\":%.1f,\"errors\":%llu}",
                  messages, seconds, static_cast<double>(messages) / seconds, p50, p99, longest,
                  static_cast<unsigned long long>(mErrors));
    return line;
}

}  // namespace bench::client
