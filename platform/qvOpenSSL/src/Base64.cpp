// Base64 by OpenSSL.

#include <qvOpenSSL/Base64.h>

#include <openssl/evp.h>

#include <algorithm>

namespace qv
{
namespace
{

// Input of one call; a multiple of three, so that only the last one is padded, and small
// enough for the encoder's int.
constexpr unsigned long kPieceBytes = 3UL << 20;

void makeUrlSafe(std::string& out, size_t from)
{
    const auto begin = out.begin() + static_cast<std::ptrdiff_t>(from);
    std::replace(begin, out.end(), '+', '-');
    std::replace(begin, out.end(), '/', '_');
    while (out.size() > from && out.back() == '=')
        out.pop_back();
}

}  // namespace

void base64Encode(const char* data, unsigned long size, std::string& out, Base64CharSet charSet)
{
    const size_t from = out.size();
    // At once, so that without memory nothing is appended; with space for the encoder's NUL.
    out.reserve(from + (size / 3 + 1) * 4 + 1);
    while (size > 0) {
        const unsigned long piece = std::min(size, kPieceBytes);
        const size_t at = out.size();
        const size_t encoded = (piece + 2) / 3 * 4;
        out.resize(at + encoded + 1);  // the encoder ends with a NUL
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data() + at),
                        reinterpret_cast<const unsigned char*>(data), static_cast<int>(piece));
        out.resize(at + encoded);
        data += piece;
        size -= piece;
    }
    if (charSet == Base64CharSet::UrlSafe)
        makeUrlSafe(out, from);
}

}  // namespace qv
