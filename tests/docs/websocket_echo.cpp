// The server of docs/websocket.md: echoes every message until SIGINT or SIGTERM.

#include <Wendrel/kit/Server.h>
#include <Wendrel/kit/WebSocketHub.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

class Echo : public qv::kit::HubConnection
{
public:
    explicit Echo(qv::http::WebSocket&& upgraded) : HubConnection(std::move(upgraded)) {}

    void onMessageReceived(std::vector<uint8_t>& received, bool isBinary) override
    {
        writeMessage(received.data(), received.size(), isBinary);
    }
};

class EchoApplication : public qv::kit::Application
{
    void onNewWebSocket(qv::http::WebSocket* socket) override { mHub.adopt<Echo>(socket); }

    void onServerStopped() override
    {
        mHub.close(std::chrono::seconds(1));
        Application::onServerStopped();
    }

    qv::kit::WebSocketHub mHub;
};

int main(int argc, char** argv)
{
    qv::kit::StopSignal stopSignal;  // before any thread starts: all block the signals

    qv::http::HttpServer::Parameters parameters;
    if (argc > 1)
        parameters.port = static_cast<uint16_t>(std::atoi(argv[1]));
    parameters.allowWebSocket = true;
    qv::kit::Server server(std::make_unique<EchoApplication>());
    if (!server.start(parameters))
        return 1;
    std::printf("ws://127.0.0.1:%u/\n", parameters.port);
    std::fflush(stdout);
    stopSignal.wait();
    server.stop(std::chrono::seconds(5));
    return 0;
}
