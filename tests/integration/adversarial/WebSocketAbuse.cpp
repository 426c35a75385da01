// WebSocket clients that keep to nothing, on sessions of the kit.

#include "Crowd.h"
#include "GoodClients.h"
#include "Metrics.h"
#include "ServerProcess.h"

#include "../support/Waiting.h"
#include "../support/WebSocketClient.h"

#include <gtest/gtest.h>

#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
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
// The memory that the loops keep for the next message, and the heap's for each thread.
constexpr size_t kToleratedBytes = 16u << 20;
constexpr double kKib = 1024;
constexpr double kMib = 1024 * 1024;
constexpr uint8_t kPing = 0x89;
constexpr uint8_t kFirstText = 0x01;
constexpr uint8_t kMiddle = 0x00;

std::string handshake(const std::string& more = std::string())
{
    return integration::getRequest("/", "Upgrade: websocket\r\nConnection: Upgrade\r\n"
                                        "Sec-WebSocket-Version: 13\r\n"
                                        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n" +
                                            more);
}

bool hasHead(const Client& client)
{
    return client.text.find("\r\n\r\n") != std::string::npos;
}

// The code of the close frame that has come first after the handshake; 0 without one.
int closeCodeOf(const Client& client)
{
    const std::string frames = client.text.substr(client.text.find("\r\n\r\n") + 4);
    if (frames.size() < 4 || frames[0] != '\x88')
        return 0;
    return static_cast<uint8_t>(frames[2]) << 8 | static_cast<uint8_t>(frames[3]);
}

// `size` zeros as the payload of a compressed message.
std::string bomb(size_t size)
{
    constexpr int kRawWindow = -15;
    constexpr size_t kTailBytes = 4;
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, kRawWindow, 9, Z_DEFAULT_STRATEGY) !=
        Z_OK)
        throw std::runtime_error("deflateInit2");
    const std::string zeros(size, '\0');
    std::string compressed(size / 500 + 1000, '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zeros.data()));
    stream.avail_in = static_cast<uInt>(size);
    stream.next_out = reinterpret_cast<Bytef*>(compressed.data());
    stream.avail_out = static_cast<uInt>(compressed.size());
    deflate(&stream, Z_SYNC_FLUSH);
    compressed.resize(stream.total_out - kTailBytes);
    deflateEnd(&stream);
    return compressed;
}

class WebSocketAbuse : public ::testing::Test
{
protected:
    void start(const std::vector<std::string>& more = {})
    {
        std::vector<std::string> arguments{"events=1", "threads=2", "workers=4"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        server = std::make_unique<ServerProcess>(arguments);
        echo(server->port(), scaled(kGoodMessages));
        before = server->quietFootprint();
        // Another connection is open beside the one that measures, as during the attack.
        const integration::WebSocketClient idle(server->port());
        echo(server->port(), scaled(kGoodMessages)).print("echoed-without-attack");
        crowd = std::make_unique<Crowd>(server->port());
    }

    // Upgraded connections, each of which gets on with `deed` right after its handshake.
    void openAll(const std::function<void(Client&)>& deed, size_t clients = scaled(kClients),
                 int receiveBuffer = 0, const std::string& headers = std::string())
    {
        size_t upgraded = 0;
        crowd->onChange = [&](Client& client) {
            if (client.role == 1 || !hasHead(client))
                return;
            EXPECT_EQ(client.text.compare(0, 13, "HTTP/1.1 101 "), 0);
            client.role = 1;
            ++upgraded;
            deed(client);
        };
        for (size_t i = 0; i < clients; ++i)
            crowd->send(crowd->open(0, receiveBuffer), handshake(headers));
        EXPECT_TRUE(crowd->run([&] { return upgraded == clients; }, kLimit));
        crowd->onChange = nullptr;
        metric("attackers", static_cast<double>(clients), "connections");
    }

    void noteMemory() { most = std::max(most, server->footprint().residentBytes); }

    void printMemoryOfEach(size_t clients)
    {
        metric("resident-memory-per-attacker",
               static_cast<double>(most - std::min(most, before.residentBytes)) /
                   static_cast<double>(clients) / kKib,
               "KiB");
    }

    // Drives the crowd until the condition holds, with a good client beside it.
    void runBesideGoodOne(const std::function<bool()>& until, milliseconds limit = kLimit)
    {
        Meanwhile good(server->port(), Meanwhile::Messages);
        crowd->run(until, limit);
        const Served& served = good.stop();
        served.print("echoed-beside-attack");
        EXPECT_EQ(served.failures, 0u);
    }

    bool haveAllEnded() const
    {
        return crowd->count(Client::Open) + crowd->count(Client::Connecting) == 0;
    }

    // Each attacker has been sent a close frame with this code, and its connection has ended.
    void expectAllClosedWith(int code)
    {
        EXPECT_TRUE(haveAllEnded()) << crowd->count(Client::Open) << " are open";
        size_t others = 0;
        for (const Client& each : crowd->clients())
            others += closeCodeOf(each) != code;
        EXPECT_EQ(others, 0u) << "not closed with " << code;
    }

    void printEndTimes(const std::string& name)
    {
        Distribution times;
        for (const Client& each : crowd->clients())
            times.add(std::chrono::duration<double, std::milli>(each.ended - each.opened).count());
        times.print(name);
    }

    void expectAllIsOver()
    {
        crowd.reset();
        EXPECT_TRUE(waitUntil([this] { return server->metrics().at("connections") == 0; }));
        metric("resident-memory-after-all-have-closed",
               static_cast<double>(server->footprint().residentBytes) / kKib, "KiB");
        server->expectAsBefore(before, kToleratedBytes);
        EXPECT_EQ(echo(server->port(), 3).failures, 0u);
        server->stop(kLimit);
    }

    std::unique_ptr<ServerProcess> server;
    std::unique_ptr<Crowd> crowd;
    Footprint before;
    size_t most = 0;
};

// Each byte counts as a sign of life: the number of connections is the limit.
TEST_F(WebSocketAbuse, FramesByteByByteHoldLittleMemory)
{
    start();
    const std::string frame = maskedFrame(integration::kLastText, std::string(1000, 's'));
    openAll([&](Client& client) { crowd->send(client, frame.substr(0, 8)); });
    noteMemory();
    printMemoryOfEach(scaled(kClients));
    size_t at = 8;
    constexpr size_t kSteps = 40;
    auto next = Clock::now();
    runBesideGoodOne([&] {
        if (Clock::now() < next)
            return false;
        next += milliseconds(100);
        for (Client& each : crowd->clients())
            crowd->send(each, frame.substr(at, 1));
        return ++at == 8 + kSteps;
    });
    EXPECT_EQ(crowd->count(Client::Open), scaled(kClients));
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, HalfClosedClientsAreEndedAtOnce)
{
    start();
    openAll([&](Client& client) {
        client.opened = Clock::now();
        crowd->finishSending(client);
    });
    runBesideGoodOne([&] { return haveAllEnded(); });
    EXPECT_TRUE(haveAllEnded());
    printEndTimes("ended-after-half-close");
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, HalfClosedClientsAtASteadyRateDelayNobody)
{
    start();
    constexpr size_t kAtOnce = 8;
    crowd->onChange = [&](Client& client) {
        if (client.role == 0 && hasHead(client)) {
            client.role = 1;
            crowd->finishSending(client);
        }
    };
    size_t opened = 0;
    const milliseconds time(4000);
    const auto start = Clock::now();
    runBesideGoodOne(
        [&] {
            while (crowd->count(Client::Open) + crowd->count(Client::Connecting) < kAtOnce) {
                crowd->send(crowd->open(), handshake());
                ++opened;
            }
            return false;
        },
        time);
    metric("attackers", static_cast<double>(opened) / millisecondsSince(start) * 1000,
           "connections/s");
    EXPECT_GT(opened, kAtOnce);
    crowd->onChange = nullptr;
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, ResetsInEveryStateLeaveNothing)
{
    start();
    const std::string message = maskedFrame(integration::kLastText, std::string(1000, 'm'));
    const std::vector<std::string> states = {
        "",                                                 // after the handshake
        message.substr(0, 1),                               // inside a header
        message.substr(0, 500),                             // inside a payload
        message,                                            // with an echo to be sent
        maskedFrame(integration::kLastText, "flood"),       // while a large one is sent
        maskedFrame(kFirstText, "first"),                   // between fragments
        maskedFrame(kPing, "ping"),                         // with a pong to be sent
        maskedFrame(integration::kCloseFrame, "\x03\xe8"),  // inside the close handshake
        "\x81\x05hello",                                    // after a violation
    };
    openAll([&](Client& client) {
        crowd->send(client, states[client.number % states.size()]);
        crowd->end(client, Crowd::End::Reset);
    });
    metric("states", static_cast<double>(states.size()), "states");
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, MissingMasksAreAViolation)
{
    start();
    openAll([&](Client& client) {
        client.opened = Clock::now();
        crowd->send(client, "\x81\x05hello");
    });
    runBesideGoodOne([&] { return haveAllEnded(); });
    expectAllClosedWith(1002);
    printEndTimes("ended-after-violation");
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, AnnouncedLengthsAreRefusedBeforeTheirBytes)
{
    start();
    const struct
    {
        const char* name;
        std::string lengthAndMask;
        int code;
    } rows[] = {
        {"1 TiB", std::string("\x00\x00\x01\x00\x00\x00\x00\x00\x01\x02\x03\x04", 12), 1009},
        {"2^63 - 1", "\x7f\xff\xff\xff\xff\xff\xff\xff\x01\x02\x03\x04", 1009},
        {"2^64 - 14", "\xff\xff\xff\xff\xff\xff\xff\xf2\x01\x02\x03\x04", 1002},
        {"limit + 1", std::string("\x00\x00\x00\x00\x00\x10\x00\x01\x01\x02\x03\x04", 12), 1009},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        openAll([&](Client& client) {
            client.opened = Clock::now();
            crowd->send(client, "\x82\xff" + row.lengthAndMask);
        });
        runBesideGoodOne([&] { return haveAllEnded(); });
        expectAllClosedWith(row.code);
        noteMemory();
        crowd = std::make_unique<Crowd>(server->port());
    }
    printMemoryOfEach(scaled(kClients));
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, AnEndlessMessageOfTinyFragmentsEndsAtTheLimit)
{
    start();
    constexpr size_t kFragmentsAtOnce = 1000;
    std::string piece;
    for (size_t i = 0; i < kFragmentsAtOnce; ++i)
        piece += maskedFrame(kMiddle, "x");
    size_t sent = 0;
    openAll([&](Client& client) { crowd->send(client, maskedFrame(kFirstText, "x")); }, 1);
    Client& client = crowd->clients().front();
    const auto start = Clock::now();
    const auto sendMore = [&](Client& each) {
        while (each.state == Client::Open && each.pending.empty()) {
            crowd->send(each, piece);
            sent += kFragmentsAtOnce;
        }
    };
    crowd->onChange = sendMore;
    sendMore(client);
    runBesideGoodOne([&] { return closeCodeOf(client) != 0 || haveAllEnded(); });
    metric("fragments", static_cast<double>(sent), "frames");
    metric("rate", static_cast<double>(sent) / millisecondsSince(start) * 1000, "frames/s");
    EXPECT_EQ(closeCodeOf(client), 1009);
    crowd->onChange = nullptr;
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, ClientsThatDoNotReadHoldTheBudgetAndOneMessageEachUntilTheyAreEnded)
{
    constexpr size_t kFlooded = 100;
    constexpr size_t kFloods = 8;
    constexpr size_t kFloodBytes = 1u << 20;
    constexpr size_t kBudgetBytes = 32u << 20;
    start({"unsent=2000", "budget=" + std::to_string(kBudgetBytes)});
    std::string floods;
    for (size_t i = 0; i < kFloods; ++i)
        floods += maskedFrame(integration::kLastText, "flood");
    const size_t clients = scaled(kFlooded);
    openAll(
        [&](Client& client) {
            client.receiveUpTo = client.received;
            crowd->send(client, floods);
        },
        clients, 8192);
    const auto start = Clock::now();
    auto next = start;
    Distribution closed;
    runBesideGoodOne([&] {
        if (Clock::now() < next)
            return false;
        next += milliseconds(50);
        noteMemory();
        const size_t left = server->metrics().at("connections");
        while (closed.values.size() + left < clients + 1)
            closed.add(millisecondsSince(start));
        return left <= 1;
    });
    closed.print("ended-after-attack-began");
    metric("memory-budget", static_cast<double>(kBudgetBytes) / kMib, "MiB");
    metric("resident-memory-of-all",
           static_cast<double>(most - std::min(most, before.residentBytes)) / kMib, "MiB");
    EXPECT_GE(closed.values.size(), clients);
    if (!kSanitized) {
        EXPECT_LE(most,
                  before.residentBytes + kBudgetBytes + clients * kFloodBytes + kToleratedBytes);
    }
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, APingFloodThatIsNotReadIsPausedAndEnded)
{
    constexpr size_t kFlooding = 50;
    start({"unsent=2000"});
    std::string piece;
    for (size_t i = 0; i < 500; ++i)
        piece += maskedFrame(kPing, std::string(125, 'p'));
    const size_t clients = scaled(kFlooding);
    openAll([&](Client& client) { client.receiveUpTo = client.received; }, clients, 8192);
    const auto sendMore = [&](Client& each) {
        while (each.state == Client::Open && each.pending.empty())
            crowd->send(each, piece);
    };
    crowd->onChange = sendMore;
    for (Client& each : crowd->clients())
        sendMore(each);
    const auto start = Clock::now();
    auto next = start;
    runBesideGoodOne([&] {
        if (Clock::now() < next)
            return false;
        next += milliseconds(100);
        noteMemory();
        return server->metrics().at("connections") <= 1;
    });
    metric("all-ended-after", millisecondsSince(start), "ms");
    printMemoryOfEach(clients);
    EXPECT_LE(server->metrics().at("connections"), 1u);
    crowd->onChange = nullptr;
    expectAllIsOver();
}

TEST_F(WebSocketAbuse, CompressionBombsEndAtTheLimitOfAMessage)
{
    constexpr size_t kBombBytes = 64u << 20;
    start();
    const std::string payload = bomb(kBombBytes);
    const std::string frame = maskedFrame(0xc1, payload);
    metric("bomb", static_cast<double>(payload.size()) / kKib, "KiB");
    metric("bomb-inflated", static_cast<double>(kBombBytes) / kMib, "MiB");
    openAll(
        [&](Client& client) {
            client.opened = Clock::now();
            crowd->send(client, frame);
        },
        scaled(kClients), 0, "Sec-WebSocket-Extensions: permessage-deflate\r\n");
    auto next = Clock::now();
    runBesideGoodOne([&] {
        if (Clock::now() >= next) {
            next += milliseconds(100);
            noteMemory();
        }
        return haveAllEnded();
    });
    expectAllClosedWith(1009);
    printEndTimes("ended-after-bomb");
    printMemoryOfEach(scaled(kClients));
    if (!kSanitized) {
        EXPECT_LE(most, before.residentBytes + kBombBytes);
    }
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
    runBesideGoodOne([] { return false; }, milliseconds(2000));
    metric("ended-by-the-server", static_cast<double>(crowd->count(Client::Ended)), "connections");
    metric("still-connected", static_cast<double>(crowd->count(Client::Open)), "connections");
    EXPECT_GT(crowd->count(Client::Ended), 0u);
    noteMemory();
    printMemoryOfEach(scaled(kClients));
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
    size_t sent = 0;
    openAll([](Client&) {}, 1);
    Client& client = crowd->clients().front();
    const uint64_t headBytes = client.received;
    const auto sendMore = [&](Client& each) {
        while (sent < frames && each.pending.empty()) {
            sent += kFramesAtOnce;
            crowd->send(each, piece);
        }
    };
    crowd->onChange = sendMore;
    const auto start = Clock::now();
    sendMore(client);
    runBesideGoodOne([&] { return client.received >= headBytes + responseBytes; });
    metric("frames", static_cast<double>(frames), "frames");
    metric("rate", static_cast<double>(frames) / millisecondsSince(start) * 1000, "frames/s");
    EXPECT_EQ(client.received, headBytes + responseBytes);
    crowd->onChange = nullptr;
    expectAllIsOver();
}

}  // namespace
}  // namespace adversarial
