// Owners of OpenSSL's objects.
#ifndef WENDREL_LISTENER_TLSPOINTERS_H
#define WENDREL_LISTENER_TLSPOINTERS_H

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ocsp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace qv::impl
{

template <auto Free> struct TlsDeleter
{
    template <typename Object> void operator()(Object* object) const { Free(object); }
};

using BioPointer = std::unique_ptr<BIO, TlsDeleter<&BIO_free>>;
using CertificatePointer = std::unique_ptr<X509, TlsDeleter<&X509_free>>;
using KeyPointer = std::unique_ptr<EVP_PKEY, TlsDeleter<&EVP_PKEY_free>>;
using OcspPointer = std::unique_ptr<OCSP_RESPONSE, TlsDeleter<&OCSP_RESPONSE_free>>;
using SslPointer = std::unique_ptr<SSL, TlsDeleter<&SSL_free>>;
using SslContextPointer = std::unique_ptr<SSL_CTX, TlsDeleter<&SSL_CTX_free>>;

// Texts over memory that outlives the result.
inline BioPointer ReadBio(const std::string& text)
{
    return BioPointer(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// The reason of the last error of the calling thread, whose errors are forgotten.
inline std::string TakeTlsError()
{
    const unsigned long error = ERR_peek_last_error();
    const char* const reason = ERR_reason_error_string(error);
    ERR_clear_error();
    return reason ? reason : "no reason known";
}

}  // namespace qv::impl

#endif
