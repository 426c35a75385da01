// The blocks that a worker thread uses again.

#include "websocket/BlockPool.h"

#include "support/TestAccess.h"
#include "websocket/Support.h"

#include <thread>

namespace qv::tests
{
namespace
{

using impl::BlockPool;
using Queue = BlockPool::Queue;

constexpr size_t kBlockBytes = 1024;

Queue blocks(size_t count)
{
    Queue queue;
    for (size_t i = 0; i < count; ++i)
        BlockPool::Append(queue, kBlockBytes);
    return queue;
}

void freeAll(Queue& queue)
{
    while (!queue.empty())
        BlockPool::FreeFirst(queue);
}

TEST(BlockPool, IsOptional)
{
    Queue queue = blocks(2);
    EXPECT_EQ(queue.size(), 2u);
    EXPECT_EQ(queue.back().size(), kBlockBytes);
    BlockPool::FreeFirst(queue);
    EXPECT_EQ(queue.size(), 1u);
}

TEST(BlockPool, ReusesTheBlockThatWasFreedLast)
{
    const BlockPool pool;
    Queue queue = blocks(2);
    const uint8_t* const first = queue.front().data();
    const uint8_t* const second = queue.back().data();
    freeAll(queue);
    EXPECT_EQ(impl::TestAccess::blockCount(pool), 2u);
    queue = blocks(2);
    EXPECT_EQ(queue.front().data(), second);
    EXPECT_EQ(queue.back().data(), first);
    EXPECT_EQ(impl::TestAccess::blockCount(pool), 0u);
}

TEST(BlockPool, AppendsBehindTheOthers)
{
    const BlockPool pool;
    Queue queue = blocks(1);
    freeAll(queue);
    queue.emplace_back(kBlockBytes);
    const uint8_t* const first = queue.front().data();
    BlockPool::Append(queue, kBlockBytes);
    EXPECT_EQ(queue.front().data(), first);
    EXPECT_EQ(queue.size(), 2u);
}

TEST(BlockPool, ReusesNoBlockOfAnotherSize)
{
    const BlockPool pool;
    Queue queue = blocks(1);
    freeAll(queue);
    BlockPool::Append(queue, kBlockBytes + 1);
    EXPECT_EQ(queue.back().size(), kBlockBytes + 1);
    EXPECT_EQ(impl::TestAccess::blockCount(pool), 1u);
}

TEST(BlockPool, KeepsAtMostItsLimit)
{
    const BlockPool pool;
    Queue queue = blocks(BlockPool::kMaxBlocks + 1);
    freeAll(queue);
    EXPECT_EQ(impl::TestAccess::blockCount(pool), BlockPool::kMaxBlocks);
}

TEST(BlockPool, BelongsToItsThread)
{
    const BlockPool pool;
    Queue queue = blocks(1);
    std::thread([&] { freeAll(queue); }).join();
    EXPECT_EQ(impl::TestAccess::blockCount(pool), 0u);
}

TEST(BlockPool, EndsWithItsObject)
{
    {
        const BlockPool pool;
        Queue queue = blocks(1);
        freeAll(queue);
    }
    Queue queue = blocks(1);
    freeAll(queue);
    const BlockPool other;
    EXPECT_EQ(impl::TestAccess::blockCount(other), 0u);
}

}  // namespace
}  // namespace qv::tests
