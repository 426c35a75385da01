// The platform log: switches, prefix, and the lines of its sinks. The C library's
// system log is replaced by one that records.

#include <qvSystem/qvLog.h>

#include "../../../support/Forking.h"
#include "../../../support/TemporaryDirectory.h"

#include <gmock/gmock.h>

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace qv::tests
{
namespace
{

struct SystemLogLine
{
    int priority;
    std::string text;

    bool operator==(const SystemLogLine& other) const
    {
        return priority == other.priority && text == other.text;
    }
};

std::vector<SystemLogLine> sSystemLog;
std::string sSystemLogName;

void RecordSystemLog(int priority, const char* format, va_list arguments)
{
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    sSystemLog.push_back({priority, text});
}

}  // namespace
}  // namespace qv::tests

extern "C" {

void openlog(const char* name, int, int)
{
    qv::tests::sSystemLogName = name;
}

void closelog()
{
    qv::tests::sSystemLogName.clear();
}

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    qv::tests::RecordSystemLog(priority, format, arguments);
    va_end(arguments);
}

// Called instead by an optimised build.
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    qv::tests::RecordSystemLog(priority, format, arguments);
    va_end(arguments);
}

}  // extern "C"

namespace qv::tests
{
namespace
{

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::SizeIs;

// 2026-02-17 08:30:00.125 UTC
constexpr int64_t kTimestampMs = 1771317000125;

qvLog::LogEntry Entry(const std::string& message)
{
    qvLog::LogEntry entry;
    entry.message = message;
    entry.category = "httpserver";
    entry.threadId = "4711";
    entry.timestampMs = kTimestampMs;
    entry.prefix = "PREFIX ";
    return entry;
}

// Another time zone for as long as this lives.
class TimeZone
{
public:
    explicit TimeZone(const char* zone)
    {
        if (const char* before = std::getenv("TZ"))
            mBefore = before;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~TimeZone()
    {
        if (mBefore.empty())
            unsetenv("TZ");
        else
            setenv("TZ", mBefore.c_str(), 1);
        tzset();
    }

private:
    std::string mBefore;
};

std::vector<std::string> NamesIn(const TemporaryDirectory& directory)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path()))
        names.push_back(entry.path().filename());
    return names;
}

std::vector<std::string> LinesOf(const std::string& path)
{
    std::ifstream file(path);
    EXPECT_TRUE(file) << path;
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

class RecordingSink : public qvLogSink
{
public:
    struct Record
    {
        std::vector<std::string> messages;
        int flushes = 0;
        bool overlapped = false;
    };

    explicit RecordingSink(Record& record) : mRecord(record) {}

    void write(const qvLog::LogEntry& entry) override
    {
        mRecord.overlapped = mRecord.overlapped || mInside.exchange(true);
        mRecord.messages.push_back(entry.message);
        mInside = false;
    }
    void flush() override { ++mRecord.flushes; }

private:
    Record& mRecord;
    std::atomic<bool> mInside{false};
};

TEST(qvLog, IsNotInstalledAtFirst)
{
    EXPECT_EQ(qvLog::msInstance.load(), nullptr);
}

TEST(qvLog, IsTheLogOfTheProcessFromInstallToUninstall)
{
    qvLog log;
    EXPECT_EQ(qvLog::msInstance.load(), nullptr);
    log.install();
    EXPECT_EQ(qvLog::msInstance.load(), &log);
    log.uninstall();
    EXPECT_EQ(qvLog::msInstance.load(), nullptr);
}

TEST(qvLog, UninstallsItselfWhenItIsDestroyedButNoOtherLog)
{
    {
        qvLog log;
        log.install();
    }
    EXPECT_EQ(qvLog::msInstance.load(), nullptr);

    qvLog installed;
    installed.install();
    {
        qvLog other;
        other.uninstall();
        EXPECT_EQ(qvLog::msInstance.load(), &installed);
    }
    EXPECT_EQ(qvLog::msInstance.load(), &installed);
}

TEST(qvLog, HasTraceAndDebugOffAtFirst)
{
    const qvLog log;
    for (int level = 0; level < qvLog::kLevelCount; ++level)
        EXPECT_EQ(log.isLevelEnabled(level), level >= 2) << level;
}

TEST(qvLog, SwitchesEachLevelAlone)
{
    for (int level = 0; level < qvLog::kLevelCount; ++level) {
        qvLog log;
        log.setMinimumLevel(6);
        log.setLevelEnabled(level, true);
        for (int other = 0; other < qvLog::kLevelCount; ++other)
            EXPECT_EQ(log.isLevelEnabled(other), other == level) << level << ", " << other;
        log.setLevelEnabled(level, false);
        EXPECT_FALSE(log.isLevelEnabled(level));
    }
}

TEST(qvLog, MinimumLevelSwitchesAllFromItUp)
{
    for (int minimum = -1; minimum <= 7; ++minimum) {
        qvLog log;
        log.setMinimumLevel(minimum);
        for (int level = 0; level < qvLog::kLevelCount; ++level)
            EXPECT_EQ(log.isLevelEnabled(level), level >= minimum) << minimum << ", " << level;
    }
}

TEST(qvLog, HasNoSwitchOutsideItsLevels)
{
    qvLog log;
    for (const int level : {-2147483647, -1, 6, 7, 2147483647}) {
        log.setLevelEnabled(level, true);
        EXPECT_FALSE(log.isLevelEnabled(level)) << level;
    }
    EXPECT_FALSE(log.isLevelEnabled(0));
    EXPECT_TRUE(log.isLevelEnabled(5));
}

TEST(qvLog, NamesItsLevels)
{
    const struct
    {
        int level;
        const char* name;
    } rows[] = {{0, "trace"},  {1, "debug"},   {2, "information"},
                {3, "notice"}, {4, "warning"}, {5, "error"}};
    for (const auto& row : rows) {
        EXPECT_EQ(qvLog::LevelName(row.level), row.name);
        EXPECT_EQ(qvLog::LevelFromName(row.name), row.level);
    }
    EXPECT_EQ(qvLog::LevelName(6), "6");
    EXPECT_EQ(qvLog::LevelName(-1), "-1");
    EXPECT_EQ(qvLog::LevelFromName("info"), 2);
    EXPECT_EQ(qvLog::LevelFromName("warn"), 4);
    for (const char* name : {"", "Error", "err", "errors", "6", "-1", "2"})
        EXPECT_EQ(qvLog::LevelFromName(name), -1) << name;
}

TEST(qvLog, EscapesControlCharactersAndBackslashes)
{
    const struct
    {
        std::string text;
        const char* escaped;
    } rows[] = {
        {"", ""},
        {"plain text, 100% \"quoted\"", "plain text, 100% \"quoted\""},
        {"two\nlines", "two\\nlines"},
        {"\r\t", "\\r\\t"},
        {"\\n", "\\\\n"},
        {std::string("a\0b", 3), "a\\x00b"},
        {"\x01\x1b[31m\x1f\x7f", "\\x01\\x1b[31m\\x1f\\x7f"},
        {" ~", " ~"},
        {"\xC3\xA4\x80\xFF", "\xC3\xA4\x80\xFF"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(qvLog::EscapeControlCharacters(row.text), row.escaped);
}

TEST(qvLogPrefix, HoldsLocalTimeWithOffset)
{
    const struct
    {
        const char* zone;
        int64_t timestampMs;
        const char* time;
    } rows[] = {
        {"UTC0", kTimestampMs, "2026-02-17T08:30:00.125+00:00"},
        {"TEST-1", kTimestampMs, "2026-02-17T09:30:00.125+01:00"},
        {"TEST-5:30", kTimestampMs, "2026-02-17T14:00:00.125+05:30"},
        {"TEST+3:30", kTimestampMs, "2026-02-17T05:00:00.125-03:30"},
        {"TEST+0:30", kTimestampMs, "2026-02-17T08:00:00.125-00:30"},
        {"TEST+11", kTimestampMs, "2026-02-16T21:30:00.125-11:00"},
        {"CET-1CEST,M3.5.0,M10.5.0/3", kTimestampMs, "2026-02-17T09:30:00.125+01:00"},
        {"CET-1CEST,M3.5.0,M10.5.0/3", kTimestampMs + 180 * 86400000LL,
         "2026-08-16T10:30:00.125+02:00"},
        {"UTC0", 0, "1970-01-01T00:00:00.000+00:00"},
        {"UTC0", 999, "1970-01-01T00:00:00.999+00:00"},
        {"UTC0", -1, "1969-12-31T23:59:59.999+00:00"},
        {"UTC0", -1000, "1969-12-31T23:59:59.000+00:00"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.zone);
        const TimeZone zone(row.zone);
        qvLog::LogEntry entry = Entry("message");
        entry.timestampMs = row.timestampMs;
        entry.computeLogPrefix(true);
        EXPECT_EQ(entry.prefix, std::string(row.time) + " information [httpserver] 4711 ");
    }
}

TEST(qvLogPrefix, LeavesOutWhatIsNotThere)
{
    const TimeZone zone("UTC0");
    const struct
    {
        bool withTime;
        const char* category;
        const char* threadId;
        int level;
        const char* prefix;
    } rows[] = {
        {true, "c", "1", 3, "2026-02-17T08:30:00.125+00:00 notice [c] 1 "},
        {true, "", "1", 0, "2026-02-17T08:30:00.125+00:00 trace 1 "},
        {true, "c", "", 1, "2026-02-17T08:30:00.125+00:00 debug [c] "},
        {true, "", "", 4, "2026-02-17T08:30:00.125+00:00 warning "},
        {false, "c", "1", 5, "error [c] 1 "},
        {false, "", "", 9, "9 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.prefix);
        qvLog::LogEntry entry = Entry("message");
        entry.category = row.category;
        entry.threadId = row.threadId;
        entry.level = row.level;
        entry.computeLogPrefix(row.withTime);
        EXPECT_EQ(entry.prefix, row.prefix);
        entry.computeLogPrefix(row.withTime);
        EXPECT_EQ(entry.prefix, row.prefix) << "the second time";
    }
}

TEST(qvLogPrefix, HasItsFormInTheTimeZoneOfTheMachine)
{
    qvLog::LogEntry entry = Entry("message");
    entry.computeLogPrefix(true);
    EXPECT_THAT(entry.prefix,
                MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.125"
                             "[+-][0-9]{2}:[0-9]{2} information \\[httpserver\\] 4711 "));
}

TEST(qvLog, PassesEachEntryToEverySinkInOrder)
{
    RecordingSink::Record first;
    RecordingSink::Record second;
    qvLog log;
    log.Write(Entry("nobody listens"), true);
    log.addSink(std::make_unique<RecordingSink>(first));
    log.Write(Entry("one"), false);
    log.addSink(std::make_unique<RecordingSink>(second));
    log.Write(Entry("two"), false);
    EXPECT_THAT(first.messages, ElementsAre("one", "two"));
    EXPECT_THAT(second.messages, ElementsAre("two"));
}

TEST(qvLog, FlushesUrgentEntriesOnly)
{
    RecordingSink::Record record;
    qvLog log;
    log.addSink(std::make_unique<RecordingSink>(record));
    log.Write(Entry("one"), false);
    EXPECT_EQ(record.flushes, 0);
    log.Write(Entry("two"), true);
    EXPECT_EQ(record.flushes, 1);
}

TEST(qvLog, CallsItsSinksOneAtATime)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    RecordingSink::Record record;
    qvLog log;
    log.addSink(std::make_unique<RecordingSink>(record));
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&log, i] {
            for (int round = 0; round < kRounds; ++round) {
                log.setLevelEnabled(i, round % 2 == 0);
                if (log.isLevelEnabled(qvLog::Error))
                    log.Write(Entry("message"), round % 10 == 0);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_THAT(record.messages, SizeIs(kThreads * kRounds));
    EXPECT_EQ(record.flushes, kThreads * kRounds / 10);
    EXPECT_FALSE(record.overlapped);
}

TEST(qvLogStandardErrorSink, WritesOneLineAnEntry)
{
    qvLog log;
    log.addSink(MakeStandardErrorSink());
    qvLog::LogEntry entry = Entry("evil\nERROR forged \x1b[2J\\");
    entry.prefix = "prefix [cate\ngory] ";
    ::testing::internal::CaptureStderr();
    log.Write(Entry("plain {} %s text"), false);
    log.Write(entry, true);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "PREFIX plain {} %s text\n"
              "prefix [cate\\ngory] evil\\nERROR forged \\x1b[2J\\\\\n");
}

TEST(qvLogRotatingFileSink, WritesOneLineAnEntryBehindWhatIsThere)
{
    const TemporaryDirectory directory;
    const std::string path = directory / "test.log";
    for (const int level : {0, 1, 2, 3, 4, 5}) {
        std::string error;
        auto sink = MakeRotatingFileSink(path, 1000000, 3, error);
        ASSERT_NE(sink, nullptr) << error;
        EXPECT_EQ(error, "");
        qvLog log;
        log.addSink(std::move(sink));
        qvLog::LogEntry entry = Entry("level\n" + std::to_string(level));
        entry.level = level;
        log.Write(entry, false);
    }
    EXPECT_THAT(LinesOf(path),
                ElementsAre("PREFIX level\\n0", "PREFIX level\\n1", "PREFIX level\\n2",
                            "PREFIX level\\n3", "PREFIX level\\n4", "PREFIX level\\n5"));
}

TEST(qvLogRotatingFileSink, BringsUrgentEntriesToTheFileAtOnce)
{
    const TemporaryDirectory directory;
    const std::string path = directory / "test.log";
    std::string error;
    qvLog log;
    log.addSink(MakeRotatingFileSink(path, 1000000, 3, error));
    log.Write(Entry("one"), true);
    EXPECT_THAT(LinesOf(path), ElementsAre("PREFIX one"));
}

TEST(qvLogRotatingFileSink, KeepsAsManyOldFilesAsAsked)
{
    const TemporaryDirectory directory;
    const std::string path = directory / "test.log";
    std::string error;
    qvLog log;
    // 30 bytes hold two lines of "PREFIX entry N" and not three.
    log.addSink(MakeRotatingFileSink(path, 30, 2, error));
    ASSERT_EQ(error, "");
    for (int i = 0; i < 9; ++i)
        log.Write(Entry("entry " + std::to_string(i)), true);
    EXPECT_THAT(NamesIn(directory),
                ::testing::UnorderedElementsAre("test.log", "test.1.log", "test.2.log"));
    EXPECT_THAT(LinesOf(path), ElementsAre("PREFIX entry 8"));
    EXPECT_THAT(LinesOf(directory / "test.1.log"), ElementsAre("PREFIX entry 6", "PREFIX entry 7"));
    EXPECT_THAT(LinesOf(directory / "test.2.log"), ElementsAre("PREFIX entry 4", "PREFIX entry 5"));
}

TEST(qvLogRotatingFileSink, IsNullWithAnErrorTextWhenTheFileCannotBeWritten)
{
    const TemporaryDirectory directory;
    const struct
    {
        const char* name;
        std::string path;
        size_t maxBytes;
    } rows[] = {
        {"a directory", directory / "", 1000},
        {"below a file", "/dev/null/test.log", 1000},
        {"no bytes", directory / "test.log", 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::string error;
        EXPECT_EQ(MakeRotatingFileSink(row.path, row.maxBytes, 3, error), nullptr);
        EXPECT_NE(error, "");
        if (row.maxBytes > 0) {
            EXPECT_THAT(error, HasSubstr(row.path));
        }
    }
}

TEST(qvLogRotatingFileSink, ReportsLostEntriesOnceAndGoesOn)
{
    if (access("/dev/full", W_OK) != 0)
        GTEST_SKIP() << "no device that is always full";
    std::string error;
    qvLog log;
    log.addSink(MakeRotatingFileSink("/dev/full", 100000000, 1, error));
    ASSERT_EQ(error, "");
    ::testing::internal::CaptureStderr();
    log.Write(Entry("fails when it is flushed"), true);
    log.Write(Entry(std::string(100000, 'x')), false);
    log.Write(Entry("again"), true);
    EXPECT_THAT(::testing::internal::GetCapturedStderr(),
                MatchesRegex("log entries are lost: [^\n]*/dev/full[^\n]*No space left[^\n]*\n"));
}

// No file of this process grows beyond `bytes`: a line that does is cut there.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(size_t bytes)
    {
        mHandlerBefore = std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &mBefore);
        rlimit limit = mBefore;
        limit.rlim_cur = bytes;
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &mBefore);
        std::signal(SIGXFSZ, mHandlerBefore);
    }

private:
    void (*mHandlerBefore)(int);
    rlimit mBefore{};
};

TEST(qvLogRotatingFileSink, EndsATornLineBeforeTheNextEntry)
{
    const TemporaryDirectory directory;
    const std::string path = directory / "test.log";
    const std::string before(999, '.');  // the limit holds for standard error too
    std::ofstream(path) << before << '\n';
    std::string error;
    qvLog log;
    log.addSink(MakeRotatingFileSink(path, 1000000, 3, error));
    ASSERT_EQ(error, "");
    ::testing::internal::CaptureStderr();
    {
        const FileSizeLimit limit(1025);
        log.Write(Entry("is whole"), true);
        log.Write(Entry("is cut off"), true);
        log.Write(Entry("is lost"), true);
    }
    log.Write(Entry("comes later"), true);
    log.Write(Entry("comes last"), true);
    EXPECT_THAT(::testing::internal::GetCapturedStderr(),
                MatchesRegex("log entries are lost: [^\n]*File too large[^\n]*\n"));
    EXPECT_THAT(LinesOf(path), ElementsAre(before, "PREFIX is whole", "PREFIX is",
                                           "PREFIX comes later", "PREFIX comes last"));
}

TEST(qvLogRotatingFileSink, EndsATornLineOfAnEarlierProcess)
{
    const struct
    {
        const char* name;
        std::string before;
        std::vector<std::string> lines;
    } rows[] = {
        {"nothing", "", {"PREFIX new"}},
        {"a whole line", "old\n", {"old", "PREFIX new"}},
        {"a torn line", "old\nto", {"old", "to", "PREFIX new"}},
        {"one byte", "t", {"t", "PREFIX new"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const TemporaryDirectory directory;
        const std::string path = directory / "test.log";
        std::ofstream(path) << row.before;
        std::string error;
        qvLog log;
        log.addSink(MakeRotatingFileSink(path, 1000000, 3, error));
        EXPECT_EQ(error, "");
        log.Write(Entry("new"), true);
        EXPECT_EQ(LinesOf(path), row.lines);
    }
}

TEST(qvLogRotatingFileSink, MakesNoEmptyLineWhenTheTornFileIsRenamed)
{
    const struct
    {
        const char* name;
        size_t maxBytes;
        std::vector<std::string> old;
        std::vector<std::string> lines;
    } rows[] = {
        {"no byte fits", 20, {}, {"PREFIX new"}},
        {"the line feed fits", 21, {}, {"PREFIX new"}},
        {"the entry fits", 32, {"0123456789_torn_line", "PREFIX new"}, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const TemporaryDirectory directory;
        const std::string path = directory / "test.log";
        std::ofstream(path) << "0123456789_torn_line";
        std::string error;
        qvLog log;
        log.addSink(MakeRotatingFileSink(path, row.maxBytes, 3, error));
        ASSERT_EQ(error, "");
        log.Write(Entry("new"), true);
        if (row.lines.empty()) {
            EXPECT_EQ(LinesOf(path), row.old);
        } else {
            EXPECT_EQ(LinesOf(path), row.lines);
            EXPECT_THAT(LinesOf(directory / "test.1.log"), ElementsAre("0123456789_torn_line"));
        }
    }
}

// Mounts a file system of 16 KiB in a namespace of this process; false when the system refuses.
bool MountSmallFileSystem(const std::string& path)
{
    const std::string user = "0 " + std::to_string(geteuid()) + " 1";
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return false;
        std::ofstream("/proc/self/uid_map") << user;
    }
    std::filesystem::create_directory(path);
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", path.c_str(), "tmpfs", 0, "size=16k") == 0;
}

constexpr int kNoFileSystem = 77;

// Fills the disk, logs, frees space, logs again, and copies the log to `seen`.
int LogOnAFullDisk(const std::string& path, const std::string& seen)
{
    if (!MountSmallFileSystem(path))
        return kNoFileSystem;
    const std::string filler = path + "/filler";
    std::ofstream(filler) << std::string(8192, 'f');
    std::string error;
    qvLog log;
    log.addSink(MakeRotatingFileSink(path + "/test.log", 1000000, 3, error));
    for (int i = 0; i < 200; ++i)
        log.Write(Entry("entry " + std::to_string(i) + " of those that fill the disk"), true);
    std::filesystem::remove(filler);
    log.Write(Entry("after it was full"), true);
    std::filesystem::copy_file(path + "/test.log", seen);
    return 0;
}

TEST(qvLogRotatingFileSink, EndsATornLineWhenADiskIsNoLongerFull)
{
    const TemporaryDirectory directory;
    const std::string seen = directory / "seen.log";
    const pid_t child = fork();
    if (child == 0)
        _exit(LogOnAFullDisk(directory / "small", seen));
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WEXITSTATUS(status) == kNoFileSystem)
        GTEST_SKIP() << "no file system may be mounted";
    ASSERT_EQ(status, 0);

    const auto lines = LinesOf(seen);
    ASSERT_GT(lines.size(), 2u);
    EXPECT_EQ(lines.back(), "PREFIX after it was full");
    const auto whole = [](size_t i) {
        return "PREFIX entry " + std::to_string(i) + " of those that fill the disk";
    };
    const size_t torn = lines.size() - 2;
    for (size_t i = 0; i < torn; ++i)
        EXPECT_EQ(lines[i], whole(i));
    EXPECT_EQ(lines[torn], whole(torn).substr(0, lines[torn].size()));
    EXPECT_LT(lines[torn].size(), whole(torn).size());
}

TEST(qvLogSystemLogSink, WritesOneLineAnEntryUnderItsName)
{
    sSystemLog.clear();
    {
        qvLog log;
        log.addSink(MakeSystemLogSink("program"));
        EXPECT_EQ(sSystemLogName, "program");
        for (int level = 0; level <= 6; ++level) {
            qvLog::LogEntry entry = Entry("level\n%s {} " + std::to_string(level));
            entry.level = level;
            log.Write(entry, true);
        }
    }
    EXPECT_EQ(sSystemLogName, "");
    EXPECT_THAT(sSystemLog, ElementsAre(SystemLogLine{LOG_DEBUG, "level\\n%s {} 0"},
                                        SystemLogLine{LOG_DEBUG, "level\\n%s {} 1"},
                                        SystemLogLine{LOG_INFO, "level\\n%s {} 2"},
                                        SystemLogLine{LOG_INFO, "level\\n%s {} 3"},
                                        SystemLogLine{LOG_WARNING, "level\\n%s {} 4"},
                                        SystemLogLine{LOG_ERR, "level\\n%s {} 5"},
                                        SystemLogLine{LOG_INFO, "level\\n%s {} 6"}));
}

TEST(qvLog, WritesToTheSystemLogUnderTheNameOfTheEntry)
{
    const int priorities[] = {LOG_DEBUG, LOG_DEBUG, LOG_INFO, LOG_NOTICE, LOG_WARNING, LOG_ERR};
    for (int level = 0; level < qvLog::kLevelCount; ++level) {
        sSystemLog.clear();
        qvLog::LogEntry entry = Entry("100%s\nof {}");
        entry.systemLogName = "viewer";
        entry.level = level;
        ::testing::internal::CaptureStderr();
        qvLog::WriteToSystemLog(entry, false);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
        EXPECT_THAT(sSystemLog, ElementsAre(SystemLogLine{LOG_USER | priorities[level],
                                                          "viewer: 100%s\\nof {}"}));
    }
}

TEST(qvLog, ShowsAnEntryOfTheSystemLogOnStandardErrorWhenAsked)
{
    sSystemLog.clear();
    qvLog::LogEntry entry = Entry("two\nlines");
    entry.systemLogName = "viewer";
    entry.prefix = "pre\tfix ";
    ::testing::internal::CaptureStderr();
    qvLog::WriteToSystemLog(entry, true);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "pre\\tfix two\\nlines\n");
    EXPECT_THAT(sSystemLog, SizeIs(1));
}

// Another thread is in the middle of an entry when the process forks.
TEST(qvLog, WorksInAForkedChild)
{
#ifdef __SANITIZE_THREAD__
    constexpr int kForks = 50;
#else
    constexpr int kForks = 300;
#endif
    class DroppingSink : public qvLogSink
    {
    public:
        void write(const qvLog::LogEntry&) override { std::this_thread::yield(); }
        void flush() override {}
    };
    qvLog log;
    log.addSink(std::make_unique<DroppingSink>());
    log.install();
    const qvLog::LogEntry entry = Entry("text");
    std::atomic<bool> isOver{false};
    std::thread other([&] {
        while (!isOver)
            log.Write(entry, false);
    });
    int failed = 0;
    for (int i = 0; i < kForks && failed == 0; ++i)
        failed += !endsInAChild([&] { log.Write(entry, false); });
    isOver = true;
    other.join();
    EXPECT_EQ(failed, 0);
    // The parent's lock is free again.
    log.Write(entry, false);
}

TEST(qvLog, LetsASinkFork)
{
    class ForkingSink : public qvLogSink
    {
    public:
        void write(const qvLog::LogEntry&) override
        {
            isDone = endsInAChild([] {});
        }
        void flush() override {}

        bool isDone = false;
    };
    qvLog log;
    auto sink = std::make_unique<ForkingSink>();
    const ForkingSink& forking = *sink;
    log.addSink(std::move(sink));
    log.install();
    log.Write(Entry("text"), false);
    EXPECT_TRUE(forking.isDone);
}

}  // namespace
}  // namespace qv::tests
