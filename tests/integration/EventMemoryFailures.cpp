// A running server without the kit while memory runs out: each allocation of a request fails once,
// the first, the second, and so on up to a request without; then all from each of them on. The same
// for a start and a stop of the server.

#include "support/Certificates.h"
#include "support/FailingMemory.h"
#include "support/Pattern.h"
#include "support/ProcessCounts.h"
#include "support/RawClient.h"
#include "support/TestMode.h"
#include "support/TestServer.h"
#include "support/Waiting.h"

#include <Wendrel/BodySource.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/UpgradedConnection.h>
#include <Wendrel/Wendrel.h>

#include <qvSystem/Rollback.h>
#include <qvSystem/qvThread.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <sys/socket.h>

namespace integration
{
namespace
{

using qv::BodyRead;
using qv::BodyResumer;
using qv::BodySource;
using qv::http::HttpServer;
using qv::http::ServerOptions;

constexpr size_t kBodyBytes = 100000;
constexpr size_t kMaxAllocations = 10000;  // of a request, and of its handshake
constexpr size_t kMaxJobs = 16;
constexpr const char* kUpgradedBytes = "the application's";

// Counts its hooks. Deleted with the application.
class MemoryRequest : public TestRequest
{
public:
    void onAborted(const std::string& reason) override
    {
        EXPECT_NE(reason, "");
        EXPECT_TRUE(getReceiveDevice().hasDeviceError());
        EXPECT_TRUE(getResponseDevice().hasDeviceError());
        EXPECT_EQ(completions, 0);
        mayBeBoth = reason == "UpgradeRefused";
        ++aborts;
    }

    void onUpgraded(std::unique_ptr<qv::UpgradedConnection> connection) override
    {
        EXPECT_EQ(aborts, 0);
        send(connection->getDescriptor(), kUpgradedBytes, std::strlen(kUpgradedBytes),
             MSG_NOSIGNAL);
        // As an application that has no memory for the connection.
        const auto session = std::make_unique<std::string>(100, 'x');
        EXPECT_EQ(session->size(), 100u);
    }

    void onCompleted(int code) override
    {
        // An upgrade that is refused is aborted, and has its response.
        EXPECT_TRUE(aborts == (code == 0 ? 0 : 1) || mayBeBoth) << "ended with " << code;
        ++completions;
    }

    // On the calling thread.
    template <typename Serve> void serveHere(const Serve& serve)
    {
        const std::string thread = qv::qvThread::CurrentThreadId();
        workerThreadStartHandling(thread);
        const qv::Rollback handling([&] { workerThreadStopHandling(thread); });
        serve(*this);
    }

    std::atomic<int> aborts{0};
    std::atomic<int> completions{0};
    std::atomic<bool> isServed{true};
    bool mayBeBoth = false;
    MemoryRequest* next = nullptr;
};

// Without memory the library sends its own 500, or closes the connection.
template <typename Serve> void serveOrBreakOff(MemoryRequest& request, const Serve& serve)
{
    try {
        serve(request);
    } catch (const std::bad_alloc&) {
        request.getResponseDevice().setDeviceError("no memory");
        request.getResponseDevice().setResponseReady();
    }
}

void read(MemoryRequest& request)
{
    std::array<char, 30000> piece;
    size_t size = 0;
    while (!request.getReceiveDevice().atEnd())
        size += request.getReceiveDevice().readBytes(piece.data(), piece.size());
    request.respond(200, std::to_string(size));
}

void stream(MemoryRequest& request)
{
    request.getResponseDevice().setResponseReady();
    const std::string piece(10000, 's');
    for (int i = 0; i < 10; ++i)
        request.getResponseDevice().writeBytes(piece.data(), piece.size());
    request.getResponseDevice().endSending();
}

void replySource(MemoryRequest& request, std::unique_ptr<BodySource> source)
{
    request.getResponseDevice().setBodySource(std::move(source));
    request.getResponseDevice().setResponseReady();
}

// A body that has to be resumed once.
void resume(MemoryRequest& request)
{
    const BodyResumer resumer;
    auto isReady = std::make_shared<std::atomic<bool>>(false);
    replySource(request, BodySource::fromCallback(
                             [isReady](uint64_t offset, char* buffer, size_t) {
                                 if (offset != 0)
                                     return BodyRead{BodyRead::End};
                                 if (!*isReady)
                                     return BodyRead{BodyRead::NotYet};
                                 *buffer = 'r';
                                 return BodyRead{BodyRead::Data, 1};
                             },
                             resumer));
    *isReady = true;
    resumer.resume();
}

void upgrade(MemoryRequest& request)
{
    request.response.statusCode = 101;
    request.response.addHeader("Upgrade", "echo");
    request.getResponseDevice().setResponseReady();
}

// Handlers on the daemon's thread and on two workers. Its own bookkeeping needs no memory.
class Application : public qv::http::HttpServerImpl
{
public:
    Application()
    {
        mJobs.reserve(kMaxJobs);
        for (std::thread& worker : mWorkers)
            worker = std::thread([this] { work(); });
    }

    ~Application() override
    {
        {
            const std::lock_guard<std::mutex> lock(mMutex);
            mIsEnding = true;
        }
        mChanged.notify_all();
        for (std::thread& worker : mWorkers)
            worker.join();
        for (MemoryRequest* request = mFirst; request;) {
            EXPECT_EQ(request->completions, 1) << request->getOriginalFullUrl();
            const std::unique_ptr<MemoryRequest> over(std::exchange(request, request->next));
        }
    }

    qv::HttpBaseRequest* createRequest() override
    {
        auto* const request = new MemoryRequest;
        const std::lock_guard<std::mutex> lock(mMutex);
        request->next = std::exchange(mFirst, request);
        return request;
    }

    void handleRequest(qv::HttpBaseRequest* base) override
    {
        auto& request = static_cast<MemoryRequest&>(*base);
        const std::string_view target = request.getOriginalFullUrl();
        if (target == "/inline")
            request.serveHere([](MemoryRequest& r) { r.respond(200, std::string(100, 'i')); });
        else if (target == "/early")
            request.serveHere([](MemoryRequest& r) { r.respond(403, std::string(100, 'e')); });
        else if (target == "/lent")
            replySource(request,
                        BodySource::fromString(std::make_shared<const std::string>("lent")));
        else if (target == "/file")
            replySource(request, BodySource::fromFile("/proc/self/exe", 0, kBodyBytes));
        else if (target == "/upgrade")
            upgrade(request);
        else if (target != "/parked")
            submit(request, target == "/read" ? &read : target == "/stream" ? &stream : &resume);
    }

    void onNewWebSocket(qv::http::WebSocket*) override { ADD_FAILURE() << "an upgrade"; }
    void onServerStopped() override {}
    void onRequestCompleted() override {}

    // Every request is completed, and its worker has ended.
    bool isIdle()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        for (MemoryRequest* request = mFirst; request; request = request->next) {
            if (request->completions == 0 || !request->isServed)
                return false;
        }
        return true;
    }

private:
    using Serve = void (*)(MemoryRequest&);

    void submit(MemoryRequest& request, Serve serve)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        request.isServed = false;
        mJobs.emplace_back(&request, serve);
        mChanged.notify_one();
    }

    void work()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;) {
            mChanged.wait(lock, [this] { return mIsEnding || !mJobs.empty(); });
            if (mJobs.empty())
                return;
            const std::pair<MemoryRequest*, Serve> job = mJobs.back();
            mJobs.pop_back();
            lock.unlock();
            job.first->serveHere([&](MemoryRequest& r) { serveOrBreakOff(r, job.second); });
            job.first->isServed = true;
            lock.lock();
        }
    }

    std::mutex mMutex;  // guards all below but the workers
    std::condition_variable mChanged;
    MemoryRequest* mFirst = nullptr;
    std::vector<std::pair<MemoryRequest*, Serve>> mJobs;
    bool mIsEnding = false;
    std::array<std::thread, 2> mWorkers;
};

struct Part
{
    const char* name;
    std::string bytes;
    int status;                // 0: the connection ends
    std::string body;          // empty: any
    bool hasHeadOnly = false;  // of the response
    bool isAwaited = false;    // the body
};

std::vector<Part> makeParts()
{
    const std::string body = pattern(kBodyBytes);
    const std::string length = "Content-Length: " + std::to_string(kBodyBytes) + "\r\n\r\n";
    const std::string post = " HTTP/1.1\r\nHost: x\r\n";
    return {
        {"inline", getRequest("/inline", "User-Agent: " + std::string(100, 'u') + "\r\n"), 200,
         std::string(100, 'i')},
        {"HEAD", "HEAD /inline HTTP/1.1\r\nHost: x\r\n\r\n", 200, "", true},
        {"upload", "POST /read" + post + length + body, 200, std::to_string(kBodyBytes)},
        {"chunked upload",
         "POST /read" + post + "Transfer-Encoding: chunked\r\n\r\n186a0\r\n" + body +
             "\r\n0\r\n\r\n",
         200, std::to_string(kBodyBytes)},
        {"awaited upload", "POST /read" + post + "Expect: 100-continue\r\n" + length + body, 200,
         std::to_string(kBodyBytes), false, true},
        {"early response", "POST /early" + post + length + body, 403, std::string(100, 'e')},
        {"half an upload", "POST /read" + post + length + "half", 0, ""},
        {"half-close", getRequest("/parked"), 0, ""},
        {"stream", getRequest("/stream"), 200, std::string(kBodyBytes, 's')},
        {"lent memory", getRequest("/lent"), 200, "lent"},
        {"file", getRequest("/file"), 200, ""},
        {"resumed source", getRequest("/resume"), 200, "r"},
        {"upgrade", getRequest("/upgrade", "Connection: Upgrade\r\nUpgrade: echo\r\n"), 101,
         kUpgradedBytes},
        {"two requests", getRequest("/inline") + getRequest("/lent"), 200, ""},
        {"refused head", "GET / HTTP/1.1\r\nHost: x\r\nHost: x\r\n\r\n", 400, ""},
        {"refused upgrade", getRequest("/upgrade"), 400, ""},
    };
}

class Server
{
public:
    Server()
    {
        mServer = std::make_unique<HttpServer>(mApplication = new Application);
        if (!mServer->serve(options()))
            throw std::runtime_error(mServer->getFailureReason());
    }

    static ServerOptions options()
    {
        ServerOptions options;
        options.listen = {"127.0.0.1:0"};
        options.threads = 1;
        options.headTimeout = options.idleTimeout = options.bodyTimeout = std::chrono::minutes(10);
        if (isSecure())
            options.tls.push_back(localhostTls());
        return options;
    }

    static uint16_t portOf(const HttpServer& server)
    {
        const std::string endpoint = server.getEndpoints().front();
        return static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
    }

    HttpServer& server() { return *mServer; }
    uint16_t port() const { return portOf(*mServer); }
    bool isIdle() const
    {
        return waitUntil([this] { return mApplication->isIdle(); });
    }

private:
    Application* mApplication = nullptr;  // the server's
    std::unique_ptr<HttpServer> mServer;
};

// The status of the response; 0 for the end of the connection.
int ask(uint16_t port, const Part& part)
{
    RawClient client(port);
    client.send(part.bytes);
    if (part.status == 0)
        client.finishSending();
    if (part.status == 101) {
        const auto head = client.receiveHead();
        const std::string rest = client.receiveToEnd();
        EXPECT_TRUE(rest.empty() || rest == part.body) << rest;
        EXPECT_TRUE(client.isClosedByServer());
        return head ? head->status : 0;
    }
    if (part.isAwaited) {
        const auto head = client.receiveHead();
        if (head && head->status != 100)
            return head->status;
    }
    if (const auto response = client.receive(part.hasHeadOnly)) {
        const bool isExpected = response->status == part.status && !part.body.empty();
        EXPECT_EQ(response->body, isExpected ? part.body : response->body);
        return response->status;
    }
    // Neither a response nor the end would be a request that is forgotten.
    EXPECT_TRUE(client.isClosedByServer());
    return 0;
}

class EventMemoryFailures : public ::testing::Test
{
protected:
    void SetUp() override
    {
        exemptThisThread();
        qv::initializeWendrel();
    }
    void TearDown() override { qv::terminateWendrel(); }

    static void failEach(bool fromThenOn)
    {
        const size_t threads = countThreads();
        const size_t descriptors = countDescriptors();
        {
            const Server server;
            for (const Part& part : makeParts())
                failEachOf(server, part, fromThenOn);
        }
        EXPECT_TRUE(waitUntil([&] { return countThreads() == threads; }));
        EXPECT_EQ(countDescriptors(), descriptors);
    }

private:
    static void failEachOf(const Server& server, const Part& part, bool fromThenOn)
    {
        SCOPED_TRACE(part.name);
        ASSERT_EQ(ask(server.port(), part), part.status);
        ASSERT_TRUE(server.isIdle());
        const size_t descriptors = countDescriptors();
        size_t number = 1;
        for (bool hasFailed = true; hasFailed; ++number) {
            SCOPED_TRACE("allocation " + std::to_string(number));
            {
                const FailNthAllocation failing(number, fromThenOn);
                const int status = ask(server.port(), part);
                hasFailed = failing.hasFailed();
                EXPECT_TRUE(hasFailed || status == part.status) << status;
                EXPECT_TRUE(status == part.status || status == 0 || status == 500 || status == 503)
                    << status;
            }
            ASSERT_TRUE(server.isIdle());
            ASSERT_EQ(ask(server.port(), makeParts().front()), 200);
            ASSERT_LT(number, kMaxAllocations);
        }
        EXPECT_TRUE(waitUntil([&] { return countDescriptors() <= descriptors; }));
        std::printf("%-16s %4zu failing allocations\n", part.name, number - 2);
        EXPECT_GT(number, 2u);
    }
};

TEST_F(EventMemoryFailures, OneAllocationFails)
{
    failEach(false);
}

TEST_F(EventMemoryFailures, AllAllocationsFailFromOneOn)
{
    failEach(true);
}

// On a thread that is not exempt. False for an exception.
bool tryCall(const std::function<bool()>& call)
{
    bool result = false;
    std::thread([&] {
        try {
            result = call();
        } catch (const std::bad_alloc&) {
            result = false;
        }
    }).join();
    return result;
}

TEST_F(EventMemoryFailures, OfAStartLeaveTheServerStopped)
{
    const size_t threads = countThreads();
    const size_t descriptors = countDescriptors();
    for (const bool fromThenOn : {false, true}) {
        bool hasFailed = true;
        for (size_t number = 1; hasFailed; ++number) {
            SCOPED_TRACE("allocation " + std::to_string(number));
            HttpServer server(new Application);
            const ServerOptions options = Server::options();
            bool isServing = false;
            {
                const FailNthAllocation failing(number, fromThenOn);
                isServing = tryCall([&] { return server.serve(options); });
                hasFailed = failing.hasFailed();
            }
            EXPECT_TRUE(isServing || hasFailed);
            if (!isServing) {
                EXPECT_EQ(server.getState(), HttpServer::Stopped);
                ASSERT_TRUE(server.serve(options)) << server.getFailureReason();
            }
            EXPECT_EQ(ask(Server::portOf(server), makeParts().front()), 200);
            EXPECT_TRUE(server.shutDown(kLimit));
            ASSERT_LT(number, kMaxAllocations);
        }
    }
    EXPECT_TRUE(waitUntil([&] { return countThreads() == threads; }));
    EXPECT_EQ(countDescriptors(), descriptors);
}

// Beside connections in every phase.
TEST_F(EventMemoryFailures, OfAStopEndAllConnections)
{
    const size_t threads = countThreads();
    const size_t descriptors = countDescriptors();
    for (const bool fromThenOn : {false, true}) {
        bool hasFailed = true;
        for (size_t number = 1; hasFailed; ++number) {
            SCOPED_TRACE("allocation " + std::to_string(number));
            Server server;
            RawClient idle(server.port());
            idle.send(getRequest("/inline"));
            EXPECT_TRUE(idle.receive());
            RawClient head(server.port());
            head.send("GET / HTTP");
            RawClient body(server.port());
            body.send("POST /read HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\n12345");
            RawClient parked(server.port());
            parked.send(getRequest("/parked"));
            {
                const FailNthAllocation failing(number, fromThenOn);
                tryCall([&] { return server.server().shutDown(std::chrono::milliseconds(100)); });
                EXPECT_TRUE(idle.isClosedByServer());
                EXPECT_TRUE(head.isClosedByServer());
                EXPECT_TRUE(body.isClosedByServer());
                EXPECT_TRUE(parked.isClosedByServer());
                hasFailed = failing.hasFailed();
            }
            EXPECT_TRUE(server.isIdle());
            ASSERT_LT(number, kMaxAllocations);
        }
    }
    EXPECT_TRUE(waitUntil([&] { return countThreads() == threads; }));
    EXPECT_EQ(countDescriptors(), descriptors);
}

}  // namespace
}  // namespace integration
