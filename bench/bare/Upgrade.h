// The opening handshake of a WebSocket.
#ifndef BENCH_BARE_UPGRADE_H
#define BENCH_BARE_UPGRADE_H

#include "bare/EchoLoop.h"

#include <microhttpd.h>

namespace bench
{

// Whether the request is a WebSocket upgrade, case-insensitive.
bool asksForUpgrade(MHD_Connection* connection);

// Responds 101 and passes the connection to `echo`; 400 when the handshake is incomplete.
MHD_Result acceptUpgrade(MHD_Connection* connection, EchoLoop& echo);

}  // namespace bench

#endif
