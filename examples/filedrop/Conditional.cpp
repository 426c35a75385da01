// Decides whether a client gets a file, a part of it, or only the news that it has it.

#include "Conditional.h"

#include "HttpText.h"

#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <limits>
#include <string_view>

namespace filedrop
{

namespace
{

constexpr ByteRange kWhole = {ByteRange::Whole, 0, 0};

void skipSpaces(std::string_view& text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
}

std::string_view trimmed(std::string_view text)
{
    skipSpaces(text);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

bool isTagCharacter(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte == 0x21 || (byte >= 0x23 && byte != 0x7f);
}

// Takes one entity tag, without its weakness, from the front; empty when there is none.
std::string_view takeTag(std::string_view& text)
{
    std::string_view rest = text;
    if (rest.substr(0, 2) == "W/")
        rest.remove_prefix(2);
    if (rest.empty() || rest.front() != '"')
        return {};
    size_t end = 1;
    while (end < rest.size() && isTagCharacter(rest[end]))
        ++end;
    if (end == rest.size() || rest[end] != '"')
        return {};
    text = rest.substr(end + 1);
    return rest.substr(0, end + 1);
}

// Takes decimal digits from the front. A number too large for the type becomes the largest:
// it lies beyond every file. False when there is no digit.
bool takeNumber(std::string_view& text, uint64_t& value)
{
    constexpr uint64_t kLargest = std::numeric_limits<uint64_t>::max();
    bool any = false;
    value = 0;
    while (!text.empty() && text.front() >= '0' && text.front() <= '9') {
        const auto digit = static_cast<uint64_t>(text.front() - '0');
        value = value > (kLargest - digit) / 10 ? kLargest : value * 10 + digit;
        text.remove_prefix(1);
        any = true;
    }
    return any;
}

bool isBytesUnit(std::string_view unit)
{
    constexpr std::string_view kBytes = "bytes";
    if (unit.size() != kBytes.size())
        return false;
    for (size_t i = 0; i < unit.size(); ++i) {
        if ((unit[i] | 0x20) != kBytes[i])
            return false;
    }
    return true;
}

// "-N": the last N bytes.
ByteRange suffixRange(std::string_view text, uint64_t size)
{
    uint64_t length = 0;
    text.remove_prefix(1);
    if (!takeNumber(text, length) || !text.empty())
        return kWhole;
    if (length == 0 || size == 0)
        return {ByteRange::Unsatisfiable, 0, 0};
    return {ByteRange::Part, length >= size ? 0 : size - length, size - 1};
}

// "N-" or "N-M".
ByteRange boundedRange(std::string_view text, uint64_t size)
{
    uint64_t first = 0;
    uint64_t last = std::numeric_limits<uint64_t>::max();
    if (!takeNumber(text, first) || text.empty() || text.front() != '-')
        return kWhole;
    text.remove_prefix(1);
    if (!text.empty() && (!takeNumber(text, last) || !text.empty()))
        return kWhole;
    if (last < first)
        return kWhole;
    if (first >= size)
        return {ByteRange::Unsatisfiable, 0, 0};
    return {ByteRange::Part, first, last >= size ? size - 1 : last};
}

// A weak tag never matches here; a date is as good as a tag only when it is the very one.
bool rangeStillHolds(const std::string& header, const Validators& file, int64_t nowSeconds)
{
    const std::string_view value = trimmed(header);
    if (!value.empty() && (value.front() == '"' || value.substr(0, 2) == "W/"))
        return value == file.etag;
    const std::optional<int64_t> date = parseHttpDate(std::string(value), nowSeconds);
    return date && *date == file.modifiedSeconds;
}

}  // namespace

std::string makeETag(uint64_t inode, uint64_t size, int64_t seconds, int64_t nanoseconds)
{
    char text[96];
    std::snprintf(text, sizeof text, "\"%" PRIx64 "-%" PRIx64 "-%" PRIx64 ".%" PRIx64 "\"", inode,
                  size, static_cast<uint64_t>(seconds), static_cast<uint64_t>(nanoseconds));
    return text;
}

bool namesETag(const std::string& header, const std::string& etag)
{
    std::string_view rest = trimmed(header);
    if (rest == "*")
        return true;
    while (!rest.empty()) {
        const std::string_view tag = takeTag(rest);
        if (tag.empty())
            return false;
        if (tag == etag)
            return true;
        skipSpaces(rest);
        if (!rest.empty() && rest.front() != ',')
            return false;
        while (!rest.empty() &&
               (rest.front() == ',' || rest.front() == ' ' || rest.front() == '\t'))
            rest.remove_prefix(1);
    }
    return false;
}

bool isNotModified(const Conditions& conditions, const Validators& file, int64_t nowSeconds)
{
    if (conditions.ifNoneMatch)
        return namesETag(*conditions.ifNoneMatch, file.etag);
    if (!conditions.ifModifiedSince)
        return false;
    const std::string text(trimmed(*conditions.ifModifiedSince));
    const std::optional<int64_t> date = parseHttpDate(text, nowSeconds);
    return date && file.modifiedSeconds <= *date;
}

ByteRange parseRange(const std::string& header, uint64_t size)
{
    const std::string_view text = trimmed(header);
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos || !isBytesUnit(text.substr(0, equals)))
        return kWhole;
    const std::string_view range = trimmed(text.substr(equals + 1));
    if (range.empty())
        return kWhole;
    return range.front() == '-' ? suffixRange(range, size) : boundedRange(range, size);
}

ByteRange chooseRange(const Conditions& conditions, const Validators& file, uint64_t size,
                      int64_t nowSeconds)
{
    if (!conditions.range)
        return kWhole;
    if (conditions.ifRange && !rangeStillHolds(*conditions.ifRange, file, nowSeconds))
        return kWhole;
    return parseRange(*conditions.range, size);
}

}  // namespace filedrop
