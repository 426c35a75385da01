// Host names as browsers and proxies write them, compared with the entries.

#include "request/AllowedHosts.h"

#include "request/FieldText.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr std::string_view kWildcard = "*.";
constexpr std::string_view kSchemeEnd = "://";
constexpr std::string_view kAuthorityEnds = "/?#";

bool isNameCharacter(char c)
{
    return IsAlphanumeric(c) || c == '-' || c == '_' || c == '.';
}

std::string lowerCase(std::string_view text)
{
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), &ToLower);
    return lower;
}

// An address has several spellings.
std::string normalizedIpv6(const std::string& text)
{
    in6_addr address{};
    char normalized[INET6_ADDRSTRLEN];
    if (text.find('\0') != std::string::npos || inet_pton(AF_INET6, text.c_str(), &address) != 1 ||
        !inet_ntop(AF_INET6, &address, normalized, sizeof normalized))
        return std::string();
    return std::string("[") + normalized + "]";
}

// In lower case, without the dot of the root; IPv6 addresses in their short form. Empty for
// anything that is no host.
std::string normalizedHost(std::string_view host)
{
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        return normalizedIpv6(std::string(host.substr(1, host.size() - 2)));
    if (!host.empty() && host.back() == '.')
        host.remove_suffix(1);
    if (host.empty() || host.front() == '.' || host.back() == '.' ||
        host.find("..") != std::string_view::npos ||
        !std::all_of(host.begin(), host.end(), isNameCharacter))
        return std::string();
    return lowerCase(host);
}

// Behind the host: nothing, or a colon with digits. A port without digits is none.
bool parsePort(std::string_view text, std::optional<uint16_t>& port)
{
    if (text.size() <= 1)
        return text.empty() || text == ":";
    port = ParsePort(text.substr(1));
    return text.front() == ':' && port;
}

// An empty result is no authority.
std::string parseAuthority(std::string_view text, std::optional<uint16_t>& port)
{
    const size_t bracket = text.rfind(']');
    const size_t colon = text.find(':', bracket == std::string_view::npos ? 0 : bracket);
    const size_t hostBytes = std::min(colon, text.size());
    if (!parsePort(text.substr(hostBytes), port))
        return std::string();
    return normalizedHost(text.substr(0, hostBytes));
}

bool isOneLabelBefore(const std::string& parent, const std::string& host)
{
    const size_t dot = host.find('.');
    return dot != std::string::npos && host.compare(dot + 1, std::string::npos, parent) == 0;
}

}  // namespace

std::string AllowedHosts::add(std::string_view entry)
{
    Entry added;
    added.isWildcard = entry.substr(0, kWildcard.size()) == kWildcard;
    const std::string_view name = added.isWildcard ? entry.substr(kWildcard.size()) : entry;
    added.host = parseAuthority(name, added.port);
    if (added.host.empty() || entry.back() == ':' || (added.isWildcard && name.front() == '['))
        return "no host; use example.com, example.com:8080, *.example.com or [::1]";
    mEntries.push_back(std::move(added));
    return std::string();
}

bool AllowedHosts::contains(std::string_view authority) const
{
    std::optional<uint16_t> port;
    const std::string host = parseAuthority(Trimmed(authority), port);
    const auto isHost = [&](const Entry& entry) {
        if (entry.port && entry.port != port)
            return false;
        return entry.isWildcard ? isOneLabelBefore(entry.host, host) : entry.host == host;
    };
    return !host.empty() && std::any_of(mEntries.begin(), mEntries.end(), isHost);
}

std::string GetAuthorityHost(std::string_view authority)
{
    std::optional<uint16_t> port;
    return parseAuthority(Trimmed(authority), port);
}

std::optional<std::string_view> GetTargetAuthority(std::string_view target)
{
    const size_t scheme = target.find(kSchemeEnd);
    if (scheme == std::string_view::npos || scheme > target.find_first_of(kAuthorityEnds))
        return std::nullopt;
    const std::string_view rest = target.substr(scheme + kSchemeEnd.size());
    return rest.substr(0, rest.find_first_of(kAuthorityEnds));
}

}  // namespace qv::impl
