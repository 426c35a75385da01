/// The outcome of one request, for an access log or statistics.
#ifndef WENDREL_KIT_COMPLETEDREQUEST_H
#define WENDREL_KIT_COMPLETEDREQUEST_H

#include <qvSystem/IpAddress.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace qv::kit
{

/// A request that is over; see `ServerOptions::onCompleted`. A plain value.
struct CompletedRequest
{
    /// "GET"; "UNKNOWN_HTTP_METHOD" for any other method; empty when the head was not complete.
    std::string method;
    /// Path and query as received: "/a%20b?c=d".
    std::string target;
    /// "GET /files/{name}"; empty without a route.
    std::string route;
    /// As `Request::clientAddress`; of the peer when no handler could see the request.
    IpAddress clientAddress;
    /// The status of the response; 101 for an accepted WebSocket. 0: none was sent, or the daemon
    /// has refused the request by itself.
    uint32_t status = 0;
    /// Bytes of the response's body that the connection has taken; when the request was aborted
    /// fewer may have reached the client. Without framing; 0 for HEAD.
    uint64_t sentBytes = 0;
    /// Bytes of the request's body that have been read.
    uint64_t receivedBytes = 0;
    /// From the complete head to the end of the response; 0 when no handler could see the request.
    std::chrono::microseconds duration{0};
    /// Why the request ended before its response was sent: "ClientAbort", "WriteError",
    /// "ReadError", "TimeoutReached", "DaemonShutdown", "BodyDiscarded", "MemoryExhausted",
    /// "UpgradeRefused". Empty when the response was sent whole, unless that is the server's own
    /// 408 ("TimeoutReached") or 503 in place of the handler's.
    std::string abortReason;
    /// The identifier that `requestId` of `<Wendrel/kit/Middleware.h>` has given; empty without.
    std::string requestId;
    /// The user that has logged in by one of the authentications there, or by a hook or handler
    /// that calls `request.attach(AuthenticatedUser{name})`; empty without.
    std::string user;
    /// Headers of the request; empty without, and when no handler could see the request.
    std::string referer;
    /// As above.
    std::string userAgent;
};

}  // namespace qv::kit

#endif
