// Texts of HTTP headers. Nothing here depends on the locale or the time zone.

#include "HttpText.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <map>
#include <string_view>

namespace filedrop
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
    explicit DateReader(const std::string& text) : mRest(text) {}

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

bool readFixedForm(const std::string& text, std::tm& parts)
{
    DateReader reader(text);
    reader.oneOf(kDays, 3, parts.tm_wday).text(", ").number(2, parts.tm_mday).text(" ");
    reader.oneOf(kMonths, 3, parts.tm_mon).text(" ").number(4, parts.tm_year).text(" ");
    reader.clock(parts).text(" GMT");
    parts.tm_year -= kFirstYear;
    return reader.isComplete();
}

bool readTwoDigitYearForm(const std::string& text, int64_t nowSeconds, std::tm& parts)
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

bool readCForm(const std::string& text, std::tm& parts)
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

const std::map<std::string, const char*>& mediaTypes()
{
    static const std::map<std::string, const char*> types = {
        {"7z", "application/x-7z-compressed"},
        {"aac", "audio/aac"},
        {"avif", "image/avif"},
        {"avi", "video/x-msvideo"},
        {"bmp", "image/bmp"},
        {"bz2", "application/x-bzip2"},
        {"css", "text/css; charset=utf-8"},
        {"csv", "text/csv; charset=utf-8"},
        {"deb", "application/vnd.debian.binary-package"},
        {"doc", "application/msword"},
        {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
        {"epub", "application/epub+zip"},
        {"flac", "audio/flac"},
        {"gif", "image/gif"},
        {"gz", "application/gzip"},
        {"htm", "text/html; charset=utf-8"},
        {"html", "text/html; charset=utf-8"},
        {"ico", "image/vnd.microsoft.icon"},
        {"ics", "text/calendar; charset=utf-8"},
        {"jpeg", "image/jpeg"},
        {"jpg", "image/jpeg"},
        {"js", "text/javascript; charset=utf-8"},
        {"json", "application/json"},
        {"log", "text/plain; charset=utf-8"},
        {"m4a", "audio/mp4"},
        {"md", "text/markdown; charset=utf-8"},
        {"mkv", "video/x-matroska"},
        {"mov", "video/quicktime"},
        {"mp3", "audio/mpeg"},
        {"mp4", "video/mp4"},
        {"odp", "application/vnd.oasis.opendocument.presentation"},
        {"ods", "application/vnd.oasis.opendocument.spreadsheet"},
        {"odt", "application/vnd.oasis.opendocument.text"},
        {"oga", "audio/ogg"},
        {"ogg", "audio/ogg"},
        {"ogv", "video/ogg"},
        {"opus", "audio/ogg"},
        {"pdf", "application/pdf"},
        {"png", "image/png"},
        {"ppt", "application/vnd.ms-powerpoint"},
        {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
        {"rar", "application/vnd.rar"},
        {"rtf", "application/rtf"},
        {"sh", "application/x-sh"},
        {"svg", "image/svg+xml"},
        {"tar", "application/x-tar"},
        {"tif", "image/tiff"},
        {"tiff", "image/tiff"},
        {"txt", "text/plain; charset=utf-8"},
        {"wasm", "application/wasm"},
        {"wav", "audio/wav"},
        {"weba", "audio/webm"},
        {"webm", "video/webm"},
        {"webp", "image/webp"},
        {"woff", "font/woff"},
        {"woff2", "font/woff2"},
        {"xls", "application/vnd.ms-excel"},
        {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
        {"xml", "application/xml"},
        {"xz", "application/x-xz"},
        {"zip", "application/zip"},
        {"zst", "application/zstd"},
    };
    return types;
}

char toLower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Characters that filename* allows without percent-encoding.
bool isPlainInExtendedValue(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           (c != '\0' && std::strchr("!#$&+-.^_`|~", c) != nullptr);
}

std::string percentEncoded(const std::string& text)
{
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : text) {
        if (isPlainInExtendedValue(c)) {
            out += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        out += '%';
        out += kDigits[byte >> 4];
        out += kDigits[byte & 0xf];
    }
    return out;
}

// For clients that do not know filename*: each character outside ASCII becomes one "_", and
// so do those that clients are known to read in more than one way.
std::string asciiFallback(const std::string& name)
{
    std::string out;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte & 0xc0) == 0x80)
            continue;
        out += byte >= 0x80 || c == '"' || c == '\\' || c == '%' ? '_' : c;
    }
    return out;
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

std::optional<int64_t> parseHttpDate(const std::string& text, int64_t nowSeconds)
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

std::string formatIsoTime(int64_t seconds, int64_t nanoseconds)
{
    const std::tm parts = utc(seconds);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
                  parts.tm_year + kFirstYear, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                  parts.tm_min, parts.tm_sec, static_cast<int>(nanoseconds / 1000000));
    return text;
}

std::string mediaType(const std::string& name)
{
    constexpr const char* kUnknown = "application/octet-stream";
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0)
        return kUnknown;
    std::string extension;
    std::transform(name.begin() + static_cast<std::ptrdiff_t>(dot) + 1, name.end(),
                   std::back_inserter(extension), toLower);
    const auto found = mediaTypes().find(extension);
    return found == mediaTypes().end() ? kUnknown : found->second;
}

std::string attachment(const std::string& name)
{
    const std::string fallback = asciiFallback(name);
    std::string value = "attachment; filename=\"" + fallback + "\"";
    if (fallback != name)
        value += "; filename*=UTF-8''" + percentEncoded(name);
    return value;
}

}  // namespace filedrop
