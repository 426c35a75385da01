// First server: responds to GET /hello/NAME until SIGINT or SIGTERM.

#include <Wendrel/kit/Server.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

using qv::HttpBaseRequest;
using qv::kit::Request;

void sendHello(Request& request)
{
    request.reply(200, "text/plain; charset=utf-8",
                  "Hello, " + request.getPathParameter("name") + "!\n");
}

int main(int argc, char** argv)
{
    qv::kit::StopSignal stopSignal;  // before any thread starts: all block the signals

    auto application = std::make_unique<qv::kit::Application>();
    application->getRouter().add(HttpBaseRequest::GET, "/hello/{name}", sendHello);

    qv::http::HttpServer::Parameters parameters;
    if (argc > 1)
        parameters.port = static_cast<uint16_t>(std::atoi(argv[1]));
    qv::kit::Server server(std::move(application));  // owns the application from here
    if (!server.start(parameters)) {
        std::fprintf(stderr, "cannot listen on port %u\n", parameters.port);
        return 1;
    }
    std::printf("listening on http://127.0.0.1:%u/\n", parameters.port);
    std::fflush(stdout);

    stopSignal.wait();
    server.stop(std::chrono::seconds(10));
    return 0;
}
