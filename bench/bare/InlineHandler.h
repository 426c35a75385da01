// The pages of the benchmark, served on the daemon threads.
#ifndef BENCH_BARE_INLINEHANDLER_H
#define BENCH_BARE_INLINEHANDLER_H

#include "bare/Daemon.h"
#include "bare/EchoLoop.h"

namespace bench
{

// `echo` takes upgraded connections; null: none are upgraded.
Handlers inlineHandlers(EchoLoop* echo);

}  // namespace bench

#endif
