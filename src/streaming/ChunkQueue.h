// How both body devices queue bytes: in chunks that never move and never grow beyond their
// capacity, so that a whole chunk can change hands without copying.
#ifndef WENDREL_STREAMING_CHUNKQUEUE_H
#define WENDREL_STREAMING_CHUNKQUEUE_H

#include <cstddef>
#include <list>
#include <vector>

namespace qv::impl
{

// While one of these is alive, chunks that are done with are kept for the next ones of the same
// capacity: blocks of this size are what an allocator is slow at. With the last one all are given
// back. Any thread.
class SpareChunksKept
{
public:
    SpareChunksKept();
    ~SpareChunksKept();
    SpareChunksKept(const SpareChunksKept&) = delete;
    SpareChunksKept& operator=(const SpareChunksKept&) = delete;
};

// Least capacity of a chunk.
inline constexpr size_t kChunkCapacityBytes = 65536;

// So many are kept, and of so many bytes, of all threads together.
inline constexpr size_t kSpareChunks = 64;
inline constexpr size_t kSpareBytes = 4 << 20;

// Fills the last chunk's spare capacity, then puts all that remains into one new chunk.
void AppendToChunks(std::list<std::vector<char>>& queue, const char* data, size_t len);

// Any thread, also while it holds a lock: they take no other.
void FreeChunk(std::vector<char>&& chunk);
void FreeFirstChunk(std::list<std::vector<char>>& queue);
void FreeChunks(std::list<std::vector<char>>& queue);

// What is kept at this moment. Any thread.
size_t GetSpareChunkCount();
size_t GetSpareBytes();

inline bool IsFull(const std::vector<char>& chunk)
{
    return chunk.size() == chunk.capacity();
}

}  // namespace qv::impl

#endif
