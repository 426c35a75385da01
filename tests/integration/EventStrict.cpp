// Strict mode: heads that are refused before the application sees them, and heads that are not,
// however they are cut when they arrive.

#include "support/EventRun.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"

#include <support/TemporaryDirectory.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::RawClient;
using integration::RawResponse;
using integration::waitUntil;
using qv::http::ServerOptions;
using qv::tests::TemporaryDirectory;

const std::string kLine = "GET / HTTP/1.1\r\n";
const std::string kHost = "Host: x\r\n";

// With NUL.
template <size_t Size> std::string text(const char (&literal)[Size])
{
    return std::string(literal, Size - 1);
}

std::string get(const std::string& headerLines)
{
    return kLine + kHost + headerLines + "\r\n";
}

std::string post(const std::string& headerLines, const std::string& body)
{
    return "POST / HTTP/1.1\r\n" + kHost + headerLines + "\r\n" + body;
}

struct BadHead
{
    const char* name;
    std::string bytes;
    int strict;  // status
    int lax;     // 200: the application gets the request; 0: closed without a response
};

constexpr int kOk = 200;
constexpr int kBad = 400;

std::vector<BadHead> badLengths()
{
    return {
        {"two lengths that are equal", post("Content-Length: 1\r\nContent-Length: 1\r\n", "a"),
         kBad, kOk},
        {"two lengths that differ", post("Content-Length: 1\r\ncontent-length: 2\r\n", "ab"), kBad,
         kOk},
        {"a second length that is none", post("Content-Length: 1\r\nContent-Length: x\r\n", "a"),
         kBad, kOk},
        {"a list of lengths", post("Content-Length: 5, 5\r\n", "abcde"), kBad, kBad},
        {"a sign", post("Content-Length: +5\r\n", "abcde"), kBad, kBad},
        {"a minus", post("Content-Length: -5\r\n", ""), kBad, kBad},
        {"a space inside", post("Content-Length: 1 0\r\n", "a"), kBad, kBad},
        {"a space behind", post("Content-Length: 1 \r\n", "a"), kBad, kBad},
        {"no digits", post("Content-Length:\r\n", ""), kBad, kBad},
        {"2^63", post("Content-Length: 9223372036854775808\r\n", "a"), kBad, kOk},
        {"2^64 - 1", post("Content-Length: 18446744073709551615\r\n", "a"), kBad, kOk},
        {"2^64", post("Content-Length: 18446744073709551616\r\n", "a"), 413, 413},
        {"space before the colon", post("Content-Length : 1\r\n", "a"), kBad, kOk},
    };
}

std::vector<BadHead> badCodings()
{
    const std::string last = "0\r\n\r\n";
    return {
        {"length and coding", post("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", last),
         kBad, kOk},
        {"coding and length", post("Transfer-Encoding: chunked\r\nContent-Length: 5\r\n", last),
         kBad, kOk},
        {"two codings", post("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n", last),
         kBad, kOk},
        {"an unknown coding", post("Transfer-Encoding: gzip\r\n", last), 501, kOk},
        {"identity", post("Transfer-Encoding: identity\r\n", last), 501, kOk},
        {"an unknown coding before chunked", post("Transfer-Encoding: gzip, chunked\r\n", last),
         501, kOk},
        {"a trailing comma", post("Transfer-Encoding: chunked,\r\n", last), kBad, kOk},
        {"a trailing space", post("Transfer-Encoding: chunked \r\n", last), kBad, kOk},
        {"an empty coding", post("Transfer-Encoding:\r\n", last), kBad, kOk},
        {"twice in a line", post("Transfer-Encoding: chunked, chunked\r\n", last), kBad, kOk},
        {"in HTTP/1.0", "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n" + last, kBad, kOk},
        {"space before the colon", post("Transfer-Encoding : chunked\r\n", ""), kBad, kOk},
    };
}

std::vector<BadHead> badTexts()
{
    return {
        {"control character in the target", getRequest("/a\x01"), kBad, kOk},
        {"tab in the target", getRequest("/a\tb"), kBad, kOk},
        {"space in the target", getRequest("/a b"), 0, 0},
        {"fragment", getRequest("/a#b"), kBad, kOk},
        {"no slash", getRequest("a"), kBad, kOk},
        {"query alone", getRequest("?a"), kBad, kOk},
        {"asterisk", getRequest("*"), kBad, kOk},
        {"authority", getRequest("x:80"), kBad, kOk},
        {"CONNECT with a path", "CONNECT /a HTTP/1.1\r\n" + kHost + "\r\n", kBad, kOk},
        {"method that is no token", "G(T / HTTP/1.1\r\n" + kHost + "\r\n", kBad, kOk},
        {"control character in the method", "G\x01T / HTTP/1.1\r\n" + kHost + "\r\n", kBad, kOk},
        {"two spaces before the target", "GET  / HTTP/1.1\r\n" + kHost + "\r\n", kBad, kOk},
        {"control character in a value", get("A: b\x01\r\n"), kBad, kOk},
        {"0x7f in a value", get("A: b\x7f\r\n"), kBad, kOk},
        {"CR in a value", get("A: b\rc\r\n"), kBad, kOk},
        {"CR CR LF", get("A: b\r\r\n"), kBad, kOk},
        {"control character in a name", get("A\x01: b\r\n"), kBad, kOk},
        {"space before the colon", get("A : b\r\n"), kBad, kOk},
        {"tab before the colon", get("A\t: b\r\n"), kBad, kOk},
        {"space in a name", get("A B: c\r\n"), kBad, kOk},
        {"delimiter in a name", get("A(B: c\r\n"), kBad, kOk},
        {"name that is not ASCII", get("X-\xc3\xa9: c\r\n"), kBad, kOk},
        {"space before the first name", kLine + " A: b\r\n" + kHost + "\r\n", kBad, kOk},
        {"no colon", get("A\r\n"), kBad, kBad},
        {"no Host", kLine + "\r\n", kBad, kBad},
        {"two Host", get("host: y\r\n"), kBad, kOk},
        {"two Host in HTTP/1.0", "GET / HTTP/1.0\r\n" + kHost + kHost + "\r\n", kBad, kOk},
    };
}

// Defects that only the positions show.
std::vector<BadHead> badLineEnds()
{
    return {
        {"LF behind the request line", "GET / HTTP/1.1\n" + kHost + "\r\n", kBad, kOk},
        {"LF behind the first header", kLine + "Host: x\nA: b\r\n\r\n", kBad, kOk},
        {"LF behind a header", get("A: b\nC: d\r\n"), kBad, kOk},
        {"LF behind the last header", get("A: b\n"), kBad, kOk},
        {"LF behind an empty value", get("A:\n"), kBad, kOk},
        {"LF behind the head", kLine + kHost + "\n", kBad, kOk},
        {"LF everywhere", "GET / HTTP/1.1\nHost: x\n\n", kBad, kOk},
        {"LF behind the head of a body", "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\na",
         kBad, kOk},
        {"LF without headers in HTTP/1.0", "GET / HTTP/1.0\n\r\n", kBad, kOk},
        {"LF as the end of a head without headers", "GET / HTTP/1.0\r\n\n", kBad, kOk},
        {"folded line", get("A: b\r\n c\r\n"), kBad, kOk},
        {"folded with a tab", get("A: b\r\n\tc\r\n"), kBad, kOk},
        {"folded twice", get("A: b\r\n c\r\n d\r\n"), kBad, kOk},
        {"folded, and a header behind it", get("A: b\r\n c\r\nD: e\r\n"), kBad, kOk},
        {"folded line of spaces", get("A: b\r\n \r\nC: d\r\n"), kBad, kOk},
        {"a length on a folded line", post("Content-Length:\r\n 1\r\n", ""), kBad, kOk},
        {"a length made by a folded line", post("Content: 1\r\n -Length\r\n", "a"), kBad, kOk},
        {"a coding on a folded line", post("Transfer-Encoding:\r\n chunked\r\n", ""), kBad, kOk},
        {"a long folded line", get("A: b\r\n " + std::string(3000, 'c') + "\r\n"), kBad, kOk},
        {"first header line folded", kLine + "\tA: b\r\n" + kHost + "\r\n", kBad, kOk},
        {"folded with LF", get("A: b\n c\r\n"), kBad, kOk},
        {"NUL in the target", "GET /a" + text("\0b") + " HTTP/1.1\r\n" + kHost + "\r\n", kBad, kOk},
        {"NUL behind the target", "GET /a" + text("\0") + " HTTP/1.1\r\n" + kHost + "\r\n", kBad,
         kOk},
        {"NUL in the query", "GET /a?b=c" + text("\0&d") + " HTTP/1.1\r\n" + kHost + "\r\n", kBad,
         kOk},
        {"NUL in the method", text("GE\0T / HTTP/1.1\r\n") + kHost + "\r\n", kBad, kOk},
        {"NUL in a value", get("A: b" + text("\0c\r\n")), kBad, kOk},
        {"NUL as a value", get("A: " + text("\0\r\n")), kBad, kOk},
        {"NUL behind a value", get("A: b" + text("\0\r\n")), kBad, kOk},
        {"NUL behind a value, and a header", get("A: b" + text("\0\r\nC: d\r\n")), kBad, kOk},
        {"NUL behind the colon", get("A:" + text("\0b\r\n")), kBad, kOk},
        {"NUL and LF for CR LF, once removed", get("A: b" + text("\0c\nD: e\r\n")), kBad, kOk},
        {"NUL in a name", get("A" + text("\0B: c\r\n")), kBad, kBad},
        {"line that begins with NUL", get("A: b\r\n" + text("\0c\r\n")), kBad, kOk},
        {"first line begins with NUL", kLine + text("\0Host: x\r\n") + kHost + "\r\n", kBad, kBad},
        {"empty name", get("A: b\r\n: c\r\nD: e\r\n"), kBad, kOk},
        {"line of a colon", get("A: b\r\n:\r\nD: e\r\n"), kBad, kOk},
    };
}

void respondAtOnce(EventRequest& request)
{
    request.respondHere(kOk, "seen");
}

// The server reads from a Unix socket: the client sees how much has been read.
class Strict : public ::testing::Test
{
protected:
    void serve(bool isStrict, size_t memoryBytes = ServerOptions().connectionMemoryBytes)
    {
        ServerOptions options;
        options.listen = {"unix:" + mDirectory / "socket"};
        options.threads = 1;
        options.strictRequests = isStrict;
        options.connectionMemoryBytes = memoryBytes;
        mRun.emplace(&respondAtOnce, options);
    }

    int connect() const
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        (mDirectory / "socket").copy(address.sun_path, sizeof address.sun_path - 1);
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        return descriptor;
    }

    // The first part is read before the second is sent, unless the server has closed already.
    static void sendInTwo(RawClient& client, int descriptor, std::string_view bytes, size_t cut)
    {
        client.send(bytes.substr(0, cut));
        EXPECT_TRUE(waitUntil([descriptor] {
            int unread = 0;
            return ::ioctl(descriptor, SIOCOUTQ, &unread) == 0 && unread == 0;
        }));
        client.send(bytes.substr(cut));
    }

    EventRun& run() { return *mRun; }
    void stop() { mRun.reset(); }

private:
    TemporaryDirectory mDirectory;
    std::optional<EventRun> mRun;
};

void expectClosing(RawClient& client, int status)
{
    if (status == 0) {
        EXPECT_TRUE(client.isClosedByServer());
        return;
    }
    const std::optional<RawResponse> response = client.receiveHead();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, status);
    EXPECT_EQ(response->value("Connection"), "close");
    // The daemon's own responses contain their head twice.
    const std::string rest = client.receiveToEnd();
    EXPECT_THAT(rest, ::testing::AnyOf("", ::testing::HasSubstr("<html>")));
}

class BadHeads : public Strict, public ::testing::WithParamInterface<std::vector<BadHead> (*)()>
{};

TEST_P(BadHeads, AreRefusedAndDoNotReachTheApplication)
{
    serve(true);
    size_t row = 0;
    for (const BadHead& bad : GetParam()()) {
        SCOPED_TRACE(bad.name);
        constexpr size_t kStep = 5;
        constexpr size_t kMaxCut = 150;
        const size_t end = std::min(bad.bytes.size(), kMaxCut);
        // A row in one piece, and cut at every fifth byte, in other rows at other ones.
        for (size_t cut = 0; cut < end; cut += cut == 0 ? 1 + row % kStep : kStep) {
            SCOPED_TRACE(cut);
            const int descriptor = connect();
            RawClient client(RawClient::Connected{descriptor});
            sendInTwo(client, descriptor, bad.bytes, cut);
            expectClosing(client, bad.strict);
        }
        ++row;
    }
    EXPECT_EQ(run().requestCount(), 0u);
}

TEST_P(BadHeads, AreServedWithoutTheOptionAsTheDaemonServesThem)
{
    serve(false);
    size_t served = 0;
    for (const BadHead& bad : GetParam()()) {
        SCOPED_TRACE(bad.name);
        for (const size_t cut : {size_t{0}, bad.bytes.size() / 2}) {
            SCOPED_TRACE(cut);
            const int descriptor = connect();
            RawClient client(RawClient::Connected{descriptor});
            sendInTwo(client, descriptor, bad.bytes, cut);
            if (bad.lax != kOk) {
                expectClosing(client, bad.lax);
                continue;
            }
            // The body of a response to CONNECT has no end.
            const std::optional<RawResponse> response = client.receiveHead();
            ASSERT_TRUE(response);
            EXPECT_EQ(response->status, kOk);
            ++served;
        }
    }
    // Some are read as two requests.
    EXPECT_GE(run().requestCount(), served);
}

std::string nameOfTable(const ::testing::TestParamInfo<BadHeads::ParamType>& tested)
{
    static const char* const names[] = {"Lengths", "Codings", "Texts", "LineEnds"};
    return names[tested.index];
}

INSTANTIATE_TEST_SUITE_P(Strict, BadHeads,
                         ::testing::Values(&badLengths, &badCodings, &badTexts, &badLineEnds),
                         &nameOfTable);

TEST_F(Strict, ServesUnusualHeadsHoweverTheyAreCut)
{
    serve(true);
    const struct
    {
        const char* name;
        std::string bytes;
    } rows[] = {
        {"plain", get("")},
        {"HTTP/1.0 without a header", "GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n"},
        {"HTTP/1.2", "GET / HTTP/1.2\r\n" + kHost + "\r\n"},
        {"unknown method", "BREW /a HTTP/1.1\r\n" + kHost + "\r\n"},
        {"absolute form", getRequest("http://x:80/a?b")},
        {"asterisk", "OPTIONS * HTTP/1.1\r\n" + kHost + "\r\n"},
        {"query with escapes", getRequest("/a%20b%2fc?d=%c3%a9&e&&=f+g%00&h=%zz")},
        {"bytes that are no ASCII", getRequest("/\xc3\xa9\xff?\xe9")},
        {"unwise characters", getRequest("/a|b\\c^d`{e}\"<f>[g]?h|i")},
        {"text that is no ASCII", get("A: \xff\xc0\x80 b\xe9\r\n")},
        {"empty value", get("A:\r\nB: \r\nC: \t \r\nD: e\r\n")},
        {"no space behind the colon", kLine + "Host:x\r\nA:b\r\n\r\n"},
        {"many spaces behind the colon", get("A: \t  \t b\r\n")},
        {"trailing spaces", get("A: b  \t \r\nC: d\r\n")},
        {"tabs inside", get("A: b\tc\r\n")},
        {"quoted string", get("A: \"b, \\\"c\", (d (e))\r\n")},
        {"empty Host", kLine + "Host:\r\n\r\n"},
        {"cookies", get("Cookie: a=b; c=\"d\"; e\r\nCookie: f=g\r\nA: b\r\n")},
        {"names that look like framing", get("Content_Length: 5\r\nX-Transfer-Encoding: gzip\r\n")},
        {"all token characters", get("!#$%&'*+-.^_`|~019azAZ: b\r\n")},
        {"long value", get("A: " + std::string(8000, 'v') + "\r\nB: c\r\n")},
        {"leading empty lines", "\r\n\r\n" + get("")},
        {"length 0", post("Content-Length: 0\r\n", "")},
        {"forty zeros", post("Content-Length: " + std::string(40, '0') + "\r\n", "")},
    };
    size_t requests = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        constexpr size_t kStep = 7;
        constexpr size_t kMaxCut = 120;
        for (size_t cut = 0; cut < std::min(row.bytes.size(), kMaxCut); cut += kStep) {
            SCOPED_TRACE(cut);
            const int descriptor = connect();
            RawClient client(RawClient::Connected{descriptor});
            sendInTwo(client, descriptor, row.bytes, cut);
            const std::optional<RawResponse> response = client.receive();
            ASSERT_TRUE(response);
            EXPECT_EQ(response->status, kOk);
            // The connection goes on.
            ASSERT_TRUE(client.send(get("")));
            const std::optional<RawResponse> next = client.receive();
            ASSERT_TRUE(next);
            EXPECT_EQ(next->status, kOk);
            requests += 2;
        }
    }
    EXPECT_EQ(run().requestCount(), requests);
}

// The daemon moves and shrinks its buffers when a head fills the memory of the connection.
TEST_F(Strict, ServesHeadsOfAnySizeAndNumberOfHeaders)
{
    constexpr size_t kMemoryBytes = 16384;
    serve(true, kMemoryBytes);
    std::mt19937 random(20261122);
    const auto upTo = [&random](size_t most) {
        return std::uniform_int_distribution<size_t>(0, most)(random);
    };
    const size_t rounds = 300;
    size_t served = 0;
    for (size_t round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        std::string lines;
        const size_t wanted = upTo(13000);
        const size_t longest = 1 + upTo(round % 3 == 0 ? 4000 : 60);
        while (lines.size() < wanted)
            lines += "H" + std::to_string(upTo(99)) + ":" + std::string(upTo(3), ' ') +
                     std::string(upTo(longest), 'v') + "\r\n";
        const std::string bytes = getRequest("/" + std::string(upTo(500), 't') + "?a=b&c", lines);
        const int descriptor = connect();
        RawClient client(RawClient::Connected{descriptor});
        sendInTwo(client, descriptor, bytes, upTo(bytes.size() - 1));
        const std::optional<RawResponse> response = client.receiveHead();
        ASSERT_TRUE(response);
        // Beyond the memory the daemon responds itself.
        ASSERT_THAT(response->status, ::testing::AnyOf(kOk, 431));
        served += response->status == kOk ? 1 : 0;
    }
    EXPECT_GT(served, rounds / 2);
    EXPECT_EQ(run().requestCount(), served);
}

TEST_F(Strict, ChecksEachRequestOfAConnection)
{
    serve(true);
    RawClient client(RawClient::Connected{connect()});
    ASSERT_TRUE(client.send(get("") + post("Content-Length: 3\r\n", "abc") + get("A: b\r\n") +
                            get("A: b\n") + get("")));
    const std::optional<RawResponse> first = client.receive();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->status, kOk);
    // A response that is complete before the body closes the connection.
    const std::optional<RawResponse> second = client.receive();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->value("Connection"), "close");

    RawClient other(RawClient::Connected{connect()});
    ASSERT_TRUE(other.send(get("") + get("A: b\r\n") + get("A: b\n") + get("")));
    EXPECT_EQ(other.receive().value_or(RawResponse()).status, kOk);
    EXPECT_EQ(other.receive().value_or(RawResponse()).status, kOk);
    expectClosing(other, kBad);
    EXPECT_EQ(run().requestCount(), 4u);
}

TEST_F(Strict, SendsTheRefusalWhileTheBodyIsBeingSent)
{
    serve(true);
    RawClient client(RawClient::Connected{connect()});
    const std::string body(5000000, 'b');
    // The server closes without reading it all.
    client.send(post("Content-Length: 5000000\r\nContent-Length: 5000000\r\n", body));
    const std::optional<RawResponse> response = client.receiveHead();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, kBad);
    EXPECT_EQ(run().requestCount(), 0u);
}

TEST_F(Strict, DoesNotAskForTheBodyOfARefusedRequest)
{
    serve(true);
    RawClient client(RawClient::Connected{connect()});
    ASSERT_TRUE(client.send("POST / HTTP/1.1\r\nHost: x\r\nHost: x\r\nContent-Length: 5\r\n"
                            "Expect: 100-continue\r\n\r\n"));
    expectClosing(client, kBad);
}

// The daemon writes zeros over both line ends. docs/event-driven-mode.md says so.
TEST_F(Strict, TakesANulBeforeALfForALineEnd)
{
    serve(true);
    RawClient client(RawClient::Connected{connect()});
    ASSERT_TRUE(client.send(get("A: b" + text("\0\n"))));
    const std::optional<RawResponse> response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, kOk);
    EXPECT_EQ(run().request(0)->getHeader("a")->front(), "b");
}

TEST_F(Strict, LogsWhyARequestIsRefused)
{
    ServerOptions options = integration::onOneThread();
    EventRun run(&respondAtOnce, options);
    RawClient client(run.port());
    ASSERT_TRUE(client.send(get("A: b\n")));
    expectClosing(client, kBad);
    EXPECT_TRUE(integration::processLog->waitForLine(
        "Refused a request of 127.0.0.1 with 400: a folded line, a bare LF, a NUL or a space too "
        "many"));
}

TEST_F(Strict, DrainsWhileRefusedRequestsAreSent)
{
    serve(true);
    RawClient client(RawClient::Connected{connect()});
    ASSERT_TRUE(client.send(get("A: b\n")));
    expectClosing(client, kBad);
    EXPECT_TRUE(run().server().shutDown(integration::kLimit));
}

}  // namespace
