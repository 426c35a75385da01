// An application on the library whose responses are written by the tests: it serves each request
// on a thread of its own and deletes it when worker and daemon are both done with it.

#include "TestServer.h"

#include "Certificates.h"
#include "Pattern.h"

#include <Wendrel/Wendrel.h>

#include <qvSystem/qvThread.h>

#include <gtest/gtest.h>
#include <support/Ports.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <stdexcept>
#include <vector>

namespace integration
{

using qv::http::HttpServer;

void TestRequest::onWaitingForData()
{
    if (getResponseDevice().hasDeviceError())
        getReceiveDevice().setDeviceError("the connection is closed");
}

std::string TestRequest::readBody()
{
    std::string body;
    std::vector<char> buffer(100000);
    while (!getReceiveDevice().atEnd()) {
        const uint64_t got = getReceiveDevice().readBytes(buffer.data(), buffer.size());
        body.append(buffer.data(), got);
    }
    return body;
}

void TestRequest::respond(uint32_t status, const std::string& body)
{
    response.statusCode = status;
    getResponseDevice().writeBytes(body.data(), body.size());
    getResponseDevice().endSending();
    getResponseDevice().setResponseReady();
}

bool TestRequest::beginStream()
{
    getResponseDevice().setResponseReady();
    return waitUntil([this] { return getResponseStartMs() >= 0; });
}

bool TestRequest::streamPattern(uint64_t size, size_t pieceBytes)
{
    if (!beginStream())
        return false;
    std::vector<char> piece(pieceBytes);
    uint64_t done = 0;
    while (done < size) {
        const auto count = static_cast<size_t>(std::min<uint64_t>(pieceBytes, size - done));
        fillPattern(piece.data(), count, done);
        if (getResponseDevice().writeBytes(piece.data(), count) != count)
            return false;
        done += count;
    }
    getResponseDevice().endSending();
    return true;
}

bool TestRequest::waitForConnectionError() const
{
    return waitUntil([this] { return getResponseDevice().hasDeviceError(); });
}

class TestServer::Application : public qv::http::HttpServerImpl
{
public:
    Application(Behaviour behaviour, const TestServerOptions& options)
        : mBehaviour(std::move(behaviour)), mOnServerStopped(options.onServerStopped),
          mOnNewWebSocket(options.onNewWebSocket)
    {
        setErrorBody(options.errorBody);
        mReaper = std::thread([this] { reap(); });
    }

    ~Application() override
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mEnding = true;
            mChanged.notify_all();
        }
        if (!waitUntilNoneOpen()) {
            std::fprintf(stderr, "A request was never completed or its worker never ended.\n");
            std::abort();
        }
        mReaper.join();
    }

    qv::HttpBaseRequest* createRequest() override
    {
        ++mCreated;
        return new TestRequest;
    }

    void handleRequest(qv::HttpBaseRequest* request) override
    {
        auto entry = std::make_unique<Open>();
        entry->request.reset(static_cast<TestRequest*>(request));
        Open* open = entry.get();
        entry->worker = std::thread([this, open] { serve(*open); });
        const std::lock_guard<std::mutex> lock(mMutex);
        mArrived.push_back(std::move(entry));
        ++mChanges;
        mChanged.notify_all();
    }

    void onNewWebSocket(qv::http::WebSocket* socket) override
    {
        std::unique_ptr<qv::http::WebSocket> upgraded(socket);
        if (mOnNewWebSocket) {
            mOnNewWebSocket(std::move(upgraded));
            return;
        }
        ADD_FAILURE() << "an upgraded connection that no test asked for";
        upgraded->markForDeletion();
    }

    void onServerStopped() override
    {
        ++mServerStoppedCalls;
        if (mOnServerStopped)
            mOnServerStopped();
    }

    // Called under the device's lock, and nobody asks a device anything under mMutex.
    void onRequestCompleted() override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mCompleted;
        ++mChanges;
        mChanged.notify_all();
    }

    bool waitUntilNoneOpen()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kLimit, [this] { return mDeleted == mCreated; });
    }

    std::atomic<uint64_t> mCreated{0};
    std::atomic<uint64_t> mCompleted{0};
    std::atomic<uint64_t> mDeleted{0};
    std::atomic<uint64_t> mServerStoppedCalls{0};

private:
    struct Open
    {
        std::unique_ptr<TestRequest> request;
        std::thread worker;
        std::atomic<bool> served{false};
    };

    void serve(Open& open)
    {
        const std::string id = qv::qvThread::CurrentThreadId();
        open.request->workerThreadStartHandling(id);
        mBehaviour(*open.request);
        open.request->workerThreadStopHandling(id);
        const std::lock_guard<std::mutex> lock(mMutex);
        open.served = true;
        ++mChanges;
        mChanged.notify_all();
    }

    void reap()
    {
        std::list<std::unique_ptr<Open>> open;
        uint64_t seen = 0;
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mChanged.wait(
                    lock, [&] { return mChanges != seen || (mEnding && mDeleted == mCreated); });
                if (mChanges == seen)
                    return;
                seen = mChanges;
                open.splice(open.end(), mArrived);
            }
            open.remove_if([this](const std::unique_ptr<Open>& entry) { return remove(*entry); });
        }
    }

    bool remove(Open& open)
    {
        if (!open.served || !open.request->isCompleted())
            return false;
        open.worker.join();
        open.request.reset();
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mDeleted;
        mChanged.notify_all();
        return true;
    }

    const Behaviour mBehaviour;
    const std::function<void()> mOnServerStopped;
    const std::function<void(std::unique_ptr<qv::http::WebSocket>)> mOnNewWebSocket;
    std::mutex mMutex;  // guards all below
    std::condition_variable mChanged;
    std::list<std::unique_ptr<Open>> mArrived;
    uint64_t mChanges = 0;
    bool mEnding = false;
    std::thread mReaper;
};

qv::http::ServerOptions withMemoryOfPollingMode()
{
    qv::http::ServerOptions options;
    options.connectionMemoryBytes = 262144;
    return options;
}

TestServer::TestServer(Behaviour behaviour, TestServerOptions options)
{
    qv::initializeWendrel();
    mParameters.threadPoolSize = options.threadPoolSize;
    mParameters.connectionTimeoutMs = options.connectionTimeoutMs;
    mParameters.allowWebSocket = options.allowWebSocket;
    if (isEventDriven()) {
        serveEventDriven(std::move(behaviour), options);
        return;
    }
    // Another program may take the port between the search and the start; a server that has
    // failed cannot be started again.
    constexpr int kAttempts = 5;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        mApplication = new Application(behaviour, options);
        mServer = std::make_unique<HttpServer>(mApplication);
        mParameters.port = qv::tests::findFreePort();
        mServer->startServer(mParameters);
        waitUntil([this] { return mServer->getState() != HttpServer::Starting; });
        if (mServer->getState() == HttpServer::Running)
            return;
    }
    throw std::runtime_error("the server did not start");
}

void TestServer::serveEventDriven(Behaviour behaviour, const TestServerOptions& options)
{
    mApplication = new Application(std::move(behaviour), options);
    mServer = std::make_unique<HttpServer>(mApplication);
    qv::http::ServerOptions served = options.eventDriven;
    served.listen = {"127.0.0.1:0"};
    if (isSecure())
        served.tls.push_back(localhostTls());
    served.threads = options.threadPoolSize;
    const std::chrono::milliseconds timeout(options.connectionTimeoutMs);
    served.headTimeout = served.idleTimeout = served.bodyTimeout = served.responseTimeout = timeout;
    if (!mServer->serve(served))
        throw std::runtime_error(mServer->getFailureReason());
    const std::string endpoint = mServer->getEndpoints().front();
    mParameters.port = static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
}

TestServer::~TestServer()
{
    mServer.reset();
    qv::terminateWendrel();
}

uint16_t TestServer::port() const
{
    return mParameters.port;
}

std::string TestServer::url(const std::string& target) const
{
    return "http://127.0.0.1:" + std::to_string(port()) + target;
}

HttpServer& TestServer::server()
{
    return *mServer;
}

const HttpServer::Parameters& TestServer::parameters() const
{
    return mParameters;
}

bool TestServer::waitForState(HttpServer::State state)
{
    return waitUntil([this, state] { return mServer->getState() == state; });
}

uint64_t TestServer::requestsCreated() const
{
    return mApplication->mCreated;
}

uint64_t TestServer::requestsDeleted() const
{
    return mApplication->mDeleted;
}

uint64_t TestServer::requestsCompleted() const
{
    return mApplication->mCompleted;
}

uint64_t TestServer::serverStoppedCalls() const
{
    return mApplication->mServerStoppedCalls;
}

bool TestServer::waitUntilNoneOpen()
{
    return mApplication->waitUntilNoneOpen();
}

}  // namespace integration
