// Who deletes requests that the daemon's own threads answer.
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

// Keeps requests until they are over, a bin for each thread of the daemon.
//
// A connection stays on its thread: what creates a request and what completes it run there one
// after the other, so that a bin needs no lock. A request cannot be deleted inside its own
// completion; it is the creation of later ones that looks through the bin, each time that enough
// have been completed to pay for the look.
//
// One object in a process. Destroy it when the server has stopped and nobody serves a request any
// more: what is left is deleted then.
class RequestBins
{
public:
    // A new request. Thread: a daemon's.
    InlineRequest* create();

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
