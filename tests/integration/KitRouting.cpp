// Routes of the kit: which handler serves a request, and the responses of the kit itself.

#include "support/KitTestServer.h"

#include <gmock/gmock.h>

#include <string>
#include <type_traits>
#include <utility>

namespace integration
{
namespace
{

using qv::kit::ContentType;
using qv::kit::Method;
using qv::kit::Request;
using qv::kit::Router;
using qv::kit::Server;
using ::testing::HasSubstr;

qv::kit::Handler naming(const std::string& name)
{
    return [name](Request& request) { request.reply(name); };
}

template <typename... Arguments>
using Reply = decltype(std::declval<Request&>().reply(std::declval<Arguments>()...));

template <typename Void, typename... Arguments> struct CanReply : std::false_type
{};
template <typename... Arguments>
struct CanReply<std::void_t<Reply<Arguments...>>, Arguments...> : std::true_type
{};
template <typename... Arguments> constexpr bool kCompiles = CanReply<void, Arguments...>::value;

// Swapped arguments are no response.
static_assert(kCompiles<std::string>);
static_assert(kCompiles<const char*>);
static_assert(kCompiles<int>);
static_assert(kCompiles<int, std::string>);
static_assert(kCompiles<std::string, ContentType>);
static_assert(kCompiles<int, std::string, ContentType>);
static_assert(!kCompiles<int, ContentType, std::string>);
static_assert(!kCompiles<std::string, int>);
static_assert(!kCompiles<std::string, std::string>);
static_assert(!kCompiles<std::string, const char*>);
static_assert(!kCompiles<int, std::string, const char*>);
static_assert(!kCompiles<int, std::string, std::string>);
static_assert(!kCompiles<ContentType, std::string>);
static_assert(!kCompiles<ContentType>);
static_assert(!kCompiles<bool>);
static_assert(!std::is_copy_constructible_v<Request> && !std::is_move_constructible_v<Request>);

TEST(KitRouting, ServesManyRequestsOnOneConnection)
{
    KitTestServer server([](Router& router) {
        router.get("/hello/{name}", [](Request& request) {
            request.reply("Hello, " + request.pathParameter("name") + "!");
        });
        router.put("/empty", [](Request& request) { request.reply(204); });
        router.get("/known", [](Request& request) { request.reply(304); });
        router.post("/moved", [](Request& request) {
            request.setHeader("Location", "/hello/a");
            request.reply(303);
        });
    });
    const std::string notFound = R"({"title":"Not Found","status":404})";
    const std::string notAllowed = R"({"title":"Method Not Allowed","status":405})";
    const struct
    {
        std::string bytes;
        int status;
        std::string body;
        const char* length;
        const char* allow;
    } rows[] = {
        {getRequest("/hello/a%2Fb"), 200, "Hello, a/b!", "11", ""},
        {"HEAD /hello/a HTTP/1.1\r\nHost: x\r\n\r\n", 200, "", "9", ""},
        {"HEAD /nowhere HTTP/1.1\r\nHost: x\r\n\r\n", 404, "", "34", ""},
        {getRequest("/nowhere"), 404, notFound, "34", ""},
        {getRequest("/hello/"), 404, notFound, "34", ""},
        {getRequest("/hello/a/b"), 404, notFound, "34", ""},
        {withBody("PUT", "/hello/a", "abc"), 405, notAllowed, "43", "GET, HEAD, OPTIONS"},
        {withBody("PUT", "/nowhere", "abc"), 404, notFound, "34", ""},
        {"OPTIONS /hello/a HTTP/1.1\r\nHost: x\r\n\r\n", 204, "", "", "GET, HEAD, OPTIONS"},
        {"OPTIONS * HTTP/1.1\r\nHost: x\r\n\r\n", 204, "", "", "GET, HEAD, POST, PUT, OPTIONS"},
        {withBody("PUT", "/empty", ""), 204, "", "", ""},
        {withBody("PUT", "/empty", "abc"), 204, "", "", ""},
        {getRequest("/known"), 304, "", "", ""},
        {withBody("POST", "/moved", "a"), 303, "", "0", ""},
    };
    RawClient client(server.port());
    for (int round = 0; round < 3; ++round) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.bytes);
            ASSERT_TRUE(client.send(row.bytes));
            const auto response = client.receive(row.bytes.compare(0, 4, "HEAD") == 0);
            ASSERT_TRUE(response);
            EXPECT_EQ(response->status, row.status);
            EXPECT_EQ(response->body, row.body);
            EXPECT_EQ(response->value("Allow"), row.allow);
            if (*row.length) {
                EXPECT_EQ(response->value("Content-Length"), row.length);
            }
        }
    }
    EXPECT_TRUE(server.stop());
    EXPECT_EQ(server.server().openRequests(), 0u);
    EXPECT_EQ(server.server().requestCount(), 3 * std::size(rows));
}

TEST(KitRouting, PrefersThePatternThatIsLiteralEarlier)
{
    KitTestServer server([](Router& router) {
        for (const char* pattern : {"/", "/a", "/a/b", "/a/{x}", "/{x}/b", "/{x}/{y}", "/a/{x}/c",
                                    "/files/{rest*}", "/files/{x}/raw", "/{all*}"})
            router.get(pattern, naming(pattern));
    });
    const struct
    {
        const char* target;
        const char* pattern;
    } rows[] = {{"/", "/"},
                {"/a", "/a"},
                {"/a/", "/{all*}"},
                {"/a/b", "/a/b"},
                {"/a/z", "/a/{x}"},
                {"/z/b", "/{x}/b"},
                {"/z/z", "/{x}/{y}"},
                {"/a/b/c", "/a/{x}/c"},
                {"/a/b/d", "/{all*}"},
                {"/files", "/files/{rest*}"},
                {"/files/", "/files/{rest*}"},
                {"/files/a", "/files/{rest*}"},
                {"/files/a/raw", "/files/{x}/raw"},
                {"/files/a/raw/b", "/files/{rest*}"},
                {"/z", "/{all*}"},
                {"/A", "/{all*}"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        EXPECT_EQ(server.get(row.target).body, row.pattern);
    }
}

TEST(KitRouting, GivesTheHandlerTheParametersOfItsOwnPattern)
{
    KitTestServer server([](Router& router) {
        router.get("/{a}/x/{b}", [](Request& request) {
            request.reply(request.pathParameter("a") + "," + request.pathParameter("b"));
        });
        router.put("/{c}/x/{d}", [](Request& request) {
            request.reply(request.pathParameter("c") + ";" + request.pathParameter("d"));
        });
        router.get("/r/{first}/{rest*}", [](Request& request) {
            request.reply(request.pathParameter("first") + "|" + request.pathParameter("rest"));
        });
    });
    EXPECT_EQ(server.get("/1/x/2%2F3").body, "1,2/3");
    EXPECT_EQ(server.ask(withBody("PUT", "/1/x/2", "")).body, "1;2");
    EXPECT_EQ(server.get("/r/1/2/3%2F4/").body, "1|2/3/4/");
    EXPECT_EQ(server.get("/r/1").body, "1|");
}

TEST(KitRouting, ServesEveryMethod)
{
    KitTestServer server([](Router& router) {
        router.get("/", naming("get"));
        router.post("/", naming("post"));
        router.put("/", naming("put"));
        router.del("/", naming("delete"));
        router.patch("/", naming("patch"));
        router.options("/", naming("options"));
        router.head("/", [](Request& request) {
            request.setHeader("X-By", "head");
            request.reply("1234");
        });
        router.any("/any", [](Request& request) {
            request.reply(std::to_string(static_cast<int>(request.method())));
        });
        router.put("/any", naming("own"));
    });
    for (const char* method : {"GET", "POST", "PUT", "DELETE", "PATCH", "OPTIONS"}) {
        std::string lower(method);
        for (char& c : lower)
            c = static_cast<char>(std::tolower(c));
        const std::string bytes = std::string(method) + " / HTTP/1.1\r\nHost: x\r\n\r\n";
        EXPECT_EQ(server.ask(bytes).body, lower);
    }
    EXPECT_EQ(server.ask("HEAD / HTTP/1.1\r\nHost: x\r\n\r\n").value("X-By"), "head");
    EXPECT_EQ(server.ask("HEAD / HTTP/1.1\r\nHost: x\r\n\r\n").value("Content-Length"), "4");
    EXPECT_EQ(server.ask("DELETE /any HTTP/1.1\r\nHost: x\r\n\r\n").body, "32");
    EXPECT_EQ(server.ask("OPTIONS /any HTTP/1.1\r\nHost: x\r\n\r\n").body, "2");
    EXPECT_EQ(server.ask("PUT /any HTTP/1.1\r\nHost: x\r\n\r\n").body, "own");
    EXPECT_EQ(server.ask("MOVE /any HTTP/1.1\r\nHost: x\r\n\r\n").status, 501);
}

TEST(KitRouting, RefusesABadRequestInJson)
{
    KitTestServer server([](Router& router) { router.get("/", naming("x")); });
    const RawResponse response = server.get("/%zz");
    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(response.value("Content-Type"), "application/problem+json");
    EXPECT_THAT(response.body, HasSubstr("\"status\":400"));
}

TEST(KitRouting, RefusesPatternsAndNamesThem)
{
    const struct
    {
        const char* pattern;
        const char* why;
    } rows[] = {{"", "does not begin with /"},      {"a", "does not begin with /"},
                {"/{}", "has a brace outside"},     {"/{a", "has a brace outside"},
                {"/x{a}", "has a brace outside"},   {"/{*}", "malformed parameter {*}"},
                {"/{a}/{a}", "parameter a twice"},  {"/{a*}/b", "{a*} before its end"},
                {"/{a{b}}", "malformed parameter"}, {"/known", "has a handler for GET already"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.pattern);
        Server server(kitOptions());
        server.router().get("/known", naming("x"));
        try {
            server.router().get(row.pattern, naming("y"));
            ADD_FAILURE() << "not refused";
        } catch (const std::invalid_argument& error) {
            EXPECT_THAT(error.what(), HasSubstr("\"" + std::string(row.pattern) + "\""));
            EXPECT_THAT(error.what(), HasSubstr(row.why));
        }
    }
    Server server(kitOptions());
    EXPECT_THROW(server.router().get("/", qv::kit::Handler()), std::invalid_argument);
    server.router().get("/both", naming("x")).streaming().nonBlocking();
    EXPECT_FALSE(server.start());
    EXPECT_EQ(server.failureReason(), "the route GET /both is both streaming and nonBlocking");
}

TEST(KitRouting, RefusesChangesAfterTheStart)
{
    qv::kit::Route* route = nullptr;
    KitTestServer server([&](Router& router) { route = &router.get("/known", naming("known")); });
    server.server().router().get("/late", naming("late")).nonBlocking();
    route->maxBodyBytes(1).streaming();
    EXPECT_TRUE(logged("GET /late: not added: the server has been started"));
    EXPECT_EQ(processLog->lines("GET /known: not changed: the server has been started").size(), 2u);
    EXPECT_EQ(server.get("/late").status, 404);
    EXPECT_EQ(server.get("/known").body, "known");
}

TEST(KitServers, SeveralServeInOneProcess)
{
    KitTestServer first([](Router& router) { router.get("/", naming("first")); });
    KitTestServer second([](Router& router) { router.get("/", naming("second")); });
    EXPECT_EQ(first.get("/").body, "first");
    EXPECT_EQ(second.get("/").body, "second");
    EXPECT_TRUE(first.stop());
    EXPECT_EQ(second.get("/").body, "second");
}

TEST(KitServers, AreStoppedAndStartedAgain)
{
    Server server(kitOptions());
    EXPECT_TRUE(server.stop(kLimit));
    server.router().get("/", naming("again"));
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(server.start()) << server.failureReason();
        EXPECT_TRUE(server.isRunning());
        EXPECT_FALSE(server.start());
        EXPECT_EQ(server.failureReason(), "the server is not stopped");
        ASSERT_EQ(server.urls().size(), 1u);
        const std::string url = server.urls().front();
        EXPECT_EQ(url, "http://" + server.endpoints().front() + "/");
        RawClient client(static_cast<uint16_t>(std::stoi(url.substr(url.rfind(':') + 1))));
        ASSERT_TRUE(client.send(getRequest("/")));
        EXPECT_EQ(client.receive().value_or(RawResponse()).body, "again");
        EXPECT_TRUE(server.stop(kLimit));
        EXPECT_TRUE(server.stop(kLimit));
        EXPECT_FALSE(server.isRunning());
    }
}

TEST(KitServers, SayWhyTheyCannotStart)
{
    KitTestServer taken([](Router& router) { router.get("/", naming("x")); });
    const std::string endpoint = taken.server().endpoints().front();
    Server server(kitOptions());
    EXPECT_FALSE(server.start(endpoint));
    EXPECT_EQ(server.failureReason(), "cannot listen on " + endpoint + ": address already in use");
    server.options().workers = 0;
    EXPECT_FALSE(server.start("127.0.0.1:0"));
    EXPECT_EQ(server.failureReason(), "ServerOptions::workers: 0 is not between 1 and 1024");
    server.options().workers = 1;
    server.options().threads = 0;
    EXPECT_FALSE(server.start("127.0.0.1:0"));
    EXPECT_THAT(server.failureReason(), HasSubstr("ServerOptions::threads"));
    server.options().threads = 1;
    EXPECT_TRUE(server.start("127.0.0.1:0")) << server.failureReason();
    EXPECT_EQ(server.failureReason(), "");
}

TEST(KitServers, AreStoppedByTheirDestruction)
{
    uint16_t port = 0;
    {
        KitTestServer server([](Router& router) { router.get("/", naming("x")); });
        port = server.port();
        EXPECT_EQ(server.get("/").body, "x");
    }
    EXPECT_FALSE(RawClient::accepts("127.0.0.1", port));
}

}  // namespace
}  // namespace integration
