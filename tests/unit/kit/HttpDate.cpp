// Dates of HTTP headers.

#include "HttpDate.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace qv::kit
{
namespace
{

constexpr int64_t kExample = 784887151;  // 15 November 1994, 08:12:31
constexpr int64_t kNow = 1790000000;     // September 2026

TEST(HttpDate, WritesDates)
{
    EXPECT_EQ(formatHttpDate(kExample), "Tue, 15 Nov 1994 08:12:31 GMT");
    EXPECT_EQ(formatHttpDate(0), "Thu, 01 Jan 1970 00:00:00 GMT");
    EXPECT_EQ(formatHttpDate(-1), "Wed, 31 Dec 1969 23:59:59 GMT");
    EXPECT_EQ(formatHttpDate(1709164800), "Thu, 29 Feb 2024 00:00:00 GMT");
    EXPECT_EQ(formatHttpDate(4102444800), "Fri, 01 Jan 2100 00:00:00 GMT");
}

TEST(HttpDate, ReadsTheThreeFormsOfDates)
{
    EXPECT_EQ(parseHttpDate("Tue, 15 Nov 1994 08:12:31 GMT", kNow), kExample);
    EXPECT_EQ(parseHttpDate("Tuesday, 15-Nov-94 08:12:31 GMT", kNow), kExample);
    EXPECT_EQ(parseHttpDate("Tue Nov 15 08:12:31 1994", kNow), kExample);
    EXPECT_EQ(parseHttpDate("Sun Nov  6 08:49:37 1994", kNow), 784111777);
    EXPECT_EQ(parseHttpDate("Thu, 29 Feb 2024 00:00:00 GMT", kNow), 1709164800);
    EXPECT_EQ(parseHttpDate("Sat, 31 Dec 2016 23:59:60 GMT", kNow), 1483228800);
}

TEST(HttpDate, ReadsWhatItWrites)
{
    for (int64_t seconds = 0; seconds < 5000000000; seconds += 86399 * 17) {
        SCOPED_TRACE(seconds);
        ASSERT_EQ(parseHttpDate(formatHttpDate(seconds), kNow), seconds);
    }
}

TEST(HttpDate, TakesTwoDigitYearsMoreThan50YearsAheadForTheLastCentury)
{
    // The year of kNow is 2026.
    EXPECT_EQ(formatHttpDate(*parseHttpDate("Friday, 01-Jan-76 00:00:00 GMT", kNow)),
              "Wed, 01 Jan 2076 00:00:00 GMT");
    EXPECT_EQ(formatHttpDate(*parseHttpDate("Saturday, 01-Jan-77 00:00:00 GMT", kNow)),
              "Sat, 01 Jan 1977 00:00:00 GMT");
}

TEST(HttpDate, RefusesOtherDates)
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

TEST(HttpDate, RefusesADateCutAnywhere)
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

}  // namespace
}  // namespace qv::kit
