// Upgraded connections that echo messages.
#ifndef BENCH_CIVETWEB_ECHO_H
#define BENCH_CIVETWEB_ECHO_H

#include <civetweb.h>

namespace bench
{

// On any path. Each connection has a thread of the server until it ends.
void addEcho(mg_context* server);

}  // namespace bench

#endif
