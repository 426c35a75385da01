// The appending rule shared by the receive and the response device, and the chunks they share.

#include "streaming/ChunkQueue.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <new>
#include <utility>

namespace qv::impl
{
namespace
{

using Chunk = std::vector<char>;

// The oldest first. A chunk is known by its capacity: a chunk of another one would be full at
// another size.
class Spares
{
public:
    // One without any memory when none of this capacity is kept.
    Chunk take(size_t capacity)
    {
        qvMutexLocker locker(&mMutex);
        for (size_t i = mCount; i > 0; --i) {
            if (mChunks[i - 1].capacity() == capacity)
                return remove(i - 1);
        }
        return {};
    }

    // Takes `chunk` unless there is no room for it. Returns what has to be freed: with the lock
    // released, since that takes long.
    Chunk keep(Chunk&& chunk)
    {
        if (chunk.capacity() < kChunkCapacityBytes || chunk.capacity() > kSpareBytes)
            return std::move(chunk);
        qvMutexLocker locker(&mMutex);
        if (mUsers == 0)
            return std::move(chunk);
        Chunk oldest = hasRoomFor(chunk) ? Chunk() : remove(0);
        if (!hasRoomFor(chunk))
            return oldest;
        mBytes += chunk.capacity();
        mChunks[mCount++] = std::move(chunk);
        return oldest;
    }

    void open()
    {
        qvMutexLocker locker(&mMutex);
        ++mUsers;
    }

    void close()
    {
        // Destroyed after the lock has been released.
        std::array<Chunk, kSpareChunks> freed;
        qvMutexLocker locker(&mMutex);
        if (--mUsers != 0)
            return;
        freed.swap(mChunks);
        mCount = 0;
        mBytes = 0;
    }

    size_t getCount()
    {
        qvMutexLocker locker(&mMutex);
        return mCount;
    }

    size_t getBytes()
    {
        qvMutexLocker locker(&mMutex);
        return mBytes;
    }

private:
    bool hasRoomFor(const Chunk& chunk) const QV_REQUIRES(mMutex)
    {
        return mCount < mChunks.size() && mBytes + chunk.capacity() <= kSpareBytes;
    }

    Chunk remove(size_t place) QV_REQUIRES(mMutex)
    {
        Chunk removed = std::move(mChunks[place]);
        std::move(mChunks.begin() + static_cast<ptrdiff_t>(place) + 1,
                  mChunks.begin() + static_cast<ptrdiff_t>(mCount),
                  mChunks.begin() + static_cast<ptrdiff_t>(place));
        --mCount;
        mBytes -= removed.capacity();
        return removed;
    }

    qvMutex mMutex;
    std::array<Chunk, kSpareChunks> mChunks QV_GUARDED_BY(mMutex);
    size_t mCount QV_GUARDED_BY(mMutex) = 0;
    size_t mBytes QV_GUARDED_BY(mMutex) = 0;
    size_t mUsers QV_GUARDED_BY(mMutex) = 0;
};

// Never destroyed: a device may outlive the static objects of its process. In a place of its own,
// as the memory for it could be missing where a chunk is freed.
Spares& spares()
{
    alignas(Spares) static std::array<std::byte, sizeof(Spares)> place;
    static Spares& theSpares = *new (place.data()) Spares;
    return theSpares;
}

// A chunk with room for `bytes`, and what it held before.
Chunk makeChunk(size_t bytes)
{
    const size_t capacity = std::max(bytes, kChunkCapacityBytes);
    Chunk chunk = spares().take(capacity);
    chunk.reserve(capacity);
    return chunk;
}

}  // namespace

SpareChunksKept::SpareChunksKept()
{
    spares().open();
}

SpareChunksKept::~SpareChunksKept()
{
    spares().close();
}

void AppendToChunks(std::list<std::vector<char>>& queue, const char* data, size_t len)
{
    if (len == 0)
        return;
    std::vector<char>* const last = queue.empty() ? nullptr : &queue.back();
    const size_t spare = last ? std::min(last->capacity() - last->size(), len) : 0;
    // What needs memory comes first: either all of the data is taken or none.
    std::list<std::vector<char>> rest;
    if (spare < len) {
        std::vector<char>& chunk = rest.emplace_back();
        chunk = makeChunk(len - spare);
        chunk.assign(data + spare, data + len);
    }
    if (spare != 0)
        last->insert(last->end(), data, data + spare);
    queue.splice(queue.end(), rest);
}

void FreeChunk(std::vector<char>&& chunk)
{
    // What comes back is destroyed here.
    spares().keep(std::move(chunk));
}

void FreeFirstChunk(std::list<std::vector<char>>& queue)
{
    FreeChunk(std::move(queue.front()));
    queue.pop_front();
}

void FreeChunks(std::list<std::vector<char>>& queue)
{
    while (!queue.empty())
        FreeFirstChunk(queue);
}

size_t GetSpareChunkCount()
{
    return spares().getCount();
}

size_t GetSpareBytes()
{
    return spares().getBytes();
}

}  // namespace qv::impl
