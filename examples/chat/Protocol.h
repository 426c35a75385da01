/// The protocol between client and server: JSON in text messages, pictures in binary ones.
#ifndef CHAT_PROTOCOL_H
#define CHAT_PROTOCOL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace chat
{

constexpr size_t kMaxMessageBytes = 16384;  ///< of a whole text message
constexpr size_t kMaxNameBytes = 64;        ///< of a nickname and of a room's name
constexpr size_t kMaxTextBytes = 4000;      ///< of one line
constexpr size_t kMaxPictureBytes = 2u << 20;

/// A text message of a client.
struct ClientMessage
{
    enum Kind { Invalid, Join, Say };

    Kind kind = Invalid;
    std::string error;  ///< why it is invalid, for the client to read
    std::string room;
    std::string nickname;
    std::string text;
};

/// Reads one text message. Names and text are returned without spaces at the ends; a message that
/// breaks a limit above, or in which a name is empty, is invalid.
ClientMessage parseClientMessage(std::string_view message);

/// The media type of a picture by its first bytes: PNG, JPEG, GIF or WebP; empty for all else.
std::string pictureType(std::string_view bytes);

std::string joinedMessage(const std::string& room, const std::string& nickname);
std::string peopleMessage(const std::vector<std::string>& nicknames);
std::string lineMessage(const std::string& from, const std::string& text, int64_t timeMs);

/// The bytes follow in a binary message right after this one, unless the server has dropped
/// them.
std::string pictureMessage(const std::string& from, const std::string& mediaType, int64_t timeMs,
                           bool bytesFollow);
std::string errorMessage(const std::string& text);

}  // namespace chat

#endif
