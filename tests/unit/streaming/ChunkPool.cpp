// Which chunks are used again, and that all are given back.

#include "streaming/ChunkPool.h"

#include "../../support/Forking.h"
#include "streaming/ChunkQueue.h"
#include "support/TestAccess.h"

#include <gmock/gmock.h>

#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <list>
#include <set>
#include <string>
#include <thread>
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

size_t chunkCount()
{
    return TestAccess::chunkCount(ChunkPool::Instance());
}

size_t byteCount()
{
    return TestAccess::bytes(ChunkPool::Instance());
}

// A queue of full chunks.
Queue wholeChunks(size_t count)
{
    Queue queue;
    for (size_t i = 0; i < count; ++i)
        append(queue, std::string(kMinChunkBytes, 'x'));
    return queue;
}

std::multiset<const char*> placesOf(const Queue& queue)
{
    std::multiset<const char*> places;
    for (const auto& chunk : queue)
        places.insert(chunk.data());
    return places;
}

TEST(ChunkPool, UsesFreedChunksAgainWithoutTheirBytes)
{
    const ChunkPool::User user;
    Queue queue = wholeChunks(3);
    const auto places = placesOf(queue);
    FreeChunks(queue);
    for (int i = 0; i < 3; ++i)
        append(queue, std::string(kMinChunkBytes, 'y'));
    EXPECT_EQ(placesOf(queue), places);
    EXPECT_THAT(bytesOf(queue), Each('y'));

    // A chunk that was full is empty again.
    FreeChunks(queue);
    append(queue, "short");
    EXPECT_EQ(bytesOf(queue), "short");
    EXPECT_EQ(queue.back().capacity(), kMinChunkBytes);
    FreeChunks(queue);
}

// As a worker does, whose chunks the daemon's thread gives.
TEST(ChunkPool, LooksFirstWhereTheThreadHasFoundTheLastOne)
{
    const ChunkPool::User user;
    std::thread([] {
        Queue given = wholeChunks(2);
        Queue own = wholeChunks(1);
        const auto places = placesOf(given);
        std::thread([&given] { FreeChunks(given); }).join();
        Queue taken = wholeChunks(1);
        FreeChunks(own);
        append(taken, std::string(kMinChunkBytes, 'y'));
        EXPECT_EQ(placesOf(taken), places);
        FreeChunks(taken);
    }).join();
}

TEST(ChunkPool, UsesAFreedChunkForOneOfItsCapacityOnly)
{
    const ChunkPool::User user;
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

TEST(ChunkPool, LosesNoneWhenOneOfThemIsTaken)
{
    const ChunkPool::User user;
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
    EXPECT_EQ(chunkCount(), 0u);
    EXPECT_EQ(byteCount(), 0u);
}

TEST(ChunkPool, KeepsTheNewerOfTwoThatAreTooManyTogether)
{
    const ChunkPool::User user;
    constexpr size_t kMoreThanHalf = ChunkPool::kMaxBytes / 2 + 1;
    Queue queue;
    append(queue, std::string(kMoreThanHalf, 'x'));
    append(queue, std::string(kMoreThanHalf + 1, 'x'));
    const char* const newer = queue.back().data();
    FreeChunks(queue);
    EXPECT_EQ(chunkCount(), 1u);
    EXPECT_EQ(byteCount(), kMoreThanHalf + 1);
    append(queue, std::string(kMoreThanHalf + 1, 'x'));
    EXPECT_EQ(queue.front().data(), newer);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

TEST(ChunkPool, GivesTheMemoryBackWithTheLastWhoWantsIt)
{
    size_t inUse = 0;
    {
        const ChunkPool::User user;
        Queue queue = wholeChunks(ChunkPool::kMaxChunks);
        FreeChunks(queue);
        inUse = ::mallinfo2().uordblks;
    }
    EXPECT_LE(::mallinfo2().uordblks + ChunkPool::kMaxBytes / 2, inUse);
}

#endif

TEST(ChunkPool, KeepsNothingWhileNobodyWantsIt)
{
    Queue queue = wholeChunks(2);
    FreeChunks(queue);
    EXPECT_EQ(chunkCount(), 0u);
    {
        const ChunkPool::User user;
        {
            const ChunkPool::User another;
            queue = wholeChunks(2);
            FreeChunks(queue);
            EXPECT_EQ(chunkCount(), 2u);
        }
        EXPECT_EQ(chunkCount(), 2u);
    }
    EXPECT_EQ(chunkCount(), 0u);
    EXPECT_EQ(byteCount(), 0u);
    queue = wholeChunks(2);
    FreeChunks(queue);
    EXPECT_EQ(chunkCount(), 0u);
}

TEST(ChunkPool, KeepsSoManyBytesOfTheNewest)
{
    const ChunkPool::User user;
    constexpr size_t kFit = ChunkPool::kMaxBytes / kMinChunkBytes;
    static_assert(kFit == ChunkPool::kMaxChunks);
    Queue queue = wholeChunks(kFit - 1);
    FreeChunks(queue);
    EXPECT_EQ(chunkCount(), kFit - 1);
    EXPECT_EQ(byteCount(), ChunkPool::kMaxBytes - kMinChunkBytes);
    queue = wholeChunks(kFit + 8);
    EXPECT_EQ(chunkCount(), 0u);
    FreeChunks(queue);
    EXPECT_EQ(chunkCount(), kFit);
    EXPECT_EQ(byteCount(), ChunkPool::kMaxBytes);

    // A longer chunk replaces the oldest one if that leaves enough capacity.
    append(queue, std::string(kMinChunkBytes + 1, 'x'));
    FreeChunks(queue);
    EXPECT_EQ(chunkCount(), kFit - 1);
    append(queue, std::string(kMinChunkBytes + 1, 'x'));
    FreeChunks(queue);
    EXPECT_EQ(chunkCount(), kFit - 1);
    EXPECT_EQ(byteCount(), (kFit - 2) * kMinChunkBytes + kMinChunkBytes + 1);
}

TEST(ChunkPool, KeepsNoChunkThatIsLongerThanAllTogetherMayBe)
{
    const ChunkPool::User user;
    Queue queue;
    append(queue, std::string(ChunkPool::kMaxBytes + 1, 'x'));
    FreeChunks(queue);
    EXPECT_EQ(chunkCount(), 0u);
    append(queue, std::string(ChunkPool::kMaxBytes, 'x'));
    FreeChunks(queue);
    EXPECT_EQ(chunkCount(), 1u);
    EXPECT_EQ(byteCount(), ChunkPool::kMaxBytes);
}

TEST(ChunkPool, KeepsNoChunkThatIsShorterThanUsual)
{
    const ChunkPool::User user;
    ChunkPool::Instance().give(std::vector<char>(1000));
    ChunkPool::Instance().give({});
    EXPECT_EQ(chunkCount(), 0u);
}

// The threads of the parent are in the middle of any operation when it forks.
TEST(ChunkPool, WorksInAForkedChild)
{
    if (!qv::tests::kChildrenAllocate)
        GTEST_SKIP() << "AddressSanitizer's allocator can deadlock in a child";
    constexpr int kThreads = 3;
#ifdef __SANITIZE_THREAD__
    constexpr int kForks = 50;
#else
    constexpr int kForks = 300;
#endif
    const ChunkPool::User user;
    const auto useChunks = [] {
        Queue queue = wholeChunks(3);
        FreeChunks(queue);
    };
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&] {
            while (!isOver)
                useChunks();
        });
    int failed = 0;
    for (int i = 0; i < kForks && failed == 0; ++i)
        failed += !qv::tests::endsInAChild(useChunks);
    isOver = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failed, 0);
}

// Chunks of two capacities pass between threads that take and give at once.
TEST(ChunkPool, KeepsWithinItsLimitsOnManyThreads)
{
    constexpr int kThreads = 4;
#ifdef __SANITIZE_THREAD__
    constexpr int kRounds = 50;
#else
    constexpr int kRounds = 500;
#endif
    std::atomic<bool> isWithin{true};
    std::atomic<bool> isWhole{true};
    {
        const ChunkPool::User user;
        std::vector<std::thread> threads;
        for (int thread = 0; thread < kThreads; ++thread)
            threads.emplace_back([&, thread] {
                const std::string bytes(kMinChunkBytes * (thread % 2 == 0 ? 1 : 16),
                                        static_cast<char>('a' + thread));
                for (int round = 0; round < kRounds; ++round) {
                    Queue queue;
                    append(queue, bytes);
                    append(queue, bytes);
                    if (bytesOf(queue) != bytes + bytes)
                        isWhole = false;
                    FreeChunks(queue);
                    if (chunkCount() > ChunkPool::kMaxChunks)
                        isWithin = false;
                }
            });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_LE(byteCount(), ChunkPool::kMaxBytes);
    }
    EXPECT_TRUE(isWithin);
    EXPECT_TRUE(isWhole);
    EXPECT_EQ(chunkCount(), 0u);
    EXPECT_EQ(byteCount(), 0u);
}

}  // namespace
}  // namespace qv::impl
