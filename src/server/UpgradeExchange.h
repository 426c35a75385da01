// The opening handshake of a WebSocket.
#ifndef WENDREL_SERVER_UPGRADEEXCHANGE_H
#define WENDREL_SERVER_UPGRADEEXCHANGE_H

#include <microhttpd.h>

namespace qv::http
{
class HttpServer;
}

namespace qv::impl
{

// Whether the two headers (null when absent) ask for an upgrade. Both are compared with
// regard to case; "Upgrade" may stand anywhere in the connection header.
bool IsUpgradeRequest(const char* upgrade, const char* connection);

// Responds to an upgrade request: with 101, after which the daemon calls `AcceptUpgraded`, or with
// an error.
MHD_Result RespondToUpgrade(http::HttpServer& server, MHD_Connection* connection,
                            const char* method, const char* version);

// Called by the daemon when the 101 has been sent: wraps the socket and gives it to the
// application. `closure` is the server.
void AcceptUpgraded(void* closure, MHD_Connection* connection, void* requestClosure,
                    const char* extraBytes, size_t extraSize, MHD_socket socket,
                    MHD_UpgradeResponseHandle* handle);

}  // namespace qv::impl

#endif
