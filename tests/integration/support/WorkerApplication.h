/// An application on the library's own classes whose requests are served by a pool of workers.
#ifndef WENDREL_TESTS_INTEGRATION_WORKERAPPLICATION_H
#define WENDREL_TESTS_INTEGRATION_WORKERAPPLICATION_H

#include <Wendrel/HttpServer.h>

#include <support/MinimalRequest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace integration
{

class WorkerApplication;

/// Served by one call of `serve`, then deleted when the daemon has completed it, too.
class WorkerRequest : public qv::tests::MinimalRequest
{
public:
    /// Responds. Thread: a worker.
    virtual void serve() = 0;

    /// Responds with a body of any size, which is complete before it is announced.
    bool respond(uint32_t status, const std::string& body);

    /// Responds with `bytes` bytes while they are sent; `isMeasured`: with their length.
    bool stream(uint64_t bytes, bool isMeasured);

    /// Ends the wait for a body whose connection is closed.
    void onWaitingForData() override;

protected:
    void onCompleted(int terminationCode) override;

private:
    friend class WorkerApplication;

    WorkerApplication* mApplication = nullptr;
    std::list<std::unique_ptr<WorkerRequest>>::iterator mPlace;
    std::atomic<int> mUsers{2};  // its worker and the daemon
};

/// Derive from it and make requests; call `stopWorkers` in the destructor of the derived class.
class WorkerApplication : public qv::http::HttpServerImpl
{
public:
    /// Beyond `queueLimit` waiting requests further ones get 503.
    WorkerApplication(size_t workers, size_t queueLimit);

    /// When the daemon has stopped.
    ~WorkerApplication() override;

    /// From now on requests get 503. False when some are still open after the limit.
    bool drain(std::chrono::milliseconds limit);

    /// Serves all queued requests and joins the workers.
    void stopWorkers();

    size_t openCount() const;
    uint64_t requestCount() const { return mRequests; }

protected:
    virtual std::unique_ptr<WorkerRequest> newRequest() = 0;

    void onNewWebSocket(qv::http::WebSocket* socket) override;
    void onServerStopped() override {}

private:
    friend class WorkerRequest;
    using Requests = std::list<std::unique_ptr<WorkerRequest>>;

    qv::HttpBaseRequest* createRequest() override;
    void handleRequest(qv::HttpBaseRequest* request) override;
    void onRequestCompleted() override {}
    bool queue(WorkerRequest& request);
    void refuse(WorkerRequest& request);
    void release(WorkerRequest& request);
    void work();
    void reap();

    const size_t mQueueLimit;
    std::atomic<uint64_t> mRequests{0};
    std::atomic<bool> mDraining{false};
    mutable std::mutex mMutex;  // guards the fields below; no mutex of a request is taken under it
    std::condition_variable mChanged;
    Requests mOpen;
    Requests mOver;
    size_t mCount = 0;  // of both, and of those that are being deleted
    std::deque<WorkerRequest*> mQueue;
    bool mWorkersEnd = false;
    bool mReaperEnds = false;
    std::vector<std::thread> mWorkers;
    std::thread mReaper;
};

}  // namespace integration

#endif
