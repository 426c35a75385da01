// One entry of the platform log.

#include "Log.h"

#include <qvSystem/qvLog.h>
#include <qvSystem/qvSystemUtils.h>
#include <qvSystem/qvThread.h>

namespace filedrop
{

void writeLog(int level, const std::string& message)
{
    qv::qvLog* log = qv::qvLog::msInstance;
    if (log == nullptr || !log->isLevelEnabled(level))
        return;
    qv::qvLog::LogEntry entry;
    entry.message = message;
    entry.category = "filedrop";
    entry.threadId = qv::qvThread::CurrentThreadId();
    entry.timestampMs = qv::qvSystemUtils::GetMSecElapsedSinceEpoch();
    entry.level = level;
    entry.computeLogPrefix(true);
    log->Write(entry, level >= qv::qvLog::Error);
}

}  // namespace filedrop
