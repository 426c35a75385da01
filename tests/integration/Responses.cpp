// Responses on the wire: their time, framing and heads.

#include "support/CurlClient.h"
#include "support/Pattern.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"
#include "support/TestServer.h"

#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace
{

using integration::Channel;
using integration::CurlClient;
using integration::CurlResult;
using integration::getRequest;
using integration::Latch;
using integration::PatternChecker;
using integration::processLog;
using integration::RawClient;
using integration::RawResponse;
using integration::TestRequest;
using integration::TestServer;
using integration::TestServerOptions;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint64_t kLargeBodyBytes = uint64_t{WENDREL_TEST_LARGE_BODY_MIB} * 1024 * 1024;

// Sends a request that shows whether a connection is still usable after a response.
void expectUsable(RawClient& client)
{
    ASSERT_TRUE(client.send(getRequest("/again")));
    const auto response = client.receive();
    ASSERT_TRUE(response) << "no second response on the connection";
    EXPECT_EQ(response->statusLine, "HTTP/1.1 200 OK");
    EXPECT_EQ(response->body, "again");
}

// Serves "/again" and leaves every other target to `behaviour`.
integration::Behaviour withAgain(const integration::Behaviour& behaviour)
{
    return [behaviour](TestRequest& request) {
        if (request.getOriginalFullUrl() == "/again")
            request.respond(200, "again");
        else
            behaviour(request);
    };
}

TEST(Response, IsSentWhenReadyAtOnce)
{
    TestServer server([](TestRequest& request) { request.respond(200, "at once"); });
    CurlClient client;
    const CurlResult result = client.get(server.url());
    EXPECT_EQ(result.code, CURLE_OK);
    EXPECT_EQ(result.status, 200);
    EXPECT_EQ(result.body, "at once");
    EXPECT_TRUE(result.hasHeaderLine("Content-Length: 7"));
}

TEST(Response, IsSentWhenReadyAfter300Ms)
{
    constexpr std::chrono::milliseconds kComputing{300};
    TestServer server([&](TestRequest& request) {
        std::this_thread::sleep_for(kComputing);
        request.respond(200, "later");
    });
    CurlClient client;
    const auto start = std::chrono::steady_clock::now();
    const CurlResult result = client.get(server.url());
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(result.body, "later");
    EXPECT_GE(elapsed, kComputing);
}

// Each piece is written only after the client has the one before: nothing is kept back until the
// end, and the daemon finds the stream dry between the pieces.
TEST(Response, IsStreamedForLongerThanItTakesToSend)
{
    constexpr int kPieces = 8;
    constexpr std::chrono::milliseconds kStall{250};
    Channel<int> received;
    TestServer server([&](TestRequest& request) {
        ASSERT_TRUE(request.beginStream());
        auto& device = request.getResponseDevice();
        for (int i = 0; i < kPieces; ++i) {
            const std::string piece = "piece " + std::to_string(i) + "\n";
            EXPECT_EQ(device.writeBytes(piece.data(), piece.size()), piece.size());
            device.flush();
            ASSERT_TRUE(received.pop()) << "the client did not get piece " << i;
            if (i == 0)
                std::this_thread::sleep_for(kStall);
        }
        device.endSending();
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    const auto head = client.receiveHead();
    ASSERT_TRUE(head);
    EXPECT_EQ(head->value("Transfer-Encoding"), "chunked");
    for (int i = 0; i < kPieces; ++i) {
        const std::string chunk = "8\r\npiece " + std::to_string(i) + "\n\r\n";
        ASSERT_EQ(client.receiveExactly(chunk.size()), chunk);
        received.push(i);
    }
    EXPECT_EQ(client.receiveExactly(5), "0\r\n\r\n");
}

TEST(Response, OfUnknownLengthIsChunkedForHttp11)
{
    TestServer server(
        withAgain([](TestRequest& request) { EXPECT_TRUE(request.streamPattern(200000, 7777)); }));
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->value("Transfer-Encoding"), "chunked");
    EXPECT_THAT(response->values("Content-Length"), IsEmpty());
    EXPECT_EQ(response->body, integration::pattern(200000));
    expectUsable(client);
}

TEST(Response, OfUnknownLengthEndsWithTheConnectionForHttp10)
{
    TestServer server(
        [](TestRequest& request) { EXPECT_TRUE(request.streamPattern(200000, 7777)); });
    for (const char* wish : {"", "Connection: keep-alive\r\n"}) {
        SCOPED_TRACE(wish);
        RawClient client(server.port());
        ASSERT_TRUE(client.send(std::string("GET / HTTP/1.0\r\n") + wish + "\r\n"));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->statusLine, "HTTP/1.1 200 OK");
        EXPECT_EQ(response->value("Connection"), "close");
        EXPECT_THAT(response->values("Transfer-Encoding"), IsEmpty());
        EXPECT_THAT(response->values("Content-Length"), IsEmpty());
        EXPECT_EQ(response->body, integration::pattern(200000));
    }
}

TEST(Response, IsStreamedWithADeclaredLength)
{
    TestServer server([](TestRequest& request) {
        const uint64_t size = std::stoull(request.getQueryParameter("size")->front());
        request.response.contentLength = static_cast<int64_t>(size);
        EXPECT_TRUE(request.streamPattern(size, 10000));
    });
    CurlClient client;
    for (const uint64_t size :
         {uint64_t{1}, uint64_t{65535}, uint64_t{65536}, uint64_t{65537}, kLargeBodyBytes}) {
        SCOPED_TRACE(size);
        PatternChecker checker;
        const std::string number = std::to_string(size);
        const CurlResult result = client.getPattern(server.url("/?size=" + number), checker);
        EXPECT_EQ(result.code, CURLE_OK) << curl_easy_strerror(result.code);
        EXPECT_TRUE(result.hasHeaderLine("Content-Length: " + number));
        EXPECT_EQ(checker.bytes(), size);
        EXPECT_TRUE(checker.matches());
    }
}

TEST(Response, IsStreamedWithUnknownLengthWhenLarge)
{
    TestServer server(
        [](TestRequest& request) { EXPECT_TRUE(request.streamPattern(kLargeBodyBytes, 300000)); });
    CurlClient client;
    PatternChecker checker;
    const CurlResult result = client.getPattern(server.url(), checker);
    EXPECT_EQ(result.code, CURLE_OK) << curl_easy_strerror(result.code);
    EXPECT_EQ(checker.bytes(), kLargeBodyBytes);
    EXPECT_TRUE(checker.matches());
}

TEST(Response, IsSentFromOneBufferWhenComplete)
{
    TestServer server([](TestRequest& request) {
        const size_t size = std::stoull(request.getQueryParameter("size")->front());
        request.respond(200, integration::pattern(size));
        EXPECT_TRUE(
            integration::waitUntil([&request] { return request.getResponseDevice().atEnd(); }));
    });
    CurlClient client;
    for (const size_t size : {size_t{0}, size_t{1}, size_t{65535}, size_t{65536}, size_t{65537},
                              size_t{10} * 1024 * 1024}) {
        SCOPED_TRACE(size);
        PatternChecker checker;
        const std::string number = std::to_string(size);
        const CurlResult result = client.getPattern(server.url("/?size=" + number), checker);
        EXPECT_EQ(result.code, CURLE_OK);
        EXPECT_TRUE(result.hasHeaderLine("Content-Length: " + number));
        EXPECT_EQ(checker.bytes(), size);
        EXPECT_TRUE(checker.matches());
    }
}

// Required: the declared length is not looked at when the body is complete.
TEST(Response, FromOneBufferHasTheLengthOfTheBuffer)
{
    TestServer server([](TestRequest& request) {
        request.response.contentLength = 20;
        request.respond(200, "ten bytes.");
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->value("Content-Length"), "10");
    EXPECT_EQ(response->body, "ten bytes.");
}

TEST(Response, ThatEndsBeforeItsDeclaredLengthClosesTheConnection)
{
    TestServer server([](TestRequest& request) {
        request.response.contentLength = 20;
        ASSERT_TRUE(request.beginStream());
        request.getResponseDevice().writeBytes("ten bytes.", 10);
        request.getResponseDevice().endSending();
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    const auto head = client.receiveHead();
    ASSERT_TRUE(head);
    EXPECT_EQ(head->value("Content-Length"), "20");
    EXPECT_EQ(client.receiveToEnd(), "ten bytes.");
}

TEST(Response, IsTheErrorBodyWhenTheDeviceIsInErrorBeforeItIsDue)
{
    TestServerOptions options;
    options.errorBody = "{\"error\":\"internal\"}";
    TestServer server(withAgain([](TestRequest& request) {
                          char byte = 0;
                          EXPECT_EQ(request.getResponseDevice().readBytes(&byte, 1), 0u);
                          EXPECT_EQ(request.connectionError(), "read not implemented");
                          request.response.headers["x-own"] = {"X-Own", "lost"};
                          request.respond(200, "lost");
                      }),
                      options);
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->statusLine, "HTTP/1.1 500 Internal Server Error");
    EXPECT_EQ(response->body, options.errorBody);
    EXPECT_THAT(response->values("Content-Type"), IsEmpty());
    EXPECT_THAT(response->values("X-Own"), IsEmpty());
    expectUsable(client);
}

TEST(Response, IsAnEmpty500WhenTheErrorBodyIsEmpty)
{
    TestServerOptions options;
    options.errorBody = "";
    TestServer server(
        [](TestRequest& request) {
            request.getResponseDevice().setDeviceError("nothing to say");
            request.respond(200, "lost");
        },
        options);
    CurlClient client;
    const CurlResult result = client.get(server.url());
    EXPECT_EQ(result.code, CURLE_OK);
    EXPECT_EQ(result.status, 500);
    EXPECT_TRUE(result.hasHeaderLine("Content-Length: 0"));
    EXPECT_EQ(result.body, "");
}

TEST(Response, BreaksOffWhenTheDeviceMeetsAnErrorInTheStream)
{
    TestServer server([](TestRequest& request) {
        ASSERT_TRUE(request.beginStream());
        request.getResponseDevice().writeBytes("begun", 5);
        request.getResponseDevice().flush();
        EXPECT_TRUE(integration::waitUntil(
            [&request] { return !request.getResponseDevice().hasDataToSend(); }));
        request.getResponseDevice().setDeviceError("the disk is full");
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    ASSERT_TRUE(client.receiveHead());
    EXPECT_EQ(client.receiveToEnd(), "5\r\nbegun\r\n");
    EXPECT_TRUE(processLog->waitForLine(
        integration::isEventDriven()
            ? "libmicrohttpd: Failed to send the chunked response body for the request for `/'. "
              "Error: The socket is no longer available for sending"
            : "libmicrohttpd: Closing connection (application error generating response)."));
}

TEST(Response, ToHeadHasNoBody)
{
    TestServer server(withAgain([](TestRequest& request) { request.respond(200, "the body"); }));
    RawClient client(server.port());
    ASSERT_TRUE(client.send("HEAD / HTTP/1.1\r\nHost: x\r\n\r\n"));
    const auto response = client.receive(true);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 200);
    EXPECT_EQ(response->value("Content-Length"), "8");
    expectUsable(client);
}

TEST(Response, ToHeadMayDeclareALengthWithoutABody)
{
    TestServer server(withAgain([](TestRequest& request) {
        request.response.contentLength = 5000000000;
        EXPECT_TRUE(request.beginStream());
        request.getResponseDevice().endSending();
    }));
    RawClient client(server.port());
    ASSERT_TRUE(client.send("HEAD / HTTP/1.1\r\nHost: x\r\n\r\n"));
    const auto response = client.receive(true);
    ASSERT_TRUE(response);
    EXPECT_EQ(response->value("Content-Length"), "5000000000");
    expectUsable(client);
}

TEST(Response, WithStatus204Or304HasNoBody)
{
    const struct
    {
        uint32_t status;
        const char* line;
    } rows[] = {{204, "HTTP/1.1 204 No Content"}, {304, "HTTP/1.1 304 Not Modified"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        TestServer server(withAgain([&row](TestRequest& request) {
            request.response.headers["etag"] = {"ETag", "\"v1\""};
            request.respond(row.status, "");
        }));
        RawClient client(server.port());
        ASSERT_TRUE(client.send(getRequest("/")));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->statusLine, row.line);
        EXPECT_EQ(response->value("ETag"), "\"v1\"");
        EXPECT_THAT(response->values("Transfer-Encoding"), IsEmpty());
        expectUsable(client);
    }
}

TEST(Response, HasTheStatusOfTheApplication)
{
    TestServer server([](TestRequest& request) {
        request.respond(
            static_cast<uint32_t>(std::stoul(request.getQueryParameter("status")->front())),
            "text");
    });
    CurlClient client;
    for (const long status : {200L, 201L, 299L, 400L, 404L, 418L, 451L, 503L, 599L, 999L}) {
        SCOPED_TRACE(status);
        const CurlResult result = client.get(server.url("/?status=" + std::to_string(status)));
        EXPECT_EQ(result.code, CURLE_OK);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.body, "text");
    }
}

TEST(Response, WithAStatusOutsideTheRangeClosesTheConnection)
{
    for (const uint32_t status : {99u, 1000u}) {
        SCOPED_TRACE(status);
        Channel<std::string> error;
        TestServer server([&](TestRequest& request) {
            request.respond(status, "never sent");
            EXPECT_TRUE(request.waitForConnectionError());
            error.push(request.connectionError());
        });
        RawClient client(server.port());
        ASSERT_TRUE(client.send(getRequest("/")));
        EXPECT_TRUE(client.isClosedByServer());
        EXPECT_EQ(error.pop(), "Http response device : WriteError");
    }
}

TEST(Response, HasItsHeadersInTheOrderOfTheKeys)
{
    TestServer server([](TestRequest& request) {
        request.response.headers = {
            {"2", {"Alpha", "second"}}, {"1", {"Zulu", "first"}}, {"3", {"Mike", "third"}}};
        request.respond(200, "");
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    std::vector<std::string> own;
    for (const auto& header : response->headers) {
        if (header.first != "Date" && header.first != "Content-Length")
            own.push_back(header.first + "=" + header.second);
    }
    EXPECT_THAT(own, ElementsAre("Zulu=first", "Alpha=second", "Mike=third"));
}

TEST(Response, HasItsCookiesAfterItsHeaders)
{
    TestServer server([](TestRequest& request) {
        request.response.cookies = {{"session", "s1; HttpOnly"}, {"language", "en"}};
        request.response.headers = {{"x-last", {"X-Last", "1"}}};
        request.respond(200, "");
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(getRequest("/")));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    std::vector<std::string> own;
    for (const auto& header : response->headers) {
        if (header.first == "X-Last" || header.first == "Set-cookie")
            own.push_back(header.first + ": " + header.second);
    }
    EXPECT_THAT(own, ElementsAre("X-Last: 1", "Set-cookie: language=en",
                                 "Set-cookie: session=s1; HttpOnly"));
}

TEST(Response, CountsItsHeadersButNotItsCookies)
{
    Channel<uint64_t> counted;
    TestServer server([&](TestRequest& request) {
        request.response.headers = {{"a", {"X-A", "12345"}}, {"b", {"X-Bc", "1"}}};
        request.response.cookies = {{"session", "s1"}};
        request.respond(200, "body");
        // Completed after the head has been made.
        EXPECT_TRUE(integration::waitUntil([&request] { return request.isCompleted(); }));
        EXPECT_GE(request.getResponseStartMs(), 0);
        EXPECT_GE(request.getReceiveDurationMs(), 0);
        counted.push(request.getResponseHeadBytes());
    });
    CurlClient client;
    EXPECT_EQ(client.get(server.url()).body, "body");
    EXPECT_EQ(counted.pop(), uint64_t{(3 + 5 + 3) + (4 + 1 + 3)});
}

TEST(Response, CannotBeWrittenByAnotherThreadThanTheWorker)
{
    TestServer server([](TestRequest& request) {
        uint64_t taken = 1;
        std::thread other([&] { taken = request.getResponseDevice().writeBytes("other", 5); });
        other.join();
        EXPECT_EQ(taken, 0u);
        request.respond(200, "worker");
    });
    CurlClient client;
    EXPECT_EQ(client.get(server.url()).body, "worker");
}

}  // namespace
