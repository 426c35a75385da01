// A WebSocket of polling mode that echoes messages.
#ifndef BENCH_SERVER_ECHO_H
#define BENCH_SERVER_ECHO_H

#include <Wendrel/WebSocket.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace bench
{

class Echo : public qv::http::WebSocket
{
public:
    // Sends small pieces at once, as an interactive application would.
    explicit Echo(qv::http::WebSocket&& upgraded) : WebSocket(std::move(upgraded))
    {
        const int on = 1;
        ::setsockopt(getSocket(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }

    void onMessageReceived(std::vector<uint8_t>& received, bool isBinary) override
    {
        writeMessage(received.data(), received.size(), isBinary);
    }
};

}  // namespace bench

#endif
