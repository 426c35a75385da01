// The keys of session tickets: made in memory, replaced every hour.
#ifndef WENDREL_LISTENER_TLSTICKETKEYS_H
#define WENDREL_LISTENER_TLSTICKETKEYS_H

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

namespace qv::impl
{

// Shared by the threads of the handshakes, once for each of them.
class TlsTicketKeys
{
public:
    static constexpr int64_t kReplaceMs = 3600000;
    static constexpr size_t kMaxKeys = 3;  // the current one and those of older tickets

    // Seconds that a ticket is accepted; all of its keys are kept for as long.
    static constexpr long kTicketSeconds = 7200;

    struct Key
    {
        std::array<unsigned char, 16> name;
        std::array<unsigned char, 32> cipher;
        std::array<unsigned char, 32> digest;
        int64_t madeMs;
    };

    // The key for new tickets; none when the system gives no random bytes.
    std::optional<Key> getCurrent(int64_t nowMs);

    // The key with this name; none when it has been forgotten. `isCurrent`: no newer one is there.
    std::optional<Key> find(const unsigned char* name, int64_t nowMs, bool& isCurrent);

private:
    qvMutex mMutex;
    std::deque<Key> mKeys QV_GUARDED_BY(mMutex);  // the newest first
};

}  // namespace qv::impl

#endif
