/// Handshake and short frames of a client, for tests of the kit's WebSocket routes.
#ifndef WENDREL_TESTS_INTEGRATION_SESSIONFRAMES_H
#define WENDREL_TESTS_INTEGRATION_SESSIONFRAMES_H

#include "RawClient.h"

#include <cstddef>
#include <string>

namespace integration
{

inline std::string sessionHandshake(const std::string& target)
{
    return getRequest(target, "Connection: Upgrade\r\nUpgrade: websocket\r\n"
                              "Sec-WebSocket-Version: 13\r\n"
                              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n");
}

/// A whole frame of a client with at most 125 bytes; the mask is 0.
inline std::string clientFrame(char opcode, const std::string& payload)
{
    return std::string{static_cast<char>(0x80 | opcode),
                       static_cast<char>(0x80 | static_cast<char>(payload.size())),
                       0,
                       0,
                       0,
                       0} +
           payload;
}

inline std::string clientText(const std::string& payload)
{
    return clientFrame(1, payload);
}

/// The same as the server sends it.
inline std::string serverFrame(char opcode, const std::string& payload)
{
    return std::string{static_cast<char>(0x80 | opcode), static_cast<char>(payload.size())} +
           payload;
}

/// The next frame of the server, which has at most 125 bytes; empty at the end of the connection.
inline std::string receiveFrame(RawClient& client)
{
    const std::string head = client.receiveExactly(2);
    return head.size() == 2 ? head + client.receiveExactly(static_cast<size_t>(head[1]))
                            : std::string();
}

/// Upgrades the connection.
inline ::testing::AssertionResult isUpgraded(RawClient& client, const std::string& target)
{
    if (!client.send(sessionHandshake(target)))
        return ::testing::AssertionFailure() << "the handshake was not sent";
    const auto head = client.receiveHead();
    if (head && head->status == 101)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "status " << (head ? head->status : 0);
}

}  // namespace integration

#endif
