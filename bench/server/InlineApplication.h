// The pages of the benchmark, served with the library only: on the daemon threads, or by a pool.
#ifndef BENCH_SERVER_INLINEAPPLICATION_H
#define BENCH_SERVER_INLINEAPPLICATION_H

#include "server/Pool.h"
#include "server/RequestBins.h"
#include "server/WebSocketEcho.h"
#include "support/Options.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace bench
{

// Completes each response inside `handleRequest`, except two that would wait there for their own
// thread: a stream larger than the response device accepts without waiting, and an upload, which is
// not received while `handleRequest` runs. A pool serves these, and in mode `worker` all.
class InlineApplication : public qv::http::HttpServerImpl
{
public:
    explicit InlineApplication(const Options& options);

private:
    qv::HttpBaseRequest* createRequest() override;
    void handleRequest(qv::HttpBaseRequest* request) override;
    void onNewWebSocket(qv::http::WebSocket* socket) override;
    void onServerStopped() override;
    void onRequestCompleted() override {}

    void addWaiting(InlineRequest* request);
    size_t countWaiting();
    size_t releaseWaiting();

    const bool mLends;
    const bool mUsesPool;
    RequestBins mBins;
    std::mutex mMutex;
    std::vector<InlineRequest*> mWaiting;  // under mMutex; not served, so not deleted either
    Pool mPool;                            // its threads use requests
    std::unique_ptr<WebSocketEcho> mWebSocketEcho;  // null: polling mode, or not wanted
    qv::http::WebSocketThread mPollingEcho;         // started in polling mode, if wanted
};

// Serves until the process is told to stop; false when it could not listen.
bool serveInline(const Options& options);

}  // namespace bench

#endif
