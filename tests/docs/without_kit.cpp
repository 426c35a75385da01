// A server on the library alone: everything that the kit would do, in its plainest form.

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>
#include <Wendrel/Wendrel.h>

#include <qvSystem/qvThread.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using qv::HttpBaseRequest;
using qv::HttpResponseDevice;
using qv::http::HttpServer;

namespace
{

constexpr size_t kPieceBytes = 65536;
constexpr unsigned kWorkers = 4;

class Head : public qv::HttpResponseInterface
{
public:
    const CookieMap& getCookies() override { return cookies; }
    const HeaderMap& getHeaders() override { return headers; }
    uint32_t getStatusCode() override { return status; }
    int64_t getContentLength() override { return length; }
    std::string describe() override { return std::to_string(status); }

    CookieMap cookies;
    HeaderMap headers;
    uint32_t status = 200;
    int64_t length = -1;
};

class PlainRequest : public HttpBaseRequest, public qv::HttpWaitListener
{
public:
    qv::HttpResponseInterface& getResponse() override { return head; }
    qv::HttpWaitListener& getWaitListener() override { return *this; }

    // Every second while a worker waits for the body: without this it would wait six minutes for
    // a client that has gone.
    void onWaitingForData() override
    {
        if (isCompleted())
            getReceiveDevice().setDeviceError("the client has gone");
    }

    Head head;
};

// A complete answer. The device takes 256 KiB without waiting.
void answer(PlainRequest& request, uint32_t status, const std::string& text)
{
    HttpResponseDevice& body = request.getResponseDevice();
    request.head.status = status;
    request.head.length = static_cast<int64_t>(text.size());
    if (request.getRequestType() != HttpBaseRequest::HEAD) {
        body.writeBytes(text.data(), text.size());
        body.endSending();
    }
    body.setResponseReady();
}

// A body of any length. What was written for HEAD would never be fetched.
void stream(PlainRequest& request, const std::string& line, uint64_t count)
{
    HttpResponseDevice& body = request.getResponseDevice();
    request.head.length = static_cast<int64_t>(line.size() * count);
    body.setResponseReady();
    if (request.getRequestType() == HttpBaseRequest::HEAD)
        return;
    for (; count > 0; --count) {
        if (body.writeBytes(line.data(), line.size()) != line.size())
            return;  // the client has gone, or the server stops
    }
    body.endSending();
}

void countBytes(PlainRequest& request)
{
    qv::HttpReceiveDevice& body = request.getReceiveDevice();
    std::vector<char> piece(kPieceBytes);
    uint64_t total = 0;
    while (!body.atEnd())
        total += body.readBytes(piece.data(), piece.size());
    if (!body.hasDeviceError())
        answer(request, 200, std::to_string(total) + " bytes\n");
}

// Thread: a worker. Every way out of it that has not lost the client must answer.
void serve(PlainRequest& request)
{
    const std::string& path = request.getOriginalFullUrl();
    const auto type = request.getRequestType();
    if (request.hasParseError())
        answer(request, 400, request.getParseError() + "\n");
    else if (path == "/count" && type == HttpBaseRequest::POST)
        countBytes(request);
    else if (path == "/lines" && (type == HttpBaseRequest::GET || type == HttpBaseRequest::HEAD))
        stream(request, "all work and no play\n", 1000000);
    else
        answer(request, 404, "There is nothing at this address.\n");
}

class PlainApplication : public qv::http::HttpServerImpl
{
public:
    PlainApplication()
    {
        for (unsigned i = 0; i < kWorkers; ++i)
            mWorkers.emplace_back([this] { work(); });
        mKeeper = std::thread([this] { keep(); });
    }

    // The daemon has stopped: nobody but the keeper has a request any more.
    ~PlainApplication() override
    {
        stopWorkers();
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mKeeperEnds = true;
            mNews.notify_all();
        }
        mKeeper.join();
    }

    HttpBaseRequest* createRequest() override
    {
        auto request = std::make_unique<PlainRequest>();
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mOpen;
        return request.release();
    }

    void handleRequest(HttpBaseRequest* base) override
    {
        auto* request = static_cast<PlainRequest*>(base);
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            if (!mDraining) {
                mQueue.push_back(request);
                mQueued.notify_one();
                return;
            }
        }
        serveHere(*request, [](PlainRequest& refused) { answer(refused, 503, "Stopping.\n"); });
    }

    void onNewWebSocket(qv::http::WebSocket* socket) override
    {
        socket->markForDeletion();
        delete socket;
    }

    void onServerStopped() override {}

    // Under the lock of a request's response device: so no request is asked anything under ours.
    void onRequestCompleted() override
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mEvents;
        mNews.notify_all();
    }

    // New requests are refused from now on. True when every request has been deleted in time.
    bool drain(std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mDraining = true;
        return mDeleted.wait_for(lock, limit, [this] { return mOpen == 0; });
    }

    // After the daemon: a worker may wait for a body or for room until its request has ended.
    void stopWorkers()
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mWorkersEnd = true;
            mQueued.notify_all();
        }
        for (std::thread& worker : mWorkers)
            worker.join();
        mWorkers.clear();
    }

private:
    template <typename Service> void serveHere(PlainRequest& request, Service service)
    {
        const std::string& thread = qv::qvThread::CurrentThreadId();
        request.workerThreadStartHandling(thread);
        service(request);
        request.workerThreadStopHandling(thread);
        const std::lock_guard<std::mutex> lock(mMutex);
        mServed.emplace_back(&request);
        ++mEvents;
        mNews.notify_all();
    }

    void work()
    {
        for (;;) {
            PlainRequest* request = nullptr;
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mQueued.wait(lock, [this] { return mWorkersEnd || !mQueue.empty(); });
                if (mQueue.empty())
                    return;
                request = mQueue.front();
                mQueue.pop_front();
            }
            serveHere(*request, serve);
        }
    }

    // Deletes each request that its worker has finished and the daemon has completed.
    void keep()
    {
        std::list<std::unique_ptr<PlainRequest>> served;
        uint64_t seen = 0;
        for (bool ends = false; !ends;) {
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mNews.wait(lock, [&] { return mEvents != seen || mKeeperEnds; });
                seen = mEvents;
                ends = mKeeperEnds;
                served.splice(served.end(), mServed);
            }
            const size_t before = served.size();
            served.remove_if([](const auto& request) { return request->isCompleted(); });
            const std::lock_guard<std::mutex> lock(mMutex);
            mOpen -= before - served.size();
            mDeleted.notify_all();
        }
    }

    std::mutex mMutex;  // guards all below
    std::condition_variable mQueued;
    std::condition_variable mNews;
    std::condition_variable mDeleted;
    std::deque<PlainRequest*> mQueue;                  // wait for a worker
    std::list<std::unique_ptr<PlainRequest>> mServed;  // wait for the daemon
    size_t mOpen = 0;
    uint64_t mEvents = 0;
    bool mDraining = false;
    bool mWorkersEnd = false;
    bool mKeeperEnds = false;
    std::vector<std::thread> mWorkers;
    std::thread mKeeper;
};

bool start(HttpServer& server, const HttpServer::Parameters& parameters)
{
    server.startServer(parameters);
    while (server.getState() == HttpServer::Starting)
        qv::qvThread::msleep(1);
    return server.getState() == HttpServer::Running;
}

// What must happen at the end, in this order.
bool stop(HttpServer& server, PlainApplication& application)
{
    const bool allAnswered = application.drain(std::chrono::seconds(10));
    server.stopServer(true);    // ends what is left: its writers and readers give up
    application.stopWorkers();  // so that they come back now
    return allAnswered;
}

}  // namespace

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
    qv::initializeWendrel();
    {
        auto* application = new PlainApplication;
        HttpServer server(application);  // deletes it
        if (!start(server, parameters))
            return 1;
        std::printf("listening on http://127.0.0.1:%u/\n", parameters.port);
        std::fflush(stdout);

        int number = 0;
        sigwait(&signals, &number);
        std::puts(stop(server, *application) ? "every request was answered"
                                             : "some requests were cut off");
    }  // the server has been destroyed, and with it the application and what it still had
    qv::terminateWendrel();
    return 0;
}
