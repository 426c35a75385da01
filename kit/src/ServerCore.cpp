// Start, stop, and the end of requests.

#include "ServerCore.h"

#include "Exchange.h"
#include "KitLog.h"
#include "RouteTable.h"

#include <Wendrel/UpgradedConnection.h>
#include <Wendrel/WebSocket.h>

#include <qvSystem/Rollback.h>

#include <algorithm>
#include <exception>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>

namespace qv::kit
{
namespace
{

// The library sends it without a Content-Type.
constexpr const char* kErrorBody = "500 Internal Server Error\n";
constexpr unsigned kMaxWorkers = 1024;

// Completed requests that wait for the callback of the application.
constexpr size_t kMaxUnreported = 1024;

void logOfServer(const char* text, std::string_view detail) noexcept
{
    LogOfRoute("server", text, detail);
}

}  // namespace

// The library's interface: all that it calls is an operation of the request.
class ServerCore::Application : public http::HttpServerImpl
{
public:
    explicit Application(ServerCore& core) : mCore(core) { setErrorBody(kErrorBody); }

    HttpBaseRequest* createRequest() override { return &mCore.create(); }

    void handleRequest(HttpBaseRequest* request) override
    {
        static_cast<Exchange*>(request)->begin();
    }

    void onRequestCompleted() override {}

    void onRequestRefused(const http::RefusedRequest& request) override
    {
        if (Metrics* const metrics = mCore.metrics())
            metrics->countRefused(request.status, request.reason);
        if (!mCore.reportsRequests())
            return;
        try {
            CompletedRequest over;
            over.method = request.method;
            over.target = request.target;
            over.clientAddress = request.clientAddress;
            over.status = request.status;
            over.abortReason = request.reason;
            mCore.endRefused(std::move(over));
        } catch (const std::bad_alloc&) {
            // The request is not reported.
        }
    }

    void onServerStopped() override
    {
        mCore.callStopping();
        mCore.noteStopping(true);
    }

    // Polling mode only.
    void onNewWebSocket(http::WebSocket* socket) override
    {
        const std::unique_ptr<http::WebSocket> taken(socket);
        taken->markForDeletion();
    }

private:
    ServerCore& mCore;
};

ServerCore::ServerCore()
    : mDeadlines([this] { endRequests(); }), mWorkers([](Exchange& e) { serveOnWorker(e); })
{
    auto application = std::make_unique<Application>(*this);
    mServer = std::make_unique<http::HttpServer>(application.get());
    static_cast<void>(application.release());  // the server's
}

ServerCore::~ServerCore() = default;

std::string ServerCore::whyImpossible(const ServerOptions& options)
{
    if (options.workers == 0 || options.workers > kMaxWorkers)
        return "ServerOptions::workers: " + std::to_string(options.workers) +
               " is not between 1 and " + std::to_string(kMaxWorkers);
    return std::string();
}

void ServerCore::release()
{
    if (--mUsers == 0)
        delete this;
}

void ServerCore::serveOnWorker(Exchange& exchange)
{
    ServerCore& core = exchange.core();
    exchange.serve();
    // The worker is one of the core: it is still there.
    core.endRequests();
}

bool ServerCore::startThreads(const ServerOptions& options)
{
    Rollback started([this] {
        stopThreads();
        mSessions.reset();
    });
    mDeadlines.start();
    mWorkers.start(options.workers, options.workerQueueLimit);
    noteStopping(false);
    if (mRouter.mTable->hasWebSockets()) {
        websocket::EngineOptions sessions = options.webSockets;
        if (sessions.loops == 0)
            sessions.loops = options.threads;
        mSessions = std::make_shared<websocket::Engine>(sessions);
    }
    const bool serves = mServer->serve(options, sizeof(http::ServerOptions));
    if (serves)
        started.commit();
    return serves;
}

void ServerCore::stopThreads()
{
    mWorkers.stop();
    mDeadlines.stop();
    endRequests();
    if (mAccessLog)
        mAccessLog->stop();
}

// Why the routes are impossible.
std::string ServerCore::freezeRoutes()
{
    try {
        mRouter.mTable->freeze(
            [this](std::function<void()> task) { return mWorkers.run(std::move(task)); });
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
    return std::string();
}

bool ServerCore::start(const ServerOptions& options)
{
    const qvMutexLocker locker(&mMutex);
    std::string failure =
        mState == State::Stopped ? whyImpossible(options) : "the server is not stopped";
    if (failure.empty()) {
        mMaxBodyBytes = options.maxBodyBytes;
        mOnCompleted = options.onCompleted;
        mCompression = options.compression;
        mReportsRequests = mOnCompleted || mAccessLog;
        failure = freezeRoutes();
        if (failure.empty() && mMetrics)
            mMetrics->start(options.threads, mRouter.mTable->names());
        mIsDraining = false;
        mAbortedByStop = 0;
        if (failure.empty() && mAccessLog)
            failure = mAccessLog->start();
        if (failure.empty() && startThreads(options))
            mState = State::Started;
        else if (failure.empty())
            failure = mServer->getFailureReason();
    }
    const bool isStarted = failure.empty();
    const qvMutexLocker reasonLocker(&mReasonMutex);
    mFailureReason = std::move(failure);
    return isStarted;
}

bool ServerCore::stop(std::chrono::milliseconds deadline)
{
    bool isFirst = false;
    std::shared_ptr<websocket::Engine> sessions;
    {
        const qvMutexLocker locker(&mMutex);
        if (mState == State::Stopped)
            return true;
        isFirst = mState == State::Started;
        mState = State::Stopping;
        ++mShutDowns;
        mIsDraining = true;
        sessions = mSessions;
    }
    // A further call shortens the time of the first one.
    const bool drained = shutDown(deadline, sessions);
    // The workers go on until every request is completed.
    if (isFirst)
        stopThreads();
    const qvMutexLocker locker(&mMutex);
    --mShutDowns;
    mStopped.wakeAll();
    if (isFirst) {
        // A late one must not meet the next start.
        while (mShutDowns != 0)
            mStopped.wait(&mMutex, qvWaitCondition::kNoTimeout);
        mSessions.reset();
        mHasDrained = drained;
        mState = State::Stopped;
        mStopped.wakeAll();
    }
    while (mState == State::Stopping)
        mStopped.wait(&mMutex, qvWaitCondition::kNoTimeout);
    return mHasDrained;
}

// Sessions are closed after `onStopping` has sent their last messages, and while requests end.
bool ServerCore::shutDown(std::chrono::milliseconds deadline,
                          const std::shared_ptr<websocket::Engine>& sessions)
{
    if (!sessions)
        return mServer->shutDown(deadline);
    bool areClosed = false;
    const auto closeSessions = [&] {
        awaitStopping();
        areClosed = sessions->shutDown(deadline);
    };
    std::thread closer;
    try {
        closer = std::thread(closeSessions);
    } catch (const std::exception&) {
        // No thread or no memory: one after the other, then.
    }
    const bool drained = mServer->shutDown(deadline);
    noteStopping(true);
    if (closer.joinable())
        closer.join();
    else
        closeSessions();
    return drained && areClosed;
}

void ServerCore::noteStopping(bool isCalled)
{
    {
        const qvMutexLocker locker(&mStoppingMutex);
        mIsStoppingCalled = isCalled;
    }
    mStoppingCalled.wakeAll();
}

void ServerCore::awaitStopping()
{
    const qvMutexLocker locker(&mStoppingMutex);
    while (!mIsStoppingCalled)
        mStoppingCalled.wait(&mStoppingMutex, qvWaitCondition::kNoTimeout);
}

void ServerCore::openSession(const MemoryAccount& memory,
                             std::unique_ptr<UpgradedConnection> connection,
                             const websocket::Agreement& agreement,
                             const std::shared_ptr<websocket::SessionHandler>& handler,
                             const std::shared_ptr<const websocket::WebSocketOptions>& options)
{
    mSessions->shareMemory(memory);
    mSessions->open(std::move(connection), agreement, handler, options);
}

void ServerCore::enableMetrics()
{
    const qvMutexLocker locker(&mMutex);
    if (!mMetrics && mState == State::Stopped && !mRouter.mTable->isFrozen())
        mMetrics = std::make_unique<Metrics>();
}

std::string ServerCore::metricsText()
{
    std::string text = mMetrics->text();
    const auto add = [&](const char* name, const char* type, const char* help, uint64_t value) {
        Metrics::describe(text, name, type, help);
        Metrics::append(text, name, "", value);
    };
    add("wendrel_requests_open", "gauge", "Requests that are received or served.", mOpenRequests);
    const auto [requests, tasks] = mWorkers.queueLengths();
    constexpr const char* kQueue = "wendrel_worker_queue_length";
    Metrics::describe(text, kQueue, "gauge", "Requests and callbacks that wait for a worker.");
    Metrics::append(text, kQueue, "queue=\"requests\"", requests);
    Metrics::append(text, kQueue, "queue=\"tasks\"", tasks);
    add("wendrel_websocket_sessions", "gauge", "Open WebSocket sessions.",
        mSessions ? mSessions->sessionCount() : 0);
    add("wendrel_access_log_lines_lost_total", "counter", "Lines of the access log.",
        mAccessLog ? mAccessLog->lostLines() : 0);
    return text;
}

void ServerCore::setAccessLog(std::unique_ptr<AccessWriter> log)
{
    const qvMutexLocker locker(&mMutex);
    if (mState == State::Stopped)
        mAccessLog = std::move(log);
    else
        LogOfRoute("server", "the access log is not changed: the server has been started");
}

void ServerCore::close()
{
    stop(std::chrono::milliseconds(0));
    mServer.reset();
}

// The workers and the threads of the library are asked once for each round.
uint64_t ServerCore::countTurns()
{
    const uint64_t ofThreads = mServer->countTurns();
    const qvMutexLocker locker(&mTurnMutex);
    if (mWorkerTurn && *mWorkerTurn && ofThreads > mTurnsOfThreads) {
        ++mTurns;
        mTurnsOfThreads = ofThreads;
        mWorkerTurn.reset();
    }
    // A server that has been started again counts from 0.
    mTurnsOfThreads = std::min(mTurnsOfThreads, ofThreads);
    if (!mWorkerTurn) {
        auto turn = std::make_shared<std::atomic<bool>>(false);
        if (mWorkers.run([turn] { *turn = true; }))
            mWorkerTurn = std::move(turn);
    }
    return mTurns;
}

std::string ServerCore::failureReason() const
{
    const qvMutexLocker locker(&mReasonMutex);
    return mFailureReason;
}

// Thread: the listener's.
void ServerCore::callStopping() const
{
    if (mStopping)
        callLogged("the callback onStopping failed: ", mStopping, logOfServer);
}

Exchange& ServerCore::create()
{
    ++mRequestCount;
    // The memory of finished requests is used for this one. With a callback for them, which may
    // wait, the threads of the connections only help when it is slower than the requests.
    if (!mOnCompleted || mUnreported.load(std::memory_order_relaxed) > kMaxUnreported)
        endRequests();
    auto* const exchange = new Exchange(*this);
    ++mOpenRequests;
    return *exchange;
}

void ServerCore::endLater(Exchange& exchange)
{
    if (exchange.isReported())
        ++mUnreported;
    Exchange* first = mOver.load(std::memory_order_relaxed);
    do {
        exchange.mNextOver = first;
    } while (!mOver.compare_exchange_weak(first, &exchange));
    mDeadlines.requestDeletion();
}

void ServerCore::endRefused(CompletedRequest&& request)
{
    {
        const qvMutexLocker locker(&mRefusedMutex);
        mRefused.push_back(std::move(request));
        ++mUnreported;
    }
    if (mUnreported.load(std::memory_order_relaxed) > kMaxUnreported)
        endRequests();
    else
        mDeadlines.requestDeletion();
}

// Sequentially consistent, as the additions and the flag of `DeadlineQueue::requestDeletion`: the
// thread of the deadlines clears the flag and then looks here. Either it finds the addition, or the
// flag that is looked at after the addition is clear.
void ServerCore::endRequests()
{
    if (mUnreported != 0)
        reportRefused();
    if (!mOver.load())
        return;
    Exchange* exchange = mOver.exchange(nullptr, std::memory_order_acquire);
    // In order of their ends.
    if (reportsRequests()) {
        Exchange* last = nullptr;
        while (exchange) {
            Exchange* const next = std::exchange(exchange->mNextOver, last);
            last = std::exchange(exchange, next);
        }
        exchange = last;
    }
    while (exchange) {
        Exchange& over = *std::exchange(exchange, exchange->mNextOver);
        if (over.isReported())
            --mUnreported;
        Exchange::end(over);
    }
}

void ServerCore::reportRefused()
{
    std::vector<CompletedRequest> refused;
    {
        const qvMutexLocker locker(&mRefusedMutex);
        refused.swap(mRefused);
    }
    mUnreported -= refused.size();
    for (const CompletedRequest& request : refused)
        report(request);
}

void ServerCore::report(const CompletedRequest& request) const noexcept
{
    if (mAccessLog)
        mAccessLog->write(request);
    if (!mOnCompleted)
        return;
    callLogged(
        "the callback onCompleted failed: ", [&] { mOnCompleted(request); }, logOfServer);
}

}  // namespace qv::kit
