// Secure endpoints: requests, ends of connections in each phase, limits, upgrades.

#include "support/Certificates.h"
#include "support/EventRun.h"
#include "support/Pattern.h"
#include "support/ProcessCounts.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <Wendrel/BodySource.h>
#include <Wendrel/TlsConnection.h>
#include <Wendrel/UpgradedConnection.h>

#include <gmock/gmock.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::localhostTls;
using integration::onOneThread;
using integration::pattern;
using integration::RawClient;
using integration::RawResponse;
using integration::waitUntil;
using qv::http::ServerOptions;
using std::chrono::milliseconds;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::Optional;

// Of the rows below.
RawClient secureClient(uint16_t port)
{
    return RawClient(port, [](SSL_CTX*, SSL*) {});
}

ServerOptions secureOptions()
{
    ServerOptions options = onOneThread();
    options.tls.push_back(localhostTls());
    return options;
}

void parkAllButPings(EventRequest& request)
{
    if (request.getOriginalFullUrl() == "/ping")
        request.respondHere(200, "pong");
}

bool isServed(RawClient& client)
{
    client.send(getRequest("/ping"));
    const auto response = client.receive();
    return response && response->status == 200 && response->body == "pong";
}

// Whether the client has got a close_notify.
bool hasEndedWell(RawClient& client)
{
    return client.isClosedByServer() &&
           (SSL_get_shutdown(client.session()) & SSL_RECEIVED_SHUTDOWN) != 0;
}

TEST(Secure, TellsTheRequestItsTls)
{
    EventRun run(
        [](EventRequest& request) {
            const qv::TlsConnection* const tls = request.getTls();
            request.respondHere(200, !request.isSecure() || !tls
                                         ? "plain"
                                         : tls->version + ' ' + tls->cipher + ' ' +
                                               tls->serverName + ' ' +
                                               request.getClientAddress().toString());
        },
        secureOptions());
    RawClient client(run.port(), [](SSL_CTX*, SSL* session) {
        SSL_set_tlsext_host_name(session, "localhost");
        SSL_set_max_proto_version(session, TLS1_2_VERSION);
    });
    ASSERT_TRUE(client.isSecure());
    for (int i = 0; i < 2; ++i) {
        client.send(getRequest("/"));
        EXPECT_THAT(client.receive(),
                    Optional(Field(&RawResponse::body,
                                   "TLSv1.2 ECDHE-ECDSA-AES128-GCM-SHA256 localhost 127.0.0.1")));
    }
}

TEST(Secure, ServesPipelinedRequestsInOrder)
{
    EventRun run([](EventRequest& r) { r.respondHere(200, r.getOriginalFullUrl()); },
                 secureOptions());
    RawClient client = secureClient(run.port());
    std::string requests;
    for (int i = 0; i < 200; ++i)
        requests += getRequest("/" + std::to_string(i));
    ASSERT_TRUE(client.send(requests));
    for (int i = 0; i < 200; ++i)
        ASSERT_THAT(client.receive(), Optional(Field(&RawResponse::body, "/" + std::to_string(i))));
}

TEST(Secure, ServesARequestWhoseRecordsAreCutAtEveryByte)
{
    EventRun run([](EventRequest& r) { r.respondHere(200, r.getOriginalFullUrl()); },
                 secureOptions());
    RawClient client = secureClient(run.port());
    for (const char byte : getRequest("/cut"))
        ASSERT_TRUE(client.send({&byte, 1}));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "/cut")));
}

TEST(Secure, EndsAConnectionWithCloseNotify)
{
    EventRun run(&parkAllButPings, secureOptions());
    RawClient client = secureClient(run.port());
    ASSERT_TRUE(client.send(getRequest("/ping", "Connection: close\r\n")));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "pong")));
    EXPECT_TRUE(hasEndedWell(client));
}

// A slow reader with full buffers on both sides.
TEST(Secure, DeliversAStreamToAReaderThatPauses)
{
    constexpr size_t kBytes = 16 * 1024 * 1024;
    EventRun run(
        [&run](EventRequest& request) {
            run.work(request, [](EventRequest& r) {
                r.response.contentLength = static_cast<int64_t>(kBytes);
                EXPECT_TRUE(r.beginStream());
                EXPECT_TRUE(r.streamPattern(kBytes, 100000));
            });
        },
        secureOptions());
    RawClient client = secureClient(run.port());
    client.send(getRequest("/"));
    ASSERT_TRUE(client.receiveHead());
    ASSERT_TRUE(waitUntil([&] { return run.requestCount() == 1; }));
    integration::PatternChecker checker;
    while (checker.bytes() < kBytes) {
        const std::string piece = client.receiveSome(777777);
        ASSERT_FALSE(piece.empty());
        checker.take(piece.data(), piece.size());
    }
    EXPECT_TRUE(checker.matches());
}

class SecureEnd : public testing::Test
{
protected:
    static void expectAborted(EventRun& run, size_t index, const std::string& reason)
    {
        EventRequest* const request = run.request(index);
        ASSERT_NE(request, nullptr);
        EXPECT_TRUE(waitUntil([&] { return request->completions == 1; }));
        EXPECT_EQ(request->abortReason(), reason);
    }
};

TEST_F(SecureEnd, OfAClientAbortsItsRequest)
{
    const struct
    {
        const char* name;
        std::string bytes;
        void (*end)(RawClient&);
        const char* reason;
    } rows[] = {
        {"close_notify while the application works", getRequest("/work"),
         [](RawClient& c) { c.finishSending(); }, "ClientAbort"},
        {"cut off while the application works", getRequest("/work"),
         [](RawClient& c) { ::shutdown(c.descriptor(), SHUT_WR); }, "WriteError"},
        {"reset while the application works", getRequest("/work"), [](RawClient& c) { c.reset(); },
         "WriteError"},
        {"cut off within a body", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 9\r\n\r\nbody",
         [](RawClient& c) { ::shutdown(c.descriptor(), SHUT_WR); }, "WriteError"},
        {"close_notify within a body",
         "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 9\r\n\r\nbody",
         [](RawClient& c) { c.finishSending(); }, "ClientAbort"},
    };
    EventRun run(&parkAllButPings, secureOptions());
    size_t index = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RawClient client = secureClient(run.port());
        ASSERT_TRUE(client.send(row.bytes));
        ASSERT_TRUE(run.request(index));
        row.end(client);
        expectAborted(run, index, row.reason);
        ++index;
    }
    RawClient client = secureClient(run.port());
    EXPECT_TRUE(isServed(client));
}

TEST_F(SecureEnd, BehindARequestLeavesItsResponseToHalfClosedClients)
{
    ServerOptions options = secureOptions();
    options.halfClosedClients = true;
    EventRun run(&parkAllButPings, options);
    RawClient client = secureClient(run.port());
    ASSERT_TRUE(client.send(getRequest("/work")));
    client.finishSending();
    ASSERT_TRUE(run.request(0));
    run.work(*run.request(0), [](EventRequest& r) { r.respond(200, "late"); });
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::body, "late")));
    EXPECT_TRUE(hasEndedWell(client));
}

TEST(SecureLimits, RefuseWithinTls)
{
    ServerOptions options = secureOptions();
    options.maxConnections = 1;
    EventRun run(&parkAllButPings, options);
    RawClient first = secureClient(run.port());
    ASSERT_TRUE(isServed(first));
    RawClient second = secureClient(run.port());
    ASSERT_TRUE(second.isSecure());
    EXPECT_THAT(second.receive(), Optional(Field(&RawResponse::status, 503)));
    EXPECT_TRUE(hasEndedWell(second));
    first.close();
    ASSERT_TRUE(waitUntil([&] {
        RawClient third = secureClient(run.port());
        return isServed(third);
    }));
}

TEST(SecureLimits, EndALateHeadWithinTls)
{
    ServerOptions options = secureOptions();
    options.headTimeout = milliseconds(300);
    EventRun run(&parkAllButPings, options);
    RawClient client = secureClient(run.port());
    ASSERT_TRUE(client.send("GET / HT"));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::status, 408)));
    EXPECT_TRUE(hasEndedWell(client));
}

TEST(SecureLimits, EndALateBodyWithinTls)
{
    ServerOptions options = secureOptions();
    options.bodyTimeout = milliseconds(300);
    EventRun run(&parkAllButPings, options);
    RawClient client = secureClient(run.port());
    ASSERT_TRUE(client.send("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 9\r\n\r\nbody"));
    EXPECT_THAT(client.receive(), Optional(Field(&RawResponse::status, 408)));
    EXPECT_TRUE(hasEndedWell(client));
}

// The raw client without TLS, as `plain` sees it.
std::unique_ptr<RawClient> plainClient(uint16_t port)
{
    return std::make_unique<RawClient>(RawClient::Connected{integration::connectPlain(port)});
}

TEST(PlainClient, OfASecureEndpointIsToldSo)
{
    EventRun run(&parkAllButPings, secureOptions());
    for (const char* method : {"GET", "POST", "OPTIONS", "CONNECT"}) {
        SCOPED_TRACE(method);
        const auto client = plainClient(run.port());
        client->send(std::string(method) + " / HTTP/1.1\r\nHost: x\r\n\r\n");
        const auto response = client->receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 400);
        EXPECT_EQ(response->value("Content-Type"), "text/plain");
        EXPECT_EQ(response->body,
                  "This port serves HTTPS only: use https:// in place of http://.\n");
        EXPECT_TRUE(client->isClosedByServer());
    }
}

TEST(PlainClient, OfOtherBytesIsClosed)
{
    EventRun run(&parkAllButPings, secureOptions());
    for (const std::string& bytes :
         {std::string("SSH-2.0-x\r\n"), std::string(200, '\x16'), std::string(200, '\0'),
          std::string("\x16\x03\x01\xff\xff", 5) + std::string(300, 'x')}) {
        const auto client = plainClient(run.port());
        client->send(bytes);
        client->receiveToEnd();
        EXPECT_EQ(client->receiveSome(1), "");
    }
    RawClient client = secureClient(run.port());
    EXPECT_TRUE(isServed(client));
}

TEST(Handshake, ThatIsNotFinishedEndsAtItsLimit)
{
    ServerOptions options = secureOptions();
    options.tls.front().handshakeTimeout = milliseconds(300);
    EventRun run(&parkAllButPings, options);
    // Nothing, half a first byte's record, and a ClientHello that never ends.
    for (const std::string& bytes :
         {std::string(), std::string("GE"), std::string("\x16\x03\x01\x02\x00\x01", 6)}) {
        const auto client = plainClient(run.port());
        client->send(bytes);
        EXPECT_TRUE(client->isClosedByServer());
    }
}

TEST(Handshake, OfAClientThatEndsWithinItsFirstBytesEnds)
{
    ServerOptions options = secureOptions();
    options.tls.front().handshakeTimeout = std::chrono::minutes(10);
    EventRun run(&parkAllButPings, options);
    const auto client = plainClient(run.port());
    client->send("GE");
    client->finishSending();
    EXPECT_TRUE(client->isClosedByServer());
}

// Each of them holds a place until its limit; a client that goes on is served meanwhile.
TEST(Handshake, OfManySilentClientsHoldsNobodyUp)
{
    ServerOptions options = secureOptions();
    options.maxConnections = 3000;
    EventRun run(&parkAllButPings, options);
    std::vector<std::unique_ptr<RawClient>> stalled;
    for (int i = 0; i < 1200; ++i) {
        stalled.push_back(plainClient(run.port()));
        stalled.back()->send(std::string("\x16\x03\x01\x02\x00\x01", 6));
    }
    RawClient client = secureClient(run.port());
    EXPECT_TRUE(isServed(client));
    // The oldest ones have been closed: no more than the limit are in progress.
    EXPECT_TRUE(stalled.front()->isClosedByServer());
}

TEST(SecureShutDown, LosesNoResponseOfALoad)
{
    constexpr int kClients = 6;
    EventRun run([](EventRequest& r) { r.respondHere(200, pattern(20000)); }, secureOptions());
    std::atomic<int> served{0};
    std::atomic<int> cut{0};
    std::vector<std::thread> clients;
    const uint16_t port = run.port();
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back([&] {
            try {
                for (;;) {
                    RawClient client = secureClient(port);
                    if (!client.isSecure())
                        return;
                    for (int k = 0; k < 50; ++k) {
                        if (!client.send(getRequest("/")))
                            break;
                        const auto head = client.receiveHead();
                        if (!head)
                            break;  // before the request was read
                        if (client.receiveExactly(20000) == pattern(20000))
                            ++served;
                        else
                            ++cut;
                        if (head->value("Connection") == "close")
                            break;
                    }
                }
            } catch (const std::exception&) {
                // The endpoint is closed.
            }
        });
    }
    ASSERT_TRUE(waitUntil([&] { return served > 200; }));
    EXPECT_TRUE(run.server().shutDown(integration::kLimit));
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(cut, 0);
}

TEST(SecureShutDown, SendsALargeResponseToItsEnd)
{
    constexpr size_t kBytes = 8 * 1024 * 1024;
    EventRun run([](EventRequest& r) { r.respondHere(200, pattern(100000)); }, secureOptions());
    EventRun large(
        [](EventRequest& r) {
            r.getResponseDevice().setBodySource(
                qv::BodySource::fromString(std::make_shared<const std::string>(pattern(kBytes))));
            r.respondHere(200, "");
        },
        secureOptions());
    RawClient client = secureClient(large.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(client.receiveHead());
    std::thread stopping([&] { EXPECT_TRUE(large.server().shutDown(integration::kLimit)); });
    EXPECT_EQ(client.receiveExactly(kBytes), pattern(kBytes));
    EXPECT_TRUE(hasEndedWell(client));
    client.close();
    stopping.join();
}

TEST(SecureShutDown, AbortsAtItsDeadline)
{
    EventRun run(&parkAllButPings, secureOptions());
    RawClient client = secureClient(run.port());
    ASSERT_TRUE(client.send(getRequest("/work")));
    ASSERT_TRUE(run.request(0));
    const auto silent = plainClient(run.port());
    EXPECT_FALSE(run.server().shutDown(milliseconds(100)));
    EXPECT_EQ(run.request(0)->abortReason(), "DaemonShutdown");
    EXPECT_TRUE(client.isClosedByServer());
    EXPECT_TRUE(silent->isClosedByServer());
}

TEST(SecureShutDown, LeavesNoDescriptorAndNoThread)
{
    const size_t descriptors = integration::countDescriptors();
    const size_t threads = integration::countThreads();
    {
        EventRun run(&parkAllButPings, secureOptions());
        for (int i = 0; i < 20; ++i) {
            RawClient client = secureClient(run.port());
            EXPECT_TRUE(isServed(client));
        }
    }
    EXPECT_EQ(integration::countDescriptors(), descriptors);
    EXPECT_TRUE(waitUntil([&] { return integration::countThreads() == threads; }));
}

// Gives the connection of the request away.
void upgrade(EventRequest& request, std::unique_ptr<qv::UpgradedConnection>& upgraded,
             std::atomic<bool>& isUpgraded)
{
    request.takeUpgraded = [&](std::unique_ptr<qv::UpgradedConnection> connection) {
        upgraded = std::move(connection);
        isUpgraded = true;
    };
    request.response.statusCode = 101;
    request.response.headers["upgrade"] = {"Upgrade", "echo"};
    request.respondHere(101, "");
}

// The connection goes on after its server has been destroyed, as long as its place is kept.
TEST(SecureUpgrade, HandsOnADecryptedConnection)
{
    std::unique_ptr<qv::UpgradedConnection> upgraded;
    std::atomic<bool> isUpgraded{false};
    const std::string large = pattern(1000000);
    auto run = std::make_unique<EventRun>(
        [&](EventRequest& request) { upgrade(request, upgraded, isUpgraded); }, secureOptions());
    RawClient client = secureClient(run->port());
    ASSERT_TRUE(client.send(getRequest("/", "Connection: Upgrade\r\nUpgrade: echo\r\n") + "first"));
    EXPECT_THAT(client.receiveHead(), Optional(Field(&RawResponse::status, 101)));
    ASSERT_TRUE(waitUntil([&] { return isUpgraded.load(); }));
    EXPECT_TRUE(run->server().shutDown(integration::kLimit));
    run.reset();
    std::string received = upgraded->takeReceivedBytes();
    std::thread sending([&] { EXPECT_TRUE(client.send(large)); });
    const int descriptor = upgraded->getDescriptor();
    while (received.size() < large.size() + 5) {
        pollfd readable{descriptor, POLLIN, 0};
        ASSERT_EQ(::poll(&readable, 1, 60000), 1);
        char bytes[65536];
        const ssize_t got = ::recv(descriptor, bytes, sizeof bytes, 0);
        ASSERT_GT(got, 0);
        received.append(bytes, static_cast<size_t>(got));
    }
    sending.join();
    EXPECT_EQ(received, "first" + large);
    ASSERT_EQ(::send(descriptor, "bye", 3, MSG_NOSIGNAL), 3);
    upgraded.reset();
    EXPECT_EQ(client.receiveExactly(3), "bye");
    EXPECT_TRUE(hasEndedWell(client));
}

// The application has ended its direction, and is behind with reading when the client ends.
TEST(SecureUpgrade, GetsTheBytesBehindItsOwnEnd)
{
    std::unique_ptr<qv::UpgradedConnection> upgraded;
    std::atomic<bool> isUpgraded{false};
    const std::string large = pattern(400000);
    EventRun run([&](EventRequest& request) { upgrade(request, upgraded, isUpgraded); },
                 secureOptions());
    RawClient client = secureClient(run.port());
    ASSERT_TRUE(client.send(getRequest("/", "Connection: Upgrade\r\nUpgrade: echo\r\n")));
    ASSERT_THAT(client.receiveHead(), Optional(Field(&RawResponse::status, 101)));
    ASSERT_TRUE(waitUntil([&] { return isUpgraded.load(); }));
    const int descriptor = upgraded->getDescriptor();
    ASSERT_EQ(::shutdown(descriptor, SHUT_WR), 0);
    EXPECT_TRUE(hasEndedWell(client));
    ASSERT_TRUE(client.send(large));
    client.finishSending();
    // The hop sees the end while the pair is full.
    std::this_thread::sleep_for(milliseconds(100));
    std::string received = upgraded->takeReceivedBytes();
    for (;;) {
        pollfd readable{descriptor, POLLIN, 0};
        ASSERT_EQ(::poll(&readable, 1, 60000), 1);
        char bytes[65536];
        const ssize_t got = ::recv(descriptor, bytes, sizeof bytes, 0);
        if (got <= 0)
            break;
        received.append(bytes, static_cast<size_t>(got));
    }
    EXPECT_EQ(received.size(), large.size());
    EXPECT_TRUE(received == large);
    upgraded.reset();
}

}  // namespace
