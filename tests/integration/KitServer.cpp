// A server of the kit and the responses to its clients, one kind of request at a time.

#include "support/KitRun.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"
#include "support/Waiting.h"
#include "support/WebSocketClient.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace integration
{
namespace
{

using qv::HttpBaseRequest;
using qv::kit::BodyResult;
using qv::kit::Request;
using qv::kit::Router;

constexpr int kGet = HttpBaseRequest::GET;
constexpr int kPut = HttpBaseRequest::PUT;
constexpr const char* kText = "text/plain";

std::string putRequest(const std::string& target, size_t length)
{
    return "PUT " + target + " HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(length) +
           "\r\n\r\n";
}

std::string chunkedRequest(const std::string& target)
{
    return "PUT " + target + " HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n";
}

std::string headRequest(const std::string& target, const std::string& headerLines = "")
{
    return "HEAD " + target + " HTTP/1.1\r\nHost: x\r\n" + headerLines + "\r\n";
}

// Every request that was created has been deleted.
void expectNothingIsLeft(KitRun& run)
{
    EXPECT_EQ(run.application().getOpenCount(), 0u);
    EXPECT_EQ(KitRequest::sCreated, KitRequest::sDeleted);
    EXPECT_EQ(run.application().getRequestCount(), KitRequest::sCreated);
}

void sayHello(Request& request)
{
    request.reply(200, kText, "Hello, " + request.getPathParameter("name") + "!");
}

void helloRoute(Router& router)
{
    router.add(kGet, "/hello/{name}", sayHello);
}

TEST(KitServer, ServesManyRequestsOnOneConnection)
{
    KitRun run([](Router& router) {
        helloRoute(router);
        router.add(kPut, "/empty", [](Request& request) { request.reply(204, "", ""); });
        router.add(kGet, "/known", [](Request& request) { request.reply(304, "", ""); });
    });
    auto client = std::make_unique<RawClient>(run.port());
    for (int round = 0; round < 3; ++round) {
        const struct
        {
            std::string bytes;
            int status;
            const char* body;
            const char* length;
        } rows[] = {
            {getRequest("/hello/a%2Fb"), 200, "Hello, a/b!", "11"},
            {headRequest("/hello/a"), 200, "", "9"},
            {headRequest("/hello/a", "Content-Length: 5\r\n") + "12345", 200, "", ""},
            {headRequest("/nowhere"), 404, "", "58"},
            {getRequest("/nowhere"), 404,
             R"({"error":"There is nothing at this address.","status":404})", "58"},
            {putRequest("/hello/a", 3) + "abc", 405,
             R"({"error":"This method is not allowed here.","status":405})", "57"},
            {putRequest("/empty", 0), 204, "", ""},
            {putRequest("/empty", 3) + "abc", 204, "", ""},
            {getRequest("/known"), 304, "", ""},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(row.bytes);
            const bool head = row.bytes.compare(0, 4, "HEAD") == 0;
            ASSERT_TRUE(client->send(row.bytes));
            const auto response = client->receive(head);
            ASSERT_TRUE(response);
            EXPECT_EQ(response->status, row.status);
            EXPECT_EQ(response->body, row.body);
            // A response that is complete before the body has been received is sent early.
            if (integration::isEventDriven() && response->value("Connection") == "close")
                client = std::make_unique<RawClient>(run.port());
            if (*row.length) {
                EXPECT_EQ(response->value("Content-Length"), row.length);
            }
            if (row.status == 405) {
                EXPECT_EQ(response->value("Allow"), "GET,HEAD");
            }
        }
    }
    EXPECT_TRUE(run.stop(kLimit));
    expectNothingIsLeft(run);
}

TEST(KitServer, RespondsToABadRequestInJson)
{
    KitRun run(helloRoute);
    RawClient client(run.port());
    // In event-driven mode the library refuses the other target before the kit sees it.
    const std::string target = integration::isEventDriven() ? "/%zz" : "hello";
    ASSERT_TRUE(client.send(getRequest(target)));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 400);
    EXPECT_EQ(response->value("Content-Type"), "application/json");
    EXPECT_THAT(response->body, ::testing::HasSubstr("\"status\":400"));
    EXPECT_TRUE(run.stop(kLimit));
    expectNothingIsLeft(run);
}

TEST(KitServer, ReadsUploadsUpToALimit)
{
    constexpr size_t kLimitBytes = 100000;
    KitRun run([](Router& router) {
        router.add(kPut, "/", [](Request& request) {
            std::string body;
            const BodyResult result = request.readWholeBody(kLimitBytes, body);
            if (result == BodyResult::TooLarge)
                request.replyError(413, "too large");
            else if (result == BodyResult::Complete)
                request.reply(200, kText, body);
        });
    });
    const struct
    {
        size_t bytes;
        int status;
    } rows[] = {{0, 200}, {1, 200}, {kLimitBytes, 200}, {kLimitBytes + 1, 413}, {1000000, 413}};
    for (const bool chunked : {false, true}) {
        for (const auto& row : rows) {
            SCOPED_TRACE(std::to_string(row.bytes) + (chunked ? " chunked" : " declared"));
            const std::string body(row.bytes, 'b');
            RawClient client(run.port());
            ASSERT_TRUE(client.send(chunked ? chunkedRequest("/") : putRequest("/", row.bytes)));
            for (size_t at = 0; at < body.size(); at += 1000) {
                const std::string piece = body.substr(at, 1000);
                char size[16];
                std::snprintf(size, sizeof size, "%zx\r\n", piece.size());
                ASSERT_TRUE(client.send(chunked ? size + piece + "\r\n" : piece));
            }
            if (chunked) {
                ASSERT_TRUE(client.send("0\r\n\r\n"));
            }
            const auto response = client.receive();
            ASSERT_TRUE(response);
            EXPECT_EQ(response->status, row.status);
            if (row.status == 200) {
                EXPECT_TRUE(response->body == body);
            }
        }
    }
    EXPECT_TRUE(run.stop(kLimit));
    expectNothingIsLeft(run);
}

TEST(KitServer, StreamsWithAndWithoutADeclaredLength)
{
    KitRun run([](Router& router) {
        router.add(kGet, "/{kind}", [](Request& request) {
            const std::string kind = request.getPathParameter("kind");
            if (kind != "unknown")
                request.getHead().setContentLength(kind == "short" ? 9 : 8);
            request.write("one ", 4);
            request.flush();
            if (kind == "abandoned")
                request.abandon("on purpose");
            request.write("two ", 4);
            request.write("too much", 8 * (kind == "exact"));
            request.finish();
        });
    });
    for (const char* kind : {"unknown", "exact"}) {
        SCOPED_TRACE(kind);
        RawClient client(run.port());
        for (const bool head : {false, true, false}) {
            ASSERT_TRUE(client.send(head ? headRequest(std::string("/") + kind)
                                         : getRequest(std::string("/") + kind)));
            const auto response = client.receive(head);
            ASSERT_TRUE(response);
            EXPECT_EQ(response->status, 200);
            EXPECT_EQ(response->body, head ? "" : "one two ");
        }
    }
    for (const char* kind : {"short", "abandoned"}) {
        SCOPED_TRACE(kind);
        RawClient client(run.port());
        ASSERT_TRUE(client.send(getRequest(std::string("/") + kind)));
        // Cut off: the response never looks complete.
        const auto response = client.receive();
        EXPECT_TRUE(!response || response->status == 500);
    }
    EXPECT_TRUE(run.stop(kLimit));
    expectNothingIsLeft(run);
}

TEST(KitServer, RespondsForHandlersThatFail)
{
    KitRun run([](Router& router) {
        router.add(kGet, "/silent", [](Request&) {});
        router.add(kGet, "/throws", [](Request& request) {
            request.getHead().setContentLength(3);
            throw std::runtime_error("on purpose");
        });
        router.add(kGet, "/abandons", [](Request& request) { request.abandon("on purpose"); });
    });
    const struct
    {
        const char* target;
        const char* body;
    } rows[] = {
        {"/silent", R"({"error":"The request was not answered.","status":500})"},
        {"/throws", R"({"error":"The server failed.","status":500})"},
        {"/abandons", R"({"error":"The server failed.","status":500})"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        RawClient client(run.port());
        ASSERT_TRUE(client.send(getRequest(row.target)));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 500);
        EXPECT_EQ(response->body, row.body);
    }
    EXPECT_EQ(processLog->lines("GET /throws failed: on purpose").size(), 1u);
    EXPECT_TRUE(run.stop(kLimit));
    expectNothingIsLeft(run);
}

TEST(KitServer, RefusesWhatItsWorkersCannotTake)
{
    Latch latch;
    Channel<int> running;
    KitRun run(
        [&](Router& router) {
            router.add(kGet, "/", [&](Request& request) {
                running.push(1);
                latch.wait();
                request.reply(200, kText, "text");
            });
        },
        1, 2);
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<RawClient>(run.port()));
        ASSERT_TRUE(clients.back()->send(getRequest("/")));
        if (i == 0) {
            ASSERT_TRUE(running.pop());
        }
        // Until it is queued, or the next one could come before it.
        ASSERT_TRUE(waitUntil([&] { return run.application().getRequestCount() == 1u + i; }));
    }
    RawClient extra(run.port());
    // A request is counted a moment before it is queued: one of the four is refused.
    ASSERT_TRUE(extra.send(getRequest("/")));
    ASSERT_TRUE(waitUntil([&] { return run.application().getRequestCount() == 4; }));
    latch.open();
    int responses = 0;
    int refused = 0;
    clients.push_back(nullptr);
    for (auto& client : clients) {
        const auto response = client ? client->receive() : extra.receive();
        ASSERT_TRUE(response);
        responses += response->status == 200;
        refused += response->status == 503 && response->value("Retry-After") == "1" &&
                   response->body == R"({"error":"The server is busy.","status":503})";
    }
    EXPECT_EQ(responses, 3);
    EXPECT_EQ(refused, 1);
    EXPECT_TRUE(run.stop(kLimit));
    expectNothingIsLeft(run);
}

// The kit's own clock looks once a second; six minutes would pass without it.
TEST(KitServer, FreesTheWorkerOfAnUploadWhoseClientHasClosed)
{
    Channel<int> reading;
    Channel<BodyResult> results;
    KitRun run(
        [&](Router& router) {
            helloRoute(router);
            router.add(kPut, "/", [&](Request& request) {
                reading.push(1);
                std::string body;
                results.push(request.readWholeBody(1000000, body));
            });
        },
        1);
    for (const bool reset : {true, false}) {
        SCOPED_TRACE(reset);
        RawClient client(run.port());
        ASSERT_TRUE(client.send(putRequest("/", 100000) + std::string(5000, 'b')));
        ASSERT_TRUE(reading.pop());
        if (reset)
            client.reset();
        else
            client.close();
        const auto result = results.pop();
        ASSERT_TRUE(result);
        EXPECT_EQ(*result, BodyResult::Aborted);
    }
    // The one worker is free again.
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/hello/x")));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 200);
    EXPECT_TRUE(run.stop(kLimit));
    expectNothingIsLeft(run);
}

// More than the sockets of both sides take.
constexpr size_t kStreamBytes = 24 * 1024 * 1024;

struct Streaming
{
    void route(Router& router)
    {
        router.add(kGet, "/stream", [this](Request& request) {
            const std::string block(1000000, 's');
            started.push(1);
            size_t written = 0;
            while (written < kStreamBytes && request.write(block.data(), block.size()))
                written += block.size();
            request.finish();
            ended = true;
            results.push(request.isAborted());
        });
    }

    Channel<int> started;
    std::atomic<bool> ended{false};
    Channel<bool> results;  // whether the request was aborted
};

TEST(KitServer, ASlowReaderHoldsUpItsOwnStreamOnly)
{
    Streaming streaming;
    KitRun run(
        [&](Router& router) {
            helloRoute(router);
            streaming.route(router);
        },
        2);
    RawClient slow(run.port());
    ASSERT_TRUE(slow.send(getRequest("/stream")));
    ASSERT_TRUE(streaming.started.pop());
    RawClient other(run.port());
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(other.send(getRequest("/hello/x")));
        const auto response = other.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 200);
    }
    EXPECT_FALSE(streaming.ended);
    const auto response = slow.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body.size(), kStreamBytes / 1000000 * 1000000 + 1000000);
    EXPECT_EQ(response->body.find_first_not_of('s'), std::string::npos);
    EXPECT_TRUE(run.stop(kLimit));
    expectNothingIsLeft(run);
}

TEST(KitServer, AStreamEndsWhenItsReaderGoes)
{
    Streaming streaming;
    KitRun run([&](Router& router) { streaming.route(router); }, 1);
    for (const bool reset : {true, false}) {
        SCOPED_TRACE(reset);
        RawClient client(run.port());
        ASSERT_TRUE(client.send(getRequest("/stream")));
        EXPECT_FALSE(client.receiveSome(100).empty());
        if (reset)
            client.reset();
        else
            client.close();
        const auto aborted = streaming.results.pop();
        ASSERT_TRUE(aborted);
        EXPECT_TRUE(*aborted);
    }
    EXPECT_TRUE(run.stop(kLimit));
    expectNothingIsLeft(run);
}

TEST(KitServer, AStopFinishesRunningRequestsAndRefusesNewOnes)
{
    Latch latch;
    Channel<int> running;
    KitRun run([&](Router& router) {
        helloRoute(router);
        router.add(kGet, "/", [&](Request& request) {
            running.push(1);
            latch.wait();
            request.reply(200, kText, "text");
        });
    });
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(running.pop());
    EXPECT_FALSE(run.server().start(qv::http::ServerOptions()));  // the stop stays the same
    bool drained = false;
    std::thread stopper([&] { drained = run.stop(kLimit); });
    if (integration::isEventDriven()) {
        EXPECT_TRUE(waitUntil([&] { return !RawClient::accepts("127.0.0.1", run.port()); }));
    } else {
        RawClient other(run.port());
        EXPECT_TRUE(waitUntil([&] {
            if (!other.send(getRequest("/hello/x")))
                return false;
            const auto response = other.receive();
            return response && response->status == 503;
        }));
    }
    latch.open();
    const auto response = client.receive();
    stopper.join();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 200);
    EXPECT_EQ(response->body, "text");
    EXPECT_TRUE(drained);
    expectNothingIsLeft(run);
    EXPECT_FALSE(RawClient::accepts("127.0.0.1", run.port()));
}

TEST(KitServer, AStopWithoutTimeEndsWhatIsLeft)
{
    Streaming streaming;
    Channel<int> reading;
    Channel<BodyResult> results;
    KitRun run([&](Router& router) {
        streaming.route(router);
        router.add(kPut, "/", [&](Request& request) {
            reading.push(1);
            std::string body;
            results.push(request.readWholeBody(1000000, body));
        });
    });
    RawClient slow(run.port());
    ASSERT_TRUE(slow.send(getRequest("/stream")));
    ASSERT_TRUE(streaming.started.pop());
    RawClient silent(run.port());
    ASSERT_TRUE(silent.send(putRequest("/", 100000)));
    ASSERT_TRUE(reading.pop());
    EXPECT_FALSE(run.stop(std::chrono::milliseconds(0)));
    EXPECT_EQ(streaming.results.pop(std::chrono::milliseconds(0)), true);
    EXPECT_EQ(results.pop(std::chrono::milliseconds(0)), BodyResult::Aborted);
    expectNothingIsLeft(run);
}

TEST(KitServer, IsStartedOnceAndStoppedAsOftenAsOneLikes)
{
    KitRun run(helloRoute);
    EXPECT_FALSE(run.server().start(qv::http::HttpServer::Parameters()));
    EXPECT_TRUE(run.stop(kLimit));
    EXPECT_TRUE(run.stop(kLimit));
    EXPECT_FALSE(run.server().start(qv::http::HttpServer::Parameters()));
    qv::http::ServerOptions options;
    options.listen = {"127.0.0.1:0"};
    EXPECT_FALSE(run.server().start(options));
}

TEST(KitServer, SaysThatItsPortIsInUse)
{
    const qv::tests::TakenPort taken;
    qv::http::HttpServer::Parameters parameters;
    parameters.port = taken.port();
    qv::kit::Server server(std::make_unique<KitApplication>());
    EXPECT_FALSE(server.start(parameters));
    EXPECT_FALSE(server.start(parameters));
    EXPECT_TRUE(server.stop(kLimit));
}

TEST(KitServer, NeedsNoStartToBeStoppedOrDestroyed)
{
    qv::kit::Server never(std::make_unique<KitApplication>());
    qv::kit::Server stopped(std::make_unique<KitApplication>());
    EXPECT_TRUE(stopped.stop(std::chrono::milliseconds(0)));
}

TEST(KitServer, ClosesUpgradedConnectionsThatTheApplicationDoesNotTake)
{
    KitRun run(helloRoute);
    WebSocketClient client(run.port());
    EXPECT_TRUE(client.waitForEnd());
    EXPECT_TRUE(run.stop(kLimit));
}

TEST(KitServer, IsStoppedByItsDestruction)
{
    uint16_t port = 0;
    {
        KitRun run(helloRoute);
        port = run.port();
        EXPECT_TRUE(RawClient::accepts("127.0.0.1", port));
        RawClient client(port);
        ASSERT_TRUE(client.send(getRequest("/hello/x")));
        ASSERT_TRUE(client.receive());
    }
    EXPECT_FALSE(RawClient::accepts("127.0.0.1", port));
    EXPECT_EQ(KitRequest::sCreated, KitRequest::sDeleted);
}

}  // namespace
}  // namespace integration
