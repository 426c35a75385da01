// Makes and deletes requests.
#ifndef BENCH_SERVER_REQUESTBINS_H
#define BENCH_SERVER_REQUESTBINS_H

#include "server/InlineRequest.h"

#include <list>
#include <mutex>

namespace bench
{

// A request cannot be deleted inside its own completion: the next one of the daemon thread that has
// made it deletes it.
//
// One object per process. Destroy it when the server has stopped and no request is served any more:
// the remaining requests are deleted then.
class RequestBins
{
public:
    ~RequestBins();

    // A new request; see its constructor. Thread: a daemon's.
    InlineRequest* create(bool lends);

private:
    static void deleteOver(RequestBin& bin);

    std::mutex mMutex;
    std::list<RequestBin> mBins;  // under mMutex; one for each daemon thread
};

}  // namespace bench

#endif
