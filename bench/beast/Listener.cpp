// The listening socket.

#include "beast/Listener.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>

#include <utility>

namespace bench
{
namespace
{

constexpr int kListenBacklog = 1024;

}  // namespace

Acceptor listen(asio::io_context& context, uint16_t port)
{
    const Tcp::endpoint address(asio::ip::address_v4::loopback(), port);
    Acceptor acceptor(context.get_executor());
    acceptor.open(address.protocol());
    acceptor.set_option(Acceptor::reuse_address(true));
    acceptor.bind(address);
    acceptor.listen(kListenBacklog);
    return acceptor;
}

// A coroutine outlives the arguments of its call: it needs copies.
// cppcheck-suppress passedByValue
Awaitable<void> acceptConnections(Acceptor acceptor, Service service)
{
    for (;;) {
        auto [error, socket] = co_await acceptor.async_accept(kAwaitTuple);
        if (!error)
            asio::co_spawn(acceptor.get_executor(), serveConnection(std::move(socket), service),
                           asio::detached);
    }
}

}  // namespace bench
