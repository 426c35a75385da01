// The list of all contexts that daemons keep at the moment, newest first.

#include "request/ConnectionContext.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <memory>
#include <utility>

namespace qv::impl
{
namespace
{

struct LiveContexts
{
    qvMutex mutex;
    ConnectionContext* newest QV_GUARDED_BY(mutex) = nullptr;
    uint64_t latestNumber QV_GUARDED_BY(mutex) = 0;
};

// Never destroyed: a server may outlive the static objects of its process.
LiveContexts& live()
{
    static auto& contexts = *new LiveContexts;
    return contexts;
}

void unlink(LiveContexts& list, ConnectionContext& context) QV_REQUIRES(list.mutex)
{
    if (context.newer)
        context.newer->older = context.older;
    else
        list.newest = context.older;
    if (context.older)
        context.older->newer = context.newer;
}

}  // namespace

ConnectionContext* MakeContext(std::string uri, const void* daemon)
{
    auto context = std::make_unique<ConnectionContext>();
    context->uri = std::move(uri);
    context->daemon = daemon;
    LiveContexts& list = live();
    qvMutexLocker locker(&list.mutex);
    context->number = ++list.latestNumber;
    context->older = list.newest;
    if (list.newest)
        list.newest->newer = context.get();
    list.newest = context.get();
    return context.release();
}

void FreeContext(ConnectionContext* context)
{
    const std::unique_ptr<ConnectionContext> freed(context);
    if (!context || context->number == 0)
        return;
    LiveContexts& list = live();
    qvMutexLocker locker(&list.mutex);
    unlink(list, *context);
}

uint64_t GetLatestContextNumber()
{
    LiveContexts& list = live();
    qvMutexLocker locker(&list.mutex);
    return list.latestNumber;
}

size_t FreeContextsOf(const void* daemon, uint64_t upToNumber)
{
    LiveContexts& list = live();
    size_t count = 0;
    qvMutexLocker locker(&list.mutex);
    for (ConnectionContext* each = list.newest; each;) {
        ConnectionContext* const context = each;
        each = each->older;
        if (context->daemon != daemon || context->number > upToNumber)
            continue;
        unlink(list, *context);
        delete context;
        ++count;
    }
    return count;
}

}  // namespace qv::impl
