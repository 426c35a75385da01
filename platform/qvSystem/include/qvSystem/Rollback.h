#ifndef QVSYSTEM_ROLLBACK_H
#define QVSYSTEM_ROLLBACK_H

#include <utility>

namespace qv
{

/// Calls `undo` when it goes out of scope, unless commit() was called before.
///
/// Made before something that may throw, committed behind it. `undo` must not throw: it may run
/// while an exception is on its way. One thread's own.
template <typename Undo> class Rollback
{
public:
    /// Armed from here on.
    explicit Rollback(Undo undo) : mUndo(std::move(undo)) {}

    /// Calls `undo`, unless committed.
    ~Rollback()
    {
        if (mArmed)
            mUndo();
    }
    Rollback(const Rollback&) = delete;
    Rollback& operator=(const Rollback&) = delete;

    /// Disarms the rollback.
    void commit() { mArmed = false; }

private:
    Undo mUndo;
    bool mArmed = true;
};

}  // namespace qv

#endif
