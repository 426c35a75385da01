// Bodies as JSON, and errors in the form that the client reads.

#include "support/KitTestServer.h"

#include <Wendrel/kit/Json.h>

#include <gmock/gmock.h>

#include <map>
#include <string>
#include <vector>

namespace integration
{
namespace
{

using nlohmann::json;
using qv::kit::HttpError;
using qv::kit::Request;
using qv::kit::Router;
using ::testing::ElementsAre;

struct Task
{
    std::string title;
    int priority = 0;
};

void from_json(const json& value, Task& task)
{
    value.at("title").get_to(task.title);
    task.priority = value.value("priority", 1);
}

void to_json(json& value, const Task& task)
{
    value = {{"title", task.title}, {"priority", task.priority}};
}

std::string post(const std::string& target, const std::string& type, const std::string& body)
{
    return "POST " + target + " HTTP/1.1\r\nHost: x\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

void addRoutes(Router& router)
{
    router.post("/echo", [](Request& request) { request.replyJson(request.json()); });
    router.post("/task", [](Request& request) { request.replyJson(201, request.json<Task>()); });
    router.get("/list", [](Request& request) {
        request.replyJson({{"ids", {1, 2}}, {"tasks", std::vector<Task>{{"a", 3}}}});
    });
    router.get("/latin", [](Request& request) { request.replyJson("\xe4"); });
    router.get("/later", [](Request& request) { request.defer().replyJson(json::array({1})); });
    router.get("/error", [](Request&) { throw HttpError(409, "not <now>"); });
}

TEST(KitJson, GoesInAndOut)
{
    KitTestServer server(&addRoutes);
    const struct
    {
        const char* type;
        const char* body;
    } rows[] = {
        {"application/json", "{\"a\":[1,2.5,null,true,\"\xc3\xa4\"]}"},
        {"Application/JSON; charset=utf-8", "[]"},
        {"application/vnd.api+json", "7"},
        {"application/json", "\"[[[ \\\" {{{\""},
    };
    for (const auto& row : rows) {
        const RawResponse response = server.ask(post("/echo", row.type, row.body));
        EXPECT_EQ(response.status, 200) << row.body;
        EXPECT_EQ(response.body, row.body);
        EXPECT_EQ(response.value("Content-Type"), "application/json");
    }
    EXPECT_EQ(server.get("/list").body, R"({"ids":[1,2],"tasks":[{"priority":3,"title":"a"}]})");
    EXPECT_EQ(server.get("/latin").body, "\"\xef\xbf\xbd\"");
    EXPECT_EQ(server.get("/later").body, "[1]");
    const RawResponse task = server.ask(post("/task", "application/json", R"({"title":"b"})"));
    EXPECT_EQ(task.status, 201);
    EXPECT_EQ(task.body, R"({"priority":1,"title":"b"})");
}

TEST(KitJson, OfAnotherTypeIs415)
{
    KitTestServer server(&addRoutes);
    // Types that pages of other sites can send without being asked.
    for (const char* type : {"text/plain", "application/x-www-form-urlencoded", "+json",
                             "application/jsonx", "text/plain; a=application/json"}) {
        const RawResponse response = server.ask(post("/echo", type, "{}"));
        EXPECT_EQ(response.status, 415) << type;
        EXPECT_EQ(json::parse(response.body)["detail"],
                  "the body must be of the type application/json");
    }
    EXPECT_EQ(server.ask(withBody("POST", "/echo", "{}")).status, 415);
}

TEST(KitJson, ThatIsWrongIs400WithItsPlace)
{
    KitTestServer server(&addRoutes);
    const struct
    {
        const char* target;
        std::string body;
        const char* detail;
    } rows[] = {
        {"/echo", "", "the body is no JSON: line 1, column 1"},
        {"/echo", "{", "the body is no JSON: line 1, column 2"},
        {"/echo", "{\"a\": 1,\n \"b\": x}", "the body is no JSON: line 2, column 7"},
        {"/echo", "[\"\xc3\xa4\xc3\xb6\", x]", "the body is no JSON: line 1, column 8"},
        {"/echo", "[1] 2", "the body is no JSON: line 1, column 5"},
        {"/echo", std::string("[1]\0 2", 6), "the body is no JSON: line 1, column 4"},
        {"/echo", "[1e999]",
         "the JSON of the body is not as expected: number overflow parsing '1e999'"},
        {"/task", "{}", "the JSON of the body is not as expected: key 'title' not found"},
        {"/task", "{\"title\":1}",
         "the JSON of the body is not as expected: type must be string, but is number"},
    };
    for (const auto& row : rows) {
        const RawResponse response = server.ask(post(row.target, "application/json", row.body));
        EXPECT_EQ(response.status, 400) << row.body;
        EXPECT_EQ(json::parse(response.body)["detail"], row.detail) << row.body;
    }
}

TEST(KitJson, IsNotRepeatedWholeByAnError)
{
    KitTestServer server(&addRoutes);
    const RawResponse response =
        server.ask(post("/echo", "application/json", "[1" + std::string(100000, '0') + "e999]"));
    EXPECT_EQ(response.status, 400);
    EXPECT_LT(response.body.size(), 400u);
    EXPECT_THAT(response.body, ::testing::HasSubstr("number overflow parsing '1000"));
}

TEST(KitJson, IsRefusedWhenItIsNestedTooDeep)
{
    KitTestServer server(&addRoutes);
    const auto nested = [](size_t depth) {
        return std::string(depth, '[') + std::string(depth, ']');
    };
    EXPECT_EQ(server.ask(post("/echo", "application/json", nested(128))).status, 200);
    EXPECT_EQ(server.ask(post("/echo", "application/json", nested(129))).status, 400);
    // As deep as a body can be.
    EXPECT_EQ(server.ask(post("/echo", "application/json", nested(500000))).status, 400);
    EXPECT_EQ(server.ask(post("/echo", "application/json", std::string(1000000, '{'))).status, 400);
}

TEST(KitErrors, HaveTheFormThatTheClientReads)
{
    KitTestServer server(&addRoutes);
    const struct
    {
        const char* target;
        const char* accept;
        const char* type;
        const char* part;
    } rows[] = {
        {"/error", "*/*", "application/problem+json",
         R"({"title":"Conflict","status":409,"detail":"not <now>"})"},
        {"/error", "text/html", "text/html; charset=utf-8", "<p>not &lt;now&gt;</p>"},
        {"/error", "text/plain", "text/plain; charset=utf-8", "409 Conflict\nnot <now>\n"},
        {"/none", "text/html,*/*;q=0.8", "text/html; charset=utf-8", "<h1>404 Not Found</h1>"},
        {"/none", "application/json", "application/problem+json",
         R"({"title":"Not Found","status":404})"},
    };
    for (const auto& row : rows) {
        const RawResponse response =
            server.ask(getRequest(row.target, std::string("Accept: ") + row.accept + "\r\n"));
        EXPECT_EQ(response.value("Content-Type"), row.type) << row.accept;
        EXPECT_THAT(response.body, ::testing::HasSubstr(row.part));
        EXPECT_THAT(response.values("Vary"), ElementsAre("Accept"));
    }
}

}  // namespace
}  // namespace integration
