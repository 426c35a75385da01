// The smallest complete application: responds to GET /hello/NAME until SIGINT or SIGTERM.

#include <Wendrel/kit/Server.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    qv::kit::StopSignal stopSignal;  // before any thread starts: all block the signals

    qv::http::HttpServer::Parameters parameters;
    const int port = argc > 1 ? std::atoi(argv[1]) : parameters.port;
    if (port < 1 || port > 65535) {
        std::fprintf(stderr, "usage: hello [PORT]\n");
        return 2;
    }
    parameters.port = static_cast<uint16_t>(port);

    auto application = std::make_unique<qv::kit::Application>();
    application->getRouter().add(
        qv::HttpBaseRequest::GET, "/hello/{name}", [](qv::kit::Request& request) {
            request.reply(200, "text/plain; charset=utf-8",
                          "Hello, " + request.getPathParameter("name") + "!\n");
        });

    qv::kit::Server server(std::move(application));  // owns the application from here
    if (!server.start(parameters)) {
        std::fprintf(stderr, "hello: cannot listen on port %d\n", port);
        return 1;
    }
    std::printf("http://127.0.0.1:%u/hello/world\n", port);
    std::fflush(stdout);

    stopSignal.wait();
    server.stop(std::chrono::seconds(5));  // waits for running requests
    return 0;
}
