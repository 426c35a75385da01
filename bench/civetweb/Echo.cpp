// Upgraded connections that echo messages. The server delivers frames, which are assembled here.

#include "civetweb/Echo.h"

#include <cstddef>
#include <memory>
#include <string>

namespace bench
{
namespace
{

constexpr int kFin = 0x80;
constexpr int kOpcodeBits = 0x0f;

struct Message
{
    int opcode = MG_WEBSOCKET_OPCODE_BINARY;
    std::string bytes;
};

void attach(mg_connection* connection, void*)
{
    mg_set_user_connection_data(connection, std::make_unique<Message>().release());
}

bool write(mg_connection* connection, int opcode, const char* data, size_t count)
{
    return mg_websocket_write(connection, opcode, data, count) > 0;
}

// False ends the connection.
bool echo(mg_connection* connection, Message& message, int bits, const char* data, size_t count)
{
    const int opcode = bits & kOpcodeBits;
    const bool isLast = (bits & kFin) != 0;
    if (opcode == MG_WEBSOCKET_OPCODE_CONNECTION_CLOSE)
        return false;
    if (opcode == MG_WEBSOCKET_OPCODE_PING || opcode == MG_WEBSOCKET_OPCODE_PONG)
        return true;
    if (opcode != MG_WEBSOCKET_OPCODE_CONTINUATION) {
        if (isLast)
            return write(connection, opcode, data, count);
        message.opcode = opcode;
    }
    message.bytes.append(data, count);
    if (!isLast)
        return true;
    const bool sent = write(connection, message.opcode, message.bytes.data(), message.bytes.size());
    message.bytes.clear();
    return sent;
}

int receive(mg_connection* connection, int bits, char* data, size_t count, void*)
{
    auto& message = *static_cast<Message*>(mg_get_user_connection_data(connection));
    return echo(connection, message, bits, data, count) ? 1 : 0;
}

void detach(const mg_connection* connection, void*)
{
    delete static_cast<Message*>(mg_get_user_connection_data(connection));
    mg_set_user_connection_data(connection, nullptr);
}

}  // namespace

void addEcho(mg_context* server)
{
    mg_set_websocket_handler(server, "**", nullptr, &attach, &receive, &detach, nullptr);
}

}  // namespace bench
