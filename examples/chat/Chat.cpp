// The page, and the connections of those who chat.

#include "Chat.h"

#include "Assets.h"
#include "ChatSocket.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <string>

namespace chat
{

namespace
{

using qv::HttpBaseRequest;
using qv::kit::Request;

// How long those who are still sent something at the end have to take it.
constexpr std::chrono::milliseconds kLastWordsLimit(1000);

constexpr const char* kPolicy = "default-src 'none'; script-src 'self'; style-src 'self'; "
                                "img-src blob:; connect-src 'self' ws: wss:; base-uri 'none'; "
                                "form-action 'none'; frame-ancestors 'none'";

}  // namespace

Chat::Chat()
{
    addRoutes();
}

Chat::~Chat()
{
    stopWorkers();
}

void Chat::addRoutes()
{
    const auto addAsset = [this](const char* path, const char* type, std::string_view bytes) {
        getRouter().add(HttpBaseRequest::GET, path, [type, bytes](Request& request) {
            request.reply(200, type, std::string(bytes));
        });
    };
    addAsset("/", "text/html; charset=utf-8", kPage);
    addAsset("/chat.js", "text/javascript; charset=utf-8", kScript);
    addAsset("/chat.css", "text/css; charset=utf-8", kStyle);
    getRouter().add(HttpBaseRequest::GET, "/api/status", [this](Request& request) {
        const nlohmann::json status = {{"connections", mHub.getCount()},
                                       {"people", mRooms.getPeopleCount()},
                                       {"rooms", mRooms.getRoomCount()}};
        request.reply(200, "application/json", status.dump());
    });
    // A request for an upgrade that is not spelt as the library wants it ends up here.
    getRouter().add(HttpBaseRequest::GET, "/live", [](Request& request) {
        request.getHead().setHeader("Upgrade", "WebSocket");
        request.replyError(426, "Only a connection upgraded to a WebSocket is served here; "
                                "browsers need the proxy of deploy/ for that.");
    });
}

void Chat::serve(Request& request)
{
    qv::kit::ResponseHead& head = request.getHead();
    head.setHeader("Content-Security-Policy", kPolicy);
    head.setHeader("X-Content-Type-Options", "nosniff");
    head.setHeader("Referrer-Policy", "no-referrer");
    head.setHeader("Cache-Control", "no-store");
    Application::serve(request);
}

void Chat::onNewWebSocket(qv::http::WebSocket* socket)
{
    mHub.adopt<ChatSocket>(socket, mRooms);
}

// The connections must be closed while the daemon is still there to close them.
void Chat::onServerStopped()
{
    mHub.close(kLastWordsLimit);
    Application::onServerStopped();
}

}  // namespace chat
