// Deadlines of the connections of a loop.
#ifndef WENDREL_KIT_WEBSOCKET_TIMERWHEEL_H
#define WENDREL_KIT_WEBSOCKET_TIMERWHEEL_H

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace qv::kit::websocket
{

// The place of an element in a wheel.
struct TimerNode
{
    TimerNode* previous = nullptr;  // null: not in a wheel
    TimerNode* next = nullptr;
    int64_t tick = 0;
};

// Deadlines in slots of 64 ms: an element expires up to 64 ms late. One that lies behind the last
// slot expires early and must be set again. Used by one thread.
class TimerWheel
{
public:
    explicit TimerWheel(int64_t nowMs) : mTick(nowMs / kSlotMs)
    {
        for (TimerNode& slot : mSlots)
            slot.previous = slot.next = &slot;
    }

    // Does nothing when the element expires earlier anyway.
    void set(TimerNode& node, int64_t atMs)
    {
        const int64_t last = mTick + static_cast<int64_t>(kSlots) - 1;
        const int64_t tick = std::clamp((atMs + kSlotMs - 1) / kSlotMs, mTick + 1, last);
        if (node.previous) {
            if (node.tick <= tick)
                return;
            remove(node);
        }
        TimerNode& slot = mSlots[static_cast<size_t>(tick) % kSlots];
        node = {slot.previous, &slot, tick};
        slot.previous->next = &node;
        slot.previous = &node;
        mUsed[wordOf(tick)] |= bitOf(tick);
    }

    void remove(TimerNode& node)
    {
        if (!node.previous)
            return;
        node.previous->next = node.next;
        node.next->previous = node.previous;
        node.previous = nullptr;
        const TimerNode& slot = mSlots[static_cast<size_t>(node.tick) % kSlots];
        if (slot.next == &slot)
            mUsed[wordOf(node.tick)] &= ~bitOf(node.tick);
    }

    // Milliseconds until the next element expires; -1 without one.
    int64_t timeoutMs(int64_t nowMs) const
    {
        for (int64_t tick = mTick + 1; tick < mTick + static_cast<int64_t>(kSlots);) {
            const uint64_t word = mUsed[wordOf(tick)] >> (static_cast<size_t>(tick) % kWordBits);
            if (word != 0)
                return std::max<int64_t>(0, (tick + std::countr_zero(word)) * kSlotMs - nowMs);
            tick += static_cast<int64_t>(kWordBits - static_cast<size_t>(tick) % kWordBits);
        }
        return -1;
    }

    // Removes the elements that have expired and calls `onExpired` for each, which may set and
    // remove elements.
    template <typename Callback> void expire(int64_t nowMs, Callback onExpired)
    {
        const int64_t end = nowMs / kSlotMs;
        // Slots further ahead than the wheel reaches are empty.
        const int64_t stop = std::min(end, mTick + static_cast<int64_t>(kSlots));
        while (mTick < stop) {
            ++mTick;
            TimerNode& slot = mSlots[static_cast<size_t>(mTick) % kSlots];
            while (slot.next != &slot) {
                TimerNode& node = *slot.next;
                remove(node);
                onExpired(node);
            }
        }
        mTick = std::max(mTick, end);
    }

private:
    static constexpr int64_t kSlotMs = 64;
    static constexpr size_t kSlots = 1024;
    static constexpr size_t kWordBits = 64;

    static size_t wordOf(int64_t tick) { return static_cast<size_t>(tick) % kSlots / kWordBits; }
    static uint64_t bitOf(int64_t tick)
    {
        return uint64_t{1} << (static_cast<size_t>(tick) % kWordBits);
    }

    int64_t mTick;
    std::array<TimerNode, kSlots> mSlots;
    std::array<uint64_t, kSlots / kWordBits> mUsed{};
};

}  // namespace qv::kit::websocket

#endif
