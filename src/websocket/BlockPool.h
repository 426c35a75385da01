// Blocks of connections that a worker thread reuses.
#ifndef WENDREL_WEBSOCKET_BLOCKPOOL_H
#define WENDREL_WEBSOCKET_BLOCKPOOL_H

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
class BlockPool
{
public:
    using Queue = std::list<std::vector<uint8_t>>;

    // More are given back at once: 1 MiB a thread.
    static constexpr size_t kMaxBlocks = 1024;

    BlockPool();
    ~BlockPool();
    BlockPool(const BlockPool&) = delete;
    BlockPool& operator=(const BlockPool&) = delete;

    // A block of `size` bytes of any value at the end of `queue`. Any thread, with a pool or
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
