#include "ErrorBody.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::kit
{
namespace
{

TEST(ErrorBody, HasTheFormThatTheClientReads)
{
    constexpr const char* kProblem = "application/problem+json";
    constexpr const char* kPage = "text/html; charset=utf-8";
    constexpr const char* kText = "text/plain; charset=utf-8";
    const struct
    {
        const char* accept;
        const char* type;
    } rows[] = {
        {"", kProblem},
        {"*/*", kProblem},
        {"application/json", kProblem},
        {"application/problem+json", kProblem},
        {"application/*", kProblem},
        {"application/json, text/plain, */*", kProblem},
        {"application/json, text/html", kProblem},
        {"application/json, text/html;q=0.9", kProblem},
        {"text/html,application/xhtml+xml,application/xml;q=0.9,image/webp,*/*;q=0.8", kPage},
        {"text/html", kPage},
        {"text/html, */*", kPage},
        {"text/html;q=0.5, */*;q=0.5", kPage},
        {"text/html;q=0.4, */*;q=0.5", kProblem},
        {"text/html;q=0, */*", kProblem},
        {"text/*", kText},
        {"text/plain", kText},
        {"image/png", kText},
        {"text/html;q=0", kText},
    };
    for (const auto& row : rows)
        EXPECT_EQ(makeErrorBody(row.accept, 404, "").type.value(), row.type) << row.accept;
}

TEST(ErrorBody, HasTitleStatusAndDetail)
{
    EXPECT_EQ(makeErrorBody("", 404, "").text, R"({"title":"Not Found","status":404})");
    EXPECT_EQ(
        makeErrorBody("", 404, "no \"x\"\n\xff").text,
        "{\"title\":\"Not Found\",\"status\":404,\"detail\":\"no \\\"x\\\"\\n\xef\xbf\xbd\"}");
    EXPECT_EQ(makeErrorBody("", 499, "").text, R"({"title":"Error","status":499})");
    EXPECT_EQ(makeErrorBody("text/plain", 404, "").text, "404 Not Found\n");
    EXPECT_EQ(makeErrorBody("text/plain", 404, "no <x>").text, "404 Not Found\nno <x>\n");
}

TEST(ErrorBody, IsAPageWithoutMarkOfTheMessage)
{
    const std::string page = makeErrorBody("text/html", 400, "<script>&\"").text;
    EXPECT_NE(page.find("<title>400 Bad Request</title>"), std::string::npos);
    EXPECT_NE(page.find("<p>&lt;script&gt;&amp;&quot;</p>"), std::string::npos);
    EXPECT_EQ(page.find("<script"), std::string::npos);
    EXPECT_EQ(makeErrorBody("text/html", 400, "").text.find("<p>"), std::string::npos);
}

}  // namespace
}  // namespace qv::kit
