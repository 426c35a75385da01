// Conditional requests and byte ranges.

#include "Conditional.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace filedrop
{

namespace
{

constexpr int64_t kNow = 1790000000;
constexpr int64_t kModified = 784887151;
const char* const kModifiedText = "Tue, 15 Nov 1994 08:12:31 GMT";
const char* const kSecondBefore = "Tue, 15 Nov 1994 08:12:30 GMT";
const char* const kSecondAfter = "Tue, 15 Nov 1994 08:12:32 GMT";
const Validators kFile = {"\"a-1\"", kModified};

std::string shown(const ByteRange& range)
{
    if (range.kind == ByteRange::Whole)
        return "whole";
    if (range.kind == ByteRange::Unsatisfiable)
        return "unsatisfiable";
    return std::to_string(range.first) + "-" + std::to_string(range.last);
}

}  // namespace

TEST(Conditional, MakesATagThatChangesWithEachProperty)
{
    const std::string tag = makeETag(0x1f, 10, 784887151, 5);
    EXPECT_EQ(tag, "\"1f-a-2ec86d6f.5\"");
    EXPECT_NE(tag, makeETag(0x20, 10, 784887151, 5));
    EXPECT_NE(tag, makeETag(0x1f, 11, 784887151, 5));
    EXPECT_NE(tag, makeETag(0x1f, 10, 784887152, 5));
    EXPECT_NE(tag, makeETag(0x1f, 10, 784887151, 6));
}

TEST(Conditional, FindsItsTagInAList)
{
    const char* rows[] = {
        "\"a-1\"",
        "W/\"a-1\"",
        "*",
        " * ",
        " \"a-1\" ",
        "\"x\", \"a-1\"",
        "\"x\",\"a-1\"",
        "\"x\" , W/\"a-1\", \"y\"",
        "\"x\",, \"a-1\"",
        "\"a,b\", \"a-1\"",
        "\"\", \"a-1\"",
    };
    for (const char* header : rows) {
        SCOPED_TRACE(header);
        EXPECT_TRUE(namesETag(header, kFile.etag));
    }
}

TEST(Conditional, DoesNotTakeAnythingElseForItsTag)
{
    const char* rows[] = {
        "",
        "a-1",
        "\"a-1",
        "a-1\"",
        "\"a-2\"",
        "\"A-1\"",
        "w/\"a-1\"",
        "W\"a-1\"",
        "\"xa-1\"",
        "\"x\" \"a-1\"",
        "\"x\"; \"a-1\"",
        "\"x\", *",
        "**",
        "\"x y\", \"a-1\"",
    };
    for (const char* header : rows) {
        SCOPED_TRACE(header);
        EXPECT_FALSE(namesETag(header, kFile.etag));
    }
}

TEST(Conditional, IsNotModifiedWhenTheTagIsKnown)
{
    Conditions conditions;
    EXPECT_FALSE(isNotModified(conditions, kFile, kNow));
    conditions.ifNoneMatch = "\"a-1\"";
    EXPECT_TRUE(isNotModified(conditions, kFile, kNow));
    conditions.ifNoneMatch = "\"other\"";
    EXPECT_FALSE(isNotModified(conditions, kFile, kNow));
}

TEST(Conditional, LooksAtTheDateOnlyWithoutTag)
{
    Conditions conditions;
    conditions.ifModifiedSince = kModifiedText;
    EXPECT_TRUE(isNotModified(conditions, kFile, kNow));
    conditions.ifModifiedSince = kSecondAfter;
    EXPECT_TRUE(isNotModified(conditions, kFile, kNow));
    conditions.ifModifiedSince = kSecondBefore;
    EXPECT_FALSE(isNotModified(conditions, kFile, kNow));
    conditions.ifModifiedSince = "yesterday";
    EXPECT_FALSE(isNotModified(conditions, kFile, kNow));

    conditions.ifModifiedSince = kSecondAfter;
    conditions.ifNoneMatch = "\"other\"";
    EXPECT_FALSE(isNotModified(conditions, kFile, kNow));
}

TEST(Conditional, ReadsSingleRanges)
{
    const struct
    {
        const char* header;
        uint64_t size;
        const char* range;
    } rows[] = {
        {"bytes=0-0", 10, "0-0"},
        {"bytes=0-9", 10, "0-9"},
        {"bytes=0-10", 10, "0-9"},
        {"bytes=9-9", 10, "9-9"},
        {"bytes=9-", 10, "9-9"},
        {"bytes=0-", 10, "0-9"},
        {"bytes=-1", 10, "9-9"},
        {"bytes=-10", 10, "0-9"},
        {"bytes=-11", 10, "0-9"},
        {"bytes=3-5", 10, "3-5"},
        {"BYTES=3-5", 10, "3-5"},
        {"bytes= 3-5 ", 10, "3-5"},
        {"bytes=3-99999999999999999999999999", 10, "3-9"},
        {"bytes=-99999999999999999999999999", 10, "0-9"},
        {"bytes=4294967296-4294967297", 8589934592, "4294967296-4294967297"},
        {"bytes=10-", 10, "unsatisfiable"},
        {"bytes=10-11", 10, "unsatisfiable"},
        {"bytes=99999999999999999999999999-", 10, "unsatisfiable"},
        {"bytes=-0", 10, "unsatisfiable"},
        {"bytes=0-", 0, "unsatisfiable"},
        {"bytes=0-0", 0, "unsatisfiable"},
        {"bytes=-1", 0, "unsatisfiable"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.header);
        EXPECT_EQ(shown(parseRange(row.header, row.size)), row.range);
    }
}

TEST(Conditional, SendsTheWholeForRangesItDoesNotServe)
{
    const char* rows[] = {
        "",           "bytes",      "bytes=",        "bytes=-",     "bytes=a-b",
        "bytes=5-3",  "bytes=0-1,", "bytes=0-1,3-4", "bytes=0--1",  "bytes=--1",
        "bytes=0",    "bytes=+1-2", "bytes=0x1-",    "bytes=1 - 2", "bytes 0-1",
        "octets=0-1", "=0-1",       "bytes=1.0-2",   "bytes=0-1-2", "bytes=-5,1-2",
        "bytes=1-2;", "byte=0-1",   "bytess=0-1",    "bytes =0-1",
    };
    for (const char* header : rows) {
        SCOPED_TRACE(header);
        EXPECT_EQ(shown(parseRange(header, 10)), "whole");
    }
}

TEST(Conditional, SendsTheRangeOnlyOfTheStateThatIfRangeNames)
{
    const struct
    {
        const char* ifRange;
        const char* range;
    } rows[] = {
        {"\"a-1\"", "2-4"},      {" \"a-1\" ", "2-4"},        {kModifiedText, "2-4"},
        {"W/\"a-1\"", "whole"},  {"\"other\"", "whole"},      {"*", "whole"},
        {"", "whole"},           {"\"a-1\", \"b\"", "whole"}, {kSecondBefore, "whole"},
        {kSecondAfter, "whole"}, {"yesterday", "whole"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.ifRange);
        Conditions conditions;
        conditions.range = "bytes=2-4";
        conditions.ifRange = row.ifRange;
        EXPECT_EQ(shown(chooseRange(conditions, kFile, 10, kNow)), row.range);
    }
}

TEST(Conditional, IgnoresIfRangeWithoutRange)
{
    Conditions conditions;
    conditions.ifRange = "\"a-1\"";
    EXPECT_EQ(shown(chooseRange(conditions, kFile, 10, kNow)), "whole");
    conditions.range = "bytes=20-";
    EXPECT_EQ(shown(chooseRange(conditions, kFile, 10, kNow)), "unsatisfiable");
    conditions.ifRange = "\"other\"";
    EXPECT_EQ(shown(chooseRange(conditions, kFile, 10, kNow)), "whole");
}

}  // namespace filedrop
