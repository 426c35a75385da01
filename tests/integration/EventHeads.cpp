// Heads that the memory of a connection does not hold: each gets a response or the end of its
// connection at once. Lines of the log on a Unix socket.

#include "support/EventRun.h"
#include "support/Pattern.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <support/TemporaryDirectory.h>

#include <gmock/gmock.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::onOneThread;
using integration::pattern;
using integration::RawClient;
using integration::RawResponse;
using integration::waitUntil;
using qv::http::ServerOptions;
using qv::tests::TemporaryDirectory;
using testing::AnyOf;
using testing::HasSubstr;

constexpr size_t kArguments = 1000;  // more than 32 KiB hold

std::string repeated(const std::string& text, size_t count)
{
    std::string all;
    for (size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

std::string withArguments(size_t count)
{
    return getRequest("/?" + repeated("a&", count - 1) + "a");
}

void respond(EventRequest& request)
{
    request.respondHere(200, std::to_string(request.getQueryParameters().size()));
}

// With the head timeout of 10 minutes of these options a connection that is forgotten is open at
// the limit of the wait.
testing::AssertionResult isEnded(RawClient& client)
{
    if (client.isClosedByServer())
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "still open";
}

TEST(LargeHead, OfAnyKindAndSizeGetsAResponseOrItsEnd)
{
    ServerOptions options = onOneThread();
    options.maxConnections = 1;
    for (const size_t memory : {size_t{4096}, size_t{32768}, size_t{65536}}) {
        options.connectionMemoryBytes = memory;
        EventRun run(&respond, options);
        for (const size_t count : {1,   10,  30,  50,  70,  100,  200,  400,  450,  460,
                                   470, 480, 490, 500, 600, 1000, 2000, 4000, 8000, 16000}) {
            const std::string number = std::to_string(count);
            const struct
            {
                std::string name;
                std::string head;
            } rows[] = {
                {"arguments", withArguments(count)},
                {"arguments and the separator", getRequest("/?" + repeated("a&", count))},
                {"arguments with values", getRequest("/?" + repeated("ab=cd&", count))},
                {"separators", getRequest("/?" + std::string(count, '&'))},
                {"headers", getRequest("/", repeated("a: b\r\n", count))},
                {"cookies", getRequest("/", "Cookie: " + repeated("a=b; ", count) + "\r\n")},
                {"a long header", getRequest("/", "A: " + std::string(count, 'b') + "\r\n")},
                {"a long target", getRequest("/" + std::string(count, 'b'))},
            };
            for (const auto& row : rows) {
                SCOPED_TRACE(row.name + ", " + number + ", memory " + std::to_string(memory));
                std::optional<RawResponse> response;
                // The place of the one before is free.
                const auto tryOnce = [&] {
                    RawClient client(run.port());
                    client.send(row.head);
                    response = client.receive();
                    EXPECT_TRUE(response || isEnded(client));
                    return !response || response->status != 503;
                };
                EXPECT_TRUE(waitUntil(tryOnce));
                if (response) {
                    EXPECT_THAT(response->status, AnyOf(200, 400, 413, 414, 431));
                }
            }
        }
    }
}

TEST(LargeHead, WithTooManyArgumentsIs431)
{
    ServerOptions options = onOneThread();
    options.maxConnections = 1;
    EventRun run(&respond, options);
    const auto expectRefused = [](RawClient& client) {
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->statusLine, "HTTP/1.1 431 Request Header Fields Too Large");
        EXPECT_EQ(response->value("Connection"), "close");
        EXPECT_EQ(response->body, "");
        EXPECT_TRUE(isEnded(client));
    };
    RawClient refused(run.port());
    ASSERT_TRUE(refused.send(withArguments(kArguments)));
    expectRefused(refused);
    // The place becomes free although the client has not closed its side.
    std::unique_ptr<RawClient> kept;
    EXPECT_TRUE(waitUntil([&] {
        kept = std::make_unique<RawClient>(run.port());
        kept->send(getRequest("/?a&b"));
        const auto response = kept->receive();
        return response && response->body == "2";
    }));
    SCOPED_TRACE("a later head, of which only the first line has come");
    ASSERT_TRUE(kept->send("GET /?" + repeated("a&", kArguments) + " HTTP/1.1\r\nHost: "));
    expectRefused(*kept);
    EXPECT_EQ(run.requestCount(), 1u);
}

// The daemon does not say which connection lacks memory: here it is not that of the last request
// line.
TEST(LargeHead, DoesNotEndTheHeadOfAnotherConnection)
{
    EventRun run(&respond, onOneThread());
    RawClient large(run.port());
    ASSERT_TRUE(large.send("GET / HTTP/1.1\r\n"));
    ASSERT_TRUE(large.waitUntilTaken());
    RawClient waiting(run.port());
    ASSERT_TRUE(waiting.send("GET /?a&b HTTP/1.1\r\n"));
    ASSERT_TRUE(waiting.waitUntilTaken());
    ASSERT_TRUE(large.send(repeated("a: b\r\n", kArguments) + "\r\n"));
    const auto refusal = large.receive();
    EXPECT_TRUE(refusal && refusal->status == 431);
    ASSERT_TRUE(waiting.send("Host: x\r\n\r\n"));
    const auto response = waiting.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 200);
    EXPECT_EQ(response->body, "2");
}

// Responses of every kind: the daemon sets options of TCP before and after each.
TEST(UnixSocketLog, IsQuiet)
{
    const TemporaryDirectory directory;
    const std::string path = (directory.path() / "socket").string();
    ServerOptions options = onOneThread();
    options.listen = {"unix:" + path};
    EventRun run(
        [&](EventRequest& request) {
            if (request.getOriginalFullUrl() == "/stream")
                run.work(request, [](EventRequest& r) { r.streamPattern(1000000, 10000); });
            else
                request.respondHere(200, pattern(1000));
        },
        options);
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        RawClient client(RawClient::Connected{descriptor});
        for (const char* target : {"/", "/stream", "/", "/stream"}) {
            ASSERT_TRUE(client.send(getRequest(target)));
            const auto response = client.receive();
            EXPECT_TRUE(response && response->status == 200);
        }
        ASSERT_TRUE(client.send(getRequest("/", "Connection: close\r\n")));
        EXPECT_TRUE(client.receive());
        EXPECT_TRUE(isEnded(client));
    }
    EXPECT_TRUE(run.server().shutDown(integration::kLimit));
    for (const auto& line : integration::processLog->lines())
        EXPECT_THAT(line.message, HasSubstr("Serving on "));
}

}  // namespace
