// One connection: its requests one after the other, or its messages.

#include "beast/Session.h"

#include "support/Content.h"
#include "support/Question.h"

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace bench
{
namespace
{

namespace http = beast::http;
namespace websocket = beast::websocket;

using Parser = http::request_parser<http::buffer_body>;
using WholeResponse = http::response<http::span_body<const char>>;
using StreamResponse = http::response<http::buffer_body>;

constexpr unsigned kHttp11 = 11;
constexpr size_t kMaxMessageBytes = 67108864;
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

// `Stream`: a socket, with TLS or without.
template <typename Stream> class Session
{
public:
    Session(Stream socket, Service service) : mSocket(std::move(socket)), mService(service) {}

    Awaitable<void> serve();

private:
    using Request = http::request<http::buffer_body>;

    Awaitable<bool> serveRequest();
    Awaitable<bool> readUpload(Parser& parser, uint64_t& bytes);
    Awaitable<bool> respond(const Request& request, const Question& question, uint64_t uploaded);
    Awaitable<bool> reply(const Request& request, http::status status, const std::string& body);
    Awaitable<bool> stream(const Request& request, uint64_t bytes);
    Awaitable<void> toWorker();
    Awaitable<void> fromWorker();
    Awaitable<void> echo(const Request& request);

    Stream mSocket;
    const Service mService;
    beast::flat_buffer mBuffer;
};

Question questionOf(const http::request<http::buffer_body>& request)
{
    const std::string_view target(request.target().data(), request.target().size());
    const size_t end = std::min(target.find('?'), target.size());
    const std::string_view query = target.substr(std::min(end + 1, target.size()));
    const std::string_view method(request.method_string().data(), request.method_string().size());
    return parseQuestion(method, target.substr(0, end),
                         [query](const char* name) { return findArgument(query, name); });
}

Awaitable<void> end(Socket& socket)
{
    beast::error_code ignored;
    socket.shutdown(Tcp::socket::shutdown_send, ignored);
    co_return;
}

Awaitable<void> end(SecureSocket& socket)
{
    co_await socket.async_shutdown(kAwaitTuple);
}

template <typename Stream> Awaitable<void> Session<Stream>::serve()
{
    // GCC 12 breaks the frame of a template that awaits in the condition of a loop.
    bool goesOn = true;
    while (goesOn)
        goesOn = co_await serveRequest();
    co_await end(mSocket);
}

// False when there will be no other.
template <typename Stream> Awaitable<bool> Session<Stream>::serveRequest()
{
    Parser parser;
    parser.body_limit(boost::none);
    const auto [error, count] =
        co_await http::async_read_header(mSocket, mBuffer, parser, kAwaitTuple);
    if (error)
        co_return false;
    if (mService.webSocket && websocket::is_upgrade(parser.get())) {
        co_await echo(parser.get());
        co_return false;
    }
    const Question question = questionOf(parser.get());
    uint64_t uploaded = 0;
    if (!parser.is_done() && !co_await readUpload(parser, uploaded))
        co_return false;
    co_return co_await respond(parser.get(), question, uploaded);
}

// Reads the body into the same buffer; false when it was aborted.
template <typename Stream>
Awaitable<bool> Session<Stream>::readUpload(Parser& parser, uint64_t& bytes)
{
    const auto expected = parser.get().find(http::field::expect);
    if (expected != parser.get().end() && beast::iequals(expected->value(), "100-continue"))
        co_await asio::async_write(mSocket, asio::buffer(kContinue), kAwaitTuple);
    const auto piece = std::make_unique_for_overwrite<char[]>(kPieceBytes);
    while (!parser.is_done()) {
        auto& body = parser.get().body();
        body.data = piece.get();
        body.size = kPieceBytes;
        const auto [error, count] =
            co_await http::async_read(mSocket, mBuffer, parser, kAwaitTuple);
        bytes += kPieceBytes - body.size;
        if (error && error != http::error::need_buffer)
            co_return false;
    }
    co_return true;
}

template <typename Stream>
Awaitable<bool> Session<Stream>::respond(const Request& request, const Question& question,
                                         uint64_t uploaded)
{
    co_await toWorker();
    switch (question.page) {
    case Page::Slow:
        std::this_thread::sleep_for(std::chrono::milliseconds(question.number));
        [[fallthrough]];
    case Page::Hello:
        co_return co_await reply(request, http::status::ok, kHello);
    case Page::Big:
        co_return co_await reply(request, http::status::ok, bigBody());
    case Page::Stream:
        co_return co_await stream(request, question.number);
    case Page::Upload:
        co_return co_await reply(request, http::status::ok, std::to_string(uploaded));
    default:
        break;
    }
    co_return co_await reply(request, http::status::not_found, kNotFound);
}

// Starts on the responding thread and continues on the thread of the connection.
template <typename Stream>
Awaitable<bool> Session<Stream>::reply(const Request& request, http::status status,
                                       const std::string& body)
{
    WholeResponse response(status, kHttp11);
    response.keep_alive(request.keep_alive());
    response.set(http::field::content_type, kContentType);
    response.body() = beast::span<const char>(body.data(), body.size());
    response.content_length(body.size());
    co_await fromWorker();
    const auto [error, count] = co_await http::async_write(mSocket, response, kAwaitTuple);
    co_return !error && !response.need_eof();
}

template <typename Stream>
Awaitable<bool> Session<Stream>::stream(const Request& request, uint64_t bytes)
{
    StreamResponse response(http::status::ok, kHttp11);
    response.keep_alive(request.keep_alive());
    response.set(http::field::content_type, kContentType);
    response.chunked(true);
    http::response_serializer<http::buffer_body> serializer(response);
    while (!serializer.is_done()) {
        const size_t part = std::min<uint64_t>(bytes, kPieceBytes);
        bytes -= part;
        auto& body = response.body();
        body.data = part == 0 ? nullptr : const_cast<char*>(streamPiece().data());
        body.size = part;
        body.more = part != 0;
        co_await fromWorker();
        const auto [error, count] = co_await http::async_write(mSocket, serializer, kAwaitTuple);
        if (error && error != http::error::need_buffer)
            co_return false;
        if (body.more)
            co_await toWorker();
    }
    co_return !response.need_eof();
}

template <typename Stream> Awaitable<void> Session<Stream>::toWorker()
{
    if (mService.workers)
        co_await asio::post(asio::bind_executor(mService.workers->get_executor(), kAwait));
}

template <typename Stream> Awaitable<void> Session<Stream>::fromWorker()
{
    if (mService.workers)
        co_await asio::post(mSocket.get_executor(), kAwait);
}

template <typename Stream> Awaitable<void> Session<Stream>::echo(const Request& request)
{
    websocket::stream<Stream&> connection(mSocket);
    connection.read_message_max(kMaxMessageBytes);
    connection.auto_fragment(false);
    // Only the head of the request matters to the handshake.
    http::request<http::empty_body> head(http::request_header<>(request.base()));
    const auto [refused] = co_await connection.async_accept(head, kAwaitTuple);
    if (refused)
        co_return;
    for (;;) {
        const auto [readError, got] = co_await connection.async_read(mBuffer, kAwaitTuple);
        if (readError)
            co_return;
        connection.binary(connection.got_binary());
        const auto [writeError, sent] =
            co_await connection.async_write(mBuffer.cdata(), kAwaitTuple);
        if (writeError)
            co_return;
        mBuffer.consume(mBuffer.size());
    }
}

Awaitable<void> servePlain(Socket socket, Service service)
{
    Session<Socket> session(std::move(socket), service);
    co_await session.serve();
}

Awaitable<void> serveSecure(Socket socket, Service service)
{
    SecureSocket secure(std::move(socket), *service.tls);
    const auto [failed] =
        co_await secure.async_handshake(asio::ssl::stream_base::server, kAwaitTuple);
    if (failed)
        co_return;
    Session<SecureSocket> session(std::move(secure), service);
    co_await session.serve();
}

}  // namespace

Awaitable<void> serveConnection(Socket socket, Service service)
{
    beast::error_code ignored;
    socket.set_option(Tcp::no_delay(true), ignored);
    return service.tls ? serveSecure(std::move(socket), service)
                       : servePlain(std::move(socket), service);
}

}  // namespace bench
