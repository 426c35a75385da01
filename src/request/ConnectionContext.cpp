// The book of all contexts that daemons keep at the moment.

#include "request/ConnectionContext.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qv::impl
{
namespace
{

// More than a daemon has connections.
constexpr size_t kUsualCount = 1024;

// Entries that are kept for the next requests.
constexpr size_t kSpareEntries = 64;

struct Book
{
    using Contexts = std::unordered_map<const void*, ConnectionContext>;

    qvMutex mutex;
    // A connection has one request at a time.
    Contexts contexts QV_GUARDED_BY(mutex);
    std::vector<Contexts::node_type> spares QV_GUARDED_BY(mutex);
    uint64_t latestNumber QV_GUARDED_BY(mutex) = 0;
};

// The entry of `connection`: what there is already belongs to a request that the daemon forgot.
ConnectionContext& entryOf(Book& all, const void* connection) QV_REQUIRES(all.mutex)
{
    if (all.spares.empty())
        return all.contexts[connection];
    all.spares.back().key() = connection;
    auto inserted = all.contexts.insert(std::move(all.spares.back()));
    if (inserted.inserted)
        all.spares.pop_back();
    else
        all.spares.back() = std::move(inserted.node);
    return inserted.position->second;
}

void removeEntry(Book& all, const void* connection) QV_REQUIRES(all.mutex)
{
    auto entry = all.contexts.extract(connection);
    if (entry.empty() || all.spares.size() == kSpareEntries)
        return;
    std::string().swap(entry.mapped().uri);  // an empty one assigned would keep the memory
    all.spares.push_back(std::move(entry));
}

std::unique_ptr<Book> makeBook()
{
    auto made = std::make_unique<Book>();
    qvMutexLocker locker(&made->mutex);
    made->contexts.reserve(kUsualCount);
    made->spares.reserve(kSpareEntries);
    return made;
}

// Never destroyed: a server may outlive the static objects of its process.
Book& book()
{
    static Book& theBook = *makeBook().release();
    return theBook;
}

}  // namespace

ConnectionContext* MakeContext(std::string uri, int listener, const void* connection)
{
    Book& all = book();
    qvMutexLocker locker(&all.mutex);
    ConnectionContext& context = entryOf(all, connection);
    context = {std::move(uri), kTimeNotSet, nullptr, listener, connection, ++all.latestNumber};
    return &context;
}

void FreeContext(ConnectionContext* context)
{
    if (!context)
        return;
    if (context->number == 0) {
        delete context;
        return;
    }
    Book& all = book();
    qvMutexLocker locker(&all.mutex);
    removeEntry(all, context->connection);
}

uint64_t GetLatestContextNumber()
{
    Book& all = book();
    qvMutexLocker locker(&all.mutex);
    return all.latestNumber;
}

size_t FreeContextsOf(int listener, uint64_t upToNumber)
{
    Book& all = book();
    qvMutexLocker locker(&all.mutex);
    return std::erase_if(all.contexts, [&](const auto& entry) {
        return entry.second.listener == listener && entry.second.number <= upToNumber;
    });
}

}  // namespace qv::impl
