// Callbacks of WebSocket sessions on the workers of the server.

#include "support/KitTestServer.h"
#include "support/SessionFrames.h"

#include <support/BackgroundCall.h>
#include <support/Waiting.h>

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace
{

using integration::clientFrame;
using integration::clientText;
using integration::isUpgraded;
using integration::kitOptions;
using integration::KitTestServer;
using integration::RawClient;
using integration::receiveFrame;
using integration::serverFrame;
using integration::waitUntil;
using qv::kit::Request;
using qv::kit::Router;
using qv::kit::websocket::Session;
using qv::kit::websocket::SessionHandler;
using qv::tests::BackgroundCall;
using qv::tests::Latch;

// One session. Callbacks that overlap or are in the wrong order are counted.
class Recorder : public SessionHandler
{
public:
    using OnText = std::function<void(Session&, const std::string&)>;

    explicit Recorder(OnText onText) : mOnText(std::move(onText)) {}

    void onOpen(const std::shared_ptr<Session>&) override
    {
        call([this] { wrong += opens++ != 0 || messages != 0 || closes != 0; });
    }
    void onText(Session& session, std::string_view text) override
    {
        call([&] {
            wrong += opens != 1 || closes != 0;
            ++messages;
            mOnText(session, std::string(text));
        });
    }
    void onClose(Session&, uint16_t code, std::string_view, bool) override
    {
        call([&] {
            wrong += opens != 1 || closes != 0;
            closeCode = code;
            ++closes;
        });
    }

    std::atomic<int> opens{0};
    std::atomic<int> messages{0};
    std::atomic<int> closes{0};
    std::atomic<int> closeCode{0};
    std::atomic<int> wrong{0};

private:
    template <typename Body> void call(const Body& body)
    {
        wrong += mIsInside.exchange(true);
        const Leaving leaving{mIsInside};
        body();
    }

    struct Leaving
    {
        std::atomic<bool>& isInside;
        ~Leaving() { isInside = false; }
    };

    const OnText mOnText;
    std::atomic<bool> mIsInside{false};
};

// A route /{number} with a recorder for each number.
class WorkerSessions
{
public:
    WorkerSessions(size_t sessions, unsigned workers, const Recorder::OnText& onText)
    {
        for (size_t i = 0; i < sessions; ++i)
            mRecorders.push_back(std::make_shared<Recorder>(onText));
        mServer = std::make_unique<KitTestServer>(
            [this](Router& router) {
                router
                    .webSocket("/{number}", {},
                               [this](Request& request) {
                                   return mRecorders.at(
                                       std::stoul(request.pathParameter("number")));
                               })
                    .callbacksOnWorkers();
                router.get("/ping/worker", [this](Request& request) {
                    handledBeforePing = mRecorders.front()->messages.load();
                    request.reply("pong");
                });
            },
            kitOptions(workers), [](qv::kit::Server& server) { server.metrics(); });
    }

    KitTestServer& server() { return *mServer; }
    Recorder& recorder(size_t number) { return *mRecorders[number]; }

    // Messages of the first session, when /ping/worker was served.
    std::atomic<int> handledBeforePing{0};

private:
    std::vector<std::shared_ptr<Recorder>> mRecorders;
    std::unique_ptr<KitTestServer> mServer;
};

TEST(KitWebSocketWorkers, CallEachSessionInOrderAndNeverTwiceAtOnce)
{
    constexpr size_t kSessions = 8;
    constexpr int kMessages = 3000;
    std::array<std::atomic<int>, kSessions> next{};
    std::atomic<int> wrongOrder{0};
    WorkerSessions sessions(kSessions, 4, [&](Session& session, const std::string& text) {
        const size_t colon = text.find(':');
        const size_t number = std::stoul(text.substr(0, colon));
        const int at = std::stoi(text.substr(colon + 1));
        wrongOrder += next[number]++ != at;
        if (at % 100 == 0)
            std::this_thread::yield();
        if (at + 1 == kMessages)
            session.sendText("all");
    });
    std::list<RawClient> clients;
    for (size_t i = 0; i < kSessions; ++i) {
        RawClient& client = clients.emplace_back(sessions.server().port());
        ASSERT_TRUE(isUpgraded(client, "/" + std::to_string(i)));
    }
    {
        std::list<BackgroundCall> senders;
        size_t number = 0;
        for (RawClient& client : clients) {
            senders.emplace_back([&client, i = number++] {
                for (int at = 0; at < kMessages;) {
                    std::string batch;
                    for (int end = at + 100; at < end; ++at)
                        batch += clientText(std::to_string(i) + ":" + std::to_string(at));
                    EXPECT_TRUE(client.send(batch));
                }
            });
        }
    }
    for (RawClient& client : clients) {
        EXPECT_EQ(receiveFrame(client), serverFrame(1, "all"));
        EXPECT_TRUE(client.send(clientFrame(8, "\x03\xe8")));
        EXPECT_EQ(receiveFrame(client), serverFrame(8, "\x03\xe8"));
    }
    clients.clear();
    EXPECT_TRUE(sessions.server().stop());
    EXPECT_EQ(wrongOrder, 0);
    for (size_t i = 0; i < kSessions; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(sessions.recorder(i).messages, kMessages);
        EXPECT_EQ(sessions.recorder(i).closes, 1);
        EXPECT_EQ(sessions.recorder(i).closeCode, 1000);
        EXPECT_EQ(sessions.recorder(i).wrong, 0);
    }
}

TEST(KitWebSocketWorkers, ACallbackThatWaitsDelaysNoOtherSessionAndNoRequest)
{
    Latch latch;
    WorkerSessions sessions(2, 2, [&](Session& session, const std::string& text) {
        if (text == "wait") {
            EXPECT_TRUE(latch.wait());
        }
        session.sendText(text);
    });
    RawClient waiting(sessions.server().port());
    RawClient other(sessions.server().port());
    ASSERT_TRUE(isUpgraded(waiting, "/0"));
    ASSERT_TRUE(isUpgraded(other, "/1"));
    ASSERT_TRUE(waiting.send(clientText("wait") + clientText("after")));
    ASSERT_TRUE(latch.waitForArrivals(1));
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(other.send(clientText("hello")));
        ASSERT_EQ(receiveFrame(other), serverFrame(1, "hello"));
        ASSERT_EQ(sessions.server().get("/ping/worker").body, "pong");
    }
    EXPECT_EQ(sessions.recorder(0).messages, 1);
    latch.open();
    EXPECT_EQ(receiveFrame(waiting), serverFrame(1, "wait"));
    EXPECT_EQ(receiveFrame(waiting), serverFrame(1, "after"));
}

TEST(KitWebSocketWorkers, CallSeveralSessionsAtOnce)
{
    constexpr size_t kSessions = 4;
    Latch latch;
    WorkerSessions sessions(kSessions, kSessions,
                            [&](Session&, const std::string&) { EXPECT_TRUE(latch.wait()); });
    std::list<RawClient> clients;
    for (size_t i = 0; i < kSessions; ++i) {
        RawClient& client = clients.emplace_back(sessions.server().port());
        ASSERT_TRUE(isUpgraded(client, "/" + std::to_string(i)));
        ASSERT_TRUE(client.send(clientText("wait")));
    }
    EXPECT_TRUE(latch.waitForArrivals(kSessions));
    latch.open();
}

TEST(KitWebSocketWorkers, AFloodOfMessagesLetsRequestsHaveTheirTurn)
{
    constexpr int kMessages = 200;
    Latch latch;
    std::atomic<bool> isFirst{true};
    WorkerSessions sessions(1, 1, [&](Session&, const std::string&) {
        if (isFirst.exchange(false)) {
            EXPECT_TRUE(latch.wait());
        }
    });
    RawClient flood(sessions.server().port());
    ASSERT_TRUE(isUpgraded(flood, "/0"));
    std::string bytes;
    for (int i = 0; i < kMessages; ++i)
        bytes += clientText("x");
    // The pong follows when all messages wait for the worker.
    ASSERT_TRUE(flood.send(bytes + clientFrame(9, "")));
    EXPECT_EQ(receiveFrame(flood), serverFrame(10, ""));
    RawClient asker(sessions.server().port());
    ASSERT_TRUE(asker.send(integration::getRequest("/ping/worker")));
    ASSERT_TRUE(waitUntil([&] {
        return sessions.server()
                   .get("/metrics")
                   .body.find("wendrel_worker_queue_length{queue=\"requests\"} 1\n") !=
               std::string::npos;
    }));
    latch.open();
    EXPECT_TRUE(asker.receive());
    EXPECT_LT(sessions.handledBeforePing, kMessages);
    EXPECT_TRUE(waitUntil([&] { return sessions.recorder(0).messages == kMessages; }));
}

TEST(KitWebSocketWorkers, AnExceptionClosesItsSessionOnly)
{
    WorkerSessions sessions(2, 2, [](Session& session, const std::string& text) {
        if (text == "throw")
            throw std::runtime_error("on purpose");
        session.sendText(text);
    });
    RawClient bad(sessions.server().port());
    RawClient good(sessions.server().port());
    ASSERT_TRUE(isUpgraded(bad, "/0"));
    ASSERT_TRUE(isUpgraded(good, "/1"));
    ASSERT_TRUE(bad.send(clientText("throw")));
    EXPECT_EQ(receiveFrame(bad).substr(2, 2), "\x03\xf3");
    ASSERT_TRUE(bad.send(clientFrame(8, "\x03\xf3")));
    EXPECT_TRUE(bad.isClosedByServer());
    EXPECT_TRUE(waitUntil([&] { return sessions.recorder(0).closes == 1; }));
    ASSERT_TRUE(good.send(clientText("fine")));
    EXPECT_EQ(receiveFrame(good), serverFrame(1, "fine"));
    EXPECT_EQ(sessions.recorder(0).wrong, 0);
}

TEST(KitWebSocketWorkers, AStopWaitsForACallbackAndOnCloseFollows)
{
    Latch latch;
    WorkerSessions sessions(1, 2, [&](Session&, const std::string&) { EXPECT_TRUE(latch.wait()); });
    RawClient client(sessions.server().port());
    ASSERT_TRUE(isUpgraded(client, "/0"));
    ASSERT_TRUE(client.send(clientText("wait")));
    ASSERT_TRUE(latch.waitForArrivals(1));
    bool wasClean = true;
    BackgroundCall stopper(
        [&] { wasClean = sessions.server().stop(std::chrono::milliseconds(10)); });
    EXPECT_EQ(receiveFrame(client).substr(2, 2), "\x03\xe9");
    EXPECT_TRUE(client.isClosedByServer());
    EXPECT_TRUE(stopper.isBlocked());
    EXPECT_EQ(sessions.recorder(0).closes, 0);
    latch.open();
    EXPECT_TRUE(stopper.waitForEnd());
    EXPECT_FALSE(wasClean);
    EXPECT_EQ(sessions.recorder(0).closes, 1);
    EXPECT_EQ(sessions.recorder(0).wrong, 0);
}

TEST(KitWebSocketWorkers, AreRefusedForARouteWithoutSessions)
{
    qv::kit::Server server(kitOptions());
    server.router().get("/a", [](Request& request) { request.reply("a"); }).callbacksOnWorkers();
    EXPECT_FALSE(server.start());
    EXPECT_EQ(server.failureReason(), "the route GET /a has callbacksOnWorkers, but no WebSocket");
}

}  // namespace
