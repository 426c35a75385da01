// The listener thread: one epoll set for listening sockets and for the peers of all connections.

#include "listener/Listener.h"

#include "listener/ProxyHeader.h"
#include "server/logging/LogObject.h"
#include "streaming/AbortReason.h"

#include <qvSystem/Rollback.h>
#include <qvSystem/SystemError.h>
#include <qvSystem/qvSystemUtils.h>
#include <qvSystem/qvThread.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr uint64_t kWakeKey = ~uint64_t{0};
constexpr uint64_t kListenFlag = uint64_t{1} << 63;
constexpr uint64_t kUndecidedFlag = uint64_t{1} << 62;
constexpr unsigned kSinkShift = 32;
constexpr uint64_t kDescriptorMask = 0xffffffff;

constexpr int kMaxEvents = 256;
constexpr int kMaxAcceptsAtOnce = 64;
constexpr int64_t kRepeatMs = 1000;      // of an action on a connection that is still there
constexpr int64_t kAcceptPauseMs = 100;  // without descriptors
constexpr int64_t kReminderMs = DeadlineWheel::kSlotMs;
constexpr int64_t kRefusedLingerMs = 2000;
constexpr int64_t kDrainLingerMs = 500;  // of the last responses of a drain
constexpr int kMaxReadsAtOnce = 16;
constexpr int kDrainStepMs = 5;
constexpr unsigned long kMemoryPauseMs = 10;
constexpr int64_t kIdleGraceMs = 50;  // of a drain, for requests that are on their way
constexpr int kMaxProbeSeconds = 32767;
constexpr int kPairBufferBytes = 65536;  // of each direction; the kernel doubles it

constexpr char kTimeoutResponse[] = "HTTP/1.1 408 Request Timeout\r\nConnection: close\r\n"
                                    "Content-Length: 0\r\n\r\n";

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::system_category(), what);
}

// Without memory the listener thread goes on: nothing else would end the connections.
template <typename Step> void attempt(const Step& step)
{
    try {
        step();
    } catch (const std::bad_alloc&) {
        qvThread::msleep(kMemoryPauseMs);
    }
}

// Accepted sockets inherit these.
void setTimeouts(int descriptor, int64_t sendMs)
{
    if (sendMs == 0)
        return;
    const int one = 1;
    const int limitMs = static_cast<int>(sendMs);
    // The first probe after a third of the time, two more in the rest.
    const int thirdSeconds =
        static_cast<int>(std::clamp<int64_t>(sendMs / 3000, 1, kMaxProbeSeconds));
    const int probes = 2;
    setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one);
    setsockopt(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, &thirdSeconds, sizeof thirdSeconds);
    setsockopt(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, &thirdSeconds, sizeof thirdSeconds);
    setsockopt(descriptor, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
    setsockopt(descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, &limitMs, sizeof limitMs);
}

// A client of IPv4 on a socket for both is one of IPv4.
void unmapAddress(sockaddr_storage& address, socklen_t& size)
{
    auto& v6 = reinterpret_cast<sockaddr_in6&>(address);
    if (address.ss_family != AF_INET6 || !IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr))
        return;
    constexpr size_t kPrefixBytes = 12;
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = v6.sin6_port;
    std::memcpy(&v4.sin_addr, v6.sin6_addr.s6_addr + kPrefixBytes, sizeof v4.sin_addr);
    std::memcpy(&address, &v4, sizeof v4);
    size = sizeof v4;
}

const sockaddr* plainAddress(const sockaddr_storage& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

// A client has many ports.
IpAddress withoutPort(NetworkAddress address)
{
    address.port = 0;
    return address.toIpAddress();
}

// A proxy may have any number of connections.
Peer peerAt(const std::optional<NetworkAddress>& address, bool isTrustedProxy)
{
    if (!address)
        return {IpAddress(), IpAddress(), isTrustedProxy};
    return {address->toIpAddress(), isTrustedProxy ? IpAddress() : withoutPort(*address),
            isTrustedProxy};
}

// A connection that has ended without a byte begins with no header.
ProxyHeader peekHeader(int descriptor)
{
    std::array<char, kMaxProxyHeaderBytes> bytes;
    const ssize_t count = recv(descriptor, bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
    if (count > 0)
        return ParseProxyHeader({bytes.data(), static_cast<size_t>(count)});
    ProxyHeader header;
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        header.state = ProxyHeader::State::Incomplete;
    return header;
}

// The bytes were there when they were looked at.
bool discard(int descriptor, size_t bytes)
{
    std::array<char, kMaxProxyHeaderBytes> discarded;
    while (bytes != 0) {
        const ssize_t received = recv(descriptor, discarded.data(), bytes, MSG_DONTWAIT);
        if (received <= 0)
            return false;
        bytes -= static_cast<size_t>(received);
    }
    return true;
}

bool isOutOfResources(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// In place of a response whose request does not end; the phrase is optional. A response with these
// two statuses never has a length.
std::string earlyResponse(uint32_t status)
{
    constexpr uint32_t kNoContent = 204;
    constexpr uint32_t kNotModified = 304;
    const bool hasLength = status != kNoContent && status != kNotModified;
    return "HTTP/1.1 " + std::to_string(status) + " \r\nConnection: close\r\n" +
           (hasLength ? "Content-Length: 0\r\n\r\n" : "\r\n");
}

// Connections that the kernel has accepted and nobody has taken.
bool hasQueuedConnections(int listening)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    return getsockopt(listening, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
           info.tcpi_unacked != 0;
}

}  // namespace

Listener::Listener(const Limits& limits, std::vector<ListeningSocket> sockets,
                   std::vector<ConnectionSink*> sinks)
    : mLimits(limits), mSockets(std::move(sockets)), mSinks(std::move(sinks)),
      mPlaces(std::make_shared<ConnectionPlaces>(limits.maxConnections,
                                                 limits.maxConnectionsPerAddress))
{
    mNudged.resize(mSinks.size());
    Rollback opened([this] {
        if (mWake >= 0)
            close(mWake);
        if (mEpoll >= 0)
            close(mEpoll);
    });
    mEpoll = epoll_create1(EPOLL_CLOEXEC);
    if (mEpoll < 0)
        fail("epoll_create1");
    mWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (mWake < 0 || !watch(mWake, kWakeKey, EPOLLIN))
        fail("eventfd");
    for (ConnectionSink* const sink : mSinks)
        sink->getTable().setWake(mWake);
    for (size_t i = 0; i < mSockets.size(); ++i) {
        setTimeouts(mSockets[i].getDescriptor(), mLimits.sendMs);
        if (!watch(mSockets[i].getDescriptor(), kListenFlag | i, EPOLLIN))
            fail("epoll_ctl");
    }
    if (mLimits.tls)
        mHandshakes = std::make_unique<TlsHandshakes>(static_cast<TlsHandshakeSink&>(*this),
                                                      mLimits.handshakeThreads);
    opened.commit();
}

Listener::~Listener()
{
    mHandshakes.reset();
    takeUnseen(0);
    for (const Refused& refused : mRefused)
        close(refused.descriptor);
    closeAllUndecided();
    close(mWake);
    close(mEpoll);
}

bool Listener::watch(int descriptor, uint64_t key, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = key;
    return epoll_ctl(mEpoll, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void Listener::unwatch(int descriptor)
{
    epoll_ctl(mEpoll, EPOLL_CTL_DEL, descriptor, nullptr);
}

void Listener::wake()
{
    eventfd_write(mWake, 1);
}

void Listener::stop(int64_t limitMs)
{
    // Below kNoDeadline, which means that there is no drain.
    const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
    const int64_t deadlineMs = nowMs + std::min(limitMs, kNoDeadline - 1 - nowMs);
    int64_t known = mDrainDeadlineMs;
    while (deadlineMs < known && !mDrainDeadlineMs.compare_exchange_weak(known, deadlineMs)) {
    }
    wake();
}

uint64_t Listener::countTurns()
{
    uint64_t asked = mAskedTurn;
    if (mTurn < asked || !haveSinksTurned(asked))
        return asked - 1;
    // Another caller may begin it at the same time.
    if (mAskedTurn.compare_exchange_strong(asked, asked + 1)) {
        wake();
        return asked;
    }
    return asked - 1;
}

bool Listener::haveSinksTurned(uint64_t turn) const
{
    return std::all_of(mSinks.begin(), mSinks.end(),
                       [turn](const ConnectionSink* sink) { return sink->getTurn() >= turn; });
}

void Listener::takeTurn()
{
    const uint64_t asked = mAskedTurn;
    if (mTurn == asked)
        return;
    for (ConnectionSink* sink : mSinks)
        sink->askForTurn(asked);
    mTurn = asked;
}

void Listener::run()
{
    while (!isDraining())
        attempt([this] { handleEvents(waitMs(qvSystemUtils::GetTimeBaseMs())); });
}

size_t Listener::getCount() const
{
    size_t count = mUndecided.size();
    for (ConnectionSink* sink : mSinks)
        count += sink->getTable().getCount();
    // In the order in which a connection passes: it is never missing.
    if (mHandshakes)
        count += mHandshakes->getCount() + mSecuredCount + mLimits.tls->getUnfinished();
    return count;
}

// Deadlines and nudges need no look while nobody is connected.
int Listener::waitMs(int64_t nowMs) const
{
    int64_t wait = -1;
    const auto atMost = [&wait](int64_t limit) {
        limit = std::max<int64_t>(limit, 0);
        wait = wait < 0 ? limit : std::min(wait, limit);
    };
    if (getCount() != 0 || !mRefused.empty())
        atMost(DeadlineWheel::kSlotMs);
    if (mContinueAcceptingMs != kNoDeadline)
        atMost(mContinueAcceptingMs - nowMs);
    for (size_t i = 0; i < mSinks.size(); ++i) {
        if (mSinks[i]->getTable().getCount() >= kNudgeConnections)
            atMost(mNudged[i].nextMs - nowMs);
    }
    return static_cast<int>(wait);
}

// Peers before new connections: an event of a closed descriptor cannot be taken for one of a new
// connection with the same number.
void Listener::handleEvents(int timeoutMs)
{
    std::array<epoll_event, kMaxEvents> events;
    const int count = epoll_wait(mEpoll, events.data(), kMaxEvents, timeoutMs);
    const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
    for (int i = 0; i < count; ++i) {
        const uint64_t key = events[static_cast<size_t>(i)].data.u64;
        if (key == kWakeKey) {
            eventfd_t wakes = 0;
            eventfd_read(mWake, &wakes);
        } else if ((key & kUndecidedFlag) != 0) {
            const uint32_t reported = events[static_cast<size_t>(i)].events;
            attempt([&] {
                continueUndecided(static_cast<int>(key & kDescriptorMask),
                                  (reported & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0, nowMs);
            });
        } else if ((key & kListenFlag) == 0) {
            attempt([&] { handlePeer(key, events[static_cast<size_t>(i)].events); });
        }
    }
    for (int i = 0; i < count; ++i) {
        const uint64_t key = events[static_cast<size_t>(i)].data.u64;
        if (key != kWakeKey && (key & kListenFlag) != 0)
            acceptFrom(static_cast<size_t>(key & ~kListenFlag), nowMs);
    }
    continueAccepting(nowMs);
    if (mHandshakes)
        takeSecured(nowMs);
    takeUnseen(nowMs);
    closeRefused(nowMs);
    closeExpiredUndecided(nowMs);
    remindOfPeers(nowMs);
    handleDeadlines(nowMs);
    takeTurn();
    nudgeSinks(nowMs);
    continueUploads(nowMs);
}

void Listener::handlePeer(uint64_t key, uint32_t events)
{
    using Phase = Connection::Phase;
    const int descriptor = static_cast<int>(key & kDescriptorMask);
    const ConnectionTable::Pointer connection =
        mSinks[key >> kSinkShift]->getTable().find(descriptor);
    if (!connection || connection->isShutDown)
        return;
    // The daemon has shut down the other direction after the response. A hop whose client is lost
    // looks the same.
    if ((events & EPOLLERR) == 0 && connection->isPeerClosed &&
        connection->phase == Phase::Responding &&
        !(connection->hop && connection->hop->hasLostClient()))
        return;
    if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
        connection->abortRequest(kWriteError, false);
        connection->shutDown(SHUT_RDWR);
        // One that has begun between the two. The daemon thread aborts a later one itself.
        connection->abortRequest(kWriteError, false);
        return;
    }
    // From now on only the end of both directions is reported.
    connection->watch(mEpoll, key, EPOLLONESHOT);
    // The server's own shutdown is reported in the same way. A request that has come before it is
    // served.
    if (connection->isReadingShutDown)
        return;
    // Without memory it is reported again.
    Rollback reported([&] { connection->watch(mEpoll, key, EPOLLRDHUP | EPOLLONESHOT); });
    mClosedByPeer.push_back(connection);
    reported.commit();
    connection->isPeerClosed = true;
    const Phase phase = connection->phase;
    if (phase == Phase::Working && !mLimits.halfClosedClients)
        connection->abortRequest(kClientAbort, true);
    endReading(*connection);
}

// The peer has shut down its sending side. The daemon does not look at a paused upload.
void Listener::endReading(Connection& connection)
{
    using Phase = Connection::Phase;
    const Phase phase = connection.phase;
    if (phase == Phase::Working || phase == Phase::Responding)
        return;
    if (phase == Phase::Body && !mLimits.halfClosedClients && connection.isUploadPaused())
        connection.abortRequest(kClientAbort, true);
    connection.shutDown(SHUT_RD);
}

// The daemon reads the received bytes and then sees the end. It misses an end that is reported
// before it has read them: it is told again until it closes the connection.
void Listener::remindOfPeers(int64_t nowMs)
{
    if (mClosedByPeer.empty() || nowMs < mNextReminderMs)
        return;
    mNextReminderMs = nowMs + kReminderMs;
    const auto isOver = [this](const ConnectionTable::Pointer& connection) {
        endReading(*connection);
        return connection->isClosed();
    };
    mClosedByPeer.erase(std::remove_if(mClosedByPeer.begin(), mClosedByPeer.end(), isOver),
                        mClosedByPeer.end());
}

void Listener::acceptFrom(size_t index, int64_t nowMs)
{
    for (int i = 0; i < kMaxAcceptsAtOnce; ++i) {
        if (!acceptOne(mSockets[index], nowMs))
            return;
    }
}

// False when there is none to accept now.
bool Listener::acceptOne(const ListeningSocket& socket, int64_t nowMs)
{
    Accepted accepted{-1, nowMs, {}, sizeof accepted.address, socket.getRole()};
    accepted.descriptor =
        accept4(socket.getDescriptor(), reinterpret_cast<sockaddr*>(&accepted.address),
                &accepted.bytes, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted.descriptor < 0) {
        const int error = errno;
        if (isOutOfResources(error))
            pauseAccepting(nowMs);
        // Any other error is one of a connection that has ended in the queue.
        return error != EAGAIN && error != EWOULDBLOCK && error != EBADF && error != EINVAL &&
               !isOutOfResources(error);
    }
    unmapAddress(accepted.address, accepted.bytes);
    Rollback opened([&accepted] { close(accepted.descriptor); });
    if (mPlaces->getCount() + mUndecided.size() >= mLimits.maxConnections)
        refuse(accepted, peerAt(ToNetworkAddress(plainAddress(accepted.address)), false), nowMs);
    else if (!isTrustedProxy(accepted))
        admit(accepted, peerAt(ToNetworkAddress(plainAddress(accepted.address)), false), nowMs);
    else if (const ProxyHeader header = peekHeader(accepted.descriptor);
             header.state != ProxyHeader::State::Incomplete)
        admitFromProxy(accepted, header, nowMs);
    else
        awaitHeader(accepted);
    opened.commit();
    return true;
}

bool Listener::isTrustedProxy(const Accepted& accepted) const
{
    const AddressSet& trusted = mLimits.trustedProxies;
    if (trusted.isEmpty())
        return false;
    const std::optional<NetworkAddress> address = ToNetworkAddress(plainAddress(accepted.address));
    return address ? trusted.contains(*address) : trusted.containsUnix();
}

// The header is not incomplete.
void Listener::admitFromProxy(const Accepted& accepted, const ProxyHeader& header, int64_t nowMs)
{
    if (header.state == ProxyHeader::State::Malformed)
        reportMalformed(accepted);
    if (header.state == ProxyHeader::State::Malformed ||
        !discard(accepted.descriptor, header.bytes)) {
        close(accepted.descriptor);
        return;
    }
    Peer peer = peerAt(ToNetworkAddress(plainAddress(accepted.address)), true);
    if (header.source)
        peer = peerAt(header.source, mLimits.trustedProxies.contains(*header.source));
    else if (header.state == ProxyHeader::State::Complete)
        // Of a client that the proxy cannot name the headers are not those of the proxy.
        peer.isTrustedProxy = header.isLocal;
    admit(accepted, peer, nowMs);
}

void Listener::reportMalformed(const Accepted& accepted)
{
    if (std::exchange(mReportedMalformed, true))
        return;
    const IpAddress peer = IpAddress::fromIP(plainAddress(accepted.address));
    qvLogObject(qvLogObject::kWarning)
        << "closed a connection with a malformed PROXY header, from "
        << (peer.isValid() ? peer.toStringWithPort() : "a Unix socket");
}

// Edge-triggered: the part of a header that has been received stays in the socket.
void Listener::awaitHeader(const Accepted& accepted)
{
    const auto position = mUndecided.insert(mUndecided.end(), accepted);
    Rollback inserted([&] { mUndecided.erase(position); });
    mUndecidedOf[accepted.descriptor] = position;
    inserted.commit();
    if (!watch(accepted.descriptor, kUndecidedFlag | static_cast<uint64_t>(accepted.descriptor),
               EPOLLIN | EPOLLRDHUP | EPOLLET))
        closeUndecided(accepted.descriptor);
}

// More bytes have come, or the end.
void Listener::continueUndecided(int descriptor, bool hasEnded, int64_t nowMs)
{
    const auto found = mUndecidedOf.find(descriptor);
    if (found == mUndecidedOf.end())
        return;
    const ProxyHeader header = peekHeader(descriptor);
    if (header.state == ProxyHeader::State::Incomplete) {
        if (hasEnded)
            closeUndecided(descriptor);
        return;
    }
    Rollback opened([descriptor] { close(descriptor); });
    const Accepted accepted = *found->second;
    mUndecided.erase(found->second);
    mUndecidedOf.erase(found);
    unwatch(descriptor);
    admitFromProxy(accepted, header, nowMs);
    opened.commit();
}

void Listener::closeUndecided(int descriptor)
{
    const auto found = mUndecidedOf.find(descriptor);
    mUndecided.erase(found->second);
    mUndecidedOf.erase(found);
    close(descriptor);
}

void Listener::closeExpiredUndecided(int64_t nowMs)
{
    if (mLimits.headMs == 0)
        return;
    while (!mUndecided.empty() && nowMs - mUndecided.front().acceptedMs >= mLimits.headMs)
        closeUndecided(mUndecided.front().descriptor);
}

void Listener::closeAllUndecided()
{
    while (!mUndecided.empty())
        closeUndecided(mUndecided.front().descriptor);
}

// Places a connection, or refuses it when its client has too many.
void Listener::admit(const Accepted& accepted, const Peer& peer, int64_t nowMs)
{
    ConnectionPlace counted = mPlaces->take(peer.host);
    if (!counted)
        refuse(accepted, peer, nowMs);
    else if (accepted.role.tls == ListeningSocket::Role::kPlain)
        place(accepted, peer, std::move(counted), nowMs);
    else
        startHandshake(accepted, peer, std::move(counted));
}

// Without a place it ends in 503.
void Listener::startHandshake(const Accepted& accepted, const Peer& peer, ConnectionPlace counted)
{
    const TlsEngine& tls = *mLimits.tls;
    const int one = 1;
    setsockopt(accepted.descriptor, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    TlsArrival arrival;
    arrival.descriptor = accepted.descriptor;
    arrival.acceptedMs = accepted.acceptedMs;
    for (const int64_t limitMs : {tls.getHandshakeMs(accepted.role.tls), mLimits.headMs}) {
        if (limitMs != 0)
            arrival.deadlineMs = std::min(arrival.deadlineMs, accepted.acceptedMs + limitMs);
    }
    arrival.address = accepted.address;
    arrival.bytes = accepted.bytes;
    arrival.peer = peer;
    arrival.role = accepted.role;
    arrival.place = std::move(counted);
    arrival.context = tls.getContext(accepted.role.tls);
    mHandshakes->start(std::move(arrival));
}

// Called by the threads of the handshakes.
void Listener::secured(TlsArrived&& arrived)
{
    {
        const qvMutexLocker locker(&mMutex);
        mSecured.push_back(std::move(arrived));
        ++mSecuredCount;
    }
    wake();
}

void Listener::takeSecured(int64_t nowMs)
{
    std::vector<TlsArrived> secured;
    {
        const qvMutexLocker locker(&mMutex);
        secured.swap(mSecured);
    }
    const Rollback taken([this, count = secured.size()] { mSecuredCount -= count; });
    for (TlsArrived& arrived : secured)
        placeSecured(arrived, nowMs);
}

// The daemon gets the decrypted side; the peer of that is watched in place of the client.
void Listener::placeSecured(TlsArrived& arrived, int64_t nowMs)
{
    std::array<int, 2> pair{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair.data()) != 0) {
        reportExhausted("cannot serve a secure connection: ", mReportedPair);
        return;  // closes the connection
    }
    Rollback opened([&pair] {
        close(pair[0]);
        close(pair[1]);
    });
    for (const int descriptor : pair)
        setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &kPairBufferBytes, sizeof kPairBufferBytes);
    const size_t index = chooseSink();
    TlsRelay& relay = mLimits.tls->getRelay(index);
    const TlsArrival& arrival = arrived.arrival;
    const auto place = std::make_shared<ConnectionPlace>(std::move(arrived.arrival.place));
    const auto hop = std::make_shared<TlsHop>(relay, std::move(arrived.session), pair[0], place);
    opened.commit();
    Rollback ours([&pair] { close(pair[1]); });
    relay.add(hop);
    placeAt(index, {pair[1], arrival.acceptedMs, arrival.address, arrival.bytes, arrival.role},
            arrival.peer, Place{{}, place, hop}, nowMs);
    ours.commit();
}

// The daemon with the fewest connections. One with a multiple of 128 is avoided: when all of them
// are ready at once, as those of clients that wait for each other are, it waits for another event.
size_t Listener::chooseSink() const
{
    const auto costOf = [this](size_t index) {
        const size_t count = mSinks[index]->getTable().getCount();
        return std::make_pair((count + 1) % kFullBatch == 0, count);
    };
    size_t index = 0;
    for (size_t i = 1; i < mSinks.size(); ++i) {
        if (costOf(i) < costOf(index))
            index = i;
    }
    return index;
}

void Listener::place(const Accepted& accepted, const Peer& peer, ConnectionPlace counted,
                     int64_t nowMs)
{
    placeAt(chooseSink(), accepted, peer, Place{std::move(counted), nullptr, nullptr}, nowMs);
}

// Every connection passes here, admitted, behind its PROXY header and its handshake: that of a
// secure connection is the daemon's end of the pair.
void Listener::placeAt(size_t index, const Accepted& accepted, const Peer& peer, Place place,
                       int64_t nowMs)
{
    ConnectionSink& sink = *mSinks[index];
    const int descriptor = accepted.descriptor;
    // Before the daemon has it: afterwards the descriptor may be closed at any time. The end of a
    // connection that cannot be watched would not be noticed.
    if (!watch(descriptor,
               static_cast<uint64_t>(index) << kSinkShift | static_cast<uint64_t>(descriptor),
               EPOLLRDHUP | EPOLLONESHOT))
        return refuse(descriptor, nowMs);
    ConnectionTable::Pointer abandoned;
    const ConnectionTable::Pointer added =
        sink.getTable().add(descriptor, peer, accepted.acceptedMs, abandoned);
    added->place = std::move(place.own);
    added->sharedPlace = std::move(place.shared);
    added->hop = std::move(place.hop);
    added->tlsIndex = accepted.role.tls;
    added->placedMs = nowMs;
    added->redirectsToHttps = accepted.role.redirectsToHttps;
    if (abandoned)
        connectionClosed(*abandoned);
    if (sink.serve(descriptor, plainAddress(accepted.address), accepted.bytes))
        return;
    const ConnectionTable::Pointer failed = sink.getTable().find(descriptor);
    if (failed && sink.getTable().remove(descriptor, *failed))
        connectionClosed(*failed);
}

void Listener::connectionClosed(Connection& connection)
{
    connection.place.giveUp();
    connection.sharedPlace.reset();
    if (isDraining())
        wake();
}

// A client of a secure endpoint gets the response after its handshake.
void Listener::refuse(const Accepted& accepted, const Peer& peer, int64_t nowMs)
{
    if (accepted.role.tls == ListeningSocket::Role::kPlain)
        refuse(accepted.descriptor, nowMs);
    else
        startHandshake(accepted, peer, ConnectionPlace());
}

// Closing at once would reset the connection and destroy the response when the client has sent its
// request already.
void Listener::refuse(int descriptor, int64_t nowMs)
{
    send(descriptor, kUnavailableResponse, std::strlen(kUnavailableResponse),
         MSG_DONTWAIT | MSG_NOSIGNAL);
    shutdown(descriptor, SHUT_WR);
    linger(descriptor, nowMs + kRefusedLingerMs);
}

// Reads on until the peer has seen the end, within limits.
void Listener::linger(int descriptor, int64_t untilMs)
{
    try {
        mRefused.push_back({descriptor, untilMs, kMaxDiscardedBytes});
    } catch (const std::bad_alloc&) {
        close(descriptor);
    }
    if (mRefused.size() > kMaxRefused) {
        close(mRefused.front().descriptor);
        mRefused.pop_front();
    }
}

void Listener::keepUntilSeen(int descriptor)
{
    try {
        const qvMutexLocker locker(&mMutex);
        mUnseen.push_back(descriptor);
    } catch (const std::bad_alloc&) {
        close(descriptor);
        return;
    }
    wake();
}

void Listener::takeUnseen(int64_t nowMs)
{
    std::vector<int> unseen;
    {
        const qvMutexLocker locker(&mMutex);
        unseen.swap(mUnseen);
    }
    for (const int descriptor : unseen)
        linger(descriptor, nowMs + kMaxDiscardMs);
}

void Listener::closeRefused(int64_t nowMs)
{
    std::array<char, 16384> discarded;
    const auto isOver = [&](Refused& refused) {
        ssize_t received = 1;
        for (int i = 0; i < kMaxReadsAtOnce && received > 0 && refused.bytesLeft != 0; ++i) {
            received = recv(refused.descriptor, discarded.data(),
                            std::min<uint64_t>(discarded.size(), refused.bytesLeft), MSG_DONTWAIT);
            refused.bytesLeft -= received > 0 ? static_cast<uint64_t>(received) : 0;
        }
        const bool isOpen = received > 0
                                ? refused.bytesLeft != 0
                                : received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        if (isOpen && nowMs < refused.untilMs)
            return false;
        close(refused.descriptor);
        return true;
    };
    mRefused.erase(std::remove_if(mRefused.begin(), mRefused.end(), isOver), mRefused.end());
}

// Of errno; once.
void Listener::reportExhausted(const char* what, bool& hasReported)
{
    const int error = errno;
    if (!std::exchange(hasReported, true))
        qvLogObject(qvLogObject::kWarning) << what << SystemError(error).toString();
}

// The listening sockets are always ready without descriptors to accept with.
void Listener::pauseAccepting(int64_t nowMs)
{
    if (mContinueAcceptingMs == kNoDeadline)
        reportExhausted("cannot accept connections: ", mReportedLimit);
    mContinueAcceptingMs = nowMs + kAcceptPauseMs;
    for (const ListeningSocket& socket : mSockets)
        unwatch(socket.getDescriptor());
}

void Listener::continueAccepting(int64_t nowMs)
{
    if (nowMs < mContinueAcceptingMs)
        return;
    mContinueAcceptingMs = kNoDeadline;
    for (size_t i = 0; i < mSockets.size(); ++i) {
        if (!watch(mSockets[i].getDescriptor(), kListenFlag | i, EPOLLIN) && errno != EEXIST)
            mContinueAcceptingMs = nowMs + kAcceptPauseMs;
    }
}

void Listener::handleDeadlines(int64_t nowMs)
{
    for (ConnectionSink* sink : mSinks) {
        auto connection = sink->getTable().takeExpired(nowMs, kRepeatMs);
        while (connection) {
            auto next = ConnectionTable::takeNextExpired(*connection);
            attempt([&] { handleDeadline(*connection, nowMs); });
            connection = std::move(next);
        }
    }
}

// The phase may change at any time: a response is written only after it has been claimed.
void Listener::handleDeadline(Connection& connection, int64_t nowMs)
{
    using Phase = Connection::Phase;
    const Phase phase = connection.phase;
    // The deadline that has passed was that of an earlier phase.
    if (connection.deadlineMs > nowMs)
        return;
    switch (phase) {
    case Phase::Head:
    case Phase::NextHead:
        if (connection.claim(phase))
            connection.refuse(kTimeoutResponse);
        break;
    case Phase::Idle:
        connection.shutDown(SHUT_RD);
        break;
    case Phase::Body:
        if (connection.claim(phase))
            endBody(connection, nowMs);
        break;
    case Phase::Working:
        connection.expireResponse(nowMs);
        break;
    case Phase::Ended:
        connection.shutDown(SHUT_RDWR);
        break;
    default:
        break;
    }
}

// The body of a claimed connection, which neither comes nor ends.
void Listener::endBody(Connection& connection, int64_t nowMs)
{
    const uint32_t status = connection.getEarlyStatus(nowMs);
    if (status == 0) {
        connection.abortRequest(kTimeoutReached, false);
        connection.refuse(kTimeoutResponse);
        return;
    }
    // Before the abort, after which the daemon closes the connection. The client may still be
    // sending: a reset would destroy the response.
    const int descriptor = connection.endWith(earlyResponse(status));
    if (descriptor >= 0)
        linger(descriptor, nowMs + kRefusedLingerMs);
    connection.abortRequest(kBodyDiscarded, false);
}

void Listener::nudgeSinks(int64_t nowMs)
{
    for (size_t i = 0; i < mSinks.size(); ++i) {
        Nudged& nudged = mNudged[i];
        ConnectionTable& table = mSinks[i]->getTable();
        // The first event after a rest may be one of many.
        if (nudged.isResting && !table.isResting()) {
            nudged.isResting = false;
            nudged.nextMs = std::min(nudged.nextMs, nowMs + kNudgeMs);
        }
        if (nowMs < nudged.nextMs)
            continue;
        // Before the look: an event during it ends the rest.
        table.setResting(true);
        const size_t served = table.getServedCount();
        const uint64_t requests = table.getRequestCount();
        const bool hasBegun = std::exchange(nudged.requests, requests) != requests;
        nudged.isResting = !hasBegun && !table.isBusy();
        if (!nudged.isResting)
            table.setResting(false);
        nudged.nextMs = nowMs + (nudged.isResting ? kIdleNudgeMs : kNudgeMs);
        if (served < kNudgeConnections) {
            if (mSinks[i]->getTurn() >= mTurn)
                mSinks[i]->stopNudging();
            continue;
        }
        mSinks[i]->nudge();
        // The nudge is an event as well.
        if (hasBegun && (served % kFullBatch == 0 || (served + 1) % kFullBatch == 0))
            nudged.nextMs = nowMs + kFullBatchNudgeMs;
    }
}

// As many uploads as the free memory is enough for, in turn; at least one. One that has been paused
// meanwhile waits for the next time.
void Listener::continueUploads(int64_t nowMs)
{
    MemoryBudget* const budget = mLimits.memoryBudget.get();
    if (!budget || !budget->hasWaiting() || nowMs < mNextUploadsMs)
        return;
    mNextUploadsMs = nowMs + DeadlineWheel::kSlotMs;
    uint64_t freeBytes = budget->getFreeBytes();
    if (freeBytes == 0)
        return;
    std::vector<ConnectionTable::Pointer> connections;
    for (ConnectionSink* sink : mSinks) {
        const std::vector<ConnectionTable::Pointer> all = sink->getTable().getAll();
        connections.insert(connections.end(), all.begin(), all.end());
    }
    const size_t first = mUploadTurn;
    for (size_t i = 0; i < connections.size() && freeBytes != 0; ++i) {
        const size_t turn = first + i;
        if (!connections[turn % connections.size()]->continueWaitingUpload())
            continue;
        freeBytes -= std::min(freeBytes, mLimits.uploadPieceBytes);
        mUploadTurn = turn + 1;
    }
}

// Nothing that a client has sent to an accepted connection is lost before the deadline.
void Listener::drain()
{
    const int64_t startMs = qvSystemUtils::GetTimeBaseMs();
    attempt([this] { acceptQueued(); });
    for (const ListeningSocket& socket : mSockets)
        unwatch(socket.getDescriptor());
    mContinueAcceptingMs = kNoDeadline;
    mSockets.clear();
    while (getCount() != 0) {
        const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
        mIsStopping = nowMs >= mDrainDeadlineMs;
        attempt([&] {
            if (mIsStopping)
                abortAll();
            else if (nowMs - startMs >= kIdleGraceMs)
                endIdleConnections();
            handleEvents(kDrainStepMs);
        });
    }
    const int64_t closedMs = qvSystemUtils::GetTimeBaseMs();
    const int64_t untilMs = std::min(mDrainDeadlineMs.load(), closedMs + kDrainLingerMs);
    takeUnseen(closedMs);
    const auto hasUnseen = [this] {
        return !mRefused.empty() || (mLimits.tls && mLimits.tls->getUnseen() != 0);
    };
    while (hasUnseen() && qvSystemUtils::GetTimeBaseMs() < untilMs)
        attempt([this] { handleEvents(kDrainStepMs); });
}

// A shared socket keeps its queue for the next process.
void Listener::acceptQueued()
{
    for (const ListeningSocket& socket : mSockets) {
        if (socket.isShared())
            continue;
        const auto acceptNext = [&] {
            const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
            return nowMs < mDrainDeadlineMs && acceptOne(socket, nowMs);
        };
        do {
            while (acceptNext()) {
            }
        } while (hasQueuedConnections(socket.getDescriptor()) &&
                 mContinueAcceptingMs == kNoDeadline &&
                 qvSystemUtils::GetTimeBaseMs() < mDrainDeadlineMs);
    }
}

// Bytes that have arrived are read before the end of the reading side is seen.
void Listener::endIdleConnections()
{
    using Phase = Connection::Phase;
    const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
    for (auto next = mUndecided.begin(); next != mUndecided.end();)
        continueUndecided(next++->descriptor, true, nowMs);
    if (mHandshakes)
        mHandshakes->closeSilent();
    for (ConnectionSink* sink : mSinks) {
        for (int descriptor = -1; const auto connection = sink->getTable().next(descriptor);) {
            const Phase phase = connection->phase;
            // The first request of a client comes behind its handshake.
            const bool isNew = connection->hop && nowMs - connection->placedMs < kIdleGraceMs;
            if ((phase == Phase::Idle || phase == Phase::Head) && !isNew)
                connection->shutDown(SHUT_RD);
        }
    }
}

void Listener::abortAll()
{
    using Phase = Connection::Phase;
    closeAllUndecided();
    for (ConnectionSink* sink : mSinks) {
        for (int descriptor = -1; const auto connection = sink->getTable().next(descriptor);) {
            const Phase phase = connection->phase;
            if (phase == Phase::Body || phase == Phase::Working || phase == Phase::Responding)
                mHasAborted = true;
            connection->abortRequest(kDaemonShutdown, false);
            if (phase == Phase::Responding)
                connection->cut();
            else
                connection->shutDown(SHUT_RDWR);
        }
    }
    // Behind the reasons of the aborts.
    if (mHandshakes) {
        mHasAborted = mHasAborted || mLimits.tls->getFlushing() != 0;
        mHandshakes->closeAll();
        mLimits.tls->closeAll();
    }
}

}  // namespace qv::impl
