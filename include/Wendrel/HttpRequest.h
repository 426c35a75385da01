/// The base class of an application's requests.
#ifndef WENDREL_HTTPREQUEST_H
#define WENDREL_HTTPREQUEST_H

#include <Wendrel/Export.h>

#include <Ostrand/HttpHeaders.h>
#include <Ostrand/HttpUrl.h>
#include <qvSystem/IpAddress.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

struct MHD_Connection;

namespace qv
{

class HttpReceiveDevice;
class HttpResponseDevice;
class HttpResponseInterface;
class UpgradedConnection;
struct TlsConnection;

namespace impl
{
class ConnectionRecord;
struct DispatchAccess;
}  // namespace impl

/// Told each time a worker thread is about to wait for more of the request's body: once at
/// the start of `readBytes` and then every second at the latest.
class WENDREL_EXPORT HttpWaitListener
{
public:
    /// It must live as long as its request.
    virtual ~HttpWaitListener();

    /// Thread: the request's worker; from the second call of a read on with the receive
    /// device's mutex held, so call nothing of that device but `setDeviceError`, which ends
    /// the wait.
    virtual void onWaitingForData() = 0;
};

/// Base of the application's request class.
///
/// Filled on a daemon thread before the application sees it, then served by one worker
/// thread at a time. The application owns it and deletes it after its worker has finished
/// with it and `isCompleted()` is true, whichever comes last. It has no lock of its own:
/// the connection and the completed flag change under the response device's mutex.
class WENDREL_EXPORT HttpBaseRequest
{
public:
    /// One bit per method, so that a set of methods is one integer.
    enum RequestType : uint16_t {
        UNKNOWN_HTTP_METHOD = 1,  ///< none of those below
        OPTIONS = 2,
        GET = 4,
        POST = 8,
        PUT = 16,
        DELETE = 32,
        HEAD = 64,
        CONNECT = 128,
        TRACE = 256,
        PATCH = 512
    };

    /// Name to values, in order of arrival.
    using ValueMap = std::map<std::string, std::list<std::string>>;

    /// Makes both devices. Thread: the daemon's, in `createRequest`.
    HttpBaseRequest();

    /// Only when its worker has finished with it and it is completed. Thread: any but the daemon's.
    virtual ~HttpBaseRequest();
    HttpBaseRequest(const HttpBaseRequest&) = delete;
    HttpBaseRequest& operator=(const HttpBaseRequest&) = delete;

    /// The head of the response. Called on a daemon thread each time it polls for the response; in
    /// event-driven mode once the response has been announced, and also on the listener's thread.
    /// The object belongs to the request and lives as long.
    virtual HttpResponseInterface& getResponse() = 0;

    /// The listener that is notified when a worker waits for more of the body.
    virtual HttpWaitListener& getWaitListener() = 0;

    /// The daemon has finished with this request and will not use it again. Does nothing unless
    /// overridden. `terminationCode`: the MHD_RequestTerminationCode, 0 when the response was sent
    /// whole. Thread: the daemon's, of a secure connection also the one that encrypts, right after
    /// `HttpServerImpl::onRequestCompleted`, with the response device's mutex held: delete nothing
    /// here, and call nothing that takes that mutex.
    virtual void onCompleted(int terminationCode);

    /// The whole body has been received; for a request without a body right after
    /// `handleRequest`. Event-driven mode only. Does nothing unless overridden. Thread: the
    /// daemon's, without a lock: it must not wait.
    virtual void onBodyComplete();

    /// The request ends without its response having been sent: the peer closed the connection, a
    /// deadline has passed or the server shuts down. Called once, before `onCompleted`; both
    /// devices are in error with `reason` already. Event-driven mode only. Does nothing unless
    /// overridden. Thread: that of `onCompleted`, without a lock: it must not wait.
    virtual void onAborted(const std::string& reason);

    /// Takes the connection after the response with the status 101 has been sent, right before
    /// `onCompleted`. Event-driven mode only. Closes the connection unless overridden. `connection`
    /// is independent of the request; include <Wendrel/UpgradedConnection.h>. Thread: the daemon's,
    /// without a lock: it must not wait.
    virtual void onUpgraded(std::unique_ptr<UpgradedConnection> connection);

    /// The connection is not read any more until the reader of the body has caught up:
    /// `queuedBytes` bytes have been received and not read, as many as the queue may hold, or fewer
    /// when `ServerOptions::memoryBudgetBytes` is used up. For requests whose reader waits for the
    /// end of the body. A complete response ends the pause. Event-driven mode only. Does nothing
    /// unless overridden. Thread: the daemon's, without a lock: it must not wait.
    virtual void onBodyPaused(uint64_t queuedBytes);

    /// More of the body has been received: `HttpReceiveDevice::readReceived` has data. Not called
    /// for data that is discarded, nor at the end of the body: see `onBodyComplete`. Event-driven
    /// mode only. Does nothing unless overridden. Thread: the daemon's, without a lock: it must not
    /// wait.
    virtual void onBodyReceived();

    // Methods. The conversions to text may be called from any thread.

    /// Method name to value; filled while the library is initialised. Read it only then.
    static std::map<std::string, RequestType> sRequestTypes;

    /// Fills `sRequestTypes`; called by `initializeWendrel`.
    static void InitRequestTypes();

    /// Empties it; called by `terminateWendrel`.
    static void ClearRequestTypes();

    /// The method's name; "UNKNOWN_HTTP_METHOD" unless `type` is exactly one method.
    static const std::string& RequestTypeToString(RequestType type);

    /// The names of all methods in `bits`, joined by ",": "GET,HEAD". Other bits are ignored.
    static std::string RequestTypeBitFieldToString(int bits);

    // Intake, called by the library before the application sees the request. Bad input is
    // recorded with `setParseError` and dropped.

    /// Takes the method's name as received. An unknown name is a parse error.
    void setHttpMethod(const std::string& method);

    /// Takes the target as received, at most 4096 bytes, and parses it.
    void setOriginalFullUrl(std::string&& target);

    /// A header; name and value together at most 8096 bytes. The value is split at its commas.
    void addHeader(const char* name, const char* value);

    /// A cookie; name and value together at most 8096 bytes. A null value is an empty one.
    void addCookie(const char* name, const char* value);

    /// A query argument, decoded. A null value is an empty one.
    void addQueryParameter(const char* name, const char* value);

    /// Marks the request as bad. The first text that is not empty is kept.
    void setParseError(std::string&& message);

    // The received values.

    /// The method; `UNKNOWN_HTTP_METHOD` for an unknown one.
    RequestType getRequestType() const { return mRequestType; }

    /// The parsed target. Host and port are those of a fixed base, unless a target that does not
    /// begin with "/" changes them: do not use them.
    const http::HttpUrl& getUrl() const { return mUrl; }

    /// The target as received; "Invalid URI" when it could not be parsed.
    const std::string& getOriginalFullUrl() const { return mOriginalFullUrl; }

    /// Address and port of the peer; behind a proxy, those of the proxy, or those of its client
    /// when the proxy is one of `ServerOptions::trustedProxies` and tells them. Port 0: not told.
    const IpAddress& getClientAddress() const { return mClientAddress; }

    /// Names in lower case.
    const http::HttpHeaders& getHeaders() const { return mHeaders; }

    /// Names as received. Cookies of the first `Cookie` header only.
    const ValueMap& getCookies() const { return mCookies; }

    /// Names as received, decoded.
    const ValueMap& getQueryParameters() const { return mQueryParameters; }

    /// The values of one header (name in lower case), cookie or query parameter, in order of
    /// arrival; null when there is none. A null name throws std::logic_error.
    const std::list<std::string>* getHeader(const char* name) const;
    /// As `getHeader`.
    const std::list<std::string>* getCookie(const char* name) const;
    /// As `getHeader`.
    const std::list<std::string>* getQueryParameter(const char* name) const;

    /// True for a bad request: respond 400 and use no other value of it.
    bool hasParseError() const { return mHasParseError; }

    /// The first error of the request; empty without one.
    const std::string& getParseError() const { return mParseError; }

    /// Bytes of the accepted headers and cookies, as the library counts them.
    uint64_t getRequestHeadBytes() const { return mRequestHeadBytes; }

    // Serving.

    /// Where the request body is read. Any thread; the device belongs to the request.
    HttpReceiveDevice& getReceiveDevice() const { return *mReceiveDevice; }

    /// Where the response body is written. Any thread; the device belongs to the request.
    HttpResponseDevice& getResponseDevice() const { return *mResponseDevice; }

    /// The thread with this identifier (`qvThread::CurrentThreadId()`) serves the request from
    /// now on: only it may write the response.
    void workerThreadStartHandling(const std::string& threadId);

    /// No thread serves the request any more; the keep-alive callback is dropped. The argument
    /// is not used.
    void workerThreadStopHandling(const std::string& threadId);

    /// Empty while no thread serves the request. Thread: the worker's.
    const std::string& getCurrentWorkerThreadId() const { return mWorkerThreadId; }

    /// True when the daemon has finished with the request. Any thread; takes the response device's
    /// mutex: never call it in `onRequestCompleted` or `onCompleted`.
    bool isCompleted() const;

    /// Milliseconds from the arrival of the request to the daemon's last poll for the response with
    /// the body complete; grows until the response is queued.
    int64_t getReceiveDurationMs() const { return mReceiveDurationMs; }

    /// When the response was queued, in milliseconds of the monotonic clock; -1 before.
    int64_t getResponseStartMs() const { return mResponseStartMs; }

    /// The status of the response that has been given to the daemon, or that the server has sent by
    /// itself: 408, 421, 500, 503; 0 when the request ended without one. In `onCompleted` and after
    /// it; event-driven mode only.
    uint32_t getResponseStatus() const { return mResponseStatus; }

    /// Bytes of the response headers, as the library counts them (cookies not included).
    uint64_t getResponseHeadBytes() const { return mResponseHeadBytes; }

    /// Whether the request has come over TLS to this server. A proxy that decrypts before it does
    /// not count.
    bool isSecure() const { return mTls != nullptr; }

    /// The TLS of the connection; null when it has none. Include <Wendrel/TlsConnection.h>. Lives
    /// as long as the request.
    const TlsConnection* getTls() const { return mTls.get(); }

protected:
    /// Has `callback` called while the worker waits for the body, at most once every
    /// `intervalMs` milliseconds and never more often than once a second after the first.
    /// Thread: the worker, after `workerThreadStartHandling`; dropped when it stops.
    void setKeepAliveCallback(std::function<void()> callback, uint32_t intervalMs);

private:
    friend struct impl::DispatchAccess;

    MHD_Connection* mConnection;  // changed under the response device's mutex
    [[maybe_unused]] int64_t mAuxIndex;
    IpAddress mClientAddress;
    std::unique_ptr<HttpReceiveDevice> mReceiveDevice;
    std::unique_ptr<HttpResponseDevice> mResponseDevice;
    std::atomic<int64_t> mReceiveDurationMs;
    std::atomic<int64_t> mResponseStartMs;
    uint64_t mRequestHeadBytes;
    std::atomic<uint64_t> mResponseHeadBytes;
    std::string mWorkerThreadId;
    int64_t mLastKeepAliveMs;
    std::function<void()> mKeepAliveCallback;
    std::string mOriginalFullUrl;
    http::HttpUrl mUrl;
    http::HttpHeaders mHeaders;
    ValueMap mCookies;
    ValueMap mQueryParameters;
    std::string mParseError;
    [[maybe_unused]] int64_t mAuxTimeMs;
    uint32_t mKeepAliveIntervalMs;
    std::atomic<bool> mBodyPending;
    RequestType mRequestType;
    bool mHasParseError;
    bool mCompleted;  // changed under the response device's mutex
    impl::ConnectionRecord*
        mRecord;               // of event-driven mode; set before the application sees the request
    uint32_t mResponseStatus;  // set before the completion
    std::shared_ptr<const TlsConnection> mTls;  // as mRecord
};

}  // namespace qv

#endif
