// A message board in event-driven mode: GET /next waits for the next message, POST /post sends it.
// No request occupies a thread while it waits.

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/Wendrel.h>

#include <qvSystem/qvThread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

using qv::HttpBaseRequest;
using qv::http::HttpServer;

namespace
{

constexpr const char* kStops = "The server stops.\n";

class Board;

class Head : public qv::HttpResponseInterface
{
public:
    const CookieMap& getCookies() override { return cookies; }
    const HeaderMap& getHeaders() override { return headers; }
    uint32_t getStatusCode() override { return status; }
    int64_t getContentLength() override { return -1; }
    std::string describe() override { return std::to_string(status); }

    CookieMap cookies;
    HeaderMap headers = {{"content-type", {"Content-Type", "text/plain"}}};
    uint32_t status = 200;
};

class BoardRequest : public HttpBaseRequest, public qv::HttpWaitListener
{
public:
    explicit BoardRequest(Board& board) : mBoard(board) {}

    qv::HttpResponseInterface& getResponse() override { return mHead; }
    qv::HttpWaitListener& getWaitListener() override { return *this; }
    void onWaitingForData() override {}

    void onBodyComplete() override;
    void onAborted(const std::string& reason) override;
    void onCompleted(int terminationCode) override;

    // Sends a complete response. Any thread, but one at a time.
    void respond(uint32_t status, const std::string& text)
    {
        mHead.status = status;
        workerThreadStartHandling(qv::qvThread::CurrentThreadId());
        if (getRequestType() != HEAD)
            getResponseDevice().writeBytes(text.data(), text.size());
        getResponseDevice().endSending();
        workerThreadStopHandling(qv::qvThread::CurrentThreadId());
        getResponseDevice().setResponseReady();
    }

private:
    Board& mBoard;
    Head mHead;
};

// The waiting requests. A request is taken out by the one who responds to it, or when it is
// aborted; deleted after its completion.
class Board : public qv::http::HttpServerImpl
{
public:
    ~Board() override { deleteCompleted(); }

    HttpBaseRequest* createRequest() override
    {
        deleteCompleted();
        return new BoardRequest(*this);
    }

    // The rest is done in onBodyComplete.
    void handleRequest(HttpBaseRequest*) override {}

    void onNewWebSocket(qv::http::WebSocket*) override {}

    // Requests that wait would keep the server from stopping until the deadline.
    void onServerStopped() override
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mStopping = true;
        }
        publish(kStops);
    }

    void onRequestCompleted() override {}

    void wait(BoardRequest& request)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mStopping)
            request.respond(200, kStops);
        else
            mWaiting.insert(&request);
    }

    void remove(BoardRequest& request)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mWaiting.erase(&request);
    }

    size_t publish(const std::string& message)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        const size_t count = mWaiting.size();
        for (BoardRequest* request : mWaiting)
            request->respond(200, message);
        mWaiting.clear();
        return count;
    }

    // Called with the lock of the response device: the request is deleted later.
    void completed(BoardRequest& request)
    {
        const std::lock_guard<std::mutex> lock(mCompletedMutex);
        mCompleted.emplace_back(&request);
    }

private:
    void deleteCompleted()
    {
        std::vector<std::unique_ptr<BoardRequest>> completed;
        {
            const std::lock_guard<std::mutex> lock(mCompletedMutex);
            completed.swap(mCompleted);
        }
        // Waits until the daemon has released the lock of the response device.
        for (const auto& request : completed)
            static_cast<void>(request->isCompleted());
    }

    std::mutex mMutex;  // guards the two below and the responses of waiting requests
    std::set<BoardRequest*> mWaiting;
    bool mStopping = false;
    std::mutex mCompletedMutex;
    std::vector<std::unique_ptr<BoardRequest>> mCompleted;
};

// Thread: the daemon's. The body is in memory: it is shorter than uploadQueueBytes.
void BoardRequest::onBodyComplete()
{
    const std::string path = hasParseError() ? std::string() : getUrl().path();
    if (path == "/next" && getRequestType() == GET) {
        mBoard.wait(*this);
    } else if (path == "/post" && getRequestType() == POST) {
        std::string message(1000, '\0');
        message.resize(getReceiveDevice().readBytes(message.data(), message.size()));
        respond(200, std::to_string(mBoard.publish(message)) + " readers\n");
    } else {
        respond(hasParseError() ? 400 : 404, "There is nothing at this address.\n");
    }
}

void BoardRequest::onAborted(const std::string&)
{
    mBoard.remove(*this);
}

void BoardRequest::onCompleted(int)
{
    mBoard.completed(*this);
}

}  // namespace

int main(int argc, char** argv)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before the first thread

    qv::initializeWendrel();
    int exitCode = 0;
    {
        HttpServer server(std::make_unique<Board>().release());  // deletes it
        qv::http::ServerOptions options;
        options.listen = {"127.0.0.1:" + std::string(argc > 1 ? argv[1] : "8181")};
        options.responseTimeout = std::chrono::seconds(30);
        if (!server.serve(options)) {
            std::fprintf(stderr, "%s\n", server.getFailureReason().c_str());
            return 1;
        }
        std::printf("listening on http://%s/\n", server.getEndpoints().front().c_str());
        std::fflush(stdout);
        int number = 0;
        sigwait(&signals, &number);
        const bool allServed = server.shutDown(std::chrono::seconds(10));
        std::puts(allServed ? "every request was served" : "requests were aborted");
        exitCode = allServed ? 0 : 1;
    }
    qv::terminateWendrel();
    return exitCode;
}
