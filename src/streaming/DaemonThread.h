// Marks the threads of the daemons of event-driven mode, which must not wait.
#ifndef WENDREL_STREAMING_DAEMONTHREAD_H
#define WENDREL_STREAMING_DAEMONTHREAD_H

namespace qv::impl
{

class DaemonThread
{
public:
    // The calling thread is one, until it ends.
    static void mark();

    static bool isCurrent();

    // Logs that `operation` was refused because it would wait; once a second at most, for the whole
    // process.
    static void logRefusal(const char* operation);
};

}  // namespace qv::impl

#endif
