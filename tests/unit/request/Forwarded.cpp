// The client behind trusted proxies: the walk from the right, and the elements that end it.

#include "request/Forwarded.h"

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace
{

using qv::impl::AddressSet;
using qv::impl::FindClientInForwarded;
using qv::impl::FindClientInForwardedFor;
using qv::impl::HeaderLines;
using qv::impl::NetworkAddress;

constexpr const char* kNone = "none";

AddressSet trusted()
{
    AddressSet set;
    for (const char* entry : {"10.0.0.0/8", "fd00::/8"})
        EXPECT_EQ(set.add(entry), "");
    return set;
}

std::string shown(const std::optional<NetworkAddress>& address)
{
    if (!address)
        return kNone;
    return address->port == 0 ? address->toIpAddress().toString()
                              : address->toIpAddress().toStringWithPort();
}

struct Row
{
    const char* name;
    HeaderLines lines;
    const char* client;
};

using Find = std::function<std::optional<NetworkAddress>(const HeaderLines&, const AddressSet&)>;

void check(const Find& find, const std::vector<Row>& rows)
{
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(shown(find(row.lines, trusted())), row.client);
    }
}

TEST(ForwardedFor, TellsTheRightmostAddressThatIsNotTrusted)
{
    check(
        &FindClientInForwardedFor,
        {
            {"one address", {"192.0.2.1"}, "192.0.2.1"},
            {"chosen by the client", {"198.51.100.7, 192.0.2.1"}, "192.0.2.1"},
            {"behind trusted proxies", {"198.51.100.7, 192.0.2.1, 10.0.0.2, fd00::2"}, "192.0.2.1"},
            {"all trusted", {"10.0.0.3, 10.0.0.2"}, "10.0.0.3"},
            {"several lines", {"198.51.100.7", "192.0.2.1, 10.0.0.3", "10.0.0.2"}, "192.0.2.1"},
            {"empty elements", {",192.0.2.1,, ,", "", " , "}, "192.0.2.1"},
            {"no spaces", {"198.51.100.7,192.0.2.1,10.0.0.2"}, "192.0.2.1"},
            {"tabs", {"\t192.0.2.1\t,\t10.0.0.2 "}, "192.0.2.1"},
            {"IPv4 mapped into IPv6", {"198.51.100.7, 192.0.2.1, ::ffff:10.0.0.2"}, "192.0.2.1"},
            {"nothing", {}, kNone},
            {"an empty line", {""}, kNone},
        });
}

TEST(ForwardedFor, TakesPortsAndBrackets)
{
    check(&FindClientInForwardedFor,
          {
              {"IPv4 with a port", {"192.0.2.1:4711"}, "192.0.2.1:4711"},
              {"IPv6", {"2001:db8::1"}, "2001:db8::1"},
              {"IPv6 in brackets", {"[2001:db8::1]"}, "2001:db8::1"},
              {"IPv6 with a port", {"[2001:db8::1]:4711"}, "[2001:db8::1]:4711"},
              {"highest port", {"192.0.2.1:65535"}, "192.0.2.1:65535"},
              {"port 0", {"192.0.2.1:0"}, "192.0.2.1"},
              {"port with zeros", {"192.0.2.1:00080"}, "192.0.2.1:80"},
              {"hidden port", {"192.0.2.1:_p.1-a_B"}, "192.0.2.1"},
              {"trusted with a port", {"192.0.2.1, [fd00::1]:80"}, "192.0.2.1"},
          });
}

TEST(ForwardedFor, EndsTheWalkAtAnElementThatIsNoAddress)
{
    for (const char* element : {"unknown",
                                "_hidden",
                                "localhost",
                                "192.0.2",
                                "192.0.2.1:",
                                "192.0.2.1:65536",
                                "192.0.2.1:000080",
                                "192.0.2.1:x",
                                "192.0.2.1:_",
                                "192.0.2.1:_!",
                                "192.0.2.1:-1",
                                "192.0.2.1:80:80",
                                "[192.0.2.1]",
                                "[2001:db8::1",
                                "2001:db8::1]",
                                "[2001:db8::1]x",
                                "[2001:db8::1]:",
                                "[2001:db8::1]80",
                                "[]",
                                "[",
                                "\"192.0.2.1\"",
                                "for=192.0.2.1",
                                "192.0.2.1 192.0.2.2",
                                "192.0.2.1%lo",
                                "::1%lo",
                                ":",
                                "::1::"}) {
        check(&FindClientInForwardedFor,
              {
                  {element, {element}, kNone},
                  {element, {"198.51.100.7", element}, kNone},
                  {element, {"198.51.100.7", element, "10.0.0.2"}, "10.0.0.2"},
                  {element, {element, "192.0.2.1", "10.0.0.2"}, "192.0.2.1"},
              });
    }
}

TEST(Forwarded, TellsTheRightmostAddressThatIsNotTrusted)
{
    check(&FindClientInForwarded,
          {
              {"one element", {"for=192.0.2.1"}, "192.0.2.1"},
              {"other parameters", {"proto=https;for=192.0.2.1;by=203.0.113.4"}, "192.0.2.1"},
              {"any case", {"FOR=192.0.2.1;Proto=http"}, "192.0.2.1"},
              {"quoted", {R"(for="192.0.2.1")"}, "192.0.2.1"},
              {"IPv6", {R"(for="[2001:db8::1]")"}, "2001:db8::1"},
              {"IPv6 with a port", {R"(for="[2001:db8::1]:4711")"}, "[2001:db8::1]:4711"},
              {"hidden port", {R"(for="[2001:db8::1]:_x")"}, "2001:db8::1"},
              {"without the quotes it needs", {"for=[2001:db8::1]:4711"}, "[2001:db8::1]:4711"},
              {"escaped characters", {R"(for="\1\9\2.0.2.1")"}, "192.0.2.1"},
              {"escaped quote", {R"(ext="\"";for=192.0.2.1)"}, "192.0.2.1"},
              {"escaped backslash", {R"(ext="\\";for=192.0.2.1)"}, "192.0.2.1"},
              {"escaped backslash and quote", {R"(ext="a\\\"";for=192.0.2.1)"}, "192.0.2.1"},
              {"separators in quotes", {R"(ext="a,b;c=d";for=192.0.2.1;x=",;")"}, "192.0.2.1"},
              {"empty pairs", {";;for=192.0.2.1; ;"}, "192.0.2.1"},
              {"spaces", {" for=192.0.2.1 ; by=10.0.0.1 , for=10.0.0.2 "}, "192.0.2.1"},
              {"chosen by the client", {"for=198.51.100.7, for=192.0.2.1"}, "192.0.2.1"},
              {"behind trusted proxies",
               {R"(for=198.51.100.7, for=192.0.2.1;by=10.0.0.1, for="[fd00::1]")"},
               "192.0.2.1"},
              {"all trusted", {"for=10.0.0.3, for=10.0.0.2"}, "10.0.0.3"},
              {"several lines",
               {"for=198.51.100.7", "for=192.0.2.1,for=10.0.0.3", "for=10.0.0.2"},
               "192.0.2.1"},
              {"empty elements", {",for=192.0.2.1,, ", ""}, "192.0.2.1"},
              {"nothing", {}, kNone},
              {"an empty line", {""}, kNone},
          });
}

TEST(Forwarded, EndsTheWalkAtAnElementWithoutAnAddress)
{
    for (const char* element : {"for=unknown",
                                "for=_hidden",
                                R"(for="_hidden:80")",
                                "proto=https",
                                "by=192.0.2.1",
                                "for",
                                "for=",
                                "for =192.0.2.1",
                                "for= 192.0.2.1",
                                "=192.0.2.1",
                                "192.0.2.1",
                                "for=192.0.2.1;for=192.0.2.2",
                                "for=192.0.2.1 by=x",
                                "for=192.0.2.1;by",
                                ";",
                                "for=192.0.2.1;b@d=1",
                                R"(for="192.0.2.1)",
                                R"(for=192.0.2.1")",
                                R"(for="192.0.2.1"x)",
                                R"(for="192.0.2.1\")",
                                R"(for=x"192.0.2.1")",
                                R"(fo"r=192.0.2.1)",
                                R"(for="")",
                                R"(for="192.0.2.1" "x")",
                                "former=192.0.2.1",
                                "fo=192.0.2.1",
                                "f or=192.0.2.1"}) {
        check(&FindClientInForwarded,
              {
                  {element, {element}, kNone},
                  {element, {"for=198.51.100.7", element}, kNone},
                  {element, {"for=198.51.100.7", element, "for=10.0.0.2"}, "10.0.0.2"},
                  {element, {element, "for=192.0.2.1", "for=10.0.0.2"}, "192.0.2.1"},
              });
    }
}

// A proxy appends to the line of the client. A quote of the client must not swallow the element of
// the proxy: the client would then have the address of the proxy.
TEST(Forwarded, IsNotChangedByTextInFrontOfTheElementOfAProxy)
{
    const std::string marks[] = {"\"",    "for=\"",   "for=\"\\", "for=198.51.100.7;x=\"",
                                 "\\",    "\"\\\"",   "for=\"a",  "for=\"a,b\"\"",
                                 "(",     "x=\"\\\\", ";",        "=",
                                 ",\",\""};
    const std::string ofProxy[] = {R"(for=192.0.2.1)", R"(for="192.0.2.1")",
                                   R"(for="192.0.2.1";x="a\"b,c")", R"(x="";for=192.0.2.1)",
                                   R"(for=192.0.2.1;x="\\")"};
    for (const std::string& first : marks) {
        for (const std::string& second : marks) {
            for (const std::string& element : ofProxy) {
                const std::string line = first + second + ", " + element;
                SCOPED_TRACE(line);
                EXPECT_EQ(shown(FindClientInForwarded({line}, trusted())), "192.0.2.1");
                const std::string behind = line + R"(, for="10.0.0.2")";
                EXPECT_EQ(shown(FindClientInForwarded({behind}, trusted())), "192.0.2.1");
            }
        }
    }
}

}  // namespace
