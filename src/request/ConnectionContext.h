// The record that the daemon keeps for a request, from its request line to its completion.
#ifndef WENDREL_REQUEST_CONNECTIONCONTEXT_H
#define WENDREL_REQUEST_CONNECTIONCONTEXT_H

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>

namespace qv
{
class HttpBaseRequest;
}

namespace qv::impl
{

class ContextRegistry;

// Any time of this library that has not been set.
inline constexpr int64_t kTimeNotSet = std::numeric_limits<int64_t>::min();

// Made and deleted by the registry.
struct ConnectionContext
{
    std::string uri;  // the raw target; moved into the request
    int64_t startTimeMs = kTimeNotSet;
    HttpBaseRequest* request = nullptr;  // owned by the application

private:
    friend class ContextRegistry;

    enum class State : uint8_t {
        Registered,
        Released,  // by another thread: the registry deletes it
        Orphaned   // the registry is deleted: the release deletes the context
    };

    ContextRegistry* mRegistry = nullptr;
    const void* mConnection = nullptr;
    ConnectionContext* mNext = nullptr;
    std::atomic<State> mState{State::Registered};
};

}  // namespace qv::impl

#endif
