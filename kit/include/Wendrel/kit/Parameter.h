/// Texts of a request as numbers, switches and choices.
#ifndef WENDREL_KIT_PARAMETER_H
#define WENDREL_KIT_PARAMETER_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace qv::kit
{

/// One text of a request with its name: a parameter of the path or of the query, a header, a cookie
/// or a field of a form.
///
///     const int64_t page = request.query("page").asInt(1, 1, 1000);
///     const std::string& user = request.cookie("user");
///
/// Used in the expression that gets it: converted to a string, or by one of the operations. It is
/// not copied and not kept, so that no callback holds a text of a request that has ended.
///
/// Each `as...` throws HttpError 400, whose text has the name, for a text that it cannot convert.
/// An empty text counts as a missing one, as browsers send fields that are not filled in: the
/// result is `fallback`; without one it is 400, too.
class Parameter
{
public:
    /// Where the text comes from, for the text of an error.
    enum class Kind : uint8_t {
        Path,       ///< path parameter
        Query,      ///< query parameter
        Header,     ///< header
        Cookie,     ///< cookie
        FormField,  ///< form field
        Element     ///< element, for a list that the application has split itself
    };

    /// Of `name` and `text`, both of which outlive this: an element of `Request::queryValues`.
    Parameter(Kind kind, std::string_view name, const std::string& text)
        : mText(text), mName(name), mKind(kind)
    {}

    Parameter(const Parameter&) = delete;
    Parameter& operator=(const Parameter&) = delete;
    ~Parameter() = default;

    /// The text as received; it lives as long as the request. Empty when there is none.
    operator const std::string&() const&& { return mText; }
    /// The same.
    operator std::string_view() const&& { return mText; }
    /// Would never be empty: ask `empty`.
    operator std::optional<std::string>() && = delete;
    /// The same.
    operator std::optional<std::string_view>() && = delete;

    /// Whether there is no text.
    bool empty() const&& { return mText.empty(); }

    /// The text, of at most `maxBytes` bytes.
    std::string asText(std::optional<std::string_view> fallback = std::nullopt,
                       size_t maxBytes = std::string::npos) const&&;

    /// A whole number in decimal digits, with "-" before it when it is negative, from `min` to
    /// `max`, both included.
    int64_t asInt(std::optional<int64_t> fallback = std::nullopt,
                  int64_t min = std::numeric_limits<int64_t>::min(),
                  int64_t max = std::numeric_limits<int64_t>::max()) const&&;

    /// A finite number such as "-1.5e3", in every locale, from `min` to `max`, both included; the
    /// nearest one that a double has, which is 0 for "1e-400".
    double asDouble(std::optional<double> fallback = std::nullopt,
                    double min = std::numeric_limits<double>::lowest(),
                    double max = std::numeric_limits<double>::max()) const&&;

    /// "true", "on", "yes" and "1", or "false", "off", "no" and "0". A browser sends "on" for a box
    /// that is checked, and nothing for one that is not: `asBool(false)`.
    bool asBool(std::optional<bool> fallback = std::nullopt) const&&;

    /// One of the texts `allowed`: `asOneOf({"name", "date"}, "name")`.
    std::string_view asOneOf(std::initializer_list<std::string_view> allowed,
                             std::optional<std::string_view> fallback = std::nullopt) const&&;

    /// Compares the text.
    friend bool operator==(const Parameter&& left, std::string_view right)
    {
        return left.mText == right;
    }
    /// Compares the text.
    friend bool operator!=(const Parameter&& left, std::string_view right)
    {
        return left.mText != right;
    }
    /// Joins the texts.
    friend std::string operator+(const Parameter&& left, std::string_view right)
    {
        return std::string(left.mText).append(right);
    }
    /// Joins the texts.
    friend std::string operator+(std::string left, const Parameter&& right)
    {
        return left.append(right.mText);
    }
    /// Joins the texts.
    friend std::string operator+(const Parameter&& left, const Parameter&& right)
    {
        return left.mText + right.mText;
    }

private:
    [[noreturn]] void refuse(const std::string& why) const;
    [[noreturn]] void refuseMissing() const;

    const std::string& mText;
    const std::string_view mName;
    const Kind mKind;
};

}  // namespace qv::kit

#endif
