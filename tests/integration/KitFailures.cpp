// A running server of the kit while memory runs out: each allocation of a request fails once, the
// first, the second, and so on up to a request without; then all from each of them on. Every
// request has a response or the end of its connection, and the server goes on.

#include "support/FailingMemory.h"
#include "support/KitTestServer.h"
#include "support/Pattern.h"
#include "support/ProcessCounts.h"
#include "support/SessionFrames.h"

#include <Wendrel/BodySource.h>
#include <Wendrel/kit/Middleware.h>

#include <support/TemporaryDirectory.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace integration
{
namespace
{

using namespace qv::kit;
using qv::BodySource;

constexpr size_t kBodyBytes = 100000;
constexpr const char* kLogin = "Authorization: Basic YW5uOnNlY3JldA==\r\n";
constexpr size_t kMaxAllocations = 10000;  // of a request, and of its handshake
constexpr int kSwitchingProtocols = 101;

void deliver(Request& request)
{
    auto later = std::make_shared<DeferredResponse>(request.defer());
    auto size = std::make_shared<size_t>(0);
    later->onBody([size](std::string_view piece) { *size += piece.size(); },
                  [size, later] { later->reply(std::to_string(*size)); });
}

void streamLater(Request& request)
{
    DeferredStream stream = request.defer().startStream(ContentType::text());
    for (int i = 0; i < 10; ++i)
        stream.write(std::string_view("0123456789"));
    stream.finish();
}

void stream(Request& request)
{
    request.setHeader("X-Stream", "yes");
    if (!request.startStream())
        return;
    const std::string piece(10000, 's');
    for (int i = 0; i < 10; ++i)
        request.write(piece);
}

// A request is refused when a hook has no memory, and never served without it.
void addHooks(Router& router)
{
    auto group = router.group("/hooked");
    group.use(requestId());
    group.use(securityHeaders());
    group.use(basicAuthentication("realm", {{"ann", "secret"}}));
    group.use(rateLimit({1e9, 1e9, 16, nullptr}));
    group.before([](Request& request) { request.setHeader("X-Hook", std::string(100, 'h')); });
    group.get("/worker", [](Request& r) { r.reply(r.attached<AuthenticatedUser>().name); });
    group.put("/buffered", [](Request& r) { r.reply(std::to_string(r.body().size())); });
    router.onError([](const Request& request, ErrorResponse& response) {
        if (request.path() == "/error")
            response.body += std::string(100, 'e');
    });
}

void addRoutes(Router& router)
{
    router.get("/inline/{name}", [](Request& r) { r.reply(r.pathParameter("name")); })
        .nonBlocking();
    router.get("/worker", [](Request& request) {
        request.setHeader("X-Long", std::string(100, 'x'));
        request.reply(request.query("a") + request.header("user-agent") + request.cookie("c"));
    });
    router.put("/buffered", [](Request& r) { r.reply(std::to_string(r.body().size())); });
    router
        .put("/streaming",
             [](Request& r) { r.reply(std::to_string(r.readAll(kBodyBytes).size())); })
        .streaming();
    router.put("/delivered", deliver).streaming();
    router.get("/large", [](Request& r) { r.reply(std::string(100000, 'l')); });
    router.put("/form", [](Request& r) { r.reply(r.form().field("a").asText()); });
    router.get("/later", [](Request& request) {
        auto later = request.defer();
        later.onGone([] {});
        later.setDeadline(std::chrono::minutes(1));
        later.reply("later");
    });
    router.get("/stream-later", streamLater);
    router.get("/stream", stream);
    CompressionOptions compression;
    compression.enabled = true;
    router.get("/compressed", [](Request& r) { r.reply(std::string(kBodyBytes, 'c')); })
        .compression(compression);
    router.get("/compressed-stream", stream).compression(compression);
    router.get("/compressed-later", streamLater).compression(compression);
    router.get("/source", [](Request& request) {
        request.replySource(BodySource::fromString(std::make_shared<const std::string>("source")),
                            ContentType::bytes());
    });
    router.get("/file", [](Request& request) { request.replyFile("/proc/self/exe"); });
    router.directory("/headers", "/usr/include");
    router.get("/error", [](Request&) { throw HttpError(409, std::string(100, 'e')); });
    router.get("/limited", [](Request& request) { request.reply("ok"); })
        .responseTimeout(std::chrono::minutes(1));
    router.webSocket("/socket", {},
                     [](Request&) { return std::make_shared<websocket::SessionHandler>(); });
    addHooks(router);
}

struct Part
{
    const char* name;
    std::string bytes;
    int status;
};

std::vector<Part> makeParts()
{
    const std::string body = pattern(kBodyBytes);
    return {
        {"inline", getRequest("/inline/a-name-that-needs-memory-of-its-own"), 200},
        {"worker",
         getRequest("/worker?a=" + std::string(50, 'a'),
                    "User-Agent: " + std::string(50, 'u') +
                        "\r\nCookie: c=" + std::string(50, 'c') + "\r\n"),
         200},
        {"HEAD", "HEAD /worker HTTP/1.1\r\nHost: x\r\n\r\n", 200},
        {"buffered body", withBody("PUT", "/buffered", body), 200},
        {"streaming body", withBody("PUT", "/streaming", body), 200},
        {"delivered body", withBody("PUT", "/delivered", body), 200},
        {"chunked body", chunkedHead("PUT", "/delivered") + chunk(body) + "0\r\n\r\n", 200},
        {"large text", getRequest("/large"), 200},
        {"form",
         headOf("PUT", "/form", 6, "Content-Type: application/x-www-form-urlencoded\r\n") +
             "a=form",
         200},
        {"deferred", getRequest("/later"), 200},
        {"deferred stream", getRequest("/stream-later"), 200},
        {"stream", getRequest("/stream"), 200},
        {"compressed", getRequest("/compressed", "Accept-Encoding: gzip\r\n"), 200},
        {"compressed stream", getRequest("/compressed-stream", "Accept-Encoding: zstd\r\n"), 200},
        {"compressed later", getRequest("/compressed-later", "Accept-Encoding: gzip\r\n"), 200},
        {"source", getRequest("/source"), 200},
        {"file", getRequest("/file", "Range: bytes=1000-1999, 5000-5999\r\n"), 206},
        {"file in one range", getRequest("/file", "Range: bytes=1000-1999\r\n"), 206},
        {"directory", getRequest("/headers/stdio.h", "Accept-Encoding: gzip\r\n"), 200},
        {"redirection", getRequest("/headers/linux"), 301},
        {"sibling", getRequest("/files/a.txt", "Accept-Encoding: gzip\r\n"), 200},
        {"listing", getRequest("/files/"), 200},
        {"listing as JSON", getRequest("/files/", "Accept: application/json\r\n"), 200},
        {"HttpError", getRequest("/error"), 409},
        {"limited", getRequest("/limited"), 200},
        {"hooks", getRequest("/hooked/worker", kLogin), 200},
        {"hooks of an upload", headOf("PUT", "/hooked/buffered", body.size(), kLogin) + body, 200},
        {"hooks without a route", getRequest("/hooked/missing", kLogin), 404},
        {"hooks that refuse", getRequest("/hooked/worker"), 401},
        {"no route", getRequest("/missing"), 404},
        {"strict", "GET / HTTP/1.1\r\nHost: x\r\nHost: x\r\n\r\n", 400},
        {"target", getRequest("/%00"), 400},
        {"upgrade", sessionHandshake("/socket"), kSwitchingProtocols},
        {"half a body", headOf("PUT", "/delivered", 10) + "12345", 0},
    };
}

// Allocations until one request is over. Memory of the logs is not the server's.
class KitFailures : public testing::Test
{
protected:
    KitFailures()
    {
        exemptThisThread();
        auto options = kitOptions(2);
        options.threads = 1;
        options.onCompleted = [this](const CompletedRequest&) { ++mCompleted; };
        for (const char* name : {"a.txt", "a.txt.gz", "a longer name, for which memory is needed"})
            std::ofstream(mDirectory / name) << name;
        std::filesystem::create_symlink("a.txt", mDirectory / "link");
        const auto addAll = [this](Router& router) {
            addRoutes(router);
            DirectoryOptions listed;
            listed.listing = true;
            router.directory("/files", mDirectory.path(), listed);
        };
        mServer = std::make_unique<KitTestServer>(addAll, options, [](Server& server) {
            server.logAccess([](std::string_view) {}, AccessLog::Json);
        });
    }

    // What a client of this part gets: a status, 0 for the end of the connection.
    int ask(const Part& part) const
    {
        RawClient client(mServer->port());
        client.send(part.bytes);
        if (part.status == 0)
            client.finishSending();
        if (part.status == kSwitchingProtocols)
            return upgrade(client);
        const auto response = client.receive(part.bytes.compare(0, 5, "HEAD ") == 0);
        if (response)
            return response->status;
        // Neither a response nor the end would be a request that is forgotten.
        EXPECT_EQ(client.receiveToEnd(), "");
        return 0;
    }

    // A session, or a connection without one, ends with its client.
    static int upgrade(RawClient& client)
    {
        const auto head = client.receiveHead();
        client.finishSending();
        client.receiveToEnd();
        EXPECT_TRUE(client.isClosedByServer());
        return head ? head->status : 0;
    }

    bool isIdle() const
    {
        return waitUntil([&] { return mServer->server().openRequests() == 0; });
    }

    void failEach(bool fromThenOn, const std::vector<Part>& parts = makeParts())
    {
        for (const Part& part : parts) {
            SCOPED_TRACE(part.name);
            ASSERT_EQ(ask(part), part.status);
            const size_t descriptors = countDescriptors();
            size_t number = 1;
            for (;; ++number) {
                SCOPED_TRACE("allocation " + std::to_string(number));
                bool hasFailed = false;
                {
                    const FailNthAllocation failing(number, fromThenOn);
                    const int status = ask(part);
                    hasFailed = failing.hasFailed();
                    EXPECT_TRUE(hasFailed || status == part.status) << status;
                    EXPECT_TRUE(status == part.status || status == 0 || status == 500 ||
                                status == 503)
                        << status;
                }
                ASSERT_TRUE(isIdle());
                ASSERT_EQ(mServer->get("/inline/a").body, "a");
                if (!hasFailed)
                    break;
                ASSERT_LT(number, kMaxAllocations);
            }
            EXPECT_TRUE(waitUntil([&] { return countDescriptors() <= descriptors; }));
            std::printf("%-16s %4zu failing allocations\n", part.name, number - 1);
            EXPECT_GT(number, 1u);
        }
        EXPECT_TRUE(mServer->stop());
        EXPECT_GT(mCompleted, 0);
    }

    qv::tests::TemporaryDirectory mDirectory;
    std::atomic<int> mCompleted{0};
    std::unique_ptr<KitTestServer> mServer;
};

TEST_F(KitFailures, OneAllocationFails)
{
    failEach(false);
}

TEST_F(KitFailures, AllAllocationsFailFromOneOn)
{
    failEach(true);
}

// The handshake, and the records of a request and its response.
TEST_F(KitFailures, OneAllocationOfOpenSslFails)
{
    if (!isSecure())
        GTEST_SKIP() << "without TLS";
    ASSERT_TRUE(countOpenSsl(true));
    failEach(false, {makeParts()[1]});
    countOpenSsl(false);
}

TEST_F(KitFailures, AllAllocationsOfOpenSslFailFromOneOn)
{
    if (!isSecure())
        GTEST_SKIP() << "without TLS";
    ASSERT_TRUE(countOpenSsl(true));
    failEach(true, {makeParts()[1]});
    countOpenSsl(false);
}

}  // namespace
}  // namespace integration
