// An upgraded connection that says what it is told.
#ifndef BENCH_SERVER_ECHO_H
#define BENCH_SERVER_ECHO_H

#include <Wendrel/kit/WebSocketHub.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace bench
{

class Echo : public qv::kit::HubConnection
{
public:
    explicit Echo(qv::http::WebSocket&& upgraded) : HubConnection(std::move(upgraded)) {}

    void onMessageReceived(std::vector<uint8_t>& received, bool isBinary) override
    {
        writeMessage(received.data(), received.size(), isBinary);
    }
};

}  // namespace bench

#endif
