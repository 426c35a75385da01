/// The progress of each request, the statistics and the errors of a run.
#ifndef WENDREL_TESTS_STRESS_RUNRECORD_H
#define WENDREL_TESTS_STRESS_RUNRECORD_H

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace stress
{

/// How the daemon was done with a request.
enum Outcome : size_t {
    SentWhole,
    StreamedToEnd,
    StreamedToLength,
    HeadOnly,
    ErrorBody,
    ReaderError,
    QueueingRefused,
    LostWhileWaiting,
    LostWhileStreaming,
    kOutcomes
};

constexpr std::array<const char*, kOutcomes> kOutcomeNames = {
    "sent_whole",   "streamed_to_end",  "streamed_to_length", "head_only",           "error_body",
    "reader_error", "queueing_refused", "lost_while_waiting", "lost_while_streaming"};

using Clock = std::chrono::steady_clock;

/// Thread-safe.
class RunRecord
{
public:
    /// Begins at most `requests` requests, and after `limit` no more than kMinRequests.
    RunRecord(uint64_t requests, Clock::duration limit)
        : mProgress(requests), mEnd(Clock::now() + limit)
    {}

    /// So many meet every order.
    static constexpr uint64_t kMinRequests = 10000;

    struct Progress
    {
        std::atomic<uint8_t> served{0};     // its worker has left it
        std::atomic<uint8_t> completed{0};  // onRequestCompleted was called
        std::atomic<uint8_t> deleted{0};
    };

    Progress& progress(uint64_t id) { return mProgress[id]; }

    /// How many have been begun.
    uint64_t requests() const { return std::min<uint64_t>(begun, mProgress.size()); }

    bool mayBegin() const
    {
        return begun < mProgress.size() && (begun < kMinRequests || Clock::now() < mEnd);
    }

    /// The number of the next request; false when there is none.
    bool begin(uint64_t& id)
    {
        if (!mayBegin())
            return false;
        id = begun++;
        return id < mProgress.size();
    }

    void addError(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        constexpr size_t kMaxKeptErrors = 20;
        ++mErrorCount;
        if (mFirstErrors.size() < kMaxKeptErrors)
            mFirstErrors.push_back(what);
    }

    uint64_t errorCount() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mErrorCount;
    }

    std::string firstErrors() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        std::string text;
        for (const std::string& what : mFirstErrors)
            text += what + "\n";
        return text;
    }

    std::array<std::atomic<uint64_t>, kOutcomes> outcomes{};
    std::atomic<uint64_t> begun{0};
    std::atomic<uint64_t> servedBeforeCompleted{0};
    std::atomic<uint64_t> completedBeforeServed{0};
    std::array<std::atomic<uint64_t>, 3> deletedBy{};
    std::atomic<uint64_t> deleted{0};
    std::atomic<uint64_t> bytesWritten{0};
    std::atomic<uint64_t> bytesFetched{0};
    std::atomic<uint64_t> lossesSeenByWriter{0};

private:
    std::vector<Progress> mProgress;
    const Clock::time_point mEnd;
    mutable std::mutex mMutex;
    uint64_t mErrorCount = 0;
    std::vector<std::string> mFirstErrors;
};

}  // namespace stress

#endif
