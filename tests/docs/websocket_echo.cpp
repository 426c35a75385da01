// The server of docs/websocket-polling-mode.md: echoes every message until SIGINT or SIGTERM.

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>
#include <Wendrel/Wendrel.h>

#include <qvSystem/qvThread.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

using qv::HttpBaseRequest;
using qv::http::HttpServer;

class Echo : public qv::http::WebSocket
{
public:
    explicit Echo(qv::http::WebSocket&& upgraded) : WebSocket(std::move(upgraded)) {}

    void onMessageReceived(std::vector<uint8_t>& received, bool isBinary) override
    {
        writeMessage(received.data(), received.size(), isBinary);
    }
};

// A request that is no upgrade: 404.
class NotFound : public HttpBaseRequest, private qv::HttpResponseInterface, qv::HttpWaitListener
{
public:
    void respond()
    {
        getResponseDevice().endSending();
        getResponseDevice().setResponseReady();
    }

private:
    qv::HttpResponseInterface& getResponse() override { return *this; }
    qv::HttpWaitListener& getWaitListener() override { return *this; }
    void onWaitingForData() override {}

    const CookieMap& getCookies() override { return mCookies; }
    const HeaderMap& getHeaders() override { return mHeaders; }
    uint32_t getStatusCode() override { return 404; }
    int64_t getContentLength() override { return 0; }
    std::string describe() override { return "404"; }

    CookieMap mCookies;
    HeaderMap mHeaders;
};

class EchoApplication : public qv::http::HttpServerImpl
{
public:
    EchoApplication() { mWebSockets.startThreads(4); }

    void onNewWebSocket(qv::http::WebSocket* socket) override
    {
        const std::unique_ptr<qv::http::WebSocket> upgraded(socket);
        std::unique_ptr<qv::http::WebSocket> echo = std::make_unique<Echo>(std::move(*upgraded));
        mWebSockets.addWebSocket(echo);
    }

    void onServerStopped() override {}

    HttpBaseRequest* createRequest() override
    {
        auto request = std::make_unique<NotFound>();
        const std::lock_guard<std::mutex> lock(mMutex);
        mRequests.remove_if([](const auto& other) { return other->isCompleted(); });
        return mRequests.emplace_back(std::move(request)).get();
    }

    void handleRequest(HttpBaseRequest* request) override
    {
        static_cast<NotFound*>(request)->respond();
    }

    void onRequestCompleted() override {}

private:
    std::mutex mMutex;
    std::list<std::unique_ptr<NotFound>> mRequests;  // deleted when they are completed
    qv::http::WebSocketThread mWebSockets;
};

int main(int argc, char** argv)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before the first thread
    std::signal(SIGPIPE, SIG_IGN);

    HttpServer::Parameters parameters;
    if (argc > 1)
        parameters.port = static_cast<uint16_t>(std::atoi(argv[1]));
    parameters.allowWebSocket = true;
    qv::initializeWendrel();
    {
        HttpServer server(new EchoApplication);  // deletes it
        server.startServer(parameters);
        while (server.getState() == HttpServer::Starting)
            qv::qvThread::msleep(1);
        if (server.getState() == HttpServer::Running) {
            std::printf("ws://127.0.0.1:%u/\n", parameters.port);
            std::fflush(stdout);
            int number = 0;
            sigwait(&signals, &number);
            std::_Exit(0);  // a worker that holds a connection would not end
        }
    }
    qv::terminateWendrel();
    return 1;
}
