// The texts of endpoints: their meaning, and the reasons for a refusal.

#include "listener/Endpoint.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using qv::impl::Endpoint;
using qv::impl::ParseEndpoint;

using Kind = Endpoint::Kind;

// A Unix path of this many bytes.
std::string pathOf(size_t bytes)
{
    return "/" + std::string(bytes - 1, 'p');
}

TEST(Endpoint, OfAnAddressOrANameHasHostAndPort)
{
    const struct
    {
        const char* text;
        const char* host;
        uint16_t port;
    } rows[] = {
        {"127.0.0.1:8181", "127.0.0.1", 8181},
        {"127.0.0.1:0", "127.0.0.1", 0},
        {"127.0.0.1:65535", "127.0.0.1", 65535},
        {"127.0.0.1:00080", "127.0.0.1", 80},
        {"[::1]:443", "::1", 443},
        {"[::]:1", "::", 1},
        {"[2001:db8::7]:80", "2001:db8::7", 80},
        {"localhost:8181", "localhost", 8181},
        {"*:8181", "*", 8181},
        {"*:0", "*", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        std::string error = "of an earlier text";
        const Endpoint endpoint = ParseEndpoint(row.text, error);
        EXPECT_EQ(error, "");
        EXPECT_EQ(endpoint.kind, Kind::Tcp);
        EXPECT_EQ(endpoint.text, row.text);
        EXPECT_EQ(endpoint.host, row.host);
        EXPECT_EQ(endpoint.port, row.port);
    }
}

TEST(Endpoint, OfAUnixSocketHasPathAndMode)
{
    const std::string longest = pathOf(107);
    const struct
    {
        std::string text;
        std::string path;
        mode_t mode;
    } rows[] = {
        {"unix:/run/app.sock", "/run/app.sock", 0600},
        {"unix:/run/app.sock,mode=660", "/run/app.sock", 0660},
        {"unix:/run/app.sock,mode=0666", "/run/app.sock", 0666},
        {"unix:/run/app.sock,mode=0", "/run/app.sock", 0},
        {"unix:/run/app.sock,mode=777", "/run/app.sock", 0777},
        {"unix:/a,mode=7,mode=600", "/a,mode=7", 0600},
        {"unix:/a:80", "/a:80", 0600},
        {"unix:" + longest, longest, 0600},
        {"unix:" + longest + ",mode=640", longest, 0640},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        std::string error = "of an earlier text";
        const Endpoint endpoint = ParseEndpoint(row.text, error);
        EXPECT_EQ(error, "");
        EXPECT_EQ(endpoint.kind, Kind::Unix);
        EXPECT_EQ(endpoint.text, row.text);
        EXPECT_EQ(endpoint.path, row.path);
        EXPECT_EQ(endpoint.mode, row.mode);
    }
}

TEST(Endpoint, OfAnInheritedSocketHasItsDescriptor)
{
    const struct
    {
        const char* text;
        int descriptor;
    } rows[] = {{"fd:0", 0}, {"fd:3", 3}, {"fd:2147483647", 2147483647}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        std::string error = "of an earlier text";
        const Endpoint endpoint = ParseEndpoint(row.text, error);
        EXPECT_EQ(error, "");
        EXPECT_EQ(endpoint.kind, Kind::Descriptor);
        EXPECT_EQ(endpoint.descriptor, row.descriptor);
    }
}

TEST(Endpoint, OfTheServiceManagerIsOneWordAndPerhapsAName)
{
    std::string error = "of an earlier text";
    EXPECT_EQ(ParseEndpoint("systemd", error).kind, Kind::Systemd);
    EXPECT_EQ(ParseEndpoint("systemd", error).socketName, "");
    EXPECT_EQ(error, "");
    EXPECT_EQ(ParseEndpoint("systemd:web-1.socket", error).kind, Kind::Systemd);
    EXPECT_EQ(ParseEndpoint("systemd:web-1.socket", error).socketName, "web-1.socket");
    EXPECT_EQ(error, "");
}

TEST(Endpoint, ThatIsWrongIsNamedWithItsError)
{
    const char* const noPort = "no port; use host:port, [IPv6 address]:port, *:port, unix:/path, "
                               "fd:N, systemd or systemd:NAME";
    const char* const badPort = "the port is not a number of at most 65535";
    const char* const badMode = "the mode is not an octal number of at most 777";
    const char* const notAbsolute = "the path does not begin with \"/\"";
    const char* const noDescriptor = "no descriptor number after \"fd:\"";
    const char* const noName = "no name of a socket after \"systemd:\"";
    const char* const noBrackets = "an IPv6 address stands in brackets: [address]:port";
    const char* const notV6 = "no IPv6 address between the brackets";
    const char* const noHost = "no host before the port; use *:port for every address";
    const char* const zeroInHost = "the host contains a zero byte";
    const struct
    {
        std::string text;
        const char* why;
    } rows[] = {
        {"", noPort},
        {"127.0.0.1", noPort},
        {"localhost", noPort},
        {"systemd ", noPort},
        {"Systemd", noPort},
        {"127.0.0.1:", badPort},
        {"127.0.0.1:65536", badPort},
        {"127.0.0.1:4294967376", badPort},
        {"127.0.0.1:-1", badPort},
        {"127.0.0.1:+80", badPort},
        {"127.0.0.1: 80", badPort},
        {"127.0.0.1:80 ", badPort},
        {"127.0.0.1:http", badPort},
        {"127.0.0.1:0x50", badPort},
        {"[::1]", badPort},
        {"[::1]:", badPort},
        {"systemd:", noName},
        {"systemd:a b", noName},
        {"systemd:a:b", noName},
        {"systemd:\xc3\xa4", noName},
        {":8181", noHost},
        {"::1:8181", noBrackets},
        {"[::1:8181", noBrackets},
        {"::1]:8181", noBrackets},
        {"[127.0.0.1]:80", notV6},
        {"[]:80", notV6},
        {"[localhost]:80", notV6},
        {"[::1 ]:80", notV6},
        {std::string("127.0.0.1\0.evil:80", 18), zeroInHost},
        {"unix:", notAbsolute},
        {"unix:app.sock", notAbsolute},
        {"unix:,mode=600", notAbsolute},
        {"unix:/a,mode=", badMode},
        {"unix:/a,mode=8", badMode},
        {"unix:/a,mode=1000", badMode},
        {"unix:/a,mode=-1", badMode},
        {"unix:/a,mode=600 ", badMode},
        {"unix:/a,mode=rw", badMode},
        {"unix:" + pathOf(108), "the path is longer than 107 bytes"},
        {"unix:" + pathOf(108) + ",mode=600", "the path is longer than 107 bytes"},
        {std::string("unix:/a\0b", 9), "the path contains a zero byte"},
        {"fd:", noDescriptor},
        {"fd:-1", noDescriptor},
        {"fd:3x", noDescriptor},
        {"fd: 3", noDescriptor},
        {"fd:2147483648", noDescriptor},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        std::string error;
        ParseEndpoint(row.text, error);
        EXPECT_EQ(error, "ServerOptions::listen: \"" + row.text + "\": " + row.why);
    }
}

}  // namespace
