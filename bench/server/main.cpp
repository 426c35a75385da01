// wendrel-bench-server: the benchmark's pages, served by this library.

#include "server/InlineApplication.h"
#include "server/KitServer.h"
#include "support/Options.h"

#include <qvSystem/qvLog.h>

#include <iostream>

namespace
{

constexpr const char* kAbout =
    "Also responds to any method on / and /echo with the body of the request.\n"
    "On this library. inline: each response is complete before handleRequest returns, on the\n"
    "daemon's thread; only requests with a body and streams of more than 256 KiB, which would\n"
    "wait there for that thread itself, go to a pool of --workers threads; GET /wait responds\n"
    "when GET /release is requested, GET /waiting tells how many wait. worker: the\n"
    "same on a pool of --workers threads. kit: by the kit's router and workers, in event-driven\n"
    "mode; GET /ping on the daemon's thread. With --websocket messages on /ws are echoed by\n"
    "--threads event loops, in worker mode by the pool; with --polling --websocket messages on\n"
    "any path are, by --workers threads of their own.";

}  // namespace

int main(int argc, char** argv)
{
    bench::Options options;
    int exitCode = 0;
    const bench::Program program{.name = "wendrel-bench-server",
                                 .about = kAbout,
                                 .hasEndpoints = true,
                                 .hasTls = true,
                                 .hasKit = true};
    if (!bench::parseOptions(argc, argv, program, options, exitCode))
        return exitCode;
    // Clients that break off are no news here.
    qv::qvLog log;
    log.setMinimumLevel(qv::qvLog::Error);
    log.addSink(qv::MakeStandardErrorSink());
    log.install();

    if (options.mode == bench::Mode::Kit && (options.polling || options.webSocket)) {
        std::cerr << "wendrel-bench-server: mode kit is without --polling and --websocket\n";
        return 2;
    }
    const bool served = options.mode == bench::Mode::Kit ? bench::serveWithKit(options)
                                                         : bench::serveInline(options);
    return served ? 0 : 1;
}
