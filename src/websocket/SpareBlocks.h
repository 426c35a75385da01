// Blocks that a worker thread has done with and will need again.
#ifndef WENDREL_WEBSOCKET_SPAREBLOCKS_H
#define WENDREL_WEBSOCKET_SPAREBLOCKS_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <vector>

namespace qv::impl
{

struct TestAccess;  // of the tests

// While one is alive, the blocks that its thread frees are kept for those that it needs next: a
// message of a megabyte is a thousand of them on its way in, and a thousand on its way out. Lives
// on the stack of the thread; at most one a thread.
class SpareBlocks
{
public:
    using Queue = std::list<std::vector<uint8_t>>;

    // More are given back at once: 1 MiB a thread.
    static constexpr size_t kMostBlocks = 1024;

    SpareBlocks();
    ~SpareBlocks();
    SpareBlocks(const SpareBlocks&) = delete;
    SpareBlocks& operator=(const SpareBlocks&) = delete;

    // A block of `size` bytes of any value at the end of `queue`. Any thread, with spares or
    // without.
    static void Append(Queue& queue, size_t size);

    // Any thread.
    static void FreeFirst(Queue& queue);

private:
    friend struct TestAccess;

    Queue mBlocks;
};

}  // namespace qv::impl

#endif
