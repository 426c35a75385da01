// Creates responses and queues them.

#include "bare/Reply.h"

#include "support/Content.h"

#include <string_view>

namespace bench
{
namespace
{

constexpr size_t kStreamBlockBytes = 65536;

MHD_Response* withType(MHD_Response* response)
{
    if (response)
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, kContentType);
    return response;
}

MHD_Response* makeWhole(const std::string& body, MHD_ResponseMemoryMode mode)
{
    return withType(
        MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), mode));
}

}  // namespace

Question questionOf(MHD_Connection* connection, const char* method, const char* path)
{
    return parseQuestion(method, path, [connection](const char* name) -> std::string_view {
        const char* value = MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, name);
        return value ? value : std::string_view();
    });
}

MHD_Response* makeLasting(const std::string& body)
{
    return makeWhole(body, MHD_RESPMEM_PERSISTENT);
}

MHD_Response* makeCopied(const std::string& body)
{
    return makeWhole(body, MHD_RESPMEM_MUST_COPY);
}

MHD_Response* makeStream(MHD_ContentReaderCallback read, void* closure)
{
    return withType(MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kStreamBlockBytes, read,
                                                      closure, nullptr));
}

MHD_Result queueAndDestroy(MHD_Connection* connection, unsigned int status, MHD_Response* response)
{
    if (!response)
        return MHD_NO;
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

}  // namespace bench
