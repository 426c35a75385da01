// The request target: its limit, the fixed base it is parsed against and its two parse errors.

#include "support/TestRequest.h"

#include <gmock/gmock.h>

#include <string>

namespace qv::tests
{
namespace
{

// Nothing is kept of a refused target.
void ExpectRefused(const TestRequest& request, const std::string& reason)
{
    const http::HttpUrl& url = request.getUrl();
    EXPECT_EQ(request.getParseError(), "fail to parse request URI, " + reason);
    EXPECT_TRUE(request.hasParseError());
    EXPECT_EQ(request.getOriginalFullUrl(), "Invalid URI");
    EXPECT_FALSE(url.isValid());
    EXPECT_EQ(url.scheme() + url.host() + url.path() + url.encodedPath() + url.query() +
                  url.fragment(),
              "");
    EXPECT_EQ(url.port(), 0);
    EXPECT_TRUE(url.pathSegments().empty());
}

TEST(RequestTarget, IsStoredAsReceivedAndParsed)
{
    const struct
    {
        const char* name;
        std::string target;
        const char* path;
        const char* query;
    } rows[] = {
        {"root", "/", "/", ""},
        {"plain path", "/a/b", "/a/b", ""},
        {"path and query", "/a/b?x=1&y=%20", "/a/b", "x=1&y=%20"},
        {"encoded path stays encoded in the text", "/a%20b", "/a b", ""},
        {"query only", "?x=1", "", "x=1"},
        {"a second slash", "//a", "//a", ""},
        {"UTF-8, percent-encoded", "/%C3%A4", "/\xC3\xA4", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestRequest request;
        request.setOriginalFullUrl(std::string(row.target));
        EXPECT_EQ(request.getOriginalFullUrl(), row.target);
        EXPECT_TRUE(request.getUrl().isValid());
        EXPECT_EQ(request.getUrl().path(), row.path);
        EXPECT_EQ(request.getUrl().query(), row.query);
        EXPECT_FALSE(request.hasParseError()) << request.getParseError();
    }
}

TEST(RequestTarget, IsParsedAgainstTheFixedBaseWhateverTheHostHeaderSays)
{
    TestRequest request;
    request.addHeader("Host", "www.example.org:8080");
    request.setOriginalFullUrl("/x");
    EXPECT_EQ(request.getUrl().scheme(), "http");
    EXPECT_EQ(request.getUrl().host(), "127.0.0.1");
    EXPECT_EQ(request.getUrl().port(), 80);
}

TEST(RequestTarget, IsTakenUpTo4096Bytes)
{
    const struct
    {
        const char* name;
        std::string target;
        bool taken;
    } rows[] = {
        {"path of 4095", "/" + std::string(4094, 'a'), true},
        {"path of 4096", "/" + std::string(4095, 'a'), true},
        {"path of 4097", "/" + std::string(4096, 'a'), false},
        {"path and query of 4096", "/p?" + std::string(4093, 'q'), true},
        {"path and query of 4097", "/p?" + std::string(4094, 'q'), false},
        {"very long", "/" + std::string(1000000, 'a'), false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestRequest request;
        request.setOriginalFullUrl(std::string(row.target));
        EXPECT_EQ(request.getUrl().isValid(), row.taken);
        EXPECT_EQ(request.getOriginalFullUrl(), row.taken ? row.target : "Invalid URI");
        EXPECT_EQ(request.hasParseError(), !row.taken);
        EXPECT_EQ(request.getParseError(), row.taken ? "" : "URI is too long");
    }
}

TEST(RequestTarget, IsRefusedForItsLengthBeforeItIsParsed)
{
    TestRequest request;
    request.setOriginalFullUrl("not a target%zz" + std::string(4096, 'a'));
    EXPECT_EQ(request.getParseError(), "URI is too long");
}

TEST(RequestTarget, TooLongLeavesTheParsedUrlUntouched)
{
    TestRequest request;
    request.setOriginalFullUrl("/first");
    request.setOriginalFullUrl("/" + std::string(4096, 'a'));
    EXPECT_TRUE(request.getUrl().isValid());
    EXPECT_EQ(request.getUrl().path(), "/first");
    EXPECT_EQ(request.getOriginalFullUrl(), "Invalid URI");
}

TEST(RequestTarget, ThatDoesNotParseIsReplacedAndTheParsersTextReported)
{
    const std::string followed =
        "port followed by something else than '/', '?', '#' or the end at byte 1";
    const struct
    {
        const char* name;
        std::string target;
        std::string reason;
    } rows[] = {
        {"no slash: glued to the port", "a/b", followed},
        {"asterisk form", "*", followed},
        {"absolute form", "http://www.example.org/x", followed},
        {"digits that make the port too large", "123", "port above 65535 at byte 1"},
        {"a space", "/a b", "space at byte 3"},
        {"a control character", "/a\x01", "control character at byte 3"},
        {"a NUL", std::string("/a\0b", 4), "control character at byte 3"},
        {"a percent sign alone", "/%", "'%' not followed by two hexadecimal digits at byte 2"},
        {"a percent sign and no digits", "/%zz",
         "'%' not followed by two hexadecimal digits at byte 2"},
        {"percent-encoded bytes that are not UTF-8", "/%FF",
         "percent-encoded bytes that are not UTF-8 at byte 2"},
        {"raw bytes that are not UTF-8", "/\xFF", "bytes that are not UTF-8 at byte 2"},
        {"an encoded NUL in the path", "/a%00b?q",
         "percent-encoded control character in the path at byte 3"},
        {"an encoded line end in the path", "/a%0Ab",
         "percent-encoded control character in the path at byte 3"},
        {"an encoded NUL in the query", "/?q=abc%00def",
         "percent-encoded control character in the query at byte 8"},
        {"an encoded DEL in the query", "/?%7f",
         "percent-encoded control character in the query at byte 3"},
        {"an at sign and no host", "@", "no host at byte 1"},
        {"an at sign before the path", "@/x", "no host at byte 1"},
        {"an at sign before the query", "@?q", "no host at byte 1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestRequest request;
        request.setOriginalFullUrl("/earlier?q#f");
        request.setOriginalFullUrl(std::string(row.target));
        ExpectRefused(request, row.reason);
    }
}

TEST(RequestTarget, MayHaveEncodedLinesInItsQuery)
{
    TestRequest request;
    request.setOriginalFullUrl("/?text=a%09b%0D%0Ac");
    EXPECT_FALSE(request.hasParseError()) << request.getParseError();
    EXPECT_EQ(request.getUrl().query(), "text=a%09b%0D%0Ac");
}

TEST(RequestTarget, RequiredDigitsWithoutSlashBecomePartOfThePort)
{
    TestRequest request;
    request.setOriginalFullUrl("81/x");
    EXPECT_FALSE(request.hasParseError()) << request.getParseError();
    EXPECT_EQ(request.getUrl().port(), 8081);
    EXPECT_EQ(request.getOriginalFullUrl(), "81/x");
}

// The base becomes user information, the text behind the at sign becomes the host.
TEST(RequestTarget, RequiredAtSignMakesTheHostWhatTheClientSays)
{
    TestRequest request;
    request.setOriginalFullUrl("@www.example.org:8080/x");
    EXPECT_FALSE(request.hasParseError()) << request.getParseError();
    EXPECT_EQ(request.getUrl().host(), "www.example.org");
    EXPECT_EQ(request.getUrl().port(), 8080);
    EXPECT_EQ(request.getUrl().path(), "/x");
    EXPECT_EQ(request.getOriginalFullUrl(), "@www.example.org:8080/x");
}

TEST(RequestTarget, EmptyTargetGivesTheBaseAlone)
{
    TestRequest request;
    request.setOriginalFullUrl("");
    EXPECT_FALSE(request.hasParseError()) << request.getParseError();
    EXPECT_TRUE(request.getUrl().isValid());
    EXPECT_EQ(request.getOriginalFullUrl(), "");
}

TEST(RequestTarget, ErrorsLeaveAnEarlierParseErrorInPlaceButStillMarkTheTarget)
{
    for (const std::string& target : {"/" + std::string(4096, 'a'), std::string("/%zz")}) {
        TestRequest request;
        request.setHttpMethod("BREW");
        request.setOriginalFullUrl(std::string(target));
        EXPECT_EQ(request.getOriginalFullUrl(), "Invalid URI");
        EXPECT_EQ(request.getParseError(), "Unexpected HTTP method");
    }
}

TEST(RequestTarget, TakesTheTextWithoutCopyingIt)
{
    std::string target = "/" + std::string(1000, 'a');
    const char* const bytes = target.data();
    TestRequest request;
    request.setOriginalFullUrl(std::move(target));
    EXPECT_EQ(request.getOriginalFullUrl().data(), bytes);
}

}  // namespace
}  // namespace qv::tests
