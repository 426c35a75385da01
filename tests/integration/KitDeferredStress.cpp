// Deferred responses in random interleavings: given before the handler returns, by other threads,
// at their deadline, to clients that leave, by nobody, and while the server stops. A model checks
// that each request has exactly one end.

#include "support/KitTestServer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
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
using qv::kit::StreamWrite;
using Random = std::mt19937;
using std::chrono::milliseconds;

constexpr int kClients = 8;
constexpr int kResponders = 3;

unsigned seedOfRun()
{
    const char* const given = std::getenv("WENDREL_STRESS_SEED");
    return given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
}

int requestsOfRun()
{
    const char* const given = std::getenv("WENDREL_STRESS_REQUESTS");
    return given ? std::atoi(given) : 1500;
}

int upTo(Random& random, int most)
{
    return std::uniform_int_distribution<int>(0, most)(random);
}

// Lets other threads overtake this one.
void pause(Random& random)
{
    const int kind = upTo(random, 9);
    if (kind == 0)
        std::this_thread::sleep_for(std::chrono::microseconds(upTo(random, 1500)));
    else if (kind < 5)
        std::this_thread::yield();
}

// The ends of one request.
struct Ends
{
    std::atomic<int> replies{0};  // that returned true
    std::atomic<int> losses{0};
    std::atomic<int> destroyed{0};  // without a response, while it was open
};

struct Totals
{
    std::atomic<int> requests{0};
    std::atomic<int> replied{0};
    std::atomic<int> losses{0};
    std::atomic<int> silent{0};  // neither: an early end that the application does not see
    std::atomic<int> wrong{0};
};

class Model
{
public:
    explicit Model(unsigned seed) : mSeed(seed)
    {
        for (int i = 0; i < kResponders; ++i)
            mThreads.emplace_back([this, i] { respond(static_cast<unsigned>(i)); });
    }

    ~Model() { stop(); }

    void addTo(Router& router)
    {
        const auto handle = [this](Request& request) { serve(request); };
        router.get("/worker", handle);
        router.get("/inline", handle).nonBlocking();
        router.get("/limited", handle).responseTimeout(milliseconds(2));
    }

    // All that waits is responded to or dropped; checks each request.
    void stop()
    {
        {
            const std::lock_guard locker(mMutex);
            mIsStopping = true;
        }
        for (std::thread& thread : mThreads)
            thread.join();
        mThreads.clear();
        mWaiting.clear();
        for (const auto& ends : mEnds) {
            ++totals.requests;
            totals.replied += ends->replies;
            totals.losses += ends->losses;
            totals.silent += ends->replies + ends->losses == 0;
            totals.wrong += ends->replies > 1 || ends->losses > 1;
        }
        mEnds.clear();
    }

    Totals totals;

private:
    struct Job
    {
        DeferredResponse later;
        std::shared_ptr<Ends> ends;
    };

    void serve(Request& request)
    {
        Random random(mSeed + ++mCount);
        auto ends = std::make_shared<Ends>();
        {
            const std::lock_guard locker(mMutex);
            mEnds.push_back(ends);
        }
        pause(random);
        Job job{request.defer(), ends};
        if (upTo(random, 2) != 0)
            job.later.onGone([ends] { ++ends->losses; });
        if (upTo(random, 2) == 0)
            job.later.setDeadline(milliseconds(upTo(random, 3)));
        if (upTo(random, 4) == 0) {
            finish(job, random);
            return;
        }
        {
            const std::lock_guard locker(mMutex);
            mWaiting.push_back(std::move(job));
        }
        pause(random);
    }

    void respond(unsigned number)
    {
        Random random(mSeed * 31 + number);
        for (;;) {
            Job job;
            {
                const std::lock_guard locker(mMutex);
                if (mIsStopping)
                    return;
                if (!mWaiting.empty()) {
                    job = std::move(mWaiting.front());
                    mWaiting.pop_front();
                }
            }
            pause(random);
            if (job.ends)
                finish(job, random);
            else
                std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }

    static void finish(Job& job, Random& random)
    {
        const auto ends = job.ends;
        switch (upTo(random, 9)) {
        case 0:
            job.later = DeferredResponse();
            break;
        case 1:
        case 2:
        case 3:
            stream(job, random);
            break;
        case 4:
            ends->replies += job.later.replyError(404);
            break;
        default:
            ends->replies += job.later.reply("text");
            // A second one is never sent.
            if (upTo(random, 3) == 0)
                ends->replies += job.later.reply("again");
            break;
        }
    }

    static void stream(Job& job, Random& random)
    {
        if (upTo(random, 1) == 0)
            job.later.setContentLength(20000);
        DeferredStream stream = job.later.startStream(ContentType::text(), 200, 5000);
        auto calls = std::make_shared<std::atomic<int>>(0);
        stream.onWritable([calls] { ++*calls; });
        const std::string block(1000, 's');
        int written = 0;
        while (written < 20) {
            const StreamWrite outcome = stream.write(block);
            if (outcome == StreamWrite::Gone)
                return;
            written += outcome == StreamWrite::Taken;
            pause(random);
            if (upTo(random, 200) == 0)
                return;  // cut off
        }
        stream.finish();
    }

    const unsigned mSeed;
    std::atomic<unsigned> mCount{0};
    std::mutex mMutex;
    std::deque<Job> mWaiting;
    std::vector<std::shared_ptr<Ends>> mEnds;
    bool mIsStopping = false;
    std::vector<std::thread> mThreads;
};

// A possible response: whole, or none because the connection was closed.
bool isPossible(const RawResponse& response)
{
    if (response.status == 200)
        return response.body == "text" || response.body == std::string(20000, 's');
    return response.status == 404 || response.status == 500 || response.status == 503;
}

void ask(uint16_t port, unsigned seed, int requests, std::atomic<int>& wrong,
         const std::atomic<bool>& isStopped)
{
    Random random(seed);
    std::unique_ptr<RawClient> client;
    constexpr std::array<const char*, 3> kPaths{"/worker", "/inline", "/limited"};
    for (int i = 0; i < requests && !isStopped; ++i) {
        if (!client)
            client = std::make_unique<RawClient>(port);
        bool keeps = client->send(getRequest(kPaths[static_cast<size_t>(upTo(random, 2))]));
        const int leaving = upTo(random, 9);
        if (leaving < 2) {
            pause(random);
            if (leaving == 0)
                client->reset();
            else
                client->close();
            keeps = false;
        } else if (keeps) {
            const auto response = client->receive();
            keeps = response.has_value();
            wrong += response && !isPossible(*response);
        }
        if (!keeps)
            client.reset();
    }
}

void runClients(uint16_t port, unsigned seed, int requests, std::atomic<int>& wrong,
                const std::atomic<bool>& isStopped)
{
    std::vector<std::thread> clients;
    for (unsigned i = 0; i < kClients; ++i)
        clients.emplace_back(
            [&, i] { ask(port, seed + i, requests / kClients, wrong, isStopped); });
    for (std::thread& client : clients)
        client.join();
}

TEST(KitDeferredStress, EachRequestHasOneEnd)
{
    const unsigned seed = seedOfRun();
    SCOPED_TRACE("WENDREL_STRESS_SEED=" + std::to_string(seed));
    std::atomic<int> wrong{0};
    const std::atomic<bool> isStopped{false};
    Model model(seed);
    {
        KitTestServer server([&](Router& router) { model.addTo(router); }, kitOptions(4));
        runClients(server.port(), seed, requestsOfRun(), wrong, isStopped);
        EXPECT_TRUE(waitUntil([&] { return server.server().openRequests() == 0; }));
        EXPECT_TRUE(server.stop());
    }
    model.stop();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(model.totals.wrong, 0);
    EXPECT_GT(model.totals.replied, 0);
    EXPECT_GT(model.totals.losses, 0);
}

TEST(KitDeferredStress, AServerIsStoppedInTheMiddle)
{
    const unsigned seed = seedOfRun();
    SCOPED_TRACE("WENDREL_STRESS_SEED=" + std::to_string(seed));
    Random random(seed);
    for (int round = 0; round < 10; ++round) {
        std::atomic<int> wrong{0};
        std::atomic<bool> isStopped{false};
        Model model(seed + static_cast<unsigned>(round));
        {
            KitTestServer server([&](Router& router) { model.addTo(router); }, kitOptions(4));
            std::thread clients(
                [&] { runClients(server.port(), seed, requestsOfRun(), wrong, isStopped); });
            std::this_thread::sleep_for(milliseconds(upTo(random, 60)));
            isStopped = true;
            server.stop(milliseconds(upTo(random, 3) == 0 ? 0 : upTo(random, 20)));
            EXPECT_EQ(server.server().openRequests(), 0u);
            clients.join();
        }
        model.stop();
        EXPECT_EQ(wrong, 0);
        EXPECT_EQ(model.totals.wrong, 0);
    }
}

}  // namespace
}  // namespace integration
