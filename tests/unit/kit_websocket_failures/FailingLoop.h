// Calls that a WebSocket engine makes, one of which fails, or that one and all after it.
#ifndef WENDREL_TESTS_UNIT_KIT_WEBSOCKET_FAILURES_FAILINGLOOP_H
#define WENDREL_TESTS_UNIT_KIT_WEBSOCKET_FAILURES_FAILINGLOOP_H

#include <cstddef>

namespace websockettests
{

enum class Failing {
    New,
    Malloc,
    EpollCreate,
    EpollControl,
    EpollWait,
    EventFd,
    Send,
    SendBlocked,
    SendOneByte,
    Receive,
    ReceiveNothing,
    ReceiveOneByte,
    ReadEvent,
    SetOption,
    ShutDown,
    StartThread
};

const char* nameOf(Failing kind);

// False under a sanitizer, whose malloc does not fail.
bool canFailMalloc();

enum class On {
    Loops,       // the threads of event loops
    ThisThread,  // the one that makes the object
};

// While it lives, calls of this kind are counted on these threads; call `number`, from 1 on, fails.
// One at a time.
class FailNth
{
public:
    FailNth(Failing kind, size_t number, bool andAllLater, On threads);
    ~FailNth();
    FailNth(const FailNth&) = delete;
    FailNth& operator=(const FailNth&) = delete;

    static bool hasFailed();
};

}  // namespace websockettests

#endif
