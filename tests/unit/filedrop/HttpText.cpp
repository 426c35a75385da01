// Dates, media types and the names of downloads.

#include "HttpText.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace filedrop
{

namespace
{

constexpr int64_t kExample = 784887151;  // 15 November 1994, 08:12:31
constexpr int64_t kNow = 1790000000;     // September 2026

}  // namespace

TEST(HttpText, WritesDates)
{
    EXPECT_EQ(formatHttpDate(kExample), "Tue, 15 Nov 1994 08:12:31 GMT");
    EXPECT_EQ(formatHttpDate(0), "Thu, 01 Jan 1970 00:00:00 GMT");
    EXPECT_EQ(formatHttpDate(-1), "Wed, 31 Dec 1969 23:59:59 GMT");
    EXPECT_EQ(formatHttpDate(1709164800), "Thu, 29 Feb 2024 00:00:00 GMT");
    EXPECT_EQ(formatHttpDate(4102444800), "Fri, 01 Jan 2100 00:00:00 GMT");
}

TEST(HttpText, ReadsTheThreeFormsOfDates)
{
    EXPECT_EQ(parseHttpDate("Tue, 15 Nov 1994 08:12:31 GMT", kNow), kExample);
    EXPECT_EQ(parseHttpDate("Tuesday, 15-Nov-94 08:12:31 GMT", kNow), kExample);
    EXPECT_EQ(parseHttpDate("Tue Nov 15 08:12:31 1994", kNow), kExample);
    EXPECT_EQ(parseHttpDate("Sun Nov  6 08:49:37 1994", kNow), 784111777);
    EXPECT_EQ(parseHttpDate("Thu, 29 Feb 2024 00:00:00 GMT", kNow), 1709164800);
    EXPECT_EQ(parseHttpDate("Sat, 31 Dec 2016 23:59:60 GMT", kNow), 1483228800);
}

TEST(HttpText, ReadsWhatItWrites)
{
    for (int64_t seconds = 0; seconds < 5000000000; seconds += 86399 * 17) {
        SCOPED_TRACE(seconds);
        ASSERT_EQ(parseHttpDate(formatHttpDate(seconds), kNow), seconds);
    }
}

TEST(HttpText, TakesTwoDigitYearsMoreThan50YearsAheadForTheLastCentury)
{
    // The year of kNow is 2026.
    EXPECT_EQ(formatHttpDate(*parseHttpDate("Friday, 01-Jan-76 00:00:00 GMT", kNow)),
              "Wed, 01 Jan 2076 00:00:00 GMT");
    EXPECT_EQ(formatHttpDate(*parseHttpDate("Saturday, 01-Jan-77 00:00:00 GMT", kNow)),
              "Sat, 01 Jan 1977 00:00:00 GMT");
}

TEST(HttpText, RefusesOtherDates)
{
    const char* rows[] = {
        "",
        "now",
        "784887151",
        "Tue, 15 Nov 1994 08:12:31",
        "Tue, 15 Nov 1994 08:12:31 UTC",
        "Tue, 15 Nov 1994 08:12:31 GMT ",
        " Tue, 15 Nov 1994 08:12:31 GMT",
        "tue, 15 nov 1994 08:12:31 gmt",
        "Tue, 5 Nov 1994 08:12:31 GMT",
        "Tue, 15 Nox 1994 08:12:31 GMT",
        "Tue, 31 Nov 1994 08:12:31 GMT",
        "Wed, 29 Feb 2023 00:00:00 GMT",
        "Tue, 00 Nov 1994 08:12:31 GMT",
        "Tue, 15 Nov 1994 24:00:00 GMT",
        "Tue, 15 Nov 1994 08:60:31 GMT",
        "Tue, 15 Nov 1994 08:12:61 GMT",
        "Tue, 15 Nov 94 08:12:31 GMT",
        "Tuesday, 15-Nov-1994 08:12:31 GMT",
        "Tue Nov 15 08:12:31 94",
        "Tue, 15 Nov 1994 8:12:31 GMT",
        "Tue, -5 Nov 1994 08:12:31 GMT",
        "1994-11-15T08:12:31Z",
    };
    for (const char* text : rows) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(parseHttpDate(text, kNow));
    }
}

TEST(HttpText, RefusesADateCutAnywhere)
{
    const std::string forms[] = {"Tue, 15 Nov 1994 08:12:31 GMT", "Tuesday, 15-Nov-94 08:12:31 GMT",
                                 "Tue Nov 15 08:12:31 1994"};
    for (const std::string& form : forms) {
        for (size_t length = 0; length < form.size(); ++length) {
            SCOPED_TRACE(form.substr(0, length));
            EXPECT_FALSE(parseHttpDate(form.substr(0, length), kNow));
        }
    }
}

TEST(HttpText, WritesIsoTimesWithMilliseconds)
{
    EXPECT_EQ(formatIsoTime(kExample, 250000000), "1994-11-15T08:12:31.250Z");
    EXPECT_EQ(formatIsoTime(kExample, 0), "1994-11-15T08:12:31.000Z");
    EXPECT_EQ(formatIsoTime(kExample, 999999999), "1994-11-15T08:12:31.999Z");
}

TEST(HttpText, FindsMediaTypesByExtension)
{
    const struct
    {
        const char* name;
        const char* type;
    } rows[] = {
        {"a.txt", "text/plain; charset=utf-8"},
        {"a.TXT", "text/plain; charset=utf-8"},
        {"a.tar.gz", "application/gzip"},
        {"photo.JPeG", "image/jpeg"},
        {"a.pdf", "application/pdf"},
        {"clip.mp4", "video/mp4"},
        {"a.json", "application/json"},
        {"a.zip", "application/zip"},
        {"a", "application/octet-stream"},
        {"a.", "application/octet-stream"},
        {".txt", "application/octet-stream"},
        {"txt", "application/octet-stream"},
        {"a.unknown", "application/octet-stream"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(mediaType(row.name), row.type);
    }
}

TEST(HttpText, NamesDownloads)
{
    const struct
    {
        const char* name;
        const char* value;
    } rows[] = {
        {"report.pdf", "attachment; filename=\"report.pdf\""},
        {"two words.txt", "attachment; filename=\"two words.txt\""},
        {"semi;colon,comma", "attachment; filename=\"semi;colon,comma\""},
        {"say \"hi\".txt",
         "attachment; filename=\"say _hi_.txt\"; filename*=UTF-8''say%20%22hi%22.txt"},
        {"back\\slash", "attachment; filename=\"back_slash\"; filename*=UTF-8''back%5Cslash"},
        {"100%25.txt", "attachment; filename=\"100_25.txt\"; filename*=UTF-8''100%2525.txt"},
        {"\xc3\xa9t\xc3\xa9.txt",
         "attachment; filename=\"_t_.txt\"; filename*=UTF-8''%C3%A9t%C3%A9.txt"},
        {"\xf0\x9f\x8e\x89", "attachment; filename=\"_\"; filename*=UTF-8''%F0%9F%8E%89"},
        {"it's (1)*.\xe2\x82\xac",
         "attachment; filename=\"it's (1)*._\"; filename*=UTF-8''it%27s%20%281%29%2A.%E2%82%AC"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(attachment(row.name), row.value);
    }
}

}  // namespace filedrop
