// The kit while memory and threads run out.

#include "failure_injection/Support.h"
#include "kit/Support.h"
#include "support/CapturedLog.h"
#include "support/FakeTime.h"
#include "support/TestRequest.h"
#include "websocket/Support.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/Wendrel.h>
#include <Wendrel/kit/Application.h>
#include <Wendrel/kit/Request.h>
#include <Wendrel/kit/RequestReaper.h>
#include <Wendrel/kit/ResponseHead.h>
#include <Wendrel/kit/Router.h>
#include <Wendrel/kit/Server.h>
#include <Wendrel/kit/WebSocketHub.h>
#include <Wendrel/kit/WorkerPool.h>

#include <support/Waiting.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qv::tests
{
namespace
{

using kit::HubConnection;
using kit::Request;
using kit::RequestReaper;
using kit::ResponseHead;
using kit::Router;
using kit::WebSocketHub;
using kit::WorkerPool;
using kit::tests::Complete;
using kit::tests::CountedRequest;
using kit::tests::ServedRequest;
using testing::SizeIs;

class KitFailures : public testing::Test
{
protected:
    KitFailures() { HttpBaseRequest::InitRequestTypes(); }
    ~KitFailures() override { HttpBaseRequest::ClearRequestTypes(); }
};

// The head.

std::string Contents(ResponseHead& head)
{
    std::string text = std::to_string(head.getStatusCode());
    for (const auto& [key, header] : head.getHeaders())
        text += "\n" + key + " = " + header.first + ": " + header.second;
    for (const auto& [name, value] : head.getCookies())
        text += "\n" + name + "=" + value;
    return text;
}

TEST_F(KitFailures, AHeadIsFilledWholeOrNotAtAll)
{
    const auto make = [] {
        auto head = std::make_unique<ResponseHead>();
        head->addCookie("known", "1");
        return head;
    };
    FailEachCallOf({
        AllOrNothing(
            "ResponseHead: new header", make,
            [](ResponseHead& h) { h.setHeader("X-A-Header-With-A-Long-Name", kLongText); },
            &Contents),
        AllOrNothing(
            "ResponseHead: known header", make,
            [](ResponseHead& h) { h.setContentType(kLongText); }, &Contents),
        AllOrNothing(
            "ResponseHead: new cookie", make,
            [](ResponseHead& h) { h.addCookie("a cookie with a long name", kLongText); },
            &Contents),
        AllOrNothing(
            "ResponseHead: known cookie", make,
            [](ResponseHead& h) { h.addCookie("known", kLongText); }, &Contents),
    });
}

// The router.

// The response of the handler that the router chooses.
std::string Routed(const Router& router, const char* method, const char* target)
{
    ServedRequest request(method, target);
    router.dispatch(request);
    return std::to_string(request.getHead().getStatusCode()) + " " +
           request.getHead().getHeader("allow") + " " + request.sent();
}

Router::Handler Replying(const std::string& text)
{
    return [text](Request& request) { request.reply(200, "text/plain", text + kLongText); };
}

TEST_F(KitFailures, ARouteIsAddedWholeOrNotAtAll)
{
    const auto make = [] {
        auto router = std::make_unique<Router>();
        router->add(HttpBaseRequest::GET, "/known/{name}", Replying("before"));
        return router;
    };
    const auto look = [](Router& router) {
        std::string text;
        for (const char* method : {"GET", "PUT", "POST"}) {
            for (const char* target : {"/known/x", "/a/new/pattern/of/some/length"})
                text += Routed(router, method, target) + "\n";
        }
        return text;
    };
    const int methods = HttpBaseRequest::GET | HttpBaseRequest::PUT | HttpBaseRequest::POST;
    const Router::Handler handler = Replying("after");
    FailEachCallOf({
        AllOrNothing(
            "Router: new pattern", make,
            [&](Router& r) {
                r.add(methods, "/a/new/pattern/{of some length}/{and more*}", handler);
            },
            look),
        AllOrNothing(
            "Router: known pattern", make,
            [&](Router& r) { r.add(methods, "/known/{with another name}", handler); }, look),
    });
}

TEST_F(KitFailures, ARequestThatCouldNotBeRoutedCanBeFailed)
{
    Router router;
    router.add(HttpBaseRequest::GET, "/files/{a name of some length}/{the rest of it*}",
               [](Request& request) {
                   request.reply(200, "text/plain", request.getPathParameter("the rest of it"));
               });
    const struct
    {
        const char* name;
        const char* method;
        const char* target;
        const char* body;
    } rows[] = {
        {"Router: dispatch", "GET", "/files/a-name-of-some-length/and/the/rest", "and/the/rest"},
        {"Router: not found", "GET", "/", "There is nothing at this address."},
        {"Router: not allowed", "POST", "/files/a/b", "This method is not allowed here."},
        {"Router: bad request", "GET", "/a b", "fail to parse request URI"},
    };
    for (const auto& row : rows) {
        FailEachCall(row.name, [&](Attempt& attempt) {
            ServedRequest request(row.method, row.target);
            const bool done = attempt([&] { router.dispatch(request); });
            if (!done) {
                EXPECT_FALSE(request.isAnnounced());
                request.failWith("The server failed.");
            }
            EXPECT_TRUE(request.isAnnounced());
            EXPECT_THAT(request.sent(), testing::HasSubstr(done ? row.body : "The server failed."));
        });
    }
}

// The request.

TEST_F(KitFailures, AResponseIsSentOnceAndWhole)
{
    const struct
    {
        const char* name;
        std::function<void(Request&)> reply;
        std::string body;
    } rows[] = {
        {"Request: reply", [](Request& r) { r.reply(200, "text/html; charset=utf-8", kLongText); },
         kLongText},
        {"Request: replyError", [](Request& r) { r.replyError(404, kLongText); },
         "{\"error\":\"" + kLongText + "\",\"status\":404}"},
        {"Request: failWith", [](Request& r) { r.failWith(kLongText); },
         "{\"error\":\"" + kLongText + "\",\"status\":500}"},
    };
    for (const auto& row : rows) {
        FailEachCall(row.name, [&](Attempt& attempt) {
            ServedRequest request;
            if (!attempt([&] { row.reply(request); })) {
                EXPECT_FALSE(request.isAnnounced());
                EXPECT_TRUE(request.reply(200, "text/html; charset=utf-8", row.body));
            }
            EXPECT_TRUE(request.isAnnounced());
            EXPECT_EQ(request.sent(), row.body);
        });
    }
}

TEST_F(KitFailures, AStreamGoesOnWhereItStood)
{
    FailEachCallOf({{"Request: stream",
                     [](Attempt& attempt) {
                         ServedRequest request;
                         const std::string piece = PatternBytes(100000);
                         EXPECT_TRUE(request.startStream());
                         bool taken = false;
                         const bool done =
                             attempt([&] { taken = request.write(piece.data(), piece.size()); });
                         EXPECT_EQ(taken, done);
                         request.finish();
                         const std::string sent = request.sent();
                         // Pieces of 65536 bytes, each of them whole or not at all.
                         EXPECT_TRUE(sent == piece ||
                                     (!done && (sent.empty() || sent == piece.substr(0, 65536))))
                             << sent.size();
                     }},
                    {"Request: abandon", [](Attempt& attempt) {
                         ServedRequest request;
                         if (!attempt([&] { request.abandon(kLongText); })) {
                             EXPECT_FALSE(request.isAnnounced());
                             request.abandon(kLongText);
                         }
                         EXPECT_TRUE(request.isAnnounced());
                         EXPECT_EQ(request.getResponseDevice().getDeviceErrorMsg(), kLongText);
                     }}});
}

TEST_F(KitFailures, ABodyIsReadAsFarAsThereIsMemory)
{
    FailEachCallOf({{"Request: readWholeBody", [](Attempt& attempt) {
                         ServedRequest request("POST");
                         HttpReceiveDevice& device = request.getReceiveDevice();
                         const std::string body = PatternBytes(200000);
                         {
                             qvMutexLocker locker(&impl::DispatchAccess::mutex(device));
                             device.writeBytes(body.data(), body.size());
                             device.endFeed();
                         }
                         std::string got;
                         const bool done = attempt([&] {
                             EXPECT_EQ(request.readWholeBody(1 << 20, got),
                                       kit::BodyResult::Complete);
                         });
                         EXPECT_EQ(got == body, done);
                         EXPECT_TRUE(body.compare(0, got.size(), got) == 0);
                         EXPECT_TRUE(request.reply(200, "text/plain", "read"));
                     }}});
}

// Tasks.

TEST_F(KitFailures, APoolHasAllItsThreadsOrNone)
{
    FailEachCallOf({{"WorkerPool: made", [](Attempt& attempt) {
                         std::unique_ptr<WorkerPool> pool;
                         const bool done =
                             attempt([&] { pool = std::make_unique<WorkerPool>(3, 10); });
                         EXPECT_EQ(done, !attempt.hasFailed());
                         if (!done)
                             pool = std::make_unique<WorkerPool>(3, 10);
                         std::atomic<int> runs{0};
                         for (int i = 0; i < 3; ++i)
                             EXPECT_TRUE(pool->submit([&] { ++runs; }));
                         pool->stop();
                         EXPECT_EQ(runs, 3);
                     }}});
}

TEST_F(KitFailures, ATaskIsQueuedOrNot)
{
    FailEachCallOf({{"WorkerPool: submit", [](Attempt& attempt) {
                         WorkerPool pool(1, 1000);
                         std::atomic<int> runs{0};
                         int queued = 0;
                         // More than one block of the queue.
                         attempt([&] {
                             for (int i = 0; i < 40; ++i) {
                                 const std::string text = kLongText;
                                 pool.submit([&runs, text] { ++runs; });
                                 ++queued;
                             }
                         });
                         EXPECT_TRUE(pool.submit([&] { ++runs; }));
                         pool.stop();
                         EXPECT_EQ(runs, queued + 1);
                     }}});
}

// Requests until their end.

TEST_F(KitFailures, ARequestIsNotDeletedBeforeItIsCompleted)
{
    FailEachCallOf({{"RequestReaper: add",
                     [](Attempt& attempt) {
                         RequestReaper reaper;
                         auto request = std::make_unique<CountedRequest>();
                         kit::Request* added = nullptr;
                         const bool done =
                             attempt([&] { added = &reaper.add(std::move(request)); });
                         EXPECT_EQ(reaper.getOpenCount(), done ? 1u : 0u);
                         EXPECT_EQ(CountedRequest::sAlive, done ? 1 : 0);
                         if (!done)
                             added = &reaper.add(std::make_unique<CountedRequest>());
                         reaper.finished(*added);
                         EXPECT_EQ(CountedRequest::sAlive, 1);
                         Complete(*added);
                         EXPECT_TRUE(reaper.waitUntilEmpty(kLimit));
                         EXPECT_EQ(CountedRequest::sAlive, 0);
                     }},
                    {"RequestReaper: finished, completed",
                     [](Attempt& attempt) {
                         RequestReaper reaper;
                         kit::Request& request = reaper.add(std::make_unique<CountedRequest>());
                         EXPECT_TRUE(attempt([&] { reaper.finished(request); }));
                         // The daemon may still use it.
                         EXPECT_EQ(CountedRequest::sAlive, 1);
                         EXPECT_TRUE(attempt([&] { Complete(request); }));
                         EXPECT_TRUE(reaper.waitUntilEmpty(kLimit));
                         EXPECT_EQ(CountedRequest::sAlive, 0);
                     },
                     Points::None},
                    {"RequestReaper: made", [](Attempt& attempt) {
                         const bool done = attempt([] { RequestReaper reaper; });
                         EXPECT_EQ(done, !attempt.hasFailed());
                     }}});
}

class CountingApplication : public kit::Application
{
public:
    explicit CountingApplication(std::atomic<int>& alive) : Application(Smallest()), mAlive(alive)
    {
        ++mAlive;
    }
    ~CountingApplication() override { --mAlive; }

private:
    static Options Smallest()
    {
        Options options;
        options.workers = 1;
        return options;
    }

    Request* newRequest() override { return new CountedRequest; }

    std::atomic<int>& mAlive;
};

TEST_F(KitFailures, ARequestThatIsNotCountedIsNotMade)
{
    FailEachCallOf({{"Application: createRequest", [](Attempt& attempt) {
                         std::atomic<int> alive{0};
                         CountingApplication application(alive);
                         auto& base = static_cast<http::HttpServerImpl&>(application);
                         HttpBaseRequest* request = nullptr;
                         const bool done = attempt([&] { request = base.createRequest(); });
                         EXPECT_EQ(request != nullptr, done);
                         EXPECT_EQ(CountedRequest::sAlive, done ? 1 : 0);
                     }}});
}

TEST(KitServerFailures, AServerIsMadeWholeOrNotAtAll)
{
    FailEachCallOf({{"Server: made", [](Attempt& attempt) {
                         std::atomic<int> alive{0};
                         auto application = std::make_unique<CountingApplication>(alive);
                         std::unique_ptr<kit::Server> server;
                         // A sibling library that was not reached says so.
                         testing::internal::CaptureStderr();
                         const bool done = attempt([&] {
                             server = std::make_unique<kit::Server>(std::move(application));
                         });
                         testing::internal::GetCapturedStderr();
                         EXPECT_EQ(IsWendrelInitialized(), done);
                         server.reset();
                         application.reset();
                         EXPECT_EQ(alive, 0);
                         EXPECT_FALSE(IsWendrelInitialized());
                     }}});
}

// Upgraded connections.

struct Ends
{
    std::atomic<int> made{0};
    std::atomic<int> closed{0};
    std::atomic<int> destroyed{0};
};

class Joined : public HubConnection
{
public:
    Joined(http::WebSocket&& upgraded, Ends& ends, const std::string& text)
        : HubConnection(std::move(upgraded)), mText(text + kLongText), mEnds(ends)
    {
        ++mEnds.made;
    }
    ~Joined() override { ++mEnds.destroyed; }

protected:
    void onClosed() override { ++mEnds.closed; }

private:
    std::string mText;
    Ends& mEnds;
};

class UpgradedSocket
{
public:
    // For a hub, which takes ownership.
    WebSocket* make()
    {
        return new WebSocket(mEnds.server(),
                             reinterpret_cast<MHD_UpgradeResponseHandle*>(&mHandle));
    }

private:
    SocketPair mEnds;
    char mHandle = 0;
};

constexpr const char* kRefusedLine = "cannot start the threads of the WebSockets: "
                                     "Resource temporarily unavailable: a connection was refused";

TEST(WebSocketHubFailures, AConnectionComesIntoTheHubOrIsClosedAndToldSo)
{
    FailEachCallOf({{"WebSocketHub: adopt", [](Attempt& attempt) {
                         CapturedLog log;
                         RecordingDaemon daemon;
                         UpgradedSocket sockets[2];
                         Ends ends;
                         WebSocketHub::Options options;
                         options.workers = 1;
                         {
                             WebSocketHub hub(options);
                             WebSocket* const first = sockets[0].make();
                             const bool done =
                                 attempt([&] { hub.adopt<Joined>(first, ends, kLongText); });
                             EXPECT_EQ(done, !attempt.hasLackedMemory());
                             const bool isRefused = attempt.hasFailed(Failing::ThreadStart);
                             EXPECT_THAT(log.lines(), SizeIs(isRefused ? 1 : 0));
                             if (isRefused) {
                                 EXPECT_EQ(log.lines().at(0).message, kRefusedLine);
                             }
                             const size_t open = done && !isRefused ? 1 : 0;
                             EXPECT_EQ(hub.getCount(), open);
                             EXPECT_THAT(daemon.closedHandles(), SizeIs(1 - open));
                             hub.adopt<Joined>(sockets[1].make(), ends, kLongText);
                             EXPECT_EQ(hub.getCount(), open + 1);
                             EXPECT_TRUE(hub.close(std::chrono::milliseconds(0)));
                         }
                         EXPECT_THAT(daemon.closedHandles(), SizeIs(2));
                         EXPECT_EQ(ends.closed, ends.made);
                         EXPECT_EQ(ends.destroyed, ends.made);
                     }}});
}

TEST(WebSocketHubFailures, APollThreadThatCannotBeRestartedIsRestartedLater)
{
    CapturedLog log;
    const auto isLogged = [&](const std::string& text) {
        for (const auto& line : log.lines()) {
            if (line.message == text)
                return true;
        }
        return false;
    };
    RecordingDaemon daemon;
    UpgradedSocket sockets[2];
    Ends ends;
    WebSocketHub hub;
    ScriptedSockets faulty;
    hub.adopt<Joined>(sockets[0].make(), ends, kLongText);
    {
        const NoThreads none;
        faulty.failFrom(ScriptedSockets::Poll, faulty.count(ScriptedSockets::Poll), EINVAL);
        EXPECT_TRUE(waitUntil([&] { return ends.closed == 1; }));
        hub.adopt<Joined>(sockets[1].make(), ends, kLongText);
        EXPECT_TRUE(waitUntil([&] {
            return isLogged("cannot restart the poll thread of the WebSockets: "
                            "Resource temporarily unavailable: trying again");
        }));
        faulty.passThrough();
    }
    EXPECT_TRUE(waitUntil([&] {
        return isLogged("The poll thread of the WebSockets had ended and was started again");
    }));
    EXPECT_EQ(hub.getCount(), 1u);
    EXPECT_TRUE(hub.close(std::chrono::milliseconds(0)));
    EXPECT_EQ(ends.closed, 2);
    EXPECT_EQ(ends.destroyed, 2);
    EXPECT_THAT(daemon.closedHandles(), SizeIs(2));
}

}  // namespace
}  // namespace qv::tests
