/// What both back ends print of a request, one line an event.
#ifndef WENDREL_TESTS_INTEGRATION_FRAMING_REPORT_H
#define WENDREL_TESTS_INTEGRATION_FRAMING_REPORT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace framing
{

/// Both answer a target that ends in one of these without declaring a length: with 200, and with
/// 304. Anything else is answered 200 with a short body.
constexpr std::string_view kUndeclaredTarget = "/undeclared";
constexpr std::string_view kNotModifiedTarget = "/not-modified";

/// Stands in each answer that is not the daemon's own.
constexpr const char* kOwnHeader = "X-Application";
constexpr const char* kForwardedHeader = "x-forwarded-for";

/// One word: all but visible ASCII is written as \xHH; "-" when there is nothing.
inline std::string word(std::string_view text)
{
    if (text.empty())
        return "-";
    std::string escaped;
    for (const char c : text) {
        if (c > ' ' && c <= '~' && c != '\\') {
            escaped += c;
            continue;
        }
        char code[5];
        std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned>(c) & 0xffu);
        escaped += code;
    }
    return escaped;
}

/// "PORT EVENT DETAILS", where PORT is the client's.
inline void report(uint16_t clientPort, const char* event, const std::string& details)
{
    std::printf("%u %s %s\n", static_cast<unsigned>(clientPort), event, details.c_str());
    std::fflush(stdout);
}

/// A request whose head is complete.
inline void reportHead(uint16_t clientPort, std::string_view method, std::string_view target,
                       std::string_view forwardedFor)
{
    report(clientPort, "head", word(method) + " " + word(target) + " " + word(forwardedFor));
}

/// The body of the last request of this client is complete.
inline void reportWhole(uint16_t clientPort, uint64_t bodyBytes)
{
    report(clientPort, "whole", std::to_string(bodyBytes));
}

}  // namespace framing

#endif
