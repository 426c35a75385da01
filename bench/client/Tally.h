// Measurements of the connections.
#ifndef BENCH_CLIENT_TALLY_H
#define BENCH_CLIENT_TALLY_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace bench::client
{

using Clock = std::chrono::steady_clock;

// One per thread; put together at the end.
class Tally
{
public:
    // A message came back so long after it was sent.
    void add(Clock::duration took);

    // Something went wrong; the first few are said on standard error.
    void addError(const std::string& what);

    void merge(const Tally& other);

    // One line of JSON. Reorders the measurements.
    std::string report(double seconds);

    // Whether there were messages and no errors.
    bool isGood() const { return !mMicroseconds.empty() && mErrors == 0; }

private:
    float quantile(double part);

    std::vector<float> mMicroseconds;
    uint64_t mErrors = 0;
};

}  // namespace bench::client

#endif
