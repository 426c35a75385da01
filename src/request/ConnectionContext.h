// What the daemon keeps for a request from its request line to its completion, and the list of
// all that it keeps.
//
// The daemon forgets the context of some requests that it drops half-parsed (thousands of query
// arguments or cookies in one head): the list is there to free those when it has stopped.
#ifndef WENDREL_REQUEST_CONNECTIONCONTEXT_H
#define WENDREL_REQUEST_CONNECTIONCONTEXT_H

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

namespace qv
{
class HttpBaseRequest;
}

namespace qv::impl
{

// Any time of this library that has not been set.
inline constexpr int64_t kTimeNotSet = std::numeric_limits<int64_t>::min();

struct ConnectionContext
{
    std::string uri;  // the raw target; moved into the request
    int64_t startTimeMs = kTimeNotSet;
    HttpBaseRequest* request = nullptr;  // the application's

    // Of the list, under its lock.
    const void* daemon = nullptr;
    uint64_t number = 0;  // 0: not in the list
    ConnectionContext* older = nullptr;
    ConnectionContext* newer = nullptr;
};

// A context of a request of `daemon`, in the list. Any thread.
ConnectionContext* MakeContext(std::string uri, const void* daemon);

// Takes a context out of the list and deletes it; null is nothing. Any thread.
void FreeContext(ConnectionContext* context);

// Number of the latest context; they are counted from 1 on. Any thread.
uint64_t GetLatestContextNumber();

// Frees what `daemon`, which has stopped, has not given back of the contexts up to a number;
// returns how many. The number is taken before the stop: a daemon that starts meanwhile may be
// at the same address.
size_t FreeContextsOf(const void* daemon, uint64_t upToNumber);

}  // namespace qv::impl

#endif
