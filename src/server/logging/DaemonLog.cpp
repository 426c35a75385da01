// The daemon's own messages, as lines of our log.

#include "server/logging/DaemonLog.h"

#include "server/logging/LogObject.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

namespace qv::impl
{
namespace
{

constexpr size_t kBufferBytes = 1024;

// Required: vertical tab and form feed are kept.
constexpr std::string_view kTrailing("\0\t\n\r ", 5);

}  // namespace

void LogDaemonMessage(void*, const char* format, va_list arguments)
{
    char buffer[kBufferBytes];
    const int formatted = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    if (formatted < 0)
        return;
    std::string_view message(buffer, std::min(static_cast<size_t>(formatted), kBufferBytes - 1));
    message = message.substr(0, message.find_last_not_of(kTrailing) + 1);
    qvLogObject(qvLogObject::kWarning) << "libmicrohttpd: " << message;
}

}  // namespace qv::impl
