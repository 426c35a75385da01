// Header fields, and how a list header falls into its parts.

#include <Ostrand/HttpHeaders.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace qv::http
{
namespace
{

constexpr std::array<std::string_view, 14> kWeekdays = {
    "Mon",    "Tue",     "Wed",       "Thu",      "Fri",    "Sat",      "Sun",
    "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"};

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

bool isForbidden(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t') || byte == 0x7F;
}

// Values without any of these are one part as they are; most are.
bool needsALook(char c)
{
    return c == ',' || c == '"' || c == '(' || isForbidden(c);
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

bool isWeekday(std::string_view text)
{
    return std::find(kWeekdays.begin(), kWeekdays.end(), text) != kWeekdays.end();
}

// A date goes on with the day of the month; a list of weekdays does not.
bool startsWithDigit(std::string_view text)
{
    text = trimmed(text);
    return !text.empty() && text.front() >= '0' && text.front() <= '9';
}

// Walks a header value and knows what the byte it stands on belongs to.
class Splitter
{
public:
    explicit Splitter(std::string_view value) : mValue(value) {}

    bool split(std::list<std::string>& parts)
    {
        for (; mAt < mValue.size(); ++mAt) {
            if (isForbidden(mValue[mAt]))
                return false;
            step(parts);
        }
        if (mInQuotes)
            return false;
        endPart(parts);
        return true;
    }

private:
    void step(std::list<std::string>& parts)
    {
        const char c = mValue[mAt];
        const bool escapes = mInQuotes || mCommentDepth > 0;
        if (mEscaped)
            mEscaped = false;
        else if (escapes && c == '\\')
            mEscaped = true;
        else if (c == '"' && mCommentDepth == 0)
            mInQuotes = !mInQuotes;
        else if (!mInQuotes)
            stepOutsideQuotes(c, parts);
    }

    void stepOutsideQuotes(char c, std::list<std::string>& parts)
    {
        if (c == '(')
            ++mCommentDepth;
        else if (c == ')' && mCommentDepth > 0)
            --mCommentDepth;
        else if (c == ',' && mCommentDepth == 0 && !isCommaOfDate())
            endPart(parts);
    }

    bool isCommaOfDate() const
    {
        return isWeekday(part()) && startsWithDigit(mValue.substr(mAt + 1));
    }

    std::string_view part() const { return trimmed(mValue.substr(mBegin, mAt - mBegin)); }

    void endPart(std::list<std::string>& parts)
    {
        if (!part().empty())
            parts.emplace_back(part());
        mBegin = mAt + 1;
    }

    std::string_view mValue;
    size_t mAt = 0;
    size_t mBegin = 0;
    int mCommentDepth = 0;
    bool mInQuotes = false;
    bool mEscaped = false;
};

}  // namespace

bool HttpHeaders::ParseMultiValueHeader(const char* value, std::list<std::string>& values)
{
    std::list<std::string> parts;
    const std::string_view text(value);
    if (std::none_of(text.begin(), text.end(), needsALook)) {
        values.emplace_back(trimmed(text));
        return true;
    }
    if (!Splitter(text).split(parts))
        return false;
    if (trimmed(text).empty())
        parts.emplace_back();
    values.splice(values.end(), parts);
    return true;
}

void HttpHeaders::addHeaderValues(const std::string& name, const std::list<std::string>& values)
{
    // Copied first: should memory run out, no name is left behind without a value.
    addHeaderValues(std::string(name), std::list<std::string>(values));
}

void HttpHeaders::addHeaderValues(std::string&& name, std::list<std::string>&& values)
{
    std::list<std::string>& known = mValues[std::move(name)];
    known.splice(known.end(), values);
}

const std::list<std::string>* HttpHeaders::find(const std::string& name) const
{
    const auto found = mValues.find(name);
    return found == mValues.end() ? nullptr : &found->second;
}

}  // namespace qv::http
