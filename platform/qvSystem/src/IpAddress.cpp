// Addresses of clients, as values and as text.

#include <qvSystem/IpAddress.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <tuple>

namespace qv
{

IpAddress IpAddress::fromIP(const sockaddr* address)
{
    IpAddress result;
    if (!address)
        return result;
    if (address->sa_family == AF_INET) {
        sockaddr_in v4;
        std::memcpy(&v4, address, sizeof v4);
        result.mFamily = Family::V4;
        result.mPort = ntohs(v4.sin_port);
        std::memcpy(result.mBytes.data(), &v4.sin_addr, sizeof v4.sin_addr);
    } else if (address->sa_family == AF_INET6) {
        sockaddr_in6 v6;
        std::memcpy(&v6, address, sizeof v6);
        result.mFamily = Family::V6;
        result.mPort = ntohs(v6.sin6_port);
        std::memcpy(result.mBytes.data(), &v6.sin6_addr, sizeof v6.sin6_addr);
    }
    return result;
}

IpAddress IpAddress::fromText(const std::string& text, uint16_t port)
{
    if (text.find('\0') != std::string::npos)
        return IpAddress();
    IpAddress result;
    if (inet_pton(AF_INET, text.c_str(), result.mBytes.data()) == 1)
        result.mFamily = Family::V4;
    else if (inet_pton(AF_INET6, text.c_str(), result.mBytes.data()) == 1)
        result.mFamily = Family::V6;
    else
        return IpAddress();
    result.mPort = port;
    return result;
}

std::string IpAddress::toString() const
{
    if (!isValid())
        return std::string();
    if (mFamily == Family::V6) {
        char text[INET6_ADDRSTRLEN];
        inet_ntop(AF_INET6, mBytes.data(), text, sizeof text);
        return text;
    }
    // Most addresses are these. Without inet_ntop, which prints them by a format.
    std::string text;
    for (size_t i = 0; i < sizeof(in_addr); ++i) {
        char number[3];
        char* const end = std::to_chars(number, std::end(number), mBytes[i]).ptr;
        if (i != 0)
            text += '.';
        text.append(number, end);
    }
    return text;
}

std::string IpAddress::toStringWithPort() const
{
    if (!isValid())
        return std::string();
    const std::string port = ":" + std::to_string(mPort);
    return mFamily == Family::V4 ? toString() + port : "[" + toString() + "]" + port;
}

bool operator<(const IpAddress& a, const IpAddress& b)
{
    return std::tie(a.mFamily, a.mBytes, a.mPort) < std::tie(b.mFamily, b.mBytes, b.mPort);
}

}  // namespace qv
