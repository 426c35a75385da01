// The state that all requests of a server share.
#ifndef WENDREL_KIT_SRC_SERVERCORE_H
#define WENDREL_KIT_SRC_SERVERCORE_H

#include "AccessWriter.h"
#include "DeadlineQueue.h"
#include "Metrics.h"
#include "WorkerPool.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/kit/Router.h>
#include <Wendrel/kit/Server.h>
#include <Wendrel/kit/websocket/Engine.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qv::kit
{

class Exchange;
class RouteTable;

// Counted by the server and by each request that is not deleted: a deferred response may outlive
// the server.
class ServerCore
{
public:
    ServerCore();
    ServerCore(const ServerCore&) = delete;
    ServerCore& operator=(const ServerCore&) = delete;

    void retain() { ++mUsers; }
    void release();

    // Why a server with these options cannot be started, but for the fields of the library; empty
    // when it can.
    static std::string whyImpossible(const ServerOptions& options);

    // The server's owner.
    Router& router() { return mRouter; }
    bool start(const ServerOptions& options);
    bool stop(std::chrono::milliseconds deadline);
    // Nothing serves any more; the server's owner does not use it again.
    void close();
    std::string failureReason() const;
    http::HttpServer& httpServer() const { return *mServer; }

    // See `Server::countTurns`. Any thread.
    uint64_t countTurns();

    void setAccessLog(std::unique_ptr<AccessWriter> log);
    // Any thread, as the following. Null: none.
    AccessWriter* accessLog() const { return mAccessLog.get(); }

    // Before the start. Counts from then on.
    void enableMetrics();
    // Null: nothing is counted. Not changed while the server runs.
    Metrics* metrics() const { return mMetrics.get(); }
    // Thread: a worker.
    std::string metricsText();

    // Any thread.
    void setReady(bool isReady) { mIsReady = isReady; }
    void beginDraining() { mIsDraining = true; }
    bool isReady() const { return mIsReady && !mIsDraining; }

    void setStopping(std::function<void()> callback) { mStopping = std::move(callback); }

    // The requests.
    const RouteTable& routes() const { return *mRouter.mTable; }
    const HookTable& hooks() const { return *mRouter.mHooks; }
    DeadlineQueue& deadlines() { return mDeadlines; }
    WorkerPool& workers() { return mWorkers; }
    uint64_t maxBodyBytes() const { return mMaxBodyBytes; }
    const CompressionOptions& compression() const { return mCompression; }
    uint64_t requestCount() const { return mRequestCount; }
    size_t openRequests() const { return mOpenRequests; }

    // A new request. Thread: the daemon's.
    Exchange& create();
    // The daemon has completed a request. Under the mutex of its response device.
    void completed() { --mOpenRequests; }
    // The deadline of a stop has ended a request. Any thread.
    void countAbortByStop() { ++mAbortedByStop; }
    // Since the start.
    uint64_t abortedByStop() const { return mAbortedByStop; }
    // Whether completed requests are told to the application. Not changed while the server runs.
    bool reportsRequests() const { return mReportsRequests; }
    // Ends the request, which the daemon has completed, when no mutex is held any more. Thread: the
    // daemon's.
    void endLater(Exchange& exchange);
    // The application has not seen the request. Thread: the daemon's.
    void endRefused(CompletedRequest&& request);
    // Ends those.
    void endRequests();
    // Calls the application, without a lock.
    void report(const CompletedRequest& request) const noexcept;

    // A handshake has been accepted. `memory` is the server's. Thread: the daemon's.
    void openSession(const MemoryAccount& memory, std::unique_ptr<UpgradedConnection> connection,
                     const websocket::Agreement& agreement,
                     const std::shared_ptr<websocket::SessionHandler>& handler,
                     const std::shared_ptr<const websocket::WebSocketOptions>& options);

private:
    class Application;

    ~ServerCore();
    static void serveOnWorker(Exchange& exchange);
    std::string freezeRoutes();
    bool startThreads(const ServerOptions& options);
    void stopThreads();

    bool shutDown(std::chrono::milliseconds deadline,
                  const std::shared_ptr<websocket::Engine>& sessions);
    void reportRefused();
    void callStopping() const;
    void noteStopping(bool isCalled);
    void awaitStopping();

    Router mRouter;
    std::function<void()> mStopping;  // not changed while the server runs
    std::atomic<size_t> mUsers{1};
    std::atomic<uint64_t> mRequestCount{0};
    std::atomic<size_t> mOpenRequests{0};
    std::atomic<uint64_t> mAbortedByStop{0};
    std::atomic<Exchange*> mOver{nullptr};                      // requests to be ended
    std::atomic<size_t> mUnreported{0};                         // of those, and of the refused ones
    std::function<void(const CompletedRequest&)> mOnCompleted;  // not changed while the server runs
    std::unique_ptr<Metrics> mMetrics;                          // the same
    std::atomic<bool> mIsReady{true};
    std::atomic<bool> mIsDraining{false};
    std::unique_ptr<AccessWriter> mAccessLog;  // the same; null: none
    bool mReportsRequests = false;             // the same
    qvMutex mRefusedMutex;
    std::vector<CompletedRequest> mRefused QV_GUARDED_BY(mRefusedMutex);  // to be reported
    std::atomic<uint64_t> mMaxBodyBytes{0};
    CompressionOptions mCompression;  // not changed while the server runs
    enum class State : uint8_t { Stopped, Started, Stopping };

    qvMutex mMutex;  // held by start, and by stop while it does not wait
    qvWaitCondition mStopped;
    State mState QV_GUARDED_BY(mMutex) = State::Stopped;
    unsigned mShutDowns QV_GUARDED_BY(mMutex) = 0;  // threads in `stop`
    bool mHasDrained QV_GUARDED_BY(mMutex) = true;  // the last stop
    mutable qvMutex mReasonMutex;
    std::string mFailureReason QV_GUARDED_BY(mReasonMutex);
    DeadlineQueue mDeadlines;
    WorkerPool mWorkers;
    qvMutex mTurnMutex;
    uint64_t mTurns QV_GUARDED_BY(mTurnMutex) = 0;           // complete rounds
    uint64_t mTurnsOfThreads QV_GUARDED_BY(mTurnMutex) = 0;  // of the library, in the last one
    std::shared_ptr<std::atomic<bool>> mWorkerTurn QV_GUARDED_BY(mTurnMutex);  // null: not asked
    qvMutex mStoppingMutex;
    qvWaitCondition mStoppingCalled;
    bool mIsStoppingCalled QV_GUARDED_BY(mStoppingMutex) = false;
    // While a server with such routes runs. Changed under mMutex, while no daemon runs.
    std::shared_ptr<websocket::Engine> mSessions;
    std::unique_ptr<http::HttpServer> mServer;
};

}  // namespace qv::kit

#endif
