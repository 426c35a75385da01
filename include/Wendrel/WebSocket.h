/// Upgraded connections, and the threads that drive them.
#ifndef WENDREL_WEBSOCKET_H
#define WENDREL_WEBSOCKET_H

#include <Wendrel/Export.h>

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvThread.h>
#include <qvSystem/qvWaitCondition.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

struct pollfd;

namespace qv
{

namespace impl
{
struct WebSocketAccess;
}

namespace http
{

class WebSocketThread;

/// One upgraded connection. Derive from it, override `onMessageReceived`, and have
/// `HttpServerImpl::onNewWebSocket` move the connection it is given into an object of the
/// derived class; give that to a WebSocketThread.
///
/// The thread that holds the connection (the poll thread or one worker of the WebSocketThread)
/// owns the reading side, without a lock; `lock` guards the writing side, which any thread may
/// fill. The object must outlive every call of `writeMessage`: take it out of the
/// application's own lists in the destructor of the derived class.
///
/// Frames are handled as described in docs/websocket-polling-mode.md: no control frames, no size
/// limits, no end of stream. Ignore SIGPIPE: sending on a closed connection raises it.
class WENDREL_EXPORT WebSocket
{
public:
    /// The value of Sec-WebSocket-Accept for a Sec-WebSocket-Key: 28 characters, or empty when
    /// `key` is null or not 24 characters long. Any thread.
    static std::string ComputeSecret(const char* key);

    /// Parses the header of a client's frame. `data`: its first bytes, 14 of them readable;
    /// `available`: bytes buffered from there on, the payload included. False while the frame
    /// is not buffered whole; true with `error` for a frame that must end the connection; true
    /// otherwise, with everything else set except that `isBinary` is left alone for a
    /// continuation frame. The four bytes at `maskKey` are the masking key. Any thread.
    static bool GetLength(const uint8_t* data, size_t available, bool expectFirstFrame,
                          uint8_t* maskKey, size_t& payloadLength, size_t& headerSize, bool& error,
                          bool& isBinary, bool& fin);

    /// Writes the header of a server's frame with a payload of `length` bytes to `out`, which
    /// has space for 10 bytes, and sets `headerSize` to 2, 4 or 10. Any thread.
    static void WriteHeader(uint8_t* out, size_t length, bool isBinary, bool isFirstFrame, bool fin,
                            size_t& headerSize);

    /// Stores both: the non-blocking socket of the connection and the daemon's handle that
    /// closes it. The socket stays the daemon's.
    WebSocket(int socket, void* upgradeHandle);

    /// Takes over socket, handle, queues and message, and leaves `upgraded` closed. No other
    /// thread may use either object meanwhile.
    WebSocket(WebSocket&& upgraded);

    WebSocket(const WebSocket&) = delete;
    WebSocket& operator=(const WebSocket&) = delete;
    WebSocket& operator=(WebSocket&&) = delete;

    /// Closes nothing: call `markForDeletion` first. A connection destroyed without it keeps its
    /// descriptor and its place among the daemon's connections until the daemon stops.
    virtual ~WebSocket();

    /// A whole message has come; `received` may be moved from or changed, it is cleared
    /// afterwards. A ping arrives as text, a pong as binary. Thread: the worker that holds the
    /// connection, with no lock held. An exception that leaves it ends the process.
    ///
    /// The default ignores the message and sends 262008 bytes, the word "response" repeated, as one
    /// binary message: override it.
    virtual void onMessageReceived(std::vector<uint8_t>& received, bool isBinary);

    /// Queues one message, in frames of at most 131000 bytes. Copies the data. Sends at once
    /// when called from `onMessageReceived` of this object; otherwise the WebSocketThread sends
    /// it, after 10 ms at the latest if a worker is free. The queue of a client that does not read
    /// grows without limit. Without memory for all of it nothing is queued
    /// (std::bad_alloc). Any thread.
    void writeMessage(const void* data, size_t size, bool isBinary) QV_EXCLUDES(lock);

    /// Lets the daemon close the socket; further calls do nothing more. Never call it after the
    /// daemon has stopped. Thread: the one that holds the connection, or the application before
    /// it has given the connection away.
    void markForDeletion();

    /// The socket; -1 once closed. Any thread, but a worker may be closing it at this moment.
    int getSocket() const { return socket; }

    /// Bytes are queued for sending. Any thread, no lock.
    bool hasWritePending() const { return writePending; }

    /// The socket may have bytes to read. Any thread, no lock.
    bool hasReadPending() const { return readPending; }

    /// True sets `readPending`; false changes nothing. Thread: the one that holds the
    /// connection; likewise for all below.
    void setReadEnabled(bool enable)
    {
        if (enable)
            readPending = true;
    }

    /// The calling thread is the worker that handles this connection.
    void assignCurrentThread() QV_EXCLUDES(lock);

    /// No worker handles it any more.
    void clearCurrentThread() QV_EXCLUDES(lock);

    /// Sends as many of the queued bytes as the socket accepts. False when the connection is lost.
    bool sendDataIfAvailable() QV_EXCLUDES(lock);

    /// Receives until a frame is complete, and handles that one frame; or until the socket is
    /// empty. False when the connection must be closed. Does not return while a client that has
    /// ended its side owes the rest of a frame.
    bool readDataIfAvailable() QV_EXCLUDES(lock);

private:
    friend struct impl::WebSocketAccess;

    enum FrameResult : int { ProtocolError = 0, FrameConsumed = 1, FrameIncomplete = 2 };

    int tryToReadFrame();
    size_t bufferedBytes() const;
    size_t firstReadEnd() const;
    void consumeRead(size_t count);
    void readRawData(std::vector<uint8_t>& dest, const uint8_t* maskKey, size_t offset);
    void skipBytes(size_t count);
    void readNoSeek(uint8_t* out, size_t count) const;
    void queueFrames(const void* data, size_t size, bool isBinary) QV_REQUIRES(lock);
    void writeRawData(const void* data, size_t size) QV_REQUIRES(lock);
    size_t firstWriteEnd() const QV_REQUIRES(lock);
    void removeWrittenBytes(size_t count) QV_REQUIRES(lock);

    const size_t blockSize;
    size_t writeOffset QV_GUARDED_BY(lock);
    size_t lastWriteFill QV_GUARDED_BY(lock);
    size_t readOffset;
    size_t lastReadFill;
    void* upgradeHandle;
    qvMutex lock;
    std::vector<uint8_t> message;
    std::string currentThread QV_GUARDED_BY(lock);
    std::list<std::vector<uint8_t>> writeQueue QV_GUARDED_BY(lock);
    std::list<std::vector<uint8_t>> readQueue;
    std::atomic<int> socket;
    bool messageIsBinary;
    std::atomic<bool> readPending;   // changed by the holder, read by anyone
    std::atomic<bool> writePending;  // whether writeQueue holds anything; changed under lock
};

/// One worker of a WebSocketThread, which makes and owns it.
class WENDREL_EXPORT WebSocketWorkerThread : public qvThread
{
public:
    /// Starts the thread at once.
    explicit WebSocketWorkerThread(WebSocketThread* owner);

    /// Waits for the thread: the owner must have been stopped.
    ~WebSocketWorkerThread() override;

protected:
    /// Serves one connection after another.
    void run() override;

private:
    WebSocketThread* mOwner;
};

/// A poll thread with the connections it owns, and the workers that serve them.
///
/// A connection is owned by exactly one place at a time: the poll thread, the list of those
/// that wait for a worker, or one worker. Connections are destroyed with `lock` held: their
/// destructors must not call this object. The threads must not be interrupted by signals:
/// block these before the threads are started.
class WENDREL_EXPORT WebSocketThread : public qvThread
{
public:
    /// Starts nothing.
    WebSocketThread();

    /// Stops and waits, see `stopThreads`, then destroys the connections that are left without
    /// closing them.
    ~WebSocketThread() override;

    /// Starts `count` workers and the poll thread; does nothing when there are workers already.
    /// With 0, connections are polled and never served. Throws std::system_error when the system
    /// has not so many threads to give; then none is left running. A worker pools up to 1 MiB of
    /// message buffers. Call once, from one thread.
    void startThreads(unsigned count) QV_EXCLUDES(lock);

    /// Takes the connection over, and leaves `socket` null; it is polled within 10 ms. After
    /// `stopThreads` the connection is closed instead and stays with the caller. Any thread.
    void addWebSocket(std::unique_ptr<WebSocket>& socket) QV_EXCLUDES(lock);

    /// Destroys the connection in `socket`, if any, and puts the next one that is ready in its
    /// place; waits for one. After `stopThreads` it returns at once and changes nothing.
    /// Thread: a worker. Not for applications.
    void getFirstWebSocket(std::unique_ptr<WebSocket>& socket) QV_EXCLUDES(lock);

    /// Takes a connection back, for another turn of a worker if there is more to read, else for
    /// the poll thread. After `stopThreads` the connection is closed instead and stays with the
    /// caller. Thread: a worker. Not for applications.
    void giveBackWebSocket(std::unique_ptr<WebSocket>& socket) QV_EXCLUDES(lock);

    /// Ends the threads. With `wait` it returns when they have ended, or after 2147483647 ms
    /// (24 days) for each: a worker does not end while it has a connection, be it one that it is
    /// handling at this moment or one that it has closed and got no other for. So stop with
    /// idle workers only, see docs/websocket-polling-mode.md.
    void stopThreads(bool wait) QV_EXCLUDES(lock);

protected:
    /// The poll thread.
    void run() override;

private:
    friend struct impl::WebSocketAccess;

    using Connections = std::vector<std::unique_ptr<WebSocket>>;

    WebSocketWorkerThread* workerAt(size_t index) QV_EXCLUDES(lock);
    size_t sortCycle(Connections& cycle, const std::vector<pollfd>& polled) QV_REQUIRES(lock);

    std::vector<std::unique_ptr<WebSocketWorkerThread>> workers QV_GUARDED_BY(lock);
    Connections newSockets QV_GUARDED_BY(lock);
    std::list<std::unique_ptr<WebSocket>> readySockets QV_GUARDED_BY(lock);
    qvMutex lock;
    qvWaitCondition workerWake;
    qvWaitCondition pollWake;
    bool pollThreadIdle QV_GUARDED_BY(lock);
    bool running QV_GUARDED_BY(lock);
};

}  // namespace http
}  // namespace qv

#endif
