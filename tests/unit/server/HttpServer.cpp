// Starting, watching over and stopping the daemon.

#include "server/Dispatch.h"
#include "streaming/ChunkPool.h"
#include "support/BackgroundCall.h"
#include "support/CapturedLog.h"
#include "support/FakeTime.h"
#include "support/GroupingLocale.h"
#include "support/RecordingApplication.h"
#include "support/RecordingDaemon.h"
#include "support/TestAccess.h"
#include "support/VirtualSlot.h"

#include <Wendrel/HttpServer.h>
#include <Wendrel/Wendrel.h>

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

namespace qv::tests
{

namespace
{

// Run before the next startThread and before the next waitThread of this thread.
thread_local std::function<void()> tBeforeStartThread;
thread_local std::function<void()> tBeforeWaitThread;

// Told of each mutex and wait condition that is destroyed, by name and address.
std::function<void(const char*, const void*)> sOnDestroyed;

}  // namespace

}  // namespace qv::tests

namespace qv
{

// A definition in the program comes before the one in a shared library.

bool qvThread::startThread(const char* name)
{
    static const auto real = reinterpret_cast<bool (*)(qvThread*, const char*)>(
        dlsym(RTLD_NEXT, "_ZN2qv8qvThread11startThreadEPKc"));
    if (const auto hook = std::exchange(tests::tBeforeStartThread, nullptr))
        hook();
    return real(this, name);
}

bool qvThread::waitThread(unsigned long timeoutMs, uint32_t run)
{
    static const auto real = reinterpret_cast<bool (*)(qvThread*, unsigned long, uint32_t)>(
        dlsym(RTLD_NEXT, "_ZN2qv8qvThread10waitThreadEmj"));
    if (const auto hook = std::exchange(tests::tBeforeWaitThread, nullptr))
        hook();
    return real(this, timeoutMs, run);
}

qvMutex::~qvMutex()
{
    if (tests::sOnDestroyed)
        tests::sOnDestroyed("~qvMutex", this);
}

qvWaitCondition::~qvWaitCondition()
{
    if (tests::sOnDestroyed)
        tests::sOnDestroyed("~qvWaitCondition", this);
}

}  // namespace qv

namespace qv::tests
{

namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Parameters = http::HttpServer::Parameters;

const LogLine kNotInitialized{5, "", "Wendrel is not initialized", true};
const LogLine kNoPoll{
    5, "", "Warning using microhttpd without poll or epoll support. The server will exit.", true};
const LogLine kNoEpoll{4, "", "epoll is not supported, performance might be degraded", true};
const LogLine kNoDaemon{5, "", "Failed to create mhd server context", true};
const LogLine kStarting{2, "httpserver", "Starting http server : listen @8181, with flags 0x10009",
                        false};

// The thread body, to be called by a test on its own thread.
class OpenServer : public http::HttpServer
{
public:
    using HttpServer::HttpServer;
    using HttpServer::run;
};

// Has done all that a server does, and does not leave its thread yet.
class LingeringServer : public http::HttpServer
{
public:
    using HttpServer::HttpServer;

    Latch isDone;
    Latch mayLeave;

protected:
    void run() override
    {
        HttpServer::run();
        isDone.open();
        mayLeave.wait();
    }
};

class HttpServer : public ::testing::Test
{
protected:
    HttpServer()
    {
        initializeWendrel();
        application = new RecordingApplication(daemon);
        server = std::make_unique<OpenServer>(application);
    }

    ~HttpServer() override
    {
        server.reset();
        if (IsWendrelInitialized())
            terminateWendrel();
        EXPECT_FALSE(IsWendrelInitialized());
    }

    // Returns once the server thread waits for the stop.
    void startAndWait(const Parameters& parameters = {})
    {
        auto waiting = std::make_shared<Latch>();
        time.onWait([waiting](FakeTime::Wait&) {
            waiting->open();
            std::this_thread::yield();
        });
        server->startServer(parameters);
        ASSERT_TRUE(waiting->wait());
        ASSERT_EQ(server->getState(), http::HttpServer::Running);
    }

    // Starts a server that cannot come up and returns once it has given up.
    void startAndFail(const Parameters& parameters = {})
    {
        server->startServer(parameters);
        ASSERT_TRUE(server->waitThread(kLimitMs));
        EXPECT_EQ(server->getState(), http::HttpServer::Failed);
    }

    RecordingDaemon::Start startAndStop(const Parameters& parameters)
    {
        startAndWait(parameters);
        server->stopServer(true);
        const auto starts = daemon.starts();
        return starts.empty() ? RecordingDaemon::Start() : starts.back();
    }

    FakeTime time;
    RecordingDaemon daemon;
    CapturedLog log;
    RecordingApplication* application = nullptr;  // the server's
    std::unique_ptr<OpenServer> server;
};

TEST(HttpServerParameters, HaveTheirDefaults)
{
    const Parameters parameters;
    EXPECT_EQ(parameters.port, 8181);
    EXPECT_EQ(parameters.listenBacklog, 1024u);
    EXPECT_EQ(parameters.threadPoolSize, qvSystemUtils::GetIdealThreadCount());
    EXPECT_EQ(parameters.connectionTimeoutMs, 360000u);
    EXPECT_FALSE(parameters.allowWebSocket);
    EXPECT_FALSE(parameters.reserved1);
    EXPECT_TRUE(parameters.reserved2);
    EXPECT_FALSE(parameters.reserved3);
    EXPECT_FALSE(parameters.listenOnAllInterfaces);
}

TEST(HttpServerParameters, KeepTheirOrder)
{
    const Parameters parameters;
    const auto at = [&](const auto& field) {
        return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&parameters);
    };
    EXPECT_THAT(
        (std::vector<ptrdiff_t>{at(parameters.port), at(parameters.listenBacklog),
                                at(parameters.threadPoolSize), at(parameters.connectionTimeoutMs),
                                at(parameters.allowWebSocket), at(parameters.reserved1),
                                at(parameters.reserved2), at(parameters.reserved3),
                                at(parameters.listenOnAllInterfaces)}),
        ElementsAre(0, 4, 8, 12, 16, 17, 18, 19, 20));
}

TEST_F(HttpServer, HasItsVirtualOperationInItsSlot)
{
    EXPECT_EQ(VirtualSlot(&OpenServer::run), 2);
}

TEST_F(HttpServer, IsStoppedAtFirst)
{
    EXPECT_EQ(server->getState(), http::HttpServer::Stopped);
    EXPECT_FALSE(server->isStopRequested());
    EXPECT_EQ(&server->getImpl(), application);
    EXPECT_THAT(daemon.calls(), IsEmpty());
}

TEST_F(HttpServer, StartsTheDaemonWithItsFlags)
{
    const struct
    {
        const char* name;
        bool allowWebSocket;
        unsigned int flags;
    } rows[] = {
        {"without WebSockets", false, 0x10009},
        {"with WebSockets", true, 0x18009},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Parameters parameters;
        parameters.allowWebSocket = row.allowWebSocket;
        EXPECT_EQ(startAndStop(parameters).flags, row.flags);
    }
}

TEST_F(HttpServer, GivesTheDaemonItsPortAndItsHandler)
{
    Parameters parameters;
    parameters.port = 54321;
    const RecordingDaemon::Start start = startAndStop(parameters);
    EXPECT_EQ(start.port, 54321);
    EXPECT_EQ(start.accept, nullptr);
    EXPECT_EQ(start.acceptClosure, nullptr);
    EXPECT_EQ(reinterpret_cast<http::HttpServerImpl::Callback>(start.handler),
              http::HttpServerImpl::GetHttpCallback());
    EXPECT_EQ(start.handlerClosure, static_cast<http::HttpServer*>(server.get()));
}

TEST_F(HttpServer, GivesTheDaemonItsOptionsInTheirOrder)
{
    Parameters parameters;
    parameters.listenBacklog = 77;
    parameters.threadPoolSize = 5;
    parameters.connectionTimeoutMs = 12000;
    const RecordingDaemon::Start start = startAndStop(parameters);

    std::vector<std::string> options;
    for (const auto& option : start.options)
        options.push_back(std::to_string(option.number) + " " + option.type + " " +
                          std::to_string(option.value));
    EXPECT_THAT(options, ElementsAre("13 functions 0", "7 functions 0", "1 size_t 262144",
                                     "28 unsigned int 77", "3 unsigned int 12", "6 sockaddr 0",
                                     "14 unsigned int 5", "4 functions 0", "29 int 1", "0 end 0"));
}

TEST_F(HttpServer, GivesTheDaemonItsCallbacks)
{
    using Impl = http::HttpServerImpl;
    const RecordingDaemon::Start start = startAndStop({});
    const struct
    {
        const char* name;
        int option;
        Impl::Callback function;
        void* closure;
    } rows[] = {
        {"external logger", MHD_OPTION_EXTERNAL_LOGGER, Impl::GetLogFunction(), nullptr},
        {"URI log", MHD_OPTION_URI_LOG_CALLBACK, Impl::GetUriLogCallback(), nullptr},
        {"request completed", MHD_OPTION_NOTIFY_COMPLETED, Impl::GetRequestCompletedCallback(),
         static_cast<http::HttpServer*>(server.get())},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const RecordingDaemon::Option* option = start.find(row.option);
        ASSERT_NE(option, nullptr);
        EXPECT_EQ(option->function, row.function);
        EXPECT_EQ(option->closure, row.closure);
    }
}

TEST_F(HttpServer, PassesBacklogAndPoolSizeAsTheyAre)
{
    const struct
    {
        const char* name;
        uint32_t backlog;
        uint32_t poolSize;
    } rows[] = {
        {"nothing", 0, 0},
        {"one", 1, 1},
        {"greatest", 4294967295u, 4294967295u},
        {"different", 1024, 64},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Parameters parameters;
        parameters.listenBacklog = row.backlog;
        parameters.threadPoolSize = row.poolSize;
        const RecordingDaemon::Start start = startAndStop(parameters);
        ASSERT_EQ(start.options.size(), 10u);
        EXPECT_EQ(start.options[3].value, row.backlog);
        EXPECT_EQ(start.options[6].value, row.poolSize);
    }
}

TEST_F(HttpServer, RoundsTheTimeoutUpToSecondsInSinglePrecision)
{
    const struct
    {
        const char* name;
        uint32_t ms;
        uint64_t seconds;
    } rows[] = {
        {"none", 0, 0},
        {"least", 1, 1},
        {"below a second", 999, 1},
        {"a second", 1000, 1},
        {"above a second", 1001, 2},
        {"a second and a half", 1500, 2},
        {"default", 360000, 360},
        {"above the default", 360001, 361},
        {"beyond 24 bits", 16777217, 16778},
        {"the last millisecond is lost before the division", 20000001, 20000},
        {"a division in double precision would round up", 16949001, 16949},
        {"a quotient in double precision would round up", 262145001, 262145},
        {"the last millisecond is lost in any order", 32768001, 32768},
        {"a whole number of seconds grows", 134219000, 134220},
        {"greatest for the daemon", 4294967000u, 4294967},
        {"greatest", 4294967295u, 4294968},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Parameters parameters;
        parameters.connectionTimeoutMs = row.ms;
        const RecordingDaemon::Start start = startAndStop(parameters);
        ASSERT_EQ(start.options.size(), 10u);
        EXPECT_EQ(start.options[4].value, row.seconds);
    }
}

TEST_F(HttpServer, ListensOnItsAddress)
{
    const struct
    {
        const char* name;
        bool all;
        uint16_t port;
        std::vector<uint8_t> bytes;  // port and address as they stand in memory
    } rows[] = {
        {"loopback", false, 8181, {0x1f, 0xf5, 127, 0, 0, 1}},
        {"every interface", true, 8181, {0x1f, 0xf5, 0, 0, 0, 0}},
        {"least port", false, 1, {0, 1, 127, 0, 0, 1}},
        {"greatest port", true, 65535, {0xff, 0xff, 0, 0, 0, 0}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Parameters parameters;
        parameters.port = row.port;
        parameters.listenOnAllInterfaces = row.all;
        const RecordingDaemon::Start start = startAndStop(parameters);
        const RecordingDaemon::Option* option = start.find(MHD_OPTION_SOCK_ADDR);
        ASSERT_NE(option, nullptr);
        EXPECT_EQ(option->address.sin_family, AF_INET);
        std::vector<uint8_t> bytes(6);
        std::memcpy(bytes.data(), &option->address.sin_port, 2);
        std::memcpy(bytes.data() + 2, &option->address.sin_addr, 4);
        EXPECT_EQ(bytes, row.bytes);
    }
}

TEST_F(HttpServer, NeverReadsTheReservedParameters)
{
    Parameters parameters;
    const RecordingDaemon::Start plain = startAndStop(parameters);
    parameters.reserved1 = true;
    parameters.reserved2 = false;
    parameters.reserved3 = true;
    const RecordingDaemon::Start other = startAndStop(parameters);
    EXPECT_EQ(other.flags, plain.flags);
    ASSERT_EQ(other.options.size(), plain.options.size());
    for (size_t i = 0; i < plain.options.size(); ++i)
        EXPECT_EQ(other.options[i].value, plain.options[i].value) << i;
    EXPECT_EQ(std::memcmp(&other.find(6)->address, &plain.find(6)->address, sizeof(sockaddr_in)),
              0);
}

TEST_F(HttpServer, CopiesTheParameters)
{
    Latch goOn;
    daemon.onCall("MHD_is_feature_supported", [&] { EXPECT_TRUE(goOn.wait()); });
    auto parameters = std::make_unique<Parameters>();
    parameters->port = 4000;
    server->startServer(*parameters);
    parameters->port = 5000;
    parameters.reset();
    goOn.open();
    server->stopServer(true);
    ASSERT_EQ(daemon.starts().size(), 1u);
    EXPECT_EQ(daemon.starts()[0].port, 4000);
}

TEST_F(HttpServer, LogsItsStartBeforeTheDaemonIsStarted)
{
    std::vector<LogLine> before;
    daemon.onCall("MHD_start_daemon", [&] { before = log.lines(); });
    startAndStop({});
    EXPECT_THAT(before, ElementsAre(kStarting));
    EXPECT_THAT(log.lines(), ElementsAre(kStarting));
}

TEST_F(HttpServer, NamesPortAndFlagsInItsStartLine)
{
    const struct
    {
        const char* name;
        uint16_t port;
        bool allowWebSocket;
        const char* end;
    } rows[] = {
        {"no port", 0, false, "@0, with flags 0x10009"},
        {"with WebSockets", 8181, true, "@8181, with flags 0x18009"},
        {"greatest port", 65535, false, "@65535, with flags 0x10009"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Parameters parameters;
        parameters.port = row.port;
        parameters.allowWebSocket = row.allowWebSocket;
        startAndStop(parameters);
        EXPECT_EQ(log.lines().back(),
                  (LogLine{2, "httpserver", std::string("Starting http server : listen ") + row.end,
                           false}));
    }
}

TEST_F(HttpServer, WritesItsStartLineAlikeInEveryLocale)
{
    const GroupingLocale locale;
    startAndStop({});
    EXPECT_THAT(log.lines(), ElementsAre(kStarting));
}

TEST_F(HttpServer, RunsOnItsOwnThreadWithTheNameOfItsStarter)
{
    char own[16] = {};
    ASSERT_EQ(pthread_getname_np(pthread_self(), own, sizeof own), 0);
    ASSERT_EQ(pthread_setname_np(pthread_self(), "the-starter"), 0);
    std::string name;
    std::thread::id thread;
    std::thread::id stoppedOn;
    daemon.onCall("MHD_start_daemon", [&] {
        char text[16] = {};
        pthread_getname_np(pthread_self(), text, sizeof text);
        name = text;
        thread = std::this_thread::get_id();
    });
    application->onStopped = [&] { stoppedOn = std::this_thread::get_id(); };
    startAndStop({});
    pthread_setname_np(pthread_self(), own);
    EXPECT_EQ(name, "the-starter");
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(stoppedOn, thread);
}

TEST_F(HttpServer, ChangesItsStateStepByStep)
{
    std::vector<std::pair<std::string, int>> states;
    const auto note = [&](const char* when) {
        return [&, when] { states.emplace_back(when, server->getState()); };
    };
    daemon.onCall("MHD_start_daemon", note("start"));
    daemon.onCall("MHD_stop_daemon", note("stop"));
    application->onStopped = note("stopped");
    startAndWait();
    states.emplace_back("running", server->getState());
    server->stopServer(true);
    states.emplace_back("end", server->getState());
    EXPECT_THAT(states,
                ElementsAre(std::pair("start", 1), std::pair("running", 2), std::pair("stopped", 2),
                            std::pair("stop", 2), std::pair("end", 0)));
}

TEST_F(HttpServer, IsStartingWhenItsThreadIsStarted)
{
    server->stopServer(false);
    int state = -1;
    bool stopRequested = true;
    tBeforeStartThread = [&] {
        state = server->getState();
        stopRequested = server->isStopRequested();
    };
    startAndStop({});
    EXPECT_EQ(state, http::HttpServer::Starting);
    EXPECT_FALSE(stopRequested);
}

TEST_F(HttpServer, TellsTheApplicationBeforeItStopsTheDaemon)
{
    startAndWait();
    EXPECT_THAT(daemon.callsOf("onServerStopped"), IsEmpty());
    daemon.clearCalls();
    server->stopServer(true);
    EXPECT_THAT(daemon.calls(), ElementsAre("onServerStopped", "MHD_stop_daemon"));
    EXPECT_THAT(daemon.stops(), ElementsAre(daemon.starts()[0].daemon));
}

TEST_F(HttpServer, WaitsInSlicesOf200Milliseconds)
{
    time.onWait([&](FakeTime::Wait& wait) {
        wait.woken = wait.number == 1;  // a wake-up without reason changes nothing
        if (wait.number == 3)
            server->stopServer(false);
    });
    server->startServer({});
    ASSERT_TRUE(server->waitThread(kLimitMs));
    EXPECT_THAT(time.waitTimeouts(), ElementsAre(200, 200, 200, 200));
    EXPECT_EQ(server->getState(), http::HttpServer::Stopped);
}

TEST_F(HttpServer, NoticesTheStopAlsoWithoutBeingWoken)
{
    Latch waiting;
    Latch stopRequested;
    time.onWait([&](FakeTime::Wait& wait) {
        if (wait.number == 0) {
            waiting.open();
            EXPECT_TRUE(stopRequested.wait());
            wait.woken = false;
        }
    });
    server->startServer({});
    ASSERT_TRUE(waiting.wait());
    server->stopServer(false);
    stopRequested.open();
    ASSERT_TRUE(server->waitThread(kLimitMs));
    EXPECT_THAT(time.waitTimeouts(), ElementsAre(200));
}

TEST_F(HttpServer, DoesNotWaitWhenTheStopCameFirst)
{
    server->stopServer(false);
    EXPECT_TRUE(server->isStopRequested());
    server->run();
    EXPECT_THAT(time.waits(), IsEmpty());
    EXPECT_EQ(daemon.starts().size(), 1u);
    EXPECT_EQ(daemon.callsOf("onServerStopped").size(), 1u);
    EXPECT_EQ(daemon.stops().size(), 1u);
    EXPECT_EQ(server->getState(), http::HttpServer::Stopped);
}

TEST_F(HttpServer, IsWokenByStartAndStop)
{
    startAndWait();
    EXPECT_EQ(time.wakes(), 1u);
    server->stopServer(true);
    EXPECT_EQ(time.wakes(), 2u);
    const auto waits = time.waits();
    ASSERT_FALSE(waits.empty());
    EXPECT_EQ(time.wakes(waits[0].condition), 2u);
}

TEST_F(HttpServer, ForgetsAnOldStopRequestWhenStarted)
{
    server->stopServer(false);
    EXPECT_TRUE(server->isStopRequested());
    startAndWait();
    EXPECT_FALSE(server->isStopRequested());
    server->stopServer(true);
    EXPECT_TRUE(server->isStopRequested());
}

// A thread that sees the request withdrawn sees the start as well.
TEST_F(HttpServer, IsNeverSeenStoppedWithoutAStopRequest)
{
    constexpr int kRounds = 2000;
    server->stopServer(false);
    std::atomic<int> round{0};
    std::atomic<int> seen{0};
    std::atomic<int> wrong{0};
    std::thread observer([&] {
        for (int i = 1; i <= kRounds; ++i) {
            while (round < i)
                std::this_thread::yield();
            while (server->isStopRequested()) {
            }
            wrong += server->getState() == http::HttpServer::Stopped;
            seen = i;
        }
    });
    for (int i = 1; i <= kRounds; ++i) {
        round = i;
        server->startServer({});
        while (seen < i)
            std::this_thread::yield();
        server->stopServer(true);
    }
    observer.join();
    EXPECT_EQ(wrong, 0);
}

// Traps the calling thread after each of its instructions, or ends that.
void setTrapFlag(bool on)
{
    constexpr unsigned long long kTrapFlag = 0x100;
    const unsigned long long flags = __builtin_ia32_readeflags_u64() & ~kTrapFlag;
    __builtin_ia32_writeeflags_u64(on ? flags | kTrapFlag : flags);
}

// The states in which the instructions of a thread leave a server, without repetitions.
struct SeenStates
{
    const http::HttpServer* server = nullptr;
    std::array<std::pair<int, bool>, 16> states;  // and whether a stop is requested
    size_t count = 0;

    // In a signal handler: without memory.
    void look()
    {
        const std::pair<int, bool> now(server->getState(), server->isStopRequested());
        if (count < states.size() && (count == 0 || states[count - 1] != now))
            states[count++] = now;
    }
};
SeenStates sSeen;

// Any thread may look at both without the lock, after any instruction.
TEST_F(HttpServer, RequiredIsStartingBeforeTheStopRequestIsWithdrawn)
{
#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizer delays signals, or sees the instructions of its own";
#endif
    server->stopServer(false);
    sSeen = {server.get(), {}, 0};
    struct sigaction step
    {};
    struct sigaction before
    {};
    step.sa_handler = [](int) { sSeen.look(); };
    ASSERT_EQ(sigaction(SIGTRAP, &step, &before), 0);
    tBeforeStartThread = [] { setTrapFlag(false); };
    setTrapFlag(true);
    server->startServer({});
    sigaction(SIGTRAP, &before, nullptr);
    EXPECT_THAT(std::vector(sSeen.states.begin(), sSeen.states.begin() + sSeen.count),
                ElementsAre(std::pair(0, true), std::pair(1, true), std::pair(1, false)));
    server->stopServer(true);
}

TEST_F(HttpServer, IgnoresASecondStart)
{
    Parameters parameters;
    parameters.port = 1111;
    server->startServer(parameters);
    parameters.port = 2222;
    server->startServer(parameters);  // while it is starting, or just running
    server->stopServer(true);
    ASSERT_EQ(daemon.starts().size(), 1u);
    EXPECT_EQ(daemon.starts()[0].port, 1111);
    EXPECT_EQ(daemon.callsOf("onServerStopped").size(), 1u);
}

TEST_F(HttpServer, IgnoresAStartWhileItIsRunning)
{
    bool stopRequested = false;
    size_t wakesAtStart = 1000;
    time.onWait([&](FakeTime::Wait& wait) {
        if (wait.number != 0)
            return;
        server->stopServer(false);
        const size_t wakes = time.wakes();
        server->startServer({});
        wakesAtStart = time.wakes() - wakes;
        stopRequested = server->isStopRequested();
    });
    server->startServer({});
    ASSERT_TRUE(server->waitThread(kLimitMs));
    EXPECT_TRUE(stopRequested);
    EXPECT_EQ(wakesAtStart, 0u);
    EXPECT_EQ(daemon.starts().size(), 1u);
    EXPECT_EQ(server->getState(), http::HttpServer::Stopped);
}

TEST_F(HttpServer, CanBeStartedAgainAfterAStop)
{
    Parameters parameters;
    for (const uint16_t port : {1111, 2222, 3333}) {
        parameters.port = port;
        EXPECT_EQ(startAndStop(parameters).port, port);
        EXPECT_EQ(server->getState(), http::HttpServer::Stopped);
    }
    const auto starts = daemon.starts();
    ASSERT_EQ(starts.size(), 3u);
    EXPECT_THAT(daemon.stops(), ElementsAre(starts[0].daemon, starts[1].daemon, starts[2].daemon));
    EXPECT_EQ(daemon.callsOf("onServerStopped").size(), 3u);
}

TEST_F(HttpServer, StartsWhenTheRunBeforeHasLeftItsThread)
{
    LingeringServer lingering(new RecordingApplication(daemon));
    lingering.startServer({});
    lingering.stopServer(false);
    ASSERT_TRUE(lingering.isDone.wait());
    EXPECT_EQ(lingering.getState(), http::HttpServer::Stopped);

    auto waiting = std::make_shared<Latch>();
    time.onWait([waiting](FakeTime::Wait&) {
        waiting->open();
        std::this_thread::yield();
    });
    BackgroundCall started([&] { lingering.startServer({}); });
    EXPECT_TRUE(started.isBlocked());
    lingering.mayLeave.open();
    EXPECT_TRUE(waiting->wait());
    EXPECT_EQ(lingering.getState(), http::HttpServer::Running);
    lingering.stopServer(true);
}

TEST_F(HttpServer, HasChunksOfBodiesKeptWhileItRuns)
{
    const auto freeOne = [] {
        std::vector<char> chunk;
        chunk.reserve(impl::kMinChunkBytes);
        impl::ChunkPool::Instance().give(std::move(chunk));
    };
    freeOne();
    EXPECT_EQ(impl::TestAccess::chunkCount(impl::ChunkPool::Instance()), 0u);
    startAndWait();
    freeOne();
    EXPECT_EQ(impl::TestAccess::chunkCount(impl::ChunkPool::Instance()), 1u);
    server->stopServer(true);
    EXPECT_EQ(impl::TestAccess::chunkCount(impl::ChunkPool::Instance()), 0u);
}

TEST_F(HttpServer, ReturnsAtOnceFromAStopWithoutWait)
{
    Latch goOn;
    application->onStopped = [&] { EXPECT_TRUE(goOn.wait()); };
    startAndWait();
    server->stopServer(false);
    EXPECT_FALSE(server->waitThread(0));
    EXPECT_TRUE(server->isStopRequested());
    goOn.open();
    ASSERT_TRUE(server->waitThread(kLimitMs));
    EXPECT_EQ(server->getState(), http::HttpServer::Stopped);
    EXPECT_EQ(daemon.stops().size(), 1u);
}

TEST_F(HttpServer, HasEndedWhenAStopWithWaitReturns)
{
    // The daemon stops only after the caller has begun to wait.
    daemon.onCall("MHD_stop_daemon", [caller = ::gettid()] {
        EXPECT_TRUE(waitUntil([caller] { return isThreadAsleep(caller); }));
    });
    startAndWait();
    server->stopServer(true);
    EXPECT_EQ(server->getState(), http::HttpServer::Stopped);
    EXPECT_EQ(daemon.stops().size(), 1u);
    EXPECT_TRUE(server->waitThread(0));
}

TEST_F(HttpServer, MayBeStoppedAtAnyTimeAndMoreThanOnce)
{
    server->stopServer(true);
    EXPECT_EQ(server->getState(), http::HttpServer::Stopped);
    startAndWait();
    server->stopServer(true);
    server->stopServer(true);
    server->stopServer(false);
    EXPECT_EQ(server->getState(), http::HttpServer::Stopped);
    EXPECT_EQ(daemon.callsOf("onServerStopped").size(), 1u);
}

TEST_F(HttpServer, StopsOnlyTheRunThatItFound)
{
    startAndWait();
    BackgroundCall stop([&] {
        // Another thread would start it again at this moment.
        tBeforeWaitThread = [&] {
            while (server->getState() != http::HttpServer::Stopped)
                std::this_thread::yield();
            server->startServer({});
        };
        server->stopServer(true);
    });
    EXPECT_TRUE(stop.waitForEnd());
    EXPECT_FALSE(server->isStopRequested());
    server->stopServer(true);
    EXPECT_EQ(daemon.starts().size(), 2u);
    EXPECT_EQ(daemon.stops().size(), 2u);
}

TEST_F(HttpServer, HoldsItsLockExceptWhileItWaits)
{
    for (const char* where :
         {"MHD_is_feature_supported", "MHD_start_daemon", "MHD_stop_daemon", "onServerStopped"}) {
        SCOPED_TRACE(where);
        std::unique_ptr<BackgroundCall> stop;
        bool wasBlocked = false;
        const auto tryLock = [&] {
            if (stop)
                return;
            stop = std::make_unique<BackgroundCall>([&] { server->stopServer(false); });
            wasBlocked = stop->isBlocked();
        };
        RecordingDaemon* record = &daemon;
        record->onCall("MHD_is_feature_supported", nullptr);
        record->onCall("MHD_start_daemon", nullptr);
        record->onCall("MHD_stop_daemon", nullptr);
        application->onStopped = nullptr;
        if (std::strcmp(where, "onServerStopped") == 0)
            application->onStopped = tryLock;
        else
            record->onCall(where, tryLock);

        time.onWait(nullptr);
        server->startServer({});
        if (std::strcmp(where, "MHD_stop_daemon") == 0 ||
            std::strcmp(where, "onServerStopped") == 0)
            server->stopServer(true);
        ASSERT_TRUE(server->waitThread(kLimitMs));
        ASSERT_TRUE(stop);
        EXPECT_TRUE(wasBlocked);
        ASSERT_TRUE(stop->waitForEnd());
        EXPECT_EQ(server->getState(), http::HttpServer::Stopped);
    }
}

TEST_F(HttpServer, StopsAndDeletesTheApplicationLast)
{
    startAndWait();
    daemon.clearCalls();
    const char* const begin = reinterpret_cast<const char*>(server.get());
    sOnDestroyed = [&, end = begin + sizeof(OpenServer)](const char* name, const void* object) {
        if (std::less_equal<>()(begin, object) && std::less<>()(object, end))
            daemon.record(name);
    };
    server.reset();
    sOnDestroyed = nullptr;
    EXPECT_THAT(daemon.calls(), ElementsAre("onServerStopped", "MHD_stop_daemon",
                                            "~qvWaitCondition", "~qvMutex", "~HttpServerImpl"));
}

TEST_F(HttpServer, DeletesTheApplicationWithoutEverBeingStarted)
{
    server.reset();
    EXPECT_THAT(daemon.calls(), ElementsAre("~HttpServerImpl"));
}

TEST_F(HttpServer, NeedsPollOrEpoll)
{
    const struct
    {
        const char* name;
        std::set<MHD_FEATURE> features;
        bool starts;
        std::vector<LogLine> lines;
    } rows[] = {
        {"both", {MHD_FEATURE_POLL, MHD_FEATURE_EPOLL}, true, {kStarting}},
        {"epoll only", {MHD_FEATURE_EPOLL}, true, {kStarting}},
        {"poll only", {MHD_FEATURE_POLL}, true, {kNoEpoll, kStarting}},
        {"neither", {}, false, {kNoPoll}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        daemon.clearCalls();
        CapturedLog ownLog;
        daemon.setFeatures(row.features);
        application = new RecordingApplication(daemon);
        server = std::make_unique<OpenServer>(application);
        daemon.clearCalls();
        if (row.starts)
            startAndStop({});
        else
            startAndFail();
        EXPECT_EQ(ownLog.lines(), row.lines);
        EXPECT_EQ(daemon.callsOf("MHD_start_daemon").size(), row.starts ? 1u : 0u);
        EXPECT_EQ(daemon.callsOf("MHD_stop_daemon").size(), row.starts ? 1u : 0u);
        EXPECT_EQ(daemon.callsOf("onServerStopped").size(), 1u);
    }
}

TEST_F(HttpServer, AsksOnlyForPollAndEpoll)
{
    startAndStop({});
    for (const std::string& call : daemon.callsOf("MHD_is_feature_supported"))
        EXPECT_THAT(call,
                    ::testing::AnyOf("MHD_is_feature_supported 6", "MHD_is_feature_supported 7"));
}

TEST_F(HttpServer, RefusesToRunInAnUninitialisedLibrary)
{
    terminateWendrel();
    int state = -1;
    application->onStopped = [&] { state = server->getState(); };
    startAndFail();
    EXPECT_EQ(state, http::HttpServer::Starting);
    EXPECT_THAT(daemon.calls(), ElementsAre("onServerStopped"));
    EXPECT_THAT(log.lines(), ElementsAre(kNotInitialized));
}

TEST_F(HttpServer, GivesUpWithoutPollAndEpoll)
{
    daemon.setFeatures({MHD_FEATURE_MESSAGES});
    int state = -1;
    application->onStopped = [&] { state = server->getState(); };
    startAndFail();
    EXPECT_EQ(state, http::HttpServer::Starting);
    EXPECT_EQ(daemon.calls().back(), "onServerStopped");
    EXPECT_THAT(log.lines(), ElementsAre(kNoPoll));
    EXPECT_THAT(time.waits(), IsEmpty());
}

TEST_F(HttpServer, GivesUpWithoutADaemon)
{
    daemon.fail("MHD_start_daemon");
    int state = -1;
    application->onStopped = [&] { state = server->getState(); };
    startAndFail();
    EXPECT_EQ(state, http::HttpServer::Starting);
    EXPECT_THAT(daemon.callsOf("onServerStopped").size(), 1u);
    EXPECT_EQ(daemon.calls().back(), "onServerStopped");
    EXPECT_THAT(daemon.stops(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre(kStarting, kNoDaemon));
    EXPECT_THAT(time.waits(), IsEmpty());
}

TEST_F(HttpServer, CannotBeStartedAgainAfterAFailure)
{
    daemon.setFeatures({});
    startAndFail();
    daemon.setFeatures({MHD_FEATURE_POLL, MHD_FEATURE_EPOLL});
    daemon.clearCalls();
    server->startServer({});
    EXPECT_TRUE(server->waitThread(kLimitMs));
    EXPECT_EQ(server->getState(), http::HttpServer::Failed);
    server->stopServer(true);
    server->startServer({});
    EXPECT_TRUE(server->waitThread(kLimitMs));
    EXPECT_EQ(server->getState(), http::HttpServer::Failed);
    EXPECT_THAT(daemon.calls(), IsEmpty());
}

TEST_F(HttpServer, LeavesItsLockFreeAfterAFailure)
{
    daemon.fail("MHD_start_daemon");
    startAndFail();
    BackgroundCall stop([&] { server->stopServer(true); });
    EXPECT_TRUE(stop.waitForEnd());
    daemon.clearCalls();
    server.reset();
    EXPECT_THAT(daemon.calls(), ElementsAre("~HttpServerImpl"));
}

TEST(HttpServerInRealTime, StartsAndStops)
{
    initializeWendrel();
    {
        RecordingDaemon daemon;
        const CapturedLog log;
        Latch started;
        daemon.onCall("MHD_start_daemon", [&] { started.open(); });
        http::HttpServer server(new RecordingApplication(daemon));
        server.startServer({});
        ASSERT_TRUE(started.wait());
        server.stopServer(false);
        EXPECT_TRUE(server.waitThread(kLimitMs));
        EXPECT_EQ(server.getState(), http::HttpServer::Stopped);
        EXPECT_EQ(daemon.stops().size(), 1u);
    }
    terminateWendrel();
}

}  // namespace

}  // namespace qv::tests
