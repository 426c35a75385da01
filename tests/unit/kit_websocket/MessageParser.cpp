// Frames in, messages and control frames out.

#include "websocket/MessageParser.h"

#include "Compressing.h"
#include "Support.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace
{

using namespace websockettests;
using qv::kit::websocket::BinaryView;
using qv::kit::websocket::Budget;
using qv::kit::websocket::Buffer;
using qv::kit::websocket::Inflater;
using qv::kit::websocket::InflaterPool;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kEuro = "\xe2\x82\xac";

std::string text(std::string_view payload)
{
    return frame(Opcode::Text, payload);
}

TEST(MessageParser, DeliversMessagesOfEveryLengthForm)
{
    for (const size_t size : {0, 1, 125, 126, 127, 128, 65535, 65536, 100000}) {
        SCOPED_TRACE(size);
        const std::string payload(size, 'p');
        EXPECT_THAT(parse(text(payload)), ElementsAre("text:" + payload));
        EXPECT_THAT(parse(frame(Opcode::Binary, payload)), ElementsAre("binary:" + payload));
    }
}

TEST(MessageParser, DeliversSeveralMessagesOfOneReception)
{
    EXPECT_THAT(
        parse(text("a") + text("") + frame(Opcode::Binary, std::string("\0\xff", 2)) + text("b")),
        ElementsAre("text:a", "text:", "binary:" + std::string("\0\xff", 2), "text:b"));
}

TEST(MessageParser, JoinsTheFragmentsOfAMessage)
{
    EXPECT_THAT(parse(frame(Opcode::Text, "ab", false) + frame(Opcode::Continuation, "", false) +
                      frame(Opcode::Continuation, "cd", false) + frame(Opcode::Continuation, "e") +
                      text("next")),
                ElementsAre("text:abcde", "text:next"));
    EXPECT_THAT(parse(frame(Opcode::Binary, "", false) + frame(Opcode::Continuation, "")),
                ElementsAre("binary:"));
}

TEST(MessageParser, MustHandleControlFramesInsideAFragmentedMessage)
{
    EXPECT_THAT(parse(frame(Opcode::Text, "ab", false) + frame(Opcode::Ping, "p") +
                      frame(Opcode::Continuation, "cd", false) + frame(Opcode::Pong, "q") +
                      frame(Opcode::Continuation, "e")),
                ElementsAre("ping:p", "pong:q", "text:abcde"));
    EXPECT_THAT(parse(frame(Opcode::Text, "ab", false) + frame(Opcode::Close, "\x03\xe8")),
                ElementsAre("close:\x03\xe8"));
}

TEST(MessageParser, MustFailUnmaskedFrames)
{
    std::string unmasked = text("abc");
    unmasked[1] = static_cast<char>(unmasked[1] & 0x7f);
    EXPECT_THAT(parse(unmasked), ElementsAre("failed:1002"));
}

TEST(MessageParser, MustFailReservedBitsWithoutAnExtension)
{
    for (const uint8_t bit : {0x40, 0x20, 0x10}) {
        for (const uint8_t opcode : {0, 1, 2, 8, 9, 10}) {
            SCOPED_TRACE(testing::Message() << int{bit} << ' ' << int{opcode});
            EXPECT_THAT(parse(rawFrame(static_cast<uint8_t>(kFin | bit | opcode), "")),
                        ElementsAre("failed:1002"));
        }
    }
}

TEST(MessageParser, MustFailUnknownOpcodes)
{
    for (const uint8_t opcode : {3, 4, 5, 6, 7, 11, 12, 13, 14, 15})
        EXPECT_THAT(parse(rawFrame(static_cast<uint8_t>(kFin | opcode), "")),
                    ElementsAre("failed:1002"))
            << int{opcode};
}

TEST(MessageParser, MustFailFragmentedControlFrames)
{
    for (const Opcode opcode : {Opcode::Close, Opcode::Ping, Opcode::Pong})
        EXPECT_THAT(parse(frame(opcode, "", false)), ElementsAre("failed:1002"));
}

TEST(MessageParser, MustFailControlFramesAbove125Bytes)
{
    const std::string longest(125, 'p');
    EXPECT_THAT(parse(frame(Opcode::Ping, longest)), ElementsAre("ping:" + longest));
    for (const Opcode opcode : {Opcode::Close, Opcode::Ping, Opcode::Pong})
        EXPECT_THAT(parse(frame(opcode, longest + "p")), ElementsAre("failed:1002"));
}

TEST(MessageParser, MustFailLengthsThatAreNotMinimal)
{
    EXPECT_THAT(parse(rawFrame(0x82, std::string(125, 'x'), 1, 2)), ElementsAre("failed:1002"));
    EXPECT_THAT(parse(rawFrame(0x82, std::string(125, 'x'), 1, 8)), ElementsAre("failed:1002"));
    EXPECT_THAT(parse(rawFrame(0x82, std::string(65535, 'x'), 1, 8)), ElementsAre("failed:1002"));
    EXPECT_THAT(parse(rawFrame(0x82, "", 1, 8)), ElementsAre("failed:1002"));
}

TEST(MessageParser, MustFailALengthWithTheHighestBit)
{
    EXPECT_THAT(parse(announcement(0x82, uint64_t{1} << 63)), ElementsAre("failed:1002"));
    EXPECT_THAT(parse(announcement(0x82, (uint64_t{1} << 63) - 1)), ElementsAre("failed:1009"));
}

TEST(MessageParser, MustFailAContinuationWithoutAMessage)
{
    EXPECT_THAT(parse(frame(Opcode::Continuation, "x")), ElementsAre("failed:1002"));
    EXPECT_THAT(parse(text("a") + frame(Opcode::Continuation, "x")),
                ElementsAre("text:a", "failed:1002"));
}

TEST(MessageParser, MustFailAMessageInsideAFragmentedMessage)
{
    EXPECT_THAT(parse(frame(Opcode::Text, "a", false) + text("b")), ElementsAre("failed:1002"));
    EXPECT_THAT(parse(frame(Opcode::Binary, "a", false) + frame(Opcode::Text, "b", false)),
                ElementsAre("failed:1002"));
}

TEST(MessageParser, MustFailTextThatIsNotUtf8)
{
    EXPECT_THAT(parse(text("ab\xff")), ElementsAre("failed:1007"));
    EXPECT_THAT(parse(text("ab" + kEuro.substr(0, 2))), ElementsAre("failed:1007"));
    EXPECT_THAT(
        parse(frame(Opcode::Text, kEuro.substr(0, 2), false) + frame(Opcode::Continuation, "a")),
        ElementsAre("failed:1007"));
    EXPECT_THAT(
        parse(frame(Opcode::Text, kEuro.substr(0, 2), false) + frame(Opcode::Continuation, "")),
        ElementsAre("failed:1007"));
    EXPECT_THAT(parse(frame(Opcode::Binary, "ab\xff")), ElementsAre("binary:ab\xff"));
}

TEST(MessageParser, AcceptsACharacterAcrossFragments)
{
    EXPECT_THAT(parse(frame(Opcode::Text, kEuro.substr(0, 1), false) + frame(Opcode::Ping, "") +
                      frame(Opcode::Continuation, kEuro.substr(1, 1), false) +
                      frame(Opcode::Continuation, kEuro.substr(2))),
                ElementsAre("ping:", "text:" + kEuro));
}

TEST(MessageParser, FailsInvalidTextBeforeItsFrameIsComplete)
{
    const std::string whole = text("abc\xff" + std::string(100, 'x'));
    Parsing parsing;
    parsing.feed(whole.substr(0, 6 + 3));
    EXPECT_THAT(parsing.events, IsEmpty());
    parsing.feed(whole.substr(6 + 3, 1));
    EXPECT_THAT(parsing.events, ElementsAre("failed:1007"));
}

TEST(MessageParser, FailsABadHeaderAfterItsFirstTwoBytes)
{
    for (const char* const head : {"\xc1\x80", "\x83\x80", "\x81\x05", "\x09\x80", "\x89\xfe"}) {
        Parsing parsing;
        parsing.feed(std::string_view(head, 2));
        EXPECT_THAT(parsing.events, ElementsAre("failed:1002"));
    }
}

TEST(MessageParser, FailsAMessageAboveTheLimit)
{
    EXPECT_THAT(parse(frame(Opcode::Binary, std::string(1000, 'x')), 1000),
                ElementsAre("binary:" + std::string(1000, 'x')));
    EXPECT_THAT(parse(frame(Opcode::Binary, std::string(1001, 'x')), 1000),
                ElementsAre("failed:1009"));
    EXPECT_THAT(parse(frame(Opcode::Binary, std::string(600, 'x'), false) +
                          frame(Opcode::Continuation, std::string(401, 'x')),
                      1000),
                ElementsAre("failed:1009"));
}

TEST(MessageParser, AllocatesNothingForAnAnnouncedLength)
{
    for (const uint64_t length : {uint64_t{1} << 62, uint64_t{1} << 40, uint64_t{1} << 25}) {
        Parsing parsing(size_t{1} << 62);
        parsing.feed(announcement(0x82, length) + "x");
        EXPECT_THAT(parsing.events, IsEmpty());
        EXPECT_LE(parsing.parser.buffer().capacity(), 65536u) << length;
    }
    Parsing refused;
    refused.feed(announcement(0x82, uint64_t{1} << 62));
    EXPECT_THAT(refused.events, ElementsAre("failed:1009"));
    EXPECT_EQ(refused.parser.buffer().capacity(), 0u);
}

TEST(MessageParser, NeedsNoMemoryForMessagesThatArriveWhole)
{
    Parsing parsing;
    parsing.feed(text(std::string(30000, 'x')) + text("y"));
    EXPECT_EQ(parsing.events.size(), 2u);
    EXPECT_EQ(parsing.parser.buffer().capacity(), 0u);
}

TEST(MessageParser, ReceivesLargeFramesDirectly)
{
    std::string payload;
    for (size_t i = 0; i < 300000; ++i)
        payload.push_back(static_cast<char>('a' + i * 7 % 26));
    const std::string bytes = text(payload) + text("next") + frame(Opcode::Binary, payload, false) +
                              frame(Opcode::Continuation, payload) + text("last");
    for (const size_t piece : {1000, 4096, 65536, 262144, 10000000}) {
        SCOPED_TRACE(piece);
        Parsing parsing;
        parsing.feedInPieces(bytes, piece, true);
        ASSERT_EQ(parsing.events.size(), 4u);
        EXPECT_TRUE(parsing.events[0] == "text:" + payload);
        EXPECT_EQ(parsing.events[1], "text:next");
        EXPECT_TRUE(parsing.events[2] == "binary:" + payload + payload);
        EXPECT_EQ(parsing.events[3], "text:last");
    }
}

TEST(MessageParser, FailsInvalidTextThatIsReceivedDirectly)
{
    std::string payload(100000, 'a');
    payload[90000] = '\xff';
    Parsing parsing;
    parsing.feedInPieces(text(payload), 10000, true);
    ASSERT_FALSE(parsing.events.empty());
    EXPECT_EQ(parsing.events.front(), "failed:1007");
    size_t space = 0;
    EXPECT_EQ(parsing.parser.directSpace(space), nullptr);
}

TEST(MessageParser, MovesAMessageOfManyFragmentsSeldom)
{
    constexpr size_t kBytes = 1 << 20;
    for (const size_t size : {1, 64, 4096, 65536}) {
        SCOPED_TRACE(size);
        Parsing parsing(kBytes);
        size_t growths = 0;
        for (size_t sent = 0; sent < kBytes; sent += size) {
            const size_t before = parsing.parser.buffer().capacity();
            parsing.feed(frame(sent == 0 ? Opcode::Text : Opcode::Continuation,
                               std::string(size, 'x'), sent + size == kBytes));
            if (parsing.parser.buffer().capacity() != before)
                ++growths;
        }
        EXPECT_EQ(parsing.events.size(), 1u);
        EXPECT_LE(parsing.parser.buffer().capacity(), kBytes);
        EXPECT_LE(growths, 10u);
    }
}

TEST(MessageParser, CountsItsMemoryInTheBudget)
{
    Budget budget(100000);
    {
        Parsing parsing(kMessageLimitBytes, false, &budget);
        parsing.feed(frame(Opcode::Binary, std::string(50000, 'x'), false));
        EXPECT_GE(budget.usedBytes(), 50000u);
        parsing.feed(frame(Opcode::Continuation, std::string(90000, 'x'), false));
        EXPECT_THAT(parsing.events, ElementsAre("failed:1013"));
    }
    EXPECT_EQ(budget.usedBytes(), 0u);
}

TEST(MessageParser, AllowsTheFirstReservedBitOnlyInTheFirstFrameOfACompressedMessage)
{
    const auto compressed = [](const std::string& bytes) {
        return parse(bytes, kMessageLimitBytes, true);
    };
    const std::string hello("\xf2\x48\xcd\xc9\xc9\x07\x00", 7);
    EXPECT_THAT(compressed(rawFrame(kFin | kRsv1 | 1, hello)),
                ElementsAre("compressed text:Hello"));
    EXPECT_THAT(compressed(rawFrame(kRsv1 | 2, hello.substr(0, 3)) + frame(Opcode::Ping, "p") +
                           frame(Opcode::Continuation, "", false) +
                           frame(Opcode::Continuation, hello.substr(3)) + text("c")),
                ElementsAre("ping:p", "compressed binary:Hello", "text:c"));
    EXPECT_THAT(compressed(rawFrame(kRsv1 | 2, "a") + rawFrame(kFin | kRsv1, "b")),
                ElementsAre("failed:1002"));
    EXPECT_THAT(compressed(rawFrame(kFin | kRsv1 | 9, "b")), ElementsAre("failed:1002"));
    EXPECT_THAT(compressed(rawFrame(kFin | 0x20 | 1, "b")), ElementsAre("failed:1002"));
}

// The number of bytes after which the decompressed text shows that it is invalid.
size_t bytesUntilInvalid(const std::string& compressed, const std::string& valid)
{
    Inflater inflater;
    Buffer out;
    inflater.begin();
    size_t count = 0;
    while (out.size() <= valid.size() && count < compressed.size())
        inflater.feed(BinaryView(std::string_view(compressed).substr(count++, 1)), out,
                      SIZE_MAX / 2);
    return count;
}

TEST(MessageParser, FailsInvalidCompressedTextAtTheByteThatTells)
{
    const std::string valid = words(3000);
    const std::string payload = Compressing().compress(valid + "\xff" + words(60000, 2));
    const size_t telling = bytesUntilInvalid(payload, valid);
    ASSERT_LT(telling, payload.size() / 5);
    const struct
    {
        const char* name;
        std::string bytes;
        size_t headerBytes;  // before the byte that tells
    } rows[] = {
        {"in one frame", rawFrame(kFin | kRsv1 | 1, payload), 8},
        {"in the second fragment",
         rawFrame(kRsv1 | 1, payload.substr(0, 200)) +
             frame(Opcode::Continuation, payload.substr(200)),
         16},
        {"in fragments of one byte",
         [&] {
             std::string frames = rawFrame(kRsv1 | 1, payload.substr(0, 1));
             for (size_t i = 1; i < payload.size(); ++i)
                 frames += frame(Opcode::Continuation, payload.substr(i, 1), false);
             return frames;
         }(),
         6 * telling},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        for (const size_t piece : {size_t{1}, row.headerBytes + telling}) {
            Parsing parsing(kMessageLimitBytes, true);
            parsing.feedInPieces(row.bytes.substr(0, row.headerBytes + telling - 1), piece);
            EXPECT_THAT(parsing.events, IsEmpty());
            parsing.feed(row.bytes.substr(row.headerBytes + telling - 1, 1));
            EXPECT_THAT(parsing.events, ElementsAre("failed:1007"));
        }
    }
}

TEST(MessageParser, FailsCompressedTextThatEndsInsideACharacter)
{
    const std::string cut = Compressing().compress("abc" + kEuro.substr(0, 2));
    EXPECT_THAT(parse(rawFrame(kFin | kRsv1 | 1, cut), kMessageLimitBytes, true),
                ElementsAre("failed:1007"));
    EXPECT_THAT(parse(rawFrame(kFin | kRsv1 | 2, cut), kMessageLimitBytes, true),
                ElementsAre("compressed binary:abc" + kEuro.substr(0, 2)));
}

TEST(MessageParser, FailsMalformedCompressedData)
{
    EXPECT_THAT(parse(rawFrame(kFin | kRsv1 | 1, "\xff\xff\xff"), kMessageLimitBytes, true),
                ElementsAre("failed:1007"));
    // A stored block, and one with codes, of which the ends are missing.
    const std::string stored = std::string("\x00\x64\x00\x9b\xff", 5) + "abc";
    const std::string coded = Compressing().compress(words(3000)).substr(0, 500);
    for (const std::string& cut : {stored, coded})
        EXPECT_THAT(parse(rawFrame(kFin | kRsv1 | 2, cut), kMessageLimitBytes, true),
                    ElementsAre("failed:1007"));
}

// A compressor that flushes again without a byte between makes nothing.
TEST(MessageParser, AcceptsEmptyCompressedMessages)
{
    Compressing context;
    const std::string text = words(1000);
    std::string bytes = rawFrame(kFin | kRsv1 | 1, context.compress(""));
    bytes += rawFrame(kFin | kRsv1 | 1, context.compress(text));
    bytes += rawFrame(kFin | kRsv1 | 1, "");
    bytes += rawFrame(kRsv1 | 2, "") + frame(Opcode::Continuation, "");
    bytes += rawFrame(kFin | kRsv1 | 1, context.compress(text));
    const std::string empty = "compressed text:";
    EXPECT_THAT(parse(bytes, kMessageLimitBytes, true),
                ElementsAre(empty, empty + text, empty, "compressed binary:", empty + text));
}

TEST(MessageParser, LimitsACompressedMessageBeforeItsFrameIsComplete)
{
    const std::string bomb =
        rawFrame(kRsv1 | 2, Compressing().compress(std::string(10000000, '\0')));
    ASSERT_LT(bomb.size(), 20000u);
    Parsing parsing(100000, true);
    parsing.feed(bomb.substr(0, 500));
    EXPECT_THAT(parsing.events, ElementsAre("failed:1009"));
    EXPECT_LE(parsing.parser.buffer().capacity(), 131072u);

    const std::string exact = rawFrame(kFin | kRsv1 | 2, Compressing().compress(words(5000)));
    EXPECT_THAT(parse(exact, 5000, true), ElementsAre("compressed binary:" + words(5000)));
    EXPECT_THAT(parse(exact, 4999, true), ElementsAre("failed:1009"));
}

// Blocks without content, as many as the peer likes.
TEST(MessageParser, LimitsTheCompressedBytesOfAMessage)
{
    std::string empty;
    while (empty.size() < 1200)
        empty.append("\x00\x00\x00\xff\xff", 5);
    EXPECT_THAT(parse(rawFrame(kRsv1 | 2, empty), 1000, true), ElementsAre("failed:1009"));
    EXPECT_THAT(parse(rawFrame(kRsv1 | 2, empty.substr(0, 600)) +
                          frame(Opcode::Continuation, empty.substr(600)),
                      1000, true),
                ElementsAre("failed:1009"));
}

TEST(MessageParser, KeepsTheContextOfCompressedMessagesWithoutAPool)
{
    Compressing context;
    std::string bytes;
    std::vector<std::string> expected;
    for (unsigned i = 0; i < 5; ++i) {
        const std::string payload = context.compress(words(2000, i % 2));
        bytes += rawFrame(kRsv1 | 1, payload.substr(0, payload.size() / 2)) +
                 frame(Opcode::Continuation, payload.substr(payload.size() / 2));
        expected.push_back("compressed text:" + words(2000, i % 2));
    }
    Budget budget(10000000);
    {
        Parsing parsing(kMessageLimitBytes, true, &budget);
        parsing.feedInPieces(bytes, 100);
        EXPECT_EQ(parsing.events, expected);
        EXPECT_GE(budget.usedBytes(), size_t{Inflater::kBytes});
    }
    EXPECT_EQ(budget.usedBytes(), 0u);
}

// Two connections of one thread, whose messages arrive in turns.
TEST(MessageParser, SharesDecompressorsOnlyBetweenMessages)
{
    Budget budget(10000000);
    InflaterPool pool;
    Parsing first(kMessageLimitBytes, true, &budget, &pool);
    Parsing second(kMessageLimitBytes, true, &budget, &pool);
    for (unsigned i = 0; i < 3; ++i) {
        const std::string a = rawFrame(kFin | kRsv1 | 1, Compressing().compress(words(3000, i)));
        const std::string b =
            rawFrame(kFin | kRsv1 | 1, Compressing().compress(words(4000, i + 9)));
        first.feed(a.substr(0, 300));
        second.feed(b.substr(0, 200));
        EXPECT_GE(budget.usedBytes(), 2 * size_t{Inflater::kBytes});
        first.feed(a.substr(300));
        second.feed(b.substr(200));
        EXPECT_EQ(first.events.at(i), "compressed text:" + words(3000, i));
        EXPECT_EQ(second.events.at(i), "compressed text:" + words(4000, i + 9));
        EXPECT_EQ(budget.usedBytes(),
                  first.parser.buffer().capacity() + second.parser.buffer().capacity());
    }
}

TEST(MessageParser, CountsADecompressorInTheBudget)
{
    Budget budget(Inflater::kBytes - 1);
    Parsing parsing(kMessageLimitBytes, true, &budget);
    parsing.feed(rawFrame(kFin | kRsv1 | 1, Compressing().compress("abc")));
    EXPECT_THAT(parsing.events, ElementsAre("failed:1013"));
    EXPECT_EQ(budget.usedBytes(), 0u);
}

// A few bytes that are decompressed to many: others get their turn between.
TEST(MessageParser, PausesBetweenPartsOfABomb)
{
    constexpr size_t kBombBytes = 8 << 20;
    constexpr size_t kMaxStepBytes = 2200000;
    Budget budget(100000000);
    const std::string zeros(kBombBytes, '\0');
    const std::string bytes = rawFrame(kFin | kRsv1 | 2, Compressing().compress(zeros)) +
                              rawFrame(kFin | kRsv1 | 1, Compressing().compress("after"));
    {
        MessageParser parser(2 * kBombBytes, true, &budget);
        {
            std::string input = bytes;
            parser.feed(reinterpret_cast<uint8_t*>(input.data()), input.size());
            EXPECT_EQ(parser.next(), MessageParser::Event::Paused);
            EXPECT_EQ(parser.next(), MessageParser::Event::Paused) << "until another turn begins";
            const uint64_t used = budget.usedBytes();
            EXPECT_TRUE(parser.endTurn());
            EXPECT_GT(budget.usedBytes(), used);
        }
        int turns = 1;
        size_t inflated = parser.buffer().size();
        for (;; ++turns) {
            EXPECT_TRUE(parser.isPaused());
            parser.beginTurn();
            const MessageParser::Event event = parser.next();
            EXPECT_LE(parser.buffer().size() - inflated, kMaxStepBytes);
            inflated = parser.buffer().size();
            if (event != MessageParser::Event::Paused) {
                EXPECT_EQ(event, MessageParser::Event::Binary);
                break;
            }
            EXPECT_TRUE(parser.endTurn());
        }
        EXPECT_GE(turns, 4);
        EXPECT_TRUE(std::string(reinterpret_cast<char*>(parser.payload()), parser.payloadBytes()) ==
                    zeros);
        parser.beginTurn();
        EXPECT_EQ(parser.next(), MessageParser::Event::Text);
        EXPECT_EQ(parser.next(), MessageParser::Event::NeedsMore);
        EXPECT_FALSE(parser.isPaused());
        EXPECT_TRUE(parser.endTurn());
    }
    EXPECT_EQ(budget.usedBytes(), 0u);
}

TEST(MessageParser, PausesBetweenManySmallBombs)
{
    std::string bytes;
    for (int i = 0; i < 10; ++i)
        bytes += rawFrame(kFin | kRsv1 | 2, Compressing().compress(std::string(1000000, 'x')));
    Parsing parsing(kMessageLimitBytes, true);
    parsing.feed(bytes);
    EXPECT_EQ(parsing.events.size(), 10u);
    EXPECT_GE(parsing.pauses, 4);
}

// Each restart of the stream moves its window.
TEST(MessageParser, PausesBetweenFinalBlocks)
{
    std::string bytes;
    for (int i = 0; i < 10; ++i) {
        std::string message;
        for (int k = 0; k < 16; ++k)
            message += Compressing(true).compress("x");
        bytes += rawFrame(kFin | kRsv1 | 2, message);
    }
    Parsing parsing(kMessageLimitBytes, true);
    parsing.feed(bytes);
    EXPECT_EQ(parsing.events,
              std::vector<std::string>(10, "compressed binary:" + std::string(16, 'x')));
    EXPECT_GE(parsing.pauses, 4);
}

TEST(MessageParser, HasNoEventAfterAFailure)
{
    Parsing parsing;
    parsing.feed(frame(Opcode::Continuation, "x") + text("a"));
    parsing.feed(text("b"));
    EXPECT_THAT(parsing.events, ElementsAre("failed:1002", "failed:1002"));
}

}  // namespace
