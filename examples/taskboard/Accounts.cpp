// Passwords by scrypt, sessions by signed cookies.

#include "Accounts.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <chrono>
#include <stdexcept>
#include <string_view>

namespace taskboard
{
namespace
{

using qv::kit::CookieSigner;
using qv::kit::HttpError;

constexpr size_t kHashBytes = 32;
constexpr std::chrono::hours kSession(12);

// 16 MiB and some 50 ms for each guess.
std::string hashOf(std::string_view password, const std::string& salt)
{
    constexpr uint64_t kRounds = 16384;
    constexpr uint64_t kBlocks = 8;
    constexpr uint64_t kMaxMemoryBytes = 33554432;
    unsigned char hash[kHashBytes];
    if (EVP_PBE_scrypt(password.data(), password.size(),
                       reinterpret_cast<const unsigned char*>(salt.data()), salt.size(), kRounds,
                       kBlocks, 1, kMaxMemoryBytes, hash, sizeof hash) != 1)
        throw std::runtime_error("scrypt failed");
    return {reinterpret_cast<const char*>(hash), sizeof hash};
}

std::string keyOf(Database& database)
{
    database.change("INSERT INTO keys SELECT ? WHERE NOT EXISTS (SELECT * FROM keys)",
                    {CookieSigner::randomKey()});
    Database::Query query = database.query("SELECT key FROM keys");
    query.next();
    return query.text(0);
}

}  // namespace

Accounts::Accounts(Database& database) : mDatabase(database), mSigner({keyOf(database)}) {}

void Accounts::setPassword(const std::string& name, const std::string& password)
{
    const std::string salt = CookieSigner::randomKey();
    mDatabase.change("INSERT OR REPLACE INTO users VALUES (?, ?, ?)",
                     {name, salt, hashOf(password, salt)});
}

qv::kit::Cookie Accounts::logIn(const qv::kit::Request& request, const std::string& name,
                                const std::string& password)
{
    std::string salt;
    std::string hash(kHashBytes, '\0');
    if (Database::Query query =
            mDatabase.query("SELECT salt, hash FROM users WHERE name = ?", {name});
        query.next()) {
        salt = query.text(0);
        hash = query.text(1);
    }
    // Also without such a user: the time does not tell which names exist.
    if (CRYPTO_memcmp(hashOf(password, salt).data(), hash.data(), kHashBytes) != 0)
        throw HttpError(401, "Name or password are wrong.");
    qv::kit::Cookie cookie = mSigner.sign(kCookie, name, kSession);
    if (request.isSecure())
        cookie.secure();
    return cookie;
}

std::string Accounts::userOf(const qv::kit::Request& request) const
{
    if (const auto name = mSigner.verify(kCookie, request.cookie(kCookie)))
        return *name;
    throw HttpError(401, "Please log in.");
}

}  // namespace taskboard
