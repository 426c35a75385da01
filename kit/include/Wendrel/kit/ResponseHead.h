/// The head of a response: status, headers and cookies.
#ifndef WENDREL_KIT_RESPONSEHEAD_H
#define WENDREL_KIT_RESPONSEHEAD_H

#include <Wendrel/HttpDevices.h>
#include <Wendrel/kit/Cookie.h>

#include <cstdint>
#include <string>
#include <utility>

namespace qv::kit
{

/// The type of a body: the value of `Content-Type`. Never converted from a text by itself, so that
/// a body and its type cannot be swapped.
class ContentType
{
public:
    /// "image/png". A line break in it is an error as in `Responder::setHeader`.
    explicit ContentType(std::string value) : mValue(std::move(value)) {}

    /// "text/plain; charset=utf-8", the type of a body unless another one is given.
    static ContentType text() { return ContentType("text/plain; charset=utf-8"); }
    /// "text/html; charset=utf-8"
    static ContentType html() { return ContentType("text/html; charset=utf-8"); }
    /// "application/json"
    static ContentType json() { return ContentType("application/json"); }
    /// "application/octet-stream"
    static ContentType bytes() { return ContentType("application/octet-stream"); }

    /// The value of the header.
    const std::string& value() const { return mValue; }

private:
    std::string mValue;
};

/// Collects the head of one response. A plain value, used by one thread at a time. `Date` and the
/// header of the body's length are the daemon's.
///
/// An impossible name or value is not stored. The first one is kept as the error of the head; the
/// response becomes 500 with a line in the log that names the route.
class ResponseHead
{
public:
    /// Sets a header in place of all of the same name; upper and lower case do not matter. An empty
    /// value removes it. Errors: a name that is no token, a control character other than tab in the
    /// value, and the names `Content-Length`, `Transfer-Encoding` and `Set-Cookie`.
    void setHeader(const std::string& name, const std::string& value);

    /// Adds a header beside those of the same name. Errors as above.
    void addHeader(const std::string& name, const std::string& value);

    /// Sends `cookie` in place of one of the same name. Errors: those of `Cookie::error`.
    void setCookie(const Cookie& cookie);

    /// The first value of a header set so far; empty when there is none.
    std::string header(const std::string& name) const;

    /// Declares the length of the body in bytes, for a stream or for a body that is not sent (HEAD,
    /// 304). Negative, the default: not known. Bodies that are given whole need none.
    void setContentLength(int64_t bytes) { mContentLength = bytes; }

    /// As declared.
    int64_t contentLength() const { return mContentLength; }

    /// The error of the head; empty when there is none.
    const std::string& error() const { return mError; }

    /// For the library: by ordering key, as HttpResponseInterface wants them.
    const HttpResponseInterface::HeaderMap& headers() const { return mHeaders; }
    /// For the library.
    const HttpResponseInterface::CookieMap& cookies() const { return mCookies; }

private:
    bool check(const std::string& name, const std::string& value);
    void fail(const std::string& error);

    HttpResponseInterface::HeaderMap mHeaders;
    HttpResponseInterface::CookieMap mCookies;
    std::string mError;
    int64_t mContentLength = -1;
};

}  // namespace qv::kit

#endif
