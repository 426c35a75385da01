// A server of either mode, from its options to its end.
#ifndef BENCH_SERVER_LISTENING_H
#define BENCH_SERVER_LISTENING_H

#include "support/Options.h"

#include <Wendrel/HttpServer.h>

namespace bench
{

// The options of event-driven mode.
qv::http::ServerOptions servingOptions(const Options& options);

// Starts the server and prints its endpoints; false, with the reason printed, when it cannot
// listen.
bool startServer(qv::http::HttpServer& server, const Options& options);

// In event-driven mode, stops the server when its requests are finished.
void shutDownServer(qv::http::HttpServer& server, const Options& options);

}  // namespace bench

#endif
