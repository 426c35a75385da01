// The record of one accepted connection, from its acceptance until the daemon closes it.
#ifndef WENDREL_LISTENER_CONNECTION_H
#define WENDREL_LISTENER_CONNECTION_H

#include "listener/ConnectionPlaces.h"
#include "listener/DeadlineWheel.h"
#include "listener/TlsDelivery.h"
#include "request/ConnectionRecord.h"

#include <qvSystem/IpAddress.h>
#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

struct MHD_Connection;

namespace qv
{
class HttpBaseRequest;
}

namespace qv::impl
{

class ConnectionTable;
class TlsHop;

struct Peer
{
    IpAddress address;  // of the client
    IpAddress host;     // without the port; none when its connections are not counted
    bool isTrustedProxy = false;
};

// The rest of a body whose response is complete and announced is discarded within both limits.
inline constexpr uint64_t kMaxDiscardedBytes = 1048576;
inline constexpr int64_t kMaxDiscardMs = 5000;

// Written by hand where the daemon cannot respond.
inline constexpr const char* kUnavailableResponse = "HTTP/1.1 503 Service Unavailable\r\n"
                                                    "Retry-After: 1\r\nConnection: close\r\n"
                                                    "Content-Length: 0\r\n\r\n";

inline constexpr int64_t kNoDeadline = std::numeric_limits<int64_t>::max();

// Shared by the daemon thread that serves the connection and the listener thread that watches it.
class Connection : public ConnectionRecord,
                   public DeadlineWheel::Entry,
                   public std::enable_shared_from_this<Connection>
{
public:
    enum class Phase : uint8_t {
        Head,        // the first head is being received
        Idle,        // between two requests
        NextHead,    // the head of a later request is being received
        Body,        // a body is being received
        Working,     // the request is complete, its response is not announced
        Responding,  // the response has been given to the daemon
        Ended        // claimed by the listener: no request begins any more
    };

    Connection(ConnectionTable& table, int descriptor, const Peer& peer);

    const Peer& getPeer() const { return mPeer; }

    // Given up when the daemon closes the connection, unless an upgrade has moved it on. Set by the
    // listener before the daemon has the connection, then the daemon thread's.
    ConnectionPlace place;

    // The same of a secure connection, in place of `place`: also its hop holds it. The daemon
    // thread's once the daemon has the connection.
    std::shared_ptr<ConnectionPlace> sharedPlace;

    // The decrypting side of a secure connection, whose client does not have the daemon's
    // descriptor; null for others. Set as `place`, and not changed.
    std::shared_ptr<TlsHop> hop;
    size_t tlsIndex = 0;   // of the TLS of its endpoint
    int64_t placedMs = 0;  // when the handshake had ended

    // Each request is responded to with the same target on https. Set as `hop`.
    bool redirectsToHttps = false;

    // Changed by the daemon thread. The listener changes it to Ended only.
    std::atomic<Phase> phase{Phase::Head};

    // When the listener acts; changed by ConnectionTable::arm.
    std::atomic<int64_t> deadlineMs{kNoDeadline};

    // The peer has shut down its sending side. Set once, by the listener.
    std::atomic<bool> isPeerClosed{false};

    // The server has shut down both directions, or the one that it reads from. Set before it does.
    std::atomic<bool> isShutDown{false};
    std::atomic<bool> isReadingShutDown{false};

    // Of the connections that `ConnectionTable::takeExpired` returns: the next one, and whether it
    // is one of them. Listener thread.
    std::shared_ptr<Connection> nextExpired;
    bool isExpired = false;

    // The request in progress is to be ended without its response. Set by the listener.
    std::atomic<bool> isAborted{false};

    // The request in progress has exceeded the time for its response. Set by the listener.
    std::atomic<bool> isResponseLate{false};

    // Daemon thread, with the mutex held under which it will be resumed, once.
    void suspend();

    // The application has nothing left to wait for: the connection is served again.
    void resume() override;
    void continueUpload() override;
    void discardUpload() override;
    std::shared_ptr<MemoryBudget> getMemoryBudget() const override;

    // Daemon thread: the phases of a request, with their deadlines. `beginHead` and `beginRequest`
    // return false when the listener has claimed the connection. A request that has begun is
    // aborted then.
    bool beginHead(int64_t nowMs);
    bool beginRequest(HttpBaseRequest& request, MHD_Connection* handle, Phase next);
    void endRequest(int64_t nowMs);
    void setPhase(Phase next, int64_t deadline);

    // Daemon thread: the clock of a body. It stands still from `pauseBody` to `continueUpload`.
    // With the receive device's mutex held.
    void beginBody(int64_t nowMs);
    void countBody(uint64_t bytes);
    void armBody(int64_t nowMs);
    void pauseBody(int64_t nowMs);

    // Daemon thread: counts bytes that are discarded. False beyond a limit: then nothing is
    // counted, and the listener ends the connection at once.
    bool countDiscarded(uint64_t bytes, int64_t nowMs);

    // Listener thread, with the connection claimed: the status of the application's response when
    // the body has been discarded for too long; 0 when it has not. Calls the application.
    uint32_t getEarlyStatus(int64_t nowMs);

    // Listener thread: claims a connection in phase `expected`; false when the phase has changed.
    bool claim(Phase expected);

    // Ends the request in progress: its devices are put in error with `reason`, and a suspended
    // connection is resumed, so that the daemon thread sees `isAborted`. With `unlessReady` a
    // request whose response has been announced is left alone. Any thread.
    void abortRequest(const std::string& reason, bool unlessReady);

    // Whether the daemon does not read the body of the request in progress until the application
    // has read more of it. Any thread.
    bool isUploadPaused();

    // Of the request in progress; empty unless it has been aborted. Daemon thread.
    std::string getAbortReason();

    // Listener thread: the daemon thread sees `isResponseLate`, unless the deadline has moved.
    void expireResponse(int64_t nowMs);

    // Listener thread: goes on with an upload that waits for free memory. False when it does not.
    bool continueWaitingUpload();

    // Shuts the socket down (SHUT_RD, SHUT_RDWR), if it is still open. Any thread.
    void shutDown(int how);

    // Shuts it down within a response, which its client must not take for whole. Any thread.
    void cut();

    // Changes the events that an epoll set reports of the socket, if it is still open. Listener
    // thread.
    void watch(int epoll, uint64_t key, uint32_t events);

    // Sends `response` if the socket takes it at once, then shuts the socket down. Listener thread.
    void refuse(const std::string& response);

    // Daemon thread: ends the request, and returns the connection under another descriptor, which
    // nobody shuts down any more. The daemon's descriptor becomes a duplicate of `replacement`.
    // When the request has been aborted or the system has no descriptor, it does nothing and
    // returns the error, negated (ECANCELED after an abort).
    int detach(int replacement);

    // Sends `response` if the socket takes it at once, and shuts the sending side down. Returns a
    // duplicate of the descriptor, to be read from until the peer has seen the response; -1 without
    // one. Listener thread.
    int endWith(const std::string& response);

    // The response is sent without reading the body. Daemon thread.
    bool isBodyUnread = false;

    // The status of the response to the request in progress, as the daemon has it; 0 without.
    // Daemon thread.
    uint32_t queuedStatus = 0;

    // The status of the last response of the connection, which is written by hand; 0 without. Set
    // once, after the connection has been claimed.
    std::atomic<uint32_t> writtenStatus{0};

    // Daemon thread.
    uint32_t getResponseStatus() const
    {
        return writtenStatus != 0 ? writtenStatus.load() : queuedStatus;
    }

    // Of a head that is refused: its method. Daemon thread.
    std::string refusedMethod;

    // The target of the request that has begun and is not completed; null between requests, and
    // once the application has its connection. Daemon thread.
    const std::string* openTarget = nullptr;

    // A duplicate of the descriptor, to be read from until the peer has seen the response, when it
    // has sent or sends more than has been read; otherwise -1. Daemon thread, before `close`.
    int keepUntilSeen();

    // The daemon closes the descriptor after this. Daemon thread. Returns the descriptor.
    int close();

    // Of a secure connection, whose daemon has sent a response: see TlsHop. Daemon thread.
    TlsDelivered deliver(TlsDelivery&& delivery);

    // Whether `close` or `detach` has been called. Any thread.
    bool isClosed();

    // Of the request in progress; daemon thread only.
    struct Progress
    {
        uint64_t declaredBytes = 0;  // of the body
        uint64_t bodyBytes = 0;
        uint64_t discardedBytes = 0;  // of the body, since it is discarded
        uint32_t finalCalls = 0;
        bool skipsFinalCall = false;  // the first one comes before its time
        bool isHttp10 = false;
        bool isChunked = false;         // the response
        bool isLengthKnown = false;     // of the response
        bool isEndedByClosing = false;  // the response, as HTTP/1.0 ends a body of unknown length
        bool isAbortReported = false;
        bool isUpgraded = false;  // or could not be, after the 101
    };
    static constexpr uint64_t kUnknownLength = std::numeric_limits<uint64_t>::max();
    Progress progress;

private:
    int64_t bodyDeadlineMs(int64_t nowMs) const;
    void armUnlessDiscarding(int64_t deadline);
    bool isOurs() const QV_REQUIRES(mMutex) { return mDescriptor >= 0 && !mIsDetached; }

    ConnectionTable& mTable;
    const Peer mPeer;
    MHD_Connection* mHandle = nullptr;  // of the request in progress; not changed while suspended

    // The end of discarding the body: kNoDeadline until it begins, 0 beyond the limit of bytes.
    std::atomic<int64_t> mDiscardUntilMs{kNoDeadline};

    // Guarded by the receive device's mutex.
    uint64_t mBodyBytes = 0;
    int64_t mBodyStartMs = 0;  // moved on by the length of each pause
    int64_t mPausedAtMs = 0;

    qvMutex mMutex;
    int mDescriptor QV_GUARDED_BY(mMutex);
    bool mIsDetached QV_GUARDED_BY(mMutex) = false;  // the descriptor is a replacement
    HttpBaseRequest* mRequest QV_GUARDED_BY(mMutex) = nullptr;
    std::string mAbortReason QV_GUARDED_BY(mMutex);
};

}  // namespace qv::impl

#endif
