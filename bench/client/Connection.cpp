// One connection: messages out, echoes in.

#include "client/Connection.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/beast/http/field.hpp>

#include <algorithm>
#include <cstring>

namespace bench::client
{
namespace
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using Tcp = asio::ip::tcp;

constexpr asio::use_awaitable_t<Executor> kAwait;
constexpr auto kAwaitTuple = asio::as_tuple(kAwait);

constexpr size_t kAlphabetLetters = 26;
constexpr size_t kMaskingBufferBytes = 65536;
// One echo in so many is compared byte by byte.
constexpr uint64_t kCompareEach = 64;

std::string makeMessage(size_t bytes)
{
    std::string message(bytes, '\0');
    for (size_t i = 0; i < bytes; ++i)
        message[i] = static_cast<char>('a' + i % kAlphabetLetters);
    return message;
}

// There are servers that know these words in this spelling only.
void spellUpgrade(websocket::request_type& request)
{
    request.set(http::field::upgrade, "WebSocket");
    request.set(http::field::connection, "Upgrade");
}

template <typename Stream> Stream makeStream(asio::io_context& context);

template <> Socket makeStream(asio::io_context& context)
{
    return Socket(context.get_executor());
}

// Certificates are not checked.
template <> SecureSocket makeStream(asio::io_context& context)
{
    static asio::ssl::context tls(asio::ssl::context::tls_client);
    return SecureSocket(context.get_executor(), tls);
}

Awaitable<beast::error_code> shakeHands(Socket&)
{
    co_return beast::error_code();
}

Awaitable<beast::error_code> shakeHands(SecureSocket& socket)
{
    const auto [failed] =
        co_await socket.async_handshake(asio::ssl::stream_base::client, kAwaitTuple);
    co_return failed;
}

}  // namespace

template <typename Stream>
Connection<Stream>::Connection(asio::io_context& context, const Options& options, Tally& tally)
    : mOptions(options), mTally(tally), mSocket(makeStream<Stream>(context)),
      mMessage(makeMessage(options.bytes))
{
    mSocket.set_option(websocket::stream_base::decorator(&spellUpgrade));
    mSocket.binary(!options.text);
    mSocket.auto_fragment(false);
    mSocket.write_buffer_bytes(kMaskingBufferBytes);
    mSocket.read_message_max(options.bytes + 1);
}

template <typename Stream> Awaitable<bool> Connection<Stream>::open()
{
    const Tcp::endpoint server(asio::ip::address_v4::loopback(), mOptions.port);
    const auto [notConnected] =
        co_await beast::get_lowest_layer(mSocket).async_connect(server, kAwaitTuple);
    if (notConnected) {
        mTally.addError("connect: " + notConnected.message());
        co_return false;
    }
    beast::error_code ignored;
    beast::get_lowest_layer(mSocket).set_option(Tcp::no_delay(true), ignored);
    if (const beast::error_code failed = co_await shakeHands(mSocket.next_layer())) {
        mTally.addError("TLS: " + failed.message());
        co_return false;
    }
    // Complete only when all of the 101 has been read.
    const auto [refused] =
        co_await mSocket.async_handshake("127.0.0.1", mOptions.path, kAwaitTuple);
    if (refused) {
        mTally.addError("handshake: " + refused.message());
        co_return false;
    }
    co_return true;
}

template <typename Stream> Awaitable<void> Connection<Stream>::run(Period period)
{
    Clock::time_point sentAt = Clock::now();
    while (sentAt < period.end) {
        if (!co_await exchange())
            co_return;
        const Clock::time_point receivedAt = Clock::now();
        if (receivedAt >= period.begin && receivedAt < period.end)
            mTally.add(receivedAt - sentAt);
        sentAt = receivedAt;
    }
    // Not every server replies to this.
    co_await mSocket.async_close(websocket::close_code::normal, kAwaitTuple);
}

template <typename Stream> Awaitable<bool> Connection<Stream>::exchange()
{
    if (!mMessage.empty())
        mMessage.front() = static_cast<char>('A' + mSent % kAlphabetLetters);
    const auto [writeError, written] =
        co_await mSocket.async_write(asio::buffer(mMessage), kAwaitTuple);
    if (writeError) {
        mTally.addError("send: " + writeError.message());
        co_return false;
    }
    ++mSent;
    const auto [readError, received] = co_await mSocket.async_read(mEcho, kAwaitTuple);
    if (readError) {
        mTally.addError("receive: " + readError.message());
        co_return false;
    }
    const bool good = checkEcho(received);
    mEcho.consume(received);
    co_return good;
}

template <typename Stream> bool Connection<Stream>::checkEcho(size_t received)
{
    if (received != mMessage.size() || mSocket.got_text() != mOptions.text) {
        mTally.addError("an echo of " + std::to_string(received) + " bytes or of another kind");
        return false;
    }
    const char* echo = static_cast<const char*>(mEcho.cdata().data());
    const bool whole = mSent % kCompareEach == 1;
    const size_t compared = whole ? received : std::min<size_t>(received, 1);
    if (std::memcmp(echo, mMessage.data(), compared) != 0) {
        mTally.addError("an echo of other bytes");
        return false;
    }
    return true;
}

template <typename Stream> void Connection<Stream>::cancel()
{
    beast::error_code ignored;
    beast::get_lowest_layer(mSocket).close(ignored);
}

template class Connection<Socket>;
template class Connection<SecureSocket>;

}  // namespace bench::client
