/// A request that knows how to read its body and how to send its response.
#ifndef WENDREL_KIT_REQUEST_H
#define WENDREL_KIT_REQUEST_H

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>
#include <Wendrel/kit/RequestReaper.h>
#include <Wendrel/kit/ResponseHead.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

namespace qv::kit
{

/// The outcome of reading a body.
enum class BodyResult {
    Complete,  ///< the body has been read to its end
    More,      ///< the buffer is full, there may be more
    TooLarge,  ///< longer than the limit
    Aborted  ///< the peer closed the connection, the server stops, or nothing came for six minutes
};

/// The request class of the kit. Everything below is for the thread that serves the request,
/// unless it says otherwise. Made by Application::newRequest, deleted by the RequestReaper.
///
/// A response is either one `reply`, or `startStream`, any number of `write`, and `finish`.
/// A request that has no response when its handler has returned gets a 500 response.
class Request : public HttpBaseRequest, private HttpWaitListener
{
public:
    /// Thread: the daemon's.
    Request();

    /// Thread: a worker, the reaper's, or the one that destroys the application.
    ~Request() override;

    // The request.

    /// The part of the path that the route's `{name}` stands for, decoded; empty when the
    /// route has none of this name.
    const std::string& getPathParameter(const std::string& name) const;

    /// For the router.
    void setPathParameters(std::map<std::string, std::string> parameters);

    /// Whether only the head of the response will be sent.
    bool isHead() const { return getRequestType() == HEAD; }

    /// The first value of a header (name in lower case); empty when there is none.
    const std::string& getHeaderText(const char* name) const;

    /// The whole value of a header (name in lower case) as it was received, commas included; the
    /// lines of a repeated header are joined by ", ". Empty when there is none.
    const std::string& getHeaderLine(const char* name) const;

    /// The length that the client declared for its body; -1 when it declared none.
    int64_t getDeclaredBodyLength() const;

    // The body.

    /// Fills `buf` with `len` bytes, waiting for them; `got` is how many there are, less than
    /// `len` only at the end. More: the buffer is full. A closed connection ends the wait
    /// within about two seconds: Aborted. The daemon does not notice a client that closes its
    /// side together with its last bytes; that wait ends with `connectionTimeoutMs`.
    BodyResult readBody(char* buf, size_t len, size_t& got);

    /// Appends the whole body to `body`. A declared length above `limitBytes` is refused
    /// before anything is read, any other body as soon as it is longer: TooLarge.
    BodyResult readWholeBody(uint64_t limitBytes, std::string& body);

    // The response.

    /// The head of the response; not to be changed after it has been announced.
    ResponseHead& getHead() { return mHead; }

    /// Responds with `body`. For HEAD and for status 204 and 304 only its length is sent; with
    /// an empty `body` there, the length set in the head.
    /// False when the request has its response already or the connection is closed.
    bool reply(uint32_t status, const std::string& contentType, const std::string& body);

    /// Responds with `{"error": message, "status": status}` as application/json.
    bool replyError(uint32_t status, const std::string& message);

    /// Announces the head; the body follows by `write`. With a length set in the head the
    /// body must be exactly that long. False as with `reply`.
    bool startStream();

    /// Writes the next `len` bytes of the body; waits while the client is slow. Nothing is
    /// sent for HEAD and for status 204 and 304, and true is returned. False when the client
    /// has closed the connection, the response has ended or the declared length would be exceeded:
    /// stop then.
    bool write(const char* data, size_t len);

    /// Sends the bytes written so far without waiting for 64 KiB to come together.
    bool flush();

    /// Ends the body. A body shorter than declared is cut off by closing the connection, so
    /// that the client notices.
    void finish();

    /// Something went wrong on our side: status 500 with `message` and nothing of the head set
    /// so far; a response that has begun is abandoned, one that has ended stays.
    void failWith(const std::string& message);

    /// Gives the response up, unless it has ended: the client finds the connection closed in the
    /// middle of it, or gets a status 500 when nothing has been sent yet.
    void abandon(const std::string& reason);

    /// True once `reply` or `startStream` has announced the response.
    bool isAnnounced() const { return mAnnounced; }

    /// False for HEAD and for status 204 and 304.
    bool hasBody();

    /// True when no response can be sent any more. Any thread.
    bool isAborted() const { return getResponseDevice().hasDeviceError() || isCompleted(); }

    /// The head, for the library.
    HttpResponseInterface& getResponse() override { return mHead; }

    /// The request itself.
    HttpWaitListener& getWaitListener() override { return *this; }

protected:
    /// Ends the wait for the body when the request has been completed. An override calls this.
    void onWaitingForData() override;

    /// Tells the reaper. An override calls this.
    void onCompleted(int terminationCode) override;

private:
    friend class Application;
    friend class RequestReaper;

    bool announce();
    bool mayAnnounce() const;
    bool mayHaveUpload() const;
    void closeResponse();

    ResponseHead mHead;
    std::map<std::string, std::string> mPathParameters;
    uint64_t mWrittenBytes = 0;
    bool mAnnounced = false;
    bool mEnded = false;
    RequestReaper* mReaper = nullptr;
    RequestReaper::List::iterator mPlace;
    std::atomic<int> mUsers{2};  // its worker and the daemon
};

}  // namespace qv::kit

#endif
