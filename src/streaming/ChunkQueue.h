// How both body devices queue bytes: in chunks that never move and never grow beyond their
// capacity, so that a whole chunk can change hands without copying.
#ifndef WENDREL_STREAMING_CHUNKQUEUE_H
#define WENDREL_STREAMING_CHUNKQUEUE_H

#include <cstddef>
#include <list>
#include <vector>

namespace qv::impl
{

// Fills the free capacity of the last chunk, then puts the remaining bytes into one new chunk.
void AppendToChunks(std::list<std::vector<char>>& queue, const char* data, size_t len);

// Give chunks to the pool. Any thread, also while it holds a lock: no lock is taken.
void FreeFirstChunk(std::list<std::vector<char>>& queue);
void FreeChunks(std::list<std::vector<char>>& queue);

inline bool IsFull(const std::vector<char>& chunk)
{
    return chunk.size() == chunk.capacity();
}

}  // namespace qv::impl

#endif
