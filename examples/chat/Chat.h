/// The application: the page, and the connections of those who chat.
#ifndef CHAT_CHAT_H
#define CHAT_CHAT_H

#include "Rooms.h"

#include <Wendrel/kit/Application.h>
#include <Wendrel/kit/WebSocketHub.h>

namespace chat
{

/// Owned by its server.
class Chat : public qv::kit::Application
{
public:
    Chat();
    ~Chat() override;

protected:
    void serve(qv::kit::Request& request) override;
    void onNewWebSocket(qv::http::WebSocket* socket) override;
    void onServerStopped() override;

private:
    void addRoutes();

    Rooms mRooms;
    qv::kit::WebSocketHub mHub;  // after the members that its connections use
};

}  // namespace chat

#endif
