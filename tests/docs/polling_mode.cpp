// A server built on the library alone, with the parts that the kit would provide.

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>
#include <Wendrel/Wendrel.h>

#include <qvSystem/qvThread.h>

#include <atomic>
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

class PlainApplication;

class PlainRequest : public HttpBaseRequest, public qv::HttpWaitListener
{
public:
    explicit PlainRequest(PlainApplication& application) : mApplication(application) {}

    qv::HttpResponseInterface& getResponse() override { return head; }
    qv::HttpWaitListener& getWaitListener() override { return *this; }

    // Called every second while a worker waits for the body. Without it the wait for a closed
    // connection lasts six minutes.
    void onWaitingForData() override
    {
        if (isCompleted())
            getReceiveDevice().setDeviceError("the client closed the connection");
    }

    void onCompleted(int) override;

    Head head;
    std::atomic<int> users{2};  // the worker and the daemon

private:
    PlainApplication& mApplication;
};

// Sends a complete response. The device takes 256 KiB without waiting.
void respond(PlainRequest& request, uint32_t status, const std::string& text)
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

// Streams a body of any length. For HEAD nothing is written: the daemon would never fetch it.
void stream(PlainRequest& request, const std::string& line, uint64_t count)
{
    HttpResponseDevice& body = request.getResponseDevice();
    request.head.length = static_cast<int64_t>(line.size() * count);
    body.setResponseReady();
    if (request.getRequestType() == HttpBaseRequest::HEAD)
        return;
    for (; count > 0; --count) {
        if (body.writeBytes(line.data(), line.size()) != line.size())
            return;  // the client closed the connection, or the server stops
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
        respond(request, 200, std::to_string(total) + " bytes\n");
}

// Thread: a worker. Every path must respond, unless the connection is lost.
void serve(PlainRequest& request)
{
    const std::string& path = request.getOriginalFullUrl();
    const auto type = request.getRequestType();
    if (request.hasParseError())
        respond(request, 400, request.getParseError() + "\n");
    else if (path == "/count" && type == HttpBaseRequest::POST)
        countBytes(request);
    else if (path == "/lines" && (type == HttpBaseRequest::GET || type == HttpBaseRequest::HEAD))
        stream(request, "all work and no play\n", 1000000);
    else
        respond(request, 404, "There is nothing at this address.\n");
}

class PlainApplication : public qv::http::HttpServerImpl
{
public:
    PlainApplication()
    {
        for (unsigned i = 0; i < kWorkers; ++i)
            mWorkers.emplace_back([this] { work(); });
        mReaper = std::thread([this] { reap(); });
    }

    // The daemon has stopped: only the reaper still has requests.
    ~PlainApplication() override
    {
        stopWorkers();
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mReaperEnds = true;
            mChanged.notify_all();
        }
        mReaper.join();
    }

    HttpBaseRequest* createRequest() override
    {
        auto request = std::make_unique<PlainRequest>(*this);
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
        serveHere(*request, [](PlainRequest& refused) { respond(refused, 503, "Stopping.\n"); });
    }

    void onNewWebSocket(qv::http::WebSocket* socket) override
    {
        socket->markForDeletion();
        delete socket;
    }

    void onServerStopped() override {}

    void onRequestCompleted() override {}

    // Called by the worker and by the daemon, each once; the second one finds the request over.
    void release(PlainRequest& request)
    {
        if (--request.users != 0)
            return;
        const std::lock_guard<std::mutex> lock(mMutex);
        mOver.emplace_back(&request);
        mChanged.notify_all();
    }

    // New requests are refused from now on. True when every request has been deleted in time.
    bool drain(std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mDraining = true;
        return mDeleted.wait_for(lock, limit, [this] { return mOpen == 0; });
    }

    // Called after the daemon has stopped: until then a worker may wait for a body or for space.
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
        release(request);
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

    // Deletes the requests that are over.
    void reap()
    {
        for (bool ends = false; !ends;) {
            std::list<std::unique_ptr<PlainRequest>> over;
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mChanged.wait(lock, [this] { return !mOver.empty() || mReaperEnds; });
                ends = mReaperEnds;
                over.swap(mOver);
            }
            const size_t count = over.size();
            // The daemon releases the lock of the response device after onCompleted.
            over.remove_if([](const auto& request) { return request->isCompleted(); });
            const std::lock_guard<std::mutex> lock(mMutex);
            mOpen -= count;
            mDeleted.notify_all();
        }
    }

    std::mutex mMutex;  // guards the fields below
    std::condition_variable mQueued;
    std::condition_variable mChanged;
    std::condition_variable mDeleted;
    std::deque<PlainRequest*> mQueue;                // wait for a worker
    std::list<std::unique_ptr<PlainRequest>> mOver;  // wait for the reaper
    size_t mOpen = 0;
    bool mDraining = false;
    bool mWorkersEnd = false;
    bool mReaperEnds = false;
    std::vector<std::thread> mWorkers;
    std::thread mReaper;
};

// Thread: the daemon's, with the lock of the response device.
void PlainRequest::onCompleted(int)
{
    mApplication.release(*this);
}

bool start(HttpServer& server, const HttpServer::Parameters& parameters)
{
    server.startServer(parameters);
    while (server.getState() == HttpServer::Starting)
        qv::qvThread::msleep(1);
    return server.getState() == HttpServer::Running;
}

// Shuts down, in the required order.
bool stop(HttpServer& server, PlainApplication& application)
{
    const bool allServed = application.drain(std::chrono::seconds(10));
    server.stopServer(true);    // aborts the remaining requests; their writers and readers return
    application.stopWorkers();  // so the workers end now
    return allServed;
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
        std::puts(stop(server, *application) ? "every request was served"
                                             : "some requests were cut off");
    }  // destroys the server, which destroys the application and its remaining requests
    qv::terminateWendrel();
    return 0;
}
