// Servers started and stopped many times in one process, in the middle of their load: nothing is
// left behind, no request gets two responses, and no response is lost that was handed over before
// the stop was asked for.

#include "Clients.h"
#include "ProcessState.h"
#include "Round.h"
#include "Servers.h"

#include "../support/ProcessCounts.h"
#include "../support/ProcessLog.h"
#include "../support/Waiting.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace integration
{

namespace
{

// Two of three servers are driven by the library alone; the third is one of the kit, with WebSocket
// sessions or without, in turn.
constexpr unsigned kRoundsPerOther = 3;

// In polling mode, a worker that waits for the rest of an upload takes a second to notice that it
// has ended.
constexpr unsigned kRoundsPerHalfUpload = 16;

constexpr unsigned kSessionServersPerTalk = 2;

// Limits of growth until the end. A leak in each round would be far above them.
constexpr uint64_t kAllowedAllocated = 16384;
constexpr uint64_t kAllowedResident = 2 * 1024 * 1024;

bool isFree(uint16_t port)
{
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const bool bound =
        ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(descriptor);
    return bound;
}

// Below those that the system gives to clients: one of these could take it between two rounds.
uint16_t findPortForAllRounds()
{
    constexpr unsigned kFirst = 20000;
    constexpr unsigned kCount = 12000;
    for (unsigned i = 0; i < kCount; ++i) {
        const unsigned place = (static_cast<unsigned>(::getpid()) * 7 + i) % kCount;
        if (isFree(static_cast<uint16_t>(kFirst + place)))
            return static_cast<uint16_t>(kFirst + place);
    }
    throw std::runtime_error("no free port on 127.0.0.1");
}

unsigned roundsToRun()
{
    const char* text = std::getenv("WENDREL_RESTART_ROUNDS");
    return text ? static_cast<unsigned>(std::atoi(text)) : WENDREL_RESTART_ROUNDS;
}

// Ends the process when a round does not end: a thread that waits for ever cannot be joined.
class RoundLimit
{
public:
    RoundLimit() : mThread([this] { watch(); }) {}

    ~RoundLimit()
    {
        begin(kEnded);
        mThread.join();
    }

    void begin(unsigned round)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mRound = round;
        mChanged.notify_all();
    }

private:
    static constexpr unsigned kEnded = static_cast<unsigned>(-1);
    static constexpr std::chrono::seconds kRoundLimit = 5 * kLimit;

    void watch()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        while (mRound != kEnded) {
            const unsigned watched = mRound;
            if (mChanged.wait_for(lock, kRoundLimit, [&] { return mRound != watched; }))
                continue;
            std::fprintf(stderr, "Round %u does not end.\n", watched);
            std::_Exit(1);
        }
    }

    std::mutex mMutex;
    std::condition_variable mChanged;
    unsigned mRound = 0;
    std::thread mThread;
};

// The resources that must be the same after each round as before the first.
class ProcessWatch
{
public:
    explicit ProcessWatch(unsigned rounds) { mMemory.reserve(rounds); }

    void takeSample()
    {
        // The last steps of a thread's end are the kernel's.
        EXPECT_TRUE(waitUntil([this] { return countThreads() == mThreads; }))
            << countThreads() << " threads instead of " << mThreads;
        EXPECT_EQ(countDescriptors(), mDescriptors);
        mMemory.push_back(measureMemory());
    }

    void finish() const
    {
        printMetric("restart_descriptors", mDescriptors, "descriptors");
        printMetric("restart_threads", mThreads, "threads");
        if (mMemory.size() < kWarmUp + 2 * kCompared)
            return;
        const Memory early = meanOf(mMemory, kWarmUp, kWarmUp + kCompared);
        const Memory late = meanOf(mMemory, mMemory.size() - kCompared, mMemory.size());
        printMetric("restart_allocated_early", early.allocated, "bytes");
        printMetric("restart_allocated_late", late.allocated, "bytes");
        printMetric("restart_resident_early", early.resident, "bytes");
        printMetric("restart_resident_late", late.resident, "bytes");
        EXPECT_LE(late.allocated, early.allocated + kAllowedAllocated) << jumps();
        if (!WENDREL_SANITIZED) {
            EXPECT_LE(late.resident, early.resident + kAllowedResident);
        }
    }

private:
    // The rounds that left more or less allocated than the one before.
    std::string jumps() const
    {
        std::string text;
        for (size_t round = 1; round < mMemory.size(); ++round) {
            const auto change = static_cast<int64_t>(mMemory[round].allocated) -
                                static_cast<int64_t>(mMemory[round - 1].allocated);
            if (std::abs(change) > static_cast<int64_t>(kAllowedAllocated))
                text +=
                    "round " + std::to_string(round) + ": " + std::to_string(change) + " bytes\n";
        }
        return text;
    }

    static constexpr size_t kWarmUp = 30;
    static constexpr size_t kCompared = 30;

    const size_t mDescriptors = countDescriptors();
    const size_t mThreads = countThreads();
    std::vector<Memory> mMemory;
};

class RestartRun
{
public:
    explicit RestartRun(unsigned rounds) : mWatch(rounds) {}

    void runRound(unsigned number)
    {
        SCOPED_TRACE("round " + std::to_string(number));
        mLimit.begin(number);
        {
            Round round(mPort, number);
            round.holdsUploads = number % kRoundsPerHalfUpload == 0;
            Totals& totals = number % kRoundsPerOther == 0 ? runOther(round) : runLibrary(round);
            round.end();
            ASSERT_TRUE(mClients.waitUntilIdle()) << "a client does not find its end";
            totals.add(round, &totals == &mDrained);
        }
        processLog->clear();
        mWatch.takeSample();
    }

    void finish() const
    {
        mLibrary.print("restart_library");
        mDrained.print("restart_kit_drained");
        mKit.print("restart_kit_cut_off");
        mSessions.print("restart_sessions");
        mWatch.finish();
    }

private:
    Totals& runLibrary(Round& round)
    {
        const unsigned turn =
            round.number / kRoundsPerOther * (kRoundsPerOther - 1) + round.number % kRoundsPerOther;
        runLibraryServer(round, mClients, static_cast<LibraryEnding>(turn % kLibraryEndings));
        return mLibrary;
    }

    Totals& runOther(Round& round)
    {
        const unsigned turn = round.number / kRoundsPerOther;
        return turn % 2 == 0 ? runKit(round, turn / 2) : runSessions(round, turn / 2);
    }

    Totals& runKit(Round& round, unsigned turn)
    {
        const auto ending = static_cast<KitEnding>(turn % kKitEndings);
        runKitServer(round, mClients, ending);
        return ending == KitEnding::Drained ? mDrained : mKit;
    }

    Totals& runSessions(Round& round, unsigned turn)
    {
        round.hasWebSockets = true;
        round.talksOn = turn % kSessionServersPerTalk == 0;
        const unsigned endingTurn = turn / kSessionServersPerTalk;
        runSessionServer(round, mClients, static_cast<SessionEnding>(endingTurn % kSessionEndings));
        return mSessions;
    }

    Clients mClients;
    RoundLimit mLimit;
    ProcessWatch mWatch;  // counts the threads of both in
    const uint16_t mPort = findPortForAllRounds();
    Totals mLibrary;
    Totals mDrained;
    Totals mKit;
    Totals mSessions;
};

}  // namespace

void waitForLoad(Round& round)
{
    const uint64_t responses = round.responses + 10 + (round.number * 37) % 50;
    const bool isTalking = round.hasWebSockets && round.talksOn;
    const bool isQuiet = round.hasWebSockets && !round.talksOn;
    EXPECT_TRUE(waitUntil([&] {
        return round.responses >= responses && round.streaming > 0 && !round.holdsUploads &&
               (!isTalking || round.echoes >= 3 + round.number % 10) &&
               (!isQuiet || round.quiet == Clients::kTalkers);
    })) << round.responses
        << " responses, " << round.echoes << " echoes";
}

namespace
{

TEST(Restarts, LeaveNothingBehindAndLoseNothingThatWasHandedOver)
{
    const unsigned rounds = roundsToRun();
    keepHeapSmall();
    RestartRun run(rounds);
    const auto start = std::chrono::steady_clock::now();
    for (unsigned number = 0; number < rounds && !HasFailure(); ++number)
        run.runRound(number);
    const auto took = std::chrono::steady_clock::now() - start;
    printMetric("restart_rounds", rounds, "rounds");
    printMetric("restart_time", std::chrono::duration_cast<std::chrono::milliseconds>(took).count(),
                "ms");
    run.finish();
}

}  // namespace
}  // namespace integration
