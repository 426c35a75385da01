// The poll thread and its workers, over socket pairs.

#include "support/BackgroundCall.h"
#include "support/CapturedLog.h"
#include "support/ScriptedSockets.h"
#include "support/VirtualSlot.h"
#include "websocket/BlockPool.h"
#include "websocket/Support.h"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace qv::tests
{

namespace
{

// Calls a function before each wake-up of a wait condition, on the thread that makes it.
class OnWake
{
public:
    explicit OnWake(std::function<void()> hook) : mHook(std::move(hook)) { sLatest = &mHook; }
    ~OnWake() { sLatest = nullptr; }
    OnWake(const OnWake&) = delete;
    OnWake& operator=(const OnWake&) = delete;

    static void Call(qvWaitCondition* condition, const char* mangled)
    {
        if (const std::function<void()>* hook = sLatest)
            (*hook)();
        using Real = void (*)(qvWaitCondition*);
        reinterpret_cast<Real>(dlsym(RTLD_NEXT, mangled))(condition);
    }

private:
    static std::atomic<const std::function<void()>*> sLatest;

    const std::function<void()> mHook;
};

std::atomic<const std::function<void()>*> OnWake::sLatest{nullptr};

}  // namespace

}  // namespace qv::tests

namespace qv
{

// A definition in the program comes before the one in a shared library.

void qvWaitCondition::wakeAll()
{
    tests::OnWake::Call(this, "_ZN2qv15qvWaitCondition7wakeAllEv");
}

void qvWaitCondition::wakeOne()
{
    tests::OnWake::Call(this, "_ZN2qv15qvWaitCondition7wakeOneEv");
}

}  // namespace qv

namespace qv::tests
{

namespace
{

using http::WebSocketThread;
using http::WebSocketWorkerThread;
using Access = WebSocketAccess;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr uint8_t kText = 0x81;
constexpr uint8_t kBroken = 0x83;  // an opcode that ends the connection

// The events of all threads in one order. Equal events in succession count once.
class EventLog
{
public:
    void add(const std::string& line)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mLines.empty() || mLines.back() != line)
            mLines.push_back(line);
        ++mEvents;
        mChanged.notify_all();
    }

    std::vector<std::string> lines() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mLines;
    }

    // How often this line stands there.
    size_t count(const std::string& line) const
    {
        const std::vector<std::string> all = lines();
        return static_cast<size_t>(std::count(all.begin(), all.end(), line));
    }

    bool has(const std::string& line) const { return count(line) != 0; }

    void clear()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mLines.clear();
    }

    // Checks `condition` after each event, and at intervals for conditions without an event. No
    // lock is held. False after the limit.
    bool wait(const std::function<bool()>& condition)
    {
        const auto end = std::chrono::steady_clock::now() + kLimit;
        while (std::chrono::steady_clock::now() < end) {
            const uint64_t seen = events();
            if (condition())
                return true;
            std::unique_lock<std::mutex> lock(mMutex);
            mChanged.wait_for(lock, milliseconds(5), [&] { return mEvents != seen; });
        }
        return condition();
    }

    bool waitFor(const std::string& line)
    {
        return wait([&] { return has(line); });
    }

private:
    uint64_t events() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEvents;
    }

    mutable std::mutex mMutex;  // guards all below
    std::condition_variable mChanged;
    std::vector<std::string> mLines;
    uint64_t mEvents = 0;
};

// Writes its messages and its end into the event log.
class TestSocket : public WebSocket
{
public:
    TestSocket(int fd, void* handle, std::string name, EventLog& eventLog)
        : WebSocket(fd, handle), mName(std::move(name)), mEventLog(eventLog)
    {}

    ~TestSocket() override
    {
        if (onEnd)
            onEnd();
        if (alive)
            --*alive;
        mEventLog.add("~" + mName);
    }

    void onMessageReceived(Bytes& received, bool) override
    {
        const std::string text(received.begin(), received.end());
        if (onMessage)
            onMessage(text);
        mEventLog.add(mName + ": " + text);
    }

    std::function<void(const std::string&)> onMessage;
    std::function<void()> onEnd;
    std::atomic<size_t>* alive = nullptr;  // how many of them there are; set when given away

private:
    const std::string mName;
    EventLog& mEventLog;
};

// One connection with both its ends.
struct Peer
{
    std::string name;
    SocketPair pair;
    char place = 0;                  // its address is the handle
    std::unique_ptr<WebSocket> own;  // until it is given away
    TestSocket* socket = nullptr;    // dangles when it has been destroyed

    const MHD_UpgradeResponseHandle* handle() const
    {
        return reinterpret_cast<const MHD_UpgradeResponseHandle*>(&place);
    }
    void send(const std::string& text) { pair.writeAll(ClientFrame(kText, ToBytes(text))); }
    void sendBroken() { pair.writeAll(ClientFrame(kBroken, ToBytes("x"))); }
};

class WebSocketThreadTest : public ::testing::Test
{
protected:
    using PollHook =
        std::function<std::optional<ScriptedSockets::Outcome>(pollfd* entries, size_t count)>;

    WebSocketThreadTest() : threads(std::make_unique<WebSocketThread>())
    {
        daemon.onCall("MHD_upgrade_action", [this] { eventLog.add("close"); });
        onPoll(nullptr);
    }

    ~WebSocketThreadTest() override
    {
        if (!threads)
            return;
        // A worker that holds a connection when it is stopped would never end.
        if (mayHold && !relieveWorkers()) {
            std::fprintf(stderr, "A worker did not hand its connection back.\n");
            std::abort();
        }
        threads.reset();
    }

    // Records each poll with the names of its connections. Then `hook` may return its outcome.
    void onPoll(PollHook hook)
    {
        sockets.onCall([this, hook](const ScriptedSockets::Attempt& attempt)
                           -> std::optional<ScriptedSockets::Outcome> {
            if (attempt.operation != ScriptedSockets::Poll)
                return std::nullopt;
            auto* entries = static_cast<pollfd*>(attempt.data);
            std::string line = "poll";
            for (size_t i = 0; i < attempt.length; ++i) {
                EXPECT_EQ(entries[i].revents, 0);
                line += " " + nameOf(entries[i].fd);
            }
            eventLog.add(line);
            return hook ? hook(entries, attempt.length) : std::nullopt;
        });
    }

    // The results of the first polls, one row of events per poll. The sockets are not polled.
    void pollFirst(std::vector<std::vector<short>> rows)
    {
        onPoll([rows = std::move(rows), row = std::make_shared<std::atomic<size_t>>(0)](
                   pollfd* entries, size_t count) -> std::optional<ScriptedSockets::Outcome> {
            const size_t now = (*row)++;
            if (now >= rows.size())
                return std::nullopt;
            EXPECT_EQ(rows[now].size(), count);
            ssize_t ready = 0;
            for (size_t i = 0; i < count && i < rows[now].size(); ++i) {
                entries[i].revents = rows[now][i];
                ready += entries[i].revents != 0;
            }
            return ScriptedSockets::Outcome{ready, 0};
        });
    }

    Peer& connect(const std::string& name)
    {
        Peer& peer = peers.emplace_back();
        peer.name = name;
        auto socket = std::make_unique<TestSocket>(peer.pair.server(), &peer.place, name, eventLog);
        peer.socket = socket.get();
        peer.own = std::move(socket);
        std::lock_guard<std::mutex> lock(namesMutex);
        names[peer.pair.server()] = name;
        return peer;
    }

    void give(Peer& peer)
    {
        peer.socket->alive = &alive;
        ++alive;
        threads->addWebSocket(peer.own);
        EXPECT_EQ(peer.own, nullptr);
    }

    Peer& add(const std::string& name)
    {
        Peer& peer = connect(name);
        give(peer);
        return peer;
    }

    void start(unsigned workers)
    {
        threads->startThreads(workers);
        mayHold = workers != 0;
    }

    // All threads have ended; nothing is left to be relieved.
    void stop()
    {
        if (mayHold && !relieveWorkers()) {
            std::fprintf(stderr, "A worker did not hand its connection back.\n");
            std::abort();
        }
        mayHold = false;
        threads->stopThreads(true);
    }

    // Gives every worker a new connection, so that each lets go of the one it has closed, and
    // waits until all connections are back with the poll thread.
    bool relieveWorkers()
    {
        const size_t count = Access::workerCount(*threads);
        auto arrived = std::make_shared<std::atomic<size_t>>(0);
        for (size_t i = 0; i < count; ++i) {
            Peer& peer = connect("fresh");
            peer.socket->onMessage = [this, arrived, count](const std::string&) {
                ++*arrived;
                eventLog.wait([&] { return *arrived == count; });
            };
            peer.send("hello");
            give(peer);
        }
        if (!eventLog.wait([&] { return *arrived == count; }))
            return false;
        return isAllPolled();
    }

    // Waits until the poll thread has every connection there is: no worker holds one, nor will
    // while the clients are silent.
    bool isAllPolled()
    {
        sockets.passThrough();
        onPoll(nullptr);
        sockets.clearCalls();
        return eventLog.wait([this] {
            const auto polls = sockets.callsOf(ScriptedSockets::Poll);
            return !polls.empty() && polls.back().result == 0 &&
                   polls.back().polled.size() == alive;
        });
    }

    // Whether another thread is kept from the lock of the threads.
    bool isLocked()
    {
        return lockers.emplace_back([this] { qvMutexLocker locker(&Access::lock(*threads)); })
            .isBlocked();
    }

    void joinLockers() { lockers.clear(); }

    std::string nameOf(int fd)
    {
        std::lock_guard<std::mutex> lock(namesMutex);
        const auto found = names.find(fd);
        return found == names.end() ? std::to_string(fd) : found->second;
    }

    const MHD_UpgradeResponseHandle* lastClosed() const
    {
        const auto handles = daemon.closedHandles();
        return handles.empty() ? nullptr : handles.back();
    }

    // The lines of messages.
    std::vector<std::string> messages() const
    {
        std::vector<std::string> found;
        for (const std::string& line : eventLog.lines())
            if (line.find(':') != std::string::npos)
                found.push_back(line);
        return found;
    }

    bool isIdle()
    {
        return eventLog.wait([this] { return Access::isPollThreadIdle(*threads); });
    }

    RecordingDaemon daemon;
    CapturedLog log;
    EventLog eventLog;
    ScriptedSockets sockets;
    std::mutex namesMutex;
    std::map<int, std::string> names;  // of the connections, by their socket
    std::deque<Peer> peers;
    std::deque<BackgroundCall> lockers;
    std::atomic<size_t> alive{0};  // connections that were given to the threads
    std::unique_ptr<WebSocketThread> threads;
    bool mayHold = false;
};

// The binary contract.

struct ThreadSlots : WebSocketThread
{
    static std::ptrdiff_t Run() { return VirtualSlot(&ThreadSlots::run); }
};

struct WorkerSlots : WebSocketWorkerThread
{
    static std::ptrdiff_t Run() { return VirtualSlot(&WorkerSlots::run); }
};

TEST(WebSocketThread, HasItsVirtualOperationsInTheirPlaces)
{
    static_assert(std::is_base_of_v<qvThread, WebSocketThread>);
    static_assert(std::is_base_of_v<qvThread, WebSocketWorkerThread>);
    static_assert(std::has_virtual_destructor_v<WebSocketThread>);
    static_assert(std::has_virtual_destructor_v<WebSocketWorkerThread>);
    EXPECT_EQ(ThreadSlots::Run(), 2);
    EXPECT_EQ(WorkerSlots::Run(), 2);
}

// Polling.

TEST_F(WebSocketThreadTest, SleepsWithoutConnectionsAndDoesNotPoll)
{
    start(0);
    ASSERT_TRUE(isIdle());
    ASSERT_TRUE(waitUntilOthersSleep());
    EXPECT_EQ(sockets.count(ScriptedSockets::Poll), 0u);

    pollFirst({{0}, {POLLERR}});
    add("a");
    ASSERT_TRUE(eventLog.waitFor("~a"));
    ASSERT_TRUE(isIdle());
    EXPECT_EQ(sockets.count(ScriptedSockets::Poll), 2u);
    ASSERT_TRUE(waitUntilOthersSleep());
    EXPECT_EQ(sockets.count(ScriptedSockets::Poll), 2u);
}

TEST_F(WebSocketThreadTest, IsIdleOnlyWhileItSleeps)
{
    std::atomic<bool> wasIdleInPoll{false};
    onPoll([&](pollfd* entries, size_t count) -> std::optional<ScriptedSockets::Outcome> {
        if (Access::isPollThreadIdle(*threads))
            wasIdleInPoll = true;
        for (size_t i = 0; i < count; ++i)
            entries[i].revents = POLLHUP;
        return ScriptedSockets::Outcome{static_cast<ssize_t>(count), 0};
    });
    add("first");  // is there when the thread begins
    start(0);
    ASSERT_TRUE(eventLog.waitFor("~first"));
    ASSERT_TRUE(isIdle());
    add("second");  // wakes it
    ASSERT_TRUE(eventLog.waitFor("~second"));
    ASSERT_TRUE(isIdle());
    EXPECT_FALSE(wasIdleInPoll);
}

TEST_F(WebSocketThreadTest, PollsForWritingOnlyWhileBytesAreQueued)
{
    Peer& silent = connect("silent");
    Peer& talking = connect("talking");
    talking.socket->writeMessage("hi", 2, false);
    give(silent);
    give(talking);
    start(1);
    ASSERT_TRUE(eventLog.waitFor("poll silent talking"));
    ASSERT_TRUE(eventLog.wait([&] { return ServerMessages(talking.pair.read()).size() == 1; }));
    // Both connections are polled again, in any order.
    ASSERT_TRUE(eventLog.wait([&] {
        const auto polls = sockets.callsOf(ScriptedSockets::Poll);
        return polls.size() > 1 && polls.back().polled.size() == 2;
    }));

    const auto polls = sockets.callsOf(ScriptedSockets::Poll);
    ASSERT_THAT(polls.front().polled, SizeIs(2));
    EXPECT_EQ(polls.front().polled[0].fd, silent.pair.server());
    EXPECT_EQ(polls.front().polled[0].events, POLLIN);
    EXPECT_EQ(polls.front().polled[1].fd, talking.pair.server());
    EXPECT_EQ(polls.front().polled[1].events, POLLIN | POLLOUT);
    EXPECT_EQ(polls.back().polled[0].events, POLLIN);
    EXPECT_EQ(polls.back().polled[1].events, POLLIN);
    for (const auto& poll : polls)
        EXPECT_EQ(poll.flags, 10) << "milliseconds";
}

TEST_F(WebSocketThreadTest, PollsASilentConnectionAgainAndAgain)
{
    start(1);
    add("a");
    ASSERT_TRUE(eventLog.wait([&] { return sockets.count(ScriptedSockets::Poll) >= 4; }));
    EXPECT_EQ(sockets.count(ScriptedSockets::Recv), 0u);
    EXPECT_EQ(sockets.count(ScriptedSockets::Send), 0u);
    EXPECT_EQ(Access::readyCount(*threads), 0u);
    EXPECT_THAT(eventLog.lines(), ElementsAre("poll a"));
}

TEST_F(WebSocketThreadTest, PollsAConnectionThatComesMeanwhileInTheNextCycle)
{
    // The thread goes on polling when this test has ended.
    const auto latch = std::make_shared<Latch>();
    onPoll([latch](pollfd*, size_t) -> std::optional<ScriptedSockets::Outcome> {
        latch->wait();
        return std::nullopt;
    });
    start(0);
    add("a");
    ASSERT_TRUE(eventLog.waitFor("poll a"));
    add("b");
    EXPECT_EQ(Access::newCount(*threads), 1u);
    latch->open();
    ASSERT_TRUE(eventLog.waitFor("poll b a"));
    EXPECT_THAT(eventLog.lines(), ElementsAre("poll a", "poll b a"));
}

TEST_F(WebSocketThreadTest, ClosesAndDestroysWhatHasFailedEvenWithDataToRead)
{
    const struct
    {
        const char* name;
        short events;
    } rows[] = {
        {"error", POLLERR},
        {"hang-up", POLLHUP},
        {"error with data", POLLERR | POLLIN},
        {"hang-up with data", POLLHUP | POLLIN},
        {"hang-up, readable and writable", POLLHUP | POLLIN | POLLOUT},
        {"everything", POLLHUP | POLLERR | POLLIN | POLLOUT | POLLNVAL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        threads = std::make_unique<WebSocketThread>();
        eventLog.clear();
        sockets.clearCalls();
        pollFirst({{row.events, 0}});
        Peer& failed = connect("failed");
        Peer& other = connect("other");
        bool locked = false;
        failed.socket->onEnd = [&] { locked = isLocked(); };
        failed.send("never read");
        give(failed);
        give(other);
        start(1);
        ASSERT_TRUE(eventLog.waitFor("poll other"));
        EXPECT_THAT(eventLog.lines(),
                    ElementsAre("poll failed other", "close", "~failed", "poll other"));
        EXPECT_EQ(lastClosed(), failed.handle());
        EXPECT_TRUE(locked);
        EXPECT_EQ(sockets.count(ScriptedSockets::Recv), 0u);
        joinLockers();
        stop();
    }
    EXPECT_THAT(daemon.closedHandles(), SizeIs(std::size(rows)));
}

TEST_F(WebSocketThreadTest, ClosesAConnectionWhoseClientHasClosed)
{
    Peer& peer = connect("a");
    peer.send("never read");
    peer.pair.closeClient();
    give(peer);
    start(1);
    ASSERT_TRUE(eventLog.waitFor("~a"));
    EXPECT_THAT(eventLog.lines(), ElementsAre("poll a", "close", "~a"));
    EXPECT_THAT(daemon.closedHandles(), ElementsAre(peer.handle()));
}

// Required: it is neither closed nor given to a worker.
TEST_F(WebSocketThreadTest, PollsADescriptorThatIsNotOpenAgain)
{
    // A sanitizer opens files when threads start: they get the numbers of these, which are lower.
    std::array<int, 16> lower{};
    for (int& descriptor : lower)
        descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    Peer& peer = connect("a");
    peer.pair.closeServer();
    for (const int descriptor : lower)
        close(descriptor);
    give(peer);
    start(1);
    ASSERT_TRUE(eventLog.wait([&] { return sockets.callsOf(ScriptedSockets::Poll).size() >= 3; }));
    for (const auto& poll : sockets.callsOf(ScriptedSockets::Poll)) {
        ASSERT_THAT(poll.polled, SizeIs(1));
        EXPECT_EQ(poll.polled[0].revents, POLLNVAL);
    }
    EXPECT_THAT(eventLog.lines(), ElementsAre("poll a"));
    EXPECT_THAT(daemon.closedHandles(), IsEmpty());
    // No worker has had it, so they end; it is destroyed as it is.
    mayHold = false;
    threads.reset();
    EXPECT_TRUE(eventLog.has("~a"));
    EXPECT_THAT(daemon.closedHandles(), IsEmpty());
}

TEST_F(WebSocketThreadTest, ServesAConnectionAfterADoubtfulDescriptor)
{
    pollFirst({{POLLNVAL}, {POLLNVAL}});
    Peer& peer = connect("a");
    peer.send("hello");
    give(peer);
    start(1);
    ASSERT_TRUE(eventLog.waitFor("a: hello"));
    EXPECT_GE(sockets.count(ScriptedSockets::Poll), 3u);
    EXPECT_THAT(daemon.closedHandles(), IsEmpty());
}

TEST_F(WebSocketThreadTest, SortsOneCycleInOrder)
{
    pollFirst({{POLLIN, 0, POLLHUP, POLLNVAL, POLLIN | POLLOUT}});
    for (const char* name : {"reads", "silent", "closed", "invalid", "both"}) {
        Peer& peer = connect(name);
        peer.send("hello");
        give(peer);
    }
    start(1);
    ASSERT_TRUE(eventLog.waitFor("invalid: hello"));
    // Messages are delivered in the order of the cycles in which they were received.
    EXPECT_THAT(messages(),
                ElementsAre("reads: hello", "both: hello", "silent: hello", "invalid: hello"));
    EXPECT_EQ(eventLog.count("close"), 1u);
    EXPECT_EQ(eventLog.count("~closed"), 1u);
    EXPECT_THAT(daemon.closedHandles(), ElementsAre(peers[2].handle()));
}

// Poll failure.

TEST_F(WebSocketThreadTest, EndsWhenPollFails)
{
    const struct
    {
        const char* name;
        int error;
        const char* text;
    } rows[] = {
        {"invalid", EINVAL, "Invalid argument"},
        {"no memory", ENOMEM, "Cannot allocate memory"},
        // Required: the threads must not be interrupted by signals.
        {"interrupted", EINTR, "Interrupted system call"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        threads = std::make_unique<WebSocketThread>();
        eventLog.clear();
        sockets.clearCalls();
        const size_t logged = log.lines().size();
        // Found by a connection that comes while poll is going on.
        onPoll([&](pollfd*, size_t) -> std::optional<ScriptedSockets::Outcome> {
            add("late");
            return ScriptedSockets::Outcome{-1, row.error};
        });
        connect("a").send("never read");
        connect("b");
        give(peers[peers.size() - 2]);
        give(peers.back());
        start(1);
        ASSERT_TRUE(eventLog.waitFor("~b"));
        ASSERT_TRUE(threads->waitThread(kLimitMs));
        // Destroyed, but not closed.
        EXPECT_THAT(eventLog.lines(), ElementsAre("poll a b", "~a", "~b"));
        EXPECT_THAT(daemon.closedHandles(), IsEmpty());
        ASSERT_THAT(log.lines(), SizeIs(logged + 1));
        EXPECT_EQ(
            log.lines().back(),
            (LogLine{5, "", std::string("Got an error during call to poll ") + row.text, true}));

        // A connection added now is kept and not polled. The lock is free.
        add("later");
        EXPECT_EQ(Access::newCount(*threads), 2u);
        ASSERT_TRUE(waitUntilOthersSleep());
        EXPECT_EQ(sockets.count(ScriptedSockets::Poll), 1u);
        mayHold = false;  // no connection was given to the worker
        threads->stopThreads(true);
        EXPECT_FALSE(eventLog.has("~later"));
        threads.reset();
        EXPECT_TRUE(eventLog.has("~late") && eventLog.has("~later"));
        EXPECT_THAT(daemon.closedHandles(), IsEmpty());
    }
}

TEST_F(WebSocketThreadTest, PollsAgainAfterAFailureOnlyWhenStartedWithoutWorkers)
{
    for (const unsigned workers : {0u, 1u}) {
        SCOPED_TRACE(workers);
        threads = std::make_unique<WebSocketThread>();
        sockets.clearCalls();
        sockets.fail(ScriptedSockets::Poll, 0, EINVAL);
        onPoll(nullptr);
        start(workers);
        add("a");
        ASSERT_TRUE(eventLog.wait([&] { return sockets.count(ScriptedSockets::Poll) == 1; }));
        ASSERT_TRUE(threads->waitThread(kLimitMs));
        sockets.passThrough();
        onPoll(nullptr);
        eventLog.clear();
        add("b");
        threads->startThreads(workers);
        if (workers == 0) {
            ASSERT_TRUE(eventLog.waitFor("poll b"));
        } else {
            ASSERT_TRUE(waitUntilOthersSleep());
            EXPECT_FALSE(eventLog.has("poll b"));
        }
        mayHold = false;
        threads.reset();
    }
}

// Workers.

TEST_F(WebSocketThreadTest, HandlesOneFrameATurn)
{
    sockets.cap(ScriptedSockets::Recv, ClientFrame(kText, ToBytes("1")).size());
    Peer& a = connect("a");
    Peer& b = connect("b");
    for (const char* text : {"1", "2", "3"})
        a.send(text);
    b.send("1");
    give(a);
    give(b);
    start(1);
    ASSERT_TRUE(eventLog.waitFor("a: 3"));
    EXPECT_THAT(messages(), ElementsAre("a: 1", "b: 1", "a: 2", "a: 3"));
}

TEST_F(WebSocketThreadTest, ServesFramesThatAreThereWithoutAPollBetween)
{
    sockets.cap(ScriptedSockets::Recv, ClientFrame(kText, ToBytes("1")).size());
    Peer& peer = connect("a");
    for (const char* text : {"1", "2", "3", "4"})
        peer.send(text);
    give(peer);
    start(2);
    ASSERT_TRUE(eventLog.wait([&] { return eventLog.count("poll a") == 2; }));
    EXPECT_THAT(eventLog.lines(), ElementsAre("poll a", "a: 1", "a: 2", "a: 3", "a: 4", "poll a"));
}

// Required: an empty socket ends the turns, with one buffered frame handled at most; a third
// frame that came with two others waits for further bytes of the client.
TEST_F(WebSocketThreadTest, LeavesTheThirdFrameOfOneReadUntilMoreComes)
{
    Peer& peer = connect("a");
    for (const char* text : {"1", "2", "3"})
        peer.send(text);
    give(peer);
    start(1);
    ASSERT_TRUE(eventLog.wait([&] { return eventLog.count("poll a") == 2; }));
    EXPECT_THAT(eventLog.lines(), ElementsAre("poll a", "a: 1", "a: 2", "poll a"));
    ASSERT_TRUE(isAllPolled());
    EXPECT_FALSE(eventLog.has("a: 3"));
    peer.send("4");
    ASSERT_TRUE(eventLog.waitFor("a: 4"));
    EXPECT_THAT(messages(), ElementsAre("a: 1", "a: 2", "a: 3", "a: 4"));
}

TEST_F(WebSocketThreadTest, ReadsOnlyWhatPollHasFoundReadable)
{
    Peer& peer = connect("a");
    peer.socket->writeMessage("hi", 2, false);
    peer.send("hello");
    pollFirst({{POLLOUT}, {0}});
    give(peer);
    start(1);
    ASSERT_TRUE(eventLog.waitFor("a: hello"));
    const auto calls = sockets.calls();
    std::vector<ScriptedSockets::Operation> order;
    for (const auto& call : calls)
        order.push_back(call.operation);
    ASSERT_GE(order.size(), 5u);
    order.resize(5);
    EXPECT_THAT(order,
                ElementsAre(ScriptedSockets::Poll, ScriptedSockets::Send, ScriptedSockets::Poll,
                            ScriptedSockets::Poll, ScriptedSockets::Recv));
    EXPECT_THAT(ServerMessages(peer.pair.read()), ElementsAre(Text(ToBytes("hi"))));
}

TEST_F(WebSocketThreadTest, SendsBeforeItReads)
{
    Peer& peer = connect("a");
    peer.socket->writeMessage("hi", 2, false);
    peer.send("hello");
    give(peer);
    start(1);
    ASSERT_TRUE(eventLog.waitFor("a: hello"));
    const auto calls = sockets.calls();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_EQ(calls[0].operation, ScriptedSockets::Poll);
    EXPECT_EQ(calls[1].operation, ScriptedSockets::Send);
    EXPECT_EQ(calls[2].operation, ScriptedSockets::Recv);
}

// Required: the closed connection stays with its worker until the next one takes its place.
TEST_F(WebSocketThreadTest, KeepsAConnectionThatItHasClosedUntilTheNextOne)
{
    const struct
    {
        const char* name;
        std::function<void(Peer&)> fail;
        bool isRead;  // the message gets to the application
    } rows[] = {
        {"broken frame", [](Peer& peer) { peer.sendBroken(); }, false},
        {"receiving fails",
         [&](Peer& peer) {
             sockets.fail(ScriptedSockets::Recv, 0, ECONNRESET);
             peer.send("hello");
         },
         false},
        {"sending fails, receiving is tried all the same",
         [&](Peer& peer) {
             sockets.fail(ScriptedSockets::Send, 0, EPIPE);
             peer.socket->writeMessage("hi", 2, false);
             peer.send("hello");
         },
         true},
        {"sending fails, nothing to receive",
         [&](Peer& peer) {
             sockets.fail(ScriptedSockets::Send, 0, ECONNRESET);
             peer.socket->writeMessage("hi", 2, false);
         },
         false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        threads = std::make_unique<WebSocketThread>();
        eventLog.clear();
        sockets.passThrough();
        onPoll(nullptr);
        sockets.clearCalls();
        Peer& failed = connect("failed");
        bool locked = false;
        failed.socket->onEnd = [&] { locked = isLocked(); };
        row.fail(failed);
        give(failed);
        start(1);
        ASSERT_TRUE(eventLog.waitFor("close"));
        ASSERT_TRUE(isIdle());
        ASSERT_TRUE(waitUntilOthersSleep());
        EXPECT_FALSE(eventLog.has("~failed"));
        EXPECT_EQ(eventLog.has("failed: hello"), row.isRead);
        EXPECT_EQ(lastClosed(), failed.handle());

        Peer& next = connect("next");
        next.send("hello");
        give(next);
        ASSERT_TRUE(eventLog.waitFor("next: hello"));
        const std::vector<std::string> lines = eventLog.lines();
        const auto end = std::find(lines.begin(), lines.end(), "~failed");
        EXPECT_LT(end, std::find(lines.begin(), lines.end(), "next: hello"));
        EXPECT_TRUE(locked);
        joinLockers();
        stop();
    }
    EXPECT_THAT(daemon.closedHandles(), SizeIs(std::size(rows)));
}

TEST_F(WebSocketThreadTest, IsTheConnectionsThreadWhileItHandlesIt)
{
    Peer& peer = connect("a");
    std::string during;
    size_t sentDuring = 0;
    peer.socket->onMessage = [&](const std::string&) {
        during = Access::currentThread(*peer.socket);
        EXPECT_EQ(during, qvThread::CurrentThreadId());
        peer.socket->writeMessage("at once", 7, false);
        sentDuring = sockets.callsOf(ScriptedSockets::Send).size();
    };
    peer.send("hello");
    give(peer);
    start(1);
    ASSERT_TRUE(eventLog.wait([&] { return eventLog.count("poll a") == 2; }));
    EXPECT_NE(during, "");
    EXPECT_NE(during, qvThread::CurrentThreadId());
    EXPECT_EQ(sentDuring, 1u);
    EXPECT_EQ(Access::currentThread(*peer.socket), "");
}

TEST_F(WebSocketThreadTest, KeepsBlocksForTheNextMessagesOfAWorker)
{
    Peer& peer = connect("a");
    bool wasKept = false;
    peer.socket->onMessage = [&](const std::string&) {
        impl::BlockPool::Queue queue;
        impl::BlockPool::Append(queue, 1024);
        const uint8_t* const place = queue.front().data();
        impl::BlockPool::FreeFirst(queue);
        // Had the allocator got it back, this would get it.
        const std::vector<uint8_t> another(1024);
        impl::BlockPool::Append(queue, 1024);
        wasKept = queue.front().data() == place && another.data() != place;
    };
    peer.send("hello");
    give(peer);
    start(1);
    ASSERT_TRUE(eventLog.wait([&] { return eventLog.count("poll a") == 2; }));
    EXPECT_TRUE(wasKept);
}

TEST_F(WebSocketThreadTest, SendsWhatAnotherThreadHasWritten)
{
    Peer& peer = add("a");
    start(1);
    ASSERT_TRUE(eventLog.waitFor("poll a"));
    std::vector<Message> received;
    for (const char* text : {"one", "two"}) {
        peer.socket->writeMessage(text, 3, false);
        ASSERT_TRUE(eventLog.wait([&] {
            for (const Message& message : ServerMessages(peer.pair.read()))
                received.push_back(message);
            return !received.empty() && received.back() == Text(ToBytes(text));
        }));
    }
    EXPECT_THAT(received, SizeIs(2));
    for (const auto& send : sockets.callsOf(ScriptedSockets::Send))
        EXPECT_NE(send.thread, std::this_thread::get_id());
    EXPECT_EQ(sockets.count(ScriptedSockets::Recv), 0u);
}

TEST_F(WebSocketThreadTest, SendsTheRestWhenTheClientHasReadSome)
{
    Peer& peer = add("a");
    start(1);
    const Bytes large = Pattern(4 << 20);
    peer.socket->writeMessage(large.data(), large.size(), true);
    Bytes received;
    ASSERT_TRUE(eventLog.wait([&] {
        const Bytes part = peer.pair.read();
        received.insert(received.end(), part.begin(), part.end());
        return received.size() >= large.size() && !peer.socket->hasWritePending();
    }));
    const Bytes part = peer.pair.read();
    received.insert(received.end(), part.begin(), part.end());
    EXPECT_EQ(ServerMessages(received).size(), 1u);
    EXPECT_TRUE(ServerMessages(received).front() == Binary(large));
}

// The operations of a worker, one by one.

TEST_F(WebSocketThreadTest, GetsTheFirstReadyConnectionAndDestroysTheOneBefore)
{
    std::vector<WebSocket*> order;
    bool locked = false;
    for (const char* name : {"a", "b"}) {
        Peer& peer = connect(name);
        order.push_back(peer.socket);
        peer.socket->onEnd = [&] { locked = isLocked(); };
        peer.socket->setReadEnabled(true);
        threads->giveBackWebSocket(peer.own);
        EXPECT_EQ(peer.own, nullptr);
    }
    EXPECT_EQ(Access::readyCount(*threads), 2u);
    EXPECT_EQ(Access::newCount(*threads), 0u);

    std::unique_ptr<WebSocket> mine;
    threads->getFirstWebSocket(mine);
    EXPECT_EQ(mine.get(), order[0]);
    EXPECT_THAT(eventLog.lines(), IsEmpty());
    threads->getFirstWebSocket(mine);
    EXPECT_EQ(mine.get(), order[1]);
    EXPECT_THAT(eventLog.lines(), ElementsAre("~a"));
    EXPECT_TRUE(locked);
    joinLockers();
    EXPECT_EQ(Access::readyCount(*threads), 0u);
    EXPECT_THAT(daemon.closedHandles(), IsEmpty());
    order.clear();
    mine.reset();
    joinLockers();
}

TEST_F(WebSocketThreadTest, WaitsForAReadyConnection)
{
    Peer& peer = connect("a");
    std::unique_ptr<WebSocket> mine;
    BackgroundCall call([&] { threads->getFirstWebSocket(mine); });
    EXPECT_TRUE(call.isBlocked());
    WebSocket* given = peer.own.get();
    peer.socket->setReadEnabled(true);
    threads->giveBackWebSocket(peer.own);
    EXPECT_TRUE(call.waitForEnd());
    threads->stopThreads(false);  // should it still wait
    EXPECT_TRUE(call.waitForEnd());
    EXPECT_EQ(mine.get(), given);
}

TEST_F(WebSocketThreadTest, StopsWaitingWhenItIsStopped)
{
    Peer& peer = connect("a");
    const WebSocket* before = peer.own.get();
    BackgroundCall call([&] { threads->getFirstWebSocket(peer.own); });
    EXPECT_TRUE(call.isBlocked());
    threads->stopThreads(false);
    ASSERT_TRUE(call.waitForEnd());
    EXPECT_EQ(peer.own.get(), before);
}

TEST_F(WebSocketThreadTest, GetsNothingMoreWhenItIsStopped)
{
    Peer& ready = connect("ready");
    ready.socket->setReadEnabled(true);
    threads->giveBackWebSocket(ready.own);
    threads->stopThreads(false);
    std::unique_ptr<WebSocket> mine;
    threads->getFirstWebSocket(mine);
    EXPECT_EQ(mine, nullptr);
    Peer& own = connect("own");
    threads->getFirstWebSocket(own.own);
    EXPECT_EQ(own.own.get(), own.socket);
    EXPECT_EQ(Access::readyCount(*threads), 1u);
    EXPECT_THAT(eventLog.lines(), IsEmpty());
}

TEST_F(WebSocketThreadTest, TakesAConnectionBackForItsPollThreadOrForAWorker)
{
    Peer& read = connect("read");
    Peer& other = connect("other");
    read.socket->setReadEnabled(true);
    threads->giveBackWebSocket(read.own);
    EXPECT_EQ(read.own, nullptr);
    EXPECT_EQ(Access::readyCount(*threads), 1u);
    EXPECT_EQ(Access::newCount(*threads), 0u);
    threads->giveBackWebSocket(other.own);
    EXPECT_EQ(other.own, nullptr);
    EXPECT_EQ(Access::readyCount(*threads), 1u);
    EXPECT_EQ(Access::newCount(*threads), 1u);
    EXPECT_THAT(eventLog.lines(), IsEmpty());
}

TEST_F(WebSocketThreadTest, TakesAConnectionBackBehindThoseThatWait)
{
    std::vector<WebSocket*> order;
    for (const char* name : {"a", "b", "c"}) {
        Peer& peer = connect(name);
        order.push_back(peer.own.get());
        peer.socket->setReadEnabled(true);
        threads->giveBackWebSocket(peer.own);
    }
    for (WebSocket* expected : order) {
        std::unique_ptr<WebSocket> mine;
        threads->getFirstWebSocket(mine);
        EXPECT_EQ(mine.get(), expected);
    }
}

// Stopping.

TEST_F(WebSocketThreadTest, ClosesWhatComesAfterTheStopAndLeavesItWithTheCaller)
{
    const struct
    {
        const char* name;
        bool readPending;
        std::function<void(std::unique_ptr<WebSocket>&)> hand;
    } rows[] = {
        {"added", false, [&](auto& socket) { threads->addWebSocket(socket); }},
        {"added, to be read", true, [&](auto& socket) { threads->addWebSocket(socket); }},
        {"given back", false, [&](auto& socket) { threads->giveBackWebSocket(socket); }},
        {"given back, to be read", true, [&](auto& socket) { threads->giveBackWebSocket(socket); }},
    };
    threads->stopThreads(false);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Peer& peer = connect("a");
        peer.socket->setReadEnabled(row.readPending);
        bool locked = true;
        daemon.onCall("MHD_upgrade_action", [&] { locked = isLocked(); });
        row.hand(peer.own);
        ASSERT_EQ(peer.own.get(), peer.socket);
        EXPECT_EQ(peer.own->getSocket(), -1);
        EXPECT_EQ(lastClosed(), peer.handle());
        EXPECT_FALSE(locked);
        joinLockers();
    }
    EXPECT_THAT(daemon.closedHandles(), SizeIs(std::size(rows)));
    EXPECT_THAT(eventLog.lines(), IsEmpty());
    EXPECT_EQ(Access::newCount(*threads), 0u);
    EXPECT_EQ(Access::readyCount(*threads), 0u);
}

TEST_F(WebSocketThreadTest, StopsIdleThreads)
{
    for (const unsigned workers : {0u, 1u, 4u}) {
        SCOPED_TRACE(workers);
        threads = std::make_unique<WebSocketThread>();
        start(workers);
        ASSERT_TRUE(isIdle());
        mayHold = false;
        threads->stopThreads(true);
        EXPECT_TRUE(threads->waitThread(0));
        EXPECT_EQ(Access::workerCount(*threads), workers);
        for (unsigned i = 0; i < workers; ++i)
            EXPECT_TRUE(Access::hasWorkerEnded(*threads, i));
        EXPECT_EQ(sockets.count(ScriptedSockets::Poll), 0u);
        threads->stopThreads(true);  // once more: nothing to do
        threads->stopThreads(false);
    }
}

TEST_F(WebSocketThreadTest, EndsAtOnceWhenStartedAfterTheStop)
{
    Peer& peer = connect("a");
    peer.send("hello");
    give(peer);
    threads->stopThreads(true);  // there is nothing to wait for
    threads->startThreads(2);
    EXPECT_TRUE(threads->waitThread(kLimitMs));
    EXPECT_EQ(Access::workerCount(*threads), 2u);
    EXPECT_TRUE(eventLog.wait([&] {
        return Access::hasWorkerEnded(*threads, 0) && Access::hasWorkerEnded(*threads, 1);
    }));
    EXPECT_THAT(eventLog.lines(), IsEmpty());
}

TEST_F(WebSocketThreadTest, WaitsForItsThreadsOnlyWhenAskedTo)
{
    Latch latch;
    onPoll([&](pollfd*, size_t) -> std::optional<ScriptedSockets::Outcome> {
        latch.wait();
        return std::nullopt;
    });
    start(1);
    add("a");
    ASSERT_TRUE(eventLog.waitFor("poll a"));
    threads->stopThreads(false);
    EXPECT_FALSE(threads->waitThread(0));
    BackgroundCall stop([this] { threads->stopThreads(true); });
    EXPECT_TRUE(stop.isBlocked());
    EXPECT_FALSE(threads->waitThread(0));
    latch.open();
    EXPECT_TRUE(stop.waitForEnd());
    EXPECT_TRUE(threads->waitThread(0));
    EXPECT_TRUE(Access::hasWorkerEnded(*threads, 0));
    EXPECT_EQ(sockets.count(ScriptedSockets::Poll), 1u);
    mayHold = false;
}

TEST_F(WebSocketThreadTest, FinishesItsCycleWhenItIsStopped)
{
    Latch latch;
    onPoll([&](pollfd* entries, size_t count) -> std::optional<ScriptedSockets::Outcome> {
        latch.wait();
        EXPECT_EQ(count, 3u);
        entries[0].revents = 0;
        entries[1].revents = POLLIN;
        entries[2].revents = POLLHUP;
        return ScriptedSockets::Outcome{2, 0};
    });
    for (const char* name : {"silent", "reads", "closed"}) {
        Peer& peer = connect(name);
        peer.send("never read");
        give(peer);
    }
    start(1);
    ASSERT_TRUE(eventLog.waitFor("poll silent reads closed"));
    threads->stopThreads(false);
    latch.open();
    mayHold = false;
    threads->stopThreads(true);
    EXPECT_THAT(eventLog.lines(), ElementsAre("poll silent reads closed", "close", "~closed"));
    EXPECT_EQ(Access::newCount(*threads), 1u);
    EXPECT_EQ(Access::readyCount(*threads), 1u);

    // The remaining connections are destroyed, not closed: first those that waited for a worker.
    threads.reset();
    EXPECT_THAT(eventLog.lines(),
                ElementsAre("poll silent reads closed", "close", "~closed", "~reads", "~silent"));
    EXPECT_THAT(daemon.closedHandles(), ElementsAre(peers[2].handle()));
}

TEST_F(WebSocketThreadTest, DestroysItsConnectionsWithoutClosingThem)
{
    add("new");
    Peer& ready = connect("ready");
    ready.socket->setReadEnabled(true);
    threads->giveBackWebSocket(ready.own);
    threads.reset();
    EXPECT_THAT(eventLog.lines(), ElementsAre("~ready", "~new"));
    EXPECT_THAT(daemon.calls(), IsEmpty());
}

TEST_F(WebSocketThreadTest, StopsInItsDestructor)
{
    add("a");
    add("b");
    start(3);
    ASSERT_TRUE(eventLog.waitFor("poll a b"));
    mayHold = false;  // no client has sent anything
    threads.reset();
    EXPECT_TRUE(eventLog.has("~a") && eventLog.has("~b"));
    EXPECT_THAT(daemon.calls(), IsEmpty());
}

// Starting.

TEST_F(WebSocketThreadTest, StartsItsWorkersOnce)
{
    start(2);
    threads->startThreads(3);
    threads->startThreads(0);
    EXPECT_EQ(Access::workerCount(*threads), 2u);
    Peer& peer = connect("a");
    peer.send("hello");
    give(peer);
    EXPECT_TRUE(eventLog.waitFor("a: hello"));
}

TEST_F(WebSocketThreadTest, LeavesReadyConnectionsWaitingWithoutWorkers)
{
    threads->startThreads(0);
    for (const char* name : {"a", "b"}) {
        Peer& peer = connect(name);
        peer.send("hello");
        give(peer);
    }
    ASSERT_TRUE(eventLog.wait([&] { return Access::readyCount(*threads) == 2; }));
    ASSERT_TRUE(isIdle());
    threads->startThreads(0);  // the poll thread goes on
    ASSERT_TRUE(waitUntilOthersSleep());
    EXPECT_EQ(Access::workerCount(*threads), 0u);
    EXPECT_EQ(sockets.count(ScriptedSockets::Recv), 0u);
    EXPECT_EQ(Access::readyCount(*threads), 2u);

    start(1);
    EXPECT_TRUE(eventLog.waitFor("a: hello"));
    EXPECT_TRUE(eventLog.waitFor("b: hello"));
}

TEST_F(WebSocketThreadTest, ServesAsManyConnectionsAtOnceAsItHasWorkers)
{
    constexpr size_t kWorkers = 3;
    std::atomic<size_t> inside{0};
    std::mutex mutex;
    std::set<std::thread::id> workers;  // guarded by mutex
    for (const char* name : {"a", "b", "c"}) {
        Peer& peer = connect(name);
        peer.socket->onMessage = [&](const std::string&) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                workers.insert(std::this_thread::get_id());
            }
            ++inside;
            EXPECT_TRUE(eventLog.wait([&] { return inside == kWorkers; }));
        };
        peer.send("hello");
        give(peer);
    }
    start(kWorkers);
    for (const char* line : {"a: hello", "b: hello", "c: hello"})
        EXPECT_TRUE(eventLog.waitFor(line));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_THAT(workers, SizeIs(kWorkers));
}

TEST_F(WebSocketThreadTest, WakesThePollThreadWithTheLockHeld)
{
    start(0);
    ASSERT_TRUE(isIdle());
    std::vector<bool> wakes;
    {
        const OnWake onWake([&] { wakes.push_back(isLocked()); });
        add("a");
    }
    joinLockers();
    EXPECT_THAT(wakes, ElementsAre(true));
}

TEST_F(WebSocketThreadTest, WakesWorkersOnceACycleWithTheLockHeld)
{
    std::atomic<size_t> wakes{0};
    std::atomic<bool> wasLocked{true};
    for (const char* name : {"a", "b", "c"}) {
        Peer& peer = connect(name);
        peer.send("hello");
        give(peer);
    }
    const OnWake onWake([&] {
        wasLocked = wasLocked && isLocked();
        ++wakes;
    });
    start(0);
    ASSERT_TRUE(isIdle());
    EXPECT_EQ(Access::readyCount(*threads), 3u);
    EXPECT_EQ(wakes, 1u);
    EXPECT_TRUE(wasLocked);
    joinLockers();
}

TEST_F(WebSocketThreadTest, WakesAWorkerWithTheLockHeldForAConnectionThatIsGivenBack)
{
    Peer& peer = connect("a");
    peer.socket->setReadEnabled(true);
    std::vector<bool> wakes;
    {
        const OnWake onWake([&] { wakes.push_back(isLocked()); });
        threads->giveBackWebSocket(peer.own);
    }
    joinLockers();
    EXPECT_EQ(peer.own, nullptr);
    EXPECT_THAT(wakes, ElementsAre(true));
}

TEST_F(WebSocketThreadTest, WakesAWorkerAlsoWhenAWorkerGivesTheConnectionBack)
{
    std::mutex mutex;
    std::vector<std::thread::id> wakers;  // guarded by mutex
    std::atomic<std::thread::id> worker;
    add("silent");  // keeps the poll thread from its sleep
    Peer& peer = connect("a");
    peer.socket->onMessage = [&](const std::string&) { worker = std::this_thread::get_id(); };
    peer.send("one");
    peer.send("two");
    give(peer);
    {
        const OnWake onWake([&] {
            std::lock_guard<std::mutex> lock(mutex);
            wakers.push_back(std::this_thread::get_id());
        });
        start(1);
        ASSERT_TRUE(eventLog.waitFor("a: two"));
        ASSERT_TRUE(isAllPolled());
    }
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(std::count(wakers.begin(), wakers.end(), worker.load()), 1);
}

TEST_F(WebSocketThreadTest, WakesAWorkerForAConnectionThatIsGivenBack)
{
    start(2);
    Peer& first = connect("first");
    first.send("hello");
    give(first);
    ASSERT_TRUE(eventLog.waitFor("first: hello"));
    ASSERT_TRUE(isAllPolled());  // both workers wait, or are about to
    EXPECT_TRUE(waitUntilOthersSleep());
    Peer& second = connect("second");
    second.send("hello");
    second.socket->alive = &alive;
    ++alive;
    second.socket->setReadEnabled(true);
    threads->giveBackWebSocket(second.own);
    EXPECT_TRUE(eventLog.waitFor("second: hello"));
}

// Many at once.

// Echoes and records its messages. Only the worker that holds the connection touches the record.
class EchoSocket : public WebSocket
{
public:
    EchoSocket(int fd, std::vector<Message>& record) : WebSocket(fd, nullptr), mRecord(record) {}

    void onMessageReceived(Bytes& received, bool isBinary) override
    {
        writeMessage(received.data(), received.size(), isBinary);
        mRecord.push_back({std::move(received), isBinary});
    }

private:
    std::vector<Message>& mRecord;
};

// Messages of other threads are longer than any echo, so the client can distinguish them.
constexpr size_t kWrittenBytes = 4000;

// A client that sends a message when it has got the echo of the one before.
struct ManyPeer
{
    SocketPair pair;
    WebSocket* socket = nullptr;
    std::vector<Message> sent;
    std::vector<Message> written;  // on the server's side, by a foreign thread
    std::vector<Message> handled;  // by the server
    std::vector<Bytes> requests;   // the frames of `sent`
    size_t next = 0;               // of these
    size_t done = 0;               // bytes of the one before
    Bytes incoming;
    size_t parsed = 0;
    size_t echoes = 0;
    size_t others = 0;

    bool isDone() const { return echoes == sent.size() && others == written.size(); }

    void step()
    {
        if (next < requests.size() && echoes == next) {
            const Bytes& request = requests[next];
            done += pair.write(request.data() + done, request.size() - done);
            if (done == request.size()) {
                ++next;
                done = 0;
            }
        }
        const Bytes part = pair.read();
        incoming.insert(incoming.end(), part.begin(), part.end());
        parse();
    }

    // All these frames have a length of one or two bytes.
    void parse()
    {
        while (incoming.size() - parsed >= 4) {
            const uint8_t* at = incoming.data() + parsed;
            const bool isLong = at[1] == 126;
            const size_t payload = isLong ? at[2] * 256u + at[3] : at[1];
            const size_t frame = payload + (isLong ? 4 : 2);
            if (incoming.size() - parsed < frame)
                return;
            ++(payload < kWrittenBytes ? echoes : others);
            parsed += frame;
        }
    }
};

TEST(WebSocketThread, GetsEachMessageOnceAndInOrderOverManyConnections)
{
    constexpr size_t kPeers = 24;
    constexpr size_t kMessages = 60;
    constexpr size_t kWritten = 20;
    constexpr unsigned kWorkers = 4;
    constexpr size_t kClientThreads = 3;

    RecordingDaemon daemon;
    WebSocketThread threads;
    std::vector<std::unique_ptr<ManyPeer>> peers;
    for (size_t p = 0; p < kPeers; ++p) {
        auto peer = std::make_unique<ManyPeer>();
        for (size_t m = 0; m < kMessages; ++m) {
            const size_t size = 2 + ((m + p) % 3 == 0 ? (m * 211 + p * 97) % 3000 : m % 130);
            const Message message{Pattern(size, static_cast<uint32_t>(p * 1000 + m)), m % 2 == 0};
            const uint8_t opcode = message.isBinary ? 2 : 1;
            const auto cut = message.payload.begin() + static_cast<ptrdiff_t>(size / 2);
            peer->requests.push_back(
                m % 5 == 0 ? ClientFrame(opcode, Bytes(message.payload.begin(), cut)) +
                                 ClientFrame(0x80, Bytes(cut, message.payload.end()))
                           : ClientFrame(0x80 | opcode, message.payload));
            peer->sent.push_back(message);
        }
        for (size_t w = 0; w < kWritten; ++w)
            peer->written.push_back(
                Binary(Pattern(kWrittenBytes + w, static_cast<uint32_t>(p * 1000 + w))));
        auto socket = std::make_unique<EchoSocket>(peer->pair.server(), peer->handled);
        peer->socket = socket.get();
        std::unique_ptr<WebSocket> given = std::move(socket);
        threads.addWebSocket(given);
        peers.push_back(std::move(peer));
    }
    threads.startThreads(kWorkers);

    std::vector<std::thread> clients;
    const auto end = std::chrono::steady_clock::now() + 2 * kLimit;
    for (size_t t = 0; t < kClientThreads; ++t) {
        clients.emplace_back([&, t] {
            for (bool done = false; !done && std::chrono::steady_clock::now() < end;) {
                done = true;
                std::vector<pollfd> ends;
                for (size_t p = t; p < kPeers; p += kClientThreads) {
                    peers[p]->step();
                    done = done && peers[p]->isDone();
                    ends.push_back({peers[p]->pair.client(), POLLIN, 0});
                }
                if (!done)
                    ::poll(ends.data(), ends.size(), 10);
            }
        });
    }
    for (size_t w = 0; w < kWritten; ++w)
        for (const auto& peer : peers)
            peer->socket->writeMessage(peer->written[w].payload.data(),
                                       peer->written[w].payload.size(), true);
    for (std::thread& client : clients)
        client.join();

    // All is quiet now: when the poll thread has every connection, no worker has one.
    ScriptedSockets sockets;
    EventLog eventLog;
    const bool isQuiet = eventLog.wait([&] {
        const auto polls = sockets.callsOf(ScriptedSockets::Poll);
        return !polls.empty() && polls.back().result == 0 && polls.back().polled.size() == kPeers;
    });
    if (!isQuiet) {
        std::fprintf(stderr, "A connection did not come back.\n");
        std::abort();
    }
    threads.stopThreads(true);

    for (const auto& peer : peers) {
        EXPECT_TRUE(peer->handled == peer->sent);
        std::vector<Message> echoed;
        std::vector<Message> written;
        for (const Message& message : ServerMessages(peer->incoming))
            (message.payload.size() < kWrittenBytes ? echoed : written).push_back(message);
        EXPECT_TRUE(echoed == peer->sent);
        EXPECT_TRUE(written == peer->written);
    }
    EXPECT_THAT(daemon.calls(), IsEmpty());
}

// A worker that never ends: shown in a process of its own, which is then left.

class WebSocketThreadDeathTest : public WebSocketThreadTest
{
protected:
    // Stops the threads while one worker holds a closed connection, and ends the process: with 0 if
    // that worker busy-waits.
    [[noreturn]] void exitWhenTheWorkerSpins(const std::function<void()>& afterTheStop = nullptr)
    {
        std::atomic<bool> hasStopped{false};
        std::thread stopper([&] {
            threads->stopThreads(true);
            hasStopped = true;
        });
        EXPECT_TRUE(eventLog.wait([&] { return threads->waitThread(0); }));
        if (afterTheStop)
            afterTheStop();
        EXPECT_TRUE(eventLog.waitFor("close"));
        sockets.clearCalls();
        constexpr size_t kRounds = 2000;
        EXPECT_TRUE(eventLog.wait([&] {
            return sockets.count(ScriptedSockets::Recv) + sockets.count(ScriptedSockets::Send) >
                   kRounds;
        }));
        for (const auto& call : sockets.calls())
            EXPECT_EQ(call.fd, -1);
        EXPECT_FALSE(hasStopped);
        EXPECT_FALSE(Access::hasWorkerEnded(*threads, 0));
        EXPECT_THAT(daemon.closedHandles(), SizeIs(1));  // once is enough
        EXPECT_FALSE(eventLog.has("~a"));
        std::_Exit(HasFailure() ? 1 : 0);
    }

    // Ends the process should any of this hang.
    static void limitThisProcess() { ::alarm(120); }
};

// Required: it finds the connection untouched, and the loop repeats.
TEST_F(WebSocketThreadDeathTest, GoesRoundWithAClosedConnectionAfterTheStop)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto goRound = [this](bool sendingFails) {
        limitThisProcess();
        Peer& peer = connect("a");
        if (sendingFails) {
            sockets.fail(ScriptedSockets::Send, 0, EPIPE);
            peer.socket->writeMessage("hi", 2, false);
        } else {
            peer.sendBroken();
        }
        give(peer);
        start(1);
        EXPECT_TRUE(eventLog.waitFor("close"));
        exitWhenTheWorkerSpins();
    };
    EXPECT_EXIT(goRound(false), ::testing::ExitedWithCode(0), "") << "a broken frame";
    EXPECT_EXIT(goRound(true), ::testing::ExitedWithCode(0), "") << "sending fails";
}

// Required likewise: a healthy connection whose turn is not over is closed when it is given back.
TEST_F(WebSocketThreadDeathTest, GoesRoundWithTheConnectionItHandledWhenItWasStopped)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto goRound = [this] {
        limitThisProcess();
        Latch latch;
        Peer& peer = connect("a");
        peer.socket->onMessage = [&](const std::string&) {
            eventLog.add("inside");
            latch.wait();
        };
        peer.send("hello");
        give(peer);
        start(1);
        EXPECT_TRUE(eventLog.waitFor("inside"));
        exitWhenTheWorkerSpins([&] {
            EXPECT_THAT(daemon.closedHandles(), IsEmpty());
            latch.open();
        });
    };
    EXPECT_EXIT(goRound(), ::testing::ExitedWithCode(0), "");
}

// The first worker has ended long before.
TEST_F(WebSocketThreadDeathTest, WaitsForEachOfItsWorkers)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto waitForTheLast = [this] {
        limitThisProcess();
        Latch latches[2];
        std::atomic<pid_t> workers[2] = {0, 0};
        for (size_t i = 0; i < 2; ++i) {
            Peer& peer = connect(i == 0 ? "a" : "b");
            peer.socket->onMessage = [&, i](const std::string&) {
                workers[i] = ::gettid();
                eventLog.wait([&] { return workers[0] != 0 && workers[1] != 0; });
                latches[i].wait();
            };
            peer.send("hello");
            give(peer);
        }
        start(2);
        EXPECT_TRUE(eventLog.wait([&] { return workers[0] != 0 && workers[1] != 0; }));
        // The worker that started later keeps its connection and busy-waits with it.
        const size_t busy = workers[0] > workers[1] ? 0 : 1;
        latches[1 - busy].open();
        EXPECT_TRUE(eventLog.waitFor(busy == 0 ? "poll b" : "poll a"));

        std::atomic<bool> hasStopped{false};
        std::thread stopper([&] {
            threads->stopThreads(true);
            hasStopped = true;
        });
        EXPECT_TRUE(eventLog.wait([&] {
            return threads->waitThread(0) &&
                   (Access::hasWorkerEnded(*threads, 0) || Access::hasWorkerEnded(*threads, 1));
        }));
        ASSERT_TRUE(waitUntilOthersSleep());
        EXPECT_FALSE(hasStopped);
        std::_Exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(waitForTheLast(), ::testing::ExitedWithCode(0), "");
}

}  // namespace

}  // namespace qv::tests
