// The connection of one browser: passes its messages to its room, and those of the room to it.

#include "ChatSocket.h"

#include "Protocol.h"

#include <qvSystem/qvSystemUtils.h>

#include <utility>

namespace chat
{

namespace
{

constexpr const char* kNotInARoom = "Join a room first.";

int64_t nowMs()
{
    return qv::qvSystemUtils::GetMSecElapsedSinceEpoch();
}

}  // namespace

ChatSocket::ChatSocket(qv::http::WebSocket&& upgraded, Rooms& rooms)
    : HubConnection(std::move(upgraded)), mRooms(rooms)
{}

void ChatSocket::onMessageReceived(std::vector<uint8_t>& received, bool isBinary)
{
    const std::string_view bytes(reinterpret_cast<const char*>(received.data()), received.size());
    // Pings and pongs of a client arrive as messages, mostly empty ones.
    if (bytes.empty())
        return;
    if (isBinary)
        receivePicture(bytes);
    else
        receiveText(bytes);
}

void ChatSocket::receiveText(std::string_view text)
{
    const ClientMessage parsed = parseClientMessage(text);
    std::string error = parsed.error;
    if (parsed.kind == ClientMessage::Join)
        error = mRooms.join(*this, parsed.room, parsed.nickname);
    else if (parsed.kind == ClientMessage::Say && !mRooms.say(*this, parsed.text, nowMs()))
        error = kNotInARoom;
    if (!error.empty())
        sendText(errorMessage(error));
}

void ChatSocket::receivePicture(std::string_view bytes)
{
    const std::string mediaType = pictureType(bytes);
    if (mediaType.empty())
        sendText(errorMessage("This is not a PNG, JPEG, GIF or WebP picture."));
    else if (bytes.size() > kLargestPictureBytes)
        sendText(errorMessage("The picture is larger than 2 MiB."));
    else if (!mRooms.showPicture(*this, mediaType, std::string(bytes), nowMs()))
        sendText(errorMessage(kNotInARoom));
}

void ChatSocket::deliverText(const std::string& text)
{
    sendText(text);
}

void ChatSocket::deliverBinary(std::string_view bytes)
{
    sendBinary(bytes);
}

void ChatSocket::onClosed()
{
    mRooms.leave(*this);
}

}  // namespace chat
