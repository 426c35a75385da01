/// The servers that are started and stopped. Each makes one, sends the clients, waits for the
/// load, and stops and destroys it in the way that is next in turn.
#ifndef WENDREL_TESTS_INTEGRATION_SERVERS_H
#define WENDREL_TESTS_INTEGRATION_SERVERS_H

#include "Clients.h"
#include "Round.h"

namespace integration
{

/// How a server that is driven by the library alone ends.
enum class LibraryEnding { WaitedFor, NotWaitedFor, StartedAgain, StartedAgainUnwaited };
constexpr unsigned kLibraryEndings = 4;

void runLibraryServer(Round& round, Clients& clients, LibraryEnding ending);

/// How a server of the kit ends. A drained one has promised a response to each accepted request.
enum class KitEnding { Drained, StoppedAtOnce, Destroyed };
constexpr unsigned kKitEndings = 3;

void runKitServer(Round& round, Clients& clients, KitEnding ending);

/// How a server of the kit with WebSocket sessions ends.
enum class SessionEnding { Stopped, StoppedAtOnce, Destroyed };
constexpr unsigned kSessionEndings = 3;

void runSessionServer(Round& round, Clients& clients, SessionEnding ending);

/// Waits until the load of the round is on its way: a number of responses that differs from round
/// to round, streams, and messages on WebSockets if there are any.
void waitForLoad(Round& round);

}  // namespace integration

#endif
