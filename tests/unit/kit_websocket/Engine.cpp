// Many sessions: shutdown, stress, and nothing left behind.

#include "Peer.h"

#include <support/BackgroundCall.h>
#include <support/CapturedLog.h>

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include <sys/ioctl.h>

namespace
{

using namespace websockettests;
using std::chrono::milliseconds;
using ::testing::HasSubstr;

size_t countDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// Counts; each session has one onOpen and one onClose.
class Counter : public SessionHandler
{
public:
    void onOpen(const std::shared_ptr<Session>&) override { ++opened; }
    void onText(Session& session, std::string_view text) override
    {
        ++messages;
        session.sendText(text);
    }
    void onClose(Session&, uint16_t, std::string_view, bool) override { ++closed; }

    std::atomic<int> opened{0};
    std::atomic<int> closed{0};
    std::atomic<int> messages{0};
};

std::shared_ptr<Session> openOn(Engine& engine, int descriptor,
                                const std::shared_ptr<SessionHandler>& handler,
                                const std::shared_ptr<const WebSocketOptions>& options,
                                const Agreement& agreement = {})
{
    ::fcntl(descriptor, F_SETFL, O_NONBLOCK);
    return engine.open(std::make_unique<qv::UpgradedConnection>(descriptor, "", qv::IpAddress(),
                                                                std::make_shared<int>(1)),
                       agreement, handler, options);
}

TEST(Engine, ClosesAllSessionsWith1001AfterTheirMessages)
{
    SessionRun run;
    Peer& peer = run.open();
    std::thread closing([&] {
        EXPECT_EQ(peer.receive(), "81:last");
        EXPECT_EQ(peer.receive(), closed(1001, "the server shuts down"));
        peer.send(closeFrame(1001));
        EXPECT_EQ(peer.receive(), "end");
        peer.close();
    });
    run.session->sendText("last");
    EXPECT_TRUE(run.engine.shutDown(kLimit));
    closing.join();
    EXPECT_EQ(run.recorder->closed(), "close:1001::clean");
    EXPECT_EQ(run.engine.sessionCount(), 0u);
    EXPECT_TRUE(run.engine.shutDown(kLimit));
}

TEST(Engine, EndsSessionsAtTheDeadlineOfTheShutdown)
{
    SessionRun run;
    Peer& peer = run.open();
    EXPECT_FALSE(run.engine.shutDown(milliseconds(50)));
    EXPECT_EQ(run.recorder->closed(), "close:1006:the server has shut down:lost");
    EXPECT_EQ(peer.receive(), closed(1001, "the server shuts down"));
    EXPECT_EQ(peer.receive(), "end");
}

TEST(Engine, EndsSessionsAtTheEarlierDeadlineOfAnotherCall)
{
    WebSocketOptions options;
    options.closeTimeout = std::chrono::minutes(10);
    SessionRun run(options);
    Peer& peer = run.open();
    bool isClean = true;
    qv::tests::BackgroundCall first([&] { isClean = run.engine.shutDown(2 * kLimit); });
    EXPECT_EQ(peer.receive(), closed(1001, "the server shuts down"));
    // A later deadline changes nothing.
    qv::tests::BackgroundCall later([&] { run.engine.shutDown(3 * kLimit); });
    EXPECT_TRUE(later.isBlocked());
    EXPECT_FALSE(run.engine.shutDown(milliseconds(0)));
    EXPECT_EQ(run.recorder->closed(), "close:1006:the server has shut down:lost");
    EXPECT_TRUE(first.waitForEnd());
    EXPECT_TRUE(later.waitForEnd());
    EXPECT_FALSE(isClean);
}

// Much more than the sockets hold, to a peer that begins to read after the shutdown has begun.
TEST(Engine, SendsPendingMessagesWithinTheDeadline)
{
    WebSocketOptions options;
    options.sendTimeout = options.closeTimeout = std::chrono::minutes(10);
    options.sendQueueBytes = 8 << 20;
    SessionRun run(options, {}, {}, 4096);
    Peer& peer = run.open();
    const std::string message(1 << 20, 'm');
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(run.session->sendText(message), SendResult::Queued);
    bool isClean = false;
    qv::tests::BackgroundCall stopping([&] { isClean = run.engine.shutDown(kLimit); });
    ASSERT_TRUE(waitUntil([&] { return !run.session->isOpen(); }));
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(peer.receive().size(), message.size() + 3);
    EXPECT_EQ(peer.receive(), closed(1001, "the server shuts down"));
    peer.send(closeFrame(1001));
    EXPECT_EQ(peer.receive(), "end");
    peer.close();
    EXPECT_TRUE(stopping.waitForEnd());
    EXPECT_TRUE(isClean);
}

TEST(Engine, TakesNoConnectionAfterTheShutdown)
{
    SessionRun run;
    EXPECT_TRUE(run.engine.shutDown(milliseconds(0)));
    Peer& peer = run.open();
    EXPECT_EQ(run.session, nullptr);
    EXPECT_EQ(peer.receive(), "end");
    EXPECT_TRUE(run.recorder->events().empty());
}

TEST(Engine, CannotBeShutDownByACallback)
{
    qv::tests::CapturedLog log;
    SessionRun run;
    std::atomic<bool> result{true};
    run.recorder->whenText = [&](Session&, std::string_view) {
        result = run.engine.shutDown(kLimit);
    };
    run.open().send(frame(Opcode::Text, "stop"));
    EXPECT_EQ(run.recorder->event(2), "text:stop");
    run.peer->close();
    run.recorder->closed();
    EXPECT_FALSE(result);
    EXPECT_EQ(log.lines("a WebSocket callback cannot shut its engine down").size(), 1u);
}

TEST(Engine, GivesUpThePlaceOfAConnectionWhenItHasEnded)
{
    SessionRun run;
    const auto place = std::make_shared<int>(1);
    const auto [server, client] = tcpPair();
    ::fcntl(server, F_SETFL, O_NONBLOCK);
    run.engine.open(std::make_unique<qv::UpgradedConnection>(server, "", qv::IpAddress(), place),
                    {}, run.recorder, std::make_shared<WebSocketOptions>());
    run.recorder->event(1);
    EXPECT_EQ(place.use_count(), 2);
    ::close(client);
    EXPECT_TRUE(waitUntil([&] { return place.use_count() == 1; }));
}

TEST(Engine, BroadcastsToAllSessions)
{
    Engine engine({2});
    const auto handler = std::make_shared<Counter>();
    const auto options = std::make_shared<WebSocketOptions>();
    std::vector<std::shared_ptr<Session>> sessions;
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 200; ++i) {
        const auto [server, client] = tcpPair();
        sessions.push_back(openOn(engine, server, handler, options));
        peers.push_back(std::make_unique<Peer>(client));
    }
    for (int round = 0; round < 20; ++round) {
        const auto message = PreparedMessage::text("round " + std::to_string(round));
        for (const auto& session : sessions)
            EXPECT_EQ(session->send(message), SendResult::Queued);
    }
    for (const auto& peer : peers) {
        for (int round = 0; round < 20; ++round)
            ASSERT_EQ(peer->receive(), "81:round " + std::to_string(round));
    }
}

// The budget is enough for the messages of one group at a time.
TEST(Engine, KeepsNoMemoryForSessionsBetweenMessages)
{
    Engine engine({1, 500000});
    const auto handler = std::make_shared<Counter>();
    const auto options = std::make_shared<WebSocketOptions>();
    const std::string bytes = frame(Opcode::Text, std::string(60000, 'x'));
    std::vector<std::unique_ptr<Peer>> peers;
    for (int group = 0; group < 5; ++group) {
        const size_t first = peers.size();
        for (int i = 0; i < 5; ++i) {
            const auto [server, client] = tcpPair();
            openOn(engine, server, handler, options);
            peers.push_back(std::make_unique<Peer>(client));
            peers.back()->send(bytes.substr(0, 30000));
            // The first halves are received before the second ones are sent.
            ASSERT_TRUE(waitUntil([descriptor = server] {
                int unread = 0;
                ::ioctl(descriptor, FIONREAD, &unread);
                return unread == 0;
            }));
        }
        for (size_t i = first; i < peers.size(); ++i) {
            peers[i]->send(bytes.substr(30000));
            ASSERT_EQ(peers[i]->receive().size(), 60003u) << i;
        }
    }
}

// Peers that close, reset, violate the protocol or stay, while threads send to and close the same
// sessions, and the engine is shut down in the middle.
TEST(EngineStress, ClosesEverySessionOnceAndLeavesNoDescriptor)
{
    const size_t before = countDescriptors();
    std::mt19937 dice(4711);
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE(round);
        const auto handler = std::make_shared<Counter>();
        auto options = std::make_shared<WebSocketOptions>();
        options->closeTimeout = milliseconds(200);
        options->sendQueueBytes = 100000;
        options->queuePolicy = static_cast<QueuePolicy>(round % 4);
        std::mutex tasksMutex;
        std::vector<std::thread> tasks;
        if (round % 3 == 0) {
            options->executor = [&](std::function<void()> task) {
                const std::lock_guard<std::mutex> lock(tasksMutex);
                tasks.emplace_back(std::move(task));
                return true;
            };
        }
        Agreement agreement;
        agreement.deflate.isEnabled = round % 2 == 0;
        agreement.deflate.serverNoContextTakeover = round % 4 == 0;
        int accepted = 0;
        {
            Engine engine({2});
            std::vector<std::shared_ptr<Session>> sessions;
            std::vector<std::unique_ptr<Peer>> peers;
            for (int i = 0; i < 40; ++i) {
                const auto [server, client] = tcpPair();
                sessions.push_back(openOn(engine, server, handler, options, agreement));
                peers.push_back(std::make_unique<Peer>(client));
                ++accepted;
            }
            std::vector<std::thread> threads;
            const auto prepared = PreparedMessage::text(std::string(500, 'p'));
            for (unsigned t = 0; t < 3; ++t) {
                threads.emplace_back([&, t, seed = dice()] {
                    std::mt19937 own(seed + t);
                    for (int i = 0; i < 1500; ++i) {
                        Session& session = *sessions[own() % sessions.size()];
                        switch (own() % 40) {
                        case 0:
                            session.close(4000, "by a thread");
                            break;
                        case 1:
                            session.abort();
                            break;
                        case 2:
                            session.ping("p");
                            break;
                        default:
                            if (own() % 2 == 0)
                                session.send(prepared);
                            else
                                session.sendText(std::string(own() % 3000, 't'));
                        }
                    }
                });
            }
            threads.emplace_back([&, seed = dice()] {
                std::mt19937 own(seed);
                for (int i = 0; i < 400; ++i) {
                    Peer& peer = *peers[own() % peers.size()];
                    if (peer.descriptor() == -1)
                        continue;
                    switch (own() % 12) {
                    case 0:
                        peer.close();
                        break;
                    case 1:
                        peer.reset();
                        break;
                    case 2:
                        peer.send(closeFrame(1000));
                        break;
                    case 3:
                        peer.send(rawFrame(kFin | 3, "x"));
                        break;
                    case 4:
                        peer.shutDownSending();
                        break;
                    default:
                        peer.send(frame(Opcode::Text, std::string(own() % 2000, 'm')));
                    }
                }
            });
            if (round % 2 == 1)
                engine.shutDown(milliseconds(20));
            for (std::thread& thread : threads)
                thread.join();
            engine.shutDown(milliseconds(round * 30));
            EXPECT_EQ(engine.sessionCount(), 0u);
        }
        for (std::thread& task : tasks)
            task.join();
        EXPECT_EQ(handler->opened, accepted);
        EXPECT_EQ(handler->closed, accepted);
    }
    EXPECT_EQ(countDescriptors(), before);
}

// Connections that come while the engine shuts down are either served or refused.
TEST(EngineStress, ShutsDownWhileConnectionsCome)
{
    const size_t before = countDescriptors();
    for (int round = 0; round < 20; ++round) {
        const auto handler = std::make_shared<Counter>();
        const auto options = std::make_shared<WebSocketOptions>();
        std::atomic<int> accepted{0};
        Engine engine({2});
        std::thread opening([&] {
            for (int i = 0; i < 50; ++i) {
                const auto [server, client] = tcpPair();
                accepted += openOn(engine, server, handler, options) != nullptr;
                ::close(client);
            }
        });
        ::poll(nullptr, 0, round % 5);
        engine.shutDown(milliseconds(10));
        opening.join();
        EXPECT_EQ(handler->opened, accepted);
        EXPECT_EQ(handler->closed, accepted);
    }
    EXPECT_EQ(countDescriptors(), before);
}

}  // namespace
