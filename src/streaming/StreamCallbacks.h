// The two daemon callbacks of the body stream.
#ifndef WENDREL_STREAMING_STREAMCALLBACKS_H
#define WENDREL_STREAMING_STREAMCALLBACKS_H

#include <microhttpd.h>

namespace qv
{
class HttpBaseRequest;
}

namespace qv::impl
{

// Content reader; `closure` is the HttpBaseRequest.
ssize_t ReadContent(void* closure, uint64_t position, char* buffer, size_t size);

// Request-completed callback; `closure` is the HttpServer, `slot` holds a ConnectionContext.
void RequestCompleted(void* closure, MHD_Connection* connection, void** slot,
                      MHD_RequestTerminationCode code);

// Ends a request that has no context any more; `closure` is the HttpServer.
void CompleteRequest(void* closure, HttpBaseRequest& request, MHD_RequestTerminationCode code);

}  // namespace qv::impl

#endif
