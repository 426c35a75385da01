// The daemon without the library, with the same flags and options. Reports the requests it accepts.
// Prints its port, then a line for each event.

#include "Report.h"

#include <microhttpd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/prctl.h>

#include <algorithm>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <string>

namespace
{

constexpr size_t kConnectionMemoryBytes = 262144;
constexpr unsigned int kListenBacklog = 1024;
constexpr unsigned int kTimeoutSeconds = 60;
constexpr unsigned int kThreads = 4;
constexpr int kStrictForClient = 1;
constexpr size_t kStreamBlockBytes = 65536;

struct Request
{
    std::string target;
    uint64_t bodyBytes = 0;
    bool begun = false;
};

void* openRequest(void*, const char* target, MHD_Connection*)
{
    auto request = std::make_unique<Request>();
    request->target = target;
    return request.release();
}

void closeRequest(void*, MHD_Connection*, void** slot, MHD_RequestTerminationCode)
{
    const std::unique_ptr<Request> request(static_cast<Request*>(*slot));
    *slot = nullptr;
}

void logMessage(void*, const char* format, va_list arguments)
{
    std::vfprintf(stderr, format, arguments);
}

uint16_t clientPort(MHD_Connection* connection)
{
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    sockaddr_in address{};
    std::memcpy(&address, info->client_addr, sizeof address);
    return ntohs(address.sin_port);
}

MHD_Result collectForwarded(void* closure, MHD_ValueKind, const char* name, const char* value)
{
    auto& collected = *static_cast<std::string*>(closure);
    if (::strcasecmp(name, framing::kForwardedHeader) == 0)
        collected += (collected.empty() ? "" : ",") + std::string(value);
    return MHD_YES;
}

ssize_t endOfBody(void*, uint64_t, char*, size_t)
{
    return MHD_CONTENT_READER_END_OF_STREAM;
}

MHD_Result respond(MHD_Connection* connection, const std::string& target)
{
    const bool isNotModified = target.ends_with(framing::kNotModifiedTarget);
    MHD_Response* response = nullptr;
    if (isNotModified || target.ends_with(framing::kUndeclaredTarget)) {
        response = MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kStreamBlockBytes,
                                                     &endOfBody, nullptr, nullptr);
    } else {
        char body[] = "seen\n";
        response = MHD_create_response_from_buffer(sizeof body - 1, body, MHD_RESPMEM_MUST_COPY);
    }
    if (!response)
        return MHD_NO;
    MHD_add_response_header(response, framing::kOwnHeader, "1");
    const MHD_Result queued = MHD_queue_response(
        connection, isNotModified ? MHD_HTTP_NOT_MODIFIED : MHD_HTTP_OK, response);
    MHD_destroy_response(response);
    return queued;
}

MHD_Result handleAccess(void*, MHD_Connection* connection, const char*, const char* method,
                        const char*, const char*, size_t* size, void** slot)
{
    auto& request = *static_cast<Request*>(*slot);
    if (!request.begun) {
        request.begun = true;
        std::string forwardedFor;
        MHD_get_connection_values(connection, MHD_HEADER_KIND, &collectForwarded, &forwardedFor);
        framing::reportHead(clientPort(connection), method, request.target, forwardedFor);
        return MHD_YES;
    }
    if (*size != 0) {
        request.bodyBytes += *size;
        *size = 0;
        return MHD_YES;
    }
    framing::reportWhole(clientPort(connection), request.bodyBytes);
    return respond(connection, request.target);
}

MHD_Daemon* start()
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    void* const noClosure = nullptr;
    return MHD_start_daemon(
        MHD_USE_ERROR_LOG | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO | MHD_ALLOW_UPGRADE, 0,
        nullptr, nullptr, &handleAccess, noClosure, MHD_OPTION_EXTERNAL_LOGGER, &logMessage,
        noClosure, MHD_OPTION_URI_LOG_CALLBACK, &openRequest, noClosure,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemoryBytes, MHD_OPTION_LISTEN_BACKLOG_SIZE,
        kListenBacklog, MHD_OPTION_CONNECTION_TIMEOUT, kTimeoutSeconds, MHD_OPTION_SOCK_ADDR,
        reinterpret_cast<const sockaddr*>(&address), MHD_OPTION_THREAD_POOL_SIZE, kThreads,
        MHD_OPTION_NOTIFY_COMPLETED, &closeRequest, noClosure, MHD_OPTION_STRICT_FOR_CLIENT,
        kStrictForClient, MHD_OPTION_END);
}

}  // namespace

int main()
{
    // Before any thread, so that all of them leave the signals to sigwait.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    // A test that is cut off leaves no server behind.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);

    MHD_Daemon* daemon = start();
    const MHD_DaemonInfo* info =
        daemon ? MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_BIND_PORT) : nullptr;
    if (!info) {
        std::fprintf(stderr, "The daemon did not start.\n");
        return 1;
    }
    std::printf("port %u\n", static_cast<unsigned>(info->port));
    std::fflush(stdout);
    int number = 0;
    sigwait(&stopSignals, &number);
    MHD_stop_daemon(daemon);
    return 0;
}
