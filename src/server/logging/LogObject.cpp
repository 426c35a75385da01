// From a finished log statement to an entry of the platform log.

#include "server/logging/LogObject.h"

#include <qvSystem/qvLog.h>
#include <qvSystem/qvSystemUtils.h>
#include <qvSystem/qvThread.h>

#include <iostream>
#include <locale>

namespace qv
{
namespace
{

std::unique_ptr<std::string> ownedText(const char* text)
{
    return text ? std::make_unique<std::string>(text) : nullptr;
}

void printToStandardOutput(const qvLog::LogEntry& entry)
{
    // One insertion, so that lines of several threads do not mix.
    std::cout << entry.prefix + entry.message + '\n' << std::flush;
}

}  // namespace

qvLogObject::qvLogObject(int level, const char* category, const char* systemLogName)
    : mSink(qvLog::msInstance), mLevel(level), mTimestampMs(0),
      mUrgent(level == kWarning || level == kError)
{
    if (mSink) {
        // Required: the switch of level 2 decides this for statements of every level.
        if (mSink->isLevelEnabled(kInformation))
            mThreadId = qvThread::CurrentThreadId();
        if (!mSink->isLevelEnabled(level)) {
            mSink = nullptr;
            mLevel = kDiscard;
            return;
        }
    }
    // A statement that discards costs no look at the clock and no memory.
    mCategory = ownedText(category);
    mSystemLogName = ownedText(systemLogName);
    mTimestampMs = qvSystemUtils::GetMSecElapsedSinceEpoch();
}

qvLogObject::~qvLogObject() noexcept(false)
{
    if (mMessage)
        emit();
}

qvLogObject& qvLogObject::operator<<(std::ios_base& (*manipulator)(std::ios_base&))
{
    if (mLevel != kDiscard)
        stream() << manipulator;
    return *this;
}

std::ostringstream& qvLogObject::stream()
{
    if (!mMessage) {
        mMessage = std::make_unique<std::ostringstream>();
        // Programs read these lines: no separators of the application's locale in numbers.
        mMessage->imbue(std::locale::classic());
    }
    return *mMessage;
}

void qvLogObject::emit()
{
    qvLog::LogEntry entry;
    entry.message = mMessage->str();
    if (entry.message.empty())
        return;
    if (mCategory)
        entry.category = std::move(*mCategory);
    if (mSystemLogName)
        entry.systemLogName = std::move(*mSystemLogName);
    entry.threadId = std::move(mThreadId);
    entry.timestampMs = mTimestampMs;
    entry.level = mLevel;
    entry.computeLogPrefix(true);

    if (mSystemLogName)
        qvLog::WriteToSystemLog(entry, mSink == nullptr);
    if (mSink)
        mSink->Write(entry, mUrgent);
    if (!mSystemLogName && !mSink)
        printToStandardOutput(entry);
}

}  // namespace qv
