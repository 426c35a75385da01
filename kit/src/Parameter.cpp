// Conversions of texts that clients send. Nothing depends on the locale.

#include <Wendrel/kit/Parameter.h>

#include "Text.h"

#include <Wendrel/kit/HttpError.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <locale>
#include <sstream>
#include <system_error>

namespace qv::kit
{
namespace
{

constexpr int kBadRequest = 400;

// Of a value in the text of an error.
constexpr size_t kMaxQuotedBytes = 64;

constexpr std::array<std::string_view, 4> kTrue{"true", "on", "yes", "1"};
constexpr std::array<std::string_view, 4> kFalse{"false", "off", "no", "0"};

const char* nameOf(Parameter::Kind kind)
{
    switch (kind) {
    case Parameter::Kind::Path:
        return "path parameter";
    case Parameter::Kind::Query:
        return "query parameter";
    case Parameter::Kind::Header:
        return "header";
    case Parameter::Kind::Cookie:
        return "cookie";
    case Parameter::Kind::FormField:
        return "form field";
    case Parameter::Kind::Element:
        break;
    }
    return "element";
}

// In quotation marks; a long text ends between two characters.
std::string quoted(std::string_view text)
{
    const std::string_view shown = cutUtf8(text, kMaxQuotedBytes);
    return '"' + std::string(shown) + (shown.size() == text.size() ? "\"" : "...\"");
}

template <typename Number> std::string textOf(Number number)
{
    std::array<char, 32> text;
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
    return std::string(text.data(), end);
}

// "from 1 to 1000", or, when the number is beyond the one limit that the application has set,
// "at least 1" or "at most 1000".
template <typename Number> std::string rangeText(Number min, Number max, bool isBelow)
{
    const bool hasMin = min != std::numeric_limits<Number>::lowest();
    const bool hasMax = max != std::numeric_limits<Number>::max();
    if (isBelow && hasMin && !hasMax)
        return "at least " + textOf(min);
    if (!isBelow && hasMax && !hasMin)
        return "at most " + textOf(max);
    return "from " + textOf(min) + " to " + textOf(max);
}

template <typename Number> std::errc parse(const std::string& text, Number& number)
{
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return stop == end ? error : std::errc::invalid_argument;
}

// Of a number that is out of the range of a double, infinity, or too close to 0, which is 0:
// std::from_chars does not tell which.
double roundedNumber(const std::string& text)
{
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    double number = 0;
    if (stream >> number)
        return number;
    return std::copysign(std::numeric_limits<double>::infinity(), number);
}

bool contains(const std::array<std::string_view, 4>& texts, std::string_view text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

}  // namespace

void Parameter::refuse(const std::string& why) const
{
    throw HttpError(kBadRequest,
                    std::string("the ") + nameOf(mKind) + " " + quoted(mName) + " " + why);
}

void Parameter::refuseMissing() const
{
    refuse("is missing");
}

std::string Parameter::asText(std::optional<std::string_view> fallback, size_t maxBytes) const&&
{
    if (mText.size() > maxBytes)
        refuse("is longer than " + std::to_string(maxBytes) + " bytes");
    if (!mText.empty())
        return mText;
    if (!fallback)
        refuseMissing();
    return std::string(*fallback);
}

int64_t Parameter::asInt(std::optional<int64_t> fallback, int64_t min, int64_t max) const&&
{
    if (mText.empty()) {
        if (!fallback)
            refuseMissing();
        return *fallback;
    }
    int64_t number = 0;
    const std::errc error = parse(mText, number);
    if (error == std::errc::invalid_argument)
        refuse("is not a whole number: " + quoted(mText));
    if (error != std::errc() || number < min || number > max) {
        const bool isBelow = error == std::errc() ? number < min : mText.front() == '-';
        refuse("must be " + rangeText(min, max, isBelow) + ": " + quoted(mText));
    }
    return number;
}

double Parameter::asDouble(std::optional<double> fallback, double min, double max) const&&
{
    if (mText.empty()) {
        if (!fallback)
            refuseMissing();
        return *fallback;
    }
    double number = 0;
    const std::errc error = parse(mText, number);
    if (error == std::errc::invalid_argument || !std::isfinite(number))
        refuse("is not a number: " + quoted(mText));
    if (error == std::errc::result_out_of_range)
        number = roundedNumber(mText);
    if (!std::isfinite(number) || number < min || number > max)
        refuse("must be " + rangeText(min, max, number < min) + ": " + quoted(mText));
    return number;
}

bool Parameter::asBool(std::optional<bool> fallback) const&&
{
    if (mText.empty()) {
        if (!fallback)
            refuseMissing();
        return *fallback;
    }
    const bool isTrue = contains(kTrue, mText);
    if (!isTrue && !contains(kFalse, mText))
        refuse("must be true or false: " + quoted(mText));
    return isTrue;
}

std::string_view Parameter::asOneOf(std::initializer_list<std::string_view> allowed,
                                    std::optional<std::string_view> fallback) const&&
{
    if (mText.empty()) {
        if (!fallback)
            refuseMissing();
        return *fallback;
    }
    const auto* const found = std::find(allowed.begin(), allowed.end(), mText);
    if (found != allowed.end())
        return *found;
    std::string list;
    for (const std::string_view text : allowed)
        list.append(list.empty() ? "" : ", ").append(text);
    refuse("must be one of " + list + ": " + quoted(mText));
}

}  // namespace qv::kit
