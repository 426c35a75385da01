// A connection that waits, suspended, for another thread.

#include "bare/Suspension.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <thread>
#include <utility>

namespace bench
{
namespace
{

constexpr std::chrono::milliseconds kCheckInterval(1);

std::atomic<size_t> sSuspended{0};
std::atomic<bool> sEnding{false};

}  // namespace

// Counted first: either `End` sees the count, or this sees the end.
void Suspension::suspend(MHD_Connection* connection)
{
    ++sSuspended;
    if (sEnding) {
        --sSuspended;
        return;
    }
    mConnection = connection;
    MHD_suspend_connection(connection);
}

void Suspension::resume()
{
    MHD_Connection* const connection = std::exchange(mConnection, nullptr);
    if (!connection)
        return;
    MHD_resume_connection(connection);
    --sSuspended;
}

void Suspension::End()
{
    sEnding = true;
    while (sSuspended != 0)
        std::this_thread::sleep_for(kCheckInterval);
}

}  // namespace bench
