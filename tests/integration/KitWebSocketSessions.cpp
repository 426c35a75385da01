// WebSocket sessions of the kit on a server of event-driven mode, with a client that others wrote
// and with raw bytes.

#include "support/EventRun.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <Wendrel/kit/websocket/Engine.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <string>
#include <utility>

namespace
{

namespace beast = boost::beast;
namespace asio = boost::asio;
using namespace qv::kit::websocket;
using integration::EventRequest;
using integration::EventRun;
using integration::onOneThread;
using integration::RawClient;
using integration::waitUntil;

constexpr std::chrono::seconds kLimit(60);
constexpr const char* kKey = "dGhlIHNhbXBsZSBub25jZQ==";
constexpr size_t kMaxBytes = 16777216;

class Echo : public SessionHandler
{
public:
    void onText(Session& session, std::string_view text) override { session.sendText(text); }
    void onBinary(Session& session, BinaryView bytes) override { session.sendBinary(bytes); }
    void onClose(Session&, uint16_t code, std::string_view, bool clean) override
    {
        lastCode = code;
        closes += clean ? 1 : 100;
    }

    std::atomic<int> closes{0};
    std::atomic<int> lastCode{0};
};

WebSocketOptions largeMessages()
{
    WebSocketOptions options;
    options.maxMessageBytes = kMaxBytes;
    options.sendQueueBytes = 2 * kMaxBytes;
    return options;
}

// Echoes every message.
class EchoServer
{
public:
    explicit EchoServer(WebSocketOptions options = largeMessages(),
                        qv::http::ServerOptions serverOptions = onOneThread())
        : mOptions(std::make_shared<WebSocketOptions>(std::move(options))),
          mRun([this](EventRequest& request) { handle(request); }, std::move(serverOptions))
    {}
    ~EchoServer() { EXPECT_TRUE(engine.shutDown(kLimit)); }

    uint16_t port() const { return mRun.port(); }
    EventRun& run() { return mRun; }

    Engine engine{{2}};
    std::shared_ptr<Echo> handler = std::make_shared<Echo>();

private:
    void handle(EventRequest& request)
    {
        HandshakeReply reply = checkHandshake(request, *mOptions);
        if (reply.status != 101) {
            for (const auto& [name, header] : reply.headers)
                request.response.addHeader(header.first, header.second);
            request.respondHere(reply.status, reply.reason);
            return;
        }
        request.response.statusCode = reply.status;
        request.response.headers = reply.headers;
        request.takeUpgraded = [this, agreement = reply.agreement](
                                   std::unique_ptr<qv::UpgradedConnection> connection) {
            engine.open(std::move(connection), agreement, handler, mOptions);
        };
        request.getResponseDevice().setResponseReady();
    }

    std::shared_ptr<const WebSocketOptions> mOptions;
    EventRun mRun;
};

using Stream = beast::websocket::stream<beast::tcp_stream>;

// Boost.Beast's client, whose operations have a limit.
class Client
{
public:
    explicit Client(uint16_t port, const beast::websocket::permessage_deflate& deflate = {})
        : stream(mContext)
    {
        stream.set_option(deflate);
        stream.read_message_max(kMaxBytes);
        const asio::ip::tcp::endpoint server(asio::ip::make_address("127.0.0.1"), port);
        wait([&](auto done) { stream.next_layer().async_connect(server, done); });
        stream.next_layer().socket().set_option(asio::ip::tcp::no_delay(true));
        wait([&](auto done) {
            stream.async_handshake(mResponse, "127.0.0.1:" + std::to_string(port), "/chat", done);
        });
    }

    std::string extensions() const { return std::string(mResponse["Sec-WebSocket-Extensions"]); }

    std::string echo(const std::string& message, bool isText)
    {
        stream.text(isText);
        beast::flat_buffer received;
        beast::error_code sent = asio::error::timed_out;
        stream.async_write(asio::buffer(message),
                           [&](beast::error_code error, size_t) { sent = error; });
        wait([&](auto done) { stream.async_read(received, done); });
        run();
        EXPECT_FALSE(sent) << sent.message();
        EXPECT_EQ(stream.got_text(), isText);
        return beast::buffers_to_string(received.data());
    }

    void close(beast::websocket::close_code code)
    {
        wait([&](auto done) { stream.async_close(code, done); });
    }

    template <typename Start> void wait(Start start)
    {
        beast::error_code result = asio::error::timed_out;
        start([&](beast::error_code error, auto...) { result = error; });
        run();
        ASSERT_FALSE(result) << result.message();
    }

private:
    asio::io_context mContext;
    beast::websocket::response_type mResponse;

public:
    Stream stream;

private:
    void run()
    {
        mContext.restart();
        mContext.run_for(kLimit);
    }
};

std::string pattern(size_t size)
{
    std::string text;
    while (text.size() < size)
        text += "message " + std::to_string(text.size() * 2654435761U) + " ";
    text.resize(size);
    return text;
}

TEST(KitWebSocketClient, OfBoostBeastIsEchoed)
{
    EchoServer server;
    {
        Client client(server.port());
        for (const bool isText : {false, true}) {
            for (const size_t size : {0, 1, 125, 126, 65535, 65536, 1000000, 16777216}) {
                client.stream.auto_fragment(size % 2 == 1);
                EXPECT_TRUE(client.echo(pattern(size), isText) == pattern(size)) << size;
            }
        }
        client.close(beast::websocket::close_code::going_away);
    }
    EXPECT_TRUE(waitUntil([&] { return server.engine.sessionCount() == 0; }));
    EXPECT_EQ(server.handler->closes, 1);
    EXPECT_EQ(server.handler->lastCode, 1001);
}

TEST(KitWebSocketClient, CompressesWithAllParameters)
{
    for (const int serverBits : {9, 15}) {
        for (const int clientBits : {9, 15}) {
            for (const int contexts : {0, 1, 2, 3}) {
                SCOPED_TRACE(testing::Message()
                             << serverBits << ' ' << clientBits << ' ' << contexts);
                WebSocketOptions options = largeMessages();
                options.serverNoContextTakeover = (contexts & 1) != 0;
                options.clientNoContextTakeover = (contexts & 2) != 0;
                options.minDeflateBytes = 1;
                EchoServer server(options);
                beast::websocket::permessage_deflate deflate;
                deflate.client_enable = true;
                deflate.server_max_window_bits = serverBits;
                deflate.client_max_window_bits = clientBits;
                Client client(server.port(), deflate);
                EXPECT_THAT(client.extensions(), testing::HasSubstr("permessage-deflate"));
                for (const size_t size : {0, 1, 100, 5000, 100000, 100000, 300000})
                    EXPECT_TRUE(client.echo(pattern(size), true) == pattern(size)) << size;
                client.close(beast::websocket::close_code::normal);
            }
        }
    }
}

std::string handshake(const std::string& more = {}, const std::string& method = "GET")
{
    return method +
           " /chat HTTP/1.1\r\nHost: server.example.com\r\nUpgrade: websocket\r\n"
           "Connection: keep-alive, Upgrade\r\nSec-WebSocket-Version: 13\r\n"
           "Sec-WebSocket-Key: " +
           kKey + "\r\n" + more + "\r\n";
}

TEST(KitWebSocketHandshake, IsRespondedToOnTheWire)
{
    EchoServer server;
    RawClient client(server.port());
    client.send(handshake());
    const auto head = client.receiveHead();
    ASSERT_TRUE(head);
    EXPECT_EQ(head->status, 101);
    EXPECT_EQ(head->value("Sec-WebSocket-Accept"), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
    EXPECT_EQ(head->value("Upgrade"), "websocket");
    EXPECT_EQ(head->value("Connection"), "Upgrade");
}

TEST(KitWebSocketHandshake, DoesNotLoseFramesThatFollowItAtOnce)
{
    EchoServer server;
    const std::string message("\x81\x85\0\0\0\0early", 11);
    for (size_t cut = 0; cut <= message.size(); ++cut) {
        RawClient client(server.port());
        client.send(handshake() + message.substr(0, cut));
        client.send(message.substr(cut));
        ASSERT_TRUE(client.receiveHead());
        ASSERT_EQ(client.receiveExactly(7), "\x81\x05"
                                            "early")
            << cut;
    }
}

TEST(KitWebSocketHandshake, IsRefusedWithTheStatusOfItsError)
{
    EchoServer server;
    const struct
    {
        const char* name;
        std::string request;
        int status;
    } rows[] = {
        {"ordinary request", "GET / HTTP/1.1\r\nHost: a\r\n\r\n", 426},
        {"other origin", handshake("Origin: http://evil.example.com\r\n"), 403},
        {"method", handshake("", "DELETE"), 405},
        {"HTTP/1.0",
         [] {
             std::string old = handshake();
             return old.replace(old.find("1.1"), 3, "1.0");
         }(),
         400},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RawClient client(server.port());
        client.send(row.request);
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, row.status);
    }
    RawClient same(server.port());
    same.send(handshake("Origin: http://server.example.com\r\n"));
    EXPECT_EQ(same.receiveHead()->status, 101);
}

TEST(KitWebSocketSessions, CountAsConnectionsUntilTheyEnd)
{
    qv::http::ServerOptions options = onOneThread();
    options.maxConnections = 2;
    EchoServer server(largeMessages(), options);
    {
        Client first(server.port());
        Client second(server.port());
        RawClient refused(server.port());
        refused.send(handshake());
        EXPECT_EQ(refused.receive()->status, 503);
    }
    EXPECT_TRUE(waitUntil([&] { return server.engine.sessionCount() == 0; }));
    Client third(server.port());
    EXPECT_EQ(third.echo("here", true), "here");
}

TEST(KitWebSocketSessions, OutliveTheServer)
{
    EchoServer server;
    Client client(server.port());
    server.run().server().shutDown(std::chrono::seconds(1));
    EXPECT_EQ(client.echo("still here", false), "still here");
}

}  // namespace
