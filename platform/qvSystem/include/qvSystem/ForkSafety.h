/// Locks that are held across a fork.
#ifndef QVSYSTEM_FORKSAFETY_H
#define QVSYSTEM_FORKSAFETY_H

#include <pthread.h>

namespace qv
{

/// Has every later fork of the process call `Lock` before it and `Unlock` after it, in the parent
/// and in the child. A child forked while another thread holds a lock could never take it.
///
/// `Unlock` runs on the thread that has called `Lock`, also without memory. Does nothing when the
/// system has no memory for the registration. Call once for each pair, any thread.
template <void (*Lock)(), void (*Unlock)()> void holdAcrossForks()
{
    pthread_atfork(Lock, Unlock, Unlock);
}

}  // namespace qv

#endif
