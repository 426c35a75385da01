// WebSocket clients that keep to nothing, on the kit's hub.

#include "Crowd.h"
#include "GoodClients.h"
#include "Metrics.h"
#include "ServerProcess.h"

#include "../support/Waiting.h"
#include "../support/WebSocketClient.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace adversarial
{
namespace
{

using integration::maskedFrame;
using integration::waitUntil;

constexpr size_t kClients = 500;
constexpr size_t kGoodMessages = 40;
// Each of 4 workers pools 1024 blocks, and each block keeps up to 3 pages of 4 KiB of the heap:
// those of its bytes and of its list node.
constexpr size_t kToleratedBytes = size_t{4} * 1024 * 3 * 4096;
constexpr double kKib = 1024;
constexpr double kMib = 1024 * 1024;

const std::string kHandshake = integration::getRequest(
    "/", "Upgrade: WebSocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
         "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n");

class WebSocketAbuse : public ::testing::Test
{
protected:
    void start(const std::vector<std::string>& more = {})
    {
        std::vector<std::string> arguments{"threads=2", "workers=4"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        server = std::make_unique<ServerProcess>(arguments);
        // The hub's threads begin with the first connection.
        echo(server->port(), scaled(kGoodMessages));
        before = server->quietFootprint();
        // Another connection is open beside the one that measures, as during the attack.
        const integration::WebSocketClient idle(server->port());
        echo(server->port(), scaled(kGoodMessages)).print("echoed-without-attack");
        crowd = std::make_unique<Crowd>(server->port());
    }

    // Upgraded connections, each of which gets on with `deed` right after its handshake.
    void openAll(const std::function<void(Client&)>& deed, int receiveBuffer = 0)
    {
        const size_t clients = scaled(kClients);
        size_t upgraded = 0;
        crowd->onChange = [&](Client& client) {
            if (client.role == 1 || client.text.find("\r\n\r\n") == std::string::npos)
                return;
            EXPECT_EQ(client.text.compare(0, 13, "HTTP/1.1 101 "), 0);
            client.role = 1;
            ++upgraded;
            deed(client);
        };
        for (size_t i = 0; i < clients; ++i)
            crowd->send(crowd->open(0, receiveBuffer), kHandshake);
        EXPECT_TRUE(crowd->run([&] { return upgraded == clients; }, kLimit));
        crowd->onChange = nullptr;
        metric("attackers", static_cast<double>(clients), "connections");
    }

    void printMemoryOfEach()
    {
        const Footprint now = server->footprint();
        memoryOfEach =
            (static_cast<double>(now.residentBytes) - static_cast<double>(before.residentBytes)) /
            static_cast<double>(scaled(kClients));
        metric("resident-memory-per-attacker", memoryOfEach / kKib, "KiB");
    }

    // Drives the crowd for this long with a good client beside it.
    void runBesideGoodOne(
        milliseconds time, const std::function<void()>& deed = [] {})
    {
        Meanwhile good(server->port(), Meanwhile::Messages);
        const auto end = Clock::now() + time;
        while (Clock::now() < end) {
            crowd->runFor(milliseconds(100));
            deed();
        }
        const Served& served = good.stop();
        served.print("echoed-beside-attack");
        EXPECT_EQ(served.failures, 0u);
        EXPECT_GT(served.times.values.size(), 0u);
    }

    void expectAllIsOver()
    {
        crowd.reset();
        EXPECT_TRUE(waitUntil([this] { return server->metrics().at("connections") == 0; }));
        metric("resident-memory-after-all-have-closed",
               static_cast<double>(server->footprint().residentBytes) / kKib, "KiB");
        // A worker keeps the connection that it has closed until it gets another one.
        EXPECT_TRUE(waitUntil([this] {
            echo(server->port(), 3);
            return kSanitized ||
                   server->footprint().residentBytes <= before.residentBytes + kToleratedBytes;
        }));
        server->expectAsBefore(before, kToleratedBytes);
        EXPECT_EQ(echo(server->port(), 3).failures, 0u);
        server->stop(kLimit);
    }

    std::unique_ptr<ServerProcess> server;
    std::unique_ptr<Crowd> crowd;
    Footprint before;
    double memoryOfEach = 0;
};

// The daemon's timeout does not apply to upgraded connections.
TEST_F(WebSocketAbuse, AFrameByteByByteKeepsItsPlaceForEver)
{
    start();
    const std::string frame = maskedFrame(integration::kLastText, std::string(1000, 's'));
    openAll([&](Client& client) { crowd->send(client, frame.substr(0, 8)); });
    printMemoryOfEach();
    size_t at = 8;
    runBesideGoodOne(milliseconds(4000), [&] {
        for (Client& each : crowd->clients())
            crowd->send(each, frame.substr(at, 1));
        ++at;
    });
    EXPECT_EQ(crowd->count(Client::Open), scaled(kClients));
    metric("attackers-still-connected", static_cast<double>(crowd->count(Client::Open)),
           "connections");
    expectAllIsOver();
}

// Each would occupy a worker for ever; the hub resets it after half a second.
TEST_F(WebSocketAbuse, HalfClosedClientsAreEndedByTheHub)
{
    start();
    Meanwhile good(server->port(), Meanwhile::Messages);
    openAll([&](Client& client) {
        client.opened = Clock::now();
        crowd->finishSending(client);
    });
    EXPECT_TRUE(crowd->run([&] { return crowd->count(Client::Open) == 0; }, kLimit));
    Distribution times;
    for (const Client& each : crowd->clients())
        times.add(std::chrono::duration<double, std::milli>(each.ended - each.opened).count());
    times.print("ended-after-half-close");
    const Served& served = good.stop();
    served.print("echoed-beside-attack");
    EXPECT_EQ(served.failures, 0u);
    expectAllIsOver();
}

// The cost of half-closed clients at a steady rate: each holds one of the hub's workers.
TEST_F(WebSocketAbuse, AFewHalfClosedClientsASecondHoldAllWorkers)
{
    start();
    constexpr size_t kAtOnce = 8;
    crowd->onChange = [&](Client& client) {
        if (client.role == 0 && client.text.find("\r\n\r\n") != std::string::npos) {
            client.role = 1;
            crowd->finishSending(client);
        }
    };
    size_t opened = 0;
    const milliseconds time(4000);
    Meanwhile good(server->port(), Meanwhile::Messages);
    const auto start = Clock::now();
    crowd->run(
        [&] {
            while (crowd->count(Client::Open) + crowd->count(Client::Connecting) < kAtOnce) {
                crowd->send(crowd->open(), kHandshake);
                ++opened;
            }
            return false;
        },
        time);
    metric("attackers", static_cast<double>(opened) / millisecondsSince(start) * 1000,
           "connections/s");
    crowd.reset();
    const Served& served = good.stop();
    served.print("echoed-beside-attack");
    EXPECT_EQ(served.failures, 0u);
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, ClientsThatDoNotReadAreEndedByTheHub)
{
    constexpr double kUnsentMs = 2000;
    start({"unsent=2000", "sendbuffer=65536"});
    openAll(
        [&](Client& client) {
            client.receiveUpTo = client.received;
            crowd->send(client, maskedFrame(integration::kLastText, "flood"));
        },
        8192);
    const auto start = Clock::now();
    size_t most = 0;
    Distribution closed;
    const size_t clients = scaled(kClients);
    Meanwhile good(server->port(), Meanwhile::Messages);
    while (closed.values.size() < clients &&
           millisecondsSince(start) < static_cast<double>(kLimit.count())) {
        crowd->runFor(milliseconds(50));
        most = std::max(most, server->footprint().residentBytes);
        const size_t left = server->metrics().at("connections");
        while (closed.values.size() + left < clients + 1)
            closed.add(millisecondsSince(start));
    }
    const Served& served = good.stop();
    served.print("echoed-beside-attack");
    EXPECT_EQ(served.failures, 0u);
    metric("unsent-limit", kUnsentMs, "ms");
    closed.print("ended-after-attack-began");
    metric("queued-for-each", kKib, "KiB");
    metric("resident-memory-per-attacker",
           static_cast<double>(most - std::min(most, before.residentBytes)) /
               static_cast<double>(clients) / kKib,
           "KiB");
    EXPECT_GE(closed.values.size(), clients);
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, GarbageEndsNothingButItsOwnConnection)
{
    const char* text = std::getenv("WENDREL_ADVERSARIAL_SEED");
    const uint64_t seed = text ? std::strtoull(text, nullptr, 10) : std::random_device()();
    metric("seed", static_cast<double>(seed), "WENDREL_ADVERSARIAL_SEED");
    std::mt19937_64 random(seed);
    start();
    openAll([&](Client& client) {
        std::string bytes(1 + random() % 5000, '\0');
        for (char& each : bytes)
            each = static_cast<char>(random());
        crowd->send(client, bytes);
    });
    runBesideGoodOne(milliseconds(2000));
    metric("ended-by-the-server", static_cast<double>(crowd->count(Client::Ended)), "connections");
    metric("still-connected", static_cast<double>(crowd->count(Client::Open)), "connections");
    EXPECT_GT(crowd->count(Client::Ended), 0u);
    printMemoryOfEach();
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, AFloodOfTinyFramesIsServedBesideOthers)
{
    start();
    constexpr size_t kFrames = 200000;
    constexpr size_t kFramesAtOnce = 1000;
    const size_t frames = scaled(kFrames);
    std::string piece;
    for (size_t i = 0; i < kFramesAtOnce; ++i)
        piece += maskedFrame(integration::kLastText, "x");
    // The echoes to be read: each a header of two bytes and one more.
    const uint64_t responseBytes = 3 * frames;
    Client& client = crowd->open();
    size_t sent = 0;
    uint64_t headBytes = 0;
    crowd->onChange = [&](Client& each) {
        if (headBytes == 0 && each.text.find("\r\n\r\n") != std::string::npos)
            headBytes = each.received;
        while (headBytes > 0 && sent < frames && each.pending.empty()) {
            sent += kFramesAtOnce;
            crowd->send(each, piece);
        }
    };
    crowd->send(client, kHandshake);
    Meanwhile good(server->port(), Meanwhile::Messages);
    const auto start = Clock::now();
    size_t most = 0;
    EXPECT_TRUE(crowd->run(
        [&] {
            if (most == 0 || millisecondsSince(start) > 500)
                most = std::max(most, server->footprint().residentBytes);
            return headBytes > 0 && client.received >= headBytes + responseBytes;
        },
        kLimit));
    metric("frames", static_cast<double>(frames), "frames");
    metric("rate", static_cast<double>(frames) / millisecondsSince(start) * 1000, "frames/s");
    metric("resident-memory-most", static_cast<double>(most) / kKib, "KiB");
    const Served& served = good.stop();
    served.print("echoed-beside-attack");
    EXPECT_EQ(served.failures, 0u);
    crowd->onChange = nullptr;
    expectAllIsOver();
}

// There is no limit of size: an announced frame is kept until it is complete.
TEST_F(WebSocketAbuse, AnAnnouncedTebibyteIsKeptAsFarAsItHasCome)
{
    start();
    constexpr size_t kSentBytes = 128u << 20;
    const size_t bytes = scaled(kSentBytes);
    const std::string header("\x82\xff\x00\x00\x01\x00\x00\x00\x00\x00\x01\x02\x03\x04", 14);
    const std::string piece(1u << 20, 'a');
    Client& client = crowd->open();
    size_t sent = 0;
    crowd->onChange = [&](Client& each) {
        if (each.text.find("\r\n\r\n") == std::string::npos)
            return;
        // Piece by piece: the removal of sent bytes moves all that are pending.
        while (sent < bytes && each.pending.empty()) {
            const std::string first = sent == 0 ? header : std::string();
            sent += piece.size();
            crowd->send(each, first + piece);
        }
    };
    crowd->send(client, kHandshake);
    EXPECT_TRUE(crowd->run([&] { return sent >= bytes && client.pending.empty(); }, kLimit));
    size_t most = 0;
    crowd->run(
        [&] {
            most = std::max(most, server->footprint().residentBytes);
            return kSanitized || most >= before.residentBytes + bytes;
        },
        kLimit);
    metric("sent", static_cast<double>(bytes) / kMib, "MiB");
    metric("kept", static_cast<double>(most - std::min(most, before.residentBytes)) / kMib, "MiB");
    EXPECT_EQ(crowd->count(Client::Open), 1u);
    crowd->onChange = nullptr;
    expectAllIsOver();
}

// Required: the sum of length and header wraps around, so the frame counts as complete and its
// payload is inserted, which throws std::length_error.
TEST_F(WebSocketAbuse, AnAnnouncedLengthNearTwoToThe64EndsTheProcess)
{
    ServerProcess victim({"threads=2"});
    {
        integration::WebSocketClient good(victim.port());
        good.sendText("hello");
        EXPECT_TRUE(good.receive());
    }
    integration::WebSocketClient attacker(victim.port());
    const std::string header("\x82\xff\xff\xff\xff\xff\xff\xff\xff\xf2\x01\x02\x03\x04", 14);
    attacker.raw().send(header);
    const std::optional<int> end = victim.waitForEnd(kLimit);
    ASSERT_TRUE(end);
    EXPECT_EQ(*end, -SIGABRT);
    metric("bytes-that-end-the-process", static_cast<double>(header.size()), "bytes");
    metric("process-ended-by-signal", -*end, "number");
}

}  // namespace
}  // namespace adversarial
