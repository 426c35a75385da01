// An upgrade in event-driven mode: the application's 101, and the connection handed on after it
// under a descriptor of its own. The daemon closes the other one and keeps nothing.

#include "server/EventUpgrade.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/UpgradedConnection.h>

#include "listener/Connection.h"
#include "listener/TlsHop.h"
#include "request/ConnectionContext.h"
#include "request/DispatchAccess.h"
#include "server/EventDaemon.h"
#include "server/EventDispatch.h"
#include "server/ResponseQueue.h"
#include "server/logging/LogObject.h"
#include "streaming/AbortReason.h"
#include "streaming/StreamCallbacks.h"

#include <qvSystem/SystemError.h>
#include <qvSystem/qvSystemUtils.h>

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr const char* kUpgradeToken = "upgrade";

bool hasToken(const std::list<std::string>* values, const char* token)
{
    return values && std::any_of(values->begin(), values->end(), [&](const std::string& value) {
               return strcasecmp(value.c_str(), token) == 0;
           });
}

// Null when the request can be upgraded.
const char* whyNot(const HttpBaseRequest& request, const Connection& record)
{
    if (record.progress.isHttp10)
        return "the request is older than HTTP/1.1";
    if (record.progress.declaredBytes != 0)
        return "the request has a body";
    if (!request.getHeader("upgrade"))
        return "the request has no header Upgrade";
    if (!hasToken(request.getHeader("connection"), kUpgradeToken))
        return "the header Connection of the request does not name Upgrade";
    return nullptr;
}

// Called from the daemon's frames, which are those of C: an exception would end the process.
template <typename Step> void attempt(const Step& step)
{
    try {
        step();
    } catch (const std::bad_alloc&) {
        // The rest of the step is left out.
    }
}

// A writer of a body, which nobody sends, would wait for ever.
void endBodyOfUpgrade(HttpBaseRequest& request)
{
    HttpResponseDevice& device = request.getResponseDevice();
    const qvMutexLocker locker(&DispatchAccess::mutex(device));
    if (!DispatchAccess::isCompleted(device))
        DispatchAccess::loseConnection(device, kUpgraded);
}

// The event loop of a secure connection lives as long as its place.
struct SecurePlace
{
    std::shared_ptr<TlsEngine> tls;
    std::shared_ptr<ConnectionPlace> place;  // given up first
};

std::shared_ptr<void> makePlace(const EventDaemon& daemon, Connection& record)
{
    if (!record.hop)
        return std::make_shared<ConnectionPlace>(std::move(record.place));
    return std::make_shared<SecurePlace>(
        SecurePlace{daemon.getListener().getTls(), std::move(record.sharedPlace)});
}

void abortUpgrade(HttpBaseRequest& request, Connection& record, int error)
{
    attempt([error] {
        if (error != ECANCELED)
            qvLogObject(qvLogObject::kWarning)
                << "cannot hand on an upgraded connection: " << SystemError(error).toString();
    });
    AbortRequest(request, record, kWriteError);
}

// Takes the descriptor over. Null without memory: the connection is closed.
std::unique_ptr<UpgradedConnection> makeUpgraded(const EventDaemon& daemon, int descriptor,
                                                 std::string_view received,
                                                 const HttpBaseRequest& request, Connection& record)
{
    try {
        std::shared_ptr<void> place = makePlace(daemon, record);
        return std::make_unique<UpgradedConnection>(
            descriptor, std::string(received), request.getClientAddress(), std::move(place),
            record.hop ? TlsHop::CutOff(record.hop) : nullptr);
    } catch (const std::bad_alloc&) {
        close(descriptor);
        return nullptr;
    }
}

// Upgrade handler; `closure` is the EventDaemon, `slot` the ConnectionContext. The daemon completes
// the context under its own mutex when it closes its descriptor: the request is completed here.
void handOn(void* closure, MHD_Connection* connection, void* slot, const char* extraBytes,
            size_t extraSize, MHD_socket socket, MHD_UpgradeResponseHandle* handle)
{
    auto& daemon = *static_cast<EventDaemon*>(closure);
    auto& context = *static_cast<ConnectionContext*>(slot);
    Connection& record = *ConnectionOf(connection);
    HttpBaseRequest& request = *std::exchange(context.request, nullptr);
    // The listener would go on to watch the connection under its other descriptor.
    daemon.getListener().unwatch(socket);
    const int descriptor = record.detach(daemon.getReplacement());
    auto code = MHD_REQUEST_TERMINATED_COMPLETED_OK;
    std::unique_ptr<UpgradedConnection> upgraded;
    if (descriptor >= 0)
        upgraded = makeUpgraded(daemon, descriptor, {extraBytes, extraSize}, request, record);
    if (upgraded) {
        endBodyOfUpgrade(request);
        attempt([&] { request.onUpgraded(std::move(upgraded)); });
    } else {
        abortUpgrade(request, record, descriptor < 0 ? -descriptor : ENOMEM);
        code = MHD_REQUEST_TERMINATED_WITH_ERROR;
    }
    record.endRequest(qvSystemUtils::GetTimeBaseMs());
    record.progress.isUpgraded = true;
    DispatchAccess::responseStatus(request) = MHD_HTTP_SWITCHING_PROTOCOLS;
    attempt([&] { CompleteRequest(&daemon.getServer(), request, code); });
    MHD_upgrade_action(handle, MHD_UPGRADE_ACTION_CLOSE);
}

}  // namespace

unsigned QueueUpgrade(EventDaemon& daemon, MHD_Connection* connection, HttpBaseRequest& request,
                      const Connection& record)
{
    if (const char* const why = whyNot(request, record)) {
        qvLogObject(qvLogObject::kWarning) << "Refusing an upgrade: " << why;
        return MHD_HTTP_BAD_REQUEST;
    }
    MHD_Response* const response = MHD_create_response_for_upgrade(&handOn, &daemon);
    if (QueueUpgradeHead(request, request.getResponse(), connection, response))
        return 0;
    qvLogObject(qvLogObject::kWarning)
        << "Refusing an upgrade: the response has no valid header Upgrade";
    return MHD_HTTP_INTERNAL_SERVER_ERROR;
}

}  // namespace qv::impl
