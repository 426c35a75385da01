// Connections that come and go.

#include "Crowd.h"
#include "GoodClients.h"
#include "Metrics.h"
#include "ServerProcess.h"

#include <gtest/gtest.h>

#include <string>

namespace adversarial
{
namespace
{

constexpr size_t kConnections = 50000;
constexpr size_t kAtOnce = 64;
constexpr size_t kToleratedBytes = 8u << 20;

// By the client's role.
enum Way : int { AskAndClose, AskAndReset, OnlyClose, HalfAndReset, WayCount };

TEST(Churn, FiftyThousandConnectionsLeaveNothing)
{
    const size_t connections = scaled(kConnections);
    const std::string request = integration::getRequest("/small");
    const std::string half = request.substr(0, request.size() / 2);

    ServerProcess server({"threads=2", "workers=16", "timeout=10000"});
    serve(server.port(), 200);
    const Footprint before = server.quietFootprint();
    Crowd crowd(server.port());
    size_t asked = 0;
    size_t responses = 0;
    size_t endedByServer = 0;
    crowd.onChange = [&](Client& client) {
        if (client.state == Client::Ended) {
            ++endedByServer;
            return;
        }
        const bool asks = client.role == AskAndClose || client.role == AskAndReset;
        if (client.role == OnlyClose)
            crowd.end(client, Crowd::End::Close);
        else if (client.role == HalfAndReset && client.sent == half.size())
            crowd.end(client, Crowd::End::Reset);
        else if (asks && client.text.find("\r\n\r\nsmall") != std::string::npos) {
            ++responses;
            crowd.end(client, client.role == AskAndClose ? Crowd::End::Close : Crowd::End::Reset);
        }
    };
    size_t opened = 0;
    const auto renew = [&] {
        crowd.forgetEnded();
        while (opened < connections &&
               crowd.count(Client::Connecting) + crowd.count(Client::Open) < kAtOnce) {
            const int way = static_cast<int>(opened++ % WayCount);
            Client& client = crowd.open(way);
            if (way == AskAndClose || way == AskAndReset) {
                ++asked;
                crowd.send(client, request);
            } else if (way == HalfAndReset) {
                crowd.send(client, half);
            }
        }
        return opened == connections && crowd.count(Client::Open) == 0 &&
               crowd.count(Client::Connecting) == 0;
    };
    const auto start = Clock::now();
    EXPECT_TRUE(crowd.run(renew, kLimit));
    const double time = millisecondsSince(start);
    metric("connections", static_cast<double>(opened), "connections");
    metric("rate", static_cast<double>(opened) / time * 1000, "connections/s");
    metric("responses", static_cast<double>(responses), "requests");
    EXPECT_EQ(responses, asked);
    EXPECT_EQ(endedByServer, 0u);
    EXPECT_EQ(opened, connections);

    server.expectAsBefore(before, kToleratedBytes);
    EXPECT_TRUE(isServed(server.port()));
    server.stop(kLimit);
}

}  // namespace
}  // namespace adversarial
