// One context of OpenSSL for each certificate; they differ in nothing else. A session begins with
// the first and changes to another one when its client names a host of it.

#include "listener/TlsContext.h"

#include "listener/TlsCertificates.h"

#include <qvSystem/qvSystemUtils.h>

#include <openssl/core_names.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>

namespace qv::impl
{
namespace
{

using http::ClientCertificates;
using http::TlsOptions;

// Forward secrecy and authenticated encryption.
constexpr const char* kSuites12 =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384:DHE-RSA-CHACHA20-POLY1305";
constexpr const char* kSuites13 =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
constexpr const char* kGroups = "X25519:P-256:P-384";

constexpr uint64_t kOptions = SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION |
                              SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_PRIORITIZE_CHACHA;
constexpr uint64_t kModes =
    SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER;

constexpr std::string_view kProtocols[] = {"http/1.1", "http/1.0"};

bool setClientCertificates(SSL_CTX* context, ClientCertificates wanted,
                           const std::vector<CertificatePointer>& authorities)
{
    if (wanted == ClientCertificates::None)
        return true;
    X509_STORE* const store = SSL_CTX_get_cert_store(context);
    for (const CertificatePointer& authority : authorities) {
        if (X509_STORE_add_cert(store, authority.get()) != 1 ||
            SSL_CTX_add_client_CA(context, authority.get()) != 1)
            return false;
    }
    const int required =
        wanted == ClientCertificates::Required ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0;
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | required, nullptr);
    return true;
}

// A ticket holds the result of the check of the client: it is for endpoints with the same one.
bool makeSessionContext(ClientCertificates wanted,
                        const std::vector<CertificatePointer>& authorities,
                        std::array<unsigned char, SSL_MAX_SID_CTX_LENGTH>& made)
{
    std::string bytes(1, static_cast<char>(wanted));
    for (const CertificatePointer& authority : authorities) {
        unsigned char* encoded = nullptr;
        const int size = i2d_X509(authority.get(), &encoded);
        if (size < 0)
            return false;
        const std::unique_ptr<unsigned char, void (*)(unsigned char*)> owned(
            encoded, [](unsigned char* memory) { CRYPTO_free(memory, "", 0); });
        bytes.append(reinterpret_cast<const char*>(encoded), static_cast<size_t>(size));
    }
    unsigned int size = 0;
    return EVP_Digest(bytes.data(), bytes.size(), made.data(), &size, EVP_sha256(), nullptr) == 1 &&
           size == made.size();
}

bool setCertificate(SSL_CTX* context, TlsKeyPair& pair)
{
    if (SSL_CTX_use_certificate(context, pair.certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context, pair.key.get()) != 1)
        return false;
    return std::all_of(pair.issuers.begin(), pair.issuers.end(),
                       [&](const CertificatePointer& issuer) {
                           return SSL_CTX_add1_chain_cert(context, issuer.get()) == 1;
                       });
}

}  // namespace

std::shared_ptr<const TlsContext>
TlsContext::Load(const TlsOptions& options, std::shared_ptr<TlsTicketKeys> keys, std::string& why)
{
    std::vector<CertificatePointer> authorities;
    if (options.clientCertificates != ClientCertificates::None) {
        why = options.clientAuthorities.empty()
                  ? "no authority; give their file in TlsOptions::clientAuthorities"
                  : LoadAuthorities(options.clientAuthorities, authorities);
        if (!why.empty()) {
            why = "clientAuthorities: " + why;
            return nullptr;
        }
    }
    if (options.certificates.empty()) {
        why = "no certificate";
        return nullptr;
    }
    std::shared_ptr<TlsContext> loaded(new TlsContext);
    if (!makeSessionContext(options.clientCertificates, authorities, loaded->mSessionContext)) {
        why = "cannot identify the authorities: " + TakeTlsError();
        return nullptr;
    }
    loaded->mKeys = options.sessionTickets ? std::move(keys) : nullptr;
    for (size_t i = 0; i < options.certificates.size(); ++i) {
        why = loaded->add(options, i, authorities);
        if (!why.empty()) {
            why.insert(0, "certificates[" + std::to_string(i) + "]: ");
            return nullptr;
        }
    }
    return loaded;
}

std::string TlsContext::add(const TlsOptions& options, size_t index,
                            const std::vector<CertificatePointer>& authorities)
{
    TlsKeyPair pair;
    std::string why = LoadKeyPair(options.certificates[index], pair);
    if (!why.empty())
        return why;
    auto made = std::make_unique<Certificate>();
    made->context.reset(SSL_CTX_new(TLS_server_method()));
    SSL_CTX* const context = made->context.get();
    if (!context)
        return "cannot make a context: " + TakeTlsError();
    if (SSL_CTX_set_cipher_list(context, kSuites12) != 1 ||
        SSL_CTX_set_ciphersuites(context, kSuites13) != 1 ||
        SSL_CTX_set1_groups_list(context, kGroups) != 1 ||
        !setClientCertificates(context, options.clientCertificates, authorities))
        return "cannot set the suites: " + TakeTlsError();
    if (!setCertificate(context, pair))
        return "the certificate cannot be used: " + TakeTlsError();
    configure(context, options);
    made->ocspResponse = std::move(pair.ocspResponse);
    if (!made->ocspResponse.empty()) {
        SSL_CTX_set_tlsext_status_cb(context, &giveOcspResponse);
        SSL_CTX_set_tlsext_status_arg(context, made.get());
    }
    made->certificate = std::move(pair.certificate);
    mCertificates.push_back(std::move(made));
    return std::string();
}

void TlsContext::configure(SSL_CTX* context, const TlsOptions& options)
{
    SSL_CTX_set_min_proto_version(context, static_cast<int>(options.minimumVersion));
    SSL_CTX_set_options(context, kOptions);
    SSL_CTX_set_mode(context, kModes);
    SSL_CTX_set_read_ahead(context, 1);
    SSL_CTX_set_dh_auto(context, 1);
    SSL_CTX_set_app_data(context, this);
    SSL_CTX_set_alpn_select_cb(context, &chooseProtocol, nullptr);
    SSL_CTX_set_tlsext_servername_callback(context, &chooseCertificate);
    SSL_CTX_set_tlsext_servername_arg(context, this);
    // Sessions are kept by the clients, in tickets.
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_session_id_context(context, mSessionContext.data(),
                                   static_cast<unsigned int>(mSessionContext.size()));
    SSL_CTX_set_timeout(context, TlsTicketKeys::kTicketSeconds);
    if (mKeys) {
        SSL_CTX_set_tlsext_ticket_key_evp_cb(context, &chooseTicketKey);
    } else {
        SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
        SSL_CTX_set_num_tickets(context, 0);
    }
}

SslPointer TlsContext::createSession(int descriptor) const
{
    SslPointer made(SSL_new(mCertificates.front()->context.get()));
    if (!made || SSL_set_fd(made.get(), descriptor) != 1) {
        ERR_clear_error();
        return nullptr;
    }
    SSL_set_accept_state(made.get());
    return made;
}

// A host that no certificate has gets the first one.
int TlsContext::chooseCertificate(SSL* session, int*, void* closure)
{
    const auto& context = *static_cast<const TlsContext*>(closure);
    const char* const host = SSL_get_servername(session, TLSEXT_NAMETYPE_host_name);
    if (!host || context.mCertificates.size() == 1)
        return SSL_TLSEXT_ERR_OK;
    for (const auto& one : context.mCertificates) {
        if (X509_check_host(one->certificate.get(), host, 0, 0, nullptr) == 1) {
            SSL_set_SSL_CTX(session, one->context.get());
            break;
        }
    }
    return SSL_TLSEXT_ERR_OK;
}

// A client that wants only other protocols would not understand the responses.
int TlsContext::chooseProtocol(SSL*, const unsigned char** chosen, unsigned char* chosenSize,
                               const unsigned char* offered, unsigned int offeredSize, void*)
{
    for (const std::string_view protocol : kProtocols) {
        for (unsigned int i = 0; i < offeredSize && offered[i] < offeredSize - i;
             i += 1U + offered[i]) {
            if (offered[i] != protocol.size() ||
                std::memcmp(offered + i + 1, protocol.data(), protocol.size()) != 0)
                continue;
            *chosen = offered + i + 1;
            *chosenSize = offered[i];
            return SSL_TLSEXT_ERR_OK;
        }
    }
    return SSL_TLSEXT_ERR_ALERT_FATAL;
}

// OpenSSL frees the copy.
int TlsContext::giveOcspResponse(SSL* session, void* closure)
{
    const std::string& response = static_cast<const Certificate*>(closure)->ocspResponse;
    void* const copied = CRYPTO_memdup(response.data(), response.size(), "", 0);
    if (!copied)
        return SSL_TLSEXT_ERR_NOACK;
    SSL_set_tlsext_status_ocsp_resp(session, copied, static_cast<long>(response.size()));
    return SSL_TLSEXT_ERR_OK;
}

// 0: no ticket, or a full handshake; 2: the client gets a new one.
int TlsContext::chooseTicketKey(SSL* session, unsigned char* name, unsigned char* vector,
                                EVP_CIPHER_CTX* cipher, EVP_MAC_CTX* digest, int isNew)
{
    const auto& context =
        *static_cast<const TlsContext*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(session)));
    const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
    const EVP_CIPHER* const aes = EVP_aes_256_cbc();
    bool isCurrent = true;
    std::optional<TlsTicketKeys::Key> key =
        isNew ? context.mKeys->getCurrent(nowMs) : context.mKeys->find(name, nowMs, isCurrent);
    if (!key)
        return 0;
    char digestName[] = "SHA256";
    const std::array<OSSL_PARAM, 3> parameters{
        OSSL_PARAM_construct_octet_string(OSSL_MAC_PARAM_KEY, key->digest.data(),
                                          key->digest.size()),
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digestName, 0),
        OSSL_PARAM_construct_end()};
    if (EVP_MAC_CTX_set_params(digest, parameters.data()) != 1)
        return -1;
    if (!isNew) {
        if (EVP_DecryptInit_ex(cipher, aes, nullptr, key->cipher.data(), vector) != 1)
            return -1;
        // With version 1.3 a client uses each ticket once.
        return isCurrent && SSL_version(session) < TLS1_3_VERSION ? 1 : 2;
    }
    std::memcpy(name, key->name.data(), key->name.size());
    if (RAND_bytes(vector, EVP_CIPHER_get_iv_length(aes)) != 1 ||
        EVP_EncryptInit_ex(cipher, aes, nullptr, key->cipher.data(), vector) != 1)
        return -1;
    return 1;
}

}  // namespace qv::impl
