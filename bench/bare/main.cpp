// wendrel-bench-bare: the pages of the benchmark, served by the daemon without the library: the
// lower bound that the library is compared with.

#include "bare/Daemon.h"
#include "bare/EchoLoop.h"
#include "bare/Exchange.h"
#include "bare/InlineHandler.h"
#include "bare/WorkerHandler.h"
#include "support/Options.h"
#include "support/StopSignal.h"

#include <iostream>
#include <memory>

namespace
{

constexpr const char* kAbout =
    "On libmicrohttpd alone, with the flags and options that the library gives it. inline: on the\n"
    "daemon's threads. worker: on --workers threads behind a queue; the daemon is told at once,\n"
    "whenever it polls, that there is no response yet, or with --suspend suspended until there "
    "is.\n"
    "WebSockets have a poll thread and --workers threads of their own in both.";

bool serve(const bench::Options& options, bench::StopSignal& stopSignal,
           const bench::Handlers& handlers, bench::EchoLoop* echo)
{
    const bench::Daemon daemon = bench::startDaemon(options, handlers);
    if (!daemon)
        return false;
    bench::announceListening(options.port);
    stopSignal.wait();
    // The connections must be closed while the daemon is still there to close them.
    if (echo)
        echo->stop();
    bench::Suspension::End();
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    bench::Options options;
    int exitCode = 0;
    const bench::Program program{.name = "wendrel-bench-bare", .about = kAbout, .canSuspend = true};
    if (!bench::parseOptions(argc, argv, program, options, exitCode))
        return exitCode;
    bench::StopSignal stopSignal;  // before any thread
    std::unique_ptr<bench::EchoLoop> echo;
    if (options.webSocket)
        echo = std::make_unique<bench::EchoLoop>(options.workers);

    bool served = false;
    if (options.mode == bench::Mode::Inline) {
        served = serve(options, stopSignal, bench::inlineHandlers(echo.get()), echo.get());
    } else {
        bench::WorkQueue queue(options.workers);
        bench::WorkerService service{queue, echo.get(), options.suspend};
        served = serve(options, stopSignal, bench::workerHandlers(service), echo.get());
    }
    if (!served)
        std::cerr << "wendrel-bench-bare: cannot listen on port " << options.port << std::endl;
    return served ? 0 : 1;
}
