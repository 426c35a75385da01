// The program of docs/configuration.md: greets, with options of its own and those of the server.

#include <Wendrel/kit/Configuration.h>

#include <chrono>
#include <cstdint>
#include <string>

int main(int argc, char** argv)
{
    std::string greeting = "Hello";
    uint64_t cacheBytes = 16777216;
    std::chrono::milliseconds cacheTime = std::chrono::minutes(5);

    qv::kit::Server server;
    CLI::App app("Greets.");
    app.add_option("--greeting", greeting, "What to say")->capture_default_str();
    qv::kit::addSizeOption(app, "--cache", cacheBytes, "Memory of the cache");
    qv::kit::addDurationOption(app, "--cache-time", cacheTime, "Age of its entries");
    qv::kit::addServerOptions(app, server.options());
    CLI11_PARSE(app, argc, argv);

    server.router().get("/hello/{name}", [&](qv::kit::Request& request) {
        request.reply(greeting + ", " + request.pathParameter("name") + "!\n");
    });
    server.router().get("/cache", [&](qv::kit::Request& request) {
        request.reply(std::to_string(cacheBytes) + " bytes, " + std::to_string(cacheTime.count()) +
                      " ms\n");
    });
    return server.run();
}
