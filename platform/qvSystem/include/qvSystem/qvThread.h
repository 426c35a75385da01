#ifndef QVSYSTEM_QVTHREAD_H
#define QVSYSTEM_QVTHREAD_H

#include <qvSystem/Export.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace qv
{

/// A thread of execution; derive from it and override `run`.
///
/// The object can be started again after a run has ended. The derived class must make
/// sure that its run has ended (`waitThread`) before its own destructor finishes; the
/// destructor of this class joins a run in progress, but `run` no longer exists by then.
class QV_EXPORT qvThread
{
public:
    /// Starts nothing.
    qvThread();

    /// Joins a run that has ended or is about to.
    virtual ~qvThread();

    qvThread(const qvThread&) = delete;
    qvThread& operator=(const qvThread&) = delete;

    /// Starts `run` on a new thread named `name` (as shown by debuggers, cut to 15 bytes;
    /// null or empty: the name of the starting thread). A run that has ended before is joined
    /// first. Returns false, and starts nothing, while a run is still going on. Throws
    /// std::system_error when the system has no thread to give.
    bool startThread(const char* name);

    /// Waits at most `timeoutMs` milliseconds for the present run to end; a run that another
    /// thread starts meanwhile is not waited for. Returns true when it has ended or none was
    /// started, false when the time ran out. From inside the thread itself it returns false at
    /// once.
    bool waitThread(unsigned long timeoutMs);

    /// The same for the run with number `run`, see `getRunNumber`: true at once when a later one
    /// has been started.
    bool waitThread(unsigned long timeoutMs, uint32_t run);

    /// The number of the latest run, counted from 1; 0 before the first.
    uint32_t getRunNumber() const;

    /// Puts the calling thread to sleep for `ms` milliseconds.
    static void msleep(unsigned long ms);

    /// A short text that names the calling thread, the same for its whole life and
    /// different from that of every other thread alive in this process. Made once per
    /// thread: no allocation on later calls. The reference is valid on the calling thread
    /// for as long as it lives.
    static const std::string& CurrentThreadId();

protected:
    /// The body of the thread. Called on the new thread; the run has ended when it returns.
    virtual void run() = 0;

private:
    void runAndReport();

    mutable std::mutex mMutex;  // guards all below
    std::condition_variable mEnded;
    std::thread mThread;
    bool mRunning = false;
    uint32_t mRunNumber = 0;
};

}  // namespace qv

#endif
