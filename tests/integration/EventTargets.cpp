// Event-driven mode: request targets in absolute form, and the asterisk of OPTIONS.

#include "support/EventRun.h"
#include "support/RawClient.h"

#include <gmock/gmock.h>

#include <list>
#include <optional>
#include <string>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::onOneThread;
using integration::RawClient;
using integration::RawResponse;
using ::testing::EndsWith;
using ::testing::StartsWith;

std::string describe(const EventRequest& request)
{
    if (request.hasParseError())
        return request.getParseError() + "|" + request.getOriginalFullUrl();
    const std::list<std::string>* const host = request.getHeader("host");
    const std::list<std::string>* const argument = request.getQueryParameter("a");
    std::string text = request.getOriginalFullUrl() + "|" + request.getUrl().path() + "|";
    if (host)
        text += *request.getHeaders().findLine("host") + " x" + std::to_string(host->size());
    text += "|" + (argument ? argument->front() : std::string());
    text += "|" + std::to_string(request.getHeader("accept")->size());
    return text + "|" + *request.getHeaders().findLine("accept");
}

std::string seen(const std::string& method, const std::string& target, bool isStrict = true)
{
    qv::http::ServerOptions options = onOneThread();
    options.strictRequests = isStrict;
    EventRun run([](EventRequest& request) { request.respondHere(200, describe(request)); },
                 options);
    RawClient client(run.port());
    client.send(method + " " + target + " HTTP/1.1\r\nHost: first\r\nAccept: b;q=1 , c\r\n\r\n");
    const std::optional<RawResponse> response = client.receive();
    if (response && response->status == 400)
        return "refused";
    return response ? response->body : "no response";
}

TEST(EventTargets, GivesTheOriginFormOfATargetInAbsoluteForm)
{
    const std::string accept = "|2|b;q=1 , c";
    EXPECT_EQ(seen("GET", "/p/%41?a=1"), "/p/%41?a=1|/p/A|first x1|1" + accept);
    EXPECT_EQ(seen("GET", "http://other:81/p/%41?a=1"),
              "http://other:81/p/%41?a=1|/p/A|other:81 x1|1" + accept);
    EXPECT_EQ(seen("GET", "HTTPS://[::1]/p"), "HTTPS://[::1]/p|/p|[::1] x1|" + accept);
    EXPECT_EQ(seen("POST", "http://other"), "http://other|/|other x1|" + accept);
    EXPECT_EQ(seen("GET", "http://other?a=2"), "http://other?a=2|/|other x1|2" + accept);
}

TEST(EventTargets, TakesTheAsteriskOfOptionsOnly)
{
    EXPECT_EQ(seen("OPTIONS", "*"), "*|/|first x1||2|b;q=1 , c");
    EXPECT_EQ(seen("GET", "*"), "refused");
    EXPECT_THAT(seen("GET", "*", false), StartsWith("fail to parse request URI, "));
}

TEST(EventTargets, RefusesOtherForms)
{
    const struct
    {
        const char* target;
        bool isRefusedStrictly;
    } rows[] = {
        {"http:///p", true},         {"http://", true},  {"http://user@other/p", false},
        {"ftp://other/p", false},    {"other:80", true}, {"http//other/p", true},
        {"http://other/%zz", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.target);
        const std::string error = seen("GET", row.target, !row.isRefusedStrictly);
        EXPECT_THAT(error, StartsWith("fail to parse request URI, "));
        EXPECT_THAT(error, EndsWith("|Invalid URI"));
        if (row.isRefusedStrictly) {
            EXPECT_EQ(seen("GET", row.target), "refused");
        }
    }
}

}  // namespace
