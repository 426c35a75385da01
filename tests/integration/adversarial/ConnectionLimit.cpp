// More connections than the daemon has places for.

#include "Crowd.h"
#include "GoodClients.h"
#include "Metrics.h"
#include "ServerProcess.h"

#include "../support/Waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace adversarial
{
namespace
{

// Of the daemon, shared out evenly among its threads.
constexpr size_t kPlaces = 1020;
constexpr size_t kConnections = 1500;
constexpr size_t kToleratedBytes = 16u << 20;

bool isResponse(const Client& client)
{
    return client.text.find("\r\n\r\nsmall") != std::string::npos;
}

TEST(ConnectionLimit, FifteenHundredAtOnceAreAllServedAsPlacesBecomeFree)
{
    ServerProcess server({"threads=2", "workers=16"});
    serve(server.port(), 200);
    const Footprint before = server.quietFootprint();
    Crowd crowd(server.port());
    size_t responses = 0;
    std::vector<Client*> served;
    Distribution times;
    crowd.onChange = [&](Client& client) {
        if (client.role == 0 && isResponse(client)) {
            client.role = 1;
            ++responses;
            served.push_back(&client);
            times.add(millisecondsSince(client.opened));
        }
    };
    const auto start = Clock::now();
    for (size_t i = 0; i < kConnections; ++i)
        crowd.send(crowd.open(), integration::getRequest("/small"));
    EXPECT_TRUE(crowd.run([&] { return responses == kPlaces; }, kLimit));
    metric("connections", kConnections, "connections");
    metric("first-served", static_cast<double>(responses), "connections");
    metric("first-served-after", millisecondsSince(start), "ms");
    // The others are connected, in the queue of the listening socket, and receive nothing. While
    // that queue was full the system dropped connection requests; their clients repeat them after a
    // second.
    EXPECT_TRUE(crowd.run([&] { return crowd.count(Client::Open) == kConnections; }, kLimit));
    crowd.runFor(milliseconds(500));
    EXPECT_EQ(responses, kPlaces);

    // Each that leaves makes a place for one.
    const auto rest = Clock::now();
    constexpr size_t kLeaveAtOnce = 40;
    const auto leave = [&] {
        for (size_t i = 0; i < kLeaveAtOnce && !served.empty(); ++i) {
            crowd.end(*served.back(), Crowd::End::Close);
            served.pop_back();
        }
        return responses == kConnections;
    };
    EXPECT_TRUE(crowd.run(leave, kLimit));
    metric("rest-served", static_cast<double>(responses - kPlaces), "connections");
    metric("rest-served-after", millisecondsSince(rest), "ms");
    EXPECT_EQ(responses, kConnections);
    EXPECT_EQ(server.metrics().at("requests"), kConnections + 200);
    for (Client* client : served)
        crowd.end(*client, Crowd::End::Close);
    server.expectAsBefore(before, kToleratedBytes);
    server.stop(kLimit);
}

// Silence costs a client nothing. The places become free after the timeout.
TEST(ConnectionLimit, SilentClientsInAllPlacesLockTheOthersOutUntilTheTimeout)
{
    constexpr double kTimeoutMs = 3000;
    ServerProcess server({"threads=2", "workers=16", "timeout=3000"});
    const Footprint before = server.quietFootprint();
    Crowd crowd(server.port());
    for (size_t i = 0; i < kPlaces; ++i)
        crowd.open();
    ASSERT_TRUE(crowd.run([&] { return crowd.count(Client::Open) == kPlaces; }, kLimit));
    ASSERT_TRUE(
        crowd.run([&] { return server.descriptors() >= before.descriptors + kPlaces; }, kLimit));
    const Footprint full = server.footprint();
    metric("resident-memory-per-silent-connection",
           static_cast<double>(full.residentBytes - before.residentBytes) / kPlaces / 1024, "KiB");
    Meanwhile good(server.port(), Meanwhile::Requests);
    const auto start = Clock::now();
    EXPECT_TRUE(crowd.run([&] { return good.responses() > 0; }, kLimit));
    const double waited = millisecondsSince(start);
    metric("attackers", kPlaces, "connections");
    metric("connection-timeout", kTimeoutMs, "ms");
    metric("next-response-after", waited, "ms");
    const Served& served = good.stop();
    EXPECT_EQ(served.failures, 0u);
    // It was not there at once, unless this machine stood still meanwhile.
    EXPECT_GT(served.times.most(), 0);
    crowd.run([&] { return crowd.count(Client::Open) == 0; }, kLimit);
    server.expectAsBefore(before, kToleratedBytes);
    server.stop(kLimit);
}

struct StopRow
{
    const char* name;
    const char* webSocket;
};

// Without the WebSockets' flag nothing wakes a daemon's thread all of whose places are taken.
TEST(ConnectionLimit, AStopWithAllPlacesTakenEndsWithTheTimeoutAtTheLatest)
{
    constexpr double kTimeoutMs = 3000;
    constexpr StopRow kRows[] = {{"with-websockets", "websocket=1"},
                                 {"without-websockets", "websocket=0"}};
    for (const StopRow& row : kRows) {
        SCOPED_TRACE(row.name);
        ServerProcess server({"threads=2", "workers=16", "timeout=3000", row.webSocket});
        const size_t before = server.descriptors();
        Crowd crowd(server.port());
        const auto isFull = [&] {
            // On a slow machine the first have been closed before the last have come.
            while (crowd.count(Client::Open) + crowd.count(Client::Connecting) < kConnections)
                crowd.open();
            return server.descriptors() >= before + kPlaces;
        };
        ASSERT_TRUE(crowd.run(isFull, kLimit));
        const Report stopped = server.stop(milliseconds(0));
        metric(std::string(row.name) + ".stop", static_cast<double>(stopped.at("ms")), "ms");
        constexpr double kToleratedMs = 20000;
        EXPECT_LT(static_cast<double>(stopped.at("ms")), kTimeoutMs + kToleratedMs);
    }
    metric("connection-timeout", kTimeoutMs, "ms");
}

}  // namespace
}  // namespace adversarial
