// First server: responds to GET /hello/NAME until SIGINT or SIGTERM.

#include <Wendrel/kit/Server.h>

int main(int argc, char** argv)
{
    qv::kit::Server server;
    server.router().get("/hello/{name}", [](qv::kit::Request& request) {
        request.reply("Hello, " + request.pathParameter("name") + "!\n");
    });
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}
