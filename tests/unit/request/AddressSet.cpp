// Addresses and networks, against a comparison bit by bit.

#include "request/AddressSet.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace
{

using qv::IpAddress;
using qv::impl::AddressSet;
using qv::impl::NetworkAddress;
using qv::impl::ParseNetworkAddress;
using qv::impl::ToNetworkAddress;

NetworkAddress addressOf(std::string_view text)
{
    const auto address = ParseNetworkAddress(text);
    EXPECT_TRUE(address) << text;
    return address.value_or(NetworkAddress());
}

AddressSet setOf(std::string_view entry)
{
    AddressSet set;
    EXPECT_EQ(set.add(entry), "") << entry;
    return set;
}

TEST(NetworkAddress, OfATextIsTheSameAsText)
{
    const struct
    {
        const char* text;
        const char* shown;
        bool isV4;
    } rows[] = {
        {"127.0.0.1", "127.0.0.1", true},
        {"255.255.255.255", "255.255.255.255", true},
        {"0.0.0.0", "0.0.0.0", true},
        {"::ffff:192.0.2.1", "192.0.2.1", true},
        {"::1", "::1", false},
        {"::", "::", false},
        {"2001:DB8:0::1", "2001:db8::1", false},
        {"ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
         false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        NetworkAddress address = addressOf(row.text);
        address.port = 4711;
        EXPECT_EQ(address.isV4(), row.isV4);
        EXPECT_EQ(address.toIpAddress(), IpAddress::fromText(row.shown, 4711));
        EXPECT_EQ(address.toIpAddress().toString(), row.shown);
    }
}

TEST(NetworkAddress, OfAnythingElseIsNone)
{
    const std::string_view rows[] = {
        "",
        "localhost",
        "127.0.0.1 ",
        " 127.0.0.1",
        "127.0.0.1:80",
        "127.0.0",
        "127.0.0.256",
        "127.0.0.01",
        "127.1",
        "[::1]",
        "::1%lo",
        "1:2:3:4:5:6:7",
        "::1::",
        "unknown",
        std::string_view("::1\0", 4),
        "1.2.3.4/8",
        "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.2555",
    };
    for (const std::string_view row : rows)
        EXPECT_FALSE(ParseNetworkAddress(row)) << row;
}

TEST(NetworkAddress, OfAPeerHasItsPort)
{
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(80);
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto first = ToNetworkAddress(reinterpret_cast<sockaddr*>(&v4));
    ASSERT_TRUE(first);
    EXPECT_EQ(first->toIpAddress(), IpAddress::fromText("127.0.0.1", 80));
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(81);
    v6.sin6_addr = in6addr_loopback;
    const auto second = ToNetworkAddress(reinterpret_cast<sockaddr*>(&v6));
    ASSERT_TRUE(second);
    EXPECT_EQ(second->toIpAddress(), IpAddress::fromText("::1", 81));
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    EXPECT_FALSE(ToNetworkAddress(reinterpret_cast<sockaddr*>(&local)));
}

TEST(AddressSet, ContainsItsNetworks)
{
    const struct
    {
        const char* entry;
        const char* inside;
        const char* outside;
    } rows[] = {
        {"127.0.0.1", "127.0.0.1", "127.0.0.2"},
        {"127.0.0.1/32", "127.0.0.1", "127.0.0.0"},
        {"127.0.0.1", "::ffff:127.0.0.1", "::1"},
        {"::ffff:127.0.0.1", "127.0.0.1", "127.0.0.2"},
        {"::ffff:10.0.0.0/104", "10.255.0.1", "11.0.0.0"},
        {"10.0.0.0/8", "10.0.0.0", "9.255.255.255"},
        {"10.0.0.0/8", "10.255.255.255", "11.0.0.0"},
        {"192.168.4.0/22", "192.168.7.255", "192.168.8.0"},
        {"128.0.0.0/1", "255.0.0.1", "127.255.255.255"},
        {"0.0.0.0/0", "1.2.3.4", "::1"},
        {"::/0", "::1", "1.2.3.4"},
        {"::/95", "::1", "1.2.3.4"},
        {"::ffff:0:0/96", "1.2.3.4", "::fffe:102:304"},
        {"fd00::/8", "fd12::1", "fe00::1"},
        {"2001:db8::/33", "2001:db8:7fff::", "2001:db8:8000::"},
        {"::1", "::1", "::"},
        {"::1/128", "::1", "127.0.0.1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.entry);
        const AddressSet set = setOf(row.entry);
        EXPECT_TRUE(set.contains(addressOf(row.inside)));
        EXPECT_FALSE(set.contains(addressOf(row.outside)));
        EXPECT_FALSE(set.containsUnix());
        EXPECT_FALSE(set.isEmpty());
    }
}

// Any bit changed within the prefix is outside, any other inside.
TEST(AddressSet, ComparesEachBitOfThePrefixAndNoOther)
{
    for (const bool isV4 : {true, false}) {
        const unsigned width = isV4 ? 32 : 128;
        const unsigned first = 128 - width;
        for (unsigned prefix = 0; prefix <= width; ++prefix) {
            const NetworkAddress base = addressOf(isV4 ? "0.0.0.0" : "::");
            const AddressSet set = setOf((isV4 ? "0.0.0.0/" : "::/") + std::to_string(prefix));
            EXPECT_TRUE(set.contains(base));
            for (unsigned bit = 0; bit < width; ++bit) {
                NetworkAddress changed = base;
                const unsigned place = first + bit;
                changed.bytes[place / 8] ^= static_cast<uint8_t>(0x80 >> (place % 8));
                ASSERT_EQ(set.contains(changed), bit >= prefix)
                    << (isV4 ? "IPv4" : "IPv6") << " prefix " << prefix << ", bit " << bit;
            }
        }
    }
}

TEST(AddressSet, RefusesAnInvalidEntry)
{
    constexpr const char* kNoAddress = "no address; use 127.0.0.1, 10.0.0.0/8, fd00::/8 or unix";
    constexpr const char* kBeyond4 = "the prefix is not a number of at most 32";
    constexpr const char* kBeyond6 = "the prefix is not a number of at most 128";
    constexpr const char* kBits = "the address has bits behind its prefix";
    const struct
    {
        const char* entry;
        const char* why;
    } rows[] = {
        {"", kNoAddress},
        {"localhost", kNoAddress},
        {"UNIX", kNoAddress},
        {"unix:/run/app.sock", kNoAddress},
        {"*", kNoAddress},
        {"127.0.0.1:80", kNoAddress},
        {"[::1]", kNoAddress},
        {"/8", kNoAddress},
        {"10.0.0.0/", kBeyond4},
        {"10.0.0.0/33", kBeyond4},
        {"10.0.0.0/-1", kBeyond4},
        {"10.0.0.0/+8", kBeyond4},
        {"10.0.0.0/8/8", kBeyond4},
        {"10.0.0.0/8 ", kBeyond4},
        {"10.0.0.0/99999999999", kBeyond4},
        {"10.0.0.0/255.0.0.0", kBeyond4},
        {"fd00::/129", kBeyond6},
        {"fd00::/x", kBeyond6},
        {"10.0.0.1/8", kBits},
        {"127.0.0.1/31", kBits},
        {"fd00::1/8", kBits},
        {"::ffff:10.0.0.0/8", kBits},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.entry);
        AddressSet set;
        EXPECT_EQ(set.add(row.entry), row.why);
        EXPECT_TRUE(set.isEmpty());
    }
}

TEST(AddressSet, ContainsUnixSocketsOnlyWhenTold)
{
    const AddressSet set = setOf("unix");
    EXPECT_TRUE(set.containsUnix());
    EXPECT_FALSE(set.isEmpty());
    EXPECT_FALSE(set.contains(addressOf("127.0.0.1")));
    EXPECT_FALSE(set.contains(NetworkAddress()));
}

TEST(AddressSet, IsAllEntries)
{
    AddressSet set;
    EXPECT_TRUE(set.isEmpty());
    EXPECT_FALSE(set.contains(addressOf("::")));
    for (const char* entry : {"127.0.0.1", "fd00::/8", "unix", "10.0.0.0/8"})
        EXPECT_EQ(set.add(entry), "");
    EXPECT_TRUE(set.containsUnix());
    for (const char* inside : {"127.0.0.1", "fd00::1", "10.1.2.3"})
        EXPECT_TRUE(set.contains(addressOf(inside))) << inside;
    EXPECT_FALSE(set.contains(addressOf("192.0.2.1")));
}

}  // namespace
