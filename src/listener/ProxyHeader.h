// The PROXY header that a proxy sends before the bytes of its client (versions 1 and 2).
#ifndef WENDREL_LISTENER_PROXYHEADER_H
#define WENDREL_LISTENER_PROXYHEADER_H

#include "request/AddressSet.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace qv::impl
{

struct ProxyHeader
{
    enum class State : uint8_t {
        None,        // the connection does not begin with a header
        Incomplete,  // more bytes are needed
        Malformed,
        Complete
    };

    State state = State::None;
    size_t bytes = 0;  // of a complete header

    // A connection of the proxy itself, such as a health check.
    bool isLocal = false;

    // None when the proxy does not tell the address of its client.
    std::optional<NetworkAddress> source;
};

// Longest header: of version 2, with 4096 bytes behind its fixed part.
inline constexpr size_t kMaxProxyHeaderBytes = 16 + 4096;

// Looks at the first bytes of a connection, at most kMaxProxyHeaderBytes.
ProxyHeader ParseProxyHeader(std::string_view received);

}  // namespace qv::impl

#endif
