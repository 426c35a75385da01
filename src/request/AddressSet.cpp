// Addresses of both families as 16 bytes, and the networks that they are compared with.

#include "request/AddressSet.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <system_error>

namespace qv::impl
{
namespace
{

using Bytes = std::array<uint8_t, NetworkAddress::kBytes>;

constexpr std::array<uint8_t, 12> kMappedPrefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
constexpr unsigned kMappedPrefixBits = 96;
constexpr unsigned kBitsOfByte = 8;
constexpr unsigned kBitsOfAddress = 128;
constexpr unsigned kBitsOfIpv4 = 32;

constexpr std::string_view kUnix = "unix";

Bytes mapped(const in_addr& v4)
{
    Bytes bytes;
    const auto end = std::copy(kMappedPrefix.begin(), kMappedPrefix.end(), bytes.begin());
    std::memcpy(&*end, &v4, sizeof v4);
    return bytes;
}

// Whether both begin with the same bits.
bool haveSamePrefix(const Bytes& a, const Bytes& b, unsigned bits)
{
    const unsigned whole = bits / kBitsOfByte;
    const unsigned rest = bits % kBitsOfByte;
    if (!std::equal(a.begin(), a.begin() + whole, b.begin()))
        return false;
    return rest == 0 || ((a[whole] ^ b[whole]) >> (kBitsOfByte - rest)) == 0;
}

// Whether all bits from `bits` on are 0.
bool isZeroFrom(const Bytes& bytes, unsigned bits)
{
    Bytes cleared = bytes;
    for (unsigned bit = bits; bit < kBitsOfAddress; ++bit)
        cleared[bit / kBitsOfByte] &= static_cast<uint8_t>(~(0x80u >> (bit % kBitsOfByte)));
    return cleared == bytes;
}

}  // namespace

bool NetworkAddress::isV4() const
{
    return std::equal(kMappedPrefix.begin(), kMappedPrefix.end(), bytes.begin());
}

IpAddress NetworkAddress::toIpAddress() const
{
    if (isV4()) {
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        std::memcpy(&v4.sin_addr, bytes.data() + kMappedPrefix.size(), sizeof v4.sin_addr);
        return IpAddress::fromIP(reinterpret_cast<const sockaddr*>(&v4));
    }
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    std::memcpy(&v6.sin6_addr, bytes.data(), sizeof v6.sin6_addr);
    return IpAddress::fromIP(reinterpret_cast<const sockaddr*>(&v6));
}

std::optional<NetworkAddress> ParseNetworkAddress(std::string_view text)
{
    std::array<char, INET6_ADDRSTRLEN> terminated{};
    if (text.size() >= terminated.size() || text.find('\0') != std::string_view::npos)
        return std::nullopt;
    text.copy(terminated.data(), text.size());
    NetworkAddress address;
    in_addr v4{};
    if (inet_pton(AF_INET, terminated.data(), &v4) == 1)
        address.bytes = mapped(v4);
    else if (inet_pton(AF_INET6, terminated.data(), address.bytes.data()) != 1)
        return std::nullopt;
    return address;
}

std::optional<NetworkAddress> ToNetworkAddress(const sockaddr* address)
{
    NetworkAddress result;
    if (address->sa_family == AF_INET) {
        sockaddr_in v4;
        std::memcpy(&v4, address, sizeof v4);
        result.bytes = mapped(v4.sin_addr);
        result.port = ntohs(v4.sin_port);
        return result;
    }
    if (address->sa_family != AF_INET6)
        return std::nullopt;
    sockaddr_in6 v6;
    std::memcpy(&v6, address, sizeof v6);
    std::memcpy(result.bytes.data(), &v6.sin6_addr, sizeof v6.sin6_addr);
    result.port = ntohs(v6.sin6_port);
    return result;
}

std::string AddressSet::add(std::string_view entry)
{
    if (entry == kUnix) {
        mContainsUnix = true;
        return std::string();
    }
    const std::string_view text = entry.substr(0, entry.find('/'));
    const std::optional<NetworkAddress> address = ParseNetworkAddress(text);
    if (!address)
        return "no address; use 127.0.0.1, 10.0.0.0/8, fd00::/8 or unix";
    const bool isV4 = text.find(':') == std::string_view::npos;
    const unsigned maxBits = isV4 ? kBitsOfIpv4 : kBitsOfAddress;
    unsigned bits = maxBits;
    if (text.size() < entry.size()) {
        const std::string_view prefix = entry.substr(text.size() + 1);
        const char* const end = prefix.data() + prefix.size();
        const auto [stopped, failure] = std::from_chars(prefix.data(), end, bits);
        if (failure != std::errc() || stopped != end || bits > maxBits)
            return "the prefix is not a number of at most " + std::to_string(maxBits);
    }
    const Network network{address->bytes, isV4 ? bits + kMappedPrefixBits : bits};
    if (!isZeroFrom(network.bytes, network.prefixBits))
        return "the address has bits behind its prefix";
    mNetworks.push_back(network);
    return std::string();
}

bool AddressSet::contains(const NetworkAddress& address) const
{
    const bool isV4 = address.isV4();
    return std::any_of(mNetworks.begin(), mNetworks.end(), [&](const Network& network) {
        // A network of IPv6 does not contain the mapped addresses.
        return (!isV4 || network.prefixBits >= kMappedPrefixBits) &&
               haveSamePrefix(network.bytes, address.bytes, network.prefixBits);
    });
}

}  // namespace qv::impl
