// The daemon, started as the library starts it.
#ifndef BENCH_BARE_DAEMON_H
#define BENCH_BARE_DAEMON_H

#include "support/Options.h"

#include <microhttpd.h>

#include <memory>

namespace bench
{

// Callbacks of the daemon; `closure` is passed to both.
struct Handlers
{
    MHD_AccessHandlerCallback handle;
    MHD_RequestCompletedCallback completed;
    void* closure;
};

using Daemon = std::unique_ptr<MHD_Daemon, void (*)(MHD_Daemon*)>;

// The same flags and options, in the same order, as the library's server; null when it could not
// listen. Destroying it stops it.
Daemon startDaemon(const Options& options, const Handlers& handlers);

}  // namespace bench

#endif
