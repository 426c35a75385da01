// Each thread has its own epoll set and its own share of the limit. Connections are watched
// edge-triggered: every step goes on until it would block.

#include "listener/TlsHandshakes.h"

#include "listener/TlsFirstBytes.h"
#include "server/logging/LogObject.h"

#include <qvSystem/Rollback.h>
#include <qvSystem/qvSystemUtils.h>

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr const char* kThreadName = "TlsHandshake";
constexpr int kMaxEvents = 64;
constexpr int kSweepMs = 100;
constexpr int64_t kReportMs = 10000;
constexpr int kNiceness = 5;  // above the threads that serve requests
constexpr unsigned long kNoTimeout = std::numeric_limits<unsigned long>::max();

constexpr uint64_t kWakeNumber = 0;

constexpr std::string_view kTooMany = "too many handshakes at a time";

constexpr std::string_view kPlainHttpBody =
    "This port serves HTTPS only: use https:// in place of http://.\n";

std::string plainHttpResponse()
{
    return "HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain\r\nConnection: close\r\n"
           "Content-Length: " +
           std::to_string(kPlainHttpBody.size()) + "\r\n\r\n" + std::string(kPlainHttpBody);
}

bool hasReceived(int descriptor)
{
    int bytes = 0;
    return ioctl(descriptor, FIONREAD, &bytes) == 0 && bytes != 0;
}

}  // namespace

class TlsHandshakes::Thread : private qvThread
{
public:
    Thread(TlsHandshakeSink& sink, std::atomic<size_t>& count, size_t limit);
    ~Thread() override;

    void start(TlsArrival&& arrival);
    void closeSome(bool onlySilent);

private:
    struct Pending
    {
        TlsArrival arrival;
        std::unique_ptr<TlsSession> session;  // null until the first bytes have come
        uint64_t number = 0;
        std::list<Pending>::iterator position;
        bool hasEnded = false;  // the client sends no more
    };
    using List = std::list<Pending>;

    void run() override;
    void takeRequests();
    bool makeSpace(const TlsArrival& arrival);
    void add(TlsArrival&& arrival);
    void proceed(Pending& pending);
    bool begin(Pending& pending);
    void finish(Pending& pending);
    void refuse(Pending& pending);
    void respondPlain(Pending& pending);
    void fail(Pending& pending, std::string_view why);
    void note(const IpAddress& peer, std::string_view why);
    void keepOrClose(int descriptor, bool keep);
    void remove(Pending& pending);
    void closeExpired(int64_t nowMs);
    void closeClosing(bool onlySilent);
    void report(int64_t nowMs);
    void wake() { eventfd_write(mWake, 1); }

    TlsHandshakeSink& mSink;
    std::atomic<size_t>& mCount;
    const size_t mLimit;
    int mEpoll = -1;
    int mWake = -1;
    std::atomic<bool> mIsStopping{false};

    qvMutex mMutex;
    std::vector<TlsArrival> mArrivals QV_GUARDED_BY(mMutex);
    bool mMustCloseSilent QV_GUARDED_BY(mMutex) = false;
    bool mMustCloseAll QV_GUARDED_BY(mMutex) = false;

    // This thread.
    List mPending;  // the oldest first
    // By the number that their events have: one may still come when its connection is over.
    std::unordered_map<uint64_t, Pending*> mPendingOf;
    uint64_t mLastNumber = kWakeNumber;
    uint64_t mFailures = 0;
    std::string mLastFailure;
    int64_t mReportedMs = 0;
};

TlsHandshakes::Thread::Thread(TlsHandshakeSink& sink, std::atomic<size_t>& count, size_t limit)
    : mSink(sink), mCount(count), mLimit(limit)
{
    Rollback opened([this] {
        if (mWake >= 0)
            close(mWake);
        if (mEpoll >= 0)
            close(mEpoll);
    });
    mEpoll = epoll_create1(EPOLL_CLOEXEC);
    mWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kWakeNumber;
    if (mEpoll < 0 || mWake < 0 || epoll_ctl(mEpoll, EPOLL_CTL_ADD, mWake, &event) != 0)
        throw std::system_error(errno, std::system_category(), "epoll");
    startThread(kThreadName);
    opened.commit();
}

TlsHandshakes::Thread::~Thread()
{
    mIsStopping = true;
    wake();
    waitThread(kNoTimeout);
    for (const TlsArrival& arrival : mArrivals)
        close(arrival.descriptor);
    close(mWake);
    close(mEpoll);
}

// The count first: the connection is never missing in it.
void TlsHandshakes::Thread::start(TlsArrival&& arrival)
{
    ++mCount;
    Rollback counted([this] { --mCount; });
    {
        const qvMutexLocker locker(&mMutex);
        mArrivals.push_back(std::move(arrival));
    }
    counted.commit();
    wake();
}

void TlsHandshakes::Thread::closeSome(bool onlySilent)
{
    {
        const qvMutexLocker locker(&mMutex);
        (onlySilent ? mMustCloseSilent : mMustCloseAll) = true;
    }
    wake();
}

// SIGPIPE: OpenSSL writes to sockets whose peers may have closed them.
void TlsHandshakes::Thread::run()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)),
                getpriority(PRIO_PROCESS, 0) + kNiceness);
    std::array<epoll_event, kMaxEvents> events;
    while (!mIsStopping) {
        const int timeout = mPending.empty() && mFailures == 0 ? -1 : kSweepMs;
        const int count = epoll_wait(mEpoll, events.data(), kMaxEvents, timeout);
        for (int i = 0; i < count; ++i) {
            const epoll_event& event = events[static_cast<size_t>(i)];
            if (event.data.u64 == kWakeNumber) {
                eventfd_t wakes = 0;
                eventfd_read(mWake, &wakes);
            } else if (const auto found = mPendingOf.find(event.data.u64);
                       found != mPendingOf.end()) {
                Pending& pending = *found->second;
                pending.hasEnded = pending.hasEnded || (event.events & EPOLLRDHUP) != 0;
                proceed(pending);
            }
        }
        takeRequests();
        const int64_t nowMs = qvSystemUtils::GetTimeBaseMs();
        closeExpired(nowMs);
        report(nowMs);
    }
    while (!mPending.empty())
        fail(mPending.front(), {});
}

void TlsHandshakes::Thread::takeRequests()
{
    std::vector<TlsArrival> arrivals;  // an empty one needs no memory
    bool mustCloseSilent = false;
    bool mustCloseAll = false;
    {
        const qvMutexLocker locker(&mMutex);
        arrivals.swap(mArrivals);
        mustCloseSilent = std::exchange(mMustCloseSilent, false);
        mustCloseAll = std::exchange(mMustCloseAll, false);
    }
    for (TlsArrival& arrival : arrivals)
        add(std::move(arrival));
    if (mustCloseAll || mustCloseSilent)
        closeClosing(!mustCloseAll);
}

// Ends one of those in progress for `arrival`: the oldest without a place, which would get 503, or
// the oldest. False when `arrival` is to be closed itself.
bool TlsHandshakes::Thread::makeSpace(const TlsArrival& arrival)
{
    if (mPending.size() < mLimit)
        return true;
    const auto isRefused = [](const Pending& pending) { return !pending.arrival.place; };
    auto ended = std::find_if(mPending.begin(), mPending.end(), isRefused);
    if (ended == mPending.end() && !arrival.place)
        return false;
    if (ended == mPending.end())
        ended = mPending.begin();
    fail(*ended, kTooMany);
    return true;
}

void TlsHandshakes::Thread::add(TlsArrival&& arrival)
{
    const int descriptor = arrival.descriptor;
    if (!makeSpace(arrival)) {
        note(arrival.peer.address, kTooMany);
        close(descriptor);
        --mCount;
        return;
    }
    List added;
    try {
        added.emplace_back();
        mPendingOf[++mLastNumber] = &added.front();
    } catch (const std::bad_alloc&) {
        close(descriptor);
        --mCount;
        return;
    }
    mPending.splice(mPending.end(), added);
    Pending& pending = mPending.back();
    pending.arrival = std::move(arrival);
    pending.number = mLastNumber;
    pending.position = std::prev(mPending.end());
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    event.data.u64 = pending.number;
    if (epoll_ctl(mEpoll, EPOLL_CTL_ADD, descriptor, &event) != 0)
        fail(pending, "cannot watch the connection");
}

void TlsHandshakes::Thread::proceed(Pending& pending)
{
    try {
        if (!pending.session && !begin(pending))
            return;
        switch (pending.session->handshake()) {
        case TlsSession::Result::Done:
            finish(pending);
            break;
        case TlsSession::Result::WantsRead:
        case TlsSession::Result::WantsWrite:
            break;
        default:
            fail(pending, pending.session->getFailure());
        }
    } catch (const std::bad_alloc&) {
        fail(pending, "out of memory");
    }
}

// True when a handshake has begun.
bool TlsHandshakes::Thread::begin(Pending& pending)
{
    std::array<char, kMaxFirstBytes> bytes;
    const int descriptor = pending.arrival.descriptor;
    const ssize_t count = recv(descriptor, bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return false;
    if (count <= 0) {
        fail(pending, {});
        return false;
    }
    switch (ClassifyFirstBytes({bytes.data(), static_cast<size_t>(count)})) {
    case TlsFirstBytes::Incomplete:
        if (pending.hasEnded)
            fail(pending, {});
        return false;
    case TlsFirstBytes::PlainHttp:
        respondPlain(pending);
        return false;
    case TlsFirstBytes::Other:
        fail(pending, "the connection does not begin with a handshake");
        return false;
    default:
        pending.session = std::make_unique<TlsSession>(pending.arrival.context, descriptor);
        pending.arrival.descriptor = -1;
        return true;
    }
}

void TlsHandshakes::Thread::finish(Pending& pending)
{
    if (!pending.arrival.place) {
        refuse(pending);
        return;
    }
    epoll_ctl(mEpoll, EPOLL_CTL_DEL, pending.session->getDescriptor(), nullptr);
    mSink.secured({std::move(pending.arrival), std::move(pending.session)});
    remove(pending);
}

// There is no place for the connection.
void TlsHandshakes::Thread::refuse(Pending& pending)
{
    size_t written = 0;
    pending.session->write(kUnavailableResponse, std::strlen(kUnavailableResponse), written);
    pending.session->sendCloseNotify();
    keepOrClose(pending.session->releaseDescriptor(), true);
    remove(pending);
}

void TlsHandshakes::Thread::respondPlain(Pending& pending)
{
    const std::string response = plainHttpResponse();
    const int descriptor = std::exchange(pending.arrival.descriptor, -1);
    send(descriptor, response.data(), response.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    keepOrClose(descriptor, true);
    remove(pending);
}

void TlsHandshakes::Thread::note(const IpAddress& peer, std::string_view why)
{
    ++mFailures;
    try {
        mLastFailure = (peer.isValid() ? peer.toStringWithPort() : "a Unix socket") + ": ";
        mLastFailure += why;
    } catch (const std::bad_alloc&) {
        // The line has the failure before, or less of this one.
    }
}

// Without memory, too. OpenSSL has sent the alert. A reset would destroy it when the client has
// sent more.
void TlsHandshakes::Thread::fail(Pending& pending, std::string_view why)
{
    if (!why.empty())
        note(pending.arrival.peer.address, why);
    const bool hasBegun = pending.session != nullptr;
    const int descriptor = hasBegun ? pending.session->releaseDescriptor()
                                    : std::exchange(pending.arrival.descriptor, -1);
    keepOrClose(descriptor, hasBegun && hasReceived(descriptor));
    remove(pending);
}

void TlsHandshakes::Thread::keepOrClose(int descriptor, bool keep)
{
    if (descriptor < 0)
        return;
    // A child of the application may hold it: closing would not end its events.
    epoll_ctl(mEpoll, EPOLL_CTL_DEL, descriptor, nullptr);
    if (!keep) {
        close(descriptor);
        return;
    }
    shutdown(descriptor, SHUT_WR);
    mSink.keepUntilSeen(descriptor);
}

void TlsHandshakes::Thread::remove(Pending& pending)
{
    mPendingOf.erase(pending.number);
    mPending.erase(pending.position);
    --mCount;
}

void TlsHandshakes::Thread::closeExpired(int64_t nowMs)
{
    for (auto next = mPending.begin(); next != mPending.end();) {
        Pending& pending = *next++;
        if (nowMs >= pending.arrival.deadlineMs)
            fail(pending, pending.session ? "timeout" : std::string_view());
    }
}

void TlsHandshakes::Thread::closeClosing(bool onlySilent)
{
    for (auto next = mPending.begin(); next != mPending.end();) {
        Pending& pending = *next++;
        if (!onlySilent || (!pending.session && !hasReceived(pending.arrival.descriptor)))
            fail(pending, {});
    }
}

// One line for many: anybody can make a handshake fail.
void TlsHandshakes::Thread::report(int64_t nowMs)
{
    if (mFailures == 0 || (mReportedMs != 0 && nowMs - mReportedMs < kReportMs))
        return;
    mReportedMs = nowMs;
    try {
        qvLogObject(qvLogObject::kInformation)
            << "TLS handshakes failed: " << mFailures << ", the last one with " << mLastFailure;
        mFailures = 0;
    } catch (const std::bad_alloc&) {
        // The next line counts these, too.
    }
}

TlsHandshakes::TlsHandshakes(TlsHandshakeSink& sink, size_t threads)
{
    for (size_t i = 0; i < threads; ++i)
        mThreads.push_back(std::make_unique<Thread>(sink, mCount, kMaxHandshakes / threads));
}

TlsHandshakes::~TlsHandshakes() = default;

void TlsHandshakes::start(TlsArrival&& arrival)
{
    mThreads[mTurn++ % mThreads.size()]->start(std::move(arrival));
}

void TlsHandshakes::closeSilent()
{
    for (const auto& thread : mThreads)
        thread->closeSome(true);
}

void TlsHandshakes::closeAll()
{
    for (const auto& thread : mThreads)
        thread->closeSome(false);
}

}  // namespace qv::impl
