// Streamed bodies of event-driven mode: a connection whose body has nothing to send is suspended.
#ifndef WENDREL_SERVER_EVENTSTREAM_H
#define WENDREL_SERVER_EVENTSTREAM_H

#include "server/ResponseQueue.h"

#include <microhttpd.h>

#include <sys/types.h>

#include <vector>

namespace qv::impl
{

class Connection;

// Content reader of a body from the queues; `closure` is the HttpBaseRequest.
ssize_t ReadEventContent(void* closure, uint64_t position, char* buffer, size_t size);

// As Decide, also for a body from a source. The device's mutex is held.
Decision DecideEvent(HttpResponseDevice& device, HttpBaseRequest& request, std::vector<char>& body);

// Queues the response whose body comes from the device's source.
MHD_Result QueueSource(HttpBaseRequest& request, Connection& record, MHD_Connection* connection,
                       const ExtraHeaders& extra);

// Queues the response to a request whose response has a body that is not sent.
MHD_Result QueueHeadOnly(HttpBaseRequest& request, MHD_Connection* connection,
                         const ExtraHeaders& extra);

// Whether a response with this status has no body on the wire.
bool IsWithoutBody(const HttpBaseRequest& request, uint32_t status);

}  // namespace qv::impl

#endif
