/// The client's side of an upgraded connection, with frames as a well-behaved client sends them.
#ifndef WENDREL_TESTS_INTEGRATION_WEBSOCKETCLIENT_H
#define WENDREL_TESTS_INTEGRATION_WEBSOCKETCLIENT_H

#include "RawClient.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace integration
{

constexpr uint8_t kLastText = 0x81;
constexpr uint8_t kLastBinary = 0x82;
constexpr uint8_t kCloseFrame = 0x88;
constexpr uint8_t kPongFrame = 0x8a;

/// A client's frame. The first byte holds the fin bit and the opcode.
inline std::string maskedFrame(uint8_t firstByte, std::string_view payload)
{
    constexpr uint8_t kMasked = 0x80;
    constexpr uint8_t kKey[] = {0x12, 0xf4, 0x56, 0x80};
    constexpr size_t kMaxInByte = 125;
    constexpr size_t kMaxInTwoBytes = 65535;
    const size_t size = payload.size();
    const size_t lengthBytes = size <= kMaxInByte ? 0 : size <= kMaxInTwoBytes ? 2 : 8;
    const size_t lengthCode = lengthBytes == 0 ? size : lengthBytes == 2 ? 126 : 127;
    std::string frame{static_cast<char>(firstByte), static_cast<char>(kMasked | lengthCode)};
    for (size_t i = lengthBytes; i > 0; --i)
        frame += static_cast<char>(size >> (8 * (i - 1)));
    frame.append(reinterpret_cast<const char*>(kKey), sizeof kKey);
    for (size_t i = 0; i < size; ++i)
        frame += static_cast<char>(payload[i] ^ kKey[i % sizeof kKey]);
    return frame;
}

struct Frame
{
    uint8_t first = 0;  ///< fin bit and opcode
    std::string payload;
};

/// The next frame of a server, which has no mask; none when the connection ended or the limit
/// passed before its end.
inline std::optional<Frame> receiveFrame(RawClient& client)
{
    const std::string start = client.receiveExactly(2);
    if (start.size() != 2)
        return std::nullopt;
    size_t size = static_cast<uint8_t>(start[1]);
    const size_t lengthBytes = size == 126 ? 2 : size == 127 ? 8 : 0;
    if (lengthBytes != 0)
        size = 0;
    const std::string length = client.receiveExactly(lengthBytes);
    for (const char byte : length)
        size = size << 8 | static_cast<uint8_t>(byte);
    if (length.size() != lengthBytes)
        return std::nullopt;
    Frame frame{static_cast<uint8_t>(start[0]), client.receiveExactly(size)};
    return frame.payload.size() == size ? std::optional(std::move(frame)) : std::nullopt;
}

/// One upgraded connection to a port of 127.0.0.1. No operation waits longer than the limit.
class WebSocketClient
{
public:
    struct Message
    {
        std::string bytes;
        bool isBinary = false;
    };

    explicit WebSocketClient(uint16_t port) : mRaw(port)
    {
        mRaw.send(getRequest("/", "Upgrade: WebSocket\r\nConnection: Upgrade\r\n"
                                  "Sec-WebSocket-Version: 13\r\n"
                                  "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"));
        constexpr int kSwitchingProtocols = 101;
        const auto response = mRaw.receiveHead();
        if (!response || response->status != kSwitchingProtocols)
            throw std::runtime_error("not upgraded");
    }

    RawClient& raw() { return mRaw; }

    bool sendText(std::string_view text) { return mRaw.send(maskedFrame(kLastText, text)); }
    bool sendBinary(std::string_view bytes) { return mRaw.send(maskedFrame(kLastBinary, bytes)); }
    bool sendClose() { return mRaw.send(maskedFrame(kCloseFrame, "")); }

    /// The next whole message; none when the connection ended or the limit passed before its end,
    /// and at a close frame. Responds to that and to pings, which polling mode does not send.
    std::optional<Message> receive()
    {
        constexpr uint8_t kFinBit = 0x80;
        constexpr uint8_t kOpcodeBits = 0x0f;
        constexpr uint8_t kBinary = 2;
        constexpr uint8_t kPingFrame = 0x89;
        Message message;
        for (;;) {
            const std::optional<Frame> frame = receiveFrame(mRaw);
            if (!frame)
                return std::nullopt;
            if (frame->first == kPingFrame) {
                mRaw.send(maskedFrame(kPongFrame, frame->payload));
                continue;
            }
            if (frame->first == kCloseFrame) {
                mRaw.send(maskedFrame(kCloseFrame, frame->payload.substr(0, 2)));
                return std::nullopt;
            }
            if ((frame->first & kOpcodeBits) != 0)
                message.isBinary = (frame->first & kOpcodeBits) == kBinary;
            message.bytes += frame->payload;
            if (frame->first & kFinBit)
                return message;
        }
    }

    /// Reads on to the end of the connection; false when the limit has passed first.
    bool waitForEnd()
    {
        mRaw.receiveToEnd();
        return mRaw.isClosedByServer();
    }

private:
    RawClient mRaw;
};

}  // namespace integration

#endif
