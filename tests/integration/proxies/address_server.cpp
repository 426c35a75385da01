// A server in event-driven mode that tells each client its address, and trusts the proxies that are
// its arguments.

#include "../support/TestServer.h"

#include <qvSystem/qvLog.h>

#include <sys/prctl.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace
{

integration::TestServerOptions trusting(int count, char** proxies)
{
    integration::TestServerOptions options;
    options.eventDriven.trustedProxies.assign(proxies, proxies + count);
    return options;
}

}  // namespace

int main(int argc, char** argv)
{
    // Before any thread, so that all of them leave the signals to sigwait.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    // A test that is cut off leaves no server behind.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::setenv("WENDREL_TEST_MODE", "event-driven", 1);

    qv::qvLog log;
    log.addSink(qv::MakeStandardErrorSink());
    log.install();
    const integration::TestServer server(
        [](integration::TestRequest& request) {
            request.respond(200, request.getClientAddress().toString());
        },
        trusting(argc - 1, argv + 1));
    std::printf("port %u\n", static_cast<unsigned>(server.port()));
    std::fflush(stdout);
    int number = 0;
    sigwait(&stopSignals, &number);
    return 0;
}
