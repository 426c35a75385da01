// The page, and the sessions of those who chat.

#include "Chat.h"

#include "Assets.h"
#include "Protocol.h"
#include "Rooms.h"

#include <qvSystem/qvSystemUtils.h>

#include <nlohmann/json.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace chat
{

namespace
{

using qv::kit::ContentType;
using qv::kit::Request;
using qv::kit::Router;
using qv::kit::websocket::BinaryView;
using qv::kit::websocket::Session;
using qv::kit::websocket::SessionHandler;
using qv::kit::websocket::WebSocketOptions;

constexpr const char* kPolicy = "default-src 'none'; script-src 'self'; style-src 'self'; "
                                "img-src blob:; connect-src 'self' ws: wss:; base-uri 'none'; "
                                "form-action 'none'; frame-ancestors 'none'";

constexpr const char* kNotInARoom = "Join a room first.";

// A participant who joins gets the stored messages of the chat room at once, 4 MiB of pictures.
constexpr size_t kSendQueueBytes = 8u << 20;

int64_t nowMs()
{
    return qv::qvSystemUtils::GetMSecElapsedSinceEpoch();
}

// Serves all sessions. None of the callbacks waits, so that they run on the event loops.
class Chat : public SessionHandler
{
public:
    void onOpen(const std::shared_ptr<Session>&) override { ++mConnections; }

    void onText(Session& session, std::string_view text) override
    {
        const ClientMessage message = parseClientMessage(text);
        std::string error = message.error;
        if (message.kind == ClientMessage::Join)
            error = mRooms.join(session, message.room, message.nickname);
        else if (message.kind == ClientMessage::Say && !mRooms.say(session, message.text, nowMs()))
            error = kNotInARoom;
        if (!error.empty())
            session.sendText(errorMessage(error));
    }

    void onBinary(Session& session, BinaryView picture) override
    {
        const std::string mediaType = pictureType(picture.asText());
        if (mediaType.empty())
            session.sendText(errorMessage("This is not a PNG, JPEG, GIF or WebP picture."));
        else if (!mRooms.showPicture(session, mediaType, picture, nowMs()))
            session.sendText(errorMessage(kNotInARoom));
    }

    void onClose(Session& session, uint16_t, std::string_view, bool) override
    {
        --mConnections;
        mRooms.leave(session);
    }

    void sendStatus(Request& request) const
    {
        const nlohmann::json status = {{"connections", mConnections.load()},
                                       {"people", mRooms.getPeopleCount()},
                                       {"rooms", mRooms.getRoomCount()}};
        request.reply(200, status.dump(), ContentType::json());
    }

private:
    Rooms mRooms;
    std::atomic<size_t> mConnections{0};
};

void addPage(Router& router, const std::string& path, std::string_view content,
             const ContentType& type)
{
    const auto body = std::make_shared<const std::string>(content);
    router
        .get(path,
             [body, type](Request& request) {
                 request.setHeader("Content-Security-Policy", kPolicy);
                 request.setHeader("X-Content-Type-Options", "nosniff");
                 request.setHeader("Referrer-Policy", "no-referrer");
                 request.setHeader("Cache-Control", "no-store");
                 request.reply(body, type);
             })
        .nonBlocking();
}

WebSocketOptions sessionOptions()
{
    WebSocketOptions options;
    options.maxMessageBytes = kMaxPictureBytes;
    options.sendQueueBytes = kSendQueueBytes;
    options.deflate = false;  // lines are short, pictures are compressed already
    return options;
}

}  // namespace

void addRoutes(Router& router)
{
    auto chat = std::make_shared<Chat>();
    addPage(router, "/", kPage, ContentType::html());
    addPage(router, "/chat.js", kScript, ContentType("text/javascript; charset=utf-8"));
    addPage(router, "/chat.css", kStyle, ContentType("text/css; charset=utf-8"));
    router.webSocket("/live", sessionOptions(), [chat](Request&) { return chat; }).nonBlocking();
    router.get("/api/status", [chat](Request& request) { chat->sendStatus(request); });
}

}  // namespace chat
