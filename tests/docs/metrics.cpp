// The server of docs/metrics.md: counters for Prometheus, and paths for health checks.

#include <Wendrel/kit/Server.h>

#include <chrono>
#include <string>

using qv::kit::HttpError;
using qv::kit::Request;

int main(int argc, char** argv)
{
    qv::kit::ServerOptions options;
    options.stopDelay = std::chrono::minutes(argc > 2 ? 10 : 0);
    qv::kit::Server server(options);
    server.metrics("/metrics");
    server.health("/healthz", "/readyz");

    server.router().get("/tea/{kind}", [](Request& request) {
        if (request.pathParameter("kind") == "none")
            throw HttpError(404, "There is no such tea.");
        request.reply("tea\n");
    });
    server.router().put("/\"quoted\\", [](Request& request) {
        request.reply(std::to_string(request.body().size()) + "\n");
    });
    server.router().post("/closed", [&](Request& request) {
        server.setReady(false);
        request.reply(204);
    });
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}
