// An upgraded connection that echoes messages.
#ifndef BENCH_SERVER_ECHO_H
#define BENCH_SERVER_ECHO_H

#include <Wendrel/kit/WebSocketHub.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace bench
{

class Echo : public qv::kit::HubConnection
{
public:
    // Sends small pieces at once, as an interactive application would.
    explicit Echo(qv::http::WebSocket&& upgraded) : HubConnection(std::move(upgraded))
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
