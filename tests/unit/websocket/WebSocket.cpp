// One connection: the object, sending and receiving, and the messages it writes. The handling of
// received frames is tested in WebSocketFrames.cpp.

#include "websocket/Support.h"

#include "support/BackgroundCall.h"
#include "support/ScriptedSockets.h"
#include "support/VirtualSlot.h"

#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <type_traits>

#include <fcntl.h>

namespace qv::tests
{
namespace
{

using Access = WebSocketAccess;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr size_t kBlock = 1024;

// An address for the handle. The fake daemon does not dereference it.
int gHandleTarget;
void* const kHandle = &gHandleTarget;

// As a worker does while it serves the connection.
class AsWorker
{
public:
    explicit AsWorker(WebSocket& connection) : mConnection(connection)
    {
        mConnection.assignCurrentThread();
    }
    ~AsWorker() { mConnection.clearCurrentThread(); }
    AsWorker(const AsWorker&) = delete;
    AsWorker& operator=(const AsWorker&) = delete;

private:
    WebSocket& mConnection;
};

void Write(WebSocket& connection, const Bytes& payload, bool isBinary = true)
{
    connection.writeMessage(payload.data(), payload.size(), isBinary);
}

// Sends until nothing is left; the client reads as it goes.
Bytes SendAll(WebSocket& connection, SocketPair& ends)
{
    Bytes received;
    for (int rounds = 0; rounds < 10000; ++rounds) {
        EXPECT_TRUE(connection.sendDataIfAvailable());
        const Bytes some = ends.read();
        received.insert(received.end(), some.begin(), some.end());
        if (!connection.hasWritePending())
            return received;
    }
    ADD_FAILURE() << "there is no end to it";
    return received;
}

TEST(WebSocket, StartsWithEmptyQueuesAndBothFillsAtTheEndOfABlock)
{
    WebSocket connection(17, kHandle);
    EXPECT_EQ(Access::blockSize(connection), 1024u);
    EXPECT_EQ(Access::writeOffset(connection), 0u);
    EXPECT_EQ(Access::lastWriteFill(connection), 1024u);
    EXPECT_EQ(Access::readOffset(connection), 0u);
    EXPECT_EQ(Access::lastReadFill(connection), 1024u);
    EXPECT_EQ(Access::upgradeHandle(connection), kHandle);
    EXPECT_THAT(Access::message(connection), IsEmpty());
    EXPECT_EQ(Access::currentThread(connection), "");
    EXPECT_THAT(Access::writeQueue(connection), IsEmpty());
    EXPECT_THAT(Access::readQueue(connection), IsEmpty());
    EXPECT_EQ(connection.getSocket(), 17);
    EXPECT_FALSE(Access::messageIsBinary(connection));
    EXPECT_FALSE(connection.hasReadPending());
    EXPECT_FALSE(connection.hasWritePending());
}

TEST(WebSocket, KeepsTheOrderOfItsVirtualOperations)
{
    EXPECT_EQ(VirtualSlot(&WebSocket::onMessageReceived), 2);
    static_assert(std::has_virtual_destructor_v<WebSocket>);
}

TEST(WebSocket, CannotBeCopiedNorAssigned)
{
    static_assert(!std::is_copy_constructible_v<WebSocket>);
    static_assert(!std::is_copy_assignable_v<WebSocket>);
    static_assert(!std::is_move_assignable_v<WebSocket>);
    static_assert(std::is_move_constructible_v<WebSocket>);
}

TEST(WebSocket, KeepsTheOrderOfItsMembers)
{
    WebSocket connection(-1, nullptr);
    const void* const inOrder[] = {
        &connection,  // the table of virtual operations
        &Access::blockSize(connection),
        &Access::writeOffset(connection),
        &Access::lastWriteFill(connection),
        &Access::readOffset(connection),
        &Access::lastReadFill(connection),
        &Access::upgradeHandle(connection),
        &Access::lock(connection),
        &Access::message(connection),
        &Access::currentThread(connection),
        &Access::writeQueue(connection),
        &Access::readQueue(connection),
        &Access::socket(connection),
        &Access::messageIsBinary(connection),
        &Access::readPending(connection),
    };
    for (size_t i = 1; i < std::size(inOrder); ++i)
        EXPECT_LT(inOrder[i - 1], inOrder[i]) << "member " << i;
    const char* const first = reinterpret_cast<const char*>(&connection);
    EXPECT_EQ(reinterpret_cast<const char*>(inOrder[1]) - first, 8);
    EXPECT_EQ(reinterpret_cast<const char*>(inOrder[7]) - first, 56);
}

TEST(WebSocket, ClosesNothingWhenItIsDestroyed)
{
    RecordingDaemon daemon;
    SocketPair ends;
    {
        WebSocket connection(ends.server(), kHandle);
        Write(connection, Pattern(5000));
    }
    EXPECT_THAT(daemon.calls(), IsEmpty());
    EXPECT_NE(fcntl(ends.server(), F_GETFD), -1);
}

TEST(WebSocket, LetsTheDaemonCloseTheSocketOnce)
{
    RecordingDaemon daemon;
    SocketPair ends;
    WebSocket connection(ends.server(), kHandle);
    for (int times = 1; times <= 3; ++times) {
        SCOPED_TRACE(times);
        connection.markForDeletion();
        EXPECT_THAT(daemon.calls(), ElementsAre("MHD_upgrade_action 0"));
        EXPECT_EQ(connection.getSocket(), -1);
        EXPECT_EQ(Access::upgradeHandle(connection), nullptr);
    }
    EXPECT_NE(fcntl(ends.server(), F_GETFD), -1);  // left to the daemon
}

TEST(WebSocket, ForgetsItsSocketWithoutAHandleToo)
{
    RecordingDaemon daemon;
    WebSocket connection(17, nullptr);
    connection.markForDeletion();
    EXPECT_EQ(connection.getSocket(), -1);
    EXPECT_THAT(daemon.calls(), IsEmpty());
}

TEST(WebSocket, FailsToSendAndReceiveOnceClosed)
{
    RecordingDaemon daemon;
    SocketPair ends;
    Connection connection(ends.server(), kHandle);
    Write(connection, Pattern(10));
    ends.writeAll(ClientFrame(0x81, ToBytes("hello")));
    connection.setReadEnabled(true);
    connection.markForDeletion();
    EXPECT_FALSE(connection.sendDataIfAvailable());
    EXPECT_FALSE(connection.readDataIfAvailable());
    EXPECT_THAT(connection.messages, IsEmpty());
    EXPECT_THAT(ends.read(), IsEmpty());
}

TEST(WebSocket, CanOnlyBeToldToReadAsRequired)
{
    WebSocket connection(-1, nullptr);
    connection.setReadEnabled(false);
    EXPECT_FALSE(connection.hasReadPending());
    connection.setReadEnabled(true);
    EXPECT_TRUE(connection.hasReadPending());
    connection.setReadEnabled(false);
    EXPECT_TRUE(connection.hasReadPending());
}

TEST(WebSocket, KnowsTheThreadThatHandlesIt)
{
    WebSocket connection(-1, nullptr);
    connection.assignCurrentThread();
    EXPECT_EQ(Access::currentThread(connection), qvThread::CurrentThreadId());
    connection.clearCurrentThread();
    EXPECT_EQ(Access::currentThread(connection), "");
}

// A connection in the middle of everything, for the constructor that takes it over.
class TakenOver : public testing::Test
{
protected:
    // 300 bytes of the queued bytes are sent, half a message is read, and of the next frame
    // as much as fits behind a block's end.
    void prepare(WebSocket& upgraded)
    {
        ScriptedSockets sockets;
        sockets.capEach(ScriptedSockets::Send, {300});
        sockets.fail(ScriptedSockets::Send, 1, EAGAIN);
        Write(upgraded, mOutgoing);
        EXPECT_TRUE(upgraded.sendDataIfAvailable());
        upgraded.setReadEnabled(true);
        mEnds.writeAll(ClientFrame(0x02, mFirst) + part(0, 1500));
        EXPECT_TRUE(upgraded.readDataIfAvailable());
        EXPECT_TRUE(upgraded.readDataIfAvailable());
        upgraded.setReadEnabled(true);
        upgraded.assignCurrentThread();
    }

    Bytes part(size_t from, size_t to) const
    {
        const Bytes frame = ClientFrame(0x80, mSecond);
        return Bytes(frame.begin() + static_cast<ptrdiff_t>(from),
                     frame.begin() + static_cast<ptrdiff_t>(std::min(to, frame.size())));
    }

    RecordingDaemon mDaemon;
    SocketPair mEnds;
    const Bytes mOutgoing = Pattern(2000, 1);
    const Bytes mFirst = Pattern(700, 2);
    const Bytes mSecond = Pattern(3000, 3);
};

TEST_F(TakenOver, TheConnectionGoesOnInItsNewObject)
{
    auto upgraded = std::make_unique<WebSocket>(mEnds.server(), kHandle);
    prepare(*upgraded);
    Connection connection(std::move(*upgraded));
    upgraded.reset();

    EXPECT_EQ(connection.getSocket(), mEnds.server());
    EXPECT_EQ(Access::upgradeHandle(connection), kHandle);
    EXPECT_TRUE(connection.hasReadPending());
    EXPECT_TRUE(connection.hasWritePending());
    EXPECT_EQ(Access::message(connection), mFirst);
    EXPECT_TRUE(Access::messageIsBinary(connection));
    EXPECT_EQ(Access::writeOffset(connection), 300u);
    EXPECT_EQ(Access::currentThread(connection), "");

    mEnds.writeAll(part(1500, 4000));
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_THAT(connection.messages, ElementsAre(Binary(mFirst + mSecond)));
    EXPECT_THAT(ServerMessages(SendAll(connection, mEnds)), ElementsAre(Binary(mOutgoing)));
    EXPECT_THAT(mDaemon.calls(), IsEmpty());
    connection.markForDeletion();
    EXPECT_THAT(mDaemon.calls(), ElementsAre("MHD_upgrade_action 0"));
}

TEST_F(TakenOver, TheOldObjectIsLeftClosed)
{
    WebSocket upgraded(mEnds.server(), kHandle);
    prepare(upgraded);
    const Connection connection(std::move(upgraded));

    EXPECT_EQ(upgraded.getSocket(), -1);
    EXPECT_EQ(Access::upgradeHandle(upgraded), nullptr);
    EXPECT_FALSE(upgraded.hasReadPending());
    EXPECT_FALSE(upgraded.hasWritePending());
    EXPECT_THAT(Access::message(upgraded), IsEmpty());
    EXPECT_FALSE(Access::messageIsBinary(upgraded));
    EXPECT_THAT(Access::writeQueue(upgraded), IsEmpty());
    EXPECT_THAT(Access::readQueue(upgraded), IsEmpty());
    EXPECT_EQ(Access::writeOffset(upgraded), 0u);
    EXPECT_EQ(Access::lastWriteFill(upgraded), kBlock);
    EXPECT_EQ(Access::readOffset(upgraded), 0u);
    EXPECT_EQ(Access::lastReadFill(upgraded), kBlock);
    upgraded.markForDeletion();
    EXPECT_THAT(mDaemon.calls(), IsEmpty());

    Write(upgraded, Pattern(10));  // goes nowhere, and must not fall over the queues that went
    upgraded.setReadEnabled(true);
    EXPECT_FALSE(upgraded.sendDataIfAvailable());
    EXPECT_FALSE(upgraded.readDataIfAvailable());
}

TEST_F(TakenOver, AFreshConnectionStaysFresh)
{
    WebSocket upgraded(mEnds.server(), kHandle);
    Connection connection(std::move(upgraded));
    EXPECT_FALSE(connection.hasReadPending());
    EXPECT_FALSE(connection.hasWritePending());
    EXPECT_FALSE(Access::messageIsBinary(connection));
    EXPECT_EQ(Access::lastWriteFill(connection), kBlock);
    EXPECT_EQ(Access::lastReadFill(connection), kBlock);
    Write(connection, Pattern(10));
    EXPECT_THAT(ServerMessages(SendAll(connection, mEnds)), ElementsAre(Binary(Pattern(10))));
}

// --- Sending.

TEST(WebSocketSending, DoesNothingWithAnEmptyQueue)
{
    ScriptedSockets sockets;
    WebSocket connection(-1, nullptr);
    EXPECT_TRUE(connection.sendDataIfAvailable());
    EXPECT_EQ(sockets.count(ScriptedSockets::Send), 0u);
}

TEST(WebSocketSending, TakesItsLockAlsoWithAnEmptyQueue)
{
    WebSocket connection(-1, nullptr);
    std::future<bool> sent;
    {
        qvMutexLocker locker(&Access::lock(connection));
        sent = std::async(std::launch::async, [&] { return connection.sendDataIfAvailable(); });
        EXPECT_EQ(sent.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    }
    EXPECT_TRUE(sent.get());
}

TEST(WebSocketSending, AsksForTheRestOfTheFirstBlockEachTime)
{
    ScriptedSockets sockets;
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    Write(connection, Pattern(2496));  // 2500 with its header
    sockets.capEach(ScriptedSockets::Send, {0, 24, 1000, 451, 1});
    EXPECT_TRUE(connection.sendDataIfAvailable());
    const std::pair<size_t, ssize_t> expected[] = {
        {1024, 1024}, {1024, 24}, {1000, 1000}, {452, 451}, {1, 1},
    };
    const auto calls = sockets.callsOf(ScriptedSockets::Send);
    ASSERT_EQ(calls.size(), std::size(expected));
    for (size_t i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(calls[i].fd, ends.server());
        EXPECT_EQ(calls[i].flags, 0);
        EXPECT_EQ(calls[i].length, expected[i].first);
        EXPECT_EQ(calls[i].result, expected[i].second);
    }
    EXPECT_THAT(ServerMessages(ends.read()), ElementsAre(Binary(Pattern(2496))));
}

TEST(WebSocketSending, ResumesAtEveryByteOfThreeThousand)
{
    SocketPair ends;
    const Bytes payload = Pattern(2996);
    for (size_t sent = 0; sent <= 3000; ++sent) {
        ScriptedSockets sockets;
        WebSocket connection(ends.server(), nullptr);
        Write(connection, payload);
        std::vector<size_t> parts(sent / kBlock, kBlock);
        if (sent % kBlock != 0)
            parts.push_back(sent % kBlock);
        sockets.capEach(ScriptedSockets::Send, parts);
        sockets.fail(ScriptedSockets::Send, parts.size(), EAGAIN);
        ASSERT_TRUE(connection.sendDataIfAvailable());

        const Bytes first = ends.read();
        ASSERT_EQ(first.size(), sent);
        ASSERT_EQ(connection.hasWritePending(), sent < 3000);
        ASSERT_EQ(Access::writeOffset(connection), sent < 3000 ? sent % kBlock : 0) << sent;
        ASSERT_EQ(Access::writeQueue(connection).size(), sent < 3000 ? 3 - sent / kBlock : 0);
        ASSERT_TRUE(connection.sendDataIfAvailable());
        ASSERT_THAT(ServerMessages(first + ends.read()), ElementsAre(Binary(payload))) << sent;
        ASSERT_FALSE(connection.hasWritePending());
    }
}

TEST(WebSocketSending, GoesOnByteByByte)
{
    ScriptedSockets sockets;
    sockets.cap(ScriptedSockets::Send, 1);
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    Write(connection, Pattern(2996));
    EXPECT_THAT(ServerMessages(SendAll(connection, ends)), ElementsAre(Binary(Pattern(2996))));
    // Now and then the socket is full.
    const auto calls = sockets.callsOf(ScriptedSockets::Send);
    EXPECT_EQ(
        std::count_if(calls.begin(), calls.end(), [](auto& call) { return call.result == 1; }),
        3000);
}

TEST(WebSocketSending, GoesOnAfterACallThatTookNothing)
{
    ScriptedSockets sockets;
    sockets.setOutcome(ScriptedSockets::Send, 0, {0, 0});
    sockets.setOutcome(ScriptedSockets::Send, 2, {0, 0});
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    Write(connection, Pattern(1500));
    EXPECT_TRUE(connection.sendDataIfAvailable());
    EXPECT_EQ(sockets.count(ScriptedSockets::Send), 4u);
    EXPECT_THAT(ServerMessages(ends.read()), ElementsAre(Binary(Pattern(1500))));
}

TEST(WebSocketSending, KeepsTheRestWhileTheSocketIsFull)
{
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    const Bytes payload = Pattern(3000000);
    Write(connection, payload);
    EXPECT_TRUE(connection.sendDataIfAvailable());
    EXPECT_TRUE(connection.hasWritePending());
    EXPECT_TRUE(connection.sendDataIfAvailable());
    EXPECT_TRUE(connection.hasWritePending());
    EXPECT_THAT(ServerMessages(SendAll(connection, ends)), ElementsAre(Binary(payload)));
}

TEST(WebSocketSending, FailsAtEachCallInTurn)
{
    const struct
    {
        const char* name;
        int error;
        bool expected;
    } rows[] = {
        {"EAGAIN: full", EAGAIN, true}, {"ECONNRESET", ECONNRESET, false},
        {"EPIPE", EPIPE, false},        {"EBADF", EBADF, false},
        {"ENOTCONN", ENOTCONN, false},  {"EINTR, as required", EINTR, false},
        {"ENOBUFS", ENOBUFS, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SocketPair ends;
        size_t failing = 0;
        for (bool clean = false; !clean; ++failing) {
            ASSERT_LT(failing, 100u);
            ScriptedSockets sockets;
            sockets.cap(ScriptedSockets::Send, 333);
            sockets.fail(ScriptedSockets::Send, failing, row.error);
            WebSocket connection(ends.server(), nullptr);
            Write(connection, Pattern(2996));
            const bool sent = connection.sendDataIfAvailable();
            clean = sockets.count(ScriptedSockets::Send) <= failing;
            EXPECT_EQ(sent, clean || row.expected) << "call " << failing;
            EXPECT_EQ(connection.hasWritePending(), !clean);
            // Nothing is sent twice and nothing is lost, even if somebody goes on.
            EXPECT_THAT(ServerMessages(SendAll(connection, ends)),
                        ElementsAre(Binary(Pattern(2996))));
        }
        EXPECT_EQ(failing, 12u);  // 4 + 4 + 3 calls for the blocks, and the clean run
    }
}

TEST(WebSocketSending, FailsWhenThePeerHasClosed)
{
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    Write(connection, Pattern(10));
    ends.closeClient();
    EXPECT_FALSE(connection.sendDataIfAvailable());
}

TEST(WebSocketSending, HoldsTheLockMeanwhile)
{
    ScriptedSockets sockets;
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    Write(connection, ToBytes("first"));
    std::unique_ptr<BackgroundCall> other;
    sockets.onCall([&](const ScriptedSockets::Attempt& attempt) {
        if (attempt.number == 0) {
            other = std::make_unique<BackgroundCall>([&] { Write(connection, ToBytes("second")); });
            EXPECT_TRUE(other->isBlocked());
        }
        return std::nullopt;
    });
    EXPECT_TRUE(connection.sendDataIfAvailable());
    EXPECT_TRUE(other->waitForEnd());
    EXPECT_THAT(ServerMessages(SendAll(connection, ends)),
                ElementsAre(Binary(ToBytes("first")), Binary(ToBytes("second"))));
}

// --- Receiving.

TEST(WebSocketReceiving, DoesNothingUnlessToldTo)
{
    ScriptedSockets sockets;
    SocketPair ends;
    Connection connection(ends.server());
    ends.writeAll(ClientFrame(0x81, ToBytes("hello")));
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_EQ(sockets.count(ScriptedSockets::Recv), 0u);
    EXPECT_THAT(connection.messages, IsEmpty());
    EXPECT_THAT(Access::readQueue(connection), IsEmpty());
}

TEST(WebSocketReceiving, StopsWhenTheSocketIsEmpty)
{
    ScriptedSockets sockets;
    SocketPair ends;
    Connection connection(ends.server());
    connection.setReadEnabled(true);
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_FALSE(connection.hasReadPending());
    EXPECT_EQ(sockets.count(ScriptedSockets::Recv), 1u);
    EXPECT_EQ(Access::readQueue(connection).size(), 1u);  // allocated before the receive call
    EXPECT_EQ(Access::lastReadFill(connection), 0u);
}

TEST(WebSocketReceiving, StaysReadyAfterAFrame)
{
    SocketPair ends;
    Connection connection(ends.server());
    connection.setReadEnabled(true);
    ends.writeAll(ClientFrame(0x81, ToBytes("hello")));
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_TRUE(connection.hasReadPending());
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("hello"))));
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_FALSE(connection.hasReadPending());
}

TEST(WebSocketReceiving, AsksForTheRestOfTheLastBlockEachTime)
{
    ScriptedSockets sockets;
    SocketPair ends;
    Connection connection(ends.server());
    connection.setReadEnabled(true);
    ends.writeAll(ClientFrame(0x82, Pattern(2492)));  // 2500 with its header
    sockets.capEach(ScriptedSockets::Recv, {100, 0, 1000, 23, 1, 352});
    EXPECT_TRUE(connection.readDataIfAvailable());
    const std::pair<size_t, ssize_t> expected[] = {
        {1024, 100}, {924, 924}, {1024, 1000}, {24, 23}, {1, 1}, {1024, 352}, {672, 100},
    };
    const auto calls = sockets.callsOf(ScriptedSockets::Recv);
    ASSERT_EQ(calls.size(), std::size(expected));
    for (size_t i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(calls[i].fd, ends.server());
        EXPECT_EQ(calls[i].flags, 0);
        EXPECT_EQ(calls[i].length, expected[i].first);
        EXPECT_EQ(calls[i].result, expected[i].second);
    }
    EXPECT_THAT(connection.messages, ElementsAre(Binary(Pattern(2492))));
}

TEST(WebSocketReceiving, ResumesAtEveryByteOfThreeThousand)
{
    SocketPair ends;
    const Bytes payload = Pattern(2992);
    const Bytes frame = ClientFrame(0x81, payload);
    ASSERT_EQ(frame.size(), 3000u);
    Connection connection(ends.server());
    for (size_t first = 0; first < 3000; ++first) {
        connection.setReadEnabled(true);
        ends.write(frame.data(), first);
        ASSERT_TRUE(connection.readDataIfAvailable());
        ASSERT_FALSE(connection.hasReadPending());
        ASSERT_THAT(connection.messages, IsEmpty());
        connection.setReadEnabled(true);
        ends.write(frame.data() + first, 3000 - first);
        ASSERT_TRUE(connection.readDataIfAvailable());
        ASSERT_TRUE(connection.hasReadPending());
        ASSERT_THAT(connection.messages, ElementsAre(Text(payload))) << first;
        connection.messages.clear();
    }
}

TEST(WebSocketReceiving, GoesOnByteByByte)
{
    ScriptedSockets sockets;
    sockets.cap(ScriptedSockets::Recv, 1);
    SocketPair ends;
    Connection connection(ends.server());
    connection.setReadEnabled(true);
    ends.writeAll(ClientFrame(0x81, Pattern(2992)));
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_THAT(connection.messages, ElementsAre(Text(Pattern(2992))));
    EXPECT_EQ(sockets.count(ScriptedSockets::Recv), 3000u);
}

TEST(WebSocketReceiving, FailsAtEachCallInTurn)
{
    const struct
    {
        const char* name;
        int error;
        bool expected;
    } rows[] = {
        {"EAGAIN: empty", EAGAIN, true}, {"ECONNRESET", ECONNRESET, false},
        {"EBADF", EBADF, false},         {"ENOTCONN", ENOTCONN, false},
        {"ETIMEDOUT", ETIMEDOUT, false}, {"EINTR, as required", EINTR, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        SocketPair ends;
        size_t failing = 0;
        for (bool clean = false; !clean; ++failing) {
            ASSERT_LT(failing, 100u);
            ScriptedSockets sockets;
            sockets.cap(ScriptedSockets::Recv, 333);
            sockets.fail(ScriptedSockets::Recv, failing, row.error);
            Connection connection(ends.server());
            connection.setReadEnabled(true);
            ends.writeAll(ClientFrame(0x82, Pattern(2992)));
            const bool read = connection.readDataIfAvailable();
            clean = sockets.count(ScriptedSockets::Recv) <= failing;
            EXPECT_EQ(read, clean || row.expected) << "call " << failing;
            EXPECT_EQ(connection.messages.size(), clean ? 1u : 0u);
            // Only an empty socket ends the wish to read.
            EXPECT_EQ(connection.hasReadPending(), clean || !row.expected);
            if (!clean) {
                connection.setReadEnabled(true);
                EXPECT_TRUE(connection.readDataIfAvailable());
            }
            EXPECT_THAT(connection.messages, ElementsAre(Binary(Pattern(2992))));
        }
        EXPECT_GT(failing, 9u);
    }
}

TEST(WebSocketReceiving, KeepsReceivingFromAHalfClosedPeerAsRequired)
{
    ScriptedSockets sockets;
    for (size_t number = 3; number < 1003; ++number)
        sockets.setOutcome(ScriptedSockets::Recv, number, {0, 0});
    sockets.capEach(ScriptedSockets::Recv, {4, 2, 1});
    SocketPair ends;
    Connection connection(ends.server());
    connection.setReadEnabled(true);
    ends.writeAll(ClientFrame(0x81, ToBytes("hello")));
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_EQ(sockets.count(ScriptedSockets::Recv), 1004u);
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("hello"))));
}

TEST(WebSocketReceiving, LeavesAHalfClosedPeerByAnErrorOnlyAsRequired)
{
    ScriptedSockets sockets;
    SocketPair ends;
    Connection connection(ends.server());
    ends.writeAll(ToBytes("abc"));
    ASSERT_EQ(shutdown(ends.client(), SHUT_WR), 0);
    for (const bool failing : {false, true}) {
        SCOPED_TRACE(failing);
        connection.setReadEnabled(true);
        sockets.fail(ScriptedSockets::Recv, failing ? 1000 : 500, failing ? ECONNRESET : EAGAIN);
        EXPECT_EQ(connection.readDataIfAvailable(), !failing);
        EXPECT_EQ(sockets.count(ScriptedSockets::Recv), failing ? 1001u : 501u);
    }
    EXPECT_EQ(sockets.callsOf(ScriptedSockets::Recv)[700].result, 0);
    EXPECT_EQ(Access::readQueue(connection).size(), 1u);
    EXPECT_EQ(Access::lastReadFill(connection), 3u);
}

// --- Writing messages.

struct SizeRow
{
    size_t size;
    std::vector<size_t> frames;
};

TEST(WebSocketWriting, CutsAMessageIntoFramesOfAtMost131000Bytes)
{
    const SizeRow rows[] = {
        {0, {0}},
        {1, {1}},
        {125, {125}},
        {126, {126}},
        {127, {127}},
        {65535, {65535}},
        {65536, {65536}},
        {130999, {130999}},
        {131000, {131000}},
        {131001, {131000, 1}},
        {262000, {131000, 131000}},
        {262001, {131000, 131000, 1}},
        {393000, {131000, 131000, 131000}},
    };
    for (const auto& row : rows) {
        for (const bool isBinary : {false, true}) {
            SCOPED_TRACE(testing::Message() << row.size << (isBinary ? " binary" : " text"));
            SocketPair ends;
            WebSocket connection(ends.server(), nullptr);
            const Bytes payload = Pattern(row.size);
            Write(connection, payload, isBinary);
            const auto frames = ServerFrames(SendAll(connection, ends));
            ASSERT_EQ(frames.size(), row.frames.size());
            Bytes joined;
            for (size_t i = 0; i < frames.size(); ++i) {
                const int opcode = i != 0 ? 0 : isBinary ? 2 : 1;
                EXPECT_EQ(frames[i].first, (i + 1 == frames.size() ? 0x80 : 0) | opcode);
                EXPECT_EQ(frames[i].payload.size(), row.frames[i]);
                joined = joined + frames[i].payload;
            }
            EXPECT_TRUE(joined == payload);
        }
    }
}

TEST(WebSocketWriting, TakesAnEmptyMessageWithoutAnAddress)
{
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    connection.writeMessage(nullptr, 0, false);
    EXPECT_EQ(SendAll(connection, ends), (Bytes{0x81, 0}));
}

TEST(WebSocketWriting, CopiesTheData)
{
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    Bytes payload = Pattern(300);
    Write(connection, payload);
    std::fill(payload.begin(), payload.end(), 0);
    EXPECT_THAT(ServerMessages(SendAll(connection, ends)), ElementsAre(Binary(Pattern(300))));
}

TEST(WebSocketWriting, KeepsTheOrderOfMessages)
{
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    std::vector<Message> expected;
    for (size_t size = 0; size < 300; ++size) {
        expected.push_back({Pattern(size, static_cast<uint32_t>(size)), size % 3 == 0});
        Write(connection, expected.back().payload, expected.back().isBinary);
    }
    EXPECT_EQ(ServerMessages(SendAll(connection, ends)), expected);
}

TEST(WebSocketWriting, SendsAtOnceOnTheThreadThatHandlesTheConnection)
{
    SocketPair ends;
    Connection connection(ends.server());
    connection.onMessage = [&](Bytes& payload, bool) {
        Write(connection, payload + ToBytes(" too"), false);
        EXPECT_FALSE(connection.hasWritePending());
        EXPECT_THAT(ServerMessages(ends.read()), ElementsAre(Text(ToBytes("hello too"))));
    };
    connection.setReadEnabled(true);
    ends.writeAll(ClientFrame(0x81, ToBytes("hello")));
    const AsWorker worker(connection);
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_EQ(connection.messages.size(), 1u);
}

TEST(WebSocketWriting, OnlyQueuesOnAnyOtherThread)
{
    ScriptedSockets sockets;
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    const auto expectQueued = [&](size_t messages) {
        EXPECT_TRUE(connection.hasWritePending());
        EXPECT_EQ(sockets.count(ScriptedSockets::Send), 0u);
        size_t bytes = (Access::writeQueue(connection).size() - 1) * kBlock;
        bytes += Access::lastWriteFill(connection);
        EXPECT_EQ(bytes, messages * 5);
    };

    Write(connection, ToBytes("one"));  // nobody handles it
    expectQueued(1);
    {
        const AsWorker worker(connection);
        std::async(std::launch::async, [&] { Write(connection, ToBytes("two")); }).get();
        expectQueued(2);
    }
    Write(connection, ToBytes("six"));  // no longer
    expectQueued(3);
    // Texts of which one is the beginning of the other.
    for (const std::string& holder : {qvThread::CurrentThreadId() + "0",
                                      qvThread::CurrentThreadId().substr(1), std::string("x")}) {
        Access::currentThread(connection) = holder;
        Write(connection, ToBytes("ten"));
    }
    expectQueued(6);
    EXPECT_EQ(ServerMessages(SendAll(connection, ends)).size(), 6u);
}

TEST(WebSocketWriting, LeavesAFailureToSendToTheNextCall)
{
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    ends.closeClient();
    const AsWorker worker(connection);
    Write(connection, ToBytes("hello"));
    EXPECT_TRUE(connection.hasWritePending());
    EXPECT_FALSE(connection.sendDataIfAvailable());
}

TEST(WebSocketWriting, QueuesWhatTheSocketDoesNotTake)
{
    ScriptedSockets sockets;
    sockets.capEach(ScriptedSockets::Send, {100});
    sockets.fail(ScriptedSockets::Send, 1, EAGAIN);
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    const AsWorker worker(connection);
    Write(connection, Pattern(300));
    EXPECT_TRUE(connection.hasWritePending());
    EXPECT_EQ(Access::writeOffset(connection), 100u);
    Write(connection, Pattern(301));
    EXPECT_FALSE(connection.hasWritePending());
    EXPECT_THAT(ServerMessages(ends.read()),
                ElementsAre(Binary(Pattern(300)), Binary(Pattern(301))));
}

// One thread serves the connection, the others write; each message names its writer and number.
TEST(WebSocketWriting, KeepsMessagesOfSeveralThreadsWhole)
{
    constexpr size_t kWriters = 4;
    constexpr size_t kMessages = 150;
    constexpr size_t kSizes[] = {2, 125, 126, 1023, 1024, 5000, 131003};
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    const auto payload = [&](size_t writer, size_t number) {
        Bytes bytes = Pattern(kSizes[(writer + number) % std::size(kSizes)],
                              static_cast<uint32_t>(writer * 1000 + number));
        bytes[0] = static_cast<uint8_t>(writer);
        bytes[1] = static_cast<uint8_t>(number);
        return bytes;
    };
    std::vector<std::thread> writers;
    std::atomic<size_t> running{kWriters};
    for (size_t writer = 0; writer < kWriters; ++writer)
        writers.emplace_back([&, writer] {
            for (size_t number = 0; number < kMessages; ++number)
                Write(connection, payload(writer, number), number % 2 == 0);
            --running;
        });
    Bytes received;
    while (running > 0 || connection.hasWritePending()) {
        connection.assignCurrentThread();
        EXPECT_TRUE(connection.sendDataIfAvailable());
        connection.clearCurrentThread();
        const Bytes some = ends.read();
        received.insert(received.end(), some.begin(), some.end());
    }
    for (std::thread& writer : writers)
        writer.join();

    std::vector<size_t> next(kWriters, 0);
    for (const Message& message : ServerMessages(received)) {
        ASSERT_GE(message.payload.size(), 2u);
        const size_t writer = message.payload[0];
        ASSERT_LT(writer, kWriters);
        const size_t number = next[writer]++;
        ASSERT_TRUE(message.payload == payload(writer, number)) << writer << ", " << number;
        ASSERT_EQ(message.isBinary, number % 2 == 0);
    }
    EXPECT_EQ(next, std::vector<size_t>(kWriters, kMessages));
}

// A lock that is let go between the frames would let the short messages in, now and then.
TEST(WebSocketWriting, LetsNobodyIntoALongMessage)
{
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    std::atomic<bool> isOver{false};
    size_t shortMessages = 0;
    std::thread other([&] {
        for (; shortMessages == 0 || (!isOver && shortMessages < 100000); ++shortMessages)
            Write(connection, ToBytes("short"), false);
    });
    const Bytes payload = Pattern(2000000);
    for (int i = 0; i < 10; ++i)
        Write(connection, payload);
    isOver = true;
    other.join();
    size_t longMessages = 0;
    for (const Message& message : ServerMessages(SendAll(connection, ends))) {
        if (message.isBinary)
            ++longMessages;
        else
            --shortMessages;
        ASSERT_TRUE(message.payload == (message.isBinary ? payload : ToBytes("short")));
    }
    EXPECT_EQ(longMessages, 10u);
    EXPECT_EQ(shortMessages, 0u);
}

// --- The default response to a message.

TEST(WebSocketDefaultResponse, IsOneWordOverAndOverInThreeFramesAsRequired)
{
    std::string expected;
    while (expected.size() < 262008)
        expected += "response";
    for (const uint8_t first : {0x81, 0x82}) {
        SocketPair ends;
        WebSocket connection(ends.server(), nullptr);
        connection.setReadEnabled(true);
        ends.writeAll(ClientFrame(first, ToBytes("whatever")));
        EXPECT_TRUE(connection.readDataIfAvailable());
        EXPECT_TRUE(connection.hasWritePending());
        const auto frames = ServerFrames(SendAll(connection, ends));
        ASSERT_EQ(frames.size(), 3u);
        EXPECT_EQ(frames[0].first, 0x02);
        EXPECT_EQ(frames[1].first, 0x00);
        EXPECT_EQ(frames[2].first, 0x80);
        EXPECT_EQ(frames[0].payload.size(), 131000u);
        EXPECT_EQ(frames[1].payload.size(), 131000u);
        EXPECT_EQ(frames[2].payload.size(), 8u);
        EXPECT_TRUE(frames[0].payload + frames[1].payload + frames[2].payload == ToBytes(expected));
    }
}

TEST(WebSocketDefaultResponse, ChangesNeitherTheMessageNorWaitsForThePollThread)
{
    SocketPair ends;
    WebSocket connection(ends.server(), nullptr);
    const AsWorker worker(connection);
    Bytes message = ToBytes("whatever");
    connection.onMessageReceived(message, false);
    EXPECT_EQ(message, ToBytes("whatever"));
    Bytes received = ends.read();
    EXPECT_GT(received.size(), 1000u);
    EXPECT_EQ(ServerMessages(received + SendAll(connection, ends)).size(), 1u);
}

}  // namespace
}  // namespace qv::tests
