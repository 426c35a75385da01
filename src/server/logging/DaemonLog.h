// The daemon's own messages, as lines of our log.
#ifndef WENDREL_SERVER_LOGGING_DAEMONLOG_H
#define WENDREL_SERVER_LOGGING_DAEMONLOG_H

#include <cstdarg>

namespace qv::impl
{

// External logger of the daemon. May run under the daemon's own locks: calls no MHD_ function, nor
// does the one below.
void LogDaemonMessage(void* closure, const char* format, va_list arguments);

// The same for event-driven mode, without the lines that the daemon writes for each response on a
// Unix socket, which has no options of TCP, for each client that closes its connection while it
// gets a response, and without the line that an expected abort follows.
void LogEventDaemonMessage(void* closure, const char* format, va_list arguments);

// Whether the access handler of the calling thread returns MHD_NO in order to end a request: the
// daemon's line about an internal error that follows is not one. Set to false by each call of the
// handler.
void ExpectAbort(bool isExpected);

// Whether the response that the calling thread cuts off is one that the application has failed to
// finish: the daemon's line about it that follows is written, although the client gets nothing.
void ReportUnsent(bool isReported);

}  // namespace qv::impl

#endif
