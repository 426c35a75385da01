/// Responses that come later, from any thread.
#ifndef WENDREL_KIT_DEFERREDRESPONSE_H
#define WENDREL_KIT_DEFERREDRESPONSE_H

#include <Wendrel/kit/Form.h>
#include <Wendrel/kit/Responder.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>

namespace qv::kit
{

class StreamQueue;

/// The outcome of `DeferredStream::write`.
enum class StreamWrite {
    Taken,  ///< queued
    Full,   ///< nothing queued: the client is slower than the application, or the memory budget is
            ///< used up; see `onWritable`
    Gone    ///< nothing queued: no byte reaches the client any more
};

/// The body of a deferred response, written from any thread. Made by
/// `DeferredResponse::startStream`; movable; used by one thread at a time. Destroyed before
/// `finish` the connection is closed in the middle of the body, with a line in the log that names
/// the route.
class DeferredStream
{
public:
    /// Bytes that a queue holds unless told otherwise.
    static constexpr size_t kDefaultQueueBytes = 65536;

    /// Of no response: `write` returns Gone.
    DeferredStream();
    /// Leaves `other` without a response.
    DeferredStream(DeferredStream&& other) noexcept;
    /// As the destructor, then as the constructor.
    DeferredStream& operator=(DeferredStream&& other) noexcept;
    DeferredStream(const DeferredStream&) = delete;
    DeferredStream& operator=(const DeferredStream&) = delete;
    /// As above.
    ~DeferredStream();

    /// Queues `data` whole or not at all; never waits. An empty queue takes data of any size;
    /// otherwise the queue takes data that fits into its limit. Queued bytes of all streams count
    /// within `ServerOptions::memoryBudgetBytes`: data for which it has no free memory is refused
    /// with Full, also by an empty queue. For HEAD the data is discarded: Taken.
    StreamWrite write(std::string_view data);

    /// `callback` is called each time that the queue has fallen to half of its limit after a
    /// `write` that returned Full; at once when that has happened already. When the memory budget
    /// was the reason, also as soon as it has free memory for that data, or for a queue up to its
    /// limit; looked at every 64 ms. It may write. It replaces the one before. Thread: the
    /// daemon's, one of the server, or the caller's; it must not wait. An exception that leaves it
    /// is logged with the route.
    void onWritable(std::function<void()> callback);

    /// As `DeferredResponse::onGone`.
    void onGone(std::function<void()> callback);

    /// The body is complete. Queued bytes are sent.
    void finish();

    /// Bytes that are queued.
    size_t queuedBytes() const;

    /// Whether no byte reaches the client any more.
    bool isGone() const;

private:
    friend class DeferredResponse;
    DeferredStream(Exchange* exchange, std::shared_ptr<StreamQueue> queue);
    void close();

    Exchange* mExchange;
    std::shared_ptr<StreamQueue> mQueue;
};

/// The response to one request, given later and from any thread. Made by `Request::defer`. Movable:
/// keep it where the response will be known. It holds no thread; the request and its connection
/// wait for it, until the client closes the connection, a deadline passes or the server stops.
///
/// It takes exactly one `reply...` or `startStream`. Destroyed without one it responds with 500 and
/// logs a line that names the route. It may outlive the server: then it does nothing.
class DeferredResponse : public Responder
{
public:
    /// Of no request: `reply` returns false.
    DeferredResponse() : Responder(nullptr) {}
    /// Leaves `other` without a request.
    DeferredResponse(DeferredResponse&& other) noexcept = default;
    /// As the destructor, then as the constructor.
    DeferredResponse& operator=(DeferredResponse&& other) noexcept;
    /// As above.
    ~DeferredResponse();

    /// Sends the head; the body is written to the stream that is returned, whose queue holds at
    /// most `queueBytes`. When no response can be sent any more, its `write` returns Gone.
    DeferredStream startStream(const ContentType& type, int status = 200,
                               size_t queueBytes = DeferredStream::kDefaultQueueBytes);

    /// `callback` is called once when no response can reach the client any more although none, or
    /// not all of it, has been sent: the client has closed the connection, the deadline has passed,
    /// or the server stops; at once when that has happened already. It replaces the one before. It
    /// is destroyed, uncalled, when `reply...` has been called in time, or a stream has been sent
    /// whole.
    ///
    /// Thread: the daemon's, one of the server, or the caller's; it must not wait. No lock is held,
    /// and `isOpen` is false: it may use or destroy this object if the application guards it. An
    /// exception that leaves it is logged with the route.
    void onGone(std::function<void()> callback);

    /// Delivers the body of a `streaming` route without holding a worker while the client is slow.
    /// `onPiece` is called with each piece of the body as it arrives, at most 65536 bytes that live
    /// until it returns; `onComplete` once, after the last piece. The next piece follows when the
    /// call has returned: until then the client is not read beyond `uploadQueueBytes`. Pieces begin
    /// behind what the handler has read itself; it reads nothing afterwards. Throws
    /// std::logic_error in a route that is not streaming, and the second time.
    ///
    /// Thread: a worker, any of them, one call at a time; it may wait, and holds the worker then.
    /// Neither is called after a response, after `onGone`, and once this object is destroyed, but
    /// for a call that is under way on its worker at that moment: let the callbacks own what they
    /// use. Both are destroyed then, or after `onComplete`: they may hold this object. An HttpError
    /// that leaves them, anything else (500, logged with the route), and a body beyond
    /// `Route::maxBodyBytes` (413) become the response; `onGone` is called.
    void onBody(std::function<void(std::string_view)> onPiece, std::function<void()> onComplete);

    /// Delivers a form of the type multipart/form-data as `onBody` delivers a body, in constant
    /// memory: calls `onPart` with each field and file in the order of the form, and the function
    /// that it returns with the bytes of that part; then `onComplete`. Errors of the form become
    /// the response: those of `Request::readParts`.
    void onParts(std::function<PartTaker(const PartHead&)> onPart, std::function<void()> onComplete,
                 const FormLimits& limits = FormLimits());

    /// Without a response within `limit` from now, the response is that of `replyError(status)`,
    /// or an empty one with status 204 or 304, and `onGone` is called. It replaces the deadline
    /// before; a limit that is not positive removes it. A stream that has been started in time has
    /// no deadline.
    void setDeadline(std::chrono::milliseconds limit, int status = 503);

private:
    friend class Request;
    explicit DeferredResponse(Exchange* exchange) : Responder(exchange) {}
    void close();
};

}  // namespace qv::kit

#endif
