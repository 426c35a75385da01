// The protocol between client and server.

#include "Protocol.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace chat
{

namespace
{

using Json = nlohmann::json;

ClientMessage invalid(const std::string& error)
{
    ClientMessage message;
    message.error = error;
    return message;
}

std::string trimmed(const std::string& text)
{
    constexpr const char* kSpaces = " \t\r\n";
    const size_t first = text.find_first_not_of(kSpaces);
    if (first == std::string::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kSpaces) - first + 1);
}

std::string field(const Json& json, const char* name)
{
    const auto found = json.find(name);
    return found != json.end() && found->is_string() ? trimmed(found->get<std::string>())
                                                     : std::string();
}

// The error of a nickname or a chat room's name; empty when valid.
std::string troubleWithName(const std::string& what, const std::string& name)
{
    if (name.empty())
        return what + " is missing.";
    if (name.size() > kMaxNameBytes)
        return what + " is too long: " + std::to_string(kMaxNameBytes) + " bytes at most.";
    const bool hasControl = std::any_of(name.begin(), name.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    });
    return hasControl ? what + " contains control characters." : std::string();
}

ClientMessage join(const Json& json)
{
    ClientMessage message;
    message.kind = ClientMessage::Join;
    message.room = field(json, "room");
    message.nickname = field(json, "nickname");
    std::string trouble = troubleWithName("The room", message.room);
    if (trouble.empty())
        trouble = troubleWithName("The nickname", message.nickname);
    return trouble.empty() ? message : invalid(trouble);
}

ClientMessage say(const Json& json)
{
    ClientMessage message;
    message.kind = ClientMessage::Say;
    message.text = field(json, "text");
    if (message.text.empty())
        return invalid("There is no text.");
    if (message.text.size() > kMaxTextBytes)
        return invalid("The text is too long: " + std::to_string(kMaxTextBytes) +
                       " bytes at most.");
    return message;
}

}  // namespace

ClientMessage parseClientMessage(std::string_view message)
{
    if (message.size() > kMaxMessageBytes)
        return invalid("The message is too long.");
    // Refuses invalid UTF-8 as well; does not throw.
    const Json json = Json::parse(message.begin(), message.end(), nullptr, false);
    const std::string type = json.is_object() ? field(json, "type") : std::string();
    if (type == "join")
        return join(json);
    if (type == "say")
        return say(json);
    return invalid("The message is not understood.");
}

std::string pictureType(std::string_view bytes)
{
    using namespace std::string_view_literals;
    const auto starts = [&](std::string_view magic) {
        return bytes.substr(0, magic.size()) == magic;
    };
    if (starts("\x89PNG\r\n\x1a\n"sv))
        return "image/png";
    if (starts("\xff\xd8\xff"sv))
        return "image/jpeg";
    if (starts("GIF87a"sv) || starts("GIF89a"sv))
        return "image/gif";
    if (starts("RIFF"sv) && bytes.size() >= 12 && bytes.substr(8, 4) == "WEBP"sv)
        return "image/webp";
    return {};
}

std::string joinedMessage(const std::string& room, const std::string& nickname)
{
    return Json{{"type", "joined"}, {"room", room}, {"nickname", nickname}}.dump();
}

std::string peopleMessage(const std::vector<std::string>& nicknames)
{
    return Json{{"type", "people"}, {"people", nicknames}}.dump();
}

std::string lineMessage(const std::string& from, const std::string& text, int64_t timeMs)
{
    return Json{{"type", "line"}, {"from", from}, {"text", text}, {"time", timeMs}}.dump();
}

std::string pictureMessage(const std::string& from, const std::string& mediaType, int64_t timeMs,
                           bool bytesFollow)
{
    return Json{{"type", "picture"},
                {"from", from},
                {"mediaType", mediaType},
                {"time", timeMs},
                {"bytesFollow", bytesFollow}}
        .dump();
}

std::string errorMessage(const std::string& text)
{
    return Json{{"type", "error"}, {"text", text}}.dump();
}

}  // namespace chat
