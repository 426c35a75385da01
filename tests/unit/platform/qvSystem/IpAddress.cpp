// Addresses of clients: from the daemon's sockaddr, from text, to text, and their order.

#include <qvSystem/IpAddress.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

namespace qv::tests
{
namespace
{

IpAddress FromV4(const char* text, uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    EXPECT_EQ(inet_pton(AF_INET, text, &address.sin_addr), 1);
    return IpAddress::fromIP(reinterpret_cast<const sockaddr*>(&address));
}

IpAddress FromV6(const char* text, uint16_t port)
{
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    EXPECT_EQ(inet_pton(AF_INET6, text, &address.sin6_addr), 1);
    return IpAddress::fromIP(reinterpret_cast<const sockaddr*>(&address));
}

void ExpectNoAddress(const IpAddress& address)
{
    EXPECT_FALSE(address.isValid());
    EXPECT_EQ(address.getFamily(), IpAddress::Family::None);
    EXPECT_EQ(address.getPort(), 0);
    EXPECT_EQ(address.toString(), "");
    EXPECT_EQ(address.toStringWithPort(), "");
    EXPECT_EQ(address, IpAddress());
}

TEST(IpAddress, IsTakenFromAnIPv4SocketAddress)
{
    const IpAddress address = FromV4("192.168.7.254", 8080);
    EXPECT_TRUE(address.isValid());
    EXPECT_EQ(address.getFamily(), IpAddress::Family::V4);
    EXPECT_EQ(address.getPort(), 8080);
    EXPECT_EQ(address.toString(), "192.168.7.254");
    EXPECT_EQ(address.toStringWithPort(), "192.168.7.254:8080");
}

TEST(IpAddress, WritesEachByteOfAnIPv4Address)
{
    for (unsigned byte = 0; byte < 256; ++byte) {
        const std::string number = std::to_string(byte);
        for (const std::string& text : {number + ".0.0.0", "255." + number + ".255.255",
                                        "1.22." + number + ".4", "127.0.0." + number})
            EXPECT_EQ(FromV4(text.c_str(), 1).toString(), text);
    }
}

TEST(IpAddress, IsTakenFromAnIPv6SocketAddress)
{
    const IpAddress address = FromV6("2001:db8:0:0:0:0:0:17", 65535);
    EXPECT_TRUE(address.isValid());
    EXPECT_EQ(address.getFamily(), IpAddress::Family::V6);
    EXPECT_EQ(address.getPort(), 65535);
    EXPECT_EQ(address.toString(), "2001:db8::17");
    EXPECT_EQ(address.toStringWithPort(), "[2001:db8::17]:65535");
}

TEST(IpAddress, IsNoneFromNullOrAnotherFamily)
{
    ExpectNoAddress(IpAddress());
    ExpectNoAddress(IpAddress::fromIP(nullptr));
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    ExpectNoAddress(IpAddress::fromIP(reinterpret_cast<const sockaddr*>(&local)));
}

TEST(IpAddress, IsTakenFromText)
{
    const struct
    {
        const char* text;
        IpAddress::Family family;
        const char* shortForm;
    } rows[] = {
        {"127.0.0.1", IpAddress::Family::V4, "127.0.0.1"},
        {"0.0.0.0", IpAddress::Family::V4, "0.0.0.0"},
        {"255.255.255.255", IpAddress::Family::V4, "255.255.255.255"},
        {"::1", IpAddress::Family::V6, "::1"},
        {"::", IpAddress::Family::V6, "::"},
        {"FE80:0:0:0:1:2:3:4", IpAddress::Family::V6, "fe80::1:2:3:4"},
        {"::ffff:10.0.0.1", IpAddress::Family::V6, "::ffff:10.0.0.1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const IpAddress address = IpAddress::fromText(row.text, 443);
        EXPECT_EQ(address.getFamily(), row.family);
        EXPECT_EQ(address.getPort(), 443);
        EXPECT_EQ(address.toString(), row.shortForm);
    }
}

TEST(IpAddress, IsNoneFromOtherText)
{
    const std::string rows[] = {
        "",
        "localhost",
        "127.0.0.256",
        "127.0.0",
        "127.0.0.1 ",
        "127.0.0.1:80",
        "[::1]",
        "::1::",
        "12345::",
        std::string("127.0.0.1\0", 10),
        std::string("127.0.0.1\0.5", 12),
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row);
        ExpectNoAddress(IpAddress::fromText(row, 80));
    }
}

TEST(IpAddress, IsTheSameFromTextAndFromSocketAddress)
{
    EXPECT_EQ(IpAddress::fromText("127.0.0.1", 80), FromV4("127.0.0.1", 80));
    EXPECT_EQ(IpAddress::fromText("::1", 80), FromV6("::1", 80));
}

TEST(IpAddress, DiffersByFamilyAddressAndPort)
{
    const IpAddress address = IpAddress::fromText("10.0.0.1", 80);
    EXPECT_FALSE(address != IpAddress::fromText("10.0.0.1", 80));
    EXPECT_TRUE(address != IpAddress::fromText("10.0.0.1", 81));
    EXPECT_TRUE(address != IpAddress::fromText("10.0.0.2", 80));
    EXPECT_TRUE(IpAddress::fromText("0.0.0.0", 0) != IpAddress::fromText("::", 0));
    EXPECT_TRUE(IpAddress::fromText("0.0.0.0", 0) != IpAddress());
}

TEST(IpAddress, IsOrderedByFamilyThenAddressThenPort)
{
    const std::vector<IpAddress> inOrder = {
        IpAddress(),
        IpAddress::fromText("9.0.0.1", 80),
        IpAddress::fromText("10.0.0.1", 80),
        IpAddress::fromText("10.0.0.1", 256),
        IpAddress::fromText("200.0.0.1", 1),
        IpAddress::fromText("::1", 1),
        IpAddress::fromText("ff::", 1),
    };
    for (size_t a = 0; a < inOrder.size(); ++a) {
        for (size_t b = 0; b < inOrder.size(); ++b)
            EXPECT_EQ(inOrder[a] < inOrder[b], a < b) << a << " and " << b;
    }
    const std::set<IpAddress> sorted(inOrder.rbegin(), inOrder.rend());
    EXPECT_TRUE(std::equal(sorted.begin(), sorted.end(), inOrder.begin(), inOrder.end()));
}

}  // namespace
}  // namespace qv::tests
