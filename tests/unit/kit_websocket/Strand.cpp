// The callbacks of one session, in order and one at a time.

#include "websocket/Strand.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace qv::kit::websocket
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;

Notice text(std::string_view payload)
{
    return {.kind = Notice::Kind::Text, .payload = BinaryView(payload)};
}

class StrandRun : public ::testing::Test
{
protected:
    Strand::Result run(size_t maxNotices)
    {
        heard.clear();
        return strand.run(
            [this](const Notice& notice) { heard.emplace_back(notice.payload.asText()); },
            maxNotices);
    }

    Budget budget{5000};
    Strand strand{1000, budget};
    std::vector<std::string> heard;
};

TEST_F(StrandRun, AsksForOneTaskUntilItsNoticesHaveRun)
{
    EXPECT_TRUE(strand.add(text("a")));
    EXPECT_FALSE(strand.add(text("b")));
    EXPECT_EQ(run(10), Strand::Result::Empty);
    EXPECT_THAT(heard, ElementsAre("a", "b"));
    EXPECT_TRUE(strand.add(text("c")));
    EXPECT_EQ(run(10), Strand::Result::Empty);
    EXPECT_THAT(heard, ElementsAre("c"));
}

TEST_F(StrandRun, LeavesTheRestToAnotherTask)
{
    for (const char* each : {"a", "b", "c", "d"})
        strand.add(text(each));
    EXPECT_EQ(run(2), Strand::Result::HasMore);
    EXPECT_THAT(heard, ElementsAre("a", "b"));
    EXPECT_FALSE(strand.add(text("e"))) << "the other task runs it";
    EXPECT_EQ(run(2), Strand::Result::HasMore);
    EXPECT_THAT(heard, ElementsAre("c", "d"));
    EXPECT_EQ(run(1), Strand::Result::Empty);
    EXPECT_THAT(heard, ElementsAre("e"));
}

TEST_F(StrandRun, TellsThatItHasSpaceAgain)
{
    strand.add(text(std::string(600, 'x')));
    EXPECT_FALSE(strand.isFull());
    strand.add(text(std::string(600, 'y')));
    EXPECT_TRUE(strand.isFull());
    EXPECT_EQ(run(1), Strand::Result::HasMore);
    EXPECT_TRUE(strand.isFull());
    EXPECT_EQ(run(1), Strand::Result::HasSpace);
    EXPECT_FALSE(strand.isFull());
}

TEST_F(StrandRun, CountsQueuedMessagesInTheBudget)
{
    strand.add(text(std::string(600, 'x')));
    strand.add(text(std::string(200, 'y')));
    const uint64_t used = budget.usedBytes();
    EXPECT_GE(used, 800u);
    EXPECT_EQ(run(1), Strand::Result::HasMore);
    EXPECT_LE(budget.usedBytes(), used - 600);
    EXPECT_EQ(run(1), Strand::Result::Empty);
    EXPECT_EQ(budget.usedBytes(), 0u);
    strand.add(text("z"));
    strand.discardMessages();
    EXPECT_EQ(budget.usedBytes(), 0u);
    {
        Strand dropped(1000, budget);
        dropped.add(text("z"));
        EXPECT_GT(budget.usedBytes(), 0u);
    }
    EXPECT_EQ(budget.usedBytes(), 0u);
}

// The message has been received; nothing more is, until it has been handled.
TEST_F(StrandRun, IsFullBeyondTheBudget)
{
    budget.chargeAlways(5000);
    strand.add(text("a"));
    EXPECT_TRUE(strand.isFull());
    EXPECT_GT(budget.usedBytes(), 5000u);
    EXPECT_EQ(run(10), Strand::Result::HasSpace);
    EXPECT_THAT(heard, ElementsAre("a"));
    EXPECT_EQ(budget.usedBytes(), 5000u);
}

TEST_F(StrandRun, KeepsTheFirstAndTheLastNoticeWhenTheExecutorRefuses)
{
    EXPECT_TRUE(strand.add({.kind = Notice::Kind::Open}));
    strand.add(text("a"));
    strand.discardMessages();
    strand.add(text("b"));
    strand.add({.kind = Notice::Kind::Close, .payload = BinaryView(std::string_view("why"))});
    EXPECT_EQ(run(10), Strand::Result::Empty);
    EXPECT_THAT(heard, ElementsAre("", "why"));
    EXPECT_EQ(run(10), Strand::Result::Empty);
    EXPECT_THAT(heard, IsEmpty());
}

}  // namespace
}  // namespace qv::kit::websocket
