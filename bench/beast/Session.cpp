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

class Session
{
public:
    Session(Socket socket, Service service) : mSocket(std::move(socket)), mService(service) {}

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

    Socket mSocket;
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

Awaitable<void> Session::serve()
{
    beast::error_code ignored;
    mSocket.set_option(Tcp::no_delay(true), ignored);
    while (co_await serveRequest()) {
    }
    mSocket.shutdown(Tcp::socket::shutdown_send, ignored);
}

// False when there will be no other.
Awaitable<bool> Session::serveRequest()
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
Awaitable<bool> Session::readUpload(Parser& parser, uint64_t& bytes)
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

Awaitable<bool> Session::respond(const Request& request, const Question& question,
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
Awaitable<bool> Session::reply(const Request& request, http::status status, const std::string& body)
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

Awaitable<bool> Session::stream(const Request& request, uint64_t bytes)
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

Awaitable<void> Session::toWorker()
{
    if (mService.workers)
        co_await asio::post(asio::bind_executor(mService.workers->get_executor(), kAwait));
}

Awaitable<void> Session::fromWorker()
{
    if (mService.workers)
        co_await asio::post(mSocket.get_executor(), kAwait);
}

Awaitable<void> Session::echo(const Request& request)
{
    websocket::stream<Socket> connection(std::move(mSocket));
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

}  // namespace

Awaitable<void> serveConnection(Socket socket, Service service)
{
    Session session(std::move(socket), service);
    co_await session.serve();
}

}  // namespace bench
