// The MHD_ functions.

#include "Daemon.h"

#include "Boundary.h"

#include <algorithm>
#include <cstring>

#include <strings.h>

using qv::bench::InLibrary;
using qv::bench::Outside;

namespace
{

constexpr uint16_t kClientPort = 40000;
constexpr int kListener = 3;

MHD_Daemon gDaemon{};
MHD_Response gResponse{};

MHD_Response* newResponse()
{
    gResponse.bodyBytes = 0;
    gResponse.declaredBytes = 0;
    gResponse.reader = nullptr;
    gResponse.closure = nullptr;
    gResponse.headers = 0;
    return &gResponse;
}

}  // namespace

MHD_Connection::MHD_Connection(std::span<const HeadValue> head) : values(head)
{
    client.sin_family = AF_INET;
    client.sin_port = htons(kClientPort);
    client.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
}

extern "C" {

const char* MHD_get_version(void)
{
    return "0.0.0 (fake)";
}

MHD_Result MHD_is_feature_supported(MHD_FEATURE)
{
    return MHD_YES;
}

MHD_Daemon* MHD_start_daemon(unsigned int, uint16_t, MHD_AcceptPolicyCallback, void*,
                             MHD_AccessHandlerCallback, void*, ...)
{
    return nullptr;
}

void MHD_stop_daemon(MHD_Daemon*) {}

// Of event-driven mode, which no scenario uses.
MHD_Result MHD_add_connection(MHD_Daemon*, MHD_socket, const sockaddr*, socklen_t)
{
    return MHD_NO;
}

int MHD_get_connection_values_n(MHD_Connection*, MHD_ValueKind, MHD_KeyValueIteratorN, void*)
{
    return 0;
}

MHD_Result MHD_run(MHD_Daemon*)
{
    return MHD_NO;
}

void MHD_suspend_connection(MHD_Connection*) {}

void MHD_resume_connection(MHD_Connection*) {}

const char* MHD_lookup_connection_value(MHD_Connection* connection, MHD_ValueKind kind,
                                        const char* key)
{
    const char* found = nullptr;
    Outside([&] {
        for (const HeadValue& value : connection->values)
            if (!found && (value.kind & kind) != 0 && strcasecmp(value.name, key) == 0)
                found = value.value;
    });
    return found;
}

int MHD_get_connection_values(MHD_Connection* connection, MHD_ValueKind kind,
                              MHD_KeyValueIterator iterator, void* closure)
{
    int count = 0;
    Outside([&] {
        for (const HeadValue& value : connection->values) {
            if ((value.kind & kind) == 0)
                continue;
            ++count;
            InLibrary([&] { iterator(closure, value.kind, value.name, value.value); });
        }
    });
    return count;
}

const MHD_ConnectionInfo* MHD_get_connection_info(MHD_Connection* connection,
                                                  MHD_ConnectionInfoType type, ...)
{
    Outside([&] {
        if (type == MHD_CONNECTION_INFO_DAEMON)
            connection->info.daemon = &gDaemon;
        else
            connection->info.client_addr = reinterpret_cast<sockaddr*>(&connection->client);
    });
    return &connection->info;
}

const MHD_DaemonInfo* MHD_get_daemon_info(MHD_Daemon* daemon, MHD_DaemonInfoType, ...)
{
    Outside([&] { daemon->info.listen_fd = kListener; });
    return &daemon->info;
}

MHD_Response* MHD_create_response_from_buffer(size_t size, void* buffer, MHD_ResponseMemoryMode)
{
    MHD_Response* response = nullptr;
    Outside([&] {
        response = newResponse();
        response->bodyBytes = size;
        response->declaredBytes = size;
        std::memcpy(response->body.data(), buffer, std::min(size, response->body.size()));
    });
    return response;
}

MHD_Response* MHD_create_response_from_buffer_with_free_callback_cls(
    size_t size, void* buffer, MHD_ContentReaderFreeCallback release, void* closure)
{
    MHD_Response* const response =
        MHD_create_response_from_buffer(size, buffer, MHD_RESPMEM_PERSISTENT);
    release(closure);
    return response;
}

MHD_Result MHD_set_response_options(MHD_Response*, MHD_ResponseFlags, ...)
{
    return MHD_YES;
}

MHD_Response* MHD_create_response_from_callback(uint64_t size, size_t,
                                                MHD_ContentReaderCallback reader, void* closure,
                                                MHD_ContentReaderFreeCallback)
{
    MHD_Response* response = nullptr;
    Outside([&] {
        response = newResponse();
        response->declaredBytes = size;
        response->reader = reader;
        response->closure = closure;
    });
    return response;
}

MHD_Response* MHD_create_response_for_upgrade(MHD_UpgradeHandler, void*)
{
    return nullptr;
}

MHD_Result MHD_add_response_header(MHD_Response* response, const char*, const char*)
{
    Outside([&] { ++response->headers; });
    return MHD_YES;
}

MHD_Result MHD_queue_response(MHD_Connection* connection, unsigned int status,
                              MHD_Response* response)
{
    Outside([&] {
        connection->status = status;
        connection->response = response;
    });
    return MHD_YES;
}

void MHD_destroy_response(MHD_Response*) {}

MHD_Result MHD_upgrade_action(MHD_UpgradeResponseHandle*, MHD_UpgradeAction, ...)
{
    return MHD_YES;
}
}
