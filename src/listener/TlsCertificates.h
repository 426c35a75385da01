// Certificates and keys from files or texts, with the exact reason why one cannot be used.
#ifndef WENDREL_LISTENER_TLSCERTIFICATES_H
#define WENDREL_LISTENER_TLSCERTIFICATES_H

#include <Wendrel/TlsOptions.h>

#include "listener/TlsPointers.h"

#include <string>
#include <vector>

namespace qv::impl
{

struct TlsKeyPair
{
    CertificatePointer certificate;
    std::vector<CertificatePointer> issuers;
    KeyPointer key;
    std::string ocspResponse;  // DER; empty without one
};

// Each returns why it is not possible; empty on success. Bytes come from a file, or from the text
// when it begins with "-----BEGIN".
std::string LoadKeyPair(const http::TlsCertificate& from, TlsKeyPair& loaded);
std::string LoadAuthorities(const std::string& from, std::vector<CertificatePointer>& loaded);

}  // namespace qv::impl

#endif
