// Makes and deletes requests.

#include "server/RequestBins.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace bench
{

RequestBins::~RequestBins()
{
    for (RequestBin& bin : mBins) {
        while (InlineRequest* const request = bin.take())
            delete request;
        for (InlineRequest* const request : bin.inUse)
            delete request;
    }
}

InlineRequest* RequestBins::create(bool lends)
{
    thread_local RequestBin* bin = nullptr;
    if (!bin) {
        const std::lock_guard locker(mMutex);
        bin = &mBins.emplace_back();
    }
    deleteOver(*bin);
    return std::make_unique<InlineRequest>(*bin, lends).release();
}

// A worker may still use a request that is completed.
void RequestBins::deleteOver(RequestBin& bin)
{
    while (InlineRequest* const request = bin.take())
        bin.inUse.push_back(request);
    std::erase_if(bin.inUse, [](InlineRequest* request) {
        if (!request->isOver())
            return false;
        delete request;
        return true;
    });
}

}  // namespace bench
