// The list of contexts that daemons keep, and what is freed of it when one has stopped.

#include "request/ConnectionContext.h"

#include <gtest/gtest.h>

#include <string>
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

// Two daemons by their sockets, and connections by their addresses.
constexpr int kOne = 11;
constexpr int kOther = 12;
const char kConnections[8] = {};

TEST(ConnectionContext, IsMadeWithTheTargetAndNothingElse)
{
    ConnectionContext* context = MakeContext("/a?b=c", kOne, kConnections);
    EXPECT_EQ(context->uri, "/a?b=c");
    EXPECT_EQ(context->startTimeMs, kTimeNotSet);
    EXPECT_EQ(context->request, nullptr);
    EXPECT_EQ(context->listener, kOne);
    EXPECT_EQ(context->connection, kConnections);
    FreeContext(context);
}

TEST(ConnectionContext, IsNumberedInOrder)
{
    ConnectionContext* first = MakeContext("", kOne, &kConnections[0]);
    EXPECT_EQ(first->number, GetLatestContextNumber());
    ConnectionContext* second = MakeContext("", kOther, &kConnections[1]);
    EXPECT_EQ(second->number, first->number + 1);
    EXPECT_EQ(second->number, GetLatestContextNumber());
    FreeContext(second);
    EXPECT_EQ(GetLatestContextNumber(), first->number + 1);
    FreeContext(first);
}

TEST(ConnectionContext, CanBeFreedWithoutEverHavingBeenInTheBook)
{
    MakeContext("/kept", kOne, kConnections);
    FreeContext(nullptr);
    FreeContext(new ConnectionContext{"/x", 1, nullptr, kOne, kConnections});
    EXPECT_EQ(FreeContextsOf(kOne, GetLatestContextNumber()), 1u);
}

TEST(ConnectionContext, TakesThePlaceOfOneThatWasForgotten)
{
    const uint64_t before = GetLatestContextNumber();
    ConnectionContext* forgotten = MakeContext("/forgotten", kOne, kConnections);
    forgotten->startTimeMs = 5;
    ConnectionContext* next = MakeContext("/next", kOne, kConnections);
    EXPECT_EQ(next->uri, "/next");
    EXPECT_EQ(next->startTimeMs, kTimeNotSet);
    EXPECT_EQ(next->number, before + 2);
    EXPECT_EQ(FreeContextsOf(kOne, GetLatestContextNumber()), 1u);
}

// Entries of the book are used again.
TEST(ConnectionContext, IsAsNewAfterManyOthersHaveBeenFreed)
{
    constexpr size_t kMany = 200;
    const std::vector<char> places(kMany);
    const auto useAll = [&] {
        std::vector<ConnectionContext*> contexts;
        for (const char& place : places)
            contexts.push_back(MakeContext("/first", kOne, &place));
        for (ConnectionContext* context : contexts) {
            context->startTimeMs = 5;
            FreeContext(context);
        }
    };
    useAll();
    useAll();
    for (const char& place : places) {
        ConnectionContext* context = MakeContext("/forgotten", kOne, &place);
        EXPECT_EQ(context->startTimeMs, kTimeNotSet);
        context->startTimeMs = 6;
    }
    FreeContext(MakeContext("/other", kOther, kConnections));
    // With an entry to be used again at hand, a place that is taken.
    ConnectionContext* next = MakeContext("/next", kOne, places.data());
    EXPECT_EQ(next->uri, "/next");
    EXPECT_EQ(next->startTimeMs, kTimeNotSet);
    EXPECT_EQ(FreeContextsOf(kOne, GetLatestContextNumber()), kMany);
}

TEST(FreeContextsOf, FreesWhatTheDaemonHasNotGivenBack)
{
    constexpr size_t kCount = 4;
    for (size_t givenBack = 0; givenBack <= kCount; ++givenBack) {
        SCOPED_TRACE(givenBack);
        std::vector<ConnectionContext*> contexts;
        for (size_t i = 0; i < kCount; ++i)
            contexts.push_back(MakeContext(std::string(100, 'u'), kOne, &kConnections[i]));
        for (size_t i = 0; i < givenBack; ++i)
            FreeContext(contexts[i]);
        EXPECT_EQ(FreeContextsOf(kOne, GetLatestContextNumber()), kCount - givenBack);
        EXPECT_EQ(FreeContextsOf(kOne, GetLatestContextNumber()), 0u);
    }
}

TEST(FreeContextsOf, LeavesThoseOfAnotherDaemon)
{
    ConnectionContext* before = MakeContext("before", kOther, &kConnections[0]);
    MakeContext("", kOne, &kConnections[1]);
    ConnectionContext* after = MakeContext("after", kOther, &kConnections[2]);
    EXPECT_EQ(FreeContextsOf(kOne, GetLatestContextNumber()), 1u);
    EXPECT_EQ(before->uri, "before");
    EXPECT_EQ(after->uri, "after");
    FreeContext(before);
    FreeContext(after);
    EXPECT_EQ(FreeContextsOf(kOther, GetLatestContextNumber()), 0u);
}

TEST(FreeContextsOf, LeavesLaterOnesOfADaemonWithTheSameSocket)
{
    MakeContext("", kOne, &kConnections[0]);
    const uint64_t stopping = GetLatestContextNumber();
    ConnectionContext* later = MakeContext("later", kOne, &kConnections[1]);
    EXPECT_EQ(FreeContextsOf(kOne, stopping), 1u);
    EXPECT_EQ(later->uri, "later");
    EXPECT_EQ(FreeContextsOf(kOne, GetLatestContextNumber()), 1u);
}

TEST(ConnectionContext, IsMadeAndFreedOnManyThreadsAtOnce)
{
    constexpr int kThreads = 4;
    constexpr int kEach = 5000;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
        threads.emplace_back([thread] {
            for (int i = 0; i < kEach; ++i) {
                ConnectionContext* made =
                    MakeContext(std::to_string(i), kOne, &kConnections[thread]);
                EXPECT_EQ(made->uri, std::to_string(i));
                if (i + 1 < kEach)
                    FreeContext(made);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(FreeContextsOf(kOne, GetLatestContextNumber()), static_cast<size_t>(kThreads));
}

}  // namespace
