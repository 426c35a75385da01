// Contexts in chains by the address of their connection.

#include "request/ContextRegistry.h"

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <utility>

namespace qv::impl
{
namespace
{

// A plain pointer, read once for each request without a call.
[[gnu::tls_model("initial-exec")]] thread_local ContextRegistry* tRegistry = nullptr;

// Called at the end of a thread that has a registry.
void deleteRegistry(void* registry)
{
    tRegistry = nullptr;
    delete static_cast<ContextRegistry*>(registry);
}

// A thread_local object with a destructor would end the process when there is no memory to
// register the destructor.
void deleteAtThreadEnd(ContextRegistry* registry)
{
    static const pthread_key_t key = [] {
        pthread_key_t made{};
        pthread_key_create(&made, &deleteRegistry);
        return made;
    }();
    pthread_setspecific(key, registry);
}

}  // namespace

ContextRegistry& ContextRegistry::OfThisThread()
{
    if (!tRegistry) {
        std::unique_ptr<ContextRegistry> made(new ContextRegistry);
        deleteAtThreadEnd(made.get());
        tRegistry = made.release();
    }
    return *tRegistry;
}

ContextRegistry::~ContextRegistry()
{
    using State = ConnectionContext::State;
    for (ConnectionContext* context : mBuckets) {
        while (context) {
            ConnectionContext* const next = context->mNext;
            // Without a request nobody else refers to it: the daemon has abandoned it.
            if (!context->request || context->mState.exchange(State::Orphaned) == State::Released)
                delete context;
            context = next;
        }
    }
    while (mPooled)
        delete std::exchange(mPooled, mPooled->mNext);
}

ConnectionContext* ContextRegistry::Add(std::string uri, const void* connection)
{
    ContextRegistry& registry = OfThisThread();
    ConnectionContext* const context = registry.takeContext();
    context->uri = std::move(uri);
    context->mRegistry = &registry;
    // Without a connection a context is known by its own address.
    context->mConnection = connection ? connection : context;
    registry.removeConnection(context->mConnection);
    ConnectionContext*& bucket = registry.bucketOf(context->mConnection);
    context->mNext = bucket;
    bucket = context;
    return context;
}

ConnectionContext* ContextRegistry::takeContext()
{
    if (!mPooled)
        return new ConnectionContext;
    --mPooledCount;
    return std::exchange(mPooled, mPooled->mNext);
}

// Pools or deletes a context that is in no chain.
void ContextRegistry::recycle(ConnectionContext* context)
{
    if (mPooledCount == kMaxPooled || context->mState != ConnectionContext::State::Registered) {
        delete context;
        return;
    }
    std::string().swap(context->uri);  // assigning an empty text would keep the memory
    context->startTimeMs = kTimeNotSet;
    context->request = nullptr;
    context->mNext = mPooled;
    mPooled = context;
    ++mPooledCount;
}

void ContextRegistry::Remove(ConnectionContext* context)
{
    using State = ConnectionContext::State;
    if (!context)
        return;
    // An orphan's registry may have the address of a new one.
    if (context->mRegistry == tRegistry && context->mState != State::Orphaned) {
        tRegistry->unlink(*context);
        tRegistry->recycle(context);
    } else if (context->mState.exchange(State::Released) == State::Orphaned) {
        delete context;
    }
}

ConnectionContext*& ContextRegistry::bucketOf(const void* connection)
{
    // The multiplier spreads addresses of any alignment over the upper bits.
    constexpr uint64_t kMultiplier = 0x9e3779b97f4a7c15;
    constexpr unsigned kShift = 56;
    static_assert(kBuckets == size_t{1} << (64 - kShift));
    return mBuckets[reinterpret_cast<uintptr_t>(connection) * kMultiplier >> kShift];
}

void ContextRegistry::removeConnection(const void* connection)
{
    for (ConnectionContext** link = &bucketOf(connection); *link; link = &(*link)->mNext) {
        if ((*link)->mConnection != connection)
            continue;
        recycle(std::exchange(*link, (*link)->mNext));
        return;
    }
}

void ContextRegistry::unlink(const ConnectionContext& context)
{
    ConnectionContext** link = &bucketOf(context.mConnection);
    while (*link != &context)
        link = &(*link)->mNext;
    *link = context.mNext;
}

}  // namespace qv::impl
