// Blocks that go round within a worker thread.

#include "websocket/SpareBlocks.h"

#include <iterator>

namespace qv::impl
{
namespace
{

// A plain pointer: an object with a destructor would need memory when the thread first uses it.
// Looked at for each block: reached without a call.
[[gnu::tls_model("initial-exec")]] thread_local SpareBlocks* tSpares = nullptr;

}  // namespace

SpareBlocks::SpareBlocks()
{
    tSpares = this;
}

SpareBlocks::~SpareBlocks()
{
    tSpares = nullptr;
}

void SpareBlocks::Append(Queue& queue, size_t size)
{
    Queue* const spares = tSpares ? &tSpares->mBlocks : nullptr;
    if (spares && !spares->empty() && spares->back().size() == size)
        queue.splice(queue.end(), *spares, std::prev(spares->end()));
    else
        queue.emplace_back(size);
}

void SpareBlocks::FreeFirst(Queue& queue)
{
    // The one that was used last is the next to be used.
    if (tSpares && tSpares->mBlocks.size() < kMostBlocks)
        tSpares->mBlocks.splice(tSpares->mBlocks.end(), queue, queue.begin());
    else
        queue.pop_front();
}

}  // namespace qv::impl
