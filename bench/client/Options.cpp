// The command line of the WebSocket client.

#include "client/Options.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace bench::client
{
namespace
{

constexpr int kWrongUse = 2;
constexpr unsigned kMaxConnections = 10000;
constexpr size_t kMaxMessageBytes = 67108864;
constexpr double kMinSeconds = 0.01;
constexpr double kMaxSeconds = 3600;

constexpr const char* kAbout =
    "Each connection sends a message, waits for its echo, and so on. Prints one line of JSON;\n"
    "a fifth of --seconds goes before them and is not counted.";

}  // namespace

bool parseOptions(int argc, char** argv, Options& options, int& exitCode)
{
    CLI::App app(kAbout, "wendrel-bench-websocket-client");
    app.option_defaults()->always_capture_default();
    app.add_option("--port", options.port, "TCP port of the server on 127.0.0.1")
        ->type_name("NUMBER")
        ->required()
        ->check(CLI::Range(1, 65535));
    app.add_option("--connections", options.connections, "Connections, all at once")
        ->type_name("NUMBER")
        ->check(CLI::Range(1U, kMaxConnections));
    app.add_option("--bytes", options.bytes, "Bytes of each message")
        ->type_name("NUMBER")
        ->check(CLI::Range(size_t{0}, kMaxMessageBytes));
    app.add_option("--seconds", options.seconds, "Time that is counted")
        ->type_name("NUMBER")
        ->check(CLI::Range(kMinSeconds, kMaxSeconds));
    app.add_option("--threads", options.threads, "Threads, which share the connections")
        ->type_name("NUMBER")
        ->check(CLI::Range(1U, kMaxConnections));
    app.add_option("--path", options.path, "What to ask for")->type_name("PATH");
    app.add_flag("--tls", options.tls, "Use TLS; the certificate is not checked");
    app.add_flag("--text", options.text, "Send text instead of binary messages");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exitCode = app.exit(error) == 0 ? 0 : kWrongUse;
        return false;
    }
    options.threads = std::min(options.threads, options.connections);
    return true;
}

}  // namespace bench::client
