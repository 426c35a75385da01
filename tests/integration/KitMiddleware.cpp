// Ready-made hooks: logins, CORS, rates, headers, identifiers.

#include "support/KitTestServer.h"

#include <Wendrel/kit/Middleware.h>

#include <gmock/gmock.h>

#include <atomic>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

namespace integration
{
namespace
{

using namespace qv::kit;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::MatchesRegex;

void replyUser(Request& request)
{
    request.reply(request.attached<AuthenticatedUser>().name);
}

std::string authorized(const std::string& value)
{
    return getRequest("/", "Authorization: " + value + "\r\n");
}

TEST(KitMiddleware, BasicAuthenticationLetsUsersIn)
{
    const std::map<std::string, std::string> passwords{
        {"ann", "secret"}, {"bob", "a:b"}, {"eve", ""}, {"J\xc3\xb6rg", "\xc3\xa9"}};
    const auto check = [&](Request&, const std::string& user, const std::string& password) {
        const auto found = passwords.find(user);
        return found != passwords.end() && isSameSecret(found->second, password);
    };
    for (const Middleware& middleware :
         {basicAuthentication("a \"b\" \\", passwords), basicAuthentication("a \"b\" \\", check)}) {
        KitTestServer server([&](Router& router) {
            router.use("/", middleware);
            router.get("/", replyUser);
        });
        const std::pair<const char*, const char*> valid[] = {
            {"Basic YW5uOnNlY3JldA==", "ann"},     {"basic   YW5uOnNlY3JldA==", "ann"},
            {"Basic Ym9iOmE6Yg==", "bob"},         {"Basic ZXZlOg==", "eve"},
            {"Basic SsO2cmc6w6k=", "J\xc3\xb6rg"},
        };
        for (const auto& [value, user] : valid) {
            SCOPED_TRACE(value);
            EXPECT_EQ(server.ask(authorized(value)).body, user);
        }
        for (const char* value :
             {"Basic YW5uOnNlY3JldQ==", "Basic YW5uOg==", "Basic YW5u", "Basic", "Basic ",
              "Basic YW5uOnNlY3JldA", "Basic YW5uOnNlY3JldA===", "Basic YW5uOnNlY3JldA==YQ==",
              "Basic YW5uOnNl Y3JldA==", "Basic YW5uOnNlY3JldA=A",
              "Basic ====", "Basic YW5uOnNlY3JldA==, Basic YQ==", "Bearer YW5uOnNlY3JldA==",
              "BasicYW5uOnNlY3JldA==", "Basic bm9ib2R5OnNlY3JldA==", "Basic YW5uOnNlY3JldAo=",
              "Basic AAAA"}) {
            SCOPED_TRACE(value);
            const RawResponse response = server.ask(authorized(value));
            EXPECT_EQ(response.status, 401);
            EXPECT_EQ(response.value("WWW-Authenticate"),
                      R"(Basic realm="a \"b\" \\", charset="UTF-8")");
        }
        EXPECT_EQ(server.get("/").status, 401);
        EXPECT_EQ(server.get("/none").status, 401);
    }
    EXPECT_THROW(basicAuthentication("a\nb", passwords), std::invalid_argument);
    EXPECT_THROW(basicAuthentication("a", CheckPassword()), std::invalid_argument);
}

TEST(KitMiddleware, BearerAuthenticationTellsTheError)
{
    KitTestServer server([](Router& router) {
        router.use("/", bearerAuthentication("api", [](Request&, const std::string& token) {
                       return token == "a-._~+/9==" ? std::optional<std::string>("ann")
                                                    : std::nullopt;
                   }));
        router.get("/", replyUser);
    });
    EXPECT_EQ(server.ask(authorized("Bearer a-._~+/9==")).body, "ann");
    EXPECT_EQ(server.ask(authorized("bearer a-._~+/9==")).body, "ann");
    const struct
    {
        const char* value;
        int status;
        const char* challenge;
    } rows[] = {
        {"", 401, R"(Bearer realm="api")"},
        {"Basic YW5uOnNlY3JldA==", 401, R"(Bearer realm="api")"},
        {"Bearer other", 401, R"(Bearer realm="api", error="invalid_token")"},
        {"Bearer", 400, R"(Bearer realm="api", error="invalid_request")"},
        {"Bearer a b", 400, R"(Bearer realm="api", error="invalid_request")"},
        {"Bearer a=b", 400, R"(Bearer realm="api", error="invalid_request")"},
        {"Bearer ==", 400, R"(Bearer realm="api", error="invalid_request")"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        const RawResponse response = server.ask(authorized(row.value));
        EXPECT_EQ(response.status, row.status);
        EXPECT_EQ(response.value("WWW-Authenticate"), row.challenge);
    }
    EXPECT_THROW(bearerAuthentication("a", CheckToken()), std::invalid_argument);
}

TEST(KitMiddleware, SecretsAreComparedWhole)
{
    EXPECT_TRUE(isSameSecret("", ""));
    EXPECT_TRUE(isSameSecret(std::string("a\0b", 3), std::string("a\0b", 3)));
    EXPECT_FALSE(isSameSecret(std::string("a\0b", 3), std::string("a\0c", 3)));
    EXPECT_FALSE(isSameSecret("a", ""));
    EXPECT_FALSE(isSameSecret("a", "aa"));
    EXPECT_FALSE(isSameSecret("a", "A"));
}

std::string preflight(const std::string& origin, const std::string& more = "")
{
    return "OPTIONS /a HTTP/1.1\r\nHost: x\r\nOrigin: " + origin +
           "\r\nAccess-Control-Request-Method: PUT\r\n" + more + "\r\n";
}

TEST(KitMiddleware, CorsLetsPagesOfListedOriginsRead)
{
    KitTestServer server([](Router& router) {
        CorsOptions options;
        options.origins = {"https://a.example", "http://localhost:3000"};
        options.methods = {"GET", "PUT"};
        options.headers = {"Content-Type", "X-Mine"};
        options.exposedHeaders = {"X-Seen"};
        options.credentials = true;
        router.use("/", cors(options));
        router.use("/", basicAuthentication("a", {{"ann", "secret"}}));
        router.get("/a", [](Request& request) { request.reply("a"); });
    });
    for (const char* origin : {"https://a.example", "http://localhost:3000"}) {
        const RawResponse response = server.ask(preflight(origin));
        EXPECT_EQ(response.status, 204);
        EXPECT_EQ(response.value("Access-Control-Allow-Origin"), origin);
        EXPECT_EQ(response.value("Access-Control-Allow-Credentials"), "true");
        EXPECT_EQ(response.value("Access-Control-Allow-Methods"), "GET, PUT");
        EXPECT_EQ(response.value("Access-Control-Allow-Headers"), "Content-Type, X-Mine");
        EXPECT_EQ(response.value("Access-Control-Max-Age"), "600");
        EXPECT_THAT(
            response.values("Vary"),
            ElementsAre("Access-Control-Request-Method, Access-Control-Request-Headers", "Origin"));
    }
    for (const char* origin : {"https://b.example", "https://a.example.b.example", "null",
                               "http://a.example", "https://A.example"}) {
        SCOPED_TRACE(origin);
        const RawResponse response = server.ask(preflight(origin));
        EXPECT_EQ(response.status, 403);
        EXPECT_THAT(response.values("Access-Control-Allow-Origin"), IsEmpty());
        EXPECT_THAT(response.values("Vary"), IsSupersetOf({std::string("Origin")}));
    }
    // The error can be read, too.
    const RawResponse response = server.ask(getRequest("/a", "Origin: https://a.example\r\n"));
    EXPECT_EQ(response.status, 401);
    EXPECT_EQ(response.value("Access-Control-Allow-Origin"), "https://a.example");
    EXPECT_EQ(response.value("Access-Control-Expose-Headers"), "X-Seen");
    // Neither is asked for by a browser beforehand.
    EXPECT_EQ(server.ask("OPTIONS /a HTTP/1.1\r\nHost: x\r\n\r\n").status, 401);
    const RawResponse plain = server.get("/a");
    EXPECT_THAT(plain.values("Access-Control-Allow-Origin"), IsEmpty());
    EXPECT_THAT(plain.values("Vary"), IsSupersetOf({std::string("Origin")}));
}

TEST(KitMiddleware, CorsForAllHasNoCredentials)
{
    KitTestServer server([](Router& router) {
        CorsOptions options;
        options.origins = {"*"};
        options.headers = {"*"};
        router.use("/", cors(options));
        router.get("/a", [](Request& request) { request.reply("a"); });
    });
    const RawResponse response =
        server.ask(preflight("https://any", "Access-Control-Request-Headers: x-a,x-b\r\n"));
    EXPECT_EQ(response.value("Access-Control-Allow-Origin"), "*");
    EXPECT_THAT(response.values("Access-Control-Allow-Credentials"), IsEmpty());
    EXPECT_EQ(response.value("Access-Control-Allow-Headers"), "x-a,x-b");
    EXPECT_THAT(
        server.ask(preflight("https://any", "Access-Control-Request-Headers: x-a;<script>\r\n"))
            .values("Access-Control-Allow-Headers"),
        IsEmpty());
    const RawResponse read = server.ask(getRequest("/a", "Origin: https://any\r\n"));
    EXPECT_EQ(read.value("Access-Control-Allow-Origin"), "*");
    EXPECT_THAT(read.values("Vary"), IsEmpty());
    // A cache may give it to a page.
    EXPECT_EQ(server.get("/a").value("Access-Control-Allow-Origin"), "*");
}

TEST(KitMiddleware, CorsRefusesImpossibleOptions)
{
    CorsOptions all;
    all.origins = {"*"};
    all.credentials = true;
    EXPECT_THROW(cors(all), std::invalid_argument);
    all.origins = {"https://a", "null"};
    EXPECT_THROW(cors(all), std::invalid_argument);
    for (const char* origin : {"example.com", "https://example.com/", "*", "", "https://a b"}) {
        SCOPED_TRACE(origin);
        CorsOptions options;
        options.origins = {"https://a", origin};
        EXPECT_THROW(cors(options), std::invalid_argument);
    }
    CorsOptions headers;
    headers.headers = {"a b"};
    EXPECT_THROW(cors(headers), std::invalid_argument);
}

TEST(KitMiddleware, RateLimitRefusesBeforeTheBody)
{
    RateLimitOptions options;
    options.perSecond = 0.001;
    options.burst = 3;
    RateLimitOptions byKey = options;
    byKey.burst = 1;
    byKey.key = [](const Request& request) -> std::string { return request.header("X-Key"); };
    KitTestServer server([&](Router& router) {
        router.use("/limited", rateLimit(options));
        router.use("/keyed", rateLimit(byKey));
        router.put("/limited", [](Request& request) { request.reply("ok"); });
        router.get("/keyed", [](Request& request) { request.reply("ok"); });
        router.get("/", [](Request& request) { request.reply("ok"); });
    });
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(server.ask(withBody("PUT", "/limited", "a")).status, 200);
    const RawResponse response = server.ask(headOf("PUT", "/limited", 1000));
    EXPECT_EQ(response.status, 429);
    EXPECT_THAT(response.value("Retry-After"), MatchesRegex("[0-9]+"));
    EXPECT_GT(std::stoi(response.value("Retry-After")), 900);
    EXPECT_EQ(server.get("/").status, 200);
    for (const char* key : {"a", "b"}) {
        const std::string request = getRequest("/keyed", std::string("X-Key: ") + key + "\r\n");
        EXPECT_EQ(server.ask(request).status, 200);
        EXPECT_EQ(server.ask(request).status, 429);
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(server.get("/keyed").status, 200);
    const auto with = [](double perSecond, double burst, size_t maxClients) {
        RateLimitOptions wrong;
        wrong.perSecond = perSecond;
        wrong.burst = burst;
        wrong.maxClients = maxClients;
        return wrong;
    };
    EXPECT_THROW(rateLimit(with(0, 1, 1)), std::invalid_argument);
    EXPECT_THROW(rateLimit(with(-1, 1, 1)), std::invalid_argument);
    EXPECT_THROW(rateLimit(with(1, 0.9, 1)), std::invalid_argument);
    EXPECT_THROW(rateLimit(with(1, 1, 0)), std::invalid_argument);
}

TEST(KitMiddleware, SecurityHeadersLeaveThoseOfTheHandler)
{
    KitTestServer server([](Router& router) {
        SecurityHeaders headers;
        headers.openerPolicy = "";
        headers.strictTransport = "max-age=1";
        router.use("/", securityHeaders(headers));
        router.get("/", [](Request& request) {
            request.setHeader("x-frame-options", "SAMEORIGIN");
            request.reply("ok");
        });
    });
    const RawResponse response = server.get("/");
    EXPECT_THAT(response.values("X-Frame-Options"), ElementsAre("SAMEORIGIN"));
    EXPECT_EQ(response.value("X-Content-Type-Options"), "nosniff");
    EXPECT_EQ(response.value("Referrer-Policy"), "no-referrer");
    EXPECT_EQ(response.value("Content-Security-Policy"),
              "default-src 'self'; base-uri 'none'; object-src 'none'; frame-ancestors 'none'");
    EXPECT_THAT(response.values("Cross-Origin-Opener-Policy"), IsEmpty());
    EXPECT_EQ(response.value("Strict-Transport-Security"), isSecure() ? "max-age=1" : "");
    EXPECT_EQ(server.get("/none").value("X-Frame-Options"), "DENY");
}

TEST(KitMiddleware, RequestIdsAreInResponseAndRecord)
{
    Channel<CompletedRequest> completed;
    auto options = kitOptions(1);
    options.onCompleted = [&](const CompletedRequest& request) { completed.push(request); };
    for (const bool acceptsIncoming : {false, true}) {
        KitTestServer server(
            [&](Router& router) {
                RequestIdOptions ids;
                ids.acceptsIncoming = acceptsIncoming;
                router.use("/", requestId(ids));
                router.use("/me", basicAuthentication("a", {{"ann", "secret"}}));
                router.get("/", [](Request& request) {
                    request.reply(request.attached<RequestId>().text);
                });
                router.get("/me", replyUser);
            },
            options);
        const auto ask = [&](const std::string& incoming) {
            const RawResponse response =
                server.ask(getRequest("/", "X-Request-Id: " + incoming + "\r\n"));
            EXPECT_EQ(response.value("X-Request-Id"), response.body);
            EXPECT_EQ(completed.pop().value_or(CompletedRequest()).requestId, response.body);
            return response.body;
        };
        std::set<std::string> made;
        for (const char* incoming : {"", "a b", "a,b", "<script>", "\"", "\xc3\xa9"}) {
            const std::string id = ask(incoming);
            EXPECT_THAT(id, MatchesRegex("[0-9a-f]{32}"));
            EXPECT_TRUE(made.insert(id).second);
        }
        EXPECT_THAT(ask(std::string(129, 'a')), MatchesRegex("[0-9a-f]{32}"));
        const std::string longest = std::string(124, 'a') + "-_.~";
        EXPECT_EQ(ask(longest) == longest, acceptsIncoming);
        EXPECT_THAT(server.get("/none").value("X-Request-Id"), MatchesRegex("[0-9a-f]{32}"));
        EXPECT_TRUE(completed.pop());
        EXPECT_EQ(server.ask(getRequest("/me", "Authorization: Basic YW5uOnNlY3JldA==\r\n")).body,
                  "ann");
        EXPECT_EQ(completed.pop().value_or(CompletedRequest()).user, "ann");
    }
    RequestIdOptions wrong;
    wrong.header = "a b";
    EXPECT_THROW(requestId(wrong), std::invalid_argument);
}

}  // namespace
}  // namespace integration
