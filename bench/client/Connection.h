// One connection: messages out, echoes in.
#ifndef BENCH_CLIENT_CONNECTION_H
#define BENCH_CLIENT_CONNECTION_H

#include "client/Options.h"
#include "client/Tally.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <cstdint>
#include <string>

namespace bench::client
{

// From when to when echoes count.
struct Period
{
    Clock::time_point begin;
    Clock::time_point end;
};

using Executor = boost::asio::io_context::executor_type;
template <typename Result> using Awaitable = boost::asio::awaitable<Result, Executor>;

using Socket = boost::asio::basic_stream_socket<boost::asio::ip::tcp, Executor>;
using SecureSocket = boost::beast::ssl_stream<Socket>;

// `Stream`: a socket, with TLS or without.
template <typename Stream> class Connection
{
public:
    Connection(boost::asio::io_context& context, const Options& options, Tally& tally);

    // Connects and shakes hands; false, with an error in the tally, when that fails.
    Awaitable<bool> open();

    // Sends and receives until the period has ended; then closes.
    Awaitable<void> run(Period period);

    // Cancels all operations of the connection.
    void cancel();

private:
    using WebSocket = boost::beast::websocket::stream<Stream>;

    Awaitable<bool> exchange();
    bool checkEcho(size_t received);

    const Options& mOptions;
    Tally& mTally;
    WebSocket mSocket;
    boost::beast::flat_buffer mEcho;
    std::string mMessage;
    uint64_t mSent = 0;
};

}  // namespace bench::client

#endif
