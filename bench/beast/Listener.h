// The listening socket.
#ifndef BENCH_BEAST_LISTENER_H
#define BENCH_BEAST_LISTENER_H

#include "beast/Asio.h"
#include "beast/Session.h"

#include <cstdint>

namespace bench
{

// Throws boost::system::system_error when the port is not free.
Acceptor listen(asio::io_context& context, uint16_t port);

// Accepts connections and has each served, until the context stops.
Awaitable<void> acceptConnections(Acceptor acceptor, Service service);

}  // namespace bench

#endif
