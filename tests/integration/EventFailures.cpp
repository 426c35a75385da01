// Event-driven mode while the system and the daemon refuse: each call fails once, the first, the
// second, and so on up to a run without.

#include "support/EchoLoop.h"
#include "support/EventRun.h"
#include "support/FailingSystem.h"
#include "support/Pattern.h"
#include "support/ProcessCounts.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"
#include "support/TestMode.h"
#include "support/Waiting.h"

#include <Wendrel/BodySource.h>
#include <Wendrel/Wendrel.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace
{

using integration::countCalls;
using integration::countDescriptors;
using integration::countThreads;
using integration::EchoLoop;
using integration::EventRequest;
using integration::EventRun;
using integration::FailNth;
using integration::getRequest;
using integration::isSecure;
using integration::kLimit;
using integration::nameOf;
using integration::onOneThread;
using integration::pattern;
using integration::RawClient;
using integration::RawResponse;
using integration::SystemCall;
using integration::waitUntil;
using qv::BodySource;
using qv::http::ServerOptions;
using std::chrono::milliseconds;

const std::string kHandshake = getRequest("/echo", "Connection: Upgrade\r\nUpgrade: echo\r\n");
constexpr size_t kUploadBytes = 300000;
constexpr size_t kStreamBytes = 200000;
constexpr size_t kMaxDiscardedBytes = 1048576;

// Every kind of request, and every end of one.
class Application
{
public:
    Application(EchoLoop& loop, ServerOptions options)
        : mLoop(loop), mRun([this](EventRequest& request) { handle(request); }, std::move(options))
    {}

    EventRun& run() { return mRun; }
    uint16_t port() const { return mRun.port(); }

    // The last request that is left alone; null before.
    EventRequest* parked() const { return mParked; }

private:
    void handle(EventRequest& request)
    {
        const std::string& target = request.getOriginalFullUrl();
        if (target == "/park") {
            mParked = &request;
        } else if (target == "/worker") {
            mRun.work(request, [](EventRequest& r) { r.respond(200, "worked"); });
        } else if (target == "/upload") {
            mRun.work(request, [](EventRequest& r) {
                const std::string body = r.readBody();
                r.respond(200, std::to_string(body.size()));
            });
        } else if (target == "/stream") {
            mRun.work(request, &stream);
        } else if (target == "/lent") {
            auto text = std::make_shared<const std::string>("lent");
            request.getResponseDevice().setBodySource(BodySource::fromString(std::move(text)));
            request.getResponseDevice().setResponseReady();
        } else if (target == "/echo") {
            request.takeUpgraded = [this](std::unique_ptr<qv::UpgradedConnection> connection) {
                mLoop.add(std::move(connection));
            };
            request.response.statusCode = 101;
            request.response.addHeader("Upgrade", "echo");
            request.getResponseDevice().setResponseReady();
        } else {
            request.respondHere(200, "pong");
        }
    }

    // Ends early when the device is in error.
    static void stream(EventRequest& request)
    {
        request.getResponseDevice().setResponseReady();
        const std::string piece = pattern(kStreamBytes / 10);
        for (int i = 0; i < 10; ++i)
            request.getResponseDevice().writeBytes(piece.data(), piece.size());
        request.getResponseDevice().endSending();
    }

    std::atomic<EventRequest*> mParked{nullptr};
    EchoLoop& mLoop;
    EventRun mRun;
};

// The parts of a run. Each returns whether its client was served as without a failure. One that was
// not must have been told, or its connection ended.

bool hasStatus(const std::optional<RawResponse>& response, int status)
{
    return response && response->status == status;
}

bool isServed(RawClient& client, const std::string& target)
{
    return client.send(getRequest(target)) && hasStatus(client.receive(), 200);
}

bool servesTwoRequests(Application& application)
{
    RawClient client(application.port());
    return isServed(client, "/") && isServed(client, "/worker");
}

bool servesAnUpload(Application& application)
{
    RawClient client(application.port());
    client.send("POST /upload HTTP/1.1\r\nHost: x\r\nContent-Length: " +
                std::to_string(kUploadBytes) + "\r\n\r\n" + pattern(kUploadBytes));
    const auto response = client.receive();
    return hasStatus(response, 200) && response->body == std::to_string(kUploadBytes);
}

bool servesAStream(Application& application)
{
    RawClient client(application.port());
    client.send(getRequest("/stream"));
    const auto response = client.receive();
    return hasStatus(response, 200) && response->body.size() == kStreamBytes;
}

bool servesLentMemory(Application& application)
{
    RawClient client(application.port());
    client.send("HEAD /lent HTTP/1.1\r\nHost: x\r\n\r\n");
    if (!hasStatus(client.receive(true), 200))
        return false;
    client.send(getRequest("/lent"));
    const auto response = client.receive();
    return hasStatus(response, 200) && response->body == "lent";
}

// The request of an upload of this size, of which no byte has been sent; null without one. The
// interim response follows handleRequest.
EventRequest* park(Application& application, RawClient& client, size_t bytes)
{
    client.send("POST /park HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: " +
                std::to_string(bytes) + "\r\n\r\n");
    return hasStatus(client.receiveHead(), 100) ? application.parked() : nullptr;
}

bool endsABodyThatNobodyWants(Application& application)
{
    RawClient client(application.port());
    EventRequest* const request = park(application, client, 10 * kMaxDiscardedBytes);
    if (!request)
        return false;
    request->respondHere(403, "no");
    client.send(pattern(kMaxDiscardedBytes + 1));
    return hasStatus(client.receive(), 403);
}

bool upgrades(Application& application)
{
    RawClient client(application.port());
    client.send(kHandshake);
    return hasStatus(client.receiveHead(), 101) && client.send("hello") &&
           client.receiveExactly(5) == "hello";
}

bool refusesABadHead(Application& application)
{
    RawClient client(application.port());
    client.send("GET / HTTP/1.1\r\nHost: x\r\nHost: y\r\n\r\n");
    return hasStatus(client.receive(), 400) && client.isClosedByServer();
}

// Reset, or end of the sending side, while the application works.
bool noticesThatThePeerEnds(Application& application, void (RawClient::*end)())
{
    RawClient client(application.port());
    EventRequest* const request = park(application, client, 1);
    if (!request)
        return false;
    client.send("x");
    EXPECT_TRUE(waitUntil([&] { return request->bodyCompletions + request->completions != 0; }));
    (client.*end)();
    EXPECT_TRUE(waitUntil([&] { return request->completions == 1; })) << "still open";
    return request->aborts == 1;
}

bool noticesAReset(Application& application)
{
    return noticesThatThePeerEnds(application, &RawClient::reset);
}

bool noticesAHalfClose(Application& application)
{
    return noticesThatThePeerEnds(application, &RawClient::finishSending);
}

bool closesAHeadThatEnds(Application& application)
{
    RawClient client(application.port());
    client.send("GET / HTTP/1.1\r\n");
    client.finishSending();
    return client.isClosedByServer();
}

// With deadlines that are shorter than any of these clients.

bool endsAt(RawClient& client, const std::string& bytes)
{
    client.send(bytes);
    const std::string received = client.receiveToEnd();
    EXPECT_EQ(client.receiveToEnd(), "");
    return received.rfind("HTTP/1.1 ", 0) == 0;
}

bool endsAHead(Application& application)
{
    RawClient client(application.port());
    return endsAt(client, "GET / HTTP/1.1\r\n");
}

bool endsAnIdleConnection(Application& application)
{
    RawClient client(application.port());
    return endsAt(client, getRequest("/"));
}

bool endsABody(Application& application)
{
    RawClient client(application.port());
    return endsAt(client, "POST /park HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nx");
}

bool endsTheWork(Application& application)
{
    RawClient client(application.port());
    return endsAt(client, getRequest("/park"));
}

// With as many connections as make the listener end the waits of the daemon.
constexpr size_t kManyConnections = 130;

bool servesMany(Application& application)
{
    const size_t pairs = countCalls(SystemCall::SocketPair);
    std::vector<std::unique_ptr<RawClient>> clients;
    size_t served = 0;
    for (size_t i = 0; i < kManyConnections; ++i) {
        clients.push_back(std::make_unique<RawClient>(application.port()));
        served += isServed(*clients.back(), "/") ? 1 : 0;
    }
    // One more than there may be, unless one has been lost.
    RawClient surplus(application.port());
    surplus.send(getRequest("/"));
    const auto response = surplus.receive();
    EXPECT_TRUE(hasStatus(response, served == kManyConnections ? 503 : 200));
    EXPECT_TRUE(waitUntil([&] { return countCalls(SystemCall::SocketPair) != pairs; }));
    size_t servedAgain = 0;
    for (auto& client : clients)
        servedAgain += isServed(*client, "/") ? 1 : 0;
    EXPECT_GE(servedAgain + 1, served);
    EXPECT_GE(served + 1, kManyConnections);
    return servedAgain == kManyConnections;
}

struct Part
{
    const char* name;
    bool (*serve)(Application& application);
};

using Parts = std::vector<Part>;

class EventFailures : public testing::Test
{
protected:
    EventFailures() { qv::initializeWendrel(); }
    ~EventFailures() override { qv::terminateWendrel(); }

    static ServerOptions onTwoThreads()
    {
        ServerOptions options = onOneThread();
        options.threads = 2;
        options.uploadQueueBytes = 65536;
        return options;
    }

    // Each call of the kind fails in a run of its own, in which the parts follow each other.
    static void failEach(SystemCall call, const ServerOptions& options, const Parts& parts)
    {
        run(call, SIZE_MAX, options, parts);
        size_t number = 0;
        while (!HasFailure() && run(call, number + 1, options, parts))
            ++number;
        std::printf("%-24s %4zu failing calls\n", nameOf(call), number);
        EXPECT_NE(number, 0u);
    }

private:
    // False when the call has not come.
    static bool run(SystemCall call, size_t number, const ServerOptions& options,
                    const Parts& parts)
    {
        SCOPED_TRACE(std::string(nameOf(call)) + ", call " + std::to_string(number));
        const size_t descriptors = countDescriptors();
        const size_t threads = countThreads();
        bool hasFailed = false;
        {
            EchoLoop loop;  // its connections outlive the server
            const FailNth failing(call, number);
            const std::unique_ptr<Application> application = open(loop, options, failing);
            size_t served = 0;
            for (const Part& part : parts)
                served += serve(part, *application) ? 1 : 0;
            hasFailed = failing.hasFailed();
            EXPECT_GE(served + (hasFailed ? 1 : 0), parts.size()) << "more than one client lost";
            EXPECT_TRUE(application->run().server().shutDown(kLimit));
            hasFailed = failing.hasFailed();
        }
        EXPECT_TRUE(waitUntil([&] { return countThreads() == threads; }));
        EXPECT_EQ(countDescriptors(), descriptors);
        return hasFailed;
    }

    // A server that does not open tells why, and opens at the second time.
    static std::unique_ptr<Application> open(EchoLoop& loop, const ServerOptions& options,
                                             const FailNth& failing)
    {
        try {
            return std::make_unique<Application>(loop, options);
        } catch (const std::system_error& error) {
            ADD_FAILURE() << "thrown by serve: " << error.what();
        } catch (const std::runtime_error& error) {
            EXPECT_TRUE(failing.hasFailed());
            EXPECT_STRNE(error.what(), "");
        }
        return std::make_unique<Application>(loop, options);
    }

    static bool serve(const Part& part, Application& application)
    {
        SCOPED_TRACE(part.name);
        const auto start = std::chrono::steady_clock::now();
        const bool isServed = part.serve(application);
        EXPECT_LT(std::chrono::steady_clock::now() - start, kLimit) << "hangs";
        return isServed;
    }
};

const Parts kRequests{
    {"two requests", &servesTwoRequests},
    {"an upload", &servesAnUpload},
    {"a stream", &servesAStream},
    {"lent memory", &servesLentMemory},
    {"a body that nobody wants", &endsABodyThatNobodyWants},
    {"an upgrade", &upgrades},
    {"a bad head", &refusesABadHead},
    {"a reset", &noticesAReset},
    {"a half-close", &noticesAHalfClose},
    {"a head that ends", &closesAHeadThatEnds},
    {"two requests, again", &servesTwoRequests},
};

constexpr SystemCall kAllCalls[] = {SystemCall::AddConnection,
                                    SystemCall::StartDaemon,
                                    SystemCall::CreateResponse,
                                    SystemCall::QueueResponse,
                                    SystemCall::EpollCreate,
                                    SystemCall::EpollControl,
                                    SystemCall::EpollWait,
                                    SystemCall::EventFd,
                                    SystemCall::Accept,
                                    SystemCall::Socket,
                                    SystemCall::DuplicateDescriptor,
                                    SystemCall::ReplaceDescriptor,
                                    SystemCall::ShutDown,
                                    SystemCall::StartThread};

class EventFailuresOfCall : public EventFailures, public testing::WithParamInterface<SystemCall>
{};

TEST_P(EventFailuresOfCall, AreToldOrEndOneConnection)
{
    failEach(GetParam(), onTwoThreads(), kRequests);
}

// Of a secure connection.
TEST_F(EventFailures, OfTheSocketPairEndOneConnection)
{
    if (!isSecure())
        GTEST_SKIP() << "without TLS a connection has no pair";
    failEach(SystemCall::SocketPair, onTwoThreads(), kRequests);
}

// One line for all of them: any client could fill the log.
TEST_F(EventFailures, OfTheSocketPairAreLoggedOnce)
{
    if (!isSecure())
        GTEST_SKIP() << "without TLS a connection has no pair";
    const std::string line = "cannot serve a secure connection: Too many open files";
    EventRun run([](EventRequest& request) { request.respondHere(200, "pong"); }, onOneThread());
    for (int i = 0; i < 3; ++i) {
        const FailNth failing(SystemCall::SocketPair, 1);
        RawClient client(run.port());
        EXPECT_TRUE(client.isClosedByServer());
        EXPECT_TRUE(failing.hasFailed());
        EXPECT_TRUE(integration::processLog->waitForLine(line));
    }
    EXPECT_EQ(integration::processLog->lines(line).size(), 1u);
    RawClient client(run.port());
    EXPECT_TRUE(isServed(client, "/"));
}

INSTANTIATE_TEST_SUITE_P(, EventFailuresOfCall, testing::ValuesIn(kAllCalls), [](const auto& call) {
    std::string name = nameOf(call.param);
    name.erase(std::remove_if(name.begin(), name.end(),
                              [](char c) { return c == '.' || c == '(' || c == ')'; }),
               name.end());
    return name;
});

// The samples of the check of the daemon, each of which has a socket pair and a connection. It is
// made until it has passed once in the process: this test is the first.
TEST_F(EventFailures, OfTheCheckOfStrictRequestsAreTold)
{
    if (countCalls(SystemCall::StartDaemon) != 0)
        GTEST_SKIP() << "the check has passed";
    constexpr size_t kSamples = 14;
    const size_t descriptors = countDescriptors();
    const auto expectRefused = [&](SystemCall call, size_t number) {
        SCOPED_TRACE(std::string(nameOf(call)) + ", call " + std::to_string(number));
        const FailNth failing(call, number);
        try {
            const EventRun run([](EventRequest&) {}, onOneThread());
            ADD_FAILURE() << "open";
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), testing::StartsWith("cannot test the daemon for "));
        }
        EXPECT_EQ(failing.calls(), number);
        EXPECT_EQ(countDescriptors(), descriptors);
    };
    expectRefused(SystemCall::StartDaemon, 1);
    for (size_t number = 1; number <= kSamples; ++number) {
        expectRefused(SystemCall::SocketPair, number);
        expectRefused(SystemCall::AddConnection, number);
    }
}

TEST_F(EventFailures, OfAHandOverAbortTheUpgrade)
{
    for (const SystemCall call : {SystemCall::DuplicateDescriptor, SystemCall::ReplaceDescriptor}) {
        SCOPED_TRACE(nameOf(call));
        std::atomic<EventRequest*> upgraded{nullptr};
        EventRun run([&](EventRequest& request) {
            upgraded = &request;
            request.response.statusCode = 101;
            request.response.addHeader("Upgrade", "echo");
            request.getResponseDevice().setResponseReady();
        });
        const FailNth failing(call, 1);
        RawClient client(run.port());
        client.send(kHandshake);
        EXPECT_TRUE(hasStatus(client.receiveHead(), 101));
        EXPECT_TRUE(client.isClosedByServer());
        EXPECT_TRUE(failing.hasFailed());
        ASSERT_TRUE(upgraded);
        EXPECT_EQ((*upgraded).aborts, 1);
        EXPECT_EQ((*upgraded).upgrades, 0);
    }
}

// The listening socket is not watched while there are no descriptors.
TEST_F(EventFailures, ToGoOnAcceptingAreTriedAgain)
{
    EventRun run([](EventRequest& request) { request.respondHere(200, "pong"); }, onOneThread());
    const FailNth accepting(SystemCall::Accept, 1);
    const FailNth watching(SystemCall::EpollControl, 2);
    RawClient client(run.port());
    EXPECT_TRUE(isServed(client, "/"));
    EXPECT_TRUE(accepting.hasFailed());
    EXPECT_TRUE(watching.hasFailed());
}

TEST_F(EventFailures, LeaveEveryDeadlineInForce)
{
    ServerOptions options = onTwoThreads();
    options.headTimeout = options.idleTimeout = options.bodyTimeout = options.responseTimeout =
        milliseconds(100);
    const Parts parts{{"a head", &endsAHead},
                      {"an idle connection", &endsAnIdleConnection},
                      {"a body", &endsABody},
                      {"the work", &endsTheWork}};
    for (const SystemCall call : {SystemCall::ShutDown, SystemCall::EpollControl,
                                  SystemCall::CreateResponse, SystemCall::QueueResponse})
        failEach(call, options, parts);
}

TEST_F(EventFailures, OfOneOfManyConnectionsAreNothingToTheOthers)
{
    ServerOptions options = onOneThread();
    options.maxConnections = kManyConnections;
    for (const SystemCall call :
         {SystemCall::SocketPair, SystemCall::AddConnection, SystemCall::EpollControl})
        failEach(call, options, {{"many", &servesMany}});
}

// Requests in every phase are aborted at the deadline, which has passed.
TEST_F(EventFailures, OfAStopDelayItsEnd)
{
    for (const SystemCall call : {SystemCall::ShutDown, SystemCall::EpollControl,
                                  SystemCall::EpollWait, SystemCall::QueueResponse}) {
        size_t number = 0;
        for (bool hasFailed = true; hasFailed && !HasFailure();) {
            SCOPED_TRACE(std::string(nameOf(call)) + ", call " + std::to_string(++number));
            EchoLoop loop;
            Application application(loop, onTwoThreads());
            RawClient idle(application.port());
            RawClient head(application.port());
            RawClient body(application.port());
            RawClient working(application.port());
            EXPECT_TRUE(isServed(idle, "/"));
            head.send("GET / HTTP/1.1\r\n");
            EXPECT_TRUE(park(application, body, 1));
            EventRequest* const request = park(application, working, 1);
            ASSERT_TRUE(request);
            working.send("x");
            EXPECT_TRUE(waitUntil([&] { return request->bodyCompletions == 1; }));
            const FailNth failing(call, number);
            EXPECT_FALSE(application.run().server().shutDown(milliseconds(0)));
            for (RawClient* client : {&idle, &head, &body, &working})
                EXPECT_TRUE(client->isClosedByServer());
            hasFailed = failing.hasFailed();
        }
    }
}

}  // namespace
