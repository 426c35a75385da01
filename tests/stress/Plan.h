/// The plan of one request, drawn from its number, so that both sides know it.
#ifndef WENDREL_TESTS_STRESS_PLAN_H
#define WENDREL_TESTS_STRESS_PLAN_H

#include "Dice.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace stress
{

constexpr uint64_t kNever = std::numeric_limits<uint64_t>::max();

/// Written without being fetched, so much never makes the writer wait.
constexpr uint64_t kBytesWithoutWaiting = 200000;

struct Plan
{
    enum class Ending {
        Ended,
        Abandoned,      ///< the writer puts the device in error
        LeftOpen,       ///< the worker leaves without ending the body: only a loss ends it
        NeverAnnounced  ///< neither ended nor announced: likewise
    };
    enum class Deleter { Worker, Daemon, Reaper };

    uint64_t id = 0;
    uint64_t bodyBytes = 0;
    uint64_t announceAfterBytes = 0;  ///< written by then; kNever: only after the end
    uint64_t abandonAfterBytes = 0;   ///< of an abandoned one
    uint64_t lossTurn = kNever;       ///< of the daemon, at which the connection is lost
    uint32_t lossCode = 0;
    Ending ending = Ending::Ended;
    Deleter deleter = Deleter::Worker;
    bool declaresLength = false;
    bool awaitsQueueing = false;  ///< the writer goes on when the daemon has taken the head
    bool isUnfetched = false;     ///< as the response to a HEAD request
    bool isRefused = false;       ///< the daemon will not queue the response
    bool deletesAtOnce = false;   ///< the worker asks again and again until it may
};

inline uint64_t drawBodyBytes(Dice& dice)
{
    const uint64_t kind = dice.below(100);
    if (kind < 5)
        return 0;
    if (kind < 70)
        return dice.below(2000);
    if (kind < 92)
        return dice.below(70000);
    if (kind < 98)
        return dice.below(kBytesWithoutWaiting);
    return 300000 + dice.below(500000);
}

inline uint64_t drawAnnouncement(Dice& dice, uint64_t bodyBytes)
{
    if (bodyBytes > kBytesWithoutWaiting)
        return dice.below(kBytesWithoutWaiting);
    const uint64_t kind = dice.below(3);
    // Between the last byte and the end, where the daemon looks while the end is being set; or
    // after the end; or anywhere.
    return kind == 0 ? bodyBytes : kind == 1 ? kNever : dice.below(bodyBytes + 1);
}

inline Plan drawPlan(uint64_t seed, uint64_t id)
{
    using Ending = Plan::Ending;
    constexpr uint32_t kLossCodes = 5;
    Dice dice(seed + id * 0x2545f4914f6cdd1d);
    Plan plan;
    plan.id = id;
    plan.bodyBytes = drawBodyBytes(dice);
    const bool isSmall = plan.bodyBytes <= kBytesWithoutWaiting;
    plan.announceAfterBytes = drawAnnouncement(dice, plan.bodyBytes);
    const uint64_t ending = dice.below(25);
    plan.ending = ending == 0   ? Ending::Abandoned
                  : ending == 1 ? Ending::LeftOpen
                  : ending == 2 ? Ending::NeverAnnounced
                                : Ending::Ended;
    plan.abandonAfterBytes = dice.below(plan.bodyBytes + 1);
    const bool mustBeLost = ending == 1 || ending == 2;
    if (mustBeLost || dice.oneIn(5))
        plan.lossTurn = dice.below(dice.oneIn(2) ? 8 : 200);
    plan.lossCode = static_cast<uint32_t>(1 + dice.below(kLossCodes));
    plan.declaresLength = dice.oneIn(4);
    plan.awaitsQueueing = dice.oneIn(2);
    plan.isUnfetched = isSmall && !mustBeLost && dice.oneIn(30);
    plan.isRefused = dice.oneIn(100);
    plan.deleter = static_cast<Plan::Deleter>(dice.below(3));
    plan.deletesAtOnce = dice.oneIn(2);
    // The order that the documentation shows: announced, written and ended at once.
    if (isSmall && dice.oneIn(3)) {
        plan.ending = Ending::Ended;
        plan.announceAfterBytes = 0;
        plan.declaresLength = false;
        plan.awaitsQueueing = false;
    }
    return plan;
}

/// Bytes of which every body is a part, each from a place of its own.
class BodySource
{
public:
    explicit BodySource(uint64_t seed) : mBytes(kPlaces + kMaxBodyBytes)
    {
        Dice dice(seed);
        for (char& byte : mBytes)
            byte = static_cast<char>(dice.next());
    }

    /// The body's bytes from `offset` on.
    const char* at(uint64_t id, uint64_t offset) const
    {
        return mBytes.data() + Dice(id).below(kPlaces) + offset;
    }

private:
    static constexpr size_t kPlaces = 100000;
    static constexpr size_t kMaxBodyBytes = 1000000;

    std::vector<char> mBytes;
};

}  // namespace stress

#endif
