// The log of docs/logging.md: a file, a sink of its own, and lines of the application.

#include <Wendrel/kit/Server.h>

#include <qvSystem/qvLog.h>
#include <qvSystem/qvSystemUtils.h>
#include <qvSystem/qvThread.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

using qv::qvLog;
using qv::kit::CompletedRequest;
using qv::kit::Request;

namespace
{

constexpr size_t kLogFileBytes = 10UL * 1024 * 1024;
constexpr size_t kOldLogFiles = 3;

// Writes "LEVEL CATEGORY MESSAGE" to standard error, for collectors that add the time.
class PlainSink : public qv::qvLogSink
{
public:
    void write(const qvLog::LogEntry& entry) override
    {
        // A client may have chosen part of the message.
        const std::string line = qvLog::LevelName(entry.level) + " " +
                                 (entry.category.empty() ? "-" : entry.category) + " " +
                                 qvLog::EscapeControlCharacters(entry.message) + "\n";
        std::fwrite(line.data(), 1, line.size(), stderr);
    }

    void flush() override { std::fflush(stderr); }
};

// Logs one line of the application. Any thread.
void writeLog(int level, const std::string& message)
{
    qvLog* log = qvLog::msInstance;
    if (!log || !log->isLevelEnabled(level))
        return;
    qvLog::LogEntry entry;
    entry.message = message;
    entry.category = "shop";
    entry.threadId = qv::qvThread::CurrentThreadId();
    entry.timestampMs = qv::qvSystemUtils::GetMSecElapsedSinceEpoch();
    entry.level = level;
    entry.computeLogPrefix(true);
    log->Write(entry, level >= qvLog::Warning);
}

// Logs to `path` and to standard error from `level` up. Null, after a message, on failure.
std::unique_ptr<qvLog> makeLog(const std::string& path, int level)
{
    std::string error;
    auto file = qv::MakeRotatingFileSink(path, kLogFileBytes, kOldLogFiles, error);
    if (!file) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return nullptr;
    }
    auto log = std::make_unique<qvLog>();
    log->addSink(std::move(file));
    log->addSink(std::make_unique<PlainSink>());
    log->setMinimumLevel(level);
    log->install();
    return log;
}

// One line for each request: "127.0.0.1 GET /order/tea 500 46 bytes 1 ms". Any thread.
void logRequest(const CompletedRequest& request)
{
    const std::string outcome =
        request.abortReason.empty() ? std::to_string(request.status) : request.abortReason;
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(request.duration);
    writeLog(qvLog::Debug, request.clientAddress.toString() + " " + request.method + " " +
                               request.target + " " + outcome + " " +
                               std::to_string(request.sentBytes) + " bytes " +
                               std::to_string(ms.count()) + " ms");
}

void addRoutes(qv::kit::Router& router)
{
    router.get("/", [](Request& request) {
        writeLog(qvLog::Debug, "somebody looks at the page");
        request.reply("The shop is open.\n");
    });
    router.get("/order/{item}", [](Request& request) {
        throw std::runtime_error("no " + request.pathParameter("item"));
    });
}

}  // namespace

int main(int argc, char** argv)
{
    const int level = argc == 4 ? qvLog::LevelFromName(argv[3]) : -1;
    if (level < 0) {
        std::fprintf(stderr, "usage: docs_logging ENDPOINT FILE LEVEL\n");
        return 2;
    }
    // Constructed before the server, so that it is destroyed after it.
    const std::unique_ptr<qvLog> log = makeLog(argv[2], level);
    if (!log)
        return 1;

    qv::kit::Server server;
    server.options().onCompleted = logRequest;
    addRoutes(server.router());
    return server.run(argv[1]);
}
