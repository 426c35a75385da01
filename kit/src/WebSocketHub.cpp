// Upgraded connections from their first message to a clean stop.

#include <Wendrel/kit/WebSocketHub.h>

#include "Deadline.h"
#include "KitLog.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <vector>

namespace qv::kit
{
namespace
{

constexpr std::chrono::milliseconds kLookPeriod(50);

// A client may send its last message and end its side at once: time to handle that message once
// it has been received.
constexpr std::chrono::milliseconds kHalfCloseGrace(500);

constexpr unsigned long kShortLookMs = 1;

constexpr int kKeepAliveIdleSeconds = 60;
constexpr int kKeepAliveIntervalSeconds = 15;
constexpr int kKeepAliveProbes = 4;

// There are no probes while the client owes an acknowledgement: as long as they would take.
constexpr int kUnacknowledgedLimitMs =
    1000 * (kKeepAliveIdleSeconds + kKeepAliveProbes * kKeepAliveIntervalSeconds);

WebSocketHub::Options inBounds(WebSocketHub::Options options)
{
    options.workers = std::max(1u, options.workers);
    options.unsentLimit = bounded(options.unsentLimit);
    return options;
}

// Signals are for other threads than those that are started meanwhile: one that interrupts the
// poll thread ends it. What a thread does to itself stays visible.
class BlockedSignals
{
public:
    BlockedSignals()
    {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
            sigdelset(&blocked, own);
        pthread_sigmask(SIG_SETMASK, &blocked, &mBefore);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t mBefore;
};

void setOption(int descriptor, int level, int option, int value)
{
    // What is not a TCP socket refuses; it works without.
    ::setsockopt(descriptor, level, option, &value, sizeof value);
}

void prepareSocket(int descriptor)
{
    setOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveIntervalSeconds);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
    setOption(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, kUnacknowledgedLimitMs);
}

int countBytes(int descriptor, unsigned long request)
{
    int bytes = 0;
    return ::ioctl(descriptor, request, &bytes) == 0 ? bytes : 0;
}

int countUnread(int descriptor)
{
    return countBytes(descriptor, SIOCINQ);
}

int countUnacknowledged(int descriptor)
{
    return countBytes(descriptor, SIOCOUTQ);
}

// Dissolves the connection below the library: every later receive fails, also that of a worker
// which is going round in its loop.
void resetConnection(int descriptor)
{
    sockaddr none{};
    none.sa_family = AF_UNSPEC;
    if (::connect(descriptor, &none, sizeof none) != 0)
        ::shutdown(descriptor, SHUT_RDWR);
}

class Visitor;

struct Visits
{
    explicit Visits(size_t count) : expected(count) {}

    const size_t expected;
    qvMutex mutex;
    qvWaitCondition changed;
    size_t arrived QV_GUARDED_BY(mutex) = 0;
    std::vector<const Visitor*> visitors QV_GUARDED_BY(mutex);
};

// A connection with one message for it, whose handler keeps its worker until all are kept.
class Visitor : public http::WebSocket
{
public:
    Visitor(int descriptor, Visits& visits) : WebSocket(descriptor, nullptr), mVisits(visits)
    {
        const qvMutexLocker locker(&mVisits.mutex);
        mVisits.visitors.push_back(this);
        setReadEnabled(true);
    }

    ~Visitor() override
    {
        const qvMutexLocker locker(&mVisits.mutex);
        std::erase(mVisits.visitors, this);
        mVisits.changed.wakeAll();
    }

    void onMessageReceived(std::vector<uint8_t>&, bool) override
    {
        const qvMutexLocker locker(&mVisits.mutex);
        ++mVisits.arrived;
        mVisits.changed.wakeAll();
        while (mVisits.arrived != mVisits.expected)
            mVisits.changed.wait(&mVisits.mutex, qvWaitCondition::kNoTimeout);
    }

private:
    Visits& mVisits;
};

// One visitor for each worker. They receive from the same descriptor, a packet each.
void sendVisitors(http::WebSocketThread& threads, Visits& visits, int nearEnd, int farEnd)
{
    constexpr uint8_t kEmptyMessage[] = {0x82, 0x80, 0, 0, 0, 0};
    for (size_t i = 0; i < visits.expected; ++i) {
        // Waits when more are on their way than the socket holds.
        ::send(farEnd, kEmptyMessage, sizeof kEmptyMessage, MSG_NOSIGNAL);
        std::unique_ptr<http::WebSocket> visitor = std::make_unique<Visitor>(nearEnd, visits);
        // Straight to the workers: a poll thread that failed now would lose it.
        threads.giveBackWebSocket(visitor);
    }
}

bool isAnyPending(const Visits& visits) QV_REQUIRES(visits.mutex)
{
    return std::any_of(visits.visitors.begin(), visits.visitors.end(),
                       [](const Visitor* visitor) { return visitor->hasReadPending(); });
}

}  // namespace

HubConnection::HubConnection(http::WebSocket&& upgraded)
    : WebSocket(std::move(upgraded)), mWatch(::fcntl(getSocket(), F_DUPFD_CLOEXEC, 0))
{
    if (mWatch != -1)
        prepareSocket(mWatch);
}

HubConnection::~HubConnection()
{
    // Of one that never came into a hub, for want of memory or of threads.
    markForDeletion();
    if (mWatch != -1)
        ::close(mWatch);
}

void HubConnection::sendText(std::string_view text)
{
    writeMessage(text.data(), text.size(), false);
}

void HubConnection::sendBinary(std::string_view bytes)
{
    writeMessage(bytes.data(), bytes.size(), true);
}

void HubConnection::abort()
{
    // Until it has left, the descriptor is open.
    resetConnection(mWatch);
}

void HubConnection::onClosed() {}

WebSocketHub::WebSocketHub() : WebSocketHub(Options()) {}

WebSocketHub::WebSocketHub(const Options& options) : mOptions(inBounds(options)) {}

WebSocketHub::~WebSocketHub()
{
    close(std::chrono::milliseconds(0));
}

void WebSocketHub::add(std::unique_ptr<HubConnection> connection)
{
    std::call_once(mStart, [this] { start(); });
    {
        const qvMutexLocker locker(&mMutex);
        // Without a descriptor of its own a connection could not be watched.
        if (mClosed || connection->mWatch == -1) {
            connection->markForDeletion();
            return;
        }
        mConnections.push_back(connection.get());
        connection->mHub = this;
        mChanged.wakeAll();
    }
    // Without our lock: the library destroys connections under its own, and they come here for
    // ours.
    std::unique_ptr<http::WebSocket> given = std::move(connection);
    mThreads->addWebSocket(given);
}

void WebSocketHub::start()
{
    const BlockedSignals blocked;
    mThreads = std::make_unique<http::WebSocketThread>();
    mThreads->startThreads(mOptions.workers);
    mWatcher = std::thread(&WebSocketHub::watch, this);
}

void WebSocketHub::forEach(const std::function<void(HubConnection&)>& action)
{
    const qvMutexLocker locker(&mMutex);
    for (HubConnection* connection : mConnections)
        action(*connection);
}

size_t WebSocketHub::getCount() const
{
    const qvMutexLocker locker(&mMutex);
    return mConnections.size();
}

void WebSocketHub::watch()
{
    const qvMutexLocker locker(&mMutex);
    while (!mWatchEnds) {
        waitForNextLook();
        while (HubConnection* closed = findClosed())
            leave(*closed);
        lookForLost();
        revivePollThread();
    }
}

void WebSocketHub::waitForNextLook()
{
    if (mConnections.empty()) {
        while (!mWatchEnds && mConnections.empty())
            mChanged.wait(&mMutex, qvWaitCondition::kNoTimeout);
        return;
    }
    const Deadline next(kLookPeriod);
    while (!mWatchEnds && next.leftMs() != 0)
        mChanged.wait(&mMutex, next.leftMs());
}

// After a poll() that has failed the connections that were in it are gone; the others go on.
void WebSocketHub::revivePollThread()
{
    if (!mThreads->waitThread(0))
        return;
    if (mThreads->startThread(nullptr))
        LogError("The poll thread of the WebSockets had ended and was started again");
}

// A connection that the library has closed, but that its worker still holds.
HubConnection* WebSocketHub::findClosed() const
{
    const auto closed =
        std::find_if(mConnections.begin(), mConnections.end(),
                     [](const HubConnection* connection) { return connection->getSocket() == -1; });
    return closed == mConnections.end() ? nullptr : *closed;
}

// Resets the connections whose client has gone, as far as the library does not notice, and those
// whose client does not read.
void WebSocketHub::lookForLost()
{
    std::vector<pollfd> looks;
    looks.reserve(mConnections.size());
    for (const HubConnection* connection : mConnections)
        looks.push_back({connection->mWatch, POLLRDHUP, 0});
    if (::poll(looks.data(), looks.size(), 0) < 0)
        return;

    const auto now = Clock::now();
    const auto never = Clock::time_point::max();
    auto look = looks.begin();
    for (HubConnection* connection : mConnections) {
        auto& ended = connection->mEndedSince;
        auto& unsent = connection->mUnsentSince;
        const bool hasEnded = look->revents != 0 && countUnread(look->fd) == 0;
        ++look;
        ended = hasEnded ? std::min(ended, now) : never;
        unsent = connection->hasWritePending() ? std::min(unsent, now) : never;
        if (now - kHalfCloseGrace >= ended || now - mOptions.unsentLimit >= unsent)
            resetConnection(connection->mWatch);
    }
}

void WebSocketHub::Leave(HubConnection& connection)
{
    if (!connection.mHub)
        return;
    // A poll thread that fails closes nothing.
    connection.markForDeletion();
    WebSocketHub& hub = *connection.mHub;
    const qvMutexLocker locker(&hub.mMutex);
    hub.leave(connection);
}

// Called by the watcher, and by the thread that destroys the connection, which waits here while
// the watcher is at it.
void WebSocketHub::leave(HubConnection& connection)
{
    using Stay = HubConnection::Stay;
    while (connection.mStay == Stay::Leaving)
        mChanged.wait(&mMutex, qvWaitCondition::kNoTimeout);
    if (connection.mStay == Stay::Left)
        return;
    connection.mStay = Stay::Leaving;
    mConnections.remove(&connection);
    ++mLeaving;
    mMutex.unlock();
    connection.onClosed();
    mMutex.lock();
    // The client is to see the end now, not when the object is destroyed.
    ::close(connection.mWatch);
    connection.mWatch = -1;
    connection.mStay = Stay::Left;
    --mLeaving;
    mChanged.wakeAll();
}

bool WebSocketHub::close(std::chrono::milliseconds limit)
{
    // Whoever comes second is to find everything closed, too.
    const qvMutexLocker oneAtATime(&mCloseMutex);
    {
        const qvMutexLocker locker(&mMutex);
        mClosed = true;
    }
    // From here on a connection is refused, whether it has started the threads or not.
    std::call_once(mStart, [] {});
    if (mWatcher.joinable())
        mThreadsEnded = endThreads(limit);
    return mThreadsEnded;
}

bool WebSocketHub::endThreads(std::chrono::milliseconds limit)
{
    endConnections(limit);
    endWatcher();
    if (freeWorkers()) {
        mThreads->stopThreads(true);
        return true;
    }
    LogError("The WebSocket threads could not be ended and are left behind");
    // Left running, for ever without work: stopped, they might not end either.
    static_cast<void>(mThreads.release());
    return false;
}

void WebSocketHub::endConnections(std::chrono::milliseconds limit)
{
    const Deadline end(limit);
    const qvMutexLocker locker(&mMutex);
    while (isAnyUnsent() && end.leftMs() != 0)
        mChanged.wait(&mMutex, kShortLookMs);
    // The poll thread closes what it has. A worker goes round in its loop with what it has, as
    // after a half-close, until the watcher comes.
    for (const HubConnection* connection : mConnections)
        ::shutdown(connection->mWatch, SHUT_RDWR);
    while (!mConnections.empty() || mLeaving != 0)
        mChanged.wait(&mMutex, qvWaitCondition::kNoTimeout);
}

// Of what the system has taken, a reset would throw away what the client has not.
bool WebSocketHub::isAnyUnsent() const
{
    return std::any_of(mConnections.begin(), mConnections.end(), [](const HubConnection* each) {
        return each->hasWritePending() || countUnacknowledged(each->mWatch) > 0;
    });
}

void WebSocketHub::endWatcher()
{
    {
        const qvMutexLocker locker(&mMutex);
        mWatchEnds = true;
        mChanged.wakeAll();
    }
    mWatcher.join();
}

// A worker that holds a closed connection when it is stopped never ends. All connections are
// closed by now: each worker is given one that stays open, hands it back, and holds none then.
bool WebSocketHub::freeWorkers()
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        return false;
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    Visits visits(mOptions.workers);
    sendVisitors(*mThreads, visits, ends[0], ends[1]);

    const qvMutexLocker locker(&visits.mutex);
    while (visits.arrived != visits.expected)
        visits.changed.wait(&visits.mutex, qvWaitCondition::kNoTimeout);
    // Nothing more is pending when a worker is about to hand its visitor back; only then may the
    // visitor be told to go, for the poll thread to destroy it.
    while (isAnyPending(visits))
        visits.changed.wait(&visits.mutex, kShortLookMs);
    ::close(ends[1]);
    while (!visits.visitors.empty()) {
        revivePollThread();
        visits.changed.wait(&visits.mutex, kLookPeriod.count());
    }
    ::close(ends[0]);
    return true;
}

}  // namespace qv::kit
