// The types of asio with compile-time executors, without type erasure at run time.
#ifndef BENCH_BEAST_ASIO_H
#define BENCH_BEAST_ASIO_H

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/ssl.hpp>

namespace bench
{

namespace asio = boost::asio;
namespace beast = boost::beast;

using Executor = asio::io_context::executor_type;
using Tcp = asio::ip::tcp;
using Socket = asio::basic_stream_socket<Tcp, Executor>;
using SecureSocket = beast::ssl_stream<Socket>;
using Acceptor = asio::basic_socket_acceptor<Tcp, Executor>;
template <typename Result> using Awaitable = asio::awaitable<Result, Executor>;

constexpr asio::use_awaitable_t<Executor> kAwait;
// Returns the error with the result instead of throwing.
constexpr auto kAwaitTuple = asio::as_tuple(kAwait);

}  // namespace bench

#endif
