// Support of the tests of upgraded connections: the two ends of a connection, and the frames of a
// client and a server, written and read without the library.
#ifndef WENDREL_TESTS_WEBSOCKET_SUPPORT_H
#define WENDREL_TESTS_WEBSOCKET_SUPPORT_H

#include "support/RecordingDaemon.h"

#include <support/WebSocketAccess.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace qv::tests
{

using http::WebSocket;
using impl::WebSocketAccess;
using Bytes = std::vector<uint8_t>;
using MaskKey = std::array<uint8_t, 4>;

// Two non-blocking sockets connected with each other. The client's end reads and writes with
// read and write, which no ScriptedSockets object touches.
class SocketPair
{
public:
    SocketPair()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, mEnds), 0);
    }
    ~SocketPair()
    {
        closeServer();
        closeClient();
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;

    int server() const { return mEnds[0]; }
    int client() const { return mEnds[1]; }
    void closeServer() { close(mEnds[0]); }
    void closeClient() { close(mEnds[1]); }

    // Writes the bytes that the socket accepts and returns their number.
    size_t write(const uint8_t* data, size_t size)
    {
        const ssize_t written = ::write(mEnds[1], data, size);
        return written < 0 ? 0 : static_cast<size_t>(written);
    }
    void writeAll(const Bytes& bytes)
    {
        EXPECT_EQ(write(bytes.data(), bytes.size()), bytes.size());
    }

    // All bytes that are there now.
    Bytes read()
    {
        Bytes bytes;
        uint8_t part[65536];
        for (ssize_t got; (got = ::read(mEnds[1], part, sizeof part)) > 0;)
            bytes.insert(bytes.end(), part, part + got);
        return bytes;
    }

private:
    static void close(int& fd)
    {
        if (fd != -1)
            ::close(fd);
        fd = -1;
    }

    int mEnds[2] = {-1, -1};
};

inline Bytes ToBytes(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

// Bytes in which a shift by any small distance shows.
inline Bytes Pattern(size_t size, uint32_t seed = 1)
{
    Bytes bytes(size);
    uint32_t state = seed * 2654435761u + 12345u;
    for (uint8_t& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

// How the length of a client's frame is written.
enum class LengthForm { Shortest, OneByte, TwoBytes, EightBytes };

inline LengthForm ShortestForm(uint64_t length)
{
    if (length <= 125)
        return LengthForm::OneByte;
    return length <= 65535 ? LengthForm::TwoBytes : LengthForm::EightBytes;
}

// The header of a client's frame; `first` is the whole first byte.
inline Bytes ClientHeader(uint8_t first, uint64_t length, const MaskKey& key,
                          LengthForm form = LengthForm::Shortest)
{
    if (form == LengthForm::Shortest)
        form = ShortestForm(length);
    Bytes header{first};
    int lengthBytes = 0;
    if (form == LengthForm::OneByte) {
        header.push_back(static_cast<uint8_t>(0x80 | length));
    } else {
        header.push_back(form == LengthForm::TwoBytes ? 0x80 | 126 : 0x80 | 127);
        lengthBytes = form == LengthForm::TwoBytes ? 2 : 8;
    }
    for (int shift = (lengthBytes - 1) * 8; shift >= 0; shift -= 8)
        header.push_back(static_cast<uint8_t>(length >> shift));
    header.insert(header.end(), key.begin(), key.end());
    return header;
}

inline Bytes ClientFrame(uint8_t first, const Bytes& payload,
                         const MaskKey& key = {0x12, 0xa5, 0x7e, 0xc3},
                         LengthForm form = LengthForm::Shortest)
{
    Bytes frame = ClientHeader(first, payload.size(), key, form);
    for (size_t i = 0; i < payload.size(); ++i)
        frame.push_back(payload[i] ^ key[i & 3]);
    return frame;
}

inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// A frame of the server, as a client takes it apart.
struct ServerFrame
{
    uint8_t first = 0;  // FIN, RSV and opcode
    Bytes payload;
};

// Fails the test when the bytes are not whole frames, unmasked and with the shortest length.
inline std::vector<ServerFrame> ServerFrames(const Bytes& bytes)
{
    std::vector<ServerFrame> frames;
    size_t at = 0;
    while (at < bytes.size()) {
        if (bytes.size() - at < 2) {
            ADD_FAILURE() << "half a header at " << at;
            break;
        }
        const uint8_t code = bytes[at + 1];
        const size_t lengthBytes = code == 127 ? 8 : code == 126 ? 2 : 0;
        EXPECT_LT(code, 128) << "masked frame at " << at;
        if (bytes.size() - at < 2 + lengthBytes) {
            ADD_FAILURE() << "half a length at " << at;
            break;
        }
        uint64_t length = lengthBytes == 0 ? code : 0;
        for (size_t i = 0; i < lengthBytes; ++i)
            length = length * 256 + bytes[at + 2 + i];
        EXPECT_EQ(ShortestForm(length), code == 127   ? LengthForm::EightBytes
                                        : code == 126 ? LengthForm::TwoBytes
                                                      : LengthForm::OneByte)
            << "long form at " << at;
        const size_t payloadAt = at + 2 + lengthBytes;
        if (bytes.size() - payloadAt < length) {
            ADD_FAILURE() << "half a payload at " << at;
            break;
        }
        const auto payload = bytes.begin() + static_cast<ptrdiff_t>(payloadAt);
        frames.push_back({bytes[at], Bytes(payload, payload + static_cast<ptrdiff_t>(length))});
        at = payloadAt + length;
    }
    return frames;
}

// A message, as one side has given it to the other.
struct Message
{
    Bytes payload;
    bool isBinary = false;

    friend bool operator==(const Message& a, const Message& b)
    {
        return a.isBinary == b.isBinary && a.payload == b.payload;
    }
    friend void PrintTo(const Message& message, std::ostream* out)
    {
        *out << (message.isBinary ? "binary" : "text") << ", " << message.payload.size()
             << " bytes:";
        for (size_t i = 0; i < std::min<size_t>(message.payload.size(), 24); ++i)
            *out << ' ' << static_cast<int>(message.payload[i]);
    }
};

inline Message Text(const Bytes& payload)
{
    return {payload, false};
}

inline Message Binary(const Bytes& payload)
{
    return {payload, true};
}

// A connection that keeps its messages and sends no response.
class Connection : public WebSocket
{
public:
    explicit Connection(int descriptor = -1, void* handle = nullptr) : WebSocket(descriptor, handle)
    {}
    explicit Connection(WebSocket&& upgraded) : WebSocket(std::move(upgraded)) {}

    void onMessageReceived(Bytes& payload, bool isBinary) override
    {
        messages.push_back({payload, isBinary});
        if (onMessage)
            onMessage(payload, isBinary);
    }

    std::vector<Message> messages;
    std::function<void(Bytes& payload, bool isBinary)> onMessage;
};

// The messages that a client makes of the server's bytes.
inline std::vector<Message> ServerMessages(const Bytes& bytes)
{
    std::vector<Message> messages;
    Message current;
    bool started = false;
    for (const ServerFrame& frame : ServerFrames(bytes)) {
        const int opcode = frame.first & 0x7f;
        EXPECT_EQ(opcode == 0, started) << "opcode " << opcode;
        if (!started)
            current.isBinary = opcode == 2;
        EXPECT_LE(opcode, 2);
        started = true;
        current.payload.insert(current.payload.end(), frame.payload.begin(), frame.payload.end());
        if (frame.first & 0x80) {
            messages.push_back(std::exchange(current, {}));
            started = false;
        }
    }
    EXPECT_FALSE(started) << "half a message";
    return messages;
}

}  // namespace qv::tests

#endif
