// Access to the private fields of a request and its devices, for the daemon's callbacks and for the
// devices themselves.
#ifndef WENDREL_REQUEST_DISPATCHACCESS_H
#define WENDREL_REQUEST_DISPATCHACCESS_H

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>

namespace qv::impl
{

struct DispatchAccess
{
    // Values of the response state.
    static constexpr uint32_t kNotReady = 0;
    static constexpr uint32_t kReady = 1;
    static constexpr uint32_t kStreamed = 2;
    static constexpr uint32_t kSentWhole = 3;

    static MHD_Connection*& connection(HttpBaseRequest& r) { return r.mConnection; }
    static IpAddress& clientAddress(HttpBaseRequest& r) { return r.mClientAddress; }
    static std::atomic<int64_t>& receiveDurationMs(HttpBaseRequest& r)
    {
        return r.mReceiveDurationMs;
    }
    static std::atomic<int64_t>& responseStartMs(HttpBaseRequest& r) { return r.mResponseStartMs; }
    static std::atomic<uint64_t>& responseHeadBytes(HttpBaseRequest& r)
    {
        return r.mResponseHeadBytes;
    }
    static std::atomic<bool>& bodyPending(HttpBaseRequest& r) { return r.mBodyPending; }
    static bool& completed(HttpBaseRequest& r) { return r.mCompleted; }
    static std::function<void()>& keepAliveCallback(HttpBaseRequest& r)
    {
        return r.mKeepAliveCallback;
    }
    static int64_t& lastKeepAliveMs(HttpBaseRequest& r) { return r.mLastKeepAliveMs; }
    static uint32_t& keepAliveIntervalMs(HttpBaseRequest& r) { return r.mKeepAliveIntervalMs; }

    static qvMutex& mutex(HttpReceiveDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS { return d.mMutex; }

    static qvMutex& mutex(HttpResponseDevice& d) { return *d.mMutex; }
    static std::atomic<uint32_t>& responseState(HttpResponseDevice& d) { return d.mResponseState; }
    static bool isCompleted(const HttpResponseDevice& d) { return d.mCompleted; }
};

}  // namespace qv::impl

#endif
