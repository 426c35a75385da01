/// The body devices of a request: received body and response body.
#ifndef WENDREL_HTTPDEVICES_H
#define WENDREL_HTTPDEVICES_H

#include <Wendrel/Export.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvIoDevice.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qv
{

class BodySource;
class HttpBaseRequest;

namespace impl
{
class BodySignal;
struct DispatchAccess;
class MemoryBudget;
}  // namespace impl

/// The device from which an application reads the body that a client uploads.
///
/// One daemon thread feeds it, one worker thread reads it; both sides meet under its mutex.
/// There is no back-pressure: received data is held in memory until it is read. Owned by its
/// request.
class WENDREL_EXPORT HttpReceiveDevice : public qvIoDevice
{
public:
    /// Made by the request that it belongs to, which it keeps a reference to.
    explicit HttpReceiveDevice(HttpBaseRequest& request);

    /// Discards unread data. Thread: the one that deletes the request.
    ~HttpReceiveDevice() override;

    /// Fills `buf` with `len` bytes of the body; waits until they have been received.
    ///
    /// Returns less than `len` (also 0) when the body has ended, the device is in error, or no byte
    /// has been received for 360000 ms; then `atEnd()` is true. During the upload the newest chunk
    /// of at least 64 KiB is not readable. A connection closed during the upload does not end the
    /// wait: the wait listener is notified every second and can set an error on this device.
    /// In event-driven mode a read that would wait on a daemon thread sets the device error "read
    /// on a daemon thread" instead. Thread: the request's worker.
    uint64_t readBytes(char* buf, size_t len) override;

    /// Takes the next `len` bytes of the upload; returns `len`, or 0 after the feed ended.
    /// Thread: the daemon's, with the device's mutex held. Not for applications.
    uint64_t writeBytes(const char* data, size_t len) override;

    /// True when the whole body has been read or the device is in error. Any thread, no lock.
    bool atEnd() const override;

    /// No more data will come. Thread: the daemon's, with the device's mutex held.
    void endFeed();

    /// Bytes handed to readers so far. Any thread, no lock.
    uint64_t getReceivedBytes() const;

    /// Clears error and end and counts from zero again; bytes not read yet are kept. Takes no
    /// lock: no other thread may use the device meanwhile.
    void reset();

    /// Sets how many bytes may be received and not yet read before the connection is not read any
    /// more, in place of `ServerOptions::uploadQueueBytes`; 0: no limit. Event-driven mode only.
    /// Call it in `HttpServerImpl::handleRequest`; takes the device's mutex.
    void setQueueLimit(uint64_t bytes);

    /// Discards everything that has been received and not read, and frees its memory. Any thread;
    /// takes the device's mutex.
    void discardReceived();

    /// Moves up to `len` bytes that have been received to `buf`, the newest chunk included, and
    /// returns how many; never waits. `atEnd()` is true after the last one. For readers that
    /// `HttpBaseRequest::onBodyReceived` notifies. One reader at a time, on any thread; takes the
    /// device's mutex.
    uint64_t readReceived(char* buf, size_t len);

private:
    friend struct impl::DispatchAccess;

    using Chunk = std::vector<char>;

    void keepAliveStep();
    uint64_t takeFromQueue(char* buf, uint64_t wanted, bool leavesNewest) QV_REQUIRES(mMutex);
    uint64_t take(char* buf, uint64_t wanted, bool leavesNewest) QV_REQUIRES(mMutex);
    uint64_t readLocked(char* buf, uint64_t len, int64_t idleSinceMs) QV_REQUIRES(mMutex);
    bool mayNotWait();
    void continueFeed() QV_REQUIRES(mMutex);
    void continueFeedIfFree() QV_REQUIRES(mMutex);
    void creditBudget(uint64_t bytes) QV_REQUIRES(mMutex);

    qvMutex mMutex;
    qvWaitCondition mDataArrived;
    std::atomic<bool> mAtEnd;  // changed under mMutex
    HttpBaseRequest* mRequest;
    std::list<Chunk> mQueue QV_GUARDED_BY(mMutex);
    uint64_t mQueuedBytes QV_GUARDED_BY(mMutex);
    uint64_t mWantedBytes QV_GUARDED_BY(mMutex);
    uint64_t mReadOffset QV_GUARDED_BY(mMutex);
    std::atomic<uint64_t> mReceivedBytes;  // changed under mMutex
    bool mFeedEnded QV_GUARDED_BY(mMutex);
    bool mFeedPaused QV_GUARDED_BY(mMutex);           // the connection is suspended
    uint64_t mQueueLimitBytes QV_GUARDED_BY(mMutex);  // 0: no limit
    bool mAwaitsMemory QV_GUARDED_BY(mMutex);         // paused until the budget has free memory
    bool mMustNotPause QV_GUARDED_BY(mMutex);         // the writer waits for the whole upload
    uint64_t mChargedBytes QV_GUARDED_BY(mMutex);     // of the queue, to the budget
    std::shared_ptr<impl::MemoryBudget> mBudget QV_GUARDED_BY(mMutex);  // null: none
};

/// The device into which an application writes a response body.
///
/// One worker thread writes, one daemon thread reads; whole chunks change hands under one
/// mutex, so each byte is copied twice at most. Owned by its request.
class WENDREL_EXPORT HttpResponseDevice : public qvIoDevice
{
public:
    /// Made by the request that it belongs to, which it keeps a reference to.
    explicit HttpResponseDevice(HttpBaseRequest& request);

    /// Discards unsent data. Thread: the one that deletes the request.
    ~HttpResponseDevice() override;

    /// The device is write-only: sets the error "read not implemented" and returns 0.
    uint64_t readBytes(char* buf, size_t len) override;

    /// Takes `len` bytes of the body.
    ///
    /// Returns `len`, or 0 when refused: not the request's worker thread, body ended, or
    /// device in error. Waits, once, without limit, while more than 256 KiB are ready and
    /// not yet sent; a lost connection ends the wait. The wait never ends when the daemon does
    /// not fetch the body to its end: write nothing for HEAD and for status 204 and 304, and
    /// not more than the declared length. In event-driven mode a body that is not sent (HEAD, 204,
    /// 304) is discarded and only counted in place of a wait, and a write that would wait on a
    /// daemon thread is refused, with a line in the log. Thread: the request's worker.
    uint64_t writeBytes(const char* data, size_t len) override;

    /// Hands everything written so far to the daemon, also a chunk of less than 64 KiB.
    /// Returns the result of `writeBytes(nullptr, 0)`. Thread: the request's worker.
    uint64_t flush();

    /// The body is complete; later writes are refused. Thread: the request's worker.
    void endSending();

    /// True when the body was sent from one buffer or the device is in error.
    /// Any thread, no lock.
    bool atEnd() const override;

    /// Announces the response: its head is final and the daemon may send it. Returns true when
    /// this call announced it, false when it was announced before. The head must not change
    /// afterwards. Any thread; takes the device's mutex.
    bool setResponseReady();

    /// Moves the ready bytes to `out`. Thread: the daemon's, with the device's mutex held.
    /// Not for applications.
    void getData(std::vector<char>& out);

    /// Bytes handed over and not yet fetched by the daemon. Any thread, no lock.
    size_t getDataSize() const;

    /// True while there are such bytes. Any thread, no lock.
    bool hasDataToSend() const;

    /// Bytes accepted by `writeBytes`, or fetched from the body source, so far. Any thread, no
    /// lock.
    uint64_t getSentBytes() const;

    /// Copies up to `max` bytes to `buf` and returns how many. Both flags are set to whether
    /// the body is complete when nothing more was ready, otherwise to false. Thread: the
    /// daemon's. Not for applications.
    size_t sendChunksThreadSafe(void* buf, size_t max, bool& ended, bool& endedToo);

    /// Puts the device in error with "Http response device : " and `reason` and wakes the
    /// writer. Thread: the daemon's, with the device's mutex held. Not for applications.
    void setConnectionLost(const std::string& reason);

    /// The daemon fetches the body from `source`; nothing is written to this device. The body is
    /// complete for the device, as after `endSending`: the rest of an upload is discarded. Its
    /// length is sent as Content-Length; see HttpResponseInterface::getContentLength. For HEAD and
    /// for status 204 and 304 the source is not read.
    ///
    /// Any thread, once, before `setResponseReady`. Returns false and destroys the source, with a
    /// line in the log, in polling mode, for null, after another source, a write, `endSending` or
    /// `setResponseReady`, and when the resumer of the source serves another response; without a
    /// line when the device is in error.
    bool setBodySource(std::unique_ptr<BodySource> source);

private:
    friend struct impl::DispatchAccess;

    using Chunk = std::vector<char>;
    using Queue = std::list<Chunk>;

    bool mayWrite() const;
    bool wouldHandOver(size_t len, int64_t nowMs) const;
    bool isToHead() const;
    bool discardUnread(Queue::iterator end, uint64_t bytes) QV_REQUIRES(*mMutex);
    void resume() QV_REQUIRES(*mMutex);
    const char* takeSource(std::unique_ptr<BodySource>& source);
    void handOver(Queue::iterator end, uint64_t bytes);
    bool takeOver(size_t space, bool& ended);

    HttpBaseRequest* mRequest;
    std::atomic<uint32_t> mResponseState;  // changed under mMutex, first looked at without
    Queue mReadyQueue QV_GUARDED_BY(*mMutex);
    std::atomic<uint64_t> mReadyBytes;  // changed under mMutex
    Queue mFillQueue;                   // writer
    uint64_t mFillBytes;                // writer
    int64_t mLastHandOverMs;            // writer
    Queue mSendQueue;                   // daemon thread
    uint64_t mSendOffset;               // daemon thread
    std::atomic<uint64_t> mSentBytes;   // changed by the writer
    std::unique_ptr<qvMutex> mMutex;
    std::unique_ptr<qvWaitCondition> mSpaceFreed;
    std::atomic<bool> mCompleted;                // changed under mMutex
    std::atomic<bool> mTakenWhole;               // changed under mMutex
    bool mFlushRequested;                        // writer
    bool mSuspended QV_GUARDED_BY(*mMutex);      // the connection waits for this device
    bool mSourceResumed QV_GUARDED_BY(*mMutex);  // and has not been read since
    std::unique_ptr<BodySource> mSource QV_GUARDED_BY(*mMutex);  // used by the daemon thread
    std::shared_ptr<impl::BodySignal> mSourceSignal QV_GUARDED_BY(*mMutex);
    bool mBodyUnread QV_GUARDED_BY(*mMutex);          // the daemon has queued a head only
    uint64_t mDiscardedBytes QV_GUARDED_BY(*mMutex);  // of a body that is not sent
};

/// The head of a response: status, declared length, headers and cookies. Derive from it.
///
/// The operations are called on a daemon thread when the response is queued. Their results must not
/// change between `setResponseReady` and the completion of the request.
class WENDREL_EXPORT HttpResponseInterface
{
public:
    /// Ordering key to the header's name as it is sent and its value. Use the name in lower
    /// case as key: the daemon sends a second Date when "Connection" comes after "Date".
    using HeaderMap = std::map<std::string, std::pair<std::string, std::string>>;

    /// Cookie name to cookie value.
    using CookieMap = std::map<std::string, std::string>;

    HttpResponseInterface() = default;

    /// Thread: the one that deletes the request.
    virtual ~HttpResponseInterface();

    /// Each is sent as a Set-cookie header of its own, in the order of the names.
    virtual const CookieMap& getCookies() = 0;

    /// Sent in the order of the keys. The daemon adds Date and Content-Length (or
    /// Transfer-Encoding) and drops a header with an empty value, a space in its name or a
    /// line break in its value.
    virtual const HeaderMap& getHeaders() = 0;

    /// 100 to 999; the daemon closes the connection without a response on any other value.
    virtual uint32_t getStatusCode() = 0;

    /// Length of the body in bytes; negative: not known. Not called when the body is complete and
    /// at most 536870911 bytes long when the response is queued. The length of a body source has
    /// precedence, with a line in the log when both are known and differ. A body source of unknown
    /// length must not end before the length given here: the connection is closed then. Bytes
    /// beyond it are not read.
    virtual int64_t getContentLength() = 0;

    /// A line for the application's own log. Not called by the library.
    virtual std::string describe() = 0;
};

}  // namespace qv

#endif
