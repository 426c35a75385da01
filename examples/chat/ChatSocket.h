/// One browser.
#ifndef CHAT_CHATSOCKET_H
#define CHAT_CHATSOCKET_H

#include "Rooms.h"

#include <Wendrel/kit/WebSocketHub.h>

#include <string>
#include <string_view>
#include <vector>

namespace chat
{

/// Owned by the hub; member of a chat room until it is closed.
class ChatSocket : public qv::kit::HubConnection, public Member
{
public:
    ChatSocket(qv::http::WebSocket&& upgraded, Rooms& rooms);

    void onMessageReceived(std::vector<uint8_t>& message, bool isBinary) override;

    /// Only queues. Thread: that of the sender.
    void deliverText(const std::string& text) override;
    void deliverBinary(std::string_view bytes) override;

protected:
    void onClosed() override;

private:
    void receiveText(std::string_view text);
    void receivePicture(std::string_view bytes);

    Rooms& mRooms;
};

}  // namespace chat

#endif
