// One datagram for each message, as sd_notify(3) has it. Written here, and not called from
// libsystemd: the protocol is stable and small, and the library would bring five others into each
// process.

#include <Wendrel/kit/ServiceManager.h>

#include <Wendrel/kit/Server.h>

#include "KitLog.h"

#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>
#include <qvSystem/qvWaitCondition.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <new>
#include <string>
#include <thread>

namespace qv::kit
{
namespace
{

constexpr int64_t kUsPerMs = 1000;
constexpr int64_t kChecksPerLimit = 4;  // of the watchdog
constexpr int64_t kMaxIntervalMs = 10000;

// A path, or a name without a file, which begins with "@" here and with NUL in the address. A
// machine manager's socket of another family is left alone.
socklen_t fillAddress(const char* path, sockaddr_un& address)
{
    const size_t bytes = path ? std::strlen(path) : 0;
    if (bytes < 2 || bytes >= sizeof address.sun_path || (*path != '/' && *path != '@'))
        return 0;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, bytes);
    if (*path == '@')
        address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + bytes);
}

void notify(std::string_view message)
{
    sockaddr_un address{};
    const socklen_t bytes = fillAddress(std::getenv("NOTIFY_SOCKET"), address);
    if (bytes == 0)
        return;
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        return;
    sendto(descriptor, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
           reinterpret_cast<const sockaddr*>(&address), bytes);
    close(descriptor);
}

int64_t numberOf(const char* variable)
{
    const char* const text = std::getenv(variable);
    int64_t number = 0;
    if (text)
        std::from_chars(text, text + std::strlen(text), number);
    return number;
}

// 0: no watchdog for this process.
int64_t watchdogIntervalMs()
{
    const int64_t process = numberOf("WATCHDOG_PID");
    const int64_t timeUs = numberOf("WATCHDOG_USEC");
    if (timeUs <= 0 || (process != 0 && process != getpid()))
        return 0;
    return std::clamp<int64_t>(timeUs / kUsPerMs / kChecksPerLimit, 1, kMaxIntervalMs);
}

int64_t monotonicUs()
{
    constexpr int64_t kNsPerUs = 1000;
    constexpr int64_t kUsPerSecond = 1000000;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kUsPerSecond + now.tv_nsec / kNsPerUs;
}

}  // namespace

// Looks at the threads of the server.
class ServiceManager::Watchdog
{
public:
    Watchdog(Server& server, int64_t intervalMs)
        : mServer(server), mIntervalMs(intervalMs), mThread([this] { look(); })
    {}

    ~Watchdog()
    {
        {
            const qvMutexLocker locker(&mMutex);
            mIsEnding = true;
        }
        mEnd.wakeAll();
        mThread.join();
    }

    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    // The last requests may take their time.
    void doNotFire() { mIsStopping = true; }

private:
    bool waitInterval()
    {
        const qvMutexLocker locker(&mMutex);
        if (!mIsEnding)
            mEnd.wait(&mMutex, static_cast<unsigned long>(mIntervalMs));
        return !mIsEnding;
    }

    void look()
    {
        uint64_t seen = 0;
        do {
            try {
                const uint64_t turns = mServer.countTurns();
                if (turns != seen || mIsStopping)
                    notify("WATCHDOG=1");
                seen = turns;
            } catch (const std::exception&) {
                // No memory: the next look may have some.
            }
        } while (waitInterval());
    }

    Server& mServer;
    const int64_t mIntervalMs;
    std::atomic<bool> mIsStopping{false};
    qvMutex mMutex;
    qvWaitCondition mEnd;
    bool mIsEnding QV_GUARDED_BY(mMutex) = false;
    std::thread mThread;  // uses the others
};

ServiceManager::ServiceManager(Server& server) : mServer(server) {}

ServiceManager::~ServiceManager() = default;

bool ServiceManager::isPresent()
{
    sockaddr_un address{};
    return fillAddress(std::getenv("NOTIFY_SOCKET"), address) != 0;
}

void ServiceManager::ready()
{
    if (!isPresent())
        return;
    try {
        const int64_t intervalMs = watchdogIntervalMs();
        if (!mWatchdog && intervalMs != 0)
            mWatchdog = std::make_unique<Watchdog>(mServer, intervalMs);
    } catch (const std::exception& error) {
        LogOfRoute("server", "the watchdog of the service has no thread: ", error.what());
    }
    try {
        std::string message = "READY=1\nSTATUS=Serving on";
        for (const std::string& url : mServer.urls())
            message.append(" ").append(url);
        notify(message);
    } catch (const std::exception&) {
        notify("READY=1");
    }
}

void ServiceManager::reloading()
{
    if (!isPresent())
        return;
    try {
        notify("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(monotonicUs()));
    } catch (const std::bad_alloc&) {
        // The manager is not told.
    }
}

void ServiceManager::stopping()
{
    if (mWatchdog)
        mWatchdog->doNotFire();
    notify("STOPPING=1");
}

void ServiceManager::status(std::string_view line)
{
    if (!isPresent())
        return;
    try {
        notify("STATUS=" + std::string(line.substr(0, line.find('\n'))));
    } catch (const std::bad_alloc&) {
        // The manager is not told.
    }
}

}  // namespace qv::kit
