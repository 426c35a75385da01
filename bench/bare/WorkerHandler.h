// The pages of the benchmark, served by workers.
#ifndef BENCH_BARE_WORKERHANDLER_H
#define BENCH_BARE_WORKERHANDLER_H

#include "bare/Daemon.h"
#include "bare/EchoLoop.h"
#include "bare/Exchange.h"

namespace bench
{

// The closure of the daemon's calls.
struct WorkerService
{
    WorkQueue& queue;
    EchoLoop* echo;  // takes upgraded connections; null: none are upgraded
    bool suspends;   // connections that wait
};

// `service` must outlive the daemon.
Handlers workerHandlers(WorkerService& service);

}  // namespace bench

#endif
