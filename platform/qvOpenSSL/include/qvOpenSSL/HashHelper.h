#ifndef QVOPENSSL_HASHHELPER_H
#define QVOPENSSL_HASHHELPER_H

#include <qvSystem/Export.h>

namespace qv
{

/// Digests by number. Value 2 is reserved and digests nothing.
enum class HashType : int { Md5 = 1, Reserved = 2, Sha1 = 3, Sha256 = 4, Sha512 = 5 };

/// Digests bytes with one algorithm. Holds no state between calls; one object may be used
/// by several threads.
class QV_EXPORT HashHelper
{
public:
    /// Size of the largest digest in bytes (SHA-512).
    static constexpr unsigned long kMaxDigestBytes = 64;

    /// For digests of this type.
    explicit HashHelper(HashType type);

    /// Digests `size` bytes of `data` and writes the digest to `out`, which has room for
    /// `outSize` bytes. Returns the digest's size: 16 (MD5), 20 (SHA-1), 32 (SHA-256) or
    /// 64 (SHA-512); 0, with `out` unchanged, when it does not fit, the type is not known
    /// or the digest is not available.
    unsigned long hash(const char* data, unsigned long size, char* out,
                       unsigned long outSize) const;

    /// Size of this type's digest in bytes; 0 when the type is not known.
    unsigned long getDigestSize() const;

private:
    HashType mType;
};

}  // namespace qv

#endif
