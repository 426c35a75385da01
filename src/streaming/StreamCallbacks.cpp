// The daemon fetches a body here, and says here that it is done with a request.

#include "streaming/StreamCallbacks.h"

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/HttpServer.h>

#include "request/ContextRegistry.h"
#include "request/DispatchAccess.h"
#include "streaming/AbortReason.h"
#include "streaming/Throttle.h"

#include <qvSystem/qvSystemUtils.h>

#include <utility>

namespace qv::impl
{

const char* AbortReason(int terminationCode)
{
    switch (terminationCode) {
    case MHD_REQUEST_TERMINATED_WITH_ERROR:
        return kWriteError;
    case MHD_REQUEST_TERMINATED_TIMEOUT_REACHED:
        return kTimeoutReached;
    case MHD_REQUEST_TERMINATED_DAEMON_SHUTDOWN:
        return kDaemonShutdown;
    case MHD_REQUEST_TERMINATED_READ_ERROR:
        return kReadError;
    case MHD_REQUEST_TERMINATED_CLIENT_ABORT:
        return kClientAbort;
    default:
        return nullptr;
    }
}

ssize_t ReadContent(void* closure, uint64_t, char* buffer, size_t size)
{
    auto* request = static_cast<HttpBaseRequest*>(closure);
    Throttle& throttle = Throttle::OfThisThread();
    if (!request || request->getResponseDevice().hasDeviceError()) {
        throttle.reset();
        return MHD_CONTENT_READER_END_WITH_ERROR;
    }
    bool ended = false;
    bool endedToo = false;
    const size_t copied =
        request->getResponseDevice().sendChunksThreadSafe(buffer, size, ended, endedToo);
    if (copied != 0) {
        DispatchAccess::bodyPending(*request) = false;
        throttle.reset();
        return static_cast<ssize_t>(copied);
    }
    if (ended) {
        throttle.reset();
        return MHD_CONTENT_READER_END_OF_STREAM;
    }
    if (!endedToo)
        throttle.pause(request, qvSystemUtils::GetTimeBaseMs());
    return 0;
}

void RequestCompleted(void* closure, MHD_Connection*, void** slot, MHD_RequestTerminationCode code)
{
    auto* const context = static_cast<ConnectionContext*>(std::exchange(*slot, nullptr));
    if (!context)
        return;
    HttpBaseRequest* const request = context->request;
    ContextRegistry::Remove(context);
    if (request)
        CompleteRequest(closure, *request, code);
}

void CompleteRequest(void* closure, HttpBaseRequest& request, MHD_RequestTerminationCode code)
{
    HttpResponseDevice& device = request.getResponseDevice();

    // Once this lock is released another thread may delete the request: nothing of it is
    // touched afterwards.
    qvMutexLocker locker(&DispatchAccess::mutex(device));
    DispatchAccess::connection(request) = nullptr;
    DispatchAccess::completed(request) = true;
    // Application code under the response device's lock.
    static_cast<http::HttpServer*>(closure)->getImpl().onRequestCompleted();
    request.onCompleted(static_cast<int>(code));
    if (const char* reason = AbortReason(code))
        DispatchAccess::loseConnection(device, reason);
}

}  // namespace qv::impl
