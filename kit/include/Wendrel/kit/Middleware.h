/// Hooks that are ready-made: logins, limits and headers.
#ifndef WENDREL_KIT_MIDDLEWARE_H
#define WENDREL_KIT_MIDDLEWARE_H

#include <Wendrel/kit/Hooks.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv::kit
{

// Each function makes a Middleware for `Router::use`, and throws std::invalid_argument for an
// option that is impossible.

/// The user that `basicAuthentication` or `bearerAuthentication` has found:
/// `request.attached<AuthenticatedUser>().name`.
struct AuthenticatedUser
{
    std::string name;  ///< as the client, or the check of the token, tells it
};

/// The identifier that `requestId` has given to the request.
struct RequestId
{
    std::string text;  ///< ASCII without control characters and spaces
};

/// Whether both texts are the same, in a time that depends on their lengths only.
bool isSameSecret(std::string_view left, std::string_view right);

/// Lets in requests with a password of the scheme Basic (RFC 7617); others get 401 with a
/// challenge. `passwords`: by user. A comparison takes the same time for a wrong user and a wrong
/// password. Without TLS everybody on the way can read the password.
Middleware basicAuthentication(const std::string& realm,
                               const std::map<std::string, std::string>& passwords);

/// Whether the user is let in. Thread: a worker; it may wait.
using CheckPassword =
    std::function<bool(Request& request, const std::string& user, const std::string& password)>;

/// The same with a check of the application, as in a database.
Middleware basicAuthentication(const std::string& realm, CheckPassword check);

/// The user of a token; none for one that is not valid. Thread: a worker; it may wait.
using CheckToken =
    std::function<std::optional<std::string>(Request& request, const std::string& token)>;

/// Lets in requests with a token in the header `Authorization` (RFC 6750). Others get 401, and 400
/// for a malformed one, with a challenge that names the error.
Middleware bearerAuthentication(const std::string& realm, CheckToken check);

/// Options of `cors`. A plain value.
struct CorsOptions
{
    /// Origins whose pages may read responses: "https://example.com", or "*" alone for all.
    /// "null" is the origin of any page in a sandboxed frame, and not together with `credentials`.
    std::vector<std::string> origins;
    /// Methods of requests that are asked for beforehand.
    std::vector<std::string> methods{"GET", "HEAD", "POST", "PUT", "PATCH", "DELETE"};
    /// Headers that pages may send; "*": all that they ask for.
    std::vector<std::string> headers{"Content-Type"};
    /// Headers of responses that pages may read besides the usual ones.
    std::vector<std::string> exposedHeaders;
    /// Whether requests bring cookies and logins along. Not together with "*" in `origins`.
    bool credentials = false;
    /// How long a browser keeps the permission.
    std::chrono::seconds maxAge{600};
};

/// Lets pages of other origins use the paths below the prefix, as the Fetch standard has it:
/// responds to the requests that browsers send beforehand, with 204, or 403 for an origin that is
/// not listed, and adds headers to all other responses. Use it before authentication, whose login
/// those requests do not have. It refuses no other request: a page of another origin can still send
/// simple ones, whose responses it cannot read.
Middleware cors(CorsOptions options);

/// Options of `rateLimit`. A plain value.
struct RateLimitOptions
{
    /// Requests of one client per second on average.
    double perSecond = 10;
    /// Requests that may come at once, at least 1.
    double burst = 20;
    /// Clients that are kept; beyond it the one that has asked least recently is forgotten.
    size_t maxClients = 65536;
    /// Counts for this key in place of the address; an empty key is not limited. Of a key of more
    /// than 64 bytes its SHA-256 digest is kept. Thread: the daemon's; it must not wait.
    std::function<std::string(const Request&)> key;
};

/// Responds to requests beyond the rate with 429 and `Retry-After`, before their bodies are
/// received. A client is its address (`Request::clientAddress`), for IPv6 the first 64 bits of it.
Middleware rateLimit(RateLimitOptions options);

/// Headers that browsers heed; an empty one is not sent. A plain value.
struct SecurityHeaders
{
    std::string contentTypeOptions = "nosniff";  ///< X-Content-Type-Options
    std::string frameOptions = "DENY";           ///< X-Frame-Options
    std::string referrerPolicy = "no-referrer";  ///< Referrer-Policy
    std::string openerPolicy = "same-origin";    ///< Cross-Origin-Opener-Policy
    std::string contentSecurityPolicy = "default-src 'self'; base-uri 'none'; object-src 'none'; "
                                        "frame-ancestors 'none'";  ///< Content-Security-Policy
    std::string strictTransport;  ///< Strict-Transport-Security, over TLS only
};

/// Adds them to each response whose handler has not set them itself.
Middleware securityHeaders(SecurityHeaders headers = SecurityHeaders());

/// Options of `requestId`. A plain value.
struct RequestIdOptions
{
    /// Of the response, and of the request when `acceptsIncoming`.
    std::string header = "X-Request-Id";
    /// Takes the identifier of a request that has a valid one: 1 to 128 letters, digits, "-", "_",
    /// "." and "~". Only behind a proxy that sets or removes the header.
    bool acceptsIncoming = false;
};

/// Gives each request an identifier of 32 random hexadecimal digits, attached as RequestId, sent
/// with the response, and told in `CompletedRequest::requestId`. Use it first.
Middleware requestId(const RequestIdOptions& options = RequestIdOptions());

}  // namespace qv::kit

#endif
