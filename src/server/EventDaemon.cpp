// Starts and feeds a daemon without a listening socket.

#include "server/EventDaemon.h"

#include "server/EventDispatch.h"
#include "server/ForgottenHead.h"

#include <qvSystem/qvSystemUtils.h>

#include <microhttpd.h>

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr unsigned kFlags = MHD_USE_ERROR_LOG | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_EPOLL |
                            MHD_USE_ITC | MHD_USE_NO_LISTEN_SOCKET | MHD_ALLOW_SUSPEND_RESUME |
                            MHD_ALLOW_UPGRADE;

// The listener counts. At a limit of its own the daemon would leave a mutex locked.
constexpr unsigned kNoConnectionLimit = 1000000;
constexpr unsigned kNoTimeout = 0;
constexpr int kStrictForClient = 1;

// Its body never ends; a piece of it is the cheapest event that makes the daemon go on.
constexpr char kNudgeHead[] = "POST / HTTP/1.1\r\nHost: n\r\n"
                              "Content-Length: 9223372036854775807\r\n\r\n";

}  // namespace

EventDaemon::EventDaemon(http::HttpServer& server, const Settings& settings,
                         const ConnectionLimits& limits)
    : mServer(server), mSettings(settings), mTable(limits, qvSystemUtils::GetTimeBaseMs())
{}

EventDaemon::~EventDaemon()
{
    stop();
}

// The daemon fetches each option with a fixed type from a variable argument list.
bool EventDaemon::start()
{
    mReplacement = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (mReplacement < 0)
        return false;
    void* const noClosure = nullptr;
    mDaemon = MHD_start_daemon(
        kFlags, 0, nullptr, nullptr, &HandleEventAccess, this, MHD_OPTION_EXTERNAL_LOGGER,
        &LogOfEventDaemon, static_cast<void*>(this), MHD_OPTION_URI_LOG_CALLBACK, &OpenEventContext,
        noClosure, MHD_OPTION_NOTIFY_COMPLETED, &EventRequestCompleted, static_cast<void*>(this),
        MHD_OPTION_NOTIFY_CONNECTION, &NotifyConnection, static_cast<void*>(this),
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, mSettings.connectionMemoryBytes,
        MHD_OPTION_CONNECTION_LIMIT, kNoConnectionLimit, MHD_OPTION_CONNECTION_TIMEOUT, kNoTimeout,
        MHD_OPTION_STRICT_FOR_CLIENT, kStrictForClient, MHD_OPTION_END);
    return mDaemon != nullptr;
}

void EventDaemon::stop()
{
    if (mDaemon)
        MHD_stop_daemon(std::exchange(mDaemon, nullptr));
    stopNudging();
    if (mReplacement >= 0)
        close(std::exchange(mReplacement, -1));
}

bool EventDaemon::serve(int descriptor, const sockaddr* address, size_t bytes)
{
    return MHD_add_connection(mDaemon, descriptor, address, static_cast<socklen_t>(bytes)) ==
           MHD_YES;
}

bool EventDaemon::openNudge()
{
    std::array<int, 2> pair{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair.data()) != 0)
        return false;
    mNudge = pair[0];
    sockaddr address{};
    address.sa_family = AF_UNIX;
    if (serve(pair[1], &address, sizeof address) && sendNudge(kNudgeHead, sizeof kNudgeHead - 1))
        return true;
    stopNudging();
    return false;
}

// True also when the daemon has not read the last ones: they are an event as well.
bool EventDaemon::sendNudge(const char* data, size_t size)
{
    return send(mNudge, data, size, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0 || errno == EAGAIN;
}

void EventDaemon::nudge()
{
    if (mNudge < 0 && !openNudge())
        return;
    if (!sendNudge("n", 1))
        stopNudging();
}

// A daemon that has not read so many nudges that no more can be sent is not awake.
void EventDaemon::askForTurn(uint64_t turn)
{
    mAskedTurn = turn;
    nudge();
}

// The daemon closes its end.
void EventDaemon::stopNudging()
{
    if (mNudge >= 0)
        close(std::exchange(mNudge, -1));
}

}  // namespace qv::impl
