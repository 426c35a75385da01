// The daemon's own messages, as lines of our log.
#ifndef WENDREL_SERVER_LOGGING_DAEMONLOG_H
#define WENDREL_SERVER_LOGGING_DAEMONLOG_H

#include <cstdarg>

namespace qv::impl
{

// External logger of the daemon. May run under the daemon's own locks: calls no MHD_ function.
void LogDaemonMessage(void* closure, const char* format, va_list arguments);

// The same for event-driven mode, without the lines that the daemon writes for each response on a
// Unix socket, which has no options of TCP.
void LogEventDaemonMessage(void* closure, const char* format, va_list arguments);

}  // namespace qv::impl

#endif
