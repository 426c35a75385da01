// Texts of HTTP headers.
#ifndef WENDREL_KIT_WEBSOCKET_TEXT_H
#define WENDREL_KIT_WEBSOCKET_TEXT_H

#include <algorithm>
#include <string_view>

namespace qv::kit::websocket
{

inline char toLower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// ASCII only; the locale does not matter.
inline bool equalsIgnoringCase(std::string_view a, std::string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return toLower(x) == toLower(y); });
}

inline std::string_view trim(std::string_view text)
{
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

inline bool isToken(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (toLower(c) >= 'a' && toLower(c) <= 'z') ||
               std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
    });
}

}  // namespace qv::kit::websocket

#endif
