// Limits of event-driven mode that the system enforces: peers that do not read, and descriptors.

#include "support/EventRun.h"
#include "support/Pattern.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <support/Forking.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace
{

using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::onOneThread;
using integration::pattern;
using integration::RawClient;
using integration::RawResponse;
using integration::waitUntil;
using qv::http::ServerOptions;
using std::chrono::milliseconds;

// More than the buffers of the kernel hold.
constexpr uint64_t kStreamBytes = uint64_t{32} * 1024 * 1024;

// A server that streams to a client that has read nothing yet.
class UnreadStream
{
public:
    explicit UnreadStream(milliseconds sendTimeout) : mRun(makeHandler(), options(sendTimeout))
    {
        mClient = std::make_unique<RawClient>(mRun.port());
        EXPECT_TRUE(mClient->send(getRequest("/")));
    }

    EventRequest* request() { return mRun.request(0); }
    RawClient& client() { return *mClient; }

private:
    static ServerOptions options(milliseconds sendTimeout)
    {
        ServerOptions options = onOneThread();
        options.sendTimeout = sendTimeout;
        return options;
    }

    EventRun::Handler makeHandler()
    {
        return [this](EventRequest& request) {
            mRun.work(request, [](EventRequest& r) { r.streamPattern(kStreamBytes, 65536); });
        };
    }

    EventRun mRun;
    std::unique_ptr<RawClient> mClient;
};

TEST(SendTimeout, EndsAConnectionWhosePeerDoesNotReadAndNoSooner)
{
    UnreadStream none{milliseconds(0)};
    UnreadStream later{std::chrono::minutes(10)};
    UnreadStream soon{milliseconds(1000)};
    ASSERT_TRUE(none.request() && later.request() && soon.request());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(waitUntil([&] { return soon.request()->completions == 1; }));
    // The clock begins with the first byte that the peer does not take.
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(500));
    EXPECT_EQ(soon.request()->aborts, 1);
    for (UnreadStream* stream : {&none, &later}) {
        EXPECT_EQ(stream->request()->completions, 0);
        const std::optional<RawResponse> response = stream->client().receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->body.size(), kStreamBytes);
        EXPECT_EQ(stream->request()->aborts, 0);
    }
}

// Of the limit of descriptors, 128 are the application's, 256 those of refused connections, and 5
// each daemon's.

constexpr rlim_t kReserve = 128 + 256 + 5;

// In a child: ends it with a line on standard error.
void check(bool isTrue, const char* what)
{
    if (isTrue)
        return;
    std::fprintf(stderr, "failed: %s\n", what);
    ::_exit(1);
}

void setDescriptorLimit(rlim_t soft, rlim_t hard)
{
    const rlimit limit{soft, hard};
    check(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "the limit");
}

ServerOptions withPlaces(uint32_t places)
{
    ServerOptions options = onOneThread();
    options.maxConnections = places;
    return options;
}

bool isServed(RawClient& client)
{
    client.send(getRequest("/"));
    const std::optional<RawResponse> response = client.receive();
    return response && response->status == 200;
}

void respond(EventRequest& request)
{
    request.respondHere(200, "pong");
}

// Clients and server are one process: each connection has two descriptors.
void serveAsManyAsPossible(rlim_t limit, size_t possible)
{
    setDescriptorLimit(limit, limit);
    EventRun run(&respond, withPlaces(1000));
    const std::string line = "at most " + std::to_string(possible) +
                             " connections instead of 1000: the process may have " +
                             std::to_string(limit) + " descriptors (RLIMIT_NOFILE)";
    check(integration::processLog->lines(line).size() == 1, "the line in the log");
    std::vector<std::unique_ptr<RawClient>> clients;
    for (size_t i = 0; i < possible; ++i) {
        clients.push_back(std::make_unique<RawClient>(run.port()));
        check(isServed(*clients.back()), "a place");
    }
    RawClient surplus(run.port());
    surplus.send(getRequest("/"));
    const std::optional<RawResponse> response = surplus.receive();
    check(response && response->status == 503, "no further place");
}

TEST(DescriptorReserve, LowersTheNumberOfConnections)
{
    if (!qv::tests::kChildrenAllocate)
        GTEST_SKIP() << "no allocation in a child under AddressSanitizer";
    EXPECT_TRUE(qv::tests::endsInAChild([] { serveAsManyAsPossible(kReserve + 100, 100); }));
    EXPECT_TRUE(qv::tests::endsInAChild([] { serveAsManyAsPossible(kReserve + 17, 17); }));
}

TEST(DescriptorReserve, LeavesSixteenConnections)
{
    if (!qv::tests::kChildrenAllocate)
        GTEST_SKIP() << "no allocation in a child under AddressSanitizer";
    EXPECT_TRUE(qv::tests::endsInAChild([] { serveAsManyAsPossible(kReserve + 15, 16); }));
    EXPECT_TRUE(qv::tests::endsInAChild([] { serveAsManyAsPossible(128, 16); }));
}

TEST(DescriptorReserve, RaisesTheSoftLimitToWhatIsNeeded)
{
    if (!qv::tests::kChildrenAllocate)
        GTEST_SKIP() << "no allocation in a child under AddressSanitizer";
    EXPECT_TRUE(qv::tests::endsInAChild([] {
        constexpr rlim_t kPlaces = 500;
        constexpr rlim_t kHard = 2000;
        // A connection, and a file that it receives.
        constexpr rlim_t kWanted = kReserve + 2 * kPlaces;
        for (const rlim_t soft : {rlim_t{256}, kWanted - 1, kWanted + 1}) {
            setDescriptorLimit(soft, kHard);
            const EventRun run(&respond, withPlaces(kPlaces));
            rlimit limit{};
            check(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "the limit");
            check(limit.rlim_cur == std::max(soft, kWanted), "the limit as needed");
        }
        check(integration::processLog->lines().size() == 3, "no line but those of the starts");
    }));
}

}  // namespace
