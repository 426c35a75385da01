// A message board in event-driven mode: GET /next waits for the next message, POST /post sends it,
// GET /live streams the messages from now on, GET /rules sends a page from memory. No request
// occupies a thread while it waits.

#include <Wendrel/BodySource.h>
#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/Wendrel.h>

#include <qvSystem/qvThread.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
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

// The messages that a reader of /live has not received yet.
struct Live
{
    std::mutex mutex;  // guards the two below
    std::string unsent;
    bool hasEnded = false;
    qv::BodyResumer resumer;

    void add(const std::string& message, bool isLast)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            unsent += message;
            hasEnded = isLast;
        }
        resumer.resume();
    }
};

std::unique_ptr<qv::BodySource> makeSource(const std::shared_ptr<Live>& live)
{
    const auto read = [live](uint64_t, char* buffer, size_t size) -> qv::BodyRead {
        const std::lock_guard<std::mutex> lock(live->mutex);
        if (live->unsent.empty())
            return {live->hasEnded ? qv::BodyRead::End : qv::BodyRead::NotYet};
        const size_t part = live->unsent.copy(buffer, size);
        live->unsent.erase(0, part);
        return {qv::BodyRead::Data, part};
    };
    return qv::BodySource::fromCallback(read, live->resumer);
}

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

    // Sends a body that the daemon fetches. Any thread.
    void respondFrom(std::unique_ptr<qv::BodySource> source)
    {
        if (getResponseDevice().setBodySource(std::move(source)))
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
        const std::lock_guard<std::mutex> lock(mMutex);
        mLive.clear();
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

    void sendRules(BoardRequest& request)
    {
        request.respondFrom(qv::BodySource::fromString(mRules));
    }

    void sendLive(BoardRequest& request)
    {
        const auto live = std::make_shared<Live>();
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mStopping)
            live->add(kStops, true);
        else
            mLive.push_back(live);
        request.respondFrom(makeSource(live));
    }

    size_t publish(const std::string& message)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        std::erase_if(mLive, [&](const std::weak_ptr<Live>& each) {
            const std::shared_ptr<Live> live = each.lock();
            if (live)
                live->add(message, mStopping);
            return !live;
        });
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

    const std::shared_ptr<const std::string> mRules =
        std::make_shared<const std::string>("Be polite.\n");
    std::mutex mMutex;  // guards the three below and the responses of waiting requests
    std::set<BoardRequest*> mWaiting;
    std::vector<std::weak_ptr<Live>> mLive;  // owned by the sources
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
    } else if (path == "/rules") {
        mBoard.sendRules(*this);
    } else if (path == "/live") {
        mBoard.sendLive(*this);
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
