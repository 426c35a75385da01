/// The mode in which a test runs its servers.
#ifndef WENDREL_TESTS_INTEGRATION_TESTMODE_H
#define WENDREL_TESTS_INTEGRATION_TESTMODE_H

#include <cstdlib>
#include <string_view>

namespace integration
{

/// Whether the environment variable WENDREL_TEST_MODE is `wanted`.
inline bool isMode(std::string_view wanted)
{
    const char* const mode = std::getenv("WENDREL_TEST_MODE");
    return mode && wanted == mode;
}

/// Whether servers of event-driven mode in this process have only secure endpoints, and the clients
/// speak TLS (WENDREL_TEST_MODE=secure).
inline bool isSecure()
{
    return isMode("secure");
}

/// Whether servers of this process run in event-driven mode (WENDREL_TEST_MODE=event-driven or
/// secure) or in polling mode.
inline bool isEventDriven()
{
    return isMode("event-driven") || isSecure();
}

}  // namespace integration

#endif
