// Classes of characters of HTTP.
#ifndef WENDREL_KIT_SRC_TEXT_H
#define WENDREL_KIT_SRC_TEXT_H

#include <algorithm>
#include <string>
#include <string_view>

namespace qv::kit
{

inline bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

inline bool isLetterOrDigit(char c)
{
    return isDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

inline bool isControl(char c)
{
    return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

inline char toLower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string toLower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](char c) { return toLower(c); });
    return text;
}

// The case of ASCII letters does not matter.
inline bool equalsIgnoringCase(std::string_view left, std::string_view right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return toLower(a) == toLower(b); });
}

inline bool isTokenCharacter(char c)
{
    constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
    return isLetterOrDigit(c) || kMarks.find(c) != std::string_view::npos;
}

inline bool isToken(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

// A byte inside a character of UTF-8.
inline bool isContinuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xc0) == 0x80;
}

// At most `maxBytes`, without a part of a character at the end.
inline std::string_view cutUtf8(std::string_view text, size_t maxBytes)
{
    if (text.size() <= maxBytes)
        return text;
    while (maxBytes > 0 && isContinuation(text[maxBytes]))
        --maxBytes;
    return text.substr(0, maxBytes);
}

// Without spaces and tabs at both ends.
inline std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view kSpaces = " \t";
    const size_t first = text.find_first_not_of(kSpaces);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kSpaces) - first + 1);
}

// Bytes for which `isPlain` is false as "%XX".
template <typename IsPlain>
std::string percentEncoded(std::string_view text, const IsPlain& isPlain)
{
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string out;
    for (const char c : text) {
        if (isPlain(c)) {
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

}  // namespace qv::kit

#endif
