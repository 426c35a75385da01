// Log lines of WebSocket sessions.
#ifndef WENDREL_KIT_WEBSOCKET_LOG_H
#define WENDREL_KIT_WEBSOCKET_LOG_H

namespace qv::kit::websocket
{

// An exception has left a callback of the application.
void logException(const char* what);

}  // namespace qv::kit::websocket

#endif
