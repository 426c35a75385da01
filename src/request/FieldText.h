// Texts of header fields and addresses: ASCII only, whatever the locale.
#ifndef WENDREL_REQUEST_FIELDTEXT_H
#define WENDREL_REQUEST_FIELDTEXT_H

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <system_error>

namespace qv::impl
{

// Of a token, beside letters and digits.
inline constexpr std::string_view kTokenMarks = "!#$%&'*+-.^_`|~";

constexpr bool IsDigit(char c)
{
    return c >= '0' && c <= '9';
}

constexpr bool IsLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

constexpr bool IsAlphanumeric(char c)
{
    return IsLetter(c) || IsDigit(c);
}

constexpr char ToLower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline bool EqualsCaseless(std::string_view text, std::string_view lowerCase)
{
    return text.size() == lowerCase.size() &&
           std::equal(text.begin(), text.end(), lowerCase.begin(),
                      [](char a, char b) { return ToLower(a) == b; });
}

inline constexpr std::string_view kSpaces = " \t";

// Without spaces and tabs at both ends.
inline std::string_view Trimmed(std::string_view text)
{
    const size_t begin = text.find_first_not_of(kSpaces);
    if (begin == std::string_view::npos)
        return std::string_view();
    return text.substr(begin, text.find_last_not_of(kSpaces) + 1 - begin);
}

// Digits only, any number of them.
inline std::optional<uint16_t> ParsePort(std::string_view text)
{
    uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, failure] = std::from_chars(text.data(), end, port);
    if (failure != std::errc() || stopped != end)
        return std::nullopt;
    return port;
}

}  // namespace qv::impl

#endif
