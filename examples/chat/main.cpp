// wendrel-chat: a chat on a web page until it is told to stop.

#include "Chat.h"

#include <Wendrel/Wendrel.h>
#include <Wendrel/kit/Server.h>
#include <qvSystem/qvLog.h>

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>

namespace
{

struct Options
{
    uint16_t port = 8181;
    bool allInterfaces = false;
    qv::http::TlsCertificate tls;
};

// False: the process must exit with `exitCode`; the message has been printed.
bool parseOptions(int argc, char** argv, Options& options, int& exitCode)
{
    CLI::App app("Serves a page on which people talk in rooms and show each other pictures.",
                 "wendrel-chat");
    app.option_defaults()->always_capture_default();
    app.add_option("--port", options.port, "TCP port to listen on")
        ->type_name("NUMBER")
        ->check(CLI::Range(1, 65535));
    app.add_flag("--all-interfaces", options.allInterfaces,
                 "Listen on every network of this machine, not on 127.0.0.1 alone");
    CLI::Option* const certificate =
        app.add_option("--tls-certificate", options.tls.chain,
                       "Serve HTTPS with the certificate chain in this file (PEM)")
            ->option_text("FILE");
    CLI::Option* const key =
        app.add_option("--tls-key", options.tls.key, "Private key of the certificate (PEM)")
            ->option_text("FILE")
            ->needs(certificate);
    certificate->needs(key);
    app.set_version_flag(
        "--version", std::string("wendrel-chat ") +
                         Wendrel::Version::GetDescStringMajorMinorReleaseRevision(false, false));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exitCode = app.exit(error) == 0 ? 0 : 1;
        return false;
    }
    return true;
}

}  // namespace

// An exception at the start ends the process with its text.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv)
{
    Options options;
    int exitCode = 0;
    if (!parseOptions(argc, argv, options, exitCode))
        return exitCode;
    qv::qvLog log;
    log.addSink(qv::MakeStandardErrorSink());
    log.install();
    qv::kit::Server server;
    chat::addRoutes(server.router());
    if (!options.tls.chain.empty()) {
        server.options().tls.emplace_back();
        server.options().tls.back().certificates.push_back(options.tls);
    }
    return server.run((options.allInterfaces ? "*:" : "127.0.0.1:") + std::to_string(options.port));
}
