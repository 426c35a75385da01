// wendrel-bench-server: the benchmark's pages, served by this library.

#include "server/InlineApplication.h"
#include "server/WorkerApplication.h"
#include "support/Options.h"

#include <qvSystem/qvLog.h>

namespace
{

constexpr const char* kAbout =
    "Also responds to any method on / and /echo with the body of the request.\n"
    "On this library. inline: each response is complete before handleRequest returns, on the\n"
    "daemon's thread; only requests with a body and streams of more than 256 KiB, which would\n"
    "wait there for that thread itself, go to a pool of --workers threads; GET /wait responds\n"
    "when GET /release is requested, GET /waiting tells how many wait. worker: by the kit's\n"
    "router, on a pool of --workers threads. With --websocket requests are served inline, and\n"
    "messages on /ws are echoed by --threads event loops, in worker mode by the pool; with\n"
    "--polling --websocket messages on any path are, by --workers threads of their own.";

}  // namespace

int main(int argc, char** argv)
{
    bench::Options options;
    int exitCode = 0;
    const bench::Program program{
        .name = "wendrel-bench-server", .about = kAbout, .hasEndpoints = true};
    if (!bench::parseOptions(argc, argv, program, options, exitCode))
        return exitCode;
    // Clients that break off are no news here.
    qv::qvLog log;
    log.setMinimumLevel(qv::qvLog::Error);
    log.addSink(qv::MakeStandardErrorSink());
    log.install();

    const bool isInline =
        options.mode == bench::Mode::Inline || (options.webSocket && !options.polling);
    const bool served = isInline ? bench::serveInline(options) : bench::serveWithWorkers(options);
    return served ? 0 : 1;
}
