// wendrel-bench-server: the benchmark's pages, served by this library.

#include "server/InlineApplication.h"
#include "server/WorkerApplication.h"
#include "support/Options.h"

#include <qvSystem/qvLog.h>

#include <iostream>

namespace
{

constexpr const char* kAbout =
    "On this library. inline: each response is complete before handleRequest returns, on the\n"
    "daemon's thread; only uploads and streams of more than 256 KiB, which would wait there for\n"
    "that thread itself, go to a pool of --workers threads. worker: by the kit's router, on a\n"
    "pool of --workers threads. WebSockets have --workers threads of their own in both.";

}  // namespace

int main(int argc, char** argv)
{
    bench::Options options;
    int exitCode = 0;
    if (!bench::parseOptions(argc, argv, "wendrel-bench-server", kAbout, options, exitCode))
        return exitCode;
    // Clients that break off are no news here.
    qv::qvLog log;
    log.setMinimumLevel(qv::qvLog::Error);
    log.addSink(qv::MakeStandardErrorSink());
    log.install();

    const bool served = options.mode == bench::Mode::Inline ? bench::serveInline(options)
                                                            : bench::serveWithWorkers(options);
    if (!served)
        std::cerr << "wendrel-bench-server: cannot listen on port " << options.port << std::endl;
    return served ? 0 : 1;
}
