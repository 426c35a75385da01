// Responds to a head that the daemon forgets. Its lines in the log are the only sign.

#include "server/ForgottenHead.h"

#include "listener/Connection.h"
#include "server/EventDaemon.h"
#include "server/EventDispatch.h"
#include "server/logging/DaemonLog.h"

#include <qvSystem/qvSystemUtils.h>

#include <microhttpd.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace qv::impl
{
namespace
{

using Phase = Connection::Phase;

constexpr std::string_view kLacksMemory = "Not enough memory in pool to allocate header record!";
constexpr const char* kTooLargeResponse = "HTTP/1.1 431 Request Header Fields Too Large\r\n"
                                          "Connection: close\r\nContent-Length: 0\r\n\r\n";

// From the response until the daemon's end of the connection is closed, too.
constexpr int64_t kCloseAfterMs = 1000;

struct RequestLine
{
    MHD_Connection* connection = nullptr;
    size_t arguments = 0;
};
thread_local RequestLine tLine;

// As the daemon counts them: nothing behind the last "&" is no argument.
size_t countArguments(const char* uri)
{
    const char* const mark = std::strchr(uri, '?');
    if (!mark || mark[1] == '\0')
        return 0;
    const std::string_view query(mark + 1);
    const auto separators = static_cast<size_t>(std::count(query.begin(), query.end(), '&'));
    return query.back() == '&' ? separators : separators + 1;
}

bool lacksArguments(const RequestLine& line)
{
    return line.connection &&
           static_cast<size_t>(MHD_get_connection_values(line.connection, MHD_GET_ARGUMENT_KIND,
                                                         nullptr, nullptr)) < line.arguments;
}

void refuse(EventDaemon& daemon, Connection& record)
{
    if (!record.claim(Phase::Head) && !record.claim(Phase::NextHead))
        return;
    const int kept = record.endWith(kTooLargeResponse);
    daemon.getTable().arm(record, qvSystemUtils::GetTimeBaseMs() + kCloseAfterMs);
    if (kept >= 0)
        daemon.getListener().keepUntilSeen(kept);
}

}  // namespace

void NoteRequestLine(MHD_Connection* connection, const char* uri)
{
    const size_t arguments = countArguments(uri);
    tLine = {arguments == 0 ? nullptr : connection, arguments};
}

void ForgetRequestLine(const MHD_Connection* connection)
{
    if (tLine.connection == connection)
        tLine.connection = nullptr;
}

void LogOfEventDaemon(void* closure, const char* format, va_list arguments)
{
    LogEventDaemonMessage(nullptr, format, arguments);
    if (std::string_view(format).substr(0, kLacksMemory.size()) != kLacksMemory ||
        !lacksArguments(tLine))
        return;
    Connection* const record = ConnectionOf(tLine.connection);
    tLine.connection = nullptr;
    if (record)
        refuse(*static_cast<EventDaemon*>(closure), *record);
}

}  // namespace qv::impl
