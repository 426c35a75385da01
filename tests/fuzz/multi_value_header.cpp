// A list header and its parts, against a reading of the rules that jumps from group to group:
// nothing but spaces and commas is lost between parts, each is one part by itself, and put
// together again they fall apart the same way.

#include "support/Check.h"

#include <Ostrand/HttpHeaders.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <string_view>

namespace
{

using qv::http::HttpHeaders;
using Values = std::list<std::string>;

constexpr std::string_view kSpaces = " \t";
constexpr std::string_view kSpacesAndCommas = " \t,";

bool HasControl(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte < 32 && c != '\t') || byte == 127;
    });
}

bool IsAll(std::string_view text, std::string_view characters)
{
    return text.find_first_not_of(characters) == std::string_view::npos;
}

bool IsDay(std::string_view text)
{
    if (text.size() > 3 && (text.size() < 6 || text.substr(text.size() - 3) != "day"))
        return false;
    constexpr std::string_view kDays[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
    constexpr std::string_view kLongDays[] = {"Monday", "Tuesday",  "Wednesday", "Thursday",
                                              "Friday", "Saturday", "Sunday"};
    return std::find(std::begin(kDays), std::end(kDays), text) != std::end(kDays) ||
           std::find(std::begin(kLongDays), std::end(kLongDays), text) != std::end(kLongDays);
}

std::string Trimmed(std::string_view text)
{
    const size_t begin = text.find_first_not_of(kSpaces);
    if (begin == std::string_view::npos)
        return "";
    return std::string(text.substr(begin, text.find_last_not_of(kSpaces) + 1 - begin));
}

// Behind the quoted string that begins at `at`; nothing when the quote is not terminated.
std::optional<size_t> QuotedEnd(std::string_view text, size_t at)
{
    for (++at; at < text.size(); ++at) {
        if (text[at] == '"')
            return at + 1;
        if (text[at] == '\\')
            ++at;
    }
    return std::nullopt;
}

// Behind the comment that begins at `at`, which may hold others; the end when it does not end.
size_t CommentEnd(std::string_view text, size_t at)
{
    size_t open = 0;
    for (; at < text.size(); ++at) {
        if (text[at] == '\\')
            ++at;
        else if (text[at] == '(')
            ++open;
        else if (text[at] == ')' && --open == 0)
            return at + 1;
    }
    return text.size();
}

// The parts by the rules; nothing when the value is to be refused.
std::optional<Values> ReferenceParts(std::string_view text)
{
    Values parts;
    if (HasControl(text))
        return std::nullopt;
    size_t begin = 0;
    size_t at = 0;
    const auto endPart = [&] {
        const std::string part = Trimmed(text.substr(begin, at - begin));
        if (!part.empty())
            parts.push_back(part);
    };
    for (;;) {
        at = text.find_first_of("\"(,", at);
        if (at == std::string_view::npos)
            break;
        if (text[at] == '"') {
            at = QuotedEnd(text, at).value_or(at + 1);
        } else if (text[at] == '(') {
            at = CommentEnd(text, at);
        } else {
            const std::string rest = Trimmed(text.substr(at + 1));
            const bool isDate = IsDay(Trimmed(text.substr(begin, at - begin))) && !rest.empty() &&
                                rest[0] >= '0' && rest[0] <= '9';
            if (!isDate) {
                endPart();
                begin = at + 1;
            }
            ++at;
        }
    }
    at = text.size();
    endPart();
    if (IsAll(text, kSpacesAndCommas))
        parts.emplace_back();
    return parts;
}

Values Parse(const std::string& text)
{
    Values values;
    FUZZ_CHECK(HttpHeaders::ParseMultiValueHeader(text.c_str(), values));
    return values;
}

// The parts stand in the text in their order, with nothing but spaces and commas around them.
void CheckNothingIsLost(std::string_view text, const Values& values)
{
    size_t at = 0;
    bool isFirst = true;
    for (const std::string& value : values) {
        const size_t begin = text.find_first_not_of(kSpacesAndCommas, at);
        FUZZ_CHECK(begin != std::string_view::npos);
        const std::string_view between = text.substr(at, begin - at);
        FUZZ_CHECK(isFirst || between.find(',') != std::string_view::npos);
        FUZZ_CHECK(text.substr(begin, value.size()) == value);
        at = begin + value.size();
        isFirst = false;
    }
    FUZZ_CHECK(IsAll(text.substr(at), kSpacesAndCommas));
}

void CheckParts(const std::string& text, const Values& values)
{
    if (IsAll(text, kSpacesAndCommas)) {
        FUZZ_CHECK(values == Values{""});
        return;
    }
    CheckNothingIsLost(text, values);
    std::string joined;
    const std::string* before = nullptr;
    bool becomesDate = false;
    for (const std::string& value : values) {
        FUZZ_CHECK(!value.empty());
        FUZZ_CHECK(kSpaces.find(value.front()) == std::string_view::npos);
        FUZZ_CHECK(kSpaces.find(value.back()) == std::string_view::npos);
        FUZZ_CHECK(Parse(value) == Values{value});
        // "Mon,,1" is two parts, "Mon, 1" the beginning of a date.
        becomesDate |= before && IsDay(*before) && value[0] >= '0' && value[0] <= '9';
        if (before)
            joined += ", ";
        joined += value;
        before = &value;
    }
    if (!becomesDate)
        FUZZ_CHECK(Parse(joined) == values);
}

// The whole line is kept, and no copy of it beside a value that is equal.
void CheckLine(const std::string& text, const Values& values)
{
    HttpHeaders headers;
    headers.addHeaderValues("name", Values(values), text);
    const std::string* line = headers.findLine("name");
    FUZZ_CHECK(line && *line == text);
    FUZZ_CHECK((line == &headers.find("name")->front()) == (values == Values{text}));
    headers.addHeaderValues("name", Values(values), text);
    FUZZ_CHECK(*headers.findLine("name") == text + ", " + text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text = std::string(reinterpret_cast<const char*>(data), size).c_str();
    const Values known = {"known", ""};
    Values values = known;
    const bool result = HttpHeaders::ParseMultiValueHeader(text.c_str(), values);
    const auto expected = ReferenceParts(text);
    FUZZ_CHECK(result == expected.has_value());
    FUZZ_CHECK(std::equal(known.begin(), known.end(), values.begin()));
    values.erase(values.begin(), std::next(values.begin(), 2));
    FUZZ_CHECK(values == expected.value_or(Values()));
    if (result) {
        CheckParts(text, values);
        CheckLine(text, values);
    }
    return 0;
}
