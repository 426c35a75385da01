// Frames of a client, and a parser that is fed with any split of them.
#ifndef WENDREL_TESTS_UNIT_KIT_WEBSOCKET_SUPPORT_H
#define WENDREL_TESTS_UNIT_KIT_WEBSOCKET_SUPPORT_H

#include "websocket/MessageParser.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace websockettests
{

using qv::kit::websocket::MessageParser;
using qv::kit::websocket::Opcode;

inline constexpr uint8_t kFin = 0x80;
inline constexpr uint8_t kRsv1 = 0x40;
inline constexpr size_t kMessageLimitBytes = 1048576;

// `lengthBytes`: size of the extended length, -1 for the shortest form.
inline std::string rawFrame(uint8_t first, std::string_view payload, uint32_t mask = 0x6a3b91c5,
                            int lengthBytes = -1)
{
    std::string frame(1, static_cast<char>(first));
    const uint64_t size = payload.size();
    if (lengthBytes < 0)
        lengthBytes = size > 65535 ? 8 : size > 125 ? 2 : 0;
    const uint64_t code = lengthBytes == 8 ? 127 : lengthBytes == 2 ? 126 : size;
    frame.push_back(static_cast<char>(0x80 | code));
    for (int i = lengthBytes; i > 0; --i)
        frame.push_back(static_cast<char>(size >> (8 * (i - 1))));
    for (int i = 3; i >= 0; --i)
        frame.push_back(static_cast<char>(mask >> (8 * i)));
    for (size_t i = 0; i < size; ++i)
        frame.push_back(
            static_cast<char>(payload[i] ^ static_cast<char>(mask >> (8 * (3 - i % 4)))));
    return frame;
}

inline std::string frame(Opcode opcode, std::string_view payload, bool fin = true)
{
    return rawFrame(static_cast<uint8_t>((fin ? kFin : 0) | static_cast<uint8_t>(opcode)), payload);
}

// A header that announces `length` and is followed by nothing.
inline std::string announcement(uint8_t first, uint64_t length)
{
    std::string head{static_cast<char>(first), static_cast<char>(0x80 | 127)};
    for (int i = 7; i >= 0; --i)
        head.push_back(static_cast<char>(length >> (8 * i)));
    return head.append(4, '\0');
}

// The events of a parser, as text: "text:abc", "ping:", "failed:1002".
class Parsing
{
public:
    explicit Parsing(size_t limit = kMessageLimitBytes, bool allowsCompression = false,
                     qv::kit::websocket::Budget* budget = nullptr,
                     qv::kit::websocket::InflaterPool* inflaters = nullptr)
        : parser(limit, allowsCompression, budget, inflaters)
    {}

    // In memory of its own, so that a byte too far is seen.
    void feed(std::string_view bytes)
    {
        const auto exact = std::make_unique<uint8_t[]>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), exact.get());
        parser.feed(exact.get(), bytes.size());
        take();
    }

    // In pieces of this size, large frames directly into the parser's memory when `isDirect`.
    void feedInPieces(std::string_view bytes, size_t pieceBytes, bool isDirect = false)
    {
        while (!bytes.empty()) {
            size_t space = 0;
            uint8_t* const direct = isDirect ? parser.directSpace(space) : nullptr;
            const size_t size = std::min({bytes.size(), pieceBytes, direct ? space : pieceBytes});
            if (direct) {
                std::memcpy(direct, bytes.data(), size);
                parser.receivedDirectly(size);
                take();
            } else {
                feed(bytes.substr(0, size));
            }
            bytes.remove_prefix(size);
        }
    }

    MessageParser parser;
    std::vector<std::string> events;
    int pauses = 0;

private:
    void take()
    {
        using Event = MessageParser::Event;
        for (;;) {
            const Event event = parser.next();
            if (event == Event::NeedsMore)
                return;
            if (event == Event::Paused) {
                ++pauses;
                parser.endTurn();
                parser.beginTurn();
                continue;
            }
            if (event == Event::Failed) {
                events.push_back("failed:" + std::to_string(parser.failureCode()));
                return;
            }
            const char* const names[] = {"", "text:", "binary:", "ping:", "pong:", "close:"};
            const std::string payload(reinterpret_cast<const char*>(parser.payload()),
                                      parser.payloadBytes());
            events.push_back(
                (parser.isCompressed() && event <= Event::Binary ? "compressed " : "") +
                std::string(names[static_cast<size_t>(event)]) + payload);
        }
    }
};

// The events of `bytes`, which must not depend on how they are split.
inline std::vector<std::string> parse(std::string_view bytes, size_t limit = kMessageLimitBytes,
                                      bool allowsCompression = false)
{
    Parsing whole(limit, allowsCompression);
    whole.feed(bytes);
    if (bytes.size() < 4096) {
        for (const size_t piece : {size_t{1}, size_t{2}, size_t{3}, size_t{7}}) {
            Parsing split(limit, allowsCompression);
            split.feedInPieces(bytes, piece);
            // A failure repeats with every piece.
            split.events.erase(std::unique(split.events.begin(), split.events.end(),
                                           [](const auto& a, const auto& b) {
                                               return a == b && a.rfind("failed:", 0) == 0;
                                           }),
                               split.events.end());
            if (split.events != whole.events)
                return {"depends on the split into pieces of " + std::to_string(piece)};
        }
        for (size_t cut = 1; cut < bytes.size(); ++cut) {
            Parsing split(limit, allowsCompression);
            split.feed(bytes.substr(0, cut));
            if (split.events.empty() || split.events.back().rfind("failed:", 0) != 0)
                split.feed(bytes.substr(cut));
            if (split.events != whole.events)
                return {"depends on a cut at " + std::to_string(cut)};
        }
    }
    return whole.events;
}

}  // namespace websockettests

#endif
