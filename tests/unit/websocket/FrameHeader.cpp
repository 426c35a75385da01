// The header of a client's frame, parsed, and of a server's, written.

#include "websocket/Support.h"

#include <limits>

namespace qv::tests
{
namespace
{

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr MaskKey kKey{0xa1, 0xb2, 0xc3, 0xd4};
constexpr uint64_t kMaxUint64 = std::numeric_limits<uint64_t>::max();

// The values of the outputs before the call.
constexpr MaskKey kKeyBefore{0xee, 0xee, 0xee, 0xee};
constexpr size_t kLengthBefore = 987654321;
constexpr size_t kHeaderBefore = 123456789;

constexpr uint8_t kFinText = 0x81;

struct Parsed
{
    bool isFinal = false;
    bool error = true;
    bool isBinary = false;
    bool fin = false;
    MaskKey key = kKeyBefore;
    size_t payloadLength = kLengthBefore;
    size_t headerSize = kHeaderBefore;
};

// The bytes behind `header` are 0xff, up to the 14 bytes that the function may read.
Parsed Parse(Bytes header, size_t available, bool expectFirstFrame = true, Parsed before = {})
{
    header.resize(14, 0xff);
    before.isFinal = WebSocket::GetLength(
        header.data(), available, expectFirstFrame, before.key.data(), before.payloadLength,
        before.headerSize, before.error, before.isBinary, before.fin);
    return before;
}

TEST(FrameHeader, ChangesNothingButTheErrorBelowSixBytes)
{
    for (const bool before : {false, true}) {
        Parsed outputs;
        outputs.isBinary = outputs.fin = before;
        // Byte 0 would be a protocol error, a first binary frame and a last text frame.
        for (const uint8_t first : {0x83, 0x02, 0x81}) {
            for (size_t available = 0; available < 6; ++available) {
                SCOPED_TRACE(testing::Message() << int(first) << ", " << available << " bytes");
                const Parsed parsed = Parse({first, 0x80}, available, true, outputs);
                EXPECT_FALSE(parsed.isFinal);
                EXPECT_FALSE(parsed.error);
                EXPECT_EQ(parsed.isBinary, before);
                EXPECT_EQ(parsed.fin, before);
                EXPECT_EQ(parsed.key, kKeyBefore);
                EXPECT_EQ(parsed.payloadLength, kLengthBefore);
                EXPECT_EQ(parsed.headerSize, kHeaderBefore);
            }
        }
    }
}

// A server that has not seen the key cannot do anything with an empty frame either.
TEST(FrameHeader, WaitsForTheKeyOfAnEmptyFrame)
{
    const Bytes header = ClientHeader(kFinText, 0, kKey);
    EXPECT_FALSE(Parse(header, 2).isFinal);
    EXPECT_FALSE(Parse(header, 5).isFinal);
    EXPECT_TRUE(Parse(header, 6).isFinal);
}

struct LengthRow
{
    const char* name;
    uint64_t length;
    LengthForm form;
    size_t headerSize;
};

void PrintTo(const LengthRow& row, std::ostream* out)
{
    *out << row.name;
}

class FrameHeaderLength : public testing::TestWithParam<LengthRow>
{};

TEST_P(FrameHeaderLength, IsFinalExactlyWhenTheWholeFrameIsBuffered)
{
    const LengthRow& row = GetParam();
    const Bytes header = ClientHeader(kFinText, row.length, kKey, row.form);
    ASSERT_EQ(header.size(), row.headerSize);
    const size_t whole = row.headerSize + row.length;
    // A length of eight bytes is not looked at before it is there.
    const size_t lengthKnown = row.form == LengthForm::EightBytes ? 10 : 6;
    for (size_t available = 0; available < whole; ++available) {
        const Parsed parsed = Parse(header, available);
        ASSERT_FALSE(parsed.isFinal) << available;
        ASSERT_FALSE(parsed.error) << available;
        ASSERT_EQ(parsed.fin, available >= 6) << available;
        ASSERT_EQ(parsed.key, kKeyBefore) << available;
        ASSERT_EQ(parsed.headerSize, kHeaderBefore) << available;
        ASSERT_EQ(parsed.payloadLength, available < lengthKnown ? kLengthBefore : row.length)
            << available;
    }
    for (const size_t available : {whole, whole + 1, whole + 1000}) {
        SCOPED_TRACE(available);
        const Parsed parsed = Parse(header, available);
        EXPECT_TRUE(parsed.isFinal);
        EXPECT_FALSE(parsed.error);
        EXPECT_TRUE(parsed.fin);
        EXPECT_EQ(parsed.key, kKey);
        EXPECT_EQ(parsed.headerSize, row.headerSize);
        EXPECT_EQ(parsed.payloadLength, row.length);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FrameHeaderLength,
    testing::Values(LengthRow{"0", 0, LengthForm::OneByte, 6},
                    LengthRow{"1", 1, LengthForm::OneByte, 6},
                    LengthRow{"124", 124, LengthForm::OneByte, 6},
                    LengthRow{"125, the most in one byte", 125, LengthForm::OneByte, 6},
                    LengthRow{"126, the least that needs two", 126, LengthForm::TwoBytes, 8},
                    LengthRow{"255", 255, LengthForm::TwoBytes, 8},
                    LengthRow{"256", 256, LengthForm::TwoBytes, 8},
                    LengthRow{"32768", 32768, LengthForm::TwoBytes, 8},
                    LengthRow{"65535, the most in two bytes", 65535, LengthForm::TwoBytes, 8},
                    LengthRow{"65536, the least that needs eight", 65536, LengthForm::EightBytes,
                              14},
                    LengthRow{"131001", 131001, LengthForm::EightBytes, 14},
                    LengthRow{"262001", 262001, LengthForm::EightBytes, 14},
                    LengthRow{"0 in two bytes", 0, LengthForm::TwoBytes, 8},
                    LengthRow{"125 in two bytes", 125, LengthForm::TwoBytes, 8},
                    LengthRow{"0 in eight bytes", 0, LengthForm::EightBytes, 14},
                    LengthRow{"125 in eight bytes", 125, LengthForm::EightBytes, 14},
                    LengthRow{"126 in eight bytes", 126, LengthForm::EightBytes, 14},
                    LengthRow{"65535 in eight bytes", 65535, LengthForm::EightBytes, 14}));

TEST(FrameHeader, ReadsAllEightBytesOfALength)
{
    const Bytes header = ClientHeader(kFinText, 0x0102030405060708, kKey);
    const Parsed parsed = Parse(header, 0x0102030405060708 + 14);
    EXPECT_TRUE(parsed.isFinal);
    EXPECT_EQ(parsed.payloadLength, 0x0102030405060708u);
    EXPECT_FALSE(Parse(header, 0x0102030405060708 + 13).isFinal);
}

TEST(FrameHeader, WaitsForFramesOfAnyLengthThatCanBeAddedUp)
{
    for (const uint64_t length : {uint64_t{1} << 32, (uint64_t{1} << 63) - 1, uint64_t{1} << 63,
                                  (uint64_t{1} << 63) + 1, kMaxUint64 - 15, kMaxUint64 - 14}) {
        SCOPED_TRACE(length);
        const Bytes header = ClientHeader(kFinText, length, kKey);
        for (const size_t available : {size_t{10}, size_t{14}, size_t{1} << 20, length + 13}) {
            const Parsed parsed = Parse(header, available);
            EXPECT_FALSE(parsed.isFinal) << available;
            EXPECT_FALSE(parsed.error) << available;
            EXPECT_EQ(parsed.payloadLength, length) << available;
        }
        EXPECT_TRUE(Parse(header, length + 14).isFinal);
    }
}

// Length and header together wrap around to 0 to 13 bytes.
TEST(FrameHeader, TakesAFrameWhoseSumWrapsAroundForBufferedAsRequired)
{
    for (uint64_t sum = 0; sum <= 13; ++sum) {
        const uint64_t length = kMaxUint64 - 13 + sum;
        SCOPED_TRACE(length);
        const Bytes header = ClientHeader(kFinText, length, kKey);
        for (size_t available = 6; available <= 20; ++available) {
            const Parsed parsed = Parse(header, available);
            EXPECT_EQ(parsed.isFinal, available >= 10 && available >= sum) << available;
            EXPECT_FALSE(parsed.error);
            if (parsed.isFinal) {
                EXPECT_EQ(parsed.payloadLength, length);
                EXPECT_EQ(parsed.headerSize, 14u);
                EXPECT_EQ(parsed.key, kKey);
            }
        }
    }
}

TEST(FrameHeader, LooksAtTheTwoLowBitsOfTheOpcodeOnlyAsRequired)
{
    enum Class { Continuation, Text, Binary, Error };
    const struct
    {
        const char* name;
        uint8_t opcode;
        Class taken;
    } rows[] = {
        {"continuation", 0x0, Continuation},
        {"text", 0x1, Text},
        {"binary", 0x2, Binary},
        {"reserved 3", 0x3, Error},
        {"reserved 4", 0x4, Continuation},
        {"reserved 5", 0x5, Text},
        {"reserved 6", 0x6, Binary},
        {"reserved 7", 0x7, Error},
        {"close", 0x8, Continuation},
        {"ping", 0x9, Text},
        {"pong", 0xa, Binary},
        {"reserved 11", 0xb, Error},
        {"reserved 12", 0xc, Continuation},
        {"reserved 13", 0xd, Text},
        {"reserved 14", 0xe, Binary},
        {"reserved 15", 0xf, Error},
    };
    for (const auto& row : rows) {
        for (int upper = 0; upper < 16; ++upper) {  // FIN and the reserved bits
            for (const bool expectFirst : {false, true}) {
                for (const bool binaryBefore : {false, true}) {
                    SCOPED_TRACE(testing::Message()
                                 << row.name << ", upper bits " << upper
                                 << (expectFirst ? ", first" : ", later")
                                 << (binaryBefore ? ", binary before" : ", text before"));
                    const auto first = static_cast<uint8_t>(upper << 4 | row.opcode);
                    const bool refused =
                        row.taken == Error || (row.taken == Continuation && expectFirst);
                    Parsed before;
                    before.isBinary = binaryBefore;
                    before.fin = (first & 0x80) == 0;
                    const Parsed parsed =
                        Parse(ClientHeader(first, 5, kKey), 11, expectFirst, before);
                    EXPECT_TRUE(parsed.isFinal);
                    EXPECT_EQ(parsed.error, refused);
                    EXPECT_EQ(parsed.fin, (first & 0x80) != 0);
                    const bool changesType = row.taken == Text || row.taken == Binary;
                    EXPECT_EQ(parsed.isBinary, changesType ? row.taken == Binary : binaryBefore);
                    EXPECT_EQ(parsed.payloadLength, refused ? kLengthBefore : 5);
                    EXPECT_EQ(parsed.headerSize, refused ? kHeaderBefore : 6);
                    EXPECT_EQ(parsed.key, refused ? kKeyBefore : kKey);
                }
            }
        }
    }
}

TEST(FrameHeader, RefusesBeforeTheFrameIsWhole)
{
    for (const size_t announced : {5, 300, 70000}) {
        for (const size_t available : {6, 8, 10, 14}) {
            EXPECT_TRUE(Parse(ClientHeader(0x83, announced, kKey), available).error);
            EXPECT_TRUE(Parse(ClientHeader(0x83, announced, kKey), available).isFinal);
            EXPECT_TRUE(Parse(ClientHeader(0x83, announced, kKey), available, false).error);
            EXPECT_TRUE(Parse(ClientHeader(0x80, announced, kKey), available).error);
            EXPECT_FALSE(Parse(ClientHeader(0x80, announced, kKey), available, false).error);
        }
    }
}

TEST(FrameHeader, TellsTheTypeBeforeTheFrameIsWhole)
{
    const Parsed binary = Parse(ClientHeader(0x02, 500, kKey), 6);
    EXPECT_FALSE(binary.isFinal);
    EXPECT_TRUE(binary.isBinary);
    EXPECT_FALSE(binary.fin);
    Parsed before;
    before.isBinary = true;
    const Parsed text = Parse(ClientHeader(0x81, 70000, kKey), 9, false, before);
    EXPECT_FALSE(text.isFinal);
    EXPECT_FALSE(text.isBinary);
    EXPECT_TRUE(text.fin);
}

TEST(FrameHeader, TakesAKeyForGrantedWithoutTheMaskBitAsRequired)
{
    for (const uint64_t length : {5, 300, 70000}) {
        SCOPED_TRACE(length);
        Bytes header = ClientHeader(kFinText, length, kKey);
        header[1] &= 0x7f;
        const size_t whole = header.size() + length;
        EXPECT_FALSE(Parse(header, whole - 1).isFinal);
        const Parsed parsed = Parse(header, whole);
        EXPECT_TRUE(parsed.isFinal);
        EXPECT_FALSE(parsed.error);
        EXPECT_EQ(parsed.key, kKey);
        EXPECT_EQ(parsed.headerSize, header.size());
        EXPECT_EQ(parsed.payloadLength, length);
    }
}

// The header in a buffer of twelve bytes. Bytes that were not written are 0xee.
Bytes Written(size_t length, bool isBinary, bool isFirstFrame, bool fin)
{
    Bytes buffer(12, 0xee);
    size_t headerSize = 0;
    WebSocket::WriteHeader(buffer.data(), length, isBinary, isFirstFrame, fin, headerSize);
    EXPECT_LE(headerSize, 10u);
    for (size_t i = headerSize; i < buffer.size(); ++i)
        EXPECT_EQ(buffer[i], 0xee) << "behind the header at " << i;
    buffer.resize(headerSize);
    return buffer;
}

TEST(FrameHeader, IsWrittenWithTheShortestLength)
{
    const struct
    {
        size_t length;
        Bytes expected;
    } rows[] = {
        {0, {0x82, 0}},
        {1, {0x82, 1}},
        {125, {0x82, 125}},
        {126, {0x82, 126, 0, 126}},
        {127, {0x82, 126, 0, 127}},
        {255, {0x82, 126, 0, 255}},
        {256, {0x82, 126, 1, 0}},
        {0x1234, {0x82, 126, 0x12, 0x34}},
        {65535, {0x82, 126, 255, 255}},
        {65536, {0x82, 127, 0, 0, 0, 0, 0, 1, 0, 0}},
        {131000, {0x82, 127, 0, 0, 0, 0, 0, 1, 0xff, 0xb8}},
        {0x0102030405060708, {0x82, 127, 1, 2, 3, 4, 5, 6, 7, 8}},
        {kMaxUint64, {0x82, 127, 255, 255, 255, 255, 255, 255, 255, 255}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.length);
        EXPECT_THAT(Written(row.length, true, true, true), ElementsAreArray(row.expected));
    }
}

TEST(FrameHeader, IsWrittenWithTheTypeInTheFirstFrameOnly)
{
    const struct
    {
        bool isBinary, isFirstFrame, fin;
        uint8_t expected;
    } rows[] = {
        {false, false, false, 0x00}, {true, false, false, 0x00}, {false, true, false, 0x01},
        {true, true, false, 0x02},   {false, false, true, 0x80}, {true, false, true, 0x80},
        {false, true, true, 0x81},   {true, true, true, 0x82},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(int(row.expected));
        EXPECT_THAT(Written(7, row.isBinary, row.isFirstFrame, row.fin),
                    ElementsAre(row.expected, 7));
        EXPECT_THAT(Written(700, row.isBinary, row.isFirstFrame, row.fin),
                    ElementsAre(row.expected, 126, 2, 188));
        EXPECT_THAT(Written(70000, row.isBinary, row.isFirstFrame, row.fin),
                    ElementsAre(row.expected, 127, 0, 0, 0, 0, 0, 1, 0x11, 0x70));
    }
}

}  // namespace
}  // namespace qv::tests
