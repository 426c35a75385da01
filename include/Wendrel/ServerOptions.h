/// Endpoints, deadlines and limits of a server in event-driven mode.
#ifndef WENDREL_SERVEROPTIONS_H
#define WENDREL_SERVEROPTIONS_H

#include <Wendrel/Export.h>
#include <Wendrel/TlsOptions.h>

#include <qvSystem/qvSystemUtils.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qv
{
namespace http
{

/// Options of `HttpServer::serve`; a plain value. The defaults are safe for a server that strangers
/// reach. `serve` refuses a value that is impossible and names the field.
struct WENDREL_EXPORT ServerOptions
{
    /// Endpoints, at least one:
    /// - `127.0.0.1:8181`, `[::1]:8181`, `localhost:8181`: an address, or all addresses of a name;
    /// - `*:8181`: every address of the machine, IPv4 and IPv6;
    /// - `unix:/path`, `unix:/path,mode=660`: a Unix socket with these mode bits (600 unless
    ///   given). The socket file of a server that is not running any more is replaced;
    /// - `fd:3`: an inherited listening socket, which stays open in this process after the stop;
    /// - `systemd`: every socket that the service manager has passed;
    /// - `systemd:web`: those of them that the service manager calls so (`FileDescriptorName=`).
    ///
    /// Port 0 is chosen by the system: `HttpServer::getEndpoints` tells it.
    std::vector<std::string> listen{"127.0.0.1:8181"};

    /// Threads that serve connections, 1 to 1024. A new connection goes to the one with the fewest.
    uint32_t threads = qvSystemUtils::GetIdealThreadCount();

    /// Memory of a connection in bytes, 4096 to 16777216. It bounds the request head: 431 or 414
    /// beyond it.
    size_t connectionMemoryBytes = 32768;

    /// Connections open at a time, 1 to 1000000. The limit of descriptors of the process is raised
    /// for them; when that is not allowed, this number is lowered with a line in the log. Beyond:
    /// 503 with `Retry-After`, and closed.
    uint32_t maxConnections = 10000;

    /// The same for one client address; 0: no limit. Not for Unix sockets.
    uint32_t maxConnectionsPerAddress = 0;

    /// From the acceptance, or the request line of a later request, to the end of the request head;
    /// then 408. 0: no limit, here and below. At most one day, here and below.
    std::chrono::milliseconds headTimeout{10000};

    /// Between two requests of a connection; then it is closed.
    std::chrono::milliseconds idleTimeout{60000};

    /// Without a byte of a body, while the server reads; then 408.
    std::chrono::milliseconds bodyTimeout{30000};

    /// Least average rate of a body after its first `bodyTimeout`, while the server reads; below
    /// it 408. 0: none.
    uint64_t minBodyBytesPerSecond = 240;

    /// Time in which the peer acknowledges no sent byte; then the connection is reset. TCP only.
    std::chrono::milliseconds sendTimeout{60000};

    /// From the complete request to the announced response; then 503, and both devices of the
    /// request are in error.
    std::chrono::milliseconds responseTimeout{0};

    /// Bytes of a body that have been received and not read. Beyond it the connection is not read
    /// until the worker has caught up. 0: no limit.
    uint64_t uploadQueueBytes = 262144;

    /// Whether a client may shut down its sending side after its request and wait for the response.
    /// Otherwise a request of a client that does is aborted, unless its response is ready.
    bool halfClosedClients = false;

    /// Proxies that tell the address of their client: addresses and networks ("127.0.0.1",
    /// "10.0.0.0/8", "fd00::/8"), and "unix" for the clients of Unix sockets. A PROXY header
    /// (version 1 or 2) at the beginning of a connection, otherwise `X-Forwarded-For` or
    /// `Forwarded` of each request decide `HttpBaseRequest::getClientAddress`. A connection of a
    /// trusted proxy does not count for `maxConnectionsPerAddress` unless it has a PROXY header:
    /// then it counts for the address in it. Everyone who can connect from such an address can
    /// choose the client address.
    std::vector<std::string> trustedProxies;

    /// Hosts that are served: "example.com", "example.com:8080", "*.example.com" (one label in
    /// place of the asterisk), "[::1]". The port of a request counts only for an entry that names
    /// one. Other requests, and those without a host, get 421 and never reach the application.
    /// Empty: every host.
    std::vector<std::string> allowedHosts;

    /// Whether requests that two servers could read differently are refused with 400 (501 for an
    /// unknown transfer coding) before the application sees them, and their connections closed:
    /// several or malformed `Content-Length`, `Content-Length` beside `Transfer-Encoding`, any
    /// `Transfer-Encoding` but `chunked`, several `Host`, a method or header name that is no token,
    /// control characters, a target in no valid form, folded lines, bare LF and NUL. `serve` fails
    /// with a daemon for which this is not possible.
    bool strictRequests = true;

    /// Bytes of all bodies of this server together that have been received and not read, and what a
    /// `MemoryAccount` has been charged for. Beyond it an upload is not read until its worker has
    /// read everything received, or until other requests have freed memory; one whose writer waits
    /// for the end of the upload is ended with 503. 0: no limit.
    uint64_t memoryBudgetBytes = 268435456;

    /// Endpoints that serve HTTPS; empty: none. Their connections are decrypted in this process.
    std::vector<TlsOptions> tls;

    /// Entries of `listen` whose requests are responded to with 308, to the same target over HTTPS
    /// at the host of the request; a request without a valid host gets 400.
    std::vector<std::string> redirectToHttps;

    /// Port of these redirections.
    uint16_t httpsPort = 443;
};

}  // namespace http
}  // namespace qv

#endif
