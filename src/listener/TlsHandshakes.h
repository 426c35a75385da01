// Handshakes of secure connections, on threads of their own: a flood of them delays no request.
#ifndef WENDREL_LISTENER_TLSHANDSHAKES_H
#define WENDREL_LISTENER_TLSHANDSHAKES_H

#include "listener/Connection.h"
#include "listener/Endpoint.h"
#include "listener/TlsSession.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvThread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <sys/socket.h>

namespace qv::impl
{

// A connection of a secure endpoint before its handshake.
struct TlsArrival
{
    int descriptor = -1;
    int64_t acceptedMs = 0;
    int64_t deadlineMs = kNoDeadline;
    sockaddr_storage address{};
    socklen_t bytes = 0;  // of the address
    ListeningSocket::Role role;
    Peer peer;
    ConnectionPlace place;  // none: it gets 503
    std::shared_ptr<const TlsContext> context;
};

// And after it.
struct TlsArrived
{
    TlsArrival arrival;
    std::unique_ptr<TlsSession> session;
};

// Where connections go; called by the threads of the handshakes.
class TlsHandshakeSink
{
public:
    virtual ~TlsHandshakeSink() = default;

    // May throw std::bad_alloc; then the connection is closed.
    virtual void secured(TlsArrived&& arrived) = 0;

    // Takes over a descriptor whose response has been sent, until its client has seen it.
    virtual void keepUntilSeen(int descriptor) = 0;
};

class TlsHandshakes
{
public:
    // Handshakes in progress, of all threads together. Beyond: the oldest of a connection that will
    // be refused is closed, or else the oldest of all.
    static constexpr size_t kMaxHandshakes = 1024;

    // Throws std::system_error without descriptors or threads.
    TlsHandshakes(TlsHandshakeSink& sink, size_t threads);

    // Closes those in progress.
    ~TlsHandshakes();
    TlsHandshakes(const TlsHandshakes&) = delete;
    TlsHandshakes& operator=(const TlsHandshakes&) = delete;

    // Takes over the descriptor, unless it throws std::bad_alloc. Listener thread, as below.
    void start(TlsArrival&& arrival);

    // Closes connections whose clients have sent nothing.
    void closeSilent();
    void closeAll();

    // In progress, and not yet with the sink. Any thread, no lock.
    size_t getCount() const { return mCount; }

private:
    class Thread;

    std::atomic<size_t> mCount{0};
    std::vector<std::unique_ptr<Thread>> mThreads;
    size_t mTurn = 0;
};

}  // namespace qv::impl

#endif
