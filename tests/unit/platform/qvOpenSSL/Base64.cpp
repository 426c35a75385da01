// Base64 against the published examples, and against a decoder where the input is long.

#include <qvOpenSSL/Base64.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace qv::tests
{
namespace
{

constexpr const char* kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string Encoded(const std::string& data, Base64CharSet charSet = Base64CharSet::Standard)
{
    std::string out;
    base64Encode(data.data(), data.size(), out, charSet);
    return out;
}

// Bytes that repeat only after a long while.
std::string ManyBytes(size_t size)
{
    std::string bytes(size, '\0');
    uint32_t state = 1;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

// One bit after the other, so that nothing of the encoder's shape is repeated here.
std::string EncodedBitByBit(const std::string& data)
{
    std::string out;
    out.reserve(data.size() * 4 / 3 + 4);
    unsigned digit = 0;
    int bits = 0;
    for (const unsigned char byte : data) {
        for (int bit = 7; bit >= 0; --bit) {
            digit = digit << 1 | (byte >> bit & 1u);
            if (++bits == 6) {
                out += kDigits[digit];
                digit = 0;
                bits = 0;
            }
        }
    }
    if (bits > 0)
        out += kDigits[digit << (6 - bits)];
    while (out.size() % 4 != 0)
        out += '=';
    return out;
}

// First place where the two differ: texts of megabytes are nothing to print.
void ExpectSame(const std::string& actual, const std::string& expected)
{
    ASSERT_EQ(actual.size(), expected.size());
    const auto difference = std::mismatch(actual.begin(), actual.end(), expected.begin()).first;
    EXPECT_EQ(difference - actual.begin(), static_cast<std::ptrdiff_t>(expected.size()));
}

TEST(Base64, GivesThePublishedTexts)
{
    const struct
    {
        const char* data;
        const char* standard;
        const char* urlSafe;
    } rows[] = {
        {"", "", ""},
        {"f", "Zg==", "Zg"},
        {"fo", "Zm8=", "Zm8"},
        {"foo", "Zm9v", "Zm9v"},
        {"foob", "Zm9vYg==", "Zm9vYg"},
        {"fooba", "Zm9vYmE=", "Zm9vYmE"},
        {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
        {"\xFB\xFF\xFE", "+//+", "-__-"},
        {"\xFF", "/w==", "_w"},
        {"\xFB\xF0", "+/A=", "-_A"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.standard);
        EXPECT_EQ(Encoded(row.data, Base64CharSet::Standard), row.standard);
        EXPECT_EQ(Encoded(row.data, Base64CharSet::UrlSafe), row.urlSafe);
    }
}

TEST(Base64, EncodesBytesAndNotText)
{
    EXPECT_EQ(Encoded(std::string("\0\0\0", 3)), "AAAA");
    EXPECT_EQ(Encoded(std::string("a\0b", 3)), "YQBi");
}

TEST(Base64, HasTheNumbersThatProtocolsUse)
{
    EXPECT_EQ(static_cast<int>(Base64CharSet::Standard), 0);
    EXPECT_EQ(static_cast<int>(Base64CharSet::UrlSafe), 1);
}

TEST(Base64, TakesNullWithoutSize)
{
    std::string out = "kept";
    base64Encode(nullptr, 0, out, Base64CharSet::Standard);
    base64Encode(nullptr, 0, out, Base64CharSet::UrlSafe);
    EXPECT_EQ(out, "kept");
}

TEST(Base64, AppendsAndLeavesWhatWasThere)
{
    std::string out = "a+/=";
    base64Encode("\xFB\xF0", 2, out, Base64CharSet::UrlSafe);
    EXPECT_EQ(out, "a+/=-_A");
    base64Encode("f", 1, out, Base64CharSet::Standard);
    EXPECT_EQ(out, "a+/=-_AZg==");
    base64Encode("", 0, out, Base64CharSet::UrlSafe);
    EXPECT_EQ(out, "a+/=-_AZg==");
}

TEST(Base64, EncodesEveryLengthWithoutLineBreaks)
{
    for (size_t size = 0; size <= 200; ++size) {
        SCOPED_TRACE(size);
        const std::string data = ManyBytes(size);
        std::string expected = EncodedBitByBit(data);
        EXPECT_EQ(Encoded(data), expected);
        std::replace(expected.begin(), expected.end(), '+', '-');
        std::replace(expected.begin(), expected.end(), '/', '_');
        expected.erase(std::min(expected.find('='), expected.size()));
        EXPECT_EQ(Encoded(data, Base64CharSet::UrlSafe), expected);
    }
}

// Short texts are known to be right, and those of whole triples can be put together.
std::string EncodedInShortPieces(const std::string& data)
{
    constexpr size_t kPieceBytes = 3000;
    std::string out;
    for (size_t at = 0; at < data.size(); at += kPieceBytes)
        out += Encoded(data.substr(at, kPieceBytes));
    return out;
}

TEST(Base64, EncodesManyMegabytesAsOneText)
{
    constexpr size_t kThreeMebibytes = 3UL << 20;
    for (const size_t size : {kThreeMebibytes - 1, kThreeMebibytes, kThreeMebibytes + 1,
                              2 * kThreeMebibytes, 2 * kThreeMebibytes + 2}) {
        SCOPED_TRACE(size);
        const std::string data = ManyBytes(size);
        ExpectSame(Encoded(data), EncodedInShortPieces(data));
    }
}

}  // namespace
}  // namespace qv::tests
