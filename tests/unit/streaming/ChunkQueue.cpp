// The appending rule on its own.

#include "streaming/ChunkQueue.h"

#include <gmock/gmock.h>

#include <list>
#include <string>
#include <vector>

namespace qv::impl
{
namespace
{

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

TEST(ChunkQueue, FreesTheFirstChunkAlone)
{
    Queue queue;
    append(queue, std::string(65536, 'x'));
    append(queue, "rest");
    FreeFirstChunk(queue);
    EXPECT_EQ(bytesOf(queue), "rest");
    FreeChunks(queue);
}

}  // namespace
}  // namespace qv::impl
