/// Random numbers that cost next to nothing.
#ifndef WENDREL_TESTS_STRESS_DICE_H
#define WENDREL_TESTS_STRESS_DICE_H

#include <cstdint>

namespace stress
{

/// The same seed gives the same numbers. Used by one thread.
class Dice
{
public:
    explicit Dice(uint64_t seed) : mState(seed) {}

    uint64_t next()
    {
        mState += 0x9e3779b97f4a7c15;
        uint64_t mixed = mState;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
        return mixed ^ (mixed >> 31);
    }

    /// 0 to `limit` - 1.
    uint64_t below(uint64_t limit) { return next() % limit; }

    bool oneIn(uint64_t count) { return below(count) == 0; }

private:
    uint64_t mState;
};

}  // namespace stress

#endif
