// Uploads and downloads that their clients break off anywhere.

#include "Crowd.h"
#include "GoodClients.h"
#include "Metrics.h"
#include "ServerProcess.h"

#include "../support/TestServer.h"
#include "../support/Waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace adversarial
{
namespace
{

// By the library alone, and as many by the kit.
constexpr size_t kAborts = 2500;
constexpr size_t kAtOnce = 200;
constexpr size_t kUploadBytes = 300000;
constexpr size_t kBufferedBytes = 200000;
constexpr size_t kStreamBytes = 1000000;

enum Kind : int { SizedUpload, ChunkedUpload, Buffered, SizedStream, ChunkedStream, KindCount };

// How a client leaves: by a reset, by closing its socket, by ending its own side alone; each right
// behind its last byte, or when the server has had the time to take that.
enum Way : int { Reset, Close, HalfClose, ResetLater, CloseLater, HalfCloseLater, WayCount };

constexpr const char* kWayNames[] = {"reset",       "close",       "half-close",
                                     "reset-later", "close-later", "half-close-later"};
constexpr milliseconds kLater(100);

uint64_t seed()
{
    const char* text = std::getenv("WENDREL_ADVERSARIAL_SEED");
    return text ? std::strtoull(text, nullptr, 10) : std::random_device()();
}

std::string chunked(const std::string& body)
{
    constexpr size_t kChunkBytes = 7000;
    std::string wire;
    for (size_t at = 0; at < body.size(); at += kChunkBytes) {
        const std::string part = body.substr(at, kChunkBytes);
        char line[32];
        std::snprintf(line, sizeof line, "%zx\r\n", part.size());
        wire += line + part + "\r\n";
    }
    return wire + "0\r\n\r\n";
}

// Everything that a client of this kind would send, and the least that it would get.
struct Exchange
{
    std::string request;
    size_t responseBytes;
};

Exchange exchangeOf(Kind kind, Way way)
{
    static const std::string body(kUploadBytes, 'u');
    static const std::string chunks = chunked(body);
    const std::string put =
        std::string("PUT /upload/upload-") + kWayNames[way] + " HTTP/1.1\r\nHost: x\r\n";
    switch (kind) {
    case SizedUpload:
        return {put + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body, 0};
    case ChunkedUpload:
        return {put + "Transfer-Encoding: chunked\r\n\r\n" + chunks, 0};
    case Buffered:
        return {integration::getRequest("/buffered/" + std::to_string(kBufferedBytes)),
                kBufferedBytes};
    case SizedStream:
        return {integration::getRequest("/known/" + std::to_string(kStreamBytes)), kStreamBytes};
    default:
        return {integration::getRequest("/chunked/" + std::to_string(kStreamBytes) + "/x"),
                kStreamBytes};
    }
}

// Clients with dice: each takes one kind of request and leaves after some byte of it.
class Leavers
{
public:
    Leavers(uint16_t port, uint64_t dice) : mCrowd(port), mRandom(dice)
    {
        mCrowd.onChange = [this](Client& client) { leaveWhenDue(client); };
    }

    void run(size_t count)
    {
        const auto renew = [&] {
            leaveLater();
            while (mPlans.size() < count &&
                   mCrowd.count(Client::Connecting) + mCrowd.count(Client::Open) < scaled(kAtOnce))
                begin();
            return mPlans.size() == count && mCrowd.count(Client::Ended) == count;
        };
        EXPECT_TRUE(mCrowd.run(renew, kLimit));
    }

    size_t left() const { return mLeft; }
    size_t endedByServer() const { return mEndedByServer; }

private:
    struct Plan
    {
        size_t requestBytes;   // that are sent
        size_t responseBytes;  // that are read
        Way way;
        Clock::time_point due = Clock::time_point::max();
        bool hasLeft = false;
    };

    size_t dice(size_t sides) { return mRandom() % sides; }

    void begin()
    {
        const auto kind = static_cast<Kind>(dice(KindCount));
        const bool uploads = kind <= ChunkedUpload;
        // One that has ended its side only, with a whole request, has not broken off.
        auto way = static_cast<Way>(dice(WayCount));
        if (!uploads && (way == HalfClose || way == HalfCloseLater))
            way = way == HalfClose ? Close : CloseLater;
        const Exchange exchange = exchangeOf(kind, way);
        Plan plan{};
        plan.way = way;
        plan.requestBytes =
            uploads ? 1 + dice(exchange.request.size() - 1) : exchange.request.size();
        plan.responseBytes = uploads ? 0 : dice(exchange.responseBytes);
        plan.due = Clock::time_point::max();
        mPlans.push_back(plan);
        Client& client = mCrowd.open(kind);
        if (!uploads)
            client.receiveUpTo = plan.responseBytes;
        mCrowd.send(client, std::string_view(exchange.request).substr(0, plan.requestBytes));
    }

    void leaveWhenDue(Client& client)
    {
        Plan& plan = mPlans[client.number];
        if (client.state == Client::Ended) {
            mEndedByServer += !plan.hasLeft;
            return;
        }
        if (client.sent < plan.requestBytes || client.received < plan.responseBytes)
            return;
        if (plan.due == Clock::time_point::max()) {
            plan.due = Clock::now();
            if (plan.way >= ResetLater) {
                plan.due += kLater;
                mWaiting.push_back(&client);
            }
        }
        if (!plan.hasLeft && Clock::now() >= plan.due)
            leave(client, plan);
    }

    // All wait equally long.
    void leaveLater()
    {
        while (!mWaiting.empty() && mPlans[mWaiting.front()->number].due <= Clock::now()) {
            Client& client = *mWaiting.front();
            mWaiting.pop_front();
            if (client.state == Client::Open && !mPlans[client.number].hasLeft)
                leave(client, mPlans[client.number]);
        }
    }

    void leave(Client& client, Plan& plan)
    {
        plan.hasLeft = true;
        ++mLeft;
        if (plan.way == HalfClose || plan.way == HalfCloseLater)
            mCrowd.finishSending(client);
        else if (plan.way == Reset || plan.way == ResetLater)
            mCrowd.end(client, Crowd::End::Reset);
        else
            mCrowd.end(client, Crowd::End::Close);
    }

    Crowd mCrowd;
    std::mt19937_64 mRandom;
    std::vector<Plan> mPlans;
    std::deque<Client*> mWaiting;
    size_t mLeft = 0;
    size_t mEndedByServer = 0;
};

const std::set<std::string> kErrors = {"no error", "ClientAbort", "ReadError", "WriteError",
                                       "TimeoutReached"};

// The text behind the last colon, as in "upload: Http response device : ClientAbort".
std::string reasonOf(const std::string& ending)
{
    return ending.substr(ending.rfind(": ") + 2);
}

TEST(Aborts, OfRequestsOfWorkersAllEndAndAreDeleted)
{
    const uint64_t dice = seed();
    metric("seed", static_cast<double>(dice), "WENDREL_ADVERSARIAL_SEED");
    ServerProcess server(
        {"threads=2", "workers=" + std::to_string(scaled(kAborts) + 20), "timeout=3000"});
    serve(server.port(), 100);
    const Footprint before = server.quietFootprint();
    const uint64_t requestsBefore = server.metrics().at("requests");
    const auto start = Clock::now();
    Leavers leavers(server.port(), dice);
    leavers.run(scaled(kAborts));
    EXPECT_EQ(leavers.left() + leavers.endedByServer(), scaled(kAborts));
    constexpr size_t kToleratedBytes = 32u << 20;
    server.expectAsBefore(before, kToleratedBytes);
    metric("aborts", static_cast<double>(leavers.left()), "connections");
    // On a machine that is too slow for the timeout.
    metric("ended-before-by-the-server", static_cast<double>(leavers.endedByServer()),
           "connections");
    metric("until-all-have-ended", millisecondsSince(start), "ms");

    // The kit tells no reasons.
    uint64_t ended = integration::isEventDriven() ? server.metrics().at("requests") : 0;
    for (const auto& [ending, count] : server.endings()) {
        ended += count;
        std::string name = ending.substr(0, ending.find(':')) + "." + reasonOf(ending);
        std::replace(name.begin(), name.end(), ' ', '-');
        metric(name, static_cast<double>(count), "requests");
        EXPECT_EQ(kErrors.count(reasonOf(ending)), 1u) << ending;
        EXPECT_NE(ending.substr(0, ending.find(':')), "unserved");
    }
    EXPECT_EQ(ended, server.metrics().at("requests"));
    EXPECT_GT(ended, requestsBefore);
    EXPECT_TRUE(isServed(server.port()));
    server.stop(milliseconds(1000));
}

// The errors that the workers of a server on the library alone saw, by the first part of the path.
class Endings
{
public:
    void note(const std::string& ending)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        ++mCounts[ending];
    }

    std::map<std::string, uint64_t> counts() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mCounts;
    }

private:
    mutable std::mutex mMutex;
    std::map<std::string, uint64_t> mCounts;
};

// As docs/behaviour-you-may-not-expect.md tells applications to: TestRequest's wait listener looks
// for the end of the connection, and a refused write ends the stream.
void serveByItself(integration::TestRequest& request, Endings& endings)
{
    const std::string path = request.getUrl().path();
    qv::HttpResponseDevice& device = request.getResponseDevice();
    if (path.compare(0, 8, "/upload/") == 0) {
        const std::string body = request.readBody();
        const bool isWhole = !request.getReceiveDevice().hasDeviceError();
        endings.note(path.substr(8) + ": " + (isWhole ? "no error" : request.connectionError()));
        EXPECT_TRUE(!isWhole || body == std::string(kUploadBytes, 'u')) << body.size();
        request.respond(200, "taken");
        return;
    }
    if (path.compare(0, 9, "/buffered") == 0) {
        request.respond(200, std::string(kBufferedBytes, 'b'));
        return;
    }
    const bool isSized = path.compare(0, 6, "/known") == 0;
    if (isSized)
        request.response.contentLength = kStreamBytes;
    device.setResponseReady();
    const std::string piece(50000, 's');
    for (size_t done = 0; done < kStreamBytes; done += piece.size()) {
        if (device.writeBytes(piece.data(), piece.size()) != piece.size()) {
            endings.note((isSized ? "known: " : "chunked: ") + request.connectionError());
            return;
        }
    }
    device.endSending();
    endings.note(isSized ? "known: no error" : "chunked: no error");
}

TEST(Aborts, AreCompletedOnceForEachRequest)
{
    const uint64_t dice = seed();
    metric("seed", static_cast<double>(dice), "WENDREL_ADVERSARIAL_SEED");
    Endings endings;
    integration::TestServerOptions options;
    options.connectionTimeoutMs = 3000;
    options.threadPoolSize = 2;
    integration::TestServer server(
        [&endings](integration::TestRequest& request) { serveByItself(request, endings); },
        options);
    const auto start = Clock::now();
    Leavers leavers(server.port(), dice);
    leavers.run(scaled(kAborts));
    EXPECT_EQ(leavers.left() + leavers.endedByServer(), scaled(kAborts));
    EXPECT_TRUE(server.waitUntilNoneOpen());
    EXPECT_EQ(server.requestsDeleted(), server.requestsCreated());
    EXPECT_EQ(server.requestsCompleted(), server.requestsCreated());
    EXPECT_GT(server.requestsCreated(), 0u);
    metric("aborts", static_cast<double>(leavers.left()), "connections");
    // On a machine that is too slow for the timeout.
    metric("ended-before-by-the-server", static_cast<double>(leavers.endedByServer()),
           "connections");
    metric("requests", static_cast<double>(server.requestsCreated()), "requests");
    metric("until-all-have-ended", millisecondsSince(start), "ms");
    for (const auto& [ending, count] : endings.counts()) {
        std::string name = ending.substr(0, ending.find(':')) + "." + reasonOf(ending);
        std::replace(name.begin(), name.end(), ' ', '-');
        metric(name, static_cast<double>(count), "requests");
        EXPECT_EQ(kErrors.count(reasonOf(ending)), 1u) << ending;
    }
}

// The daemon does not notice an end that arrives along with the last bytes: only the timeout ends
// the request and frees its worker.
TEST(Aborts, BehindTheLastByteHoldAWorkerUntilTheTimeout)
{
    constexpr size_t kLeavers = 32;  // twice the workers: one or two are noticed
    constexpr double kTimeoutMs = 3000;
    ServerProcess server({"threads=2", "workers=16", "timeout=3000"});
    serve(server.port(), 100);
    const Footprint before = server.quietFootprint();
    const auto start = Clock::now();
    {
        Crowd crowd(server.port());
        const std::string part =
            "PUT /upload HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000\r\n\r\n" +
            std::string(10000, 'u');
        crowd.onChange = [&](Client& client) {
            if (client.sent == part.size())
                crowd.end(client, Crowd::End::Close);
        };
        for (size_t i = 0; i < kLeavers; ++i)
            crowd.send(crowd.open(), part);
        EXPECT_TRUE(crowd.run([&] { return crowd.count(Client::Ended) == kLeavers; }, kLimit));
    }
    metric("clients-that-have-closed", kLeavers, "connections");
    metric("connection-timeout", kTimeoutMs, "ms");
    Meanwhile good(server.port(), Meanwhile::Requests);
    EXPECT_TRUE(integration::waitUntil([&] { return good.responses() > 0; }));
    metric("next-response-after", millisecondsSince(start), "ms");
    // A good client that waits longer than that for a worker is closed as well.
    metric("good-clients-closed-meanwhile", static_cast<double>(good.stop().failures), "requests");
    constexpr size_t kToleratedBytes = 8u << 20;
    server.expectAsBefore(before, kToleratedBytes);
    server.stop(milliseconds(1000));
}

}  // namespace
}  // namespace adversarial
