// Frames that a connection reads.

#include "websocket/Support.h"

#include "support/ScriptedSockets.h"

#include <limits>
#include <stdexcept>

namespace qv::tests
{
namespace
{

using Access = WebSocketAccess;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr size_t kBlock = 1024;
constexpr MaskKey kKey{0x9e, 0x37, 0x79, 0xb9};
constexpr uint64_t kMaxUint64 = std::numeric_limits<uint64_t>::max();

enum Result { kRefused = 0, kConsumed = 1, kIncomplete = 2 };

constexpr uint8_t kFin = 0x80;

// A connection that is given bytes as if it had received them, without a socket.
class FedConnection : public Connection
{
public:
    void feed(const Bytes& bytes)
    {
        for (const uint8_t byte : bytes) {
            if (Access::lastReadFill(*this) == kBlock) {
                Access::readQueue(*this).emplace_back(kBlock);
                Access::lastReadFill(*this) = 0;
            }
            Access::readQueue(*this).back()[Access::lastReadFill(*this)++] = byte;
        }
    }

    int tryToReadFrame() { return Access::tryToReadFrame(*this); }

    size_t buffered()
    {
        const auto& queue = Access::readQueue(*this);
        return queue.empty() ? 0
                             : (queue.size() - 1) * kBlock + Access::lastReadFill(*this) -
                                   Access::readOffset(*this);
    }
};

// Writes all bytes while the connection reads; as often as it takes.
void Converse(Connection& connection, SocketPair& ends, const Bytes& bytes)
{
    size_t at = 0;
    for (int rounds = 0; rounds < 100000; ++rounds) {
        at += ends.write(bytes.data() + at, bytes.size() - at);
        connection.setReadEnabled(true);
        ASSERT_TRUE(connection.readDataIfAvailable());
        if (at == bytes.size() && !connection.hasReadPending())
            return;
    }
    FAIL() << "there is no end to it";
}

TEST(WebSocketFrames, AreNotSeenInAnEmptyQueue)
{
    FedConnection connection;
    EXPECT_EQ(connection.tryToReadFrame(), kIncomplete);
    EXPECT_THAT(Access::readQueue(connection), IsEmpty());
}

TEST(WebSocketFrames, NeedSixBytesEvenWhenTheyAreRefused)
{
    FedConnection connection;
    for (const uint8_t byte : {0x83, 0x80, 1, 2, 3}) {
        connection.feed({byte});
        EXPECT_EQ(connection.tryToReadFrame(), kIncomplete);
    }
    connection.feed({4});
    EXPECT_EQ(connection.tryToReadFrame(), kRefused);
    EXPECT_EQ(connection.tryToReadFrame(), kRefused);
    EXPECT_EQ(connection.buffered(), 6u);  // nothing is consumed
}

TEST(WebSocketFrames, WithoutPayloadAreEmptyMessages)
{
    for (const bool isBinary : {false, true}) {
        FedConnection connection;
        connection.feed(ClientFrame(isBinary ? 0x82 : 0x81, {}));
        EXPECT_EQ(connection.buffered(), 6u);
        EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
        EXPECT_THAT(connection.messages, ElementsAre(tests::Message{{}, isBinary}));
        EXPECT_EQ(connection.buffered(), 0u);
    }
}

TEST(WebSocketFrames, AreReadWithAnyLengthInAnyForm)
{
    const struct
    {
        size_t size;
        std::vector<LengthForm> forms;
    } rows[] = {
        {0, {LengthForm::OneByte, LengthForm::TwoBytes, LengthForm::EightBytes}},
        {1, {LengthForm::OneByte, LengthForm::TwoBytes, LengthForm::EightBytes}},
        {125, {LengthForm::OneByte, LengthForm::TwoBytes, LengthForm::EightBytes}},
        {126, {LengthForm::TwoBytes, LengthForm::EightBytes}},
        {127, {LengthForm::TwoBytes, LengthForm::EightBytes}},
        {65535, {LengthForm::TwoBytes, LengthForm::EightBytes}},
        {65536, {LengthForm::EightBytes}},
        {131000, {LengthForm::EightBytes}},
        {131001, {LengthForm::EightBytes}},
        {262000, {LengthForm::EightBytes}},
        {262001, {LengthForm::EightBytes}},
    };
    for (const auto& row : rows) {
        for (const LengthForm form : row.forms) {
            for (const bool isBinary : {false, true}) {
                SCOPED_TRACE(testing::Message() << row.size << " in form " << int(form));
                SocketPair ends;
                Connection connection(ends.server());
                const Bytes payload = Pattern(row.size);
                Converse(connection, ends,
                         ClientFrame(isBinary ? 0x82 : 0x81, payload, kKey, form));
                ASSERT_EQ(connection.messages.size(), 1u);
                EXPECT_TRUE(connection.messages[0].payload == payload);
                EXPECT_EQ(connection.messages[0].isBinary, isBinary);
                EXPECT_THAT(Access::message(connection), IsEmpty());
            }
        }
    }
}

TEST(WebSocketFrames, AreConsumedOneAtATime)
{
    FedConnection connection;
    connection.feed(ClientFrame(0x81, ToBytes("one")) + ClientFrame(0x82, ToBytes("three")));
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("one"))));
    EXPECT_EQ(connection.buffered(), 11u);
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("one")), Binary(ToBytes("three"))));
    EXPECT_EQ(connection.buffered(), 0u);
    EXPECT_EQ(connection.tryToReadFrame(), kIncomplete);
}

TEST(WebSocketFrames, AreJoinedToOneMessageOfTheTypeOfTheFirst)
{
    FedConnection connection;
    connection.feed(ClientFrame(0x02, ToBytes("ab")) + ClientFrame(0x00, ToBytes("cde")) +
                    ClientFrame(0x00, {}) + ClientFrame(0x80, ToBytes("f")) +
                    ClientFrame(0x81, ToBytes("next")));
    for (const char* assembled : {"ab", "abcde", "abcde"}) {
        EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
        EXPECT_EQ(Access::message(connection), ToBytes(assembled));
        EXPECT_TRUE(Access::messageIsBinary(connection));
        EXPECT_THAT(connection.messages, IsEmpty());
    }
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_THAT(connection.messages, ElementsAre(Binary(ToBytes("abcdef"))));
    EXPECT_THAT(Access::message(connection), IsEmpty());
    EXPECT_FALSE(Access::messageIsBinary(connection));
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_EQ(connection.messages.back(), Text(ToBytes("next")));
}

TEST(WebSocketFrames, MayEndAMessageWithoutPayload)
{
    FedConnection connection;
    connection.feed(ClientFrame(0x01, ToBytes("abc")) + ClientFrame(0x80, {}));
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("abc"))));
}

// Every first byte, at the start of a message and inside one of either type.
TEST(WebSocketFrames, AreJudgedByTwoBitsOfTheOpcodeAsRequired)
{
    enum State { Between, InText, InBinary };
    for (const State state : {Between, InText, InBinary}) {
        for (int first = 0; first < 256; ++first) {
            SCOPED_TRACE(testing::Message() << "first byte " << first << ", state " << state);
            FedConnection connection;
            Bytes expected;
            if (state != Between) {
                connection.feed(ClientFrame(state == InText ? 0x01 : 0x02, ToBytes("begun ")));
                ASSERT_EQ(connection.tryToReadFrame(), kConsumed);
                expected = ToBytes("begun ");
            }
            connection.feed(ClientFrame(static_cast<uint8_t>(first), ToBytes("payload")));
            const int kind = first % 4;
            const bool refused = kind == 3 || (kind == 0 && state == Between);
            EXPECT_EQ(connection.tryToReadFrame(), refused ? kRefused : kConsumed);
            if (refused) {
                EXPECT_EQ(connection.buffered(), 13u);
                EXPECT_EQ(Access::message(connection), expected);
                EXPECT_THAT(connection.messages, IsEmpty());
                continue;
            }
            EXPECT_EQ(connection.buffered(), 0u);
            expected = expected + ToBytes("payload");
            const bool isBinary = state == InBinary || (state == Between && kind == 2);
            if (first & kFin) {
                EXPECT_THAT(connection.messages, ElementsAre(tests::Message{expected, isBinary}));
                EXPECT_THAT(Access::message(connection), IsEmpty());
            } else {
                EXPECT_THAT(connection.messages, IsEmpty());
                EXPECT_EQ(Access::message(connection), expected);
                EXPECT_EQ(Access::messageIsBinary(connection), isBinary);
            }
        }
    }
}

TEST(WebSocketFrames, OfAPingAndAPongAreMessagesAsRequired)
{
    ScriptedSockets sockets;
    SocketPair ends;
    Connection connection(ends.server());
    connection.assignCurrentThread();
    Converse(connection, ends,
             ClientFrame(0x89, ToBytes("ping")) + ClientFrame(0x8a, ToBytes("pong")));
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("ping")), Binary(ToBytes("pong"))));
    EXPECT_EQ(sockets.count(ScriptedSockets::Send), 0u);  // no pong is sent
    EXPECT_FALSE(connection.hasWritePending());
}

TEST(WebSocketFrames, OfACloseEndTheConnectionBetweenMessagesWithoutACloseFrameAsRequired)
{
    SocketPair ends;
    Connection connection(ends.server());
    connection.setReadEnabled(true);
    ends.writeAll(ClientFrame(0x88, {0x03, 0xe8}));
    EXPECT_FALSE(connection.readDataIfAvailable());
    EXPECT_FALSE(connection.hasWritePending());
    EXPECT_THAT(connection.messages, IsEmpty());
    EXPECT_THAT(ends.read(), IsEmpty());
}

TEST(WebSocketFrames, OfACloseJoinTheMessageTheyInterruptAsRequired)
{
    FedConnection connection;
    connection.feed(ClientFrame(0x01, ToBytes("abc")) + ClientFrame(0x88, {0x03, 0xe8}));
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_THAT(connection.messages, ElementsAre(Text({'a', 'b', 'c', 0x03, 0xe8})));
}

TEST(WebSocketFrames, OfAnotherMessageJoinTheOneThatIsNotEndedAsRequired)
{
    FedConnection connection;
    connection.feed(ClientFrame(0x01, ToBytes("a")) + ClientFrame(0x02, ToBytes("b")) +
                    ClientFrame(0x09, ToBytes("c")) + ClientFrame(0x82, ToBytes("d")));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("abcd"))));
}

TEST(WebSocketFrames, BehindAnEmptyFirstFragmentAreRefusedAsContinuationsAsRequired)
{
    FedConnection connection;
    connection.feed(ClientFrame(0x02, {}) + ClientFrame(0x80, ToBytes("abc")));
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_TRUE(Access::messageIsBinary(connection));
    EXPECT_EQ(connection.tryToReadFrame(), kRefused);
    EXPECT_EQ(connection.buffered(), 9u);
    EXPECT_THAT(connection.messages, IsEmpty());
}

TEST(WebSocketFrames, BehindAnEmptyFirstFragmentGiveTheTypeAsRequired)
{
    FedConnection connection;
    connection.feed(ClientFrame(0x02, {}) + ClientFrame(0x81, ToBytes("abc")));
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("abc"))));
}

// Four bytes of the payload are taken for the key, and four of the next frame for payload.
TEST(WebSocketFrames, WithoutAMaskAreUnmaskedAllTheSameAsRequired)
{
    FedConnection connection;
    connection.feed({0x81, 5, 'h', 'e', 'l', 'l', 'o'});
    EXPECT_EQ(connection.tryToReadFrame(), kIncomplete);
    connection.feed({0x81, 5, 'w', 'o', 'r', 'l', 'd'});
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_THAT(connection.messages,
                ElementsAre(Text({'o' ^ 'h', 0x81 ^ 'e', 5 ^ 'l', 'w' ^ 'l', 'o' ^ 'h'})));
    EXPECT_EQ(connection.buffered(), 3u);
}

TEST(WebSocketFrames, AreReadWhereverABlockEndsInTheirHeader)
{
    for (const LengthForm form :
         {LengthForm::OneByte, LengthForm::TwoBytes, LengthForm::EightBytes}) {
        const Bytes payload = Pattern(form == LengthForm::OneByte ? 100 : 2000);
        const Bytes frame = ClientFrame(0x82, payload, kKey, form);
        const size_t header = frame.size() - payload.size();
        for (size_t inFirst = 0; inFirst <= header + 1; ++inFirst) {
            // A frame before it pushes the header to the end of the first block.
            const Bytes before = Pattern(kBlock - inFirst - 8);
            const Bytes bytes = ClientFrame(0x81, before, kKey, LengthForm::TwoBytes) + frame;
            for (const bool inOneRead : {true, false}) {
                SCOPED_TRACE(testing::Message() << inFirst << " of " << header << " header bytes"
                                                << (inOneRead ? "" : ", byte by byte"));
                ScriptedSockets sockets;
                sockets.cap(ScriptedSockets::Recv, inOneRead ? 0 : 1);
                SocketPair ends;
                Connection connection(ends.server());
                Converse(connection, ends, bytes);
                EXPECT_THAT(connection.messages, ElementsAre(Text(before), Binary(payload)));
            }
        }
    }
}

// Where the payload begins in its block, and how much of the message was there before.
TEST(WebSocketFrames, CarryTheMaskPhaseOverBlockEnds)
{
    for (size_t blockOffset = 0; blockOffset < 16; ++blockOffset) {
        for (size_t messageOffset = 1; messageOffset <= 4; ++messageOffset) {
            const Bytes before = Pattern(100 + blockOffset);
            const Bytes fragment = Pattern(messageOffset, 5);
            const Bytes payload = Pattern(2 * kBlock + 77, 6);
            FedConnection connection;
            connection.feed(ClientFrame(0x81, before) + ClientFrame(0x02, fragment, kKey) +
                            ClientFrame(0x80, payload, {0x01, 0x10, 0xff, 0x5a}));
            for (int i = 0; i < 3; ++i)
                ASSERT_EQ(connection.tryToReadFrame(), kConsumed);
            ASSERT_THAT(connection.messages, ElementsAre(Text(before), Binary(fragment + payload)));
        }
    }
}

TEST(WebSocketFrames, StayBufferedBehindTheFirstOfOneRead)
{
    ScriptedSockets sockets;
    SocketPair ends;
    Connection connection(ends.server());
    connection.setReadEnabled(true);
    ends.writeAll(ClientFrame(0x81, ToBytes("one")) + ClientFrame(0x81, ToBytes("two")));
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("one"))));
    EXPECT_TRUE(connection.hasReadPending());
    EXPECT_EQ(sockets.count(ScriptedSockets::Recv), 1u);
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("one")), Text(ToBytes("two"))));
    EXPECT_FALSE(connection.hasReadPending());
    EXPECT_EQ(sockets.count(ScriptedSockets::Recv), 2u);
}

// Each receive call handles one buffered frame. One more is handled when the socket is empty.
TEST(WebSocketFrames, BehindTheSecondOfOneReadWaitForMoreBytesAsRequired)
{
    SocketPair ends;
    Connection connection(ends.server());
    connection.setReadEnabled(true);
    const Bytes frame = ClientFrame(0x81, ToBytes("x"));
    ends.writeAll(frame + frame + frame);
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_FALSE(connection.hasReadPending());
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_EQ(connection.messages.size(), 2u);

    connection.setReadEnabled(true);
    ends.writeAll({0x81});
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_EQ(connection.messages.size(), 3u);
    EXPECT_TRUE(connection.hasReadPending());
}

TEST(WebSocketFrames, ThatAreRefusedEndTheConnectionWhereverTheyAreFound)
{
    SocketPair ends;
    Connection connection(ends.server());
    connection.setReadEnabled(true);
    ends.writeAll(ClientFrame(0x81, ToBytes("one")) + ClientFrame(0x83, ToBytes("two")));
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_FALSE(connection.readDataIfAvailable());  // found when the socket was empty
    EXPECT_FALSE(connection.hasReadPending());

    connection.setReadEnabled(true);
    ends.writeAll({0});
    EXPECT_FALSE(connection.readDataIfAvailable());  // found again after a receiving
    EXPECT_TRUE(connection.hasReadPending());
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("one"))));
}

TEST(WebSocketFrames, AreHandledBeforeALostConnectionIsNoticed)
{
    ScriptedSockets sockets;
    sockets.failFrom(ScriptedSockets::Recv, 2, ECONNRESET);  // not reached
    SocketPair ends;
    Connection connection(ends.server());
    connection.setReadEnabled(true);
    ends.writeAll(ClientFrame(0x81, ToBytes("one")) + ClientFrame(0x81, ToBytes("two")));
    ends.closeClient();
    EXPECT_TRUE(connection.readDataIfAvailable());
    EXPECT_TRUE(connection.readDataIfAvailable());  // recv gives 0 now
    EXPECT_THAT(connection.messages, ElementsAre(Text(ToBytes("one")), Text(ToBytes("two"))));
}

TEST(WebSocketFrames, AreWaitedForHoweverLongTheyAre)
{
    for (const uint64_t length :
         {uint64_t{1} << 32, (uint64_t{1} << 63) - 1, uint64_t{1} << 63, kMaxUint64 - 14}) {
        SCOPED_TRACE(length);
        FedConnection connection;
        connection.feed(ClientHeader(0x81, length, kKey) + Pattern(5000));
        EXPECT_EQ(connection.tryToReadFrame(), kIncomplete);
        EXPECT_EQ(connection.buffered(), 5014u);
        EXPECT_EQ(Access::message(connection).capacity(), 0u);  // nothing is reserved beforehand
    }
}

// Length and header together wrap around: the frame passes for buffered, and its message for
// one that no vector can hold.
TEST(WebSocketFrames, WhoseLengthWrapsAroundThrowAndHarmNothing)
{
    for (uint64_t length = kMaxUint64 - 13; length != 0; ++length) {
        for (const size_t behind : {0, 1, 9, 1000}) {
            SCOPED_TRACE(testing::Message() << length << ", and " << behind << " bytes behind it");
            FedConnection connection;
            connection.feed(ClientHeader(0x82, length, kKey) + Pattern(behind));
            EXPECT_THROW(connection.tryToReadFrame(), std::length_error);
            EXPECT_THAT(connection.messages, IsEmpty());
            EXPECT_THAT(Access::message(connection), IsEmpty());
            EXPECT_EQ(connection.buffered(), behind);
        }
    }
}

TEST(WebSocketFrames, WhoseLengthWrapsAroundLeaveTheBegunMessageAlone)
{
    for (const size_t begun : {1, 5, 14, 15, 100, 5000}) {
        for (uint64_t length = kMaxUint64 - 13; length != 0; ++length) {
            SCOPED_TRACE(testing::Message() << begun << " + " << length);
            FedConnection connection;
            const Bytes fragment = Pattern(begun);
            connection.feed(ClientFrame(0x02, fragment));
            EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
            connection.feed(ClientHeader(0x80, length, kKey) + Pattern(100));
            EXPECT_THROW(connection.tryToReadFrame(), std::length_error);
            EXPECT_EQ(Access::message(connection), fragment);
            EXPECT_TRUE(Access::messageIsBinary(connection));
            EXPECT_THAT(connection.messages, IsEmpty());
        }
    }
}

// The header is taken for buffered before its key has come.
TEST(WebSocketFrames, WhoseLengthWrapsAroundMayBeCutInTheirHeader)
{
    for (size_t cut = 10; cut < 14; ++cut) {
        SCOPED_TRACE(cut);
        SocketPair ends;
        Connection connection(ends.server());
        connection.setReadEnabled(true);
        Bytes header = ClientHeader(0x81, kMaxUint64 - 13, kKey);
        header.resize(cut);
        ends.writeAll(header);
        EXPECT_THROW(connection.readDataIfAvailable(), std::length_error);
        EXPECT_THAT(connection.messages, IsEmpty());
    }
}

TEST(WebSocketFrames, MayHaveTheirMessageTakenAway)
{
    FedConnection connection;
    Bytes taken;
    connection.onMessage = [&](Bytes& payload, bool) { taken = std::move(payload); };
    connection.feed(ClientFrame(0x81, ToBytes("one")) + ClientFrame(0x82, ToBytes("two")));
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_EQ(taken, ToBytes("one"));
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_EQ(taken, ToBytes("two"));
}

TEST(WebSocketFrames, ClearTheMessageWhateverTheApplicationLeaves)
{
    FedConnection connection;
    connection.onMessage = [](Bytes& payload, bool) { payload = Pattern(50); };
    connection.feed(ClientFrame(0x82, ToBytes("one")));
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_THAT(Access::message(connection), IsEmpty());
    EXPECT_FALSE(Access::messageIsBinary(connection));
}

TEST(WebSocketFrames, KeepTheCapacityOfTheMessageForTheNext)
{
    FedConnection connection;
    connection.feed(ClientFrame(0x82, Pattern(5000)));
    EXPECT_EQ(connection.tryToReadFrame(), kConsumed);
    EXPECT_GE(Access::message(connection).capacity(), 5000u);
}

}  // namespace
}  // namespace qv::tests
