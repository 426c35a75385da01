// Headers, cookies and query parameters: the checks in their order, the error texts, the stored
// values and the counters.

#include "support/TestRequest.h"

#include <gmock/gmock.h>

#include <functional>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

namespace qv::tests
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pointee;
using ::testing::SizeIs;

using Adder = void (HttpBaseRequest::*)(const char*, const char*);

struct Pair
{
    const char* name;  // of the row
    std::string key;
    std::string value;
    const char* error;  // empty: accepted
};

// Adds each pair to a request of its own and compares error text and counted bytes.
void CheckRows(Adder add, const std::vector<Pair>& rows, uint64_t extraBytes)
{
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestRequest request;
        (request.*add)(row.key.c_str(), row.value.c_str());
        const bool accepted = *row.error == '\0';
        EXPECT_EQ(request.getParseError(), row.error);
        EXPECT_EQ(request.hasParseError(), !accepted);
        EXPECT_EQ(request.getRequestHeadBytes(),
                  accepted && extraBytes != 0 ? row.key.size() + row.value.size() + extraBytes : 0);
        EXPECT_EQ(request.getHeaders().size() + request.getCookies().size() +
                      request.getQueryParameters().size(),
                  accepted ? 1u : 0u);
    }
}

std::string TextOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const std::logic_error& error) {
        return error.what();
    }
    return "nothing thrown";
}

// Texts that are not UTF-8.
const struct
{
    const char* name;
    const char* bytes;
} kNotUtf8[] = {
    {"overlong NUL", "\xC0\x80"},           {"surrogate", "\xED\xA0\x80"},
    {"above U+10FFFF", "\xF4\x90\x80\x80"}, {"cut off", "a\xE2\x82"},
    {"stray continuation", "a\x80z"},       {"Latin-1", "caf\xE9"},
};

constexpr uint64_t kHeaderExtra = 3;
constexpr uint64_t kCookieExtra = 11;
constexpr uint64_t kQueryExtra = 0;

TEST(ValueIntake, HeaderIsStoredUnderItsLowerCaseName)
{
    TestRequest request;
    request.addHeader("X-Trace-Id", "AbC");
    EXPECT_THAT(request.getHeader("x-trace-id"), Pointee(ElementsAre("AbC")));
    EXPECT_EQ(request.getHeader("X-Trace-Id"), nullptr);
    EXPECT_FALSE(request.hasParseError());
}

TEST(ValueIntake, HeaderNameIsFoldedInItsAsciiLettersOnly)
{
    TestRequest request;
    request.addHeader("@AMZ[`amz{0-9_\xC3\x84", "1");
    EXPECT_THAT(request.getHeader("@amz[`amz{0-9_\xC3\x84"), Pointee(ElementsAre("1")));
}

TEST(ValueIntake, HeaderValueIsSplitAtItsCommas)
{
    TestRequest request;
    request.addHeader("Accept", "text/html, text/plain;q=0.5 ,*/*");
    EXPECT_THAT(request.getHeader("accept"),
                Pointee(ElementsAre("text/html", "text/plain;q=0.5", "*/*")));
    EXPECT_EQ(request.getRequestHeadBytes(), 6 + 32 + kHeaderExtra);
}

TEST(ValueIntake, HeaderOfCommasOnlyHasOneEmptyValue)
{
    TestRequest request;
    request.addHeader("Range", ",");
    request.addHeader("X-Spaces", " , ,");
    EXPECT_FALSE(request.hasParseError()) << request.getParseError();
    EXPECT_THAT(request.getHeader("range"), Pointee(ElementsAre("")));
    EXPECT_THAT(request.getHeader("x-spaces"), Pointee(ElementsAre("")));
    EXPECT_EQ(request.getRequestHeadBytes(), (5 + 1 + 3) + (8 + 4 + 3));
}

TEST(ValueIntake, HeaderWithAnUnterminatedQuoteIsText)
{
    const struct
    {
        const char* name;
        const char* value;
        std::list<std::string> values;
    } rows[] = {
        {"Cookie", "theme=\"dark", {"theme=\"dark"}},
        {"X-Title", "5\" disk", {"5\" disk"}},
        {"User-Agent", "x \"y", {"x \"y"}},
        {"Accept", "a \"b, c", {"a \"b", "c"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TestRequest request;
        request.addHeader(row.name, row.value);
        EXPECT_FALSE(request.hasParseError()) << request.getParseError();
        ASSERT_EQ(request.getHeaders().size(), 1u);
        EXPECT_EQ(request.getHeaders().begin()->second, row.values);
    }
}

TEST(ValueIntake, WholeLineOfAHeaderIsKeptBesideItsValues)
{
    TestRequest request;
    request.addHeader("Referer", "https://maps.example/@48.1,11.5,15z");
    request.addHeader("Host", "www.example.org");
    request.addHeader("X-Twice", "a,b");
    request.addHeader("x-twice", "c");
    EXPECT_THAT(request.getHeader("referer"),
                Pointee(ElementsAre("https://maps.example/@48.1", "11.5", "15z")));
    EXPECT_THAT(request.getHeaders().findLine("referer"),
                Pointee(std::string("https://maps.example/@48.1,11.5,15z")));
    EXPECT_EQ(request.getHeaders().findLine("host"), &request.getHeader("host")->front());
    EXPECT_THAT(request.getHeaders().findLine("x-twice"), Pointee(std::string("a,b, c")));
    EXPECT_EQ(request.getHeaders().findLine("x-other"), nullptr);
}

TEST(ValueIntake, RepeatedHeaderAppendsItsValuesInWhateverCaseItComes)
{
    TestRequest request;
    request.addHeader("Accept", "a, b");
    request.addHeader("ACCEPT", "c");
    request.addHeader("accept", "a");
    EXPECT_THAT(request.getHeader("accept"), Pointee(ElementsAre("a", "b", "c", "a")));
    EXPECT_EQ(request.getHeaders().size(), 1u);
    EXPECT_EQ(request.getRequestHeadBytes(), (6 + 4 + 3) + (6 + 1 + 3) + (6 + 1 + 3));
}

TEST(ValueIntake, EmptyHeaderNameAndEmptyHeaderValueAreAccepted)
{
    TestRequest request;
    request.addHeader("", "x");
    request.addHeader("empty", "");
    EXPECT_FALSE(request.hasParseError()) << request.getParseError();
    EXPECT_THAT(request.getHeader(""), Pointee(ElementsAre("x")));
    EXPECT_THAT(request.getHeader("empty"), Pointee(ElementsAre("")));
    EXPECT_EQ(request.getRequestHeadBytes(), (0 + 1 + 3) + (5 + 0 + 3));
}

TEST(ValueIntake, HeaderChecksAndTheirOrder)
{
    const std::string a = "a";
    const std::string controlValue = "\x01";
    std::vector<Pair> rows = {
        {"plain", "host", "x", ""},
        {"8095 bytes", "x", std::string(8094, 'v'), ""},
        {"8096 bytes in the value", "x", std::string(8095, 'v'), ""},
        {"8096 bytes in the name", std::string(8096, 'n'), "", ""},
        {"8096 bytes in both", std::string(4048, 'n'), std::string(4048, 'v'), ""},
        {"8097 bytes in the value", "x", std::string(8096, 'v'), "header too long"},
        {"8097 bytes in the name", std::string(8097, 'n'), "", "header too long"},
        {"8097 bytes in both", std::string(4048, 'n'), std::string(4049, 'v'), "header too long"},
        {"much too long", "x", std::string(1000000, 'v'), "header too long"},
        {"length before UTF-8 of the name", "\xFF", std::string(8096, 'v'), "header too long"},
        {"length before control characters", "\x01", std::string(8096, 'v'), "header too long"},
        {"length before the value", "x", controlValue + std::string(8095, 'v'), "header too long"},
        {"UTF-8 before control characters", "\x01\xFF", "x", "header name is non utf8"},
        {"UTF-8 of the name before the value", "\xFF", controlValue, "header name is non utf8"},
        {"control character in the name", "a\tb", "x",
         "header name contains ASCII forbidden characters"},
        {"DEL in the name", "a\x7F", "x", "header name contains ASCII forbidden characters"},
        {"name before value", "A\x1F", controlValue,
         "header name contains ASCII forbidden characters"},
        {"name in UTF-8", "\xC3\xA4", "x", ""},
        {"name with space and punctuation", " ,;=\"", "x", ""},
        {"value that does not parse: control character", "X-Trace-Id", controlValue,
         "fail to parse header 'x-trace-id'"},
        {"value that does not parse, in quotes", "ACCEPT", "\"a\x7F\"",
         "fail to parse header 'accept'"},
        {"value that does not parse, empty name", "", controlValue, "fail to parse header ''"},
    };
    CheckRows(&HttpBaseRequest::addHeader, rows, kHeaderExtra);
}

TEST(ValueIntake, HeaderNameOfEachKindThatIsNotUtf8IsRefused)
{
    for (const auto& row : kNotUtf8)
        CheckRows(&HttpBaseRequest::addHeader,
                  {{row.name, row.bytes, "x", "header name is non utf8"}}, kHeaderExtra);
}

TEST(ValueIntake, RequiredHeaderValueNeedsNotBeUtf8)
{
    for (const auto& row : kNotUtf8) {
        SCOPED_TRACE(row.name);
        TestRequest request;
        request.addHeader("X-Name", row.bytes);
        EXPECT_FALSE(request.hasParseError()) << request.getParseError();
        EXPECT_THAT(request.getHeader("x-name"), Pointee(ElementsAre(row.bytes)));
    }
}

TEST(ValueIntake, CookieIsStoredUnderItsExactNameWithItsExactValue)
{
    TestRequest request;
    request.addCookie("Id", "a, b; c=\"d\"");
    EXPECT_THAT(request.getCookie("Id"), Pointee(ElementsAre("a, b; c=\"d\"")));
    EXPECT_EQ(request.getCookie("id"), nullptr);
}

TEST(ValueIntake, RepeatedCookieAppendsItsValue)
{
    TestRequest request;
    request.addCookie("a", "1");
    request.addCookie("b", "x");
    request.addCookie("a", "2");
    request.addCookie("a", "1");
    EXPECT_THAT(request.getCookie("a"), Pointee(ElementsAre("1", "2", "1")));
    EXPECT_THAT(request.getCookies(), SizeIs(2));
    EXPECT_EQ(request.getRequestHeadBytes(), 4 * (1 + 1 + kCookieExtra));
}

TEST(ValueIntake, CookieWithoutValueIsStoredAsEmpty)
{
    TestRequest request;
    request.addCookie("a", nullptr);
    request.addCookie("", "");
    EXPECT_FALSE(request.hasParseError());
    EXPECT_THAT(request.getCookie("a"), Pointee(ElementsAre("")));
    EXPECT_THAT(request.getCookie(""), Pointee(ElementsAre("")));
    EXPECT_EQ(request.getRequestHeadBytes(), (1 + 0 + 11) + (0 + 0 + 11));
}

TEST(ValueIntake, CookieChecksAndTheirOrder)
{
    const std::string tooMuch(8096, 'v');
    std::vector<Pair> rows = {
        {"plain", "a", "1", ""},
        {"8096 bytes in the value", "x", std::string(8095, 'v'), ""},
        {"8096 bytes in the name", std::string(8096, 'n'), "", ""},
        {"8096 bytes in both", std::string(4048, 'n'), std::string(4048, 'v'), ""},
        {"8097 bytes in the value", "x", tooMuch, "cookie too long"},
        {"8097 bytes in the name", std::string(8097, 'n'), "", "cookie too long"},
        {"8097 bytes in both", std::string(4049, 'n'), std::string(4048, 'v'), "cookie too long"},
        {"length before UTF-8 of the name", "\xFF", tooMuch, "cookie too long"},
        {"length before the value", "x", "\xFF" + tooMuch, "cookie too long"},
        {"UTF-8 of the name before its characters", "\x01\xFF", "x", "cookie name is non utf8"},
        {"UTF-8 of the name before the value", "\xFF", "\xFF", "cookie name is non utf8"},
        {"control character in the name", "a\nb", "x",
         "cookie name contains ASCII forbidden characters"},
        {"characters of the name before UTF-8 of the value", "\x7F", "\xFF",
         "cookie name contains ASCII forbidden characters"},
        {"value is not UTF-8", "a", "\xED\xA0\x80", "cookie data is non utf8"},
        {"UTF-8 of the value before its characters", "a", "\x01\xFF", "cookie data is non utf8"},
        {"control character in the value", "a", "x\x01",
         "cookie data contains ASCII forbidden characters"},
        {"tab in the value", "a", "x\ty", "cookie data contains ASCII forbidden characters"},
        {"DEL in the value", "a", "\x7F", "cookie data contains ASCII forbidden characters"},
        {"UTF-8 in name and value", "\xC3\xA4", "\xE2\x82\xAC", ""},
    };
    CheckRows(&HttpBaseRequest::addCookie, rows, kCookieExtra);
    for (const auto& row : kNotUtf8) {
        CheckRows(&HttpBaseRequest::addCookie,
                  {{row.name, row.bytes, "x", "cookie name is non utf8"},
                   {row.name, "x", row.bytes, "cookie data is non utf8"}},
                  kCookieExtra);
    }
}

TEST(ValueIntake, QueryParameterIsStoredUnderItsExactNameAndNotCounted)
{
    TestRequest request;
    request.addQueryParameter("Page", "1,2");
    request.addQueryParameter("Page", "3");
    request.addQueryParameter("page", "4");
    EXPECT_THAT(request.getQueryParameter("Page"), Pointee(ElementsAre("1,2", "3")));
    EXPECT_THAT(request.getQueryParameter("page"), Pointee(ElementsAre("4")));
    EXPECT_EQ(request.getRequestHeadBytes(), 0u);
}

TEST(ValueIntake, QueryParameterWithoutValueIsStoredAsEmpty)
{
    TestRequest request;
    request.addQueryParameter("flag", nullptr);
    request.addQueryParameter("", nullptr);
    EXPECT_FALSE(request.hasParseError());
    EXPECT_THAT(request.getQueryParameter("flag"), Pointee(ElementsAre("")));
    EXPECT_THAT(request.getQueryParameter(""), Pointee(ElementsAre("")));
}

TEST(ValueIntake, QueryParameterChecksAndTheirOrder)
{
    std::vector<Pair> rows = {
        {"plain", "a", "1", ""},
        {"RequiredNoLimit in the value", "x", std::string(100000, 'v'), ""},
        {"RequiredNoLimit in the name", std::string(100000, 'n'), "", ""},
        {"UTF-8 of the name before its characters", "\x01\xFF", "x",
         "query parameter name is non utf8"},
        {"UTF-8 of the name before the value", "\xFF", "\xFF", "query parameter name is non utf8"},
        {"control character in the name", "a\rb", "x",
         "query parameter name contains ASCII forbidden characters"},
        {"characters of the name before UTF-8 of the value", "\x7F", "\xFF",
         "query parameter name contains ASCII forbidden characters"},
        {"value is not UTF-8", "a", "\xF4\x90\x80\x80", "query parameter value is non utf8"},
        {"UTF-8 of the value before its characters", "a", "\x01\xFF",
         "query parameter value is non utf8"},
        {"control character in the value", "a", "x\ny",
         "query parameter value contains ASCII forbidden characters"},
        {"DEL in the value", "a", "\x7F",
         "query parameter value contains ASCII forbidden characters"},
        {"UTF-8 in name and value", "\xC3\xA4", "\xE2\x82\xAC", ""},
    };
    CheckRows(&HttpBaseRequest::addQueryParameter, rows, kQueryExtra);
    for (const auto& row : kNotUtf8) {
        CheckRows(&HttpBaseRequest::addQueryParameter,
                  {{row.name, row.bytes, "x", "query parameter name is non utf8"},
                   {row.name, "x", row.bytes, "query parameter value is non utf8"}},
                  kQueryExtra);
    }
}

TEST(ValueIntake, EachControlCharacterIsRefusedWhereverItIsForbidden)
{
    for (int byte = 1; byte < 128; ++byte) {
        SCOPED_TRACE(byte);
        const bool forbidden = byte < 0x20 || byte == 0x7F;
        const std::string text = std::string("a") + static_cast<char>(byte) + "b";
        const auto error = [forbidden](const char* message) { return forbidden ? message : ""; };
        CheckRows(
            &HttpBaseRequest::addHeader,
            {{"header name", text, "x", error("header name contains ASCII forbidden characters")}},
            kHeaderExtra);
        CheckRows(
            &HttpBaseRequest::addCookie,
            {{"cookie name", text, "x", error("cookie name contains ASCII forbidden characters")},
             {"cookie data", "x", text, error("cookie data contains ASCII forbidden characters")}},
            kCookieExtra);
        CheckRows(&HttpBaseRequest::addQueryParameter,
                  {{"query parameter name", text, "x",
                    error("query parameter name contains ASCII forbidden characters")},
                   {"query parameter value", "x", text,
                    error("query parameter value contains ASCII forbidden characters")}},
                  kQueryExtra);
    }
}

TEST(ValueIntake, NullNameThrows)
{
    TestRequest request;
    const char* const expected = "basic_string: construction from null is not valid";
    EXPECT_EQ(TextOf([&] { request.addHeader(nullptr, "x"); }), expected);
    EXPECT_EQ(TextOf([&] { request.addCookie(nullptr, "x"); }), expected);
    EXPECT_EQ(TextOf([&] { request.addCookie(nullptr, nullptr); }), expected);
    EXPECT_EQ(TextOf([&] { request.addQueryParameter(nullptr, "x"); }), expected);
    EXPECT_FALSE(request.hasParseError());
    EXPECT_EQ(request.getRequestHeadBytes(), 0u);
}

TEST(ValueIntake, FirstErrorIsKeptAndGoodPairsAreStillStored)
{
    TestRequest request;
    request.addCookie("a", std::string(8096, 'v').c_str());
    request.addHeader("Host", "x");
    request.addHeader("\xFF", "x");
    request.addCookie("b", "1");
    request.addQueryParameter("c", "\xFF");
    request.addQueryParameter("d", "2");
    EXPECT_EQ(request.getParseError(), "cookie too long");
    EXPECT_THAT(request.getHeader("host"), Pointee(ElementsAre("x")));
    EXPECT_EQ(request.getHeaders().size(), 1u);
    EXPECT_THAT(request.getCookies(), SizeIs(1));
    EXPECT_THAT(request.getCookie("b"), Pointee(ElementsAre("1")));
    EXPECT_THAT(request.getQueryParameters(), SizeIs(1));
    EXPECT_THAT(request.getQueryParameter("d"), Pointee(ElementsAre("2")));
    EXPECT_EQ(request.getRequestHeadBytes(), 8u + 13u);
}

TEST(ValueIntake, FailedPairLeavesEarlierValuesOfItsNameAlone)
{
    TestRequest request;
    request.addHeader("h", "1");
    request.addHeader("H", "2, \x01");
    request.addCookie("c", "1");
    request.addCookie("c", "\xFF");
    request.addQueryParameter("q", "1");
    request.addQueryParameter("q", "\x01");
    EXPECT_THAT(request.getHeader("h"), Pointee(ElementsAre("1")));
    EXPECT_THAT(request.getHeaders().findLine("h"), Pointee(std::string("1")));
    EXPECT_THAT(request.getCookie("c"), Pointee(ElementsAre("1")));
    EXPECT_THAT(request.getQueryParameter("q"), Pointee(ElementsAre("1")));
    EXPECT_EQ(request.getParseError(), "fail to parse header 'h'");
}

TEST(ValueIntake, HeadBytesOfOneHeaderAndOneCookie)
{
    TestRequest request;
    request.addHeader("host", "x");
    EXPECT_EQ(request.getRequestHeadBytes(), 8u);
    request.addCookie("a", "1");
    EXPECT_EQ(request.getRequestHeadBytes(), 21u);
}

TEST(ValueIntake, ContainersStartEmptyAndAreSeparate)
{
    TestRequest request;
    request.addCookie("x", "1");
    EXPECT_EQ(request.getHeader("x"), nullptr);
    EXPECT_THAT(request.getQueryParameters(), IsEmpty());
    request.addQueryParameter("y", "1");
    EXPECT_EQ(request.getCookie("y"), nullptr);
}

}  // namespace
}  // namespace qv::tests
