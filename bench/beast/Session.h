// One connection.
#ifndef BENCH_BEAST_SESSION_H
#define BENCH_BEAST_SESSION_H

#include "beast/Asio.h"

namespace bench
{

struct Service
{
    asio::thread_pool* workers;  // serves requests; null: the reading thread does
    bool webSocket;
    asio::ssl::context* tls;  // null: plain
};

// Serves a connection until it ends. A connection does one thing at a time, so that it needs no
// strand, however many threads there are.
Awaitable<void> serveConnection(Socket socket, Service service);

}  // namespace bench

#endif
