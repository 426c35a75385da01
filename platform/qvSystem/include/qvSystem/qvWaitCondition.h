#ifndef QVSYSTEM_QVWAITCONDITION_H
#define QVSYSTEM_QVWAITCONDITION_H

#include <qvSystem/Export.h>
#include <qvSystem/ThreadSafety.h>

#include <condition_variable>

namespace qv
{

class qvMutex;

/// Lets threads sleep until another one wakes them.
class QV_EXPORT qvWaitCondition
{
public:
    /// No timeout.
    static constexpr unsigned long kNoTimeout = static_cast<unsigned long>(-1);

    /// Nobody waits yet.
    qvWaitCondition();

    /// Nobody may be waiting.
    ~qvWaitCondition();
    qvWaitCondition(const qvWaitCondition&) = delete;
    qvWaitCondition& operator=(const qvWaitCondition&) = delete;

    /// Releases `mutex`, which the caller holds, sleeps until woken or until `timeoutMs`
    /// milliseconds of the monotonic clock have passed, and takes the mutex again.
    /// Returns false when the time ran out, true when woken. As with every condition
    /// variable a wake-up may come without reason: the caller looks at its condition again.
    bool wait(qvMutex* mutex, unsigned long timeoutMs) QV_REQUIRES(mutex);

    /// Wakes every waiting thread. May be called with or without the mutex held.
    void wakeAll();

    /// Wakes one of the waiting threads, if there is any. May be called with or without the
    /// mutex held.
    void wakeOne();

private:
    std::condition_variable mCondition;
};

}  // namespace qv

#endif
