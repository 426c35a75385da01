// Keys and certificates by OpenSSL.

#include "Certificates.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <memory>
#include <stdexcept>

namespace integration
{

namespace
{

using Bio = std::unique_ptr<BIO, decltype(&BIO_free)>;
using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

constexpr size_t kRsaBits = 2048;

void require(bool done)
{
    if (!done)
        throw std::runtime_error("OpenSSL made no certificate");
}

std::string textOf(BIO* bio)
{
    char* text = nullptr;
    const long bytes = BIO_get_mem_data(bio, &text);
    return std::string(text, static_cast<size_t>(bytes));
}

Bio reader(const std::string& text)
{
    return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), &BIO_free);
}

Key readKey(const std::string& text)
{
    return Key(PEM_read_bio_PrivateKey(reader(text).get(), nullptr, nullptr, nullptr),
               &EVP_PKEY_free);
}

void addExtension(X509* certificate, int number, const std::string& value)
{
    X509_EXTENSION* const extension = X509V3_EXT_conf_nid(nullptr, nullptr, number, value.c_str());
    require(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1);
    X509_EXTENSION_free(extension);
}

std::string keyText(EVP_PKEY* key)
{
    const Bio bio(BIO_new(BIO_s_mem()), &BIO_free);
    require(PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1);
    return textOf(bio.get());
}

}  // namespace

TestCertificate makeCertificate(const CertificateWish& wish)
{
    static std::atomic<long> sSerial{1};
    const Key key(wish.withRsa ? EVP_RSA_gen(kRsaBits) : EVP_EC_gen("P-256"), &EVP_PKEY_free);
    const Certificate made(X509_new(), &X509_free);
    require(key && made);
    X509_set_version(made.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(made.get()), sSerial++);
    X509_gmtime_adj(X509_getm_notBefore(made.get()), wish.validFromSeconds);
    X509_gmtime_adj(X509_getm_notAfter(made.get()), wish.validToSeconds);
    X509_set_pubkey(made.get(), key.get());
    X509_NAME* const name = X509_get_subject_name(made.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(wish.subject.c_str()), -1, -1,
                               0);
    std::string alternatives;
    for (const std::string& host : wish.hosts)
        alternatives += (alternatives.empty() ? "DNS:" : ",DNS:") + host;
    if (!alternatives.empty())
        addExtension(made.get(), NID_subject_alt_name, alternatives);
    if (wish.isAuthority)
        addExtension(made.get(), NID_basic_constraints, "critical,CA:TRUE");
    Key signer(nullptr, &EVP_PKEY_free);
    if (wish.issuer != nullptr) {
        signer = readKey(wish.issuer->key);
        const Certificate issuer(
            PEM_read_bio_X509(reader(wish.issuer->certificate).get(), nullptr, nullptr, nullptr),
            &X509_free);
        require(issuer && signer);
        X509_set_issuer_name(made.get(), X509_get_subject_name(issuer.get()));
    } else {
        X509_set_issuer_name(made.get(), name);
    }
    require(X509_sign(made.get(), signer ? signer.get() : key.get(), EVP_sha256()) != 0);
    const Bio bio(BIO_new(BIO_s_mem()), &BIO_free);
    require(PEM_write_bio_X509(bio.get(), made.get()) == 1);
    return {textOf(bio.get()), keyText(key.get())};
}

std::string encryptKey(const std::string& key, const std::string& password)
{
    const Key read = readKey(key);
    const Bio bio(BIO_new(BIO_s_mem()), &BIO_free);
    require(PEM_write_bio_PKCS8PrivateKey(bio.get(), read.get(), EVP_aes_256_cbc(),
                                          password.c_str(), static_cast<int>(password.size()),
                                          nullptr, nullptr) == 1);
    return textOf(bio.get());
}

const TestCertificate& localhostCertificate()
{
    static const TestCertificate sMade = makeCertificate({"localhost", {"localhost"}});
    return sMade;
}

qv::http::TlsOptions localhostTls()
{
    qv::http::TlsOptions options;
    options.certificates.push_back(
        {localhostCertificate().certificate, localhostCertificate().key, "", ""});
    return options;
}

}  // namespace integration
