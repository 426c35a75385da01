// Waits between the threads of a test, each with a limit.
#ifndef WENDREL_TESTS_SUPPORT_WAITING_H
#define WENDREL_TESTS_SUPPORT_WAITING_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace qv::tests
{

// The limit of a wait for an event that must happen. A machine under load takes seconds.
constexpr std::chrono::seconds kLimit{60};
constexpr unsigned long kLimitMs = std::chrono::milliseconds(kLimit).count();

// Polls `condition` until it holds; false at the limit. For a condition that no thread signals.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = kLimit)
{
    constexpr std::chrono::milliseconds kPollInterval{1};
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(kPollInterval);
    }
    return true;
}

// Holds threads back until it is opened, and counts them. Stays open.
class Latch
{
public:
    void open()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mOpen = true;
        mChanged.notify_all();
    }

    // Blocks until the latch is open; false at the limit.
    bool wait(std::chrono::milliseconds limit = kLimit)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        ++mArrived;
        mChanged.notify_all();
        return mChanged.wait_for(lock, limit, [this] { return mOpen; });
    }

    // Blocks until `wait` has been called this often; false at the limit.
    bool waitForArrivals(size_t count)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, kLimit, [&] { return mArrived >= count; });
    }

private:
    std::mutex mMutex;  // guards all below
    std::condition_variable mChanged;
    size_t mArrived = 0;
    bool mOpen = false;
};

// Carries values from one thread to another.
template <typename T> class Channel
{
public:
    void push(T value)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mValues.push_back(std::move(value));
        mArrived.notify_one();
    }

    // The oldest value; none at the limit.
    std::optional<T> pop(std::chrono::milliseconds limit = kLimit)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        if (!mArrived.wait_for(lock, limit, [this] { return !mValues.empty(); }))
            return std::nullopt;
        std::optional<T> value(std::move(mValues.front()));
        mValues.pop_front();
        return value;
    }

private:
    std::mutex mMutex;  // guards all below
    std::condition_variable mArrived;
    std::deque<T> mValues;
};

}  // namespace qv::tests

#endif
