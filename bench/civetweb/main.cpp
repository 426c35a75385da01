// wendrel-bench-civetweb: the benchmark's pages, served by civetweb.

#include "civetweb/Echo.h"
#include "civetweb/Pages.h"
#include "support/Options.h"
#include "support/StopSignal.h"

#include <civetweb.h>

#include <iostream>
#include <memory>
#include <string>

namespace
{

constexpr const char* kAbout =
    "On civetweb, which gives each connection one of its threads, --workers of them: there must\n"
    "be as many as connections. --mode and --threads are taken and mean nothing here.";

using Server = std::unique_ptr<mg_context, void (*)(mg_context*)>;

// Clients that break off are no news here.
int dropMessage(const mg_connection*, const char*)
{
    return 1;
}

Server start(const bench::Options& options)
{
    const std::string address = "127.0.0.1:" + std::to_string(options.port);
    const std::string threads = std::to_string(options.workers);
    const char* settings[] = {"listening_ports",
                              address.c_str(),
                              "num_threads",
                              threads.c_str(),
                              "listen_backlog",
                              "1024",
                              "connection_queue",
                              "1024",
                              "enable_keep_alive",
                              "yes",
                              "keep_alive_timeout_ms",
                              "360000",
                              "request_timeout_ms",
                              "360000",
                              "websocket_timeout_ms",
                              "360000",
                              "tcp_nodelay",
                              "1",
                              nullptr};
    mg_callbacks callbacks{};
    callbacks.log_message = &dropMessage;
    callbacks.log_access = &dropMessage;
    return Server(mg_start(&callbacks, nullptr, settings), &mg_stop);
}

}  // namespace

int main(int argc, char** argv)
{
    bench::Options options;
    int exitCode = 0;
    if (!bench::parseOptions(argc, argv, {"wendrel-bench-civetweb", kAbout}, options, exitCode))
        return exitCode;
    if (options.webSocket && mg_check_feature(MG_FEATURES_WEBSOCKET) == 0) {
        std::cerr << "wendrel-bench-civetweb: this civetweb has no WebSockets" << std::endl;
        return 1;
    }
    bench::StopSignal stopSignal;  // before any thread
    mg_init_library(MG_FEATURES_DEFAULT);
    const bool served = [&] {
        const Server server = start(options);
        if (!server)
            return false;
        bench::addPages(server.get());
        if (options.webSocket)
            bench::addEcho(server.get());
        bench::announceListening(options.port);
        stopSignal.wait();
        return true;
    }();
    mg_exit_library();
    if (!served)
        std::cerr << "wendrel-bench-civetweb: cannot listen on port " << options.port << std::endl;
    return served ? 0 : 1;
}
