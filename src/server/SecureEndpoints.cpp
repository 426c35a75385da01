// An endpoint is plain, redirects, or has one TLS.

#include "server/SecureEndpoints.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

namespace qv::impl
{
namespace
{

using http::ServerOptions;
using http::TlsOptions;

constexpr std::chrono::milliseconds kMaxTimeout = std::chrono::hours(24);

bool contains(const std::vector<std::string>& texts, const std::string& text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

std::string fieldOf(size_t index, const char* field)
{
    return "ServerOptions::tls[" + std::to_string(index) + "]." + field + ": ";
}

std::string checkKnown(const ServerOptions& options, const std::vector<std::string>& endpoints)
{
    for (const std::string& endpoint : endpoints) {
        if (!contains(options.listen, endpoint))
            return '"' + endpoint + "\" is no entry of ServerOptions::listen";
    }
    return std::string();
}

// A program that was built with a later version sets them, and they would be ignored.
template <typename... Fields> bool areUnused(const Fields&... fields)
{
    return ((fields == Fields()) && ...);
}

bool areReservedUnused(const TlsOptions& tls)
{
    return areUnused(tls.reservedLists, tls.reservedTexts, tls.reservedNumbers) &&
           std::all_of(tls.certificates.begin(), tls.certificates.end(),
                       [](const http::TlsCertificate& certificate) {
                           return areUnused(certificate.reservedTexts, certificate.reservedNumbers);
                       });
}

std::string checkRecord(const TlsOptions& tls, size_t index)
{
    if (!areReservedUnused(tls))
        return fieldOf(index, "reserved") + "set by a program for a later version of the library";
    const int64_t limitMs = tls.handshakeTimeout.count();
    if (tls.certificates.empty())
        return fieldOf(index, "certificates") + "no certificate";
    if (limitMs < 0 || limitMs > kMaxTimeout.count())
        return fieldOf(index, "handshakeTimeout") + std::to_string(limitMs) +
               " is not between 0 and " + std::to_string(kMaxTimeout.count()) + " ms";
    if (tls.minimumVersion != http::TlsVersion::Tls12 &&
        tls.minimumVersion != http::TlsVersion::Tls13)
        return fieldOf(index, "minimumVersion") + "neither Tls12 nor Tls13";
    if (tls.clientCertificates > http::ClientCertificates::Required)
        return fieldOf(index, "clientCertificates") + "neither None nor Requested nor Required";
    return std::string();
}

// The record that names the endpoint; otherwise the one that names none.
size_t recordOf(const ServerOptions& options, const std::string& endpoint)
{
    size_t found = ListeningSocket::Role::kPlain;
    for (size_t i = 0; i < options.tls.size(); ++i) {
        if (contains(options.tls[i].endpoints, endpoint))
            return i;
        if (options.tls[i].endpoints.empty() && !contains(options.redirectToHttps, endpoint))
            found = i;
    }
    return found;
}

bool isNamedTwice(const ServerOptions& options, const std::string& endpoint)
{
    const auto names = [&endpoint](const TlsOptions& tls) {
        return contains(tls.endpoints, endpoint);
    };
    return std::count_if(options.tls.begin(), options.tls.end(), names) +
               (contains(options.redirectToHttps, endpoint) ? 1 : 0) >
           1;
}

}  // namespace

std::string CheckSecureEndpoints(const ServerOptions& options)
{
    std::string why;
    size_t forAll = 0;
    for (size_t i = 0; i < options.tls.size(); ++i) {
        why = checkRecord(options.tls[i], i);
        if (!why.empty())
            return why;
        why = checkKnown(options, options.tls[i].endpoints);
        if (!why.empty())
            return fieldOf(i, "endpoints") + why;
        forAll += options.tls[i].endpoints.empty() ? 1 : 0;
    }
    if (forAll > 1)
        return "ServerOptions::tls: only one record may be without endpoints";
    why = checkKnown(options, options.redirectToHttps);
    if (!why.empty())
        return "ServerOptions::redirectToHttps: " + why;
    for (const std::string& endpoint : options.listen) {
        if (isNamedTwice(options, endpoint))
            return "ServerOptions::tls: \"" + endpoint +
                   "\" is named twice; an endpoint has one TLS or redirects";
    }
    return !options.redirectToHttps.empty() && options.httpsPort == 0
               ? "ServerOptions::httpsPort: 0 is not between 1 and 65535"
               : std::string();
}

ListeningSocket::Role RoleOf(const ServerOptions& options, const std::string& endpoint)
{
    ListeningSocket::Role role;
    role.tls = recordOf(options, endpoint);
    role.redirectsToHttps = contains(options.redirectToHttps, endpoint);
    return role;
}

std::string StrictTransportOf(const TlsOptions& options)
{
    return options.strictTransportSeconds == 0
               ? std::string()
               : "max-age=" + std::to_string(options.strictTransportSeconds);
}

}  // namespace qv::impl
