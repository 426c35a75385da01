// An application without the kit: each response is complete when the daemon's call returns.

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>
#include <Wendrel/Wendrel.h>

#include <qvSystem/qvThread.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace
{

class Head : public qv::HttpResponseInterface
{
public:
    const CookieMap& getCookies() override { return mCookies; }
    const HeaderMap& getHeaders() override { return mHeaders; }
    uint32_t getStatusCode() override { return status; }
    int64_t getContentLength() override { return -1; }
    std::string describe() override { return std::to_string(status); }

    uint32_t status = 200;

private:
    CookieMap mCookies;
    HeaderMap mHeaders = {{"content-type", {"Content-Type", "text/plain; charset=utf-8"}}};
};

class Request : public qv::HttpBaseRequest, private qv::HttpWaitListener
{
public:
    qv::HttpResponseInterface& getResponse() override { return mHead; }
    qv::HttpWaitListener& getWaitListener() override { return *this; }

    void respond()
    {
        workerThreadStartHandling(qv::qvThread::CurrentThreadId());
        const bool found = !hasParseError() && getUrl().path() == "/hello/world";
        mHead.status = hasParseError() ? 400 : found ? 200 : 404;
        const std::string body = found ? "Hello, world!\n" : "There is nothing here.\n";
        getResponseDevice().writeBytes(body.data(), body.size());
        getResponseDevice().endSending();
        getResponseDevice().setResponseReady();
        workerThreadStopHandling(qv::qvThread::CurrentThreadId());
    }

private:
    void onWaitingForData() override {}

    Head mHead;
};

class Application : public qv::http::HttpServerImpl
{
public:
    qv::HttpBaseRequest* createRequest() override
    {
        const std::lock_guard<std::mutex> locker(mMutex);
        mRequests.push_back(std::make_unique<Request>());
        return mRequests.back().get();
    }
    void handleRequest(qv::HttpBaseRequest* request) override
    {
        static_cast<Request*>(request)->respond();
    }
    void onNewWebSocket(qv::http::WebSocket* socket) override
    {
        socket->markForDeletion();
        delete socket;
    }
    void onServerStopped() override {}
    void onRequestCompleted() override {}

private:
    std::mutex mMutex;
    std::vector<std::unique_ptr<Request>> mRequests;  // deleted when the daemon has stopped
};

}  // namespace

int main(int argc, char** argv)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    qv::initializeWendrel();
    int failed = 1;
    {
        qv::http::HttpServer server(std::make_unique<Application>().release());
        qv::http::HttpServer::Parameters parameters;
        const std::string endpoint = argc > 1 ? argv[1] : "127.0.0.1:8181";
        parameters.port =
            static_cast<uint16_t>(std::atoi(endpoint.c_str() + endpoint.rfind(':') + 1));
        server.startServer(parameters);
        while (server.getState() == qv::http::HttpServer::Starting)
            qv::qvThread::msleep(1);
        if (server.getState() == qv::http::HttpServer::Running) {
            std::printf("version %s\n",
                        Wendrel::Version::GetDescStringMajorMinorReleaseRevisionDate());
            std::printf("http://127.0.0.1:%u/\n", parameters.port);
            std::fflush(stdout);
            int number = 0;
            sigwait(&signals, &number);
            server.stopServer(true);
            failed = 0;
        }
    }
    qv::terminateWendrel();
    return failed;
}
