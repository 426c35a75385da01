// The end of a limited wait, on the monotonic clock.
#ifndef WENDREL_KIT_SRC_DEADLINE_H
#define WENDREL_KIT_SRC_DEADLINE_H

#include <algorithm>
#include <chrono>

namespace qv::kit
{

// A time that waiting can be limited to: not negative, and short enough that its end can be
// computed.
inline std::chrono::milliseconds bounded(std::chrono::milliseconds time)
{
    constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365);
    return std::clamp(time, std::chrono::milliseconds(0), kLongest);
}

class Deadline
{
public:
    explicit Deadline(std::chrono::milliseconds fromNow) : mEnd(Clock::now() + bounded(fromNow)) {}

    // What is left, in milliseconds, rounded up; 0 when it has passed.
    unsigned long leftMs() const
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(mEnd - Clock::now());
        return left.count() > 0 ? static_cast<unsigned long>(left.count()) : 0;
    }

private:
    using Clock = std::chrono::steady_clock;

    Clock::time_point mEnd;
};

}  // namespace qv::kit

#endif
