/// The events that both back ends print, one per line.
#ifndef WENDREL_TESTS_INTEGRATION_FRAMING_REPORT_H
#define WENDREL_TESTS_INTEGRATION_FRAMING_REPORT_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace framing
{

/// Targets with these endings get a response without a declared length: 200 and 304. All others
/// get 200 with a short body.
constexpr std::string_view kUndeclaredTarget = "/undeclared";
constexpr std::string_view kNotModifiedTarget = "/not-modified";

/// A header of each response of the application, not of those of the daemon itself.
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
