// The TLS of an endpoint as OpenSSL wants it: certificates by host name, suites, tickets.
#ifndef WENDREL_LISTENER_TLSCONTEXT_H
#define WENDREL_LISTENER_TLSCONTEXT_H

#include <Wendrel/TlsOptions.h>

#include "listener/TlsPointers.h"
#include "listener/TlsTicketKeys.h"

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace qv::impl
{

// Immutable: a reload makes another one. Held by each session, whose callbacks use it.
class TlsContext
{
public:
    // Null, with the reason in `why`, when a certificate cannot be used. `keys` null: no tickets.
    static std::shared_ptr<const TlsContext>
    Load(const http::TlsOptions& options, std::shared_ptr<TlsTicketKeys> keys, std::string& why);

    ~TlsContext() = default;
    TlsContext(const TlsContext&) = delete;
    TlsContext& operator=(const TlsContext&) = delete;

    // A server's side on `descriptor`; null without memory. Any thread.
    SslPointer createSession(int descriptor) const;

private:
    struct Certificate
    {
        CertificatePointer certificate;
        SslContextPointer context;
        std::string ocspResponse;
    };

    TlsContext() = default;

    std::string add(const http::TlsOptions& options, size_t index,
                    const std::vector<CertificatePointer>& authorities);
    void configure(SSL_CTX* context, const http::TlsOptions& options);

    static int chooseCertificate(SSL* session, int* alert, void* closure);
    static int chooseProtocol(SSL* session, const unsigned char** chosen, unsigned char* chosenSize,
                              const unsigned char* offered, unsigned int offeredSize,
                              void* closure);
    static int giveOcspResponse(SSL* session, void* closure);
    static int chooseTicketKey(SSL* session, unsigned char* name, unsigned char* vector,
                               EVP_CIPHER_CTX* cipher, EVP_MAC_CTX* digest, int isNew);

    std::shared_ptr<TlsTicketKeys> mKeys;
    std::array<unsigned char, SSL_MAX_SID_CTX_LENGTH> mSessionContext{};
    std::vector<std::unique_ptr<Certificate>> mCertificates;
};

}  // namespace qv::impl

#endif
