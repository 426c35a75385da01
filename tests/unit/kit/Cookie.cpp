#include <Wendrel/kit/Cookie.h>

#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <string>

namespace qv::kit
{
namespace
{

using std::chrono::hours;
using std::chrono::seconds;

TEST(Cookie, HasTheAttributesThatWereSet)
{
    const struct
    {
        Cookie cookie;
        const char* attributes;
    } rows[] = {
        {Cookie("a", "b"), "Path=/"},
        {Cookie("a", "b").path(""), ""},
        {Cookie("a", "b").path("/admin").httpOnly(), "Path=/admin; HttpOnly"},
        {Cookie("a", "b").domain("example.com").secure(), "Path=/; Domain=example.com; Secure"},
        {Cookie("a", "b").maxAge(hours(1)), "Path=/; Max-Age=3600"},
        {Cookie("a", "b").maxAge(seconds(-5)),
         "Path=/; Max-Age=0; Expires=Thu, 01 Jan 1970 00:00:00 GMT"},
        {Cookie::expired("a"), "Path=/; Max-Age=0; Expires=Thu, 01 Jan 1970 00:00:00 GMT"},
        {Cookie("a", "b").sameSite(Cookie::SameSite::Lax), "Path=/; SameSite=Lax"},
        {Cookie("a", "b").sameSite(Cookie::SameSite::Strict), "Path=/; SameSite=Strict"},
        {Cookie("a", "b").path("").sameSite(Cookie::SameSite::None).secure(),
         "Secure; SameSite=None"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.cookie.attributes(), row.attributes);
        EXPECT_EQ(row.cookie.error(), "");
    }
}

TEST(Cookie, AcceptsTheOctetsOfRfc6265Only)
{
    for (int c = 0; c < 256; ++c) {
        SCOPED_TRACE(c);
        const char byte = static_cast<char>(c);
        const bool isVisible = c > 32 && c < 127;
        const bool isSeparator =
            isVisible && std::string("\"(),/:;<=>?@[\\]{}").find(byte) != std::string::npos;
        const bool isExcluded = std::string("\",;\\").find(byte) != std::string::npos;
        EXPECT_EQ(Cookie("a", std::string(1, byte)).error().empty(), isVisible && !isExcluded);
        EXPECT_EQ(Cookie(std::string(1, byte), "").error().empty(), isVisible && !isSeparator);
        const bool isInPath = (c >= 32 && c != 127) && byte != ';';
        EXPECT_EQ(Cookie("a", "").path(std::string("/") + byte).error().empty(), isInPath);
        const bool isInDomain = (c < 128 && std::isalnum(c)) || byte == '.' || byte == '-';
        EXPECT_EQ(Cookie("a", "").domain(std::string(1, byte)).error().empty(), isInDomain);
    }
    EXPECT_EQ(Cookie("", "x").error(), "the cookie name \"\" is no token");
    EXPECT_EQ(Cookie("a", "x").path("b").error(), "the path of the cookie a is not valid: \"b\"");
}

TEST(Cookie, IsWrongWhenClientsIgnoreIt)
{
    const struct
    {
        Cookie cookie;
        const char* error;
    } rows[] = {
        {Cookie("a", "").sameSite(Cookie::SameSite::None),
         "the cookie a is ignored without secure()"},
        {Cookie("__Secure-a", ""), "the cookie __Secure-a is ignored without secure()"},
        {Cookie("__Secure-a", "").secure().domain("b.c").path("/d"), ""},
        {Cookie("__host-a", ""), "the cookie __host-a is ignored without secure()"},
        {Cookie("__Host-a", "").secure(), ""},
        {Cookie("__Host-a", "").secure().path("/d"),
         "the cookie __Host-a is ignored with another path than \"/\" or a domain"},
        {Cookie("__Host-a", "").secure().domain("b.c"),
         "the cookie __Host-a is ignored with another path than \"/\" or a domain"},
        {Cookie("a", std::string(4089, 'x')), ""},
        {Cookie("a", std::string(4090, 'x')), "the cookie a has 4097 bytes, at most 4096 are kept"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.cookie.error(), row.error);
}

}  // namespace
}  // namespace qv::kit
