// The hosts that a server serves: entries of ServerOptions::allowedHosts.
#ifndef WENDREL_REQUEST_ALLOWEDHOSTS_H
#define WENDREL_REQUEST_ALLOWEDHOSTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv::impl
{

// A plain value; read by several threads.
class AllowedHosts
{
public:
    // Adds "example.com", "example.com:8080", "*.example.com" (exactly one label in place of the
    // asterisk) or "[::1]". Returns why the entry is invalid; empty on success.
    std::string add(std::string_view entry);

    bool isEmpty() const { return mEntries.empty(); }

    // Whether `authority`, the value of a Host header, is one of the entries. The port counts only
    // for an entry that names one.
    bool contains(std::string_view authority) const;

private:
    struct Entry
    {
        std::string host;  // in the form of normalizedHost; with a wildcard: behind "*."
        bool isWildcard = false;
        std::optional<uint16_t> port;
    };

    std::vector<Entry> mEntries;
};

// The authority of a target in absolute form ("http://example.com/page"); none for other forms.
std::optional<std::string_view> GetTargetAuthority(std::string_view target);

// The host of an authority in lower case, without its port and with the brackets of an IPv6
// address; empty when the authority is none.
std::string GetAuthorityHost(std::string_view authority);

}  // namespace qv::impl

#endif
