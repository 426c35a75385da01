/// The opening handshake of WebSockets.
#ifndef WENDREL_KIT_WEBSOCKET_HANDSHAKE_H
#define WENDREL_KIT_WEBSOCKET_HANDSHAKE_H

#include <Wendrel/HttpDevices.h>
#include <Wendrel/kit/websocket/WebSocketOptions.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qv
{
class HttpBaseRequest;
}

namespace qv::kit::websocket
{

/// Parameters of permessage-deflate.
struct DeflateParameters
{
    bool isEnabled = false;                ///< false: no message is compressed
    bool serverNoContextTakeover = false;  ///< the server compresses messages independently
    bool clientNoContextTakeover = false;  ///< the client does
    int serverMaxWindowBits = 15;          ///< window of sent messages: 8 to 15
    int clientMaxWindowBits = 15;          ///< window of received messages: 8 to 15
};

/// The parameters of a session that both sides have agreed on; given to `Engine::open`.
struct Agreement
{
    std::string subprotocol;    ///< empty: none
    DeflateParameters deflate;  ///< of permessage-deflate
};

/// The response to a handshake.
struct HandshakeReply
{
    uint32_t status = 0;                       ///< 101: accept
    std::string reason;                        ///< why it is refused, for the body of the response
    HttpResponseInterface::HeaderMap headers;  ///< of the response
    Agreement agreement;                       ///< for `Engine::open`, when it is accepted
};

/// Checks the handshake in `request` and makes the response. Any thread that may read the request.
///
/// 101 with the headers of the response; 426 for a request without an upgrade to "websocket", or
/// with a version other than 13; 405 for a method other than GET; 400 for a missing or malformed
/// key or malformed extensions; 403 for an origin that is not allowed. The library itself refuses
/// HTTP/1.0 and handshakes with a body when it sends the 101.
HandshakeReply checkHandshake(const HttpBaseRequest& request, const WebSocketOptions& options);

/// The same with a subprotocol that the application has chosen; "" for none. `offeredSubprotocols`
/// tells which are possible.
HandshakeReply checkHandshake(const HttpBaseRequest& request, const WebSocketOptions& options,
                              const std::string& subprotocol);

/// The subprotocols that the client offers, in its order of preference.
std::vector<std::string> offeredSubprotocols(const HttpBaseRequest& request);

}  // namespace qv::kit::websocket

#endif
