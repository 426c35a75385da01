// The server of docs/logging.md with an access log.

#include <Wendrel/kit/Server.h>

#include <string_view>

int main(int argc, char** argv)
{
    qv::kit::Server server;
    server.router().get("/", [](qv::kit::Request& request) { request.reply("Hello!\n"); });
    if (argc > 2 && std::string_view(argv[2]) == "json")
        server.logAccess("access.json", qv::kit::AccessLog::Json);
    else
        server.logAccess("access.log");
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}
