// The request heads of strict mode, against the rules written as plain searches: each head that has
// one of the defects is refused, and no other.

#include "request/StrictRequest.h"

#include "support/Check.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace
{

using Headers = std::vector<std::pair<std::string, std::string>>;

constexpr size_t kMaxHeaders = 16;
constexpr size_t kMaxTextBytes = 64;  // std::regex is recursive

struct Head
{
    std::string method;
    std::string target;
    bool isHttp10;
    Headers headers;
};

bool Matches(const std::string& text, const std::regex& pattern)
{
    return std::regex_match(text, pattern);
}

bool IsToken(const std::string& text)
{
    static const std::regex pattern("[-!#$%&'*+.^_`|~0-9A-Za-z]+");
    return Matches(text, pattern);
}

bool HasControl(const std::string& text, bool isTabAllowed)
{
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 32 && !(isTabAllowed && c == '\t')) || byte == 127)
            return true;
    }
    return false;
}

bool IsTarget(const std::string& method, const std::string& target)
{
    if (target.empty() || HasControl(target, false) ||
        target.find_first_of(" #") != std::string::npos)
        return false;
    static const std::regex authority(R"((\[[^/?@\\]+\]|[^\[\]:/?@\\]+):[0-9]+)");
    static const std::regex scheme(R"([A-Za-z][-A-Za-z0-9+.]*://[^/?])");
    if (method == "CONNECT")
        return Matches(target, authority);
    return target[0] == '/' || (target == "*" && method == "OPTIONS") ||
           Matches(target.substr(0, target.find("://") + 4), scheme);
}

std::string Lower(std::string text)
{
    for (char& c : text)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    return text;
}

bool IsLength(const std::string& value)
{
    if (value.empty() || value.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const size_t begin = value.find_first_not_of('0');
    const std::string digits = begin == std::string::npos ? "0" : value.substr(begin);
    return digits.size() < 19 || (digits.size() == 19 && digits <= "9223372036854775807");
}

bool IsHost(const std::string& value)
{
    static const std::regex pattern(
        R"([ \t]*(([-A-Za-z0-9._~!$&'()*+,;=]|%[0-9A-Fa-f]{2})*|\[[-A-Za-z0-9._~!$&'()*+,;=:]+\])(:[0-9]*)?[ \t]*)");
    return std::regex_match(value, pattern);
}

// A list of tokens with parameters, one of which is not "chunked".
bool IsUnknownCoding(const std::string& value)
{
    bool isUnknown = false;
    std::string rest = value + ",";
    while (!rest.empty()) {
        const std::string element = rest.substr(0, rest.find(','));
        rest.erase(0, element.size() + 1);
        std::smatch found;
        static const std::regex pattern("[ \t]*([^ \t;]+)[ \t]*(;[\\s\\S]*)?");
        if (!std::regex_match(element, found, pattern) || !IsToken(found[1]))
            return false;
        isUnknown |= Lower(found[1]) != "chunked";
    }
    return isUnknown;
}

unsigned ExpectedStatus(const Head& head)
{
    constexpr unsigned kBad = 400;
    size_t hosts = 0, lengths = 0, codings = 0;
    bool isUnknown = false;
    bool isBad = !IsToken(head.method) || !IsTarget(head.method, head.target);
    for (const auto& [name, value] : head.headers) {
        isBad |= !IsToken(name) || HasControl(value, true);
        if (Lower(name) == "host") {
            ++hosts;
            isBad |= !IsHost(value);
        }
        if (Lower(name) == "content-length") {
            ++lengths;
            isBad |= !IsLength(value);
        }
        if (Lower(name) == "transfer-encoding") {
            ++codings;
            const bool isUnknownHere = IsUnknownCoding(value);
            isUnknown |= isUnknownHere;
            isBad |= !isUnknownHere && Lower(value) != "chunked";
        }
    }
    isBad |= hosts > 1 || (hosts == 0 && !head.isHttp10) || lengths > 1 || codings > 1 ||
             (lengths != 0 && codings != 0) || (codings != 0 && head.isHttp10);
    return isBad ? kBad : isUnknown ? 501 : 0;
}

// One of four known texts, or any text.
std::string ConsumeText(FuzzedDataProvider& input, const std::vector<std::string>& known)
{
    if (input.ConsumeBool())
        return input.PickValueInArray({known[0], known[1], known[2], known[3]});
    return input.ConsumeRandomLengthString(kMaxTextBytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    Head head;
    head.isHttp10 = input.ConsumeBool();
    head.method = ConsumeText(input, {"GET", "CONNECT", "OPTIONS", "POST"});
    head.target = ConsumeText(input, {"/", "*", "http://h/", "h:80"});
    while (input.remaining_bytes() > 0 && head.headers.size() < kMaxHeaders)
        head.headers.emplace_back(
            ConsumeText(input, {"Host", "Content-Length", "Transfer-Encoding", "A"}),
            ConsumeText(input, {"chunked", "5", "gzip", ""}));

    qv::impl::StrictRequest request(head.method, head.target, head.isHttp10);
    for (const auto& [name, value] : head.headers)
        request.takeHeader(name, value);
    const qv::impl::Refusal refusal = request.finish();
    FUZZ_CHECK(refusal.status == ExpectedStatus(head));
    FUZZ_CHECK((refusal.status == 0) == (*refusal.reason == '\0'));
    return 0;
}
