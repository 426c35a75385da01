// The pages of the benchmark, served by the kit.
#ifndef BENCH_SERVER_KITSERVER_H
#define BENCH_SERVER_KITSERVER_H

#include "support/Options.h"

namespace bench
{

// Serves until the process is told to stop; false when it could not listen.
bool serveWithKit(const Options& options);

}  // namespace bench

#endif
