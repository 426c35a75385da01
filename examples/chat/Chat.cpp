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

// How long those who are still sent something at the end have to take it.
constexpr std::chrono::milliseconds kLastWordsLimit(1000);

constexpr const char* kErrorBody = "{\"error\":\"The server failed.\",\"status\":500}";
constexpr const char* kPolicy = "default-src 'none'; script-src 'self'; style-src 'self'; "
                                "img-src blob:; connect-src 'self' ws: wss:; base-uri 'none'; "
                                "form-action 'none'; frame-ancestors 'none'";

}  // namespace

Chat::Chat()
{
    setErrorBody(kErrorBody);
}

void Chat::handleRequest(HttpBaseRequest* base)
{
    auto& request = static_cast<PageRequest&>(*base);
    request.addHeader("Content-Security-Policy", kPolicy);
    request.addHeader("X-Content-Type-Options", "nosniff");
    request.addHeader("Referrer-Policy", "no-referrer");
    request.addHeader("Cache-Control", "no-store");
    const HttpBaseRequest::RequestType type = request.getRequestType();
    if (request.hasParseError()) {
        request.replyError(type == HttpBaseRequest::UNKNOWN_HTTP_METHOD ? 501 : 400,
                           request.getParseError());
    } else if (type == HttpBaseRequest::GET || type == HttpBaseRequest::HEAD) {
        serve(request, request.getUrl().path());
    } else {
        request.addHeader("Allow", "GET,HEAD");
        request.replyError(405, "The method is not allowed here.");
    }
}

void Chat::serve(PageRequest& request, const std::string& path)
{
    if (path == "/") {
        request.reply(200, "text/html; charset=utf-8", std::string(kPage));
    } else if (path == "/chat.js") {
        request.reply(200, "text/javascript; charset=utf-8", std::string(kScript));
    } else if (path == "/chat.css") {
        request.reply(200, "text/css; charset=utf-8", std::string(kStyle));
    } else if (path == "/api/status") {
        sendStatus(request);
    } else if (path == "/live") {
        // A request for an upgrade that is not spelt as the library wants it.
        request.addHeader("Upgrade", "WebSocket");
        request.replyError(426, "Only a connection upgraded to a WebSocket is served here; "
                                "browsers need the proxy of deploy/ for that.");
    } else {
        request.replyError(404, "There is no such page.");
    }
}

void Chat::sendStatus(PageRequest& request)
{
    const nlohmann::json status = {{"connections", mHub.getCount()},
                                   {"people", mRooms.getPeopleCount()},
                                   {"rooms", mRooms.getRoomCount()}};
    request.reply(200, "application/json", status.dump());
}

void Chat::onNewWebSocket(qv::http::WebSocket* socket)
{
    mHub.adopt<ChatSocket>(socket, mRooms);
}

// The connections must be closed while the daemon is still there to close them.
void Chat::onServerStopped()
{
    mHub.close(kLastWordsLimit);
}

}  // namespace chat
