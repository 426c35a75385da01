// Hooks before and after handlers, for errors, and of groups: order, threads, refusals before a
// body, values that they hand on.

#include "support/KitTestServer.h"
#include "support/Pattern.h"

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace integration
{
namespace
{

using qv::kit::AfterHook;
using qv::kit::CompletedRequest;
using qv::kit::ContentType;
using qv::kit::DeferredResponse;
using qv::kit::DeferredStream;
using qv::kit::ErrorResponse;
using qv::kit::Hook;
using qv::kit::HookThread;
using qv::kit::HttpError;
using qv::kit::Request;
using qv::kit::ResponseHead;
using qv::kit::Router;
using qv::kit::websocket::SessionHandler;
using qv::kit::websocket::WebSocketOptions;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

struct Trail
{
    std::string text;
};

// Appends to the trail of the request.
Hook leaving(const std::string& mark)
{
    return [mark](Request& request) {
        const Trail* const trail = request.findAttached<Trail>();
        request.attach(Trail{(trail ? trail->text : "") + mark});
    };
}

void replyTrail(Request& request)
{
    request.reply(request.attached<Trail>().text);
}

std::string webSocketRequest(const std::string& target)
{
    return getRequest(target, "Connection: Upgrade\r\nUpgrade: websocket\r\n"
                              "Sec-WebSocket-Version: 13\r\n"
                              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n");
}

AfterHook marking(const std::string& value)
{
    return [value](const Request&, int status, ResponseHead& head) {
        head.addHeader("X-Hook", value + std::to_string(status));
    };
}

TEST(KitHooks, RunBeforeTheHandlersOfTheirPrefixInOrder)
{
    KitTestServer server([](Router& router) {
        router.before("/", leaving("1"), HookThread::Daemon);
        router.before("/a/b", leaving("2"));
        router.before("/a", leaving("3"), HookThread::Daemon);
        router.before("/{any}/b", leaving("4"));
        router.get("/", replyTrail);
        router.get("/a", replyTrail);
        router.get("/a/b", replyTrail);
        router.get("/a/c", replyTrail).nonBlocking();
        router.get("/a/b/c", replyTrail).nonBlocking();
        router.get("/z/b", replyTrail);
        router.put("/a/b", replyTrail);
        router
            .put("/a/b/s",
                 [](Request& request) {
                     request.reply(request.attached<Trail>().text + request.readAll(100));
                 })
            .streaming();
    });
    const std::pair<std::string, const char*> rows[] = {
        {getRequest("/"), "1"},
        {getRequest("/a"), "13"},
        {getRequest("/a/b"), "1234"},
        {getRequest("/%61/b"), "1234"},
        {getRequest("/a/c"), "13"},
        {getRequest("/a/b/c"), "1234"},
        {getRequest("/z/b"), "14"},
        {withBody("PUT", "/a/b", "body"), "1234"},
        {withBody("PUT", "/a/b/s", "body"), "1234body"},
        {chunkedHead("PUT", "/a/b") + chunk("body") + "0\r\n\r\n", "1234"},
    };
    RawClient client(server.port());
    for (int round = 0; round < 3; ++round) {
        for (const auto& [bytes, trail] : rows) {
            SCOPED_TRACE(bytes);
            ASSERT_TRUE(client.send(bytes));
            const auto response = client.receive();
            ASSERT_TRUE(response);
            EXPECT_EQ(response->body, trail);
        }
    }
    EXPECT_TRUE(server.stop());
    EXPECT_EQ(server.server().openRequests(), 0u);
}

TEST(KitHooks, ThatRespondEndTheChain)
{
    std::atomic<int> further{0};
    for (const HookThread thread : {HookThread::Daemon, HookThread::Worker}) {
        SCOPED_TRACE(static_cast<int>(thread));
        KitTestServer server([&](Router& router) {
            router.before(
                "/",
                [](Request& request) {
                    request.setHeader("X-Set", "yes");
                    const std::string what = request.query("do");
                    if (what == "reply")
                        request.reply(202, "hook");
                    else if (what == "error")
                        request.replyError(409, "hook");
                    else if (what == "throw")
                        throw HttpError(401).setHeader("WWW-Authenticate", "Basic");
                    else if (what == "fail")
                        throw std::runtime_error("on purpose");
                    else if (what == "defer")
                        request.defer().reply(203, "later");
                    else if (what == "drop")
                        static_cast<void>(request.defer());
                    else if (what == "body")
                        request.body();
                    else if (what == "stream")
                        request.startStream();
                },
                thread);
            router.before(
                "/", [&](Request&) { ++further; }, thread);
            router.get("/", [](Request& request) { request.reply("handler"); });
            router.put("/", [](Request& request) { request.reply("handler"); });
        });
        const std::pair<const char*, int> rows[] = {{"reply", 202}, {"error", 409}, {"throw", 401},
                                                    {"fail", 500},  {"defer", 203}, {"drop", 500},
                                                    {"body", 500},  {"stream", 500}};
        for (const auto& [what, status] : rows) {
            SCOPED_TRACE(what);
            const std::string target = std::string("/?do=") + what;
            EXPECT_EQ(server.get(target).status, status);
            EXPECT_EQ(server.ask(withBody("PUT", target, "body")).status, status);
            // No route.
            EXPECT_EQ(server.get(std::string("/none?do=") + what).status, status);
            EXPECT_EQ(server.ask(withBody("PUT", std::string("/none?do=") + what, "b")).status,
                      status);
        }
        EXPECT_EQ(further, 0);
        const RawResponse response = server.get("/");
        EXPECT_EQ(response.body, "handler");
        EXPECT_EQ(response.value("X-Set"), "yes");
        EXPECT_EQ(server.get("/none").status, 404);
        EXPECT_EQ(server.ask(withBody("PUT", "/none", "body")).status, 404);
        EXPECT_EQ(server.ask(withBody("DELETE", "/", "body")).status, 405);
        EXPECT_EQ(further, 4);
        further = 0;
        EXPECT_TRUE(logged("GET /: the hook failed: on purpose"));
        EXPECT_TRUE(
            logged("GET /: the hook failed: a hook neither reads the body nor starts a stream"));
    }
}

// The client has sent its head only, and waits for "100 Continue".
TEST(KitHooks, OnTheDaemonRefuseAnUploadBeforeItsBody)
{
    KitTestServer server([](Router& router) {
        router.before(
            "/", [](Request&) { throw HttpError(401); }, HookThread::Daemon);
        router.put("/", [](Request& request) { request.reply("handler"); });
        router.put("/s", [](Request& request) { request.reply("handler"); }).streaming();
    });
    for (const char* target : {"/", "/s", "/none"}) {
        SCOPED_TRACE(target);
        RawClient client(server.port());
        ASSERT_TRUE(client.send(std::string("PUT ") + target +
                                " HTTP/1.1\r\nHost: x\r\nContent-Length: 1000\r\n"
                                "Expect: 100-continue\r\n\r\n"));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 401);
    }
}

// The body never comes whole; one worker serves them all.
TEST(KitHooks, OnAWorkerRefuseAnUploadWhileItIsReceived)
{
    auto options = kitOptions(1);
    options.maxBodyBytes = 10000000;
    KitTestServer server(
        [](Router& router) {
            router.before("/", [](Request& request) {
                if (request.header("X-Let").empty())
                    throw HttpError(401);
            });
            router.put("/", [](Request& request) {
                request.reply(std::to_string(request.body().size()));
            });
        },
        options);
    std::vector<std::unique_ptr<RawClient>> slow;
    for (int i = 0; i < 5; ++i) {
        slow.push_back(std::make_unique<RawClient>(server.port()));
        ASSERT_TRUE(slow.back()->send("PUT / HTTP/1.1\r\nHost: x\r\nX-Let: in\r\n"
                                      "Content-Length: 4\r\n\r\nab"));
    }
    for (const char* target : {"/", "/none"}) {
        SCOPED_TRACE(target);
        RawClient client(server.port());
        ASSERT_TRUE(client.send(headOf("PUT", target, 1000) + "begun"));
        // It is refused at once, or the rest is discarded first.
        static_cast<void>(client.send(std::string(995, 'x')));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 401);
        client.close();
        ASSERT_TRUE(waitUntil([&] { return server.server().openRequests() == 5; }));
    }
    for (const auto& client : slow) {
        ASSERT_TRUE(client->send("cd"));
        const auto response = client->receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->body, "4");
    }
}

// The hook and the end of the body in both orders.
TEST(KitHooks, HandTheRequestOnWhenHookAndBodyAreComplete)
{
    Channel<int> begun;
    Channel<int> released;
    auto options = kitOptions(2);
    options.maxBodyBytes = 1000000;
    KitTestServer server(
        [&](Router& router) {
            router.before("/", [&](Request& request) {
                if (request.query("wait").empty())
                    return;
                begun.push(1);
                EXPECT_TRUE(released.pop());
            });
            router.put("/", [](Request& request) {
                request.reply(std::to_string(request.body().size()));
            });
        },
        options);
    const std::string body = pattern(900000);
    for (int round = 0; round < 20; ++round) {
        RawClient client(server.port());
        ASSERT_TRUE(client.send(headOf("PUT", "/?wait=1", body.size())));
        ASSERT_TRUE(begun.pop());
        if (round % 2 == 0) {
            ASSERT_TRUE(client.send(body));
            EXPECT_TRUE(client.waitUntilTaken());
            released.push(1);
        } else {
            ASSERT_TRUE(client.send(body.substr(0, 300000)));
            released.push(1);
            ASSERT_TRUE(client.send(body.substr(300000)));
        }
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->body, std::to_string(body.size()));
    }
    // A client that leaves meanwhile.
    {
        RawClient client(server.port());
        ASSERT_TRUE(client.send(headOf("PUT", "/?wait=1", 10) + "12"));
        ASSERT_TRUE(begun.pop());
        client.reset();
        released.push(1);
    }
    EXPECT_TRUE(waitUntil([&] { return server.server().openRequests() == 0; }));
    EXPECT_EQ(server.ask(withBody("PUT", "/", body)).body, std::to_string(body.size()));
    EXPECT_EQ(server.ask(headOf("PUT", "/", 1000001)).status, 413);
}

TEST(KitHooks, AfterHandlersSeeEveryResponse)
{
    std::mutex mutex;
    std::vector<DeferredResponse> waiting;
    KitTestServer server([&](Router& router) {
        router.after("/", marking("all "));
        router.after("/a", marking("a "));
        router.get("/a/reply", [](Request& request) { request.reply(204); });
        router.get("/a/inline", [](Request& request) { request.reply("1"); }).nonBlocking();
        router.get("/a/error", [](Request&) { throw HttpError(409); });
        router.get("/a/fail", [](Request&) { throw std::runtime_error("on purpose"); });
        router.get("/a/nothing", [](Request&) {});
        router.get("/a/stream", [](Request& request) {
            request.startStream();
            request.write("stream");
        });
        router.get("/a/later", [](Request& request) { request.defer().reply(203, "later"); });
        router.get("/a/later-stream", [](Request& request) {
            DeferredStream stream = request.defer().startStream(ContentType::text());
            stream.write("s");
            stream.finish();
        });
        router
            .get("/a/late",
                 [&](Request& request) {
                     const std::lock_guard locker(mutex);
                     waiting.push_back(request.defer());
                 })
            .responseTimeout(std::chrono::milliseconds(20));
        router.put("/a/body", [](Request& request) { request.reply("1"); }).maxBodyBytes(3);
        router.get("/b", [](Request& request) { request.reply("b"); });
        router.webSocket("/a/ws", WebSocketOptions(),
                         [](Request&) { return std::make_shared<SessionHandler>(); });
    });
    const std::pair<std::string, const char*> rows[] = {
        {getRequest("/a/reply"), "204"},
        {"HEAD /a/reply HTTP/1.1\r\nHost: x\r\n\r\n", "204"},
        {getRequest("/a/inline"), "200"},
        {getRequest("/a/error"), "409"},
        {getRequest("/a/fail"), "500"},
        {getRequest("/a/nothing"), "500"},
        {getRequest("/a/stream"), "200"},
        {getRequest("/a/later"), "203"},
        {getRequest("/a/later-stream"), "200"},
        {getRequest("/a/late"), "503"},
        {withBody("PUT", "/a/body", "1234"), "413"},
        {getRequest("/a/none"), "404"},
        {withBody("PUT", "/a/reply", ""), "405"},
        {"OPTIONS /a/reply HTTP/1.1\r\nHost: x\r\n\r\n", "204"},
        {getRequest("/a/ws"), "426"},
    };
    for (const auto& [bytes, status] : rows) {
        SCOPED_TRACE(bytes);
        EXPECT_THAT(server.ask(bytes).values("X-Hook"),
                    ElementsAre(std::string("all ") + status, std::string("a ") + status));
    }
    EXPECT_THAT(server.get("/b").values("X-Hook"), ElementsAre("all 200"));
    // The path of a malformed request is not known.
    EXPECT_THAT(server.get("/a/%00").values("X-Hook"), ElementsAre("all 400"));
    RawClient client(server.port());
    ASSERT_TRUE(client.send(webSocketRequest("/a/ws")));
    const auto head = client.receiveHead();
    ASSERT_TRUE(head);
    EXPECT_EQ(head->status, 101);
    EXPECT_THAT(head->values("X-Hook"), ElementsAre("all 101", "a 101"));
}

TEST(KitHooks, AfterHandlersThatFailMakeTheResponse500)
{
    KitTestServer server([](Router& router) {
        router.after("/", [](const Request& request, int status, ResponseHead& head) {
            head.setHeader("X-Hook", "yes");
            if (status == 500)
                return;
            if (request.query("do") == "throw")
                throw std::runtime_error("on purpose");
            head.setHeader("X-Bad", "a\nb");
        });
        router.get("/reply", [](Request& request) { request.reply("secret"); });
        router.get("/stream", [](Request& request) {
            EXPECT_FALSE(request.startStream());
            EXPECT_FALSE(request.write("secret"));
        });
        router.get("/later", [](Request& request) {
            DeferredStream stream = request.defer().startStream(ContentType::text());
            EXPECT_EQ(stream.write("secret"), qv::kit::StreamWrite::Gone);
        });
        router.webSocket("/ws", WebSocketOptions(),
                         [](Request&) { return std::make_shared<SessionHandler>(); });
    });
    for (const char* target : {"/reply", "/stream", "/later", "/ws", "/none"}) {
        for (const char* query : {"?do=throw", ""}) {
            SCOPED_TRACE(std::string(target) + query);
            const RawResponse response = server.ask(webSocketRequest(std::string(target) + query));
            EXPECT_EQ(response.status, 500);
            EXPECT_EQ(response.body, R"({"title":"Internal Server Error","status":500})");
            EXPECT_EQ(response.value("X-Hook"), "");
        }
    }
    EXPECT_TRUE(logged("GET /reply: the hook after the handler failed: on purpose"));
    EXPECT_TRUE(logged("GET /reply: the value of the header X-Bad has a control character: "
                       "\"a\nb\""));
}

TEST(KitHooks, ForErrorsReplaceTheBody)
{
    KitTestServer server([](Router& router) {
        router.onError([](const Request& request, ErrorResponse& response) {
            if (request.query("do") == "fail")
                throw std::runtime_error("on purpose");
            if (request.query("do") == "type")
                response.type = ContentType("a\nb");
            response.body = std::to_string(response.status) + "|" + response.message + "|" +
                            request.path() + "|" + response.type.value() + "|" + response.body;
            response.type = request.query("do") == "type" ? response.type : ContentType::text();
        });
        router.get("/a", [](Request&) { throw HttpError(409, "mine"); });
        router.get("/b", [](Request& request) { request.replyError(410, "its"); });
        router.get("/c", [](Request& request) { request.reply(404, "own"); });
    });
    const std::string problem = R"(|application/problem+json|{"title":")";
    const std::string conflict = R"({"title":"Conflict","status":409,"detail":"mine"})";
    EXPECT_EQ(server.get("/a").body, "409|mine|/a|application/problem+json|" + conflict);
    EXPECT_EQ(server.get("/a").value("Content-Type"), "text/plain; charset=utf-8");
    EXPECT_THAT(server.get("/b").body, HasSubstr("410|its|/b" + problem + "Gone"));
    EXPECT_EQ(server.get("/c").body, "own");
    EXPECT_THAT(server.get("/none").body, HasSubstr("404||/none" + problem));
    EXPECT_EQ(server.get("/a?do=fail").body, conflict);
    EXPECT_EQ(server.get("/a?do=type").body, conflict);
    EXPECT_EQ(server.get("/a?do=type").status, 409);
    EXPECT_TRUE(logged("GET /a: the hook onError failed: on purpose"));
}

TEST(KitHooks, AreWithinTheLimitOfTheResponse)
{
    Channel<int> leave;
    std::atomic<bool> isHandled{false};
    std::vector<std::shared_ptr<DeferredResponse>> kept;
    KitTestServer server([&](Router& router) {
        router.before("/slow", [&](Request&) { leave.pop(); });
        router.before(
            "/kept",
            [&](Request& request) {
                kept.push_back(std::make_shared<DeferredResponse>(request.defer()));
            },
            HookThread::Daemon);
        const auto handle = [&](Request& request) {
            isHandled = true;
            request.reply("late");
        };
        router.put("/slow", handle).responseTimeout(std::chrono::milliseconds(20));
        router.get("/kept", handle).responseTimeout(std::chrono::milliseconds(20));
    });
    EXPECT_EQ(server.ask(withBody("PUT", "/slow", "body")).status, 503);
    EXPECT_EQ(server.get("/kept").status, 503);
    leave.push(1);
    EXPECT_TRUE(server.stop());
    EXPECT_FALSE(isHandled);
}

// Of a daemon's hook that defers: from the end of the body, however large it is. Of a streaming
// route: from its head.
TEST(KitHooks, ThatDeferAreWithinTheLimitOfTheResponse)
{
    Channel<std::shared_ptr<DeferredResponse>> kept;
    auto options = kitOptions(1);
    options.uploadQueueBytes = 4096;
    KitTestServer server(
        [&](Router& router) {
            router.before(
                "/",
                [&](Request& request) {
                    kept.push(std::make_shared<DeferredResponse>(request.defer()));
                },
                HookThread::Daemon);
            const auto handle = [](Request& request) { request.reply("late"); };
            router.put("/whole", handle).responseTimeout(std::chrono::milliseconds(20));
            router.put("/stream", handle)
                .streaming()
                .responseTimeout(std::chrono::milliseconds(20));
        },
        options);
    EXPECT_EQ(server.ask(withBody("PUT", "/whole", "body")).status, 503);
    EXPECT_EQ(server.ask(withBody("PUT", "/whole", pattern(1 << 20))).status, 503);
    EXPECT_EQ(server.ask(chunkedHead("PUT", "/whole") + chunk("body") + chunk("")).status, 503);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(kept.pop());
    RawClient slow(server.port());
    ASSERT_TRUE(slow.send(headOf("PUT", "/stream", 4) + "bo"));
    const auto later = kept.pop();
    ASSERT_TRUE(later);
    EXPECT_TRUE(waitUntil([&] { return !(*later)->isOpen(); }));
    ASSERT_TRUE(slow.send("dy"));
    const auto response = slow.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 503);
}

TEST(KitHooks, ThatDeferMaySetAnotherLimit)
{
    Channel<std::shared_ptr<DeferredResponse>> kept;
    KitTestServer server([&](Router& router) {
        router.before(
            "/",
            [&](Request& request) {
                auto later = std::make_shared<DeferredResponse>(request.defer());
                if (request.path() == "/own")
                    later->setDeadline(std::chrono::milliseconds(40), 504);
                else if (request.path() == "/none")
                    later->setDeadline(std::chrono::milliseconds(0));
                kept.push(later);
            },
            HookThread::Daemon);
        const auto handle = [](Request&) {};
        for (const char* path : {"/own", "/none", "/usual"})
            router.put(path, handle).responseTimeout(std::chrono::milliseconds(20));
    });
    for (const char* body : {"", "body"}) {
        SCOPED_TRACE(body);
        EXPECT_EQ(server.ask(withBody("PUT", "/own", body)).status, 504);
        kept.pop();
        RawClient waiting(server.port());
        ASSERT_TRUE(waiting.send(withBody("PUT", "/none", body)));
        const auto none = kept.pop();
        ASSERT_TRUE(none);
        // Its limit has passed before this one.
        EXPECT_EQ(server.ask(withBody("PUT", "/usual", body)).status, 503);
        kept.pop();
        EXPECT_TRUE((*none)->reply("at last"));
        const auto response = waiting.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->body, "at last");
    }
}

TEST(KitHooks, ThatDeferTakeTheBodyOfAStreamingRoute)
{
    const auto receive = [](Request& request) {
        auto later = std::make_shared<DeferredResponse>(request.defer());
        auto text = std::make_shared<std::string>();
        later->onBody([text](std::string_view piece) { text->append(piece); },
                      [later, text] { later->reply(*text); });
    };
    KitTestServer server([&](Router& router) {
        router.before("/daemon", receive, HookThread::Daemon);
        router.before("/worker", receive, HookThread::Worker);
        const auto handle = [](Request& request) { request.reply("handler"); };
        for (const std::string path : {"/daemon", "/worker"}) {
            router.put(path + "/stream", handle).streaming();
            router.put(path + "/whole", handle);
        }
    });
    const std::string body = pattern(1 << 20);
    for (const std::string path : {"/daemon", "/worker"}) {
        SCOPED_TRACE(path);
        EXPECT_TRUE(server.ask(withBody("PUT", path + "/stream", body)).body == body);
        EXPECT_EQ(server.ask(withBody("PUT", path + "/stream", "")).body, "");
        EXPECT_EQ(server.ask(withBody("PUT", path + "/whole", "body")).status, 500);
        EXPECT_TRUE(logged("PUT " + path +
                           "/whole: the hook failed: onBody in a route that is not "
                           "streaming"));
        EXPECT_EQ(server.ask(withBody("PUT", path + "/none", "body")).status, 500);
    }
}

TEST(KitHooks, RunForASegmentWithAnEncodedSlash)
{
    KitTestServer server([](Router& router) {
        const Hook refusing = [](Request&) { throw HttpError(401); };
        router.before("/teams/{id}", refusing, HookThread::Daemon);
        router.before("/{tenant}/admin", refusing);
        const auto open = [](Request& request) { request.reply("open"); };
        router.get("/teams/{id}", open);
        router.get("/{tenant}/admin/users", open);
    });
    for (const char* target :
         {"/teams/7", "/teams/%2F", "/teams/%2f%2f", "/x/admin/users", "/x%2Fy/admin/users",
          "/%2F/admin/users", "/%2f/%61dmin/users", "/x/%61dmin/users"})
        EXPECT_EQ(server.get(target).status, 401) << target;
}

TEST(KitHooks, OfAGroupNeedPathsBelowIt)
{
    KitTestServer server([](Router& router) {
        const auto open = [](Request& request) { request.reply("open"); };
        const auto admin = router.group("/admin");
        EXPECT_THROW(admin.get("users", open), std::invalid_argument);
        EXPECT_THROW(admin.get("", open), std::invalid_argument);
        EXPECT_THROW(admin.group("in"), std::invalid_argument);
        EXPECT_THROW(admin.directory("static", "/"), std::invalid_argument);
        EXPECT_THROW(router.group("admin"), std::invalid_argument);
    });
    EXPECT_EQ(server.get("/adminusers").status, 404);
}

TEST(KitHooks, OfAGroupServeItsRoutesOnly)
{
    KitTestServer server([](Router& router) {
        auto admin = router.group("/admin/");
        admin.before(leaving("1"));
        admin.get("/", replyTrail);
        admin.get("/{id}", [](Request& request) {
            request.reply(request.attached<Trail>().text + request.pathParameter("id"));
        });
        admin.post("/x", replyTrail);
        admin.put("/x", replyTrail);
        admin.del("/x", replyTrail);
        admin.patch("/x", replyTrail);
        admin.any("/any", replyTrail);
        auto inner = admin.group("/in");
        inner.use({leaving("2"), marking("inner "), HookThread::Daemon});
        inner.get("/{rest*}", replyTrail);
        admin.after(marking("admin "));
        admin.webSocket("/ws", WebSocketOptions(), [](Request& request) {
            EXPECT_EQ(request.attached<Trail>().text, "1");
            return std::make_shared<SessionHandler>();
        });
        router.get("/open", [](Request& request) {
            EXPECT_EQ(request.findAttached<Trail>(), nullptr);
            request.attached<Trail>();
        });
    });
    EXPECT_EQ(server.get("/admin").body, "1");
    EXPECT_EQ(server.get("/admin/7").body, "17");
    for (const char* method : {"POST", "PUT", "DELETE", "PATCH"})
        EXPECT_EQ(server.ask(withBody(method, "/admin/x", "")).body, "1") << method;
    EXPECT_EQ(server.get("/admin/any").body, "1");
    const RawResponse response = server.get("/admin/in/a/b");
    EXPECT_EQ(response.body, "12");
    EXPECT_THAT(response.values("X-Hook"), ElementsAre("inner 200", "admin 200"));
    RawClient client(server.port());
    ASSERT_TRUE(client.send(webSocketRequest("/admin/ws")));
    const auto head = client.receiveHead();
    ASSERT_TRUE(head);
    EXPECT_EQ(head->status, 101);
    const RawResponse open = server.get("/open");
    EXPECT_EQ(open.status, 500);
    EXPECT_THAT(open.values("X-Hook"), IsEmpty());
}

TEST(KitHooks, AreNotAddedAfterTheStart)
{
    KitTestServer server(
        [](Router& router) { router.get("/", [](Request& request) { request.reply("1"); }); });
    Router& router = server.server().router();
    router.before("/", [](Request&) { throw HttpError(401); });
    router.after("/", marking(""));
    router.onError([](const Request&, ErrorResponse&) {});
    EXPECT_EQ(server.get("/").status, 200);
    for (const char* what :
         {"a hook before handlers", "a hook after handlers", "a hook for errors"})
        EXPECT_TRUE(logged(std::string(what) + ": not added: the server has been started"));
    EXPECT_THROW(router.before("admin", [](Request&) {}), std::invalid_argument);
}

// A deadline responds while the handler goes on: hooks read its values.
TEST(KitHooks, ReadValuesThatTheHandlerStillAttaches)
{
    std::atomic<bool> isOver{false};
    KitTestServer server([&](Router& router) {
        router.after("/", [&](const Request& request, int, ResponseHead& head) {
            const Trail* const trail = request.findAttached<Trail>();
            head.setHeader("X-Trail", trail ? trail->text : "none");
            EXPECT_TRUE(request.pathParameter("rest") == "a/b");
            isOver = true;
        });
        router
            .get("/{rest*}",
                 [&](Request& request) {
                     while (!isOver) {
                         request.attach(Trail{"some"});
                         std::this_thread::yield();
                     }
                     EXPECT_TRUE(request.pathParameter("rest") == "a/b");
                 })
            .responseTimeout(std::chrono::milliseconds(10));
    });
    const RawResponse response = server.get("/a/b");
    EXPECT_EQ(response.status, 503);
    EXPECT_EQ(response.value("X-Trail"), "some");
}

}  // namespace
}  // namespace integration
