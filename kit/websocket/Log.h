// Log lines of WebSocket sessions.
#ifndef WENDREL_KIT_WEBSOCKET_LOG_H
#define WENDREL_KIT_WEBSOCKET_LOG_H

#include <Wendrel/kit/websocket/WebSocketOptions.h>

#include <string_view>

namespace qv::kit::websocket
{

// One line of a session: `text`, then `detail`, after the name of the route if it has one. Where
// there may be no memory: a line that cannot be written is lost.
void logOfSession(const WebSocketOptions& options, std::string_view text,
                  std::string_view detail) noexcept;

}  // namespace qv::kit::websocket

#endif
