// The opening handshake of a WebSocket.

#include "bare/Upgrade.h"

#include "bare/Reply.h"

#include <openssl/evp.h>

#include <strings.h>

#include <array>
#include <cstring>
#include <string>

namespace bench
{
namespace
{

constexpr size_t kKeyBytes = 24;  // 16 random bytes in base64
constexpr size_t kDigestBytes = 20;
constexpr size_t kEncodedCapacityBytes = 29;  // the digest in base64 and the end of the text
constexpr const char* kHandshakeGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr const char* kVersion = "13";

const std::string kRefusal = "Not a WebSocket handshake";

std::string acceptValue(const char* key)
{
    const std::string text = std::string(key) + kHandshakeGuid;
    std::array<unsigned char, kDigestBytes> digest;
    EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_sha1(), nullptr);
    std::array<unsigned char, kEncodedCapacityBytes> encoded;
    EVP_EncodeBlock(encoded.data(), digest.data(), kDigestBytes);
    return reinterpret_cast<const char*>(encoded.data());
}

// Bytes that came in the same packet as the handshake are not passed on: clients wait for the 101.
void takeUpgraded(void* closure, MHD_Connection*, void*, const char*, size_t, MHD_socket socket,
                  MHD_UpgradeResponseHandle* handle)
{
    static_cast<EchoLoop*>(closure)->add(socket, handle);
}

const char* headerOf(MHD_Connection* connection, const char* name)
{
    return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
}

}  // namespace

bool asksForUpgrade(MHD_Connection* connection)
{
    const char* upgrade = headerOf(connection, MHD_HTTP_HEADER_UPGRADE);
    return upgrade && strcasecmp(upgrade, "websocket") == 0;
}

MHD_Result acceptUpgrade(MHD_Connection* connection, EchoLoop& echo)
{
    const char* key = headerOf(connection, "Sec-WebSocket-Key");
    const char* version = headerOf(connection, "Sec-WebSocket-Version");
    if (!key || std::strlen(key) != kKeyBytes || !version || std::strcmp(version, kVersion) != 0)
        return queueAndDestroy(connection, MHD_HTTP_BAD_REQUEST, makeLasting(kRefusal));
    MHD_Response* response = MHD_create_response_for_upgrade(&takeUpgraded, &echo);
    if (response) {
        MHD_add_response_header(response, MHD_HTTP_HEADER_UPGRADE, "websocket");
        MHD_add_response_header(response, "Sec-WebSocket-Accept", acceptValue(key).c_str());
    }
    return queueAndDestroy(connection, MHD_HTTP_SWITCHING_PROTOCOLS, response);
}

}  // namespace bench
