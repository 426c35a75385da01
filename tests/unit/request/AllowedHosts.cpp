// The hosts that are served: how entries are written, and which values of Host they match.

#include "request/AllowedHosts.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

namespace
{

using qv::impl::AllowedHosts;
using qv::impl::GetTargetAuthority;

constexpr const char* kNoHost =
    "no host; use example.com, example.com:8080, *.example.com or [::1]";

AllowedHosts hostsOf(const std::string& entry)
{
    AllowedHosts hosts;
    EXPECT_EQ(hosts.add(entry), "") << entry;
    return hosts;
}

TEST(AllowedHosts, MatchTheHostInAnySpellingAndWithAnyPort)
{
    const struct
    {
        const char* entry;
        const char* value;
    } rows[] = {
        {"example.com", "example.com"},
        {"example.com", "EXAMPLE.com"},
        {"Example.COM", "example.com"},
        {"example.com", "example.com."},
        {"example.com.", "example.com"},
        {"example.com", "example.com:8181"},
        {"example.com", "example.com.:8181"},
        {"example.com", "example.com:"},
        {"example.com", " example.com\t"},
        {"example.com:8080", "example.com:8080"},
        {"example.com:8080", "example.com:08080"},
        {"example.com:0", "example.com:0"},
        {"example.com:65535", "example.com:65535"},
        {"localhost", "localhost:1"},
        {"my_host-1", "my_host-1"},
        {"127.0.0.1", "127.0.0.1:8181"},
        {"[::1]", "[::1]"},
        {"[::1]", "[0:0:0:0:0:0:0:1]:80"},
        {"[2001:DB8::0:1]", "[2001:db8::1]"},
        {"[::1]:8181", "[::1]:8181"},
        {"*.example.com", "a.example.com"},
        {"*.example.com", "A.Example.Com:80"},
        {"*.example.com:443", "a.example.com:443"},
        {"*.localhost", "app.localhost"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.entry) + " and " + row.value);
        EXPECT_TRUE(hostsOf(row.entry).contains(row.value));
    }
}

TEST(AllowedHosts, MatchNothingElse)
{
    const struct
    {
        const char* entry;
        std::string_view value;
    } rows[] = {
        {"example.com", ""},
        {"example.com", " "},
        {"example.com", "."},
        {"example.com", ":80"},
        {"example.com", "example.org"},
        {"example.com", "xample.com"},
        {"example.com", "example.co"},
        {"example.com", "example.com.org"},
        {"example.com", "a.example.com"},
        {"example.com", "example.com.."},
        {"example.com", "example.com, example.com"},
        {"example.com", "example.com example.com"},
        {"example.com", "user@example.com"},
        {"example.com", "example.com:80@evil.test"},
        {"example.com", "example.com:a"},
        {"example.com", "example.com:65536"},
        {"example.com", "example.com:-1"},
        {"example.com", "example.com:+1"},
        {"example.com", "example.com:80:80"},
        {"example.com", "example%2Ecom"},
        {"example.com", "http://example.com"},
        {"example.com", "[example.com]"},
        {"example.com", std::string_view("example.com\0", 12)},
        {"example.com:8080", "example.com"},
        {"example.com:8080", "example.com:"},
        {"example.com:8080", "example.com:8081"},
        {"[::1]", "::1"},
        {"[::1]", "[::2]"},
        {"[::1]", "[::1"},
        {"[::1]", "::1]"},
        {"[::1]", "[::1]x"},
        {"[::1]", "[::1]]"},
        {"[::1]", "[::1%lo]"},
        {"[::1]", std::string_view("[::1\0]", 6)},
        {"[::1]", "[]"},
        {"[::1]:80", "[::1]"},
        {"127.0.0.1", "127.0.0.2"},
        {"*.example.com", "example.com"},
        {"*.example.com", ".example.com"},
        {"*.example.com", "a.b.example.com"},
        {"*.example.com", "aexample.com"},
        {"*.example.com", "*.example.com"},
        {"*.example.com", "a.example.org"},
        {"*.example.com:443", "a.example.com"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.entry) + " and " + std::string(row.value));
        EXPECT_FALSE(hostsOf(row.entry).contains(row.value));
    }
}

TEST(AllowedHosts, RefuseAnInvalidEntry)
{
    const std::string_view rows[] = {
        "",
        " ",
        ".",
        "*",
        "*.",
        "*.*.example.com",
        "a.*.example.com",
        "*example.com",
        "*.[::1]",
        ".example.com",
        "example..com",
        "example.com:",
        "example.com:x",
        "example.com:65536",
        "[::1]:",
        "::1",
        "[::1",
        "[::1]]",
        "[127.0.0.1]",
        "http://example.com",
        "example.com/",
        " example.com",
        "example.com ",
        "b\xc3\xbc"
        "cher.example",
        "user@example.com",
        std::string_view("example.com\0", 12),
    };
    for (const std::string_view row : rows) {
        SCOPED_TRACE(std::string(row));
        AllowedHosts hosts;
        EXPECT_EQ(hosts.add(row), kNoHost);
        EXPECT_TRUE(hosts.isEmpty());
    }
}

TEST(AllowedHosts, AreAllEntries)
{
    AllowedHosts hosts;
    EXPECT_TRUE(hosts.isEmpty());
    EXPECT_FALSE(hosts.contains("localhost"));
    for (const char* entry : {"localhost", "127.0.0.1", "[::1]:8181"})
        EXPECT_EQ(hosts.add(entry), "");
    EXPECT_FALSE(hosts.isEmpty());
    for (const char* value : {"localhost:8181", "127.0.0.1", "[::1]:8181"})
        EXPECT_TRUE(hosts.contains(value)) << value;
    EXPECT_FALSE(hosts.contains("[::1]:8182"));
}

TEST(TargetAuthority, IsThatOfTheAbsoluteForm)
{
    const struct
    {
        const char* target;
        std::optional<std::string_view> authority;
    } rows[] = {
        {"http://example.com/page", "example.com"},
        {"http://example.com", "example.com"},
        {"http://example.com:80?a=b", "example.com:80"},
        {"http://example.com#part", "example.com"},
        {"HTTPS://[::1]:443/", "[::1]:443"},
        {"http://user@example.com/", "user@example.com"},
        {"http:///page", ""},
        {"://x/", "x"},
        {"/", std::nullopt},
        {"/http://example.com/", std::nullopt},
        {"/?to=http://example.com/", std::nullopt},
        {"?http://example.com/", std::nullopt},
        {"*", std::nullopt},
        {"", std::nullopt},
        {"example.com:443", std::nullopt},
        {"http:/example.com", std::nullopt},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        EXPECT_EQ(GetTargetAuthority(row.target), row.authority);
    }
}

}  // namespace
