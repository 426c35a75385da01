#include <Wendrel/kit/HttpError.h>
#include <Wendrel/kit/Parameter.h>

#include <gtest/gtest.h>

#include <cfloat>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace qv::kit
{
namespace
{

using Kind = Parameter::Kind;

Parameter Of(const std::string& text)
{
    return {Kind::Query, "n", text};
}

// The text of the HttpError 400 that `action` throws.
std::string RefusalOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const HttpError& error) {
        EXPECT_EQ(error.status(), 400);
        return error.what();
    }
    return "accepted";
}

TEST(Parameter, IsItsText)
{
    const std::string text = "a b";
    const std::string& same = Of(text);
    EXPECT_EQ(&same, &text);
    const std::string copy(Of(text));
    const std::string assigned = Of(text);
    const std::string_view view = Of(text);
    EXPECT_EQ(copy + "|" + assigned + "|" + std::string(view), "a b|a b|a b");
    EXPECT_TRUE(Of(text) == "a b");
    EXPECT_FALSE(Of(text) == "a");
    EXPECT_TRUE(Of(text) != "a");
    EXPECT_FALSE(Of(text).empty());
    EXPECT_TRUE(Of(std::string()).empty());
    EXPECT_EQ("<" + Of(text) + ">", "<a b>");
    EXPECT_EQ(Of(text) + ">", "a b>");
    EXPECT_EQ(Of(text) + Of(text), "a ba b");
}

// A callback that runs later cannot hold a text of a request that has ended.
TEST(Parameter, IsNeitherCopiedNorKept)
{
    static_assert(!std::is_copy_constructible_v<Parameter>);
    static_assert(!std::is_move_constructible_v<Parameter>);
    static_assert(!std::is_convertible_v<Parameter&, const std::string&>);
    static_assert(std::is_convertible_v<Parameter, const std::string&>);
}

// It would have a value also where the request has none.
TEST(Parameter, IsNoOptionalText)
{
    static_assert(!std::is_convertible_v<Parameter, std::optional<std::string>>);
    static_assert(!std::is_convertible_v<Parameter, std::optional<std::string_view>>);
    static_assert(std::is_convertible_v<Parameter, std::string>);
    static_assert(std::is_convertible_v<Parameter, std::string_view>);
}

TEST(Parameter, IsAWholeNumber)
{
    const struct
    {
        const char* text;
        int64_t number;
    } rows[] = {
        {"0", 0},
        {"-0", 0},
        {"007", 7},
        {"-12", -12},
        {"9223372036854775807", INT64_MAX},
        {"-9223372036854775808", INT64_MIN},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(Of(row.text).asInt(), row.number);
        EXPECT_EQ(Of(row.text).asInt(5), row.number);
        EXPECT_EQ(Of(row.text).asInt(5, row.number, row.number), row.number);
    }
    EXPECT_EQ(Of("").asInt(5), 5);
    EXPECT_EQ(Of("").asInt(5, 10, 20), 5);
}

TEST(Parameter, RefusesTextsThatAreNoWholeNumber)
{
    for (const std::string text : {"a", "1a", "a1", " 1", "1 ", "+1", "-", "--1", "1.0", "1e3",
                                   "0x10", "1,000", "\xd9\xa1", "1\n"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(RefusalOf([&] { Of(text).asInt(5); }),
                  "the query parameter \"n\" is not a whole number: \"" + text + "\"");
    }
    const std::string withNul("1\0", 2);
    EXPECT_EQ(RefusalOf([&] { Of(withNul).asInt(); }),
              "the query parameter \"n\" is not a whole number: \"1");  // ends at the NUL
}

TEST(Parameter, RefusesNumbersOutOfRange)
{
    EXPECT_EQ(RefusalOf([] { Of("0").asInt(1, 1, 1000); }),
              "the query parameter \"n\" must be from 1 to 1000: \"0\"");
    EXPECT_EQ(RefusalOf([] { Of("1001").asInt(1, 1, 1000); }),
              "the query parameter \"n\" must be from 1 to 1000: \"1001\"");
    EXPECT_EQ(RefusalOf([] { Of("-1").asInt(std::nullopt, 0); }),
              "the query parameter \"n\" must be at least 0: \"-1\"");
    EXPECT_EQ(RefusalOf([] { Of("8").asInt(std::nullopt, INT64_MIN, 7); }),
              "the query parameter \"n\" must be at most 7: \"8\"");
    for (const std::string text :
         {"9223372036854775808", "-9223372036854775809", "99999999999999999999999999"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(RefusalOf([&] { Of(text).asInt(); }),
                  "the query parameter \"n\" must be from -9223372036854775808 to "
                  "9223372036854775807: \"" +
                      text + "\"");
    }
}

TEST(Parameter, NamesTheLimitThatANumberIsBeyond)
{
    const struct
    {
        const char* text;
        int64_t min;
        int64_t max;
        const char* range;
    } rows[] = {
        {"9223372036854775808", 1, INT64_MAX, "from 1 to 9223372036854775807"},
        {"-9223372036854775809", 1, INT64_MAX, "at least 1"},
        {"9223372036854775808", INT64_MIN, 7, "at most 7"},
        {"-9223372036854775809", INT64_MIN, 7, "from -9223372036854775808 to 7"},
        {"9223372036854775808", 1, 7, "from 1 to 7"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(RefusalOf([&] { Of(row.text).asInt(0, row.min, row.max); }),
                  std::string("the query parameter \"n\" must be ") + row.range + ": \"" +
                      row.text + "\"");
    }
    const std::string largest = "1.7976931348623157e+308";
    EXPECT_EQ(RefusalOf([] { Of("1e400").asDouble(0, 1); }),
              "the query parameter \"n\" must be from 1 to " + largest + ": \"1e400\"");
    EXPECT_EQ(RefusalOf([] { Of("-1e400").asDouble(0, 1); }),
              "the query parameter \"n\" must be at least 1: \"-1e400\"");
    EXPECT_EQ(RefusalOf([] { Of("1e400").asDouble(0, -DBL_MAX, 7); }),
              "the query parameter \"n\" must be at most 7: \"1e400\"");
    EXPECT_EQ(RefusalOf([] { Of("-1e400").asDouble(0, -DBL_MAX, 7); }),
              "the query parameter \"n\" must be from -" + largest + " to 7: \"-1e400\"");
}

TEST(Parameter, RoundsNumbersThatAreTooCloseToZero)
{
    for (const std::string text : {"1e-400", "-1e-400", ".5e-99999", "2.4e-324"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(Of(text).asDouble(), 0);
        EXPECT_EQ(Of(text).asDouble(1, 0, 1), 0);
    }
    EXPECT_EQ(Of("0." + std::string(400, '0') + "1").asDouble(), 0);
    EXPECT_EQ(Of("5e-324").asDouble(), DBL_TRUE_MIN);
    EXPECT_EQ(RefusalOf([] { Of("1e-400").asDouble(2, 1, 3); }),
              "the query parameter \"n\" must be from 1 to 3: \"1e-400\"");
}

TEST(Parameter, NamesThatWhichIsMissing)
{
    const struct
    {
        Kind kind;
        const char* text;
    } rows[] = {
        {Kind::Path, "the path parameter \"id\" is missing"},
        {Kind::Query, "the query parameter \"id\" is missing"},
        {Kind::Header, "the header \"id\" is missing"},
        {Kind::Cookie, "the cookie \"id\" is missing"},
        {Kind::FormField, "the form field \"id\" is missing"},
        {Kind::Element, "the element \"id\" is missing"},
    };
    const std::string empty;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const auto parameter = [&] { return Parameter(row.kind, "id", empty); };
        EXPECT_EQ(RefusalOf([&] { parameter().asInt(); }), row.text);
        EXPECT_EQ(RefusalOf([&] { parameter().asDouble(); }), row.text);
        EXPECT_EQ(RefusalOf([&] { parameter().asBool(); }), row.text);
        EXPECT_EQ(RefusalOf([&] { parameter().asText(); }), row.text);
        EXPECT_EQ(RefusalOf([&] { parameter().asOneOf({"a"}); }), row.text);
    }
}

TEST(Parameter, IsANumber)
{
    const struct
    {
        const char* text;
        double number;
    } rows[] = {
        {"0", 0}, {"-1.5", -1.5}, {"1e3", 1000}, {".5", 0.5}, {"2.", 2}, {"-1.5e-3", -0.0015},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(Of(row.text).asDouble(), row.number);
    }
    EXPECT_EQ(Of("").asDouble(2.5), 2.5);
    EXPECT_EQ(Of("1").asDouble(0, 1, 1), 1);
    for (const std::string text :
         {"a", "1,5", " 1", "1 ", "+1", "nan", "inf", "-infinity", "0x1p3", "1e", "."}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(RefusalOf([&] { Of(text).asDouble(); }),
                  "the query parameter \"n\" is not a number: \"" + text + "\"");
    }
    EXPECT_EQ(RefusalOf([] { Of("1.5").asDouble(0, 0, 1); }),
              "the query parameter \"n\" must be from 0 to 1: \"1.5\"");
    EXPECT_EQ(RefusalOf([] { Of("1e400").asDouble(); }),
              "the query parameter \"n\" must be from -1.7976931348623157e+308 to "
              "1.7976931348623157e+308: \"1e400\"");
}

TEST(Parameter, IsASwitch)
{
    for (const std::string text : {"true", "on", "yes", "1"})
        EXPECT_TRUE(Of(text).asBool()) << text;
    for (const std::string text : {"false", "off", "no", "0"})
        EXPECT_FALSE(Of(text).asBool(true)) << text;
    EXPECT_TRUE(Of("").asBool(true));
    EXPECT_FALSE(Of("").asBool(false));
    for (const std::string text : {"True", "2", " on", "o"})
        EXPECT_EQ(RefusalOf([&] { Of(text).asBool(); }),
                  "the query parameter \"n\" must be true or false: \"" + text + "\"");
}

TEST(Parameter, IsOneOfSeveralTexts)
{
    EXPECT_EQ(Of("date").asOneOf({"name", "date"}), "date");
    EXPECT_EQ(Of("").asOneOf({"name", "date"}, "name"), "name");
    EXPECT_EQ(RefusalOf([] {
                  Of("size").asOneOf({"name", "date"}, "name");
              }),
              "the query parameter \"n\" must be one of name, date: \"size\"");
}

TEST(Parameter, IsATextOfLimitedLength)
{
    EXPECT_EQ(Of("four").asText({}, 4), "four");
    EXPECT_EQ(Of("").asText("default"), "default");
    EXPECT_EQ(RefusalOf([] { Of("fifth").asText({}, 4); }),
              "the query parameter \"n\" is longer than 4 bytes");
}

TEST(Parameter, QuotesTheBeginningOfALongTextOnly)
{
    const std::string longest(64, 'x');
    EXPECT_EQ(RefusalOf([&] { Of(longest).asBool(); }),
              "the query parameter \"n\" must be true or false: \"" + longest + "\"");
    EXPECT_EQ(RefusalOf([&] { Of(longest + "x").asBool(); }),
              "the query parameter \"n\" must be true or false: \"" + longest + "...\"");
    // Not within a character.
    const std::string before(63, 'x');
    EXPECT_EQ(RefusalOf([&] { Of(before + "\xc3\xa4").asBool(); }),
              "the query parameter \"n\" must be true or false: \"" + before + "...\"");
    EXPECT_NE(RefusalOf([] { Of(std::string(1000, '\x80')).asBool(); }), "accepted");
}

}  // namespace
}  // namespace qv::kit
