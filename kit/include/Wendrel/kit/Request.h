/// A request as its handler sees it.
#ifndef WENDREL_KIT_REQUEST_H
#define WENDREL_KIT_REQUEST_H

#include <Wendrel/kit/DeferredResponse.h>
#include <Wendrel/kit/Form.h>
#include <Wendrel/kit/HttpError.h>
#include <Wendrel/kit/Parameter.h>
#include <Wendrel/kit/Responder.h>

#include <qvSystem/IpAddress.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>

namespace qv
{
struct TlsConnection;
}

namespace qv::kit
{

/// Methods, one bit each.
enum class Method : uint16_t {
    Options = 2,    ///< OPTIONS
    Get = 4,        ///< GET
    Post = 8,       ///< POST
    Put = 16,       ///< PUT
    Delete = 32,    ///< DELETE
    Head = 64,      ///< HEAD
    Connect = 128,  ///< CONNECT
    Trace = 256,    ///< TRACE
    Patch = 512     ///< PATCH
};

/// One request, and its response. It is its handler's until the handler returns: keep no reference
/// to it, `defer` instead. Every text that is returned by reference lives as long, and the texts of
/// parameters, headers and cookies, which convert to strings and to numbers: see Parameter.
///
/// A response is one `reply...`, or `startStream`, any number of `write`, and `finish`, or `defer`.
/// Without one the response is 500, with a line in the log that names the route.
class Request : public Responder
{
public:
    // The head of the request.

    /// HEAD, too, in a handler for GET.
    Method method() const;

    /// The path, decoded. "%2F" cannot be told from "/": use path parameters.
    const std::string& path() const;

    /// Path and query as received: "/a%20b?c=d".
    const std::string& target() const;

    /// The part of the path that `{name}` of the route stands for, decoded; the segments of
    /// `{name*}` are joined by "/". Throws std::logic_error when the route has no such parameter.
    Parameter pathParameter(std::string_view name) const;

    /// The first value of a parameter of the query, decoded; empty when there is none.
    Parameter query(const std::string& name) const;

    /// All values of a parameter of the query, in order of arrival.
    const std::list<std::string>& queryValues(const std::string& name) const;

    /// The value of a header as it was received; upper and lower case do not matter. The lines of a
    /// repeated header are joined by ", ". Empty when there is none.
    Parameter header(std::string_view name) const;

    /// The value of a cookie; empty when there is none.
    Parameter cookie(const std::string& name) const;

    /// Address and port of the client; see `ServerOptions::trustedProxies`.
    const IpAddress& clientAddress() const;

    /// Whether the request has come over TLS to this server; see `HttpBaseRequest::isSecure`.
    bool isSecure() const;

    /// The TLS of the connection; null when it has none. Include <Wendrel/TlsConnection.h>.
    const TlsConnection* tls() const;

    /// The length that the client declared for its body; -1 when it declared none.
    int64_t contentLength() const;

    // The body. Of a route that is not `streaming` it has been received whole: none of these waits.

    /// The whole body. In a streaming route it waits, and throws HttpError as `readAll` does, with
    /// `ServerOptions::maxBodyBytes` as the limit. Read either by this or by `readBody`.
    const std::string& body();

    /// The body, read by `body`, as nlohmann::json; `json<Task>()` as a Task, which has a function
    /// `from_json`. Throws HttpError: 415 when its type is neither application/json nor one that
    /// ends in "+json", 400 when it is no JSON or cannot be a Value. Include
    /// `<Wendrel/kit/Json.h>`.
    template <typename Value = void> typename JsonOf<Value>::Type json();

    /// The body, read by `body`, as a form of either encoding: application/x-www-form-urlencoded or
    /// multipart/form-data. It lives as long as the request; a further call returns the same form.
    /// Throws HttpError: 415 for another type, 400 for a malformed form, 413 beyond a limit.
    const Form& form(const FormLimits& limits = FormLimits());

    /// Reads a form of the type multipart/form-data in constant memory: calls `take` with each
    /// field and file in the order of the form. For a streaming route, in which it waits. Throws as
    /// `form` and `readBody` do, and passes exceptions of `take` on.
    void readParts(const std::function<void(Part&)>& take, const FormLimits& limits = FormLimits());

    /// Reads up to `size` bytes, in a streaming route waiting until there are so many or the body
    /// ends. Returns how many, 0 at the end of the body. Throws HttpError: 413 beyond
    /// `Route::maxBodyBytes`, 400 when the body cannot be received any more.
    size_t readBody(char* buffer, size_t size);

    /// The rest of the body. Throws HttpError: 413 when it is longer than `limitBytes`, otherwise
    /// as `readBody`.
    std::string readAll(uint64_t limitBytes);

    // A response that is written while it is sent, by a handler on a worker. It occupies the worker
    // while the client is slow: see `DeferredResponse::startStream` for one that does not.

    /// Sends the head. False as with `reply`; in a nonBlocking route always, with a line in the
    /// log.
    bool startStream(const ContentType& type = ContentType::text(), int status = 200);

    /// Writes the next bytes of the body; waits while more than 256 KiB wait for the client. False
    /// when the client has closed the connection, the body has ended or is longer than declared:
    /// stop then. For HEAD and for status 204 and 304 nothing is sent, and true is returned.
    bool write(std::string_view data);

    /// Sends the bytes written so far without waiting for 64 KiB to come together.
    bool flush();

    /// Ends the body, as the end of the handler does. A body shorter than declared is cut off by
    /// closing the connection.
    bool finish();

    // A response that comes later.

    /// The response is given by the object that is returned, any time and from any thread; the
    /// worker is free when the handler returns. Headers set so far move on to it. Throws
    /// std::logic_error after a response or another `defer`.
    [[nodiscard]] DeferredResponse defer();

    // Values that hooks hand to handlers.

    /// Keeps `value` until the request has ended, in place of one of the same type: the user that a
    /// hook has found. For hooks and the handler, before the response or `defer`. Hooks that run
    /// after it read it.
    template <typename Value> void attach(Value value)
    {
        attachValue(typeid(Value), std::make_shared<Value>(std::move(value)));
    }

    /// The value of this type that was given to `attach`. Throws std::logic_error without one.
    template <typename Value> const Value& attached() const
    {
        const Value* const found = findAttached<Value>();
        if (!found)
            refuseMissing(typeid(Value));
        return *found;
    }

    /// The same; null without one.
    template <typename Value> const Value* findAttached() const
    {
        return static_cast<const Value*>(attachedValue(typeid(Value)));
    }

private:
    void attachValue(const std::type_info& type, std::shared_ptr<const void> value);
    const void* attachedValue(const std::type_info& type) const;
    [[noreturn]] static void refuseMissing(const std::type_info& type);
    const std::string& jsonText();

    friend class Directory;
    friend class Exchange;
    explicit Request(Exchange& exchange);
    ~Request() = default;
};

}  // namespace qv::kit

#endif
