#include "AccessText.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <regex>
#include <string>

namespace qv::kit
{
namespace
{

using std::chrono::microseconds;

const std::chrono::system_clock::time_point kNow{std::chrono::seconds(1700000000)};

CompletedRequest usual()
{
    CompletedRequest request;
    request.method = "GET";
    request.target = "/files/a%20b?c=d";
    request.route = "GET /files/{name}";
    request.clientAddress = IpAddress::fromText("2001:db8::1", 443);
    request.status = 206;
    request.sentBytes = 12345678901;
    request.receivedBytes = 7;
    request.duration = microseconds(1234567);
    request.requestId = "1a2b";
    request.user = "ann";
    request.referer = "https://example.com/";
    request.userAgent = "curl/8";
    return request;
}

std::string accessLine(const CompletedRequest& request, AccessLog format,
                       std::chrono::system_clock::time_point now)
{
    std::string line;
    appendAccessLine(line, request, format, now);
    return line;
}

TEST(AccessText, TellsARequestInTheCombinedForm)
{
    EXPECT_EQ(accessLine(usual(), AccessLog::Combined, kNow),
              "2001:db8::1 - ann [14/Nov/2023:22:13:18 +0000] "
              R"("GET /files/a%20b?c=d HTTP/1.1" 206 12345678901 "https://example.com/" "curl/8" )"
              R"(1.234567 "GET /files/{name}" 1a2b -)");
    CompletedRequest empty;
    EXPECT_EQ(accessLine(empty, AccessLog::Combined, kNow),
              R"(- - - [14/Nov/2023:22:13:20 +0000] "-  HTTP/1.1" - 0 "-" "-" 0.000000 "-" - -)");
    empty.abortReason = "ClientAbort";
    EXPECT_EQ(accessLine(empty, AccessLog::Combined, kNow),
              R"(- - - [14/Nov/2023:22:13:20 +0000] "-  HTTP/1.1" - 0 "-" "-" 0.000000 "-" - )"
              "ClientAbort");
}

TEST(AccessText, TellsARequestAsJson)
{
    EXPECT_EQ(
        accessLine(usual(), AccessLog::Json, kNow),
        R"({"time":"2023-11-14T22:13:18.765433Z","client":"2001:db8::1","user":"ann",)"
        R"("method":"GET","target":"/files/a%20b?c=d","route":"GET /files/{name}","status":206,)"
        R"("sentBytes":12345678901,"receivedBytes":7,"seconds":1.234567,)"
        R"("referer":"https://example.com/","userAgent":"curl/8","requestId":"1a2b",)"
        R"("abortReason":""})");
    EXPECT_TRUE(nlohmann::json::parse(accessLine(CompletedRequest(), AccessLog::Json, kNow))
                    .at("status")
                    .is_null());
}

// Its text is kept from line to line.
TEST(AccessText, TellsTheSecondOfEachRequest)
{
    const struct
    {
        AccessLog format;
        microseconds after;
        const char* time;
    } rows[] = {
        {AccessLog::Combined, microseconds(0), "[14/Nov/2023:22:13:20 +0000]"},
        {AccessLog::Json, microseconds(0), "2023-11-14T22:13:20.000000Z"},
        {AccessLog::Json, microseconds(999999), "2023-11-14T22:13:20.999999Z"},
        {AccessLog::Combined, microseconds(999999), "[14/Nov/2023:22:13:20 +0000]"},
        {AccessLog::Combined, microseconds(1000000), "[14/Nov/2023:22:13:21 +0000]"},
        {AccessLog::Combined, microseconds(-1), "[14/Nov/2023:22:13:19 +0000]"},
        {AccessLog::Json, microseconds(-1), "2023-11-14T22:13:19.999999Z"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.time);
        const std::string line = accessLine(CompletedRequest(), row.format, kNow + row.after);
        EXPECT_NE(line.find(row.time), std::string::npos) << line;
    }
}

TEST(AccessText, IsAppended)
{
    std::string line = "before ";
    appendAccessLine(line, usual(), AccessLog::Combined, kNow);
    EXPECT_EQ(line.compare(0, 19, "before 2001:db8::1 "), 0) << line;
}

// Each byte in each text.
TEST(AccessText, EscapesEveryField)
{
    const std::regex combined(
        R"re(192\.0\.2\.1 - \S+ \[[^\]]+\] "([^"\\]|\\.)*" 200 0 "([^"\\]|\\.)*" "([^"\\]|\\.)*" )re"
        R"re(0\.000000 "([^"\\]|\\.)*" \S+ \S+)re");
    for (int byte = 0; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        const std::string text = std::string("a") + static_cast<char>(byte) + "b";
        CompletedRequest request;
        request.status = 200;
        request.clientAddress = IpAddress::fromText("192.0.2.1", 1);
        for (std::string* field :
             {&request.method, &request.target, &request.route, &request.user, &request.referer,
              &request.userAgent, &request.requestId, &request.abortReason})
            *field = text;
        for (const AccessLog format : {AccessLog::Combined, AccessLog::Json}) {
            const std::string line = accessLine(request, format, kNow);
            EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char c) {
                return c >= ' ' && c < '\x7f';
            })) << line;
            if (format == AccessLog::Combined) {
                EXPECT_TRUE(std::regex_match(line, combined)) << line;
                continue;
            }
            const auto parsed = nlohmann::json::parse(line);
            const std::string expected = byte < 0x80 ? text
                                                     : "a\xef\xbf\xbd"
                                                       "b";
            EXPECT_EQ(parsed.at("target").get<std::string>(), expected);
            EXPECT_EQ(parsed.size(), 14u);
        }
    }
}

}  // namespace
}  // namespace qv::kit
