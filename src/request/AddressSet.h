// Addresses and networks: the entries of ServerOptions::trustedProxies.
#ifndef WENDREL_REQUEST_ADDRESSSET_H
#define WENDREL_REQUEST_ADDRESSSET_H

#include <qvSystem/IpAddress.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct sockaddr;

namespace qv::impl
{

// An address of IPv6, or one of IPv4 mapped into IPv6 ("::ffff:127.0.0.1"), with a port.
struct NetworkAddress
{
    static constexpr size_t kBytes = 16;

    std::array<uint8_t, kBytes> bytes{};  // network order
    uint16_t port = 0;                    // host order; 0: not known

    bool isV4() const;

    // A mapped address becomes one of IPv4.
    IpAddress toIpAddress() const;
};

// The address written in `text`, without brackets, zone and port.
std::optional<NetworkAddress> ParseNetworkAddress(std::string_view text);

// Of a peer; none unless AF_INET or AF_INET6.
std::optional<NetworkAddress> ToNetworkAddress(const sockaddr* address);

// A plain value; read by several threads.
class AddressSet
{
public:
    // Adds "127.0.0.1", "10.0.0.0/8", "fd00::/8" or "unix". Returns why the entry is invalid; empty
    // on success.
    std::string add(std::string_view entry);

    bool contains(const NetworkAddress& address) const;

    // Whether clients of Unix sockets are in the set.
    bool containsUnix() const { return mContainsUnix; }

    bool isEmpty() const { return mNetworks.empty() && !mContainsUnix; }

private:
    struct Network
    {
        std::array<uint8_t, NetworkAddress::kBytes> bytes{};
        unsigned prefixBits = 0;
    };

    std::vector<Network> mNetworks;
    bool mContainsUnix = false;
};

}  // namespace qv::impl

#endif
