// The appending rule shared by the receive and the response device.

#include "streaming/ChunkQueue.h"

#include "streaming/ChunkPool.h"

#include <algorithm>
#include <utility>

namespace qv::impl
{

void AppendToChunks(std::list<std::vector<char>>& queue, const char* data, size_t len)
{
    if (len == 0)
        return;
    std::vector<char>* const last = queue.empty() ? nullptr : &queue.back();
    const size_t space = last ? std::min(last->capacity() - last->size(), len) : 0;
    // The allocations come first: either all of the data is taken or none.
    std::list<std::vector<char>> rest;
    if (space < len) {
        std::vector<char>& chunk = rest.emplace_back();
        chunk = ChunkPool::Instance().take(std::max(len - space, kMinChunkBytes));
        chunk.assign(data + space, data + len);
    }
    if (space != 0)
        last->insert(last->end(), data, data + space);
    queue.splice(queue.end(), rest);
}

void FreeFirstChunk(std::list<std::vector<char>>& queue)
{
    ChunkPool::Instance().give(std::move(queue.front()));
    queue.pop_front();
}

void FreeChunks(std::list<std::vector<char>>& queue)
{
    while (!queue.empty())
        FreeFirstChunk(queue);
}

}  // namespace qv::impl
