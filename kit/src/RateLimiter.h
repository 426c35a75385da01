// Token buckets of many clients.
#ifndef WENDREL_KIT_SRC_RATELIMITER_H
#define WENDREL_KIT_SRC_RATELIMITER_H

#include <qvSystem/IpAddress.h>
#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

namespace qv::kit
{

// Any thread. In shards, so that connections seldom wait for each other; each forgets the client
// that has asked least recently.
class RateLimiter
{
public:
    using Clock = std::chrono::steady_clock;

    RateLimiter(double perSecond, double burst, size_t maxClients);

    // 0: the request is allowed. Otherwise when the next one is. Of a long key a digest is kept.
    std::chrono::seconds take(const std::string& key, Clock::time_point now);

    size_t size() const;

    // An IPv4 address, also a mapped one, or the network of an IPv6 address.
    static std::string keyOf(const IpAddress& address);

    // Bytes of a key that is kept as it is.
    static constexpr size_t kMaxKeyBytes = 64;

private:
    static constexpr size_t kShards = 16;

    struct Bucket
    {
        std::string key;
        double tokens;
        Clock::time_point filled;
    };

    // The keys of the table are those of the list.
    struct Shard
    {
        mutable qvMutex mutex;
        std::list<Bucket> buckets QV_GUARDED_BY(mutex);  // the newest request first
        std::unordered_map<std::string_view, std::list<Bucket>::iterator>
            table QV_GUARDED_BY(mutex);
    };

    std::chrono::seconds takeShort(const std::string& key, Clock::time_point now);
    Bucket& bucketOf(Shard& shard, const std::string& key, Clock::time_point now) const
        QV_REQUIRES(shard.mutex);

    const double mPerSecond;
    const double mBurst;
    const size_t mMaxOfShard;
    std::array<Shard, kShards> mShards;
};

}  // namespace qv::kit

#endif
