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

struct Spares
{
    qvMutex mutex;
    std::array<std::vector<char>, kSpareChunks> chunks QV_GUARDED_BY(mutex);
    size_t count QV_GUARDED_BY(mutex) = 0;
};

// Never destroyed: a device may outlive the static objects of its process. In a place of its own,
// as the memory for it could be missing where a chunk is freed.
Spares& spares()
{
    alignas(Spares) static std::array<std::byte, sizeof(Spares)> place;
    static Spares& theSpares = *new (place.data()) Spares;
    return theSpares;
}

// An empty chunk with room for `bytes`.
std::vector<char> makeChunk(size_t bytes)
{
    std::vector<char> chunk;
    if (bytes <= kChunkCapacityBytes) {
        Spares& all = spares();
        qvMutexLocker locker(&all.mutex);
        if (all.count != 0) {
            chunk.swap(all.chunks[--all.count]);
            return chunk;
        }
    }
    chunk.reserve(std::max(bytes, kChunkCapacityBytes));
    return chunk;
}

}  // namespace

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
    // Destroyed after the lock has been released, if it is not kept.
    std::vector<char> freed = std::move(chunk);
    if (freed.capacity() != kChunkCapacityBytes)
        return;
    freed.clear();
    Spares& all = spares();
    qvMutexLocker locker(&all.mutex);
    if (all.count < kSpareChunks)
        all.chunks[all.count++].swap(freed);
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
    Spares& all = spares();
    qvMutexLocker locker(&all.mutex);
    return all.count;
}

}  // namespace qv::impl
