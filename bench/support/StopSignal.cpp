// A server process from its first line to the order to stop.

#include "support/StopSignal.h"

#include <csignal>
#include <iostream>

namespace bench
{
namespace
{

sigset_t stopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

}  // namespace

StopSignal::StopSignal()
{
    const sigset_t signals = stopSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

void StopSignal::wait()
{
    const sigset_t signals = stopSignals();
    int number = 0;
    sigwait(&signals, &number);
}

void announceListening(uint16_t port)
{
    std::cout << "listening on 127.0.0.1:" << port << std::endl;
}

}  // namespace bench
