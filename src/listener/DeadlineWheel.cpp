// Rings of entries, one for each slot of time.

#include "listener/DeadlineWheel.h"

#include <algorithm>

namespace qv::impl
{

DeadlineWheel::DeadlineWheel(int64_t nowMs) : mTick(nowMs / kSlotMs)
{
    for (Entry& head : mSlots)
        head.mNext = head.mPrevious = &head;
}

void DeadlineWheel::set(Entry& entry, int64_t deadlineMs)
{
    remove(entry);
    const int64_t last = mTick + static_cast<int64_t>(kSlots) - 1;
    const int64_t tick = std::clamp(deadlineMs / kSlotMs, mTick, last);
    Entry& head = mSlots[static_cast<size_t>(tick) % kSlots];
    entry.mVisitMs = (tick + 1) * kSlotMs;
    entry.mNext = &head;
    entry.mPrevious = head.mPrevious;
    head.mPrevious->mNext = &entry;
    head.mPrevious = &entry;
}

void DeadlineWheel::remove(Entry& entry)
{
    if (!entry.mNext)
        return;
    entry.mPrevious->mNext = entry.mNext;
    entry.mNext->mPrevious = entry.mPrevious;
    entry.mNext = entry.mPrevious = nullptr;
}

DeadlineWheel::Entry* DeadlineWheel::takeDue(int64_t nowMs)
{
    const int64_t now = nowMs / kSlotMs;
    // After a long pause each slot is visited once.
    mTick = std::max(mTick, now - static_cast<int64_t>(kSlots));
    for (; mTick < now; ++mTick) {
        Entry& head = mSlots[static_cast<size_t>(mTick) % kSlots];
        if (head.mNext == &head)
            continue;
        Entry& due = *head.mNext;
        remove(due);
        return &due;
    }
    return nullptr;
}

}  // namespace qv::impl
