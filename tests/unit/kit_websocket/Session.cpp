// Sessions over TCP connections: order, closing, limits and deadlines.

#include "Peer.h"

#include <Wendrel/MemoryAccount.h>

#include <support/CapturedLog.h>
#include <support/Waiting.h>

#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace
{

using namespace websockettests;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

void echo(Recorder& recorder)
{
    recorder.whenText = [](Session& session, std::string_view text) { session.sendText(text); };
    recorder.whenBinary = [](Session& session, BinaryView bytes) { session.sendBinary(bytes); };
}

// Deadlines that no test reaches.
WebSocketOptions withLongTimeouts()
{
    WebSocketOptions options;
    options.pingInterval = options.silenceTimeout = options.sendTimeout = options.closeTimeout =
        std::chrono::minutes(10);
    return options;
}

TEST(Session, EchoesMessagesInOrder)
{
    SessionRun run(withLongTimeouts());
    echo(*run.recorder);
    Peer& peer = run.open();
    peer.send(frame(Opcode::Text, "a") + frame(Opcode::Binary, "b") + frame(Opcode::Text, ""));
    EXPECT_EQ(peer.receive(), "81:a");
    EXPECT_EQ(peer.receive(), "82:b");
    EXPECT_EQ(peer.receive(), "81:");
    EXPECT_EQ(run.session->peerAddress().toString(), "192.0.2.7");
    EXPECT_TRUE(run.session->isOpen());
}

TEST(Session, EchoesMessagesOfEverySize)
{
    WebSocketOptions options = withLongTimeouts();
    options.maxMessageBytes = options.sendQueueBytes = 64 << 20;
    SessionRun run(options);
    echo(*run.recorder);
    Peer& peer = run.open();
    for (const size_t size : {125, 126, 65535, 65536, 100000, 1 << 20, 5 << 20}) {
        const std::string payload(size, 'm');
        std::thread sending([&] { peer.send(frame(Opcode::Binary, payload)); });
        EXPECT_TRUE(peer.receive() == "82:" + payload) << size;
        sending.join();
    }
    EXPECT_TRUE(waitUntil([&] { return run.session->bufferedBytes() == 0; }));
}

TEST(Session, DoesNotLoseBytesThatCameWithTheHandshake)
{
    const std::string bytes = frame(Opcode::Text, "early") + frame(Opcode::Text, "later");
    for (const size_t cut : {size_t{3}, size_t{11}, size_t{12}, bytes.size()}) {
        SCOPED_TRACE(cut);
        SessionRun run(withLongTimeouts(), {}, bytes.substr(0, cut));
        Peer& peer = run.open();
        peer.send(bytes.substr(cut));
        EXPECT_EQ(run.recorder->event(3), "text:later");
        EXPECT_THAT(run.recorder->events(), ElementsAre("open", "text:early", "text:later"));
    }
}

TEST(Session, MustRespondToAPingWithItsPayload)
{
    SessionRun run(withLongTimeouts());
    Peer& peer = run.open();
    peer.send(frame(Opcode::Text, "a", false) + frame(Opcode::Ping, "payload") +
              frame(Opcode::Ping, "") + frame(Opcode::Continuation, "b"));
    EXPECT_EQ(peer.receive(), "8a:payload");
    EXPECT_EQ(peer.receive(), "8a:");
    EXPECT_EQ(run.recorder->event(2), "text:ab");
}

TEST(Session, TellsPongsAndSendsPings)
{
    SessionRun run(withLongTimeouts());
    Peer& peer = run.open();
    EXPECT_EQ(run.session->ping("are you there"), SendResult::Queued);
    EXPECT_EQ(peer.receive(), "89:are you there");
    peer.send(frame(Opcode::Pong, "are you there"));
    EXPECT_EQ(run.recorder->event(2), "pong:are you there");
    run.session->ping(std::string(200, 'p'));
    EXPECT_EQ(peer.receive(), "89:" + std::string(125, 'p'));
}

TEST(Session, MustRespondToACloseFrameWithItsCode)
{
    SessionRun run(withLongTimeouts());
    Peer& peer = run.open();
    peer.send(closeFrame(3456, "bye"));
    EXPECT_EQ(peer.receive(), closed(3456));
    EXPECT_EQ(peer.receive(), "end");
    EXPECT_EQ(run.recorder->closed(), "close:3456:bye:clean");
    EXPECT_FALSE(run.session->isOpen());
    EXPECT_EQ(run.session->sendText("late"), SendResult::Closed);
    peer.close();
    EXPECT_TRUE(waitUntil([&] { return run.engine.sessionCount() == 0; }));
}

TEST(Session, ReportsACloseFrameWithoutCodeAs1005)
{
    SessionRun run(withLongTimeouts());
    Peer& peer = run.open();
    peer.send(frame(Opcode::Close, ""));
    EXPECT_EQ(peer.receive(), "88:");
    EXPECT_EQ(peer.receive(), "end");
    EXPECT_EQ(run.recorder->closed(), "close:1005::clean");
}

TEST(Session, IgnoresFramesBehindACloseFrame)
{
    SessionRun run(withLongTimeouts());
    Peer& peer = run.open();
    peer.send(closeFrame(1000) + frame(Opcode::Text, "late") + frame(Opcode::Ping, "late"));
    EXPECT_EQ(peer.receive(), closed(1000));
    EXPECT_EQ(peer.receive(), "end");
    run.recorder->closed();
    EXPECT_THAT(run.recorder->events(), ElementsAre("open", "close:1000::clean"));
}

TEST(Session, SendsAllMessagesBeforeItsCloseFrameAndWaitsForThePeers)
{
    SessionRun run(withLongTimeouts());
    Peer& peer = run.open();
    for (int i = 0; i < 100; ++i)
        run.session->sendText(std::to_string(i));
    EXPECT_TRUE(run.session->close(4001, "done"));
    EXPECT_FALSE(run.session->close(4002, "again"));
    EXPECT_EQ(run.session->sendText("late"), SendResult::Closed);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(peer.receive(), "81:" + std::to_string(i));
    EXPECT_EQ(peer.receive(), closed(4001, "done"));
    EXPECT_EQ(peer.receive(milliseconds(50)), "nothing");
    peer.send(frame(Opcode::Text, "still open") + closeFrame(4001));
    EXPECT_EQ(peer.receive(), "end");
    run.recorder->closed();
    EXPECT_THAT(run.recorder->events(),
                ElementsAre("open", "text:still open", "close:4001::clean"));
}

TEST(Session, RefusesCodesThatMustNotBeSent)
{
    SessionRun run(withLongTimeouts());
    run.open();
    for (const uint16_t code : {0, 999, 1004, 1005, 1006, 1015, 2000, 5000})
        EXPECT_FALSE(run.session->close(code)) << code;
    EXPECT_TRUE(run.session->isOpen());
}

TEST(Session, ClosesWithTheCodeOfTheViolation)
{
    const std::string large = announcement(0x82, 2000000);
    const struct
    {
        const char* name;
        std::string bytes;
        uint16_t code;
    } rows[] = {
        {"reserved bit", rawFrame(kFin | 0x40 | 1, "x"), 1002},
        {"opcode", rawFrame(kFin | 3, "x"), 1002},
        {"not masked", std::string("\x81\x01x"), 1002},
        {"invalid text", frame(Opcode::Text, "\xff"), 1007},
        {"too long", large, 1009},
        {"length bomb", announcement(0x82, uint64_t{1} << 62), 1009},
        {"close frame of one byte", frame(Opcode::Close, "x"), 1002},
        {"close code", closeFrame(1005), 1002},
        {"close reason", closeFrame(1000, "\xff"), 1007},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SessionRun run(withLongTimeouts());
        Peer& peer = run.open();
        peer.send(row.bytes);
        const std::string response = peer.receive();
        EXPECT_EQ(response.substr(0, 5), closed(row.code));
        EXPECT_EQ(peer.receive(), "end");
        EXPECT_THAT(run.recorder->closed(), HasSubstr("close:" + std::to_string(row.code) + ":"));
        EXPECT_THAT(run.recorder->closed(), HasSubstr(":lost"));
    }
}

// A reset would discard the close frame, which the peer has not read yet.
TEST(Session, DoesNotResetAfterAViolationWhileThePeerSends)
{
    SessionRun run(withLongTimeouts());
    Peer& peer = run.open();
    std::string bytes = rawFrame(kFin | 3, "x");
    for (int i = 0; i < 100; ++i)
        bytes += frame(Opcode::Binary, std::string(10000, 'x'));
    EXPECT_TRUE(peer.send(bytes));
    EXPECT_EQ(peer.receive().substr(0, 5), closed(1002));
    EXPECT_EQ(peer.receive(), "end");
    EXPECT_TRUE(peer.send(bytes));
}

TEST(Session, ReportsALostConnection)
{
    const struct
    {
        const char* name;
        std::function<void(Peer&)> end;
    } rows[] = {
        {"closed", [](Peer& peer) { peer.close(); }},
        {"half closed", [](Peer& peer) { peer.shutDownSending(); }},
        {"reset", [](Peer& peer) { peer.reset(); }},
        {"inside a frame",
         [](Peer& peer) {
             peer.send(frame(Opcode::Text, "abc").substr(0, 8));
             peer.close();
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SessionRun run(withLongTimeouts());
        row.end(run.open());
        EXPECT_THAT(run.recorder->closed(), HasSubstr("close:1006:"));
        EXPECT_TRUE(waitUntil([&] { return run.engine.sessionCount() == 0; }));
        EXPECT_EQ(run.recorder->events().size(), 2u);
    }
}

TEST(Session, SurvivesAResetInEveryState)
{
    const struct
    {
        const char* name;
        std::function<void(SessionRun&)> reach;
    } rows[] = {
        {"before the first byte", [](SessionRun&) {}},
        {"inside a header", [](SessionRun& run) { run.peer->send("\x82"); }},
        {"inside a message",
         [](SessionRun& run) { run.peer->send(frame(Opcode::Binary, "abc", false)); }},
        {"inside a large frame",
         [](SessionRun& run) {
             run.peer->send(frame(Opcode::Binary, std::string(500000, 'x')).substr(0, 300000));
         }},
        {"while messages wait",
         [](SessionRun& run) {
             for (int i = 0; i < 100; ++i)
                 run.session->sendText(std::string(40000, 'x'));
             waitUntil([&] { return run.session->bufferedBytes() > 0; });
         }},
        {"after the server's close frame",
         [](SessionRun& run) {
             run.session->close(1000);
             run.peer->receive();
         }},
        {"after the peer's close frame",
         [](SessionRun& run) {
             run.peer->send(closeFrame(1000));
             run.recorder->closed();
         }},
        {"after a violation",
         [](SessionRun& run) {
             run.peer->send(rawFrame(kFin | 3, "x"));
             run.recorder->closed();
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SessionRun run(withLongTimeouts(), {}, {}, 4096);
        run.open();
        run.recorder->event(1);
        row.reach(run);
        run.peer->reset();
        EXPECT_TRUE(waitUntil([&] { return run.engine.sessionCount() == 0; }));
        const auto events = run.recorder->events();
        EXPECT_EQ(std::count_if(events.begin(), events.end(),
                                [](const auto& event) { return event.rfind("close:", 0) == 0; }),
                  1);
        EXPECT_EQ(run.session->bufferedBytes(), 0u);
    }
}

TEST(Session, EndsAtOnceWhenAborted)
{
    SessionRun run(withLongTimeouts());
    Peer& peer = run.open();
    run.session->abort();
    EXPECT_EQ(run.recorder->closed(), "close:1006:aborted by the application:lost");
    EXPECT_TRUE(waitUntil([&] { return run.engine.sessionCount() == 0; }));
    EXPECT_EQ(peer.receive(), "end");
}

TEST(Session, SendsAPingDuringSilenceAndDisconnectsASilentPeer)
{
    WebSocketOptions options = withLongTimeouts();
    options.pingInterval = milliseconds(50);
    options.silenceTimeout = milliseconds(400);
    SessionRun run(options);
    Peer& peer = run.open();
    EXPECT_EQ(peer.receive(), "89:");
    EXPECT_TRUE(peer.receiveEnd());
    EXPECT_EQ(run.recorder->closed(), "close:1006:the peer is silent:lost");
}

TEST(Session, KeepsAPeerThatRespondsToPings)
{
    WebSocketOptions options = withLongTimeouts();
    options.pingInterval = milliseconds(20);
    options.silenceTimeout = milliseconds(5000);
    SessionRun run(options);
    Peer& peer = run.open();
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(peer.receive(), "89:");
        peer.send(frame(Opcode::Pong, ""));
    }
    EXPECT_TRUE(run.session->isOpen());
}

TEST(Session, DoesNotWaitForTheCloseFrameOfThePeerForEver)
{
    WebSocketOptions options = withLongTimeouts();
    options.closeTimeout = milliseconds(50);
    SessionRun run(options);
    Peer& peer = run.open();
    run.session->close(1000);
    EXPECT_EQ(peer.receive(), closed(1000));
    EXPECT_EQ(peer.receive(), "end");
    EXPECT_EQ(run.recorder->closed(), "close:1006:the close handshake took too long:lost");
}

TEST(Session, DoesNotWaitForTheEndOfThePeerForEver)
{
    WebSocketOptions options = withLongTimeouts();
    options.closeTimeout = milliseconds(50);
    SessionRun run(options);
    Peer& peer = run.open();
    peer.send(closeFrame(1000));
    EXPECT_EQ(run.recorder->closed(), "close:1000::clean");
    EXPECT_TRUE(waitUntil([&] { return run.engine.sessionCount() == 0; }));
}

TEST(Session, DisconnectsAPeerThatTakesNothing)
{
    WebSocketOptions options = withLongTimeouts();
    options.sendTimeout = milliseconds(100);
    SessionRun run(options, {}, {}, 4096);
    run.open();
    EXPECT_EQ(run.session->sendBinary(BinaryView(std::string_view(std::string(3000000, 'x')))),
              SendResult::Queued);
    EXPECT_EQ(run.recorder->closed(), "close:1006:the peer receives nothing:lost");
}

// Fills the queue of a session whose peer reads nothing: the message in the sockets, and 8 of 1000.
WebSocketOptions smallQueue(QueuePolicy policy)
{
    WebSocketOptions options = withLongTimeouts();
    options.sendQueueBytes = 1000000;
    options.queuePolicy = policy;
    return options;
}

constexpr size_t kBlockingBytes = 900000;

void block(SessionRun& run)
{
    run.open();
    // Larger than the buffers of both sockets can be, with the small sizes asked for.
    run.session->sendBinary(BinaryView(std::string_view(std::string(kBlockingBytes, 'b'))));
    ASSERT_TRUE(waitUntil([&] { return run.session->bufferedBytes() < kBlockingBytes; }));
}

// All binary messages that the peer gets after the blocking one, by their first character.
std::string rest(SessionRun& run)
{
    EXPECT_EQ(run.peer->receive().size(), kBlockingBytes + 3);
    run.session->close(1000);
    std::string first;
    for (std::string frame = run.peer->receive(); frame.substr(0, 3) == "82:";
         frame = run.peer->receive())
        first += frame[3];
    return first;
}

SendResult sendLarge(SessionRun& run, char first)
{
    return run.session->sendBinary(BinaryView(std::string_view(std::string(40000, first))));
}

TEST(Session, TellsTheCallerThatTheQueueIsFull)
{
    SessionRun run(smallQueue(QueuePolicy::Refuse), {}, {}, 4096);
    block(run);
    std::string sent;
    char next = '0';
    while (sendLarge(run, next) == SendResult::Queued)
        sent += next++;
    EXPECT_EQ(sendLarge(run, 'x'), SendResult::Full);
    EXPECT_GT(run.session->bufferedBytes() + 40014, 1000000u);
    EXPECT_LE(run.session->bufferedBytes(), 1000000u);
    EXPECT_EQ(run.peer->receive().size(), kBlockingBytes + 3);
    for (const char first : sent)
        EXPECT_EQ(run.peer->receive()[3], first);
    EXPECT_EQ(run.recorder->event(2), "drained");
    EXPECT_EQ(run.session->bufferedBytes(), 0u);
}

// The loop is busy while another thread fills the queue, and sends it without waiting for the peer.
TEST(Session, CallsOnDrainedAfterFullThoughThePeerTakesEverythingAtOnce)
{
    WebSocketOptions options = withLongTimeouts();
    options.sendQueueBytes = 1000;
    options.queuePolicy = QueuePolicy::Refuse;
    SessionRun run(options);
    qv::tests::Latch isFull;
    run.recorder->whenText = [&](Session&, std::string_view) { isFull.wait(); };
    Peer& peer = run.open();
    peer.send(frame(Opcode::Text, "wait"));
    EXPECT_EQ(run.recorder->event(2), "text:wait");
    const std::string message(400, 'm');
    EXPECT_EQ(run.session->sendText(message), SendResult::Queued);
    EXPECT_EQ(run.session->sendText(message), SendResult::Queued);
    EXPECT_EQ(run.session->sendText(message), SendResult::Full);
    isFull.open();
    EXPECT_EQ(run.recorder->event(3), "drained");
    EXPECT_EQ(run.session->sendText(message), SendResult::Queued);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(peer.receive(), "81:" + message);
}

TEST(Session, DropsTheNewestMessageOfAFullQueue)
{
    SessionRun run(smallQueue(QueuePolicy::DropNewest), {}, {}, 4096);
    block(run);
    std::string sent;
    char next = '0';
    while (sendLarge(run, next) == SendResult::Queued)
        sent += next++;
    EXPECT_EQ(sendLarge(run, 'x'), SendResult::Dropped);
    EXPECT_EQ(rest(run), sent);
}

TEST(Session, DropsTheOldestMessagesOfAFullQueue)
{
    SessionRun run(smallQueue(QueuePolicy::DropOldest), {}, {}, 4096);
    block(run);
    EXPECT_EQ(run.session->ping("kept"), SendResult::Queued);
    for (char next = '0'; next <= '9'; ++next)
        EXPECT_EQ(sendLarge(run, next), SendResult::Queued);
    EXPECT_LE(run.session->bufferedBytes(), 1000000u);
    EXPECT_EQ(run.peer->receive().size(), kBlockingBytes + 3);
    EXPECT_EQ(run.peer->receive(), "89:kept");
    EXPECT_EQ(run.session->close(1000), true);
    std::string first;
    for (std::string frame = run.peer->receive(); frame.substr(0, 3) == "82:";
         frame = run.peer->receive())
        first += frame[3];
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(first.back(), '9');
    EXPECT_EQ(std::string("0123456789").find(first), 10 - first.size()) << first;
}

TEST(Session, ClosesWith1013WhenTheQueueIsFull)
{
    SessionRun run(smallQueue(QueuePolicy::Close), {}, {}, 4096);
    block(run);
    while (sendLarge(run, 'x') == SendResult::Queued) {
    }
    EXPECT_FALSE(run.session->isOpen());
    EXPECT_EQ(run.peer->receive().size(), kBlockingBytes + 3);
    std::string last = run.peer->receive();
    // The messages that were being sent already.
    while (last.substr(0, 3) == "82:")
        last = run.peer->receive();
    EXPECT_EQ(last, closed(1013, "the send queue is full"));
    EXPECT_EQ(run.peer->receive(), "end");
    EXPECT_EQ(run.recorder->closed(), "close:1013:the send queue is full:lost");
}

constexpr size_t kSmallBudgetBytes = 12000;

// The budget of the sessions, or one that they share with others.
struct SmallBudget : SessionRun
{
    SmallBudget(bool isShared, QueuePolicy policy, int bufferBytes = 4096)
        : SessionRun(smallQueue(policy), {}, {}, bufferBytes,
                     {1, isShared ? UINT64_MAX : kSmallBudgetBytes})
    {
        if (isShared)
            engine.shareMemory(qv::MemoryAccount(kSmallBudgetBytes));
    }
};

// A first session, whose peer is returned, holds most of that budget with an unfinished message of
// 8000 bytes; then the session of the run is opened.
std::unique_ptr<Peer> useUpBudget(SessionRun& run)
{
    run.open();
    std::unique_ptr<Peer> holder = std::move(run.peer);
    holder->send(frame(Opcode::Text, std::string(8000, 'x'), false) + frame(Opcode::Ping, "p"));
    EXPECT_EQ(holder->receive(), "8a:p");
    run.open();
    EXPECT_EQ(run.recorder->event(2), "open");
    return holder;
}

TEST(Session, TreatsAnExhaustedBudgetAsAFullQueue)
{
    const struct
    {
        QueuePolicy policy;
        SendResult result;
    } rows[] = {{QueuePolicy::Refuse, SendResult::Full},
                {QueuePolicy::DropNewest, SendResult::Dropped},
                {QueuePolicy::DropOldest, SendResult::Dropped},
                {QueuePolicy::Close, SendResult::Closed}};
    for (const auto& row : rows) {
        SCOPED_TRACE(static_cast<int>(row.policy));
        for (const bool isShared : {false, true}) {
            SCOPED_TRACE(isShared);
            SmallBudget run(isShared, row.policy);
            const std::unique_ptr<Peer> holder = useUpBudget(run);
            EXPECT_EQ(run.session->sendText(std::string(5000, 'x')), row.result);
        }
    }
}

// Otherwise a few peers that do not read would make the server close all others.
TEST(Session, AcceptsASmallMessageWhileNothingWaitsThoughTheBudgetIsExhausted)
{
    SessionRun run(smallQueue(QueuePolicy::Close), {}, {}, 4096, {1, kSmallBudgetBytes});
    const std::unique_ptr<Peer> holder = useUpBudget(run);
    const std::string small(4092, 's');
    EXPECT_EQ(run.session->sendText(small), SendResult::Queued);
    EXPECT_EQ(run.peer->receive(), "81:" + small);
    ASSERT_TRUE(waitUntil([&] { return run.session->bufferedBytes() == 0; }));
    EXPECT_EQ(run.session->sendText(small + 'x'), SendResult::Closed);
}

// A callback that tries again at once would otherwise be called without end.
void callOnDrainedAfterFull(bool isShared)
{
    SmallBudget run(isShared, QueuePolicy::Refuse);
    const std::string message(5000, 'm');
    std::atomic<int> refused{0};
    run.recorder->whenDrained = [&](Session& session) {
        std::thread([&] { refused += session.sendText(message) != SendResult::Queued; }).join();
    };
    std::unique_ptr<Peer> holder = useUpBudget(run);
    Peer& peer = *run.peer;
    EXPECT_EQ(run.session->sendText(message), SendResult::Full);
    // Turns of the loop meanwhile.
    for (int i = 0; i < 3; ++i) {
        peer.send(frame(Opcode::Ping, "p"));
        EXPECT_EQ(peer.receive(), "8a:p");
    }
    EXPECT_EQ(peer.receive(milliseconds(300)), "nothing");
    EXPECT_THAT(run.recorder->events(), ElementsAre("open", "open"));
    // Nothing but the budget wakes the session.
    holder.reset();
    EXPECT_EQ(peer.receive(), "81:" + message);
    EXPECT_EQ(refused, 0);
}

TEST(Session, CallsOnDrainedAfterFullWhenTheBudgetHasSpaceAgain)
{
    callOnDrainedAfterFull(false);
}

TEST(Session, CallsOnDrainedAfterFullWhenTheSharedBudgetHasSpaceAgain)
{
    callOnDrainedAfterFull(true);
}

// Otherwise a callback that always fills the queue of a fast peer would keep the loop.
TEST(Session, CallsOnDrainedOnceInATurn)
{
    SessionRun run(smallQueue(QueuePolicy::Refuse));
    constexpr int kMaxCalls = 100000;
    int calls = 0;
    bool isHandledBetween = false;
    const std::string large(2000000, 'm');
    const auto fill = [&](Session& session) {
        std::thread([&] {
            EXPECT_EQ(session.sendText("a"), SendResult::Queued);
            EXPECT_EQ(session.sendText(large), SendResult::Full);
        }).join();
    };
    run.recorder->whenText = [&](Session& session, std::string_view text) {
        isHandledBetween = text == "between";
        if (text == "begin")
            fill(session);
    };
    run.recorder->whenDrained = [&](Session& session) {
        if (calls++ == 0)
            run.peer->send(frame(Opcode::Text, "between"));
        if (!isHandledBetween && calls < kMaxCalls)
            fill(session);
    };
    run.open().send(frame(Opcode::Text, "begin"));
    std::thread receiving([&] {
        while (run.peer->receive() == "81:a") {
        }
    });
    EXPECT_TRUE(waitUntil([&] {
        const auto events = run.recorder->events();
        return std::find(events.begin(), events.end(), "text:between") != events.end();
    }));
    run.session->abort();
    receiving.join();
    EXPECT_LT(calls, kMaxCalls);
}

TEST(Session, DropsAMessageThatExceedsTheWholeBudget)
{
    for (const bool isShared : {false, true}) {
        SCOPED_TRACE(isShared);
        SmallBudget run(isShared, QueuePolicy::Refuse, 0);
        run.open();
        const std::string text(kSmallBudgetBytes - 3, 'x');
        EXPECT_EQ(run.session->send(PreparedMessage::text(text)), SendResult::Dropped);
        EXPECT_EQ(run.session->sendText(text), SendResult::Dropped);
        EXPECT_EQ(run.session->sendText(text.substr(1)), SendResult::Queued);
        EXPECT_EQ(run.peer->receive(), "81:" + text.substr(1));
        EXPECT_THAT(run.recorder->events(), ElementsAre("open"));
    }
}

// Two sessions whose peers read nothing, with 50000 bytes of the budget left.
TEST(Session, DropsOldMessagesOnlyWhenTheNewOneThenFits)
{
    constexpr size_t kBudgetBytes = 4000000;
    constexpr size_t kFreeBytes = 50000;
    constexpr size_t kOldBytes = 100000;
    constexpr size_t kHeaderBytes = 10;
    WebSocketOptions options = smallQueue(QueuePolicy::DropOldest);
    options.sendQueueBytes = 3000000;
    SessionRun run(options, {}, {}, 4096, {1, kBudgetBytes});
    const auto send = [](Session& session, size_t size, char first) {
        return session.sendBinary(BinaryView(std::string_view(std::string(size, first))));
    };
    block(run);
    const std::shared_ptr<Session> other = run.session;
    const std::unique_ptr<Peer> otherPeer = std::move(run.peer);
    block(run);
    ASSERT_EQ(send(*run.session, kOldBytes, 'o'), SendResult::Queued);
    const size_t used = run.session->bufferedBytes() + other->bufferedBytes();
    ASSERT_EQ(send(*other, kBudgetBytes - kFreeBytes - used - kHeaderBytes, 'h'),
              SendResult::Queued);
    const size_t buffered = run.session->bufferedBytes();
    const size_t space = options.sendQueueBytes - buffered;
    EXPECT_EQ(send(*run.session, space + kFreeBytes, 'x'), SendResult::Dropped);
    // The system may have taken a few bytes more; the old message is still there.
    EXPECT_GT(run.session->bufferedBytes(), buffered - kOldBytes / 2);
    EXPECT_EQ(send(*run.session, kOldBytes + kFreeBytes, 'n'), SendResult::Queued);
    EXPECT_LE(run.session->bufferedBytes(), buffered + kFreeBytes);
    EXPECT_EQ(rest(run), "n");
}

TEST(Session, ClosesWith1013WhenAMessageExceedsTheBudget)
{
    SessionRun run(withLongTimeouts(), {}, {}, 0, {1, 10000});
    Peer& peer = run.open();
    peer.send(frame(Opcode::Text, std::string(20000, 'x'), false));
    EXPECT_EQ(peer.receive().substr(0, 5), closed(1013));
}

TEST(Session, DoesNotReadAPeerThatDoesNotRead)
{
    WebSocketOptions options = withLongTimeouts();
    options.sendQueueBytes = 200000;
    SessionRun run(options, {}, {}, 4096);
    echo(*run.recorder);
    Peer& peer = run.open();
    std::thread flooding([&] {
        for (int i = 0; i < 3000; ++i)
            peer.send(frame(Opcode::Ping, std::string(125, 'p')) +
                      frame(Opcode::Binary, std::string(5000, 'x')));
        peer.send(closeFrame(1000));
    });
    // The echoes wait while nothing is read, and do not exceed the queue.
    EXPECT_TRUE(waitUntil([&] { return run.session->bufferedBytes() > 100000; }));
    EXPECT_LE(run.session->bufferedBytes(), 200000u);
    size_t echoes = 0;
    for (std::string frame = peer.receive();
         frame.substr(0, 2) == "82" || frame.substr(0, 2) == "8a"; frame = peer.receive())
        echoes += frame.substr(0, 2) == "82";
    flooding.join();
    EXPECT_EQ(echoes, 3000u);
    EXPECT_EQ(run.recorder->closed(), "close:1000::clean");
}

TEST(Session, ClosesWith1011AfterAnExceptionOfACallback)
{
    qv::tests::CapturedLog log;
    SessionRun run(withLongTimeouts());
    run.recorder->whenText = [](Session&, std::string_view) {
        throw std::runtime_error("not found");
    };
    Peer& peer = run.open();
    peer.send(frame(Opcode::Text, "a"));
    EXPECT_EQ(peer.receive(), closed(1011, "internal error"));
    peer.send(closeFrame(1011));
    EXPECT_EQ(run.recorder->closed(), "close:1011::clean");
    EXPECT_EQ(log.lines("exception in a WebSocket callback: not found").size(), 1u);
}

TEST(Session, SurvivesExceptionsOfAllCallbacks)
{
    qv::tests::CapturedLog log;
    SessionRun run(withLongTimeouts());
    run.recorder->whenOpen = [](Session&) { throw 1; };
    run.recorder->whenClose = [](Session&) { throw 2; };
    Peer& peer = run.open();
    EXPECT_EQ(peer.receive(), closed(1011, "internal error"));
    peer.close();
    EXPECT_TRUE(waitUntil([&] { return run.engine.sessionCount() == 0; }));
    EXPECT_EQ(log.lines("exception in a WebSocket callback: unknown exception").size(), 2u);
}

TEST(Session, SendsFromManyThreadsInTheOrderOfEach)
{
    SessionRun run(withLongTimeouts());
    Peer& peer = run.open();
    constexpr int kThreads = 4;
    constexpr int kMessages = 5000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&run, t] {
            for (int i = 0; i < kMessages; ++i)
                run.session->sendText(std::to_string(t) + " " + std::to_string(i));
        });
    }
    std::vector<int> next(kThreads, 0);
    for (int i = 0; i < kThreads * kMessages; ++i) {
        const std::string frame = peer.receive();
        const int thread = frame[3] - '0';
        ASSERT_TRUE(thread >= 0 && thread < kThreads) << frame;
        ASSERT_EQ(frame.substr(5), std::to_string(next[static_cast<size_t>(thread)]++));
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST(Session, SendsMessagesOfOtherThreadsBehindThoseOfACallback)
{
    SessionRun run(withLongTimeouts());
    run.recorder->whenText = [&](Session& session, std::string_view) {
        session.sendText("first");
        std::thread([&] { session.sendText("second"); }).join();
        session.sendText("third");
        session.sendBinary(BinaryView(std::string_view(std::string(100000, 'x'))));
        session.sendText("fifth");
    };
    Peer& peer = run.open();
    peer.send(frame(Opcode::Text, "go"));
    EXPECT_EQ(peer.receive(), "81:first");
    EXPECT_EQ(peer.receive(), "81:second");
    EXPECT_EQ(peer.receive(), "81:third");
    EXPECT_EQ(peer.receive().size(), 100003u);
    EXPECT_EQ(peer.receive(), "81:fifth");
}

TEST(Session, SharesAPreparedMessage)
{
    SessionRun run(withLongTimeouts());
    Peer& peer = run.open();
    const auto text = PreparedMessage::text("to all");
    const auto binary = PreparedMessage::binary(BinaryView(std::string_view("bytes")));
    EXPECT_EQ(run.session->send(text), SendResult::Queued);
    EXPECT_EQ(run.session->send(binary), SendResult::Queued);
    EXPECT_EQ(run.session->send(text), SendResult::Queued);
    EXPECT_EQ(peer.receive(), "81:to all");
    EXPECT_EQ(peer.receive(), "82:bytes");
    EXPECT_EQ(peer.receive(), "81:to all");
}

TEST(Session, RunsCallbacksOnTheExecutorOneAtATime)
{
    std::mutex mutex;
    std::vector<std::thread> threads;
    WebSocketOptions options = withLongTimeouts();
    std::atomic<int> tasks{0};
    options.executor = [&](std::function<void()> task) {
        ++tasks;
        const std::lock_guard<std::mutex> lock(mutex);
        threads.emplace_back(std::move(task));
        return true;
    };
    {
        SessionRun run(options);
        std::vector<std::thread::id> ids;
        run.recorder->whenText = [&](Session& session, std::string_view text) {
            std::this_thread::yield();
            session.sendText(text);
        };
        Peer& peer = run.open();
        for (int i = 0; i < 500; ++i)
            peer.send(frame(Opcode::Text, std::to_string(i)));
        for (int i = 0; i < 500; ++i)
            ASSERT_EQ(peer.receive(), "81:" + std::to_string(i));
        peer.send(closeFrame(1000));
        EXPECT_EQ(run.recorder->closed(), "close:1000::clean");
        EXPECT_EQ(run.recorder->overlaps(), 0);
        EXPECT_GT(tasks, 0);
        peer.close();
        EXPECT_TRUE(run.engine.shutDown(kLimit));
    }
    for (std::thread& thread : threads)
        thread.join();
}

// The callbacks may run long after the peer has ended.
TEST(Session, RespondsOnTheExecutorBeforeItsCloseFrame)
{
    const struct
    {
        std::string end;
        std::string closeFrame;
        const char* onClose;
    } rows[] = {{closeFrame(1000), closed(1000, ""), "close:1000::clean"},
                {frame(Opcode::Text, "\xff"), closed(1007, "text is not UTF-8"),
                 "close:1007:text is not UTF-8:lost"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.onClose);
        std::mutex mutex;
        std::vector<std::function<void()>> tasks;
        WebSocketOptions options = withLongTimeouts();
        options.executor = [&](std::function<void()> task) {
            const std::lock_guard<std::mutex> lock(mutex);
            tasks.push_back(std::move(task));
            return true;
        };
        SessionRun run(options);
        run.recorder->whenText = [](Session& session, std::string_view text) {
            EXPECT_EQ(session.sendText(text), SendResult::Queued);
        };
        Peer& peer = run.open();
        peer.send(frame(Opcode::Text, "one") + frame(Opcode::Text, "two") + row.end);
        EXPECT_EQ(peer.receive(std::chrono::milliseconds(100)), "nothing");
        std::thread executing([&] {
            EXPECT_TRUE(waitUntil([&] {
                std::vector<std::function<void()>> taken;
                {
                    const std::lock_guard<std::mutex> lock(mutex);
                    taken.swap(tasks);
                }
                for (const auto& task : taken)
                    task();
                const std::vector<std::string> events = run.recorder->events();
                return !events.empty() && events.back().rfind("close:", 0) == 0;
            }));
        });
        EXPECT_EQ(peer.receive(), "81:one");
        EXPECT_EQ(peer.receive(), "81:two");
        EXPECT_EQ(peer.receive(), row.closeFrame);
        EXPECT_EQ(peer.receive(), "end");
        peer.close();
        EXPECT_EQ(run.recorder->closed(), row.onClose);
        executing.join();
    }
}

TEST(Session, IsNotReadWhileTheExecutorLagsBehind)
{
    std::mutex mutex;
    std::vector<std::function<void()>> tasks;
    WebSocketOptions options = withLongTimeouts();
    options.maxMessageBytes = 100000;
    options.executor = [&](std::function<void()> task) {
        const std::lock_guard<std::mutex> lock(mutex);
        tasks.push_back(std::move(task));
        return true;
    };
    SessionRun run(options, {}, {}, 4096);
    Peer& peer = run.open();
    std::atomic<int> sent{0};
    std::thread sending([&] {
        for (; sent < 200; ++sent)
            peer.send(frame(Opcode::Binary, std::string(50000, 'x')));
        peer.send(closeFrame(1000));
    });
    std::thread::id here = std::this_thread::get_id();
    int calls = 0;
    run.recorder->whenBinary = [&](Session&, BinaryView) {
        ++calls;
        EXPECT_EQ(std::this_thread::get_id(), here);
    };
    ::poll(nullptr, 0, 200);
    EXPECT_LT(sent, 100) << "the peer was read although nothing was handled";
    EXPECT_TRUE(waitUntil([&] {
        std::vector<std::function<void()>> taken;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            taken.swap(tasks);
        }
        for (const auto& task : taken)
            task();
        return !run.recorder->events().empty() &&
               run.recorder->events().back().rfind("close:", 0) == 0;
    }));
    sending.join();
    EXPECT_EQ(calls, 200);
}

TEST(Session, IsClosedWith1013WhenTheExecutorRefuses)
{
    WebSocketOptions options = withLongTimeouts();
    options.executor = [](const std::function<void()>&) { return false; };
    SessionRun run(options);
    Peer& peer = run.open();
    EXPECT_EQ(peer.receive(), closed(1013, "the server is busy"));
    EXPECT_EQ(peer.receive(), "end");
    EXPECT_EQ(run.recorder->closed(), "close:1013:the server is busy:lost");
    EXPECT_THAT(run.recorder->events(), ElementsAre("open", "close:1013:the server is busy:lost"));
}

TEST(Session, IsClosedWith1013WhenTheExecutorThrows)
{
    qv::tests::CapturedLog log;
    WebSocketOptions options = withLongTimeouts();
    options.executor = [](const std::function<void()>&) -> bool {
        throw std::runtime_error("no thread");
    };
    SessionRun run(options);
    Peer& peer = run.open();
    EXPECT_EQ(peer.receive(), closed(1013, "the server is busy"));
    EXPECT_EQ(run.recorder->closed(), "close:1013:the server is busy:lost");
    EXPECT_EQ(log.lines("exception in a WebSocket callback: no thread").size(), 1u);
}

TEST(Session, DropsItsHandlerAfterTheLastCallback)
{
    SessionRun run(withLongTimeouts());
    Peer& peer = run.open();
    const std::weak_ptr<Recorder> handler = run.recorder;
    run.recorder->event(1);
    run.recorder.reset();
    EXPECT_FALSE(handler.expired());
    peer.close();
    EXPECT_TRUE(waitUntil([&] { return handler.expired(); }));
}

TEST(Session, OutlivesItsEngine)
{
    std::shared_ptr<Session> session;
    {
        SessionRun run(withLongTimeouts());
        run.open();
        session = run.session;
    }
    EXPECT_FALSE(session->isOpen());
    EXPECT_EQ(session->sendText("late"), SendResult::Closed);
    EXPECT_FALSE(session->close());
    session->abort();
    EXPECT_EQ(session->bufferedBytes(), 0u);
}

}  // namespace
