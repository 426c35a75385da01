// One request on the daemon's side: created at the first call, fed with its body, and responded to
// when the application is ready.

#include "server/Dispatch.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>

#include "request/ContextRegistry.h"
#include "request/DispatchAccess.h"
#include "server/Reply.h"
#include "server/ResponseQueue.h"
#include "server/UpgradeExchange.h"
#include "server/logging/LogObject.h"
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
    FillRequest(request, connection, method, clientAddress, context);
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

// The body is complete: queues the response if the application is ready, waits a little otherwise.
MHD_Result respond(http::HttpServer& server, MHD_Connection* connection, HttpBaseRequest& request)
{
    HttpResponseInterface& head = request.getResponse();
    HttpResponseDevice& device = request.getResponseDevice();
    Throttle& throttle = Throttle::OfThisThread();

    std::vector<char> body;
    // The read without the lock is a shortcut: a waiting request is polled often.
    Decision decision = Decision::Wait;
    if (DispatchAccess::responseState(device) != DispatchAccess::kNotReady) {
        const qvMutexLocker locker(&DispatchAccess::mutex(device));
        decision = Decide(device, request, body);
    }
    if (decision == Decision::Wait) {
        throttle.pause(&request, qvSystemUtils::GetTimeBaseMs());
        return MHD_YES;
    }
    throttle.reset();
    return QueueDecided(decision, server.getImpl(), connection, request, head, body,
                        {&ReadContent, nullptr});
}

}  // namespace

void FillRequest(HttpBaseRequest& request, MHD_Connection* connection, const char* method,
                 const IpAddress& clientAddress, ConnectionContext& context)
{
    DispatchAccess::connection(request) = connection;
    if (context.startTimeMs == kTimeNotSet)
        context.startTimeMs = qvSystemUtils::GetTimeBaseMs();
    DispatchAccess::clientAddress(request) = clientAddress;
    MHD_get_connection_values(connection, kIntakeKinds, &TakeValue, &request);
    request.setHttpMethod(method);
    request.setOriginalFullUrl(std::move(context.uri));
}

// Runs on every call without data, not only on the first: the final value of the duration is the
// time until the response was queued.
void EndBody(HttpBaseRequest& request, const ConnectionContext& context)
{
    HttpReceiveDevice& device = request.getReceiveDevice();
    qvMutexLocker locker(&DispatchAccess::mutex(device));
    DispatchAccess::receiveDurationMs(request) =
        context.startTimeMs == kTimeNotSet ? std::numeric_limits<int64_t>::max()
                                           : qvSystemUtils::GetTimeBaseMs() - context.startTimeMs;
    device.endFeed();
}

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
    EndBody(request, context);
    return respond(server, connection, request);
}

}  // namespace qv::impl
