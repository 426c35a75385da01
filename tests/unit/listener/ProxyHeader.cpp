// The PROXY header: each form, cut after every byte, and everything that is none.

#include "listener/ProxyHeader.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace
{

using qv::impl::kMaxProxyHeaderBytes;
using qv::impl::ParseProxyHeader;
using qv::impl::ProxyHeader;

using State = ProxyHeader::State;
using namespace std::string_literals;

const std::string kSignature = "\r\n\r\n\0\r\nQUIT\n"s;
const std::string kV4 = "\xc0\x00\x02\x01\x0a\x00\x00\x01\x12\x67\x00\x50"s;
const std::string kV6 = "\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01"
                        "\xfd\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x02"
                        "\x12\x67\x00\x50"s;

constexpr unsigned char kLocal = 0x20;
constexpr unsigned char kProxied = 0x21;

std::string version2(unsigned char command, unsigned char family, const std::string& block,
                     size_t length)
{
    std::string header = kSignature;
    header += static_cast<char>(command);
    header += static_cast<char>(family);
    header += static_cast<char>(length >> 8);
    header += static_cast<char>(length & 0xff);
    return header + block;
}

std::string version2(unsigned char command, unsigned char family, const std::string& block)
{
    return version2(command, family, block, block.size());
}

struct Row
{
    const char* name;
    std::string header;
    const char* source;  // empty: none
    bool isLocal;
};

const Row kRows[] = {
    {"IPv4", "PROXY TCP4 192.0.2.1 10.0.0.1 4711 80\r\n", "192.0.2.1:4711", false},
    {"longest IPv4", "PROXY TCP4 255.255.255.255 255.255.255.255 65535 65535\r\n",
     "255.255.255.255:65535", false},
    {"port 0", "PROXY TCP4 192.0.2.1 10.0.0.1 0 0\r\n", "192.0.2.1:0", false},
    {"IPv6", "PROXY TCP6 2001:db8::1 fd00::2 4711 80\r\n", "[2001:db8::1]:4711", false},
    {"longest IPv6",
     "PROXY TCP6 ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff "
     "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff 65535 65535\r\n",
     "[ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff]:65535", false},
    {"IPv4 mapped into IPv6", "PROXY TCP6 ::ffff:192.0.2.1 ::1 1 2\r\n", "192.0.2.1:1", false},
    {"unknown", "PROXY UNKNOWN\r\n", "", false},
    {"unknown with a rest", "PROXY UNKNOWN anything at all\r\n", "", false},
    {"longest unknown", "PROXY UNKNOWN " + std::string(107 - 16, 'x') + "\r\n", "", false},
    {"2, IPv4", version2(kProxied, 0x11, kV4), "192.0.2.1:4711", false},
    {"2, IPv4 over UDP", version2(kProxied, 0x12, kV4), "192.0.2.1:4711", false},
    {"2, IPv6", version2(kProxied, 0x21, kV6), "[2001:db8::1]:4711", false},
    {"2, IPv6 over UDP", version2(kProxied, 0x22, kV6), "[2001:db8::1]:4711", false},
    {"2, further values", version2(kProxied, 0x11, kV4 + "\x04\x00\x03xyz"s), "192.0.2.1:4711",
     false},
    {"2, longest", version2(kProxied, 0x21, kV6 + std::string(4096 - 36, 'x')),
     "[2001:db8::1]:4711", false},
    {"2, not specified", version2(kProxied, 0x00, ""), "", false},
    {"2, not specified, with a rest", version2(kProxied, 0x00, "rest"), "", false},
    {"2, Unix", version2(kProxied, 0x31, std::string(216, 'p')), "", false},
    {"2, Unix datagrams", version2(kProxied, 0x32, std::string(216, 'p')), "", false},
    {"2, local", version2(kLocal, 0x00, ""), "", true},
    {"2, local with an address", version2(kLocal, 0x11, kV4), "", true},
    {"2, local with any family", version2(kLocal, 0xff, "abc"), "", true},
};

TEST(ProxyHeader, IsCompleteWithItsLastByteAndNotBefore)
{
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        for (size_t bytes = 0; bytes < row.header.size(); ++bytes)
            ASSERT_EQ(ParseProxyHeader(row.header.substr(0, bytes)).state, State::Incomplete)
                << bytes;
        for (const std::string& behind : {""s, "G"s, "GET / HTTP/1.1\r\n"s, row.header, "\r\n"s}) {
            const ProxyHeader header = ParseProxyHeader(row.header + behind);
            ASSERT_EQ(header.state, State::Complete);
            EXPECT_EQ(header.bytes, row.header.size());
            EXPECT_EQ(header.isLocal, row.isLocal);
            EXPECT_EQ(header.source ? header.source->toIpAddress().toStringWithPort() : "",
                      row.source);
        }
    }
}

TEST(ProxyHeader, IsNotTheBeginningOfARequest)
{
    for (const std::string& request :
         {"GET / HTTP/1.1\r\n"s, "POST / HTTP/1.1\r\n"s, "PUT "s, "PATCH "s, "PROPFIND "s,
          "PROXY/"s, "PROXYS / "s, "proxy TCP4"s, "\r\nGET / HTTP/1.1"s, "\r\n\r\nGET "s, "\n"s,
          "\r\r"s, "\r\n\r\n\r\n"s, "\r\n\r\n\0\r\nQUIT\r\n"s, "\0"s, " "s, "x"s}) {
        SCOPED_TRACE(request);
        const ProxyHeader header = ParseProxyHeader(request);
        EXPECT_EQ(header.state, State::None);
        EXPECT_EQ(header.bytes, 0u);
        EXPECT_FALSE(header.source);
    }
}

TEST(ProxyHeader, OfVersion1IsMalformedWithAnyOtherLine)
{
    for (const std::string& line : {"PROXY \r\n"s,
                                    "PROXY TCP4\r\n"s,
                                    "PROXY TCP4 \r\n"s,
                                    "PROXY  TCP4 192.0.2.1 10.0.0.1 4711 80\r\n"s,
                                    "PROXY TCP5 192.0.2.1 10.0.0.1 4711 80\r\n"s,
                                    "PROXY tcp4 192.0.2.1 10.0.0.1 4711 80\r\n"s,
                                    "PROXY UNKNOWNX\r\n"s,
                                    "PROXY TCP4 192.0.2.1\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 4711\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 4711 \r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 4711 80 \r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 4711 80 81\r\n"s,
                                    "PROXY TCP4 192.0.2.1  10.0.0.1 4711 80\r\n"s,
                                    "PROXY TCP4 192.0.2.1\t10.0.0.1 4711 80\r\n"s,
                                    "PROXY TCP4 192.0.2.256 10.0.0.1 4711 80\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.x 4711 80\r\n"s,
                                    "PROXY TCP4 192.0.02.1 10.0.0.1 4711 80\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 04711 80\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 4711 00\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 65536 80\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 4711 65536\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 -1 80\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 +1 80\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 4711 99999999999\r\n"s,
                                    "PROXY TCP4 2001:db8::1 fd00::2 4711 80\r\n"s,
                                    "PROXY TCP6 192.0.2.1 10.0.0.1 4711 80\r\n"s,
                                    "PROXY TCP6 2001:db8::1 10.0.0.1 4711 80\r\n"s,
                                    "PROXY TCP6 [2001:db8::1] fd00::2 4711 80\r\n"s,
                                    "PROXY TCP6 fe80::1%lo fd00::2 4711 80\r\n"s,
                                    "PROXY TCP4 192.0.2.1\0 10.0.0.1 4711 80\r\n"s,
                                    "PROXY TCP4 192.0.2.1 10.0.0.1 4711 80\n"s,
                                    "PROXY UNKNOWN\n"s,
                                    "PROXY UNKNOWN\rx"s,
                                    "PROXY UNKNOWN \r\r\n"s,
                                    "PROXY / HTTP/1.1\r\n"s}) {
        SCOPED_TRACE(line);
        EXPECT_EQ(ParseProxyHeader(line).state, State::Malformed);
        EXPECT_EQ(ParseProxyHeader(line + "GET / HTTP/1.1\r\n").state, State::Malformed);
    }
}

TEST(ProxyHeader, OfVersion1HasAtMost107Bytes)
{
    const std::string line = "PROXY UNKNOWN " + std::string(200, 'x');
    EXPECT_EQ(ParseProxyHeader(line.substr(0, 106)).state, State::Incomplete);
    EXPECT_EQ(ParseProxyHeader(line.substr(0, 107)).state, State::Malformed);
    EXPECT_EQ(ParseProxyHeader(line).state, State::Malformed);
    // The line end at the limit, and one byte behind it.
    EXPECT_EQ(ParseProxyHeader(line.substr(0, 105) + "\r").state, State::Incomplete);
    EXPECT_EQ(ParseProxyHeader(line.substr(0, 105) + "\r\n").state, State::Complete);
    EXPECT_EQ(ParseProxyHeader(line.substr(0, 106) + "\r").state, State::Malformed);
    EXPECT_EQ(ParseProxyHeader(line.substr(0, 106) + "\r\n").state, State::Malformed);
}

TEST(ProxyHeader, OfVersion2IsMalformedAsSoonAsItShows)
{
    const struct
    {
        const char* name;
        std::string header;
        size_t shownAt;  // bytes after which it can be told
    } rows[] = {
        {"version 1", version2(0x11, 0x11, kV4), 13},
        {"version 3", version2(0x31, 0x11, kV4), 13},
        {"command 2", version2(0x22, 0x11, kV4), 13},
        {"command 15", version2(0x2f, 0x11, kV4), 13},
        {"family 4", version2(kProxied, 0x41, kV4), 16},
        {"protocol 3", version2(kProxied, 0x13, kV4), 16},
        {"IPv4 without a protocol", version2(kProxied, 0x10, kV4), 16},
        {"protocol without a family", version2(kProxied, 0x01, kV4), 16},
        {"IPv4, one byte short", version2(kProxied, 0x11, kV4.substr(1)), 16},
        {"IPv4 without addresses", version2(kProxied, 0x11, ""), 16},
        {"IPv6, one byte short", version2(kProxied, 0x21, kV6.substr(1)), 16},
        {"IPv6 with the length of IPv4", version2(kProxied, 0x21, kV4), 16},
        {"too long", version2(kProxied, 0x11, kV4, 4097), 16},
        {"longest number", version2(kProxied, 0x11, kV4, 65535), 16},
        {"local, too long", version2(kLocal, 0x00, "", 4097), 16},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        for (size_t bytes = 0; bytes <= row.header.size(); ++bytes)
            ASSERT_EQ(ParseProxyHeader(row.header.substr(0, bytes)).state,
                      bytes < row.shownAt ? State::Incomplete : State::Malformed)
                << bytes;
    }
}

TEST(ProxyHeader, FitsIntoTheBytesThatAreLookedAt)
{
    const std::string longest = version2(kLocal, 0, std::string(4096, 'x'));
    EXPECT_EQ(longest.size(), kMaxProxyHeaderBytes);
    EXPECT_EQ(ParseProxyHeader(longest).state, State::Complete);
}

}  // namespace
