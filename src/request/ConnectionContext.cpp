// The book of all contexts that daemons keep at the moment.

#include "request/ConnectionContext.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <memory>
#include <unordered_map>
#include <utility>

namespace qv::impl
{
namespace
{

// More than a daemon has connections.
constexpr size_t kUsualCount = 1024;

struct Book
{
    qvMutex mutex;
    // A connection has one request at a time.
    std::unordered_map<const void*, ConnectionContext> contexts QV_GUARDED_BY(mutex);
    uint64_t latestNumber QV_GUARDED_BY(mutex) = 0;
};

std::unique_ptr<Book> makeBook()
{
    auto made = std::make_unique<Book>();
    qvMutexLocker locker(&made->mutex);
    made->contexts.reserve(kUsualCount);
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
    // What there is at this address already belongs to a request that the daemon forgot.
    ConnectionContext& context = all.contexts[connection];
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
    all.contexts.erase(context->connection);
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
