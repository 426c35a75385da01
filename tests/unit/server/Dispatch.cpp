// Each request from its request line to its queued response, in the daemon's sequence of calls.

#include "server/Dispatch.h"
#include "request/ConnectionContext.h"
#include "request/DispatchAccess.h"
#include "server/AllocationLimit.h"
#include "streaming/ChunkPool.h"
#include "streaming/StreamCallbacks.h"
#include "streaming/Throttle.h"
#include "support/BackgroundCall.h"
#include "support/CapturedLog.h"
#include "support/FakeTime.h"
#include "support/RecordingApplication.h"
#include "support/RecordingDaemon.h"
#include "support/TestAccess.h"
#include "support/TestRequest.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/Wendrel.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvSystemUtils.h>

#include <gmock/gmock.h>

#include <limits>
#include <memory>
#include <new>
#include <stdexcept>

namespace qv::tests
{

namespace
{

using Access = impl::DispatchAccess;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uint32_t kNotReady = Access::kNotReady;
constexpr uint32_t kReady = Access::kReady;
constexpr uint32_t kStreamed = Access::kStreamed;
constexpr uint32_t kSentWhole = Access::kSentWhole;

// Sets the one private field that decides between buffer and stream. A real body of 512 MiB would
// use the memory of the test program.
template <std::atomic<uint64_t> HttpResponseDevice::*Field> struct ReadyBytesAccessor
{
    friend void PretendReadyBytes(HttpResponseDevice& device, uint64_t bytes)
    {
        device.*Field = bytes;
    }
};
void PretendReadyBytes(HttpResponseDevice& device, uint64_t bytes);
template struct ReadyBytesAccessor<&HttpResponseDevice::mReadyBytes>;

// Records the accessors that are called.
class RecordingResponse : public MinimalResponse
{
public:
    explicit RecordingResponse(RecordingDaemon& daemon) : mDaemon(daemon) {}

    const CookieMap& getCookies() override
    {
        mDaemon.record("getCookies");
        return cookies;
    }
    const HeaderMap& getHeaders() override
    {
        mDaemon.record("getHeaders");
        return headers;
    }
    uint32_t getStatusCode() override
    {
        mDaemon.record("getStatusCode");
        return statusCode;
    }
    int64_t getContentLength() override
    {
        mDaemon.record("getContentLength");
        return contentLength;
    }
    std::string describe() override
    {
        ADD_FAILURE() << "not the library's business";
        return std::string();
    }

private:
    RecordingDaemon& mDaemon;
};

class DispatchRequest : public TestRequest
{
public:
    explicit DispatchRequest(RecordingDaemon& daemon) : response(daemon) {}

    HttpResponseInterface& getResponse() override
    {
        ++responseAsked;
        if (onResponseAsked)
            onResponseAsked();
        return response;
    }

    RecordingResponse response;
    std::atomic<int> responseAsked{0};
    std::function<void()> onResponseAsked;
};

// One request and the daemon's side of it.
struct Exchange
{
    MHD_Connection* connection = nullptr;
    void* slot = nullptr;
    DispatchRequest* request = nullptr;  // owned by the fixture

    impl::ConnectionContext& context() const
    {
        return *static_cast<impl::ConnectionContext*>(slot);
    }
    HttpResponseDevice& response() const { return request->getResponseDevice(); }
    HttpReceiveDevice& receive() const { return request->getReceiveDevice(); }
    uint32_t state() const { return Access::responseState(response()); }
};

class Dispatch : public ::testing::Test
{
protected:
    Dispatch()
    {
        initializeWendrel();
        impl::Throttle::OfThisThread().reset();
        application = new RecordingApplication(daemon);
        application->setErrorBody("sorry");
        application->makeRequest = [this] {
            requests.push_back(std::make_unique<DispatchRequest>(daemon));
            return requests.back().get();
        };
        server = std::make_unique<http::HttpServer>(application);
    }

    ~Dispatch() override
    {
        for (Exchange& exchange : exchanges)
            complete(exchange);
        requests.clear();
        server.reset();
        terminateWendrel();
    }

    // The request line has come.
    Exchange& open(const char* target)
    {
        Exchange& exchange = exchanges.emplace_back();
        exchange.connection = &daemon.connection();
        exchange.slot = impl::OpenContext(nullptr, target, exchange.connection);
        return exchange;
    }

    // As the daemon calls it. The size is in and out.
    MHD_Result access(Exchange& exchange, const char* method, const char* data, size_t& size)
    {
        const auto handler =
            reinterpret_cast<MHD_AccessHandlerCallback>(http::HttpServerImpl::GetHttpCallback());
        return handler(server.get(), exchange.connection, "/not/used", method, "HTTP/1.1", data,
                       &size, &exchange.slot);
    }

    MHD_Result firstCall(Exchange& exchange, const char* method = "GET")
    {
        size_t size = 0;
        const MHD_Result result = access(exchange, method, nullptr, size);
        exchange.request = static_cast<DispatchRequest*>(exchange.context().request);
        return result;
    }

    MHD_Result upload(Exchange& exchange, const std::string& data)
    {
        size_t size = data.size();
        const MHD_Result result = access(exchange, "POST", data.data(), size);
        EXPECT_EQ(size, 0u);
        return result;
    }

    MHD_Result laterCall(Exchange& exchange)
    {
        size_t size = 0;
        const MHD_Result result = access(exchange, "GET", nullptr, size);
        EXPECT_EQ(size, 0u);
        return result;
    }

    // A request that the application has got; this thread is its worker.
    Exchange& begin(const char* target = "/")
    {
        Exchange& exchange = open(target);
        EXPECT_EQ(firstCall(exchange), MHD_YES);
        exchange.request->serveOnThisThread();
        daemon.clearCalls();
        return exchange;
    }

    // A request whose response may be queued.
    Exchange& beginReady(const std::string& body, bool completed)
    {
        Exchange& exchange = begin();
        write(exchange, body);
        if (completed)
            exchange.response().endSending();
        EXPECT_TRUE(exchange.response().setResponseReady());
        return exchange;
    }

    static void write(Exchange& exchange, const std::string& body)
    {
        EXPECT_EQ(exchange.response().writeBytes(body.data(), body.size()), body.size());
    }

    void complete(Exchange& exchange)
    {
        const auto completed = reinterpret_cast<MHD_RequestCompletedCallback>(
            http::HttpServerImpl::GetRequestCompletedCallback());
        if (exchange.slot != nullptr)
            completed(server.get(), exchange.connection, &exchange.slot,
                      MHD_REQUEST_TERMINATED_COMPLETED_OK);
    }

    // Everything that was uploaded; the feed has ended.
    static std::string received(Exchange& exchange)
    {
        std::string body(100000, '\0');
        body.resize(exchange.receive().readBytes(body.data(), body.size()));
        return body;
    }

    // Whether another thread gets the lock of the request's response device.
    static bool isFree(Exchange& exchange) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        BackgroundCall taken(
            [&exchange] { qvMutexLocker locker(&Access::mutex(exchange.response())); });
        const bool free = taken.waitForEnd();
        if (!free)
            Access::mutex(exchange.response()).unlock();  // ours: let the other one end
        return free;
    }

    static bool throttleIsReset()
    {
        const impl::Throttle& throttle = impl::Throttle::OfThisThread();
        return impl::TestAccess::waitSinceMs(throttle) == impl::kTimeNotSet &&
               impl::TestAccess::lastSleepMs(throttle) == impl::kTimeNotSet;
    }

    static void useThrottle()
    {
        impl::Throttle::OfThisThread().pause(nullptr, qvSystemUtils::GetTimeBaseMs());
        ASSERT_FALSE(throttleIsReset());
    }

    FakeTime time;
    RecordingDaemon daemon;
    CapturedLog log;
    RecordingApplication* application = nullptr;  // the server's
    std::vector<std::unique_ptr<DispatchRequest>> requests;
    std::deque<Exchange> exchanges;
    std::unique_ptr<http::HttpServer> server;
};

// The context.

TEST_F(Dispatch, KeepsTheTargetAsItCame)
{
    const struct
    {
        const char* name;
        const char* uri;
        const char* kept;
    } rows[] = {
        {"path and query, encoded", "/a%20b?c=%41&d", "/a%20b?c=%41&d"},
        {"not a path", "*", "*"},
        {"empty", "", ""},
        {"none", nullptr, ""},
        {"bytes of all kinds", "\x01/\xff\"<\n", "\x01/\xff\"<\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Exchange& exchange = open(row.uri);
        ASSERT_NE(exchange.slot, nullptr);
        EXPECT_EQ(exchange.context().uri, row.kept);
        EXPECT_EQ(exchange.context().startTimeMs, std::numeric_limits<int64_t>::min());
        EXPECT_EQ(exchange.context().request, nullptr);
        EXPECT_THAT(daemon.calls(), IsEmpty());
    }
}

TEST_F(Dispatch, CopiesTheTarget)
{
    std::string target = "/" + std::string(5000, 'x');
    const Exchange& exchange = open(target.c_str());
    const std::string kept = target;
    target.assign(target.size(), 'y');
    EXPECT_EQ(exchange.context().uri, kept);
}

TEST_F(Dispatch, MakesOneContextForEachRequest)
{
    EXPECT_NE(open("/a").slot, open("/a").slot);
}

TEST_F(Dispatch, MakesANewContextForEachCallWithoutAConnection)
{
    void* first = impl::OpenContext(nullptr, "/first", nullptr);
    void* second = impl::OpenContext(nullptr, "/second", nullptr);
    EXPECT_NE(first, second);
    for (void* slot : {first, second})
        impl::RequestCompleted(server.get(), nullptr, &slot, MHD_REQUEST_TERMINATED_COMPLETED_OK);
}

TEST_F(Dispatch, TakesEachKindOfValue)
{
    DispatchRequest request(daemon);
    HttpBaseRequest* closure = &request;
    EXPECT_EQ(impl::TakeValue(closure, MHD_HEADER_KIND, "Name", "header"), MHD_YES);
    EXPECT_EQ(impl::TakeValue(closure, MHD_COOKIE_KIND, "Name", "cookie"), MHD_YES);
    EXPECT_EQ(impl::TakeValue(closure, MHD_GET_ARGUMENT_KIND, "Name", "argument"), MHD_YES);
    ASSERT_NE(request.getHeader("name"), nullptr);
    EXPECT_THAT(*request.getHeader("name"), ElementsAre("header"));
    ASSERT_NE(request.getCookie("Name"), nullptr);
    EXPECT_THAT(*request.getCookie("Name"), ElementsAre("cookie"));
    ASSERT_NE(request.getQueryParameter("Name"), nullptr);
    EXPECT_THAT(*request.getQueryParameter("Name"), ElementsAre("argument"));
    EXPECT_FALSE(request.hasParseError());
}

TEST_F(Dispatch, IgnoresOtherKindsOfValues)
{
    for (const MHD_ValueKind kind : {static_cast<MHD_ValueKind>(0), MHD_POSTDATA_KIND,
                                     MHD_FOOTER_KIND, static_cast<MHD_ValueKind>(11)}) {
        SCOPED_TRACE(kind);
        DispatchRequest request(daemon);
        HttpBaseRequest* closure = &request;
        EXPECT_EQ(impl::TakeValue(closure, kind, "name", "\xff"), MHD_YES);
        EXPECT_EQ(request.getHeader("name"), nullptr);
        EXPECT_EQ(request.getCookie("name"), nullptr);
        EXPECT_EQ(request.getQueryParameter("name"), nullptr);
        EXPECT_FALSE(request.hasParseError());
        EXPECT_EQ(request.getRequestHeadBytes(), 0u);
    }
}

TEST_F(Dispatch, GoesOnAfterARejectedValue)
{
    const struct
    {
        const char* name;
        MHD_ValueKind kind;
        const char* error;
    } rows[] = {
        {"header", MHD_HEADER_KIND, "header name is non utf8"},
        {"cookie", MHD_COOKIE_KIND, "cookie name is non utf8"},
        {"argument", MHD_GET_ARGUMENT_KIND, "query parameter name is non utf8"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        DispatchRequest request(daemon);
        HttpBaseRequest* closure = &request;
        EXPECT_EQ(impl::TakeValue(closure, row.kind, "\xff", "value"), MHD_YES);
        EXPECT_EQ(request.getParseError(), row.error);
    }
}

TEST_F(Dispatch, TakesCookiesAndArgumentsWithoutValue)
{
    DispatchRequest request(daemon);
    HttpBaseRequest* closure = &request;
    EXPECT_EQ(impl::TakeValue(closure, MHD_COOKIE_KIND, "c", nullptr), MHD_YES);
    EXPECT_EQ(impl::TakeValue(closure, MHD_GET_ARGUMENT_KIND, "a", nullptr), MHD_YES);
    EXPECT_THAT(*request.getCookie("c"), ElementsAre(""));
    EXPECT_THAT(*request.getQueryParameter("a"), ElementsAre(""));
}

// The first call.

TEST_F(Dispatch, AsksTheDaemonAndTheApplicationInOrder)
{
    Exchange& exchange = open("/");
    daemon.clearCalls();
    EXPECT_EQ(firstCall(exchange), MHD_YES);
    EXPECT_THAT(daemon.calls(),
                ElementsAre("MHD_lookup_connection_value 1 Upgrade",
                            "MHD_lookup_connection_value 1 Connection", "MHD_get_connection_info 2",
                            "createRequest", "MHD_get_connection_values 11", "handleRequest"));
    EXPECT_EQ(daemon.responseCount(), 0u);
}

TEST_F(Dispatch, HandsOverAFilledRequest)
{
    Exchange& exchange = open("/raw%20x?name=value&flag");
    exchange.connection->setClient("10.1.2.3", 4567);
    exchange.connection->add(MHD_GET_ARGUMENT_KIND, "name", "value");
    exchange.connection->add(MHD_GET_ARGUMENT_KIND, "flag", std::nullopt);
    exchange.connection->add(MHD_HEADER_KIND, "Host", "x");
    exchange.connection->add(MHD_HEADER_KIND, "Accept", "a");
    exchange.connection->add(MHD_HEADER_KIND, "Accept", "b");
    exchange.connection->add(MHD_FOOTER_KIND, "X-Footer", "no");
    exchange.connection->add(MHD_POSTDATA_KIND, "posted", "no");
    exchange.connection->add(MHD_COOKIE_KIND, "Id", "1");
    exchange.connection->add(MHD_COOKIE_KIND, "Empty", std::nullopt);
    HttpBaseRequest* handed = nullptr;
    application->onRequest = [&](HttpBaseRequest* request) {
        handed = request;
        EXPECT_EQ(request->getRequestType(), HttpBaseRequest::PUT);
        EXPECT_EQ(request->getOriginalFullUrl(), "/raw%20x?name=value&flag");
        EXPECT_EQ(request->getClientAddress().toStringWithPort(), "10.1.2.3:4567");
        EXPECT_EQ(Access::connection(*request), exchange.connection);
        EXPECT_THAT(*request->getHeader("host"), ElementsAre("x"));
        EXPECT_THAT(*request->getHeader("accept"), ElementsAre("a", "b"));
        EXPECT_EQ(request->getHeader("x-footer"), nullptr);
        EXPECT_THAT(*request->getCookie("Id"), ElementsAre("1"));
        EXPECT_THAT(*request->getCookie("Empty"), ElementsAre(""));
        EXPECT_THAT(*request->getQueryParameter("name"), ElementsAre("value"));
        EXPECT_THAT(*request->getQueryParameter("flag"), ElementsAre(""));
        EXPECT_THAT(request->getQueryParameters(), SizeIs(2));
        EXPECT_FALSE(request->hasParseError()) << request->getParseError();
    };
    EXPECT_EQ(firstCall(exchange, "PUT"), MHD_YES);
    ASSERT_THAT(requests, SizeIs(1));
    EXPECT_EQ(handed, requests[0].get());
    EXPECT_EQ(exchange.context().request, requests[0].get());
}

TEST_F(Dispatch, KnowsTheConnectionBeforeTheValuesAreWalked)
{
    Exchange& exchange = open("/target");
    exchange.connection->setClient("10.1.2.3", 4567);
    exchange.connection->add(MHD_HEADER_KIND, "Host", "x");
    bool walked = false;
    daemon.onCall("MHD_get_connection_values", [&] {
        walked = true;
        ASSERT_THAT(requests, SizeIs(1));
        DispatchRequest& request = *requests[0];
        EXPECT_EQ(exchange.context().request, &request);
        EXPECT_EQ(exchange.context().startTimeMs, time.nowMs());
        EXPECT_EQ(Access::connection(request), exchange.connection);
        EXPECT_EQ(request.getClientAddress().toStringWithPort(), "10.1.2.3:4567");
        EXPECT_EQ(request.getHeader("host"), nullptr);
        EXPECT_EQ(request.getRequestType(), HttpBaseRequest::UNKNOWN_HTTP_METHOD);
        EXPECT_EQ(request.getOriginalFullUrl(), "");
    });
    EXPECT_EQ(firstCall(exchange), MHD_YES);
    EXPECT_TRUE(walked);
}

// The first parse error is kept, so it names the first check.
TEST_F(Dispatch, ChecksValuesThenMethodThenTarget)
{
    const std::string longTarget = "/" + std::string(4096, 'x');
    const struct
    {
        const char* name;
        bool badValue;
        const char* method;
        std::string target;
        const char* error;
    } rows[] = {
        {"all bad", true, "BREW", longTarget, "header name is non utf8"},
        {"value and target", true, "GET", longTarget, "header name is non utf8"},
        {"method and target", false, "BREW", longTarget, "Unexpected HTTP method"},
        {"target", false, "GET", longTarget, "URI is too long"},
        {"none", false, "GET", "/", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Exchange& exchange = open(row.target.c_str());
        if (row.badValue)
            exchange.connection->add(MHD_HEADER_KIND, "\xff", "value");
        exchange.connection->add(MHD_HEADER_KIND, "Host", "x");
        EXPECT_EQ(firstCall(exchange, row.method), MHD_YES);
        EXPECT_EQ(exchange.request->getParseError(), row.error);
        EXPECT_NE(exchange.request->getHeader("host"), nullptr);
        EXPECT_EQ(daemon.callsOf("handleRequest").size(), exchanges.size());
    }
    EXPECT_FALSE(daemon.walkWasStopped());
    EXPECT_EQ(daemon.responseCount(), 0u);
}

TEST_F(Dispatch, TakesTheMethodAsItIs)
{
    const struct
    {
        const char* method;
        HttpBaseRequest::RequestType type;
    } rows[] = {
        {"GET", HttpBaseRequest::GET},
        {"DELETE", HttpBaseRequest::DELETE},
        {"get", HttpBaseRequest::UNKNOWN_HTTP_METHOD},
        {"", HttpBaseRequest::UNKNOWN_HTTP_METHOD},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.method);
        Exchange& exchange = open("/");
        firstCall(exchange, row.method);
        EXPECT_EQ(exchange.request->getRequestType(), row.type);
    }
}

TEST_F(Dispatch, ThrowsOnANullMethod)
{
    Exchange& exchange = open("/");
    size_t size = 0;
    try {
        access(exchange, nullptr, nullptr, size);
        FAIL() << "nothing was thrown";
    } catch (const std::logic_error& error) {
        EXPECT_STREQ(error.what(), "basic_string: construction from null is not valid");
    }
    EXPECT_THAT(daemon.callsOf("MHD_get_connection_values"), SizeIs(1));
    EXPECT_THAT(daemon.callsOf("handleRequest"), IsEmpty());
    ASSERT_THAT(requests, SizeIs(1));
    EXPECT_EQ(requests[0]->getOriginalFullUrl(), "");
}

// The end time is read under the lock: the duration includes the wait for the lock.
TEST_F(Dispatch, RequiredTakesTheUploadDurationUnderTheLockOfTheReceiveDevice)
{
    Exchange& exchange = begin();
    std::unique_ptr<BackgroundCall> call;
    {
        qvMutexLocker locker(&Access::mutex(exchange.receive()));
        call = std::make_unique<BackgroundCall>([&] { EXPECT_EQ(laterCall(exchange), MHD_YES); });
        EXPECT_TRUE(call->isBlocked());
        time.advanceMs(50);
    }
    EXPECT_TRUE(call->waitForEnd());
    EXPECT_EQ(exchange.request->getReceiveDurationMs(), 50);
}

TEST_F(Dispatch, RequiredLooksAtTheClockWhenItReachesTheThrottle)
{
    Exchange& exchange = begin();
    exchange.request->onResponseAsked = [this] { time.advanceMs(7); };
    const int64_t begunMs = time.nowMs();
    laterCall(exchange);
    EXPECT_EQ(exchange.request->getReceiveDurationMs(), 0);
    EXPECT_EQ(impl::TestAccess::waitSinceMs(impl::Throttle::OfThisThread()), begunMs + 7);
}

TEST_F(Dispatch, StartsTheClockUnlessItRunsAlready)
{
    Exchange& fresh = open("/");
    time.setNowMs(777);
    firstCall(fresh);
    EXPECT_EQ(fresh.context().startTimeMs, 777);

    for (const int64_t set : {int64_t{0}, int64_t{5}, int64_t{-1}}) {
        Exchange& running = open("/");
        running.context().startTimeMs = set;
        firstCall(running);
        EXPECT_EQ(running.context().startTimeMs, set);
    }
}

TEST_F(Dispatch, GoesWithoutAnAddressWhenTheDaemonHasNone)
{
    const struct
    {
        const char* name;
        bool hasInfo;
        bool fails;
    } rows[] = {
        {"no information", false, false},
        {"no address", true, false},
        {"refused", true, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Exchange& exchange = open("/");
        exchange.connection->hasInfo = row.hasInfo;
        if (row.fails)
            daemon.fail("MHD_get_connection_info");
        EXPECT_EQ(firstCall(exchange), MHD_YES);
        EXPECT_EQ(exchange.request->getClientAddress(), IpAddress());
    }
    EXPECT_THAT(daemon.callsOf("handleRequest"), SizeIs(3));
}

TEST_F(Dispatch, ServesARequestWhoseValuesCannotBeWalked)
{
    daemon.fail("MHD_get_connection_values");
    daemon.fail("MHD_lookup_connection_value");
    Exchange& exchange = open("/");
    exchange.connection->add(MHD_HEADER_KIND, "Host", "x");
    EXPECT_EQ(firstCall(exchange), MHD_YES);
    EXPECT_EQ(exchange.request->getHeader("host"), nullptr);
    EXPECT_THAT(daemon.callsOf("handleRequest"), SizeIs(1));
}

TEST_F(Dispatch, SendsNothingForABadRequest)
{
    Exchange& exchange = open("no slash");
    exchange.connection->add(MHD_COOKIE_KIND, "c", "\xff");
    EXPECT_EQ(firstCall(exchange, "BREW"), MHD_YES);
    EXPECT_TRUE(exchange.request->hasParseError());
    EXPECT_THAT(daemon.callsOf("handleRequest"), SizeIs(1));
    EXPECT_EQ(daemon.responseCount(), 0u);
}

TEST_F(Dispatch, RefusesNewRequestsAfterAStopRequest)
{
    Exchange& exchange = open("/");
    daemon.clearCalls();
    useThrottle();
    server->stopServer(false);
    size_t size = 0;
    EXPECT_EQ(access(exchange, "GET", nullptr, size), MHD_NO);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{
                                 4, "", "Discarding http request, server is shutting down", true}));
    EXPECT_THAT(daemon.calls(), IsEmpty());
    EXPECT_EQ(exchange.context().request, nullptr);
    EXPECT_EQ(exchange.context().startTimeMs, impl::kTimeNotSet);
    EXPECT_TRUE(throttleIsReset());
}

TEST_F(Dispatch, FinishesOldRequestsAfterAStopRequest)
{
    Exchange& exchange = begin();
    server->stopServer(false);
    EXPECT_EQ(upload(exchange, "body"), MHD_YES);
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    write(exchange, "body");
    exchange.response().endSending();
    exchange.response().setResponseReady();
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    ASSERT_EQ(daemon.responseCount(), 1u);
    EXPECT_EQ(daemon.response(0).body, "body");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Dispatch, TreatsOtherUpgradesAsOrdinaryRequests)
{
    const struct
    {
        const char* name;
        const char* upgrade;
        const char* connection;
    } rows[] = {
        {"lower case", "websocket", "Upgrade"},
        {"connection in lower case", "WebSocket", "upgrade"},
        {"other protocol", "h2c", "Upgrade"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        daemon.clearCalls();
        Exchange& exchange = open("/");
        exchange.connection->add(MHD_HEADER_KIND, "Upgrade", row.upgrade);
        exchange.connection->add(MHD_HEADER_KIND, "Connection", row.connection);
        EXPECT_EQ(firstCall(exchange), MHD_YES);
        EXPECT_NE(exchange.request, nullptr);
        EXPECT_THAT(daemon.callsOf("handleRequest"), SizeIs(1));
    }
    EXPECT_EQ(daemon.responseCount(), 0u);
}

// Calls with body data.

TEST_F(Dispatch, FeedsTheUpload)
{
    Exchange& exchange = begin();
    EXPECT_EQ(upload(exchange, "first "), MHD_YES);
    EXPECT_EQ(upload(exchange, "second"), MHD_YES);
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_EQ(received(exchange), "first second");
    EXPECT_TRUE(exchange.receive().atEnd());
    EXPECT_FALSE(exchange.receive().hasDeviceError());
}

TEST_F(Dispatch, LooksAtNothingElseDuringTheUpload)
{
    Exchange& exchange = begin();
    EXPECT_EQ(upload(exchange, "data"), MHD_YES);
    EXPECT_EQ(exchange.request->responseAsked, 0);
    EXPECT_EQ(exchange.request->getReceiveDurationMs(), 0);
    EXPECT_THAT(daemon.calls(), IsEmpty());
    EXPECT_THAT(requests, SizeIs(1));
    EXPECT_THAT(time.sleeps(), IsEmpty());
}

TEST_F(Dispatch, DropsTheUploadOnceTheResponseIsCompleted)
{
    Exchange& exchange = begin();
    EXPECT_EQ(upload(exchange, "taken"), MHD_YES);
    write(exchange, "body");
    exchange.response().endSending();
    exchange.response().setResponseReady();
    useThrottle();
    EXPECT_EQ(upload(exchange, "dropped"), MHD_YES);
    EXPECT_TRUE(throttleIsReset());
    EXPECT_THAT(daemon.calls(), IsEmpty());
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_EQ(received(exchange), "taken");
    EXPECT_THAT(daemon.callsOf("MHD_queue_response"), SizeIs(1));
    EXPECT_EQ(daemon.response(0).body, "body");
}

TEST_F(Dispatch, KeepsTheUploadOfAResponseThatIsOnlyAnnounced)
{
    Exchange& exchange = beginReady("part", false);
    exchange.response().setDeviceError("broken");
    EXPECT_EQ(upload(exchange, "taken"), MHD_YES);
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_EQ(received(exchange), "taken");
}

TEST_F(Dispatch, TellsTheEndOfTheUploadByItsSizeAlone)
{
    Exchange& exchange = begin();
    size_t size = 0;
    EXPECT_EQ(access(exchange, "POST", "stale", size), MHD_YES);
    EXPECT_EQ(exchange.request->responseAsked, 1);
    EXPECT_EQ(received(exchange), "");
    EXPECT_TRUE(exchange.receive().atEnd());
}

TEST_F(Dispatch, FeedsUnderTheReceiveDevicesLock)
{
    Exchange& exchange = begin();
    std::unique_ptr<BackgroundCall> feeding;
    {
        qvMutexLocker locker(&Access::mutex(exchange.receive()));
        feeding =
            std::make_unique<BackgroundCall>([&] { EXPECT_EQ(upload(exchange, "data"), MHD_YES); });
        EXPECT_TRUE(feeding->isBlocked());
    }
    EXPECT_TRUE(feeding->waitForEnd());
}

// Calls without body data.

TEST_F(Dispatch, EndsTheUploadUnderTheReceiveDevicesLock)
{
    Exchange& exchange = begin();
    std::unique_ptr<BackgroundCall> ending;
    {
        qvMutexLocker locker(&Access::mutex(exchange.receive()));
        ending = std::make_unique<BackgroundCall>([&] { EXPECT_EQ(laterCall(exchange), MHD_YES); });
        EXPECT_TRUE(ending->isBlocked());
        EXPECT_EQ(exchange.request->getReceiveDurationMs(), 0);
        EXPECT_EQ(exchange.request->responseAsked, 0);
    }
    EXPECT_TRUE(ending->waitForEnd());
}

TEST_F(Dispatch, MeasuresTheUploadOnEveryCall)
{
    time.setNowMs(1000);
    Exchange& exchange = begin();
    EXPECT_EQ(exchange.request->getReceiveDurationMs(), 0);
    for (const int64_t now : {1000, 1007, 5000, 4000}) {
        time.setNowMs(now);
        const size_t wakes = time.wakes();
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        EXPECT_EQ(exchange.request->getReceiveDurationMs(), now - 1000);
        EXPECT_EQ(time.wakes(), wakes + 1) << "the feed is ended each time";
    }
    exchange.response().endSending();
    exchange.response().setResponseReady();
    for (const int64_t now : {6000, 7000}) {  // queued, found queued
        time.setNowMs(now);
        const size_t wakes = time.wakes();
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        EXPECT_EQ(exchange.request->getReceiveDurationMs(), now - 1000);
        EXPECT_EQ(time.wakes(), wakes + 1);
    }
}

TEST_F(Dispatch, MeasuresForEverWithoutAStartTime)
{
    Exchange& exchange = begin();
    exchange.context().startTimeMs = impl::kTimeNotSet;
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_EQ(exchange.request->getReceiveDurationMs(), std::numeric_limits<int64_t>::max());
    exchange.context().startTimeMs = time.nowMs() - 3;
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_EQ(exchange.request->getReceiveDurationMs(), 3);
}

TEST_F(Dispatch, AsksForTheResponseOnEveryCall)
{
    Exchange& exchange = begin();
    for (int calls = 1; calls <= 3; ++calls) {
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        EXPECT_EQ(exchange.request->responseAsked, calls);
    }
    EXPECT_THAT(daemon.calls(), IsEmpty());
}

TEST_F(Dispatch, LooksWithoutTheLockFirst)
{
    Exchange& exchange = begin();
    qvMutexLocker locker(&Access::mutex(exchange.response()));
    BackgroundCall look([&] { EXPECT_EQ(laterCall(exchange), MHD_YES); });
    EXPECT_TRUE(look.waitForEnd());
    locker.unlock();
}

TEST_F(Dispatch, DecidesUnderTheLock)
{
    const struct
    {
        const char* name;
        uint32_t state;
        bool waits;
    } rows[] = {
        {"taken back", kNotReady, true},
        {"streamed meanwhile", kStreamed, false},
        {"sent meanwhile", kSentWhole, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Exchange& exchange = beginReady("body", true);
        Latch asked;
        exchange.request->onResponseAsked = [&] { asked.open(); };
        std::unique_ptr<BackgroundCall> call;
        {
            qvMutexLocker locker(&Access::mutex(exchange.response()));
            call = std::make_unique<BackgroundCall>([&] {
                EXPECT_EQ(laterCall(exchange), MHD_YES);
                EXPECT_EQ(throttleIsReset(), !row.waits);
            });
            EXPECT_TRUE(asked.wait());
            EXPECT_TRUE(call->isBlocked());
            Access::responseState(exchange.response()) = row.state;
        }
        EXPECT_TRUE(call->waitForEnd());
        EXPECT_EQ(exchange.state(), row.state);
        EXPECT_THAT(daemon.calls(), IsEmpty());
        EXPECT_TRUE(isFree(exchange));
    }
}

TEST_F(Dispatch, LeavesAQueuedResponseAlone)
{
    for (const uint32_t state : {kStreamed, kSentWhole}) {
        SCOPED_TRACE(state);
        Exchange& exchange = beginReady("body", true);
        Access::responseState(exchange.response()) = state;
        Access::bodyPending(*exchange.request) = true;
        useThrottle();
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        EXPECT_TRUE(throttleIsReset());
        EXPECT_TRUE(Access::bodyPending(*exchange.request));
        EXPECT_THAT(daemon.calls(), IsEmpty());
        EXPECT_TRUE(isFree(exchange));
        EXPECT_EQ(exchange.response().getDataSize(), 4u);
    }
}

TEST_F(Dispatch, TouchesNothingWhileTheResponseIsNotReady)
{
    Exchange& exchange = begin();
    write(exchange, "body");
    exchange.response().endSending();
    exchange.response().setDeviceError("broken");
    Access::bodyPending(*exchange.request) = true;
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_TRUE(Access::bodyPending(*exchange.request));
    EXPECT_EQ(exchange.state(), kNotReady);
    EXPECT_THAT(daemon.calls(), IsEmpty());
}

// A response from one buffer.

TEST_F(Dispatch, QueuesACompletedResponseWhole)
{
    Exchange& exchange = beginReady("0123456789", true);
    exchange.request->response.statusCode = 404;
    exchange.request->response.addHeader("x", "y");
    Access::bodyPending(*exchange.request) = true;
    time.setNowMs(4321);
    useThrottle();
    bool freeWhenMade = false;
    uint32_t stateWhenMade = 0;
    int64_t startWhenMade = 0;
    int64_t startWhenAdded = 0;
    bool resetWhenMade = false;
    daemon.onCall("MHD_create_response_from_buffer", [&] {
        freeWhenMade = isFree(exchange);
        stateWhenMade = exchange.state();
        startWhenMade = exchange.request->getResponseStartMs();
        resetWhenMade = throttleIsReset();
    });
    daemon.onCall("MHD_add_response_header",
                  [&] { startWhenAdded = exchange.request->getResponseStartMs(); });

    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_THAT(daemon.calls(),
                ElementsAre("MHD_create_response_from_buffer 10 MUST_COPY", "getHeaders",
                            "MHD_add_response_header x: y", "getCookies", "getStatusCode",
                            "MHD_queue_response 404", "MHD_destroy_response"));
    EXPECT_EQ(daemon.response(0).body, "0123456789");
    EXPECT_THAT(daemon.response(0).queued, ElementsAre(std::pair(exchange.connection, 404u)));
    EXPECT_TRUE(freeWhenMade);
    EXPECT_EQ(stateWhenMade, kSentWhole);
    EXPECT_EQ(startWhenMade, -1);
    EXPECT_EQ(startWhenAdded, 4321);
    EXPECT_TRUE(resetWhenMade);
    EXPECT_EQ(exchange.state(), kSentWhole);
    EXPECT_EQ(exchange.request->getResponseStartMs(), 4321);
    EXPECT_FALSE(Access::bodyPending(*exchange.request));
    EXPECT_TRUE(throttleIsReset());
    EXPECT_TRUE(exchange.response().atEnd());
    EXPECT_FALSE(exchange.response().hasDataToSend());
    EXPECT_TRUE(isFree(exchange));
}

TEST_F(Dispatch, KeepsTheChunkOfAResponseForTheNext)
{
    const impl::ChunkPool::User user;
    Exchange& exchange = beginReady("0123456789", true);
    const size_t before = impl::TestAccess::chunkCount(impl::ChunkPool::Instance());
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_EQ(impl::TestAccess::chunkCount(impl::ChunkPool::Instance()), before + 1);
}

TEST_F(Dispatch, QueuesAResponseOnce)
{
    for (const bool completed : {true, false}) {
        SCOPED_TRACE(completed);
        Exchange& exchange = beginReady("body", completed);
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        const int64_t start = exchange.request->getResponseStartMs();
        daemon.clearCalls();
        time.advanceMs(10);
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        EXPECT_THAT(daemon.calls(), IsEmpty());
        EXPECT_EQ(exchange.request->getResponseStartMs(), start);
    }
}

TEST_F(Dispatch, SendsBuffersOfEverySize)
{
    for (const size_t size : {0u, 1u, 65535u, 65536u, 65537u, 200000u}) {
        SCOPED_TRACE(size);
        const std::string body = PatternBytes(size);
        Exchange& exchange = beginReady(body, true);
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        const MHD_Response& response = daemon.response(daemon.responseCount() - 1);
        EXPECT_EQ(response.kind, MHD_Response::Buffer);
        EXPECT_EQ(response.size, size);
        EXPECT_TRUE(response.body == body);
    }
}

TEST_F(Dispatch, DoesNotAskForTheLengthOfACompletedResponse)
{
    Exchange& exchange = beginReady("0123456789", true);
    exchange.request->response.contentLength = 20;
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_THAT(daemon.callsOf("getContentLength"), IsEmpty());
    EXPECT_THAT(daemon.callsOf("MHD_create_response_from_buffer"),
                ElementsAre("MHD_create_response_from_buffer 10 MUST_COPY"));
}

// A response as a stream.

TEST_F(Dispatch, QueuesAnUnfinishedResponseAsAStream)
{
    Exchange& exchange = beginReady("begun", false);
    exchange.request->response.statusCode = 206;
    exchange.request->response.addHeader("x", "y");
    Access::bodyPending(*exchange.request) = true;
    time.setNowMs(4321);
    useThrottle();
    bool freeWhenMade = false;
    uint32_t stateWhenMade = 0;
    int64_t startWhenMade = 0;
    int64_t startWhenAdded = 0;
    bool resetWhenMade = false;
    daemon.onCall("MHD_create_response_from_callback", [&] {
        freeWhenMade = isFree(exchange);
        stateWhenMade = exchange.state();
        startWhenMade = exchange.request->getResponseStartMs();
        resetWhenMade = throttleIsReset();
    });
    daemon.onCall("MHD_add_response_header",
                  [&] { startWhenAdded = exchange.request->getResponseStartMs(); });

    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_THAT(daemon.calls(),
                ElementsAre("getContentLength", "MHD_create_response_from_callback unknown 65536",
                            "getHeaders", "MHD_add_response_header x: y", "getCookies",
                            "getStatusCode", "MHD_queue_response 206", "MHD_destroy_response"));
    const MHD_Response& response = daemon.response(0);
    EXPECT_EQ(response.size, MHD_SIZE_UNKNOWN);
    EXPECT_EQ(response.blockSize, 65536u);
    EXPECT_EQ(response.closure, static_cast<HttpBaseRequest*>(exchange.request));
    EXPECT_EQ(response.free, nullptr);
    EXPECT_THAT(response.queued, ElementsAre(std::pair(exchange.connection, 206u)));
    EXPECT_TRUE(freeWhenMade);
    EXPECT_EQ(stateWhenMade, kStreamed);
    EXPECT_EQ(startWhenMade, -1);
    EXPECT_EQ(startWhenAdded, 4321);
    EXPECT_TRUE(resetWhenMade);
    EXPECT_EQ(exchange.state(), kStreamed);
    EXPECT_EQ(exchange.request->getResponseStartMs(), 4321);
    EXPECT_FALSE(Access::bodyPending(*exchange.request));
    EXPECT_TRUE(throttleIsReset());
    EXPECT_FALSE(exchange.response().atEnd());
    EXPECT_TRUE(isFree(exchange));
}

TEST_F(Dispatch, StreamsWhatTheApplicationWrites)
{
    Exchange& exchange = beginReady("", false);
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    const MHD_Response& response = daemon.response(0);
    ASSERT_NE(response.reader, nullptr);
    char block[100];
    EXPECT_EQ(response.reader(response.closure, 0, block, sizeof block), 0);
    write(exchange, "late");
    exchange.response().endSending();
    EXPECT_EQ(response.reader(response.closure, 0, block, sizeof block), 4);
    EXPECT_EQ(std::string(block, 4), "late");
    EXPECT_EQ(response.reader(response.closure, 4, block, sizeof block),
              MHD_CONTENT_READER_END_OF_STREAM);
}

TEST_F(Dispatch, DeclaresTheLengthOfAStream)
{
    const struct
    {
        const char* name;
        int64_t declared;
        uint64_t size;
    } rows[] = {
        {"not known", -1, MHD_SIZE_UNKNOWN},
        {"any negative", std::numeric_limits<int64_t>::min(), MHD_SIZE_UNKNOWN},
        {"nothing", 0, 0},
        {"some", 20, 20},
        {"above the buffer limit", 0x20000000, 0x20000000},
        {"greatest", std::numeric_limits<int64_t>::max(), 0x7fffffffffffffff},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Exchange& exchange = beginReady("0123456789", false);
        exchange.request->response.contentLength = row.declared;
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        const MHD_Response& response = daemon.response(daemon.responseCount() - 1);
        EXPECT_EQ(response.kind, MHD_Response::Callback);
        EXPECT_EQ(response.size, row.size);
        EXPECT_EQ(response.blockSize, 65536u);
    }
}

// Half a GiB and more goes out as a stream even when it is complete.
TEST_F(Dispatch, StreamsACompletedResponseFrom512MebibytesOn)
{
    const struct
    {
        const char* name;
        uint64_t ready;
        int64_t declared;
        uint64_t size;
    } rows[] = {
        {"least, not declared", 0x20000000, -1, 0x20000000},
        {"least, declared", 0x20000000, 99, 99},
        {"least, declared empty", 0x20000000, 0, 0},
        {"more, not declared", 0x123456789a, -7, 0x123456789a},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Exchange& exchange = beginReady("", true);
        PretendReadyBytes(exchange.response(), row.ready);
        exchange.request->response.contentLength = row.declared;
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        const MHD_Response& response = daemon.response(daemon.responseCount() - 1);
        EXPECT_EQ(response.kind, MHD_Response::Callback);
        EXPECT_EQ(response.size, row.size);
        EXPECT_EQ(exchange.state(), kStreamed);
        EXPECT_FALSE(exchange.response().atEnd());
    }
}

// The copy itself is not let happen; that it was begun tells the decision.
TEST_F(Dispatch, CopiesACompletedResponseUpToOneByteBelow512Mebibytes)
{
    Exchange& exchange = beginReady("", true);
    PretendReadyBytes(exchange.response(), 0x1fffffff);
    {
        const AllocationLimit limit(0x1fffffff);
        EXPECT_THROW(laterCall(exchange), std::bad_alloc);
    }
    EXPECT_THAT(daemon.calls(), IsEmpty());
    EXPECT_TRUE(isFree(exchange));
}

TEST_F(Dispatch, StreamsAnUnfinishedResponseOfAnySize)
{
    Exchange& exchange = beginReady("", false);
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_EQ(daemon.response(0).kind, MHD_Response::Callback);
    EXPECT_EQ(daemon.response(0).size, MHD_SIZE_UNKNOWN);
}

// The library's own response.

TEST_F(Dispatch, Responds500WhenTheResponseDeviceIsInError)
{
    for (const bool completed : {true, false}) {
        SCOPED_TRACE(completed);
        daemon.clearCalls();
        Exchange& exchange = beginReady("body", completed);
        exchange.request->response.statusCode = 201;
        exchange.request->response.addHeader("x", "y");
        exchange.response().setDeviceError("broken");
        Access::bodyPending(*exchange.request) = true;
        useThrottle();
        bool freeWhenMade = false;
        bool resetWhenMade = false;
        daemon.onCall("MHD_create_response_from_buffer", [&] {
            freeWhenMade = isFree(exchange);
            resetWhenMade = throttleIsReset();
        });
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        EXPECT_THAT(daemon.calls(), ElementsAre("MHD_create_response_from_buffer 5 PERSISTENT",
                                                "MHD_queue_response 500", "MHD_destroy_response"));
        const MHD_Response& response = daemon.response(daemon.responseCount() - 1);
        EXPECT_EQ(response.body, "sorry");
        EXPECT_EQ(response.bodyAddress, application->getErrorBody().data());
        EXPECT_THAT(response.queued, ElementsAre(std::pair(exchange.connection, 500u)));
        EXPECT_TRUE(freeWhenMade);
        EXPECT_TRUE(resetWhenMade);
        EXPECT_TRUE(throttleIsReset());
        EXPECT_FALSE(Access::bodyPending(*exchange.request));
        EXPECT_EQ(exchange.request->getResponseStartMs(), -1);
        EXPECT_EQ(exchange.request->getResponseHeadBytes(), 0u);
        EXPECT_EQ(exchange.state(), kReady);
        EXPECT_TRUE(isFree(exchange));
    }
}

TEST_F(Dispatch, Responds500WithAnEmptyBodyWhenTheApplicationHasNone)
{
    application->setErrorBody("");
    Exchange& exchange = beginReady("body", true);
    exchange.response().setDeviceError("broken");
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_THAT(daemon.calls(), ElementsAre("MHD_create_response_from_buffer 0 PERSISTENT",
                                            "MHD_queue_response 500", "MHD_destroy_response"));
}

TEST_F(Dispatch, DoesNotMindAnErrorOfTheReceiveDevice)
{
    Exchange& exchange = beginReady("body", true);
    exchange.receive().setDeviceError("broken");
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_THAT(daemon.callsOf("MHD_queue_response"), ElementsAre("MHD_queue_response 200"));
}

// Headers.

TEST_F(Dispatch, SendsHeadersInTheOrderOfTheirKeysThenCookies)
{
    for (const bool completed : {true, false}) {
        SCOPED_TRACE(completed);
        daemon.clearCalls();
        Exchange& exchange = beginReady("", completed);
        RecordingResponse& response = exchange.request->response;
        response.headers["b"] = {"A-Name", "1"};
        response.headers["a"] = {"Z-Name", "22"};
        response.headers["c"] = {"A-Name", "again"};
        response.cookies["second"] = "b=c";
        response.cookies["first"] = "";
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        EXPECT_THAT(daemon.callsOf("MHD_add_response_header"),
                    ElementsAre("MHD_add_response_header Z-Name: 22",
                                "MHD_add_response_header A-Name: 1",
                                "MHD_add_response_header A-Name: again",
                                "MHD_add_response_header Set-cookie: first=",
                                "MHD_add_response_header Set-cookie: second=b=c"));
        EXPECT_EQ(exchange.request->getResponseHeadBytes(),
                  (6u + 2 + 3) + (6 + 1 + 3) + (6 + 5 + 3));
    }
}

TEST_F(Dispatch, AddsNoHeadersOfItsOwn)
{
    for (const bool completed : {true, false}) {
        SCOPED_TRACE(completed);
        Exchange& exchange = beginReady("body", completed);
        EXPECT_EQ(laterCall(exchange), MHD_YES);
        EXPECT_THAT(daemon.response(daemon.responseCount() - 1).headers, IsEmpty());
        EXPECT_EQ(exchange.request->getResponseHeadBytes(), 0u);
    }
}

TEST_F(Dispatch, CountsOntoTheHeaderBytesThatAreThere)
{
    Exchange& exchange = beginReady("", true);
    Access::responseHeadBytes(*exchange.request) = 1000;
    exchange.request->response.addHeader("name", "value");
    exchange.request->response.cookies["cookie"] = "not counted";
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_EQ(exchange.request->getResponseHeadBytes(), 1012u);
}

TEST_F(Dispatch, CountsHeadersThatTheDaemonRefuses)
{
    daemon.fail("MHD_add_response_header");
    Exchange& exchange = beginReady("body", true);
    exchange.request->response.addHeader("name", "value");
    exchange.request->response.addHeader("other", "");
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_EQ(exchange.request->getResponseHeadBytes(), 12u + 8u);
    EXPECT_THAT(daemon.response(0).queued, SizeIs(1));
}

// Return values of the daemon.

TEST_F(Dispatch, ReturnsTheResultOfQueueingAsItIs)
{
    daemon.fail("MHD_queue_response");
    const struct
    {
        const char* name;
        bool completed;
        bool error;
    } rows[] = {
        {"buffer", true, false},
        {"stream", false, false},
        {"error", true, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Exchange& exchange = beginReady("body", row.completed);
        if (row.error)
            exchange.response().setDeviceError("broken");
        EXPECT_EQ(laterCall(exchange), MHD_NO);
        const MHD_Response& response = daemon.response(daemon.responseCount() - 1);
        EXPECT_THAT(response.queued, SizeIs(1));
        EXPECT_EQ(response.destroyed, 1);
    }
}

TEST_F(Dispatch, GivesUpWhenTheDaemonMakesNoResponse)
{
    daemon.fail("MHD_create_response_from_buffer");
    daemon.fail("MHD_create_response_from_callback");
    for (const bool completed : {true, false}) {
        SCOPED_TRACE(completed);
        Exchange& exchange = beginReady("body", completed);
        EXPECT_EQ(laterCall(exchange), MHD_NO);
    }
    Exchange& broken = beginReady("body", true);
    broken.response().setDeviceError("broken");
    EXPECT_EQ(laterCall(broken), MHD_NO);
    EXPECT_EQ(daemon.responseCount(), 0u);
}

// Waiting for the application.

TEST_F(Dispatch, WaitsFreelyFor100MillisecondsThenInSleeps)
{
    Exchange& exchange = begin();
    const int64_t start = time.nowMs();
    for (const int64_t after : {0, 1, 50, 99, 100}) {
        time.setNowMs(start + after);
        EXPECT_EQ(laterCall(exchange), MHD_YES);
    }
    EXPECT_THAT(time.sleeps(), IsEmpty());
    time.setNowMs(start + 101);
    for (int call = 0; call < 6; ++call)
        EXPECT_EQ(laterCall(exchange), MHD_YES);
    // Each sleep is counted from the beginning of the one before.
    EXPECT_THAT(time.sleeps(), ElementsAre(10, 35, 10, 35, 10, 35));
}

TEST_F(Dispatch, TakesTheTimeBetweenCallsOffTheSleep)
{
    const struct
    {
        const char* name;
        int64_t between;
        unsigned long sleep;
    } rows[] = {
        {"the same moment", 0, 45},    {"some time", 20, 25},
        {"down to the least", 35, 10}, {"below the least", 36, 10},
        {"much longer", 1000, 10},     {"beyond 32 bits", (int64_t{1} << 32) + 20, 25},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        impl::Throttle::OfThisThread().reset();
        Exchange& exchange = begin();
        laterCall(exchange);
        time.advanceMs(101);
        int64_t slept = 0;
        time.onSleep([&](unsigned long ms) { slept = static_cast<int64_t>(ms); });
        laterCall(exchange);
        // The clock went on by the sleep.
        time.clearRecords();
        time.advanceMs(row.between - slept);
        laterCall(exchange);
        EXPECT_THAT(time.sleeps(), ElementsAre(row.sleep));
        time.onSleep(nullptr);
    }
}

TEST_F(Dispatch, QueuesTheResponseAtOnceWhenItBecomesReadyAfterAWhile)
{
    Exchange& exchange = begin();
    const int64_t start = time.nowMs();
    laterCall(exchange);
    while (time.nowMs() < start + 300) {
        time.advanceMs(1);
        laterCall(exchange);
    }
    const size_t sleeps = time.sleeps().size();
    EXPECT_GT(sleeps, 4u);
    for (const unsigned long sleep : time.sleeps())
        EXPECT_TRUE(sleep >= 10 && sleep <= 36) << sleep;
    exchange.response().endSending();
    exchange.response().setResponseReady();
    EXPECT_EQ(laterCall(exchange), MHD_YES);
    EXPECT_EQ(daemon.responseCount(), 1u);
    EXPECT_THAT(time.sleeps(), SizeIs(sleeps));
}

TEST_F(Dispatch, WaitsForAllRequestsOfAThreadTogether)
{
    Exchange& one = begin();
    Exchange& other = begin();
    laterCall(one);
    time.advanceMs(101);
    laterCall(other);
    laterCall(one);
    EXPECT_THAT(time.sleeps(), ElementsAre(10, 35));
}

TEST_F(Dispatch, GivesUpTheTimeSliceAfterARoundOfWaitingRequests)
{
    Exchange& one = begin();
    Exchange& two = begin();
    const size_t before = FakeTime::YieldsOfThisThread();
    laterCall(one);
    laterCall(two);
    EXPECT_EQ(FakeTime::YieldsOfThisThread() - before, 0u);
    laterCall(one);
    EXPECT_EQ(FakeTime::YieldsOfThisThread() - before, 1u);
    laterCall(two);
    EXPECT_EQ(FakeTime::YieldsOfThisThread() - before, 1u);
}

TEST_F(Dispatch, WaitsOnEachThreadForItself)
{
    Exchange& one = begin();
    Exchange& other = begin();
    laterCall(one);
    time.advanceMs(101);
    std::thread thread([&] { laterCall(other); });
    thread.join();
    EXPECT_THAT(time.sleeps(), IsEmpty());
    laterCall(one);
    EXPECT_THAT(time.sleeps(), ElementsAre(10));
}

TEST_F(Dispatch, SharesTheWaitWithTheContentReader)
{
    Exchange& waiting = begin();
    Exchange& streaming = beginReady("", false);
    laterCall(streaming);
    const MHD_Response& response = daemon.response(0);
    char block[10];
    const auto read = [&] { return response.reader(response.closure, 0, block, sizeof block); };

    EXPECT_EQ(read(), 0);  // begins the wait
    time.advanceMs(100);
    EXPECT_EQ(laterCall(waiting), MHD_YES);
    EXPECT_THAT(time.sleeps(), IsEmpty());
    time.advanceMs(1);
    EXPECT_EQ(laterCall(waiting), MHD_YES);
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(laterCall(waiting), MHD_YES);
    EXPECT_THAT(time.sleeps(), ElementsAre(10, 35, 10));

    write(streaming, "data");
    EXPECT_EQ(streaming.response().flush(), 0u);
    EXPECT_EQ(read(), 4);  // progress for all
    EXPECT_EQ(laterCall(waiting), MHD_YES);
    EXPECT_THAT(time.sleeps(), SizeIs(3));
}

TEST_F(Dispatch, BeginsTheWaitAnewAfterAnyProgress)
{
    Exchange& waiting = begin();
    const struct
    {
        const char* name;
        std::function<void()> progress;
    } rows[] = {
        {"a new request", [&] { firstCall(open("/")); }},
        {"an upload", [&] { upload(begin(), "data"); }},
        {"a response queued whole", [&] { laterCall(beginReady("body", true)); }},
        {"a response queued as a stream", [&] { laterCall(beginReady("body", false)); }},
        {"an error response",
         [&] {
             Exchange& exchange = beginReady("body", true);
             exchange.response().setDeviceError("broken");
             laterCall(exchange);
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        impl::Throttle::OfThisThread().reset();
        laterCall(waiting);
        time.advanceMs(101);
        row.progress();
        EXPECT_TRUE(throttleIsReset());
        time.clearRecords();
        laterCall(waiting);
        time.advanceMs(100);
        laterCall(waiting);
        EXPECT_THAT(time.sleeps(), IsEmpty());
        time.advanceMs(1);
        laterCall(waiting);
        EXPECT_THAT(time.sleeps(), ElementsAre(10));
    }
}

}  // namespace

}  // namespace qv::tests
