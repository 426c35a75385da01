/// Certificates and limits of secure endpoints.
#ifndef WENDREL_TLSOPTIONS_H
#define WENDREL_TLSOPTIONS_H

#include <Wendrel/Export.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace qv
{
namespace http
{

/// A certificate with its private key; a plain value, of which later versions use the reserved
/// fields and append none: applications have its size compiled in. A field that begins with
/// "-----BEGIN" is the text itself, any other is the path of a file, which
/// `HttpServer::reloadCertificates` reads again.
struct WENDREL_EXPORT TlsCertificate
{
    /// The certificate, then those of its issuers, in PEM. Refused when one of them has expired.
    std::string chain;

    /// The private key of the certificate in PEM.
    std::string key;

    /// Of an encrypted key; otherwise not used.
    std::string password;

    /// File with the OCSP response (DER) that is sent to clients that ask for one. Empty: none.
    std::string ocspResponse;

    /// For later fields. Leave them empty; the start fails otherwise.
    std::array<std::string, 2> reservedTexts{};
    /// For later fields. Leave them 0; the start fails otherwise.
    std::array<uint64_t, 2> reservedNumbers{};
};

/// Oldest version of TLS.
enum class TlsVersion : uint16_t { Tls12 = 0x0303, Tls13 = 0x0304 };

/// Whether clients show certificates of their own.
enum class ClientCertificates : uint8_t {
    None,       ///< not asked for
    Requested,  ///< asked for; a connection without one is served, one with a bad one is not
    Required    ///< a connection without a valid one is not served
};

/// TLS of one or several endpoints; a plain value, with reserved fields as TlsCertificate.
struct WENDREL_EXPORT TlsOptions
{
    /// Entries of `ServerOptions::listen` that serve HTTPS only. Empty: all that no other record
    /// names and `redirectToHttps` does not name.
    std::vector<std::string> endpoints;

    /// At least one. A client that names a host gets the first one whose names have it, every other
    /// client the first one.
    std::vector<TlsCertificate> certificates;

    /// Of version 1.2 only suites with forward secrecy and authenticated encryption are served.
    TlsVersion minimumVersion = TlsVersion::Tls12;

    /// From the acceptance to the end of the handshake; then the connection is closed. 0: no limit
    /// but `ServerOptions::headTimeout`, which counts from the acceptance, too. At most one day.
    std::chrono::milliseconds handshakeTimeout{10000};

    /// Whether a client may resume its session with a ticket, without a full handshake. The keys of
    /// the tickets live in the memory of the process and are replaced every hour.
    bool sessionTickets = true;

    /// Certificates of clients, signed by `clientAuthorities`.
    ClientCertificates clientCertificates = ClientCertificates::None;

    /// Certificates of the authorities in PEM: a path or the text itself.
    std::string clientAuthorities;

    /// Seconds of the header `Strict-Transport-Security: max-age=...` that each response of the
    /// application gets unless it has one. 0: none.
    uint32_t strictTransportSeconds = 0;

    /// For later fields. Leave them empty; the start fails otherwise.
    std::array<std::vector<std::string>, 2> reservedLists{};
    /// For later fields. Leave them empty; the start fails otherwise.
    std::array<std::string, 2> reservedTexts{};
    /// For later fields. Leave them 0; the start fails otherwise.
    std::array<uint64_t, 4> reservedNumbers{};
};

}  // namespace http
}  // namespace qv

#endif
