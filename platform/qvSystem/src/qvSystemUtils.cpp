// Clocks and facts of the machine.

#include <qvSystem/qvSystemUtils.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace qv
{
namespace
{

template <typename Clock> int64_t millisecondsOf()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
        .count();
}

}  // namespace

int64_t qvSystemUtils::GetTimeBaseMs()
{
    return millisecondsOf<std::chrono::steady_clock>();
}

int64_t qvSystemUtils::GetMSecElapsedSinceEpoch()
{
    return millisecondsOf<std::chrono::system_clock>();
}

uint32_t qvSystemUtils::GetIdealThreadCount()
{
    return std::max(1u, std::thread::hardware_concurrency());
}

}  // namespace qv
