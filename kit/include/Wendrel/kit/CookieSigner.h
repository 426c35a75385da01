/// Cookies that clients cannot forge.
#ifndef WENDREL_KIT_COOKIESIGNER_H
#define WENDREL_KIT_COOKIESIGNER_H

#include <Wendrel/kit/Cookie.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qv::kit
{

/// Signs values of cookies with HMAC-SHA-256 over name, time of expiry and value, and verifies
/// them. A value may have any bytes; the client can read it, not change it, and not use it under
/// another name or after its time. Any number of threads use one object.
///
/// Keys are rotated by putting a new one first: it signs, and all of them verify. Remove an old key
/// when the cookies that it has signed have expired.
class CookieSigner
{
public:
    /// Bytes of a key at least.
    static constexpr size_t kMinKeyBytes = 32;

    /// Of the times of expiry.
    using Clock = std::chrono::system_clock;

    /// The first of `keys` signs. Throws std::invalid_argument without a key and for a key that is
    /// too short.
    explicit CookieSigner(std::vector<std::string> keys);

    /// A cookie for `setCookie`, valid for `lifetime` from `now` on, with `maxAge` and `httpOnly`,
    /// and for links from other sites (SameSite Lax). Add `secure` where clients use TLS. Throws
    /// std::invalid_argument for a value of more than 4096 bytes.
    Cookie sign(const std::string& name, std::string_view value, std::chrono::seconds lifetime,
                Clock::time_point now = Clock::now()) const;

    /// The value of a cookie that `sign` has made and that has not expired at `now`; none for any
    /// other text: `verify("s", request.cookie("s"))`.
    std::optional<std::string> verify(std::string_view name, std::string_view text,
                                      Clock::time_point now = Clock::now()) const;

    /// A key of 32 random bytes. Throws std::runtime_error when the system has none.
    static std::string randomKey();

private:
    std::vector<std::string> mKeys;
};

}  // namespace qv::kit

#endif
