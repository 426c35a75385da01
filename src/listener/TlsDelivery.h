// The completion of a request of a secure connection, after its last record.
#ifndef WENDREL_LISTENER_TLSDELIVERY_H
#define WENDREL_LISTENER_TLSDELIVERY_H

#include <cstdint>
#include <limits>
#include <memory>

namespace qv
{
class HttpBaseRequest;
}

namespace qv::impl
{

class Connection;

// A request whose response the daemon has sent to the hop.
struct TlsDelivery
{
    // Calls the application.
    using Complete = void (*)(const TlsDelivery& delivery, bool isSent);

    static constexpr uint64_t kNotMarked = std::numeric_limits<uint64_t>::max();

    Complete complete;
    void* closure;
    HttpBaseRequest* request;
    std::shared_ptr<Connection> connection;  // the request refers to it
    bool isAbortReported;
    uint64_t endBytes = kNotMarked;  // of those read from the daemon
};

enum class TlsDelivered : uint8_t {
    Later,  // the request will be completed on the relay's thread
    Sent,
    Lost  // the client has not got all of the response
};

}  // namespace qv::impl

#endif
