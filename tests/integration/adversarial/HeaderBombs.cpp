// Requests that exceed one limit: the responses, and the memory they leave behind.

#include "Crowd.h"
#include "GoodClients.h"
#include "Metrics.h"
#include "ServerProcess.h"

#include "../support/TestMode.h"
#include "../support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace adversarial
{
namespace
{

using integration::getRequest;

constexpr double kKib = 1024;

std::string repeated(const std::string& text, size_t times)
{
    std::string all;
    all.reserve(text.size() * times);
    for (size_t i = 0; i < times; ++i)
        all += text;
    return all;
}

std::string numberedLines(size_t count)
{
    std::string lines;
    for (size_t i = 0; i < count; ++i)
        lines += "X-" + std::to_string(i) + ": v\r\n";
    return lines;
}

std::string cookies(size_t count)
{
    return "Cookie: a=b" + repeated("; a=b", count - 1) + "\r\n";
}

std::string arguments(size_t count)
{
    return "/small?a" + repeated("&a", count - 1);
}

std::string upload(const std::string& body)
{
    return "PUT /upload HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n" + body;
}

// The outcome of a request: a status, or one of these.
constexpr int kClosed = 0;     // the connection is closed without a response, at once
constexpr int kTimedOut = -1;  // likewise, but only by the timeout

// Short, for requests that end by the timeout; long, so that no other request meets it.
constexpr unsigned kShortTimeoutMs = 1000;
constexpr unsigned kLongTimeoutMs = 600000;

struct Bomb
{
    const char* name;
    std::string bytes;
    int outcome;
};

std::vector<Bomb> bombs()
{
    const std::string tinyChunks = repeated("1\r\nx\r\n", 20000) + "0\r\n\r\n";
    const std::string longExtension = "1;" + std::string(200000, 'e') + "\r\nx\r\n0\r\n\r\n";
    return {
        {"headers-3000", getRequest("/small", numberedLines(3000)), 200},
        {"headers-4000", getRequest("/small", numberedLines(4000)), 431},
        {"equal-headers-3000", getRequest("/small", repeated("X: v\r\n", 3000)), 200},
        {"cookies-3000", getRequest("/small", cookies(1600)), 200},
        {"cookies-above-8096-bytes", getRequest("/small", cookies(3000)), 400},
        {"arguments-2000", getRequest(arguments(2000)), 200},
        {"arguments-3000-target-above-4096-bytes", getRequest(arguments(3000)), 400},
        {"header-8000-bytes", getRequest("/small", "X: " + std::string(8000, 'h') + "\r\n"), 200},
        {"header-200000-bytes", getRequest("/small", "X: " + std::string(200000, 'h') + "\r\n"),
         400},
        {"header-300000-bytes", getRequest("/small", "X: " + std::string(300000, 'h') + "\r\n"),
         431},
        {"header-without-end-1000000-bytes",
         "GET / HTTP/1.1\r\nHost: x\r\nX: " + std::string(1000000, 'h'), 431},
        {"header-name-100000-bytes", getRequest("/small", std::string(100000, 'n') + ": v\r\n"),
         400},
        {"target-4097-bytes", getRequest("/" + std::string(4096, 't')), 400},
        {"target-200000-bytes", getRequest("/" + std::string(200000, 't')), 400},
        {"target-262000-bytes", getRequest("/" + std::string(261999, 't')), kClosed},
        {"target-300000-bytes", getRequest("/" + std::string(300000, 't')), 414},
        {"empty-lines-100000-first", repeated("\r\n", 100000) + getRequest("/small"), 200},
        {"tiny-chunks-20000", upload(tinyChunks), 200},
        {"chunk-extension-200000-bytes", upload(longExtension), 200},
        {"chunk-of-2^64-1-bytes", upload("ffffffffffffffff\r\nx"), kTimedOut},
        {"chunk-size-of-17-digits", upload("10000000000000000\r\nx"), 413},
        {"content-length-2^64-1",
         "PUT /upload HTTP/1.1\r\nHost: x\r\nContent-Length: 18446744073709551615\r\n\r\nx",
         integration::isEventDriven() ? 400 : kTimedOut},
        {"content-length-2^64",
         "PUT /upload HTTP/1.1\r\nHost: x\r\nContent-Length: 18446744073709551616\r\n\r\nx", 413},
    };
}

// True when no more is to be expected.
bool hasOutcome(const Client& client)
{
    return client.state == Client::Ended || client.text.find("\r\n\r\n") != std::string::npos;
}

int outcomeOf(const Client& client, double timeoutMs)
{
    const std::string version = "HTTP/1.1 ";
    // Event-driven mode says so.
    if (client.text.starts_with(version + "408"))
        return kTimedOut;
    if (client.text.compare(0, version.size(), version) == 0)
        return std::atoi(client.text.c_str() + version.size());
    constexpr double kCoarseMs = 100;
    const std::chrono::duration<double, std::milli> time = client.ended - client.lastSent;
    return time.count() < timeoutMs - kCoarseMs ? kClosed : kTimedOut;
}

class HeaderBombs : public ::testing::Test
{
protected:
    static ServerProcess makeServer(unsigned timeoutMs = kLongTimeoutMs)
    {
        return ServerProcess({"threads=2", "workers=64", "timeout=" + std::to_string(timeoutMs)});
    }

    // Sends the bytes `times` times, each on a connection of its own, and returns the outcomes.
    static std::vector<int> outcomes(uint16_t port, const std::string& bytes, size_t times,
                                     unsigned timeoutMs)
    {
        Crowd crowd(port);
        for (size_t i = 0; i < times; ++i)
            crowd.send(crowd.open(), bytes);
        EXPECT_TRUE(crowd.run(
            [&] {
                for (const Client& each : crowd.clients()) {
                    if (!hasOutcome(each))
                        return false;
                }
                return true;
            },
            kLimit));
        std::vector<int> found;
        for (const Client& each : crowd.clients())
            found.push_back(outcomeOf(each, timeoutMs));
        return found;
    }

    // The bombs that end by the timeout, or all others.
    static void explode(bool timedOut)
    {
        constexpr size_t kTimes = 20;
        constexpr size_t kToleratedBytes = 8u << 20;
        const unsigned timeoutMs = timedOut ? kShortTimeoutMs : kLongTimeoutMs;
        ServerProcess server = makeServer(timeoutMs);
        serve(server.port(), 100);
        const Footprint before = server.quietFootprint();
        for (const Bomb& bomb : bombs()) {
            if ((bomb.outcome == kTimedOut) != timedOut)
                continue;
            SCOPED_TRACE(bomb.name);
            const auto start = Clock::now();
            const std::vector<int> found =
                outcomes(server.port(), bomb.bytes, scaled(kTimes), timeoutMs);
            const double time = millisecondsSince(start) / static_cast<double>(found.size());
            EXPECT_THAT(found, ::testing::Each(bomb.outcome));
            metric(std::string(bomb.name) + ".outcome", found.front(), "status");
            metric(std::string(bomb.name) + ".time-of-each", time, "ms");
            EXPECT_TRUE(isServed(server.port()));
        }
        server.expectAsBefore(before, kToleratedBytes);
        server.stop(kLimit);
    }
};

TEST_F(HeaderBombs, GetAResponseOrTheirEndAndLeaveNothing)
{
    explode(false);
    explode(true);
}

TEST_F(HeaderBombs, TenThousandRequestsAtOnceOnOneConnectionAreAllServed)
{
    const size_t requests = scaled(10000);
    ServerProcess server = makeServer();
    Crowd crowd(server.port());
    Client& client = crowd.open();
    const auto start = Clock::now();
    crowd.send(client, repeated(getRequest("/small"), requests - 1) +
                           getRequest("/small", "Connection: close\r\n"));
    EXPECT_TRUE(crowd.run([&] { return client.state == Client::Ended; }, kLimit));
    metric("requests", static_cast<double>(requests), "requests");
    metric("time", millisecondsSince(start), "ms");
    EXPECT_EQ(server.metrics().at("requests"), requests);
    EXPECT_FALSE(client.wasReset);
    server.stop(kLimit);
}

// The daemon drops these requests without a word, also to the library.
struct Dropped
{
    const char* name;
    std::string bytes;
};

std::vector<Dropped> droppedRequests()
{
    const std::string target = "/" + std::string(4000, 't');
    const std::string longTarget = arguments(4000) + "&" + std::string(180000, 'x');
    return {
        {"arguments-4000", getRequest(arguments(4000))},
        {"arguments-4000-target-188000-bytes", getRequest(longTarget)},
        {"cookies-4000", getRequest(target, cookies(4000))},
        {"bad-cookie-without-host-target-180000-bytes",
         "GET /" + std::string(180000, 't') + " HTTP/1.1\r\nCookie: a=\"\r\n\r\n"},
    };
}

// The library's context of such a request is freed when the server stops.
TEST_F(HeaderBombs, RequestsDroppedByTheDaemonAreForgottenWhenTheServerStops)
{
    constexpr size_t kRequests = 1000;
    for (const Dropped& dropped : droppedRequests()) {
        SCOPED_TRACE(dropped.name);
        const size_t requests = scaled(kRequests / 8);
        // The daemon closes some of the connections at once, and the others by the timeout.
        ServerProcess server = makeServer(kShortTimeoutMs);
        serve(server.port(), 100);
        const uint64_t heapBefore = server.metrics().at("heap");
        {
            Crowd crowd(server.port());
            for (size_t i = 0; i < requests; ++i)
                crowd.send(crowd.open(), dropped.bytes);
            const auto start = Clock::now();
            EXPECT_TRUE(crowd.run([&] { return crowd.count(Client::Ended) == requests; }, kLimit));
            metric(std::string(dropped.name) + ".closed-after", millisecondsSince(start), "ms");
            size_t silent = 0;
            for (const Client& each : crowd.clients())
                silent += each.text.empty();
            metric(std::string(dropped.name) + ".without-response", static_cast<double>(silent),
                   "requests");
        }
        // A client that does not wait for its end either.
        {
            Crowd crowd(server.port());
            crowd.onChange = [&](Client& client) {
                if (client.sent == dropped.bytes.size())
                    crowd.end(client, Crowd::End::Close);
            };
            const auto start = Clock::now();
            for (size_t i = 0; i < requests; ++i)
                crowd.send(crowd.open(), dropped.bytes);
            EXPECT_TRUE(crowd.run([&] { return crowd.count(Client::Ended) == requests; }, kLimit));
            metric(std::string(dropped.name) + ".rate",
                   static_cast<double>(requests) / millisecondsSince(start) * 1000, "requests/s");
        }
        // The short timeout may end a request of a busy machine.
        EXPECT_TRUE(integration::waitUntil([&] { return isServed(server.port()); }));
        server.quietFootprint();
        const auto kept =
            static_cast<double>(server.metrics().at("heap")) - static_cast<double>(heapBefore);
        const Report stopped = server.stop(kLimit);
        metric(std::string(dropped.name) + ".kept-until-stop-of-each",
               kept / static_cast<double>(2 * requests) / kKib, "KiB");
        metric(std::string(dropped.name) + ".kept-after-stop",
               static_cast<double>(stopped.at("heap")) / kKib, "KiB");
        EXPECT_LE(stopped.at("heap"), heapBefore);
    }
}

}  // namespace
}  // namespace adversarial
