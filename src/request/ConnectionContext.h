// What the daemon keeps for a request from its request line to its completion.
#ifndef WENDREL_REQUEST_CONNECTIONCONTEXT_H
#define WENDREL_REQUEST_CONNECTIONCONTEXT_H

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
};

}  // namespace qv::impl

#endif
