// Event-driven mode under load: workers announce, write and end in random order with pauses,
// uploads wait for their readers, and clients leave at random. Every request is completed once,
// which the run checks at its end, and every response that is received is whole.

#include "support/EventRun.h"
#include "support/Pattern.h"
#include "support/RawClient.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::pattern;
using integration::RawClient;
using integration::RawResponse;
using qv::http::ServerOptions;

using Random = std::mt19937;

constexpr int kClients = 8;
constexpr size_t kMaxBytes = 700000;

unsigned seedOfRun()
{
    const char* const given = std::getenv("WENDREL_STRESS_SEED");
    return given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
}

int requestsOfRun()
{
    const char* const given = std::getenv("WENDREL_STRESS_REQUESTS");
    return given ? std::atoi(given) : WENDREL_TEST_STRESS_REQUESTS;
}

int upTo(Random& random, int most)
{
    return std::uniform_int_distribution<int>(0, most)(random);
}

// The worker of another request runs meanwhile.
void pause(Random& random)
{
    const int kind = upTo(random, 9);
    if (kind == 0)
        std::this_thread::sleep_for(std::chrono::microseconds(upTo(random, 2000)));
    else if (kind < 4)
        std::this_thread::yield();
}

// Sizes around those at which something changes: chunks, the whole-body limit of one buffer.
size_t someSize(Random& random)
{
    switch (upTo(random, 4)) {
    case 0:
        return static_cast<size_t>(upTo(random, 10));
    case 1:
        return static_cast<size_t>(65535 + upTo(random, 2));
    case 2:
        return static_cast<size_t>(upTo(random, kMaxBytes));
    default:
        return static_cast<size_t>(upTo(random, 5000));
    }
}

// Target: "/SEED/SIZE": the worker draws from the seed how it serves, and responds with so many
// bytes of the pattern, after it has read the body.
struct Job
{
    unsigned seed = 0;
    size_t bytes = 0;
};

Job jobOf(const EventRequest& request)
{
    Job job;
    char* end = nullptr;
    const std::string& target = request.getOriginalFullUrl();
    job.seed = static_cast<unsigned>(std::strtoul(target.c_str() + 1, &end, 10));
    job.bytes = std::strtoul(end + 1, nullptr, 10);
    return job;
}

void readBody(EventRequest& request, Random& random)
{
    std::vector<char> piece(static_cast<size_t>(1 + upTo(random, 200000)));
    integration::PatternChecker checker;
    while (!request.getReceiveDevice().atEnd()) {
        const uint64_t got = request.getReceiveDevice().readBytes(piece.data(), piece.size());
        checker.take(piece.data(), got);
        pause(random);
    }
    EXPECT_TRUE(checker.matches());
}

void writeBody(EventRequest& request, Random& random, size_t bytes)
{
    const std::string body = pattern(bytes);
    size_t at = 0;
    while (at < bytes) {
        const size_t part = std::min(bytes - at, static_cast<size_t>(1 + upTo(random, 100000)));
        if (request.getResponseDevice().writeBytes(body.data() + at, part) != part)
            return;
        at += part;
        if (upTo(random, 3) == 0)
            request.getResponseDevice().flush();
        pause(random);
    }
}

void serve(EventRequest& request)
{
    const Job job = jobOf(request);
    Random random(job.seed);
    const bool isDeclared = upTo(random, 2) == 0;
    if (isDeclared)
        request.response.contentLength = static_cast<int64_t>(job.bytes);
    // A writer waits for an announced response when 256 KiB are ready.
    constexpr size_t kMaxUnannouncedBytes = 250000;
    const int announceAt = upTo(random, job.bytes > kMaxUnannouncedBytes ? 1 : 3);
    const auto announce = [&](int step) {
        pause(random);
        if (step == announceAt)
            request.getResponseDevice().setResponseReady();
        pause(random);
    };
    announce(0);
    if (upTo(random, 5) != 0)
        readBody(request, random);
    announce(1);
    writeBody(request, random, job.bytes);
    announce(2);
    request.getResponseDevice().endSending();
    announce(3);
}

std::string requestBytes(Random& random, const std::string& target)
{
    const char* const version = upTo(random, 9) == 0 ? "HTTP/1.0" : "HTTP/1.1";
    const std::string line = target + " " + version + "\r\nHost: x\r\n";
    const size_t bytes = someSize(random);
    switch (upTo(random, 3)) {
    case 0:
        return "POST " + line + "Content-Length: " + std::to_string(bytes) + "\r\n\r\n" +
               pattern(bytes);
    case 1: {
        std::string all =
            "POST " + target + " HTTP/1.1\r\nHost: x\r\n" + "Transfer-Encoding: chunked\r\n\r\n";
        const std::string body = pattern(bytes);
        for (size_t at = 0; at < bytes;) {
            const std::string part = body.substr(at, static_cast<size_t>(1 + upTo(random, 40000)));
            char size[16];
            std::snprintf(size, sizeof size, "%zx\r\n", part.size());
            all += size + part + "\r\n";
            at += part.size();
        }
        return all + "0\r\n\r\n";
    }
    default:
        return "GET " + line + "\r\n";
    }
}

// One client after the other on one thread.
class Client
{
public:
    Client(uint16_t port, unsigned seed) : mPort(port), mRandom(seed) {}

    void serveRequests(int count)
    {
        for (int i = 0; i < count; ++i)
            one();
    }

    int wholeCount = 0;
    int leftCount = 0;

private:
    void one()
    {
        if (!mClient)
            mClient = std::make_unique<RawClient>(mPort);
        const size_t bytes = someSize(mRandom);
        const std::string target =
            "/" + std::to_string(mRandom() & 0xffffff) + "/" + std::to_string(bytes);
        const std::string sent = requestBytes(mRandom, target);
        const int kind = upTo(mRandom, 5);
        if (kind == 0) {
            leave(sent);
            return;
        }
        ASSERT_TRUE(mClient->send(sent)) << target;
        const auto response = mClient->receiveHead();
        ASSERT_TRUE(response) << target;
        receiveBody(*response, target, bytes);
    }

    void receiveBody(const RawResponse& head, const std::string& target, size_t bytes)
    {
        const bool isChunked = head.value("Transfer-Encoding") == "chunked";
        std::string body;
        if (isChunked) {
            ASSERT_TRUE(receiveChunks(body)) << target;
        } else if (!head.value("Content-Length").empty()) {
            body = mClient->receiveExactly(std::stoul(head.value("Content-Length")));
        } else {
            body = mClient->receiveToEnd();
        }
        ASSERT_TRUE(body == pattern(bytes)) << target << ": " << body.size() << " bytes";
        ++wholeCount;
        if (head.value("Connection") == "close" ||
            (!isChunked && head.value("Connection").empty() &&
             head.statusLine.find("1.0") != std::string::npos))
            mClient.reset();
    }

    bool receiveChunks(std::string& body)
    {
        for (;;) {
            std::string line;
            while (line.size() < 2 || line.substr(line.size() - 2) != "\r\n") {
                const std::string byte = mClient->receiveExactly(1);
                if (byte.empty())
                    return false;
                line += byte;
            }
            const size_t size = std::stoul(line, nullptr, 16);
            body += mClient->receiveExactly(size);
            if (mClient->receiveExactly(2) != "\r\n")
                return false;
            if (size == 0)
                return true;
        }
    }

    // Somewhere in the request or in the response, with or without a reset.
    void leave(const std::string& sent)
    {
        const int most = static_cast<int>(sent.size());
        const bool isWhole = upTo(mRandom, 1) == 0;
        mClient->send(sent.substr(0, static_cast<size_t>(isWhole ? most : upTo(mRandom, most))));
        if (isWhole && upTo(mRandom, 1) == 0)
            mClient->receiveSome(static_cast<size_t>(1 + upTo(mRandom, 1000)));
        pause(mRandom);
        switch (upTo(mRandom, 2)) {
        case 0:
            mClient->reset();
            break;
        case 1:
            mClient->finishSending();
            mClient->receiveToEnd();
            break;
        default:
            break;
        }
        mClient.reset();
        ++leftCount;
    }

    const uint16_t mPort;
    Random mRandom;
    std::unique_ptr<RawClient> mClient;
};

void stress(bool halfClosedClients)
{
    const unsigned seed = seedOfRun();
    SCOPED_TRACE("WENDREL_STRESS_SEED=" + std::to_string(seed));
    ServerOptions options = integration::onOneThread();
    options.threads = 2;
    options.uploadQueueBytes = 65536;
    options.halfClosedClients = halfClosedClients;
    EventRun run([&](EventRequest& request) { run.work(request, &serve); }, options);
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<std::thread> threads;
    const int each = std::max(requestsOfRun() / kClients, 1);
    for (int i = 0; i < kClients; ++i)
        clients.push_back(std::make_unique<Client>(run.port(), seed + static_cast<unsigned>(i)));
    for (const auto& client : clients)
        threads.emplace_back([&client, each] { client->serveRequests(each); });
    for (std::thread& thread : threads)
        thread.join();
    int whole = 0;
    int left = 0;
    for (const auto& client : clients) {
        whole += client->wholeCount;
        left += client->leftCount;
    }
    EXPECT_EQ(whole + left, each * kClients);
    EXPECT_TRUE(run.server().shutDown(std::chrono::minutes(1)));
}

TEST(EventStress, CompletesEveryRequestOnceAndEveryResponseWhole)
{
    stress(false);
}

TEST(EventStress, DoesSoWithClientsThatHalfClose)
{
    stress(true);
}

}  // namespace
