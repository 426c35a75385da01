// The request object: its life, its look-ups and the bookkeeping of who serves it.

#include <Wendrel/HttpRequest.h>

#include <Wendrel/HttpDevices.h>
#include <Wendrel/UpgradedConnection.h>

#include "request/ConnectionContext.h"
#include "request/DispatchAccess.h"

#include <utility>

namespace qv
{
namespace
{

const std::list<std::string>* findValues(const HttpBaseRequest::ValueMap& map, const char* name)
{
    const auto found = map.find(std::string(name));
    return found == map.end() ? nullptr : &found->second;
}

}  // namespace

HttpWaitListener::~HttpWaitListener() = default;

HttpBaseRequest::HttpBaseRequest()
    : mConnection(nullptr), mAuxIndex(-1), mReceiveDurationMs(0), mResponseStartMs(-1),
      mRequestHeadBytes(0), mResponseHeadBytes(0), mLastKeepAliveMs(impl::kTimeNotSet),
      mAuxTimeMs(impl::kTimeNotSet), mKeepAliveIntervalMs(0), mBodyPending(false),
      mRequestType(UNKNOWN_HTTP_METHOD), mHasParseError(false), mCompleted(false), mRecord(nullptr),
      mResponseStatus(0)
{
    mReceiveDevice = std::make_unique<HttpReceiveDevice>(*this);
    mResponseDevice = std::make_unique<HttpResponseDevice>(*this);
}

HttpBaseRequest::~HttpBaseRequest()
{
    mReceiveDevice.reset();
    mResponseDevice.reset();
}

void HttpBaseRequest::onCompleted(int) {}

void HttpBaseRequest::onBodyComplete() {}

void HttpBaseRequest::onAborted(const std::string&) {}

void HttpBaseRequest::onUpgraded(std::unique_ptr<UpgradedConnection>) {}

void HttpBaseRequest::onBodyPaused(uint64_t) {}

void HttpBaseRequest::onBodyReceived() {}

void HttpBaseRequest::setParseError(std::string&& message)
{
    mHasParseError = true;
    if (mParseError.empty())
        mParseError = std::move(message);
}

const std::list<std::string>* HttpBaseRequest::getHeader(const char* name) const
{
    return mHeaders.find(std::string(name));
}

const std::list<std::string>* HttpBaseRequest::getCookie(const char* name) const
{
    return findValues(mCookies, name);
}

const std::list<std::string>* HttpBaseRequest::getQueryParameter(const char* name) const
{
    return findValues(mQueryParameters, name);
}

void HttpBaseRequest::workerThreadStartHandling(const std::string& threadId)
{
    mWorkerThreadId = threadId;
}

void HttpBaseRequest::workerThreadStopHandling(const std::string&)
{
    mWorkerThreadId.clear();
    // Taken out before it is destroyed: its target may look at the request.
    static_cast<void>(std::exchange(mKeepAliveCallback, nullptr));
    mKeepAliveIntervalMs = 0;
    mLastKeepAliveMs = impl::kTimeNotSet;
    // An error that the worker has set on its device is not announced otherwise.
    if (mRecord)
        impl::DispatchAccess::resumeAfterError(*mResponseDevice);
}

bool HttpBaseRequest::isCompleted() const
{
    qvMutexLocker locker(&impl::DispatchAccess::mutex(*mResponseDevice));
    return mCompleted;
}

void HttpBaseRequest::setKeepAliveCallback(std::function<void()> callback, uint32_t intervalMs)
{
    mKeepAliveCallback = std::move(callback);
    mKeepAliveIntervalMs = intervalMs;
}

}  // namespace qv
