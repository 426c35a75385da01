// The UTF-8 check.

#include "websocket/Utf8Check.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using qv::kit::websocket::isUtf8;
using qv::kit::websocket::Utf8Check;

// Decodes by the definition: the value, and the shortest form of it.
bool isUtf8Slowly(const std::string& text)
{
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const size_t size = lead < 0x80       ? 1
                            : lead >> 5 == 6  ? 2
                            : lead >> 4 == 14 ? 3
                            : lead >> 3 == 30 ? 4
                                              : 0;
        if (size == 0 || i + size > text.size())
            return false;
        uint32_t value = size == 1 ? lead : lead & (0xff >> (size + 1));
        for (size_t k = 1; k < size; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if (next >> 6 != 2)
                return false;
            value = value << 6 | (next & 0x3f);
        }
        const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (value < least[size] || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff))
            return false;
        i += size;
    }
    return true;
}

TEST(Utf8Check, AgreesWithTheDefinitionForEveryTwoBytesAndEveryLeadOfFour)
{
    std::string text;
    for (int a = 0; a < 256; ++a) {
        for (int b = 0; b < 256; ++b) {
            text = {static_cast<char>(a), static_cast<char>(b)};
            ASSERT_EQ(isUtf8(text), isUtf8Slowly(text)) << a << ' ' << b;
            for (const int c : {0x00, 0x7f, 0x80, 0xbf, 0xc0}) {
                text = {static_cast<char>(a), static_cast<char>(b), static_cast<char>(c)};
                ASSERT_EQ(isUtf8(text), isUtf8Slowly(text)) << a << ' ' << b << ' ' << c;
                text.push_back(static_cast<char>(0x80));
                ASSERT_EQ(isUtf8(text), isUtf8Slowly(text)) << a << ' ' << b << ' ' << c << " 128";
            }
        }
    }
}

TEST(Utf8Check, FindsAnInvalidByteAtEveryPositionOfALongText)
{
    for (size_t at = 0; at < 200; ++at) {
        std::string text(200, 'a');
        EXPECT_TRUE(isUtf8(text));
        text[at] = '\xff';
        EXPECT_FALSE(isUtf8(text)) << at;
    }
}

TEST(Utf8Check, DoesNotDependOnTheSplit)
{
    const std::string text = "a\xc3\xa9"
                             "bc\xe2\x82\xac"
                             "def\xf0\x9f\x98\x80"
                             "0123456789012345678901234567890123";
    for (size_t cut = 0; cut <= text.size(); ++cut) {
        Utf8Check check;
        const auto* const bytes = reinterpret_cast<const uint8_t*>(text.data());
        EXPECT_TRUE(check.feed(bytes, cut));
        EXPECT_TRUE(check.feed(bytes + cut, text.size() - cut));
        EXPECT_TRUE(check.isComplete());
    }
}

TEST(Utf8Check, FailsAtTheFirstByteThatCannotBelongToText)
{
    const struct
    {
        const char* name;
        std::string valid;
        char bad;
    } rows[] = {
        {"a lone continuation", "", '\x80'},
        {"a longer form of two bytes", "", '\xc1'},
        {"a longer form of three bytes", "\xe0", '\x9f'},
        {"a surrogate", "\xed", '\xa0'},
        {"a longer form of four bytes", "\xf0", '\x8f'},
        {"above U+10FFFF", "\xf4", '\x90'},
        {"far above U+10FFFF", "", '\xf5'},
        {"a cut-off character", "\xe2\x82", 'a'},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Utf8Check check;
        EXPECT_TRUE(
            check.feed(reinterpret_cast<const uint8_t*>(row.valid.data()), row.valid.size()));
        EXPECT_FALSE(check.feed(reinterpret_cast<const uint8_t*>(&row.bad), 1));
    }
}

}  // namespace
