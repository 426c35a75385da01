// Log lines of the kit.

#include "KitLog.h"

#include <qvSystem/qvLog.h>
#include <qvSystem/qvSystemUtils.h>
#include <qvSystem/qvThread.h>

#include <iostream>

namespace qv::kit
{

void LogError(const std::string& message)
{
    qvLog::LogEntry entry;
    entry.message = message;
    entry.category = "kit";
    entry.threadId = qvThread::CurrentThreadId();
    entry.timestampMs = qvSystemUtils::GetMSecElapsedSinceEpoch();
    entry.level = qvLog::Error;
    entry.computeLogPrefix(true);
    qvLog* log = qvLog::msInstance;
    if (!log)
        std::cerr << entry.prefix + qvLog::EscapeControlCharacters(message) + '\n' << std::flush;
    else if (log->isLevelEnabled(qvLog::Error))
        log->Write(entry, true);
}

void LogOfRoute(const std::string& route, std::string_view text, std::string_view detail) noexcept
{
    try {
        std::string line = route;
        line.append(route.empty() ? "" : ": ").append(text).append(detail);
        LogError(line);
    } catch (...) {
        // No memory, or a sink that throws: the request or session is more important than the line.
    }
}

}  // namespace qv::kit
