// Event-driven mode: the client's address behind trusted proxies, and the hosts that are served.

#include "support/EventRun.h"
#include "support/ProcessCounts.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"

#include <support/BackgroundCall.h>
#include <support/TemporaryDirectory.h>

#include <curl/curl.h>
#include <gmock/gmock.h>

#include <chrono>
#include <cstddef>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using integration::countDescriptors;
using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::kLimit;
using integration::onOneThread;
using integration::processLog;
using integration::RawClient;
using integration::waitUntil;
using qv::http::ServerOptions;
using qv::tests::BackgroundCall;
using std::chrono::milliseconds;
using ::testing::HasSubstr;
using namespace std::string_literals;

constexpr milliseconds kShort{300};
constexpr std::chrono::minutes kLong{10};

constexpr const char* kTrusted = "127.0.0.1";
constexpr const char* kStranger = "127.0.0.2";

const std::string kSignature = "\r\n\r\n\0\r\nQUIT\n"s;
const std::string kVersion1 = "PROXY TCP4 192.0.2.1 127.0.0.1 4711 80\r\n";
const std::string kVersion2 =
    kSignature + "\x21\x11\x00\x0c\xc0\x00\x02\x01\x7f\x00\x00\x01\x12\x67\x00\x50"s;
const std::string kLocal2 = kSignature + "\x20\x00\x00\x00"s;

// Tells the address of the client.
void echo(EventRequest& request)
{
    request.respondHere(200, request.getClientAddress().toStringWithPort());
}

ServerOptions trusting(std::vector<std::string> proxies)
{
    ServerOptions options = onOneThread();
    options.trustedProxies = std::move(proxies);
    return options;
}

RawClient::Connected connectFrom(const char* address, uint16_t port)
{
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit{kLimit.count(), 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in end{};
    end.sin_family = AF_INET;
    ::inet_pton(AF_INET, address, &end.sin_addr);
    const auto* const plain = reinterpret_cast<const sockaddr*>(&end);
    const bool isBound = ::bind(descriptor, plain, sizeof end) == 0;
    ::inet_pton(AF_INET, "127.0.0.1", &end.sin_addr);
    end.sin_port = htons(port);
    if (isBound && ::connect(descriptor, plain, sizeof end) == 0)
        return {descriptor};
    ::close(descriptor);
    throw std::runtime_error("cannot connect");
}

RawClient::Connected connectUnix(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval limit{kLimit.count(), 0};
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    if (::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        return {descriptor};
    ::close(descriptor);
    throw std::runtime_error("cannot connect");
}

// The body of the next response; a description when there is none with status 200.
std::string receiveBody(RawClient& client)
{
    const auto response = client.receive();
    if (!response)
        return "no response";
    return response->status == 200 ? response->body : response->statusLine;
}

// The client's address that the application sees, of a connection that begins with these bytes.
std::string addressAfter(EventRun& run, const std::string& header, const std::string& lines = "",
                         const char* from = kTrusted)
{
    RawClient client(connectFrom(from, run.port()));
    client.send(header + getRequest("/", lines));
    return receiveBody(client);
}

// Without the port, which the system has chosen.
std::string hostOf(const std::string& address)
{
    return address.substr(0, address.rfind(':'));
}

TEST(TrustedProxies, TellTheirClientInAProxyHeader)
{
    EventRun run(&echo, trusting({kTrusted}));
    const std::string v6 = kSignature + "\x21\x21\x00\x24"s +
                           "\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01"s + std::string(16, '\0') +
                           "\x12\x67\x00\x50"s;
    const struct
    {
        const char* name;
        std::string header;
        const char* client;
    } rows[] = {
        {"1, IPv4", kVersion1, "192.0.2.1:4711"},
        {"1, IPv6", "PROXY TCP6 2001:db8::1 ::1 4711 80\r\n", "[2001:db8::1]:4711"},
        {"2, IPv4", kVersion2, "192.0.2.1:4711"},
        {"2, IPv6", v6, "[2001:db8::1]:4711"},
        {"2, with 4000 further bytes",
         kSignature + "\x21\x11\x0f\xac\xc0\x00\x02\x01\x7f\x00\x00\x01\x12\x67\x00\x50"s +
             std::string(4000, 'v'),
         "192.0.2.1:4711"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(addressAfter(run, row.header), row.client);
        // An untrusted client has written this line.
        EXPECT_EQ(addressAfter(run, row.header, "X-Forwarded-For: 198.51.100.7\r\n"), row.client);
    }
}

TEST(TrustedProxies, KeepTheirOwnAddressWhenTheHeaderHasNone)
{
    EventRun run(&echo, trusting({kTrusted}));
    const std::string forwarded = "X-Forwarded-For: 192.0.2.1\r\n";
    const std::string unspecified = kSignature + "\x21\x00\x00\x00"s;
    const std::string unixClient = kSignature + "\x21\x31\x00\xd8"s + std::string(216, '\0');
    for (const std::string& header : {"PROXY UNKNOWN\r\n"s, unspecified, unixClient}) {
        SCOPED_TRACE(header);
        EXPECT_EQ(hostOf(addressAfter(run, header)), kTrusted);
        // Of a client that the proxy does not name.
        EXPECT_EQ(hostOf(addressAfter(run, header, forwarded)), kTrusted);
    }
    EXPECT_EQ(hostOf(addressAfter(run, kLocal2)), kTrusted);
    EXPECT_EQ(addressAfter(run, kLocal2, forwarded), "192.0.2.1:0");
}

TEST(TrustedProxies, MayBeChained)
{
    EventRun run(&echo, trusting({kTrusted, "10.0.0.0/8"}));
    const std::string header = "PROXY TCP4 10.1.2.3 127.0.0.1 4711 80\r\n";
    EXPECT_EQ(addressAfter(run, header), "10.1.2.3:4711");
    EXPECT_EQ(addressAfter(run, header, "X-Forwarded-For: 192.0.2.1, 10.0.0.9\r\n"), "192.0.2.1:0");
}

TEST(TrustedProxies, MaySendTheHeaderInAnyPieces)
{
    const qv::tests::TemporaryDirectory directory;
    ServerOptions options = trusting({kTrusted, "unix"});
    options.listen = {"127.0.0.1:0", "unix:" + (directory / "app.sock")};
    EventRun run(&echo, options);
    for (const std::string& header : {kVersion1, kVersion2}) {
        const std::string bytes = header + getRequest("/");
        RawClient tcp(connectFrom(kTrusted, run.port()));
        RawClient local(connectUnix(directory / "app.sock"));
        for (const char byte : bytes) {
            ASSERT_TRUE(tcp.send({&byte, 1}));
            ASSERT_TRUE(local.send({&byte, 1}));
        }
        EXPECT_EQ(receiveBody(tcp), "192.0.2.1:4711");
        EXPECT_EQ(receiveBody(local), "192.0.2.1:4711");
        for (size_t cut = 1; cut < bytes.size(); ++cut) {
            RawClient client(connectFrom(kTrusted, run.port()));
            ASSERT_TRUE(client.send(bytes.substr(0, cut)));
            ASSERT_TRUE(client.send(bytes.substr(cut)));
            ASSERT_EQ(receiveBody(client), "192.0.2.1:4711") << "cut after " << cut;
        }
    }
}

// Each piece is sent when the server has looked at the one before: another client has been served
// meanwhile, by the same thread.
TEST(TrustedProxies, AreWaitedForWithoutHoldingUpOthers)
{
    EventRun run(&echo, trusting({kTrusted}));
    RawClient slow(connectFrom(kTrusted, run.port()));
    const std::string bytes = kVersion2 + getRequest("/");
    for (size_t at = 0; at < bytes.size(); at += 5) {
        ASSERT_TRUE(slow.send(bytes.substr(at, 5)));
        ASSERT_EQ(addressAfter(run, kVersion1), "192.0.2.1:4711");
        ASSERT_EQ(hostOf(addressAfter(run, "", "", kStranger)), kStranger);
    }
    EXPECT_EQ(receiveBody(slow), "192.0.2.1:4711");
}

// Also a connection that the server has waited for.
TEST(TrustedProxies, AreMissedWhenTheyCloseTheConnection)
{
    EventRun run(
        [](EventRequest& request) {
            if (request.getOriginalFullUrl() == "/")
                echo(request);
        },
        trusting({kTrusted}));
    size_t requests = 0;
    for (const size_t cut : {size_t{0}, kVersion2.size() / 2}) {
        RawClient client(connectFrom(kTrusted, run.port()));
        client.send(kVersion2.substr(0, cut));
        ASSERT_EQ(addressAfter(run, kVersion1), "192.0.2.1:4711");
        ASSERT_TRUE(client.send(kVersion2.substr(cut) + getRequest("/wait")));
        requests += 2;
        EventRequest* const request = run.request(requests - 1);
        ASSERT_TRUE(request);
        client.close();
        EXPECT_TRUE(waitUntil([&] { return request->aborts == 1; }));
        EXPECT_EQ(request->abortReason(), "ClientAbort");
    }
}

TEST(TrustedProxies, LoseNoByteBehindTheHeader)
{
    EventRun run(
        [&](EventRequest& request) {
            run.work(request, [](EventRequest& r) {
                r.respond(200, r.getClientAddress().toString() + " " + r.readBody());
            });
        },
        trusting({kTrusted}));
    RawClient client(connectFrom(kTrusted, run.port()));
    const std::string body(20000, 'b');
    const std::string post = "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 20000\r\n\r\n" + body;
    ASSERT_TRUE(client.send(kVersion2 + post + post));
    EXPECT_EQ(receiveBody(client), "192.0.2.1 " + body);
    // The header is that of the connection.
    EXPECT_EQ(receiveBody(client), "192.0.2.1 " + body);
}

TEST(TrustedProxies, TellTheClientOfEachRequest)
{
    EventRun run(&echo, trusting({kTrusted, "10.0.0.0/8"}));
    RawClient proxy(connectFrom(kTrusted, run.port()));
    const struct
    {
        const char* lines;
        const char* client;  // null: the proxy
    } rows[] = {
        {"X-Forwarded-For: 192.0.2.1\r\n", "192.0.2.1:0"},
        {"", nullptr},
        {"x-forwarded-for: 198.51.100.7, [2001:db8::1]:4711, 10.0.0.2\r\n", "[2001:db8::1]:4711"},
        {"X-Forwarded-For: 198.51.100.7\r\nX-Forwarded-For: 192.0.2.1\r\n", "192.0.2.1:0"},
        {"X-Forwarded-For: unknown\r\n", nullptr},
        {"X-Forwarded-For: 10.0.0.3, 10.0.0.2\r\n", "10.0.0.3:0"},
        {"Forwarded: for=\"[2001:db8::1]:4711\";proto=https\r\n", "[2001:db8::1]:4711"},
        {"Forwarded: for=192.0.2.1\r\nForwarded: for=10.0.0.2\r\n", "192.0.2.1:0"},
        {"Forwarded: for=_hidden\r\n", nullptr},
        // A proxy that knows only one of the two passes the other one on.
        {"Forwarded: for=198.51.100.7\r\nX-Forwarded-For: 192.0.2.1\r\n", "192.0.2.1:0"},
        {"Forwarded: for=198.51.100.7\r\nX-Forwarded-For: unknown\r\n", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.lines);
        ASSERT_TRUE(proxy.send(getRequest("/", row.lines)));
        const std::string address = receiveBody(proxy);
        EXPECT_EQ(row.client ? address : hostOf(address), row.client ? row.client : kTrusted);
    }
}

TEST(TrustedProxies, AreNoOthers)
{
    EventRun run(&echo, trusting({kTrusted}));
    for (const char* lines : {"X-Forwarded-For: 192.0.2.1\r\n", "Forwarded: for=192.0.2.1\r\n"})
        EXPECT_EQ(hostOf(addressAfter(run, "", lines, kStranger)), kStranger);
    EventRun none(&echo, onOneThread());
    EXPECT_EQ(hostOf(addressAfter(none, "", "X-Forwarded-For: 192.0.2.1\r\n")), kTrusted);
}

// Its header reaches the daemon, for which it is no request.
TEST(TrustedProxies, AreNotImitatedByOthers)
{
    EventRun run(&echo, trusting({kTrusted}));
    for (const std::string& header : {kVersion1, kVersion2, kLocal2}) {
        SCOPED_TRACE(header);
        RawClient client(connectFrom(kStranger, run.port()));
        ASSERT_TRUE(client.send(header + getRequest("/")));
        client.finishSending();
        const std::string response = client.receiveToEnd();
        if (!response.empty()) {
            EXPECT_THAT(response, testing::StartsWith("HTTP/1.1 400 "));
        }
    }
    EXPECT_EQ(run.requestCount(), 0u);
}

TEST(TrustedProxies, OfUnixSocketsAreTrustedByName)
{
    const qv::tests::TemporaryDirectory directory;
    for (const bool isTrusted : {false, true}) {
        ServerOptions options = trusting({"127.0.0.1"});
        if (isTrusted)
            options.trustedProxies.push_back("unix");
        options.listen = {"unix:" + (directory / "app.sock")};
        EventRun run(&echo, options);
        RawClient client(connectUnix(directory / "app.sock"));
        ASSERT_TRUE(client.send(getRequest("/", "X-Forwarded-For: 192.0.2.1\r\n")));
        EXPECT_EQ(receiveBody(client), isTrusted ? "192.0.2.1:0" : "");
        if (!isTrusted)
            continue;
        RawClient second(connectUnix(directory / "app.sock"));
        ASSERT_TRUE(second.send(kVersion2 + getRequest("/")));
        EXPECT_EQ(receiveBody(second), "192.0.2.1:4711");
    }
}

TEST(TrustedProxies, AreClosedAfterAMalformedHeader)
{
    EventRun run(&echo, trusting({kTrusted}));
    const std::string rows[] = {
        "PROXY TCP4 192.0.2.1\r\n",       "PROXY / HTTP/1.1\r\nHost: x\r\n\r\n",
        "PROXY " + std::string(200, 'x'), kSignature + "\x21\x11\x00\x01x"s,
        kSignature + "\x21\x11\x10\x01"s, kSignature + "\x31"s};
    for (const std::string& row : rows) {
        SCOPED_TRACE(row);
        RawClient client(connectFrom(kTrusted, run.port()));
        ASSERT_TRUE(client.send(row));
        EXPECT_EQ(client.receiveToEnd(), "");
    }
    EXPECT_EQ(run.requestCount(), 0u);
    size_t reports = 0;
    for (const qv::tests::LogLine& line : processLog->lines()) {
        if (line.message.find("malformed PROXY header") != std::string::npos) {
            EXPECT_THAT(line.message,
                        HasSubstr("closed a connection with a malformed PROXY header, from "
                                  "127.0.0.1:"));
            ++reports;
        }
    }
    EXPECT_EQ(reports, 1u);
    EXPECT_EQ(addressAfter(run, kVersion1), "192.0.2.1:4711");
}

TEST(TrustedProxies, AreClosedWhenTheyEndWithinTheHeader)
{
    ServerOptions options = trusting({kTrusted});
    options.headTimeout = milliseconds(0);
    EventRun run(&echo, options);
    for (const std::string& header : {kVersion1, kVersion2}) {
        for (size_t bytes = 0; bytes < header.size(); ++bytes) {
            SCOPED_TRACE(bytes);
            RawClient client(connectFrom(kTrusted, run.port()));
            client.send(header.substr(0, bytes));
            client.finishSending();
            ASSERT_TRUE(client.isClosedByServer());
        }
        RawClient reset(connectFrom(kTrusted, run.port()));
        ASSERT_TRUE(reset.send(header.substr(0, 8)));
        reset.reset();
    }
    EXPECT_EQ(addressAfter(run, kVersion1), "192.0.2.1:4711");
}

TEST(TrustedProxies, HaveTheHeadTimeoutForTheHeader)
{
    ServerOptions options = trusting({kTrusted});
    options.headTimeout = kShort;
    EventRun run(&echo, options);
    for (const std::string& bytes : {""s, "P"s, kVersion1.substr(0, 20), kVersion2.substr(0, 14)}) {
        SCOPED_TRACE(bytes);
        const auto start = std::chrono::steady_clock::now();
        RawClient client(connectFrom(kTrusted, run.port()));
        client.send(bytes);
        EXPECT_EQ(client.receiveToEnd(), "");
        EXPECT_GE(std::chrono::steady_clock::now() - start, kShort - milliseconds(1));
    }
    // One deadline for header and head together.
    RawClient client(connectFrom(kTrusted, run.port()));
    ASSERT_TRUE(client.send(kVersion1 + "GET / HTTP/1.1\r\n"));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 408);
}

TEST(TrustedProxies, CountAsConnectionsWithinTheHeader)
{
    ServerOptions options = trusting({kTrusted});
    options.maxConnections = 2;
    EventRun run(&echo, options);
    RawClient first(connectFrom(kTrusted, run.port()));
    RawClient second(connectFrom(kTrusted, run.port()));
    ASSERT_TRUE(first.send(kVersion1.substr(0, 10)));
    ASSERT_TRUE(second.send(kVersion2.substr(0, 10)));
    for (const char* from : {kTrusted, kStranger}) {
        RawClient refused(connectFrom(from, run.port()));
        const auto response = refused.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 503);
    }
    // A connection that the daemon has taken over still counts, once.
    ASSERT_TRUE(first.send(kVersion1.substr(10) + getRequest("/")));
    EXPECT_EQ(receiveBody(first), "192.0.2.1:4711");
    RawClient third(connectFrom(kTrusted, run.port()));
    const auto refusal = third.receive();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->status, 503);
    // An end within the header frees the place.
    second.close();
    EXPECT_TRUE(
        waitUntil([&] { return hostOf(addressAfter(run, "", "", kStranger)) == kStranger; }));
}

TEST(TrustedProxies, DoNotCountAsOneAddress)
{
    ServerOptions options = trusting({kTrusted});
    options.maxConnectionsPerAddress = 1;
    EventRun run(&echo, options);
    // Of the proxy itself any number.
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(std::make_unique<RawClient>(connectFrom(kTrusted, run.port())));
        ASSERT_TRUE(clients.back()->send((i % 2 != 0 ? kLocal2 : "") + getRequest("/")));
        EXPECT_EQ(hostOf(receiveBody(*clients.back())), kTrusted);
    }
    RawClient one(connectFrom(kTrusted, run.port()));
    ASSERT_TRUE(one.send(kVersion1 + getRequest("/")));
    EXPECT_EQ(receiveBody(one), "192.0.2.1:4711");
    // The same client with another port, and another client.
    EXPECT_EQ(addressAfter(run, "PROXY TCP4 192.0.2.1 127.0.0.1 4712 80\r\n"),
              "HTTP/1.1 503 Service Unavailable");
    RawClient other(connectFrom(kTrusted, run.port()));
    ASSERT_TRUE(other.send("PROXY TCP4 192.0.2.2 127.0.0.1 4711 80\r\n" + getRequest("/")));
    EXPECT_EQ(receiveBody(other), "192.0.2.2:4711");
    one.close();
    EXPECT_TRUE(waitUntil([&] { return addressAfter(run, kVersion2) == "192.0.2.1:4711"; }));
    // Others count as before.
    RawClient stranger(connectFrom(kStranger, run.port()));
    ASSERT_TRUE(stranger.send(getRequest("/")));
    EXPECT_EQ(hostOf(receiveBody(stranger)), kStranger);
    EXPECT_EQ(addressAfter(run, "", "", kStranger), "HTTP/1.1 503 Service Unavailable");
}

TEST(TrustedProxies, AreClosedByAShutDownWithinTheHeader)
{
    for (const milliseconds deadline : {milliseconds(kLong), milliseconds(0)}) {
        SCOPED_TRACE(deadline.count());
        ServerOptions options = trusting({kTrusted});
        options.headTimeout = milliseconds(0);
        EventRun run(&echo, options);
        RawClient silent(connectFrom(kTrusted, run.port()));
        RawClient half(connectFrom(kTrusted, run.port()));
        ASSERT_TRUE(half.send(kVersion2.substr(0, 20)));
        EXPECT_EQ(addressAfter(run, kVersion1), "192.0.2.1:4711");
        // Without time also a request may be aborted that has had its response.
        BackgroundCall shutDown(
            [&] { EXPECT_TRUE(run.server().shutDown(deadline) || deadline.count() == 0); });
        EXPECT_TRUE(half.isClosedByServer());
        EXPECT_TRUE(silent.isClosedByServer());
        EXPECT_TRUE(shutDown.waitForEnd());
    }
}

TEST(TrustedProxies, AreServedWhenTheRequestHasComeBeforeTheShutDown)
{
    EventRun run(
        [](EventRequest& request) {
            if (request.getOriginalFullUrl() == "/")
                echo(request);
        },
        trusting({kTrusted}));
    RawClient busy(connectFrom(kTrusted, run.port()));
    ASSERT_TRUE(busy.send(getRequest("/wait")));
    ASSERT_TRUE(run.request(0));
    RawClient whole(connectFrom(kTrusted, run.port()));
    ASSERT_TRUE(whole.send(kVersion2 + getRequest("/")));
    BackgroundCall shutDown([&] { EXPECT_TRUE(run.server().shutDown(kLong)); });
    EXPECT_EQ(receiveBody(whole), "192.0.2.1:4711");
    run.request(0)->respondHere(200, "served");
    EXPECT_EQ(receiveBody(busy), "served");
    EXPECT_TRUE(shutDown.waitForEnd());
}

TEST(TrustedProxies, LeaveNoDescriptor)
{
    ServerOptions options = trusting({kTrusted});
    options.maxConnectionsPerAddress = 1;
    EventRun run(&echo, options);
    EXPECT_EQ(addressAfter(run, kVersion1), "192.0.2.1:4711");
    const size_t before = countDescriptors();
    for (int i = 0; i < 50; ++i) {
        RawClient malformed(connectFrom(kTrusted, run.port()));
        malformed.send("PROXY x\r\n");
        RawClient half(connectFrom(kTrusted, run.port()));
        half.send(kVersion2.substr(0, 15));
        RawClient closed(connectFrom(kTrusted, run.port()));
        RawClient reset(connectFrom(kTrusted, run.port()));
        reset.send("P");
        reset.reset();
        RawClient first(connectFrom(kTrusted, run.port()));
        first.send(kVersion1);
        RawClient refused(connectFrom(kTrusted, run.port()));
        refused.send(kVersion2);
        EXPECT_EQ(malformed.receiveToEnd(), "");
    }
    EXPECT_TRUE(waitUntil([&] { return countDescriptors() <= before; }))
        << countDescriptors() << " instead of " << before;
}

// Part of a header in the socket is no reason to wake up.
TEST(TrustedProxies, CostNothingWhileTheHeaderIsIncomplete)
{
    EventRun run(&echo, trusting({kTrusted}));
    RawClient half(connectFrom(kTrusted, run.port()));
    ASSERT_TRUE(half.send(kVersion2.substr(0, 20)));
    EXPECT_EQ(addressAfter(run, kVersion1), "192.0.2.1:4711");
    const auto usedMs = [] {
        timespec used{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        return used.tv_sec * 1000 + used.tv_nsec / 1000000;
    };
    const auto start = usedMs();
    constexpr milliseconds kObserved{1000};
    std::this_thread::sleep_for(kObserved);
    EXPECT_LT(usedMs() - start, kObserved.count() / 4);
    ASSERT_TRUE(half.send(kVersion2.substr(20) + getRequest("/")));
    EXPECT_EQ(receiveBody(half), "192.0.2.1:4711");
}

TEST(TrustedProxies, AreUnderstoodAsCurlWritesTheHeader)
{
    EventRun run(&echo, trusting({kTrusted}));
    const std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(), &curl_easy_cleanup);
    const std::string url = "http://127.0.0.1:" + std::to_string(run.port()) + "/";
    std::string body;
    const auto take = +[](char* data, size_t size, size_t count, void* into) {
        static_cast<std::string*>(into)->append(data, size * count);
        return size * count;
    };
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_HAPROXYPROTOCOL, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, take);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, static_cast<long>(kLimit.count()));
    ASSERT_EQ(curl_easy_perform(handle.get()), CURLE_OK);
    long port = 0;
    curl_easy_getinfo(handle.get(), CURLINFO_LOCAL_PORT, &port);
    EXPECT_EQ(body, "127.0.0.1:" + std::to_string(port));
}

ServerOptions serving(std::vector<std::string> hosts)
{
    ServerOptions options = onOneThread();
    options.allowedHosts = std::move(hosts);
    return options;
}

std::string requestLine(const std::string& target = "/", const std::string& version = "1.1")
{
    return "GET " + target + " HTTP/" + version + "\r\n";
}

int statusOf(EventRun& run, const std::string& head)
{
    RawClient client(run.port());
    client.send(head + "\r\n");
    const auto response = client.receive();
    return response ? response->status : 0;
}

TEST(AllowedHosts, AreServedAndNoOthers)
{
    const struct
    {
        const char* name;
        std::string head;
        int status;
        bool isRefusedStrictly = false;
    } rows[] = {
        {"a host", requestLine() + "Host: localhost\r\n", 200},
        {"any port", requestLine() + "Host: LocalHost:80\r\n", 200},
        {"its port", requestLine() + "Host: 127.0.0.1:8181\r\n", 200},
        {"another port", requestLine() + "Host: 127.0.0.1:8182\r\n", 421},
        {"a label", requestLine() + "Host: a.example.com\r\n", 200},
        {"no label", requestLine() + "Host: example.com\r\n", 421},
        {"IPv6", requestLine() + "Host: [::1]:8181\r\n", 200},
        {"another host", requestLine() + "Host: evil.test\r\n", 421},
        {"an empty host", requestLine() + "Host:\r\n", 421},
        {"no host, HTTP/1.0", requestLine("/", "1.0"), 421},
        {"a host, HTTP/1.0", requestLine("/", "1.0") + "Host: localhost\r\n", 200},
        {"no host, refused by the daemon", requestLine(), 400},
        {"absolute form", requestLine("http://localhost/") + "Host: localhost\r\n", 200},
        {"absolute form of another host", requestLine("http://evil.test/") + "Host: localhost\r\n",
         421},
        {"absolute form, host of the header not looked at",
         requestLine("http://localhost/") + "Host: evil.test\r\n", 200},
        {"user in the target", requestLine("http://localhost@evil.test/") + "Host: localhost\r\n",
         421},
        {"two hosts", requestLine() + "Host: localhost\r\nHost: evil.test\r\n", 421, true},
        {"two hosts, the other first", requestLine() + "Host: evil.test\r\nHost: localhost\r\n",
         421, true},
    };
    for (const bool isStrict : {true, false}) {
        SCOPED_TRACE(isStrict);
        ServerOptions options = serving({"localhost", "127.0.0.1:8181", "*.example.com", "[::1]"});
        options.strictRequests = isStrict;
        EventRun run([](EventRequest& request) { request.respondHere(200, ""); }, options);
        size_t served = 0;
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            EXPECT_EQ(statusOf(run, row.head),
                      isStrict && row.isRefusedStrictly ? 400 : row.status);
            served += row.status == 200 ? 1 : 0;
        }
        // The others have not reached the application.
        EXPECT_EQ(run.requestCount(), served);
    }
}

TEST(AllowedHosts, RefuseWithAResponseAndClose)
{
    EventRun run([](EventRequest& request) { request.respondHere(200, ""); },
                 serving({"localhost"}));
    const struct
    {
        const char* name;
        std::string request;
    } rows[] = {
        {"no body", "GET / HTTP/1.1\r\nHost: x\r\n\r\n"},
        {"a body", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhello"},
        {"a body that does not come", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\n"},
        {"a body on demand",
         "POST / HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 5\r\n\r\n"},
        {"a chunked body", "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"},
        {"a second request", "GET / HTTP/1.1\r\nHost: x\r\n\r\nGET / HTTP/1.1\r\nHost: x\r\n\r\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RawClient client(run.port());
        ASSERT_TRUE(client.send(row.request));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->statusLine, "HTTP/1.1 421 Misdirected Request");
        EXPECT_EQ(response->body, "Misdirected Request");
        EXPECT_EQ(response->value("Content-Type"), "text/plain");
        EXPECT_EQ(response->value("Connection"), "close");
        EXPECT_TRUE(client.isClosedByServer());
    }
    RawClient client(run.port());
    ASSERT_TRUE(client.send("HEAD / HTTP/1.1\r\nHost: x\r\n\r\n"));
    const auto response = client.receive(true);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 421);
    EXPECT_TRUE(client.isClosedByServer());
    EXPECT_EQ(run.requestCount(), 0u);
}

TEST(AllowedHosts, AreThoseOfEachRequestOfAConnection)
{
    EventRun run([](EventRequest& request) { request.respondHere(200, ""); },
                 serving({"localhost"}));
    RawClient client(run.port());
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(client.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"));
        EXPECT_EQ(client.receive()->status, 200);
    }
    ASSERT_TRUE(client.send(getRequest("/")));
    EXPECT_EQ(client.receive()->status, 421);
    EXPECT_TRUE(client.isClosedByServer());
    EXPECT_EQ(run.requestCount(), 2u);
}

TEST(AllowedHosts, AreAllWithoutAnEntry)
{
    EventRun run([](EventRequest& request) { request.respondHere(200, ""); }, onOneThread());
    EXPECT_EQ(statusOf(run, requestLine() + "Host: evil.test\r\n"), 200);
    EXPECT_EQ(statusOf(run, requestLine("/", "1.0")), 200);
}

TEST(Admission, IsNotOpenedWithAnInvalidEntry)
{
    const auto failureOf = [](const ServerOptions& options) -> std::string {
        try {
            const EventRun run(&echo, options);
            return "it has started";
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    };
    EXPECT_EQ(failureOf(trusting({kTrusted, "10.0.0.0/33"})),
              "ServerOptions::trustedProxies: \"10.0.0.0/33\": the prefix is not a number of at "
              "most 32");
    EXPECT_EQ(failureOf(serving({"*"})), "ServerOptions::allowedHosts: \"*\": no host; use "
                                         "example.com, example.com:8080, *.example.com or [::1]");
}

}  // namespace
