// Token buckets: filled when they are looked at, and forgotten when there are too many.

#include "RateLimiter.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <new>

namespace qv::kit
{
namespace
{

constexpr size_t kNetworkBytes = 8;
constexpr size_t kMappedBytes = 12;
constexpr double kMaxWaitSeconds = 86400;
constexpr size_t kDigestBytes = 32;

// Longer than any key that is kept as it is: it is none of them.
std::string digestOf(const std::string& key)
{
    std::string digest(RateLimiter::kMaxKeyBytes + 1, '\0');
    unsigned size = 0;
    if (EVP_Digest(key.data(), key.size(), reinterpret_cast<unsigned char*>(digest.data()), &size,
                   EVP_sha256(), nullptr) != 1 ||
        size != kDigestBytes) {
        ERR_clear_error();
        throw std::bad_alloc();
    }
    return digest;
}

}  // namespace

RateLimiter::RateLimiter(double perSecond, double burst, size_t maxClients)
    : mPerSecond(perSecond), mBurst(burst), mMaxOfShard(std::max<size_t>(maxClients / kShards, 1))
{}

std::chrono::seconds RateLimiter::take(const std::string& key, Clock::time_point now)
{
    return key.size() <= kMaxKeyBytes ? takeShort(key, now) : takeShort(digestOf(key), now);
}

std::chrono::seconds RateLimiter::takeShort(const std::string& key, Clock::time_point now)
{
    Shard& shard = mShards[std::hash<std::string>()(key) % kShards];
    const qvMutexLocker locker(&shard.mutex);
    Bucket& bucket = bucketOf(shard, key, now);
    // Threads may have looked at the clock in another order than they come here.
    const double seconds = std::chrono::duration<double>(now - bucket.filled).count();
    if (seconds > 0) {
        bucket.tokens = std::min(mBurst, bucket.tokens + seconds * mPerSecond);
        bucket.filled = now;
    }
    if (bucket.tokens >= 1) {
        bucket.tokens -= 1;
        return std::chrono::seconds(0);
    }
    const double wait = std::min(std::ceil((1 - bucket.tokens) / mPerSecond), kMaxWaitSeconds);
    return std::chrono::seconds(std::max<int64_t>(static_cast<int64_t>(wait), 1));
}

RateLimiter::Bucket& RateLimiter::bucketOf(Shard& shard, const std::string& key,
                                           Clock::time_point now) const
{
    const auto found = shard.table.find(key);
    if (found != shard.table.end()) {
        shard.buckets.splice(shard.buckets.begin(), shard.buckets, found->second);
        return *found->second;
    }
    std::list<Bucket> made;
    made.push_back({key, mBurst, now});
    shard.table.emplace(made.front().key, made.begin());
    shard.buckets.splice(shard.buckets.begin(), made);
    if (shard.buckets.size() > mMaxOfShard) {
        shard.table.erase(shard.buckets.back().key);
        shard.buckets.pop_back();
    }
    return shard.buckets.front();
}

size_t RateLimiter::size() const
{
    size_t sum = 0;
    for (const Shard& shard : mShards) {
        const qvMutexLocker locker(&shard.mutex);
        sum += shard.buckets.size();
    }
    return sum;
}

std::string RateLimiter::keyOf(const IpAddress& address)
{
    // All clients of Unix sockets are one.
    if (!address.isValid())
        return "unix";
    std::string text = address.toString();
    in6_addr v6{};
    if (address.getFamily() != IpAddress::Family::V6 || inet_pton(AF_INET6, text.c_str(), &v6) != 1)
        return text;
    const auto* const bytes = reinterpret_cast<const char*>(v6.s6_addr);
    if (!IN6_IS_ADDR_V4MAPPED(&v6))
        return {bytes, kNetworkBytes};
    std::array<char, INET_ADDRSTRLEN> v4{};
    return inet_ntop(AF_INET, bytes + kMappedBytes, v4.data(), v4.size());
}

}  // namespace qv::kit
