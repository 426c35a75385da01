// Signed cookies: VALUE.EXPIRY.SIGNATURE, value and signature as base64, the expiry in seconds
// since 1970. The texts themselves are signed, so that no other spelling of a value verifies.

#include <Wendrel/kit/CookieSigner.h>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <new>
#include <stdexcept>
#include <utility>

namespace qv::kit
{
namespace
{

constexpr char kSeparator = '.';
constexpr size_t kDigestBytes = 32;

// Keeps signatures of other kinds of texts, made with the same key, from being taken for a cookie.
constexpr std::string_view kPurpose = "cookie 1";

const unsigned char* bytesOf(std::string_view text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string encoded(std::string_view bytes)
{
    // With the NUL that the function writes.
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytesOf(bytes),
                    static_cast<int>(bytes.size()));
    text.pop_back();
    return text;
}

// Of a text that has been verified.
std::string decoded(std::string_view text)
{
    std::string bytes(text.size() / 4 * 3, '\0');
    EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()), bytesOf(text),
                    static_cast<int>(text.size()));
    bytes.resize(bytes.size() - static_cast<size_t>(std::count(text.begin(), text.end(), '=')));
    return bytes;
}

std::string signatureOf(const std::string& key, std::string_view name, std::string_view text)
{
    std::string input;
    input.reserve(kPurpose.size() + name.size() + text.size() + 2);
    input.append(kPurpose).append(1, '\0').append(name).append(1, '\0').append(text);
    std::array<unsigned char, kDigestBytes> digest{};
    unsigned size = 0;
    const auto* const made = HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
                                  reinterpret_cast<const unsigned char*>(input.data()),
                                  input.size(), digest.data(), &size);
    if (!made || size != kDigestBytes) {
        ERR_clear_error();
        throw std::bad_alloc();
    }
    return encoded({reinterpret_cast<const char*>(digest.data()), digest.size()});
}

bool isSame(std::string_view left, std::string_view right)
{
    return left.size() == right.size() &&
           CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

int64_t secondsOf(CookieSigner::Clock::time_point time)
{
    return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

bool hasExpired(std::string_view text, CookieSigner::Clock::time_point now)
{
    int64_t expiry = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, expiry);
    return error != std::errc() || stop != end || secondsOf(now) >= expiry;
}

}  // namespace

CookieSigner::CookieSigner(std::vector<std::string> keys) : mKeys(std::move(keys))
{
    if (mKeys.empty())
        throw std::invalid_argument("CookieSigner: no key");
    for (const std::string& key : mKeys) {
        if (key.size() < kMinKeyBytes || key.size() > INT_MAX)
            throw std::invalid_argument("CookieSigner: a key has " + std::to_string(key.size()) +
                                        " bytes, at least " + std::to_string(kMinKeyBytes) +
                                        " are needed");
    }
}

Cookie CookieSigner::sign(const std::string& name, std::string_view value,
                          std::chrono::seconds lifetime, Clock::time_point now) const
{
    if (value.size() > Cookie::kMaxBytes)
        throw std::invalid_argument("CookieSigner: the value has " + std::to_string(value.size()) +
                                    " bytes, at most " + std::to_string(Cookie::kMaxBytes) +
                                    " are kept");
    constexpr std::chrono::seconds kMaxLifetime = std::chrono::hours(24 * 36500);
    const int64_t expiry = secondsOf(now) + std::min(lifetime, kMaxLifetime).count();
    std::string text = encoded(value) + kSeparator + std::to_string(expiry);
    text += kSeparator + signatureOf(mKeys.front(), name, text);
    Cookie cookie(name, std::move(text));
    cookie.maxAge(lifetime).httpOnly().sameSite(Cookie::SameSite::Lax);
    return cookie;
}

std::optional<std::string> CookieSigner::verify(std::string_view name, std::string_view text,
                                                Clock::time_point now) const
{
    const size_t last = text.rfind(kSeparator);
    if (last == std::string_view::npos || text.size() > Cookie::kMaxBytes)
        return std::nullopt;
    const std::string_view isSigned = text.substr(0, last);
    const std::string_view signature = text.substr(last + 1);
    if (std::none_of(mKeys.begin(), mKeys.end(), [&](const std::string& key) {
            return isSame(signatureOf(key, name, isSigned), signature);
        }))
        return std::nullopt;
    const size_t first = isSigned.find(kSeparator);
    if (first == std::string_view::npos || hasExpired(isSigned.substr(first + 1), now))
        return std::nullopt;
    return decoded(isSigned.substr(0, first));
}

std::string CookieSigner::randomKey()
{
    std::array<unsigned char, kMinKeyBytes> key{};
    if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1)
        throw std::runtime_error("CookieSigner: the system has no random bytes");
    return std::string(key.begin(), key.end());
}

}  // namespace qv::kit
