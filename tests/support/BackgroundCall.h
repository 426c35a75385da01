// A call on a thread of its own, for tests of blocking calls and their duration.
#ifndef WENDREL_TESTS_SUPPORT_BACKGROUNDCALL_H
#define WENDREL_TESTS_SUPPORT_BACKGROUNDCALL_H

#include "Waiting.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include <unistd.h>

namespace qv::tests
{

// True when the kernel reports that the thread of this process sleeps: it waits for a lock, a
// condition, a descriptor or a clock.
inline bool isThreadAsleep(pid_t thread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    // "number (name) state ...", where the name may hold any character.
    const size_t nameEnd = text.rfind(") ");
    return nameEnd != std::string::npos && text.compare(nameEnd + 2, 1, "S") == 0;
}

// Waits until all other threads of the process sleep; false at the limit.
inline bool waitUntilOthersSleep()
{
    constexpr int kSamplesInARow = 5;
    int asleep = 0;
    return waitUntil([&] {
        bool all = true;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
            const auto thread = static_cast<pid_t>(std::stol(entry.path().filename()));
            all = all && (thread == ::gettid() || isThreadAsleep(thread));
        }
        asleep = all ? asleep + 1 : 0;
        return asleep == kSamplesInARow;
    });
}

// Calls `function` on a thread of its own. The destructor waits for its end.
class BackgroundCall
{
public:
    explicit BackgroundCall(std::function<void()> function)
        : mFunction(std::move(function)), mThread([this] { run(); })
    {}

    ~BackgroundCall() { mThread.join(); }
    BackgroundCall(const BackgroundCall&) = delete;
    BackgroundCall& operator=(const BackgroundCall&) = delete;

    // Waits until the call sleeps or has ended; true when it sleeps. A call that blocks gives true;
    // one that does not may do so too, while it waits for a lock of the allocator, for instance.
    bool isBlocked()
    {
        constexpr int kSamplesInARow = 3;
        int asleep = 0;
        waitUntil([&] {
            asleep = mRunner != 0 && isThreadAsleep(mRunner) ? asleep + 1 : 0;
            return mEnded || asleep == kSamplesInARow;
        });
        return !mEnded;
    }

    bool hasEnded() const { return mEnded; }

    // False when the call has not ended at the limit.
    bool waitForEnd()
    {
        return waitUntil([this] { return mEnded.load(); });
    }

private:
    void run()
    {
        mRunner = ::gettid();
        mFunction();
        mEnded = true;
    }

    const std::function<void()> mFunction;
    std::atomic<pid_t> mRunner{0};
    std::atomic<bool> mEnded{false};
    std::thread mThread;  // last: it uses the others
};

}  // namespace qv::tests

#endif
