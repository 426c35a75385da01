// The daemon's own messages, as lines of our log.

#include "server/logging/DaemonLog.h"

#include "server/logging/LogObject.h"

#include <qvSystem/SystemError.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr size_t kBufferBytes = 1024;

// Required: vertical tab and form feed are kept.
constexpr std::string_view kTrailing("\0\t\n\r ", 5);

// Of an option that the kind of socket does not have; the reason follows.
constexpr std::string_view kOptionFormat = "Setting %s option to %s state failed: %s";
constexpr std::string_view kPushFormat = "Failed to push the data from buffers to the network.";
// Of a response, with a path and a reason.
constexpr std::string_view kSendFormat = "Failed to send the ";
constexpr std::string_view kSendFormatEnd = " for the request for `%s'. Error: %s";
constexpr std::array<std::string_view, 3> kReasonsOfPeer{
    "The connection was forcibly closed by remote peer",
    "The socket is no longer available for sending", "The socket is not connected"};
constexpr std::string_view kAbortLine = "Application reported internal error, closing connection.";

thread_local bool tHasDroppedOption = false;
thread_local bool tExpectsAbort = false;
thread_local bool tReportsUnsent = false;

bool startsWith(const char* text, std::string_view start)
{
    return std::strncmp(text, start.data(), start.size()) == 0;
}

bool isUnsupportedOption(const char* format, va_list arguments)
{
    if (!startsWith(format, kOptionFormat))
        return false;
    va_list copied;
    va_copy(copied, arguments);
    va_arg(copied, const char*);  // the option
    va_arg(copied, const char*);  // the state
    const std::string_view reason = va_arg(copied, const char*);
    va_end(copied);
    return reason == SystemError(EOPNOTSUPP).toString();
}

// A response whose client has closed the connection: its completion tells the application.
bool isUnsentResponse(const char* format, va_list arguments)
{
    if (!startsWith(format, kSendFormat) ||
        std::string_view(format).find(kSendFormatEnd) == std::string_view::npos)
        return false;
    va_list copied;
    va_copy(copied, arguments);
    va_arg(copied, const char*);  // the path
    const std::string_view reason = va_arg(copied, const char*);
    va_end(copied);
    return std::find(kReasonsOfPeer.begin(), kReasonsOfPeer.end(), reason) != kReasonsOfPeer.end();
}

// Only after an expected abort: it formats the message once more.
bool isAbortLine(const char* format, va_list arguments)
{
    char buffer[kAbortLine.size() + 1];
    va_list copied;
    va_copy(copied, arguments);
    const int formatted = std::vsnprintf(buffer, sizeof buffer, format, copied);
    va_end(copied);
    return formatted >= 0 && std::string_view(buffer) == kAbortLine;
}

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

// The line about the push follows, although the bytes have been sent.
void LogEventDaemonMessage(void* closure, const char* format, va_list arguments)
{
    if (tExpectsAbort && isAbortLine(format, arguments)) {
        tExpectsAbort = false;
        return;
    }
    const bool isBehindOption = std::exchange(tHasDroppedOption, false);
    try {
        tHasDroppedOption = isUnsupportedOption(format, arguments);
        if (tHasDroppedOption || (isBehindOption && startsWith(format, kPushFormat)) ||
            (isUnsentResponse(format, arguments) && !std::exchange(tReportsUnsent, false)))
            return;
        LogDaemonMessage(closure, format, arguments);
    } catch (const std::bad_alloc&) {
        // The line is lost; the daemon's frames are those of C.
    }
}

void ExpectAbort(bool isExpected)
{
    tExpectsAbort = isExpected;
}

void ReportUnsent(bool isReported)
{
    tReportsUnsent = isReported;
}

}  // namespace qv::impl
