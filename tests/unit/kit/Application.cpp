// Requests on their way from the daemon to a worker and from there to their end.

#include <Wendrel/kit/Application.h>

#include "Support.h"
#include "support/CapturedLog.h"

#include <gmock/gmock.h>

#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace qv::kit::tests
{
namespace
{

using Http = HttpBaseRequest;

class CountingApplication : public Application
{
public:
    using Application::Application;
    ~CountingApplication() override { stopWorkers(); }

protected:
    Request* newRequest() override { return new CountedRequest; }
};

// An application whose daemon is the test.
class ApplicationTest : public ::testing::Test
{
protected:
    ApplicationTest() { CountedRequest::sAlive = 0; }
    ~ApplicationTest() override
    {
        mDaemon.reset();
        EXPECT_EQ(CountedRequest::sAlive, 0);
    }

    template <typename App = CountingApplication> void make(unsigned int workers, size_t queueLimit)
    {
        Application::Options options;
        options.workers = workers;
        options.queueLimit = queueLimit;
        mApplication = new App(options);
        mDaemon = std::make_unique<Completer>(mApplication);
    }

    void route(const std::string& pattern, Router::Handler handler)
    {
        ASSERT_TRUE(mApplication->getRouter().add(Http::GET, pattern, std::move(handler)));
    }

    Request& arrive(const std::string& target, const char* method = "GET")
    {
        http::HttpServerImpl& impl = *mApplication;
        HttpBaseRequest* request = impl.createRequest();
        request->setHttpMethod(method);
        request->setOriginalFullUrl(std::string(target));
        impl.handleRequest(request);
        return static_cast<Request&>(*request);
    }

    // Waits until the worker has announced the response.
    static bool waitForResponse(Request& request)
    {
        const auto end = std::chrono::steady_clock::now() + kLimit;
        while (!IsReadyForDaemon(request)) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            std::this_thread::yield();
        }
        return true;
    }

    // Completes the request and returns the response as the client receives it.
    std::string response(Request& request)
    {
        if (!waitForResponse(request))
            return "no response";
        std::string text = std::to_string(request.getHead().getStatusCode()) + " ";
        bool ended = false;
        while (!ended && !request.getResponseDevice().hasDeviceError())
            text += TakeSent(request, &ended);
        if (request.getResponseDevice().hasDeviceError())
            text += " cut off";
        mDaemon->complete(request);
        return text;
    }

    Application* mApplication = nullptr;  // owned by the daemon's server
    std::unique_ptr<Completer> mDaemon;
};

TEST_F(ApplicationTest, ServesByItsRouterAndCounts)
{
    make(2, 10);
    route("/{name}", [](Request& request) {
        request.reply(200, "text/plain", "Hello, " + request.getPathParameter("name"));
    });
    EXPECT_EQ(mApplication->getRequestCount(), 0u);
    Request& first = arrive("/a");
    Request& second = arrive("/b");
    EXPECT_EQ(mApplication->getRequestCount(), 2u);
    EXPECT_EQ(mApplication->getOpenCount(), 2u);
    EXPECT_EQ(response(second), "200 Hello, b");
    EXPECT_EQ(response(first), "200 Hello, a");
    EXPECT_TRUE(mApplication->drain(kLimit));
    EXPECT_EQ(mApplication->getOpenCount(), 0u);
    EXPECT_EQ(mApplication->getRequestCount(), 2u);
    EXPECT_EQ(CountedRequest::sAlive, 0);
}

TEST_F(ApplicationTest, RespondsForAHandlerThatDoesNot)
{
    make(1, 10);
    route("/nothing", [](Request&) {});
    route("/head", [](Request& request) { request.getHead().setContentLength(77); });
    route("/begun", [](Request& request) { request.write("text", 4); });
    route("/short", [](Request& request) {
        request.getHead().setContentLength(10);
        request.write("text", 4);
    });
    route("/started", [](Request& request) { request.startStream(); });
    EXPECT_EQ(response(arrive("/nothing")),
              "500 {\"error\":\"The request was not answered.\",\"status\":500}");
    EXPECT_EQ(response(arrive("/head")),
              "500 {\"error\":\"The request was not answered.\",\"status\":500}");
    EXPECT_EQ(response(arrive("/begun")), "200 text");
    EXPECT_THAT(response(arrive("/short")), ::testing::EndsWith(" cut off"));
    EXPECT_EQ(response(arrive("/started")), "200 ");
}

TEST_F(ApplicationTest, RespondsForAHandlerThatThrows)
{
    make(1, 10);
    route("/at-once", [](Request&) { throw std::runtime_error("on purpose"); });
    route("/prepared", [](Request& request) {
        request.getHead().setHeader("X-Half", "done");
        request.getHead().setContentLength(5);
        throw std::runtime_error("on purpose");
    });
    route("/begun", [](Request& request) {
        request.write("text", 4);
        throw std::runtime_error("on purpose");
    });
    route("/replied", [](Request& request) {
        request.reply(200, "text/plain", "text");
        throw std::runtime_error("on purpose");
    });
    route("/number", [](Request&) { throw 42; });
    const std::string failed = "500 {\"error\":\"The server failed.\",\"status\":500}";
    EXPECT_EQ(response(arrive("/number")), failed);
    EXPECT_EQ(response(arrive("/at-once")), failed);
    Request& prepared = arrive("/prepared");
    ASSERT_TRUE(waitForResponse(prepared));
    EXPECT_EQ(prepared.getHead().getHeader("X-Half"), "");
    EXPECT_EQ(response(prepared), failed);
    EXPECT_THAT(response(arrive("/begun")), ::testing::EndsWith(" cut off"));
    EXPECT_EQ(response(arrive("/replied")), "200 text");
}

// Throws again where it is told of a handler that has thrown.
class RethrowingApplication : public CountingApplication
{
public:
    using CountingApplication::CountingApplication;

protected:
    void onHandlerFailed(Request& request, const std::exception& error) override
    {
        const std::string reason = error.what();
        if (reason == "begun")
            request.write("text", 4);
        if (reason == "responded")
            request.reply(503, "text/plain", "later");
        if (reason == "exception")
            throw std::runtime_error("on purpose");
        throw 42;
    }
};

TEST_F(ApplicationTest, RespondsWhenOnHandlerFailedThrows)
{
    const std::string failed = "500 {\"error\":\"The server failed.\",\"status\":500}";
    const std::string suffix = " failed, and onHandlerFailed threw: ";
    const std::string number = suffix + "an exception that is no std::exception";
    const struct
    {
        std::string target;
        ::testing::Matcher<std::string> response;
        std::string logged;
    } rows[] = {
        {"/number", failed, number},
        {"/exception", failed, suffix + "on purpose"},
        {"/responded", "503 later", number},
        {"/begun", ::testing::EndsWith(" cut off"), number},
    };
    qv::tests::CapturedLog log;
    make<RethrowingApplication>(1, 10);
    route("/fine", [](Request& request) { request.reply(200, "text/plain", "text"); });
    route("/{reason}",
          [](Request& request) { throw std::runtime_error(request.getPathParameter("reason")); });
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        EXPECT_THAT(response(arrive(row.target)), row.response);
        // The worker is still there.
        EXPECT_EQ(response(arrive("/fine")), "200 text");
        EXPECT_EQ(log.lines().back().message, "GET " + row.target + row.logged);
    }
    EXPECT_EQ(log.lines().size(), std::size(rows));
}

TEST_F(ApplicationTest, RefusesWhatItsWorkersCannotTake)
{
    make(1, 2);
    Latch latch;
    route("/", [&latch](Request& request) {
        latch.wait();
        request.reply(200, "text/plain", "text");
    });
    Request& running = arrive("/");
    ASSERT_TRUE(latch.waitForArrivals(1));
    Request& second = arrive("/");
    Request& third = arrive("/");
    Request& refused = arrive("/");
    EXPECT_TRUE(IsReadyForDaemon(refused));
    EXPECT_EQ(refused.getHead().getHeader("Retry-After"), "1");
    EXPECT_EQ(response(refused), "503 {\"error\":\"The server is busy.\",\"status\":503}");
    latch.open();
    for (Request* request : {&running, &second, &third})
        EXPECT_EQ(response(*request), "200 text");
    EXPECT_TRUE(mApplication->drain(kLimit));
}

TEST_F(ApplicationTest, RefusesWhileItDrainsAndFinishesRunningRequests)
{
    make(1, 10);
    Latch latch;
    route("/", [&latch](Request& request) {
        latch.wait();
        request.reply(200, "text/plain", "text");
    });
    Request& running = arrive("/");
    ASSERT_TRUE(latch.waitForArrivals(1));
    Request& queued = arrive("/");
    EXPECT_FALSE(mApplication->drain(std::chrono::milliseconds(0)));
    EXPECT_EQ(response(arrive("/")), "503 {\"error\":\"The server is busy.\",\"status\":503}");
    latch.open();
    EXPECT_EQ(response(running), "200 text");
    EXPECT_EQ(response(queued), "200 text");
    EXPECT_TRUE(mApplication->drain(kLimit));
}

TEST_F(ApplicationTest, RefusesWhenItsWorkersHaveStopped)
{
    make(1, 10);
    route("/", [](Request& request) { request.reply(200, "text/plain", "text"); });
    Request& before = arrive("/");
    mApplication->stopWorkers();
    EXPECT_TRUE(IsReadyForDaemon(before));
    EXPECT_EQ(response(before), "200 text");
    EXPECT_EQ(response(arrive("/")), "503 {\"error\":\"The server is busy.\",\"status\":503}");
}

TEST_F(ApplicationTest, KeepsARequestUntilItsWorkerHasFinished)
{
    make(1, 10);
    Latch latch;
    std::promise<bool> aborted;
    route("/", [&](Request& request) {
        latch.wait();
        aborted.set_value(request.isAborted() && !request.reply(200, "text/plain", "text"));
    });
    Request& request = arrive("/");
    ASSERT_TRUE(latch.waitForArrivals(1));
    mDaemon->complete(request, MHD_REQUEST_TERMINATED_CLIENT_ABORT);
    EXPECT_FALSE(mApplication->drain(kWhile));
    EXPECT_EQ(CountedRequest::sAlive, 1);
    latch.open();
    EXPECT_TRUE(aborted.get_future().get());
    EXPECT_TRUE(mApplication->drain(kLimit));
    EXPECT_EQ(CountedRequest::sAlive, 0);
}

// The reaper's own thread is held up by another request meanwhile.
TEST_F(ApplicationTest, DeletesARequestThatIsOverOnTheWorkerThatFinishesTheNext)
{
    make(1, 10);
    Latch latches[2];
    std::promise<std::thread::id> worker;
    const auto replyWithText = [](Request& request) { request.reply(200, "text/plain", "text"); };
    route("/held", replyWithText);
    route("/over", [&](Request& request) {
        latches[0].wait();
        replyWithText(request);
    });
    route("/last", [&](Request& request) {
        worker.set_value(std::this_thread::get_id());
        latches[1].wait();
        replyWithText(request);
    });

    auto begun = std::make_shared<std::promise<void>>();
    std::promise<void> end;
    auto ended = std::make_shared<std::future<void>>(end.get_future());
    auto& held = static_cast<CountedRequest&>(arrive("/held"));
    held.onDeleted = [begun, ended] {
        begun->set_value();
        ended->wait_for(kLimit);
    };
    auto& over = static_cast<CountedRequest&>(arrive("/over"));
    auto where = std::make_shared<std::promise<std::thread::id>>();
    over.onDeleted = [where] { where->set_value(std::this_thread::get_id()); };
    ASSERT_TRUE(latches[0].waitForArrivals(1));  // the worker has left the one before
    mDaemon->complete(held);
    ASSERT_EQ(begun->get_future().wait_for(kLimit), std::future_status::ready);

    latches[0].open();
    Request& last = arrive("/last");
    ASSERT_TRUE(latches[1].waitForArrivals(1));
    mDaemon->complete(over);
    latches[1].open();
    auto deleted = where->get_future();
    EXPECT_EQ(deleted.wait_for(kLimit), std::future_status::ready);
    EXPECT_EQ(deleted.get(), worker.get_future().get());
    mDaemon->complete(last);
    end.set_value();
    EXPECT_TRUE(mApplication->drain(kLimit));
}

TEST_F(ApplicationTest, HasABodyForTheLibrarysOwnResponses)
{
    make(1, 1);
    EXPECT_EQ(mApplication->getErrorBody(), "{\"error\":\"The server failed.\",\"status\":500}");
}

}  // namespace
}  // namespace qv::kit::tests
