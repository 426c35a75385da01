// Which URLs HTTP can use.

#include <Ostrand/HttpUrl.h>

#include <gtest/gtest.h>

namespace qv::tests
{
namespace
{

TEST(HttpUrl, IsValidWithAnHttpSchemeAndAHost)
{
    const struct
    {
        const char* text;
        bool isUrl;
        bool isHttpUrl;
    } rows[] = {
        {"http://127.0.0.1/", true, true},
        {"https://example.org", true, true},
        {"HTTP://example.org", true, true},
        {"hTTpS://[::1]:443/x", true, true},
        {"http:///path", true, false},
        {"http://:80/path", true, false},
        {"http://user@/path", true, false},
        {"http:/path", true, false},
        {"ftp://example.org/", true, false},
        {"httpx://example.org/", true, false},
        {"ws://example.org/", true, false},
        {"mailto:someone@example.org", true, false},
        {"//example.org/", false, false},
        {"http://127.0.0.1:80*", false, false},
        {"", false, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        http::HttpUrl url;
        EXPECT_FALSE(url.isValid());
        std::string error;
        EXPECT_EQ(url.fromEncodedUtf8String(row.text, &error, true, 4096), row.isUrl) << error;
        EXPECT_EQ(url.Url::isValid(), row.isUrl);
        EXPECT_EQ(url.isValid(), row.isHttpUrl);
    }
}

}  // namespace
}  // namespace qv::tests
