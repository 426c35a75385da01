// The opening handshake of a WebSocket.

#include "server/UpgradeExchange.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>

#include "server/Reply.h"

#include <cstring>
#include <memory>
#include <string>

namespace qv::impl
{
namespace
{

constexpr const char* kUpgradeToken = "WebSocket";
constexpr const char* kVersionHeader = "Sec-WebSocket-Version";
constexpr const char* kVersion = "13";
constexpr char kWrongVersionPage[] = "<html>\n<head>\n<title>WebSocket</title>\n</head>\n<body>\n"
                                     "Upgrade required\n</body>\n</html>\n";
constexpr size_t kWrongVersionPageBytes = sizeof kWrongVersionPage - 1;

MHD_Result refuseVersion(MHD_Connection* connection)
{
    MHD_Response* response = MHD_create_response_from_buffer(
        kWrongVersionPageBytes, const_cast<char*>(kWrongVersionPage), MHD_RESPMEM_PERSISTENT);
    if (response)
        MHD_add_response_header(response, kVersionHeader, kVersion);
    return QueueAndDestroy(connection, MHD_HTTP_UPGRADE_REQUIRED, response);
}

MHD_Result switchProtocols(http::HttpServer& server, MHD_Connection* connection,
                           const std::string& acceptValue)
{
    MHD_Response* response = MHD_create_response_for_upgrade(&AcceptUpgraded, &server);
    if (response) {
        MHD_add_response_header(response, "Upgrade", "websocket");
        MHD_add_response_header(response, "Sec-WebSocket-Accept", acceptValue.c_str());
        MHD_add_response_header(response, "Connection", "Upgrade");
    }
    return QueueAndDestroy(connection, MHD_HTTP_SWITCHING_PROTOCOLS, response);
}

}  // namespace

bool IsUpgradeRequest(const char* upgrade, const char* connection)
{
    return upgrade && connection && std::strcmp(upgrade, kUpgradeToken) == 0 &&
           std::strstr(connection, "Upgrade");
}

MHD_Result RespondToUpgrade(http::HttpServer& server, MHD_Connection* connection,
                            const char* method, const char* version)
{
    // Required: 500, although it is the client that is wrong.
    if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0 ||
        std::strcmp(version, MHD_HTTP_VERSION_1_1) != 0)
        return QueueErrorBody(server.getImpl(), connection);
    const char* wanted = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, kVersionHeader);
    if (!wanted || std::strcmp(wanted, kVersion) != 0)
        return refuseVersion(connection);
    const char* key = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Sec-WebSocket-Key");
    if (!key)
        return QueueErrorBody(server.getImpl(), connection);
    // Required: a key of the wrong length gives an empty value and is accepted all the same; the
    // daemon then leaves the header out.
    return switchProtocols(server, connection, http::WebSocket::ComputeSecret(key));
}

void AcceptUpgraded(void* closure, MHD_Connection*, void*, const char*, size_t, MHD_socket socket,
                    MHD_UpgradeResponseHandle* handle)
{
    // Required: bytes that came in the same packet as the handshake are not passed on.
    auto connection = std::make_unique<http::WebSocket>(socket, handle);
    static_cast<http::HttpServer*>(closure)->getImpl().onNewWebSocket(connection.release());
}

}  // namespace qv::impl
