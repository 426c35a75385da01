// Log statements and the library's own sinks while memory runs out.

#include "failure_injection/Support.h"
#include "support/CapturedLog.h"
#include "support/TemporaryDirectory.h"

#include "server/logging/LogObject.h"

#include <qvSystem/qvLog.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include <stdlib.h>
#include <syslog.h>
#include <unistd.h>

namespace qv::tests
{
namespace
{

std::vector<std::string> gSystemLog;

void RecordSystemLog(const char* format, va_list arguments)
{
    const TestsOwn own;
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    gSystemLog.emplace_back(text);
}

}  // namespace
}  // namespace qv::tests

extern "C" {

__attribute__((format(printf, 2, 3))) void syslog(int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    qv::tests::RecordSystemLog(format, arguments);
    va_end(arguments);
}

// The function that an optimised build calls instead.
__attribute__((format(printf, 3, 4))) void __syslog_chk(int, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    qv::tests::RecordSystemLog(format, arguments);
    va_end(arguments);
}

}  // extern "C"

namespace qv::tests
{
namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int kLevel = qvLogObject::kError;

// Standard output, for as long as it lives.
class CapturedOutput
{
public:
    CapturedOutput() : mBefore(std::cout.rdbuf(&mBuffer)) {}
    ~CapturedOutput()
    {
        std::cout.rdbuf(mBefore);
        std::cout.clear();
    }
    const std::string& text() const { return mBuffer.text; }

private:
    struct Buffer : std::streambuf
    {
        std::streamsize xsputn(const char* data, std::streamsize size) override
        {
            const TestsOwn own;
            text.append(data, static_cast<size_t>(size));
            return size;
        }
        int_type overflow(int_type c) override
        {
            const TestsOwn own;
            text += static_cast<char>(c);
            return c;
        }

        std::string text;
    };

    Buffer mBuffer;
    std::streambuf* mBefore;
};

TEST(LogObjectFailures, AStatementIsWrittenLeftOutOrPassesTheExceptionThrough)
{
    // A text of two insertions, for the second of which the stream needs more memory.
    const std::string first(400, 'a');
    const std::string second(400, 'b');
    FailEachCallOf({{"log statement: to the log",
                     [&](Attempt& attempt) {
                         CapturedLog log;
                         const bool done = attempt([&] {
                             qvLogObject(kLevel, "the category of a statement") << first << second;
                         });
                         const auto lines = log.lines();
                         EXPECT_THAT(lines, SizeIs(testing::Le(done ? 1u : 0u)));
                         for (const LogLine& line : lines) {
                             EXPECT_EQ(line.message,
                                       (first + second).substr(0, line.message.size()));
                             EXPECT_EQ(line.category, "the category of a statement");
                         }
                         if (!attempt.hasFailed()) {
                             ASSERT_THAT(lines, SizeIs(1));
                             EXPECT_EQ(lines[0].message, first + second);
                         }
                         // The log is usable.
                         qvLogObject(kLevel) << "next";
                         EXPECT_EQ(log.lines().back().message, "next");
                     }},
                    {"log statement: to standard output",
                     [&](Attempt& attempt) {
                         CapturedOutput output;
                         attempt([&] { qvLogObject(kLevel) << first; });
                         if (!attempt.hasFailed()) {
                             EXPECT_THAT(output.text(), testing::EndsWith(" " + first + "\n"));
                         }
                         const size_t size = output.text().size();
                         qvLogObject(kLevel) << "next";
                         EXPECT_THAT(output.text().substr(size), testing::EndsWith(" next\n"));
                     }},
                    {"log statement: to the system log",
                     [&](Attempt& attempt) {
                         CapturedLog log;
                         gSystemLog.clear();
                         attempt([&] { qvLogObject(kLevel, nullptr, "program") << first; });
                         EXPECT_LE(gSystemLog.size(), 1u);
                         if (!attempt.hasFailed()) {
                             EXPECT_THAT(gSystemLog, ElementsAre("program: " + first));
                         }
                     }},
                    {"log statement: switched off",
                     [&](Attempt& attempt) {
                         CapturedLog log;
                         log.log().setMinimumLevel(6);
                         EXPECT_TRUE(attempt([&] { qvLogObject(kLevel) << first; }));
                         EXPECT_THAT(log.lines(), IsEmpty());
                     },
                     Points::None}});
}

// A sink of an application that needs memory.
class HungrySink : public qvLogSink
{
public:
    void write(const qvLog::LogEntry& entry) override { mLast = entry.message + kLongText; }
    void flush() override { mLast += kLongText; }

private:
    std::string mLast;
};

TEST(LogFailures, AnExceptionOfASinkLeavesTheLogUsable)
{
    FailEachCallOf({{"qvLog: writing",
                     [](Attempt& attempt) {
                         CapturedLog log;
                         log.log().addSink(std::make_unique<HungrySink>());
                         qvLog::LogEntry entry;
                         entry.message = kLongText;
                         const bool done = attempt([&] { log.log().Write(entry, true); });
                         EXPECT_EQ(done, !attempt.hasFailed());
                         log.log().Write(entry, true);
                         EXPECT_THAT(log.lines(), SizeIs(2));
                     }},
                    {"qvLog: adding a sink", [](Attempt& attempt) {
                         CapturedLog log;
                         const bool done =
                             attempt([&] { log.log().addSink(std::make_unique<HungrySink>()); });
                         EXPECT_EQ(done, !attempt.hasFailed());
                         log.log().Write(qvLog::LogEntry(), false);
                         EXPECT_THAT(log.lines(), SizeIs(1));
                     }}});
}

TEST(LogFailures, TextsAreMadeWholeOrNotAtAll)
{
    const std::string odd = kLongText + "\n\t\r\\\x01";
    const struct
    {
        const char* name;
        std::function<std::string()> make;
    } rows[] = {
        {"EscapeControlCharacters", [&] { return qvLog::EscapeControlCharacters(odd); }},
        {"LevelName", [] { return qvLog::LevelName(1234567) + qvLog::LevelName(2) + kLongText; }},
        {"computeLogPrefix",
         [] {
             qvLog::LogEntry entry;
             entry.category = kLongText;
             entry.threadId = "4711";
             entry.computeLogPrefix(true);
             return entry.prefix;
         }},
    };
    for (const auto& row : rows) {
        FailEachCall(row.name, [&](Attempt& attempt) {
            std::string text;
            const bool done = attempt([&] { text = row.make(); });
            EXPECT_EQ(text, done ? row.make() : "");
        });
    }
}

// All log files, the newest first.
std::string TextIn(const TemporaryDirectory& directory)
{
    std::string all;
    for (const char* name : {"log.txt", "log.1.txt", "log.2.txt"}) {
        std::ifstream file(directory / name);
        all += std::string(std::istreambuf_iterator<char>(file), {});
    }
    return all;
}

qvLog::LogEntry Entry(const std::string& message)
{
    qvLog::LogEntry entry;
    entry.message = message;
    return entry;
}

TEST(LogSinkFailures, ASinkIsMadeOrNot)
{
    FailEachCallOf({{"MakeRotatingFileSink",
                     [](Attempt& attempt) {
                         const TemporaryDirectory directory;
                         std::string error;
                         std::unique_ptr<qvLogSink> sink;
                         const bool done = attempt([&] {
                             sink = MakeRotatingFileSink(directory / "log.txt", 1000, 2, error);
                         });
                         if (!done || !sink) {
                             EXPECT_TRUE(attempt.hasFailed());
                             sink = MakeRotatingFileSink(directory / "log.txt", 1000, 2, error);
                         }
                         sink->write(Entry("a line"));
                         sink->flush();
                         EXPECT_THAT(TextIn(directory), testing::HasSubstr("a line\n"));
                     }},
                    {"MakeStandardErrorSink, MakeSystemLogSink", [](Attempt& attempt) {
                         gSystemLog.clear();
                         std::unique_ptr<qvLogSink> sinks[2];
                         const bool done = attempt([&] {
                             sinks[0] = MakeStandardErrorSink();
                             sinks[1] = MakeSystemLogSink("program");
                         });
                         EXPECT_EQ(sinks[1] != nullptr, done);
                         if (!done) {
                             sinks[1] = MakeSystemLogSink("program");
                         }
                         sinks[1]->write(Entry("a line"));
                         EXPECT_THAT(gSystemLog, ElementsAre("a line"));
                     }}});
}

// Entries that make the sink turn to the next file. The entries after a failed one are written.
TEST(LogSinkFailures, AFileSinkGoesOnAfterAFailure)
{
    for (const size_t size : {10, 400, 900}) {
        const std::string name =
            "rotating file sink: an entry of " + std::to_string(size) + " bytes";
        FailEachCall(name.c_str(), [&](Attempt& attempt) {
            const TemporaryDirectory directory;
            std::string error;
            const auto sink = MakeRotatingFileSink(directory / "log.txt", 1000, 2, error);
            sink->write(Entry("first " + std::string(700, 'f')));
            const qvLog::LogEntry entry = Entry("second " + std::string(size, 's'));
            attempt([&] {
                sink->write(entry);
                sink->flush();
            });
            for (const char* text : {"third", "fourth"})
                sink->write(Entry(text));
            sink->flush();
            EXPECT_THAT(TextIn(directory), testing::HasSubstr("third\nfourth\n"));
            EXPECT_THAT(TextIn(directory), testing::HasSubstr("first"));
        });
    }
}

// The process has no descriptors left at the moment at which the sink opens the next file.
TEST(LogSinkFailures, AFileSinkGoesOnWhenThereAreDescriptorsAgain)
{
    for (const size_t size : {10, 400}) {
        const std::string name =
            "rotating file sink: " + std::to_string(size) + " bytes and no descriptor";
        FailEachCall(name.c_str(), [&](Attempt& attempt) {
            const TemporaryDirectory directory;
            std::string error;
            const auto sink = MakeRotatingFileSink(directory / "log.txt", 1000, 2, error);
            sink->write(Entry("first " + std::string(900, 'f')));
            const qvLog::LogEntry second = Entry("second " + std::string(400, 's'));
            const qvLog::LogEntry lost = Entry("lost " + std::string(size, 'l'));
            testing::internal::CaptureStderr();
            attempt([&] {
                sink->write(second);
                sink->write(lost);
                sink->flush();
            });
            const std::string said = testing::internal::GetCapturedStderr();
            EXPECT_THAT(TextIn(directory), testing::HasSubstr("first"));
            if (!attempt.hasFailed()) {
                EXPECT_EQ(said, "");
                EXPECT_THAT(TextIn(directory), testing::HasSubstr("lost"));
            }

            const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(50);
            while (TextIn(directory).find("third\n") == std::string::npos &&
                   std::chrono::steady_clock::now() < end) {
                sink->write(Entry("third"));
                sink->flush();
            }
            EXPECT_THAT(TextIn(directory), testing::HasSubstr("third\n"));
        });
    }
}

}  // namespace
}  // namespace qv::tests
