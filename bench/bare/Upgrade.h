// The opening handshake of a WebSocket.
#ifndef BENCH_BARE_UPGRADE_H
#define BENCH_BARE_UPGRADE_H

#include "bare/EchoLoop.h"

#include <microhttpd.h>

namespace bench
{

// Whether the client wants a WebSocket, in whatever letter case.
bool asksForUpgrade(MHD_Connection* connection);

// Answers 101 and hands the connection to `echo`; 400 when the handshake is not complete.
MHD_Result answerUpgrade(MHD_Connection* connection, EchoLoop& echo);

}  // namespace bench

#endif
