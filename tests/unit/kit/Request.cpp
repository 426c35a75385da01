// Reading a request body to its end, and responding without blocking.

#include <Wendrel/kit/Request.h>

#include "Support.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace qv::kit::tests
{
namespace
{

constexpr size_t kChunkBytes = 65536;

// Request properties.

TEST(Request, ShowsTheFirstValueOfAHeader)
{
    ServedRequest request;
    request.addHeader("X-Name", "one");
    request.addHeader("x-name", "two");
    EXPECT_EQ(request.getHeaderText("x-name"), "one");
    EXPECT_EQ(request.getHeaderText("x-other"), "");
}

TEST(Request, ShowsTheWholeLineOfAHeader)
{
    ServedRequest request;
    request.addHeader("Referer", "https://maps.example/@48.1,11.5,15z");
    request.addHeader("X-Name", "one");
    request.addHeader("x-name", "two");
    EXPECT_EQ(request.getHeaderLine("referer"), "https://maps.example/@48.1,11.5,15z");
    EXPECT_EQ(request.getHeaderLine("x-name"), "one, two");
    EXPECT_EQ(request.getHeaderLine("x-other"), "");
}

TEST(Request, ShowsPathParametersByName)
{
    ServedRequest request;
    EXPECT_EQ(request.getPathParameter("a"), "");
    request.setPathParameters({{"a", "1"}, {"b", "2"}});
    EXPECT_EQ(request.getPathParameter("a"), "1");
    EXPECT_EQ(request.getPathParameter("b"), "2");
    EXPECT_EQ(request.getPathParameter("c"), "");
}

TEST(Request, DeclaredLengthIsAWholeNumberOrNone)
{
    const struct
    {
        const char* text;
        int64_t length;
    } rows[] = {
        {"", -1},
        {"0", 0},
        {"5", 5},
        {"9223372036854775807", std::numeric_limits<int64_t>::max()},
        {"9223372036854775808", -1},
        {"-5", -1},
        {"+5", -1},
        {"5x", -1},
        {"x", -1},
        {"0x5", -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        ServedRequest request("PUT");
        request.addHeader("Content-Length", row.text);
        EXPECT_EQ(request.getDeclaredBodyLength(), row.length);
    }
    EXPECT_EQ(ServedRequest().getDeclaredBodyLength(), -1);
}

// The body.

TEST(Request, ReadsABodyPieceByPiece)
{
    ServedRequest request("PUT");
    request.feed("abcdefghij");
    request.endFeed();
    char buf[4] = {};
    size_t got = 0;
    EXPECT_EQ(request.readBody(buf, 4, got), BodyResult::More);
    EXPECT_EQ(std::string(buf, got), "abcd");
    EXPECT_EQ(request.readBody(buf, 4, got), BodyResult::More);
    EXPECT_EQ(std::string(buf, got), "efgh");
    EXPECT_EQ(request.readBody(buf, 4, got), BodyResult::Complete);
    EXPECT_EQ(std::string(buf, got), "ij");
    EXPECT_EQ(request.readBody(buf, 4, got), BodyResult::Complete);
    EXPECT_EQ(got, 0u);
}

TEST(Request, ReadsAWholeBodyUpToTheLimit)
{
    const struct
    {
        const char* name;
        size_t body;
        const char* header;
        const char* value;
        uint64_t limit;
        BodyResult result;
    } rows[] = {
        {"no body", 0, "x-none", "x", 0, BodyResult::Complete},
        {"no body, declared", 0, "Content-Length", "0", 0, BodyResult::Complete},
        {"below", 9, "Content-Length", "9", 10, BodyResult::Complete},
        {"at", 10, "Content-Length", "10", 10, BodyResult::Complete},
        {"declared above", 11, "Content-Length", "11", 10, BodyResult::TooLarge},
        {"any byte is above", 1, "Content-Length", "1", 0, BodyResult::TooLarge},
        {"chunked at", 10, "Transfer-Encoding", "chunked", 10, BodyResult::Complete},
        {"chunked above", 11, "Transfer-Encoding", "chunked", 10, BodyResult::TooLarge},
        {"chunked, any byte is above", 1, "Transfer-Encoding", "chunked", 0, BodyResult::TooLarge},
        {"one piece", 65536, "Transfer-Encoding", "chunked", 65536, BodyResult::Complete},
        {"a byte more than a piece", 65537, "Transfer-Encoding", "chunked", 65537,
         BodyResult::Complete},
        {"a byte more than a piece is above", 65537, "Transfer-Encoding", "chunked", 65536,
         BodyResult::TooLarge},
        {"many pieces", 1000000, "Content-Length", "1000000", 1000000, BodyResult::Complete},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string sent(row.body, '\0');
        for (size_t i = 0; i < sent.size(); ++i)
            sent[i] = static_cast<char>(i * 31 + i / 251);
        ServedRequest request("PUT");
        request.addHeader(row.header, row.value);
        request.feed(sent);
        request.endFeed();
        std::string body = "before:";
        EXPECT_EQ(request.readWholeBody(row.limit, body), row.result);
        if (row.result == BodyResult::Complete) {
            EXPECT_TRUE(body == "before:" + sent);
        }
        EXPECT_LE(body.size(), 7 + row.limit);
    }
}

TEST(Request, ReadsNothingOfABodyThatIsDeclaredTooLarge)
{
    ServedRequest request("PUT");
    request.addHeader("Content-Length", "11");
    request.feed("12345678901");
    request.endFeed();
    std::string body;
    EXPECT_EQ(request.readWholeBody(10, body), BodyResult::TooLarge);
    EXPECT_EQ(request.getReceiveDevice().getReceivedBytes(), 0u);
}

TEST(Request, StopsReadingAsSoonAsABodyIsTooLarge)
{
    ServedRequest request("PUT");
    request.feed(std::string(10 * kChunkBytes, 'x'));
    request.endFeed();
    std::string body;
    EXPECT_EQ(request.readWholeBody(kChunkBytes + 1, body), BodyResult::TooLarge);
    EXPECT_LE(request.getReceiveDevice().getReceivedBytes(), 2 * kChunkBytes);
}

TEST(Request, AClosedConnectionEndsTheReading)
{
    for (const auto code : {MHD_REQUEST_TERMINATED_CLIENT_ABORT, MHD_REQUEST_TERMINATED_WITH_ERROR,
                            MHD_REQUEST_TERMINATED_DAEMON_SHUTDOWN}) {
        SCOPED_TRACE(int(code));
        Completer daemon;
        ServedRequest request("PUT");
        request.addHeader("Content-Length", "10");
        request.feed("12345");
        EXPECT_FALSE(request.isAborted());
        daemon.complete(request, code);
        EXPECT_TRUE(request.isAborted());
        std::string body;
        EXPECT_EQ(request.readWholeBody(100, body), BodyResult::Aborted);
        char buf[4];
        size_t got = 0;
        EXPECT_EQ(request.readBody(buf, sizeof buf, got), BodyResult::Aborted);
    }
}

TEST(Request, AClientThatGoesWhileItIsWaitedForEndsTheReading)
{
    Completer daemon;
    ServedRequest request("PUT");
    request.feed("12345");
    std::thread completing([&] { daemon.complete(request, MHD_REQUEST_TERMINATED_CLIENT_ABORT); });
    std::string body;
    EXPECT_EQ(request.readWholeBody(100, body), BodyResult::Aborted);
    completing.join();
}

// Responses by reply().

struct ReplyRow
{
    const char* name;
    const char* method;
    uint32_t status;
    const char* body;
    int64_t length;       // as declared
    const char* sent;     // of the body
    bool ended;           // the daemon sends the body from one buffer, of the buffer's length
    bool upload = false;  // the request has a body
};

const ReplyRow kReplies[] = {
    {"GET", "GET", 200, "text", 4, "text", true},
    {"GET, nothing", "GET", 200, "", 0, "", true},
    {"PUT", "PUT", 201, "text", 4, "text", true, true},
    {"GET, 404", "GET", 404, "text", 4, "text", true},
    {"HEAD", "HEAD", 200, "text", 4, "", false},
    {"HEAD, length not known", "HEAD", 200, "", -1, "", true},
    {"HEAD with an upload", "HEAD", 200, "text", 4, "", true, true},
    {"204", "DELETE", 204, "", -1, "", true},
    {"204 with an upload", "PUT", 204, "", -1, "", true, true},
    {"304", "GET", 304, "", -1, "", true},
    {"304 of a text", "GET", 304, "text", 4, "", false},
    {"304 to HEAD", "HEAD", 304, "text", 4, "", false},
};

TEST(Request, RepliesWithABodyOnlyWhereThereIsOne)
{
    for (const ReplyRow& row : kReplies) {
        SCOPED_TRACE(row.name);
        ServedRequest request(row.method);
        if (row.upload)
            request.addHeader("Content-Length", "7");
        EXPECT_FALSE(request.isAnnounced());
        EXPECT_TRUE(request.reply(row.status, "a/b", row.body));
        EXPECT_TRUE(request.isAnnounced());
        EXPECT_TRUE(IsReadyForDaemon(request));
        EXPECT_EQ(request.status(), row.status);
        EXPECT_EQ(request.getHead().getHeader("Content-Type"), "a/b");
        EXPECT_EQ(request.getHead().getContentLength(), row.length);
        EXPECT_EQ(request.sent(), row.sent);
        EXPECT_EQ(request.isEnded(), row.ended);
        EXPECT_FALSE(request.isFailed());
        EXPECT_FALSE(request.write("more", 4) && request.hasBody());
        request.finish();
        EXPECT_EQ(request.sent(), "");
        EXPECT_EQ(request.isEnded(), row.ended);
        EXPECT_FALSE(request.isFailed());
    }
}

TEST(Request, RepliesWithTheLengthSetBeforeWhereThereIsNoBody)
{
    const struct
    {
        const char* method;
        uint32_t status;
    } rows[] = {{"HEAD", 200}, {"GET", 304}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.status);
        ServedRequest request(row.method);
        request.getHead().setContentLength(5'000'000'000);
        EXPECT_TRUE(request.reply(row.status, "a/b", ""));
        EXPECT_EQ(request.getHead().getContentLength(), 5'000'000'000);
        EXPECT_FALSE(request.isEnded());
    }
}

TEST(Request, EndsTheResponseToAChunkedUploadThatNobodyReads)
{
    ServedRequest request("HEAD");
    request.addHeader("Transfer-Encoding", "chunked");
    EXPECT_TRUE(request.reply(200, "a/b", "text"));
    EXPECT_TRUE(request.isEnded());
}

TEST(Request, HasTheWholeResponseReadyWhenItIsAnnounced)
{
    const std::string body(300000, 'x');  // more than a writer may have ready without a wait
    ServedRequest request;
    EXPECT_TRUE(request.reply(200, "a/b", body));
    EXPECT_EQ(request.getResponseDevice().getDataSize(), body.size());
    EXPECT_TRUE(request.sent() == body);
    EXPECT_TRUE(request.isEnded());
}

TEST(Request, SendsOneResponse)
{
    ServedRequest request;
    EXPECT_TRUE(request.reply(200, "a/b", "first"));
    EXPECT_FALSE(request.reply(404, "c/d", "second"));
    EXPECT_FALSE(request.replyError(500, "third"));
    EXPECT_FALSE(request.startStream());
    EXPECT_EQ(request.status(), 200u);
    EXPECT_EQ(request.getHead().getContentLength(), 5);
    EXPECT_EQ(request.getHead().getHeader("Content-Type"), "a/b");
    EXPECT_EQ(request.sent(), "first");
}

TEST(Request, SendsNoResponseOnAClosedConnection)
{
    Completer daemon;
    ServedRequest request;
    daemon.complete(request, MHD_REQUEST_TERMINATED_CLIENT_ABORT);
    EXPECT_FALSE(request.reply(200, "a/b", "text"));
    EXPECT_FALSE(request.startStream());
    EXPECT_FALSE(request.write("text", 4));
    EXPECT_FALSE(request.flush());
    EXPECT_FALSE(request.isAnnounced());
    EXPECT_EQ(request.sent(), "");
}

TEST(Request, SaysErrorsInJsonWhateverTheMessageIs)
{
    const struct
    {
        std::string message;
        std::string text;
    } rows[] = {
        {"", ""},
        {"plain", "plain"},
        {"a \"b\" \\ \n\x01", R"(a \"b\" \\ \n\u0001)"},
        {"\xC3\xA9", "\xC3\xA9"},
        {"a\xFF\x62", "a\xEF\xBF\xBD"
                      "b"},
        {"cut \xC3", "cut \xEF\xBF\xBD"},
        {std::string("a\0b", 3), R"(a\u0000b)"},
    };
    for (const auto& row : rows) {
        ServedRequest request;
        EXPECT_TRUE(request.replyError(418, row.message));
        EXPECT_EQ(request.status(), 418u);
        EXPECT_EQ(request.getHead().getHeader("Content-Type"), "application/json");
        EXPECT_EQ(request.sent(), "{\"error\":\"" + row.text + "\",\"status\":418}");
    }
}

// Responses by startStream() and write().

TEST(Request, StreamsABodyOfUnknownLength)
{
    ServedRequest request;
    EXPECT_FALSE(request.flush());
    EXPECT_TRUE(request.startStream());
    EXPECT_TRUE(IsReadyForDaemon(request));
    EXPECT_FALSE(request.startStream());
    EXPECT_TRUE(request.write("one ", 4));
    EXPECT_TRUE(request.write("", 0));
    EXPECT_EQ(request.sent(), "");
    EXPECT_TRUE(request.flush());
    EXPECT_EQ(request.sent(), "one ");
    EXPECT_TRUE(request.write("two", 3));
    EXPECT_FALSE(request.isEnded());
    request.finish();
    EXPECT_EQ(request.sent(), "two");
    EXPECT_TRUE(request.isEnded());
    EXPECT_FALSE(request.isFailed());
}

TEST(Request, AWriteStartsTheStream)
{
    ServedRequest request;
    EXPECT_TRUE(request.write("text", 4));
    EXPECT_TRUE(IsReadyForDaemon(request));
    request.finish();
    EXPECT_EQ(request.sent(), "text");
}

TEST(Request, FinishWithoutWritingSendsAnEmptyResponse)
{
    ServedRequest request;
    request.finish();
    EXPECT_TRUE(IsReadyForDaemon(request));
    EXPECT_TRUE(request.isEnded());
    EXPECT_FALSE(request.isFailed());
}

TEST(Request, RefusesToWriteAfterTheEnd)
{
    ServedRequest request;
    EXPECT_TRUE(request.write("text", 4));
    request.finish();
    EXPECT_FALSE(request.write("more", 4));
    EXPECT_FALSE(request.flush());
    request.finish();
    EXPECT_EQ(request.sent(), "text");
    EXPECT_FALSE(request.isFailed());
}

TEST(Request, NeverWritesMoreThanDeclared)
{
    const struct
    {
        const char* name;
        int64_t declared;
        std::vector<size_t> writes;  // the last is one too many
    } rows[] = {
        {"nothing", 0, {1}},
        {"a byte", 10, {10, 1}},
        {"in the middle", 10, {9, 2}},
        {"in one", 10, {11}},
        {"a large one", 100000, {100001}},
        {"a length that no sum can hold", 10, {5, std::numeric_limits<size_t>::max()}},
    };
    const std::string data(200000, 'x');
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ServedRequest request;
        request.getHead().setContentLength(row.declared);
        EXPECT_TRUE(request.startStream());
        size_t taken = 0;
        for (size_t i = 0; i + 1 < row.writes.size(); ++i) {
            EXPECT_TRUE(request.write(data.data(), row.writes[i]));
            taken += row.writes[i];
        }
        EXPECT_FALSE(request.write(data.data(), row.writes.back()));
        EXPECT_EQ(request.getResponseDevice().getSentBytes(), taken);
    }
}

TEST(Request, EndsABodyThatIsAsLongAsDeclared)
{
    ServedRequest request;
    request.getHead().setContentLength(100000);
    const std::string body(100000, 'x');
    EXPECT_TRUE(request.write(body.data(), 99999));
    EXPECT_TRUE(request.write(body.data(), 1));
    request.finish();
    EXPECT_FALSE(request.isFailed());
    EXPECT_TRUE(request.sent() == body);
    EXPECT_TRUE(request.isEnded());
}

TEST(Request, CutsOffABodyThatIsShorterThanDeclared)
{
    for (const size_t written : {0, 1, 9}) {
        SCOPED_TRACE(written);
        ServedRequest request;
        request.getHead().setContentLength(10);
        EXPECT_TRUE(request.write("123456789", written));
        request.finish();
        EXPECT_TRUE(request.isFailed());
        EXPECT_FALSE(request.isEnded());
        EXPECT_FALSE(request.write("0", 1));
    }
}

TEST(Request, WritesNothingWhereThereIsNoBody)
{
    const struct
    {
        const char* method;
        uint32_t status;
        int64_t declared;
        bool ended;
    } rows[] = {
        {"HEAD", 200, -1, true}, {"HEAD", 200, 8, false}, {"GET", 204, -1, true},
        {"GET", 304, -1, true},  {"GET", 304, 8, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.method + std::to_string(row.status) + "/" + std::to_string(row.declared));
        ServedRequest request(row.method);
        request.getHead().setStatus(row.status);
        request.getHead().setContentLength(row.declared);
        EXPECT_TRUE(request.startStream());
        EXPECT_TRUE(request.write("12345678", 8));
        EXPECT_EQ(request.getResponseDevice().getSentBytes(), 0u);
        request.finish();
        EXPECT_FALSE(request.isFailed());
        EXPECT_EQ(request.sent(), "");
        EXPECT_EQ(request.isEnded(), row.ended);
    }
}

TEST(Request, AWriterOfNothingLearnsThatTheConnectionIsClosed)
{
    Completer daemon;
    ServedRequest request("HEAD");
    EXPECT_TRUE(request.write("1", 1));
    daemon.complete(request);
    EXPECT_FALSE(request.write("2", 1));
}

TEST(Request, WritesALargeBlockInBoundedMemory)
{
    constexpr size_t kBlockBytes = 8 * 1024 * 1024;
    constexpr size_t kMaxReadyBytes = 262144 + 2 * kChunkBytes;
    ServedRequest request;
    std::string block(kBlockBytes, '\0');
    for (size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<char>(i * 31 + i / 251);
    ASSERT_TRUE(request.startStream());
    std::string sent;
    size_t maxReady = 0;
    std::thread daemon([&] {
        std::vector<char> piece(10000);
        for (bool ended = false, endedToo = false; !ended;) {
            maxReady = std::max(maxReady, request.getResponseDevice().getDataSize());
            const size_t got = request.getResponseDevice().sendChunksThreadSafe(
                piece.data(), piece.size(), ended, endedToo);
            sent.append(piece.data(), got);
            if (got == 0)
                std::this_thread::yield();
        }
    });
    EXPECT_TRUE(request.write(block.data(), block.size()));
    request.finish();
    daemon.join();
    EXPECT_TRUE(sent == block);
    EXPECT_LE(maxReady, kMaxReadyBytes);
}

TEST(Request, ALostClientEndsALargeWrite)
{
    ServedRequest request;
    Completer daemon;
    const std::string block(8 * 1024 * 1024, 'x');
    ASSERT_TRUE(request.startStream());
    std::thread losing([&] {
        // The writer stands still with a full queue, or is about to.
        while (request.getResponseDevice().getDataSize() <= 262144)
            std::this_thread::yield();
        daemon.complete(request, MHD_REQUEST_TERMINATED_CLIENT_ABORT);
    });
    EXPECT_FALSE(request.write(block.data(), block.size()));
    losing.join();
    EXPECT_LT(request.getResponseDevice().getSentBytes(), block.size());
}

// Failing.

TEST(Request, AbandonBeforeTheResponseAnnouncesAnError)
{
    ServedRequest request;
    request.abandon("reason");
    EXPECT_TRUE(request.isFailed());
    EXPECT_TRUE(request.isAborted());
    EXPECT_TRUE(IsReadyForDaemon(request));
    EXPECT_FALSE(request.reply(200, "a/b", "text"));
}

TEST(Request, AbandonInTheMiddleCutsTheResponseOff)
{
    ServedRequest request;
    EXPECT_TRUE(request.write("text", 4));
    request.abandon("reason");
    EXPECT_TRUE(request.isFailed());
    EXPECT_FALSE(request.write("more", 4));
    request.finish();
    EXPECT_FALSE(request.isEnded());
}

TEST(Request, AbandonLeavesAResponseThatHasEnded)
{
    ServedRequest request;
    EXPECT_TRUE(request.reply(200, "a/b", "text"));
    request.abandon("reason");
    EXPECT_FALSE(request.isFailed());
    EXPECT_EQ(request.sent(), "text");
}

TEST(Request, FailsWithNothingOfThePreparedResponse)
{
    ServedRequest request;
    request.getHead().setHeader("Cache-Control", "max-age=3600");
    request.getHead().addCookie("a", "b");
    request.getHead().setContentLength(12345);
    request.failWith("reason");
    EXPECT_EQ(request.status(), 500u);
    EXPECT_EQ(request.getHead().getHeader("Cache-Control"), "");
    EXPECT_TRUE(request.getHead().getCookies().empty());
    EXPECT_EQ(request.sent(), "{\"error\":\"reason\",\"status\":500}");
    EXPECT_TRUE(request.isEnded());
}

TEST(Request, FailingInTheMiddleCutsTheResponseOff)
{
    ServedRequest request;
    EXPECT_TRUE(request.write("text", 4));
    request.failWith("reason");
    EXPECT_TRUE(request.isFailed());
    EXPECT_EQ(request.status(), 200u);
}

TEST(Request, FailingAfterTheEndLeavesTheResponse)
{
    ServedRequest request;
    EXPECT_TRUE(request.reply(200, "a/b", "text"));
    request.failWith("reason");
    EXPECT_FALSE(request.isFailed());
    EXPECT_EQ(request.sent(), "text");
}

}  // namespace
}  // namespace qv::kit::tests
