// wendrel-chat: a chat on a web page until it is told to stop.

#include "Chat.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/Wendrel.h>
#include <qvSystem/qvLog.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>

namespace
{

constexpr std::chrono::seconds kStartLimit(10);

struct Options
{
    uint16_t port = 8181;
    bool allInterfaces = false;
};

// False: the process must exit with `exitCode`; the message has been printed.
bool parseOptions(int argc, char** argv, Options& options, int& exitCode)
{
    CLI::App app("Serves a page on which people talk in rooms and show each other pictures.\n"
                 "Browsers reach it through a proxy set up as in deploy/.",
                 "wendrel-chat");
    app.option_defaults()->always_capture_default();
    app.add_option("--port", options.port, "TCP port to listen on")
        ->type_name("NUMBER")
        ->check(CLI::Range(1, 65535));
    app.add_flag("--all-interfaces", options.allInterfaces,
                 "Listen on every network of this machine, not on 127.0.0.1 alone");
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

// SIGINT and SIGTERM are blocked in this thread and in all that it starts.
sigset_t blockStopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return signals;
}

// The library, up as long as this is.
class Library
{
public:
    Library() { qv::initializeWendrel(); }
    ~Library() { qv::terminateWendrel(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

int serve(const Options& options, const sigset_t& signals)
{
    const Library library;
    qv::http::HttpServer server(std::make_unique<chat::Chat>().release());  // the server owns it
    qv::http::HttpServer::Parameters parameters;
    parameters.port = options.port;
    parameters.listenOnAllInterfaces = options.allInterfaces;
    parameters.allowWebSocket = true;
    server.startServer(parameters);
    if (!server.waitUntilRunning(kStartLimit)) {
        std::cerr << "wendrel-chat: cannot serve on port " << options.port
                  << "; is it in use? Choose another one with --port" << std::endl;
        return 1;
    }
    std::cout << "Chatting at http://127.0.0.1:" << options.port << "/" << std::endl;
    int signal = 0;
    sigwait(&signals, &signal);
    server.stopServer(true);
    return 0;
}

}  // namespace

// An exception at the start ends the process with its text.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv)
{
    const sigset_t signals = blockStopSignals();
    Options options;
    int exitCode = 0;
    if (!parseOptions(argc, argv, options, exitCode))
        return exitCode;
    qv::qvLog log;
    log.addSink(qv::MakeStandardErrorSink());
    log.install();
    return serve(options, signals);
}
