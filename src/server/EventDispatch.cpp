// One request of event-driven mode: created at the first call, fed with its body under
// back-pressure, suspended until the application announces its response.

#include "server/EventDispatch.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>

#include "listener/Connection.h"
#include "listener/TlsHop.h"
#include "request/ContextRegistry.h"
#include "request/DispatchAccess.h"
#include "server/Admission.h"
#include "server/Dispatch.h"
#include "server/EventDaemon.h"
#include "server/EventStream.h"
#include "server/EventUpgrade.h"
#include "server/ForgottenHead.h"
#include "server/Reply.h"
#include "server/ResponseQueue.h"
#include "server/StrictPositions.h"
#include "server/TargetForm.h"
#include "server/logging/DaemonLog.h"
#include "server/logging/LogObject.h"
#include "streaming/AbortReason.h"
#include "streaming/DaemonThread.h"
#include "streaming/StreamCallbacks.h"

#include <qvSystem/qvSystemUtils.h>

#include <sys/socket.h>

#include <charconv>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qv::impl
{
namespace
{

using Phase = Connection::Phase;

constexpr const char* kRetryAfterSeconds = "1";

MHD_Result respondEmpty(MHD_Connection* connection, unsigned status, const char* retryAfter)
{
    MHD_Response* const response =
        MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
    if (response && retryAfter)
        MHD_add_response_header(response, MHD_HTTP_HEADER_RETRY_AFTER, retryAfter);
    return QueueAndDestroy(connection, status, response);
}

// Bytes of the body that the head declares; 0 without a body.
uint64_t declaredBytes(MHD_Connection* connection)
{
    if (MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_TRANSFER_ENCODING))
        return Connection::kUnknownLength;
    const char* const length =
        MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
    uint64_t bytes = 0;
    if (length)
        std::from_chars(length, length + std::strlen(length), bytes);
    return bytes;
}

// The daemon takes the bytes behind such a head for a body, and asks for the response then, which
// it refuses. It asks again behind that.
bool isAskedTooEarly(MHD_Connection* connection, const Connection::Progress& progress)
{
    return progress.declaredBytes == 0 && !progress.isHttp10 &&
           MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_EXPECT);
}

bool mustClose(const EventDaemon& daemon, const Connection& record)
{
    return daemon.getListener().isDraining() || record.isPeerClosed;
}

// The daemon closes the connection.
MHD_Result endConnection()
{
    ExpectAbort(true);
    return MHD_NO;
}

ExtraHeaders extraHeaders(const EventDaemon& daemon, const Connection& record)
{
    ExtraHeaders extra;
    extra.close = mustClose(daemon, record);
    if (record.hop) {
        const std::string& value = daemon.getSettings().strictTransport[record.tlsIndex];
        extra.strictTransport = value.empty() ? nullptr : value.c_str();
    }
    return extra;
}

MHD_Result endAborted(HttpBaseRequest& request, Connection& record)
{
    ReportAbort(request, record, record.getAbortReason());
    return endConnection();
}

// Nobody waits for the devices any more.
void abortDevices(HttpBaseRequest& request, const std::string& reason)
{
    std::atomic<bool> aborted{false};
    DispatchAccess::abort(request.getResponseDevice(), reason, false, aborted);
    DispatchAccess::abort(request.getReceiveDevice(), reason);
}

// The application may still work for the request; its response is discarded.
void discardResponse(HttpBaseRequest& request, Connection& record, const char* reason)
{
    abortDevices(request, reason);
    record.setPhase(Phase::Responding, kNoDeadline);
    ReportAbort(request, record, reason);
}

MHD_Result respondLate(HttpBaseRequest& request, Connection& record, MHD_Connection* connection)
{
    discardResponse(request, record, kTimeoutReached);
    record.queuedStatus = MHD_HTTP_SERVICE_UNAVAILABLE;
    return respondEmpty(connection, MHD_HTTP_SERVICE_UNAVAILABLE, kRetryAfterSeconds);
}

MHD_Result upgrade(EventDaemon& daemon, MHD_Connection* connection, HttpBaseRequest& request,
                   Connection& record)
{
    const unsigned status = QueueUpgrade(daemon, connection, request, record);
    record.queuedStatus = status == 0 ? MHD_HTTP_SWITCHING_PROTOCOLS : status;
    if (status == 0)
        return MHD_YES;
    discardResponse(request, record, kUpgradeRefused);
    return status == MHD_HTTP_INTERNAL_SERVER_ERROR
               ? QueueErrorBody(daemon.getServer().getImpl(), connection)
               : respondEmpty(connection, status, nullptr);
}

MHD_Result queueDecided(Decision decision, EventDaemon& daemon, MHD_Connection* connection,
                        HttpBaseRequest& request, Connection& record, std::vector<char>& body)
{
    record.setPhase(Phase::Responding, kNoDeadline);
    // The listener has responded, or is about to.
    if (record.phase == Phase::Ended) {
        record.abortRequest(kTimeoutReached, false);
        return endAborted(request, record);
    }
    HttpResponseInterface& head = request.getResponse();
    const bool hasBody =
        decision == Decision::Whole || decision == Decision::Stream || decision == Decision::Source;
    if (hasBody && head.getStatusCode() == MHD_HTTP_SWITCHING_PROTOCOLS) {
        DispatchAccess::endSource(request.getResponseDevice());
        return upgrade(daemon, connection, request, record);
    }
    record.queuedStatus =
        decision == Decision::Error ? MHD_HTTP_INTERNAL_SERVER_ERROR : head.getStatusCode();
    const ExtraHeaders extra = extraHeaders(daemon, record);
    if (decision == Decision::Source)
        return QueueSource(request, record, connection, extra);
    if (decision == Decision::Stream) {
        if (IsWithoutBody(request, head.getStatusCode()))
            return QueueHeadOnly(request, connection, extra);
        record.progress.isLengthKnown = head.getContentLength() >= 0;
        record.progress.isChunked = !record.progress.isHttp10 && !record.progress.isLengthKnown;
    }
    return QueueDecided(decision, daemon.getServer().getImpl(), connection, request, head, body,
                        {&ReadEventContent, &extra});
}

// A response that is complete before the body of its request has been received is sent in place of
// "100 Continue"; the daemon closes the connection after it. The writer of one that is only ready
// may still read the body.
MHD_Result respondEarly(EventDaemon& daemon, MHD_Connection* connection, HttpBaseRequest& request,
                        Connection& record)
{
    HttpResponseDevice& device = request.getResponseDevice();
    std::vector<char> body;
    Decision decision = Decision::Wait;
    {
        const qvMutexLocker locker(&DispatchAccess::mutex(device));
        if (!record.isAborted && DispatchAccess::isCompleted(device))
            decision = DecideEvent(device, request, body);
    }
    if (decision == Decision::Wait)
        return MHD_YES;
    record.isBodyUnread = true;
    return queueDecided(decision, daemon, connection, request, record, body);
}

// The application sees every target in origin form.
void fill(HttpBaseRequest& request, MHD_Connection* connection, const char* method,
          const IpAddress& address, ConnectionContext& context)
{
    TargetParts parts;
    if (!SplitTarget(method, context.uri, parts)) {
        FillRequest(request, connection, method, address, context);
        return;
    }
    const std::string received = context.uri;
    SplitTarget(method, received, parts);
    context.uri = parts.origin;
    if (context.uri.empty() || context.uri.front() != '/')
        context.uri.insert(0, 1, '/');
    FillRequest(request, connection, method, address, context);
    SetReceivedTarget(request, received, parts);
}

IpAddress clientAddressOf(const EventDaemon::Settings& settings, MHD_Connection* connection,
                          const Connection& record)
{
    const Peer& peer = record.getPeer();
    return peer.isTrustedProxy
               ? FindClientAddress(settings.trustedProxies, connection, peer.address)
               : peer.address;
}

// The application does not see the request. The daemon closes the connection after a response to
// the first call.
void beginRefusal(Connection& record, const char* method, unsigned status)
{
    record.setPhase(Phase::Responding, kNoDeadline);
    record.isBodyUnread = true;
    record.queuedStatus = status;
    record.refusedMethod = method;
}

MHD_Result refuseHead(const Refusal& refusal, const DaemonHead& head, Connection& record)
{
    beginRefusal(record, head.method, refusal.status);
    qvLogObject(qvLogObject::kInformation)
        << "Refused a request of " << record.getPeer().address.toString() << " with "
        << refusal.status << ": " << refusal.reason;
    return respondEmpty(head.connection, refusal.status, nullptr);
}

// The first call: the head is complete, the body has not been read.
MHD_Result beginRequest(EventDaemon& daemon, MHD_Connection* connection, const char* method,
                        const char* version, Connection& record, ConnectionContext& context)
{
    const EventDaemon::Settings& settings = daemon.getSettings();
    if (!IsHostAllowed(settings.allowedHosts, connection, context.uri)) {
        beginRefusal(record, method, MHD_HTTP_MISDIRECTED_REQUEST);
        return RefuseHost(connection);
    }
    if (record.redirectsToHttps) {
        beginRefusal(record, method, 0);
        return RedirectToHttps(settings.httpsPort, connection, context.uri, record.queuedStatus);
    }
    const uint64_t declared = declaredBytes(connection);
    http::HttpServerImpl& application = daemon.getServer().getImpl();
    HttpBaseRequest& request = *application.createRequest();
    context.request = &request;
    record.openTarget = nullptr;
    fill(request, connection, method, clientAddressOf(settings, connection, record), context);
    DispatchAccess::record(request) = &record;
    if (record.hop)
        DispatchAccess::tls(request) = record.hop->getInfo();
    {
        HttpReceiveDevice& device = request.getReceiveDevice();
        const qvMutexLocker locker(&DispatchAccess::mutex(device));
        DispatchAccess::queueLimitBytes(device) = settings.uploadQueueBytes;
        if (declared != 0)
            DispatchAccess::budget(device) = settings.memoryBudget;
    }
    const bool isOpen =
        record.beginRequest(request, connection, declared != 0 ? Phase::Body : Phase::Working);
    record.progress.declaredBytes = declared;
    record.progress.isHttp10 = std::strcmp(version, MHD_HTTP_VERSION_1_0) == 0;
    record.progress.skipsFinalCall = isAskedTooEarly(connection, record.progress);
    // After the request is known to the listener: it aborts all that it finds.
    if (!isOpen || daemon.getListener().isStopping())
        record.abortRequest(kDaemonShutdown, false);
    // The reset is reported once, possibly before the bytes that have come before it are read.
    if (record.isShutDown)
        record.abortRequest(kWriteError, false);
    if (declared != 0) {
        const qvMutexLocker locker(&DispatchAccess::mutex(request.getReceiveDevice()));
        record.beginBody(qvSystemUtils::GetTimeBaseMs());
    }
    application.handleRequest(&request);
    return declared == 0 ? MHD_YES : respondEarly(daemon, connection, request, record);
}

MHD_Result handleHead(EventDaemon& daemon, const DaemonHead& head, Connection& record,
                      ConnectionContext& context)
{
    record.refusedMethod.clear();
    if (record.phase == Phase::Ended || daemon.getListener().isStopping())
        return endConnection();
    if (daemon.getSettings().strictRequests) {
        const Refusal refusal = CheckHead(head);
        if (refusal.status != 0)
            return refuseHead(refusal, head, record);
    }
    return beginRequest(daemon, head.connection, head.method, head.version, record, context);
}

// The daemon takes no response in the call of a piece. When the listener has claimed the connection
// it ends the request itself.
void refuseUpload(Connection& record)
{
    if (!record.claim(Phase::Body))
        return;
    record.abortRequest(kMemoryExhausted, false);
    record.refuse(kUnavailableResponse);
}

MHD_Result feedBody(HttpBaseRequest& request, Connection& record, const char* data, size_t* size)
{
    Connection::Progress& progress = record.progress;
    // The daemon must read on at the end of a body: a client that has shut down its sending side
    // would be taken for one that has left.
    const bool isLast = progress.bodyBytes + *size == progress.declaredBytes;
    const bool isDiscarded = DispatchAccess::isCompleted(request.getResponseDevice());
    HttpReceiveDevice& device = request.getReceiveDevice();
    bool isRefused = false;
    uint64_t pausedBytes = 0;  // what the queue holds when the pause begins
    {
        const qvMutexLocker locker(&DispatchAccess::mutex(device));
        const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
        if (isDiscarded && !record.isAborted && !record.countDiscarded(*size, nowMs)) {
            // Bytes that are left make the daemon call again when the listener has responded.
            if (!DispatchAccess::isFeedPaused(device)) {
                DispatchAccess::pauseFeed(device);
                record.suspend();
            }
            return MHD_YES;
        }
        progress.bodyBytes += *size;
        record.countBody(*size);
        if (!isDiscarded) {
            device.writeBytes(data, *size);
            DispatchAccess::chargeBudget(device, *size);
        }
        *size = 0;
        const uint64_t limit = DispatchAccess::queueLimitBytes(device);
        const bool isFull = limit != 0 && DispatchAccess::queuedBytes(device) >= limit;
        const bool isOverBudget = !isDiscarded && DispatchAccess::isBudgetExceeded(device);
        if (DispatchAccess::isFeedPaused(device)) {
            // The daemon delivers the chunks that it has read already although it is suspended.
        } else if (isOverBudget && !isLast && DispatchAccess::mustNotPause(device)) {
            isRefused = true;
        } else if ((isFull || isOverBudget) && !isLast && !record.isAborted) {
            DispatchAccess::pauseFeed(device);
            if (!isFull)
                DispatchAccess::awaitMemory(device);
            record.pauseBody(nowMs);
            record.suspend();
            pausedBytes = DispatchAccess::queuedBytes(device);
        } else {
            record.armBody(nowMs);
        }
    }
    if (isRefused && !record.isAborted)
        refuseUpload(record);
    if (!isDiscarded && !record.isAborted)
        request.onBodyReceived();
    if (pausedBytes != 0)
        request.onBodyPaused(pausedBytes);
    return record.isAborted ? endAborted(request, record) : MHD_YES;
}

// After a response that was sent before the body had been received, no reader waits for the rest.
void endUpload(HttpBaseRequest& request)
{
    HttpReceiveDevice& device = request.getReceiveDevice();
    {
        const qvMutexLocker locker(&DispatchAccess::mutex(device));
        if (DispatchAccess::isFeedEnded(device))
            return;
    }
    DispatchAccess::abort(device, kClientAbort);
}

void endBody(EventDaemon& daemon, HttpBaseRequest& request, Connection& record,
             const ConnectionContext& context)
{
    EndBody(request, context);
    const int64_t limitMs = daemon.getTable().getLimits().responseMs;
    record.setPhase(Phase::Working,
                    limitMs == 0 ? kNoDeadline : qvSystemUtils::GetTimeBaseMs() + limitMs);
    request.onBodyComplete();
    // After the phase has been set: the listener looks at it after it has set the flag.
    if (record.isPeerClosed && !daemon.getSettings().halfClosedClients)
        record.abortRequest(kClientAbort, true);
}

// The body is complete: queues the response if the application is ready. Otherwise the second call
// suspends the connection: suspended in the first one, a client that has shut down its sending side
// would get no response.
MHD_Result respond(EventDaemon& daemon, MHD_Connection* connection, HttpBaseRequest& request,
                   Connection& record, const ConnectionContext& context)
{
    if (std::exchange(record.progress.skipsFinalCall, false))
        return MHD_YES;
    const bool isFirst = record.progress.finalCalls++ == 0;
    if (isFirst)
        endBody(daemon, request, record, context);
    HttpResponseDevice& device = request.getResponseDevice();
    std::vector<char> body;
    Decision decision = Decision::Wait;
    bool isLate = false;
    {
        const qvMutexLocker locker(&DispatchAccess::mutex(device));
        if (!record.isAborted)
            decision = DecideEvent(device, request, body);
        isLate = record.isResponseLate;
        if (decision == Decision::Wait && !record.isAborted && !isLate) {
            if (!isFirst) {
                DispatchAccess::isSuspended(device) = true;
                record.suspend();
            }
            return MHD_YES;
        }
        // Nobody can announce it any more.
        if (decision == Decision::Wait)
            DispatchAccess::responseState(device) = DispatchAccess::kSentWhole;
    }
    if (record.isAborted)
        return endAborted(request, record);
    if (decision == Decision::Wait)
        return respondLate(request, record, connection);
    return queueDecided(decision, daemon, connection, request, record, body);
}

// There is no memory for the request: it ends without a response.
MHD_Result endWithoutMemory(Connection* record, HttpBaseRequest* request)
{
    if (!record || !request)
        return MHD_NO;
    AbortRequest(*request, *record, kMemoryExhausted);
    return endConnection();
}

// Of a request that the application has not seen.
void reportRefused(EventDaemon& daemon, Connection& record, MHD_RequestTerminationCode code)
{
    const std::string* const target = std::exchange(record.openTarget, nullptr);
    if (!target)
        return;
    const char* reason = AbortReason(code);
    // The listener has responded; the daemon finds the connection shut down.
    if (const uint32_t written = record.writtenStatus; written != 0)
        reason = written == MHD_HTTP_REQUEST_TIMEOUT ? kTimeoutReached : nullptr;
    daemon.getServer().getImpl().onRequestRefused(
        {record.refusedMethod, *target, record.getPeer().address, record.getResponseStatus(),
         reason ? reason : std::string()});
}

// Called on the thread of a relay, or a daemon thread.
void completeDelivered(const TlsDelivery& delivery, bool isSent)
{
    HttpBaseRequest& request = *delivery.request;
    if (!isSent) {
        std::atomic<bool> aborted{false};
        DispatchAccess::abort(request.getResponseDevice(), kWriteError, false, aborted);
        DispatchAccess::abort(request.getReceiveDevice(), kWriteError);
        if (!delivery.isAbortReported)
            request.onAborted(kWriteError);
    }
    try {
        CompleteRequest(&static_cast<EventDaemon*>(delivery.closure)->getServer(), request,
                        isSent ? MHD_REQUEST_TERMINATED_COMPLETED_OK
                               : MHD_REQUEST_TERMINATED_WITH_ERROR);
    } catch (const std::bad_alloc&) {
        // Of the text of an error, which comes last: the device is in error already.
    }
}

// The daemon has sent the response to the hop, which completes the request when the last record has
// left.
void deliver(EventDaemon& daemon, Connection& record, HttpBaseRequest& request,
             bool isAbortReported)
{
    const TlsDelivery delivery{&completeDelivered, &daemon, &request, record.shared_from_this(),
                               isAbortReported};
    const TlsDelivered delivered = record.deliver(TlsDelivery(delivery));
    if (delivered != TlsDelivered::Later)
        completeDelivered(delivery, delivered == TlsDelivered::Sent);
}

}  // namespace

Connection* ConnectionOf(MHD_Connection* connection)
{
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info ? static_cast<Connection*>(info->socket_context) : nullptr;
}

void ReportAbort(HttpBaseRequest& request, Connection& record, const std::string& reason)
{
    if (record.progress.isAbortReported)
        return;
    record.progress.isAbortReported = true;
    request.onAborted(reason);
}

void AbortRequest(HttpBaseRequest& request, Connection& record, const char* reason)
{
    record.abortRequest(reason, false);
    std::string known = record.getAbortReason();
    if (known.empty()) {
        known = reason;
        abortDevices(request, known);
    }
    ReportAbort(request, record, known);
}

// Without memory there is no context: the access handler ends the request.
void* OpenEventContext(void*, const char* uri, MHD_Connection* connection)
{
    DaemonThread::mark();
    Connection* const record = ConnectionOf(connection);
    if (record)
        record->beginHead(qvSystemUtils::GetTimeBaseMs());
    if (uri)
        NoteRequestLine(connection, uri);
    ConnectionContext* context = nullptr;
    try {
        context = ContextRegistry::Add(uri ? uri : "", connection);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    if (record) {
        record->openTarget = &context->uri;
        record->queuedStatus = 0;
    }
    return context;
}

void NotifyConnection(void* closure, MHD_Connection* connection, void** socketContext,
                      MHD_ConnectionNotificationCode code)
{
    auto& daemon = *static_cast<EventDaemon*>(closure);
    if (code == MHD_CONNECTION_NOTIFY_STARTED) {
        const MHD_ConnectionInfo* info =
            MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        *socketContext = daemon.getTable().find(info->connect_fd).get();
        return;
    }
    ForgetRequestLine(connection);
    auto* const known = static_cast<Connection*>(*socketContext);
    if (!known)
        return;
    const ConnectionTable::Pointer record = known->shared_from_this();
    // The daemon does not complete a request whose head it forgets.
    reportRefused(daemon, *record, MHD_REQUEST_TERMINATED_WITH_ERROR);
    if (const int kept = record->keepUntilSeen(); kept >= 0)
        daemon.getListener().keepUntilSeen(kept);
    const int descriptor = record->close();
    daemon.getListener().unwatch(descriptor);
    if (daemon.getTable().remove(descriptor, *record))
        daemon.getListener().connectionClosed(*record);
}

MHD_Result HandleEventAccess(void* closure, MHD_Connection* connection, const char* url,
                             const char* method, const char* version, const char* uploadData,
                             size_t* uploadSize, void** slot)
{
    auto& daemon = *static_cast<EventDaemon*>(closure);
    auto* const context = static_cast<ConnectionContext*>(*slot);
    ExpectAbort(false);
    Connection* const record = ConnectionOf(connection);
    if (!record) {
        daemon.takeTurn();
        *uploadSize = 0;
        return MHD_YES;
    }
    if (!context)
        return MHD_NO;
    // The daemon's frames are those of C: an exception would end the process.
    try {
        if (!context->request)
            return handleHead(daemon, {connection, url, method, version, context->uri}, *record,
                              *context);
        if (*uploadSize != 0)
            return feedBody(*context->request, *record, uploadData, uploadSize);
        return respond(daemon, connection, *context->request, *record, *context);
    } catch (const std::bad_alloc&) {
        return endWithoutMemory(record, context->request);
    }
}

void EventRequestCompleted(void* closure, MHD_Connection* connection, void** slot,
                           MHD_RequestTerminationCode code)
{
    auto& daemon = *static_cast<EventDaemon*>(closure);
    auto* const context = static_cast<ConnectionContext*>(*slot);
    Connection* const record = ConnectionOf(connection);
    if (record && context && context->request) {
        HttpBaseRequest& request = *context->request;
        if (record->progress.isEndedByClosing)
            code = MHD_REQUEST_TERMINATED_COMPLETED_OK;
        if (code != MHD_REQUEST_TERMINATED_COMPLETED_OK) {
            const char* const reason = AbortReason(code);
            AbortRequest(request, *record, reason ? reason : kWriteError);
        }
        endUpload(request);
        DispatchAccess::endSource(request.getResponseDevice());
        DispatchAccess::responseStatus(request) = record->getResponseStatus();
    } else if (record) {
        reportRefused(daemon, *record, code);
    }
    HttpBaseRequest* sent = nullptr;
    if (record && record->hop && code == MHD_REQUEST_TERMINATED_COMPLETED_OK && context)
        sent = std::exchange(context->request, nullptr);
    // The end of the request forgets it.
    const bool isAbortReported = record && record->progress.isAbortReported;
    // The daemon completes the request of an upgraded connection with its own mutex held, under
    // which no mutex of a request or connection is taken.
    if (record && !record->progress.isUpgraded)
        record->endRequest(qvSystemUtils::GetTimeBaseMs());
    try {
        RequestCompleted(&daemon.getServer(), connection, slot, code);
    } catch (const std::bad_alloc&) {
        // Of the application: the request is completed.
    }
    if (sent)
        deliver(daemon, *record, *sent, isAbortReported);
    if (record && record->progress.isUpgraded)
        return;
    // The daemon may have missed the report of the end.
    if (record && (record->isPeerClosed || daemon.getListener().isDraining()))
        record->shutDown(SHUT_RD);
}

}  // namespace qv::impl
