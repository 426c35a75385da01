// A WebSocket client that others wrote, against a server of event-driven mode whose application
// does the handshake and the frames.

#include "support/EventRun.h"
#include "support/Waiting.h"

#include <Wendrel/WebSocket.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <fcntl.h>

namespace
{

namespace beast = boost::beast;
namespace asio = boost::asio;
using integration::EventRequest;
using integration::EventRun;
using qv::UpgradedConnection;

// Reads from the received bytes first, then from the descriptor, which it makes blocking.
class Peer
{
public:
    explicit Peer(std::unique_ptr<UpgradedConnection> connection)
        : mConnection(std::move(connection)), mReceived(mConnection->takeReceivedBytes())
    {
        fcntl(mConnection->getDescriptor(), F_SETFL, 0);
    }

    // Echoes messages of one frame until the close frame or the end.
    void echo()
    {
        for (;;) {
            std::string head = read(2);
            if (head.size() != 2)
                return;
            size_t size = static_cast<unsigned char>(head[1]) & 0x7f;
            const size_t lengthBytes = size == 126 ? 2 : size == 127 ? 8 : 0;
            const std::string length = read(lengthBytes);
            if (lengthBytes != 0)
                size = 0;
            for (const char byte : length)
                size = size << 8 | static_cast<unsigned char>(byte);
            const std::string key = read(4);
            std::string payload = read(size);
            if (key.size() != 4 || payload.size() != size)
                return;
            for (size_t i = 0; i < size; ++i)
                payload[i] = static_cast<char>(payload[i] ^ key[i % 4]);
            head[1] = static_cast<char>(head[1] & 0x7f);
            write(head + length + payload);
            if ((head[0] & 0x0f) == 8)
                return;
        }
    }

private:
    std::string read(size_t size)
    {
        while (mReceived.size() < size) {
            char bytes[65536];
            const ssize_t got = recv(mConnection->getDescriptor(), bytes, sizeof bytes, 0);
            if (got <= 0)
                return std::string();
            mReceived.append(bytes, static_cast<size_t>(got));
        }
        std::string taken = mReceived.substr(0, size);
        mReceived.erase(0, size);
        return taken;
    }

    void write(const std::string& bytes)
    {
        EXPECT_EQ(send(mConnection->getDescriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }

    std::unique_ptr<UpgradedConnection> mConnection;
    std::string mReceived;
};

TEST(EventUpgradeClient, OfBoostBeastIsEchoed)
{
    std::thread echoing;
    {
        EventRun run([&](EventRequest& request) {
            const auto* const key = request.getHeader("sec-websocket-key");
            ASSERT_TRUE(key);
            request.response.statusCode = 101;
            request.response.addHeader("Upgrade", "websocket");
            request.response.addHeader("Sec-WebSocket-Accept",
                                       qv::http::WebSocket::ComputeSecret(key->front().c_str()));
            request.takeUpgraded = [&](std::unique_ptr<UpgradedConnection> connection) {
                auto peer = std::make_shared<Peer>(std::move(connection));
                echoing = std::thread([peer] { peer->echo(); });
            };
            request.getResponseDevice().setResponseReady();
        });
        asio::io_context context;
        beast::websocket::stream<beast::tcp_stream> client(context);
        const asio::ip::tcp::endpoint server(asio::ip::make_address("127.0.0.1"), run.port());
        // Times out by itself.
        const auto wait = [&](auto start) {
            beast::error_code result = asio::error::timed_out;
            start([&](beast::error_code error, auto...) { result = error; });
            context.restart();
            context.run_for(integration::kLimit);
            ASSERT_FALSE(result) << result.message();
        };
        wait([&](auto done) { client.next_layer().async_connect(server, done); });
        wait([&](auto done) { client.async_handshake("127.0.0.1", "/chat", done); });
        for (const size_t bytes : {0, 1, 125, 126, 65535, 65536, 1000000}) {
            SCOPED_TRACE(bytes);
            const std::string message(bytes, 'm');
            client.auto_fragment(false);
            wait([&](auto done) { client.async_write(asio::buffer(message), done); });
            beast::flat_buffer received;
            wait([&](auto done) { client.async_read(received, done); });
            EXPECT_TRUE(beast::buffers_to_string(received.data()) == message);
        }
        wait([&](auto done) { client.async_close(beast::websocket::close_code::normal, done); });
        EXPECT_EQ(run.request(0)->upgrades, 1);
    }
    if (echoing.joinable())
        echoing.join();
}

}  // namespace
