// The access log: one line for each request, whoever ends it.

#include "support/KitTestServer.h"

#include <Wendrel/kit/Middleware.h>

#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

namespace integration
{
namespace
{

using namespace qv::kit;
using ::testing::MatchesRegex;

TEST(KitAccessLog, HasALineForEveryRequest)
{
    Channel<std::string> lines;
    auto options = kitOptions(1);
    options.allowedHosts = {"x"};
    KitTestServer server(
        [](Router& router) {
            router.use("/", requestId());
            router.use("/me", basicAuthentication("me", {{"ann", "secret"}}));
            router.get("/me", [](Request& request) { request.reply("12345"); });
            router.get("/wait", [](Request& request) {
                auto later = std::make_shared<DeferredResponse>(request.defer());
                later->onGone([later] {});
            });
            router.webSocket("/ws", websocket::WebSocketOptions(), [](Request&) {
                return std::make_shared<websocket::SessionHandler>();
            });
        },
        options,
        [&](Server& made) {
            made.logAccess([&](std::string_view line) { lines.push(std::string(line)); });
        });
    const std::string begin = R"(127\.0\.0\.1 - - \[[^]]*\] )";
    const std::string end = R"( [0-9]+\.[0-9]{6} )";
    const struct
    {
        std::string bytes;
        std::string line;
    } rows[] = {
        {getRequest("/me?a=%22b", "Authorization: Basic YW5uOnNlY3JldA==\r\nUser-Agent: a\"b\\\r\n"
                                  "Referer: c d\r\n"),
         R"(127\.0\.0\.1 - ann \[[^]]*\] "GET /me\?a=%22b HTTP/1\.1" 200 5 "c d" "a\\"b\\\\")" +
             end + R"("GET /me" [0-9a-f]{32} -)"},
        {getRequest("/me"),
         begin + R"("GET /me HTTP/1\.1" 401 [0-9]+ "-" "-")" + end + R"("GET /me" [0-9a-f]{32} -)"},
        {getRequest("/none"),
         begin + R"("GET /none HTTP/1\.1" 404 [0-9]+ "-" "-")" + end + R"("-" [0-9a-f]{32} -)"},
        {getRequest("/ws", "Connection: Upgrade\r\nUpgrade: websocket\r\n"
                           "Sec-WebSocket-Version: 13\r\n"
                           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"),
         begin + R"("GET /ws HTTP/1\.1" 101 0 "-" "-")" + end + R"("GET /ws" [0-9a-f]{32} -)"},
        {"GET /y HTTP/1.1\r\nHost: y\r\n\r\n",
         begin + R"("GET /y HTTP/1\.1" 421 0 "-" "-")" + end + R"("-" - -)"},
        // The daemon has refused it by itself.
        {"GET /z HTTP/1.1\r\n\r\n",
         begin + R"("- /z HTTP/1\.1" - 0 "-" "-")" + end + R"("-" - WriteError)"},
        {getRequest("/wait"), begin + R"("GET /wait HTTP/1\.1" - 0 "-" "-")" + end +
                                  R"("GET /wait" [0-9a-f]{32} ClientAbort)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.bytes);
        {
            RawClient client(server.port());
            ASSERT_TRUE(client.send(row.bytes));
            if (row.bytes.compare(0, 9, "GET /wait") != 0) {
                EXPECT_TRUE(client.receiveHead());
            } else {
                EXPECT_TRUE(waitUntil([&] { return server.server().openRequests() == 1; }));
            }
        }
        EXPECT_THAT(lines.pop().value_or(""), MatchesRegex(row.line));
    }
    EXPECT_TRUE(server.stop(std::chrono::milliseconds(0)));
    EXPECT_FALSE(lines.pop(std::chrono::milliseconds(0)));
    EXPECT_EQ(server.server().lostAccessLines(), 0u);
}

// Lines that wait are written before the stop returns.
TEST(KitAccessLog, IsCompleteWhenTheServerHasStopped)
{
    int count = 0;
    KitTestServer server(
        [](Router& router) {
            router.get("/", [](Request& request) { request.reply("1"); }).nonBlocking();
        },
        kitOptions(1),
        [&](Server& made) { made.logAccess([&](std::string_view) { ++count; }, AccessLog::Json); });
    RawClient client(server.port());
    for (int i = 0; i < 500; ++i) {
        ASSERT_TRUE(client.send(getRequest("/")));
        ASSERT_TRUE(client.receive());
    }
    server.server().logAccess("/dev/null");
    EXPECT_TRUE(logged("server: the access log is not changed: the server has been started"));
    EXPECT_TRUE(server.stop());
    EXPECT_EQ(count, 500);
}

TEST(KitAccessLog, ThatCannotBeOpenedKeepsTheServerFromStarting)
{
    Server server(kitOptions(1));
    server.logAccess("/nowhere/access.log");
    EXPECT_FALSE(server.start());
    EXPECT_EQ(server.failureReason(),
              "cannot write the access log /nowhere/access.log: No such file or directory");
    server.logAccess("/dev/null");
    EXPECT_TRUE(server.start());
}

}  // namespace
}  // namespace integration
