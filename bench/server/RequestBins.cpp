// Owns and deletes requests served by daemon threads.

#include "server/RequestBins.h"

#include <utility>

namespace bench
{
namespace
{

constexpr size_t kMinBatchSize = 8;

}  // namespace

RequestBins::Bin& RequestBins::binOfThisThread()
{
    thread_local Bin* bin = nullptr;
    if (!bin) {
        const std::lock_guard locker(mMutex);
        bin = &mBins.emplace_back();
    }
    return *bin;
}

InlineRequest* RequestBins::create(bool lends)
{
    Bin& bin = binOfThisThread();
    // At least half of the requests are deleted then, unless a worker still uses them.
    if (bin.completions >= kMinBatchSize && bin.completions >= bin.requests.size() / 2)
        sweep(bin);
    return bin.requests.emplace_back(std::make_unique<InlineRequest>(lends)).get();
}

void RequestBins::completed()
{
    ++binOfThisThread().completions;
}

void RequestBins::sweep(Bin& bin)
{
    bin.completions = 0;
    size_t kept = 0;
    for (std::unique_ptr<InlineRequest>& request : bin.requests) {
        if (!request->isOver())
            std::swap(bin.requests[kept++], request);
    }
    bin.requests.resize(kept);
}

}  // namespace bench
