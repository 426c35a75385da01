// A platform log that keeps its entries. It is installed as the log of the process during its
// lifetime.
#ifndef WENDREL_TESTS_SUPPORT_CAPTUREDLOG_H
#define WENDREL_TESTS_SUPPORT_CAPTUREDLOG_H

#include "TestsOwn.h"
#include "Waiting.h"

#include <qvSystem/qvLog.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace qv::tests
{

// The fields of an entry that a test compares.
struct LogLine
{
    int level = 0;
    std::string category;
    std::string message;
    bool urgent = false;

    friend bool operator==(const LogLine& a, const LogLine& b)
    {
        return a.level == b.level && a.category == b.category && a.message == b.message &&
               a.urgent == b.urgent;
    }
    friend std::ostream& operator<<(std::ostream& out, const LogLine& line)
    {
        return out << line.level << (line.urgent ? " urgent" : "") << " [" << line.category << "] "
                   << line.message;
    }
};

class CapturedLog
{
public:
    CapturedLog() : mLog(std::make_unique<qvLog>()), mRecord(std::make_shared<Record>())
    {
        mLog->setMinimumLevel(0);
        mLog->addSink(std::make_unique<Sink>(mRecord));
        mLog->install();
    }

    qvLog& log() { return *mLog; }

    std::vector<LogLine> lines() const
    {
        std::lock_guard<std::mutex> lock(mRecord->mutex);
        std::vector<LogLine> lines;
        for (size_t i = 0; i < mRecord->entries.size(); ++i) {
            const qvLog::LogEntry& entry = mRecord->entries[i];
            lines.push_back({entry.level, entry.category, entry.message, mRecord->flushed[i]});
        }
        return lines;
    }

    // Lines with exactly this message.
    std::vector<LogLine> lines(const std::string& message) const
    {
        std::vector<LogLine> found = lines();
        found.erase(std::remove_if(found.begin(), found.end(),
                                   [&](const LogLine& line) { return line.message != message; }),
                    found.end());
        return found;
    }

    // Waits for a line with exactly this message; false at the limit.
    bool waitForLine(const std::string& message) const
    {
        std::unique_lock<std::mutex> lock(mRecord->mutex);
        return mRecord->written.wait_for(lock, kLimit, [&] {
            return std::any_of(mRecord->entries.begin(), mRecord->entries.end(),
                               [&](const auto& entry) { return entry.message == message; });
        });
    }

    // Forgets all lines, with their memory: an empty vector that is assigned would keep it.
    void clear()
    {
        const std::lock_guard<std::mutex> lock(mRecord->mutex);
        std::vector<qvLog::LogEntry>().swap(mRecord->entries);
        std::vector<bool>().swap(mRecord->flushed);
    }

    std::vector<qvLog::LogEntry> entries() const
    {
        std::lock_guard<std::mutex> lock(mRecord->mutex);
        return mRecord->entries;
    }

private:
    struct Record
    {
        std::mutex mutex;  // guards all below
        std::vector<qvLog::LogEntry> entries;
        std::vector<bool> flushed;  // an urgent entry is flushed at once
        std::condition_variable written;
    };

    class Sink : public qvLogSink
    {
    public:
        explicit Sink(std::shared_ptr<Record> record) : mRecord(std::move(record)) {}

        void write(const qvLog::LogEntry& entry) override
        {
            const TestsOwn own;
            std::lock_guard<std::mutex> lock(mRecord->mutex);
            mRecord->entries.push_back(entry);
            mRecord->flushed.push_back(false);
            mRecord->written.notify_all();
        }

        void flush() override
        {
            std::lock_guard<std::mutex> lock(mRecord->mutex);
            if (!mRecord->flushed.empty())
                mRecord->flushed.back() = true;
        }

    private:
        std::shared_ptr<Record> mRecord;
    };

    std::unique_ptr<qvLog> mLog;  // uninstalls itself
    std::shared_ptr<Record> mRecord;
};

}  // namespace qv::tests

#endif
