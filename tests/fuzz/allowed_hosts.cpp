// Values of Host against the entries of a server: nothing but their own spellings is served.

#include "request/AllowedHosts.h"

#include "support/Check.h"

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <regex>
#include <string>

namespace
{

using qv::impl::AllowedHosts;

const AllowedHosts& Hosts()
{
    static const AllowedHosts hosts = [] {
        AllowedHosts made;
        for (const char* entry : {"localhost", "a.example:8080", "*.b.example", "[::1]"})
            FUZZ_CHECK(made.add(entry).empty());
        return made;
    }();
    return hosts;
}

bool IsLoopback(const std::string& text)
{
    in6_addr address{};
    return inet_pton(AF_INET6, text.c_str(), &address) == 1 &&
           std::memcmp(&address, &in6addr_loopback, sizeof address) == 0;
}

bool IsServed(const std::string& value)
{
    constexpr auto kAnyCase = std::regex::icase | std::regex::ECMAScript;
    static const std::regex kParts(
        "[ \t]*(\\[[0-9a-fA-F:.]*\\]|[A-Za-z0-9._-]*)(:([0-9]*))?[ \t]*");
    static const std::regex kLocal("localhost\\.?", kAnyCase);
    static const std::regex kWithPort("a\\.example\\.?", kAnyCase);
    static const std::regex kLabel("[a-z0-9_-]+\\.b\\.example\\.?", kAnyCase);
    std::smatch found;
    if (!std::regex_match(value, found, kParts))
        return false;
    const std::string digits = found[3];
    const size_t significant = digits.find_first_not_of('0');
    const std::string number = significant == std::string::npos ? "0" : digits.substr(significant);
    if (number.size() > 5 || std::stoi(number) > 65535)
        return false;
    const std::string host = found[1];
    if (std::regex_match(host, kLocal) || std::regex_match(host, kLabel))
        return true;
    if (std::regex_match(host, kWithPort))
        return number == "8080";
    return host.size() > 2 && host.front() == '[' && IsLoopback(host.substr(1, host.size() - 2));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (size <= 512)
        FUZZ_CHECK(Hosts().contains(text) == IsServed(text));

    // An entry is served by its own text, a wildcard by a label in place of the asterisk.
    AllowedHosts own;
    if (own.add(text).empty()) {
        const bool isWildcard = text.compare(0, 2, "*.") == 0;
        FUZZ_CHECK(own.contains(isWildcard ? "label" + text.substr(1) : text));
        FUZZ_CHECK(!own.contains("another." + text + ".test"));
    }
    // The authority is a part of its target.
    if (const auto authority = qv::impl::GetTargetAuthority(text)) {
        FUZZ_CHECK(text.find("://" + std::string(*authority)) != std::string::npos);
        FUZZ_CHECK(authority->find_first_of("/?#") == std::string::npos);
    }
    return 0;
}
