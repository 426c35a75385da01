// wendrel-filedrop: serves one directory until it is told to stop.

#include "FileDrop.h"
#include "FileStore.h"
#include "Log.h"
#include "Options.h"

#include <Wendrel/kit/ServiceManager.h>
#include <qvSystem/qvLog.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

namespace filedrop
{

namespace
{

constexpr size_t kLogFileBytes = 10u << 20;
constexpr size_t kOldLogFiles = 3;
constexpr std::chrono::milliseconds kSignalInterval(50);

int complain(const std::string& message)
{
    std::cerr << "wendrel-filedrop: " << message << std::endl;
    return 1;
}

bool startLog(const Options& options, qv::qvLog& log, std::string& error)
{
    std::unique_ptr<qv::qvLogSink> sink =
        options.logFile.empty()
            ? qv::MakeStandardErrorSink()
            : qv::MakeRotatingFileSink(options.logFile, kLogFileBytes, kOldLogFiles, error);
    if (!sink) {
        error = "cannot write log file '" + options.logFile + "': " + error;
        return false;
    }
    log.addSink(std::move(sink));
    log.setMinimumLevel(qv::qvLog::LevelFromName(options.logLevel));
    log.install();
    return true;
}

// SIGINT, SIGTERM and SIGHUP, taken one by one.
class StopSignals
{
public:
    // In main, before any thread is started: all of them block the signals.
    StopSignals()
    {
        sigemptyset(&mSignals);
        sigaddset(&mSignals, SIGINT);
        sigaddset(&mSignals, SIGTERM);
        sigaddset(&mSignals, SIGHUP);
        pthread_sigmask(SIG_BLOCK, &mSignals, nullptr);
        std::signal(SIGPIPE, SIG_IGN);
    }

    // Waits for a signal and returns its number.
    int wait() const
    {
        int number = 0;
        sigwait(&mSignals, &number);
        return number;
    }

    // Waits so long for one that ends the program; false when none has come.
    bool take(std::chrono::milliseconds limit) const
    {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
        const timespec time{seconds.count(), std::chrono::nanoseconds(limit - seconds).count()};
        const int number = sigtimedwait(&mSignals, nullptr, &time);
        return number == SIGINT || number == SIGTERM;
    }

private:
    sigset_t mSignals;
};

// Waits for running transfers; a second signal ends the wait. False when some were cut off.
bool stop(qv::kit::Server& server, std::chrono::milliseconds limit, const StopSignals& signals)
{
    std::future<bool> stopped = std::async(std::launch::async, [&] { return server.stop(limit); });
    while (stopped.wait_for(kSignalInterval) == std::future_status::timeout) {
        if (signals.take(std::chrono::milliseconds(0)))
            server.stop(std::chrono::milliseconds(0));
    }
    return stopped.get();
}

int serve(const Options& options, std::unique_ptr<FileStore> store, const StopSignals& signals)
{
    const unsigned int leftovers = store->removedLeftovers();
    FileDrop fileDrop(std::move(store), options.settings);
    if (!fileDrop.server().start())
        return complain(fileDrop.server().failureReason());

    if (leftovers > 0)
        writeLog(qv::qvLog::Notice, "Removed " + std::to_string(leftovers) + " unfinished uploads");
    for (const std::string& url : fileDrop.server().urls())
        std::cout << "Serving '" << options.directory << "' at " << url << std::endl;

    qv::kit::ServiceManager manager(fileDrop.server());
    manager.ready();
    int signal = 0;
    while ((signal = signals.wait()) == SIGHUP) {
        manager.reloading();
        fileDrop.server().reloadCertificates();
        manager.ready();
    }
    if (options.settings.server.stopDelay.count() > 0)
        signals.take(options.settings.server.stopDelay);
    manager.stopping();
    writeLog(qv::qvLog::Notice, std::string("Stopping on ") + strsignal(signal));
    if (!stop(fileDrop.server(), options.settings.server.stopTimeout, signals))
        writeLog(qv::qvLog::Warning, "Some transfers were cut off");
    writeLog(qv::qvLog::Notice, "Stopped");
    return 0;
}

int run(int argc, char** argv)
{
    const StopSignals signals;
    Options options;
    int exitCode = 0;
    if (!parseOptions(argc, argv, options, exitCode))
        return exitCode;

    std::string error;
    qv::qvLog log;
    if (!startLog(options, log, error))
        return complain(error);
    std::unique_ptr<FileStore> store = FileStore::open(options.directory, error);
    if (!store)
        return complain(error);
    return serve(options, std::move(store), signals);
}

}  // namespace

}  // namespace filedrop

int main(int argc, char** argv)
{
    return filedrop::run(argc, argv);
}
