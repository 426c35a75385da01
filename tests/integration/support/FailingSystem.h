/// Calls of the library to the system and to the daemon, one of which fails.
#ifndef WENDREL_TESTS_INTEGRATION_FAILINGSYSTEM_H
#define WENDREL_TESTS_INTEGRATION_FAILINGSYSTEM_H

#include <cstddef>

namespace integration
{

enum class SystemCall {
    AddConnection,
    StartDaemon,
    CreateResponse,
    QueueResponse,
    EpollCreate,
    EpollControl,
    EpollWait,
    EventFd,
    Accept,
    Socket,
    SocketPair,
    DuplicateDescriptor,
    ReplaceDescriptor,
    ShutDown,
    StartThread
};

/// The function's name.
const char* nameOf(SystemCall call);

/// Calls of this kind since the last FailNth of this kind, or the begin of the program.
size_t countCalls(SystemCall call);

/// From its construction on the calls of one kind are counted, and the given one fails. One object
/// of a kind at a time.
///
/// Counted are the calls of libWendrel, on any thread. The daemon's own are not. Starts of threads
/// are counted on the constructing thread only, of any caller.
class FailNth
{
public:
    FailNth(SystemCall call, size_t number);
    ~FailNth();
    FailNth(const FailNth&) = delete;
    FailNth& operator=(const FailNth&) = delete;

    size_t calls() const;
    bool hasFailed() const { return calls() >= mNumber; }

private:
    const SystemCall mCall;
    const size_t mNumber;
};

}  // namespace integration

#endif
