// The server of docs/compression.md: compressed responses, and a route without.

#include <Wendrel/kit/Server.h>

#include <string>

using qv::kit::CompressionOptions;
using qv::kit::Request;

namespace
{

std::string report()
{
    constexpr int kLines = 1000;
    std::string text;
    for (int i = 0; i < kLines; ++i)
        text += "line " + std::to_string(i) + "\n";
    return text;
}

void addRoutes(qv::kit::Server& server)
{
    server.options().compression.enabled = true;
    server.options().compression.types.emplace_back("text/event-stream");
    server.router()
        .get("/account", [](Request& request) { request.reply(report()); })
        .compression(CompressionOptions());
    server.router().get("/report", [](Request& request) { request.reply(report()); });
}

}  // namespace

int main(int argc, char** argv)
{
    qv::kit::Server server;
    addRoutes(server);
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}
