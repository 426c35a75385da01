// Uploaded bodies, from the client to the worker that reads them.

#include "support/CurlClient.h"
#include "support/Pattern.h"
#include "support/RawClient.h"
#include "support/TestServer.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace
{

using integration::Channel;
using integration::CurlClient;
using integration::CurlResult;
using integration::Latch;
using integration::PatternChecker;
using integration::RawClient;
using integration::TestRequest;
using integration::TestServer;

constexpr uint64_t kLargeBodyBytes = uint64_t{WENDREL_TEST_LARGE_BODY_MIB} * 1024 * 1024;
constexpr size_t kReadBytes = 100000;

// Reads the whole body, compares it with the pattern and responds with the result.
void checkUpload(TestRequest& request)
{
    PatternChecker checker;
    std::vector<char> buffer(kReadBytes);
    auto& device = request.getReceiveDevice();
    while (!device.atEnd()) {
        const uint64_t got = device.readBytes(buffer.data(), buffer.size());
        checker.take(buffer.data(), static_cast<size_t>(got));
    }
    EXPECT_EQ(device.getReceivedBytes(), checker.bytes());
    EXPECT_FALSE(device.hasDeviceError()) << device.getDeviceErrorMsg();
    request.respond(200, std::to_string(checker.bytes()) +
                             (checker.matches() ? " as sent" : " other bytes"));
}

struct Upload
{
    const char* name;
    bool chunked;
    bool expectContinue;
};

class RequestBody : public ::testing::TestWithParam<Upload>
{
protected:
    void put(CurlClient& client, uint64_t size)
    {
        const CurlResult result = client.putPattern(server.url("/upload"), size, GetParam().chunked,
                                                    GetParam().expectContinue);
        EXPECT_EQ(result.code, CURLE_OK) << curl_easy_strerror(result.code);
        EXPECT_EQ(result.status, 200);
        EXPECT_EQ(result.body, std::to_string(size) + " as sent");
        EXPECT_EQ(result.hasHeaderLine("HTTP/1.1 100 Continue"), GetParam().expectContinue);
    }

    TestServer server{checkUpload};
};

TEST_P(RequestBody, ArrivesWhole)
{
    CurlClient client;
    for (const uint64_t size : {0, 1, 65535, 65536, 65537}) {
        SCOPED_TRACE(size);
        put(client, size);
    }
}

TEST_P(RequestBody, ArrivesWholeWhenLarge)
{
    CurlClient client;
    put(client, kLargeBodyBytes);
}

INSTANTIATE_TEST_SUITE_P(, RequestBody,
                         ::testing::Values(Upload{"WithLength", false, false},
                                           Upload{"WithLengthExpecting100", false, true},
                                           Upload{"Chunked", true, false},
                                           Upload{"ChunkedExpecting100", true, true}),
                         [](const auto& upload) { return std::string(upload.param.name); });

std::string postHead(const std::string& headerLines)
{
    return "POST /upload HTTP/1.1\r\nHost: x\r\n" + headerLines + "\r\n";
}

TEST(RawRequestBody, IsAskedForBeforeItIsSent)
{
    TestServer server(checkUpload);
    RawClient client(server.port());
    ASSERT_TRUE(client.send(postHead("Content-Length: 10\r\nExpect: 100-continue\r\n")));
    const auto go = client.receiveHead();
    ASSERT_TRUE(go);
    EXPECT_EQ(go->statusLine, "HTTP/1.1 100 Continue");
    ASSERT_TRUE(client.send(integration::pattern(10)));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, "10 as sent");
}

TEST(RawRequestBody, ArrivesByteByByte)
{
    TestServer server(checkUpload);
    RawClient client(server.port());
    const std::string body = integration::pattern(300);
    ASSERT_TRUE(client.send(postHead("Content-Length: 300\r\n")));
    for (const char byte : body)
        ASSERT_TRUE(client.send(std::string_view(&byte, 1)));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, "300 as sent");
}

TEST(RawRequestBody, ArrivesInChunksOfOneByte)
{
    TestServer server(checkUpload);
    RawClient client(server.port());
    std::string framed;
    for (const char byte : integration::pattern(300))
        framed += std::string("1\r\n") + byte + "\r\n";
    ASSERT_TRUE(client.send(postHead("Transfer-Encoding: chunked\r\n") + framed + "0\r\n\r\n"));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, "300 as sent");
}

TEST(RawRequestBody, EndsAtItsLengthAndTheNextRequestBegins)
{
    TestServer server(checkUpload);
    RawClient client(server.port());
    const std::string request = postHead("Content-Length: 3\r\n") + integration::pattern(3);
    ASSERT_TRUE(client.send(request + postHead("Transfer-Encoding: chunked\r\n") + "0\r\n\r\n"));
    for (const char* body : {"3 as sent", "0 as sent"}) {
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->body, body);
    }
}

TEST(RawRequestBody, IsReadableWhileItArrives)
{
    constexpr size_t kFirstBytes = 65536;
    Channel<uint64_t> firstRead;
    TestServer server([&](TestRequest& request) {
        std::vector<char> buffer(kFirstBytes);
        firstRead.push(request.getReceiveDevice().readBytes(buffer.data(), buffer.size()));
        request.readBody();
        request.respond(200, "done");
    });
    RawClient client(server.port());
    // In pieces of this size the first chunk of the device fills up while the second exists.
    constexpr size_t kPieceBytes = 16384;
    constexpr size_t kPieces = 6;
    ASSERT_TRUE(client.send(postHead("Transfer-Encoding: chunked\r\n")));
    for (size_t i = 0; i < kPieces; ++i)
        ASSERT_TRUE(client.send("4000\r\n" + std::string(kPieceBytes, 'x') + "\r\n"));
    const auto got = firstRead.pop();
    ASSERT_TRUE(got) << "the reader got nothing before the end of the upload";
    EXPECT_EQ(*got, kFirstBytes);
    ASSERT_TRUE(client.send("0\r\n\r\n"));
    EXPECT_TRUE(client.receive());
}

// Required: bytes received after the response is complete are discarded.
TEST(RawRequestBody, IsDroppedAfterTheResponseIsComplete)
{
    Latch responded;
    Channel<std::string> read;
    TestServer server([&](TestRequest& request) {
        request.respond(200, request.getOriginalFullUrl());
        responded.open();
        if (request.getOriginalFullUrl() == "/upload")
            read.push(request.readBody());
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(postHead("Content-Length: 10\r\n") + "12345"));
    ASSERT_TRUE(responded.wait());
    ASSERT_TRUE(client.send("67890" + integration::getRequest("/next")));
    const auto first = client.receive();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->body, "/upload");
    const auto body = read.pop();
    ASSERT_TRUE(body);
    EXPECT_THAT(*body, ::testing::AnyOf("", "12345"));
    // A response that is complete before the body is being received closes its connection there.
    if (integration::isEventDriven())
        return;
    const auto second = client.receive();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->body, "/next");
    EXPECT_EQ(server.requestsCreated(), 2u);
}

TEST(RawRequestBody, CallsTheKeepAliveCallbackWhileTheWorkerWaits)
{
    Channel<int> called;
    TestServer server([&](TestRequest& request) {
        request.setKeepAliveCallback([&] { called.push(1); }, 1);
        request.respond(200, std::to_string(request.readBody().size()));
    });
    RawClient client(server.port());
    ASSERT_TRUE(client.send(postHead("Content-Length: 4\r\n")));
    EXPECT_TRUE(called.pop());
    EXPECT_TRUE(called.pop()) << "no second call in a wait of several seconds";
    ASSERT_TRUE(client.send("1234"));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, "4");
}

}  // namespace
