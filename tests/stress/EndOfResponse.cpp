// The moment at which a response ends while it is being queued: announced, written and ended by
// its worker in one go, as the documentation shows it, while a daemon thread looks all the time.

#include "Dice.h"
#include "SmallDaemon.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpServer.h>
#include <Wendrel/WebSocket.h>
#include <Wendrel/Wendrel.h>

#include "server/Dispatch.h"
#include "streaming/StreamCallbacks.h"

#include <qvSystem/qvThread.h>

#include <gtest/gtest.h>
#include <support/MinimalRequest.h>

#include <sched.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

namespace stress
{
namespace
{

constexpr uint64_t kMaxRounds = WENDREL_STRESS_REQUESTS / 4;
constexpr uint64_t kMinRounds = 1000;

// On a loaded machine every change of threads takes its time.
constexpr std::chrono::minutes kRunLimit(2);
constexpr size_t kBodyBytes = 1000;
constexpr uint64_t kMaxDelaySpins = 200;

thread_local Dice tDelays(1);

// Long enough to meet every instruction of the other thread, short against a change of threads.
void delay()
{
    static std::atomic<uint64_t> sink{0};
    for (uint64_t spins = tDelays.below(kMaxDelaySpins); spins > 0; --spins)
        sink.load();
}

class Response : public qv::tests::MinimalResponse
{
public:
    // Called between the decision to stream and the check of the body's length.
    int64_t getContentLength() override
    {
        delay();
        return -1;
    }
};

class Request : public qv::tests::MinimalRequest
{
public:
    qv::HttpResponseInterface& getResponse() override { return mResponse; }

private:
    Response mResponse;
};

// Hands each request to the one worker and learns when it has been served.
class Application : public qv::http::HttpServerImpl
{
public:
    // Thread: the daemon's, as all but serveUntilEnded.
    qv::HttpBaseRequest* createRequest() override { return mLatest = new Request; }
    qv::HttpBaseRequest* takeLatest() const { return mLatest; }
    void handleRequest(qv::HttpBaseRequest* request) override
    {
        mIsAnnounced = false;
        mServed = false;
        mRequest = request;
    }
    void onRequestCompleted() override {}
    void onNewWebSocket(qv::http::WebSocket*) override {}
    void onServerStopped() override {}

    void serveUntilEnded()
    {
        const std::vector<char> body(kBodyBytes, 'x');
        while (!mEnded) {
            qv::HttpBaseRequest* const request = mRequest.exchange(nullptr);
            if (!request) {
                ::sched_yield();
                continue;
            }
            qv::HttpResponseDevice& device = request->getResponseDevice();
            request->workerThreadStartHandling(qv::qvThread::CurrentThreadId());
            device.setResponseReady();
            mIsAnnounced = true;
            delay();
            device.writeBytes(body.data(), body.size());
            delay();
            device.endSending();
            request->workerThreadStopHandling(qv::qvThread::CurrentThreadId());
            mServed = true;
        }
    }

    // Without leaving the processor at first: both threads are to run at once.
    void waitUntilAnnounced() const
    {
        constexpr int kSpins = 10000;
        for (int spins = 0; !mIsAnnounced; ++spins) {
            if (spins > kSpins)
                ::sched_yield();
        }
    }

    void waitUntilServed() const
    {
        while (!mServed)
            ::sched_yield();
    }

    void end() { mEnded = true; }

private:
    qv::HttpBaseRequest* mLatest = nullptr;
    std::atomic<qv::HttpBaseRequest*> mRequest{nullptr};
    std::atomic<bool> mIsAnnounced{false};
    std::atomic<bool> mServed{false};
    std::atomic<bool> mEnded{false};
};

MHD_Result call(qv::http::HttpServer& server, MHD_Connection& connection)
{
    size_t size = 0;
    return qv::impl::HandleAccess(&server, &connection, "/", "GET", "HTTP/1.1", nullptr, &size,
                                  &connection.slot);
}

// Fetches a stream as the daemon does: to its declared length, or to its end.
uint64_t fetchBody(const MHD_Response& response)
{
    if (!response.reader)
        return response.body.size();
    std::array<char, 2 * kBodyBytes> buffer;
    uint64_t fetched = 0;
    while (fetched < response.size) {
        const ssize_t got =
            response.reader(response.closure, fetched, buffer.data(), buffer.size());
        if (got < 0)
            break;
        fetched += static_cast<uint64_t>(got);
    }
    return fetched;
}

struct Counts
{
    uint64_t buffered = 0;
    uint64_t declared = 0;  // streams whose length was known when they were queued
    uint64_t open = 0;
    uint64_t cut = 0;
};

void serveOne(qv::http::HttpServer& server, Application& application, Counts& counts)
{
    MHD_Connection connection;
    connection.slot = qv::impl::OpenContext(nullptr, "/", &connection);
    ASSERT_EQ(call(server, connection), MHD_YES);
    application.waitUntilAnnounced();
    delay();
    while (!connection.isQueued)
        ASSERT_EQ(call(server, connection), MHD_YES);
    const MHD_Response& response = connection.response;
    ++(!response.reader                    ? counts.buffered
       : response.size == MHD_SIZE_UNKNOWN ? counts.open
                                           : counts.declared);
    counts.cut += fetchBody(response) != kBodyBytes;
    application.waitUntilServed();
    const std::unique_ptr<qv::HttpBaseRequest> request(application.takeLatest());
    qv::impl::RequestCompleted(&server, &connection, &connection.slot,
                               MHD_REQUEST_TERMINATED_COMPLETED_OK);
}

TEST(EndOfResponse, CutsNothingWhileTheResponseIsBeingQueued)
{
    qv::initializeWendrel();
    auto* application = new Application;
    qv::http::HttpServer server(application);
    std::thread worker([application] {
        tDelays = Dice(2);
        application->serveUntilEnded();
    });
    Counts counts;
    const auto end = std::chrono::steady_clock::now() + kRunLimit;
    uint64_t rounds = 0;
    for (; rounds < kMaxRounds; ++rounds) {
        if (rounds >= kMinRounds && std::chrono::steady_clock::now() >= end)
            break;
        serveOne(server, *application, counts);
    }
    application->end();
    worker.join();
    qv::terminateWendrel();
    // How often the race was met depends on the machine.
    std::printf("metric: end_of_response buffered %llu, streamed with length %llu, without %llu\n",
                static_cast<unsigned long long>(counts.buffered),
                static_cast<unsigned long long>(counts.declared),
                static_cast<unsigned long long>(counts.open));
    EXPECT_EQ(counts.cut, 0u) << "of " << rounds;
}

}  // namespace
}  // namespace stress
