// A connection that waits, suspended, for another thread.
#ifndef BENCH_BARE_SUSPENSION_H
#define BENCH_BARE_SUSPENSION_H

#include <microhttpd.h>

namespace bench
{

// Used with the mutex held that guards the condition waited for: a connection is suspended only
// while the condition is false, and resumed once.
class Suspension
{
public:
    // Thread: the daemon's. Does nothing once the daemon is about to stop, which must not find
    // suspended connections: the daemon then polls.
    void suspend(MHD_Connection* connection);

    // Any thread; does nothing unless suspended.
    void resume();

    // From now on no connection is suspended; waits until none is.
    static void End();

private:
    MHD_Connection* mConnection = nullptr;
};

}  // namespace bench

#endif
