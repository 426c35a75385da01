// Hooks that are ready-made.

#include <Wendrel/kit/Middleware.h>

#include "RateLimiter.h"
#include "Text.h"

#include <Wendrel/kit/Request.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

namespace qv::kit
{
namespace
{

constexpr int kNoContent = 204;
constexpr int kBadRequest = 400;
constexpr int kUnauthorized = 401;
constexpr int kForbidden = 403;
constexpr int kTooManyRequests = 429;

constexpr const char* kAny = "*";
constexpr const char* kAuthorization = "Authorization";
constexpr const char* kChallenge = "WWW-Authenticate";
constexpr size_t kMaxIdBytes = 128;
constexpr size_t kRandomIdBytes = 16;

using Digest = std::array<unsigned char, SHA256_DIGEST_LENGTH>;

Digest digestOf(std::string_view text)
{
    Digest digest{};
    unsigned size = 0;
    if (EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_sha256(), nullptr) != 1) {
        ERR_clear_error();
        throw std::bad_alloc();
    }
    return digest;
}

bool isSame(const Digest& left, const Digest& right)
{
    return CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

[[noreturn]] void refuse(const std::string& function, const std::string& why)
{
    throw std::invalid_argument(function + ": " + why);
}

template <typename Is> bool consistsOf(std::string_view text, Is is)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), is);
}

bool hasControl(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), isControl);
}

std::string quoted(const std::string& function, const std::string& text)
{
    if (hasControl(text))
        refuse(function, "the realm has a control character");
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\')
            result += '\\';
        result += c;
    }
    return result + '"';
}

// The text behind the scheme; none for another scheme.
std::optional<std::string_view> credentialsOf(std::string_view value, std::string_view scheme)
{
    const size_t end = value.find(' ');
    if (!equalsIgnoringCase(value.substr(0, end), scheme))
        return std::nullopt;
    return end == std::string_view::npos ? std::string_view() : trimmed(value.substr(end));
}

bool isTokenOf64(std::string_view text, std::string_view marks)
{
    const size_t end = text.find_last_not_of('=');
    return end != std::string_view::npos && consistsOf(text.substr(0, end + 1), [&](char c) {
               return isLetterOrDigit(c) || marks.find(c) != std::string_view::npos;
           });
}

// "user:password". The function of the library skips spaces: they are refused before.
std::optional<std::string> decoded(std::string_view text)
{
    if (text.size() % 4 != 0 || !isTokenOf64(text, "+/"))
        return std::nullopt;
    const size_t padding = text.size() - 1 - text.find_last_not_of('=');
    std::string bytes(text.size() / 4 * 3, '\0');
    const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
    if (padding > 2 || size < 0) {
        ERR_clear_error();
        return std::nullopt;
    }
    bytes.resize(bytes.size() - padding);
    return bytes;
}

using Login = std::pair<std::string, std::string>;

std::optional<Login> loginOf(const Request& request)
{
    const std::string& value = request.header(kAuthorization);
    const auto credentials = credentialsOf(value, "Basic");
    const auto text = credentials ? decoded(*credentials) : std::nullopt;
    const size_t colon = text ? text->find(':') : std::string::npos;
    if (colon == std::string::npos || hasControl(*text))
        return std::nullopt;
    return Login(text->substr(0, colon), text->substr(colon + 1));
}

[[noreturn]] void challenge(int status, const std::string& value)
{
    throw HttpError(HttpError(status).setHeader(kChallenge, value));
}

Middleware basic(const std::string& realm, CheckPassword check, HookThread thread)
{
    const std::string value =
        "Basic realm=" + quoted("basicAuthentication", realm) + ", charset=\"UTF-8\"";
    Middleware made;
    made.thread = thread;
    made.before = [value, check = std::move(check)](Request& request) {
        auto login = loginOf(request);
        if (!login || !check(request, login->first, login->second))
            challenge(kUnauthorized, value);
        request.attach(AuthenticatedUser{std::move(login->first)});
    };
    return made;
}

std::string joined(const std::vector<std::string>& names, const char* field)
{
    std::string list;
    for (const std::string& name : names) {
        if (!isToken(name))
            refuse("cors", std::string(field) + ": \"" + name + "\" is no token");
        list.append(list.empty() ? "" : ", ").append(name);
    }
    return list;
}

bool isOrigin(std::string_view text)
{
    return text.find("://") != std::string_view::npos && text.back() != '/' &&
           consistsOf(text, [](char c) { return c > ' ' && c < '\x7f' && c != ',' && c != '"'; });
}

bool isHeaderList(std::string_view text)
{
    return consistsOf(text, [](char c) { return isTokenCharacter(c) || c == ',' || c == ' '; });
}

// The values of the headers, made once.
class Cors
{
public:
    explicit Cors(CorsOptions options)
        : mOptions(std::move(options)), mMethods(joined(mOptions.methods, "methods")),
          mHeaders(joined(mOptions.headers, "headers")),
          mExposed(joined(mOptions.exposedHeaders, "exposedHeaders")),
          mAllowsAll(mOptions.origins == std::vector<std::string>{kAny})
    {
        if (mAllowsAll && mOptions.credentials)
            refuse("cors", "credentials for every origin; list the origins");
        for (const std::string& origin : mOptions.origins) {
            // Any page can give itself the origin null: a frame in a sandbox.
            if (origin == "null" && mOptions.credentials)
                refuse("cors", "credentials for the origin null");
            if (!mAllowsAll && !isOrigin(origin) && origin != "null")
                refuse("cors", "\"" + origin + "\" is no origin such as https://example.com");
        }
    }

    void before(Request& request) const
    {
        const std::string& asked = request.header("Access-Control-Request-Method");
        if (request.method() != Method::Options || asked.empty() ||
            request.header("Origin").empty())
            return;
        if (!isAllowed(request.header("Origin")))
            throw HttpError(kForbidden, "This origin is not allowed.");
        request.setHeader("Access-Control-Allow-Methods", mMethods);
        const std::string& headers = request.header("Access-Control-Request-Headers");
        if (mHeaders != kAny)
            request.setHeader("Access-Control-Allow-Headers", mHeaders);
        else if (isHeaderList(headers))
            request.setHeader("Access-Control-Allow-Headers", headers);
        request.setHeader("Access-Control-Max-Age", std::to_string(mOptions.maxAge.count()));
        request.addHeader("Vary", "Access-Control-Request-Method, Access-Control-Request-Headers");
        request.reply(kNoContent);
    }

    void after(const Request& request, ResponseHead& head) const
    {
        const std::string& origin = request.header("Origin");
        // For all origins the response is the same to all, as caches take it to be.
        if (!mAllowsAll) {
            head.addHeader("Vary", "Origin");
            if (origin.empty() || !isAllowed(origin))
                return;
        }
        head.setHeader("Access-Control-Allow-Origin", mAllowsAll ? kAny : origin);
        if (mOptions.credentials)
            head.setHeader("Access-Control-Allow-Credentials", "true");
        head.setHeader("Access-Control-Expose-Headers", mExposed);
    }

private:
    bool isAllowed(const std::string& origin) const
    {
        const auto& origins = mOptions.origins;
        return mAllowsAll || std::find(origins.begin(), origins.end(), origin) != origins.end();
    }

    const CorsOptions mOptions;
    const std::string mMethods;
    const std::string mHeaders;
    const std::string mExposed;
    const bool mAllowsAll;
};

bool isIdCharacter(char c)
{
    return isLetterOrDigit(c) || c == '-' || c == '_' || c == '.' || c == '~';
}

std::string randomId()
{
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::array<unsigned char, kRandomIdBytes> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        ERR_clear_error();
        throw std::runtime_error("requestId: the system has no random bytes");
    }
    std::string text;
    text.reserve(2 * bytes.size());
    for (const unsigned char byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xf];
    }
    return text;
}

}  // namespace

bool isSameSecret(std::string_view left, std::string_view right)
{
    return isSame(digestOf(left), digestOf(right));
}

Middleware basicAuthentication(const std::string& realm, CheckPassword check)
{
    if (!check)
        refuse("basicAuthentication", "no check");
    return basic(realm, std::move(check), HookThread::Worker);
}

Middleware basicAuthentication(const std::string& realm,
                               const std::map<std::string, std::string>& passwords)
{
    std::map<std::string, Digest> digests;
    for (const auto& [user, password] : passwords)
        digests.emplace(user, digestOf(password));
    auto check = [digests = std::move(digests)](Request&, const std::string& user,
                                                const std::string& password) {
        const Digest digest = digestOf(password);
        const auto found = digests.find(user);
        const bool isKnown = found != digests.end();
        // For an unknown user the comparison takes place, too.
        const bool isRight = isSame(digest, isKnown ? found->second : Digest());
        return isKnown && isRight;
    };
    return basic(realm, std::move(check), HookThread::Daemon);
}

Middleware bearerAuthentication(const std::string& realm, CheckToken check)
{
    if (!check)
        refuse("bearerAuthentication", "no check");
    const std::string value = "Bearer realm=" + quoted("bearerAuthentication", realm);
    Middleware made;
    made.before = [value, check = std::move(check)](Request& request) {
        const std::string& header = request.header(kAuthorization);
        const auto token = credentialsOf(header, "Bearer");
        if (!token)
            challenge(kUnauthorized, value);
        if (!isTokenOf64(*token, "-._~+/"))
            challenge(kBadRequest, value + ", error=\"invalid_request\"");
        auto user = check(request, std::string(*token));
        if (!user)
            challenge(kUnauthorized, value + ", error=\"invalid_token\"");
        request.attach(AuthenticatedUser{std::move(*user)});
    };
    return made;
}

Middleware cors(CorsOptions options)
{
    const auto shared = std::make_shared<const Cors>(std::move(options));
    Middleware made;
    made.thread = HookThread::Daemon;
    made.before = [shared](Request& request) { shared->before(request); };
    made.after = [shared](const Request& request, int, ResponseHead& head) {
        shared->after(request, head);
    };
    return made;
}

Middleware rateLimit(RateLimitOptions options)
{
    if (!(options.perSecond > 0) || !(options.burst >= 1) || options.maxClients == 0)
        refuse("rateLimit", "perSecond and maxClients must be positive, burst at least 1");
    const auto limiter =
        std::make_shared<RateLimiter>(options.perSecond, options.burst, options.maxClients);
    Middleware made;
    made.thread = HookThread::Daemon;
    made.before = [limiter, key = std::move(options.key)](Request& request) {
        const std::string client = key ? key(request) : RateLimiter::keyOf(request.clientAddress());
        if (client.empty())
            return;
        const auto wait = limiter->take(client, RateLimiter::Clock::now());
        if (wait.count() != 0)
            throw HttpError(
                HttpError(kTooManyRequests).setHeader("Retry-After", std::to_string(wait.count())));
    };
    return made;
}

Middleware securityHeaders(SecurityHeaders headers)
{
    Middleware made;
    made.after = [headers = std::move(headers)](const Request& request, int, ResponseHead& head) {
        const auto add = [&](const char* name, const std::string& value) {
            if (head.header(name).empty())
                head.setHeader(name, value);
        };
        add("X-Content-Type-Options", headers.contentTypeOptions);
        add("X-Frame-Options", headers.frameOptions);
        add("Referrer-Policy", headers.referrerPolicy);
        add("Cross-Origin-Opener-Policy", headers.openerPolicy);
        add("Content-Security-Policy", headers.contentSecurityPolicy);
        if (request.isSecure())
            add("Strict-Transport-Security", headers.strictTransport);
    };
    return made;
}

Middleware requestId(const RequestIdOptions& options)
{
    if (!isToken(options.header))
        refuse("requestId", "the header name \"" + options.header + "\" is no token");
    Middleware made;
    made.thread = HookThread::Daemon;
    made.before = [options](Request& request) {
        std::string id;
        if (options.acceptsIncoming)
            id = static_cast<const std::string&>(request.header(options.header));
        if (id.size() > kMaxIdBytes || !consistsOf(id, isIdCharacter))
            id = randomId();
        request.attach(RequestId{std::move(id)});
    };
    made.after = [header = options.header](const Request& request, int, ResponseHead& head) {
        if (const auto* const id = request.findAttached<RequestId>())
            head.setHeader(header, id->text);
    };
    return made;
}

}  // namespace qv::kit
