// The proof that the server has understood a WebSocket client's opening handshake.

#include <Wendrel/WebSocket.h>

#include <qvOpenSSL/Base64.h>
#include <qvOpenSSL/HashHelper.h>

#include <cstring>

namespace qv::http
{
namespace
{

constexpr size_t kKeyBytes = 24;  // 16 random bytes in base64
constexpr const char* kHandshakeGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

// The digest has 20 bytes; the client compares the text of these alone.
constexpr size_t kDigestCapacityBytes = 32;
constexpr size_t kDigestBytes = 20;

}  // namespace

std::string WebSocket::ComputeSecret(const char* key)
{
    std::string secret;
    if (!key || std::strlen(key) != kKeyBytes)
        return secret;
    const std::string text = std::string(key, kKeyBytes) + kHandshakeGuid;
    char digest[kDigestCapacityBytes] = {};
    HashHelper(HashType::Sha1).hash(text.data(), text.size(), digest, sizeof digest);
    base64Encode(digest, kDigestBytes, secret, Base64CharSet::Standard);
    return secret;
}

}  // namespace qv::http
