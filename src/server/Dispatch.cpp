// One request on the daemon's side: created at the first call, fed with its body, and responded to
// when the application is ready.

#include "server/Dispatch.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>

#include "request/ContextRegistry.h"
#include "request/DispatchAccess.h"
#include "server/Reply.h"
#include "server/UpgradeExchange.h"
#include "server/logging/LogObject.h"
#include "streaming/ChunkPool.h"
#include "streaming/StreamCallbacks.h"
#include "streaming/Throttle.h"

#include <qvSystem/qvSystemUtils.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace qv::impl
{
namespace
{

// A completed body up to this size is sent from one buffer; anything else is streamed.
constexpr size_t kWholeBodyLimitBytes = 0x1fffffff;
constexpr size_t kStreamBlockBytes = 65536;
constexpr uint64_t kHeaderOverheadBytes = 3;
constexpr const char* kCookieHeader = "Set-cookie";

// Every kind of value that the intake knows, in one walk.
constexpr auto kIntakeKinds =
    static_cast<MHD_ValueKind>(MHD_HEADER_KIND | MHD_COOKIE_KIND | MHD_GET_ARGUMENT_KIND);

IpAddress clientAddressOf(MHD_Connection* connection)
{
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    return info && info->client_addr ? IpAddress::fromIP(info->client_addr) : IpAddress();
}

// The first call: the head is complete, the body has not been read.
MHD_Result beginRequest(http::HttpServer& server, MHD_Connection* connection, const char* method,
                        const char* version, ConnectionContext& context)
{
    Throttle::OfThisThread().reset();
    if (server.isStopRequested()) {
        qvLogObject(qvLogObject::kWarning) << "Discarding http request, server is shutting down";
        return MHD_NO;
    }
    const char* upgrade = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Upgrade");
    const char* tokens = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Connection");
    const IpAddress clientAddress = clientAddressOf(connection);
    if (IsUpgradeRequest(upgrade, tokens))
        return RespondToUpgrade(server, connection, method, version);
    context.request = server.getImpl().createRequest();
    HttpBaseRequest& request = *context.request;
    DispatchAccess::connection(request) = connection;
    if (context.startTimeMs == kTimeNotSet)
        context.startTimeMs = qvSystemUtils::GetTimeBaseMs();
    DispatchAccess::clientAddress(request) = clientAddress;
    MHD_get_connection_values(connection, kIntakeKinds, &TakeValue, &request);
    request.setHttpMethod(method);
    request.setOriginalFullUrl(std::move(context.uri));
    server.getImpl().handleRequest(&request);
    return MHD_YES;
}

MHD_Result feedBody(HttpBaseRequest& request, const char* data, size_t* size)
{
    if (!DispatchAccess::isCompleted(request.getResponseDevice())) {
        HttpReceiveDevice& device = request.getReceiveDevice();
        qvMutexLocker locker(&DispatchAccess::mutex(device));
        device.writeBytes(data, *size);
    }
    Throttle::OfThisThread().reset();
    *size = 0;
    return MHD_YES;
}

// Runs on every call without data, not only on the first: the final value of the duration is the
// time until the response was queued.
void endBody(HttpBaseRequest& request, const ConnectionContext& context)
{
    HttpReceiveDevice& device = request.getReceiveDevice();
    qvMutexLocker locker(&DispatchAccess::mutex(device));
    DispatchAccess::receiveDurationMs(request) =
        context.startTimeMs == kTimeNotSet ? std::numeric_limits<int64_t>::max()
                                           : qvSystemUtils::GetTimeBaseMs() - context.startTimeMs;
    device.endFeed();
}

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
                         MHD_Connection* connection, MHD_Response* response)
{
    if (!response)
        return MHD_NO;
    std::unique_ptr<MHD_Response, void (*)(MHD_Response*)> held(response, &MHD_destroy_response);
    DispatchAccess::responseStartMs(request) = qvSystemUtils::GetTimeBaseMs();
    emitHead(request, head, response);
    const uint32_t status = head.getStatusCode();
    return QueueAndDestroy(connection, status, held.release());
}

MHD_Result queueWhole(HttpBaseRequest& request, HttpResponseInterface& head,
                      MHD_Connection* connection, std::vector<char>& body)
{
    const MHD_Result result = queueResponse(
        request, head, connection,
        MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY));
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
                       MHD_Connection* connection)
{
    return queueResponse(
        request, head, connection,
        MHD_create_response_from_callback(streamLength(head, request.getResponseDevice()),
                                          kStreamBlockBytes, &ReadContent, &request, nullptr));
}

// The decision taken on the locked read of the response state.
enum class Decision { Wait, Queued, Error, Whole, Stream };

Decision decide(HttpResponseDevice& device, HttpBaseRequest& request, std::vector<char>& body)
{
    qvMutexLocker locker(&DispatchAccess::mutex(device));
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

// The body is complete: queues the response if the application is ready, waits a little otherwise.
MHD_Result respond(http::HttpServer& server, MHD_Connection* connection, HttpBaseRequest& request)
{
    HttpResponseInterface& head = request.getResponse();
    HttpResponseDevice& device = request.getResponseDevice();
    Throttle& throttle = Throttle::OfThisThread();

    std::vector<char> body;
    // The read without the lock is a shortcut: a waiting request is polled often.
    const Decision decision = DispatchAccess::responseState(device) == DispatchAccess::kNotReady
                                  ? Decision::Wait
                                  : decide(device, request, body);
    if (decision == Decision::Wait) {
        throttle.pause(&request, qvSystemUtils::GetTimeBaseMs());
        return MHD_YES;
    }
    throttle.reset();
    switch (decision) {
    case Decision::Error:
        return QueueErrorBody(server.getImpl(), connection);
    case Decision::Whole:
        return queueWhole(request, head, connection, body);
    case Decision::Stream:
        return queueStream(request, head, connection);
    default:
        return MHD_YES;
    }
}

}  // namespace

void* OpenContext(void*, const char* uri, MHD_Connection* connection)
{
    return ContextRegistry::Add(uri ? uri : "", connection);
}

MHD_Result TakeValue(void* closure, MHD_ValueKind kind, const char* name, const char* value)
{
    auto& request = *static_cast<HttpBaseRequest*>(closure);
    switch (kind) {
    case MHD_HEADER_KIND:
        request.addHeader(name, value);
        break;
    case MHD_COOKIE_KIND:
        request.addCookie(name, value);
        break;
    case MHD_GET_ARGUMENT_KIND:
        request.addQueryParameter(name, value);
        break;
    default:
        break;
    }
    return MHD_YES;
}

MHD_Result HandleAccess(void* closure, MHD_Connection* connection, const char*, const char* method,
                        const char* version, const char* uploadData, size_t* uploadSize,
                        void** slot)
{
    auto& server = *static_cast<http::HttpServer*>(closure);
    auto& context = *static_cast<ConnectionContext*>(*slot);
    if (!context.request)
        return beginRequest(server, connection, method, version, context);
    HttpBaseRequest& request = *context.request;
    if (*uploadSize != 0)
        return feedBody(request, uploadData, uploadSize);
    endBody(request, context);
    return respond(server, connection, request);
}

}  // namespace qv::impl
