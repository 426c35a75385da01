// A property of the whole layer: however a client cuts its messages into frames, and however
// the bytes of both sides are cut on their way, each side gets the messages of the other.

#include "websocket/Support.h"

#include "support/ScriptedSockets.h"

#include <random>

namespace qv::tests
{
namespace
{

using Access = WebSocketAccess;

constexpr size_t kRoundLimit = 1000000;

// The same numbers on every machine: the distributions of the standard library do not promise it.
class Dice
{
public:
    explicit Dice(uint32_t seed) : mEngine(seed) {}

    size_t upTo(size_t most) { return mEngine() % (most + 1); }
    bool oneIn(size_t n) { return mEngine() % n == 0; }
    template <typename T> T oneOf(std::initializer_list<T> choices)
    {
        return choices.begin()[mEngine() % choices.size()];
    }

private:
    std::mt19937 mEngine;
};

size_t AnySize(Dice& dice)
{
    const size_t limit = dice.oneOf<size_t>({0, 125, 1024, 2048, 65535});
    switch (dice.upTo(7)) {
    case 0:
        return 0;
    case 1:  // around a limit of the format or of the blocks
        return limit < 8 ? dice.upTo(8) : limit - 8 + dice.upTo(16);
    case 2:
        return dice.oneIn(8) ? 131000 + dice.upTo(2) : dice.upTo(10000);
    case 3:
        return dice.upTo(3000);
    default:
        return dice.upTo(40);
    }
}

std::vector<tests::Message> AnyMessages(Dice& dice)
{
    std::vector<tests::Message> messages(dice.upTo(8));
    for (tests::Message& message : messages)
        message = {Pattern(AnySize(dice), static_cast<uint32_t>(dice.upTo(99999))), dice.oneIn(2)};
    return messages;
}

LengthForm AnyForm(Dice& dice, size_t length)
{
    if (length > 65535 || dice.oneIn(4))
        return LengthForm::EightBytes;
    if (length > 125 || dice.oneIn(4))
        return LengthForm::TwoBytes;
    return LengthForm::OneByte;
}

// The frames of one message. Its first fragment is not empty unless it is the only one: that
// would be a protocol error here.
Bytes AnyFrames(Dice& dice, const tests::Message& message)
{
    Bytes bytes;
    const bool whole = message.payload.empty() || dice.oneIn(3);
    const size_t most = dice.oneOf<size_t>({1, 10, 1000, 70000});
    size_t at = 0;
    bool isFirst = true;
    for (bool fin = false; !fin; isFirst = false) {
        const size_t left = message.payload.size() - at;
        // A long message in tiny frames would only take time.
        const size_t least = std::max<size_t>(isFirst ? 1 : 0, left / 50);
        const size_t length = whole ? left : std::min(left, std::max(least, dice.upTo(most)));
        fin = whole || (length == left && !dice.oneIn(4));
        uint8_t first = isFirst ? (message.isBinary ? 2 : 1) : dice.oneOf<uint8_t>({0, 0, 0, 1, 2});
        first |= fin ? 0x80 : 0;
        first |= dice.oneIn(4) ? dice.oneOf<uint8_t>({0x40, 0x20, 0x10, 0x08, 0x04}) : 0;
        MaskKey key;
        for (uint8_t& byte : key)
            byte = static_cast<uint8_t>(dice.upTo(255));
        const auto payload = message.payload.begin() + static_cast<ptrdiff_t>(at);
        bytes = std::move(bytes) +
                ClientFrame(first, Bytes(payload, payload + static_cast<ptrdiff_t>(length)), key,
                            AnyForm(dice, length));
        at += length;
    }
    return bytes;
}

// How the bytes of one case are cut.
struct Cut
{
    explicit Cut(Dice& dice, size_t total)
        : mostWritten(dice.oneOf<size_t>({1, 30, 1024, 5000, 1000000})),
          mostReceived(dice.oneOf<size_t>({0, 0, 1, 7, 1000})),
          mostSent(dice.oneOf<size_t>({0, 0, 1, 100, 1023})), mayBlock(dice.oneIn(2))
    {
        if (total > 20000) {
            mostWritten = std::max<size_t>(mostWritten, 1000);
            mostReceived = mostReceived < 100 ? 0 : mostReceived;
            mostSent = mostSent < 100 ? 0 : mostSent;
        }
    }

    size_t mostWritten;
    size_t mostReceived;  // 0: no limit
    size_t mostSent;
    bool mayBlock;  // the socket now and then seems full or empty
};

// The client sends `messages`, the application sends each of them back.
class Conversation
{
public:
    Conversation(Dice& dice, const std::vector<tests::Message>& messages)
        : mDice(dice), mExpected(messages), mConnection(mEnds.server()), mCut(dice, size(messages))
    {
        for (const tests::Message& message : messages)
            mOutgoing = std::move(mOutgoing) + AnyFrames(dice, message);
        mSockets.cap(ScriptedSockets::Recv, mCut.mostReceived);
        mSockets.cap(ScriptedSockets::Send, mCut.mostSent);
        if (mCut.mayBlock)
            mSockets.onCall([this](const ScriptedSockets::Attempt&) {
                using Outcome = ScriptedSockets::Outcome;
                return mDice.oneIn(5) ? std::optional<Outcome>({-1, EAGAIN}) : std::nullopt;
            });
        mConnection.onMessage = [this](Bytes& payload, bool isBinary) {
            mConnection.writeMessage(payload.data(), payload.size(), isBinary);
        };
        if (dice.oneIn(2))
            mConnection.assignCurrentThread();
    }

    void run()
    {
        for (size_t rounds = 0; !isOver(); ++rounds) {
            ASSERT_LT(rounds, kRoundLimit) << "messages do not arrive";
            write();
            mConnection.setReadEnabled(true);
            ASSERT_TRUE(mConnection.readDataIfAvailable());
            ASSERT_LE(mConnection.messages.size(), mExpected.size());
            ASSERT_TRUE(mConnection.sendDataIfAvailable());
            const Bytes some = mEnds.read();
            mIncoming.insert(mIncoming.end(), some.begin(), some.end());
        }
        ASSERT_TRUE(mConnection.messages == mExpected);
        ASSERT_TRUE(ServerMessages(mIncoming) == mExpected);
        ASSERT_TRUE(Access::message(mConnection).empty());
        ASSERT_EQ(Access::readOffset(mConnection) % 1024, Access::lastReadFill(mConnection) % 1024);
    }

private:
    static size_t size(const std::vector<tests::Message>& messages)
    {
        size_t total = 0;
        for (const tests::Message& message : messages)
            total += message.payload.size();
        return total;
    }

    bool isOver() const
    {
        return mWritten == mOutgoing.size() && mConnection.messages.size() == mExpected.size() &&
               !mConnection.hasWritePending();
    }

    void write()
    {
        const size_t most = 1 + mDice.upTo(mCut.mostWritten - 1);
        const size_t part = std::min(most, mOutgoing.size() - mWritten);
        mWritten += mEnds.write(mOutgoing.data() + mWritten, part);
    }

    Dice& mDice;
    const std::vector<tests::Message> mExpected;
    SocketPair mEnds;
    ScriptedSockets mSockets;
    Connection mConnection;
    Cut mCut;
    Bytes mOutgoing;
    size_t mWritten = 0;
    Bytes mIncoming;
};

TEST(WebSocketConversation, GivesTheSameMessagesForAnyFragmentsAndPieces)
{
    for (uint32_t seed = 1; seed <= 300; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Dice dice(seed);
        const auto messages = AnyMessages(dice);
        Conversation(dice, messages).run();
        if (HasFatalFailure() || HasNonfatalFailure())
            return;
    }
}

}  // namespace
}  // namespace qv::tests
