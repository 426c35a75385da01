// Memory of received messages, counted in a budget that all sessions share.
#ifndef WENDREL_KIT_WEBSOCKET_BUFFER_H
#define WENDREL_KIT_WEBSOCKET_BUFFER_H

#include <Wendrel/MemoryAccount.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace qv::kit::websocket
{

// Counts bytes of all sessions within a limit of their own, and within that of a server. Any
// thread, no lock.
class Budget
{
public:
    explicit Budget(uint64_t limitBytes) : mOwn(limitBytes) {}

    // They are counted there as well. Before anything is counted.
    void share(const MemoryAccount& memory) { mShared = memory; }

    // False, and nothing is counted, when one of the limits would be exceeded. Others may see bytes
    // counted in the shared budget that are refused by the own one, which is rarely the smaller.
    bool charge(uint64_t bytes)
    {
        if (!mShared.charge(bytes))
            return false;
        if (mOwn.charge(bytes))
            return true;
        mShared.credit(bytes);
        return false;
    }
    void chargeAlways(uint64_t bytes)
    {
        mShared.chargeAlways(bytes);
        mOwn.chargeAlways(bytes);
    }
    void credit(uint64_t bytes)
    {
        mShared.credit(bytes);
        mOwn.credit(bytes);
    }
    uint64_t usedBytes() const { return mOwn.getUsedBytes(); }
    // Whether `charge` would succeed, and whether it could while nothing else is counted.
    bool hasSpace(uint64_t bytes) const { return mOwn.hasSpace(bytes) && mShared.hasSpace(bytes); }
    bool canEverTake(uint64_t bytes) const
    {
        return bytes <= mOwn.getLimitBytes() && bytes <= mShared.getLimitBytes();
    }

private:
    const MemoryAccount mOwn;
    MemoryAccount mShared;
};

// Contiguous bytes that grow as they arrive, never ahead of a length that was only announced. Not
// initialised, and moved by the kernel where they are large.
class Buffer
{
public:
    // Null: not counted. The budget outlives the buffer.
    explicit Buffer(Budget* budget = nullptr) : mBudget(budget) {}
    Buffer(Buffer&& other) noexcept { swap(other); }
    Buffer& operator=(Buffer&& other) noexcept
    {
        swap(other);
        return *this;
    }
    ~Buffer() { release(); }

    uint8_t* data() { return mData; }
    size_t size() const { return mSize; }
    size_t capacity() const { return mCapacity; }
    void clear() { mSize = 0; }
    void addSize(size_t bytes) { mSize += bytes; }

    // Has space for `bytes` more; when it must grow, at least doubles, but not above
    // `expectedBytes` in all. False without memory, with the content unchanged.
    bool ensureSpace(size_t bytes, size_t expectedBytes)
    {
        if (mCapacity - mSize >= bytes)
            return true;
        const size_t doubled = std::max(2 * mCapacity, kMinCapacityBytes);
        return setCapacity(std::max(mSize + bytes, std::min(doubled, expectedBytes)));
    }

    bool append(const void* bytes, size_t size)
    {
        if (!ensureSpace(size, SIZE_MAX))
            return false;
        if (size > 0)
            std::memcpy(mData + mSize, bytes, size);
        mSize += size;
        return true;
    }

    // Most of the memory is unused.
    bool isOversized() const { return mCapacity > kMinCapacityBytes && mCapacity / 4 > mSize; }

    // Gives unused memory back when most of it is unused.
    void shrink()
    {
        if (isOversized())
            setCapacity(std::max(mSize, kMinCapacityBytes));
    }

    void release()
    {
        std::free(mData);
        if (mBudget)
            mBudget->credit(mCapacity);
        mData = nullptr;
        mSize = mCapacity = 0;
    }

    void swap(Buffer& other) noexcept
    {
        std::swap(mData, other.mData);
        std::swap(mSize, other.mSize);
        std::swap(mCapacity, other.mCapacity);
        std::swap(mBudget, other.mBudget);
    }

private:
    static constexpr size_t kMinCapacityBytes = 4096;

    bool setCapacity(size_t capacity)
    {
        if (mBudget && capacity > mCapacity && !mBudget->charge(capacity - mCapacity))
            return false;
        void* const moved = std::realloc(mData, capacity);
        if (!moved) {
            if (mBudget && capacity > mCapacity)
                mBudget->credit(capacity - mCapacity);
            return false;
        }
        if (mBudget && capacity < mCapacity)
            mBudget->credit(mCapacity - capacity);
        mData = static_cast<uint8_t*>(moved);
        mCapacity = capacity;
        return true;
    }

    uint8_t* mData = nullptr;
    size_t mSize = 0;
    size_t mCapacity = 0;
    Budget* mBudget = nullptr;
};

}  // namespace qv::kit::websocket

#endif
