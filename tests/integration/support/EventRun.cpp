// A server in event-driven mode: its requests, its workers, and the checks when it has stopped.

#include "EventRun.h"

#include "Certificates.h"
#include "TestMode.h"

#include <Wendrel/Wendrel.h>

#include <qvSystem/qvThread.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace integration
{

using qv::http::HttpServer;
using qv::http::ServerOptions;

void EventRequest::onBodyComplete()
{
    ++bodyCompletions;
    EXPECT_EQ(completions, 0);
}

void EventRequest::onAborted(const std::string& reason)
{
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mAbortReason = reason;
    }
    EXPECT_FALSE(reason.empty());
    EXPECT_TRUE(getReceiveDevice().hasDeviceError());
    EXPECT_TRUE(getResponseDevice().hasDeviceError());
    EXPECT_EQ(completions, 0);
    ++aborts;
}

void EventRequest::onCompleted(int terminationCode)
{
    code = terminationCode;
    ++completions;
}

void EventRequest::onUpgraded(std::unique_ptr<qv::UpgradedConnection> connection)
{
    EXPECT_EQ(completions, 0);
    EXPECT_EQ(aborts, 0);
    ++upgrades;
    if (takeUpgraded)
        takeUpgraded(std::move(connection));
}

void EventRequest::onBodyPaused(uint64_t queuedBytes)
{
    EXPECT_EQ(completions, 0);
    pausedBytes = queuedBytes;
    ++pauses;
}

std::string EventRequest::abortReason() const
{
    const std::lock_guard<std::mutex> lock(mMutex);
    return mAbortReason;
}

void EventRequest::respondHere(uint32_t status, const std::string& body)
{
    const std::string id = qv::qvThread::CurrentThreadId();
    workerThreadStartHandling(id);
    respond(status, body);
    workerThreadStopHandling(id);
}

class EventRun::Application : public qv::http::HttpServerImpl
{
public:
    explicit Application(Handler handler) : mHandler(std::move(handler)) {}

    ~Application() override
    {
        endWorkers();
        for (const auto& request : mRequests)
            check(*request);
    }

    qv::HttpBaseRequest* createRequest() override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mRequests.push_back(std::make_unique<EventRequest>());
        return mRequests.back().get();
    }

    void handleRequest(qv::HttpBaseRequest* request) override
    {
        auto& mine = static_cast<EventRequest&>(*request);
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mHandled.push_back(&mine);
            mChanged.notify_all();
        }
        mHandler(mine);
    }

    void onNewWebSocket(qv::http::WebSocket*) override { ADD_FAILURE() << "an upgrade"; }

    void onServerStopped() override { ++stoppedCalls; }

    void onRequestCompleted() override {}

    void work(EventRequest& request, std::function<void(EventRequest&)> function)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mJobs.push_back([&request, function = std::move(function)] {
            const std::string id = qv::qvThread::CurrentThreadId();
            request.workerThreadStartHandling(id);
            function(request);
            request.workerThreadStopHandling(id);
        });
        if (mJobs.size() > mIdleWorkers)
            mWorkers.emplace_back([this] { runJobs(); });
        mChanged.notify_all();
    }

    EventRequest* request(size_t index)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mChanged.wait_for(lock, kLimit, [&] { return mHandled.size() > index; });
        return mHandled.size() > index ? mHandled[index] : nullptr;
    }

    size_t requestCount()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mHandled.size();
    }

    std::atomic<int> stoppedCalls{0};

private:
    void runJobs()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;) {
            ++mIdleWorkers;
            mChanged.wait(lock, [this] { return mEnding || !mJobs.empty(); });
            --mIdleWorkers;
            if (mJobs.empty())
                return;
            const std::function<void()> job = std::move(mJobs.front());
            mJobs.pop_front();
            lock.unlock();
            job();
            lock.lock();
        }
    }

    // The devices of every request are in error or done: no worker waits for one.
    void endWorkers()
    {
        size_t workers = 0;
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mEnding = true;
            mChanged.notify_all();
            workers = mWorkers.size();
        }
        const bool ended = waitUntil([&] {
            const std::lock_guard<std::mutex> lock(mMutex);
            return mJobs.empty();
        });
        if (!ended) {
            std::fprintf(stderr, "Work waits for one of %zu workers.\n", workers);
            std::abort();
        }
        for (std::thread& worker : mWorkers)
            worker.join();
    }

    // The response to a late request is a 503, which is sent; so is one that refuses an upgrade.
    static void check(const EventRequest& request)
    {
        SCOPED_TRACE(request.getOriginalFullUrl());
        EXPECT_EQ(request.completions, 1);
        EXPECT_LE(request.aborts, 1);
        EXPECT_LE(request.bodyCompletions, 1);
        EXPECT_LE(request.upgrades + request.aborts, 1);
        if (request.code != 0) {
            EXPECT_EQ(request.aborts, 1) << "ended with " << request.code;
        } else if (request.abortReason() != "TimeoutReached" &&
                   request.abortReason() != "UpgradeRefused") {
            EXPECT_EQ(request.aborts, 0) << request.abortReason();
        }
    }

    const Handler mHandler;
    std::mutex mMutex;  // guards all below
    std::condition_variable mChanged;
    std::vector<std::unique_ptr<EventRequest>> mRequests;
    std::vector<EventRequest*> mHandled;
    std::deque<std::function<void()>> mJobs;
    std::vector<std::thread> mWorkers;
    size_t mIdleWorkers = 0;
    bool mEnding = false;
};

ServerOptions onOneThread()
{
    ServerOptions options;
    options.listen = {"127.0.0.1:0"};
    options.threads = 1;
    // Longer than any pause of a busy machine.
    options.headTimeout = options.idleTimeout = options.bodyTimeout = options.sendTimeout =
        std::chrono::minutes(10);
    return options;
}

EventRun::EventRun(Handler handler, ServerOptions options)
{
    qv::initializeWendrel();
    if (options.listen == ServerOptions().listen)
        options.listen = {"127.0.0.1:0"};
    if (isSecure() && options.tls.empty())
        options.tls.push_back(localhostTls());
    mApplication = new Application(std::move(handler));
    mServer = std::make_unique<HttpServer>(mApplication);
    if (!mServer->serve(options)) {
        const std::string why = mServer->getFailureReason();
        mServer.reset();
        qv::terminateWendrel();
        throw std::runtime_error(why);
    }
}

EventRun::~EventRun()
{
    mServer.reset();
    qv::terminateWendrel();
}

uint16_t EventRun::portOf(size_t endpoint) const
{
    const std::string name = mServer->getEndpoints().at(endpoint);
    return static_cast<uint16_t>(std::stoi(name.substr(name.rfind(':') + 1)));
}

void EventRun::work(EventRequest& request, std::function<void(EventRequest&)> function)
{
    mApplication->work(request, std::move(function));
}

EventRequest* EventRun::request(size_t index)
{
    return mApplication->request(index);
}

size_t EventRun::requestCount() const
{
    return mApplication->requestCount();
}

int EventRun::serverStoppedCalls() const
{
    return mApplication->stoppedCalls;
}

}  // namespace integration
