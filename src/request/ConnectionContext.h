// What the daemon keeps for a request from its request line to its completion, and the book of
// all that it keeps.
//
// The daemon forgets the context of some requests that it drops half-parsed (thousands of query
// arguments or cookies in one head). A client that sent such heads on and on would take all memory:
// a forgotten context is freed when its connection, or another one at the same address, has its
// next request, and what is left when the daemon has stopped.
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

inline constexpr int kNoListener = -1;

struct ConnectionContext
{
    std::string uri;  // the raw target; moved into the request
    int64_t startTimeMs = kTimeNotSet;
    HttpBaseRequest* request = nullptr;  // the application's

    // Of the book, under its lock.
    int listener = kNoListener;
    const void* connection = nullptr;
    uint64_t number = 0;  // 0: not in the book
};

// A context of a request on `connection`, which came in through the socket `listener`. Any thread.
ConnectionContext* MakeContext(std::string uri, int listener, const void* connection);

// Deletes a context, whether it is in the book or not; null is nothing. Any thread.
void FreeContext(ConnectionContext* context);

// Number of the latest context; they are counted from 1 on. Any thread.
uint64_t GetLatestContextNumber();

// Frees what the daemon that listened on `listener`, and has stopped, has not given back of the
// contexts up to a number; returns how many. The number is taken before the stop: a daemon that
// starts meanwhile may listen on a socket of the same number.
size_t FreeContextsOf(int listener, uint64_t upToNumber);

}  // namespace qv::impl

#endif
