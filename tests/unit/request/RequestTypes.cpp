// The methods of requests: their values, their table and their texts.

#include "support/TestRequest.h"

#include <gmock/gmock.h>

#include <map>
#include <string>
#include <type_traits>

namespace qv::tests
{
namespace
{

using RequestType = HttpBaseRequest::RequestType;

const struct Method
{
    const char* name;
    RequestType type;
    unsigned value;
} kMethods[] = {
    {"OPTIONS", HttpBaseRequest::OPTIONS, 2},   {"GET", HttpBaseRequest::GET, 4},
    {"POST", HttpBaseRequest::POST, 8},         {"PUT", HttpBaseRequest::PUT, 16},
    {"DELETE", HttpBaseRequest::DELETE, 32},    {"HEAD", HttpBaseRequest::HEAD, 64},
    {"CONNECT", HttpBaseRequest::CONNECT, 128}, {"TRACE", HttpBaseRequest::TRACE, 256},
    {"PATCH", HttpBaseRequest::PATCH, 512},
};

// Leaves the process-wide table as a program finds it when it starts.
class RequestTypes : public ::testing::Test
{
protected:
    RequestTypes() { HttpBaseRequest::ClearRequestTypes(); }
    ~RequestTypes() override { HttpBaseRequest::ClearRequestTypes(); }
};

TEST_F(RequestTypes, HaveTheValuesThatApplicationsStore)
{
    static_assert(std::is_same_v<std::underlying_type_t<RequestType>, uint16_t>);
    EXPECT_EQ(static_cast<unsigned>(HttpBaseRequest::UNKNOWN_HTTP_METHOD), 1u);
    for (const auto& method : kMethods)
        EXPECT_EQ(static_cast<unsigned>(method.type), method.value) << method.name;
}

TEST_F(RequestTypes, TableIsFilledByInitWithTheNineMethodsOnly)
{
    EXPECT_TRUE(HttpBaseRequest::sRequestTypes.empty());
    HttpBaseRequest::InitRequestTypes();
    std::map<std::string, RequestType> expected;
    for (const auto& method : kMethods)
        expected[method.name] = method.type;
    EXPECT_EQ(HttpBaseRequest::sRequestTypes, expected);
    EXPECT_EQ(HttpBaseRequest::sRequestTypes.size(), 9u);
    EXPECT_EQ(HttpBaseRequest::sRequestTypes.count("UNKNOWN_HTTP_METHOD"), 0u);
}

TEST_F(RequestTypes, SecondInitRebuildsTheSameTable)
{
    HttpBaseRequest::InitRequestTypes();
    const auto expected = HttpBaseRequest::sRequestTypes;
    HttpBaseRequest::sRequestTypes["GET"] = HttpBaseRequest::PUT;
    HttpBaseRequest::sRequestTypes["BREW"] = HttpBaseRequest::GET;
    HttpBaseRequest::InitRequestTypes();
    EXPECT_EQ(HttpBaseRequest::sRequestTypes, expected);
}

TEST_F(RequestTypes, ClearLeavesAnEmptyTableAndMayBeRepeated)
{
    HttpBaseRequest::InitRequestTypes();
    HttpBaseRequest::ClearRequestTypes();
    EXPECT_TRUE(HttpBaseRequest::sRequestTypes.empty());
    HttpBaseRequest::ClearRequestTypes();
    EXPECT_TRUE(HttpBaseRequest::sRequestTypes.empty());
}

TEST_F(RequestTypes, ToStringNamesEachMethodAlsoBeforeInit)
{
    for (const auto& method : kMethods)
        EXPECT_EQ(HttpBaseRequest::RequestTypeToString(method.type), method.name);
}

TEST_F(RequestTypes, ToStringNamesEverythingElseUnknown)
{
    const auto isMethod = [](unsigned value) {
        for (const auto& method : kMethods) {
            if (method.value == value)
                return true;
        }
        return false;
    };
    size_t unknown = 0;
    for (unsigned value = 0; value <= 0xFFFF; ++value) {
        if (isMethod(value))
            continue;
        ++unknown;
        ASSERT_EQ(HttpBaseRequest::RequestTypeToString(static_cast<RequestType>(value)),
                  "UNKNOWN_HTTP_METHOD")
            << value;
    }
    EXPECT_EQ(unknown, 65536u - 9u);
}

TEST_F(RequestTypes, ToStringReturnsTheSameStringForEver)
{
    for (unsigned value : {0u, 1u, 2u, 4u, 8u, 16u, 32u, 64u, 128u, 256u, 512u}) {
        const auto type = static_cast<RequestType>(value);
        const std::string* first = &HttpBaseRequest::RequestTypeToString(type);
        HttpBaseRequest::InitRequestTypes();
        HttpBaseRequest::ClearRequestTypes();
        EXPECT_EQ(&HttpBaseRequest::RequestTypeToString(type), first) << value;
    }
}

TEST_F(RequestTypes, BitFieldToStringJoinsTheNamesInItsOwnOrder)
{
    const char* const all =
        "GET,POST,PUT,DELETE,OPTIONS,HEAD,CONNECT,TRACE,PATCH,UNKNOWN_HTTP_METHOD";
    const struct
    {
        const char* name;
        int bits;
        const char* text;
    } rows[] = {
        {"nothing", 0, ""},
        {"unknown alone", 1, "UNKNOWN_HTTP_METHOD"},
        {"OPTIONS alone", 2, "OPTIONS"},
        {"GET alone", 4, "GET"},
        {"POST alone", 8, "POST"},
        {"PUT alone", 16, "PUT"},
        {"DELETE alone", 32, "DELETE"},
        {"HEAD alone", 64, "HEAD"},
        {"CONNECT alone", 128, "CONNECT"},
        {"TRACE alone", 256, "TRACE"},
        {"PATCH alone", 512, "PATCH"},
        {"GET before OPTIONS although its bit is higher", 6, "GET,OPTIONS"},
        {"DELETE before OPTIONS", 34, "DELETE,OPTIONS"},
        {"OPTIONS before HEAD", 66, "OPTIONS,HEAD"},
        {"GET and HEAD", 68, "GET,HEAD"},
        {"unknown comes last", 513, "PATCH,UNKNOWN_HTTP_METHOD"},
        {"unknown before OPTIONS in bits only", 3, "OPTIONS,UNKNOWN_HTTP_METHOD"},
        {"all", 1023, all},
        {"first bit above the methods", 1024, ""},
        {"a method and a bit above", 1024 + 4, "GET"},
        {"all bits above the methods", -1024, ""},
        {"the sign bit alone", -2147483647 - 1, ""},
        {"all bits", -1, all},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(HttpBaseRequest::RequestTypeBitFieldToString(row.bits), row.text);
    }
}

TEST_F(RequestTypes, SetHttpMethodStoresAMethodOfTheTable)
{
    HttpBaseRequest::InitRequestTypes();
    for (const auto& method : kMethods) {
        SCOPED_TRACE(method.name);
        TestRequest request;
        request.setHttpMethod(method.name);
        EXPECT_EQ(request.getRequestType(), method.type);
        EXPECT_FALSE(request.hasParseError());
        EXPECT_EQ(request.getParseError(), "");
    }
}

TEST_F(RequestTypes, SetHttpMethodRefusesEverythingElse)
{
    HttpBaseRequest::InitRequestTypes();
    const std::string rows[] = {
        "",         "get",   "Get",
        "GET ",     " GET",  "GE",
        "GETS",     "BREW",  "UNKNOWN_HTTP_METHOD",
        "GET,POST", "patch", std::string("GET\0", 4),
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row);
        TestRequest request;
        request.setHttpMethod(row);
        EXPECT_EQ(request.getRequestType(), HttpBaseRequest::UNKNOWN_HTTP_METHOD);
        EXPECT_TRUE(request.hasParseError());
        EXPECT_EQ(request.getParseError(), "Unexpected HTTP method");
    }
}

TEST_F(RequestTypes, SetHttpMethodKeepsThePreviousMethodWhenItRefuses)
{
    HttpBaseRequest::InitRequestTypes();
    TestRequest request;
    request.setHttpMethod("PATCH");
    request.setHttpMethod("patch");
    EXPECT_EQ(request.getRequestType(), HttpBaseRequest::PATCH);
    EXPECT_EQ(request.getParseError(), "Unexpected HTTP method");
}

TEST_F(RequestTypes, SetHttpMethodKnowsNoMethodWhileTheTableIsEmpty)
{
    TestRequest before;
    before.setHttpMethod("GET");
    EXPECT_EQ(before.getRequestType(), HttpBaseRequest::UNKNOWN_HTTP_METHOD);
    EXPECT_EQ(before.getParseError(), "Unexpected HTTP method");

    HttpBaseRequest::InitRequestTypes();
    HttpBaseRequest::ClearRequestTypes();
    TestRequest after;
    after.setHttpMethod("GET");
    EXPECT_EQ(after.getRequestType(), HttpBaseRequest::UNKNOWN_HTTP_METHOD);
    EXPECT_EQ(after.getParseError(), "Unexpected HTTP method");
}

TEST_F(RequestTypes, SetHttpMethodLeavesAnEarlierParseErrorInPlace)
{
    TestRequest request;
    request.setParseError("earlier");
    request.setHttpMethod("BREW");
    EXPECT_EQ(request.getParseError(), "earlier");
}

}  // namespace
}  // namespace qv::tests
