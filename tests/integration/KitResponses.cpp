// Responses of handlers, and those sent in place of wrong ones.

#include "support/KitTestServer.h"

#include <qvSystem/qvThread.h>

#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace integration
{
namespace
{

using qv::BodySource;
using qv::kit::ContentType;
using qv::kit::Cookie;
using qv::kit::HttpError;
using qv::kit::Request;
using qv::kit::Router;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char* kServerError = R"({"title":"Internal Server Error","status":500})";

std::string headRequest(const std::string& target)
{
    return "HEAD " + target + " HTTP/1.1\r\nHost: x\r\n\r\n";
}

TEST(KitResponses, AreSentAsTheyAreGiven)
{
    KitTestServer server([](Router& router) {
        router.get("/text", [](Request& request) { request.reply("text"); });
        router.get("/status", [](Request& request) { request.reply(404, "none"); });
        router.get("/type",
                   [](Request& request) { request.reply(201, "{}", ContentType::json()); });
        router.get("/own type", [](Request& request) {
            request.setHeader("content-type", "image/png");
            request.reply("png");
        });
        router.get("/shared", [](Request& request) {
            request.reply(std::make_shared<const std::string>("shared"), ContentType::html());
        });
        router.get("/source", [](Request& request) {
            auto source = BodySource::fromString(std::make_shared<std::string>("0123456789"));
            source->setRange(2, 3);
            request.replySource(206, std::move(source), ContentType::bytes());
        });
        router.get("/error", [](Request& request) { request.replyError(403, "say \"no\""); });
        router.get("/phrase", [](Request& request) { request.replyError(409); });
        router.get("/wrong error", [](Request& request) { request.replyError(200, "x"); });
    });
    const struct
    {
        const char* target;
        int status;
        const char* type;
        const char* body;
    } rows[] = {
        {"/text", 200, "text/plain; charset=utf-8", "text"},
        {"/status", 404, "text/plain; charset=utf-8", "none"},
        {"/type", 201, "application/json", "{}"},
        {"/own%20type", 200, "image/png", "png"},
        {"/shared", 200, "text/html; charset=utf-8", "shared"},
        {"/source", 206, "application/octet-stream", "234"},
        {"/error", 403, "application/problem+json",
         R"({"title":"Forbidden","status":403,"detail":"say \"no\""})"},
        {"/phrase", 409, "application/problem+json", R"({"title":"Conflict","status":409})"},
        {"/wrong%20error", 500, "application/problem+json",
         R"({"title":"Internal Server Error","status":500,"detail":"x"})"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        const RawResponse response = server.get(row.target);
        EXPECT_EQ(response.status, row.status);
        EXPECT_EQ(response.value("Content-Type"), row.type);
        EXPECT_EQ(response.body, row.body);
        const RawResponse head = server.ask(headRequest(row.target));
        EXPECT_EQ(head.status, row.status);
        EXPECT_EQ(head.value("Content-Length"), std::to_string(std::string(row.body).size()));
    }
}

TEST(KitResponses, HaveTheHeadersAndCookiesThatWereSet)
{
    KitTestServer server([](Router& router) {
        router.get("/", [](Request& request) {
            request.addHeader("Link", "<1>");
            request.setHeader("X-A", "replaced");
            request.setHeader("x-a", "second");
            request.addHeader("link", "<2>");
            request.addHeader("Link", "<3>");
            request.setHeader("X-B", "removed");
            request.setHeader("X-B", "");
            request.setHeader("Links", "other");
            request.setCookie(Cookie("a", "1"));
            request.setCookie(Cookie("b", "2").httpOnly());
            request.setCookie(Cookie("a", "3").path(""));
            request.reply("");
        });
        router.get("/reset", [](Request& request) {
            request.addHeader("Link", "<1>");
            request.addHeader("Link", "<2>");
            request.setHeader("LINK", "<3>");
            request.reply("");
        });
    });
    const RawResponse response = server.get("/");
    EXPECT_THAT(response.values("Link"), ElementsAre("<1>", "<2>", "<3>"));
    EXPECT_THAT(response.values("X-A"), ElementsAre("second"));
    EXPECT_THAT(response.values("X-B"), ElementsAre());
    EXPECT_THAT(response.values("Links"), ElementsAre("other"));
    EXPECT_THAT(response.values("Set-Cookie"), ElementsAre("a=3", "b=2; Path=/; HttpOnly"));
    EXPECT_THAT(server.get("/reset").values("Link"), ElementsAre("<3>"));
}

TEST(KitResponses, OfAWrongUseAre500WithALineThatNamesTheRoute)
{
    const struct
    {
        const char* path;
        qv::kit::Handler handler;
        const char* line;
    } rows[] = {
        {"/value",
         [](Request& r) {
             r.setHeader("X-A", "a\r\nX-B: b");
             r.reply("x");
         },
         "the value of the header X-A has a control character: \"a\r\nX-B: b\""},
        {"/added",
         [](Request& r) {
             r.addHeader("X-A", std::string("a\0b", 3));
             r.reply("x");
         },
         nullptr},
        {"/name",
         [](Request& r) {
             r.setHeader("X A", "a");
             r.reply("x");
         },
         "the header name \"X A\" is no token"},
        {"/length",
         [](Request& r) {
             r.setHeader("content-Length", "1");
             r.reply("x");
         },
         "the header content-Length cannot be set"},
        {"/cookie",
         [](Request& r) {
             r.setCookie(Cookie("s", "a; Path=/"));
             r.reply("x");
         },
         "the value of the cookie s has a byte that is not allowed: \"a; Path=/\""},
        {"/cookie-name",
         [](Request& r) {
             r.setCookie(Cookie("a=b", "c"));
             r.reply("x");
         },
         "the cookie name \"a=b\" is no token"},
        {"/path",
         [](Request& r) {
             r.setCookie(Cookie("a", "b").path("/\r\nX: y"));
             r.reply("x");
         },
         "the path of the cookie a is not valid: \"/\r\nX: y\""},
        {"/type", [](Request& r) { r.reply("x", ContentType("a/b\nc")); },
         "the value of the header Content-Type has a control character: \"a/b\nc\""},
        {"/stream",
         [](Request& r) {
             r.setHeader("X-A", "a\n");
             EXPECT_FALSE(r.startStream());
         },
         "the value of the header X-A has a control character: \"a\n\""},
        {"/low", [](Request& r) { r.reply(101, "x"); }, "impossible status 101"},
        {"/high", [](Request& r) { r.reply(600); }, "impossible status 600"},
        {"/null", [](Request& r) { r.replySource(nullptr, ContentType::bytes()); },
         "the body source is null"},
        {"/none", [](Request&) {}, "the handler has not responded"},
        {"/parameter", [](Request& r) { r.reply(r.pathParameter("id")); },
         "the handler failed: the route has no path parameter \"id\""},
        {"/write", [](Request& r) { EXPECT_FALSE(r.write("x")); },
         "write refused: startStream has not been called"},
    };
    KitTestServer server([&](Router& router) {
        for (const auto& row : rows)
            router.get(row.path, row.handler);
    });
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        const RawResponse response = server.get(row.path);
        EXPECT_EQ(response.status, 500);
        EXPECT_EQ(response.body, kServerError);
        EXPECT_EQ(response.values("X-B").size(), 0u);
        EXPECT_EQ(response.values("Set-Cookie").size(), 0u);
        if (row.line) {
            EXPECT_TRUE(logged("GET " + std::string(row.path) + ": " + row.line));
        }
    }
}

TEST(KitResponses, AreSentOnce)
{
    KitTestServer server([](Router& router) {
        router.get("/two", [](Request& request) {
            EXPECT_TRUE(request.isOpen());
            EXPECT_TRUE(request.reply("first"));
            EXPECT_FALSE(request.isOpen());
            EXPECT_FALSE(request.reply("second"));
            EXPECT_FALSE(request.startStream());
            EXPECT_THROW(static_cast<void>(request.defer()), std::logic_error);
        });
        router.get("/deferred", [](Request& request) {
            auto later = request.defer();
            EXPECT_FALSE(request.isOpen());
            EXPECT_FALSE(request.reply("second"));
            EXPECT_THROW(static_cast<void>(request.defer()), std::logic_error);
            EXPECT_TRUE(later.reply("first"));
            EXPECT_FALSE(later.reply("third"));
        });
    });
    EXPECT_EQ(server.get("/two").body, "first");
    // The handler goes on after its first response.
    const auto countLines = [] {
        return processLog->lines("GET /two: a second response was discarded").size();
    };
    EXPECT_TRUE(waitUntil([&] { return countLines() == 2; }));
    EXPECT_EQ(server.get("/deferred").body, "first");
    EXPECT_TRUE(logged("GET /deferred: a second response was discarded"));
    EXPECT_EQ(processLog->lines("GET /deferred: a response after defer was discarded").size(), 1u);
}

TEST(KitResponses, OfExceptions)
{
    KitTestServer server([](Router& router) {
        router.get("/http", [](Request& request) {
            request.setHeader("X-Dropped", "yes");
            throw HttpError(418, "teapot");
        });
        router.get("/phrase", [](Request&) { throw HttpError(404); });
        router.get("/status", [](Request&) { throw HttpError(200, "fine"); });
        router.get("/std", [](Request&) { throw std::runtime_error("on purpose"); });
        router.get("/other", [](Request&) { throw 7; });
        router.get("/after", [](Request& request) {
            request.reply("done");
            throw std::runtime_error("too late");
        });
        router.get("/inline", [](Request&) { throw std::runtime_error("inline"); }).nonBlocking();
        router.get("/deferred", [](Request& request) {
            const auto later = request.defer();
            throw std::runtime_error("after defer");
        });
    });
    const struct
    {
        const char* target;
        int status;
        const char* body;
        const char* line;
    } rows[] = {
        {"/http", 418, R"({"title":"Error","status":418,"detail":"teapot"})", nullptr},
        {"/phrase", 404, R"({"title":"Not Found","status":404})", nullptr},
        {"/status", 500, R"({"title":"Internal Server Error","status":500,"detail":"fine"})",
         nullptr},
        {"/std", 500, kServerError, "the handler failed: on purpose"},
        {"/other", 500, kServerError, "the handler failed: an exception that is no std::exception"},
        {"/after", 200, "done", "the handler failed: too late"},
        {"/inline", 500, kServerError, "the handler failed: inline"},
        {"/deferred", 500, kServerError, "the handler failed: after defer"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        const RawResponse response = server.get(row.target);
        EXPECT_EQ(response.status, row.status);
        EXPECT_EQ(response.body, row.body);
        EXPECT_EQ(response.values("X-Dropped").size(), 0u);
        if (row.line) {
            EXPECT_TRUE(logged("GET " + std::string(row.target) + ": " + row.line));
        }
    }
}

// Whether or not the daemon has seen the announcement before the exception.
TEST(KitResponses, ThatFailAfterTheirStartAreCutOff)
{
    constexpr int kRounds = 100;
    Channel<qv::kit::CompletedRequest> completed;
    auto options = kitOptions(2);
    options.onCompleted = [&](const qv::kit::CompletedRequest& request) {
        completed.push(request);
    };
    std::atomic<int> hooked{0};
    KitTestServer server(
        [&](Router& router) {
            router.after("/", [&](const Request&, int status, qv::kit::ResponseHead& head) {
                hooked += status == 201 ? 1 : 0;
                head.setHeader("X-After", "1");
            });
            router.get("/http", [](Request& request) {
                request.startStream(ContentType("text/csv"), 201);
                request.write("a,b");
                throw HttpError(503, "busy");
            });
            router.get("/flushed", [](Request& request) {
                request.startStream(ContentType("text/csv"), 201);
                request.write("a,b");
                request.flush();
                throw std::runtime_error("on purpose");
            });
            router.get("/length", [](Request& request) {
                request.setContentLength(10);
                request.startStream(ContentType("text/csv"), 201);
                request.write("a,b");
            });
        },
        options);
    const std::vector<std::string> targets{"/http", "/flushed", "/length"};
    for (int round = 0; round < kRounds; ++round) {
        const std::string& target = targets[static_cast<size_t>(round) % targets.size()];
        SCOPED_TRACE(target);
        RawClient client(server.port());
        ASSERT_TRUE(client.send(getRequest(target)));
        // Of the response all may be missing that had not been received when it was cut off.
        if (const auto head = client.receiveHead()) {
            EXPECT_EQ(head->status, 201);
            EXPECT_EQ(head->value("X-After"), "1");
            EXPECT_EQ(head->value("Content-Type"), "text/csv");
            const std::string rest = client.receiveToEnd();
            EXPECT_EQ(rest.find("0\r\n\r\n"), std::string::npos) << rest;
            EXPECT_LT(rest.size(), 10u);
        }
        const auto call = completed.pop();
        ASSERT_TRUE(call);
        EXPECT_EQ(call->status, 201u);
        EXPECT_NE(call->abortReason, "");
    }
    EXPECT_EQ(hooked, kRounds);
    EXPECT_TRUE(logged("GET /http: the handler failed: 503 busy"));
    EXPECT_TRUE(logged("GET /flushed: the handler failed: on purpose"));
    EXPECT_TRUE(logged("GET /length: the body is shorter than declared"));
}

TEST(KitResponses, HaveTheTypeOfTheirBody)
{
    KitTestServer server([](Router& router) {
        router.get("/stream", [](Request& request) {
            request.setHeader("Content-Type", "text/csv");
            request.startStream();
            request.write("a,b");
        });
        router.get("/error", [](Request& request) {
            request.setHeader("Content-Type", "application/json");
            request.replyError(404, "none");
        });
    });
    EXPECT_EQ(server.get("/stream").value("Content-Type"), "text/csv");
    EXPECT_EQ(server.ask(headRequest("/stream")).value("Content-Type"), "text/csv");
    const struct
    {
        const char* accept;
        const char* type;
    } rows[] = {{"*/*", "application/problem+json"},
                {"text/plain", "text/plain; charset=utf-8"},
                {"text/html", "text/html; charset=utf-8"}};
    for (const auto& row : rows) {
        const RawResponse response = server.ask(std::string("GET /error HTTP/1.1\r\nHost: x\r\n") +
                                                "Accept: " + row.accept + "\r\n\r\n");
        EXPECT_EQ(response.status, 404);
        EXPECT_EQ(response.value("Content-Type"), row.type);
    }
}

TEST(KitResponses, StreamWithAndWithoutADeclaredLength)
{
    KitTestServer server([](Router& router) {
        router.get("/{kind}", [](Request& request) {
            const std::string& kind = request.pathParameter("kind");
            if (kind != "unknown")
                request.setContentLength(kind == "short" ? 9 : 8);
            EXPECT_TRUE(request.startStream(ContentType::bytes(), 203));
            EXPECT_TRUE(request.write("one "));
            EXPECT_TRUE(request.flush());
            EXPECT_TRUE(request.write("two "));
            EXPECT_EQ(request.write(kind == "exact" ? "too much" : ""),
                      kind != "exact" || request.method() == qv::kit::Method::Head);
            if (kind == "exact") {
                EXPECT_TRUE(request.finish());
                EXPECT_FALSE(request.finish());
                EXPECT_FALSE(request.write("x"));
            }
        });
    });
    for (const char* kind : {"/unknown", "/exact"}) {
        SCOPED_TRACE(kind);
        const RawResponse response = server.get(kind);
        EXPECT_EQ(response.status, 203);
        EXPECT_EQ(response.value("Content-Type"), "application/octet-stream");
        EXPECT_EQ(response.body, "one two ");
        const RawResponse head = server.ask(headRequest(kind));
        EXPECT_EQ(head.status, 203);
    }
    EXPECT_EQ(server.ask(headRequest("/exact")).value("Content-Length"), "8");
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/short")));
    const auto cut = client.receive();
    EXPECT_TRUE(!cut || cut->status == 500);
    EXPECT_TRUE(logged("GET /{kind}: the body is shorter than declared"));
}

TEST(KitResponses, MayDeclareALengthForHead)
{
    KitTestServer server([](Router& router) {
        router.head("/", [](Request& request) {
            request.setContentLength(12345);
            request.reply("");
        });
    });
    EXPECT_EQ(server.ask(headRequest("/")).value("Content-Length"), "12345");
}

TEST(KitResponses, OfNonBlockingRoutesAreMadeOnTheThreadOfTheConnection)
{
    KitTestServer server(
        [](Router& router) {
            const auto nameThread = [](Request& request) {
                request.reply(qv::qvThread::CurrentThreadId());
            };
            router.get("/inline", nameThread).nonBlocking();
            router.get("/worker", nameThread);
            router
                .post("/body",
                      [](Request& request) {
                          char first = 0;
                          EXPECT_EQ(request.readBody(&first, 1), 1u);
                          request.reply(first + request.readAll(1000000));
                      })
                .nonBlocking();
            router.get("/stream", [](Request& r) { EXPECT_FALSE(r.startStream()); }).nonBlocking();
        },
        [] {
            auto options = kitOptions(1);
            options.threads = 1;
            return options;
        }());
    const std::string thread = server.get("/inline").body;
    EXPECT_EQ(server.get("/inline").body, thread);
    const std::string worker = server.get("/worker").body;
    EXPECT_EQ(server.get("/worker").body, worker);
    EXPECT_NE(thread, worker);
    const std::string body(300000, 'b');
    EXPECT_EQ(server.ask(withBody("POST", "/body", body)).body, body);
    EXPECT_EQ(server.get("/stream").status, 500);
    EXPECT_TRUE(logged("GET /stream: startStream refused: the route is nonBlocking"));
}

TEST(KitResponses, Are503WhenTheWorkersCannotTakeTheRequest)
{
    Latch latch;
    Channel<int> running;
    auto options = kitOptions(1);
    options.workerQueueLimit = 2;
    options.threads = 1;  // requests are queued in the order in which they are counted
    KitTestServer server(
        [&](Router& router) {
            router.get("/", [&](Request& request) {
                running.push(1);
                latch.wait();
                request.reply("text");
            });
            router.get("/ping", [](Request& request) { request.reply("pong"); }).nonBlocking();
        },
        options);
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.port()));
        ASSERT_TRUE(clients.back()->send(getRequest("/")));
        if (i == 0) {
            ASSERT_TRUE(running.pop());
        }
        ASSERT_TRUE(waitUntil([&] { return server.server().openRequests() == 1u + i; }));
    }
    const RawResponse refused = server.get("/");
    EXPECT_EQ(refused.status, 503);
    EXPECT_EQ(refused.value("Retry-After"), "1");
    EXPECT_EQ(refused.body, R"({"title":"Service Unavailable","status":503})");
    EXPECT_EQ(server.get("/ping").body, "pong");
    latch.open();
    for (auto& client : clients) {
        const auto response = client->receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 200);
    }
}

TEST(KitResponses, OfATimeoutPrecedeTheHandler)
{
    Latch latch;
    Channel<bool> results;
    KitTestServer server([&](Router& router) {
        router
            .get("/slow",
                 [&](Request& request) {
                     latch.wait();
                     EXPECT_FALSE(request.isOpen());
                     results.push(request.reply("late"));
                 })
            .responseTimeout(std::chrono::milliseconds(50));
        router.get("/quick", [](Request& request) { request.reply("quick"); })
            .responseTimeout(std::chrono::minutes(10));
    });
    const RawResponse response = server.get("/slow");
    EXPECT_EQ(response.status, 503);
    EXPECT_EQ(response.body, R"({"title":"Service Unavailable","status":503})");
    latch.open();
    EXPECT_EQ(results.pop(), false);
    EXPECT_EQ(server.get("/quick").body, "quick");
    EXPECT_TRUE(server.stop());
    EXPECT_TRUE(processLog->lines("GET /slow: a second response was discarded").empty());
}

}  // namespace
}  // namespace integration
