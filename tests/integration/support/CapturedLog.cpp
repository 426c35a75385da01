// The log of the process, kept so that tests can ask for its lines.

#include "CapturedLog.h"

#include "Waiting.h"

#include <qvSystem/qvLog.h>

#include <algorithm>
#include <memory>

namespace integration
{

namespace
{

std::mutex linesMutex;
std::condition_variable lineWritten;
std::vector<LogLine> lines;
std::unique_ptr<qv::qvLog> platformLog;

class KeepingSink : public qv::qvLogSink
{
public:
    void write(const qv::qvLog::LogEntry& entry) override
    {
        const std::lock_guard<std::mutex> lock(linesMutex);
        lines.push_back({entry.level, entry.category, entry.message});
        lineWritten.notify_all();
    }
    void flush() override {}
};

}  // namespace

void installCapturedLog()
{
    platformLog = std::make_unique<qv::qvLog>();
    platformLog->setMinimumLevel(qv::qvLog::Trace);
    platformLog->addSink(std::make_unique<KeepingSink>());
    platformLog->install();
}

void uninstallCapturedLog()
{
    platformLog->uninstall();
    platformLog.reset();
}

void clearLog()
{
    const std::lock_guard<std::mutex> lock(linesMutex);
    // The memory as well, for tests that compare it; an empty list assigned would keep it.
    std::vector<LogLine>().swap(lines);
}

std::vector<LogLine> logLines()
{
    const std::lock_guard<std::mutex> lock(linesMutex);
    return lines;
}

std::vector<LogLine> logLines(const std::string& message)
{
    std::vector<LogLine> found;
    for (const LogLine& line : logLines()) {
        if (line.message == message)
            found.push_back(line);
    }
    return found;
}

bool waitForLogLine(const std::string& message)
{
    std::unique_lock<std::mutex> lock(linesMutex);
    return lineWritten.wait_for(lock, kLimit, [&message] {
        return std::any_of(lines.begin(), lines.end(),
                           [&message](const LogLine& line) { return line.message == message; });
    });
}

}  // namespace integration
