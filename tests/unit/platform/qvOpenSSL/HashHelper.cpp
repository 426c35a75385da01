// Digests by number, against published ones.

#include <qvOpenSSL/HashHelper.h>

#include <qvSystem/LibInitCounter.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include <dlfcn.h>

namespace qv::tests
{
namespace
{

constexpr char kUntouched = '\x5A';

struct KnownDigest
{
    const char* name;
    HashType type;
    unsigned long size;
    std::string ofNothing;
    std::string ofAbc;
    std::string ofMillionA;
};

// RFC 1321, FIPS 180-4 and the examples that go with them.
const KnownDigest kKnownDigests[] = {
    {"MD5", HashType::Md5, 16, "d41d8cd98f00b204e9800998ecf8427e",
     "900150983cd24fb0d6963f7d28e17f72", "7707d6ae4e027c70eea2a935c2296f21"},
    {"SHA-1", HashType::Sha1, 20, "da39a3ee5e6b4b0d3255bfef95601890afd80709",
     "a9993e364706816aba3e25717850c26c9cd0d89d", "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    {"SHA-256", HashType::Sha256, 32,
     "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
     "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
     "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    {"SHA-512", HashType::Sha512, 64,
     "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
     "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e",
     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
     "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f",
     "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
     "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b"},
};

std::string Hex(const std::string& bytes)
{
    constexpr char kHexDigits[] = "0123456789abcdef";
    std::string hex;
    for (const unsigned char byte : bytes)
        hex += {kHexDigits[byte >> 4], kHexDigits[byte & 0xF]};
    return hex;
}

// The digest in hexadecimal; the bytes behind it must stay as they are.
std::string DigestOf(const HashHelper& helper, const std::string& data)
{
    std::string out(HashHelper::kMaxDigestBytes + 8, kUntouched);
    const unsigned long size = helper.hash(data.data(), data.size(), out.data(), out.size() - 8);
    EXPECT_EQ(out.substr(size), std::string(out.size() - size, kUntouched));
    return Hex(out.substr(0, size));
}

TEST(HashHelper, GivesThePublishedDigests)
{
    for (const auto& known : kKnownDigests) {
        SCOPED_TRACE(known.name);
        const HashHelper helper(known.type);
        EXPECT_EQ(helper.getDigestSize(), known.size);
        EXPECT_EQ(DigestOf(helper, ""), known.ofNothing);
        EXPECT_EQ(DigestOf(helper, "abc"), known.ofAbc);
        EXPECT_EQ(DigestOf(helper, std::string(1000000, 'a')), known.ofMillionA);
        EXPECT_EQ(DigestOf(helper, "abc"), known.ofAbc) << "state was kept between calls";
    }
}

TEST(HashHelper, HasTheNumbersThatProtocolsUse)
{
    EXPECT_EQ(static_cast<int>(HashType::Md5), 1);
    EXPECT_EQ(static_cast<int>(HashType::Reserved), 2);
    EXPECT_EQ(static_cast<int>(HashType::Sha1), 3);
    EXPECT_EQ(static_cast<int>(HashType::Sha256), 4);
    EXPECT_EQ(static_cast<int>(HashType::Sha512), 5);
}

TEST(HashHelper, DigestsBytesAndNotText)
{
    const std::string text("a\0b", 3);
    const HashHelper helper(HashType::Sha1);
    EXPECT_EQ(DigestOf(helper, text), "4a3dec2d1f8245280855c42db0ee4239f917fdb8");
    EXPECT_NE(DigestOf(helper, text), DigestOf(helper, "a"));
}

TEST(HashHelper, TakesNullWithoutSize)
{
    char out[20];
    ASSERT_EQ(HashHelper(HashType::Sha1).hash(nullptr, 0, out, sizeof out), sizeof out);
    EXPECT_EQ(Hex(std::string(out, sizeof out)), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(HashHelper, WritesADigestThatJustFits)
{
    for (const auto& known : kKnownDigests) {
        SCOPED_TRACE(known.name);
        std::vector<char> out(known.size);
        EXPECT_EQ(HashHelper(known.type).hash("abc", 3, out.data(), out.size()), known.size);
        EXPECT_EQ(Hex(std::string(out.begin(), out.end())), known.ofAbc);
    }
}

TEST(HashHelper, WritesNothingWhenTheDigestDoesNotFit)
{
    for (const auto& known : kKnownDigests) {
        SCOPED_TRACE(known.name);
        for (const unsigned long outSize : {known.size - 1, 1UL, 0UL}) {
            std::vector<char> out(HashHelper::kMaxDigestBytes, kUntouched);
            EXPECT_EQ(HashHelper(known.type).hash("abc", 3, out.data(), outSize), 0u);
            EXPECT_EQ(out, std::vector<char>(out.size(), kUntouched));
        }
    }
}

TEST(HashHelper, DigestsNothingWithAReservedOrUnknownType)
{
    for (const int type : {2, 0, -1, 6, 1000}) {
        SCOPED_TRACE(type);
        const HashHelper helper(static_cast<HashType>(type));
        EXPECT_EQ(helper.getDigestSize(), 0u);
        std::vector<char> out(HashHelper::kMaxDigestBytes, kUntouched);
        EXPECT_EQ(helper.hash("abc", 3, out.data(), out.size()), 0u);
        EXPECT_EQ(out, std::vector<char>(out.size(), kUntouched));
    }
}

// Restricts OpenSSL to certified digests. An ordinary machine has none.
class OnlyCertifiedDigests
{
public:
    OnlyCertifiedDigests() : mWorks(setProperties("fips=yes")) {}
    ~OnlyCertifiedDigests() { setProperties(""); }

    bool works() const { return mWorks; }

private:
    static bool setProperties(const char* properties)
    {
        void* const library = dlopen("libcrypto.so.3", RTLD_LAZY | RTLD_NOLOAD);
        if (!library)
            return false;
        const auto set = reinterpret_cast<int (*)(void*, const char*)>(
            dlsym(library, "EVP_set_default_properties"));
        const bool done = set && set(nullptr, properties) == 1;
        dlclose(library);
        return done;
    }

    bool mWorks;
};

TEST(HashHelper, DigestsNothingWhenTheDigestIsNotAvailable)
{
    const HashHelper helper(HashType::Md5);
    std::vector<char> out(HashHelper::kMaxDigestBytes, kUntouched);
    {
        const OnlyCertifiedDigests restriction;
        if (!restriction.works())
            GTEST_SKIP() << "this OpenSSL cannot be restricted";
        EXPECT_EQ(helper.hash("abc", 3, out.data(), out.size()), 0u);
        EXPECT_EQ(out, std::vector<char>(out.size(), kUntouched));
    }
    EXPECT_EQ(helper.hash("abc", 3, out.data(), out.size()), 16u);
}

TEST(HashHelper, LargestDigestIsTheLimit)
{
    unsigned long largest = 0;
    for (const auto& known : kKnownDigests)
        largest = std::max(largest, HashHelper(known.type).getDigestSize());
    EXPECT_EQ(largest, HashHelper::kMaxDigestBytes);
}

TEST(HashHelper, NamesTheLibraryItStandsOn)
{
    const auto versions = GetThirdPartyLibVersionInfos();
    const auto found = versions.find("OpenSSL");
    ASSERT_NE(found, versions.end());
    ASSERT_FALSE(found->second.empty());
    EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(found->second.front()))) << found->second;
}

}  // namespace
}  // namespace qv::tests
