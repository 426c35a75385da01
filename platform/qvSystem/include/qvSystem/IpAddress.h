#ifndef QVSYSTEM_IPADDRESS_H
#define QVSYSTEM_IPADDRESS_H

#include <qvSystem/Export.h>

#include <array>
#include <cstdint>
#include <string>

struct sockaddr;

namespace qv
{

/// An IPv4 or IPv6 address with a port; a plain value.
class QV_EXPORT IpAddress
{
public:
    /// The family of the address.
    enum class Family : uint8_t { None, V4, V6 };

    /// No address: `isValid()` is false, the port 0, the text empty.
    IpAddress() = default;

    /// The address and port held by `address` (AF_INET or AF_INET6). Null or any other
    /// family gives no address.
    static IpAddress fromIP(const sockaddr* address);

    /// The address written in `text` ("127.0.0.1", "::1"), with `port` in host order.
    /// Anything else gives no address.
    static IpAddress fromText(const std::string& text, uint16_t port);

    /// True when there is an address.
    bool isValid() const { return mFamily != Family::None; }

    /// `None` when there is no address.
    Family getFamily() const { return mFamily; }

    /// Port in host order; 0 when there is none.
    uint16_t getPort() const { return mPort; }

    /// The address without port, in its usual short form ("127.0.0.1", "::1").
    std::string toString() const;

    /// Address and port: "127.0.0.1:80", "[::1]:80".
    std::string toStringWithPort() const;

    /// Whether family, address and port are the same.
    friend bool operator==(const IpAddress& a, const IpAddress& b)
    {
        return a.mFamily == b.mFamily && a.mPort == b.mPort && a.mBytes == b.mBytes;
    }
    /// Whether one of them differs.
    friend bool operator!=(const IpAddress& a, const IpAddress& b) { return !(a == b); }

    /// Orders by family, then address, then port.
    QV_EXPORT friend bool operator<(const IpAddress& a, const IpAddress& b);

private:
    Family mFamily = Family::None;
    uint16_t mPort = 0;
    std::array<uint8_t, 16> mBytes{};  // network order; IPv4 uses the first four
};

}  // namespace qv

#endif
