/// What has become of each request, and what went wrong.
#ifndef WENDREL_TESTS_STRESS_LEDGER_H
#define WENDREL_TESTS_STRESS_LEDGER_H

#include <array>
#include <atomic>
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

/// Any thread.
class Ledger
{
public:
    explicit Ledger(uint64_t requests) : mFates(requests) {}

    struct Fate
    {
        std::atomic<uint8_t> served{0};     // its worker has left it
        std::atomic<uint8_t> completed{0};  // onRequestCompleted was called
        std::atomic<uint8_t> deleted{0};
    };

    Fate& fate(uint64_t id) { return mFates[id]; }
    uint64_t requests() const { return mFates.size(); }

    void complain(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        constexpr size_t kKept = 20;
        ++mComplaints;
        if (mFirst.size() < kKept)
            mFirst.push_back(what);
    }

    uint64_t complaints() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mComplaints;
    }

    std::string firstComplaints() const
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        std::string text;
        for (const std::string& what : mFirst)
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
    std::vector<Fate> mFates;
    mutable std::mutex mMutex;
    uint64_t mComplaints = 0;
    std::vector<std::string> mFirst;
};

}  // namespace stress

#endif
