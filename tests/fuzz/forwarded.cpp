// X-Forwarded-For and Forwarded: the elements of a proxy decide, after any text of a client.

#include "request/Forwarded.h"

#include "support/Check.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace
{

using qv::impl::AddressSet;
using qv::impl::FindClientInForwarded;
using qv::impl::FindClientInForwardedFor;
using qv::impl::HeaderLines;
using qv::impl::NetworkAddress;
using qv::impl::ParseNetworkAddress;

const AddressSet& Trusted()
{
    static const AddressSet set = [] {
        AddressSet made;
        FUZZ_CHECK(made.add("10.0.0.0/8").empty());
        FUZZ_CHECK(made.add("fd00::/8").empty());
        return made;
    }();
    return set;
}

std::string Shown(const std::optional<NetworkAddress>& address)
{
    return address ? address->toIpAddress().toStringWithPort() : "none";
}

// One element of X-Forwarded-For; nothing when it is no address.
std::optional<NetworkAddress> Node(const std::string& element)
{
    static const std::regex kBracketed("\\[([^\\]]*:[^\\]]*)\\](:(.*))?");
    static const std::regex kWithPort("([^:]*):(.*)");
    static const std::regex kPort("[0-9]{1,5}");
    static const std::regex kHidden("_[A-Za-z0-9._-]+");
    std::string host = element;
    std::string port;
    bool hasPort = false;
    std::smatch found;
    if (std::regex_match(element, found, kBracketed)) {
        host = found[1];
        hasPort = found[2].matched;
        port = found[3];
    } else if (element.find(':') == element.rfind(':') &&
               std::regex_match(element, found, kWithPort)) {
        host = found[1];
        hasPort = true;
        port = found[2];
    }
    auto address = ParseNetworkAddress(host);
    if (!address || !hasPort || std::regex_match(port, kHidden))
        return address;
    if (!std::regex_match(port, kPort) || std::stoi(port) > 65535)
        return std::nullopt;
    address->port = static_cast<uint16_t>(std::stoi(port));
    return address;
}

std::optional<NetworkAddress> Walk(const std::vector<std::string>& lines)
{
    std::vector<std::string> elements;
    for (const std::string& line : lines) {
        std::string element;
        for (const char c : line + ",") {
            if (c != ',') {
                element += c;
                continue;
            }
            const size_t begin = element.find_first_not_of(" \t");
            if (begin != std::string::npos)
                elements.push_back(
                    element.substr(begin, element.find_last_not_of(" \t") + 1 - begin));
            element.clear();
        }
    }
    std::optional<NetworkAddress> client;
    for (; !elements.empty(); elements.pop_back()) {
        const auto address = Node(elements.back());
        if (!address)
            return client;
        client = address;
        if (!Trusted().contains(*address))
            return client;
    }
    return client;
}

HeaderLines ViewsOf(const std::vector<std::string>& lines)
{
    return HeaderLines(lines.begin(), lines.end());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> lines(1);
    // Values of headers have no zero bytes, line ends and other controls; a line end begins
    // another.
    for (size_t i = 0; i < size && size < 4096; ++i) {
        const char c = static_cast<char>(data[i]);
        if (c == '\n')
            lines.emplace_back();
        else if (c != '\0')
            lines.back() += c;
    }
    FUZZ_CHECK(Shown(FindClientInForwardedFor(ViewsOf(lines), Trusted())) == Shown(Walk(lines)));
    FindClientInForwarded(ViewsOf(lines), Trusted());

    const struct
    {
        const char* forwardedFor;
        const char* forwarded;
        const char* client;
    } ofProxies[] = {
        {", 192.0.2.1", ", for=192.0.2.1", "192.0.2.1:0"},
        {", 192.0.2.1:80", ", for=\"192.0.2.1:80\";proto=https", "192.0.2.1:80"},
        {",[2001:db8::1]", ",for=\"[2001:db8::1]\"", "[2001:db8::1]:0"},
        {", 192.0.2.1, 10.0.0.1", ", for=192.0.2.1;x=\"a,\\\"b\", for=10.0.0.1", "192.0.2.1:0"},
        {", 192.0.2.1, fd00::1", ", x=\"\";for=192.0.2.1, for=\"[fd00::1]:_p\"", "192.0.2.1:0"},
    };
    for (const auto& proxy : ofProxies) {
        std::vector<std::string> appended = lines;
        appended.back() += proxy.forwardedFor;
        FUZZ_CHECK(Shown(FindClientInForwardedFor(ViewsOf(appended), Trusted())) == proxy.client);
        appended = lines;
        appended.back() += proxy.forwarded;
        FUZZ_CHECK(Shown(FindClientInForwarded(ViewsOf(appended), Trusted())) == proxy.client);
    }
    return 0;
}
