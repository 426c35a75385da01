// How header values fall into parts, and the collection that holds them.

#include <Ostrand/HttpHeaders.h>

#include <gmock/gmock.h>

#include <iterator>
#include <list>
#include <string>
#include <utility>
#include <vector>

namespace qv::tests
{
namespace
{

using http::HttpHeaders;
using ::testing::ElementsAre;
using ::testing::Pair;
using ::testing::Pointee;

using Values = std::list<std::string>;

TEST(HttpHeaders, SplitsAtCommas)
{
    const struct
    {
        const char* name;
        const char* value;
        Values parts;
    } rows[] = {
        {"one value", "close", {"close"}},
        {"two values", "gzip,br", {"gzip", "br"}},
        {"spaces and tabs around", " \t gzip \t,\t br ", {"gzip", "br"}},
        {"spaces inside stay", "a  b, c\td", {"a  b", "c\td"}},
        {"empty parts dropped", ",a,,b, ,\t,", {"a", "b"}},
        {"a comma alone", ",", {""}},
        {"nothing but commas", " , ,", {""}},
        {"empty value", "", {""}},
        {"value of spaces only", " \t ", {""}},
        {"parameters", "text/html;q=0.8, */*;q=0.1", {"text/html;q=0.8", "*/*;q=0.1"}},
        {"order and duplicates kept", "b,a,b", {"b", "a", "b"}},
        {"bytes from 0x80 up", "\xC3\xA4,\x80\xFF", {"\xC3\xA4", "\x80\xFF"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Values values;
        EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader(row.value, values));
        EXPECT_EQ(values, row.parts);
    }
}

TEST(HttpHeaders, DoesNotSplitInsideQuotes)
{
    const struct
    {
        const char* name;
        const char* value;
        Values parts;
    } rows[] = {
        {"entity tags", "\"a,b\", W/\"c,d\"", {"\"a,b\"", "W/\"c,d\""}},
        {"quote inside a value", "a=\"1,2\";b, c", {"a=\"1,2\";b", "c"}},
        {"escaped quote", "\"a\\\",b\",c", {"\"a\\\",b\"", "c"}},
        {"escaped backslash before the closing quote", "\"a\\\\\",b", {"\"a\\\\\"", "b"}},
        {"escaped comma", "\"a\\,b\",c", {"\"a\\,b\"", "c"}},
        {"parentheses in quotes are text", "\"(\",b,\")\"", {"\"(\"", "b", "\")\""}},
        {"empty quotes", "\"\",b", {"\"\"", "b"}},
        {"backslash outside is text", "a\\,b", {"a\\", "b"}},
        {"spaces inside the quotes stay", "\" a , b \"", {"\" a , b \""}},
        {"weekday in quotes", "\"Sun, 06\",b", {"\"Sun, 06\"", "b"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Values values;
        EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader(row.value, values));
        EXPECT_EQ(values, row.parts);
    }
}

TEST(HttpHeaders, DoesNotSplitInsideComments)
{
    const struct
    {
        const char* name;
        const char* value;
        Values parts;
    } rows[] = {
        {"comment", "a (b, c), d", {"a (b, c)", "d"}},
        {"nested comment", "a (b (c, d), e), f", {"a (b (c, d), e)", "f"}},
        {"quote in a comment is text", "a (it\"s, b), c", {"a (it\"s, b)", "c"}},
        {"escaped end of comment", "a (b\\), c), d", {"a (b\\), c)", "d"}},
        {"end of comment alone is text", "a), b", {"a)", "b"}},
        {"comment without end", "a (b, c", {"a (b, c"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Values values;
        EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader(row.value, values));
        EXPECT_EQ(values, row.parts);
    }
}

TEST(HttpHeaders, LeavesTheUserAgentOfABrowserWhole)
{
    const char* const agents[] = {
        "Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) "
        "Chrome/120.0.0.0 Safari/537.36",
        "Mozilla/5.0 (X11; Linux x86_64; rv:115.0) Gecko/20100101 Firefox/115.0",
    };
    for (const char* const agent : agents) {
        Values values;
        EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader(agent, values));
        EXPECT_THAT(values, ElementsAre(agent));
    }
}

TEST(HttpHeaders, LeavesDatesWhole)
{
    const struct
    {
        const char* name;
        const char* value;
        Values parts;
    } rows[] = {
        {"current form", "Sun, 06 Nov 1994 08:49:37 GMT", {"Sun, 06 Nov 1994 08:49:37 GMT"}},
        {"old form", "Sunday, 06-Nov-94 08:49:37 GMT", {"Sunday, 06-Nov-94 08:49:37 GMT"}},
        {"form of C", "Sun Nov  6 08:49:37 1994", {"Sun Nov  6 08:49:37 1994"}},
        {"no space after the comma", "Mon,06 Nov 1994", {"Mon,06 Nov 1994"}},
        {"two dates", "Mon, 1 x, Tue, 2 y", {"Mon, 1 x", "Tue, 2 y"}},
        {"date after another value", "a, Wed, 3 x", {"a", "Wed, 3 x"}},
        {"a list of weekdays is no date", "Mon, Tue,Sunday", {"Mon", "Tue", "Sunday"}},
        {"nor is a number alone", "10, 20", {"10", "20"}},
        {"a longer word is no weekday", "Sunny, 1", {"Sunny", "1"}},
        {"nor is another case", "sun, 1", {"sun", "1"}},
        {"nor is a weekday after something", "x Sun, 1", {"x Sun", "1"}},
        {"weekday at the end", "Sun,", {"Sun"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Values values;
        EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader(row.value, values));
        EXPECT_EQ(values, row.parts);
    }
    for (const std::string day :
         {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun", "Monday", "Tuesday", "Wednesday",
          "Thursday", "Friday", "Saturday", "Sunday"}) {
        Values values;
        EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader((day + ", 06 x").c_str(), values));
        EXPECT_THAT(values, ElementsAre(day + ", 06 x"));
    }
}

TEST(HttpHeaders, TakesAnUnterminatedQuoteAsText)
{
    const struct
    {
        const char* name;
        const char* value;
        Values parts;
    } rows[] = {
        {"a quote alone", "\"", {"\""}},
        {"at the beginning of a value", "\"open", {"\"open"}},
        {"a cookie", "theme=\"dark", {"theme=\"dark"}},
        {"inches", "5\" disk", {"5\" disk"}},
        {"a browser", "x \"y", {"x \"y"}},
        {"a comma behind it splits", "a \"b, c", {"a \"b", "c"}},
        {"several commas behind it", "\"a,b,,c", {"\"a", "b", "c"}},
        {"behind a quoted string", "\"a,b\"\", c", {"\"a,b\"\"", "c"}},
        {"behind a quoted string and a comma", "\"a,b\", c\", d", {"\"a,b\"", "c\"", "d"}},
        {"escaped quote does not end it", "\"a\\\", b", {"\"a\\\"", "b"}},
        {"two escaped quotes do not", "\"a\\\", \\\"b", {"\"a\\\"", "\\\"b"}},
        {"backslash at the end", "\"a, b\\", {"\"a", "b\\"}},
        {"two backslashes let it end", "\"a\\\\\", b", {"\"a\\\\\"", "b"}},
        {"three do not", "\"a\\\\\\\", b", {"\"a\\\\\\\"", "b"}},
        {"text before a comment", "5\" (a, b), c", {"5\" (a, b)", "c"}},
        {"text behind a comment", "a (b, \"c) 5\", d", {"a (b, \"c) 5\"", "d"}},
        {"a date behind it", "\"a, Mon, 1 x, b", {"\"a", "Mon, 1 x", "b"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Values values{"before"};
        EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader(row.value, values));
        Values expected{"before"};
        expected.insert(expected.end(), row.parts.begin(), row.parts.end());
        EXPECT_EQ(values, expected);
    }
}

// A splitter that looks ahead to the end at each comma, or at each quote, needs more than the time
// limit of the test for these: hours.
TEST(HttpHeaders, SplitsALongValueInLinearTime)
{
    const auto repeated = [](const std::string& text, size_t times) {
        std::string all;
        for (size_t i = 0; i < times; ++i)
            all += text;
        return all;
    };
    constexpr size_t kTimes = 1u << 20;
    const struct
    {
        const char* name;
        std::string value;
        size_t parts;
    } rows[] = {
        {"weekdays and spaces", repeated("Mon,", kTimes) + std::string(4 * kTimes, ' '), kTimes},
        {"spaces and weekdays", repeated("Mon,  ", kTimes), kTimes},
        {"quotes that do not end", repeated("\"\\", kTimes) + ",", 1},
        {"escaped quotes and commas", "\"" + repeated(",\\\"", kTimes), kTimes + 1},
        {"comments that do not end", repeated("(\"", kTimes), 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Values values;
        EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader(row.value.c_str(), values));
        EXPECT_EQ(values.size(), row.parts);
    }
}

TEST(HttpHeaders, RefusesEveryControlCharacterButTab)
{
    for (int byte = 1; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        const bool taken = byte == '\t' || (byte >= 0x20 && byte != 0x7F);
        const std::string c(1, static_cast<char>(byte));
        const std::string rows[] = {"a, b" + c + "c", c + "a", "a" + c, "\"a" + c + "\"",
                                    "(a" + c + ")"};
        for (const auto& row : rows) {
            Values values{"before"};
            EXPECT_EQ(HttpHeaders::ParseMultiValueHeader(row.c_str(), values), taken) << row;
            if (!taken) {
                EXPECT_THAT(values, ElementsAre("before"));
            }
        }
    }
    Values values;
    EXPECT_FALSE(HttpHeaders::ParseMultiValueHeader("\"a\\\n\"", values)) << "escaped";
}

TEST(HttpHeaders, AppendsToTheValuesThatAreThere)
{
    Values values{"before"};
    EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader("a, b", values));
    EXPECT_THAT(values, ElementsAre("before", "a", "b"));
    EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader("", values));
    EXPECT_THAT(values, ElementsAre("before", "a", "b", ""));
    EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader("\t plain ", values));
    EXPECT_THAT(values, ElementsAre("before", "a", "b", "", "plain"));
}

TEST(HttpHeaders, CopiesOrTakesOverWhatIsAdded)
{
    HttpHeaders headers;
    const std::string name = "accept";
    const Values values = {"a", "b"};
    headers.addHeaderValues(name, values);
    EXPECT_THAT(values, ElementsAre("a", "b"));
    std::string taken = name;
    Values more = {"c", "d"};
    const char* const place = more.front().data();
    headers.addHeaderValues(std::move(taken), std::move(more));
    ASSERT_THAT(headers.find(name), Pointee(ElementsAre("a", "b", "c", "d")));
    EXPECT_EQ(std::next(headers.find(name)->begin(), 2)->data(), place);
    headers.addHeaderValues(name, values);
    EXPECT_THAT(headers.find(name), Pointee(ElementsAre("a", "b", "c", "d", "a", "b")));
}

TEST(HttpHeaders, GivesAtLeastOneValueWhereverALineIsCut)
{
    const std::string whole = " , a (b, \"c), \"d\\\"e,\", Sun, 06 Nov 1994, ";
    for (size_t size = 0; size <= whole.size(); ++size) {
        SCOPED_TRACE(whole.substr(0, size));
        Values values;
        EXPECT_TRUE(HttpHeaders::ParseMultiValueHeader(whole.substr(0, size).c_str(), values));
        EXPECT_FALSE(values.empty());
    }
}

TEST(HttpHeaders, KeepsNoNameWithoutAValue)
{
    HttpHeaders headers;
    headers.addHeaderValues("accept", {});
    EXPECT_EQ(headers.find("accept"), nullptr);
    EXPECT_EQ(headers.findLine("accept"), nullptr);
    EXPECT_TRUE(headers.empty());
    headers.addHeaderValues("accept", {"a"});
    headers.addHeaderValues("accept", {});
    EXPECT_THAT(headers.find("accept"), Pointee(ElementsAre("a")));
    EXPECT_THAT(headers.findLine("accept"), Pointee(std::string("a")));
}

// Adds the values of one header line, as the library does.
void AddLine(HttpHeaders& headers, const std::string& name, const std::string& line)
{
    Values values;
    ASSERT_TRUE(HttpHeaders::ParseMultiValueHeader(line.c_str(), values));
    headers.addHeaderValues(std::string(name), std::move(values), line);
}

TEST(HttpHeaders, GivesTheWholeLineAsItWasReceived)
{
    const char* const lines[] = {
        "close",
        "",
        " \t ",
        ",",
        " padded\t",
        "gzip,br",
        "gzip ,\t br,",
        "https://maps.example/@48.1,11.5,15z",
        "Sun, 06 Nov 1994 08:49:37 GMT",
        "\"a,b\", W/\"c,d\"",
        "theme=\"dark, a",
        "\xC3\xA4,\x80\xFF",
    };
    for (const char* const line : lines) {
        SCOPED_TRACE(line);
        HttpHeaders headers;
        AddLine(headers, "other", "x, y");
        AddLine(headers, "x-line", line);
        EXPECT_THAT(headers.findLine("x-line"), Pointee(std::string(line)));
        EXPECT_THAT(headers.findLine("other"), Pointee(std::string("x, y")));
        EXPECT_EQ(headers.findLine("X-Line"), nullptr);
    }
}

TEST(HttpHeaders, JoinsTheLinesOfARepeatedHeader)
{
    const struct
    {
        const char* name;
        std::vector<std::string> lines;
        const char* joined;
    } rows[] = {
        {"no commas", {"a", "b"}, "a, b"},
        {"commas in the first", {"a,b", "c"}, "a,b, c"},
        {"commas in the second", {"a", "b,c"}, "a, b,c"},
        {"commas in both, three lines", {"a,b", "c", " d,e "}, "a,b, c,  d,e "},
        {"an empty line", {"", "a"}, ", a"},
        {"the same twice", {"a", "a"}, "a, a"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        HttpHeaders headers;
        for (const std::string& line : row.lines)
            AddLine(headers, "x-line", line);
        EXPECT_THAT(headers.findLine("x-line"), Pointee(std::string(row.joined)));
    }
}

TEST(HttpHeaders, GivesValuesThatWereAddedWithoutALineAsOne)
{
    HttpHeaders headers;
    const std::string name = "accept";
    const Values more = {"d", "e"};
    headers.addHeaderValues("accept", {"a", "b"});
    headers.addHeaderValues("accept", {"c"});
    headers.addHeaderValues(name, more);
    EXPECT_THAT(headers.findLine("accept"), Pointee(std::string("a, b, c, d, e")));
}

TEST(HttpHeaders, KeepsNoLineBesideAValueThatIsTheLine)
{
    HttpHeaders headers;
    AddLine(headers, "user-agent", "Mozilla/5.0 (X11; Linux x86_64) (KHTML, like Gecko)");
    EXPECT_EQ(headers.findLine("user-agent"), &headers.find("user-agent")->front());
    HttpHeaders copy = headers;
    EXPECT_EQ(copy.findLine("user-agent"), &copy.find("user-agent")->front());
}

TEST(HttpHeaders, FindsValuesByTheExactName)
{
    HttpHeaders headers;
    EXPECT_TRUE(headers.empty());
    EXPECT_EQ(headers.size(), 0u);
    EXPECT_EQ(headers.find("accept"), nullptr);

    headers.addHeaderValues("accept", {"a", "b"});
    headers.addHeaderValues("accept", {"c"});
    headers.addHeaderValues("", {""});
    EXPECT_FALSE(headers.empty());
    EXPECT_EQ(headers.size(), 2u);
    ASSERT_NE(headers.find("accept"), nullptr);
    EXPECT_THAT(*headers.find("accept"), ElementsAre("a", "b", "c"));
    ASSERT_NE(headers.find(""), nullptr);
    EXPECT_THAT(*headers.find(""), ElementsAre(""));
    EXPECT_EQ(headers.find("Accept"), nullptr);
    EXPECT_EQ(headers.find("accep"), nullptr);
}

TEST(HttpHeaders, IsWalkedInTheOrderOfNames)
{
    HttpHeaders headers;
    headers.addHeaderValues("host", {"h"});
    headers.addHeaderValues("accept", {"2", "1"});
    headers.addHeaderValues("Z", {"z"});
    const std::vector<std::pair<std::string, Values>> walked(headers.begin(), headers.end());
    EXPECT_THAT(walked,
                ElementsAre(Pair("Z", ElementsAre("z")), Pair("accept", ElementsAre("2", "1")),
                            Pair("host", ElementsAre("h"))));
    const HttpHeaders none;
    EXPECT_EQ(none.begin(), none.end());
}

}  // namespace
}  // namespace qv::tests
