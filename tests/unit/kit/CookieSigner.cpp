#include <Wendrel/kit/CookieSigner.h>

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qv::kit
{
namespace
{

using std::chrono::hours;
using std::chrono::seconds;

const std::string kOldKey(32, 'o');
const std::string kNewKey(40, 'n');
const CookieSigner::Clock::time_point kNow{seconds(1700000000)};

std::string Signed(const CookieSigner& signer, const std::string& value)
{
    return signer.sign("s", value, hours(1), kNow).value();
}

TEST(CookieSigner, GivesBackTheValue)
{
    const CookieSigner signer({kNewKey});
    std::string all;
    for (int c = 0; c < 256; ++c)
        all += static_cast<char>(c);
    for (const std::string& value :
         {std::string(), std::string("a"), std::string("ab"), std::string("user=7; admin"), all}) {
        const Cookie cookie = signer.sign("s", value, hours(1), kNow);
        EXPECT_EQ(cookie.error(), "");
        EXPECT_EQ(cookie.attributes(), "Path=/; Max-Age=3600; HttpOnly; SameSite=Lax");
        EXPECT_EQ(signer.verify("s", cookie.value(), kNow), value);
    }
}

// The digest is that of Python: hmac.digest(b"n" * 40, b"cookie 1\0s\0dXNlcg==.1700003600",
// "sha256").
TEST(CookieSigner, SignsNameExpiryAndValue)
{
    EXPECT_EQ(Signed(CookieSigner({kNewKey}), "user"),
              "dXNlcg==.1700003600.bGLOXQM9RLHVeDkbRuLpbtNuSDQWeUKvpvcxSgF1CGA=");
}

TEST(CookieSigner, RefusesEveryChange)
{
    const CookieSigner signer({kNewKey});
    const std::string text = Signed(signer, "user");
    for (size_t at = 0; at < text.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit) {
            std::string changed = text;
            changed[at] = static_cast<char>(changed[at] ^ (1 << bit));
            EXPECT_EQ(signer.verify("s", changed, kNow), std::nullopt) << changed;
        }
        EXPECT_EQ(signer.verify("s", text.substr(0, at), kNow), std::nullopt);
        EXPECT_EQ(signer.verify("s", text.substr(at + 1), kNow), std::nullopt);
        EXPECT_EQ(signer.verify("s", text.substr(0, at) + "." + text.substr(at), kNow),
                  std::nullopt);
    }
    EXPECT_EQ(signer.verify("s", text + "A", kNow), std::nullopt);
    EXPECT_EQ(signer.verify("t", text, kNow), std::nullopt);
    EXPECT_EQ(signer.verify("", text, kNow), std::nullopt);
    EXPECT_EQ(signer.verify("s", std::string(100000, '.'), kNow), std::nullopt);
}

TEST(CookieSigner, RefusesWhatHasExpired)
{
    const CookieSigner signer({kNewKey});
    const std::string text = Signed(signer, "user");
    EXPECT_EQ(signer.verify("s", text, kNow + seconds(3599)), "user");
    EXPECT_EQ(signer.verify("s", text, kNow + seconds(3600)), std::nullopt);
    const Cookie endless = signer.sign("s", "user", seconds::max(), kNow);
    EXPECT_EQ(signer.verify("s", endless.value(), kNow), "user");
}

TEST(CookieSigner, VerifiesOldKeysAndSignsWithTheFirst)
{
    const CookieSigner before({kOldKey});
    const CookieSigner during({kNewKey, kOldKey});
    const CookieSigner after({kNewKey});
    EXPECT_EQ(during.verify("s", Signed(before, "user"), kNow), "user");
    EXPECT_EQ(after.verify("s", Signed(during, "user"), kNow), "user");
    EXPECT_EQ(before.verify("s", Signed(during, "user"), kNow), std::nullopt);
    EXPECT_EQ(after.verify("s", Signed(before, "user"), kNow), std::nullopt);
}

TEST(CookieSigner, RefusesShortKeys)
{
    EXPECT_THROW(CookieSigner(std::vector<std::string>()), std::invalid_argument);
    EXPECT_THROW(CookieSigner({kNewKey, std::string(31, 'x')}), std::invalid_argument);
    EXPECT_NO_THROW(CookieSigner({std::string(32, 'x')}));
}

TEST(CookieSigner, RefusesValuesThatNoCookieHolds)
{
    const CookieSigner signer({kNewKey});
    EXPECT_EQ(signer.sign("s", std::string(2950, 'x'), hours(1), kNow).error(), "");
    EXPECT_NE(signer.sign("s", std::string(4096, 'x'), hours(1), kNow).error(), "");
    EXPECT_THROW(static_cast<void>(signer.sign("s", std::string(4097, 'x'), hours(1), kNow)),
                 std::invalid_argument);
}

TEST(CookieSigner, MakesKeysThatDiffer)
{
    const std::string key = CookieSigner::randomKey();
    EXPECT_EQ(key.size(), CookieSigner::kMinKeyBytes);
    EXPECT_NE(key, CookieSigner::randomKey());
}

}  // namespace
}  // namespace qv::kit
