/// The library alone with an application of a few lines, which has worker threads of its own.
#ifndef WENDREL_TESTS_INTEGRATION_LIBRARYSERVER_H
#define WENDREL_TESTS_INTEGRATION_LIBRARYSERVER_H

#include "Round.h"

#include <Wendrel/HttpServer.h>

#include <support/MinimalRequest.h>

#include <atomic>
#include <condition_variable>
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

class PlainRequest : public qv::tests::MinimalRequest
{
public:
    explicit PlainRequest(Round& round) : mRound(round) { mRound.opened(this); }
    ~PlainRequest() override { mRound.deleted(this); }

    void onWaitingForData() override;

    /// Responds by the path. Thread: a worker.
    void serve();

    std::atomic<bool> served{false};

private:
    bool reply(const std::string& body);
    bool stream(const std::string& body, bool isMeasured);
    bool takeUpload(uint64_t id);

    Round& mRound;
};

/// Deletes each request when its worker has finished and it is completed, whichever comes last.
class PlainApplication : public qv::http::HttpServerImpl
{
public:
    explicit PlainApplication(Round& round);
    ~PlainApplication() override;

    qv::HttpBaseRequest* createRequest() override;
    void handleRequest(qv::HttpBaseRequest* request) override;
    void onNewWebSocket(qv::http::WebSocket* socket) override;
    void onServerStopped() override { ++mStops; }
    void onRequestCompleted() override;

    uint64_t stops() const { return mStops; }

private:
    void work();
    void reap();
    void tellNews();

    Round& mRound;
    std::atomic<uint64_t> mCompletions{0};
    std::atomic<uint64_t> mStops{0};
    std::mutex mMutex;  // guards the fields below; no request is accessed under it
    std::condition_variable mQueued;
    std::condition_variable mNewsCame;
    std::deque<PlainRequest*> mQueue;
    std::list<std::unique_ptr<PlainRequest>> mArrived;
    uint64_t mNews = 0;
    bool mWorkersEnd = false;
    bool mReaperEnds = false;
    std::vector<std::thread> mWorkers;
    std::thread mReaper;
};

/// The numbers of a target like "/small/17".
uint64_t idOf(const qv::HttpBaseRequest& request);

}  // namespace integration

#endif
