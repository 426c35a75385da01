/// Limited waiting between the threads of a test.
#ifndef WENDREL_TESTS_INTEGRATION_WAITING_H
#define WENDREL_TESTS_INTEGRATION_WAITING_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace integration
{

/// How long a test waits for what must happen: far above what a loaded machine needs.
constexpr std::chrono::seconds kLimit{30};

/// Asks `condition` until it holds; false when the limit has passed. For what nobody reports.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = kLimit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Carries values from one thread to another.
template <typename T> class Channel
{
public:
    void push(T value)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mValues.push_back(std::move(value));
        mArrived.notify_one();
    }

    /// The oldest value; none when the limit has passed.
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
    std::mutex mMutex;
    std::condition_variable mArrived;
    std::deque<T> mValues;
};

/// Holds threads back until it is opened.
class Gate
{
public:
    void open()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mOpen = true;
        mChanged.notify_all();
    }

    /// False when the limit has passed first.
    bool pass(std::chrono::milliseconds limit = kLimit)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, limit, [this] { return mOpen; });
    }

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    bool mOpen = false;
};

}  // namespace integration

#endif
