// Slots that are claimed by a compare-and-exchange of their state.

#include "streaming/ChunkPool.h"

#include <new>
#include <utility>

namespace qv::impl
{
namespace
{

// The slot at which the calling thread begins to look.
size_t firstSlotOfThisThread(size_t groupSlots)
{
    static std::atomic<size_t> sThreads{0};
    [[gnu::tls_model("initial-exec")]] thread_local size_t tFirst = 0;
    if (tFirst == 0)
        tFirst = ++sThreads * groupSlots;
    return tFirst;
}

// The group in which the calling thread has found its last chunk. The daemon gives the chunks of
// responses that workers have taken, so that a worker finds them in the group of the daemon.
[[gnu::tls_model("initial-exec")]] thread_local size_t tTakesFrom = 0;

}  // namespace

ChunkPool::User::User()
{
    ++Instance().mUsers;
}

ChunkPool::User::~User()
{
    if (--Instance().mUsers == 0)
        Instance().freeAll();
}

ChunkPool& ChunkPool::Instance()
{
    // Memory of its own could be missing at the first use.
    alignas(ChunkPool) static std::array<std::byte, sizeof(ChunkPool)> place;
    static ChunkPool& pool = *new (place.data()) ChunkPool;
    return pool;
}

ChunkPool::Chunk ChunkPool::take(size_t capacity)
{
    Chunk chunk;
    if (mBytes != 0) {
        if (tTakesFrom == 0)
            tTakesFrom = firstSlotOfThisThread(kGroupSlots);
        const size_t first = tTakesFrom;
        for (size_t i = 0; i < kMaxChunks; ++i) {
            if (takeFrom(slotAt(first + i), capacity, chunk)) {
                if (i >= kGroupSlots)
                    tTakesFrom = first + i - i % kGroupSlots;
                chunk.clear();
                return chunk;
            }
        }
    }
    chunk.reserve(capacity);
    return chunk;
}

void ChunkPool::give(Chunk&& chunk)
{
    // Freed at the end unless it is kept.
    Chunk given = std::move(chunk);
    if (given.capacity() < kMinChunkBytes || given.capacity() > kMaxBytes || mUsers == 0 ||
        !reserveBytes(given.capacity()))
        return;
    const size_t capacity = given.capacity();
    const size_t first = firstSlotOfThisThread(kGroupSlots);
    for (size_t i = 0; i < kMaxChunks; ++i) {
        if (!putInto(slotAt(first + i), given))
            continue;
        // The last user may have freed the others in between.
        if (mUsers == 0)
            freeAll();
        return;
    }
    mBytes -= capacity;
}

ChunkPool::Slot& ChunkPool::slotAt(size_t index)
{
    index %= kMaxChunks;
    return mGroups[index / kGroupSlots].slots[index % kGroupSlots];
}

bool ChunkPool::takeFrom(Slot& slot, size_t capacity, Chunk& chunk)
{
    if (slot.state != capacity || !slot.state.compare_exchange_strong(capacity, kBusy))
        return false;
    chunk = std::move(slot.chunk);
    mBytes -= capacity;
    slot.state = kEmpty;
    return true;
}

bool ChunkPool::putInto(Slot& slot, Chunk& chunk)
{
    size_t expected = kEmpty;
    if (slot.state != kEmpty || !slot.state.compare_exchange_strong(expected, kBusy))
        return false;
    slot.chunk = std::move(chunk);
    slot.state = slot.chunk.capacity();
    return true;
}

// One chunk makes way, so that a pool of capacities that are no longer used is renewed.
bool ChunkPool::reserveBytes(size_t bytes)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (mBytes.fetch_add(bytes) + bytes <= kMaxBytes)
            return true;
        mBytes -= bytes;
        if (attempt == 0)
            freeOne();
    }
    return false;
}

void ChunkPool::freeOne()
{
    const size_t first = mNextVictim++;
    for (size_t i = 0; i < kMaxChunks; ++i) {
        Chunk freed;
        Slot& slot = slotAt(first + i);
        const size_t capacity = slot.state;
        if (capacity > kBusy && takeFrom(slot, capacity, freed))
            return;
    }
}

void ChunkPool::freeAll()
{
    for (size_t i = 0; i < kMaxChunks; ++i) {
        Chunk freed;
        Slot& slot = slotAt(i);
        const size_t capacity = slot.state;
        if (capacity > kBusy)
            takeFrom(slot, capacity, freed);
    }
}

}  // namespace qv::impl
