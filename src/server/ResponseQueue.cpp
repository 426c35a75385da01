// Responses of the application, queued for the daemon.

#include "server/ResponseQueue.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>

#include "request/DispatchAccess.h"
#include "server/Reply.h"
#include "streaming/ChunkPool.h"

#include <qvSystem/qvSystemUtils.h>

#include <strings.h>

#include <algorithm>
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
constexpr const char* kStrictTransportHeader = "Strict-Transport-Security";

MHD_Result emitHeader(HttpBaseRequest& request, MHD_Response* response, const std::string& name,
                      const std::string& value)
{
    const MHD_Result result = MHD_add_response_header(response, name.c_str(), value.c_str());
    DispatchAccess::responseHeadBytes(request) += name.size() + value.size() + kHeaderOverheadBytes;
    return result;
}

void emitCookies(HttpResponseInterface& head, MHD_Response* response)
{
    // Cookies are few. NOLINTBEGIN(performance-inefficient-string-concatenation)
    for (const auto& [name, value] : head.getCookies())
        MHD_add_response_header(response, kCookieHeader, (name + "=" + value).c_str());
    // NOLINTEND(performance-inefficient-string-concatenation)
}

void emitHead(HttpBaseRequest& request, HttpResponseInterface& head, MHD_Response* response)
{
    for (const auto& [key, header] : head.getHeaders())
        emitHeader(request, response, header.first, header.second);
    emitCookies(head, response);
}

bool hasStrictTransport(HttpResponseInterface& head)
{
    const auto& headers = head.getHeaders();
    return std::any_of(headers.begin(), headers.end(), [](const auto& entry) {
        return strcasecmp(entry.second.first.c_str(), kStrictTransportHeader) == 0;
    });
}

void emitExtra(const ExtraHeaders& extra, HttpResponseInterface& head, MHD_Response* response)
{
    if (extra.close)
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    if (extra.strictTransport && !hasStrictTransport(head))
        MHD_add_response_header(response, kStrictTransportHeader, extra.strictTransport);
}

// The daemon adds "Connection: Upgrade"; there is no body.
bool isSetByUpgrade(const std::string& name)
{
    return strcasecmp(name.c_str(), MHD_HTTP_HEADER_CONNECTION) == 0 ||
           strcasecmp(name.c_str(), MHD_HTTP_HEADER_CONTENT_LENGTH) == 0 ||
           strcasecmp(name.c_str(), MHD_HTTP_HEADER_TRANSFER_ENCODING) == 0;
}

MHD_Result queueWhole(HttpBaseRequest& request, HttpResponseInterface& head,
                      MHD_Connection* connection, std::vector<char>& body,
                      const SendOptions& options)
{
    const MHD_Result result = QueueResponse(
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
    return QueueResponse(
        request, head, connection,
        MHD_create_response_from_callback(streamLength(head, request.getResponseDevice()),
                                          kStreamBlockBytes, options.reader, &request, nullptr),
        options);
}

}  // namespace

MHD_Result QueueResponse(HttpBaseRequest& request, HttpResponseInterface& head,
                         MHD_Connection* connection, MHD_Response* response,
                         const SendOptions& options)
{
    if (!response)
        return MHD_NO;
    std::unique_ptr<MHD_Response, void (*)(MHD_Response*)> held(response, &MHD_destroy_response);
    DispatchAccess::responseStartMs(request) = qvSystemUtils::GetTimeBaseMs();
    emitHead(request, head, response);
    if (options.extra)
        emitExtra(*options.extra, head, response);
    const uint32_t status = head.getStatusCode();
    return QueueAndDestroy(connection, status, held.release());
}

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

bool QueueUpgradeHead(HttpBaseRequest& request, HttpResponseInterface& head,
                      MHD_Connection* connection, MHD_Response* response)
{
    if (!response)
        return false;
    std::unique_ptr<MHD_Response, void (*)(MHD_Response*)> held(response, &MHD_destroy_response);
    bool isNamed = false;
    for (const auto& [key, header] : head.getHeaders()) {
        if (isSetByUpgrade(header.first))
            continue;
        const MHD_Result added = emitHeader(request, response, header.first, header.second);
        if (strcasecmp(header.first.c_str(), MHD_HTTP_HEADER_UPGRADE) == 0)
            isNamed = isNamed || added == MHD_YES;
    }
    emitCookies(head, response);
    DispatchAccess::responseStartMs(request) = qvSystemUtils::GetTimeBaseMs();
    return isNamed &&
           QueueAndDestroy(connection, MHD_HTTP_SWITCHING_PROTOCOLS, held.release()) == MHD_YES;
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
