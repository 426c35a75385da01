// Headers, masks and close payloads.

#include "websocket/Frame.h"

#include "Support.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace
{

using namespace qv::kit::websocket;

std::vector<uint8_t> pattern(size_t size)
{
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(i * 131 + i / 256);
    return bytes;
}

TEST(Unmask, IsTheXorOfEachByteForEverySizeAlignmentAndSplit)
{
    constexpr std::array<uint8_t, 4> key{0x12, 0xa7, 0x00, 0xff};
    uint32_t mask;
    std::memcpy(&mask, key.data(), sizeof mask);
    for (size_t size = 0; size < 300; ++size) {
        for (size_t offset = 0; offset < 17; ++offset) {
            std::vector<uint8_t> bytes = pattern(size + offset);
            std::vector<uint8_t> expected = bytes;
            for (size_t i = 0; i < size; ++i)
                expected[offset + i] ^= key[i % 4];
            const size_t cut = size * offset / 17;
            const uint32_t turned = unmask(bytes.data() + offset, bytes.data() + offset, cut, mask);
            unmask(bytes.data() + offset + cut, bytes.data() + offset + cut, size - cut, turned);
            ASSERT_EQ(bytes, expected) << size << " bytes at " << offset << ", cut at " << cut;
        }
    }
}

TEST(Unmask, LeavesTheSourceAloneWhenItCopies)
{
    const std::vector<uint8_t> in = pattern(1000);
    std::vector<uint8_t> out(1000);
    unmask(out.data(), in.data(), 1000, 0x01020304);
    EXPECT_EQ(in, pattern(1000));
    unmask(out.data(), out.data(), 1000, 0x01020304);
    EXPECT_EQ(out, in);
}

TEST(FrameHeader, OfAServerIsNotMaskedAndHasTheShortestLength)
{
    const struct
    {
        uint64_t length;
        std::vector<uint8_t> bytes;
    } rows[] = {
        {0, {0x82, 0}},
        {125, {0x82, 125}},
        {126, {0x82, 126, 0, 126}},
        {65535, {0x82, 126, 0xff, 0xff}},
        {65536, {0x82, 127, 0, 0, 0, 0, 0, 1, 0, 0}},
        {uint64_t{1} << 62, {0x82, 127, 0x40, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.length);
        std::vector<uint8_t> header(kMaxServerHeaderBytes);
        header.resize(writeFrameHeader(header.data(), Opcode::Binary, false, row.length));
        EXPECT_EQ(header, row.bytes);
    }
}

TEST(FrameHeader, OfACompressedMessageHasTheFirstReservedBit)
{
    uint8_t header[kMaxServerHeaderBytes];
    EXPECT_EQ(writeFrameHeader(header, Opcode::Text, true, 5), 2u);
    EXPECT_EQ(header[0], 0xc1);
}

TEST(ClosePayload, CodesThatMustNotBeSentAreInvalid)
{
    for (const int code : {0, 1, 999, 1004, 1005, 1006, 1015, 1016, 1100, 2000, 2999, 5000, 65535})
        EXPECT_FALSE(isCloseCode(static_cast<uint16_t>(code))) << code;
    for (const int code : {1000, 1001, 1002, 1003, 1007, 1008, 1009, 1010, 1011, 1012, 1013, 1014,
                           3000, 3999, 4000, 4999})
        EXPECT_TRUE(isCloseCode(static_cast<uint16_t>(code))) << code;
}

TEST(ClosePayload, IsReadWithCodeAndReason)
{
    const auto read = [](std::string_view payload) {
        return readClosePayload(reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
    };
    EXPECT_EQ(read("").code, 1005);
    EXPECT_EQ(read("").failure, 0);
    EXPECT_EQ(read("\x03").failure, 1002);
    EXPECT_EQ(read("\x03\xe8").code, 1000);
    const CloseStatus whole = read("\x03\xe9going");
    EXPECT_EQ(whole.code, 1001);
    EXPECT_EQ(whole.reason, "going");
    EXPECT_EQ(whole.failure, 0);
    EXPECT_EQ(read("\x03\xed").failure, 1002) << "1005";
    EXPECT_EQ(read("\x03\xe8\xff").failure, 1007);
    EXPECT_EQ(read("\x03\xe8\xe2\x82").failure, 1007) << "a character is cut off";
}

TEST(ClosePayload, CutsALongReasonAtTheEndOfACharacter)
{
    EXPECT_EQ(makeClosePayload(1005, "not sent"), "");
    EXPECT_EQ(makeClosePayload(1000, ""), std::string("\x03\xe8", 2));
    EXPECT_EQ(makeClosePayload(1000, std::string(200, 'r')),
              std::string("\x03\xe8", 2) + std::string(123, 'r'));
    const std::string euro = "\xe2\x82\xac";
    EXPECT_EQ(makeClosePayload(1000, std::string(122, 'r') + euro),
              std::string("\x03\xe8", 2) + std::string(122, 'r'));
    EXPECT_EQ(makeClosePayload(1000, std::string(120, 'r') + euro),
              std::string("\x03\xe8", 2) + std::string(120, 'r') + euro);
}

}  // namespace
