// The checks of strict mode on the texts of a head.

#include "request/StrictRequest.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace
{

using qv::impl::Refusal;
using qv::impl::StrictRequest;

using Headers = std::vector<std::pair<std::string, std::string>>;

struct Head
{
    std::string method = "GET";
    std::string target = "/";
    bool isHttp10 = false;
    Headers headers;
    bool hasHost = true;
};

Refusal check(const Head& head)
{
    StrictRequest request(head.method, head.target, head.isHttp10);
    if (head.hasHost)
        request.takeHeader("Host", "h");
    for (const auto& [name, value] : head.headers)
        request.takeHeader(name, value);
    return request.finish();
}

Refusal checkLine(const std::string& method, const std::string& target)
{
    Head head;
    head.method = method;
    head.target = target;
    return check(head);
}

Refusal checkHeaders(Headers headers)
{
    Head head;
    head.headers = std::move(headers);
    return check(head);
}

TEST(StrictRequest, AcceptsTheFormOfTargetThatGoesWithTheMethod)
{
    const struct
    {
        const char* method;
        std::string target;
        bool isServed;
    } rows[] = {
        {"GET", "/", true},
        {"GET", "//other/a", true},
        {"GET", "/a?b=c&d", true},
        {"GET", "/?", true},
        {"GET", "/|\\^`{}\"<>[]@:", true},
        {"GET", "/%zz", true},
        {"GET", "/\xc3\xa9\xff", true},
        {"GET", "/" + std::string(20000, 'a'), true},
        {"GET", "", false},
        {"GET", "a", false},
        {"GET", "?a", false},
        {"GET", "@other/a", false},
        {"GET", "81/a", false},
        {"GET", "/a#b", false},
        {"GET", "/\x01", false},
        {"GET", "/\t", false},
        {"GET", "/ ", false},
        {"GET", "/\x7f", false},
        {"GET", "/\x1f", false},
        {"GET", "/\x21", true},
        {"GET", "/\r", false},
        {"GET", std::string("/\0", 2), false},
        {"GET", "http://h", true},
        {"GET", "http://h/a?b", true},
        {"GET", "https://[::1]:80/a", true},
        {"GET", "x+y-z.1://h", true},
        {"GET", "1http://h", false},
        {"GET", "ht_tp://h", false},
        {"GET", "http://", false},
        {"GET", "http:///a", false},
        {"GET", "http://?a", false},
        {"GET", "http:/h", false},
        {"GET", "://h", false},
        {"GET", "h:80", false},
        {"GET", "*", false},
        {"OPTIONS", "*", true},
        {"OPTIONS", "**", false},
        {"OPTIONS", "/", true},
        {"CONNECT", "h:80", true},
        {"CONNECT", "[::1]:443", true},
        {"CONNECT", "h", false},
        {"CONNECT", ":80", false},
        {"CONNECT", "h:", false},
        {"CONNECT", "h:8a", false},
        {"CONNECT", "a:b:80", false},
        {"CONNECT", "[]:80", false},
        {"CONNECT", "[::1:80", false},
        {"CONNECT", "u@h:80", false},
        {"CONNECT", "h/a:80", false},
        {"CONNECT", "/", false},
        {"CONNECT", "http://h:80", false},
        {"CONNECT", "*", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.method) + " " + row.target.substr(0, 60));
        const Refusal refusal = checkLine(row.method, row.target);
        EXPECT_EQ(refusal.status, row.isServed ? 0u : 400u);
        EXPECT_STREQ(refusal.reason, row.isServed ? "" : "the target has no valid form");
    }
}

TEST(StrictRequest, AcceptsTokensAsMethodAndHeaderName)
{
    for (int value = 0; value < 256; ++value) {
        SCOPED_TRACE(value);
        const char c = static_cast<char>(value);
        const bool isToken =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
            (c != '\0' && std::string("!#$%&'*+-.^_`|~").find(c) != std::string::npos);
        EXPECT_EQ(checkLine(std::string("G") + c, "/").status, isToken ? 0u : 400u);
        EXPECT_EQ(checkHeaders({{std::string("X-") + c, "v"}}).status, isToken ? 0u : 400u);
        EXPECT_EQ(checkHeaders({{c + std::string("x"), "v"}}).status, isToken ? 0u : 400u);
    }
    EXPECT_STREQ(checkLine("", "/").reason, "the method is no token");
    EXPECT_STREQ(checkHeaders({{"", "v"}}).reason, "a header name is no token");
    EXPECT_STREQ(checkHeaders({{"A ", "v"}}).reason, "a header name is no token");
}

// In each position of values around the eight bytes that are looked at together.
TEST(StrictRequest, RefusesAControlCharacterInAValueAtAnyPlace)
{
    for (int value = 0; value < 256; ++value) {
        const char c = static_cast<char>(value);
        const bool isControl = (value < 0x20 && c != '\t') || value == 0x7f;
        for (size_t size = 1; size <= 26; ++size) {
            for (size_t place = 0; place < size; ++place) {
                std::string text(size, 'v');
                text[place] = c;
                const Refusal refusal = checkHeaders({{"A", text}});
                ASSERT_EQ(refusal.status, isControl ? 400u : 0u)
                    << value << " at " << place << " of " << size;
                ASSERT_STREQ(refusal.reason,
                             isControl ? "a header value contains a control character" : "");
            }
        }
    }
}

TEST(StrictRequest, AcceptsUnusualValues)
{
    const struct
    {
        const char* name;
        std::string value;
    } rows[] = {
        {"empty", ""},
        {"quoted", "\"a, b\\\" c"},
        {"with trailing spaces", "v  \t"},
        {"with tabs", "a\tb\tc\td\te\tf"},
        {"with bytes that are no text", "\x80\xff\xc0\x80\xa0\xe0\xf0"},
        {"long", std::string(30000, 'v')},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(checkHeaders({{"X-A", row.value}}).status, 0u);
    }
    EXPECT_EQ(checkHeaders(Headers(1000, {"X-A", "v"})).status, 0u);
}

TEST(StrictRequest, TakesOneWellFormedContentLength)
{
    const struct
    {
        std::string value;
        bool isServed;
    } rows[] = {
        {"0", true},
        {"00", true},
        {"5", true},
        {std::string(40, '0') + "4", true},
        {"9223372036854775807", true},
        {"0009223372036854775807", true},
        {"9223372036854775808", false},
        {"18446744073709551615", false},
        {"18446744073709551620", false},
        {"100000000000000000000000", false},
        {"", false},
        {"5, 5", false},
        {"5,5", false},
        {"+5", false},
        {"-5", false},
        {"5 ", false},
        {"5\t", false},
        {"1 2", false},
        {"0x5", false},
        {"5a", false},
        {"5.0", false},
        {"\"5\"", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        const Refusal refusal = checkHeaders({{"Content-Length", row.value}});
        EXPECT_EQ(refusal.status, row.isServed ? 0u : 400u);
        EXPECT_STREQ(refusal.reason, row.isServed ? "" : "a malformed Content-Length");
    }
}

TEST(StrictRequest, TakesExactlyChunked)
{
    const struct
    {
        std::string value;
        unsigned status;
    } rows[] = {
        {"chunked", 0},
        {"Chunked", 0},
        {"CHUNKED", 0},
        {"gzip", 501},
        {"identity", 501},
        {"gzip, chunked", 501},
        {"chunked, identity", 501},
        {"xchunked", 501},
        {"gzip;q=1", 501},
        {"gzip,", 400},
        {"", 400},
        {" ", 400},
        {",", 400},
        {"chunked,", 400},
        {"chunked ", 400},
        {"chunked;a=b", 400},
        {"chunked, chunked", 400},
        {"\"chunked\"", 400},
        {"chun ked", 400},
        {"\xa0"
         "chunked",
         400},
        {"\x0b"
         "chunked",
         400},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        EXPECT_EQ(checkHeaders({{"transfer-encoding", row.value}}).status, row.status);
    }
    EXPECT_STREQ(checkHeaders({{"Transfer-Encoding", "gzip"}}).reason,
                 "an unknown transfer coding");
    EXPECT_STREQ(checkHeaders({{"Transfer-Encoding", "chunked,"}}).reason,
                 "a malformed Transfer-Encoding");
}

TEST(StrictRequest, RefusesASecondFramingHeader)
{
    const struct
    {
        const char* name;
        Headers headers;
        const char* reason;
    } rows[] = {
        {"two lengths",
         {{"Content-Length", "5"}, {"content-length", "5"}},
         "several Content-Length"},
        {"two codings",
         {{"Transfer-Encoding", "chunked"}, {"TRANSFER-ENCODING", "chunked"}},
         "several Transfer-Encoding"},
        {"unknown coding first",
         {{"Transfer-Encoding", "gzip"}, {"Transfer-Encoding", "chunked"}},
         "several Transfer-Encoding"},
        {"length and coding",
         {{"Content-Length", "5"}, {"Transfer-Encoding", "chunked"}},
         "a Content-Length beside a Transfer-Encoding"},
        {"coding and length",
         {{"Transfer-Encoding", "chunked"}, {"Content-Length", "5"}},
         "a Content-Length beside a Transfer-Encoding"},
        {"unknown coding and length",
         {{"Transfer-Encoding", "gzip"}, {"Content-Length", "5"}},
         "a Content-Length beside a Transfer-Encoding"},
        {"second host", {{"host", "h"}}, "several Host"},
        {"length, and a name that is none", {{"Content-Length", "5"}, {"Content_Length", "5"}}, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const Refusal refusal = checkHeaders(row.headers);
        EXPECT_STREQ(refusal.reason, row.reason);
        EXPECT_EQ(refusal.status, *row.reason == '\0' ? 0u : 400u);
    }
}

TEST(StrictRequest, AcceptsAHostWithOrWithoutAPort)
{
    const struct
    {
        std::string value;
        bool isHost;
    } rows[] = {
        {"", true},
        {"h", true},
        {"h:", true},
        {"h:80", true},
        {"h:99999999999999999999", true},
        {":80", true},
        {"www.example.com.", true},
        {"my_host", true},
        {"127.0.0.1:8181", true},
        {"a,b;c=(d)*e!$&'+~-", true},
        {"%c3%A4", true},
        {" h\t", true},
        {"[::1]", true},
        {"[::1]:", true},
        {"[::1]:80", true},
        {"[v1.a:b]", true},
        {"a b", false},
        {"a, b", false},
        {"a\tb", false},
        {"a/b", false},
        {"a?b", false},
        {"a#b", false},
        {"a\\b", false},
        {"u@h", false},
        {"http://h", false},
        {"h:80a", false},
        {"h:80:80", false},
        {"h:-1", false},
        {"h: 80", false},
        {"::1", false},
        {"<h>", false},
        {"\"h\"", false},
        {"\xc3\xa4", false},
        {"%", false},
        {"%c", false},
        {"%cg", false},
        {"a%41%", false},
        {"[", false},
        {"[]", false},
        {"[::1", false},
        {"::1]", false},
        {"[::1]a", false},
        {"[::1]:a", false},
        {"[::1]]", false},
        {"[[::1]", false},
        {"[fe80::1%25eth0]", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        for (const bool isHttp10 : {false, true}) {
            Head head;
            head.isHttp10 = isHttp10;
            head.hasHost = false;
            head.headers = {{"hOST", row.value}};
            const Refusal refusal = check(head);
            EXPECT_STREQ(refusal.reason, row.isHost ? "" : "a malformed Host");
            EXPECT_EQ(refusal.status, row.isHost ? 0u : 400u);
        }
    }
}

TEST(StrictRequest, KnowsTheRulesOfHttp10)
{
    Head head;
    head.isHttp10 = true;
    EXPECT_EQ(check(head).status, 0u);
    head.hasHost = false;
    EXPECT_EQ(check(head).status, 0u);
    head.headers = {{"Transfer-Encoding", "chunked"}};
    EXPECT_STREQ(check(head).reason, "a Transfer-Encoding in HTTP/1.0");
    head.headers = {{"Host", "a"}, {"Host", "b"}};
    EXPECT_STREQ(check(head).reason, "several Host");
    Head without;
    without.hasHost = false;
    EXPECT_STREQ(check(without).reason, "no Host");
}

TEST(StrictRequest, ReportsTheFirstDefect)
{
    StrictRequest request("G T", "x", false);
    request.refuse("another");
    const Refusal refusal = request.finish();
    EXPECT_EQ(refusal.status, 400u);
    EXPECT_STREQ(refusal.reason, "the method is no token");
}

}  // namespace
