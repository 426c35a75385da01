// The opening handshake of a WebSocket, from the access handler to the application.

#include "server/UpgradeExchange.h"
#include "request/ConnectionContext.h"
#include "server/Dispatch.h"
#include "streaming/Throttle.h"
#include "support/CapturedLog.h"
#include "support/FakeTime.h"
#include "support/RecordingApplication.h"
#include "support/RecordingDaemon.h"
#include "support/TestAccess.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>
#include <Wendrel/Wendrel.h>

#include <qvSystem/qvSystemUtils.h>
#include <support/WebSocketAccess.h>

#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>
#include <typeinfo>
#include <utility>

namespace qv::tests
{

namespace
{

using Access = impl::WebSocketAccess;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::SizeIs;

// The client's key and the proof for it that RFC 6455 gives as its example.
constexpr const char* kKey = "dGhlIHNhbXBsZSBub25jZQ==";
constexpr const char* kSecret = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";

// The request of a client. Headers without a value are left out.
struct Handshake
{
    const char* method = "GET";
    const char* protocol = "HTTP/1.1";
    std::optional<std::string> version = "13";
    std::optional<std::string> key = kKey;
    const char* connection = "Upgrade";
};

class UpgradeExchange : public ::testing::Test
{
protected:
    UpgradeExchange()
    {
        initializeWendrel();
        application = new RecordingApplication(daemon);
        application->setErrorBody("sorry");
        server = std::make_unique<http::HttpServer>(application);
    }

    ~UpgradeExchange() override
    {
        server.reset();
        terminateWendrel();
    }

    // The first call for a request, as the daemon makes it; then the end of that request. All
    // calls that the library makes meanwhile are in the record.
    MHD_Result ask(const Handshake& handshake)
    {
        daemon.clearCalls();
        connection = &daemon.connection();
        connection->add(MHD_HEADER_KIND, "Upgrade", "WebSocket");
        connection->add(MHD_HEADER_KIND, "Connection", handshake.connection);
        if (handshake.version)
            connection->add(MHD_HEADER_KIND, "Sec-WebSocket-Version", *handshake.version);
        if (handshake.key)
            connection->add(MHD_HEADER_KIND, "Sec-WebSocket-Key", *handshake.key);

        void* slot = impl::OpenContext(nullptr, "/live", connection);
        daemon.clearCalls();
        const auto handler =
            reinterpret_cast<MHD_AccessHandlerCallback>(http::HttpServerImpl::GetHttpCallback());
        size_t size = 0;
        const MHD_Result result = handler(server.get(), connection, "/live", handshake.method,
                                          handshake.protocol, nullptr, &size, &slot);
        const auto* context = static_cast<impl::ConnectionContext*>(slot);
        EXPECT_EQ(context->request, nullptr);
        EXPECT_EQ(context->startTimeMs, impl::kTimeNotSet);

        const auto completed = reinterpret_cast<MHD_RequestCompletedCallback>(
            http::HttpServerImpl::GetRequestCompletedCallback());
        completed(server.get(), connection, &slot, MHD_REQUEST_TERMINATED_COMPLETED_OK);
        return result;
    }

    // The response that was made last.
    const MHD_Response& reply() const { return daemon.response(daemon.responseCount() - 1); }

    void expectErrorBody() const
    {
        EXPECT_EQ(reply().kind, MHD_Response::Buffer);
        EXPECT_EQ(reply().body, "sorry");
        EXPECT_EQ(reply().mode, MHD_RESPMEM_PERSISTENT);
        EXPECT_EQ(reply().bodyAddress, application->getErrorBody().data());
        EXPECT_THAT(reply().headers, IsEmpty());
        EXPECT_THAT(reply().queued, ElementsAre(Pair(connection, 500u)));
        EXPECT_EQ(reply().destroyed, 1);
    }

    FakeTime time;
    RecordingDaemon daemon;
    CapturedLog log;
    RecordingApplication* application = nullptr;  // the server's
    std::unique_ptr<http::HttpServer> server;
    MHD_Connection* connection = nullptr;  // of the last handshake
};

TEST_F(UpgradeExchange, IsToldByTheExactCaseOfTwoHeaders)
{
    const struct
    {
        const char* upgrade;
        const char* connection;
        bool asks;
    } rows[] = {
        {"WebSocket", "Upgrade", true},
        {"WebSocket", "keep-alive, Upgrade", true},
        {"WebSocket", "NoUpgradeAtAll", true},
        {"websocket", "Upgrade", false},
        {"WEBSOCKET", "Upgrade", false},
        {"WebSocket", "upgrade", false},
        {"WebSocket", "keep-alive", false},
        {"WebSocket", "", false},
        {"WebSocket ", "Upgrade", false},
        {"WebSocket, h2c", "Upgrade", false},
        {"WebSocke", "Upgrade", false},
        {"", "Upgrade", false},
        {nullptr, "Upgrade", false},
        {"WebSocket", nullptr, false},
        {nullptr, nullptr, false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(impl::IsUpgradeRequest(row.upgrade, row.connection), row.asks)
            << (row.upgrade != nullptr ? row.upgrade : "none") << " / "
            << (row.connection != nullptr ? row.connection : "none");
}

// The 101.

TEST_F(UpgradeExchange, AsksInOrderAndRespondsWithThreeHeadersInOrder)
{
    EXPECT_EQ(ask({}), MHD_YES);
    EXPECT_THAT(daemon.calls(),
                ElementsAre("MHD_lookup_connection_value 1 Upgrade",
                            "MHD_lookup_connection_value 1 Connection", "MHD_get_connection_info 2",
                            "MHD_lookup_connection_value 1 Sec-WebSocket-Version",
                            "MHD_lookup_connection_value 1 Sec-WebSocket-Key",
                            "MHD_create_response_for_upgrade",
                            "MHD_add_response_header Upgrade: websocket",
                            "MHD_add_response_header Sec-WebSocket-Accept: " + std::string(kSecret),
                            "MHD_add_response_header Connection: Upgrade", "MHD_queue_response 101",
                            "MHD_destroy_response"));
    ASSERT_EQ(daemon.responseCount(), 1u);
    EXPECT_EQ(reply().kind, MHD_Response::Upgrade);
    EXPECT_EQ(reply().upgrade, &impl::AcceptUpgraded);
    EXPECT_EQ(reply().closure, server.get());
    EXPECT_THAT(reply().queued, ElementsAre(Pair(connection, 101u)));
    EXPECT_EQ(reply().destroyed, 1);
    EXPECT_THAT(application->webSockets, IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(UpgradeExchange, TakesUpgradeAnywhereInTheConnectionHeader)
{
    for (const char* tokens : {"keep-alive, Upgrade", "Upgrade, close", "NoUpgradeAtAll"}) {
        SCOPED_TRACE(tokens);
        Handshake handshake;
        handshake.connection = tokens;
        EXPECT_EQ(ask(handshake), MHD_YES);
        EXPECT_THAT(reply().queued, ElementsAre(Pair(connection, 101u)));
    }
}

TEST_F(UpgradeExchange, TakesAnyKeyOf24Characters)
{
    const struct
    {
        const char* name;
        std::string key;
    } rows[] = {
        {"not base64", std::string(24, '!')},
        {"spaces", std::string(24, ' ')},
        {"bytes above 127", std::string(24, '\xff')},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Handshake handshake;
        handshake.key = row.key;
        EXPECT_EQ(ask(handshake), MHD_YES);
        ASSERT_THAT(reply().headers, SizeIs(3));
        EXPECT_THAT(reply().headers[1],
                    Pair("Sec-WebSocket-Accept", http::WebSocket::ComputeSecret(row.key.c_str())));
        EXPECT_THAT(reply().headers[1].second, SizeIs(28));
    }
}

// Required: the handshake goes on; that the header is then missing on the wire is the daemon's
// doing.
TEST_F(UpgradeExchange, Responds101WithAnEmptyProofToAKeyOfTheWrongLength)
{
    for (const char* key : {"", "x", "dGhlIHNhbXBsZSBub25jZQ=", "dGhlIHNhbXBsZSBub25jZQ==="}) {
        SCOPED_TRACE(key);
        Handshake handshake;
        handshake.key = key;
        EXPECT_EQ(ask(handshake), MHD_YES);
        EXPECT_THAT(daemon.callsOf("MHD_add_response_header"),
                    ElementsAre("MHD_add_response_header Upgrade: websocket",
                                "MHD_add_response_header Sec-WebSocket-Accept: ",
                                "MHD_add_response_header Connection: Upgrade"));
        EXPECT_THAT(reply().queued, ElementsAre(Pair(connection, 101u)));
        EXPECT_EQ(reply().destroyed, 1);
    }
}

TEST_F(UpgradeExchange, ResetsTheWaitLikeAnyNewRequest)
{
    impl::Throttle& throttle = impl::Throttle::OfThisThread();
    throttle.pause(nullptr, qvSystemUtils::GetTimeBaseMs());
    ASSERT_NE(impl::TestAccess::waitSinceMs(throttle), impl::kTimeNotSet);
    EXPECT_EQ(ask({}), MHD_YES);
    EXPECT_EQ(impl::TestAccess::waitSinceMs(throttle), impl::kTimeNotSet);
    EXPECT_THAT(time.sleeps(), IsEmpty());
}

// Refusals.

// Required: 500 rather than 400.
TEST_F(UpgradeExchange, Responds500ToAnotherMethodOrProtocol)
{
    const struct
    {
        const char* name;
        const char* method;
        const char* protocol;
    } rows[] = {
        {"POST", "POST", "HTTP/1.1"},
        {"HEAD", "HEAD", "HTTP/1.1"},
        {"lower case", "get", "HTTP/1.1"},
        {"longer", "GETS", "HTTP/1.1"},
        {"shorter", "GE", "HTTP/1.1"},
        {"no method", "", "HTTP/1.1"},
        {"older protocol", "GET", "HTTP/1.0"},
        {"newer protocol", "GET", "HTTP/1.2"},
        {"no protocol", "GET", ""},
        {"protocol in lower case", "GET", "http/1.1"},
        {"both", "POST", "HTTP/1.0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Handshake handshake;
        handshake.method = row.method;
        handshake.protocol = row.protocol;
        EXPECT_EQ(ask(handshake), MHD_YES);
        // Before any further header is looked at.
        EXPECT_THAT(daemon.calls(), ElementsAre("MHD_lookup_connection_value 1 Upgrade",
                                                "MHD_lookup_connection_value 1 Connection",
                                                "MHD_get_connection_info 2",
                                                "MHD_create_response_from_buffer 5 PERSISTENT",
                                                "MHD_queue_response 500", "MHD_destroy_response"));
        expectErrorBody();
    }
}

TEST_F(UpgradeExchange, Responds426ToAnyOtherVersionThan13)
{
    const std::string page = "<html>\n<head>\n<title>WebSocket</title>\n</head>\n<body>\n"
                             "Upgrade required\n</body>\n</html>\n";
    ASSERT_THAT(page, SizeIs(87));
    const struct
    {
        const char* name;
        std::optional<std::string> version;
    } rows[] = {
        {"missing", std::nullopt}, {"empty", ""},          {"older", "8"},
        {"two versions", "13, 8"}, {"space after", "13 "}, {"space before", " 13"},
        {"shorter", "1"},          {"longer", "130"},      {"leading zero", "013"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Handshake handshake;
        handshake.version = row.version;
        // The page is the same whether there is a key or not: nobody asks for it.
        if (!row.version)
            handshake.key = std::nullopt;
        EXPECT_EQ(ask(handshake), MHD_YES);
        EXPECT_THAT(daemon.calls(),
                    ElementsAre("MHD_lookup_connection_value 1 Upgrade",
                                "MHD_lookup_connection_value 1 Connection",
                                "MHD_get_connection_info 2",
                                "MHD_lookup_connection_value 1 Sec-WebSocket-Version",
                                "MHD_create_response_from_buffer 87 PERSISTENT",
                                "MHD_add_response_header Sec-WebSocket-Version: 13",
                                "MHD_queue_response 426", "MHD_destroy_response"));
        EXPECT_EQ(reply().body, page);
        EXPECT_EQ(reply().mode, MHD_RESPMEM_PERSISTENT);
        EXPECT_THAT(reply().headers, ElementsAre(Pair("Sec-WebSocket-Version", "13")));
        EXPECT_THAT(reply().queued, ElementsAre(Pair(connection, 426u)));
        EXPECT_EQ(reply().destroyed, 1);
    }
}

TEST_F(UpgradeExchange, SendsTheSamePageFromTheSamePlaceEachTime)
{
    Handshake handshake;
    handshake.version = "12";
    ask(handshake);
    const void* place = reply().bodyAddress;
    ask(handshake);
    EXPECT_EQ(reply().bodyAddress, place);
}

TEST_F(UpgradeExchange, Responds500WithoutAKey)
{
    Handshake handshake;
    handshake.key = std::nullopt;
    EXPECT_EQ(ask(handshake), MHD_YES);
    EXPECT_THAT(daemon.calls(),
                ElementsAre("MHD_lookup_connection_value 1 Upgrade",
                            "MHD_lookup_connection_value 1 Connection", "MHD_get_connection_info 2",
                            "MHD_lookup_connection_value 1 Sec-WebSocket-Version",
                            "MHD_lookup_connection_value 1 Sec-WebSocket-Key",
                            "MHD_create_response_from_buffer 5 PERSISTENT",
                            "MHD_queue_response 500", "MHD_destroy_response"));
    expectErrorBody();
}

TEST_F(UpgradeExchange, IsDiscardedAfterAStopRequest)
{
    server->stopServer(false);
    EXPECT_EQ(ask({}), MHD_NO);
    EXPECT_THAT(daemon.calls(), IsEmpty());
    EXPECT_EQ(daemon.responseCount(), 0u);
}

// Return values of the daemon.

TEST_F(UpgradeExchange, ReturnsTheResultOfQueueingAsItIs)
{
    Handshake wrongMethod;
    wrongMethod.method = "POST";
    Handshake wrongVersion;
    wrongVersion.version = "8";
    Handshake noKey;
    noKey.key = std::nullopt;
    const struct
    {
        const char* name;
        const Handshake& handshake;
    } rows[] = {
        {"upgrade", {}},
        {"wrong method", wrongMethod},
        {"wrong version", wrongVersion},
        {"no key", noKey},
    };
    daemon.fail("MHD_queue_response");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(ask(row.handshake), MHD_NO);
        EXPECT_THAT(reply().queued, SizeIs(1));
        EXPECT_EQ(reply().destroyed, 1);
    }
    EXPECT_EQ(daemon.responseCount(), 4u);
}

TEST_F(UpgradeExchange, QueuesEvenWhenTheDaemonRefusesTheHeaders)
{
    daemon.fail("MHD_add_response_header");
    EXPECT_EQ(ask({}), MHD_YES);
    EXPECT_THAT(reply().queued, ElementsAre(Pair(connection, 101u)));
    Handshake handshake;
    handshake.version = "8";
    EXPECT_EQ(ask(handshake), MHD_YES);
    EXPECT_THAT(reply().queued, ElementsAre(Pair(connection, 426u)));
}

TEST_F(UpgradeExchange, GivesUpWhenTheDaemonMakesNoResponse)
{
    daemon.fail("MHD_create_response_for_upgrade");
    daemon.fail("MHD_create_response_from_buffer");
    Handshake wrongMethod;
    wrongMethod.method = "POST";
    Handshake wrongVersion;
    wrongVersion.version = "8";
    Handshake noKey;
    noKey.key = std::nullopt;
    for (const Handshake& handshake : {Handshake(), wrongMethod, wrongVersion, noKey}) {
        EXPECT_EQ(ask(handshake), MHD_NO);
        // Nothing is asked of a response that is not there.
        EXPECT_THAT(daemon.callsOf("MHD_add_response_header"), IsEmpty());
        EXPECT_THAT(daemon.callsOf("MHD_queue_response"), IsEmpty());
        EXPECT_THAT(daemon.callsOf("MHD_destroy_response"), IsEmpty());
    }
    EXPECT_EQ(daemon.responseCount(), 0u);
}

// After the 101.

TEST_F(UpgradeExchange, GivesTheApplicationAPlainConnectionWithoutTheExtraBytes)
{
    // Only addresses are looked at: nothing is sent or received here.
    constexpr int kSocket = 12345;
    char place = 0;
    auto* handle = reinterpret_cast<MHD_UpgradeResponseHandle*>(&place);
    const std::string frame("\x81\x82\x01\x02\x03\x04hi", 8);

    EXPECT_EQ(ask({}), MHD_YES);
    daemon.clearCalls();
    reply().upgrade(reply().closure, connection, nullptr, frame.data(), frame.size(), kSocket,
                    handle);
    EXPECT_THAT(daemon.calls(), ElementsAre("onNewWebSocket"));
    ASSERT_THAT(application->webSockets, SizeIs(1));
    http::WebSocket& socket = *application->webSockets.front();
    EXPECT_EQ(typeid(socket), typeid(http::WebSocket));
    EXPECT_EQ(socket.getSocket(), kSocket);
    EXPECT_EQ(Access::upgradeHandle(socket), handle);
    EXPECT_THAT(Access::readQueue(socket), IsEmpty());
    EXPECT_THAT(Access::writeQueue(socket), IsEmpty());
    EXPECT_THAT(Access::message(socket), IsEmpty());
    EXPECT_FALSE(socket.hasReadPending());

    application->webSockets.clear();
    EXPECT_THAT(daemon.closedHandles(), IsEmpty());  // closing is the owner's business
}

TEST_F(UpgradeExchange, MakesOneConnectionForEachUpgrade)
{
    char places[2] = {};
    EXPECT_EQ(ask({}), MHD_YES);
    const MHD_Response& first = reply();
    EXPECT_EQ(ask({}), MHD_YES);
    const MHD_Response& second = reply();
    second.upgrade(second.closure, connection, nullptr, nullptr, 0, 8,
                   reinterpret_cast<MHD_UpgradeResponseHandle*>(&places[1]));
    first.upgrade(first.closure, connection, nullptr, nullptr, 0, 7,
                  reinterpret_cast<MHD_UpgradeResponseHandle*>(&places[0]));
    ASSERT_THAT(application->webSockets, SizeIs(2));
    EXPECT_EQ(application->webSockets[0]->getSocket(), 8);
    EXPECT_EQ(Access::upgradeHandle(*application->webSockets[0]), &places[1]);
    EXPECT_EQ(application->webSockets[1]->getSocket(), 7);
    EXPECT_EQ(Access::upgradeHandle(*application->webSockets[1]), &places[0]);
}

}  // namespace

}  // namespace qv::tests
