// Digests by OpenSSL.

#include <qvOpenSSL/HashHelper.h>

#include <qvSystem/LibInitCounter.h>

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstring>

namespace qv
{
namespace
{

// Registers the library below for as long as this one is loaded.
struct VersionRecord
{
    static constexpr const char* kName = "OpenSSL";

    VersionRecord()
    {
        impl::RegisterThirdPartyLibVersionInfo(kName, OpenSSL_version(OPENSSL_VERSION_STRING));
    }
    ~VersionRecord() { impl::UnRegisterThirdPartyLibVersionInfo(kName); }
};

const VersionRecord sVersionRecord;

const EVP_MD* digestOf(HashType type)
{
    switch (type) {
    case HashType::Md5:
        return EVP_md5();
    case HashType::Sha1:
        return EVP_sha1();
    case HashType::Sha256:
        return EVP_sha256();
    case HashType::Sha512:
        return EVP_sha512();
    default:
        return nullptr;
    }
}

}  // namespace

HashHelper::HashHelper(HashType type) : mType(type) {}

unsigned long HashHelper::hash(const char* data, unsigned long size, char* out,
                               unsigned long outSize) const
{
    const unsigned long digestSize = getDigestSize();
    if (digestSize == 0 || digestSize > outSize)
        return 0;
    unsigned char digest[EVP_MAX_MD_SIZE];
    if (EVP_Digest(data, size, digest, nullptr, digestOf(mType), nullptr) != 1)
        return 0;
    std::memcpy(out, digest, digestSize);
    return digestSize;
}

unsigned long HashHelper::getDigestSize() const
{
    const EVP_MD* digest = digestOf(mType);
    return digest ? static_cast<unsigned long>(EVP_MD_get_size(digest)) : 0;
}

}  // namespace qv
