// The list of contexts that daemons keep, and what is freed of it when one has stopped.

#include "request/ConnectionContext.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace
{

using qv::impl::ConnectionContext;
using qv::impl::FreeContext;
using qv::impl::FreeContextsOf;
using qv::impl::GetLatestContextNumber;
using qv::impl::kTimeNotSet;
using qv::impl::MakeContext;

// Two daemons; only their addresses matter.
const int kOne = 1;
const int kOther = 2;

TEST(ConnectionContext, IsMadeWithTheTargetAndNothingElse)
{
    ConnectionContext* context = MakeContext("/a?b=c", &kOne);
    EXPECT_EQ(context->uri, "/a?b=c");
    EXPECT_EQ(context->startTimeMs, kTimeNotSet);
    EXPECT_EQ(context->request, nullptr);
    EXPECT_EQ(context->daemon, &kOne);
    FreeContext(context);
}

TEST(ConnectionContext, IsNumberedInOrder)
{
    ConnectionContext* first = MakeContext("", &kOne);
    EXPECT_EQ(first->number, GetLatestContextNumber());
    ConnectionContext* second = MakeContext("", &kOther);
    EXPECT_EQ(second->number, first->number + 1);
    EXPECT_EQ(second->number, GetLatestContextNumber());
    FreeContext(second);
    EXPECT_EQ(GetLatestContextNumber(), first->number + 1);
    FreeContext(first);
}

TEST(ConnectionContext, CanBeFreedWithoutEverHavingBeenListed)
{
    FreeContext(nullptr);
    FreeContext(new ConnectionContext{"/x", 1, nullptr});
}

TEST(FreeContextsOf, FreesWhatTheDaemonHasNotGivenBack)
{
    // Each is given back once, whichever stand beside it in the list.
    for (size_t givenBack = 0; givenBack <= 4; ++givenBack) {
        SCOPED_TRACE(givenBack);
        std::vector<ConnectionContext*> contexts;
        for (int i = 0; i < 4; ++i)
            contexts.push_back(MakeContext(std::string(100, 'u'), &kOne));
        if (givenBack < contexts.size())
            FreeContext(contexts[givenBack]);
        EXPECT_EQ(FreeContextsOf(&kOne, GetLatestContextNumber()), givenBack < 4 ? 3u : 4u);
        EXPECT_EQ(FreeContextsOf(&kOne, GetLatestContextNumber()), 0u);
    }
}

TEST(FreeContextsOf, LeavesThoseOfAnotherDaemon)
{
    ConnectionContext* before = MakeContext("before", &kOther);
    MakeContext("", &kOne);
    ConnectionContext* after = MakeContext("after", &kOther);
    EXPECT_EQ(FreeContextsOf(&kOne, GetLatestContextNumber()), 1u);
    EXPECT_EQ(before->uri, "before");
    EXPECT_EQ(after->uri, "after");
    FreeContext(before);
    FreeContext(after);
    EXPECT_EQ(FreeContextsOf(&kOther, GetLatestContextNumber()), 0u);
}

TEST(FreeContextsOf, LeavesLaterOnesOfADaemonAtTheSameAddress)
{
    MakeContext("", &kOne);
    const uint64_t stopping = GetLatestContextNumber();
    ConnectionContext* later = MakeContext("later", &kOne);
    EXPECT_EQ(FreeContextsOf(&kOne, stopping), 1u);
    EXPECT_EQ(later->uri, "later");
    EXPECT_EQ(FreeContextsOf(&kOne, GetLatestContextNumber()), 1u);
}

TEST(ConnectionContext, IsMadeAndFreedOnManyThreadsAtOnce)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 5000;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([] {
            ConnectionContext* kept = nullptr;
            for (int i = 0; i < kEach; ++i) {
                ConnectionContext* made = MakeContext("/x", &kOne);
                FreeContext(kept);
                kept = made;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(FreeContextsOf(&kOne, GetLatestContextNumber()), static_cast<size_t>(kThreads));
}

}  // namespace
