// A head is parsed where it was received: each line end becomes two zeros, each colon one, and
// nothing is moved. So the distances between the texts show a line end of one byte, a NUL, which
// ends a text early, and a folded line, whose name the daemon moves away. A daemon of another
// version may do otherwise, hence the test at the start.

#include "server/StrictPositions.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

#include <qvSystem/SystemError.h>

namespace qv::impl
{
namespace
{

constexpr const char* kNotContiguous = "a folded line, a bare LF, a NUL or a space too many";

constexpr uintptr_t kEndOfLineBytes = 2;
constexpr uintptr_t kSeparatorBytes = 1;

uintptr_t addressOf(const char* text)
{
    return reinterpret_cast<uintptr_t>(text);
}

struct HeaderWalk
{
    StrictRequest& request;
    uintptr_t next;  // where the next header line must begin
    bool isContiguous;
};

MHD_Result takeHeader(void* closure, MHD_ValueKind, const char* name, size_t nameBytes,
                      const char* value, size_t valueBytes)
{
    auto& walk = *static_cast<HeaderWalk*>(closure);
    walk.isContiguous &=
        addressOf(name) == walk.next && addressOf(value) >= walk.next + nameBytes + kSeparatorBytes;
    walk.next = addressOf(value) + valueBytes + kEndOfLineBytes;
    walk.request.takeHeader({name, nameBytes}, {value, valueBytes});
    return MHD_YES;
}

}  // namespace

Refusal CheckHead(const DaemonHead& head)
{
    const std::string_view method(head.method);
    const std::string_view version(head.version);
    StrictRequest request(method, head.target, version == MHD_HTTP_VERSION_1_0);
    HeaderWalk walk{
        request, addressOf(head.version) + version.size() + kEndOfLineBytes,
        addressOf(head.url) == addressOf(head.method) + method.size() + kSeparatorBytes &&
            addressOf(head.version) == addressOf(head.url) + head.target.size() + kSeparatorBytes};
    MHD_get_connection_values_n(head.connection, MHD_HEADER_KIND, &takeHeader, &walk);
    const MHD_ConnectionInfo* const info =
        MHD_get_connection_info(head.connection, MHD_CONNECTION_INFO_REQUEST_HEADER_SIZE);
    const uintptr_t end = info ? addressOf(head.method) + info->header_size : 0;
    if (!walk.isContiguous || end != walk.next + kEndOfLineBytes)
        request.refuse(kNotContiguous);
    return request.finish();
}

namespace
{

constexpr size_t kProbeMemoryBytes = 4096;
constexpr int kStrictForClient = 1;
constexpr int kMaxSteps = 16;

struct Sample
{
    std::string_view head;
    bool isServed;
};

// Literals with NUL: the size is that of the array.
template <size_t Size> constexpr Sample sample(const char (&head)[Size], bool isServed = false)
{
    return {std::string_view(head, Size - 1), isServed};
}

constexpr Sample kSamples[] = {
    sample("GET / HTTP/1.1\r\nHost: h\r\n\r\n", true),
    sample("POST /a%20b?c=d&e HTTP/1.1\r\nHost:h\r\nA:\r\nB: \t c d \r\nContent-Length: 1\r\n\r\nx",
           true),
    sample("GET / HTTP/1.0\r\n\r\n", true),
    sample("GET / HTTP/1.1\r\nHost: h\r\nA: b\r\n c\r\n\r\n"),
    sample("GET / HTTP/1.1\r\nHost: h\r\nA: b\r\n c\r\nD: e\r\n\r\n"),
    sample("GET / HTTP/1.1\nHost: h\r\n\r\n"),
    sample("GET / HTTP/1.1\r\nHost: h\nA: b\r\n\r\n"),
    sample("GET / HTTP/1.1\r\nHost: h\n\r\n"),
    sample("GET / HTTP/1.1\r\nHost: h\r\n\n"),
    sample("GET /\0a HTTP/1.1\r\nHost: h\r\n\r\n"),
    sample("GET / HTTP/1.1\r\nHost: h\0i\r\n\r\n"),
    sample("GET / HTTP/1.1\r\nHost: h\r\nA: b\0c\r\nD: e\r\n\r\n"),
    sample("GET / HTTP/1.1\r\nHost: h\r\n\0a\r\nA: b\r\n\r\n"),
    sample("GET / HTTP/1.1\r\nHost: h\r\n: a\r\nA: b\r\n\r\n"),
};

struct Probe
{
    std::string target;
    bool isSeen = false;
    Refusal refusal;
};

void* takeTarget(void* closure, const char* uri, MHD_Connection*)
{
    static_cast<Probe*>(closure)->target = uri;
    return nullptr;
}

// Ends the connection: one head is enough.
MHD_Result takeHead(void* closure, MHD_Connection* connection, const char* url, const char* method,
                    const char* version, const char*, size_t*, void**)
{
    auto& probe = *static_cast<Probe*>(closure);
    probe.isSeen = true;
    probe.refusal = CheckHead({connection, url, method, version, probe.target});
    return MHD_NO;
}

// Without a thread: MHD_run serves.
MHD_Daemon* startProbe(Probe& probe)
{
    return MHD_start_daemon(MHD_USE_EPOLL | MHD_USE_NO_LISTEN_SOCKET, 0, nullptr, nullptr,
                            &takeHead, &probe, MHD_OPTION_URI_LOG_CALLBACK, &takeTarget,
                            static_cast<void*>(&probe), MHD_OPTION_CONNECTION_MEMORY_LIMIT,
                            kProbeMemoryBytes, MHD_OPTION_STRICT_FOR_CLIENT, kStrictForClient,
                            MHD_OPTION_END);
}

// False when the system has no socket pair.
bool sendHead(MHD_Daemon* daemon, std::string_view head)
{
    std::array<int, 2> pair{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair.data()) != 0)
        return false;
    const bool isSent =
        send(pair[0], head.data(), head.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(head.size());
    sockaddr address{};
    address.sa_family = AF_UNIX;
    const bool isAdded = MHD_add_connection(daemon, pair[1], &address, sizeof address) == MHD_YES;
    for (int step = 0; isAdded && step < kMaxSteps; ++step)
        MHD_run(daemon);
    close(pair[0]);
    return isSent && isAdded;
}

std::string testPositions()
{
    Probe probe;
    const std::unique_ptr<MHD_Daemon, void (*)(MHD_Daemon*)> daemon(startProbe(probe),
                                                                    &MHD_stop_daemon);
    for (const Sample& tried : kSamples) {
        probe = Probe();
        if (!daemon || !sendHead(daemon.get(), tried.head))
            return "cannot test the daemon for ServerOptions::strictRequests: " +
                   SystemError(errno).toString();
        const bool isServed = probe.refusal.status == 0;
        const bool isForPositions = std::strcmp(probe.refusal.reason, kNotContiguous) == 0;
        if (!probe.isSeen || isServed != tried.isServed || isForPositions == tried.isServed)
            return "ServerOptions::strictRequests is not possible with libmicrohttpd " +
                   std::string(MHD_get_version()) +
                   ": it does not show folded lines, bare LF and NUL; set it to false";
    }
    return std::string();
}

}  // namespace

std::string TestStrictPositions()
{
    static std::atomic<bool> hasPassed{false};
    if (hasPassed)
        return std::string();
    std::string failure = testPositions();
    hasPassed = failure.empty();
    return failure;
}

}  // namespace qv::impl
