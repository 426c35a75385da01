// wendrel-filedrop: serves one directory until it is told to stop.

#include "FileDrop.h"
#include "FileStore.h"
#include "Log.h"
#include "Options.h"

#include <Wendrel/kit/Server.h>
#include <qvSystem/qvLog.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iostream>
#include <malloc.h>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace filedrop
{

namespace
{

constexpr size_t kLogFileBytes = 10u << 20;
constexpr size_t kOldLogFiles = 3;
constexpr std::chrono::milliseconds kDrainInterval(50);

int complain(const std::string& message)
{
    std::cerr << "wendrel-filedrop: " << message << std::endl;
    return 1;
}

// Bodies pass through the heap in blocks of 64 KiB and more. Given back to the system one by
// one, they do not add up to memory that is held for nothing after a burst of transfers.
void keepHeapSmall()
{
    mallopt(M_MMAP_THRESHOLD, 65536);
    mallopt(M_TRIM_THRESHOLD, 262144);
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

// Why the daemon could not listen there; empty when it could. Asked before, so that the usual
// reasons are told in one line.
std::string portTrouble(const Options& options)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return std::strerror(errno);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(options.port);
    address.sin_addr.s_addr = htonl(options.allInterfaces ? INADDR_ANY : INADDR_LOOPBACK);
    const bool bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int error = errno;
    close(fd);
    if (bound)
        return {};
    return error == EADDRINUSE ? "is in use"
                               : "cannot be listened on: " + std::string(std::strerror(error));
}

std::string ownAddress(const Options& options)
{
    std::string host = "127.0.0.1";
    char name[256] = {};
    if (options.allInterfaces && gethostname(name, sizeof name - 1) == 0)
        host = name;
    return "http://" + host + ":" + std::to_string(options.port) + "/";
}

// Takes a signal that has come since the first one; all are still blocked.
bool isStopSignalPending()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    const timespec noTime{};
    return sigtimedwait(&signals, nullptr, &noTime) > 0;
}

// Waits for running transfers; a second signal ends the wait.
bool finishTransfers(qv::kit::Server& server, std::chrono::seconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!server.getApplication().drain(kDrainInterval)) {
        if (std::chrono::steady_clock::now() >= end || isStopSignalPending())
            return false;
    }
    return true;
}

int serve(const Options& options, std::unique_ptr<FileStore> store, qv::kit::StopSignal& stopSignal)
{
    Settings settings;
    settings.workers = options.workers;
    settings.maxUploadBytes = options.maxUploadBytes;
    const unsigned int leftovers = store->removedLeftovers();
    qv::kit::Server server(std::make_unique<FileDrop>(std::move(store), settings));
    qv::http::HttpServer::Parameters parameters;
    parameters.port = options.port;
    parameters.threadPoolSize = options.threads;
    parameters.allowWebSocket = true;
    parameters.listenOnAllInterfaces = options.allInterfaces;
    if (!server.start(parameters))
        return complain("cannot serve on port " + std::to_string(options.port));

    if (leftovers > 0)
        writeLog(qv::qvLog::Notice, "Removed " + std::to_string(leftovers) + " unfinished uploads");
    std::cout << "Serving '" << options.directory << "' at " << ownAddress(options) << std::endl;

    const int signal = stopSignal.wait();
    writeLog(qv::qvLog::Notice, std::string("Stopping on ") + strsignal(signal));
    if (!finishTransfers(server, std::chrono::seconds(options.stopLimitSeconds)))
        writeLog(qv::qvLog::Warning, "Some transfers were cut off");
    server.stop(std::chrono::milliseconds(0));
    writeLog(qv::qvLog::Notice, "Stopped");
    return 0;
}

int run(int argc, char** argv)
{
    qv::kit::StopSignal stopSignal;  // before any thread
    Options options;
    int exitCode = 0;
    if (!parseOptions(argc, argv, options, exitCode))
        return exitCode;
    keepHeapSmall();

    std::string error;
    qv::qvLog log;
    if (!startLog(options, log, error))
        return complain(error);
    std::unique_ptr<FileStore> store = FileStore::open(options.directory, error);
    if (!store)
        return complain(error);
    const std::string trouble = portTrouble(options);
    if (!trouble.empty())
        return complain("port " + std::to_string(options.port) + " " + trouble);
    return serve(options, std::move(store), stopSignal);
}

}  // namespace

}  // namespace filedrop

int main(int argc, char** argv)
{
    return filedrop::run(argc, argv);
}
