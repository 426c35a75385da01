// The parts of a request that the application sees: method, target, headers, cookies, query.

#include "support/CurlClient.h"
#include "support/RawClient.h"
#include "support/SeenRequest.h"
#include "support/TestServer.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace
{

using integration::Channel;
using integration::CurlClient;
using integration::CurlResult;
using integration::getRequest;
using integration::RawClient;
using integration::RawResponse;
using integration::SeenRequest;
using integration::TestRequest;
using integration::TestServer;
using qv::HttpBaseRequest;
using ::testing::ElementsAre;
using ::testing::StartsWith;

constexpr size_t kTargetLimitBytes = 4096;
constexpr size_t kValueLimitBytes = 8096;

class RequestIntake : public ::testing::Test
{
protected:
    // Sends one request on a connection of its own and returns the application's copy of it.
    SeenRequest see(const std::string& bytes)
    {
        RawClient client(server.port());
        EXPECT_TRUE(client.send(bytes));
        std::optional<SeenRequest> request = seen.pop();
        if (!request)
            throw std::runtime_error("the request did not reach the application");
        const auto response = client.receive(bytes.rfind("HEAD ", 0) == 0);
        EXPECT_TRUE(response && response->status == 404) << "no response";
        return *request;
    }

    // Sends a request that the application gets in polling mode. Event-driven mode is strict: it
    // refuses the request itself, and this returns nothing.
    std::optional<SeenRequest> seeUnlessStrict(const std::string& bytes)
    {
        if (!integration::isEventDriven())
            return see(bytes);
        const uint64_t before = server.requestsCreated();
        RawClient client(server.port());
        EXPECT_TRUE(client.send(bytes));
        const auto response = client.receive();
        EXPECT_TRUE(response && response->status == 400) << "not refused";
        EXPECT_TRUE(client.isClosedByServer());
        EXPECT_EQ(server.requestsCreated(), before);
        return std::nullopt;
    }

    Channel<SeenRequest> seen;
    TestServer server{[this](TestRequest& request) {
        seen.push(SeenRequest(request));
        request.respond(404, "seen");
    }};
};

struct InvalidUtf8
{
    const char* name;
    std::string bytes;
};

std::vector<InvalidUtf8> invalidUtf8()
{
    return {
        {"a continuation byte alone, lowest", "\x80"},
        {"a continuation byte alone, highest", "\xBF"},
        {"NUL in two bytes", "\xC0\x80"},
        {"highest in two bytes that needs one", "\xC1\xBF"},
        {"lowest in three bytes that needs less", "\xE0\x80\x80"},
        {"highest in three bytes that needs two", "\xE0\x9F\xBF"},
        {"lowest surrogate", "\xED\xA0\x80"},
        {"highest surrogate", "\xED\xBF\xBF"},
        {"lowest in four bytes that needs less", "\xF0\x80\x80\x80"},
        {"highest in four bytes that needs three", "\xF0\x8F\xBF\xBF"},
        {"first above U+10FFFF", "\xF4\x90\x80\x80"},
        {"lead byte far above U+10FFFF", "\xF5\x80\x80\x80"},
        {"lead byte of five", "\xF8\x88\x80\x80\x80"},
        {"lead byte of six", "\xFC\x84\x80\x80\x80\x80"},
        {"0xFE", "\xFE"},
        {"0xFF", "\xFF"},
        {"two bytes, cut off", "\xC3"},
        {"three bytes, cut off after one", "\xE2"},
        {"three bytes, cut off after two", "\xE2\x82"},
        {"four bytes, cut off after three", "\xF0\x9F\x98"},
        {"wrong continuation of two", "\xC3("},
        {"wrong continuation of three", "\xE2\x82("},
        {"wrong continuation of four", "\xF0\x9F\x98("},
        {"valid text before", "caf\xC3\xA9\xFF"},
    };
}

std::string percentEncoded(const std::string& bytes)
{
    static const char* const kDigits = "0123456789ABCDEF";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += '%';
        text += kDigits[value >> 4];
        text += kDigits[value & 15];
    }
    return text;
}

TEST_F(RequestIntake, TakesAllTenMethods)
{
    const struct
    {
        const char* method;
        HttpBaseRequest::RequestType type;
        const char* parseError;
    } rows[] = {
        {"OPTIONS", HttpBaseRequest::OPTIONS, ""},
        {"GET", HttpBaseRequest::GET, ""},
        {"POST", HttpBaseRequest::POST, ""},
        {"PUT", HttpBaseRequest::PUT, ""},
        {"DELETE", HttpBaseRequest::DELETE, ""},
        {"HEAD", HttpBaseRequest::HEAD, ""},
        {"TRACE", HttpBaseRequest::TRACE, ""},
        {"PATCH", HttpBaseRequest::PATCH, ""},
        {"BREW", HttpBaseRequest::UNKNOWN_HTTP_METHOD, "Unexpected HTTP method"},
        {"get", HttpBaseRequest::UNKNOWN_HTTP_METHOD, "Unexpected HTTP method"},
        {"GETS", HttpBaseRequest::UNKNOWN_HTTP_METHOD, "Unexpected HTTP method"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.method);
        const SeenRequest request =
            see(std::string(row.method) + " /m HTTP/1.1\r\nHost: x\r\n\r\n");
        EXPECT_EQ(request.type, row.type);
        EXPECT_EQ(request.parseError, row.parseError);
        EXPECT_EQ(request.isBad, *row.parseError != '\0');
        EXPECT_EQ(request.target, "/m");
    }
    if (const auto connect = seeUnlessStrict("CONNECT /m HTTP/1.1\r\nHost: x\r\n\r\n")) {
        EXPECT_EQ(connect->type, HttpBaseRequest::CONNECT);
        EXPECT_FALSE(connect->isBad) << connect->parseError;
    }
}

TEST_F(RequestIntake, TakesTheMethodsFromCurl)
{
    CurlClient client;
    for (const char* method :
         {"OPTIONS", "GET", "POST", "PUT", "DELETE", "HEAD", "TRACE", "PATCH"}) {
        SCOPED_TRACE(method);
        const CurlResult result = client.request(method, server.url("/m"));
        EXPECT_EQ(result.code, CURLE_OK);
        EXPECT_EQ(result.status, 404);
        const auto request = seen.pop();
        ASSERT_TRUE(request);
        EXPECT_EQ(HttpBaseRequest::RequestTypeToString(request->type), method);
    }
}

TEST_F(RequestIntake, TakesTargetsOfUpTo4096Bytes)
{
    const std::string longest = "/" + std::string(kTargetLimitBytes - 1, 'a');
    const SeenRequest good = see(getRequest(longest));
    EXPECT_FALSE(good.isBad);
    EXPECT_EQ(good.target, longest);
    EXPECT_TRUE(good.urlIsValid);
    EXPECT_EQ(good.path, longest);

    const SeenRequest bad = see(getRequest(longest + "a"));
    EXPECT_TRUE(bad.isBad);
    EXPECT_EQ(bad.parseError, "URI is too long");
    EXPECT_EQ(bad.target, "Invalid URI");
    EXPECT_FALSE(bad.urlIsValid);
}

TEST_F(RequestIntake, CountsTheQueryToTheLengthOfTheTarget)
{
    const std::string start = "/p?q=";
    const std::string longest = start + std::string(kTargetLimitBytes - start.size(), 'v');
    EXPECT_EQ(see(getRequest(longest)).target, longest);
    EXPECT_EQ(see(getRequest(longest + "v")).parseError, "URI is too long");
}

TEST_F(RequestIntake, TakesATargetNearTheLimitOfTheDaemon)
{
    const SeenRequest request = see(getRequest("/" + std::string(200000, 'a')));
    EXPECT_EQ(request.parseError, "URI is too long");
    EXPECT_EQ(request.target, "Invalid URI");
}

TEST_F(RequestIntake, KeepsTheErrorOfTheMethodBeforeThatOfTheTarget)
{
    const std::string target = "/" + std::string(kTargetLimitBytes, 'a');
    const SeenRequest request = see("BREW " + target + " HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(request.parseError, "Unexpected HTTP method");
    EXPECT_EQ(request.target, "Invalid URI");
}

TEST_F(RequestIntake, RefusesTargetsThatAreNoPath)
{
    struct Row
    {
        const char* target;
        bool isRefusedStrictly;
    };
    std::vector<Row> rows = {
        {"*", true},     {"a:80", true},     {"x", true},
        {"/%zz", false}, {"/%C0%80", false}, {"/a\x01", true},
    };
    if (!integration::isEventDriven())
        rows.push_back({"http://other/p", false});
    for (const Row& row : rows) {
        SCOPED_TRACE(row.target);
        const std::string bytes = getRequest(row.target);
        const auto request =
            row.isRefusedStrictly ? seeUnlessStrict(bytes) : std::optional<SeenRequest>(see(bytes));
        if (!request)
            continue;
        EXPECT_TRUE(request->isBad);
        EXPECT_THAT(request->parseError, StartsWith("fail to parse request URI, "));
        EXPECT_EQ(request->target, "Invalid URI");
    }
}

TEST_F(RequestIntake, GivesTheTargetAsReceivedAndItsPathDecoded)
{
    const std::string target = "/caf%C3%A9/a%2Fb?x=1%202";
    const SeenRequest request = see(getRequest(target));
    EXPECT_FALSE(request.isBad) << request.parseError;
    EXPECT_EQ(request.target, target);
    EXPECT_EQ(request.path, "/caf\xC3\xA9/a/b");
    if (const auto withFragment = seeUnlessStrict(getRequest(target + "#end"))) {
        EXPECT_FALSE(withFragment->isBad) << withFragment->parseError;
        EXPECT_EQ(withFragment->target, target + "#end");
        EXPECT_EQ(withFragment->path, request.path);
    }
}

TEST_F(RequestIntake, TakesHeadersOfUpTo8096Bytes)
{
    const std::string name = "X-Long";
    const std::string longest(kValueLimitBytes - name.size(), 'v');
    const SeenRequest good = see(getRequest("/", name + ": " + longest + "\r\n"));
    EXPECT_FALSE(good.isBad) << good.parseError;
    ASSERT_TRUE(good.headers.count("x-long"));
    EXPECT_THAT(good.headers.at("x-long"), ElementsAre(longest));

    const SeenRequest bad = see(getRequest("/", name + ": " + longest + "v\r\n"));
    EXPECT_EQ(bad.parseError, "header too long");
    EXPECT_EQ(bad.headers.count("x-long"), 0u);
    EXPECT_EQ(bad.headers.count("host"), 1u);
}

// The header that carries such a cookie is longer than the cookie, so its error comes first; that
// the cookie is kept or dropped shows its own limit.
TEST_F(RequestIntake, TakesCookiesOfUpTo8096Bytes)
{
    const std::string name = "session";
    const std::string longest(kValueLimitBytes - name.size(), 'v');
    const SeenRequest good = see(getRequest("/", "Cookie: " + name + "=" + longest + "\r\n"));
    EXPECT_EQ(good.parseError, "header too long");
    ASSERT_TRUE(good.cookies.count(name));
    EXPECT_THAT(good.cookies.at(name), ElementsAre(longest));

    const SeenRequest bad = see(getRequest("/", "Cookie: " + name + "=" + longest + "v\r\n"));
    EXPECT_EQ(bad.parseError, "header too long");
    EXPECT_TRUE(bad.cookies.empty());
}

TEST_F(RequestIntake, RefusesInvalidUtf8)
{
    for (const InvalidUtf8& row : invalidUtf8()) {
        SCOPED_TRACE(row.name);
        const struct
        {
            const char* place;
            std::string request;
            const char* parseError;
            bool isRefusedStrictly = false;
        } places[] = {
            {"header name", getRequest("/", "X-" + row.bytes + ": v\r\n"),
             "header name is non utf8", true},
            {"cookie name", getRequest("/", "Cookie: n" + row.bytes + "=v\r\n"),
             "cookie name is non utf8"},
            {"cookie value", getRequest("/", "Cookie: n=v" + row.bytes + "\r\n"),
             "cookie data is non utf8"},
            {"query name", getRequest("/?n" + percentEncoded(row.bytes) + "=v"),
             "query parameter name is non utf8"},
            {"query value", getRequest("/?n=v" + percentEncoded(row.bytes)),
             "query parameter value is non utf8"},
            {"query name, not encoded", getRequest("/?n" + row.bytes + "=v"),
             "query parameter name is non utf8"},
            {"query value, not encoded", getRequest("/?n=v" + row.bytes),
             "query parameter value is non utf8"},
        };
        for (const auto& place : places) {
            SCOPED_TRACE(place.place);
            const auto request = place.isRefusedStrictly
                                     ? seeUnlessStrict(place.request)
                                     : std::optional<SeenRequest>(see(place.request));
            if (!request)
                continue;
            EXPECT_TRUE(request->isBad);
            EXPECT_EQ(request->parseError, place.parseError);
            EXPECT_TRUE(request->query.empty());
            EXPECT_TRUE(request->cookies.empty());
            EXPECT_TRUE(request->headers.count("host"));
        }
    }
}

TEST_F(RequestIntake, DoesNotCheckHeaderValuesForUtf8)
{
    const SeenRequest request = see(getRequest("/", "X-Bytes: \xFF\xC0\x80\r\n"));
    EXPECT_FALSE(request.isBad) << request.parseError;
    EXPECT_THAT(request.headers.at("x-bytes"), ElementsAre("\xFF\xC0\x80"));
}

TEST_F(RequestIntake, KeepsValidUtf8AtTheEdges)
{
    const std::string rows[] = {"\xC2\x80",         "\xDF\xBF",        "\xE0\xA0\x80",
                                "\xED\x9F\xBF",     "\xEE\x80\x80",    "\xEF\xBF\xBF",
                                "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"};
    for (const std::string& text : rows) {
        SCOPED_TRACE(percentEncoded(text));
        const std::string encoded = percentEncoded(text);
        const SeenRequest request =
            see(getRequest("/?n" + encoded + "=v" + encoded,
                           "X-A: v" + text + "\r\nCookie: c" + text + "=v" + text + "\r\n"));
        EXPECT_FALSE(request.isBad) << request.parseError;
        EXPECT_THAT(request.headers.at("x-a"), ElementsAre("v" + text));
        EXPECT_THAT(request.cookies.at("c" + text), ElementsAre("v" + text));
        EXPECT_THAT(request.query.at("n" + text), ElementsAre("v" + text));
        if (const auto named = seeUnlessStrict(getRequest("/", "X-" + text + ": v\r\n"))) {
            EXPECT_FALSE(named->isBad) << named->parseError;
            EXPECT_THAT(named->headers.at("x-" + text), ElementsAre("v"));
        }
    }
}

TEST_F(RequestIntake, TakesHeadersWithAnUnterminatedQuote)
{
    const SeenRequest request = see(
        getRequest("/", "Cookie: theme=\"dark\r\nX-Title: 5\" disk\r\nUser-Agent: x \"y, z\r\n"));
    EXPECT_FALSE(request.isBad) << request.parseError;
    EXPECT_THAT(request.headers.at("cookie"), ElementsAre("theme=\"dark"));
    EXPECT_THAT(request.headers.at("x-title"), ElementsAre("5\" disk"));
    EXPECT_THAT(request.headers.at("user-agent"), ElementsAre("x \"y", "z"));
}

TEST_F(RequestIntake, GivesEveryHeaderAtLeastOneValueAndItsWholeLine)
{
    const std::string place = "https://maps.example/@48.1,11.5,15z";
    const SeenRequest request =
        see(getRequest("/", "Range: ,\r\nReferer: " + place + "\r\nX-A: 1,2\r\nX-A: 3\r\n"));
    EXPECT_FALSE(request.isBad) << request.parseError;
    EXPECT_THAT(request.headers.at("range"), ElementsAre(""));
    EXPECT_THAT(request.headers.at("referer"),
                ElementsAre("https://maps.example/@48.1", "11.5", "15z"));
    EXPECT_EQ(request.lines.at("range"), ",");
    EXPECT_EQ(request.lines.at("referer"), place);
    EXPECT_EQ(request.lines.at("x-a"), "1,2, 3");
    EXPECT_EQ(request.lines.at("host"), request.headers.at("host").front());
}

TEST_F(RequestIntake, RefusesControlCharacters)
{
    const struct
    {
        const char* name;
        std::string request;
        const char* parseError;
        bool isRefusedStrictly = false;
    } rows[] = {
        {"header name, 0x01", getRequest("/", "X-\x01: v\r\n"),
         "header name contains ASCII forbidden characters", true},
        {"header name, 0x7F", getRequest("/", "X-\x7F: v\r\n"),
         "header name contains ASCII forbidden characters", true},
        {"header value", getRequest("/", "X-Trace-Id: \x01\r\n"),
         "fail to parse header 'x-trace-id'", true},
        {"header value, quoted", getRequest("/", "X-Trace-Id: \"a\x7F\"\r\n"),
         "fail to parse header 'x-trace-id'", true},
        {"query name", getRequest("/?%01=v"),
         "query parameter name contains ASCII forbidden characters"},
        {"query value, 0x1F", getRequest("/?n=%1F"),
         "query parameter value contains ASCII forbidden characters"},
        {"query value, 0x7F", getRequest("/?n=%7F"),
         "query parameter value contains ASCII forbidden characters"},
        {"query value, line end", getRequest("/?n=%0D%0A"),
         "query parameter value contains ASCII forbidden characters"},
        // The header that carries the cookie is refused before the cookie is.
        {"cookie value", getRequest("/", "Cookie: n=\x01\r\n"), "fail to parse header 'cookie'",
         true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto request = row.isRefusedStrictly ? seeUnlessStrict(row.request)
                                                   : std::optional<SeenRequest>(see(row.request));
        if (!request)
            continue;
        EXPECT_EQ(request->parseError, row.parseError);
        EXPECT_TRUE(request->query.empty());
        EXPECT_TRUE(request->cookies.empty());
    }
}

// The daemon ends an argument at its NUL, so that only the target shows it.
TEST_F(RequestIntake, RefusesEncodedControlCharactersInTheTarget)
{
    const std::string inPath =
        "fail to parse request URI, percent-encoded control character in the path at byte ";
    const std::string inQuery =
        "fail to parse request URI, percent-encoded control character in the query at byte ";
    const struct
    {
        const char* target;
        std::string parseError;
    } rows[] = {
        {"/a%00b", inPath + "3"},      {"/a%0d%0ab", inPath + "3"},
        {"/a%09?q", inPath + "3"},     {"/a%7F", inPath + "3"},
        {"/a%01?q=%00", inPath + "3"}, {"/?q=abc%00def", inQuery + "8"},
        {"/?q=%00%01", inQuery + "5"}, {"/?%00=v", inQuery + "3"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        const SeenRequest request = see(getRequest(row.target));
        EXPECT_EQ(request.parseError, row.parseError);
        EXPECT_EQ(request.target, "Invalid URI");
        EXPECT_FALSE(request.urlIsValid);
        EXPECT_EQ(request.path, "");
    }
}

TEST_F(RequestIntake, KeepsValidPairsBesideBadOnes)
{
    // Event-driven mode refuses the control character itself.
    const std::string bad = integration::isEventDriven() ? "" : "X-Bad: \x01\r\n";
    const SeenRequest request =
        see(getRequest("/?bad=%FF&good=1", bad + "X-Good: 2\r\nCookie: bad=\xFF; good=3\r\n"));
    EXPECT_EQ(request.parseError, "query parameter value is non utf8");
    EXPECT_THAT(request.query.at("good"), ElementsAre("1"));
    EXPECT_EQ(request.query.count("bad"), 0u);
    EXPECT_THAT(request.headers.at("x-good"), ElementsAre("2"));
    EXPECT_EQ(request.headers.count("x-bad"), 0u);
    EXPECT_THAT(request.cookies.at("good"), ElementsAre("3"));
    EXPECT_EQ(request.cookies.count("bad"), 0u);
}

TEST_F(RequestIntake, KeepsAllValuesOfDuplicateNamesInOrder)
{
    const SeenRequest request =
        see(getRequest("/?a=1&a=2&a&A=3", "X-A: 1\r\nx-a: 2, 3\r\nX-B: y\r\nX-a: 4\r\n"
                                          "Cookie: a=1; a=2; A=3\r\n"));
    EXPECT_FALSE(request.isBad) << request.parseError;
    EXPECT_THAT(request.headers.at("x-a"), ElementsAre("1", "2", "3", "4"));
    EXPECT_THAT(request.cookies.at("a"), ElementsAre("1", "2"));
    EXPECT_THAT(request.cookies.at("A"), ElementsAre("3"));
    EXPECT_THAT(request.query.at("a"), ElementsAre("1", "2", ""));
    EXPECT_THAT(request.query.at("A"), ElementsAre("3"));
}

TEST_F(RequestIntake, DecodesQueryParameters)
{
    const SeenRequest request = see(getRequest("/?a+b=c%20d+e&empty=&%C3%A9=x%3Dy"));
    EXPECT_FALSE(request.isBad) << request.parseError;
    EXPECT_THAT(request.query.at("a b"), ElementsAre("c d e"));
    EXPECT_THAT(request.query.at("empty"), ElementsAre(""));
    EXPECT_THAT(request.query.at("\xC3\xA9"), ElementsAre("x=y"));
}

TEST_F(RequestIntake, CountsHeadersAndCookiesButNoQuery)
{
    constexpr uint64_t kHost = 4 + 1 + 3;
    constexpr uint64_t kCookieHeader = 6 + 3 + 3;
    constexpr uint64_t kCookie = 1 + 1 + 11;
    EXPECT_EQ(see(getRequest("/?a=1&b=2")).headBytes, kHost);
    EXPECT_EQ(see(getRequest("/", "Cookie: a=1\r\n")).headBytes, kHost + kCookieHeader + kCookie);
}

TEST_F(RequestIntake, GivesTheAddressOfTheClient)
{
    const SeenRequest request = see(getRequest("/"));
    EXPECT_EQ(request.clientAddress, "127.0.0.1");
    EXPECT_NE(request.clientPort, 0);
    EXPECT_NE(request.clientPort, server.port());
}

TEST_F(RequestIntake, TakesARequestThatArrivesByteByByte)
{
    const std::string bytes = getRequest("/p?q=1", "X-A: b\r\nCookie: c=d\r\n");
    RawClient client(server.port());
    for (const char byte : bytes)
        ASSERT_TRUE(client.send(std::string_view(&byte, 1)));
    const auto request = seen.pop();
    ASSERT_TRUE(request);
    EXPECT_EQ(request->target, "/p?q=1");
    EXPECT_THAT(request->headers.at("x-a"), ElementsAre("b"));
    EXPECT_THAT(request->cookies.at("c"), ElementsAre("d"));
    EXPECT_THAT(request->query.at("q"), ElementsAre("1"));
}

// A request that the daemon refuses by itself does not reach the application.
TEST_F(RequestIntake, SeesNothingOfWhatTheDaemonRefuses)
{
    const struct
    {
        const char* name;
        std::string request;
        int status;
    } rows[] = {
        {"no Host", "GET / HTTP/1.1\r\n\r\n", 400},
        {"bad length", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: x\r\n\r\n", 400},
        {"version 2", "GET / HTTP/2.0\r\nHost: x\r\n\r\n", 505},
        {"head above the limit", getRequest("/", "X: " + std::string(300000, 'v') + "\r\n"), 431},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RawClient client(server.port());
        client.send(row.request);
        const auto head = client.receiveHead();
        ASSERT_TRUE(head);
        EXPECT_EQ(head->status, row.status);
    }
    EXPECT_EQ(server.requestsCreated(), 0u);
    EXPECT_EQ(see(getRequest("/after")).target, "/after");
}

}  // namespace
