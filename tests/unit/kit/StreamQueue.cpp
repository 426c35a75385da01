#include "StreamQueue.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace qv::kit
{
namespace
{

constexpr size_t kLimit = 10;

TEST(StreamQueue, TakesWhatFitsIntoItsLimit)
{
    const struct
    {
        const char* name;
        size_t first;
        size_t second;
        StreamWrite outcome;
    } rows[] = {
        {"to the limit", 4, 6, StreamWrite::Taken},
        {"above the limit", 4, 7, StreamWrite::Full},
        {"nothing", 10, 0, StreamWrite::Taken},
        {"one byte more", 10, 1, StreamWrite::Full},
        {"after a large one", 20, 1, StreamWrite::Full},
        {"large at first", 0, 1000, StreamWrite::Taken},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        StreamQueue queue("GET /", kLimit, false);
        EXPECT_EQ(queue.write(std::string(row.first, 'a')), StreamWrite::Taken);
        EXPECT_EQ(queue.write(std::string(row.second, 'b')), row.outcome);
        EXPECT_EQ(queue.queuedBytes(),
                  row.first + (row.outcome == StreamWrite::Taken ? row.second : 0));
    }
}

TEST(StreamQueue, TakesNothingAfterItsEnd)
{
    StreamQueue finished("GET /", kLimit, false);
    EXPECT_EQ(finished.write("a"), StreamWrite::Taken);
    finished.finish();
    EXPECT_TRUE(finished.isFinished());
    EXPECT_EQ(finished.write("b"), StreamWrite::Gone);
    EXPECT_EQ(finished.queuedBytes(), 1u);
    EXPECT_FALSE(finished.fail());
    StreamQueue failed("GET /", kLimit, false);
    EXPECT_TRUE(failed.fail());
    EXPECT_FALSE(failed.fail());
    EXPECT_EQ(failed.write("b"), StreamWrite::Gone);
    StreamQueue closed("GET /", kLimit, false);
    EXPECT_EQ(closed.write("a"), StreamWrite::Taken);
    closed.close();
    EXPECT_TRUE(closed.isClosed());
    EXPECT_EQ(closed.write("b"), StreamWrite::Gone);
    EXPECT_EQ(closed.queuedBytes(), 0u);
    EXPECT_FALSE(closed.fail());
}

TEST(StreamQueue, DiscardsTheDataOfAResponseWithoutABody)
{
    StreamQueue queue("HEAD /", kLimit, true);
    queue.close();
    EXPECT_FALSE(queue.isClosed());
    EXPECT_EQ(queue.write(std::string(1000, 'a')), StreamWrite::Taken);
    EXPECT_EQ(queue.queuedBytes(), 0u);
    queue.finish();
    EXPECT_EQ(queue.write("a"), StreamWrite::Gone);
}

TEST(StreamQueue, CallsOnWritableAtOnceWhenThereIsSpace)
{
    StreamQueue queue("GET /", kLimit, false);
    int calls = 0;
    queue.onWritable([&] { ++calls; });
    EXPECT_EQ(queue.write("12345"), StreamWrite::Taken);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(queue.write("123456"), StreamWrite::Full);
    // Half of the limit: there is space, and the write that was refused is told of it once.
    queue.onWritable([&] { ++calls; });
    EXPECT_EQ(calls, 1);
    queue.onWritable([&] { ++calls; });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(queue.write("1"), StreamWrite::Taken);
    EXPECT_EQ(queue.write("123456"), StreamWrite::Full);
    queue.onWritable([&] { ++calls; });
    EXPECT_EQ(calls, 1);
    queue.close();
    queue.onWritable([&] { ++calls; });
    EXPECT_EQ(calls, 1);
}

TEST(StreamQueue, KeepsNoCallbackAfterItsEnd)
{
    const auto token = std::make_shared<int>(0);
    StreamQueue finished("GET /", kLimit, false);
    finished.onWritable([token] {});
    EXPECT_EQ(token.use_count(), 2);
    finished.finish();
    EXPECT_EQ(token.use_count(), 1);
    finished.onWritable([token] {});
    EXPECT_EQ(token.use_count(), 1);
    StreamQueue closed("GET /", kLimit, false);
    closed.close();
    closed.onWritable([token] {});
    EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
}  // namespace qv::kit
