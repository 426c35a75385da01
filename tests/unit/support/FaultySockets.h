// Sockets that fail when told to: replaces send, recv and poll for a whole test program while a
// FaultySockets object is alive. Without one, and wherever nothing else is asked for, the real
// ones are called. The test's own end of a connection is not meant: let it use read and write,
// which are left alone.
#ifndef WENDREL_TESTS_FAULTYSOCKETS_H
#define WENDREL_TESTS_FAULTYSOCKETS_H

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/types.h>

namespace qv::tests
{

// At most one at a time. It holds for all threads of the program; all operations may be called
// from any thread, also inside the hook. Calls are counted from 0, each operation by itself,
// since the object was made or clearCalls.
//
//     FaultySockets sockets;
//     sockets.fail(FaultySockets::Send, 2, ECONNRESET);   // the third send
//     sockets.cap(FaultySockets::Recv, 1);                // every recv gives one byte at most
//     ...
//     EXPECT_EQ(sockets.callsOf(FaultySockets::Send)[2].error, ECONNRESET);
class FaultySockets
{
public:
    enum Operation { Send, Recv, Poll };

    // What the caller gets; `error` goes to errno when the result is negative.
    struct Outcome
    {
        ssize_t result = 0;
        int error = 0;
    };

    // A call that is going on.
    struct Attempt
    {
        Operation operation = Send;
        size_t number = 0;
        int fd = -1;           // -1 for poll
        size_t length = 0;     // bytes; entries for poll
        int flags = 0;         // the time-out for poll
        void* data = nullptr;  // what is sent, room for what is received, the pollfd entries
    };

    // A call that is over.
    struct Call
    {
        Operation operation = Send;
        int fd = -1;
        size_t length = 0;
        int flags = 0;
        ssize_t result = 0;
        int error = 0;
        std::thread::id thread;
        std::vector<pollfd> polled;  // poll: the entries with their results
    };

    FaultySockets();
    ~FaultySockets();
    FaultySockets(const FaultySockets&) = delete;
    FaultySockets& operator=(const FaultySockets&) = delete;

    // Call `number` does not reach the system and has this outcome.
    void answer(Operation operation, size_t number, Outcome outcome);
    void fail(Operation operation, size_t number, int error);

    // Likewise for call `number` and all after it.
    void answerFrom(Operation operation, size_t number, Outcome outcome);
    void failFrom(Operation operation, size_t number, int error);

    // Every send or recv moves at most `bytes`; 0: as many as it likes.
    void cap(Operation operation, size_t bytes);

    // The next calls, from the first that has not happened, move at most so many bytes each;
    // those after them are under the general cap.
    void capEach(Operation operation, const std::vector<size_t>& bytes);

    // Asked first of all, on the calling thread, with no lock held; may write to `data` of recv
    // and poll. Without a value the call goes on as usual. It must not call send, recv or poll.
    void onCall(std::function<std::optional<Outcome>(const Attempt&)> hook);

    // Forgets all of the above; the counting goes on.
    void passThrough();

    // What has happened so far (the first 100000 calls). A call is recorded when it is over.
    std::vector<Call> calls() const;
    std::vector<Call> callsOf(Operation operation) const;
    size_t count(Operation operation) const;  // calls begun
    void clearCalls();

    struct State;

private:
    std::shared_ptr<State> mState;
};

}  // namespace qv::tests

#endif
