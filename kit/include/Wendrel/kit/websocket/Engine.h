/// The threads that serve WebSocket sessions.
#ifndef WENDREL_KIT_WEBSOCKET_ENGINE_H
#define WENDREL_KIT_WEBSOCKET_ENGINE_H

#include <Wendrel/kit/websocket/Handshake.h>
#include <Wendrel/kit/websocket/Session.h>
#include <Wendrel/kit/websocket/WebSocketOptions.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace qv
{
class MemoryAccount;
class UpgradedConnection;
}  // namespace qv

namespace qv::kit::websocket
{

class Loop;
class Membership;

/// Limits of all sessions of an engine.
struct EngineOptions
{
    /// Event loops, one thread each; 0: the number of processors.
    unsigned loops = 0;
    /// Queued bytes, unfinished received messages, and received messages that wait for an executor,
    /// of all sessions together. Beyond it messages are treated as if the queue of their session
    /// was full, but for messages of up to 4096 bytes, with their frame, while nothing else waits;
    /// a session that receives a message larger than its buffer is closed with 1013; and one with
    /// messages that wait for the executor is not read until they are handled.
    /// The sessions of a `kit::Server` are counted in its `ServerOptions::memoryBudgetBytes`, too.
    uint64_t memoryBudgetBytes = 268435456;
};

/// Owns the event loops. A session stays on one of them.
class Engine
{
public:
    /// Starts the threads. Throws `std::system_error` when the system has no thread, descriptor or
    /// epoll instance left.
    explicit Engine(const EngineOptions& options = {});

    /// As `shutDown` with a deadline of 0, unless that has been called. Not in a callback.
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// Serves `connection`, which `HttpBaseRequest::onUpgraded` has handed over, as agreed with the
    /// client; does not wait. Null, with the connection closed, once the engine shuts down. Any
    /// thread. The callbacks may begin before it returns.
    std::shared_ptr<Session> open(std::unique_ptr<UpgradedConnection> connection,
                                  const Agreement& agreement,
                                  std::shared_ptr<SessionHandler> handler,
                                  std::shared_ptr<const WebSocketOptions> options);

    /// Sessions whose `onClose` has not returned.
    size_t sessionCount() const;

    /// Closes all sessions with the code 1001 after their messages have been sent, and those that
    /// are not closed at the deadline at once; then ends the threads. True when no session had to
    /// be ended. Waits up to a second longer for callbacks on executors. Any thread, but not in a
    /// callback. A call while another one waits can shorten the time of that one, and returns with
    /// it and its result.
    bool shutDown(std::chrono::milliseconds deadline);

    /// The queues and unfinished messages of all sessions are counted in the budget of `memory`,
    /// too. Before the first `open`; a further call does nothing. Any thread.
    void shareMemory(const MemoryAccount& memory);

private:
    std::vector<std::shared_ptr<Loop>> mLoops;
    std::shared_ptr<Membership> mMembership;
    std::mutex mShutDownMutex;  // held while shutting down
    bool mIsShutDown = false;
    bool mWasClean = true;
};

}  // namespace qv::kit::websocket

#endif
