// Deadlines of many connections, at a cost for each change that does not depend on their number.
#ifndef WENDREL_LISTENER_DEADLINEWHEEL_H
#define WENDREL_LISTENER_DEADLINEWHEEL_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qv::impl
{

// A hashed timing wheel: entries stand in the slot of their time and are visited when it has come.
// Not thread-safe: the owner locks.
class DeadlineWheel
{
public:
    // Resolution. A deadline is reported late by at most this much.
    static constexpr int64_t kSlotMs = 64;

    // Base of a class with a deadline. An entry must be removed before it is destroyed.
    class Entry
    {
    public:
        bool isInWheel() const { return mNext != nullptr; }

        // The slot's end; an entry is not visited before. Any thread, without the owner's lock.
        int64_t getVisitMs() const { return mVisitMs; }

    private:
        friend class DeadlineWheel;
        Entry* mNext = nullptr;
        Entry* mPrevious = nullptr;
        std::atomic<int64_t> mVisitMs{0};
    };

    // `nowMs` of the monotonic clock.
    explicit DeadlineWheel(int64_t nowMs);
    DeadlineWheel(const DeadlineWheel&) = delete;
    DeadlineWheel& operator=(const DeadlineWheel&) = delete;

    // Moves `entry` into the slot of `deadlineMs`. A later time than the wheel reaches is a visit
    // at the latest time that it reaches.
    void set(Entry& entry, int64_t deadlineMs);

    void remove(Entry& entry);

    // Removes and returns an entry whose slot has ended; null when there is none. An entry that is
    // set to a later time than `nowMs` is not returned again for this `nowMs`.
    Entry* takeDue(int64_t nowMs);

private:
    static constexpr size_t kSlots = 1024;

    std::array<Entry, kSlots> mSlots;  // heads of rings
    int64_t mTick;                     // all slots before it have been visited
};

}  // namespace qv::impl

#endif
