// The daemon's own messages in our log.

#include "server/logging/DaemonLog.h"
#include "support/CapturedLog.h"

#include <Wendrel/HttpServer.h>

#include <microhttpd.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <cwchar>
#include <functional>
#include <string>
#include <thread>

namespace qv::tests
{

namespace
{

using ::testing::ElementsAre;
using ::testing::SizeIs;

// As the daemon calls it.
void Log(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    impl::LogDaemonMessage(nullptr, format, arguments);
    va_end(arguments);
}

std::string Logged(const std::string& message)
{
    const CapturedLog log;
    Log("%s", message.c_str());
    const auto lines = log.lines();
    return lines.size() == 1 ? lines[0].message : "not one line";
}

TEST(DaemonLog, IsWhatTheServerRegisters)
{
    EXPECT_EQ(http::HttpServerImpl::GetLogFunction(),
              reinterpret_cast<http::HttpServerImpl::Callback>(&impl::LogDaemonMessage));
}

TEST(DaemonLog, WritesAnUrgentWarning)
{
    const CapturedLog log;
    Log("Failed to bind to port %u: %s\n", 80u, "in use");
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{
                                 4, "", "libmicrohttpd: Failed to bind to port 80: in use", true}));
}

TEST(DaemonLog, CutsAfter1023Characters)
{
    const struct
    {
        const char* name;
        size_t size;
        size_t kept;
    } rows[] = {
        {"shorter", 1022, 1022},     {"just fits", 1023, 1023},   {"one too many", 1024, 1023},
        {"much longer", 2000, 1023}, {"very long", 100000, 1023},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Logged(std::string(row.size, 'x')),
                  "libmicrohttpd: " + std::string(row.kept, 'x'));
    }
}

TEST(DaemonLog, TrimsTheEnd)
{
    const struct
    {
        const char* name;
        const char* message;
        const char* logged;
    } rows[] = {
        {"nothing", "text", "text"},
        {"line feed", "text\n", "text"},
        {"carriage return and line feed", "text\r\n", "text"},
        {"tab", "text\t", "text"},
        {"space", "text ", "text"},
        {"all of them, more than once", "text \t\r\n\n\r\t  ", "text"},
        {"vertical tab stays", "text\v", "text\v"},
        {"form feed stays", "text\f", "text\f"},
        {"vertical tab before a line feed stays", "text\v\n", "text\v"},
        {"bell stays", "text\a", "text\a"},
        {"the front stays", " \t\r\ntext", " \t\r\ntext"},
        {"the middle stays", "a \t\r\nb", "a \t\r\nb"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Logged(row.message), std::string("libmicrohttpd: ") + row.logged);
    }
}

TEST(DaemonLog, TrimsNulCharactersToo)
{
    const CapturedLog log;
    Log("text%c%c", 0, 0);
    Log("text%c\n", 0);
    Log("text \t%c %c\r\n", 0, 0);
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{4, "", "libmicrohttpd: text", true},
                                         LogLine{4, "", "libmicrohttpd: text", true},
                                         LogLine{4, "", "libmicrohttpd: text", true}));
}

TEST(DaemonLog, TrimsAfterCutting)
{
    EXPECT_EQ(Logged(std::string(1000, 'x') + std::string(100, ' ') + "lost"),
              "libmicrohttpd: " + std::string(1000, 'x'));
}

TEST(DaemonLog, LogsAnEmptyMessage)
{
    for (const char* message : {"", "\n", " \r\n\t"})
        EXPECT_EQ(Logged(message), "libmicrohttpd: ");
}

TEST(DaemonLog, DropsAMessageThatCannotBeFormatted)
{
    const CapturedLog log;
    const wchar_t unmappable[] = {static_cast<wchar_t>(0x110000), 0};
    Log("text %ls more", unmappable);
    EXPECT_THAT(log.lines(), SizeIs(0));
    Log("text");
    EXPECT_THAT(log.lines(), SizeIs(1));
}

TEST(DaemonLog, IgnoresItsClosure)
{
    const CapturedLog log;
    int closure = 0;
    const auto call = [&](const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        impl::LogDaemonMessage(&closure, format, arguments);
        va_end(arguments);
    };
    call("text");
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{4, "", "libmicrohttpd: text", true}));
}

TEST(DaemonLog, IsSilentWhenWarningsAreOff)
{
    CapturedLog log;
    log.log().setLevelEnabled(4, false);
    Log("text");
    EXPECT_THAT(log.lines(), SizeIs(0));
}

// As the daemon of event-driven mode calls it.
void LogEvent(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    impl::LogEventDaemonMessage(nullptr, format, arguments);
    va_end(arguments);
}

constexpr const char* kOption = "Setting %s option to %s state failed: %s\n";
constexpr const char* kPush = "Failed to push the data from buffers to the network. Client may "
                              "experience some delay (usually in range 200ms - 5 sec).\n";

constexpr const char* kUnsentHead =
    "Failed to send the response headers for the request for `%s'. Error: %s\n";
constexpr const char* kUnsentBody =
    "Failed to send the response body for the request for `%s'. Error: %s\n";
constexpr const char* kUnsentPiece =
    "Failed to send the chunked response body for the request for `%s'. Error: %s\n";

TEST(EventDaemonLog, DropsTheLinesOfAResponseOnASocketWithoutOptionsOfTcp)
{
    const CapturedLog log;
    for (int i = 0; i < 2; ++i) {
        LogEvent(kOption, "TCP_NODELAY", "ON", std::strerror(EOPNOTSUPP));
        LogEvent(kOption, "TCP_CORK", "OFF", std::strerror(EOPNOTSUPP));
        LogEvent(kPush);
    }
    EXPECT_THAT(log.lines(), SizeIs(0));
}

TEST(EventDaemonLog, DropsTheLinesOfClientsThatLeaveBeforeTheirResponse)
{
    const CapturedLog log;
    for (const char* reason :
         {"The connection was forcibly closed by remote peer",
          "The socket is no longer available for sending", "The socket is not connected"}) {
        LogEvent(kUnsentHead, "/a", reason);
        LogEvent(kUnsentBody, "/a", reason);
        LogEvent(kUnsentPiece, "/a", reason);
    }
    EXPECT_THAT(log.lines(), SizeIs(0));
}

TEST(EventDaemonLog, WritesTheLineOfAResponseThatTheApplicationDoesNotFinish)
{
    constexpr const char* kReason = "The socket is no longer available for sending";
    const CapturedLog log;
    impl::ReportUnsent(true);
    std::thread([] { LogEvent(kUnsentPiece, "/a", kReason); }).join();  // of another thread
    EXPECT_THAT(log.lines(), SizeIs(0));
    LogEvent(kUnsentPiece, "/a", kReason);
    EXPECT_THAT(log.lines(), SizeIs(1));
    LogEvent(kUnsentPiece, "/a", kReason);
    impl::ReportUnsent(true);
    impl::ReportUnsent(false);
    LogEvent(kUnsentPiece, "/a", kReason);
    EXPECT_THAT(log.lines(), SizeIs(1));
}

TEST(EventDaemonLog, WritesEveryOtherLineAsPollingModeDoes)
{
    const struct
    {
        const char* name;
        std::function<void()> write;
        std::string line;
    } rows[] = {
        {"any", [] { LogEvent("Failed to bind to port %u: %s\n", 80u, "in use"); },
         "Failed to bind to port 80: in use"},
        {"an option that fails for another reason",
         [] { LogEvent(kOption, "TCP_NODELAY", "ON", std::strerror(EBADF)); },
         "Setting TCP_NODELAY option to ON state failed: Bad file descriptor"},
        {"an option of a TCP socket",
         [] {
             LogEvent("Setting %s option to %s state failed for TCP/IP socket %d: %s\n",
                      "TCP_NODELAY", "ON", 5, std::strerror(EOPNOTSUPP));
         },
         "Setting TCP_NODELAY option to ON state failed for TCP/IP socket 5: Operation not "
         "supported"},
        {"a response that is not sent for want of memory",
         [] { LogEvent(kUnsentPiece, "/a", "Not enough memory"); },
         "Failed to send the chunked response body for the request for `/a'. Error: Not enough "
         "memory"},
        {"a format that ends otherwise", [] { LogEvent("Failed to send the text\n"); },
         "Failed to send the text"},
        {"a push without an option before", [] { LogEvent(kPush); },
         "Failed to push the data from buffers to the network. Client may experience some delay "
         "(usually in range 200ms - 5 sec)."},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const CapturedLog log;
        row.write();
        EXPECT_THAT(log.lines(), ElementsAre(LogLine{4, "", "libmicrohttpd: " + row.line, true}));
    }
}

// The push that is dropped is the one right behind an option, on the same thread.
TEST(EventDaemonLog, WritesAPushBehindAnotherLine)
{
    const CapturedLog log;
    LogEvent(kOption, "TCP_CORK", "OFF", std::strerror(EOPNOTSUPP));
    std::thread([] { LogEvent(kPush); }).join();
    LogEvent("Another\n");
    LogEvent(kPush);
    EXPECT_THAT(log.lines(), SizeIs(3));
}

constexpr const char* kInternalError = "Application reported internal error, closing connection.";

TEST(EventDaemonLog, DropsTheLineOfAnExpectedAbortOnce)
{
    for (const bool isArgument : {false, true}) {
        const CapturedLog log;
        const auto report = [&] {
            isArgument ? LogEvent("%s\n", kInternalError) : LogEvent(kInternalError);
        };
        impl::ExpectAbort(true);
        LogEvent("Another\n");
        LogEvent("Application reported\n");
        report();
        EXPECT_THAT(log.lines(), SizeIs(2));
        report();
        EXPECT_THAT(log.lines(), SizeIs(3));
    }
}

TEST(EventDaemonLog, WritesTheLineOfAnInternalErrorThatIsNoExpectedAbort)
{
    const CapturedLog log;
    impl::ExpectAbort(true);
    std::thread([] { LogEvent(kInternalError); }).join();  // of another thread
    impl::ExpectAbort(false);                              // of another call
    LogEvent(kInternalError);
    EXPECT_THAT(log.lines(), SizeIs(2));
}

}  // namespace

}  // namespace qv::tests
