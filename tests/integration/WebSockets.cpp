// Upgraded connections over the wire, from the handshake to the stop of the server.

#include "support/ProcessCounts.h"
#include "support/RawClient.h"
#include "support/TestServer.h"
#include "support/Waiting.h"
#include "support/WebSocketClient.h"

#include <Wendrel/WebSocket.h>

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace
{

using integration::countDescriptors;
using integration::Frame;
using integration::getRequest;
using integration::kCloseFrame;
using integration::kLastBinary;
using integration::kLastText;
using integration::maskedFrame;
using integration::RawClient;
using integration::receiveFrame;
using integration::TestRequest;
using integration::TestServer;
using integration::TestServerOptions;
using integration::waitUntil;
using qv::http::WebSocket;
using qv::http::WebSocketThread;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

// The key and the proof of RFC 6455's own example.
constexpr const char* kSecret = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";
const std::string kUpgradeLines = "Upgrade: WebSocket\r\nConnection: keep-alive, Upgrade\r\n";
const std::string kVersionLine = "Sec-WebSocket-Version: 13\r\n";
const std::string kKeyLine = "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
const std::string kHandshake = getRequest("/live", kUpgradeLines + kVersionLine + kKeyLine);

// A client that has not necessarily been upgraded. It ends with a reset: the end of its side
// alone would keep a worker of the server busy for ever.
class WebSocketClient : public RawClient
{
public:
    explicit WebSocketClient(uint16_t port) : RawClient(port) {}
    ~WebSocketClient() { reset(); }

    bool upgrade()
    {
        if (!send(kHandshake))
            return false;
        const auto head = receiveHead();
        return head && head->status == 101;
    }

    // A message of any number of fragments, with the first byte of its first frame.
    std::optional<Frame> receiveMessage()
    {
        std::optional<Frame> message = receiveFrame(*this);
        bool isWhole = message && (message->first & 0x80) != 0;
        while (message && !isWhole) {
            const std::optional<Frame> next = receiveFrame(*this);
            if (!next || (next->first & 0x7f) != 0)
                return std::nullopt;
            message->payload += next->payload;
            isWhole = (next->first & 0x80) != 0;
        }
        return message;
    }

    std::string echo(const std::string& text)
    {
        if (!send(maskedFrame(kLastText, text)))
            return "not sent";
        const auto message = receiveMessage();
        return message ? message->payload : "nothing";
    }
};

// The connections of a server that have not been destroyed.
class Connections
{
public:
    void add(WebSocket* socket)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSockets.insert(socket);
        ++mMade;
    }
    void remove(WebSocket* socket)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mSockets.erase(socket);
    }
    size_t size() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mSockets.size();
    }
    size_t made() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mMade;
    }
    void forEach(const std::function<void(WebSocket&)>& action)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        for (WebSocket* socket : mSockets)
            action(*socket);
    }

private:
    mutable std::mutex mMutex;  // guards all below
    std::set<WebSocket*> mSockets;
    size_t mMade = 0;
};

// Lets threads go on when as many have come as it was told.
class Meeting
{
public:
    void expect(size_t count)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mMissing = count;
    }
    void join()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        --mMissing;
        mChanged.notify_all();
        mChanged.wait_for(lock, integration::kLimit, [this] { return mMissing == 0; });
    }

private:
    std::mutex mMutex;  // guards all below
    std::condition_variable mChanged;
    size_t mMissing = 0;
};

constexpr const char* kMeet = "meet";

class EchoSocket : public WebSocket
{
public:
    EchoSocket(WebSocket&& upgraded, Connections& connections, Meeting& meeting)
        : WebSocket(std::move(upgraded)), mConnections(connections), mMeeting(meeting)
    {
        mConnections.add(this);
    }
    ~EchoSocket() override { mConnections.remove(this); }

    void onMessageReceived(std::vector<uint8_t>& data, bool isBinary) override
    {
        if (std::string_view(reinterpret_cast<const char*>(data.data()), data.size()) == kMeet)
            mMeeting.join();
        writeMessage(data.data(), data.size(), isBinary);
    }

private:
    Connections& mConnections;
    Meeting& mMeeting;
};

// A connection with the library's default response.
class PlainSocket : public WebSocket
{
public:
    PlainSocket(WebSocket&& upgraded, Connections& connections)
        : WebSocket(std::move(upgraded)), mConnections(connections)
    {
        mConnections.add(this);
    }
    ~PlainSocket() override { mConnections.remove(this); }

private:
    Connections& mConnections;
};

// A server with upgraded connections, ended in the order that the library asks for.
class LiveServer
{
public:
    LiveServer() : mThreads(std::make_unique<WebSocketThread>())
    {
        mThreads->startThreads(kWorkers);
        TestServerOptions options;
        options.errorBody = "sorry";
        options.allowWebSocket = true;
        options.threadPoolSize = 2;
        options.onNewWebSocket = [this](std::unique_ptr<WebSocket> upgraded) {
            take(std::move(upgraded));
        };
        options.onServerStopped = [this] { closeAll(); };
        mServer = std::make_unique<TestServer>(
            [](TestRequest& request) { request.respond(200, "a response"); }, options);
    }

    ~LiveServer()
    {
        if (!relieveWorkers()) {
            std::fprintf(stderr, "A worker did not let go of its connection.\n");
            std::abort();
        }
        mServer.reset();
    }

    uint16_t port() const { return mServer->port(); }
    TestServer& server() { return *mServer; }
    Connections& connections() { return mConnections; }

    // Whether later connections send the library's default response.
    void setPlain(bool plain) { mPlain = plain; }

    // The connections that have never received anything. They may stay open until the end.
    void setQuietCount(size_t count) { mQuiet = count; }

private:
    void take(std::unique_ptr<WebSocket> upgraded)
    {
        std::unique_ptr<WebSocket> own;
        if (mPlain)
            own = std::make_unique<PlainSocket>(std::move(*upgraded), mConnections);
        else
            own = std::make_unique<EchoSocket>(std::move(*upgraded), mConnections, mMeeting);
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mThreads)
            mThreads->addWebSocket(own);
        else
            own->markForDeletion();
    }

    // A worker that holds a connection when it is stopped never ends. So every worker gets a
    // new one, which makes it let go of the one it had closed, and hands it back; that it has
    // done so is certain when the poll thread destroys that connection after a reset. A reset
    // that comes too early is met by the worker: then all is done once more.
    bool relieveWorkers()
    {
        constexpr int kAttempts = 30;
        constexpr std::chrono::milliseconds kAttemptTimeout{500};
        const auto onlyQuietOnes = [this] { return mConnections.size() == mQuiet; };
        for (int attempt = 0; attempt < kAttempts; ++attempt) {
            mMeeting.expect(kWorkers);
            std::vector<std::unique_ptr<WebSocketClient>> clients;
            for (unsigned i = 0; i < kWorkers; ++i) {
                clients.push_back(std::make_unique<WebSocketClient>(port()));
                if (!clients.back()->upgrade() ||
                    !clients.back()->send(maskedFrame(kLastText, kMeet)))
                    return false;
            }
            for (const auto& client : clients)
                if (!client->receiveMessage())
                    return false;
            // Gives the workers time for their last turn.
            RawClient ordinary(port());
            if (!ordinary.send(getRequest("/")) || !ordinary.receive())
                return false;
            clients.clear();
            if (waitUntil(onlyQuietOnes, kAttemptTimeout))
                return true;
        }
        return false;
    }

    // Called before the daemon is stopped: the daemon frees the handles.
    void closeAll()
    {
        std::unique_ptr<WebSocketThread> ended;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            ended = std::move(mThreads);
        }
        ended->stopThreads(true);
        // Nobody holds them any more.
        mConnections.forEach([](WebSocket& socket) { socket.markForDeletion(); });
        ended.reset();
        EXPECT_EQ(mConnections.size(), 0u);
    }

    static constexpr unsigned kWorkers = 2;

    std::atomic<bool> mPlain{false};
    Connections mConnections;
    Meeting mMeeting;
    size_t mQuiet = 0;
    std::mutex mMutex;
    std::unique_ptr<WebSocketThread> mThreads;  // guarded by mMutex; null when stopped
    std::unique_ptr<TestServer> mServer;
};

// The handshake.

TEST(WebSockets, SwitchesProtocolsAndProvesThatItHasUnderstood)
{
    LiveServer server;
    WebSocketClient client(server.port());
    ASSERT_TRUE(client.send(kHandshake));
    const auto head = client.receiveHead();
    ASSERT_TRUE(head);
    EXPECT_EQ(head->statusLine, "HTTP/1.1 101 Switching Protocols");
    EXPECT_THAT(head->values("Upgrade"), ElementsAre("websocket"));
    EXPECT_THAT(head->values("Sec-WebSocket-Accept"), ElementsAre(kSecret));
    // The daemon may name the token more than once.
    ASSERT_THAT(head->values("Connection"), SizeIs(1));
    EXPECT_THAT(head->value("Connection"), HasSubstr("Upgrade"));
    EXPECT_EQ(server.server().requestsCreated(), 0u);
}

TEST(WebSockets, AcceptsAKeyOfTheWrongLengthWithoutProof)
{
    LiveServer server;
    for (const char* key : {"dGhlIHNhbXBsZSBub25jZQ=", "dGhlIHNhbXBsZSBub25jZQ===", "x"}) {
        SCOPED_TRACE(key);
        WebSocketClient client(server.port());
        ASSERT_TRUE(client.send(getRequest("/live", kUpgradeLines + kVersionLine +
                                                        "Sec-WebSocket-Key: " + key + "\r\n")));
        const auto head = client.receiveHead();
        ASSERT_TRUE(head);
        EXPECT_EQ(head->status, 101);
        EXPECT_THAT(head->values("Upgrade"), ElementsAre("websocket"));
        EXPECT_THAT(head->values("Sec-WebSocket-Accept"), IsEmpty());
        EXPECT_EQ(client.echo("hello"), "hello");
    }
}

TEST(WebSockets, RefusesOtherVersionsWithAPageAndTheOneItSpeaks)
{
    LiveServer server;
    for (const std::string& line : {std::string(), std::string("Sec-WebSocket-Version: 8\r\n"),
                                    std::string("Sec-WebSocket-Version: 13, 8\r\n")}) {
        SCOPED_TRACE(line);
        WebSocketClient client(server.port());
        ASSERT_TRUE(client.send(getRequest("/live", kUpgradeLines + line + kKeyLine)));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_THAT(response->statusLine, StartsWith("HTTP/1.1 426 "));
        EXPECT_EQ(response->value("Sec-WebSocket-Version"), "13");
        EXPECT_EQ(response->value("Content-Length"), "87");
        EXPECT_EQ(response->body, "<html>\n<head>\n<title>WebSocket</title>\n</head>\n<body>\n"
                                  "Upgrade required\n</body>\n</html>\n");
        // The daemon reads nothing after a response that was queued at the first call.
        EXPECT_EQ(response->value("Connection"), "close");
        EXPECT_TRUE(client.isClosedByServer());
    }
}

TEST(WebSockets, Responds500ToOtherErrors)
{
    const std::string lines = kUpgradeLines + kVersionLine;
    const struct
    {
        const char* name;
        std::string request;
    } rows[] = {
        {"no key", getRequest("/live", lines)},
        {"POST",
         "POST /live HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n" + lines + kKeyLine + "\r\n"},
        {"lower case", "get /live HTTP/1.1\r\nHost: x\r\n" + lines + kKeyLine + "\r\n"},
        {"older protocol", "GET /live HTTP/1.0\r\nHost: x\r\n" + lines + kKeyLine + "\r\n"},
    };
    LiveServer server;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WebSocketClient client(server.port());
        ASSERT_TRUE(client.send(row.request));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_THAT(response->statusLine, HasSubstr(" 500 "));
        EXPECT_EQ(response->body, "sorry");
        EXPECT_THAT(response->values("Upgrade"), IsEmpty());
    }
    WebSocketClient client(server.port());
    ASSERT_TRUE(client.send("HEAD /live HTTP/1.1\r\nHost: x\r\n" + lines + kKeyLine + "\r\n"));
    const auto response = client.receive(true);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 500);
    EXPECT_EQ(server.server().requestsCreated(), 0u);
    EXPECT_EQ(server.connections().made(), 0u);
}

// Required: an upgrade without the flag at the start of the server is refused by the daemon,
// without a response. A request that the library refuses before that gets a response all the same.
TEST(WebSockets, ClosesWithoutAResponseWhenTheServerWasStartedWithoutThem)
{
    TestServer server([](TestRequest& request) { request.respond(200, "a response"); });
    {
        RawClient client(server.port());
        ASSERT_TRUE(client.send(kHandshake));
        EXPECT_TRUE(client.isClosedByServer());
    }
    RawClient wrongVersion(server.port());
    ASSERT_TRUE(wrongVersion.send(getRequest("/live", kUpgradeLines + kKeyLine)));
    const auto page = wrongVersion.receive();
    ASSERT_TRUE(page);
    EXPECT_EQ(page->status, 426);
    RawClient withoutKey(server.port());
    ASSERT_TRUE(withoutKey.send(getRequest("/live", kUpgradeLines + kVersionLine)));
    const auto error = withoutKey.receive();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->status, 500);
    EXPECT_EQ(server.requestsCreated(), 0u);
}

// Required: the daemon has read them with the handshake.
TEST(WebSockets, LosesFramesThatComeInThePacketOfTheHandshake)
{
    LiveServer server;
    WebSocketClient client(server.port());
    ASSERT_TRUE(client.send(kHandshake + maskedFrame(kLastText, "lost")));
    const auto head = client.receiveHead();
    ASSERT_TRUE(head);
    ASSERT_EQ(head->status, 101);
    EXPECT_EQ(client.echo("kept"), "kept");
}

// Messages.

TEST(WebSockets, EchoesMessagesOfAllSizes)
{
    LiveServer server;
    WebSocketClient client(server.port());
    ASSERT_TRUE(client.upgrade());
    for (const size_t size :
         {0u, 1u, 125u, 126u, 1023u, 1024u, 65535u, 65536u, 131000u, 131001u, 262001u, 1000000u}) {
        SCOPED_TRACE(size);
        std::string payload(size, '\0');
        for (size_t i = 0; i < size; ++i)
            payload[i] = static_cast<char>(i * 7 + i / 251);
        for (const uint8_t opcode : {kLastText, kLastBinary}) {
            ASSERT_TRUE(client.send(maskedFrame(opcode, payload)));
            const auto message = client.receiveMessage();
            ASSERT_TRUE(message);
            EXPECT_EQ(message->first & 0x7f, opcode & 0x7f);
            EXPECT_TRUE(message->payload == payload);
        }
    }
}

TEST(WebSockets, RespondsWithTheSameWordWhenTheApplicationOverridesNothing)
{
    LiveServer server;
    server.setPlain(true);
    WebSocketClient client(server.port());
    ASSERT_TRUE(client.upgrade());
    ASSERT_TRUE(waitUntil([&] { return server.connections().size() == 1; }));
    server.setPlain(false);
    ASSERT_TRUE(client.send(maskedFrame(kLastText, "hello")));
    std::string received;
    const std::pair<uint8_t, size_t> frames[] = {{0x02, 131000}, {0x00, 131000}, {0x80, 8}};
    for (const auto& [first, size] : frames) {
        const auto frame = receiveFrame(client);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->first, first);
        EXPECT_EQ(frame->payload.size(), size);
        received += frame->payload;
    }
    std::string expected;
    for (int word = 0; word < 32751; ++word)
        expected += "response";
    EXPECT_TRUE(received == expected);
}

TEST(WebSockets, SendsWhatAnotherThreadWritesToAll)
{
    constexpr size_t kClients = 8;
    LiveServer server;
    std::vector<std::unique_ptr<WebSocketClient>> clients;
    for (size_t i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<WebSocketClient>(server.port()));
        ASSERT_TRUE(clients.back()->upgrade());
    }
    ASSERT_TRUE(waitUntil([&] { return server.connections().size() == kClients; }));
    for (const char* text : {"one", "two", "three"}) {
        server.connections().forEach([text](WebSocket& socket) {
            socket.writeMessage(text, std::string_view(text).size(), false);
        });
    }
    for (const auto& client : clients) {
        for (const char* text : {"one", "two", "three"}) {
            const auto message = client->receiveMessage();
            ASSERT_TRUE(message);
            EXPECT_EQ(message->payload, text);
            EXPECT_EQ(message->first, kLastText);
        }
    }
}

TEST(WebSockets, LeavesOrdinaryRequestsServedBesideThem)
{
    LiveServer server;
    WebSocketClient client(server.port());
    ASSERT_TRUE(client.upgrade());
    for (int i = 0; i < 5; ++i) {
        RawClient ordinary(server.port());
        ASSERT_TRUE(ordinary.send(getRequest("/")));
        const auto response = ordinary.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->body, "a response");
        EXPECT_EQ(client.echo("hello"), "hello");
    }
}

// The end of a connection.

// Required: there is no close frame in reply; a close frame passes for a continuation that has
// nothing to continue.
TEST(WebSockets, EndsAtACloseFrameWithoutAReply)
{
    LiveServer server;
    const size_t before = countDescriptors();
    WebSocketClient client(server.port());
    ASSERT_TRUE(client.upgrade());
    EXPECT_EQ(client.echo("hello"), "hello");
    EXPECT_EQ(countDescriptors(), before + 2);
    ASSERT_TRUE(client.send(maskedFrame(kCloseFrame, std::string("\x03\xe8", 2))));
    EXPECT_TRUE(client.isClosedByServer());
    client.close();
    EXPECT_TRUE(waitUntil([before] { return countDescriptors() == before; }));
}

TEST(WebSockets, EndsAtAResetOfTheClient)
{
    LiveServer server;
    const size_t before = countDescriptors();
    for (int i = 0; i < 20; ++i) {
        WebSocketClient client(server.port());
        ASSERT_TRUE(client.upgrade());
        ASSERT_TRUE(waitUntil([&] { return server.connections().size() == 1; }));
        // Nobody but the poll thread has had it: that one destroys it.
        client.reset();
        ASSERT_TRUE(waitUntil([&] { return server.connections().size() == 0; }));
    }
    EXPECT_EQ(server.connections().made(), 20u);
    EXPECT_TRUE(waitUntil([before] { return countDescriptors() == before; }));
}

// Start and stop.

TEST(WebSockets, LeaveNothingBehindIn100StartsAndStops)
{
    constexpr int kRounds = 100;
    constexpr size_t kQuiet = 3;
    constexpr size_t kBusy = 4;
    // Descriptors opened at first use are not counted.
    {
        LiveServer server;
    }
    const size_t before = countDescriptors();
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        std::vector<std::unique_ptr<WebSocketClient>> quiet;
        {
            LiveServer server;
            for (size_t i = 0; i < kQuiet; ++i) {
                quiet.push_back(std::make_unique<WebSocketClient>(server.port()));
                ASSERT_TRUE(quiet.back()->upgrade());
            }
            server.setQuietCount(kQuiet);
            for (size_t i = 0; i < kBusy; ++i) {
                WebSocketClient client(server.port());
                ASSERT_TRUE(client.upgrade());
                ASSERT_EQ(client.echo("hello"), "hello");
                if (i % 2 == 0) {
                    ASSERT_TRUE(client.send(maskedFrame(kCloseFrame, "")));
                    ASSERT_TRUE(client.isClosedByServer());
                }
            }
            // The quiet ones are open while the server stops.
        }
        for (const auto& client : quiet)
            EXPECT_TRUE(client->isClosedByServer());
        quiet.clear();
        ASSERT_EQ(countDescriptors(), before);
    }
}

}  // namespace
