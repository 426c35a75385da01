// Routes for WebSockets: from the handshake to the end of the session.

#include "support/KitTestServer.h"

#include <support/BackgroundCall.h>

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace
{

using integration::getRequest;
using integration::KitTestServer;
using integration::RawClient;
using integration::waitUntil;
using qv::kit::HttpError;
using qv::kit::Request;
using qv::kit::Router;
using qv::kit::websocket::Session;
using qv::kit::websocket::SessionHandler;
using qv::kit::websocket::WebSocketOptions;
using qv::tests::BackgroundCall;
using ::testing::Contains;
using ::testing::HasSubstr;

std::string handshake(const std::string& target, const std::string& more = std::string())
{
    return getRequest(target, "Connection: Upgrade\r\nUpgrade: websocket\r\n"
                              "Sec-WebSocket-Version: 13\r\n"
                              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n" +
                                  more);
}

// Of a client; the mask is 0.
std::string frame(char opcode, const std::string& payload)
{
    return std::string{static_cast<char>(0x80 | opcode),
                       static_cast<char>(0x80 | static_cast<char>(payload.size())),
                       0,
                       0,
                       0,
                       0} +
           payload;
}

std::string text(const std::string& payload)
{
    return frame(1, payload);
}

// Of the server.
std::string received(RawClient& client)
{
    const std::string head = client.receiveExactly(2);
    return head.size() == 2 ? head + client.receiveExactly(static_cast<size_t>(head[1]))
                            : std::string();
}

std::string sent(char opcode, const std::string& payload)
{
    return std::string{static_cast<char>(0x80 | opcode), static_cast<char>(payload.size())} +
           payload;
}

class Talk : public SessionHandler
{
public:
    explicit Talk(std::string name = std::string()) : mName(std::move(name)) {}

    void onOpen(const std::shared_ptr<Session>& session) override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSession = session;
    }
    void onText(Session& session, std::string_view message) override
    {
        session.sendText(mName + ": " + std::string(message));
    }
    void onClose(Session&, uint16_t code, std::string_view, bool) override
    {
        closeCode = code;
        ++closes;
    }

    std::shared_ptr<Session> session() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mSession;
    }

    std::atomic<int> closes{0};
    std::atomic<int> closeCode{0};

private:
    const std::string mName;
    mutable std::mutex mMutex;
    std::shared_ptr<Session> mSession;
};

TEST(KitWebSocketRoutes, GiveTheHandlerTheRequestAndItsSession)
{
    for (const bool isNonBlocking : {false, true}) {
        SCOPED_TRACE(isNonBlocking);
        KitTestServer server([&](Router& router) {
            auto& route = router.webSocket("/channels/{channel}", {}, [](Request& request) {
                request.setHeader("X-Visitor", request.cookie("visitor"));
                return std::make_shared<Talk>(request.pathParameter("channel"));
            });
            if (isNonBlocking)
                route.nonBlocking();
        });
        RawClient client(server.port());
        // The first message is sent with the handshake.
        ASSERT_TRUE(
            client.send(handshake("/channels/blue", "Cookie: visitor=7\r\n") + text("hello")));
        const auto head = client.receiveHead();
        ASSERT_TRUE(head);
        EXPECT_EQ(head->status, 101);
        EXPECT_EQ(head->value("X-Visitor"), "7");
        EXPECT_EQ(head->value("Sec-WebSocket-Accept"), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
        EXPECT_EQ(received(client), sent(1, "blue: hello"));
        ASSERT_TRUE(client.send(text("again") + frame(8, "\x03\xe8")));
        EXPECT_EQ(received(client), sent(1, "blue: again"));
        EXPECT_EQ(received(client), sent(8, "\x03\xe8"));
        EXPECT_TRUE(client.isClosedByServer());
        client.close();
        EXPECT_TRUE(server.stop());
    }
}

TEST(KitWebSocketRoutes, RefuseAHandshakeThatIsNotRight)
{
    KitTestServer server([&](Router& router) {
        router.webSocket("/chat", {}, [](Request&) {
            ADD_FAILURE() << "called";
            return std::make_shared<Talk>();
        });
    });
    const auto plain = server.get("/chat");
    EXPECT_EQ(plain.status, 426);
    EXPECT_EQ(plain.value("Upgrade"), "websocket");
    EXPECT_EQ(plain.value("Sec-WebSocket-Version"), "13");
    EXPECT_EQ(server.ask(handshake("/chat", "Origin: http://other.example\r\n")).status, 403);
    EXPECT_EQ(server.ask(handshake("/chat", "Sec-WebSocket-Key: a\r\n")).status, 400);
    EXPECT_EQ(server.ask(handshake("/elsewhere")).status, 404);
    const auto posted = server.ask(integration::withBody("POST", "/chat", ""));
    EXPECT_EQ(posted.status, 405);
    EXPECT_EQ(posted.value("Allow"), "GET, HEAD, OPTIONS");
}

TEST(KitWebSocketRoutes, RespondAsUsualWhenTheHandlerRefuses)
{
    KitTestServer server([&](Router& router) {
        router.webSocket("/{way}", {}, [](Request& request) -> std::shared_ptr<SessionHandler> {
            if (request.pathParameter("way") == "reply")
                request.replyError(401, "who are you?");
            else if (request.pathParameter("way") == "throw")
                throw HttpError(403, "not you");
            return nullptr;
        });
    });
    const auto replied = server.ask(handshake("/reply"));
    EXPECT_EQ(replied.status, 401);
    EXPECT_THAT(replied.body, HasSubstr("who are you?"));
    EXPECT_EQ(server.ask(handshake("/throw")).status, 403);
    EXPECT_EQ(server.ask(handshake("/nothing")).status, 500);
    EXPECT_TRUE(integration::processLog->waitForLine("GET /{way}: the handler has not responded"));
}

TEST(KitWebSocketRoutes, LogExceptionsOfCallbacksWithTheRoute)
{
    class Throwing : public SessionHandler
    {
        void onText(Session&, std::string_view) override { throw std::runtime_error("not found"); }
    };
    KitTestServer server([&](Router& router) {
        router.webSocket("/{channel}", {}, [](Request&) { return std::make_shared<Throwing>(); });
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(handshake("/blue") + text("x")));
    ASSERT_TRUE(client.receiveHead());
    EXPECT_EQ(received(client), sent(8, "\x03\xf3internal error"));
    EXPECT_TRUE(
        integration::logged("GET /{channel}: exception in a WebSocket callback: not found"));
    ASSERT_TRUE(client.send(frame(8, "\x03\xf3")));
    EXPECT_TRUE(client.isClosedByServer());
}

TEST(KitWebSocketRoutes, LetTheHandlerChooseTheSubprotocol)
{
    KitTestServer server([&](Router& router) {
        WebSocketOptions options;
        options.subprotocols = {"second", "first"};
        router.webSocket("/{chosen}", options, [](Request& request) {
            if (request.pathParameter("chosen") != "default")
                request.setHeader("Sec-WebSocket-Protocol", request.pathParameter("chosen"));
            return std::make_shared<Talk>();
        });
    });
    const std::string offer = "Sec-WebSocket-Protocol: first, second\r\n";
    const struct
    {
        const char* target;
        int status;
        const char* subprotocol;
    } rows[] = {{"/default", 101, "second"}, {"/first", 101, "first"}, {"/third", 500, ""}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        RawClient client(server.port());
        ASSERT_TRUE(client.send(handshake(row.target, offer)));
        const auto head = client.receiveHead();
        ASSERT_TRUE(head);
        EXPECT_EQ(head->status, row.status);
        EXPECT_EQ(head->value("Sec-WebSocket-Protocol"), row.subprotocol);
    }
}

TEST(KitWebSocketRoutes, SendLastMessagesAndCloseSessionsWhenTheServerStops)
{
    const auto talk = std::make_shared<Talk>("a");
    KitTestServer server(
        [&](Router& router) { router.webSocket("/", {}, [&](Request&) { return talk; }); });
    server.server().onStopping([&] {
        if (const auto session = talk->session())
            session->sendText("bye");
    });
    for (int run = 1; run <= 2; ++run) {
        SCOPED_TRACE(run);
        if (run == 2) {
            ASSERT_TRUE(server.server().start());
        }
        const std::string endpoint = server.server().endpoints().front();
        const auto port =
            static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
        RawClient client(port);
        ASSERT_TRUE(client.send(handshake("/") + text("x")));
        ASSERT_TRUE(client.receiveHead());
        EXPECT_EQ(received(client), sent(1, "a: x"));
        bool isClean = false;
        BackgroundCall stopper([&] { isClean = server.stop(); });
        EXPECT_EQ(received(client), sent(1, "bye"));
        const std::string close = received(client);
        EXPECT_EQ(close.substr(0, 4), sent(8, "\x03\xe9 the server shuts down").substr(0, 1) +
                                          close.substr(1, 1) + "\x03\xe9");
        ASSERT_TRUE(client.send(frame(8, "\x03\xe9")));
        EXPECT_TRUE(client.isClosedByServer());
        client.close();
        EXPECT_TRUE(stopper.waitForEnd());
        EXPECT_TRUE(isClean);
        EXPECT_EQ(talk->closes, run);
        EXPECT_EQ(talk->closeCode, 1001);
    }
}

TEST(KitWebSocketRoutes, EndSessionsOfSilentClientsAtTheDeadlineOfAStop)
{
    const auto talk = std::make_shared<Talk>("a");
    KitTestServer server(
        [&](Router& router) { router.webSocket("/", {}, [&](Request&) { return talk; }); });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(handshake("/") + text("x")));
    ASSERT_TRUE(client.receiveHead());
    EXPECT_EQ(received(client), sent(1, "a: x"));
    EXPECT_FALSE(server.stop(std::chrono::milliseconds(50)));
    EXPECT_EQ(talk->closes, 1);
    EXPECT_EQ(talk->closeCode, 1006);
}

// As after a second signal: the client of the session responds to nothing.
TEST(KitWebSocketRoutes, EndSessionsAtTheEarlierDeadlineOfAFurtherStop)
{
    const auto talk = std::make_shared<Talk>("a");
    WebSocketOptions options;
    options.closeTimeout = std::chrono::minutes(10);
    KitTestServer server(
        [&](Router& router) { router.webSocket("/", options, [&](Request&) { return talk; }); });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(handshake("/") + text("x")));
    ASSERT_TRUE(client.receiveHead());
    EXPECT_EQ(received(client), sent(1, "a: x"));
    bool isClean = true;
    BackgroundCall first([&] { isClean = server.stop(2 * integration::kLimit); });
    EXPECT_EQ(received(client).substr(2, 2), "\x03\xe9");
    EXPECT_FALSE(server.stop(std::chrono::milliseconds(0)));
    EXPECT_TRUE(first.waitForEnd());
    EXPECT_FALSE(isClean);
    EXPECT_EQ(talk->closes, 1);
    EXPECT_EQ(talk->closeCode, 1006);
}

}  // namespace
