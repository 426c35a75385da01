// Bytes of clients in the log: an entry is one line.

#include "GoodClients.h"
#include "Metrics.h"
#include "ServerProcess.h"

#include "../support/TestMode.h"
#include "../support/Waiting.h"

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace adversarial
{
namespace
{

// "2026-02-17T09:30:00.125" with any digits.
bool beginsWithTime(const std::string& line)
{
    const std::string form = "0000-00-00T00:00:00.000";
    for (size_t i = 0; i < form.size(); ++i) {
        const char each = i < line.size() ? line[i] : '\0';
        if (form[i] == '0' ? each < '0' || each > '9' : each != form[i])
            return false;
    }
    return true;
}

class LogLines : public ::testing::Test
{
protected:
    std::string written() const
    {
        std::stringstream text;
        text << std::ifstream(directory / "log.txt").rdbuf();
        return text.str();
    }

    // Does it again until the log holds the text: the daemon does not log every such end.
    template <typename Deed> bool untilLogged(const std::string& text, const Deed& deed)
    {
        const auto start = Clock::now();
        while (millisecondsSince(start) < static_cast<double>(kLimit.count())) {
            deed();
            if (integration::waitUntil([&] { return written().find(text) != std::string::npos; },
                                       milliseconds(200)))
                return true;
        }
        return false;
    }

    // One line for each entry, and no control character in it.
    static size_t expectOneLineAnEntry(const std::string& log)
    {
        std::istringstream lines(log);
        std::string line;
        size_t count = 0;
        while (std::getline(lines, line)) {
            ++count;
            EXPECT_TRUE(beginsWithTime(line)) << line;
            for (const char each : line) {
                const auto byte = static_cast<unsigned char>(each);
                EXPECT_FALSE(byte < 0x20 || byte == 0x7f) << int{byte} << " in " << line;
            }
        }
        return count;
    }

    const qv::tests::TemporaryDirectory directory;
};

// Each on a connection of its own; waits for the end of all.
void sendRaw(uint16_t port, const std::vector<std::string>& rows)
{
    std::vector<std::unique_ptr<integration::RawClient>> clients;
    for (const std::string& bytes : rows) {
        clients.push_back(std::make_unique<integration::RawClient>(port));
        clients.back()->send(bytes);
    }
    for (const auto& client : clients)
        client->receiveToEnd();
}

TEST_F(LogLines, OfAdversarialBytesAreOneEscapedLineAnEntry)
{
    ServerProcess server({"threads=2", "timeout=1000", "log=" + directory / "log.txt"});
    const uint16_t port = server.port();

    // Control characters in the target are refused, and nothing of it is logged.
    const std::string forged = "2026-01-01T00:00:00.000+00:00%20error%20%5bhttpserver%5d%20FORGED";
    for (const char* const place : {"/chunked/1/x%0a", "/throws/%1b%0a", "/throws/?q=%00"}) {
        integration::RawClient client(port);
        client.send(integration::getRequest(place + forged));
        const auto refusal = client.receive();
        ASSERT_TRUE(refusal);
        EXPECT_EQ(refusal->status, 400);
        EXPECT_NE(refusal->body.find("percent-encoded control character"), std::string::npos)
            << refusal->body;
    }
    EXPECT_EQ(written().find("FORGED"), std::string::npos) << written();
    // In the target, decoded by the daemon: an escape that looks like one of ours. Event-driven
    // mode drops the daemon's line about a client that leaves, not the one about a body that is cut
    // off.
    const bool dropsThoseOfClients = integration::isEventDriven();
    const std::string name = "x%5cn" + forged + "%5c";
    const auto leaveStream = [&] {
        integration::RawClient client(port);
        client.send(integration::getRequest("/chunked/50000000/" + name));
        client.receiveSome(1);
        client.reset();
    };
    const auto getCut = [&] {
        integration::RawClient client(port);
        client.send(integration::getRequest("/cut/" + name));
        client.receiveToEnd();
    };
    if (dropsThoseOfClients) {
        for (int i = 0; i < 20; ++i)
            leaveStream();
    }
    const std::string escaped = "x\\\\n2026-01-01T00:00:00.000+00:00 error [httpserver] FORGED\\\\";
    EXPECT_TRUE(dropsThoseOfClients ? untilLogged("/cut/" + escaped, getCut)
                                    : untilLogged("/chunked/50000000/" + escaped, leaveStream));
    // Raw, in all parts of a head.
    sendRaw(port, {"GET / HTTP/1.1\r\nHost: x\r\nno colon\x1b[31m\x07\r\n\r\n",
                   "GET /\x1b]0;title\x07 HTTP/1.1\r\nHost: x\r\n\r\n",
                   "GET /a\rb HTTP/1.1\r\nHost: x\r\n\r\n",
                   "GET / HTTP/1.1\r\nHost: x\r\nX: a\rFORGED\x1b[2J\r\n\r\n",
                   "GET / HTTP/1.1\r\nHost: x\r\nContent-Length: 1\x1b[31m\r\n\r\n",
                   "G\x1b[31mT / HTTP/1.1\r\nHost: x\r\n\r\n", "GET / HTTP/9.9\x1b[31m\r\n\r\n",
                   "\x1b[31m\r\n\r\n", std::string("\0\n\0\r", 4)});
    // In the text of an exception, for the kit.
    integration::RawClient client(port);
    client.send(integration::getRequest("/throws/%5cnFORGED"));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->status, 500);
    EXPECT_TRUE(isServed(port));
    server.stop(kLimit);

    const std::string log = written();
    if (dropsThoseOfClients) {
        EXPECT_EQ(log.find("`/chunked/"), std::string::npos) << log;
        EXPECT_NE(
            log.find("GET /throws/{name*}: the handler failed: on purpose\\nwith a second line, "
                     "/throws/%5cnFORGED\n"),
            std::string::npos)
            << log;
    }
    const size_t lines = expectOneLineAnEntry(log);
    EXPECT_GT(lines, 3u);
    metric("lines", static_cast<double>(lines), "lines");
}

}  // namespace
}  // namespace adversarial
