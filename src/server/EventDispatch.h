// The daemon callbacks of event-driven mode. A request that waits for its application is suspended.
#ifndef WENDREL_SERVER_EVENTDISPATCH_H
#define WENDREL_SERVER_EVENTDISPATCH_H

#include <microhttpd.h>

#include <string>

namespace qv
{
class HttpBaseRequest;
}

namespace qv::impl
{

class Connection;

// The record of a connection; null for the one that the server has with itself.
Connection* ConnectionOf(MHD_Connection* connection);

// Tells the request, once, that it ends without its response. Its devices are in error already, or
// nothing waits for them. Daemon thread.
void ReportAbort(HttpBaseRequest& request, Connection& record, const std::string& reason);

// Ends a request without its response, and tells it; `reason` unless it has been aborted for
// another one. The connection may have begun or ended to know the request. Needs no memory. Daemon
// thread.
void AbortRequest(HttpBaseRequest& request, Connection& record, const char* reason);

// Of all four `closure` is the EventDaemon, except for OpenEventContext, which has none.

// URI-log callback: the request line has been received.
void* OpenEventContext(void* closure, const char* uri, MHD_Connection* connection);

// Connection callback: sets the Connection as the socket's context.
void NotifyConnection(void* closure, MHD_Connection* connection, void** socketContext,
                      MHD_ConnectionNotificationCode code);

// Access handler; `slot` holds a ConnectionContext.
MHD_Result HandleEventAccess(void* closure, MHD_Connection* connection, const char* url,
                             const char* method, const char* version, const char* uploadData,
                             size_t* uploadSize, void** slot);

// Request-completed callback.
void EventRequestCompleted(void* closure, MHD_Connection* connection, void** slot,
                           MHD_RequestTerminationCode code);

}  // namespace qv::impl

#endif
