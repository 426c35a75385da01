/// Certificates of the tests, made in memory.
#ifndef WENDREL_TESTS_INTEGRATION_CERTIFICATES_H
#define WENDREL_TESTS_INTEGRATION_CERTIFICATES_H

#include <Wendrel/TlsOptions.h>

#include <string>
#include <vector>

namespace integration
{

/// A certificate with its key, both in PEM.
struct TestCertificate
{
    std::string certificate;
    std::string key;
};

struct CertificateWish
{
    std::string subject = "localhost";  ///< common name
    std::vector<std::string> hosts;     ///< alternative names
    long validFromSeconds = -3600;      ///< from now
    long validToSeconds = 86400;
    bool isAuthority = false;
    bool withRsa = false;                     ///< 2048 bits; otherwise P-256
    const TestCertificate* issuer = nullptr;  ///< null: signed by itself
};

TestCertificate makeCertificate(const CertificateWish& wish);

/// The key encrypted with `password`, in PEM.
std::string encryptKey(const std::string& key, const std::string& password);

/// A certificate for localhost, made once.
const TestCertificate& localhostCertificate();

/// Options with that certificate, for all endpoints.
qv::http::TlsOptions localhostTls();

}  // namespace integration

#endif
