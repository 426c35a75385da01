// The choice of the handler by method and path.

#include <Wendrel/kit/Router.h>

#include "Support.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace qv::kit::tests
{
namespace
{

using Http = HttpBaseRequest;

// The name of the handler that a router chooses for a target; the status code when there is none.
std::string handlerOf(const Router& router, const std::string& target, const char* method = "GET")
{
    ServedRequest request(method, target);
    router.dispatch(request);
    return request.status() == 200 ? request.sent() : std::to_string(request.status());
}

// Responds with the name and, after a "|", the values of the parameters.
Router::Handler say(const std::string& name, const std::vector<std::string>& parameters = {})
{
    return [name, parameters](Request& request) {
        std::string text = name;
        for (const std::string& parameter : parameters)
            text += "|" + request.getPathParameter(parameter);
        request.reply(200, "text/plain", text);
    };
}

TEST(Router, FindsNothingWhenItIsEmpty)
{
    EXPECT_EQ(handlerOf(Router(), "/"), "404");
}

TEST(Router, MatchesSegments)
{
    const struct
    {
        const char* pattern;
        const char* target;
        const char* handler;
    } rows[] = {
        {"/", "/", "found||"},
        {"/", "/a", "404"},
        {"/a", "/a", "found||"},
        {"/a", "/A", "404"},
        {"/a", "/", "404"},
        {"/a", "/a/", "404"},
        {"/a", "/a/b", "404"},
        {"/a/", "/a/", "found||"},
        {"/a/", "/a", "404"},
        {"/a/b", "/a/b", "found||"},
        {"/a/b", "/a%2Fb", "404"},
        {"/a/b", "/a//b", "404"},
        {"/a b", "/a%20b", "found||"},
        {"/a", "/%61", "found||"},
        {"/a", "/a?x=/b", "found||"},
        {"/{x}", "/a", "found|a|"},
        {"/{x}", "/", "404"},
        {"/{x}", "/a/", "404"},
        {"/{x}", "/a/b", "404"},
        {"/{x}", "/a%2Fb", "found|a/b|"},
        {"/{x}", "/%7Bx%7D", "found|{x}|"},
        {"/{x}/{y}", "/a/b", "found|a|b"},
        {"/{x}/{y}", "/a/", "404"},
        {"/{x}/{y}", "//b", "404"},
        {"/{x}/", "/a/", "found|a|"},
        {"/a/{x}/c", "/a/b/c", "found|b|"},
        {"/a/{x}/c", "/a/b/d", "404"},
        {"/a/{x*}", "/a/b/c", "found|b/c|"},
        {"/a/{x*}", "/a/b", "found|b|"},
        {"/a/{x*}", "/a/b/", "found|b/|"},
        {"/a/{x*}", "/a/", "found||"},
        {"/a/{x*}", "/a", "found||"},
        {"/a/{x*}", "/b", "404"},
        {"/a/{x*}", "/a//b", "found|/b|"},
        {"/a/{x*}", "/a/b%2Fc/d", "found|b/c/d|"},
        {"/{x}/{y*}", "/a/b/c", "found|a|b/c"},
        {"/{x*}", "/", "found||"},
        {"/{x*}", "/a/b", "found|a/b|"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.pattern) + " and " + row.target);
        Router router;
        ASSERT_TRUE(router.add(Http::GET, row.pattern, say("found", {"x", "y"})));
        EXPECT_EQ(handlerOf(router, row.target), row.handler);
    }
}

TEST(Router, PrefersThePatternThatIsLiteralEarlier)
{
    const struct
    {
        const char* target;
        const char* handler;
    } rows[] = {
        {"/a/b", "literal"},          {"/a/x", "one last|x"},
        {"/x/b", "one first|x"},      {"/x/y", "two|x|y"},
        {"/a/b/c", "rest after|b/c"}, {"/x/y/z", "all|x/y/z"},
        {"/a", "rest after|"},        {"/", "all|"},
        {"/a/", "rest after|"},       {"/a%2Fb", "all|a/b"},
    };
    const struct
    {
        const char* pattern;
        Router::Handler handler;
    } routes[] = {
        {"/a/b", say("literal")},
        {"/a/{p}", say("one last", {"p"})},
        {"/{p}/b", say("one first", {"p"})},
        {"/{p}/{q}", say("two", {"p", "q"})},
        {"/a/{p*}", say("rest after", {"p"})},
        {"/{p*}", say("all", {"p"})},
    };
    Router forward;
    for (const auto& route : routes)
        ASSERT_TRUE(forward.add(Http::GET, route.pattern, route.handler));
    Router backward;
    for (auto route = std::rbegin(routes); route != std::rend(routes); ++route)
        ASSERT_TRUE(backward.add(Http::GET, route->pattern, route->handler));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        EXPECT_EQ(handlerOf(forward, row.target), row.handler);
        EXPECT_EQ(handlerOf(backward, row.target), row.handler);
    }
}

TEST(Router, RefusesMalformedPatternsAndAddsNothing)
{
    for (const char* pattern :
         {"",          "a",          "a/b",      "{x}",        "/{",     "/}",
          "/{}",       "/{*}",       "/{x",      "/x}",        "/a{x}",  "/{x}a",
          "/{x}{y}",   "/{{x}}",     "/{x**}",   "/{*x}",      "/{x*}/", "/{x*}/a",
          "/{x*}/{y}", "/{x*}/{y*}", "/{x}/{x}", "/{x}/a/{x*}"}) {
        SCOPED_TRACE(pattern);
        Router router;
        EXPECT_FALSE(router.add(Http::GET, pattern, say("found")));
        for (const char* target : {"/", "/a", "/a/b", "/x", "/%7B", "/%7B%7D"})
            EXPECT_EQ(handlerOf(router, target), "404");
    }
}

TEST(Router, ASecondHandlerReplacesTheFirst)
{
    Router router;
    ASSERT_TRUE(router.add(Http::GET | Http::PUT, "/{x}", say("first", {"x", "y"})));
    ASSERT_TRUE(router.add(Http::PUT, "/{x}", say("second", {"x", "y"})));
    EXPECT_EQ(handlerOf(router, "/a", "GET"), "first|a|");
    EXPECT_EQ(handlerOf(router, "/a", "PUT"), "second|a|");
}

TEST(Router, EachMethodHasTheNamesOfItsOwnPattern)
{
    Router router;
    ASSERT_TRUE(router.add(Http::GET, "/{x}", say("get", {"x", "y"})));
    ASSERT_TRUE(router.add(Http::PUT, "/{y}", say("put", {"x", "y"})));
    EXPECT_EQ(handlerOf(router, "/a", "GET"), "get|a|");
    EXPECT_EQ(handlerOf(router, "/a", "PUT"), "put||a");
    ASSERT_TRUE(router.add(Http::GET, "/{y}", say("other get", {"x", "y"})));
    EXPECT_EQ(handlerOf(router, "/a", "GET"), "other get||a");
}

TEST(Router, NamesTheAllowedMethodsInTheirOrder)
{
    const struct
    {
        int methods;
        const char* method;
        const char* allow;
    } rows[] = {
        {Http::GET, "PUT", "GET,HEAD"},
        {Http::PUT | Http::GET, "POST", "GET,PUT,HEAD"},
        {Http::POST, "HEAD", "POST"},
        {Http::POST, "GET", "POST"},
        {Http::HEAD, "GET", "HEAD"},
        {Http::OPTIONS | Http::DELETE | Http::PATCH, "GET", "DELETE,OPTIONS,PATCH"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.allow);
        Router router;
        ASSERT_TRUE(router.add(row.methods, "/a", say("found")));
        ServedRequest request(row.method, "/a");
        router.dispatch(request);
        EXPECT_EQ(request.status(), 405u);
        EXPECT_EQ(request.getHead().getHeader("Allow"), row.allow);
        EXPECT_EQ(request.sent(), request.isHead() ? ""
                                                   : "{\"error\":\"This method is not allowed "
                                                     "here.\",\"status\":405}");
    }
}

TEST(Router, TheBestPatternDecidesAboutTheMethods)
{
    Router router;
    ASSERT_TRUE(router.add(Http::GET, "/a", say("get")));
    ASSERT_TRUE(router.add(Http::PUT, "/{x}", say("put")));
    EXPECT_EQ(handlerOf(router, "/a", "PUT"), "405");
    EXPECT_EQ(handlerOf(router, "/b", "PUT"), "put");
}

TEST(Router, GivesHeadToTheHandlerOfGetUnlessItHasItsOwn)
{
    std::string called;
    const auto note = [&called](const char* name) {
        return [&called, name](Request& request) {
            called += name;
            request.reply(200, "text/plain", "text");
        };
    };
    Router router;
    ASSERT_TRUE(router.add(Http::GET, "/get", note("get ")));
    ASSERT_TRUE(router.add(Http::GET, "/both", note("get-both ")));
    ASSERT_TRUE(router.add(Http::HEAD, "/both", note("head-both ")));
    for (const char* target : {"/get", "/both"}) {
        ServedRequest request("HEAD", target);
        router.dispatch(request);
        EXPECT_EQ(request.sent(), "");
        EXPECT_EQ(request.getHead().getContentLength(), 4);
    }
    EXPECT_EQ(called, "get head-both ");
}

TEST(Router, Responds400ToABadRequestFirst)
{
    Router router;
    ASSERT_TRUE(router.add(Http::GET, "/{x*}", say("found")));
    ServedRequest request("GET", "/a");
    request.setParseError("bad \"thing\"");
    router.dispatch(request);
    EXPECT_EQ(request.status(), 400u);
    EXPECT_EQ(request.getHead().getHeader("content-type"), "application/json");
    EXPECT_EQ(request.sent(), "{\"error\":\"bad \\\"thing\\\"\",\"status\":400}");
}

TEST(Router, Responds404InJson)
{
    ServedRequest request("GET", "/a");
    Router().dispatch(request);
    EXPECT_EQ(request.status(), 404u);
    EXPECT_EQ(request.getHead().getHeader("content-type"), "application/json");
    EXPECT_EQ(request.sent(), "{\"error\":\"There is nothing at this address.\",\"status\":404}");
}

TEST(Router, AMethodThatNobodyKnowsIsABadRequest)
{
    Router router;
    ASSERT_TRUE(router.add(Http::GET, "/a", say("found")));
    EXPECT_EQ(handlerOf(router, "/a", "BREW"), "400");
    EXPECT_EQ(handlerOf(router, "/b", "BREW"), "400");
}

}  // namespace
}  // namespace qv::kit::tests
