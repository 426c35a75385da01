// The daemon, started as the library starts it.

#include "bare/Daemon.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdarg>
#include <cstddef>

namespace bench
{
namespace
{

constexpr size_t kConnectionMemoryBytes = 262144;
constexpr size_t kSuspendedMemoryBytes = 32768;
constexpr unsigned int kListenBacklog = 1024;
constexpr unsigned int kTimeoutSeconds = 360;
constexpr int kStrictForClient = 1;

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Clients that break off are no news here.
void dropMessage(void*, const char*, va_list) {}

// The library has this callback; without it there is no context before the first call.
void* noContext(void*, const char*, MHD_Connection*)
{
    return nullptr;
}

}  // namespace

Daemon startDaemon(const Options& options, const Handlers& handlers)
{
    unsigned int flags = MHD_USE_ERROR_LOG | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO;
    if (options.webSocket)
        flags |= MHD_ALLOW_UPGRADE;
    if (options.suspend)
        flags |= MHD_ALLOW_SUSPEND_RESUME;
    const size_t memoryBytes = options.suspend ? kSuspendedMemoryBytes : kConnectionMemoryBytes;
    const sockaddr_in address = loopback(options.port);
    void* const noClosure = nullptr;
    MHD_Daemon* daemon = MHD_start_daemon(
        flags, options.port, nullptr, nullptr, handlers.handle, handlers.closure,
        MHD_OPTION_EXTERNAL_LOGGER, &dropMessage, noClosure, MHD_OPTION_URI_LOG_CALLBACK,
        &noContext, noClosure, MHD_OPTION_CONNECTION_MEMORY_LIMIT, memoryBytes,
        MHD_OPTION_LISTEN_BACKLOG_SIZE, kListenBacklog, MHD_OPTION_CONNECTION_TIMEOUT,
        kTimeoutSeconds, MHD_OPTION_SOCK_ADDR, reinterpret_cast<const sockaddr*>(&address),
        MHD_OPTION_THREAD_POOL_SIZE, options.threads, MHD_OPTION_NOTIFY_COMPLETED,
        handlers.completed, handlers.closure, MHD_OPTION_STRICT_FOR_CLIENT, kStrictForClient,
        MHD_OPTION_END);
    return Daemon(daemon, &MHD_stop_daemon);
}

}  // namespace bench
