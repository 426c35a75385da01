#ifndef QVSYSTEM_QVLOG_H
#define QVSYSTEM_QVLOG_H

#include <qvSystem/Export.h>
#include <qvSystem/ThreadSafety.h>
#include <qvSystem/qvMutex.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qv
{

class qvLogSink;

/// The platform log: receives finished entries and passes them to its sinks.
///
/// The process has at most one installed log (`msInstance`). Entries may be written from
/// any thread; sinks are called one at a time, under the log's own lock. A fork waits for the entry
/// that is being written, so that a child can use the installed log.
class QV_EXPORT qvLog
{
public:
    /// Levels that have a switch: 0 to 5.
    static constexpr int kLevelCount = 6;

    /// Levels by name; 6 and above never reach a log.
    enum Level : int { Trace = 0, Debug = 1, Information = 2, Notice = 3, Warning = 4, Error = 5 };

    /// One line of the log, as a sink gets it.
    struct QV_EXPORT LogEntry
    {
        std::string message;        ///< one line or several; sinks write one
        std::string category;       ///< empty when there is none
        std::string systemLogName;  ///< empty when the entry is not for the system log
        std::string prefix;         ///< filled by `computeLogPrefix`
        std::string threadId;       ///< empty when not recorded
        int64_t timestampMs = 0;    ///< wall-clock milliseconds since the epoch
        int level = Information;    ///< see `Level`

        /// Fills `prefix` with ISO-8601 local time with milliseconds and offset from UTC,
        /// level name, category in brackets and thread id, those that are present,
        /// each followed by one space; for example
        /// "2026-02-17T09:30:00.125+01:00 information [httpserver] 4711 ".
        /// Without `withTime` the time is left out.
        void computeLogPrefix(bool withTime);
    };

    /// Without sinks, not installed.
    qvLog();

    /// Uninstalls itself if it is the installed one. Nothing may write to it any more.
    ~qvLog();

    qvLog(const qvLog&) = delete;
    qvLog& operator=(const qvLog&) = delete;

    /// The installed log of the process; null until one is installed.
    static std::atomic<qvLog*> msInstance;

    /// Makes this the log of the process. It must live until it is uninstalled and every
    /// statement that was begun has ended.
    void install();

    /// Takes this log out of use if it is the installed one.
    void uninstall();

    /// Switches one level on or off; a level outside 0 to 5 is ignored. All are on at first
    /// except 0 and 1.
    void setLevelEnabled(int level, bool enabled);

    /// Switches on every level from `level` up and off every level below it.
    void setMinimumLevel(int level);

    /// Whether a level is on; false outside 0 to 5. Any thread, no lock.
    bool isLevelEnabled(int level) const
    {
        return level >= 0 && level < kLevelCount &&
               mLevelEnabled[static_cast<size_t>(level)].load(std::memory_order_relaxed);
    }

    /// Adds a sink; the log owns it.
    void addSink(std::unique_ptr<qvLogSink> sink);

    /// Passes the entry to every sink. With `urgent` the sinks are flushed at once.
    void Write(const LogEntry& entry, bool urgent);

    /// Sends the entry to the system log under its `systemLogName`. With `alsoStandardError`
    /// (the statement has no other place to go) the line is shown on standard error too.
    static void WriteToSystemLog(const LogEntry& entry, bool alsoStandardError);

    /// The name of a level as it stands in a prefix: "trace", "debug", "information",
    /// "notice", "warning", "error"; any other number as decimal digits.
    static std::string LevelName(int level);

    /// The level whose name is `name` ("info" and "warn" are understood too); -1 when
    /// there is none.
    static int LevelFromName(const std::string& name);

    /// `text` with each control character (0x00 to 0x1F, 0x7F) written as an escape
    /// ("\n", "\t", "\r", otherwise "\x1b") and "\" doubled, so that an entry is one line
    /// and cannot be mistaken for another.
    static std::string EscapeControlCharacters(const std::string& text);

private:
    static void LockForFork();
    static void UnlockAfterFork();

    std::array<std::atomic<bool>, kLevelCount> mLevelEnabled;
    qvMutex mMutex;
    std::vector<std::unique_ptr<qvLogSink>> mSinks QV_GUARDED_BY(mMutex);
};

/// Where entries go; derive from it for a place of your own.
class QV_EXPORT qvLogSink
{
public:
    /// Called by the destructor of the log that owns it.
    virtual ~qvLogSink();

    /// Takes one entry. Called under the log's lock, never on two threads at once; must not
    /// log itself. A sink writes one line an entry and escapes control characters.
    virtual void write(const qvLog::LogEntry& entry) = 0;

    /// Writes out buffered entries.
    virtual void flush() = 0;
};

/// One line an entry on standard error.
QV_EXPORT std::unique_ptr<qvLogSink> MakeStandardErrorSink();

/// One line an entry in the file `path`, which is renamed to `path` with a number before its
/// extension when it would grow above `maxBytes`; at most `maxFiles` old ones are kept.
/// On failure returns null and sets `error` to the reason. An entry that cannot be
/// written later (the disk is full, no descriptor is left) is lost; the first time is reported
/// on standard error. Opening the file again is tried once a second at most. A line that was cut
/// off, then or by the end of an earlier process, is ended before the next entry.
QV_EXPORT std::unique_ptr<qvLogSink> MakeRotatingFileSink(const std::string& path, size_t maxBytes,
                                                          size_t maxFiles, std::string& error);

/// One line an entry in the system log, under the program name `name`.
QV_EXPORT std::unique_ptr<qvLogSink> MakeSystemLogSink(const std::string& name);

}  // namespace qv

#endif
