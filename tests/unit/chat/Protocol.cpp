// The messages between client and server.

#include "Protocol.h"

#include <gmock/gmock.h>

namespace
{

using namespace chat;
using namespace std::string_view_literals;
using ::testing::HasSubstr;

std::string joinJson(const std::string& room, const std::string& nickname)
{
    return R"({"type":"join","room":")" + room + R"(","nickname":")" + nickname + "\"}";
}

TEST(Protocol, ReadsAJoin)
{
    const ClientMessage message = parseClientMessage(joinJson("  lobby ", "\\tÅnn\\n"));
    EXPECT_EQ(message.kind, ClientMessage::Join) << message.error;
    EXPECT_EQ(message.room, "lobby");
    EXPECT_EQ(message.nickname, "Ånn");
}

TEST(Protocol, ReadsALine)
{
    const ClientMessage message =
        parseClientMessage(R"({"type":"say","text":" a \"b\" \n c ","more":1})");
    EXPECT_EQ(message.kind, ClientMessage::Say) << message.error;
    EXPECT_EQ(message.text, "a \"b\" \n c");
}

TEST(Protocol, TakesTheLongestAndNothingLonger)
{
    const auto say = [](size_t bytes) {
        return parseClientMessage(R"({"type":"say","text":")" + std::string(bytes, 'x') + "\"}");
    };
    EXPECT_EQ(say(4000).kind, ClientMessage::Say);
    EXPECT_THAT(say(4001).error, HasSubstr("4000 bytes"));
    const std::string name(64, 'n');
    EXPECT_EQ(parseClientMessage(joinJson(name, name)).kind, ClientMessage::Join);
    EXPECT_THAT(parseClientMessage(joinJson(name + "n", name)).error, HasSubstr("The room"));
    EXPECT_THAT(parseClientMessage(joinJson(name, name + "n")).error, HasSubstr("The nickname"));
    std::string padded = R"({"type":"say","text":"x"})";
    padded.resize(16384, ' ');
    EXPECT_EQ(parseClientMessage(padded).kind, ClientMessage::Say);
    EXPECT_EQ(parseClientMessage(padded + " ").error, "The message is too long.");
}

TEST(Protocol, RefusesWhatItDoesNotUnderstand)
{
    const std::string_view rows[] = {""sv,
                                     "null"sv,
                                     "[]"sv,
                                     "{"sv,
                                     "\"join\""sv,
                                     R"({"type":1})"sv,
                                     R"({"type":"leave"})"sv,
                                     R"({"Type":"say","text":"x"})"sv,
                                     "{\"type\":\"say\",\"text\":\"\xff\"}"sv,
                                     "\0"sv};
    for (const auto row : rows) {
        const ClientMessage message = parseClientMessage(row);
        EXPECT_EQ(message.kind, ClientMessage::Invalid) << row;
        EXPECT_EQ(message.error, "The message is not understood.") << row;
    }
}

TEST(Protocol, RefusesNamesThatCannotBeShown)
{
    EXPECT_EQ(parseClientMessage(R"({"type":"join","room":3,"nickname":"A"})").error,
              "The room is missing.");
    EXPECT_EQ(parseClientMessage(joinJson("r", " ")).error, "The nickname is missing.");
    EXPECT_EQ(parseClientMessage(joinJson("a\\u0007b", "A")).error,
              "The room contains control characters.");
    EXPECT_EQ(parseClientMessage(joinJson("r", "a\\u007fb")).error,
              "The nickname contains control characters.");
    EXPECT_EQ(parseClientMessage(R"({"type":"say","text":[]})").error, "There is no text.");
}

TEST(Protocol, TellsPicturesByTheirFirstBytes)
{
    const struct
    {
        std::string_view bytes;
        const char* type;
    } rows[] = {
        {"\x89PNG\r\n\x1a\n"sv, "image/png"},
        {"\x89PNG\r\n\x1a\nrest"sv, "image/png"},
        {"\x89PNG\r\n\x1a"sv, ""},
        {"\xff\xd8\xff\xe0"sv, "image/jpeg"},
        {"\xff\xd8"sv, ""},
        {"GIF87a..."sv, "image/gif"},
        {"GIF89a"sv, "image/gif"},
        {"GIF88a"sv, ""},
        {"RIFF\x10\0\0\0WEBPVP8 "sv, "image/webp"},
        {"RIFF\x10\0\0\0WEBP"sv, "image/webp"},
        {"RIFF\x10\0\0\0WEB"sv, ""},
        {"RIFF\x10\0\0\0WAVE"sv, ""},
        {""sv, ""},
        {"<svg onload=alert(1)>"sv, ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(pictureType(row.bytes), row.type) << row.bytes;
}

TEST(Protocol, WritesWhatThePageReads)
{
    EXPECT_EQ(joinedMessage("r", "A\"b"), R"({"nickname":"A\"b","room":"r","type":"joined"})");
    EXPECT_EQ(peopleMessage({"A", "B"}), R"({"people":["A","B"],"type":"people"})");
    EXPECT_EQ(lineMessage("A", "hi", 12), R"({"from":"A","text":"hi","time":12,"type":"line"})");
    EXPECT_EQ(pictureMessage("A", "image/png", 12, false),
              R"({"bytesFollow":false,"from":"A","mediaType":"image/png","time":12,)"
              R"("type":"picture"})");
    EXPECT_EQ(errorMessage("no"), R"({"text":"no","type":"error"})");
}

}  // namespace
