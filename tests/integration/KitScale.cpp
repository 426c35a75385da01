// Many requests that wait: deferred responses, slow bodies and abandoned streams.

#include "support/KitTestServer.h"

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace integration
{
namespace
{

using qv::kit::ContentType;
using qv::kit::DeferredResponse;
using qv::kit::DeferredStream;
using qv::kit::Request;
using qv::kit::Router;

// Resident memory of this process in bytes.
size_t residentBytes()
{
    std::ifstream file("/proc/self/statm");
    size_t total = 0;
    size_t resident = 0;
    file >> total >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// As many as the limit of descriptors allows, both ends being in this process.
size_t possibleConnections(size_t wanted)
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    constexpr rlim_t kOthers = 300;
    return std::min<size_t>(wanted, (limit.rlim_cur - kOthers) / 2);
}

void ping(const KitTestServer& server)
{
    EXPECT_EQ(server.get("/ping").body, "pong");
}

TEST(KitScale, DeferredRequestsCostTheirMemoryOnly)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr size_t kWanted = 500;
    constexpr bool kCountsMemory = false;
#else
    constexpr size_t kWanted = 10000;
    constexpr bool kCountsMemory = true;
#endif
    constexpr size_t kMaxBytesEach = 24000;
    const size_t wanted = possibleConnections(kWanted);
    std::mutex mutex;
    std::vector<DeferredResponse> waiting;
    waiting.reserve(wanted);
    auto options = kitOptions(4);
    options.maxConnections = static_cast<uint32_t>(wanted) + 100;
    KitTestServer server(
        [&](Router& router) {
            router.get("/wait", [&](Request& request) {
                auto later = request.defer();
                later.setDeadline(std::chrono::minutes(10));
                const std::lock_guard locker(mutex);
                waiting.push_back(std::move(later));
            });
            router.get("/ping", [](Request& request) { request.reply("pong"); });
        },
        options);
    ping(server);
    std::vector<std::unique_ptr<RawClient>> clients;
    clients.reserve(wanted);
    const size_t before = residentBytes();
    for (size_t i = 0; i < wanted; ++i) {
        clients.push_back(std::make_unique<RawClient>(server.port()));
        ASSERT_TRUE(clients.back()->send(getRequest("/wait")));
        // The accept queue does not overflow.
        if (i % 100 == 0) {
            ping(server);
        }
    }
    ASSERT_TRUE(waitUntil([&] {
        const std::lock_guard locker(mutex);
        return waiting.size() == wanted;
    }));
    const size_t bytesEach = (residentBytes() - before) / wanted;
    RecordProperty("deferred", static_cast<int>(wanted));
    RecordProperty("bytes_each", static_cast<int>(bytesEach));
    std::printf("%zu deferred requests, %zu bytes each, clients included\n", wanted, bytesEach);
    if (kCountsMemory) {
        EXPECT_LT(bytesEach, kMaxBytesEach);
    }
    for (int i = 0; i < 100; ++i)
        ping(server);
    for (DeferredResponse& response : waiting)
        EXPECT_TRUE(response.reply("later"));
    for (const auto& client : clients)
        EXPECT_EQ(client->receive().value_or(RawResponse()).body, "later");
    waiting.clear();
    EXPECT_TRUE(server.stop());
    EXPECT_EQ(server.server().openRequests(), 0u);
}

TEST(KitScale, SlowBodiesAndAbandonedStreamsHoldNoWorker)
{
    constexpr size_t kEach = 200;
    std::mutex mutex;
    std::vector<DeferredStream> streams;
    KitTestServer server(
        [&](Router& router) {
            router.put("/body", [](Request& request) { request.reply(request.body()); });
            router.get("/events", [&](Request& request) {
                auto later = request.defer();
                auto stream = later.startStream(ContentType("text/event-stream"));
                stream.write("data: 1\n\n");
                const std::lock_guard locker(mutex);
                streams.push_back(std::move(stream));
            });
            router.get("/ping", [](Request& request) { request.reply("pong"); });
        },
        kitOptions(4));
    std::vector<std::unique_ptr<RawClient>> slow;
    std::vector<std::unique_ptr<RawClient>> abandoned;
    for (size_t i = 0; i < kEach; ++i) {
        slow.push_back(std::make_unique<RawClient>(server.port()));
        ASSERT_TRUE(slow.back()->send(headOf("PUT", "/body", 4) + "1"));
        abandoned.push_back(std::make_unique<RawClient>(server.port()));
        ASSERT_TRUE(abandoned.back()->send(getRequest("/events")));
    }
    ASSERT_TRUE(waitUntil([&] {
        const std::lock_guard locker(mutex);
        return streams.size() == kEach && server.server().openRequests() == 2 * kEach;
    }));
    for (int i = 0; i < 50; ++i)
        ping(server);
    // Half of the streams' clients leave, as a page that is loaded again does.
    for (size_t i = 0; i < kEach; i += 2)
        abandoned[i]->reset();
    for (int i = 0; i < 50; ++i)
        ping(server);
    for (const auto& client : slow) {
        ASSERT_TRUE(client->send("234"));
        EXPECT_EQ(client->receive().value_or(RawResponse()).body, "1234");
    }
    ASSERT_TRUE(waitUntil([&] {
        const std::lock_guard locker(mutex);
        size_t closed = 0;
        for (DeferredStream& stream : streams)
            closed += stream.write(":\n\n") == qv::kit::StreamWrite::Gone;
        return closed == kEach / 2;
    }));
    streams.clear();
    EXPECT_TRUE(server.stop());
}

}  // namespace
}  // namespace integration
