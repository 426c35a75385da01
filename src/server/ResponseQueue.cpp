// Responses of the application, queued for the daemon.

#include "server/ResponseQueue.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>

#include "request/DispatchAccess.h"
#include "server/Reply.h"
#include "streaming/ChunkPool.h"

#include <qvSystem/qvSystemUtils.h>

#include <memory>
#include <string>
#include <utility>

namespace qv::impl
{
namespace
{

// A completed body up to this size is sent from one buffer; anything else is streamed.
constexpr size_t kWholeBodyLimitBytes = 0x1fffffff;
constexpr size_t kStreamBlockBytes = 65536;
constexpr uint64_t kHeaderOverheadBytes = 3;
constexpr const char* kCookieHeader = "Set-cookie";

void emitHead(HttpBaseRequest& request, HttpResponseInterface& head, MHD_Response* response)
{
    for (const auto& [key, header] : head.getHeaders()) {
        const auto& [name, value] = header;
        MHD_add_response_header(response, name.c_str(), value.c_str());
        DispatchAccess::responseHeadBytes(request) +=
            name.size() + value.size() + kHeaderOverheadBytes;
    }
    // Cookies are few. NOLINTBEGIN(performance-inefficient-string-concatenation)
    for (const auto& [name, value] : head.getCookies())
        MHD_add_response_header(response, kCookieHeader, (name + "=" + value).c_str());
    // NOLINTEND(performance-inefficient-string-concatenation)
}

// Sends the head and the given body.
MHD_Result queueResponse(HttpBaseRequest& request, HttpResponseInterface& head,
                         MHD_Connection* connection, MHD_Response* response,
                         const SendOptions& options)
{
    if (!response)
        return MHD_NO;
    std::unique_ptr<MHD_Response, void (*)(MHD_Response*)> held(response, &MHD_destroy_response);
    DispatchAccess::responseStartMs(request) = qvSystemUtils::GetTimeBaseMs();
    emitHead(request, head, response);
    if (options.close)
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    const uint32_t status = head.getStatusCode();
    return QueueAndDestroy(connection, status, held.release());
}

MHD_Result queueWhole(HttpBaseRequest& request, HttpResponseInterface& head,
                      MHD_Connection* connection, std::vector<char>& body,
                      const SendOptions& options)
{
    const MHD_Result result = queueResponse(
        request, head, connection,
        MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY), options);
    ChunkPool::Instance().give(std::move(body));
    return result;
}

uint64_t streamLength(HttpResponseInterface& head, const HttpResponseDevice& device)
{
    const int64_t declared = head.getContentLength();
    if (declared >= 0)
        return static_cast<uint64_t>(declared);
    // In this order, without the lock: the device sets the flag after the size.
    return DispatchAccess::isCompleted(device) ? device.getDataSize() : MHD_SIZE_UNKNOWN;
}

MHD_Result queueStream(HttpBaseRequest& request, HttpResponseInterface& head,
                       MHD_Connection* connection, const SendOptions& options)
{
    return queueResponse(
        request, head, connection,
        MHD_create_response_from_callback(streamLength(head, request.getResponseDevice()),
                                          kStreamBlockBytes, options.reader, &request, nullptr),
        options);
}

}  // namespace

Decision Decide(HttpResponseDevice& device, HttpBaseRequest& request, std::vector<char>& body)
{
    auto& state = DispatchAccess::responseState(device);
    if (state == DispatchAccess::kNotReady)
        return Decision::Wait;
    if (state != DispatchAccess::kReady)
        return Decision::Queued;
    DispatchAccess::bodyPending(request) = false;
    if (device.hasDeviceError())
        return Decision::Error;
    if (DispatchAccess::isCompleted(device) && device.getDataSize() <= kWholeBodyLimitBytes) {
        device.getData(body);
        state = DispatchAccess::kSentWhole;
        return Decision::Whole;
    }
    state = DispatchAccess::kStreamed;
    return Decision::Stream;
}

MHD_Result QueueDecided(Decision decision, const http::HttpServerImpl& application,
                        MHD_Connection* connection, HttpBaseRequest& request,
                        HttpResponseInterface& head, std::vector<char>& body,
                        const SendOptions& options)
{
    switch (decision) {
    case Decision::Error:
        return QueueErrorBody(application, connection);
    case Decision::Whole:
        return queueWhole(request, head, connection, body, options);
    case Decision::Stream:
        return queueStream(request, head, connection, options);
    default:
        return MHD_YES;
    }
}

}  // namespace qv::impl
