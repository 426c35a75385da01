// A head with more arguments than the memory of its connection holds: the daemon prepares a 431,
// then reads on behind the head that it has read already, and never sends the response.
#ifndef WENDREL_SERVER_FORGOTTENHEAD_H
#define WENDREL_SERVER_FORGOTTENHEAD_H

#include <cstdarg>

struct MHD_Connection;

namespace qv::impl
{

// Notes the request line that the daemon parses next, and forgets it. Daemon thread.
void NoteRequestLine(MHD_Connection* connection, const char* uri);
void ForgetRequestLine(const MHD_Connection* connection);

// External logger of a daemon; `closure` is the EventDaemon. The daemon says that it lacks memory,
// but not for which connection: when the one of the last request line has fewer arguments than the
// line, the 431 is sent here: no callback of this connection follows. The daemon writes the line on
// its thread while it parses the head, without a lock, and the MHD_ functions that look at the
// connection take none. Lines that may come under its locks are not looked into.
void LogOfEventDaemon(void* closure, const char* format, va_list arguments);

}  // namespace qv::impl

#endif
