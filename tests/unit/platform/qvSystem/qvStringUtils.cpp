// Which bytes count as not printable.

#include <qvSystem/qvStringUtils.h>

#include <gtest/gtest.h>

namespace qv::tests
{
namespace
{

TEST(qvStringUtils, CallsExactlyTheControlCharactersNotPrintable)
{
    for (int byte = 0; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        const bool expected = byte < 0x20 || byte == 0x7F;
        const std::string alone(1, static_cast<char>(byte));
        EXPECT_EQ(qvStringUtils::ContainsAsciiNonPrintableChar(alone), expected);
        EXPECT_EQ(qvStringUtils::ContainsAsciiNonPrintableChar(alone + "abc"), expected);
        EXPECT_EQ(qvStringUtils::ContainsAsciiNonPrintableChar("a" + alone + "bc"), expected);
        EXPECT_EQ(qvStringUtils::ContainsAsciiNonPrintableChar("abc" + alone), expected);
    }
}

TEST(qvStringUtils, FindsNothingInEmptyText)
{
    EXPECT_FALSE(qvStringUtils::ContainsAsciiNonPrintableChar(""));
}

}  // namespace
}  // namespace qv::tests
