/// The mode in which a test runs its servers.
#ifndef WENDREL_TESTS_INTEGRATION_TESTMODE_H
#define WENDREL_TESTS_INTEGRATION_TESTMODE_H

#include <cstdlib>
#include <string_view>

namespace integration
{

/// Whether servers of this process run in event-driven mode (environment variable
/// WENDREL_TEST_MODE=event-driven) or in polling mode.
inline bool isEventDriven()
{
    const char* const mode = std::getenv("WENDREL_TEST_MODE");
    return mode && std::string_view(mode) == "event-driven";
}

}  // namespace integration

#endif
