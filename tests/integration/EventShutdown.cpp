// The end of a server of event-driven mode: nothing that was accepted is lost before the deadline.

#include "support/EventRun.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <support/BackgroundCall.h>
#include <support/Ports.h>

#include <qvSystem/qvSystemUtils.h>

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::onOneThread;
using integration::RawClient;
using integration::waitUntil;
using qv::http::HttpServer;
using qv::http::ServerOptions;
using qv::tests::BackgroundCall;
using std::chrono::milliseconds;

constexpr std::chrono::minutes kLong{1};

void parkAllButPings(EventRequest& request)
{
    if (request.getOriginalFullUrl() == "/ping")
        request.respondHere(200, "pong");
}

bool isServed(RawClient& client)
{
    client.send(getRequest("/ping"));
    const auto response = client.receive();
    return response && response->status == 200 && response->body == "pong";
}

TEST(ShutDown, ClosesIdleConnectionsAndFinishesRequests)
{
    EventRun run(&parkAllButPings, onOneThread());
    RawClient silent(run.port());
    RawClient idle(run.port());
    ASSERT_TRUE(isServed(idle));
    RawClient busy(run.port());
    ASSERT_TRUE(busy.send(getRequest("/work")));
    EventRequest* const request = run.request(1);
    ASSERT_TRUE(request);

    std::atomic<bool> result{false};
    BackgroundCall shutDown([&] { result = run.server().shutDown(kLong); });
    EXPECT_TRUE(idle.isClosedByServer());
    EXPECT_TRUE(silent.isClosedByServer());
    EXPECT_FALSE(shutDown.hasEnded());
    EXPECT_EQ(run.serverStoppedCalls(), 1);
    EXPECT_FALSE(RawClient::accepts("127.0.0.1", run.port()));
    EXPECT_EQ(run.server().getState(), HttpServer::Running);

    request->respondHere(200, "whole");
    const auto response = busy.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, "whole");
    EXPECT_EQ(response->value("Connection"), "close");
    EXPECT_TRUE(busy.isClosedByServer());
    EXPECT_TRUE(shutDown.waitForEnd());
    EXPECT_TRUE(result);
    EXPECT_EQ(run.server().getState(), HttpServer::Stopped);
    EXPECT_EQ(run.serverStoppedCalls(), 1);
}

TEST(ShutDown, FinishesUploadsAndStreams)
{
    EventRun run(
        [&](EventRequest& request) {
            run.work(request, [](EventRequest& r) {
                const std::string body = r.readBody();
                r.beginStream();
                r.getResponseDevice().writeBytes(body.data(), body.size());
                r.getResponseDevice().endSending();
            });
        },
        onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send("POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 200000\r\n\r\nbegun"));
    ASSERT_TRUE(run.request(0));
    BackgroundCall shutDown([&] { EXPECT_TRUE(run.server().shutDown(kLong)); });
    // Draining has begun when nobody is accepted any more.
    ASSERT_TRUE(waitUntil([&] { return !RawClient::accepts("127.0.0.1", run.port()); }));
    ASSERT_TRUE(client.send(std::string(200000 - 5, 'x')));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, "begun" + std::string(200000 - 5, 'x'));
    EXPECT_TRUE(client.isClosedByServer());
    EXPECT_TRUE(shutDown.waitForEnd());
}

TEST(ShutDown, AbortsWhatIsNotFinishedByTheDeadline)
{
    constexpr milliseconds kDeadline{200};
    EventRun run(
        [&](EventRequest& request) {
            if (request.getOriginalFullUrl() == "/read")
                run.work(request, [](EventRequest& r) { r.readBody(); });
            else if (request.getOriginalFullUrl() == "/stream")
                run.work(request,
                         [](EventRequest& r) { r.streamPattern(64 * 1024 * 1024, 65536); });
        },
        onOneThread());
    const std::string post = "POST /read HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\n";
    std::vector<std::unique_ptr<RawClient>> clients;
    for (const std::string& bytes : {getRequest("/park"), post, getRequest("/stream")}) {
        clients.push_back(std::make_unique<RawClient>(run.port()));
        ASSERT_TRUE(clients.back()->send(bytes));
        ASSERT_TRUE(run.request(clients.size() - 1));
    }
    ASSERT_TRUE(clients.back()->receiveHead());
    const int64_t startMs = qv::qvSystemUtils::GetTimeBaseMs();
    EXPECT_FALSE(run.server().shutDown(kDeadline));
    EXPECT_GE(qv::qvSystemUtils::GetTimeBaseMs() - startMs, kDeadline.count());
    EXPECT_EQ(run.server().getState(), HttpServer::Stopped);
    for (size_t i = 0; i < clients.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(run.request(i)->aborts, 1);
        EXPECT_EQ(run.request(i)->completions, 1);
        EXPECT_EQ(run.request(i)->abortReason(), "DaemonShutdown");
    }
    EXPECT_TRUE(clients[0]->isClosedByServer());
}

// Connections that the kernel has accepted and the server has not.
TEST(ShutDown, ServesQueuedConnections)
{
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        EventRun run(&parkAllButPings, onOneThread());
        std::vector<std::unique_ptr<RawClient>> clients;
        for (int i = 0; i < 50; ++i) {
            clients.push_back(std::make_unique<RawClient>(run.port()));
            ASSERT_TRUE(clients.back()->send(getRequest("/ping")));
        }
        BackgroundCall shutDown([&] { EXPECT_TRUE(run.server().shutDown(kLong)); });
        for (size_t i = 0; i < clients.size(); ++i) {
            const auto response = clients[i]->receive();
            ASSERT_TRUE(response) << i;
            EXPECT_EQ(response->status, 200);
        }
        EXPECT_TRUE(shutDown.waitForEnd());
    }
}

TEST(ShutDown, WithTheLongestDeadlineWaitsAsWell)
{
    for (const milliseconds deadline : {milliseconds::max(), milliseconds(1LL << 62)}) {
        EventRun run(&parkAllButPings, onOneThread());
        RawClient client(run.port());
        ASSERT_TRUE(client.send(getRequest("/work")));
        EventRequest* const request = run.request(0);
        ASSERT_TRUE(request);
        std::atomic<bool> result{false};
        BackgroundCall shutDown([&] { result = run.server().shutDown(deadline); });
        EXPECT_TRUE(waitUntil([&] { return run.serverStoppedCalls() == 1; }));
        request->respondHere(200, "whole");
        EXPECT_TRUE(client.receive());
        EXPECT_TRUE(shutDown.waitForEnd());
        EXPECT_TRUE(result);
    }
}

TEST(ShutDown, WithANegativeDeadlineAbortsAtOnce)
{
    EventRun run(&parkAllButPings, onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/work")));
    ASSERT_TRUE(run.request(0));
    EXPECT_FALSE(run.server().shutDown(milliseconds(-1)));
    EXPECT_EQ(run.request(0)->aborts, 1);
}

TEST(ShutDown, CanBeShortenedMeanwhile)
{
    EventRun run(&parkAllButPings, onOneThread());
    RawClient client(run.port());
    ASSERT_TRUE(client.send(getRequest("/work")));
    ASSERT_TRUE(run.request(0));
    std::atomic<int> results{0};
    BackgroundCall shutDown([&] { results += run.server().shutDown(std::chrono::hours(24)); });
    EXPECT_TRUE(waitUntil([&] { return run.serverStoppedCalls() == 1; }));
    run.server().stopServer(false);
    EXPECT_TRUE(shutDown.waitForEnd());
    EXPECT_EQ(results, 0);
    EXPECT_FALSE(run.server().shutDown(kLong));  // the same result as that of the stop
}

TEST(ShutDown, OfPollingModeIsAStop)
{
    EventRun run(&parkAllButPings, onOneThread());
    ASSERT_TRUE(run.server().shutDown(kLong));
    HttpServer::Parameters parameters;
    parameters.port = qv::tests::findFreePort();
    run.server().startServer(parameters);
    ASSERT_TRUE(run.server().waitUntilRunning(kLong));
    EXPECT_FALSE(run.server().shutDown(kLong));
    EXPECT_EQ(run.server().getState(), HttpServer::Stopped);
}

struct Load
{
    int clients;
    int rounds;
};

class ShutDownUnderLoad : public testing::TestWithParam<Load>
{};

// Clients send one request after the other while the server shuts down. A client may find its
// connection closed before any byte of a response: the server closes an idle connection while a
// request is on its way. These must not happen:
// - a request that was sent whole before the shutdown began remains without its response;
// - a request that the application has seen remains without its whole response.
TEST_P(ShutDownUnderLoad, LosesNoResponse)
{
    int64_t served = 0;
    for (int round = 0; round < GetParam().rounds; ++round) {
        SCOPED_TRACE(round);
        ServerOptions options = onOneThread();
        options.threads = 2;
        std::mutex mutex;
        std::set<std::string> seen;
        EventRun run(
            [&](EventRequest& request) {
                {
                    const std::lock_guard<std::mutex> lock(mutex);
                    seen.insert(request.getOriginalFullUrl());
                }
                run.work(request, [](EventRequest& r) {
                    r.respond(200, r.getOriginalFullUrl() + std::string(2000, 'x'));
                });
            },
            options);
        std::set<std::string> whole;
        std::vector<std::string> lost;
        std::atomic<bool> begun{false};
        std::atomic<int> responses{0};
        std::vector<std::thread> clients;
        const uint16_t port = run.port();
        for (int i = 0; i < GetParam().clients; ++i) {
            clients.emplace_back([&, i] {
                std::unique_ptr<RawClient> client;
                for (int number = 0;; ++number) {
                    try {
                        if (!client)
                            client = std::make_unique<RawClient>(port);
                    } catch (const std::runtime_error&) {
                        return;  // nobody listens any more
                    }
                    const std::string target =
                        "/" + std::to_string(i) + "/" + std::to_string(number);
                    const bool sent = client->send(getRequest(target));
                    const bool isBefore = sent && !begun;
                    const auto response = client->receive();
                    const bool isWhole =
                        response && response->body == target + std::string(2000, 'x');
                    {
                        const std::lock_guard<std::mutex> lock(mutex);
                        if (isWhole)
                            whole.insert(target);
                        else if (isBefore)
                            lost.push_back(target + " sent before");
                    }
                    responses += isWhole;
                    if (!isWhole || response->value("Connection") == "close" || number % 7 == 0)
                        client.reset();
                }
            });
        }
        EXPECT_TRUE(waitUntil([&] { return responses >= 20 + 10 * (round % 10); }));
        begun = true;
        EXPECT_TRUE(run.server().shutDown(kLong));
        for (std::thread& client : clients)
            client.join();
        for (const std::string& target : seen) {
            if (whole.count(target) == 0)
                lost.push_back(target + " seen by the application");
        }
        EXPECT_THAT(lost, testing::IsEmpty());
        served += responses;
    }
    RecordProperty("responses", std::to_string(served));
}

INSTANTIATE_TEST_SUITE_P(, ShutDownUnderLoad, testing::Values(Load{8, 50}, Load{200, 5}),
                         [](const testing::TestParamInfo<Load>& load) {
                             return std::to_string(load.param.clients) + "Clients";
                         });

// The daemon ends the process when it is stopped while it handles certain heads.
TEST(ShutDown, WithMalformedRequestsInFlightCrashesNothing)
{
    const std::vector<std::string> requests = {
        "GET / HTTP/1.1\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: x",
        "GET / HTTP/1.1\r\nHost: x\r\nHost: y\r\n\r\n",
        "GE",
        "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: -1\r\n\r\n",
        "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 10\r\n\r\n12345",
        "POST / HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
        "\r\n\r\n\r\n",
        std::string("GET /\0 HTTP/1.1\r\n\r\n", 19),
        "GET / HTTP/1.1\r\n folded\r\n\r\n"};
    constexpr int kRounds = 40;
    constexpr size_t kClients = 40;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        ServerOptions options = onOneThread();
        options.threads = 2;
        EventRun run(&parkAllButPings, options);
        std::vector<std::unique_ptr<RawClient>> clients;
        for (size_t i = 0; i < kClients; ++i)
            clients.push_back(std::make_unique<RawClient>(run.port()));
        std::atomic<bool> ended{false};
        std::atomic<size_t> sent{0};
        BackgroundCall sender([&] {
            for (size_t i = 0; !ended && i < 100 * kClients; ++i) {
                clients[i % kClients]->send(requests[(i + i / kClients) % requests.size()]);
                ++sent;
            }
        });
        EXPECT_TRUE(waitUntil([&] { return sent >= static_cast<size_t>(round); }));
        run.server().shutDown(milliseconds(round % 3 * 10));
        EXPECT_EQ(run.server().getState(), HttpServer::Stopped);
        ended = true;
        EXPECT_TRUE(sender.waitForEnd());
    }
}

}  // namespace
