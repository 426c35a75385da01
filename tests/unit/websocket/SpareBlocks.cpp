// The blocks that a worker thread uses again.

#include "websocket/SpareBlocks.h"

#include "support/TestAccess.h"
#include "websocket/Support.h"

#include <thread>

namespace qv::tests
{
namespace
{

using impl::SpareBlocks;
using Queue = SpareBlocks::Queue;

constexpr size_t kBlockBytes = 1024;

Queue blocks(size_t count)
{
    Queue queue;
    for (size_t i = 0; i < count; ++i)
        SpareBlocks::Append(queue, kBlockBytes);
    return queue;
}

void freeAll(Queue& queue)
{
    while (!queue.empty())
        SpareBlocks::FreeFirst(queue);
}

TEST(SpareBlocks, AreNeededByNobody)
{
    Queue queue = blocks(2);
    EXPECT_EQ(queue.size(), 2u);
    EXPECT_EQ(queue.back().size(), kBlockBytes);
    SpareBlocks::FreeFirst(queue);
    EXPECT_EQ(queue.size(), 1u);
}

TEST(SpareBlocks, GiveBackWhatWasFreedLast)
{
    const SpareBlocks spares;
    Queue queue = blocks(2);
    const uint8_t* const first = queue.front().data();
    const uint8_t* const second = queue.back().data();
    freeAll(queue);
    EXPECT_EQ(impl::TestAccess::blockCount(spares), 2u);
    queue = blocks(2);
    EXPECT_EQ(queue.front().data(), second);
    EXPECT_EQ(queue.back().data(), first);
    EXPECT_EQ(impl::TestAccess::blockCount(spares), 0u);
}

TEST(SpareBlocks, AppendBehindWhatIsThere)
{
    const SpareBlocks spares;
    Queue queue = blocks(1);
    freeAll(queue);
    queue.emplace_back(kBlockBytes);
    const uint8_t* const first = queue.front().data();
    SpareBlocks::Append(queue, kBlockBytes);
    EXPECT_EQ(queue.front().data(), first);
    EXPECT_EQ(queue.size(), 2u);
}

TEST(SpareBlocks, GiveNoBlockOfAnotherSize)
{
    const SpareBlocks spares;
    Queue queue = blocks(1);
    freeAll(queue);
    SpareBlocks::Append(queue, kBlockBytes + 1);
    EXPECT_EQ(queue.back().size(), kBlockBytes + 1);
    EXPECT_EQ(impl::TestAccess::blockCount(spares), 1u);
}

TEST(SpareBlocks, AreNoMoreThanTheirLimit)
{
    const SpareBlocks spares;
    Queue queue = blocks(SpareBlocks::kMostBlocks + 1);
    freeAll(queue);
    EXPECT_EQ(impl::TestAccess::blockCount(spares), SpareBlocks::kMostBlocks);
}

TEST(SpareBlocks, BelongToTheirThread)
{
    const SpareBlocks spares;
    Queue queue = blocks(1);
    std::thread([&] { freeAll(queue); }).join();
    EXPECT_EQ(impl::TestAccess::blockCount(spares), 0u);
}

TEST(SpareBlocks, EndWithTheirObject)
{
    {
        const SpareBlocks spares;
        Queue queue = blocks(1);
        freeAll(queue);
    }
    Queue queue = blocks(1);
    freeAll(queue);
    const SpareBlocks others;
    EXPECT_EQ(impl::TestAccess::blockCount(others), 0u);
}

}  // namespace
}  // namespace qv::tests
