// The log statement: its fields, its operators and its output.

#include "server/logging/LogObject.h"
#include "support/CapturedLog.h"
#include "support/GroupingLocale.h"
#include "support/TestAccess.h"

#include <qvSystem/qvSystemUtils.h>
#include <qvSystem/qvThread.h>

#include <gmock/gmock.h>

#include <cstdio>
#include <iomanip>
#include <iostream>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace qv::tests
{

namespace
{

struct SystemLogCall
{
    qvLog::LogEntry entry;
    bool alsoStandardError;
};

std::vector<SystemLogCall>& SystemLogCalls()
{
    static std::vector<SystemLogCall> calls;
    return calls;
}

}  // namespace

}  // namespace qv::tests

namespace qv
{

// Nothing of this program goes to the real system log.
void qvLog::WriteToSystemLog(const LogEntry& entry, bool alsoStandardError)
{
    tests::SystemLogCalls().push_back({entry, alsoStandardError});
}

}  // namespace qv

namespace qv::tests
{

namespace
{

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// Counts how often it is written into a stream.
struct Counted
{
    int* count;
    friend std::ostream& operator<<(std::ostream& out, const Counted& counted)
    {
        ++*counted.count;
        return out << "x";
    }
};

// Standard output into a file, for as long as it lives.
class RedirectedOutput
{
public:
    RedirectedOutput() : mFile(std::tmpfile()), mSaved(dup(STDOUT_FILENO))
    {
        std::fflush(stdout);
        std::cout.flush();
        dup2(fileno(mFile), STDOUT_FILENO);
    }

    ~RedirectedOutput()
    {
        std::fflush(stdout);
        std::cout.flush();
        dup2(mSaved, STDOUT_FILENO);
        close(mSaved);
        std::fclose(mFile);
    }

    RedirectedOutput(const RedirectedOutput&) = delete;
    RedirectedOutput& operator=(const RedirectedOutput&) = delete;

    // The text written to the descriptor. Nothing is flushed first.
    std::string arrived() const
    {
        std::string text(100000, '\0');
        const ssize_t size = pread(fileno(mFile), text.data(), text.size(), 0);
        text.resize(size > 0 ? static_cast<size_t>(size) : 0);
        return text;
    }

private:
    FILE* mFile;
    int mSaved;
};

class LogObject : public ::testing::Test
{
protected:
    LogObject() { SystemLogCalls().clear(); }
};

// With a log installed.
class LogObjectWithLog : public LogObject
{
protected:
    CapturedLog captured;
};

TEST_F(LogObjectWithLog, GoesToTheInstalledLog)
{
    qvLogObject(5) << "it " << 1 << ' ' << std::string("broke");
    EXPECT_THAT(captured.lines(), ElementsAre(LogLine{5, "", "it 1 broke", true}));
}

TEST_F(LogObjectWithLog, IsWrittenOnlyWhenItEnds)
{
    {
        qvLogObject statement(4);
        statement << "first";
        EXPECT_THAT(captured.lines(), IsEmpty());
        statement << ", second";
    }
    EXPECT_THAT(captured.lines(), ElementsAre(LogLine{4, "", "first, second", true}));
}

TEST_F(LogObjectWithLog, IsUrgentFromWarningsUp)
{
    const struct
    {
        const char* name;
        int level;
        bool urgent;
    } rows[] = {
        {"information", qvLogObject::kInformation, false},
        {"warning", qvLogObject::kWarning, true},
        {"error", qvLogObject::kError, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        {
            qvLogObject statement(row.level);
            EXPECT_EQ(impl::TestAccess::isUrgent(statement), row.urgent);
            statement << "text";
        }
        EXPECT_EQ(captured.lines().back(), (LogLine{row.level, "", "text", row.urgent}));
    }
}

TEST_F(LogObjectWithLog, HasItsLevelsNumbered)
{
    EXPECT_EQ(qvLogObject::kInformation, 2);
    EXPECT_EQ(qvLogObject::kWarning, 4);
    EXPECT_EQ(qvLogObject::kError, 5);
    EXPECT_EQ(qvLogObject::kDiscard, 6);
}

TEST_F(LogObjectWithLog, DiscardsALevelThatIsOff)
{
    for (int level = 0; level <= 5; ++level) {
        SCOPED_TRACE(level);
        captured.log().setMinimumLevel(0);
        captured.log().setLevelEnabled(level, false);
        int formatted = 0;
        {
            qvLogObject statement(level);
            EXPECT_EQ(impl::TestAccess::level(statement), qvLogObject::kDiscard);
            EXPECT_EQ(impl::TestAccess::sink(statement), nullptr);
            statement << Counted{&formatted} << "text" << std::hex;
            EXPECT_FALSE(impl::TestAccess::hasStream(statement));
        }
        EXPECT_EQ(formatted, 0);
        EXPECT_THAT(captured.lines(), IsEmpty());
    }
}

TEST_F(LogObjectWithLog, KeepsALevelThatIsOn)
{
    for (int level = 0; level <= 5; ++level) {
        SCOPED_TRACE(level);
        for (int other = 0; other <= 5; ++other)
            captured.log().setLevelEnabled(other, other == level);
        int formatted = 0;
        {
            qvLogObject statement(level);
            EXPECT_EQ(impl::TestAccess::level(statement), level);
            EXPECT_EQ(impl::TestAccess::sink(statement), &captured.log());
            statement << Counted{&formatted};
        }
        EXPECT_EQ(formatted, 1);
        EXPECT_THAT(captured.lines(), SizeIs(level + 1));
        EXPECT_EQ(captured.lines().back().level, level);
    }
}

TEST_F(LogObjectWithLog, DiscardsTheDiscardingLevel)
{
    int formatted = 0;
    qvLogObject(qvLogObject::kDiscard) << Counted{&formatted};
    EXPECT_EQ(formatted, 0);
    EXPECT_THAT(captured.lines(), IsEmpty());
}

TEST_F(LogObjectWithLog, LooksAtTheLevelOnlyWhenMade)
{
    {
        qvLogObject statement(2);
        captured.log().setLevelEnabled(2, false);
        statement << "begun while it was on";
    }
    EXPECT_THAT(captured.lines(), SizeIs(1));
    {
        qvLogObject statement(2);
        captured.log().setLevelEnabled(2, true);
        statement << "begun while it was off";
    }
    EXPECT_THAT(captured.lines(), SizeIs(1));
}

TEST_F(LogObjectWithLog, StaysWithTheLogItWasMadeFor)
{
    auto statement = std::make_unique<qvLogObject>(4);
    *statement << "text";
    const CapturedLog later;
    statement.reset();
    EXPECT_THAT(captured.lines(), SizeIs(1));
    EXPECT_THAT(later.lines(), IsEmpty());
}

// Which level decides is odd, but relied on: it is always that of information.
TEST_F(LogObjectWithLog, RecordsTheThreadWhenInformationIsOnWhateverItsOwnLevel)
{
    for (int level = 0; level <= 6; ++level) {
        for (const bool informationOn : {false, true}) {
            for (const bool ownOn : {false, true}) {
                if (level == 2 && ownOn != informationOn)
                    continue;
                SCOPED_TRACE(::testing::Message() << "level " << level << ", information "
                                                  << informationOn << ", own " << ownOn);
                captured.log().setLevelEnabled(level, ownOn);
                captured.log().setLevelEnabled(2, informationOn);
                const qvLogObject statement(level);
                EXPECT_EQ(impl::TestAccess::threadId(statement),
                          informationOn ? qvThread::CurrentThreadId() : std::string());
            }
        }
        captured.log().setMinimumLevel(0);
    }
}

TEST_F(LogObjectWithLog, PassesTheThreadOn)
{
    std::string id;
    std::thread other([&] {
        id = qvThread::CurrentThreadId();
        qvLogObject(4) << "text";
    });
    other.join();
    captured.log().setLevelEnabled(2, false);
    qvLogObject(4) << "text";
    ASSERT_THAT(captured.entries(), SizeIs(2));
    EXPECT_EQ(captured.entries()[0].threadId, id);
    EXPECT_NE(id, qvThread::CurrentThreadId());
    EXPECT_EQ(captured.entries()[1].threadId, "");
}

TEST_F(LogObjectWithLog, CarriesItsCategory)
{
    qvLogObject(2, "httpserver") << "with";
    qvLogObject(2) << "without";
    EXPECT_THAT(captured.lines(), ElementsAre(LogLine{2, "httpserver", "with", false},
                                              LogLine{2, "", "without", false}));
}

TEST_F(LogObjectWithLog, WritesNumbersAlikeInEveryLocale)
{
    const GroupingLocale locale;
    qvLogObject(2) << 1234567 << ' ' << std::hex << 0x10009 << ' ' << 1.5;
    EXPECT_THAT(captured.lines(), ElementsAre(LogLine{2, "", "1234567 10009 1.5", false}));
}

TEST_F(LogObjectWithLog, TakesTheTimeWhenMade)
{
    const int64_t before = qvSystemUtils::GetMSecElapsedSinceEpoch();
    int64_t after = 0;
    {
        qvLogObject statement(2);
        after = qvSystemUtils::GetMSecElapsedSinceEpoch();
        while (qvSystemUtils::GetMSecElapsedSinceEpoch() <= after + 2)
            std::this_thread::yield();
        statement << "text";
    }
    ASSERT_THAT(captured.entries(), SizeIs(1));
    EXPECT_GE(captured.entries()[0].timestampMs, before);
    EXPECT_LE(captured.entries()[0].timestampMs, after);
}

TEST_F(LogObjectWithLog, HasItsPrefixWithTime)
{
    qvLogObject(5, "httpserver") << "text";
    ASSERT_THAT(captured.entries(), SizeIs(1));
    qvLog::LogEntry entry = captured.entries()[0];
    const std::string prefix = entry.prefix;
    EXPECT_NE(prefix, "");
    entry.computeLogPrefix(true);
    EXPECT_EQ(prefix, entry.prefix);
    entry.computeLogPrefix(false);
    EXPECT_NE(prefix, entry.prefix);
}

TEST_F(LogObjectWithLog, WritesNothingWithoutText)
{
    {
        const qvLogObject untouched(5);
        EXPECT_FALSE(impl::TestAccess::hasStream(untouched));
    }
    {
        qvLogObject empty(5);
        empty << "" << std::string();
        EXPECT_TRUE(impl::TestAccess::hasStream(empty));
    }
    {
        qvLogObject onlyManipulated(5);
        onlyManipulated << std::hex;
    }
    EXPECT_THAT(captured.lines(), IsEmpty());
}

TEST_F(LogObjectWithLog, TakesManipulators)
{
    qvLogObject(2) << 65545 << " is 0x" << std::hex << 65545 << std::dec << ", " << std::setw(3)
                   << 7;
    EXPECT_THAT(captured.lines(), ElementsAre(LogLine{2, "", "65545 is 0x10009,   7", false}));
}

TEST_F(LogObjectWithLog, PassesControlCharactersOn)
{
    const std::string text("a\nb\0c\x1b", 6);
    qvLogObject(2) << text;
    EXPECT_THAT(captured.lines(), ElementsAre(LogLine{2, "", text, false}));
}

TEST_F(LogObjectWithLog, GoesToTheSystemLogTooWhenItHasAName)
{
    qvLogObject(4, "category", "daemon") << "text";
    ASSERT_THAT(SystemLogCalls(), SizeIs(1));
    const SystemLogCall& call = SystemLogCalls()[0];
    EXPECT_FALSE(call.alsoStandardError);
    EXPECT_EQ(call.entry.message, "text");
    EXPECT_EQ(call.entry.category, "category");
    EXPECT_EQ(call.entry.systemLogName, "daemon");
    EXPECT_EQ(call.entry.level, 4);
    EXPECT_NE(call.entry.prefix, "");
    ASSERT_THAT(captured.entries(), SizeIs(1));
    EXPECT_EQ(captured.entries()[0].systemLogName, "daemon");
}

TEST_F(LogObjectWithLog, StaysAwayFromTheSystemLogWithoutAName)
{
    qvLogObject(5) << "text";
    EXPECT_THAT(SystemLogCalls(), IsEmpty());
    EXPECT_EQ(captured.entries().at(0).systemLogName, "");
}

TEST_F(LogObjectWithLog, StaysAwayFromTheSystemLogWhenOffOrEmpty)
{
    qvLogObject(5, nullptr, "daemon") << "";
    captured.log().setLevelEnabled(5, false);
    qvLogObject(5, nullptr, "daemon") << "text";
    EXPECT_THAT(SystemLogCalls(), IsEmpty());
    EXPECT_THAT(captured.lines(), IsEmpty());
}

TEST_F(LogObjectWithLog, PrintsNothingOnStandardOutput)
{
    const RedirectedOutput output;
    qvLogObject(5) << "text";
    qvLogObject(5, nullptr, "daemon") << "text";
    captured.log().setLevelEnabled(5, false);
    qvLogObject(5) << "text";
    std::fflush(stdout);
    EXPECT_EQ(output.arrived(), "");
}

TEST_F(LogObject, IsPrintedAtAnyLevelWithoutALog)
{
    ASSERT_EQ(qvLog::msInstance.load(), nullptr);
    for (int level = 0; level <= 5; ++level) {
        SCOPED_TRACE(level);
        std::string arrived;
        {
            const RedirectedOutput output;
            {
                qvLogObject statement(level, "category");
                EXPECT_EQ(impl::TestAccess::level(statement), level);
                EXPECT_EQ(impl::TestAccess::sink(statement), nullptr);
                EXPECT_EQ(impl::TestAccess::threadId(statement), "");
                statement << "text " << level;
            }
            arrived = output.arrived();
        }
        // The time stamp differs: the rest of the line is compared.
        qvLog::LogEntry entry;
        entry.category = "category";
        entry.level = level;
        entry.computeLogPrefix(false);
        EXPECT_THAT(arrived, EndsWith(" " + entry.prefix + "text " + std::to_string(level) + "\n"));
        EXPECT_GT(arrived.size(), entry.prefix.size() + 25);
        EXPECT_EQ(arrived.find('\n'), arrived.size() - 1);
    }
}

TEST_F(LogObject, PrintsNothingWithoutTextEither)
{
    const RedirectedOutput output;
    qvLogObject(5) << "";
    {
        const qvLogObject untouched(5);
    }
    qvLogObject(6) << "text";
    std::fflush(stdout);
    EXPECT_EQ(output.arrived(), "");
}

TEST_F(LogObject, GoesOnlyToTheSystemLogWithAName)
{
    std::string arrived;
    {
        const RedirectedOutput output;
        qvLogObject(2, nullptr, "daemon") << "text";
        std::fflush(stdout);
        arrived = output.arrived();
    }
    EXPECT_EQ(arrived, "");
    ASSERT_THAT(SystemLogCalls(), SizeIs(1));
    EXPECT_TRUE(SystemLogCalls()[0].alsoStandardError);
    EXPECT_EQ(SystemLogCalls()[0].entry.message, "text");
    EXPECT_EQ(SystemLogCalls()[0].entry.category, "");
}

}  // namespace

}  // namespace qv::tests
