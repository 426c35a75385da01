// A server from start to clean stop, and the signals that end a program.

#include <Wendrel/kit/Server.h>
#include <Wendrel/kit/ServiceManager.h>

#include "CertificateWatch.h"
#include "KitLog.h"
#include "ServerCore.h"

#include <Wendrel/Wendrel.h>

#include <qvSystem/Rollback.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

namespace qv::kit
{
namespace
{

constexpr std::array<int, 2> kStopSignals{SIGINT, SIGTERM};
constexpr int kCertificateCheckMs = 2000;
constexpr int kOk = 200;
constexpr int kUnavailable = 503;
constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";

// Readable after the first signal. Never closed: a handler may still be writing on another thread
// when the last run has ended.
std::atomic<int> sStopDescriptor{-1};

// The process that handles the signals. A child that it forks has its handlers and its descriptor.
std::atomic<pid_t> sStopProcess{-1};

// How often certificates were to be reloaded.
std::atomic<uint32_t> sReloads{0};

extern "C" void wendrelKitStop(int number)
{
    const int error = errno;
    // The action is the default one already; the signal is delivered when this returns.
    if (getpid() != sStopProcess) {
        raise(number);
        return;
    }
    const uint64_t one = 1;
    static_cast<void>(!write(sStopDescriptor, &one, sizeof one));
    errno = error;
}

// The wait that it interrupts looks at the count.
extern "C" void wendrelKitReload(int)
{
    ++sReloads;
}

// Handles SIGHUP while there is one.
class ReloadSignal
{
public:
    ReloadSignal()
    {
        const std::lock_guard<std::mutex> locker(sMutex);
        if (sCount++ != 0)
            return;
        struct sigaction action
        {};
        action.sa_handler = &wendrelKitReload;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        sigaction(SIGHUP, &action, &sBefore);
    }

    ~ReloadSignal()
    {
        const std::lock_guard<std::mutex> locker(sMutex);
        if (--sCount == 0)
            sigaction(SIGHUP, &sBefore, nullptr);
    }

    ReloadSignal(const ReloadSignal&) = delete;
    ReloadSignal& operator=(const ReloadSignal&) = delete;

private:
    static inline std::mutex sMutex;
    static inline int sCount = 0;
    static inline struct sigaction sBefore;
};

// Handles the signals while there is one; any number at a time.
class StopSignals
{
public:
    StopSignals()
    {
        const std::lock_guard<std::mutex> locker(sMutex);
        if (sStopProcess != getpid())
            forgetParent();
        if (sCount == 0)
            install();
        ++sCount;
    }

    ~StopSignals()
    {
        const std::lock_guard<std::mutex> locker(sMutex);
        if (--sCount == 0)
            uninstall();
    }

    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    static bool isValid() { return sStopDescriptor >= 0; }

    // True after a signal, false after the limit or an interruption. -1: no limit.
    static bool wait(int limitMs)
    {
        pollfd entry{sStopDescriptor, POLLIN, 0};
        return poll(&entry, 1, limitMs) > 0;
    }

private:
    // No thread of the parent is here: nobody uses the descriptor.
    static void forgetParent()
    {
        if (sCount != 0)
            uninstall();
        sCount = 0;
        if (isValid())
            close(sStopDescriptor.exchange(-1));
        sStopProcess = getpid();
    }

    static void install()
    {
        if (!isValid())
            sStopDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (!isValid())
            return;
        uint64_t ofEarlierRuns = 0;
        static_cast<void>(!read(sStopDescriptor, &ofEarlierRuns, sizeof ofEarlierRuns));
        struct sigaction action
        {};
        action.sa_handler = &wendrelKitStop;
        action.sa_flags = SA_RESETHAND | SA_RESTART;
        sigemptyset(&action.sa_mask);
        for (size_t i = 0; i < kStopSignals.size(); ++i)
            sigaction(kStopSignals[i], &action, &sBefore[i]);
        struct sigaction ignore
        {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &ignore, &sPipeBefore);
    }

    static void uninstall()
    {
        if (!isValid())
            return;
        for (size_t i = 0; i < kStopSignals.size(); ++i)
            sigaction(kStopSignals[i], &sBefore[i], nullptr);
        sigaction(SIGPIPE, &sPipeBefore, nullptr);
    }

    static inline std::mutex sMutex;
    static inline int sCount = 0;
    static inline std::array<struct sigaction, kStopSignals.size()> sBefore;
    static inline struct sigaction sPipeBefore;
};

void waitForEnd()
{
    while (!StopSignals::wait(-1)) {
    }
}

// A thread other than this one may have got SIGHUP: the count is looked at with the files.
void waitForEndReloading(Server& server, ServiceManager& manager, CertificateWatch& files,
                         uint32_t reloads)
{
    while (!StopSignals::wait(kCertificateCheckMs)) {
        const uint32_t now = sReloads;
        const bool isAsked = now != std::exchange(reloads, now);
        if (!files.hasChanged() && !isAsked)
            continue;
        manager.reloading();
        if (isAsked)
            server.reopenAccessLog();
        if (!server.options().tls.empty())
            server.reloadCertificates();
        manager.ready();
    }
}

}  // namespace

Server::Server() : Server(ServerOptions()) {}

Server::Server(ServerOptions options) : mOptions(std::move(options)), mCore(nullptr)
{
    Rollback counted(&terminateWendrel);  // an initialisation that throws has been counted, too
    initializeWendrel();
    mCore = new ServerCore;
    counted.commit();
}

Server::~Server()
{
    mCore->close();
    mCore->release();
    terminateWendrel();
}

Router& Server::router()
{
    return mCore->router();
}

ServerOptions& Server::options()
{
    return mOptions;
}

int Server::run(const std::string& endpoint)
{
    mOptions.listen = {endpoint};
    return run();
}

int Server::run()
{
    // Before the files are read, and until the server has stopped: SIGHUP would end the process.
    CertificateWatch files(mOptions.tls);
    const uint32_t reloads = sReloads;
    std::optional<ReloadSignal> signal;
    if (!mOptions.tls.empty() || mCore->accessLog() || ServiceManager::isPresent())
        signal.emplace();
    ServiceManager manager(*this);
    {
        // Before the server accepts connections: a signal from then on is not lost.
        const StopSignals signals;
        if (!StopSignals::isValid() || !start()) {
            std::cerr << (StopSignals::isValid() ? failureReason() : "cannot handle signals")
                      << '\n'
                      << std::flush;
            return 1;
        }
        for (const std::string& url : urls())
            std::cout << url << '\n';
        std::cout << std::flush;
        manager.ready();
        if (signal)
            waitForEndReloading(*this, manager, files, reloads);
        else
            waitForEnd();
        // A second signal ends the process.
        mCore->beginDraining();
        std::this_thread::sleep_for(mOptions.stopDelay);
    }
    manager.stopping();
    if (!stop(mOptions.stopTimeout) && mCore->abortedByStop() != 0)
        LogOfRoute("server",
                   "requests aborted by the stop: ", std::to_string(mCore->abortedByStop()));
    return 0;
}

uint64_t Server::countTurns()
{
    return mCore->countTurns();
}

void Server::logAccess(const std::string& path, AccessLog format)
{
    mCore->setAccessLog(std::make_unique<AccessWriter>(path, format));
}

void Server::logAccess(std::function<void(std::string_view line)> sink, AccessLog format)
{
    mCore->setAccessLog(std::make_unique<AccessWriter>(std::move(sink), format));
}

void Server::reopenAccessLog()
{
    if (AccessWriter* const log = mCore->accessLog())
        log->reopen();
}

uint64_t Server::lostAccessLines() const
{
    const AccessWriter* const log = mCore->accessLog();
    return log ? log->lostLines() : 0;
}

Route& Server::metrics(const std::string& pattern)
{
    mCore->enableMetrics();
    ServerCore* const core = mCore;
    return router()
        .get(pattern,
             [core](Request& request) {
                 request.setHeader("Cache-Control", "no-store");
                 request.reply(core->metricsText(), ContentType(kMetricsType));
             })
        .nonBlocking();
}

void Server::health(const std::string& alive, const std::string& ready)
{
    ServerCore* const core = mCore;
    const auto respond = [](Request& request, bool isWell) {
        request.setHeader("Cache-Control", "no-store");
        request.reply(isWell ? kOk : kUnavailable, isWell ? "ok\n" : "not ready\n");
    };
    router().get(alive, [respond](Request& request) { respond(request, true); }).nonBlocking();
    router()
        .get(ready, [core, respond](Request& request) { respond(request, core->isReady()); })
        .nonBlocking();
}

void Server::setReady(bool isReady)
{
    mCore->setReady(isReady);
}

bool Server::reloadCertificates(std::string* reason)
{
    return mCore->httpServer().reloadCertificates(reason);
}

bool Server::start(const std::string& endpoint)
{
    mOptions.listen = {endpoint};
    return start();
}

bool Server::start()
{
    return mCore->start(mOptions);
}

std::string Server::failureReason() const
{
    return mCore->failureReason();
}

bool Server::stop(std::chrono::milliseconds deadline)
{
    return mCore->stop(deadline);
}

void Server::onStopping(std::function<void()> callback)
{
    mCore->setStopping(std::move(callback));
}

bool Server::isRunning() const
{
    return mCore->httpServer().getState() == http::HttpServer::Running;
}

std::vector<std::string> Server::endpoints() const
{
    return mCore->httpServer().getEndpoints();
}

std::vector<std::string> Server::urls() const
{
    return mCore->httpServer().getUrls();
}

uint64_t Server::requestCount() const
{
    return mCore->requestCount();
}

size_t Server::openRequests() const
{
    return mCore->openRequests();
}

}  // namespace qv::kit
