// An application that records its calls in the call record of the fake daemon, so that the calls of
// both sides can be compared in one order.
#ifndef WENDREL_TESTS_RECORDINGAPPLICATION_H
#define WENDREL_TESTS_RECORDINGAPPLICATION_H

#include "support/RecordingDaemon.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qv::tests
{

class RecordingApplication : public http::HttpServerImpl
{
public:
    explicit RecordingApplication(RecordingDaemon& daemon) : mDaemon(daemon) {}
    ~RecordingApplication() override { mDaemon.record("~HttpServerImpl"); }

    using HttpServerImpl::setErrorBody;

    HttpBaseRequest* createRequest() override
    {
        mDaemon.record("createRequest");
        return makeRequest ? makeRequest() : nullptr;
    }

    void handleRequest(HttpBaseRequest* request) override
    {
        mDaemon.record("handleRequest");
        if (onRequest)
            onRequest(request);
    }

    void onNewWebSocket(http::WebSocket* socket) override
    {
        mDaemon.record("onNewWebSocket");
        webSockets.emplace_back(socket);
    }

    void onServerStopped() override
    {
        mDaemon.record("onServerStopped");
        if (onStopped)
            onStopped();
    }

    void onRequestCompleted() override { mDaemon.record("onRequestCompleted"); }

    // Set by the test before the server is started.
    std::function<HttpBaseRequest*()> makeRequest;
    std::function<void(HttpBaseRequest*)> onRequest;
    std::function<void()> onStopped;

    std::vector<std::unique_ptr<http::WebSocket>> webSockets;  // in the order they came

private:
    RecordingDaemon& mDaemon;
};

}  // namespace qv::tests

#endif
