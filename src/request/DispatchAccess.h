// Access to the private fields of a request and its devices, for the daemon's callbacks and for the
// devices themselves.
#ifndef WENDREL_REQUEST_DISPATCHACCESS_H
#define WENDREL_REQUEST_DISPATCHACCESS_H

#include <Wendrel/BodySource.h>
#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>

#include <memory>
#include <string>

namespace qv::impl
{

struct DispatchAccess
{
    // Values of the response state.
    static constexpr uint32_t kNotReady = 0;
    static constexpr uint32_t kReady = 1;
    static constexpr uint32_t kStreamed = 2;
    static constexpr uint32_t kSentWhole = 3;
    static constexpr uint32_t kReadyInError = 4;  // event-driven mode only

    static MHD_Connection*& connection(HttpBaseRequest& r) { return r.mConnection; }
    static std::string& originalFullUrl(HttpBaseRequest& r) { return r.mOriginalFullUrl; }
    static http::HttpHeaders& headers(HttpBaseRequest& r) { return r.mHeaders; }
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

    static uint32_t& responseStatus(HttpBaseRequest& r) { return r.mResponseStatus; }

    static ConnectionRecord*& record(HttpBaseRequest& r) { return r.mRecord; }

    static std::shared_ptr<const TlsConnection>& tls(HttpBaseRequest& r) { return r.mTls; }

    static qvMutex& mutex(HttpReceiveDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS { return d.mMutex; }

    static qvMutex& mutex(HttpResponseDevice& d) { return *d.mMutex; }
    static std::atomic<uint32_t>& responseState(HttpResponseDevice& d) { return d.mResponseState; }
    static bool isCompleted(const HttpResponseDevice& d) { return d.mCompleted; }

    // Event-driven mode. The daemon thread sets these marks with the device's mutex held, right
    // before it suspends the connection; the device resumes it.
    static bool& isFeedPaused(HttpReceiveDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        return d.mFeedPaused;
    }
    static bool& isSuspended(HttpResponseDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        return d.mSuspended;
    }
    static uint64_t& queueLimitBytes(HttpReceiveDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        return d.mQueueLimitBytes;
    }
    static uint64_t queuedBytes(const HttpReceiveDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        return d.mQueuedBytes;
    }
    static bool isFeedEnded(const HttpReceiveDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        return d.mFeedEnded;
    }
    // Makes everything received readable. The mutex is held.
    static void pauseFeed(HttpReceiveDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        d.mFeedPaused = true;
        d.mDataArrived.wakeAll();
    }

    // Event-driven mode. The source is set before the response is announced, and removed by
    // `endSource`: in between, the daemon thread uses it without the mutex.
    static BodySource* source(HttpResponseDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        return d.mSource.get();
    }
    // A resume that no suspension has used up. The mutex is held.
    static bool& isSourceResumed(HttpResponseDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        return d.mSourceResumed;
    }
    static std::atomic<uint64_t>& sentBytes(HttpResponseDevice& d) { return d.mSentBytes; }
    static std::shared_ptr<BodySignal> signal(const BodyResumer& r) { return r.mSignal; }

    // Destroys the source without the mutex. The handles of its resumer do nothing any more.
    static void endSource(HttpResponseDevice& d);

    // The budget of the server, set before the first byte. The mutex is held, here and below.
    static std::shared_ptr<MemoryBudget>& budget(HttpReceiveDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        return d.mBudget;
    }
    static void chargeBudget(HttpReceiveDevice& d, uint64_t bytes);
    static bool isBudgetExceeded(const HttpReceiveDevice& d);
    static bool mustNotPause(const HttpReceiveDevice& d) QV_NO_THREAD_SAFETY_ANALYSIS
    {
        return d.mMustNotPause;
    }
    // Of a paused feed: it may go on as soon as the budget has free memory.
    static void awaitMemory(HttpReceiveDevice& d);

    // Bytes of a complete body that has been discarded in place of a wait; 0 of any other. The
    // mutex is held.
    static uint64_t countedBytes(const HttpResponseDevice& d);

    // Puts the device in error, also without memory for the whole text. The mutex is held.
    static void loseConnection(HttpResponseDevice& d, const std::string& reason);

    // Any thread; these take the device's mutex. The request is not completed.
    // The daemon never fetches the body: nobody waits for it.
    static void leaveBodyUnread(HttpResponseDevice& d);
    static void resumeSource(HttpResponseDevice& d);
    // False when the feed does not wait for memory.
    static bool continueWaiting(HttpReceiveDevice& d);
    static void resume(HttpResponseDevice& d);
    static void resumeAfterError(HttpResponseDevice& d);
    static void liftQueueLimit(HttpReceiveDevice& d);
    static void abort(HttpReceiveDevice& d, const std::string& reason);
    // Sets `aborted` with the mutex held. False, and nothing done, when the response has been
    // announced and `unlessReady` is given.
    static bool abort(HttpResponseDevice& d, const std::string& reason, bool unlessReady,
                      std::atomic<bool>& aborted);
};

}  // namespace qv::impl

#endif
