/// The operations that respond, common to a request and a deferred response.
#ifndef WENDREL_KIT_RESPONDER_H
#define WENDREL_KIT_RESPONDER_H

#include <Wendrel/BodySource.h>
#include <Wendrel/kit/Cookie.h>
#include <Wendrel/kit/Files.h>
#include <Wendrel/kit/ResponseHead.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

namespace qv::kit
{

class Exchange;

/// The type of a value as JSON: nlohmann::json without one. See `<Wendrel/kit/Json.h>`.
template <typename Value> struct JsonOf
{
    static_assert(!std::is_void_v<Value>, "#include <Wendrel/kit/Json.h> for JSON");

    using Type = Value;  ///< as given
};

/// One response: any number of `setHeader`, `addHeader` and `setCookie`, then one `reply`. For HEAD
/// and for status 204 and 304 no body is sent, only its length.
///
/// Each `reply...` returns true when its response has been given to the server. False: the client
/// has closed the connection, a deadline has passed or the server stops; stop working for the
/// request then. A second response for one request is discarded, returns false and logs a line that
/// names the route. None of the operations waits for the client. Used by one thread at a time.
class Responder
{
public:
    Responder(const Responder&) = delete;
    Responder& operator=(const Responder&) = delete;

    /// As `ResponseHead::setHeader`.
    void setHeader(const std::string& name, const std::string& value)
    {
        mHead.setHeader(name, value);
    }

    /// As `ResponseHead::addHeader`.
    void addHeader(const std::string& name, const std::string& value)
    {
        mHead.addHeader(name, value);
    }

    /// As `ResponseHead::setCookie`.
    void setCookie(const Cookie& cookie) { mHead.setCookie(cookie); }

    /// As `ResponseHead::setContentLength`: bytes of a stream.
    void setContentLength(int64_t bytes) { mHead.setContentLength(bytes); }

    /// Responds with 200 and `body`.
    bool reply(std::string body, const ContentType& type = ContentType::text());

    /// Responds with `body` and any status from 200 to 599; another one becomes 500 with a line in
    /// the log.
    bool reply(int status, std::string body, const ContentType& type = ContentType::text());

    /// Responds with `status` and an empty body without a type: 204, 304, or a redirection with its
    /// header `Location`.
    bool reply(int status);
    /// Neither a status nor a body.
    template <typename Other,
              std::enable_if_t<std::is_same_v<Other, bool> || std::is_same_v<Other, char>, int> = 0>
    bool reply(Other) = delete;

    /// Responds with 200 and a text that any number of responses share, without a copy. Null:
    /// empty.
    bool reply(std::shared_ptr<const std::string> body,
               const ContentType& type = ContentType::text());

    /// Responds with 200 and `value` as JSON: `replyJson({{"id", 7}})`. Bytes in it that are not
    /// UTF-8 are replaced by U+FFFD. Include `<Wendrel/kit/Json.h>`.
    template <typename Value = void> bool replyJson(const typename JsonOf<Value>::Type& value);

    /// The same with a status.
    template <typename Value = void>
    bool replyJson(int status, const typename JsonOf<Value>::Type& value);

    /// Responds with the standard reason phrase of `status` and `message`, which may be empty: as
    /// problem details (RFC 9457), `{"title":"Not Found","status":404,"detail":message}`; as a page
    /// for a client that prefers HTML, as browsers do; as a text for one that accepts neither.
    /// `status`: 400 to 599; another one becomes 500. Headers set so far are sent, too.
    bool replyError(int status, const std::string& message = std::string());

    /// Responds with a body that the server fetches while it sends: a file, lent memory, a
    /// callback. `setRange` of a source for 206 comes before. Null: 500 with a line in the log.
    bool replySource(std::unique_ptr<BodySource> source, const ContentType& type);

    /// The same with a status.
    bool replySource(int status, std::unique_ptr<BodySource> source, const ContentType& type);

    /// Responds with the file at `path`: 200, or what the conditions and the ranges of the request
    /// make of it, as RFC 9110 has them in sections 13 and 14: 206, also with several ranges, 304,
    /// 412 and 416. 404 without such a regular file, 403 when it must not be read, 500 with a line
    /// in the log for any other error. Headers set so far are sent, too.
    ///
    /// The file is opened at once, and read by the daemon thread as the client takes it. It is sent
    /// in the length that it has now; the connection is closed when it becomes shorter.
    bool replyFile(const std::string& path, const FileOptions& options = FileOptions());

    /// The same with a file that is open for reading, named `name`: `replyOpenFile(openat(...))`.
    /// A negative `descriptor` becomes the response that `errno` stands for; any other is owned,
    /// also when this returns false. Its position is not used.
    bool replyOpenFile(int descriptor, const std::string& name,
                       const FileOptions& options = FileOptions());

    /// Whether a response can still be sent: false once there is one, when the client has closed
    /// the connection and when a deadline has passed. Any thread.
    bool isOpen() const;

    /// The route, for an application's own log: "GET /files/{name}".
    std::string route() const;

protected:
    /// `exchange` outlives this or is null.
    explicit Responder(Exchange* exchange) : mExchange(exchange) {}
    Responder(Responder&& other) noexcept;             ///< leaves `other` without a request
    Responder& operator=(Responder&& other) noexcept;  ///< leaves `other` without a request
    ~Responder() = default;

    /// The request, for an operation that responds; null, with a line in the log if that is an
    /// error, when this object responds to none.
    Exchange* responding() const;

    ResponseHead mHead;        ///< of the response that follows
    Exchange* mExchange;       ///< null after a move
    bool mIsHandedOn = false;  ///< to a deferred response

private:
    bool replyText(int status, std::shared_ptr<const std::string> body, const ContentType* type);
};

}  // namespace qv::kit

#endif
