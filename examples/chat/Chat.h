/// The application: the page, and the sessions of those who chat.
#ifndef CHAT_CHAT_H
#define CHAT_CHAT_H

#include <Wendrel/kit/Router.h>

namespace chat
{

/// Adds the page, its files, the WebSocket at /live, and /api/status.
void addRoutes(qv::kit::Router& router);

}  // namespace chat

#endif
