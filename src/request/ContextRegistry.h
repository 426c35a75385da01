// The connection contexts that a daemon thread has open.
//
// The daemon drops some half-parsed requests without completing them (thousands of query
// arguments or cookies in one head). A client that repeats such heads would exhaust the memory, so
// each thread registers its contexts: an abandoned context is deleted when a connection at the same
// address has its next request, at the latest when the daemon thread ends.
#ifndef WENDREL_REQUEST_CONTEXTREGISTRY_H
#define WENDREL_REQUEST_CONTEXTREGISTRY_H

#include "request/ConnectionContext.h"

#include <array>
#include <cstddef>
#include <string>

namespace qv::impl
{

// One for each daemon thread, without a lock: all callbacks of a connection run on one thread.
class ContextRegistry
{
public:
    // Returns a new context for the next request of `connection`, which may be null. A context of
    // an earlier request of the same connection is deleted: a connection has one request at a time.
    static ConnectionContext* Add(std::string uri, const void* connection);

    // Deletes a context; null is ignored. Any thread: on another thread than the one that added it,
    // the deletion is left to the registry while that exists.
    static void Remove(ConnectionContext* context);

    // Deletes the contexts without a request; the others are deleted by Remove.
    ~ContextRegistry();
    ContextRegistry(const ContextRegistry&) = delete;
    ContextRegistry& operator=(const ContextRegistry&) = delete;

private:
    // Chains stay short at the thousand connections that a daemon accepts.
    static constexpr size_t kBuckets = 256;

    // Maximum number of deleted contexts that are pooled for later requests.
    static constexpr size_t kMaxPooled = 64;

    ContextRegistry() = default;

    static ContextRegistry& OfThisThread();

    ConnectionContext*& bucketOf(const void* connection);
    ConnectionContext* takeContext();
    void recycle(ConnectionContext* context);
    void removeConnection(const void* connection);
    void unlink(const ConnectionContext& context);

    std::array<ConnectionContext*, kBuckets> mBuckets{};
    ConnectionContext* mPooled = nullptr;
    size_t mPooledCount = 0;
};

}  // namespace qv::impl

#endif
