// The memory that all queues of a server share: ServerOptions::memoryBudgetBytes.
#ifndef WENDREL_REQUEST_MEMORYBUDGET_H
#define WENDREL_REQUEST_MEMORYBUDGET_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qv::impl
{

// Counts bytes; nobody is woken by it. Any thread, no lock. A queue charges what it
// takes and credits each byte once. Queues may outlive the server: they share the ownership.
class MemoryBudget
{
public:
    explicit MemoryBudget(uint64_t limitBytes) : mLimitBytes(limitBytes) {}
    MemoryBudget(const MemoryBudget&) = delete;
    MemoryBudget& operator=(const MemoryBudget&) = delete;

    void charge(uint64_t bytes) { mUsedBytes += bytes; }
    void credit(uint64_t bytes) { mUsedBytes -= bytes; }

    // False, and nothing charged, when the bytes are not free. Others never see them charged then.
    bool chargeIfFree(uint64_t bytes)
    {
        uint64_t used = mUsedBytes;
        do {
            if (bytes != 0 && (used > mLimitBytes || bytes > mLimitBytes - used))
                return false;
        } while (!mUsedBytes.compare_exchange_weak(used, used + bytes));
        return true;
    }

    uint64_t getLimitBytes() const { return mLimitBytes; }
    uint64_t getUsedBytes() const { return mUsedBytes; }
    bool isExceeded() const { return mUsedBytes > mLimitBytes; }

    // 0 when nothing is left.
    uint64_t getFreeBytes() const
    {
        const uint64_t used = mUsedBytes;
        return used < mLimitBytes ? mLimitBytes - used : 0;
    }

    // Uploads that are paused until memory is free: the listener looks for them while there are
    // any.
    void addWaiting() { ++mWaiting; }
    void removeWaiting() { --mWaiting; }
    bool hasWaiting() const { return mWaiting != 0; }

private:
    const uint64_t mLimitBytes;
    std::atomic<uint64_t> mUsedBytes{0};
    std::atomic<size_t> mWaiting{0};
};

}  // namespace qv::impl

#endif
