// The daemon callbacks that turn a connection's data into a request of the application.
#ifndef WENDREL_SERVER_DISPATCH_H
#define WENDREL_SERVER_DISPATCH_H

#include <microhttpd.h>

namespace qv
{
class HttpBaseRequest;
class IpAddress;
}  // namespace qv

namespace qv::impl
{

struct ConnectionContext;

// URI-log callback: makes the ConnectionContext of a request.
void* OpenContext(void* closure, const char* uri, MHD_Connection* connection);

// Value iterator; `closure` is the HttpBaseRequest. Never stops the walk.
MHD_Result TakeValue(void* closure, MHD_ValueKind kind, const char* name, const char* value);

// The values of a head, into a new request of the application.
void FillRequest(HttpBaseRequest& request, MHD_Connection* connection, const char* method,
                 const IpAddress& clientAddress, ConnectionContext& context);

// The body is complete.
void EndBody(HttpBaseRequest& request, const ConnectionContext& context);

// Access handler; `closure` is the HttpServer, `slot` holds a ConnectionContext.
MHD_Result HandleAccess(void* closure, MHD_Connection* connection, const char* url,
                        const char* method, const char* version, const char* uploadData,
                        size_t* uploadSize, void** slot);

}  // namespace qv::impl

#endif
