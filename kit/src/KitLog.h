// Log lines of the kit.
#ifndef WENDREL_KIT_KITLOG_H
#define WENDREL_KIT_KITLOG_H

#include <exception>
#include <string>
#include <string_view>

namespace qv::kit
{

// One line at level error, category "kit": to the installed log, otherwise to standard error.
void LogError(const std::string& message);

// The same as "ROUTE: text", or "text" without a route, where there may be no memory and where
// nothing may be thrown: a line that cannot be written is lost.
void LogOfRoute(const std::string& route, std::string_view text,
                std::string_view detail = std::string_view()) noexcept;

constexpr const char* kOtherException = "an exception that is no std::exception";

// Calls the application; after an exception `log(failure, its text)`, which must not throw.
template <typename Call, typename Log>
void callLogged(const char* failure, const Call& call, const Log& log) noexcept
{
    try {
        call();
    } catch (const std::exception& error) {
        log(failure, error.what());
    } catch (...) {
        log(failure, kOtherException);
    }
}

}  // namespace qv::kit

#endif
