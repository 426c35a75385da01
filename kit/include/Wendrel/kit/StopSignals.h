/// Waiting for the signal to stop.
#ifndef WENDREL_KIT_STOPSIGNALS_H
#define WENDREL_KIT_STOPSIGNALS_H

#include <csignal>
#include <cstdint>

namespace qv
{
namespace kit
{

/// Turns SIGINT and SIGTERM from something that ends the process into something that can be
/// waited for, and has SIGPIPE ignored.
///
/// Make it first thing in `main`, before any thread is started: threads inherit the blocked
/// signals, and only then do the signals wait for `wait`. Both stay blocked afterwards, so that
/// a second signal does not cut an orderly stop short.
class StopSignals
{
public:
    StopSignals();

    /// Waits for SIGINT or SIGTERM and returns its number.
    int wait();

    /// Waits at most `limitMs` milliseconds; 0 when no signal has come.
    int wait(int64_t limitMs);

private:
    sigset_t mSignals;
};

}  // namespace kit
}  // namespace qv

#endif
