// Many requests on one connection, and many connections at once.

#include "support/CurlClient.h"
#include "support/Pattern.h"
#include "support/RawClient.h"
#include "support/TestServer.h"

#include <gmock/gmock.h>

#include <string>
#include <thread>
#include <vector>

namespace
{

using integration::CurlClient;
using integration::CurlResult;
using integration::getRequest;
using integration::RawClient;
using integration::TestRequest;
using integration::TestServer;

void echoTarget(TestRequest& request)
{
    const std::string body = request.readBody();
    request.respond(200, request.getOriginalFullUrl() + " " + body);
}

TEST(Connection, Serves1000RequestsInTurn)
{
    constexpr int kRequests = 1000;
    TestServer server(echoTarget);
    CurlClient client;
    for (int i = 0; i < kRequests; ++i) {
        const std::string target = "/" + std::to_string(i);
        const CurlResult result = client.get(server.url(target));
        ASSERT_EQ(result.code, CURLE_OK) << "request " << i;
        ASSERT_EQ(result.body, target + " ");
        ASSERT_EQ(result.newConnections, i == 0 ? 1 : 0) << "request " << i;
    }
    EXPECT_TRUE(server.waitUntilNoneOpen());
    EXPECT_EQ(server.requestsCreated(), uint64_t{kRequests});
    EXPECT_EQ(server.requestsCompleted(), uint64_t{kRequests});
    EXPECT_EQ(server.requestsDeleted(), uint64_t{kRequests});
}

TEST(Connection, RespondsToPipelinedRequestsInOrder)
{
    constexpr int kRequests = 20;
    TestServer server(echoTarget);
    std::string bytes;
    for (int i = 0; i < kRequests; ++i) {
        const std::string number = std::to_string(i);
        if (i % 2 == 0)
            bytes += getRequest("/get" + number);
        else
            bytes += "POST /post" + number +
                     " HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(number.size()) +
                     "\r\n\r\n" + number;
    }
    RawClient client(server.port());
    ASSERT_TRUE(client.send(bytes));
    for (int i = 0; i < kRequests; ++i) {
        const std::string number = std::to_string(i);
        const auto response = client.receive();
        ASSERT_TRUE(response) << "request " << i;
        EXPECT_EQ(response->body,
                  i % 2 == 0 ? "/get" + number + " " : "/post" + number + " " + number);
    }
    EXPECT_EQ(server.requestsCreated(), uint64_t{kRequests});
}

TEST(Connection, EndsWhenTheClientAsksForIt)
{
    TestServer server(echoTarget);
    for (const std::string& request :
         {getRequest("/", "Connection: close\r\n"), std::string("GET / HTTP/1.0\r\n\r\n")}) {
        SCOPED_TRACE(request);
        RawClient client(server.port());
        ASSERT_TRUE(client.send(request));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->body, "/ ");
        EXPECT_TRUE(client.isClosedByServer());
    }
}

TEST(Connection, IsServedBesideManyOthers)
{
    constexpr int kClients = 16;
    constexpr int kRequests = 25;
    TestServer server(echoTarget);
    std::vector<std::thread> clients;
    for (int number = 0; number < kClients; ++number) {
        clients.emplace_back([&server, number] {
            CurlClient client;
            for (int i = 0; i < kRequests; ++i) {
                const std::string target = "/" + std::to_string(number) + "/" + std::to_string(i);
                const CurlResult result = client.get(server.url(target));
                EXPECT_EQ(result.code, CURLE_OK) << curl_easy_strerror(result.code);
                EXPECT_EQ(result.body, target + " ");
            }
        });
    }
    for (std::thread& client : clients)
        client.join();
    EXPECT_TRUE(server.waitUntilNoneOpen());
    EXPECT_EQ(server.requestsDeleted(), uint64_t{kClients * kRequests});
}

// Required: upgrades are recognised by exactly this spelling; anything else is a request.
TEST(Connection, WithAnUpgradeToSomethingElseIsServedTheOrdinaryWay)
{
    integration::TestServerOptions options;
    options.allowWebSocket = true;
    TestServer server(echoTarget, options);
    for (const char* lines :
         {"Upgrade: websocket\r\nConnection: Upgrade\r\n",
          "Upgrade: WebSocket \r\nConnection: Upgrade\r\n",
          "Upgrade: WebSocket\r\nConnection: upgrade\r\n", "Upgrade: WebSocket\r\n",
          "Connection: Upgrade\r\n", "Upgrade: h2c\r\nConnection: Upgrade\r\n"}) {
        SCOPED_TRACE(lines);
        RawClient client(server.port());
        ASSERT_TRUE(client.send(getRequest("/u", lines)));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 200);
        EXPECT_EQ(response->body, "/u ");
    }
}

}  // namespace
