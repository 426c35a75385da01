// The command line that all servers share.

#include "support/Options.h"

#include <CLI/CLI.hpp>

#include <map>

namespace bench
{
namespace
{

constexpr int kWrongUse = 2;
constexpr unsigned kMaxThreads = 1020;

constexpr const char* kPages =
    "Serves on 127.0.0.1: GET /hello, GET /big, GET /stream?bytes=N, GET /slow?ms=N, POST /upload\n"
    "and, with --websocket, an echo on any path. Ends on SIGTERM and SIGINT.\n";

void addTls(CLI::App& app, Options& options)
{
    CLI::Option* const certificate =
        app.add_option("--tls-certificate", options.tlsCertificate,
                       "Serve HTTPS with the certificate chain in this file (PEM)")
            ->type_name("FILE");
    CLI::Option* const key =
        app.add_option("--tls-key", options.tlsKey, "Private key of the certificate (PEM)")
            ->type_name("FILE")
            ->needs(certificate);
    certificate->needs(key);
    if (CLI::Option* const polling = app.get_option_no_throw("--polling"))
        certificate->excludes(polling);
}

}  // namespace

bool parseOptions(int argc, char** argv, const Program& program, Options& options, int& exitCode)
{
    const std::map<std::string, Mode> modes = {
        {"inline", Mode::Inline}, {"worker", Mode::Worker}, {"kit", Mode::Kit}};
    std::vector<std::string> names = {"inline", "worker"};
    if (program.hasKit)
        names.emplace_back("kit");
    std::string mode = "inline";
    CLI::App app(kPages + program.about, program.name);
    app.option_defaults()->always_capture_default();
    CLI::Option* const port = app.add_option("--port", options.port, "TCP port to listen on")
                                  ->type_name("NUMBER")
                                  ->check(CLI::Range(1, 65535));
    app.add_option("--mode", mode, "Where requests are served")->check(CLI::IsMember(names));
    app.add_option("--workers", options.workers, "Threads of the pool that serves requests")
        ->type_name("NUMBER")
        ->check(CLI::Range(1U, kMaxThreads));
    app.add_option("--threads", options.threads, "Threads that read requests and send responses")
        ->type_name("NUMBER")
        ->check(CLI::Range(1U, kMaxThreads));
    app.add_flag("--websocket", options.webSocket, "Upgrade connections to WebSockets");
    if (program.hasEndpoints) {
        CLI::Option* const polling =
            app.add_flag("--polling", options.polling, "Polling mode instead of event-driven mode");
        app.add_option("--listen", options.listen,
                       "Endpoint to listen on in place of the port; may be given several times")
            ->type_name("ENDPOINT")
            ->excludes(polling)
            ->excludes(port);
        app.add_option("--stop-limit", options.stopLimitMs,
                       "Milliseconds for the requests in progress when it is stopped")
            ->type_name("NUMBER")
            ->excludes(polling);
        app.add_flag("--deflate", options.deflate, "Accept compression of WebSocket messages")
            ->needs(app.get_option("--websocket"))
            ->excludes(polling);
    } else {
        port->required();
    }
    if (program.hasTls)
        addTls(app, options);
    if (program.canSuspend)
        app.add_flag("--suspend", options.suspend,
                     "Suspend connections that wait for a worker; 32 KiB of memory for each");
    try {
        app.parse(argc, argv);
        if (options.port == 0 && options.listen.empty())
            throw CLI::RequiredError("--port or --listen");
    } catch (const CLI::ParseError& error) {
        exitCode = app.exit(error) == 0 ? 0 : kWrongUse;
        return false;
    }
    options.mode = modes.at(mode);
    return true;
}

}  // namespace bench
