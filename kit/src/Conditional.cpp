// Decides whether a client gets a file, parts of it, or only the news that it has it.

#include "Conditional.h"

#include "HttpDate.h"
#include "Text.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <limits>
#include <utility>

namespace qv::kit
{
namespace
{

// Two ranges with fewer bytes between them are sent as one: a part has a head of its own.
constexpr uint64_t kMaxGapBytes = 80;

// A range in the order of the request.
struct Wanted
{
    ByteRange range;
    size_t position;
};

enum class Spec : uint8_t { Malformed, Unsatisfiable, Whole, Part };

bool isTagCharacter(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte == 0x21 || (byte >= 0x23 && byte != 0x7f);
}

bool isWeak(std::string_view etag)
{
    return etag.substr(0, 2) == "W/";
}

std::string_view opaqueTag(std::string_view etag)
{
    return isWeak(etag) ? etag.substr(2) : etag;
}

// Takes one entity tag from the front; empty when there is none.
std::string_view takeTag(std::string_view& text)
{
    const size_t begin = isWeak(text) ? 2 : 0;
    if (text.size() <= begin || text[begin] != '"')
        return {};
    size_t end = begin + 1;
    while (end < text.size() && isTagCharacter(text[end]))
        ++end;
    if (end == text.size() || text[end] != '"')
        return {};
    const std::string_view tag = text.substr(0, end + 1);
    text.remove_prefix(end + 1);
    return tag;
}

// Takes what separates two elements; false when another character follows.
bool takeSeparator(std::string_view& text)
{
    const size_t end = std::min(text.find_first_not_of(" \t,"), text.size());
    const bool separates = end == text.size() || text.substr(0, end).find(',') != text.npos;
    text.remove_prefix(end);
    return separates;
}

// Takes decimal digits from the front. A number too large for the type becomes the largest: it lies
// beyond every file. False when there is no digit.
bool takeNumber(std::string_view& text, uint64_t& value)
{
    constexpr uint64_t kLargest = std::numeric_limits<uint64_t>::max();
    bool any = false;
    value = 0;
    while (!text.empty() && isDigit(text.front())) {
        const auto digit = static_cast<uint64_t>(text.front() - '0');
        value = value > (kLargest - digit) / 10 ? kLargest : value * 10 + digit;
        text.remove_prefix(1);
        any = true;
    }
    return any;
}

// "-N": the last N bytes.
Spec readSuffix(std::string_view text, uint64_t size, ByteRange& range)
{
    uint64_t length = 0;
    text.remove_prefix(1);
    if (!takeNumber(text, length) || !text.empty())
        return Spec::Malformed;
    if (length == 0)
        return Spec::Unsatisfiable;
    if (size == 0)
        return Spec::Whole;
    range = {length >= size ? 0 : size - length, size - 1};
    return Spec::Part;
}

// "N-" or "N-M".
Spec readBounded(std::string_view text, uint64_t size, ByteRange& range)
{
    uint64_t first = 0;
    uint64_t last = std::numeric_limits<uint64_t>::max();
    if (!takeNumber(text, first) || text.empty() || text.front() != '-')
        return Spec::Malformed;
    text.remove_prefix(1);
    if (!text.empty() && (!takeNumber(text, last) || !text.empty()))
        return Spec::Malformed;
    if (last < first)
        return Spec::Malformed;
    if (first >= size)
        return Spec::Unsatisfiable;
    range = {first, std::min(last, size - 1)};
    return Spec::Part;
}

// Each range takes the place of the first one that became part of it.
std::vector<ByteRange> join(std::vector<Wanted>&& wanted)
{
    std::sort(wanted.begin(), wanted.end(), [](const Wanted& left, const Wanted& right) {
        return left.range.first < right.range.first;
    });
    std::vector<Wanted> joined;
    for (const Wanted& next : wanted) {
        const bool isNear =
            !joined.empty() && (next.range.first <= joined.back().range.last ||
                                next.range.first - joined.back().range.last - 1 <= kMaxGapBytes);
        if (!isNear) {
            joined.push_back(next);
            continue;
        }
        Wanted& before = joined.back();
        before.range.last = std::max(before.range.last, next.range.last);
        before.position = std::min(before.position, next.position);
    }
    std::sort(joined.begin(), joined.end(), [](const Wanted& left, const Wanted& right) {
        return left.position < right.position;
    });
    std::vector<ByteRange> ranges;
    ranges.reserve(joined.size());
    for (const Wanted& one : joined)
        ranges.push_back(one.range);
    return ranges;
}

bool isSettled(const Validators& file, int64_t nowSeconds)
{
    return nowSeconds - file.modifiedSeconds >= kSettledSeconds;
}

// A weak tag never matches here; a date only when it is the very one.
bool rangeStillHolds(std::string_view header, const Validators& file, int64_t nowSeconds)
{
    const std::string_view value = trimmed(header);
    if (!value.empty() && (value.front() == '"' || isWeak(value)))
        return value == file.etag && !isWeak(value);
    const std::optional<int64_t> date = parseHttpDate(value, nowSeconds);
    return date && *date == file.modifiedSeconds && isSettled(file, nowSeconds);
}

}  // namespace

std::string makeETag(uint64_t inode, uint64_t size, const timespec& modified,
                     const timespec& changed)
{
    const auto number = [](auto value) { return static_cast<uint64_t>(value); };
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(),
                  "\"%" PRIx64 "-%" PRIx64 "-%" PRIx64 ".%" PRIx64 "-%" PRIx64 ".%" PRIx64 "\"",
                  inode, size, number(modified.tv_sec), number(modified.tv_nsec),
                  number(changed.tv_sec), number(changed.tv_nsec));
    return text.data();
}

bool namesETag(std::string_view header, std::string_view etag, bool isStrongComparison)
{
    std::string_view rest = trimmed(header);
    if (rest == "*")
        return true;
    const bool mayMatch = !etag.empty() && !(isStrongComparison && isWeak(etag));
    takeSeparator(rest);
    while (!rest.empty()) {
        const std::string_view tag = takeTag(rest);
        if (tag.empty())
            return false;
        const bool isComparable = mayMatch && !(isStrongComparison && isWeak(tag));
        if (isComparable && opaqueTag(tag) == opaqueTag(etag))
            return true;
        if (!takeSeparator(rest))
            return false;
    }
    return false;
}

Condition evaluate(const Conditions& conditions, const Validators& file, int64_t nowSeconds)
{
    const auto dateOf = [&](const std::optional<std::string_view>& header) {
        return header ? parseHttpDate(trimmed(*header), nowSeconds) : std::nullopt;
    };
    if (conditions.ifMatch) {
        if (!namesETag(*conditions.ifMatch, file.etag, true))
            return Condition::Failed;
    } else if (const auto date = dateOf(conditions.ifUnmodifiedSince)) {
        if (file.modifiedSeconds > *date)
            return Condition::Failed;
    }
    if (conditions.ifNoneMatch) {
        if (namesETag(*conditions.ifNoneMatch, file.etag, false))
            return Condition::NotModified;
    } else if (const auto date = dateOf(conditions.ifModifiedSince)) {
        if (file.modifiedSeconds <= *date)
            return Condition::NotModified;
    }
    return Condition::Met;
}

ByteRanges parseRanges(std::string_view header, uint64_t size)
{
    const std::string_view text = trimmed(header);
    const size_t equals = text.find('=');
    if (equals == text.npos || !equalsIgnoringCase(text.substr(0, equals), "bytes"))
        return {ByteRanges::Whole, {}};
    std::vector<Wanted> wanted;
    std::string_view rest = text.substr(equals + 1);
    size_t count = 0;
    bool isWhole = false;
    while (!rest.empty()) {
        const size_t end = std::min(rest.find(','), rest.size());
        const std::string_view spec = trimmed(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (spec.empty())
            continue;
        if (++count > kMaxRanges)
            return {ByteRanges::Unsatisfiable, {}};
        ByteRange range{};
        const Spec kind =
            spec.front() == '-' ? readSuffix(spec, size, range) : readBounded(spec, size, range);
        if (kind == Spec::Malformed)
            return {ByteRanges::Whole, {}};
        isWhole = isWhole || kind == Spec::Whole;
        if (kind == Spec::Part)
            wanted.push_back({range, count});
    }
    if (count == 0 || isWhole)
        return {ByteRanges::Whole, {}};
    if (wanted.empty())
        return {ByteRanges::Unsatisfiable, {}};
    return {ByteRanges::Parts, join(std::move(wanted))};
}

std::string contentRange(const ByteRange& range, uint64_t size)
{
    std::string text = "bytes ";
    text.append(std::to_string(range.first)).append("-").append(std::to_string(range.last));
    return text.append("/").append(std::to_string(size));
}

ByteRanges chooseRanges(const Conditions& conditions, const Validators& file, uint64_t size,
                        int64_t nowSeconds)
{
    if (!conditions.range)
        return {ByteRanges::Whole, {}};
    if (conditions.ifRange && !rangeStillHolds(*conditions.ifRange, file, nowSeconds))
        return {ByteRanges::Whole, {}};
    return parseRanges(*conditions.range, size);
}

}  // namespace qv::kit
