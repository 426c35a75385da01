// Header fields, and the splitting of list headers into their parts.

#include <Ostrand/HttpHeaders.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

namespace qv::http
{
namespace
{

constexpr std::array<std::string_view, 14> kWeekdays = {
    "Mon",    "Tue",     "Wed",       "Thu",      "Fri",    "Sat",      "Sun",
    "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"};

// Between the lines of a repeated header.
constexpr std::string_view kSeparator = ", ";

bool isSpaceOrTab(char c)
{
    return c == ' ' || c == '\t';
}

// Kinds of byte in a header value, as bits.
enum ByteKind : uint8_t { kForbidden = 1, kDelimiter = 2 };

constexpr std::array<uint8_t, 256> makeKinds()
{
    std::array<uint8_t, 256> kinds{};
    for (size_t byte = 0; byte < ' '; ++byte)
        kinds[byte] = kForbidden;
    kinds['\t'] = 0;
    kinds[0x7F] = kForbidden;
    for (const char c : {',', '"', '('})
        kinds[static_cast<unsigned char>(c)] = kDelimiter;
    return kinds;
}

constexpr std::array<uint8_t, 256> kKinds = makeKinds();

uint8_t kindOf(char c)
{
    return kKinds[static_cast<unsigned char>(c)];
}

uint8_t kindsIn(std::string_view text)
{
    uint8_t kinds = 0;
    for (const char c : text)
        kinds |= kindOf(c);
    return kinds;
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && isSpaceOrTab(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isSpaceOrTab(text.back()))
        text.remove_suffix(1);
    return text;
}

bool isWeekday(std::string_view text)
{
    return std::find(kWeekdays.begin(), kWeekdays.end(), text) != kWeekdays.end();
}

// A date continues with the day of the month, a list of weekdays does not.
bool startsWithDay(std::string_view text)
{
    const auto next = std::find_if_not(text.begin(), text.end(), isSpaceOrTab);
    return next != text.end() && *next >= '0' && *next <= '9';
}

// The last double quote that can close a quoted string; 0 without one. A quote behind an odd
// number of backslashes is escaped, wherever the string begins.
size_t lastClosingQuote(std::string_view value)
{
    size_t quote = value.rfind('"');
    while (quote != std::string_view::npos && quote > 0) {
        size_t escapes = quote;
        while (escapes > 0 && value[escapes - 1] == '\\')
            --escapes;
        if ((quote - escapes) % 2 == 0)
            return quote;
        quote = value.substr(0, escapes).rfind('"');
    }
    return 0;
}

// Splits a header value without control characters.
class Splitter
{
public:
    explicit Splitter(std::string_view value)
        : mValue(value), mLastClosingQuote(lastClosingQuote(value))
    {}

    std::list<std::string> split()
    {
        size_t at = nextDelimiter(0);
        while (at < mValue.size())
            at = nextDelimiter(passDelimiter(at));
        endPart(at);
        return std::move(mParts);
    }

private:
    size_t nextDelimiter(size_t at) const
    {
        while (at < mValue.size() && kindOf(mValue[at]) != kDelimiter)
            ++at;
        return at;
    }

    // The position behind the delimiter and all that it encloses.
    size_t passDelimiter(size_t at)
    {
        if (mValue[at] == '"')
            return at < mLastClosingQuote ? passQuotedString(at) : at + 1;
        if (mValue[at] == '(')
            return passComment(at);
        if (!isCommaOfDate(at))
            endPart(at);
        return at + 1;
    }

    size_t passQuotedString(size_t at) const
    {
        for (++at; at < mValue.size() && mValue[at] != '"'; ++at) {
            if (mValue[at] == '\\')
                ++at;
        }
        return at + 1;
    }

    // Comments nest; one without an end reaches to the end of the value.
    size_t passComment(size_t at) const
    {
        size_t depth = 0;
        for (; at < mValue.size(); ++at) {
            if (mValue[at] == '\\')
                ++at;
            else if (mValue[at] == '(')
                ++depth;
            else if (mValue[at] == ')' && --depth == 0)
                return at + 1;
        }
        return mValue.size();
    }

    bool isCommaOfDate(size_t at) const
    {
        return isWeekday(part(at)) && startsWithDay(mValue.substr(at + 1));
    }

    std::string_view part(size_t end) const { return trimmed(mValue.substr(mBegin, end - mBegin)); }

    void endPart(size_t at)
    {
        const std::string_view ended = part(at);
        if (!ended.empty())
            mParts.emplace_back(ended);
        mBegin = at + 1;
    }

    std::string_view mValue;
    size_t mLastClosingQuote;  // behind it a quote begins no string
    size_t mBegin = 0;         // of the part
    std::list<std::string> mParts;
};

std::string joined(const std::list<std::string>& values)
{
    std::string line;
    for (const std::string& value : values) {
        if (&value != &values.front())
            line += kSeparator;
        line += value;
    }
    return line;
}

}  // namespace

bool HttpHeaders::ParseMultiValueHeader(const char* value, std::list<std::string>& values)
{
    const std::string_view text(value);
    const uint8_t kinds = kindsIn(text);
    if (kinds & kForbidden)
        return false;
    if (kinds == 0) {
        values.emplace_back(trimmed(text));
        return true;
    }
    std::list<std::string> parts = Splitter(text).split();
    if (parts.empty())
        parts.emplace_back();
    values.splice(values.end(), parts);
    return true;
}

void HttpHeaders::addHeaderValues(const std::string& name, const std::list<std::string>& values)
{
    addHeaderValues(std::string(name), std::list<std::string>(values));
}

void HttpHeaders::addHeaderValues(std::string&& name, std::list<std::string>&& values)
{
    const std::string line = joined(values);
    addHeaderValues(std::move(name), std::move(values), line);
}

// Everything that allocates comes first: should memory run out, nothing has changed.
void HttpHeaders::addHeaderValues(std::string&& name, std::list<std::string>&& values,
                                  std::string_view line)
{
    if (values.empty())
        return;
    const auto place = mValues.lower_bound(name);
    if (place != mValues.end() && place->first == name) {
        std::string more(kSeparator);
        more += line;
        // Without a line so far there is one value, which is the line.
        mLines.try_emplace(place->first, place->second.front()).first->second += more;
        place->second.splice(place->second.end(), values);
        return;
    }
    std::map<std::string, std::string> added;
    if (values.size() > 1 || values.front() != line)
        added.emplace(name, line);
    mValues.emplace_hint(place, std::move(name), std::move(values));
    mLines.merge(added);
}

const std::list<std::string>* HttpHeaders::find(const std::string& name) const
{
    const auto found = mValues.find(name);
    return found == mValues.end() ? nullptr : &found->second;
}

const std::string* HttpHeaders::findLine(const std::string& name) const
{
    const auto line = mLines.find(name);
    if (line != mLines.end())
        return &line->second;
    const std::list<std::string>* values = find(name);
    return values ? &values->front() : nullptr;
}

}  // namespace qv::http
