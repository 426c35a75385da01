// The opening handshake of a WebSocket.
#ifndef WENDREL_SERVER_UPGRADEEXCHANGE_H
#define WENDREL_SERVER_UPGRADEEXCHANGE_H

#include <microhttpd.h>

#include <optional>

namespace qv::http
{
class HttpServer;
}

namespace qv::impl
{

// Whether the two headers (null when absent) ask for an upgrade. Both are compared with
// regard to case; "Upgrade" may stand anywhere in the connection header.
bool AsksForUpgrade(const char* upgrade, const char* connection);

// Answers a request that asks for an upgrade. Nothing when the request is to be dispatched
// the ordinary way, which is what happens as long as the library has no WebSocket layer.
std::optional<MHD_Result> AnswerUpgrade(http::HttpServer& server, MHD_Connection* connection,
                                        const char* method, const char* version);

}  // namespace qv::impl

#endif
