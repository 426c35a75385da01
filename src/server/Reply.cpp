// Queues responses of the library itself.

#include "server/Reply.h"

#include <Wendrel/HttpServer.h>

namespace qv::impl
{

MHD_Result QueueAndDestroy(MHD_Connection* connection, unsigned int status, MHD_Response* response)
{
    if (!response)
        return MHD_NO;
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

MHD_Result QueueErrorBody(const http::HttpServerImpl& application, MHD_Connection* connection)
{
    const std::string& body = application.getErrorBody();
    return QueueAndDestroy(connection, MHD_HTTP_INTERNAL_SERVER_ERROR,
                           MHD_create_response_from_buffer(body.size(),
                                                           const_cast<char*>(body.data()),
                                                           MHD_RESPMEM_PERSISTENT));
}

}  // namespace qv::impl
