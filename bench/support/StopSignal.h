// A server process from its first line to the order to stop.
#ifndef BENCH_SUPPORT_STOPSIGNAL_H
#define BENCH_SUPPORT_STOPSIGNAL_H

#include <cstdint>

namespace bench
{

// Make one at the start of main: it blocks SIGINT and SIGTERM in this thread and in all that are
// started after it, and ignores SIGPIPE.
class StopSignal
{
public:
    StopSignal();

    // Waits for SIGINT or SIGTERM.
    void wait();
};

// Prints the address to the parent process when connections are accepted.
void announceListening(uint16_t port);

}  // namespace bench

#endif
