// The pool of blocks of a worker thread.

#include "websocket/BlockPool.h"

#include <iterator>

namespace qv::impl
{
namespace
{

// A plain pointer: an object with a destructor would need memory when the thread first uses it.
// Looked at for each block: reached without a call.
[[gnu::tls_model("initial-exec")]] thread_local BlockPool* tPool = nullptr;

}  // namespace

BlockPool::BlockPool()
{
    tPool = this;
}

BlockPool::~BlockPool()
{
    tPool = nullptr;
}

void BlockPool::Append(Queue& queue, size_t size)
{
    Queue* const pooled = tPool ? &tPool->mBlocks : nullptr;
    if (pooled && !pooled->empty() && pooled->back().size() == size)
        queue.splice(queue.end(), *pooled, std::prev(pooled->end()));
    else
        queue.emplace_back(size);
}

void BlockPool::FreeFirst(Queue& queue)
{
    // The one that was used last is the next to be used.
    if (tPool && tPool->mBlocks.size() < kMaxBlocks)
        tPool->mBlocks.splice(tPool->mBlocks.end(), queue, queue.begin());
    else
        queue.pop_front();
}

}  // namespace qv::impl
