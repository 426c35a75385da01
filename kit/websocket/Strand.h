// The callbacks of one session, in order and one at a time.
#ifndef WENDREL_KIT_WEBSOCKET_STRAND_H
#define WENDREL_KIT_WEBSOCKET_STRAND_H

#include "websocket/Buffer.h"

#include <Wendrel/kit/websocket/Session.h>
#include <Wendrel/kit/websocket/WebSocketOptions.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>

namespace qv::kit::websocket
{

// A callback to be called.
struct Notice
{
    enum class Kind : uint8_t {
        Open,
        Text,
        Binary,
        Pong,
        Drained,
        End,  // no callback: the close frame with `code` and the reason is queued
        Close
    };

    Kind kind = Kind::Open;
    bool isClean = false;
    uint16_t code = 0;
    BinaryView payload = {};  // the message, or the reason
};

// Queues notices for an executor. Notices are added by the loop's thread. Those of the first and
// the last callback need no memory.
class Strand
{
public:
    using Call = std::function<void(const Notice&)>;

    // Full at `maxBytes`, or when the notices exceed the budget, which outlives it.
    Strand(size_t maxBytes, Budget& budget) : mMaxBytes(maxBytes), mBudget(budget) {}
    ~Strand() { mBudget.credit(mBytes); }
    Strand(const Strand&) = delete;
    Strand& operator=(const Strand&) = delete;

    enum class Result : uint8_t {
        Empty,
        HasSpace,  // empty, after the queue was full
        HasMore    // submit another task that calls `run`
    };

    // True: submit a task that calls `run`. The payload is copied, but for the last notice: that
    // one must stay.
    bool add(const Notice& notice);

    // Runs as many notices, in order. Not called while it runs.
    Result run(const Call& call, size_t maxNotices);

    // The executor has refused the task: only Open and Close are kept. Then `run`.
    void discardMessages() noexcept;

    // The queue is full: receive nothing more.
    bool isFull() const noexcept;

private:
    struct Stored
    {
        Notice notice;
        std::string payload;
    };

    bool takeNext(Stored& stored);

    const size_t mMaxBytes;
    Budget& mBudget;
    mutable std::mutex mMutex;
    std::deque<Stored> mNotices;  // these under mMutex
    Notice mClose;
    bool mHasOpen = false;
    bool mHasClose = false;
    size_t mBytes = 0;        // of them, which are charged
    bool mIsRunning = false;  // a task is queued or runs
    bool mIsRefused = false;
    bool mWasFull = false;
};

}  // namespace qv::kit::websocket

#endif
