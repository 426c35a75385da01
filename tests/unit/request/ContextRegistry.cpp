// The contexts of a thread: when each is deleted.

#include "request/ContextRegistry.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <cstddef>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace
{

using qv::impl::ConnectionContext;
using qv::impl::ContextRegistry;
using qv::impl::kTimeNotSet;

// Connections are known by their addresses.
const char kConnections[8] = {};

// Each test uses a thread of its own, hence a registry of its own.
template <typename Function> void onAThread(Function function)
{
    std::thread(function).join();
}

TEST(ContextRegistry, AddsAContextWithTheTargetAndNothingElse)
{
    onAThread([] {
        ConnectionContext* context = ContextRegistry::Add("/a?b=c", kConnections);
        EXPECT_EQ(context->uri, "/a?b=c");
        EXPECT_EQ(context->startTimeMs, kTimeNotSet);
        EXPECT_EQ(context->request, nullptr);
        ContextRegistry::Remove(context);
    });
}

TEST(ContextRegistry, AddsANewContextForEachRequestWithoutAConnection)
{
    onAThread([] {
        ConnectionContext* first = ContextRegistry::Add("/first", nullptr);
        ConnectionContext* second = ContextRegistry::Add("/second", nullptr);
        EXPECT_NE(first, second);
        EXPECT_EQ(first->uri, "/first");
        EXPECT_EQ(second->uri, "/second");
        ContextRegistry::Remove(first);
        EXPECT_EQ(second->uri, "/second");
        ContextRegistry::Remove(second);
    });
}

TEST(ContextRegistry, RemovesNothingForNull)
{
    ContextRegistry::Remove(nullptr);
}

TEST(ContextRegistry, RemovesContextsInAnyOrder)
{
    // Many in each chain.
    constexpr size_t kCount = 5000;
    onAThread([] {
        const std::vector<char> connections(kCount);
        std::vector<ConnectionContext*> contexts;
        for (const char& connection : connections)
            contexts.push_back(ContextRegistry::Add(std::to_string(contexts.size()), &connection));
        constexpr size_t kStep = 7;  // does not divide the count
        for (size_t i = 0; i < kCount; ++i) {
            const size_t which = i * kStep % kCount;
            EXPECT_EQ(contexts[which]->uri, std::to_string(which));
            ContextRegistry::Remove(contexts[which]);
        }
    });
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

constexpr size_t kTargetBytes = 100000;
constexpr size_t kTargets = 50;

size_t bytesInUse()
{
    const struct mallinfo2 info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

TEST(ContextRegistry, DeletesAnAbandonedContextWithTheNextRequestOfItsConnection)
{
    onAThread([] {
        ContextRegistry::Remove(ContextRegistry::Add("", kConnections));
        const size_t before = bytesInUse();
        for (size_t i = 0; i < kTargets; ++i)
            ContextRegistry::Add(std::string(kTargetBytes, 'u'), kConnections);
        EXPECT_LT(bytesInUse() - before, 3 * kTargetBytes);
    });
}

TEST(ContextRegistry, DeletesAbandonedContextsWithTheirThread)
{
    onAThread([] {
        const size_t before = bytesInUse();
        onAThread([] {
            const std::vector<char> connections(kTargets);
            for (const char& connection : connections)
                ContextRegistry::Add(std::string(kTargetBytes, 'u'), &connection);
            ContextRegistry::Add(std::string(kTargetBytes, 'u'), nullptr);
        });
        EXPECT_LT(bytesInUse(), before + 3 * kTargetBytes);
    });
}

#endif

// Under AddressSanitizer these show that each context is deleted, and once.

TEST(ContextRegistry, DeletesContextsThatAnotherThreadRemoves)
{
    onAThread([] {
        std::vector<ConnectionContext*> contexts;
        for (const char& connection : kConnections)
            contexts.push_back(ContextRegistry::Add("/removed", &connection));
        onAThread([&] {
            for (ConnectionContext* context : contexts)
                ContextRegistry::Remove(context);
        });
        ConnectionContext* next = ContextRegistry::Add("/next", kConnections);
        EXPECT_EQ(next->uri, "/next");
        ContextRegistry::Remove(next);
    });
}

TEST(ContextRegistry, KeepsContextsWithARequestBeyondTheirThread)
{
    auto* const request = reinterpret_cast<qv::HttpBaseRequest*>(1);  // never used
    std::vector<ConnectionContext*> contexts;
    onAThread([&] {
        for (const char& connection : kConnections) {
            contexts.push_back(ContextRegistry::Add("/kept", &connection));
            contexts.back()->request = request;
        }
    });
    // The new registry may have the address of the destroyed one.
    onAThread([&] {
        ConnectionContext* own = ContextRegistry::Add("/own", kConnections);
        for (ConnectionContext* context : contexts) {
            EXPECT_EQ(context->uri, "/kept");
            ContextRegistry::Remove(context);
        }
        EXPECT_EQ(own->uri, "/own");
        ContextRegistry::Remove(own);
    });
}

TEST(ContextRegistry, DeletesOnceWhenRemovalAndEndOfTheThreadMeet)
{
    constexpr int kRounds = 2000;
    auto* const request = reinterpret_cast<qv::HttpBaseRequest*>(1);  // never used
    for (int round = 0; round < kRounds; ++round) {
        std::promise<ConnectionContext*> added;
        std::thread owner([&] {
            ConnectionContext* context = ContextRegistry::Add("/met", kConnections);
            context->request = request;
            added.set_value(context);
        });
        ContextRegistry::Remove(added.get_future().get());
        owner.join();
    }
}

}  // namespace
