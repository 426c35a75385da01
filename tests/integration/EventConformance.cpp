// Requirements of RFC 9110 and RFC 9112 on a server of HTTP/1.1, in event-driven mode with the
// default options: requests to serve and to refuse, and the end of each message.

#include "support/EventRun.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <vector>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::onOneThread;
using integration::RawClient;
using integration::RawResponse;
using testing::IsEmpty;
using testing::SizeIs;

enum class After {
    Open,            // the next request is served
    Closed,          // without a further byte
    ClosedByDaemon,  // its response has the head twice
    ClosedSilently   // without a response
};

struct Row
{
    const char* name;
    std::string bytes;
    std::vector<int> statuses;
    After after = After::Open;
    std::string body{};  // of the last response, if it is not empty
};

const std::string kLine = "GET / HTTP/1.1\r\n";
const std::string kHost = "Host: x\r\n";
const std::string kNext = kLine + kHost + "\r\n";
const std::string kPost = "POST / HTTP/1.1\r\n" + kHost;
const std::string kChunked = kPost + "Transfer-Encoding: chunked\r\n\r\n";

std::string get(const std::string& headerLines)
{
    return kLine + kHost + headerLines + "\r\n";
}

std::string startWith(const std::string& line)
{
    return line + "\r\n" + kHost + "\r\n";
}

std::string hostOf(const std::string& value)
{
    return kLine + "Host: " + value + "\r\n\r\n";
}

std::string lengthOf(const std::string& value)
{
    return kPost + "Content-Length: " + value + "\r\n\r\nabc";
}

// Any method at any target: a response with the body of the request.
class Conformance : public testing::Test
{
protected:
    void expectEach(const std::vector<Row>& rows)
    {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.name);
            RawClient client(mRun.port());
            client.send(row.bytes);
            expectResponses(client, row);
            expectEnd(client, row.after);
        }
    }

    EventRun& run() { return mRun; }

private:
    static void expectResponses(RawClient& client, const Row& row)
    {
        std::optional<RawResponse> response;
        for (const int status : row.statuses) {
            constexpr int kContinue = 100;
            response = status == kContinue ? client.receiveHead() : client.receive();
            ASSERT_TRUE(response) << "in place of " << status;
            EXPECT_EQ(response->status, status);
            if (status == 200) {
                EXPECT_THAT(response->values("Date"), SizeIs(1));
            }
        }
        if (!row.body.empty()) {
            EXPECT_EQ(response->body, row.body);
        }
    }

    static void expectEnd(RawClient& client, After after)
    {
        if (after == After::Open) {
            client.send(getRequest("/next"));
            const auto next = client.receive();
            EXPECT_TRUE(next && next->status == 200 && next->body.empty());
            return;
        }
        if (after == After::ClosedByDaemon)
            client.receiveToEnd();
        EXPECT_TRUE(client.isClosedByServer());
    }

    void handle(EventRequest& request)
    {
        const std::string& target = request.getOriginalFullUrl();
        if (request.hasParseError())
            return request.respondHere(400, "");
        if (target == "/204" || target == "/304") {
            request.response.statusCode = target == "/204" ? 204 : 304;
            request.getResponseDevice().setResponseReady();
            return;
        }
        if (target == "/stream") {
            mRun.work(request, [](EventRequest& r) {
                if (r.beginStream())
                    r.getResponseDevice().writeBytes("streamed", 8);
                r.getResponseDevice().endSending();
            });
            return;
        }
        if (!request.getHeader("content-length") && !request.getHeader("transfer-encoding"))
            return request.respondHere(200, "");
        mRun.work(request, [](EventRequest& r) { r.respond(200, r.readBody()); });
    }

    EventRun mRun{[this](EventRequest& request) { handle(request); }, onOneThread()};
};

TEST_F(Conformance, OfRequestLines)
{
    expectEach({
        {"origin form", kNext, {200}},
        {"empty lines before it", "\r\n\r\n" + kNext, {200}},
        {"absolute form", startWith("GET http://x/p?q HTTP/1.1"), {200}},
        {"absolute form of another host", startWith("GET http://y/p HTTP/1.1"), {200}},
        {"absolute form without a path", startWith("GET http://x HTTP/1.1"), {200}},
        {"absolute form, https", startWith("GET https://x/p HTTP/1.1"), {200}},
        {"asterisk form", startWith("OPTIONS * HTTP/1.1"), {200}},
        {"OPTIONS of a target", startWith("OPTIONS / HTTP/1.1"), {200}},
        {"asterisk with GET", startWith("GET * HTTP/1.1"), {400}, After::Closed},
        {"CONNECT", startWith("CONNECT x:80 HTTP/1.1"), {400}},
        {"CONNECT with a path", startWith("CONNECT / HTTP/1.1"), {400}, After::Closed},
        {"later minor version", startWith("GET / HTTP/1.2"), {200}},
        {"other major version", startWith("GET / HTTP/2.0"), {505}, After::ClosedByDaemon},
        {"version in lower case", startWith("GET / http/1.1"), {400}, After::ClosedByDaemon},
        {"version without a minor", startWith("GET / HTTP/1"), {400}, After::ClosedByDaemon},
        {"minor version of two digits", startWith("GET / HTTP/1.10"), {400}, After::ClosedByDaemon},
        {"no version", "GET /\r\n", {400}, After::ClosedByDaemon},
        {"space behind the version", startWith("GET / HTTP/1.1 "), {400}, After::ClosedByDaemon},
        {"two spaces before the target", startWith("GET  / HTTP/1.1"), {400}, After::Closed},
        {"two spaces behind it", startWith("GET /  HTTP/1.1"), {}, After::ClosedSilently},
        {"tabs", startWith("GET\t/\tHTTP/1.1"), {}, After::ClosedSilently},
        {"space in the target", startWith("GET /a b HTTP/1.1"), {}, After::ClosedSilently},
        {"space before the method", " " + kNext, {}, After::ClosedSilently},
        {"method that is no token", startWith("G(T / HTTP/1.1"), {400}, After::Closed},
        {"target without a slash", startWith("GET a HTTP/1.1"), {400}, After::Closed},
        {"fragment", startWith("GET /#a HTTP/1.1"), {400}, After::Closed},
        {"CR in the target", startWith("GET /\ra HTTP/1.1"), {400}, After::Closed},
        {"percent without digits", startWith("GET /%zz HTTP/1.1"), {400}},
        {"long target",
         startWith("GET /" + std::string(40000, 'a') + " HTTP/1.1"),
         {414},
         After::ClosedByDaemon},
        {"preface of HTTP/2", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", {505}, After::ClosedByDaemon},
    });
}

TEST_F(Conformance, OfHosts)
{
    expectEach({
        {"none", kLine + "\r\n", {400}, After::ClosedByDaemon},
        {"two", get(kHost), {400}, After::Closed},
        {"two in HTTP/1.0", "GET / HTTP/1.0\r\n" + kHost + kHost + "\r\n", {400}, After::Closed},
        {"none in HTTP/1.0", "GET / HTTP/1.0\r\n\r\n", {200}, After::Closed},
        {"empty", hostOf(""), {200}},
        {"with a port", hostOf("x:80"), {200}},
        {"address of IPv6", hostOf("[::1]:80"), {200}},
        {"with a space", hostOf("a b"), {400}, After::Closed},
        {"a list", hostOf("a, b"), {400}, After::Closed},
        {"with a path", hostOf("a/b"), {400}, After::Closed},
        {"with a user", hostOf("u@a"), {400}, After::Closed},
        {"with a port that is no number", hostOf("a:80a"), {400}, After::Closed},
        {"with two ports", hostOf("a:80:80"), {400}, After::Closed},
        {"malformed beside an absolute form",
         "GET http://x/ HTTP/1.1\r\nHost: a b\r\n\r\n",
         {400},
         After::Closed},
    });
}

TEST_F(Conformance, OfHeaderLines)
{
    expectEach({
        {"no value", get("A:\r\n"), {200}},
        {"no space before the value", get("A:b\r\n"), {200}},
        {"bytes from 0x80", get("A: \xe4\r\n"), {200}},
        {"a hundred",
         get([] {
             std::string lines;
             for (int i = 0; i < 100; ++i)
                 lines += "H" + std::to_string(i) + ": v\r\n";
             return lines;
         }()),
         {200}},
        {"space before the colon", get("A : b\r\n"), {400}, After::Closed},
        {"folded", get("A: b\r\n c\r\n"), {400}, After::Closed},
        {"space before the first", kLine + " A: b\r\n" + kHost + "\r\n", {400}, After::Closed},
        {"NUL in a value", get("A: b" + std::string(1, '\0') + "c\r\n"), {400}, After::Closed},
        {"CR in a value", get("A: b\rc\r\n"), {400}, After::Closed},
        {"control character in a value", get("A: b\x01\r\n"), {400}, After::Closed},
        {"empty name", get(": b\r\n"), {400}, After::Closed},
        {"name that is no token", get("A(: b\r\n"), {400}, After::Closed},
        {"no colon", get("abc\r\n"), {400}, After::ClosedByDaemon},
        {"LF as the end of every line", "GET / HTTP/1.1\nHost: x\n\n", {400}, After::Closed},
    });
}

TEST_F(Conformance, OfTheLengthOfABody)
{
    expectEach({
        {"declared", lengthOf("3"), {200}, After::Open, "abc"},
        {"leading zeros", lengthOf("03"), {200}, After::Open, "abc"},
        {"with GET", get("Content-Length: 3\r\n") + "abc", {200}, After::Open, "abc"},
        {"none with POST", kPost + "\r\n", {200}},
        {"line end behind the body", lengthOf("3") + "\r\n" + kNext, {200, 200}},
        {"beside a coding",
         kPost + "Content-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" + kNext,
         {400},
         After::Closed},
        {"twice", get("Content-Length: 3\r\nContent-Length: 3\r\n") + "abc", {400}, After::Closed},
        {"two", get("Content-Length: 3\r\nContent-Length: 4\r\n") + "abc", {400}, After::Closed},
        {"a list", lengthOf("3, 3"), {400}, After::ClosedByDaemon},
        {"plus sign", lengthOf("+3"), {400}, After::ClosedByDaemon},
        {"minus sign", lengthOf("-3"), {400}, After::ClosedByDaemon},
        {"hexadecimal", lengthOf("0x3"), {400}, After::ClosedByDaemon},
        {"empty", lengthOf(""), {400}, After::ClosedByDaemon},
        {"2^64 + 3", lengthOf("18446744073709551619"), {413}, After::ClosedByDaemon},
        {"coding in HTTP/1.0",
         "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
         {400},
         After::Closed},
        {"unknown coding", kPost + "Transfer-Encoding: gzip\r\n\r\n", {501}, After::Closed},
        {"unknown coding before chunked",
         kPost + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n",
         {501},
         After::Closed},
        {"chunked is not the last coding",
         kPost + "Transfer-Encoding: chunked, gzip\r\n\r\n0\r\n\r\n",
         {501},
         After::Closed},
    });
}

TEST_F(Conformance, OfChunks)
{
    expectEach({
        {"chunked", kChunked + "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n", {200}, After::Open, "abcde"},
        {"extensions",
         kChunked + "3;a=b;c=\"d;e\"\r\nabc\r\n0;f\r\n\r\n",
         {200},
         After::Open,
         "abc"},
        {"sizes in both cases and with zeros",
         kChunked + "00A\r\n0123456789\r\na\r\n0123456789\r\n000\r\n\r\n",
         {200},
         After::Open,
         "01234567890123456789"},
        {"trailers of every kind are discarded",
         kChunked + "3\r\nabc\r\n0\r\nContent-Length: 5\r\nHost: y\r\nA: b\r\n\r\n",
         {200},
         After::Open,
         "abc"},
        {"a request behind it", kChunked + "3\r\nabc\r\n0\r\n\r\n" + kNext, {200, 200}},
        {"size that is no number", kChunked + "zz\r\nabc\r\n", {400}, After::ClosedByDaemon},
        {"negative size", kChunked + "-3\r\nabc\r\n", {400}, After::ClosedByDaemon},
        {"size of more than 64 bits",
         kChunked + "10000000000000003\r\nabc\r\n",
         {413},
         After::ClosedByDaemon},
        {"data longer than the size", kChunked + "3\r\nabcd\r\n", {400}, After::ClosedByDaemon},
    });
}

TEST_F(Conformance, OfExpectations)
{
    const std::string expect = "Expect: 100-continue\r\n";
    const std::string post = "Content-Length: 3\r\n\r\n";
    expectEach({
        {"before a body", kPost + expect + post + "abc", {100, 200}, After::Open, "abc"},
        {"in another case",
         kPost + "expect: 100-Continue\r\n" + post + "abc",
         {100, 200},
         After::Open,
         "abc"},
        {"in HTTP/1.0", "POST / HTTP/1.0\r\n" + expect + post + "abc", {200}, After::Closed, "abc"},
        {"of another kind", kPost + "Expect: a\r\n" + post + "abc", {200}, After::Open, "abc"},
        {"without a body", get(expect), {100, 200}},
    });
}

// The daemon takes the request behind it for a body at first.
TEST_F(Conformance, OfExpectationsWithoutABodyInAPipeline)
{
    for (int i = 0; i < 50; ++i) {
        for (const char* target : {"/", "/stream"}) {
            const std::string expecting = getRequest(target, "Expect: 100-continue\r\n");
            expectEach({
                {"before another", expecting + kNext, {100, 200, 200}},
                {"before one with a body", expecting + lengthOf("3"), {100, 200, 200}},
                {"twice", expecting + expecting, {100, 200, 100, 200}},
            });
        }
    }
}

TEST_F(Conformance, OfTheEndOfAConnection)
{
    const std::string old = "GET / HTTP/1.0\r\n";
    expectEach({
        {"close", get("Connection: close\r\n") + kNext, {200}, After::Closed},
        {"close in another case", get("Connection: CLOSE\r\n") + kNext, {200}, After::Closed},
        {"close in a list", get("Connection: a, close\r\n") + kNext, {200}, After::Closed},
        {"close in a second header",
         get("Connection: a\r\nConnection: close\r\n") + kNext,
         {200},
         After::Closed},
        {"HTTP/1.0", old + "\r\n" + kNext, {200}, After::Closed},
        {"HTTP/1.0, kept alive", old + "Connection: keep-alive\r\n\r\n" + kNext, {200, 200}},
        {"pipeline", kNext + lengthOf("3") + kNext + kNext, {200, 200, 200, 200}},
        {"upgrade that nobody knows",
         get("Connection: Upgrade, HTTP2-Settings\r\nUpgrade: h2c\r\nHTTP2-Settings: AA\r\n"),
         {200}},
    });
}

// After `response` without a body: the next response, unless the connection ends.
void expectTheNext(RawClient& client, const RawResponse& response)
{
    const auto next = client.receive();
    if (response.values("Connection").empty()) {
        EXPECT_TRUE(next && next->status == 200);
    } else {
        EXPECT_FALSE(next);
        EXPECT_TRUE(client.isClosedByServer());
    }
}

TEST_F(Conformance, OfResponsesWithoutABody)
{
    for (const char* target : {"/204", "/304"}) {
        SCOPED_TRACE(target);
        RawClient client(run().port());
        ASSERT_TRUE(client.send(getRequest(target) + kNext));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_THAT(response->values("Transfer-Encoding"), IsEmpty());
        if (response->status == 204) {
            EXPECT_THAT(response->values("Content-Length"), IsEmpty());
        }
        expectTheNext(client, *response);
    }
}

TEST_F(Conformance, OfHead)
{
    for (const char* target : {"/", "/stream"}) {
        SCOPED_TRACE(target);
        RawClient client(run().port());
        ASSERT_TRUE(
            client.send("HEAD " + std::string(target) + " HTTP/1.1\r\n" + kHost + "\r\n" + kNext));
        const auto response = client.receive(true);
        ASSERT_TRUE(response);
        EXPECT_EQ(response->status, 200);
        expectTheNext(client, *response);
    }
}

// A client of HTTP/1.0 does not know chunks: the end of the connection is that of the body.
TEST_F(Conformance, OfABodyOfUnknownLength)
{
    const struct
    {
        const char* version;
        bool isChunked;
    } rows[] = {{"HTTP/1.0", false}, {"HTTP/1.1", true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.version);
        RawClient client(run().port());
        ASSERT_TRUE(
            client.send("GET /stream " + std::string(row.version) + "\r\n" + kHost + "\r\n"));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->body, "streamed");
        EXPECT_EQ(response->value("Transfer-Encoding"), row.isChunked ? "chunked" : "");
        EXPECT_THAT(response->values("Content-Length"), IsEmpty());
    }
}

}  // namespace
