// Clients that others wrote, in event-driven mode: netcat, which shuts down its sending side behind
// the request, and Node.js with connections that are kept alive.

#include "support/EventRun.h"
#include "support/Pattern.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <support/TemporaryDirectory.h>

#include <gmock/gmock.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <sys/wait.h>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::kLimit;
using integration::onOneThread;
using integration::pattern;
using integration::RawClient;
using integration::waitUntil;
using qv::http::ServerOptions;
using qv::tests::TemporaryDirectory;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// The output of a command. One that reaches the limit is ended with another result than 0.
struct Output
{
    std::string text;
    int result = -1;
};

Output runCommand(const std::string& command)
{
    Output output;
    const std::string limited = "timeout " + std::to_string(kLimit.count()) + " " + command;
    FILE* const pipe = ::popen(limited.c_str(), "r");
    if (!pipe)
        return output;
    std::array<char, 4096> piece;
    for (size_t got = 0; (got = std::fread(piece.data(), 1, piece.size(), pipe)) != 0;)
        output.text.append(piece.data(), got);
    const int status = ::pclose(pipe);
    output.result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return output;
}

const std::string kNetcat = WENDREL_TEST_NETCAT;
const std::string kNode = WENDREL_TEST_NODE;

class Netcat : public testing::TestWithParam<bool>
{
protected:
    void SetUp() override
    {
        if (kNetcat.empty())
            GTEST_SKIP() << "netcat-openbsd is missing";
    }

    bool mayHalfClose() const { return GetParam(); }

    ServerOptions options() const
    {
        ServerOptions options = onOneThread();
        options.halfClosedClients = mayHalfClose();
        return options;
    }

    // -N: the end of the input shuts down the sending side.
    Output send(const EventRun& run, const std::string& request)
    {
        const std::string path = (mDirectory.path() / "request").string();
        std::ofstream(path, std::ios::binary) << request;
        return runCommand(kNetcat + " -N 127.0.0.1 " + std::to_string(run.port()) + " < " + path);
    }

private:
    TemporaryDirectory mDirectory;
};

INSTANTIATE_TEST_SUITE_P(, Netcat, testing::Bool(), [](const auto& mayHalfClose) {
    return mayHalfClose.param ? "ThatMayHalfClose" : "ThatMayNot";
});

// The end may have come before the request is read: then a client that may not send it is closed.
TEST_P(Netcat, ReceivesAResponseThatIsReady)
{
    EventRun run([](EventRequest& request) { request.respondHere(200, "ready"); }, options());
    for (int i = 0; i < 20; ++i) {
        const Output output = send(run, getRequest("/"));
        EXPECT_EQ(output.result, 0);
        if (mayHalfClose() || !output.text.empty()) {
            EXPECT_THAT(output.text, StartsWith("HTTP/1.1 200 "));
            EXPECT_THAT(output.text, EndsWith("ready"));
        }
    }
}

// True as soon as the kernel has the end of the client of a server's connection.
bool hasHalfClosedClient(uint16_t port)
{
    constexpr const char* kCloseWait = "08";
    std::ifstream table("/proc/net/tcp");
    std::string line;
    std::array<char, 8> hex{};
    std::snprintf(hex.data(), hex.size(), ":%04X", port);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string index, local, remote, state;
        if (fields >> index >> local >> remote >> state && state == kCloseWait &&
            local.size() > 5 && local.substr(local.size() - 5) == hex.data())
            return true;
    }
    return false;
}

// The worker responds after the end has come.
TEST_P(Netcat, WaitsForAWorkerOrIsTakenForOneThatHasLeft)
{
    EventRun run(
        [&](EventRequest& request) {
            if (request.getOriginalFullUrl() == "/ping")
                return request.respondHere(200, "pong");
            run.work(request, [&](EventRequest& r) {
                if (!mayHalfClose()) {
                    EXPECT_TRUE(r.waitForConnectionError());
                    return;
                }
                EXPECT_TRUE(waitUntil([&] { return hasHalfClosedClient(run.port()); }));
                // The listener has seen the end when it serves a later connection.
                RawClient later(run.port());
                later.send(getRequest("/ping"));
                EXPECT_TRUE(later.receive());
                r.respond(200, "late");
            });
        },
        options());
    const Output output = send(run, getRequest("/"));
    EventRequest* const request = run.request(0);
    ASSERT_TRUE(request);
    EXPECT_TRUE(waitUntil([&] { return request->completions == 1; }));
    EXPECT_EQ(output.result, 0);
    if (mayHalfClose()) {
        EXPECT_THAT(output.text, StartsWith("HTTP/1.1 200 "));
        EXPECT_EQ(request->aborts, 0);
    } else {
        EXPECT_EQ(output.text, "");
        EXPECT_EQ(request->abortReason(), "ClientAbort");
    }
}

// The whole body has come before the end.
TEST_P(Netcat, UploadsABodyWhole)
{
    constexpr size_t kBytes = 1000000;
    const std::string body = pattern(kBytes);
    EventRun run(
        [&](EventRequest& request) {
            run.work(request, [&](EventRequest& r) {
                const std::string received = r.readBody();
                EXPECT_TRUE(received == body || r.getReceiveDevice().hasDeviceError());
                r.respond(200, std::to_string(received.size()));
            });
        },
        options());
    const Output output =
        send(run, "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: " + std::to_string(kBytes) +
                      "\r\n\r\n" + body);
    EXPECT_EQ(output.result, 0);
    if (mayHalfClose()) {
        EXPECT_THAT(output.text, HasSubstr("\r\n\r\n1000000"));
    }
}

class Node : public testing::Test
{
protected:
    void SetUp() override
    {
        if (kNode.empty())
            GTEST_SKIP() << "node is missing";
    }
};

// One agent: the script checks statuses, bodies and the number of connections.
TEST_F(Node, IsServedOnConnectionsThatAreKeptAlive)
{
    ServerOptions options = onOneThread();
    options.uploadQueueBytes = 65536;
    EventRun run(
        [&](EventRequest& request) {
            run.work(request, [](EventRequest& r) {
                if (r.getOriginalFullUrl() == "/stream") {
                    r.streamPattern(3000000, 10000);
                    return;
                }
                const std::string body = r.readBody();
                EXPECT_TRUE(r.beginStream());
                EXPECT_EQ(r.getResponseDevice().writeBytes(body.data(), body.size()), body.size());
                r.getResponseDevice().endSending();
            });
        },
        options);
    const Output output =
        runCommand(kNode + " " WENDREL_TEST_NODE_CLIENT " " + std::to_string(run.port()) + " 2>&1");
    EXPECT_EQ(output.result, 0) << output.text;
    EXPECT_EQ(output.text, "get 100, post 100, upload 5 of 1000000, download 5 of 3000000, "
                           "parallel 200, connections 9\n");
}

}  // namespace
