// The opening handshake: checks, response, subprotocols and origins.

#include <Wendrel/kit/websocket/Handshake.h>

#include <support/MinimalRequest.h>

#include <gmock/gmock.h>

#include <Wendrel/Wendrel.h>

#include <map>
#include <string>

namespace
{

using namespace qv::kit::websocket;
using ::testing::ElementsAre;
using Headers = std::map<std::string, std::string>;

// The headers of the example in RFC 6455, changed and, where the value is "-", left out.
HandshakeReply check(const Headers& changes, const WebSocketOptions& options = {},
                     const std::string& method = "GET")
{
    Headers headers = {{"host", "server.example.com"},
                       {"upgrade", "websocket"},
                       {"connection", "Upgrade"},
                       {"sec-websocket-key", "dGhlIHNhbXBsZSBub25jZQ=="},
                       {"sec-websocket-version", "13"}};
    for (const auto& [name, value] : changes)
        headers[name] = value;
    qv::tests::MinimalRequest request;
    request.setHttpMethod(method);
    for (const auto& [name, value] : headers) {
        if (value != "-")
            request.addHeader(name.c_str(), value.c_str());
    }
    return checkHandshake(request, options);
}

class Handshake : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { qv::initializeWendrel(); }
    static void TearDownTestSuite() { qv::terminateWendrel(); }
};

TEST_F(Handshake, MustBeAcceptedWithTheAcceptKey)
{
    const HandshakeReply reply = check({});
    EXPECT_EQ(reply.status, 101u);
    EXPECT_EQ(reply.headers.at("sec-websocket-accept").second, "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
    EXPECT_EQ(reply.headers.at("upgrade").second, "websocket");
    EXPECT_EQ(reply.headers.count("sec-websocket-protocol"), 0u);
    EXPECT_EQ(reply.headers.count("sec-websocket-extensions"), 0u);
    EXPECT_FALSE(reply.agreement.deflate.isEnabled);
}

TEST_F(Handshake, AcceptsEverySpelling)
{
    const Headers rows[] = {
        {{"upgrade", "WebSocket"}},
        {{"upgrade", "WEBSOCKET"}, {"connection", "upgrade"}},
        {{"upgrade", "h2c, websocket"}, {"connection", "keep-alive, Upgrade"}},
        {{"connection", "Keep-Alive,UPGRADE, x"}},
        {{"sec-websocket-key", "  AQIDBAUGBwgJCgsMDQ4PEA== "}},
        {{"sec-websocket-version", " 13 "}},
    };
    for (const Headers& row : rows)
        EXPECT_EQ(check(row).status, 101u) << row.begin()->second;
}

TEST_F(Handshake, MustBeRefusedWhenItIsNotWhole)
{
    const struct
    {
        const char* name;
        Headers changes;
        uint32_t status;
    } rows[] = {
        {"no upgrade", {{"upgrade", "-"}}, 426},
        {"another upgrade", {{"upgrade", "h2c"}}, 426},
        {"part of a word", {{"upgrade", "websockets"}}, 426},
        {"no connection", {{"connection", "-"}}, 426},
        {"keep-alive", {{"connection", "keep-alive"}}, 426},
        {"no version", {{"sec-websocket-version", "-"}}, 426},
        {"version 8", {{"sec-websocket-version", "8"}}, 426},
        {"several versions", {{"sec-websocket-version", "13, 8"}}, 426},
        {"no key", {{"sec-websocket-key", "-"}}, 400},
        {"15 bytes", {{"sec-websocket-key", "AQIDBAUGBwgJCgsMDQ4P"}}, 400},
        {"17 bytes", {{"sec-websocket-key", "AQIDBAUGBwgJCgsMDQ4PEBE="}}, 400},
        {"no padding", {{"sec-websocket-key", "AQIDBAUGBwgJCgsMDQ4PEA"}}, 400},
        {"no base64", {{"sec-websocket-key", "AQIDBAUGBwgJCgsMDQ4P*A=="}}, 400},
        {"malformed extensions", {{"sec-websocket-extensions", "a b"}}, 400},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const HandshakeReply reply = check(row.changes);
        EXPECT_EQ(reply.status, row.status);
        EXPECT_NE(reply.reason, "");
        EXPECT_EQ(reply.headers.count("sec-websocket-version"), row.status == 426 ? 1u : 0u);
        if (row.status == 426) {
            EXPECT_EQ(reply.headers.at("sec-websocket-version").second, "13");
            EXPECT_EQ(reply.headers.at("upgrade").second, "websocket");
        }
    }
    EXPECT_EQ(check({}, {}, "POST").status, 405u);
}

TEST_F(Handshake, ChoosesTheFirstSubprotocolOfTheServer)
{
    WebSocketOptions options;
    options.subprotocols = {"chat.v2", "chat"};
    HandshakeReply reply = check({{"sec-websocket-protocol", "other, chat, chat.v2"}}, options);
    EXPECT_EQ(reply.agreement.subprotocol, "chat.v2");
    EXPECT_EQ(reply.headers.at("sec-websocket-protocol").second, "chat.v2");
    reply = check({{"sec-websocket-protocol", "other"}}, options);
    EXPECT_EQ(reply.status, 101u);
    EXPECT_EQ(reply.headers.count("sec-websocket-protocol"), 0u);
    reply = check({}, options);
    EXPECT_EQ(reply.agreement.subprotocol, "");
}

TEST_F(Handshake, AcceptsTheOriginOfTheServerAndThoseOfTheList)
{
    const struct
    {
        const char* origin;
        const char* host;
        uint32_t status;
    } rows[] = {
        {"-", "server.example.com", 101},
        {"http://server.example.com", "server.example.com", 101},
        {"https://Server.example.com", "server.example.com", 101},
        {"https://server.example.com", "server.example.com:443", 101},
        {"http://server.example.com:80", "server.example.com", 101},
        {"http://server.example.com:8080", "server.example.com:8080", 101},
        {"http://[::1]:8080", "[::1]:8080", 101},
        {"http://server.example.com:8081", "server.example.com:8080", 403},
        {"http://server.example.com", "server.example.com:8080", 403},
        {"http://evil.example.com", "server.example.com", 403},
        {"http://server.example.com.evil", "server.example.com", 403},
        {"null", "server.example.com", 403},
        {"", "server.example.com", 403},
        {"http://", "server.example.com", 403},
        {"http://server.example.com", "-", 403},
        {"https://friend.example.org", "server.example.com", 101},
        {"http://friend.example.org", "server.example.com", 403},
    };
    WebSocketOptions options;
    options.allowedOrigins = {"https://friend.example.org"};
    for (const auto& row : rows)
        EXPECT_EQ(check({{"origin", row.origin}, {"host", row.host}}, options).status, row.status)
            << row.origin << " at " << row.host;
    options.allowedOrigins = {"*"};
    EXPECT_EQ(check({{"origin", "null"}}, options).status, 101u);
}

TEST_F(Handshake, AgreesOnCompression)
{
    const Headers offer = {
        {"sec-websocket-extensions", "foo, permessage-deflate; client_max_window_bits"}};
    const HandshakeReply reply = check(offer);
    EXPECT_TRUE(reply.agreement.deflate.isEnabled);
    EXPECT_EQ(reply.headers.at("sec-websocket-extensions").second,
              "permessage-deflate; server_no_context_takeover; client_no_context_takeover");
    WebSocketOptions off;
    off.deflate = false;
    EXPECT_EQ(check(offer, off).headers.count("sec-websocket-extensions"), 0u);
}

}  // namespace
