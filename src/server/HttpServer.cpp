// The server thread: starts one daemon, sleeps until it is told to stop, stops it.

#include <Wendrel/HttpServer.h>

#include <Wendrel/Wendrel.h>

#include "server/Dispatch.h"
#include "server/EventServer.h"
#include "server/logging/DaemonLog.h"
#include "server/logging/LogObject.h"
#include "streaming/ChunkPool.h"
#include "streaming/StreamCallbacks.h"

#include <qvSystem/Rollback.h>

#include <microhttpd.h>

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cmath>
#include <ios>
#include <new>
#include <system_error>

namespace qv::http
{
namespace
{

constexpr size_t kConnectionMemoryBytes = 262144;
constexpr int kStrictForClient = 1;
constexpr unsigned long kStopCheckIntervalMs = 200;
constexpr unsigned long kStateCheckIntervalMs = 5;
constexpr const char* kListenerThreadName = "http-listener";
constexpr unsigned long kJoinLimitMs = 0x7fffffff;  // in effect none

using CompletedCallback = void (*)(void*, MHD_Connection*, void**, MHD_RequestTerminationCode);
using UriLogCallback = void* (*)(void*, const char*, MHD_Connection*);
using LogCallback = void (*)(void*, const char*, va_list);

sockaddr_in addressOf(const HttpServer::Parameters& parameters)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(parameters.port);
    address.sin_addr.s_addr =
        htonl(parameters.listenOnAllInterfaces ? INADDR_ANY : INADDR_LOOPBACK);
    return address;
}

// Whole seconds, rounded up, in single precision.
unsigned int timeoutSeconds(uint32_t ms)
{
    return static_cast<unsigned int>(std::ceil(static_cast<float>(ms) / 1000.0f));
}

unsigned int daemonFlags(const HttpServer::Parameters& parameters)
{
    const unsigned int flags = MHD_USE_ERROR_LOG | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO;
    return parameters.allowWebSocket ? flags | MHD_ALLOW_UPGRADE : flags;
}

// Required: a daemon that has only select is refused.
bool canPoll()
{
    if (MHD_is_feature_supported(MHD_FEATURE_POLL) == MHD_YES ||
        MHD_is_feature_supported(MHD_FEATURE_EPOLL) == MHD_YES)
        return true;
    qvLogObject(qvLogObject::kError)
        << "Warning using microhttpd without poll or epoll support. The server will exit.";
    return false;
}

// The daemon fetches each option with a fixed type from a variable argument list: the casts
// decide whether the options after it are read right.
MHD_Daemon* startDaemon(HttpServer& server, const HttpServer::Parameters& parameters)
{
    const sockaddr_in address = addressOf(parameters);
    const unsigned int flags = daemonFlags(parameters);
    if (MHD_is_feature_supported(MHD_FEATURE_EPOLL) != MHD_YES)
        qvLogObject(qvLogObject::kWarning)
            << "epoll is not supported, performance might be degraded";
    qvLogObject(qvLogObject::kInformation, "httpserver")
        << "Starting http server : listen @" << parameters.port << ", with flags 0x" << std::hex
        << flags;
    void* const noClosure = nullptr;
    MHD_Daemon* daemon = MHD_start_daemon(
        flags, parameters.port, nullptr, nullptr,
        reinterpret_cast<MHD_AccessHandlerCallback>(HttpServerImpl::GetHttpCallback()), &server,
        MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<LogCallback>(HttpServerImpl::GetLogFunction()),
        noClosure, MHD_OPTION_URI_LOG_CALLBACK,
        reinterpret_cast<UriLogCallback>(HttpServerImpl::GetUriLogCallback()), noClosure,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemoryBytes, MHD_OPTION_LISTEN_BACKLOG_SIZE,
        static_cast<unsigned int>(parameters.listenBacklog), MHD_OPTION_CONNECTION_TIMEOUT,
        timeoutSeconds(parameters.connectionTimeoutMs), MHD_OPTION_SOCK_ADDR,
        reinterpret_cast<const sockaddr*>(&address), MHD_OPTION_THREAD_POOL_SIZE,
        static_cast<unsigned int>(parameters.threadPoolSize), MHD_OPTION_NOTIFY_COMPLETED,
        reinterpret_cast<CompletedCallback>(HttpServerImpl::GetRequestCompletedCallback()),
        static_cast<void*>(&server), MHD_OPTION_STRICT_FOR_CLIENT, kStrictForClient,
        MHD_OPTION_END);
    if (!daemon)
        qvLogObject(qvLogObject::kError) << "Failed to create mhd server context";
    return daemon;
}

bool isLibraryInitialized()
{
    if (IsWendrelInitialized())
        return true;
    qvLogObject(qvLogObject::kError) << "Wendrel is not initialized";
    return false;
}

}  // namespace

HttpServer::HttpServer(HttpServerImpl* impl) : mImpl(impl), mState(Stopped), mStopRequested(false)
{}

// The application's object, the first member, is deleted last.
HttpServer::~HttpServer()
{
    stopServer(true);
}

void HttpServer::startServer(const Parameters& parameters)
{
    qvMutexLocker locker(&mMutex);
    if (mState != Stopped)
        return;
    // A run that has just set this state may not have left its thread yet; it needs no lock
    // any more.
    waitThread(kJoinLimitMs);
    mParameters = parameters;
    mState = Starting;
    mStopRequested = false;
    mHasDrained = false;
    // The new thread waits for the lock. Without a thread nothing would ever change the state.
    Rollback starting([this] { mState = Stopped; });
    startThread(nullptr);
    starting.commit();
    mWake.wakeAll();
}

void HttpServer::stopServer(bool wait)
{
    uint32_t run = 0;
    {
        qvMutexLocker locker(&mMutex);
        mStopRequested = true;
        run = getRunNumber();
        mWake.wakeAll();
        if (mEventServer)
            mEventServer->getListener().stop(0);
    }
    // Another thread may start the server again before this one waits.
    if (wait)
        waitThread(kJoinLimitMs, run);
}

HttpServer::State HttpServer::getState() const
{
    return static_cast<State>(mState.load());
}

bool HttpServer::isStopRequested() const
{
    return mStopRequested;
}

// Holds the lock from end to end; only the timed wait releases it. The application's
// onServerStopped is called under it.
void HttpServer::run()
{
    qvMutexLocker locker(&mMutex);
    if (mEventServer) {
        locker.unlock();
        runEventDriven();
        return;
    }
    MHD_Daemon* daemon =
        isLibraryInitialized() && canPoll() ? startDaemon(*this, mParameters) : nullptr;
    if (!daemon) {
        mImpl->onServerStopped();
        mState = Failed;
        return;
    }
    mState = Running;
    const impl::ChunkPool::User chunkPoolUser;
    while (!mStopRequested)
        mWake.wait(&mMutex, kStopCheckIntervalMs);
    mImpl->onServerStopped();
    MHD_stop_daemon(daemon);
    mState = Stopped;
}

bool HttpServer::serve(const ServerOptions& options, size_t recordBytes)
{
    qvMutexLocker locker(&mMutex);
    mFailureReason.clear();
    if (mState != Stopped)
        mFailureReason = "the server is not stopped";
    else if (!IsWendrelInitialized())
        mFailureReason = "Wendrel is not initialized; call initializeWendrel first";
    if (!mFailureReason.empty())
        return false;
    waitThread(kJoinLimitMs);
    mEventServer =
        impl::EventServer::Open(*this, impl::ReadOptions(options, recordBytes), mFailureReason);
    if (!mEventServer)
        return false;
    // The new thread waits for the lock.
    Rollback starting([this] { mEventServer.reset(); });
    mEndpoints = mEventServer->getEndpoints();
    mUrls = mEventServer->getUrls();
    mStopRequested = false;
    mHasDrained = false;
    try {
        startThread(kListenerThreadName);
    } catch (const std::system_error& error) {
        mFailureReason = std::string("cannot start the listener thread: ") + error.what();
        return false;
    }
    starting.commit();
    mState = Running;
    try {
        for (const std::string& endpoint : mEndpoints)
            qvLogObject(qvLogObject::kInformation, "httpserver") << "Serving on " << endpoint;
    } catch (const std::bad_alloc&) {
        // The server runs without the line.
    }
    return true;
}

// Without the lock: it may be taken meanwhile to stop the server or to ask for its endpoints.
void HttpServer::runEventDriven()
{
    impl::Listener& listener = mEventServer->getListener();
    const impl::ChunkPool::User chunkPoolUser;
    listener.run();
    mImpl->onServerStopped();
    listener.drain();
    qvMutexLocker locker(&mMutex);
    mStopRequested = true;
    mHasDrained = listener.hasDrained();
    mEventServer.reset();
    mState = Stopped;
}

std::string HttpServer::getFailureReason() const
{
    const qvMutexLocker locker(&mMutex);
    return mFailureReason;
}

std::vector<std::string> HttpServer::getEndpoints() const
{
    const qvMutexLocker locker(&mMutex);
    return mEndpoints;
}

std::vector<std::string> HttpServer::getUrls() const
{
    const qvMutexLocker locker(&mMutex);
    return mUrls;
}

std::string HttpServer::checkOptions(const ServerOptions& options, size_t recordBytes)
{
    return impl::CheckOptions(impl::ReadOptions(options, recordBytes));
}

uint64_t HttpServer::countTurns()
{
    const qvMutexLocker locker(&mMutex);
    return mEventServer ? mEventServer->getListener().countTurns() : 0;
}

bool HttpServer::reloadCertificates(std::string* reason)
{
    std::string why;
    {
        const qvMutexLocker locker(&mMutex);
        why = mEventServer ? mEventServer->reloadCertificates() : "the server is not running";
    }
    if (why.empty())
        qvLogObject(qvLogObject::kInformation, "httpserver") << "Certificates reloaded";
    else
        qvLogObject(qvLogObject::kWarning, "httpserver")
            << "Certificates not reloaded: " << why << "; those in use stay";
    if (reason)
        *reason = why;
    return why.empty();
}

bool HttpServer::waitUntilRunning(std::chrono::milliseconds limit) const
{
    const int64_t endMs = qvSystemUtils::GetTimeBaseMs() + limit.count();
    const qvMutexLocker locker(&mMutex);
    while (mState == Starting) {
        const int64_t leftMs = endMs - qvSystemUtils::GetTimeBaseMs();
        if (leftMs <= 0)
            break;
        // The thread of polling mode wakes nobody.
        mWake.wait(&mMutex, std::min<unsigned long>(leftMs, kStateCheckIntervalMs));
    }
    return mState == Running;
}

bool HttpServer::shutDown(std::chrono::milliseconds deadline)
{
    uint32_t run = 0;
    {
        const qvMutexLocker locker(&mMutex);
        if (!mEventServer) {
            mStopRequested = true;
            mWake.wakeAll();
        } else {
            mEventServer->getListener().stop(std::max<int64_t>(deadline.count(), 0));
        }
        run = getRunNumber();
    }
    waitThread(kJoinLimitMs, run);
    const qvMutexLocker locker(&mMutex);
    return mHasDrained;
}

}  // namespace qv::http
