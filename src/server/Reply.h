// Responses of the library itself.
#ifndef WENDREL_SERVER_REPLY_H
#define WENDREL_SERVER_REPLY_H

#include <microhttpd.h>

namespace qv::http
{
class HttpServerImpl;
}

namespace qv::impl
{

// Queues the response and gives up this side's hold on it. Null, for which there was no memory,
// closes the connection.
MHD_Result QueueAndDestroy(MHD_Connection* connection, unsigned int status, MHD_Response* response);

// Queues status 500 with the application's error body, which is sent from where it stands.
MHD_Result QueueErrorBody(const http::HttpServerImpl& application, MHD_Connection* connection);

}  // namespace qv::impl

#endif
