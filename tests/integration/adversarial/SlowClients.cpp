// Slow clients: in the head, in the body, in reading the response.

#include "Crowd.h"
#include "GoodClients.h"
#include "Metrics.h"
#include "ServerProcess.h"

#include "../support/Waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace adversarial
{
namespace
{

using integration::waitUntil;

constexpr size_t kClients = 500;
constexpr milliseconds kTimeout(2000);
constexpr milliseconds kBetweenBytes(700);
constexpr int kDrips = 7;  // more than two timeouts
constexpr double kKib = 1024;
constexpr size_t kToleratedBytes = 8u << 20;
constexpr size_t kGoodRequests = 300;

// Pages of kernel memory in use for TCP by the whole machine.
size_t kernelBytesForTcp()
{
    std::ifstream file("/proc/net/sockstat");
    std::string line;
    while (std::getline(file, line)) {
        const size_t at = line.find(" mem ");
        if (line.compare(0, 4, "TCP:") == 0 && at != std::string::npos)
            return std::stoull(line.substr(at + 5)) * 4096;
    }
    return 0;
}

class SlowClients : public ::testing::Test
{
protected:
    static std::vector<std::string> argumentsFor(size_t workers)
    {
        return {"threads=2", "workers=" + std::to_string(workers),
                "timeout=" + std::to_string(kTimeout.count())};
    }

    void start(size_t workers)
    {
        server = std::make_unique<ServerProcess>(argumentsFor(workers));
        // All that is made with the first requests is there.
        serve(server->port(), scaled(kGoodRequests));
        before = server->quietFootprint();
        serve(server->port(), scaled(kGoodRequests)).print("served-without-attack");
        crowd = std::make_unique<Crowd>(server->port());
    }

    // Serves the crowd until the condition holds, with a byte of each client in every interval.
    bool dripUntil(const std::function<bool()>& condition)
    {
        return crowd->run(
            [&] {
                dripWhenDue();
                return condition();
            },
            kLimit);
    }

    // Notes the longest pause in case this machine stands still longer than the server waits.
    void dripWhenDue()
    {
        if (millisecondsSince(dripped) < static_cast<double>(kBetweenBytes.count()))
            return;
        const auto previous = std::exchange(dripped, Clock::now());
        for (Client& each : crowd->clients())
            crowd->send(each, "x");
        longestPause = std::max(longestPause, millisecondsSince(previous));
        ++drips;
    }

    // Waits until the server has accepted all, of which none times out before the last has come.
    void openAllDripping(const std::string& firstBytes)
    {
        dripped = Clock::now();
        for (size_t i = 0; i < scaled(kClients); ++i)
            crowd->send(crowd->open(), firstBytes);
        ASSERT_TRUE(dripUntil([&] {
            return crowd->count(Client::Connecting) == 0 &&
                   server->descriptors() >= before.descriptors + crowd->count(Client::Open);
        }));
    }

    // One client for each rate at which it will read.
    void openAllWithRates(size_t rates, int receiveBuffer)
    {
        for (size_t i = 0; i < rates; ++i) {
            Client& client = crowd->open(0, receiveBuffer);
            client.receiveUpTo = 0;
            crowd->send(client, "GET /known/1073741824 HTTP/1.1\r\nHost: x\r\n\r\n");
        }
        ASSERT_TRUE(
            waitUntil([&] { return server->descriptors() >= before.descriptors + rates; }) ||
            crowd->run([&] { return server->metrics().at("open") == rates; }, kLimit));
    }

    void printCostOfEach(const Footprint& attacked)
    {
        const double clients = static_cast<double>(scaled(kClients));
        const double more =
            static_cast<double>(attacked.residentBytes) - static_cast<double>(before.residentBytes);
        memoryOfEach = more / clients;
        metric("attackers", clients, "connections");
        metric("resident-memory-per-attacker", memoryOfEach / kKib, "KiB");
        metric("descriptors-per-attacker",
               static_cast<double>(attacked.descriptors - before.descriptors) / clients, "count");
    }

    // The maximum cost of an attack, and when the server closed each of its connections.
    struct Attack
    {
        Footprint most;
        size_t kernelBytes = 0;
        Distribution closed;
    };

    // Clients that do not read do not see the end: it is looked for in the server's descriptors.
    Attack watchUntilClosed()
    {
        Attack attack;
        const size_t clients = scaled(kClients);
        const auto start = Clock::now();
        size_t left = clients;
        while ((attack.closed.values.size() < clients || left > 1) &&
               millisecondsSince(start) < static_cast<double>(kLimit.count())) {
            for (Client& each : crowd->clients()) {
                each.receiveUpTo = each.received;
                crowd->update(each);
            }
            crowd->runFor(milliseconds(100));
            const Footprint now = server->footprint();
            attack.kernelBytes = std::max(attack.kernelBytes, kernelBytesForTcp());
            if (now.residentBytes > attack.most.residentBytes)
                attack.most = now;
            left = now.descriptors - std::min(now.descriptors, before.descriptors);
            while (attack.closed.values.size() + left < clients)
                attack.closed.add(millisecondsSince(start));
        }
        return attack;
    }

    // With good clients beside it.
    void dripAll()
    {
        Meanwhile good(server->port(), Meanwhile::Requests);
        const int last = drips + kDrips;
        EXPECT_TRUE(dripUntil([&] { return drips >= last; }));
        const Served& served = good.stop();
        served.print("served-beside-attack");
        maxResponseMs = served.times.most();
        EXPECT_EQ(served.failures, 0u);
        EXPECT_GT(served.times.values.size(), 0u);
        metric("attack-lasted", kDrips * static_cast<double>(kBetweenBytes.count()), "ms");
        metric("connection-timeout", static_cast<double>(kTimeout.count()), "ms");
        metric("attackers-still-connected", static_cast<double>(crowd->count(Client::Open)),
               "connections");
    }

    // False when this machine has paused so long that a timeout may have passed meanwhile.
    bool keptPace() const
    {
        constexpr double kToleratedMs = 500;
        return longestPause + maxResponseMs + kToleratedMs < static_cast<double>(kTimeout.count());
    }

    // A byte now and then keeps a connection open: the timeout counts from the last byte.
    void expectAllAreStillThere()
    {
        if (keptPace()) {
            EXPECT_EQ(crowd->count(Client::Open), scaled(kClients));
        }
    }

    void expectClosedInTime()
    {
        EXPECT_TRUE(crowd->run([this] { return crowd->count(Client::Open) == 0; }, kLimit));
        Distribution times;
        for (const Client& each : crowd->clients())
            times.add(
                std::chrono::duration<double, std::milli>(each.ended - each.lastSent).count());
        metric("closed-after-last-byte.min", times.least(), "ms");
        times.print("closed-after-last-byte");
        // The daemon counts in steps of the system's coarse clock.
        constexpr double kCoarseMs = 100;
        if (keptPace()) {
            EXPECT_GE(times.least(), static_cast<double>(kTimeout.count()) - kCoarseMs);
        }
    }

    void expectAllIsOver()
    {
        server->expectAsBefore(before, kToleratedBytes);
        EXPECT_TRUE(isServed(server->port()));
        server->stop(kLimit);
    }

    std::unique_ptr<ServerProcess> server;
    std::unique_ptr<Crowd> crowd;
    Footprint before;
    double memoryOfEach = 0;
    double longestPause = 0;
    double maxResponseMs = 0;
    Clock::time_point dripped;
    int drips = 0;
};

TEST_F(SlowClients, AHeadByteByByteKeepsItsPlaceAndLittleElse)
{
    start(16);
    openAllDripping("GET /small HTTP/1.1\r\nHost: x\r\nX-Slow: ");
    printCostOfEach(server->footprint());
    dripAll();
    expectAllAreStillThere();
    expectClosedInTime();
    if (!kSanitized) {
        EXPECT_LT(memoryOfEach, 300 * kKib);
    }
    expectAllIsOver();
}

// Each occupies a worker of the kit from its first byte on: there must be more workers than that.
TEST_F(SlowClients, ABodyByteByByteKeepsAWorker)
{
    start(scaled(kClients) + 16);
    openAllDripping("PUT /upload HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n12345");
    EXPECT_TRUE(
        dripUntil([this] { return server->metrics().at("open") >= crowd->count(Client::Open); }));
    printCostOfEach(server->footprint());
    dripAll();
    expectAllAreStillThere();
    expectClosedInTime();
    if (!kSanitized) {
        EXPECT_LT(memoryOfEach, 600 * kKib);
    }
    expectAllIsOver();
}

// The response is larger than the socket buffers of a client that does not read.
TEST_F(SlowClients, AStreamThatIsNotReadIsHeldBackAndClosed)
{
    constexpr int kReceiveBuffer = 8192;
    start(scaled(kClients) + 16);
    const size_t kernelBefore = kernelBytesForTcp();
    for (size_t i = 0; i < scaled(kClients); ++i)
        crowd->send(crowd->open(0, kReceiveBuffer),
                    "GET /known/67108864 HTTP/1.1\r\nHost: x\r\n\r\n");
    // They read until the server has accepted all: none times out before the last has come.
    ASSERT_TRUE(crowd->run(
        [&] {
            return crowd->count(Client::Connecting) == 0 &&
                   server->descriptors() >= before.descriptors + crowd->count(Client::Open);
        },
        kLimit));
    for (Client& each : crowd->clients())
        each.receiveUpTo = each.received;
    Meanwhile good(server->port(), Meanwhile::Requests);
    const Attack attack = watchUntilClosed();
    const Served& served = good.stop();
    served.print("served-beside-attack");
    EXPECT_EQ(served.failures, 0u);
    // The timeout begins when the socket accepts no more of the response.
    metric("closed-after-attack-began.min", attack.closed.least(), "ms");
    attack.closed.print("closed-after-attack-began");
    EXPECT_GE(attack.closed.values.size(), scaled(kClients));
    printCostOfEach(attack.most);
    metric("kernel-memory-per-attacker",
           static_cast<double>(attack.kernelBytes - std::min(attack.kernelBytes, kernelBefore)) /
               static_cast<double>(scaled(kClients)) / kKib,
           "KiB");
    if (!kSanitized) {
        // 256 KiB of the daemon, 256 KiB ready and the chunk being written, a worker's stack.
        EXPECT_LT(memoryOfEach, 1024 * kKib);
    }
    crowd.reset();
    expectAllIsOver();
}

// A slow reader stays when the socket accepts more of the response once per timeout.
TEST_F(SlowClients, AReaderKeepsItsPlaceAboveACertainRate)
{
    constexpr int kReceiveBuffer = 8192;
    constexpr uint64_t kRates[] = {0, 32768, 65536, 131072, 262144, 524288, 1048576, 4194304};
    constexpr int kTurns = 8;  // four timeouts
    constexpr int kPartsOfATurn = 10;
    start(16);
    openAllWithRates(std::size(kRates), kReceiveBuffer);
    for (int i = 0; i < kTurns * kPartsOfATurn; ++i) {
        for (Client& each : crowd->clients()) {
            each.receiveUpTo = kRates[each.number] * static_cast<uint64_t>(i) / kPartsOfATurn;
            crowd->update(each);
        }
        const auto start = Clock::now();
        crowd->runFor(milliseconds(1000 / kPartsOfATurn));
        longestPause = std::max(longestPause, millisecondsSince(start));
    }
    // Each that is still served has a request open.
    const uint64_t stayed = server->metrics().at("open");
    if (keptPace()) {
        EXPECT_GT(stayed, 0u);
    }
    EXPECT_LT(stayed, std::size(kRates));
    metric("lowest-rate-that-stays",
           static_cast<double>(kRates[std::size(kRates) - std::max<uint64_t>(1, stayed)]) / kKib,
           "KiB/s");
    crowd.reset();
    expectAllIsOver();
}

// A body that is complete when it is announced is copied for each client.
TEST_F(SlowClients, AResponseFromOneBufferIsHeldWholeForEachReader)
{
    constexpr size_t kResponses = 50;
    constexpr size_t kResponseBytes = 8u << 20;
    start(16);
    const uint64_t asked = server->metrics().at("requests");
    for (size_t i = 0; i < scaled(kResponses); ++i) {
        Client& client = crowd->open(0, 8192);
        client.receiveUpTo = 0;
        crowd->send(client, "GET /buffered/" + std::to_string(kResponseBytes) +
                                " HTTP/1.1\r\nHost: x\r\n\r\n");
    }
    const auto areResponding = [&] {
        return server->metrics().at("requests") >= asked + scaled(kResponses);
    };
    ASSERT_TRUE(crowd->run(areResponding, kLimit));
    size_t most = 0;
    EXPECT_TRUE(crowd->run(
        [&] {
            const Footprint now = server->footprint();
            most = std::max(most, now.residentBytes);
            return now.descriptors == before.descriptors;
        },
        kLimit));
    const double each = static_cast<double>(most - std::min(most, before.residentBytes)) /
                        static_cast<double>(scaled(kResponses));
    metric("response", static_cast<double>(kResponseBytes) / kKib, "KiB");
    metric("resident-memory-per-attacker", each / kKib, "KiB");
    if (!kSanitized) {
        // The copy for the daemon, and for a moment the two that it is made from.
        EXPECT_LT(each, 3.5 * kResponseBytes);
    }
    crowd.reset();
    // The free end of a thread's heap is not returned.
    server->expectAsBefore(before, 4 * kResponseBytes);
    server->stop(kLimit);
}

// Required is only that the daemon goes on; the kit's workers are as many as its user chose.
TEST_F(SlowClients, AsManySlowBodiesAsWorkersStopAllResponses)
{
    constexpr size_t kWorkers = 16;
    start(kWorkers);
    for (size_t i = 0; i < kWorkers; ++i)
        crowd->send(crowd->open(),
                    "PUT /upload HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\n");
    dripped = Clock::now();
    ASSERT_TRUE(dripUntil([&] {
        return crowd->count(Client::Connecting) == 0 &&
               server->metrics().at("open") >= crowd->count(Client::Open);
    }));
    const auto start = Clock::now();
    Meanwhile good(server->port(), Meanwhile::Requests);
    constexpr int kBytes = 5;
    const int last = drips + kBytes;
    EXPECT_TRUE(dripUntil([&] { return drips >= last; }));
    const size_t responses = good.responses();
    metric("attackers", kWorkers, "connections");
    metric("served-during-attack", static_cast<double>(responses), "requests");
    // A worker that a timeout has freed is seen by the end of its client.
    crowd->runFor(milliseconds(100));
    if (crowd->count(Client::Open) == kWorkers) {
        EXPECT_EQ(responses, 0u);
    }
    EXPECT_TRUE(crowd->run([&] { return good.responses() > 0; }, kLimit));
    metric("next-response-after-attack-began", millisecondsSince(start), "ms");
    good.stop();
    expectAllIsOver();
}

// Requests that wait for the application slow down all requests of the daemon's threads.
TEST_F(SlowClients, WaitingRequestsSlowDownAllOthersOfTheThread)
{
    constexpr int kGoodOnes = 2;
    for (const size_t waiting : {0u, 10u, 40u}) {
        SCOPED_TRACE(waiting);
        server = std::make_unique<ServerProcess>(
            std::vector<std::string>{"threads=1", "workers=" + std::to_string(waiting + 16)});
        crowd = std::make_unique<Crowd>(server->port());
        for (size_t i = 0; i < waiting; ++i)
            crowd->send(crowd->open(), "GET /hold HTTP/1.1\r\nHost: x\r\n\r\n");
        ASSERT_TRUE(crowd->run([&] { return server->metrics().at("holding") == waiting; }, kLimit));
        Served served;
        for (int i = 0; i < kGoodOnes; ++i) {
            // Each event gives the thread another 100 ms without a pause.
            crowd->runFor(milliseconds(300));
            serveOne(server->port(), served);
        }
        const std::string name = "served-beside-" + std::to_string(waiting) + "-waiting";
        metric(name + ".median", served.times.median(), "ms");
        metric(name + ".max", served.times.most(), "ms");
        EXPECT_EQ(served.failures, 0u);
        server->ask("release");
        crowd.reset();
        server->stop(kLimit);
    }
}

}  // namespace
}  // namespace adversarial
