/// The application: the page, and the connections of those who chat.
#ifndef CHAT_CHAT_H
#define CHAT_CHAT_H

#include "PageRequest.h"
#include "Rooms.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/kit/WebSocketHub.h>

#include <string>

namespace chat
{

/// Owned by its server, which runs in polling mode: the hub needs it.
class Chat : public qv::http::HttpServerImpl
{
public:
    Chat();

private:
    qv::HttpBaseRequest* createRequest() override { return &mRequests.create(); }
    void handleRequest(qv::HttpBaseRequest* request) override;
    void onNewWebSocket(qv::http::WebSocket* socket) override;
    void onServerStopped() override;
    void onRequestCompleted() override {}

    void serve(PageRequest& request, const std::string& path);
    void sendStatus(PageRequest& request);

    PageRequests mRequests;
    Rooms mRooms;
    qv::kit::WebSocketHub mHub;  // after the members that its connections use
};

}  // namespace chat

#endif
