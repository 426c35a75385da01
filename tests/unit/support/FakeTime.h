// A clock that stands still, sleeps that take no time and waits in which the test plays the
// other thread: replaces, for a whole test program, the platform's monotonic clock
// (GetTimeBaseMs), msleep and the waiting on conditions while a FakeTime object is alive.
// Without one everything is real.
#ifndef WENDREL_TESTS_FAKETIME_H
#define WENDREL_TESTS_FAKETIME_H

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace qv
{
class qvWaitCondition;
}

namespace qv::tests
{

// At most one at a time. It holds for all threads of the program; all operations may be
// called from any thread, also inside the hooks.
//
//     FakeTime time;                          // now: 1000000 ms
//     time.onWait([&](FakeTime::Wait& wait) { device.endFeed() ...; });
//     ...call the function that waits...
//     EXPECT_THAT(time.sleeps(), ElementsAre(10, 35));
class FakeTime
{
public:
    // One wait on a condition. The clock advances by the timeout unless the wait was woken.
    struct Wait
    {
        qvWaitCondition* condition = nullptr;
        unsigned long timeoutMs = 0;
        size_t number = 0;   // 0 for the first wait of this FakeTime
        int64_t nowMs = 0;   // when it began
        bool woken = false;  // true as soon as wakeAll was called on the condition; a hook may
                             // set it to play a wake-up without reason
    };

    explicit FakeTime(int64_t nowMs = 1000000);
    ~FakeTime();
    FakeTime(const FakeTime&) = delete;
    FakeTime& operator=(const FakeTime&) = delete;

    int64_t nowMs() const;
    void setNowMs(int64_t nowMs);
    void advanceMs(int64_t ms);

    // Called on the waiting thread with the mutex of the wait released.
    void onWait(std::function<void(Wait&)> hook);

    // Called on the sleeping thread before the clock goes on by `ms`.
    void onSleep(std::function<void(unsigned long ms)> hook);

    // The sleeps and waits of all threads so far (the first 100000 of each), and how often a
    // condition has been woken. A wait is recorded when it is over.
    std::vector<unsigned long> sleeps() const;
    std::vector<Wait> waits() const;
    std::vector<unsigned long> waitTimeouts() const;
    size_t wakes(const qvWaitCondition* condition) const;
    size_t wakes() const;  // of all conditions together
    void clearRecords();

    // How often the calling thread has ever given up its time slice.
    static size_t YieldsOfThisThread();

    struct State;

private:
    std::shared_ptr<State> mState;
};

}  // namespace qv::tests

#endif
