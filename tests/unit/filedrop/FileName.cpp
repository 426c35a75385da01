// Which names are let through to the file system.

#include "FileName.h"

#include <gtest/gtest.h>

#include <string>

namespace filedrop
{

namespace
{

std::string operator""_s(const char* text, size_t size)
{
    return std::string(text, size);
}

}  // namespace

TEST(FileName, AcceptsOneSegmentOfUtf8)
{
    const std::string rows[] = {
        "a",
        "report.pdf",
        ".profile",
        "...",
        "..a",
        "a b",
        "a\\b",
        "a%2Fb",
        "-rf",
        "~",
        "\"<x>&'",
        "\xc3\xa9t\xc3\xa9",
        "\xf0\x9f\x8e\x89",
        "\xe6\x96\x87\xe4\xbb\xb6.txt",
        std::string(255, 'n'),
        ".filedrop-uploads",
        ".filedrop-uploa",
    };
    for (const std::string& name : rows) {
        SCOPED_TRACE(name);
        EXPECT_EQ(refusalOfName(name), "");
    }
}

TEST(FileName, RefusesWhatIsNoNameAndSaysWhy)
{
    const struct
    {
        const char* what;
        std::string name;
        const char* refusal;
    } rows[] = {
        {"empty", "", "A file needs a name."},
        {"one byte too long", std::string(256, 'n'), "The name is longer than 255 bytes."},
        {"85 characters of three bytes and one", std::string(253, 'n') + "\xe6\x96\x87",
         "The name is longer than 255 bytes."},
        {"slash", "a/b", "A name cannot contain a slash."},
        {"slash first", "/etc", "A name cannot contain a slash."},
        {"parent and slash", "../x", "A name cannot contain a slash."},
        {"NUL", "a\0b"_s, "A name cannot contain control characters."},
        {"only NUL", "\0"_s, "A name cannot contain control characters."},
        {"line feed", "a\nb", "A name cannot contain control characters."},
        {"carriage return", "a\rb", "A name cannot contain control characters."},
        {"escape", "a\x1b[2J", "A name cannot contain control characters."},
        {"last control character", "a\x1f", "A name cannot contain control characters."},
        {"delete", "a\x7f", "A name cannot contain control characters."},
        {"first C1 control", "a\xc2\x80", "A name cannot contain control characters."},
        {"last C1 control", "a\xc2\x9f", "A name cannot contain control characters."},
        {"this directory", ".", "A file cannot have this name."},
        {"parent directory", "..", "A file cannot have this name."},
        {"temporary", ".filedrop-upload-00ff",
         "Names that begin like this are kept for unfinished uploads."},
        {"temporary prefix alone", ".filedrop-upload-",
         "Names that begin like this are kept for unfinished uploads."},
        {"Latin-1", "\xe9t\xe9", "The name is not valid UTF-8."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(refusalOfName(row.name), row.refusal);
    }
}

TEST(FileName, KnowsTemporaryNames)
{
    EXPECT_TRUE(isTemporaryName(".filedrop-upload-0123"));
    EXPECT_TRUE(isTemporaryName(".filedrop-upload-"));
    EXPECT_FALSE(isTemporaryName(".filedrop-upload"));
    EXPECT_FALSE(isTemporaryName("x.filedrop-upload-0123"));
    EXPECT_FALSE(isTemporaryName(""));
}

TEST(FileName, AcceptsEachBoundaryOfUtf8)
{
    const std::string rows[] = {
        "",
        "\0"_s,
        "\x7f",
        "\xc2\x80",
        "\xdf\xbf",
        "\xe0\xa0\x80",
        "\xed\x9f\xbf",
        "\xee\x80\x80",
        "\xef\xbf\xbf",
        "\xf0\x90\x80\x80",
        "\xf4\x8f\xbf\xbf",
    };
    for (const std::string& text : rows) {
        SCOPED_TRACE(testing::PrintToString(text));
        EXPECT_TRUE(isUtf8(text));
        EXPECT_TRUE(isUtf8("a" + text + "b"));
    }
}

TEST(FileName, RefusesEachClassOfBadUtf8)
{
    const struct
    {
        const char* what;
        std::string text;
    } rows[] = {
        {"lone continuation", "\x80"},
        {"last continuation", "\xbf"},
        {"two bytes for ASCII", "\xc0\xaf"},
        {"two bytes for DEL", "\xc1\xbf"},
        {"cut after one of two", "\xc3"},
        {"cut after one of three", "\xe6"},
        {"cut after two of three", "\xe6\x96"},
        {"cut after three of four", "\xf0\x9f\x8e"},
        {"second byte no continuation", "\xc3("},
        {"third byte no continuation", "\xe6\x96("},
        {"fourth byte no continuation", "\xf0\x9f\x8e("},
        {"three bytes for two", "\xe0\x9f\xbf"},
        {"four bytes for three", "\xf0\x8f\xbf\xbf"},
        {"first surrogate", "\xed\xa0\x80"},
        {"last surrogate", "\xed\xbf\xbf"},
        {"above the last character", "\xf4\x90\x80\x80"},
        {"F5", "\xf5\x80\x80\x80"},
        {"FE", "\xfe"},
        {"FF", "\xff"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_FALSE(isUtf8(row.text));
        EXPECT_FALSE(isUtf8("a" + row.text));
        EXPECT_FALSE(isUtf8(row.text + "b"));
    }
}

}  // namespace filedrop
