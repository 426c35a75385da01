// Conditional requests and byte ranges.

#include "Conditional.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace qv::kit
{
namespace
{

constexpr int64_t kNow = 1790000000;
constexpr int64_t kModified = 784887151;
constexpr const char* kModifiedText = "Tue, 15 Nov 1994 08:12:31 GMT";
constexpr const char* kSecondBefore = "Tue, 15 Nov 1994 08:12:30 GMT";
constexpr const char* kSecondAfter = "Tue, 15 Nov 1994 08:12:32 GMT";
const Validators kFile = {"\"a-1\"", kModified};
const Validators kWeakFile = {"W/\"a-1\"", kModified};

std::string shown(const ByteRanges& ranges)
{
    if (ranges.kind == ByteRanges::Whole)
        return "whole";
    if (ranges.kind == ByteRanges::Unsatisfiable)
        return "unsatisfiable";
    std::string text;
    for (const ByteRange& range : ranges.parts)
        text += (text.empty() ? "" : ",") + std::to_string(range.first) + "-" +
                std::to_string(range.last);
    return text;
}

TEST(Conditional, MakesATagThatChangesWithEachProperty)
{
    const timespec modified{784887151, 5};
    const timespec changed{784887160, 7};
    const std::string tag = makeETag(0x1f, 10, modified, changed);
    EXPECT_EQ(tag, "\"1f-a-2ec86d6f.5-2ec86d78.7\"");
    EXPECT_NE(tag, makeETag(0x20, 10, modified, changed));
    EXPECT_NE(tag, makeETag(0x1f, 11, modified, changed));
    EXPECT_NE(tag, makeETag(0x1f, 10, {784887152, 5}, changed));
    EXPECT_NE(tag, makeETag(0x1f, 10, {784887151, 6}, changed));
    EXPECT_NE(tag, makeETag(0x1f, 10, modified, {784887161, 7}));
    EXPECT_NE(tag, makeETag(0x1f, 10, modified, {784887160, 8}));
    constexpr int64_t kLargest = INT64_MAX;
    const timespec latest{kLargest, 999999999};
    EXPECT_EQ(makeETag(UINT64_MAX, UINT64_MAX, latest, latest),
              "\"ffffffffffffffff-ffffffffffffffff-7fffffffffffffff.3b9ac9ff"
              "-7fffffffffffffff.3b9ac9ff\"");
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
        ", \"a-1\"",
        "\"a,b\", \"a-1\"",
        "\"\", \"a-1\"",
    };
    for (const char* header : rows) {
        SCOPED_TRACE(header);
        EXPECT_TRUE(namesETag(header, kFile.etag, false));
        EXPECT_TRUE(namesETag(header, kWeakFile.etag, false));
        const bool isWeak = std::string(header).find("W/") != std::string::npos;
        EXPECT_EQ(namesETag(header, kFile.etag, true), !isWeak);
        const bool isAny = std::string(header).find('*') != std::string::npos;
        EXPECT_EQ(namesETag(header, kWeakFile.etag, true), isAny);
    }
}

TEST(Conditional, DoesNotTakeAnythingElseForItsTag)
{
    const char* rows[] = {
        "",
        ",",
        "a-1",
        "\"a-1",
        "a-1\"",
        "\"a-2\"",
        "\"A-1\"",
        "w/\"a-1\"",
        "W\"a-1\"",
        "W/",
        "W/\"",
        "\"xa-1\"",
        "\"x\" \"a-1\"",
        "\"x\"; \"a-1\"",
        "\"x\", *",
        "**",
        "\"x y\", \"a-1\"",
    };
    for (const char* header : rows) {
        SCOPED_TRACE(header);
        EXPECT_FALSE(namesETag(header, kFile.etag, false));
        EXPECT_FALSE(namesETag(header, kFile.etag, true));
    }
    EXPECT_FALSE(namesETag("\"\", W/\"\"", "", false));
}

// Each condition alone, and the precedence of RFC 9110, section 13.2.2.
TEST(Conditional, EvaluatesInOrder)
{
    constexpr auto kMet = Condition::Met;
    constexpr auto kNotModified = Condition::NotModified;
    constexpr auto kFailed = Condition::Failed;
    const struct
    {
        const char* what;
        const char* ifMatch;
        const char* ifUnmodifiedSince;
        const char* ifNoneMatch;
        const char* ifModifiedSince;
        Condition outcome;
    } rows[] = {
        {"none", nullptr, nullptr, nullptr, nullptr, kMet},
        {"If-Match names it", "\"a-1\"", nullptr, nullptr, nullptr, kMet},
        {"If-Match: *", "*", nullptr, nullptr, nullptr, kMet},
        {"If-Match names others", "\"b\"", nullptr, nullptr, nullptr, kFailed},
        {"If-Match compares strongly", "W/\"a-1\"", nullptr, nullptr, nullptr, kFailed},
        {"If-Match is malformed", "a-1", nullptr, nullptr, nullptr, kFailed},
        {"unmodified since its date", nullptr, kModifiedText, nullptr, nullptr, kMet},
        {"unmodified since later", nullptr, kSecondAfter, nullptr, nullptr, kMet},
        {"modified since", nullptr, kSecondBefore, nullptr, nullptr, kFailed},
        {"a malformed date", nullptr, "yesterday", nullptr, nullptr, kMet},
        {"If-Match goes before If-Unmodified-Since", "\"a-1\"", kSecondBefore, nullptr, nullptr,
         kMet},
        {"and fails before it", "\"b\"", kSecondAfter, nullptr, nullptr, kFailed},
        {"If-None-Match names it", nullptr, nullptr, "\"a-1\"", nullptr, kNotModified},
        {"weakly", nullptr, nullptr, "W/\"a-1\"", nullptr, kNotModified},
        {"If-None-Match: *", nullptr, nullptr, "*", nullptr, kNotModified},
        {"If-None-Match names others", nullptr, nullptr, "\"b\"", nullptr, kMet},
        {"modified since its date", nullptr, nullptr, nullptr, kModifiedText, kNotModified},
        {"modified since later", nullptr, nullptr, nullptr, kSecondAfter, kNotModified},
        {"modified since before", nullptr, nullptr, nullptr, kSecondBefore, kMet},
        {"a malformed date", nullptr, nullptr, nullptr, "yesterday", kMet},
        {"an empty date", nullptr, nullptr, nullptr, "", kMet},
        {"If-None-Match goes before If-Modified-Since", nullptr, nullptr, "\"b\"", kSecondAfter,
         kMet},
        {"both sides, met and known", "\"a-1\"", nullptr, "\"a-1\"", nullptr, kNotModified},
        {"both sides, failed and known", "\"b\"", nullptr, "\"a-1\"", nullptr, kFailed},
        {"dates of both sides", nullptr, kSecondBefore, nullptr, kSecondAfter, kFailed},
    };
    const auto header = [](const char* text) {
        return text ? std::optional<std::string_view>(text) : std::nullopt;
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Conditions conditions;
        conditions.ifMatch = header(row.ifMatch);
        conditions.ifUnmodifiedSince = header(row.ifUnmodifiedSince);
        conditions.ifNoneMatch = header(row.ifNoneMatch);
        conditions.ifModifiedSince = header(row.ifModifiedSince);
        EXPECT_EQ(evaluate(conditions, kFile, kNow), row.outcome);
    }
}

TEST(Conditional, ReadsRanges)
{
    const struct
    {
        const char* header;
        uint64_t size;
        const char* ranges;
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
        {"bytes=3-5,", 10, "3-5"},
        {"bytes=, ,3-5", 10, "3-5"},
        {"bytes=3-99999999999999999999999999", 10, "3-9"},
        {"bytes=-99999999999999999999999999", 10, "0-9"},
        {"bytes=4294967296-4294967297", 8589934592, "4294967296-4294967297"},
        {"bytes=10-", 10, "unsatisfiable"},
        {"bytes=10-11", 10, "unsatisfiable"},
        {"bytes=99999999999999999999999999-", 10, "unsatisfiable"},
        {"bytes=-0", 10, "unsatisfiable"},
        {"bytes=10-,-0", 10, "unsatisfiable"},
        {"bytes=0-", 0, "unsatisfiable"},
        {"bytes=0-0", 0, "unsatisfiable"},
        {"bytes=-1", 0, "whole"},
        {"bytes=0-0,1000-1000", 2000, "0-0,1000-1000"},
        {"bytes=1000-1000 , 0-0", 2000, "1000-1000,0-0"},
        {"bytes=0-0,-1", 2000, "0-0,1999-1999"},
        {"bytes=0-0,5000-", 2000, "0-0"},
        {"bytes=0-99,100-199", 2000, "0-199"},
        {"bytes=100-199,0-99", 2000, "0-199"},
        {"bytes=0-499,200-299", 2000, "0-499"},
        {"bytes=0-0,81-81", 2000, "0-81"},
        {"bytes=0-0,82-82", 2000, "0-0,82-82"},
        {"bytes=1500-1600,0-0,1550-1700", 2000, "1500-1700,0-0"},
        {"bytes=0-,0-,0-,0-", 2000, "0-1999"},
        {"bytes=1500-,0-0,700-1600", 2000, "700-1999,0-0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.header);
        EXPECT_EQ(shown(parseRanges(row.header, row.size)), row.ranges);
    }
}

TEST(Conditional, SendsTheWholeForMalformedRanges)
{
    const char* rows[] = {
        "",           "bytes",      "bytes=",        "bytes=-",     "bytes=a-b",
        "bytes=5-3",  "bytes=,",    "bytes=0-1,5-3", "bytes=0--1",  "bytes=--1",
        "bytes=0",    "bytes=+1-2", "bytes=0x1-",    "bytes=1 - 2", "bytes 0-1",
        "octets=0-1", "=0-1",       "bytes=1.0-2",   "bytes=0-1-2", "bytes=-5,x",
        "bytes=1-2;", "byte=0-1",   "bytess=0-1",    "bytes =0-1",
    };
    for (const char* header : rows) {
        SCOPED_TRACE(header);
        EXPECT_EQ(shown(parseRanges(header, 10)), "whole");
    }
}

std::string manyRanges(size_t count)
{
    std::string header = "bytes=";
    for (size_t i = 0; i < count; ++i)
        header += std::to_string(i * 1000) + "-" + std::to_string(i * 1000) + ",";
    return header;
}

TEST(Conditional, RefusesMoreRangesThanTheLimit)
{
    constexpr uint64_t kSize = 100000000;
    EXPECT_EQ(parseRanges(manyRanges(kMaxRanges), kSize).parts.size(), kMaxRanges);
    EXPECT_EQ(shown(parseRanges(manyRanges(kMaxRanges + 1), kSize)), "unsatisfiable");
    EXPECT_EQ(shown(parseRanges(manyRanges(5000), kSize)), "unsatisfiable");
    std::string same = "bytes=";
    for (int i = 0; i < 5000; ++i)
        same += "0-,";
    EXPECT_EQ(shown(parseRanges(same, kSize)), "unsatisfiable");
}

TEST(Conditional, SendsTheRangeOnlyOfTheStateThatIfRangeNames)
{
    const struct
    {
        const char* ifRange;
        const char* ranges;
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
        EXPECT_EQ(shown(chooseRanges(conditions, kFile, 10, kNow)), row.ranges);
    }
}

// A weak tag, and a date within which the file may have changed twice.
TEST(Conditional, SendsTheWholeForValidatorsThatAreNotStrong)
{
    Conditions conditions;
    conditions.range = "bytes=2-4";
    conditions.ifRange = kWeakFile.etag;
    EXPECT_EQ(shown(chooseRanges(conditions, kWeakFile, 10, kNow)), "whole");
    conditions.ifRange = "\"a-1\"";
    EXPECT_EQ(shown(chooseRanges(conditions, kWeakFile, 10, kNow)), "whole");
    conditions.ifRange = kModifiedText;
    EXPECT_EQ(shown(chooseRanges(conditions, kFile, 10, kModified + kSettledSeconds - 1)), "whole");
    EXPECT_EQ(shown(chooseRanges(conditions, kFile, 10, kModified + kSettledSeconds)), "2-4");
}

TEST(Conditional, IgnoresIfRangeWithoutRange)
{
    Conditions conditions;
    conditions.ifRange = "\"a-1\"";
    EXPECT_EQ(shown(chooseRanges(conditions, kFile, 10, kNow)), "whole");
    conditions.range = "bytes=20-";
    EXPECT_EQ(shown(chooseRanges(conditions, kFile, 10, kNow)), "unsatisfiable");
    conditions.ifRange = "\"other\"";
    EXPECT_EQ(shown(chooseRanges(conditions, kFile, 10, kNow)), "whole");
}

}  // namespace
}  // namespace qv::kit
