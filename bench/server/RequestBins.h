// Owns and deletes requests served by daemon threads.
#ifndef BENCH_SERVER_REQUESTBINS_H
#define BENCH_SERVER_REQUESTBINS_H

#include "server/InlineRequest.h"

#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

namespace bench
{

// Owns requests until they are completed, in one bin per daemon thread.
//
// A connection stays on its thread, which creates and completes its requests, so a bin needs no
// lock. A request cannot be deleted inside its own completion; the creation of later requests
// sweeps the bin when enough requests have been completed.
//
// One object per process. Destroy it when the server has stopped and no request is served any more:
// the remaining requests are deleted then.
class RequestBins
{
public:
    // A new request; see its constructor. Thread: a daemon's.
    InlineRequest* create(bool lends);

    // Call from `onRequestCompleted`, and only there.
    void completed();

private:
    struct Bin
    {
        std::vector<std::unique_ptr<InlineRequest>> requests;
        size_t completions = 0;  // since the last look
    };

    Bin& binOfThisThread();
    static void sweep(Bin& bin);

    std::mutex mMutex;
    std::list<Bin> mBins;  // under mMutex; each bin is its thread's
};

}  // namespace bench

#endif
