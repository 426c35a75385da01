// The appending rule on its own, and the chunks that are used again.

#include "streaming/ChunkQueue.h"

#include <gmock/gmock.h>

#include <malloc.h>

#include <cstddef>
#include <list>
#include <set>
#include <string>
#include <vector>

namespace qv::impl
{
namespace
{

using ::testing::Each;
using ::testing::IsEmpty;
using Queue = std::list<std::vector<char>>;

std::string bytesOf(const Queue& queue)
{
    std::string bytes;
    for (const auto& chunk : queue)
        bytes.append(chunk.begin(), chunk.end());
    return bytes;
}

void append(Queue& queue, const std::string& bytes)
{
    AppendToChunks(queue, bytes.data(), bytes.size());
}

// Whole chunks, one for each call.
Queue wholeChunks(size_t count)
{
    Queue queue;
    for (size_t i = 0; i < count; ++i)
        append(queue, std::string(kChunkCapacityBytes, 'x'));
    return queue;
}

std::multiset<const char*> placesOf(const Queue& queue)
{
    std::multiset<const char*> places;
    for (const auto& chunk : queue)
        places.insert(chunk.data());
    return places;
}

TEST(ChunkQueue, FillsTheLastChunkAndPutsTheRestIntoOne)
{
    const struct
    {
        size_t first;
        size_t second;
        std::vector<size_t> sizes;
        std::vector<size_t> capacities;
    } rows[] = {
        {0, 0, {}, {}},
        {1, 0, {1}, {65536}},
        {65535, 1, {65536}, {65536}},
        {65535, 2, {65536, 1}, {65536, 65536}},
        {65536, 1, {65536, 1}, {65536, 65536}},
        {65537, 1, {65537, 1}, {65537, 65536}},
        {10, 200000, {65536, 134474}, {65536, 134474}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.first) + " + " + std::to_string(row.second));
        Queue queue;
        append(queue, std::string(row.first, 'a'));
        append(queue, std::string(row.second, 'b'));
        std::vector<size_t> sizes;
        std::vector<size_t> capacities;
        for (const auto& chunk : queue) {
            sizes.push_back(chunk.size());
            capacities.push_back(chunk.capacity());
        }
        EXPECT_EQ(sizes, row.sizes);
        EXPECT_EQ(capacities, row.capacities);
        EXPECT_EQ(bytesOf(queue), std::string(row.first, 'a') + std::string(row.second, 'b'));
        FreeChunks(queue);
        EXPECT_THAT(queue, IsEmpty());
    }
}

TEST(ChunkQueue, UsesFreedChunksAgainWithoutTheirBytes)
{
    const SpareChunksKept kept;
    Queue queue = wholeChunks(3);
    const auto places = placesOf(queue);
    FreeChunks(queue);
    for (int i = 0; i < 3; ++i)
        append(queue, std::string(kChunkCapacityBytes, 'y'));
    EXPECT_EQ(placesOf(queue), places);
    EXPECT_THAT(bytesOf(queue), Each('y'));

    // A chunk that was full has room again.
    FreeChunks(queue);
    append(queue, "short");
    EXPECT_EQ(bytesOf(queue), "short");
    EXPECT_EQ(queue.back().capacity(), kChunkCapacityBytes);
    FreeChunks(queue);
}

TEST(ChunkQueue, FreesTheFirstChunkAlone)
{
    Queue queue = wholeChunks(1);
    append(queue, "rest");
    FreeFirstChunk(queue);
    EXPECT_EQ(bytesOf(queue), "rest");
    FreeChunks(queue);
}

TEST(ChunkQueue, UsesAFreedChunkForOneOfItsCapacityOnly)
{
    const SpareChunksKept kept;
    constexpr size_t kLong = 100000;
    Queue queue;
    append(queue, std::string(kLong, 'x'));
    const char* const place = queue.front().data();
    FreeChunks(queue);

    append(queue, std::string(kLong - 1, 'x'));
    EXPECT_EQ(queue.front().capacity(), kLong - 1);
    EXPECT_NE(queue.front().data(), place);
    append(queue, std::string(kLong, 'y'));
    EXPECT_EQ(queue.back().capacity(), kLong);
    EXPECT_EQ(queue.back().data(), place);
    FreeChunks(queue);
}

TEST(ChunkQueue, LosesNoneWhenOneOfThemIsTaken)
{
    const SpareChunksKept kept;
    const std::vector<size_t> capacities = {100000, 200000, 300000, 400000};
    Queue queue;
    std::vector<const char*> places;
    for (const size_t capacity : capacities) {
        Queue one;
        append(one, std::string(capacity, 'x'));
        places.push_back(one.front().data());
        queue.splice(queue.end(), one);
    }
    FreeChunks(queue);
    for (const size_t which : {1u, 0u, 2u, 3u}) {
        Queue one;
        append(one, std::string(capacities[which], 'y'));
        EXPECT_EQ(one.front().data(), places[which]) << capacities[which];
        EXPECT_EQ(bytesOf(one), std::string(capacities[which], 'y'));
        queue.splice(queue.end(), one);
    }
    EXPECT_EQ(GetSpareChunkCount(), 0u);
    EXPECT_EQ(GetSpareBytes(), 0u);
}

TEST(ChunkQueue, KeepsTheNewerOfTwoThatAreTooManyTogether)
{
    const SpareChunksKept kept;
    constexpr size_t kMoreThanHalf = kSpareBytes / 2 + 1;
    Queue queue;
    append(queue, std::string(kMoreThanHalf, 'x'));
    append(queue, std::string(kMoreThanHalf + 1, 'x'));
    const char* const newer = queue.back().data();
    FreeChunks(queue);
    EXPECT_EQ(GetSpareChunkCount(), 1u);
    EXPECT_EQ(GetSpareBytes(), kMoreThanHalf + 1);
    append(queue, std::string(kMoreThanHalf + 1, 'x'));
    EXPECT_EQ(queue.front().data(), newer);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

TEST(ChunkQueue, GivesTheMemoryBackWithTheLastWhoWantsIt)
{
    size_t inUse = 0;
    {
        const SpareChunksKept kept;
        Queue queue = wholeChunks(kSpareChunks);
        FreeChunks(queue);
        inUse = ::mallinfo2().uordblks;
    }
    EXPECT_LE(::mallinfo2().uordblks + kSpareBytes / 2, inUse);
}

#endif

TEST(ChunkQueue, KeepsNothingWhileNobodyWantsIt)
{
    Queue queue = wholeChunks(2);
    FreeChunks(queue);
    EXPECT_EQ(GetSpareChunkCount(), 0u);
    {
        const SpareChunksKept kept;
        {
            const SpareChunksKept another;
            queue = wholeChunks(2);
            FreeChunks(queue);
            EXPECT_EQ(GetSpareChunkCount(), 2u);
        }
        EXPECT_EQ(GetSpareChunkCount(), 2u);
    }
    EXPECT_EQ(GetSpareChunkCount(), 0u);
    EXPECT_EQ(GetSpareBytes(), 0u);
    queue = wholeChunks(2);
    FreeChunks(queue);
    EXPECT_EQ(GetSpareChunkCount(), 0u);
}

TEST(ChunkQueue, KeepsSoManyBytesOfTheNewest)
{
    const SpareChunksKept kept;
    constexpr size_t kFit = kSpareBytes / kChunkCapacityBytes;
    static_assert(kFit == kSpareChunks);
    Queue queue = wholeChunks(kFit - 1);
    FreeChunks(queue);
    EXPECT_EQ(GetSpareChunkCount(), kFit - 1);
    EXPECT_EQ(GetSpareBytes(), kSpareBytes - kChunkCapacityBytes);
    queue = wholeChunks(kFit + 8);
    EXPECT_EQ(GetSpareChunkCount(), 0u);
    FreeChunks(queue);
    EXPECT_EQ(GetSpareChunkCount(), kFit);
    EXPECT_EQ(GetSpareBytes(), kSpareBytes);

    // One that is longer takes the place of the oldest if that makes room enough.
    append(queue, std::string(kChunkCapacityBytes + 1, 'x'));
    FreeChunks(queue);
    EXPECT_EQ(GetSpareChunkCount(), kFit - 1);
    append(queue, std::string(kChunkCapacityBytes + 1, 'x'));
    FreeChunks(queue);
    EXPECT_EQ(GetSpareChunkCount(), kFit - 1);
    EXPECT_EQ(GetSpareBytes(), (kFit - 2) * kChunkCapacityBytes + kChunkCapacityBytes + 1);
}

TEST(ChunkQueue, KeepsNoChunkThatIsLongerThanAllTogetherMayBe)
{
    const SpareChunksKept kept;
    Queue queue;
    append(queue, std::string(kSpareBytes + 1, 'x'));
    FreeChunks(queue);
    EXPECT_EQ(GetSpareChunkCount(), 0u);
    append(queue, std::string(kSpareBytes, 'x'));
    FreeChunks(queue);
    EXPECT_EQ(GetSpareChunkCount(), 1u);
    EXPECT_EQ(GetSpareBytes(), kSpareBytes);
}

TEST(ChunkQueue, KeepsNoChunkThatIsShorterThanUsual)
{
    const SpareChunksKept kept;
    FreeChunk(std::vector<char>(1000));
    FreeChunk({});
    EXPECT_EQ(GetSpareChunkCount(), 0u);
}

}  // namespace
}  // namespace qv::impl
