// Upgraded connections from their first message to a clean stop.

#include <Wendrel/kit/WebSocketHub.h>

#include "Deadline.h"
#include "KitLog.h"

#include <qvSystem/Rollback.h>

#include <fcntl.h>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <new>
#include <system_error>
#include <vector>

namespace qv::kit
{
namespace
{

constexpr std::chrono::milliseconds kWatchInterval(50);

// A client may send its last message and end its side at once: time to handle that message once
// it has been received.
constexpr std::chrono::milliseconds kHalfCloseGrace(500);

constexpr unsigned long kStateIntervalMs = 1;

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

// Changes when the client has acknowledged bytes. The system counts them for a TCP socket; of
// another one it tells only how many are left.
uint64_t countSent(int descriptor)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    if (::getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
        size >= offsetof(tcp_info, tcpi_bytes_acked) + sizeof info.tcpi_bytes_acked)
        return info.tcpi_bytes_acked;
    return static_cast<uint64_t>(countUnacknowledged(descriptor));
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

// The library destroys connections with its lock held. This one is for the library; the
// application's object stays with the hub, which tells it of the end without that lock.
class HubConnection::Driven final : public http::WebSocket
{
public:
    Driven(http::WebSocket&& upgraded, HubConnection& connection)
        : WebSocket(std::move(upgraded)), mConnection(&connection)
    {}

    ~Driven() override
    {
        // A poll thread that fails closes nothing.
        markForDeletion();
        if (mHub) {
            const qvMutexLocker locker(&mHub->mMutex);
            if (mConnection)
                mHub->leave(*mConnection);
        } else if (mConnection) {
            part();
        }
    }

    // Frames that came together with this one must not wait until the client sends more.
    void onMessageReceived(std::vector<uint8_t>& received, bool isBinary) override
    {
        setReadEnabled(true);
        mConnection->onMessageReceived(received, isBinary);
    }

    // From here on neither of the two uses the other. With the lock of the hub held, if it is in
    // one.
    void part()
    {
        const std::unique_lock<std::shared_mutex> alone(mConnection->mDrivenMutex);
        mConnection->mDriven = nullptr;
        mConnection = nullptr;
    }

    // Set before the library has the object.
    void enter(WebSocketHub& hub) { mHub = &hub; }

private:
    HubConnection* mConnection;  // changed under the hub's lock once it is in one
    WebSocketHub* mHub = nullptr;
};

HubConnection::HubConnection(http::WebSocket&& upgraded)
{
    auto driven = std::make_unique<Driven>(std::move(upgraded), *this);
    mDriven = driven.get();
    mGiven = std::move(driven);
    mWatch = ::fcntl(mDriven->getSocket(), F_DUPFD_CLOEXEC, 0);
    if (mWatch != -1)
        prepareSocket(mWatch);
}

HubConnection::~HubConnection()
{
    // Still here if a derived constructor has thrown.
    mGiven.reset();
    if (mWatch != -1)
        ::close(mWatch);
}

void HubConnection::onMessageReceived(std::vector<uint8_t>&, bool) {}

void HubConnection::writeMessage(const void* data, size_t size, bool isBinary)
{
    const std::shared_lock<std::shared_mutex> alive(mDrivenMutex);
    if (mDriven)
        mDriven->writeMessage(data, size, isBinary);
}

bool HubConnection::hasWritePending() const
{
    const std::shared_lock<std::shared_mutex> alive(mDrivenMutex);
    return mDriven && mDriven->hasWritePending();
}

bool HubConnection::hasReadPending() const
{
    const std::shared_lock<std::shared_mutex> alive(mDrivenMutex);
    return mDriven && mDriven->hasReadPending();
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
    HubConnection& added = *connection;
    std::unique_ptr<http::WebSocket> given = std::move(added.mGiven);
    Rollback refused([&] {
        given.reset();
        added.onClosed();
    });
    if (!start())
        return;
    {
        const qvMutexLocker locker(&mMutex);
        // Without a descriptor of its own a connection could not be watched.
        if (mClosed || added.mWatch == -1)
            return;
        mConnections.push_back(std::move(connection));
        added.mPlace = std::prev(mConnections.end());
        added.mDriven->enter(*this);
        refused.commit();
        mChanged.wakeAll();
    }
    // Without our lock: the library destroys connections under its own, and they come here for
    // ours.
    mThreads->addWebSocket(given);
}

// False when there are no threads, and true when there are or the hub has been closed.
bool WebSocketHub::start()
{
    const qvMutexLocker oneAtATime(&mStartMutex);
    if (mStarted)
        return true;
    {
        const qvMutexLocker locker(&mMutex);
        if (mClosed)
            return true;
    }
    const BlockedSignals blocked;
    Rollback started([this] { mThreads.reset(); });
    try {
        mThreads = std::make_unique<http::WebSocketThread>();
        mThreads->startThreads(mOptions.workers);
        mWatchdog = std::thread(&WebSocketHub::watch, this);
    } catch (const std::system_error& error) {
        LogError("cannot start the threads of the WebSockets: " + error.code().message() +
                 ": a connection was refused");
        return false;
    }
    started.commit();
    mStarted = true;
    return true;
}

void WebSocketHub::forEach(const std::function<void(HubConnection&)>& action)
{
    const qvMutexLocker locker(&mMutex);
    for (const auto& connection : mConnections)
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
    Deadline nextLook(kWatchInterval);
    while (!mWatchEnds) {
        if (mEnded.empty())
            mChanged.wait(&mMutex,
                          mConnections.empty() ? qvWaitCondition::kNoTimeout : nextLook.leftMs());
        tellEnds();
        if (nextLook.leftMs() != 0)
            continue;
        nextLook = Deadline(kWatchInterval);
        look();
    }
}

void WebSocketHub::look()
{
    while (HubConnection* closed = findClosed())
        leave(*closed);
    try {
        lookForLost();
    } catch (const std::bad_alloc&) {
        // The next look may have the memory.
    }
    revivePollThread();
}

// After a poll() that has failed the connections that were in it are gone; the others go on, if
// only when the system has a thread to give again.
void WebSocketHub::revivePollThread()
{
    if (!mThreads->waitThread(0))
        return;
    const BlockedSignals blocked;
    try {
        try {
            if (mThreads->startThread(nullptr))
                LogError("The poll thread of the WebSockets had ended and was started again");
            mLacksThread = false;
        } catch (const std::system_error& error) {
            if (!std::exchange(mLacksThread, true))
                LogError("cannot restart the poll thread of the WebSockets: " +
                         error.code().message() + ": trying again");
        }
    } catch (const std::bad_alloc&) {
        // For the thread, which the next look tries to start, or for the line, which is lost.
    }
}

// A connection that the library has closed, but that its worker still holds.
HubConnection* WebSocketHub::findClosed() const
{
    const auto closed =
        std::find_if(mConnections.begin(), mConnections.end(),
                     [](const auto& each) { return each->mDriven->getSocket() == -1; });
    return closed == mConnections.end() ? nullptr : closed->get();
}

// Resets the connections whose client has gone, as far as the library does not notice, and those
// whose client does not read.
void WebSocketHub::lookForLost()
{
    std::vector<pollfd> looks;
    looks.reserve(mConnections.size());
    for (const auto& connection : mConnections)
        looks.push_back({connection->mWatch, POLLRDHUP, 0});
    if (::poll(looks.data(), looks.size(), 0) < 0)
        return;

    const auto now = Clock::now();
    const auto never = Clock::time_point::max();
    auto look = looks.begin();
    for (const auto& connection : mConnections) {
        auto& ended = connection->mEndedSince;
        const bool hasEnded = look->revents != 0 && countUnread(look->fd) == 0;
        ++look;
        ended = hasEnded ? std::min(ended, now) : never;
        auto& stalled = connection->mStalledSince;
        stalled = isStalled(*connection) ? std::min(stalled, now) : never;
        if (now - kHalfCloseGrace >= ended || now - mOptions.unsentLimit >= stalled)
            resetConnection(connection->mWatch);
    }
}

// Bytes are queued, and the client has acknowledged none since the last look.
bool WebSocketHub::isStalled(HubConnection& connection)
{
    if (!connection.mDriven->hasWritePending())
        return false;
    const uint64_t sent = countSent(connection.mWatch);
    return std::exchange(connection.mSentBytes, sent) == sent;
}

// Called by the watchdog, and by the thread that destroys the connection's Driven.
void WebSocketHub::leave(HubConnection& connection)
{
    connection.mDriven->part();
    mEnded.splice(mEnded.end(), mConnections, connection.mPlace);
    ++mLeaving;
    mChanged.wakeAll();
}

void WebSocketHub::tellEnds()
{
    if (mEnded.empty())
        return;
    Connections told;
    told.swap(mEnded);
    const size_t count = told.size();
    mMutex.unlock();
    while (!told.empty()) {
        told.front()->onClosed();
        told.pop_front();
    }
    mMutex.lock();
    mLeaving -= count;
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
    {
        // No start is under way after this, and none begins.
        const qvMutexLocker noStart(&mStartMutex);
    }
    if (mWatchdog.joinable())
        mThreadsEnded = endThreads(limit);
    return mThreadsEnded;
}

bool WebSocketHub::endThreads(std::chrono::milliseconds limit)
{
    endConnections(limit);
    endWatchdog();
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
        mChanged.wait(&mMutex, kStateIntervalMs);
    // The poll thread closes what it has. A worker goes round in its loop with what it has, as
    // after a half-close, until the watchdog comes.
    for (const auto& connection : mConnections)
        ::shutdown(connection->mWatch, SHUT_RDWR);
    while (!mConnections.empty() || mLeaving != 0)
        mChanged.wait(&mMutex, qvWaitCondition::kNoTimeout);
}

// Of what the system has taken, a reset would throw away what the client has not.
bool WebSocketHub::isAnyUnsent() const
{
    return std::any_of(mConnections.begin(), mConnections.end(), [](const auto& each) {
        return each->mDriven->hasWritePending() || countUnacknowledged(each->mWatch) > 0;
    });
}

void WebSocketHub::endWatchdog()
{
    {
        const qvMutexLocker locker(&mMutex);
        mWatchEnds = true;
        mChanged.wakeAll();
    }
    mWatchdog.join();
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
        visits.changed.wait(&visits.mutex, kStateIntervalMs);
    ::close(ends[1]);
    while (!visits.visitors.empty()) {
        revivePollThread();
        visits.changed.wait(&visits.mutex, kWatchInterval.count());
    }
    ::close(ends[0]);
    return true;
}

}  // namespace qv::kit
