// Dates of HTTP. Nothing here depends on the locale or the time zone.

#include "HttpDate.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <ctime>

namespace qv::kit
{
namespace
{

constexpr std::array<const char*, 7> kDays = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                              "Thursday", "Friday", "Saturday"};
constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr int kFirstYear = 1900;  // the origin of tm_year

std::tm utc(int64_t seconds)
{
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    gmtime_r(&time, &parts);
    return parts;
}

// Reads a date from left to right; the first thing that does not fit spoils the rest.
class DateReader
{
public:
    explicit DateReader(std::string_view text) : mRest(text) {}

    bool isComplete() const { return mGood && mRest.empty(); }

    DateReader& text(std::string_view expected)
    {
        mGood = mGood && mRest.substr(0, expected.size()) == expected;
        if (mGood)
            mRest.remove_prefix(expected.size());
        return *this;
    }

    // Which of `names`, the first `length` letters of each (0: all), comes next.
    template <typename Names> DateReader& oneOf(const Names& names, size_t length, int& index)
    {
        for (size_t i = 0; mGood && i < names.size(); ++i) {
            const std::string_view name = std::string_view(names[i]).substr(0, length);
            if (mRest.substr(0, name.size()) == name) {
                mRest.remove_prefix(name.size());
                index = static_cast<int>(i);
                return *this;
            }
        }
        mGood = false;
        return *this;
    }

    DateReader& number(size_t digits, int& value)
    {
        mGood = mGood && mRest.size() >= digits;
        value = 0;
        for (size_t i = 0; mGood && i < digits; ++i) {
            mGood = mRest[i] >= '0' && mRest[i] <= '9';
            value = value * 10 + (mRest[i] - '0');
        }
        if (mGood)
            mRest.remove_prefix(digits);
        return *this;
    }

    // A day of the month, with a space instead of a leading zero.
    DateReader& paddedDay(int& day)
    {
        if (!mGood || mRest.empty() || mRest.front() != ' ')
            return number(2, day);
        mRest.remove_prefix(1);
        return number(1, day);
    }

    DateReader& clock(std::tm& parts)
    {
        return number(2, parts.tm_hour)
            .text(":")
            .number(2, parts.tm_min)
            .text(":")
            .number(2, parts.tm_sec);
    }

private:
    std::string_view mRest;
    bool mGood = true;
};

bool readFixedForm(std::string_view text, std::tm& parts)
{
    DateReader reader(text);
    reader.oneOf(kDays, 3, parts.tm_wday).text(", ").number(2, parts.tm_mday).text(" ");
    reader.oneOf(kMonths, 3, parts.tm_mon).text(" ").number(4, parts.tm_year).text(" ");
    reader.clock(parts).text(" GMT");
    parts.tm_year -= kFirstYear;
    return reader.isComplete();
}

bool readTwoDigitYearForm(std::string_view text, int64_t nowSeconds, std::tm& parts)
{
    constexpr int kFutureYears = 50;
    DateReader reader(text);
    reader.oneOf(kDays, std::string_view::npos, parts.tm_wday).text(", ");
    reader.number(2, parts.tm_mday).text("-").oneOf(kMonths, 3, parts.tm_mon).text("-");
    reader.number(2, parts.tm_year).text(" ").clock(parts).text(" GMT");
    const int thisYear = utc(nowSeconds).tm_year;
    parts.tm_year += thisYear - thisYear % 100;
    if (parts.tm_year > thisYear + kFutureYears)
        parts.tm_year -= 100;
    return reader.isComplete();
}

bool readCForm(std::string_view text, std::tm& parts)
{
    DateReader reader(text);
    reader.oneOf(kDays, 3, parts.tm_wday).text(" ").oneOf(kMonths, 3, parts.tm_mon).text(" ");
    reader.paddedDay(parts.tm_mday).text(" ").clock(parts).text(" ").number(4, parts.tm_year);
    parts.tm_year -= kFirstYear;
    return reader.isComplete();
}

// A day that the calendar does not have comes back changed; the weekday is not checked.
std::optional<int64_t> toSeconds(const std::tm& parts)
{
    constexpr int kLeapSecond = 60;
    if (parts.tm_hour > 23 || parts.tm_min > 59 || parts.tm_sec > kLeapSecond)
        return std::nullopt;
    std::tm copy = parts;
    copy.tm_hour = copy.tm_min = copy.tm_sec = 0;
    const int64_t day = timegm(&copy);
    if (copy.tm_mday != parts.tm_mday || copy.tm_mon != parts.tm_mon)
        return std::nullopt;
    return day + int64_t{parts.tm_hour} * 3600 + int64_t{parts.tm_min} * 60 + parts.tm_sec;
}

}  // namespace

std::string formatHttpDate(int64_t seconds)
{
    const std::tm parts = utc(seconds);
    char text[64];
    std::snprintf(text, sizeof text, "%.3s, %02d %s %04d %02d:%02d:%02d GMT",
                  kDays[static_cast<size_t>(parts.tm_wday)], parts.tm_mday,
                  kMonths[static_cast<size_t>(parts.tm_mon)], parts.tm_year + kFirstYear,
                  parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text;
}

std::optional<int64_t> parseHttpDate(std::string_view text, int64_t nowSeconds)
{
    std::tm fixed{};
    if (readFixedForm(text, fixed))
        return toSeconds(fixed);
    std::tm twoDigits{};
    if (readTwoDigitYearForm(text, nowSeconds, twoDigits))
        return toSeconds(twoDigits);
    std::tm c{};
    if (readCForm(text, c))
        return toSeconds(c);
    return std::nullopt;
}

}  // namespace qv::kit
