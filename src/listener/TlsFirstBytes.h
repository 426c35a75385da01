// The first bytes of a connection to a secure endpoint, before OpenSSL sees them.
#ifndef WENDREL_LISTENER_TLSFIRSTBYTES_H
#define WENDREL_LISTENER_TLSFIRSTBYTES_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qv::impl
{

enum class TlsFirstBytes : uint8_t {
    Incomplete,  // more bytes are needed
    Handshake,   // a record of TLS
    PlainHttp,   // a request without TLS
    Other
};

// As many decide.
inline constexpr size_t kMaxFirstBytes = 8;

TlsFirstBytes ClassifyFirstBytes(std::string_view received);

}  // namespace qv::impl

#endif
