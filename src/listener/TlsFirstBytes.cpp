// A record of TLS begins with its type; a request with its method and a space.

#include "listener/TlsFirstBytes.h"

#include <algorithm>

namespace qv::impl
{
namespace
{

constexpr char kHandshakeType = 0x16;
constexpr std::string_view kMethods[] = {"GET ",     "HEAD ",    "POST ",  "PUT ",   "DELETE ",
                                         "OPTIONS ", "CONNECT ", "TRACE ", "PATCH ", "PRI "};

}  // namespace

TlsFirstBytes ClassifyFirstBytes(std::string_view received)
{
    if (received.empty())
        return TlsFirstBytes::Incomplete;
    if (received.front() == kHandshakeType)
        return TlsFirstBytes::Handshake;
    bool mayBegin = false;
    for (const std::string_view method : kMethods) {
        const size_t common = std::min(method.size(), received.size());
        if (method.substr(0, common) != received.substr(0, common))
            continue;
        if (common == method.size())
            return TlsFirstBytes::PlainHttp;
        mayBegin = true;
    }
    return mayBegin ? TlsFirstBytes::Incomplete : TlsFirstBytes::Other;
}

}  // namespace qv::impl
