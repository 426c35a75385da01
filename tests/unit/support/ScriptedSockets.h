// Scripted results of send, recv and poll, for a whole test program while a ScriptedSockets object
// is alive. Calls without a scripted result reach the system. A test uses read and write for its
// own end of a connection: these are not replaced.
#ifndef WENDREL_TESTS_SCRIPTEDSOCKETS_H
#define WENDREL_TESTS_SCRIPTEDSOCKETS_H

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
//     ScriptedSockets sockets;
//     sockets.fail(ScriptedSockets::Send, 2, ECONNRESET);   // the third send
//     sockets.cap(ScriptedSockets::Recv, 1);                // every recv gives one byte at most
//     ...
//     EXPECT_EQ(sockets.callsOf(ScriptedSockets::Send)[2].error, ECONNRESET);
class ScriptedSockets
{
public:
    enum Operation { Send, Recv, Poll };

    // The result for the caller. `error` is stored in errno when the result is negative.
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
        int flags = 0;         // the timeout for poll
        void* data = nullptr;  // the bytes to send, the buffer to receive into, the pollfd entries
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

    ScriptedSockets();
    ~ScriptedSockets();
    ScriptedSockets(const ScriptedSockets&) = delete;
    ScriptedSockets& operator=(const ScriptedSockets&) = delete;

    // Call `number` does not reach the system and has this outcome.
    void setOutcome(Operation operation, size_t number, Outcome outcome);
    void fail(Operation operation, size_t number, int error);

    // Likewise for call `number` and all after it.
    void setOutcomeFrom(Operation operation, size_t number, Outcome outcome);
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

    // The calls so far (the first 100000). A call is recorded when it is over.
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
