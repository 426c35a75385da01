/// Properties of a secure connection.
#ifndef WENDREL_TLSCONNECTION_H
#define WENDREL_TLSCONNECTION_H

#include <string>

namespace qv
{

/// Result of the handshake of a connection; see `HttpBaseRequest::getTls`. Does not change.
struct TlsConnection
{
    std::string version;     ///< "TLSv1.3"
    std::string cipher;      ///< the suite: "TLS_AES_128_GCM_SHA256"
    std::string serverName;  ///< host that the client has named; empty without one
    bool isResumed = false;  ///< the session was resumed with a ticket

    /// Subject of the client's valid certificate as in RFC 2253, "CN=probe,O=Example"; empty
    /// without one.
    std::string clientSubject;

    /// SHA-256 digest of that certificate in 64 lower-case hexadecimal digits; empty without one.
    std::string clientFingerprint;
};

}  // namespace qv

#endif
