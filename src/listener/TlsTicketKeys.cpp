// A ring of keys.

#include "listener/TlsTicketKeys.h"

#include <openssl/rand.h>

#include <cstring>

namespace qv::impl
{

std::optional<TlsTicketKeys::Key> TlsTicketKeys::getCurrent(int64_t nowMs)
{
    const qvMutexLocker locker(&mMutex);
    if (mKeys.empty() || nowMs - mKeys.front().madeMs >= kReplaceMs) {
        Key made{};
        if (RAND_bytes(made.name.data(), static_cast<int>(made.name.size())) != 1 ||
            RAND_priv_bytes(made.cipher.data(), static_cast<int>(made.cipher.size())) != 1 ||
            RAND_priv_bytes(made.digest.data(), static_cast<int>(made.digest.size())) != 1)
            return std::nullopt;
        made.madeMs = nowMs;
        mKeys.push_front(made);
        if (mKeys.size() > kMaxKeys)
            mKeys.pop_back();
    }
    return mKeys.front();
}

std::optional<TlsTicketKeys::Key> TlsTicketKeys::find(const unsigned char* name, int64_t nowMs,
                                                      bool& isCurrent)
{
    const qvMutexLocker locker(&mMutex);
    for (const Key& key : mKeys) {
        if (std::memcmp(key.name.data(), name, key.name.size()) != 0)
            continue;
        if (nowMs - key.madeMs >= static_cast<int64_t>(kMaxKeys) * kReplaceMs)
            return std::nullopt;
        isCurrent = &key == &mKeys.front() && nowMs - key.madeMs < kReplaceMs;
        return key;
    }
    return std::nullopt;
}

}  // namespace qv::impl
