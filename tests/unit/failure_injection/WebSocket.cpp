// Upgraded connections while memory runs out and their sockets fail: each side gets whole messages,
// each once and in order, or the connection is said to be lost.

#include "failure_injection/Support.h"
#include "websocket/Support.h"

#include <Wendrel/WebSocket.h>

#include <qvSystem/qvThread.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qv::tests
{
namespace
{

using Access = WebSocketAccess;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// The messages that the client receives from a connection whose worker sends until nothing is left.
std::vector<Message> Received(WebSocket& connection, SocketPair& ends)
{
    Bytes bytes;
    for (int turn = 0; turn < 1000 && connection.hasWritePending(); ++turn) {
        EXPECT_TRUE(connection.sendDataIfAvailable());
        bytes = std::move(bytes) + ends.read();
    }
    EXPECT_FALSE(connection.hasWritePending());
    bytes = std::move(bytes) + ends.read();
    return ServerMessages(bytes);
}

// Keeps its messages without counted allocations. Allocations of a test's hook are counted.
class Keeping : public Connection
{
public:
    using Connection::Connection;

    void onMessageReceived(Bytes& payload, bool isBinary) override
    {
        {
            const TestsOwn own;
            messages.push_back({payload, isBinary});
        }
        if (onMessage)
            onMessage(payload, isBinary);
    }
};

bool AreSame(const std::vector<Message>& a, const std::vector<Message>& b)
{
    return a == b;
}

// Written on another thread than the connection's worker: queued only.
Operation Queueing(const std::string& name, size_t before, size_t size)
{
    return {"x", [before, size, name](Attempt& attempt) {
                SocketPair ends;
                WebSocket connection(ends.server(), nullptr);
                std::vector<Message> expected;
                const auto write = [&](const Message& message) {
                    connection.writeMessage(message.payload.data(), message.payload.size(),
                                            message.isBinary);
                    expected.push_back(message);
                };
                if (before != 0)
                    write(Text(Pattern(before)));
                const Message message = Binary(Pattern(size, 2));
                const size_t queued = Access::writeQueue(connection).size();
                const size_t fill = Access::lastWriteFill(connection);
                expected.reserve(3);
                const bool done = attempt([&] {
                    connection.writeMessage(message.payload.data(), message.payload.size(),
                                            message.isBinary);
                });
                if (done) {
                    expected.push_back(message);
                } else {
                    EXPECT_EQ(Access::writeQueue(connection).size(), queued);
                    EXPECT_EQ(Access::lastWriteFill(connection), fill);
                }
                EXPECT_EQ(connection.hasWritePending(), done || before != 0);
                write(Text(Pattern(10, 3)));
                EXPECT_TRUE(AreSame(Received(connection, ends), expected));
            }};
}

TEST(WebSocketFailures, AMessageIsQueuedWholeOrNotAtAll)
{
    const struct
    {
        const char* name;
        size_t before;
        size_t size;
    } rows[] = {
        {"writeMessage: empty", 0, 0},
        {"writeMessage: 10 bytes", 0, 10},
        {"writeMessage: 5000 bytes", 0, 5000},
        {"writeMessage: behind another", 1000, 5000},
        {"writeMessage: behind a full block", 1020, 1},
        {"writeMessage: 131000 bytes", 100, 131000},
        {"writeMessage: 131001 bytes", 100, 131001},
        {"writeMessage: three frames", 1000, 262008},
    };
    for (const auto& row : rows) {
        const Operation operation = Queueing(row.name, row.before, row.size);
        FailEachCall(row.name, operation.body);
    }
}

TEST(WebSocketFailures, AMessageThatFitsIntoTheLastBlockNeedsNoMemory)
{
    FailEachCall("writeMessage: into the last block", Queueing("", 100, 100).body, Points::None);
}

// Written by the worker itself: sent at once, as far as the socket takes it.
TEST(WebSocketFailures, AMessageOfTheWorkerIsSentOrStaysQueued)
{
    for (const int error : {EAGAIN, ECONNRESET}) {
        FailEachCall(
            error == EAGAIN ? "writeMessage: by the worker, the socket is full"
                            : "writeMessage: by the worker, the client has closed",
            [&](Attempt& attempt) {
                FailingSockets sockets(error);
                SocketPair ends;
                WebSocket connection(ends.server(), nullptr);
                connection.assignCurrentThread();
                std::vector<Message> expected;
                const Message message = Binary(Pattern(5000));
                if (attempt([&] { connection.writeMessage(message.payload.data(), 5000, true); }))
                    expected.push_back(message);
                connection.clearCurrentThread();
                connection.writeMessage("next", 4, false);
                expected.push_back(Text(ToBytes("next")));
                EXPECT_TRUE(AreSame(Received(connection, ends), expected));
            });
    }
}

TEST(WebSocketFailures, SendingSaysWhetherTheConnectionIsLost)
{
    for (const int error : {EAGAIN, EINTR, EPIPE, ECONNRESET}) {
        const std::string name = "sendDataIfAvailable: error " + std::to_string(error);
        FailEachCall(name.c_str(), [&](Attempt& attempt) {
            FailingSockets sockets(error);
            sockets.cap(ScriptedSockets::Send, 700);
            SocketPair ends;
            WebSocket connection(ends.server(), nullptr);
            const Message message = Text(Pattern(5000));
            connection.writeMessage(message.payload.data(), 5000, false);
            bool isOpen = false;
            EXPECT_TRUE(attempt([&] { isOpen = connection.sendDataIfAvailable(); }));
            EXPECT_EQ(isOpen, !attempt.hasFailed() || error == EAGAIN);
            EXPECT_EQ(connection.hasWritePending(), attempt.hasFailed());
            // Nothing is sent twice, nothing is missing.
            EXPECT_TRUE(AreSame(Received(connection, ends), {message}));
        });
    }
}

// A connection that reads the frames of two messages while one of its calls fails, and goes on.
TEST(WebSocketFailures, AMessageIsDeliveredOnceAndWhole)
{
    const struct
    {
        const char* name;
        int error;
        size_t cap;
    } rows[] = {
        {"readDataIfAvailable: nothing more for now", EAGAIN, 0},
        {"readDataIfAvailable: the client has closed", ECONNRESET, 0},
        {"readDataIfAvailable: in pieces of 700 bytes", EAGAIN, 700},
    };
    const Bytes first = Pattern(3000);
    const Bytes second = Pattern(9000, 2);
    for (const auto& row : rows) {
        FailEachCall(row.name, [&](Attempt& attempt) {
            FailingSockets sockets(row.error);
            if (row.cap != 0)
                sockets.cap(ScriptedSockets::Recv, row.cap);
            SocketPair ends;
            Keeping connection(ends.server());
            ends.writeAll(ClientFrame(0x01, first) + ClientFrame(0x80, first) +
                          ClientFrame(0x82, second));
            connection.setReadEnabled(true);
            bool isOpen = true;
            const bool done = attempt([&] {
                for (int turn = 0; turn < 3 && isOpen; ++turn)
                    isOpen = connection.readDataIfAvailable();
            });
            EXPECT_EQ(done, !attempt.hasLackedMemory());
            EXPECT_EQ(isOpen, !attempt.hasFailed(Failing::Receive) || row.error == EAGAIN);
            for (int turn = 0; turn < 20 && connection.messages.size() < 2; ++turn) {
                connection.setReadEnabled(true);
                EXPECT_TRUE(connection.readDataIfAvailable());
            }
            EXPECT_TRUE(AreSame(connection.messages, {Text(first + first), Binary(second)}));
        });
    }
}

// The same without a socket: all bytes are there, and there is only the message to make.
TEST(WebSocketFailures, AFrameThatDoesNotFitIntoMemoryStaysInTheQueue)
{
    for (const size_t begun : {0, 100, 5000}) {
        const std::string name =
            "tryToReadFrame: after " + std::to_string(begun) + " bytes of the message";
        FailEachCall(name.c_str(), [&](Attempt& attempt) {
            SocketPair ends;
            Keeping connection(ends.server());
            const Bytes before = Pattern(begun);
            const Bytes payload = Pattern(20000, 2);
            Bytes stream = begun == 0 ? Bytes() : ClientFrame(0x01, before);
            stream = stream + ClientFrame(begun == 0 ? 0x81 : 0x80, payload);
            connection.setReadEnabled(true);
            ends.writeAll(stream);
            // All but the last piece, which makes the frame whole.
            {
                ScriptedSockets sockets;
                size_t left = stream.size() - 1;
                sockets.onCall([&](const ScriptedSockets::Attempt& call)
                                   -> std::optional<ScriptedSockets::Outcome> {
                    if (call.operation != ScriptedSockets::Recv)
                        return std::nullopt;
                    if (left == 0)
                        return ScriptedSockets::Outcome{-1, EAGAIN};
                    const size_t part = std::min(left, call.length);
                    left -= part;
                    const ssize_t got = ::read(ends.server(), call.data, part);
                    return ScriptedSockets::Outcome{got, 0};
                });
                while (connection.hasReadPending())
                    EXPECT_TRUE(connection.readDataIfAvailable());
            }
            connection.setReadEnabled(true);
            if (!attempt([&] { EXPECT_TRUE(connection.readDataIfAvailable()); })) {
                connection.setReadEnabled(true);
                EXPECT_TRUE(connection.readDataIfAvailable());
            }
            EXPECT_TRUE(AreSame(connection.messages, {Text(before + payload)}));
            EXPECT_THAT(Access::readQueue(connection), SizeIs(testing::Le(1u)));
        });
    }
}

TEST(WebSocketFailures, AMessageWhoseHandlerThrowsIsOver)
{
    FailEachCallOf({{"onMessageReceived: the handler needs memory", [](Attempt& attempt) {
                         SocketPair ends;
                         Keeping connection(ends.server());
                         connection.onMessage = [](Bytes&, bool) {
                             const std::string text = kLongText;
                             EXPECT_EQ(text.size(), kLongText.size());
                         };
                         ends.writeAll(ClientFrame(0x82, ToBytes("one")) +
                                       ClientFrame(0x81, ToBytes("two")));
                         connection.setReadEnabled(true);
                         attempt([&] { connection.readDataIfAvailable(); });
                         while (connection.messages.size() < 2 && !testing::Test::HasFailure()) {
                             connection.setReadEnabled(true);
                             EXPECT_TRUE(connection.readDataIfAvailable());
                         }
                         EXPECT_TRUE(AreSame(connection.messages,
                                             {Binary(ToBytes("one")), Text(ToBytes("two"))}));
                     }}});
}

TEST(WebSocketFailures, TheDefaultResponseIsQueuedWholeOrNotAtAll)
{
    FailEachCallOf({{"onMessageReceived: the default response", [](Attempt& attempt) {
                         SocketPair ends;
                         WebSocket connection(ends.server(), nullptr);
                         Bytes received = ToBytes("anything");
                         const bool done =
                             attempt([&] { connection.onMessageReceived(received, false); });
                         const auto messages = Received(connection, ends);
                         EXPECT_THAT(messages, SizeIs(done ? 1 : 0));
                         if (done) {
                             EXPECT_EQ(messages[0].payload.size(), 262008u);
                         }
                     }}});
}

TEST(WebSocketFailures, MovingAndClosingNeedNoMemory)
{
    FailEachCallOf({{"connection: made, moved, closed, destroyed",
                     [](Attempt& attempt) {
                         RecordingDaemon daemon;
                         SocketPair ends;
                         char handle = 0;
                         auto* upgrade = reinterpret_cast<MHD_UpgradeResponseHandle*>(&handle);
                         EXPECT_TRUE(attempt([&] {
                             WebSocket first(ends.server(), upgrade);
                             WebSocket second(std::move(first));
                             second.assignCurrentThread();
                             second.clearCurrentThread();
                             second.markForDeletion();
                             second.markForDeletion();
                         }));
                         EXPECT_THAT(daemon.closedHandles(), ElementsAre(upgrade));
                     },
                     Points::None},
                    {"connection: moved with what it holds", [](Attempt& attempt) {
                         SocketPair ends;
                         Connection first(ends.server());
                         first.writeMessage("written", 7, false);
                         ends.writeAll(ClientFrame(0x01, ToBytes("re")) + Bytes{0x80});
                         first.setReadEnabled(true);
                         EXPECT_TRUE(first.readDataIfAvailable());
                         EXPECT_TRUE(first.readDataIfAvailable());
                         std::unique_ptr<Connection> second;
                         const bool done = attempt(
                             [&] { second = std::make_unique<Connection>(std::move(first)); });
                         if (!done)
                             second = std::make_unique<Connection>(std::move(first));
                         const Bytes frame = ClientFrame(0x80, ToBytes("ad"));
                         ends.writeAll(Bytes(frame.begin() + 1, frame.end()));
                         second->setReadEnabled(true);
                         EXPECT_TRUE(second->readDataIfAvailable());
                         EXPECT_TRUE(AreSame(second->messages, {Text(ToBytes("read"))}));
                         EXPECT_TRUE(AreSame(Received(*second, ends), {Text(ToBytes("written"))}));
                     }}});
}

TEST(WebSocketFailures, TheAcceptValueIsRightOrAnExceptionOrThatOfNoDigest)
{
    FailEachCallOf({{"ComputeSecret", [](Attempt& attempt) {
                         std::string secret;
                         const bool done = attempt([&] {
                             secret = WebSocket::ComputeSecret("dGhlIHNhbXBsZSBub25jZQ==");
                         });
                         const std::string right = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";
                         if (attempt.hasFailed(Failing::Malloc)) {
                             // Required: the result of the digest is not checked. A client refuses
                             // the value of twenty zero bytes.
                             EXPECT_THAT(secret, testing::AnyOf(done ? right : "",
                                                                "AAAAAAAAAAAAAAAAAAAAAAAAAAA="));
                         } else {
                             EXPECT_EQ(secret, done ? right : "");
                         }
                         EXPECT_EQ(WebSocket::ComputeSecret("dGhlIHNhbXBsZSBub25jZQ=="), right);
                         attempt.forgiveMalloc();
                     }}});
}

}  // namespace
}  // namespace qv::tests
