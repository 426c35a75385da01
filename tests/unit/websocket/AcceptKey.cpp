// The accept key of the opening handshake.

#include <Wendrel/WebSocket.h>

#include <gtest/gtest.h>

#include <string>

namespace qv::tests
{
namespace
{

using http::WebSocket;

TEST(WebSocketAcceptKey, IsTheOneOfTheProtocolsOwnExample)
{
    EXPECT_EQ(WebSocket::ComputeSecret("dGhlIHNhbXBsZSBub25jZQ=="), "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
}

TEST(WebSocketAcceptKey, IsEmptyForAnythingButTwentyFourCharacters)
{
    EXPECT_EQ(WebSocket::ComputeSecret(nullptr), "");
    for (size_t length = 0; length <= 100; ++length) {
        SCOPED_TRACE(length);
        const std::string secret = WebSocket::ComputeSecret(std::string(length, 'A').c_str());
        EXPECT_EQ(secret.size(), length == 24 ? 28u : 0u) << secret;
    }
}

// The expected values are computed with Python's hashlib and base64.
TEST(WebSocketAcceptKey, TakesAnyTwentyFourCharactersAsRequired)
{
    const struct
    {
        const char* name;
        const char* key;
        const char* secret;
    } rows[] = {
        {"all zero", "AAAAAAAAAAAAAAAAAAAAAA==", "ICX+Yqv66kxgM0FcWaLWlFLwTAI="},
        {"spaces", "                        ", "xREwmWk+kQ4DNqfFO2wU9j5I4Qw="},
        {"not base64", "not base64 at all! \042\134\042 ?", "/DFqWU7iDmQSgsY7ryz+0smLEbM="},
        {"bytes above 127",
         "\377\377\377\377\377\377\377\377\377\377\377\377\377\377\377\377\377\377\377\377\377\377"
         "\377\377",
         "3G4KstNuDDmPazZmhx4O3dW5rzg="},
        {"lower case only", "abcdefghijklmnopqrstuvwx", "EMGd2Xwm2wvrKHzefMg2rhm7INk="},
        {"control characters",
         "\001\001\001\001\001\001\001\001\001\001\001\001\001\001\001\001\001\001\001\001\001\001"
         "\001\001",
         "D+fqoJjbbWTCG8BtpUrKEipQXwY="},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(WebSocket::ComputeSecret(row.key), row.secret);
    }
}

}  // namespace
}  // namespace qv::tests
