// The kit while memory and threads run out: each request has a response or an error, and an end.

#include "failure_injection/Support.h"
#include "support/CapturedLog.h"
#include "support/FakeTime.h"
#include "support/TestRequest.h"

#include "Exchange.h"
#include "FormReader.h"
#include "RouteTable.h"
#include "ServerCore.h"
#include "StreamQueue.h"
#include "WorkerPool.h"

#include "request/ConnectionRecord.h"
#include "request/DispatchAccess.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/Wendrel.h>
#include <Wendrel/kit/EventStream.h>
#include <Wendrel/kit/Server.h>

#include <support/Waiting.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>

namespace qv::tests
{
namespace
{

using Access = impl::DispatchAccess;
using kit::ContentType;
using kit::Cookie;
using kit::DeferredResponse;
using kit::DeferredStream;
using kit::Exchange;
using kit::Request;
using kit::ResponseHead;
using kit::StreamWrite;
using kit::WorkerPool;

class CountingRecord : public impl::ConnectionRecord
{
public:
    void resume() override {}
    void continueUpload() override {}
    void discardUpload() override {}
};

class KitFailures : public testing::Test
{
protected:
    KitFailures() { HttpBaseRequest::InitRequestTypes(); }
    ~KitFailures() override { HttpBaseRequest::ClearRequestTypes(); }
};

// As the daemon.
void Complete(HttpBaseRequest& request)
{
    HttpResponseDevice& device = request.getResponseDevice();
    Access::endSource(device);
    const qvMutexLocker locker(&Access::mutex(device));
    Access::completed(request) = true;
    request.onCompleted(0);
}

// One request in the place of a connection: the test makes the calls of the library.
class OneRequest
{
public:
    explicit OneRequest(const kit::Handler& handler, const std::string& target = "/a/b")
        : mCore(*new kit::ServerCore)
    {
        mCore.router().get("/a/{name}", handler).nonBlocking();
        mCore.router().get("/worker", handler);
        const_cast<kit::RouteTable&>(mCore.routes()).freeze({});
        mExchange = &mCore.create();
        base().setHttpMethod("GET");
        base().setOriginalFullUrl(std::string(target));
        Access::record(base()) = &mRecord;
    }

    ~OneRequest()
    {
        Complete(base());
        mCore.endRequests();
        mCore.close();
        mCore.release();
    }
    OneRequest(const OneRequest&) = delete;
    OneRequest& operator=(const OneRequest&) = delete;

    void serve()
    {
        mExchange->begin();
        base().onBodyComplete();
    }

    void abort()
    {
        Access::abort(device(), "ClientAbort", false, mIsAborted);
        base().onAborted("ClientAbort");
    }

    HttpBaseRequest& base() { return *mExchange; }
    HttpResponseDevice& device() { return base().getResponseDevice(); }

    // The daemon sends a response, or closes the connection after one of its own.
    bool isAnnounced()
    {
        const uint32_t state = Access::responseState(device());
        return state == Access::kReady || state == Access::kReadyInError;
    }
    bool isInError() { return device().hasDeviceError(); }
    uint32_t status() { return isInError() ? 0 : base().getResponse().getStatusCode(); }

private:
    kit::ServerCore& mCore;  // released by the destructor
    CountingRecord mRecord;
    Exchange* mExchange = nullptr;
    std::atomic<bool> mIsAborted{false};
};

// Each has a response after `serve`, also after a failure; 200 without one.
Operation Responds(const char* name, const kit::Handler& handler, uint32_t status = 200,
                   const std::string& target = "/a/b")
{
    return {name, [=](Attempt& attempt) {
                CapturedLog log;
                OneRequest one(handler, target);
                EXPECT_TRUE(attempt([&] { one.serve(); }));
                EXPECT_TRUE(one.isAnnounced());
                if (!attempt.hasFailed()) {
                    EXPECT_EQ(one.status(), status);
                } else if (one.status() != status) {
                    EXPECT_TRUE(one.isInError() || one.status() == 500) << one.status();
                }
            }};
}

TEST_F(KitFailures, EachRequestHasAResponse)
{
    FailEachCallOf({
        Responds("reply: a text", [](Request& r) { r.reply(kLongText + r.pathParameter("name")); }),
        Responds(
            "reply: with headers",
            [](Request& r) {
                r.setHeader("X-A-Header-With-A-Long-Name", kLongText);
                r.addHeader("X-A-Header-With-A-Long-Name", kLongText);
                r.setCookie(Cookie("a", std::string(40, 'c')).path("/" + std::string(kLongText)));
                r.reply(201, r.header("host") + r.query("q") + r.cookie("c"), ContentType::html());
            },
            201),
        Responds(
            "reply: an error", [](Request& r) { r.replyError(404, kLongText); }, 404),
        Responds("reply: twice",
                 [](Request& r) {
                     r.reply(kLongText);
                     r.reply(kLongText);
                 }),
        Responds(
            "a handler that throws", [](Request&) { throw kit::HttpError(404, kLongText); }, 404),
        Responds(
            "a handler that fails", [](Request&) { throw std::runtime_error(kLongText); }, 500),
        Responds(
            "a handler that does not respond", [](Request&) {}, 500),
        Responds(
            "a wrong header",
            [](Request& r) {
                r.setHeader("X", kLongText + "\n");
                r.reply(kLongText);
            },
            500),
        Responds("a deferred response", [](Request& r) { r.defer().reply(kLongText); }),
        Responds(
            "a deferred response that is destroyed",
            [](Request& r) { static_cast<void>(r.defer().isOpen()); }, 500),
        Responds("a stream",
                 [](Request& r) {
                     DeferredResponse later = r.defer();
                     later.onGone([] {});
                     DeferredStream stream = later.startStream(ContentType::text());
                     stream.onWritable([] {});
                     stream.write(kLongText);
                     stream.finish();
                 }),
        Responds("a deadline",
                 [](Request& r) {
                     DeferredResponse later = r.defer();
                     later.setDeadline(std::chrono::hours(1));
                     later.reply(kLongText);
                 }),
        Responds(
            "no route", [](Request&) {}, 404, "/none/at/all"),
        Responds(
            "no worker", [](Request&) {}, 503, "/worker"),
        Responds(
            "a bad target", [](Request&) {}, 400, "/%zz"),
    });
}

TEST_F(KitFailures, AnAbortIsToldWhateverFails)
{
    FailEachCall("an abort of a deferred response", [](Attempt& attempt) {
        DeferredResponse later;
        int calls = 0;
        {
            OneRequest one([&](Request& r) {
                later = r.defer();
                later.onGone([&calls, text = kLongText] { ++calls; });
                later.setDeadline(std::chrono::hours(1));
            });
            one.serve();
            attempt([&] { one.abort(); });
            EXPECT_EQ(calls, 1);
        }
        EXPECT_FALSE(later.reply(kLongText));
    });
}

// Forms and events.

kit::EventStreamOptions WithoutHeartbeat()
{
    kit::EventStreamOptions options;
    options.heartbeat = std::chrono::milliseconds(0);
    return options;
}

TEST_F(KitFailures, EventsAreKeptAndSentOrNotPublished)
{
    FailEachCallOf({
        Responds("events: subscribe, publish",
                 [](Request& r) {
                     kit::EventStream events(WithoutHeartbeat());
                     events.publish("first", kLongText);
                     events.subscribe(r);
                     events.publish("second", kLongText, kLongText);
                 }),
    });
    bool isDisconnected = false;
    FailEachCall("events: publish to a client", [&](Attempt& attempt) {
        kit::EventStream events(WithoutHeartbeat());
        OneRequest one([&](Request& r) { events.subscribe(r); });
        one.serve();
        EXPECT_EQ(events.subscribers(), 1u);
        const std::string data(3000, 'd');
        const bool isPublished = attempt([&] { events.publish("e", data, "1"); });
        // A client that could not get the event has to come back for it.
        EXPECT_EQ(events.subscribers(), isPublished && attempt.hasFailed() ? 0u : 1u);
        isDisconnected = isDisconnected || events.subscribers() == 0;
    });
    EXPECT_TRUE(isDisconnected);
}

TEST_F(KitFailures, AFormIsReadOrNotRead)
{
    const std::string value = "value=" + std::string(100, 'v');
    const std::string multipart = "--b\r\nContent-Disposition: form-data; name=\"" + value +
                                  "\"; filename=\"" + value + "\"\r\n\r\n" + value +
                                  "\r\n--b--\r\n";
    const struct
    {
        const char* name;
        const char* type;
        const std::string& body;
    } rows[] = {
        {"form: encoded", "application/x-www-form-urlencoded", value},
        {"form: multipart", "multipart/form-data; boundary=b", multipart},
    };
    for (const auto& row : rows) {
        FailEachCall(row.name, [&](Attempt& attempt) {
            size_t found = 0;
            const bool isRead = attempt([&] {
                const kit::Form form = kit::FormReader::read(row.type, row.body, {});
                found = form.fields().size() + form.files().size();
            });
            EXPECT_EQ(found, isRead ? 1u : 0u);
        });
    }
}

TEST_F(KitFailures, AWriteIsQueuedWholeOrNotAtAll)
{
    FailEachCall("a write to a stream", [](Attempt& attempt) {
        kit::StreamQueue queue("GET /", 100000, false);
        const std::string block(3000, 'b');
        EXPECT_EQ(queue.write("known"), StreamWrite::Taken);
        const bool done = attempt([&] { EXPECT_EQ(queue.write(block), StreamWrite::Taken); });
        EXPECT_EQ(queue.queuedBytes(), 5 + (done ? block.size() : 0));
    });
}

// The head.

std::string Contents(const ResponseHead& head)
{
    std::string text = head.error();
    for (const auto& [key, header] : head.headers())
        text += "\n" + key + " = " + header.first + ": " + header.second;
    for (const auto& [name, value] : head.cookies())
        text += "\n" + name + "=" + value;
    return text;
}

TEST_F(KitFailures, AHeadIsFilledWholeOrNotAtAll)
{
    const auto make = [] {
        auto head = std::make_unique<ResponseHead>();
        head->setCookie(Cookie("known", "1"));
        head->addHeader("X-Known", "1");
        return head;
    };
    FailEachCallOf({
        AllOrNothing(
            "ResponseHead: new header", make,
            [](ResponseHead& h) { h.setHeader("X-A-Header-With-A-Long-Name", kLongText); },
            &Contents),
        AllOrNothing(
            "ResponseHead: known header", make,
            [](ResponseHead& h) { h.setHeader("x-known", kLongText); }, &Contents),
        AllOrNothing(
            "ResponseHead: another header", make,
            [](ResponseHead& h) { h.addHeader("X-Known", kLongText); }, &Contents),
        AllOrNothing(
            "ResponseHead: cookie", make,
            [](ResponseHead& h) { h.setCookie(Cookie("other", std::string(40, 'c'))); }, &Contents),
    });
}

// The threads.

TEST_F(KitFailures, APoolStartsWholeOrNotAtAll)
{
    FailEachCallOf({{"WorkerPool: start", [](Attempt& attempt) {
                         std::atomic<int> runs{0};
                         WorkerPool pool([&](Exchange&) { ++runs; });
                         auto& exchange = *reinterpret_cast<Exchange*>(64);
                         const bool done = attempt([&] { pool.start(3, 10); });
                         EXPECT_EQ(done, !attempt.hasFailed());
                         EXPECT_EQ(pool.submit(exchange), done);
                         if (!done) {
                             pool.start(3, 10);
                             EXPECT_TRUE(pool.submit(exchange));
                         }
                         pool.stop();
                         EXPECT_EQ(runs, 1);
                     }}});
}

// A queue takes memory for many requests at once: enough of them for each place that needs some.
TEST_F(KitFailures, ARequestIsDeletedThatTheQueueHasNoMemoryFor)
{
    constexpr size_t kRequests = 70;
    const auto run = [](Attempt& attempt) {
        const CapturedLog log;
        const auto value = std::make_shared<int>(0);
        auto& core = *new kit::ServerCore;
        core.router().get("/worker", [](Request& r) { r.reply("a"); });
        const_cast<kit::RouteTable&>(core.routes()).freeze({});
        core.workers().start(1, kRequests);
        CountingRecord record;
        std::vector<Exchange*> requests;
        for (size_t i = 0; i < kRequests; ++i) {
            requests.push_back(&core.create());
            HttpBaseRequest& base = *requests.back();
            base.setHttpMethod("GET");
            base.setOriginalFullUrl("/worker");
            Access::record(base) = &record;
            requests.back()->attach(typeid(int), value);
        }
        EXPECT_TRUE(attempt([&] {
            for (Exchange* const each : requests) {
                each->begin();
                static_cast<HttpBaseRequest*>(each)->onBodyComplete();
            }
        }));
        core.workers().stop();
        for (Exchange* const each : requests)
            Complete(*each);
        core.endRequests();
        EXPECT_EQ(value.use_count(), 1);
        core.close();
        core.release();
    };
    FailEachCall("requests for a worker", run);
}

TEST(KitServerFailures, AServerIsMadeWholeOrNotAtAll)
{
    FailEachCallOf({{"Server: made", [](Attempt& attempt) {
                         std::unique_ptr<kit::Server> server;
                         // A sibling library that was not reached says so.
                         testing::internal::CaptureStderr();
                         const bool done =
                             attempt([&] { server = std::make_unique<kit::Server>(); });
                         testing::internal::GetCapturedStderr();
                         EXPECT_EQ(IsWendrelInitialized(), done);
                         server.reset();
                         EXPECT_FALSE(IsWendrelInitialized());
                     }}});
}

}  // namespace
}  // namespace qv::tests
