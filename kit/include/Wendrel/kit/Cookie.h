/// A cookie with its attributes.
#ifndef WENDREL_KIT_COOKIE_H
#define WENDREL_KIT_COOKIE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace qv::kit
{

/// A cookie of a response, as RFC 6265 has it: `Cookie("s", value).httpOnly().secure()`. A plain
/// value, given to `setCookie`. Without `maxAge` the client drops it at the end of its session.
class Cookie
{
public:
    /// Bytes of name, value and attributes together: clients ignore larger cookies.
    static constexpr size_t kMaxBytes = 4096;

    /// Requests of other sites that bring the cookie along.
    enum class SameSite : uint8_t {
        Unset,   ///< as the client does it; most treat it as Lax
        Strict,  ///< none
        Lax,     ///< links to this site
        None     ///< all; needs `secure`
    };

    /// `name`: a token. `value`: ASCII without control characters, spaces, quotation marks, commas,
    /// semicolons and backslashes; encode anything else, or use CookieSigner.
    Cookie(std::string name, std::string value) : mName(std::move(name)), mValue(std::move(value))
    {}

    /// Makes the client drop its cookie of this name, path and domain.
    static Cookie expired(std::string name);

    /// Sent with requests whose path begins with `path`; "/" unless told otherwise. Empty: the
    /// directory of the request.
    Cookie& path(std::string path);

    /// Sent to this domain and all below it; otherwise to the host of the request only.
    Cookie& domain(std::string domain);

    /// Kept for so long; 0 and less: dropped at once.
    Cookie& maxAge(std::chrono::seconds age);

    /// Hidden from the scripts of pages.
    Cookie& httpOnly();

    /// Sent over TLS only.
    Cookie& secure();

    /// See SameSite.
    Cookie& sameSite(SameSite sites);

    /// As given.
    const std::string& name() const { return mName; }
    /// As given.
    const std::string& value() const { return mValue; }

    /// "Path=/; Max-Age=3600; HttpOnly"
    std::string attributes() const;

    /// Why clients would misread or ignore it; empty when it is right. A response with a wrong one
    /// becomes 500 with a line in the log.
    std::string error() const;

private:
    std::string mName;
    std::string mValue;
    std::string mPath = "/";
    std::string mDomain;
    std::optional<std::chrono::seconds> mMaxAge;
    SameSite mSameSite = SameSite::Unset;
    bool mIsHttpOnly = false;
    bool mIsSecure = false;
};

}  // namespace qv::kit

#endif
