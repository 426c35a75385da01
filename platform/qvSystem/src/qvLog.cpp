// The platform log: switches, prefix, and sinks built on spdlog.

#include <qvSystem/qvLog.h>

#include <qvSystem/ForkSafety.h>

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace qv
{
namespace
{

constexpr const char* kLevelNames[qvLog::kLevelCount] = {"trace",  "debug",   "information",
                                                         "notice", "warning", "error"};

constexpr std::chrono::seconds kReopenInterval(1);

bool hasSwitch(int level)
{
    return level >= 0 && level < qvLog::kLevelCount;
}

spdlog::level::level_enum spdlogLevel(int level)
{
    switch (level) {
    case qvLog::Trace:
        return spdlog::level::trace;
    case qvLog::Debug:
        return spdlog::level::debug;
    case qvLog::Warning:
        return spdlog::level::warn;
    case qvLog::Error:
        return spdlog::level::err;
    default:
        return spdlog::level::info;
    }
}

int syslogPriority(int level)
{
    switch (level) {
    case qvLog::Trace:
    case qvLog::Debug:
        return LOG_DEBUG;
    case qvLog::Notice:
        return LOG_NOTICE;
    case qvLog::Warning:
        return LOG_WARNING;
    case qvLog::Error:
        return LOG_ERR;
    default:
        return LOG_INFO;
    }
}

// ISO-8601 local time with milliseconds and the offset from UTC.
std::string timeText(int64_t timestampMs)
{
    const int64_t milliseconds = (timestampMs % 1000 + 1000) % 1000;  // before 1970 too
    const auto seconds = static_cast<std::time_t>((timestampMs - milliseconds) / 1000);
    std::tm local{};
    localtime_r(&seconds, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    const long offsetMinutes = local.tm_gmtoff / 60;
    const long absolute = offsetMinutes < 0 ? -offsetMinutes : offsetMinutes;
    char text[64];
    std::snprintf(text, sizeof text, "%s.%03d%c%02ld:%02ld", date, static_cast<int>(milliseconds),
                  offsetMinutes < 0 ? '-' : '+', absolute / 60, absolute % 60);
    return text;
}

// Whether the file at `path` ends inside a line and a line feed still fits: a full disk or the end
// of a process has cut it off there.
bool endsInsideLine(const std::string& path, size_t maxBytes)
{
    struct stat found = {};
    if (stat(path.c_str(), &found) != 0 || !S_ISREG(found.st_mode) || found.st_size == 0 ||
        static_cast<size_t>(found.st_size) >= maxBytes)
        return false;
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    char last = '\n';
    const bool isRead = pread(file, &last, 1, found.st_size - 1) == 1;
    close(file);
    return isRead && last != '\n';
}

// A sink of spdlog that gets finished lines; time and level are in our prefix already.
class SpdlogSink : public qvLogSink
{
public:
    using SinkPointer = std::shared_ptr<spdlog::sinks::sink>;

    // `mustEndLine`, if any, tells whether the place that `maker` has opened ends inside a line.
    SpdlogSink(std::function<SinkPointer()> maker, bool withPrefix,
               std::function<bool()> mustEndLine = nullptr)
        : mMaker(std::move(maker)), mMustEndLine(std::move(mustEndLine)), mSink(make()),
          mWithPrefix(withPrefix)
    {}

    void write(const qvLog::LogEntry& entry) override
    {
        std::string line = qvLog::EscapeControlCharacters(entry.message);
        if (mWithPrefix)
            line.insert(0, qvLog::EscapeControlCharacters(entry.prefix));
        const spdlog::details::log_msg message("", spdlogLevel(entry.level), line);
        reportFailure([&] {
            if (!mSink)
                makeAgain();
            useSink([&](spdlog::sinks::sink& sink) { sink.log(message); });
        });
    }

    void flush() override
    {
        reportFailure([this] { useSink([](spdlog::sinks::sink& sink) { sink.flush(); }); });
    }

private:
    using Clock = std::chrono::steady_clock;

    SinkPointer make() const
    {
        SinkPointer sink = mMaker();
        sink->set_pattern("%v");
        if (mMustEndLine && mMustEndLine())
            sink->log(spdlog::details::log_msg("", spdlog::level::info, ""));
        return sink;
    }

    // Each attempt to open a file that cannot be opened takes its time.
    void makeAgain()
    {
        const auto now = Clock::now();
        if (now < mNextAttempt)
            return;
        mNextAttempt = now + kReopenInterval;
        mSink = make();
        mNextAttempt = now;
    }

    // A sink that throws any exception may have closed its file and not opened the next one;
    // using it then would end the process. It is made anew with the next entry.
    template <typename Operation> void useSink(Operation operation)
    {
        const SinkPointer sink = std::exchange(mSink, nullptr);
        if (!sink)
            return;
        operation(*sink);
        mSink = sink;
    }

    // A log that cannot be written must not end the process.
    template <typename Operation> void reportFailure(Operation operation)
    {
        try {
            operation();
        } catch (const spdlog::spdlog_ex& e) {
            if (!mFailed)
                std::fprintf(stderr, "log entries are lost: %s\n", e.what());
            mFailed = true;
        }
    }

    const std::function<SinkPointer()> mMaker;
    const std::function<bool()> mMustEndLine;
    SinkPointer mSink;  // null after a failure
    Clock::time_point mNextAttempt;
    bool mWithPrefix;
    bool mFailed = false;
};

// The log whose sinks the calling thread is using. A sink that forks holds the lock already.
thread_local const qvLog* tWriting = nullptr;

class Writing
{
public:
    explicit Writing(const qvLog& log) { tWriting = &log; }
    ~Writing() { tWriting = nullptr; }
    Writing(const Writing&) = delete;
    Writing& operator=(const Writing&) = delete;
};

// The log that the calling thread has locked for a fork.
thread_local qvLog* tLockedForFork = nullptr;

}  // namespace

std::atomic<qvLog*> qvLog::msInstance{nullptr};

qvLogSink::~qvLogSink() = default;

void qvLog::LogEntry::computeLogPrefix(bool withTime)
{
    prefix.clear();
    if (withTime)
        prefix += timeText(timestampMs) + ' ';
    prefix += LevelName(level) + ' ';
    if (!category.empty())
        prefix += '[' + category + "] ";
    if (!threadId.empty())
        prefix += threadId + ' ';
}

qvLog::qvLog()
{
    setMinimumLevel(Information);
}

qvLog::~qvLog()
{
    uninstall();
}

void qvLog::LockForFork() QV_NO_THREAD_SAFETY_ANALYSIS
{
    qvLog* const log = msInstance;
    if (!log || tWriting == log)
        return;
    log->mMutex.lock();
    tLockedForFork = log;
}

void qvLog::UnlockAfterFork() QV_NO_THREAD_SAFETY_ANALYSIS
{
    if (tLockedForFork)
        std::exchange(tLockedForFork, nullptr)->mMutex.unlock();
}

void qvLog::install()
{
    static const bool isHeld = (holdAcrossForks<&LockForFork, &UnlockAfterFork>(), true);
    static_cast<void>(isHeld);
    msInstance = this;
}

void qvLog::uninstall()
{
    qvLog* expected = this;
    msInstance.compare_exchange_strong(expected, nullptr);
}

void qvLog::setLevelEnabled(int level, bool enabled)
{
    if (hasSwitch(level))
        mLevelEnabled[static_cast<size_t>(level)] = enabled;
}

void qvLog::setMinimumLevel(int level)
{
    for (int each = 0; each < kLevelCount; ++each)
        setLevelEnabled(each, each >= level);
}

void qvLog::addSink(std::unique_ptr<qvLogSink> sink)
{
    qvMutexLocker locker(&mMutex);
    mSinks.push_back(std::move(sink));
}

void qvLog::Write(const LogEntry& entry, bool urgent)
{
    qvMutexLocker locker(&mMutex);
    const Writing writing(*this);
    for (const auto& sink : mSinks) {
        sink->write(entry);
        if (urgent)
            sink->flush();
    }
}

void qvLog::WriteToSystemLog(const LogEntry& entry, bool alsoStandardError)
{
    const std::string message = EscapeControlCharacters(entry.message);
    syslog(LOG_USER | syslogPriority(entry.level), "%s: %s", entry.systemLogName.c_str(),
           message.c_str());
    if (alsoStandardError)
        std::fprintf(stderr, "%s%s\n", EscapeControlCharacters(entry.prefix).c_str(),
                     message.c_str());
}

std::string qvLog::LevelName(int level)
{
    return hasSwitch(level) ? kLevelNames[level] : std::to_string(level);
}

int qvLog::LevelFromName(const std::string& name)
{
    if (name == "info")
        return Information;
    if (name == "warn")
        return Warning;
    for (int level = 0; level < kLevelCount; ++level) {
        if (name == kLevelNames[level])
            return level;
    }
    return -1;
}

std::string qvLog::EscapeControlCharacters(const std::string& text)
{
    constexpr char kHexDigits[] = "0123456789abcdef";
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\')
            escaped += "\\\\";
        else if (c == '\n')
            escaped += "\\n";
        else if (c == '\r')
            escaped += "\\r";
        else if (c == '\t')
            escaped += "\\t";
        else if (byte < 0x20 || byte == 0x7F)
            (escaped += "\\x") += {kHexDigits[byte >> 4], kHexDigits[byte & 0xF]};
        else
            escaped += c;
    }
    return escaped;
}

std::unique_ptr<qvLogSink> MakeStandardErrorSink()
{
    return std::make_unique<SpdlogSink>(
        [] { return std::make_shared<spdlog::sinks::stderr_sink_mt>(); }, true);
}

std::unique_ptr<qvLogSink> MakeRotatingFileSink(const std::string& path, size_t maxBytes,
                                                size_t maxFiles, std::string& error)
{
    const auto maker = [=] {
        return std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, maxBytes, maxFiles);
    };
    try {
        return std::make_unique<SpdlogSink>(maker, true,
                                            [=] { return endsInsideLine(path, maxBytes); });
    } catch (const spdlog::spdlog_ex& e) {
        error = e.what();
        return nullptr;
    }
}

std::unique_ptr<qvLogSink> MakeSystemLogSink(const std::string& name)
{
    // The system log writes the time itself.
    return std::make_unique<SpdlogSink>(
        [=] {
            return std::make_shared<spdlog::sinks::syslog_sink_mt>(name, LOG_PID, LOG_USER, false);
        },
        false);
}

}  // namespace qv
